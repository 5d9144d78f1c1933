// libmicrohttpd with one epoll thread of its own, or with a thread per connection:
// bench_peer_microhttpd PORT [--threads] [--files DIRECTORY]

#include "bench/peers/peer_text.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace {

struct Peer {
    MHD_Response* text_ = nullptr;
    std::string directory_; ///< "" serves no files
};

MHD_Result answer_file(const Peer& peer, MHD_Connection* connection, const char* url)
{
    const int fd = ::open((peer.directory_ + url).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (fd == -1 || ::fstat(fd, &status) == -1) {
        if (fd != -1) {
            ::close(fd);
        }
        return MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, peer.text_);
    }
    MHD_Response* const response =
        MHD_create_response_from_fd64(static_cast<std::uint64_t>(status.st_size), fd);
    const MHD_Result result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result answer(void* context, MHD_Connection* connection, const char* url, const char*,
                  const char*, const char*, size_t* upload_size, void** state)
{
    static int seen; // any address that is not null: the header has been seen
    if (*state == nullptr) {
        *state = &seen;
        return MHD_YES;
    }
    if (*upload_size > 0) { // taken and dropped; the call without any ends the body
        *upload_size = 0;
        return MHD_YES;
    }
    const Peer& peer = *static_cast<const Peer*>(context);
    if (!peer.directory_.empty() && std::strncmp(url, "/files/", 7) == 0) {
        return answer_file(peer, connection, url);
    }
    return MHD_queue_response(connection, MHD_HTTP_OK, peer.text_);
}

} // namespace

int main(int argc, char** argv)
{
    const unsigned short port = peer_port(argc, argv);
    Peer peer;
    unsigned mode = MHD_USE_EPOLL_INTERNAL_THREAD;
    for (int i = 2; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--threads") {
            mode = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL;
        } else if (option == "--files" && i + 1 < argc) {
            peer.directory_ = argv[++i];
        }
    }

    // Blocked in front of the threads, which inherit it.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    ::sigprocmask(SIG_BLOCK, &stop, nullptr);

    std::string text(PEER_TEXT);
    peer.text_ = MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_PERSISTENT);
    MHD_add_response_header(peer.text_, MHD_HTTP_HEADER_CONTENT_TYPE, PEER_TYPE);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    MHD_Daemon* const daemon = MHD_start_daemon(
        mode, port, nullptr, nullptr, answer, &peer, MHD_OPTION_SOCK_ADDR, &address,
        MHD_OPTION_CONNECTION_LIMIT, PEER_CONNECTIONS, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        static_cast<size_t>(32) * 1024, MHD_OPTION_LISTEN_BACKLOG_SIZE, 511U, MHD_OPTION_END);
    if (daemon == nullptr) {
        std::perror("bench_peer_microhttpd");
        return 1;
    }
    peer_ready();
    int signal = 0;
    ::sigwait(&stop, &signal);
    MHD_stop_daemon(daemon);
    MHD_destroy_response(peer.text_);
    return 0;
}
