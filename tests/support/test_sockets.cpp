#include "tests/support/test_sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace {

constexpr int WAIT_MS = 10'000;

void require(bool ok, const char* what)
{
    if (!ok) {
        throw std::runtime_error(what);
    }
}

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int bound_port(int handle)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    require(getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length) == 0, "name");
    return ntohs(address.sin_port);
}

void set_buffers(int handle, int size)
{
    if (size > 0) {
        setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
}

} // namespace

Test_Fd& Test_Fd::operator=(Test_Fd&& other) noexcept
{
    if (this != &other) {
        close();
        handle_ = other.release();
    }
    return *this;
}

void Test_Fd::close()
{
    if (handle_ != -1) {
        ::close(release());
    }
}

Test_Pair tcp_pair(int buffer)
{
    const Test_Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    set_buffers(listener.get(), buffer);
    require(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                listen(listener.get(), 1) == 0,
            "listen");
    Test_Pair pair{Test_Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), Test_Fd()};
    set_buffers(pair.first.get(), buffer);
    address = loopback(bound_port(listener.get()));
    require(connect(pair.first.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "connect");
    pair.second = Test_Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    require(pair.second.get() != -1, "accept");
    return pair;
}

Test_Pair unix_pair()
{
    int handles[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, handles) == 0, "socketpair");
    return {Test_Fd(handles[0]), Test_Fd(handles[1])};
}

Test_Pair pipe_pair()
{
    int handles[2];
    require(pipe2(handles, O_CLOEXEC) == 0, "pipe2");
    return {Test_Fd(handles[0]), Test_Fd(handles[1])};
}

int free_port()
{
    const Test_Fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    require(bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind");
    return bound_port(probe.get());
}

Test_Fd connect_to(int port)
{
    Test_Fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    if (connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        client.close();
    }
    return client;
}

std::string read_up_to(int handle, size_t length)
{
    std::string result;
    char buffer[16 * 1024];
    while (result.size() < length) {
        pollfd entry{handle, POLLIN, 0};
        if (poll(&entry, 1, WAIT_MS) != 1) {
            break;
        }
        const ssize_t count = read(handle, buffer, std::min(sizeof buffer, length - result.size()));
        if (count <= 0) {
            break;
        }
        result.append(buffer, static_cast<size_t>(count));
    }
    return result;
}

std::string pattern(size_t length)
{
    std::string result(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        // A period that divides no power of two, so that shifted pieces show.
        result[i] = static_cast<char>('!' + (i + i / 251) % 89);
    }
    return result;
}
