#include "tests/support/stdio_host.h"

#include "tests/support/test_sockets.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace {

class Pipe_Client : public Wire_Client {
public:
    Pipe_Client(int write_handle, int read_handle)
        : Wire_Client(read_handle), write_handle_(write_handle)
    {
        std::signal(SIGPIPE, SIG_IGN); // a host that has gone is an error, not the end of us
        ::fcntl(write_handle, F_SETFL, O_NONBLOCK);
    }

    ~Pipe_Client() override { this->half_close(); }

    bool send(const std::string& bytes) override
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            pollfd room = {write_handle_, POLLOUT, 0};
            if (::poll(&room, 1, 20'000) <= 0) {
                return false;
            }
            const ssize_t count = ::write(write_handle_, bytes.data() + sent, bytes.size() - sent);
            if (count == -1 && errno != EAGAIN && errno != EINTR) {
                return false;
            }
            sent += count > 0 ? static_cast<size_t>(count) : 0U;
        }
        return true;
    }

    std::string receive(std::chrono::milliseconds limit) override
    {
        pollfd input = {handle_, POLLIN, 0};
        if (::poll(&input, 1, static_cast<int>(limit.count())) <= 0) {
            return "";
        }
        std::string bytes(65536, '\0');
        const ssize_t count = ::read(handle_, bytes.data(), bytes.size());
        at_end_ = count <= 0;
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0U);
        return bytes;
    }

    void half_close() override
    {
        if (write_handle_ != -1) {
            ::close(std::exchange(write_handle_, -1));
        }
    }

private:
    int write_handle_;
};

/// Descriptors may have gone into another process by a spawn that another thread does: all are
/// closed on exec.
struct Ends {
    Test_Fd input;
    Test_Fd output;
    std::unique_ptr<Wire_Client> client;
};

Ends make_ends(Stdio_Host::Kind kind)
{
    Ends ends;
    if (kind == Stdio_Host::Kind::PIPES) {
        Test_Pair in = pipe_pair();
        Test_Pair out = pipe_pair();
        ends.input = std::move(in.first);
        ends.output = std::move(out.second);
        ends.client = make_pipe_client(in.second.release(), out.first.release());
        return ends;
    }
    Test_Pair pair = kind == Stdio_Host::Kind::UNIX_SOCKET ? unix_pair() : tcp_pair();
    ends.output = Test_Fd(::fcntl(pair.first.get(), F_DUPFD_CLOEXEC, 3));
    ends.input = std::move(pair.first);
    ends.client = Wire_Client::over_socket(pair.second.release());
    return ends;
}

} // namespace

Stdio_Host::Stdio_Host(const Setup& setup)
{
    Ends ends = make_ends(setup.kind);
    client_ = std::move(ends.client);
    Host_Process::Command command;
    command.host = setup.host;
    command.host.emplace_back("--stdio");
    command.log_level = setup.log_level;
    command.service = {
        "-f", folder_.write("http.json", plugin_configuration(setup.handlers)), "-w",
        folder_.write("websocket.json",
                      plugin_configuration({{"/ws", "websocket_probe_plugin", "_make_WS_Probe"}}))};
    if (!setup.authenticators.empty()) {
        command.service.emplace_back("-a");
        command.service.push_back(
            folder_.write("auth.json", plugin_configuration(setup.authenticators)));
    }
    command.service.insert(command.service.end(), setup.options.begin(), setup.options.end());
    command.standard_input = setup.input != -1 ? setup.input : ends.input.get();
    command.standard_output = setup.output != -1 ? setup.output : ends.output.get();
    command.standard_error = setup.error_to_client ? command.standard_output : -1;
    command.wait_until_ready = false;
    host_ = std::make_unique<Host_Process>(command);
}

std::unique_ptr<Wire_Client> make_pipe_client(int write_handle, int read_handle)
{
    return std::make_unique<Pipe_Client>(write_handle, read_handle);
}
