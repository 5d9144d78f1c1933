#include "httpd/http_acceptor.h"

#include "httpd/make_acceptor.h"
#include "support/epoll_reactor.h"
#include "support/peer_stream_io.h"
#include "support/sock_acceptor_ex.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_sockets.h"
#include "tests/support/tls_fixture.h"

#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>
#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <ace/Svc_Handler.h>
#include <ace/TP_Reactor.h>
#include <ace/UNIX_Addr.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace {

/// What the handlers of one test have done.
struct Record {
    int alive = 0;
    std::vector<ACE_Reactor*> opened; ///< the reactor of each connection, in order
    bool refuse_open = false;
    bool no_memory = false;
};

Record record;

/// A connection that frees itself when it is closed before it was opened, as the real one does.
template <typename Stream>
class Probe_Handler : public ACE_Svc_Handler<Stream, ACE_MT_SYNCH> {
public:
    using base_type = ACE_Svc_Handler<Stream, ACE_MT_SYNCH>;

    explicit Probe_Handler(ACE_Thread_Manager* manager = nullptr) : base_type(manager)
    {
        ++record.alive;
    }

    ~Probe_Handler() override
    {
        --record.alive;
        this->closing_ = true;
        Peer_Stream_IO_T<Stream>::close(this->peer());
    }

    /// Serves nothing: the connection is noted and closed.
    int open(void*) override
    {
        if (record.refuse_open) {
            return -1;
        }
        record.opened.push_back(this->reactor());
        delete this;
        return 0;
    }

    int close(u_long) override
    {
        delete this;
        return 0;
    }

    static void* operator new(size_t size) { return std::malloc(size); }
    static void* operator new(size_t size, const std::nothrow_t&) noexcept
    {
        return record.no_memory ? nullptr : std::malloc(size);
    }
    static void operator delete(void* memory) { std::free(memory); }
    static void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
};

using Tcp_Handler = Probe_Handler<ACE_SOCK_Stream>;
using Tls_Handler = Probe_Handler<ACE_SSL_SOCK_Stream>;
using Unix_Handler = Probe_Handler<LSOCK_Stream>;
using Mem_Handler = Probe_Handler<MEM_Stream>;
using Tcp_Acceptor = HTTP_Acceptor<Tcp_Handler, ACE_SOCK_Acceptor_Ex>;

constexpr int ACCEPT_TIMEOUT = 3;
constexpr int BACKLOG = 16;

/// Runs the loop until `done`; false after ten seconds.
bool run_until(ACE_Reactor& reactor, const std::function<bool()>& done)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done() && std::chrono::steady_clock::now() < end) {
        ACE_Time_Value slice(0, 20'000);
        reactor.handle_events(slice);
    }
    return done();
}

/// Runs the loop for a while and counts its turns.
int run_for(ACE_Reactor& reactor, std::chrono::milliseconds length)
{
    const auto end = std::chrono::steady_clock::now() + length;
    int turns = 0;
    while (std::chrono::steady_clock::now() < end) {
        ACE_Time_Value slice(0, 50'000);
        reactor.handle_events(slice);
        ++turns;
    }
    return turns;
}

class Acceptor_Test : public testing::Test {
protected:
    void SetUp() override
    {
        record = Record();
        ASSERT_TRUE(loops.open(get_preferred_reactor_type(), 3));
    }

    void TearDown() override
    {
        loops.close();
        EXPECT_EQ(record.alive, 0) << "a handler has leaked";
    }

    static ACE_Reactor& host() { return *ACE_Reactor::instance(); }

    Event_Loop_Manager loops;
    Log_Capture log;
};

using ACE_Acceptor_Ex_Test = Acceptor_Test;
using HTTP_Acceptor_Test = Acceptor_Test;

int port_of(const ACE_Service_Object& service)
{
    sockaddr_in name{};
    socklen_t length = sizeof name;
    getsockname(service.get_handle(), reinterpret_cast<sockaddr*>(&name), &length);
    return ntohs(name.sin_port);
}

/// Goes once through what a pause does. Sanitizers check the type of an object that they see for
/// the first time by means of a pipe, which they cannot have later.
void warm_up(ACE_Reactor& reactor, ACE_Service_Object& acceptor)
{
    const Test_Fd client = connect_to(port_of(acceptor));
    EXPECT_TRUE(run_until(reactor, [] { return record.opened.size() == 1; }));
    struct Timer : ACE_Event_Handler {
        int handle_timeout(const ACE_Time_Value&, const void*) override
        {
            fired = true;
            return 0;
        }
        bool fired = false;
    } timer;
    reactor.schedule_timer(&timer, nullptr, ACE_Time_Value(0, 1000));
    EXPECT_TRUE(run_until(reactor, [&] { return timer.fired; }));
    record = Record();
}

/// Takes every descriptor that this process may have.
class No_Descriptors {
public:
    No_Descriptors()
    {
        getrlimit(RLIMIT_NOFILE, &old_);
        int highest = 0;
        for (int handle = 0; handle < 1024; ++handle) {
            highest = fcntl(handle, F_GETFD) != -1 ? handle : highest;
        }
        rlimit few = old_;
        few.rlim_cur = static_cast<rlim_t>(highest) + 1;
        setrlimit(RLIMIT_NOFILE, &few);
        for (int handle = dup(0); handle != -1; handle = dup(0)) {
            taken_.emplace_back(handle);
        }
    }
    ~No_Descriptors() { setrlimit(RLIMIT_NOFILE, &old_); }
    No_Descriptors(const No_Descriptors&) = delete;
    No_Descriptors& operator=(const No_Descriptors&) = delete;

private:
    rlimit old_{};
    std::vector<Test_Fd> taken_;
};

template <typename Handler, typename Addr>
std::unique_ptr<ACE_Service_Object> open_listener(Event_Loop_Manager& loops, const char* protocol,
                                                  const Addr& address, int timeout = ACCEPT_TIMEOUT)
{
    return std::unique_ptr<ACE_Service_Object>(
        open_http_acceptor<Handler>(loops, protocol, address, timeout, BACKLOG, 0));
}

/// What the host may have its reactor made of.
struct Reactor_Kind {
    const char* name;
    ACE_Reactor_Impl* (*make)();
};

constexpr Reactor_Kind REACTOR_KINDS[] = {
    {"select", []() -> ACE_Reactor_Impl* { return new ACE_Select_Reactor; }},
    {"thread pool", []() -> ACE_Reactor_Impl* { return new ACE_TP_Reactor; }},
    {"epoll", []() -> ACE_Reactor_Impl* { return new Epoll_Reactor; }},
};

/// Connects in a thread of its own, since the handshake's other side runs in the caller's.
class Tls_Connecting {
public:
    explicit Tls_Connecting(int port)
        : socket_(connect_to(port)), client_(socket_.get()), thread_([this] {
              connected_ = client_.connect();
              done_ = true;
          })
    {
    }
    ~Tls_Connecting() { thread_.join(); }
    Tls_Connecting(const Tls_Connecting&) = delete;
    Tls_Connecting& operator=(const Tls_Connecting&) = delete;

    bool done() const { return done_; }
    bool connected() const { return connected_; }

private:
    Test_Fd socket_;
    Tls_Client client_;
    std::atomic<bool> done_{false};
    std::atomic<bool> connected_{false};
    std::thread thread_;
};

using Tls_Acceptor = HTTP_Acceptor<Tls_Handler, ACE_SSL_SOCK_Acceptor>;

std::unique_ptr<ACE_Service_Object> open_tcp(Event_Loop_Manager& loops,
                                             int timeout = ACCEPT_TIMEOUT)
{
    return open_listener<Tcp_Handler>(loops, "HTTP", ACE_INET_Addr("127.0.0.1:0"), timeout);
}

} // namespace

TEST_F(ACE_Acceptor_Ex_Test, open_without_a_reactor_is_EINVAL)
{
    Tcp_Acceptor acceptor(loops, ACCEPT_TIMEOUT, BACKLOG, false, 0, 0);
    EXPECT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), nullptr, 0, 0, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ACE_Acceptor_Ex_Test, listens_non_blocking_on_the_reactor_it_is_given)
{
    ACE_Reactor reactor(new ACE_Select_Reactor, true);
    Tcp_Acceptor acceptor(loops, ACCEPT_TIMEOUT, BACKLOG, false, 0, 0);
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &reactor, 0, 0, 1), 0);
    EXPECT_EQ(acceptor.reactor(), &reactor);
    EXPECT_NE(fcntl(acceptor.get_handle(), F_GETFL) & O_NONBLOCK, 0);
    const Test_Fd client = connect_to(port_of(acceptor));
    EXPECT_TRUE(run_until(reactor, [] { return record.opened.size() == 1; }));
}

TEST_F(ACE_Acceptor_Ex_Test, a_failed_registration_leaves_nothing_open)
{
    class Refusing_Reactor : public ACE_Select_Reactor {
    public:
        using ACE_Select_Reactor::register_handler;
        int register_handler(ACE_Event_Handler*, ACE_Reactor_Mask) override
        {
            errno = ENOMEM;
            return -1;
        }
    };
    ACE_Reactor reactor(new Refusing_Reactor, true);
    const Temp_Dir directory;
    HTTP_Acceptor<Unix_Handler, ACE_LSOCK_Acceptor> acceptor(loops, ACCEPT_TIMEOUT, BACKLOG, false,
                                                             0, 0);
    EXPECT_EQ(acceptor.open(ACE_UNIX_Addr(directory.path("x.sock").c_str()), &reactor, 0, 0, 1),
              -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(acceptor.get_handle(), ACE_INVALID_HANDLE);
    EXPECT_TRUE(directory.names().empty()) << "nor its file";
}

TEST_F(ACE_Acceptor_Ex_Test, the_connections_that_wait_are_accepted_in_one_call)
{
    Tcp_Acceptor acceptor(loops, ACCEPT_TIMEOUT, BACKLOG, false, 0, 0);
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &host(), 0, 0, 1), 0);
    std::vector<Test_Fd> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(connect_to(port_of(acceptor))); // in the queue once this returns
    }
    EXPECT_EQ(acceptor.handle_input(acceptor.get_handle()), 0);
    EXPECT_EQ(record.opened.size(), 5U);
}

TEST_F(ACE_Acceptor_Ex_Test, one_call_accepts_a_bounded_number_of_connections)
{
    constexpr int MOST = Tcp_Acceptor::MOST_AT_ONCE;
    Tcp_Acceptor acceptor(loops, ACCEPT_TIMEOUT, MOST + 8, false, 0, 0);
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &host(), 0, 0, 1), 0);
    std::vector<Test_Fd> clients;
    for (int i = 0; i < MOST + 2; ++i) {
        clients.push_back(connect_to(port_of(acceptor)));
    }
    EXPECT_EQ(acceptor.handle_input(acceptor.get_handle()), 0);
    EXPECT_EQ(record.opened.size(), static_cast<size_t>(MOST));
    EXPECT_TRUE(run_until(host(), [] { return record.opened.size() == MOST + 2; }));
}

TEST_F(ACE_Acceptor_Ex_Test, settings_reach_the_listener)
{
    Tcp_Acceptor acceptor(loops, ACCEPT_TIMEOUT, BACKLOG, false, 20'000, 30'000);
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &host(), 0, 0, 1), 0);
    int size = 0;
    socklen_t length = sizeof size;
    getsockopt(acceptor.get_handle(), SOL_SOCKET, SO_RCVBUF, &size, &length);
    EXPECT_EQ(size, 40'000);
    getsockopt(acceptor.get_handle(), SOL_SOCKET, SO_SNDBUF, &size, &length);
    EXPECT_EQ(size, 60'000);
}

TEST_F(ACE_Acceptor_Ex_Test, deleting_it_closes_the_listener_and_takes_it_from_its_reactor)
{
    std::unique_ptr<ACE_Service_Object> acceptor = open_tcp(loops);
    ASSERT_NE(acceptor, nullptr);
    const int port = port_of(*acceptor);
    const int handle = acceptor->get_handle();
    acceptor.reset();
    EXPECT_EQ(connect_to(port).get(), -1);
    EXPECT_EQ(fcntl(handle, F_GETFD), -1);
    EXPECT_EQ(host().find_handler(handle), nullptr);
}

TEST_F(ACE_Acceptor_Ex_Test, a_handler_that_does_not_open_is_closed_and_the_listener_goes_on)
{
    const std::unique_ptr<ACE_Service_Object> acceptor = open_tcp(loops);
    record.refuse_open = true;
    const Test_Fd refused = connect_to(port_of(*acceptor));
    run_until(host(), [&] {
        char byte;
        return recv(refused.get(), &byte, 1, MSG_DONTWAIT) != -1 || errno != EAGAIN;
    });
    EXPECT_EQ(record.alive, 0);
    EXPECT_EQ(read_up_to(refused.get(), 1), "") << "the connection is closed";
    record.refuse_open = false;
    const Test_Fd served = connect_to(port_of(*acceptor));
    EXPECT_TRUE(run_until(host(), [] { return record.opened.size() == 1; }));
}

TEST_F(ACE_Acceptor_Ex_Test, a_failed_handshake_is_logged_with_the_peer_and_leaks_nothing)
{
    ASSERT_TRUE(configure_tls());
    const auto acceptor = open_listener<Tls_Handler>(loops, "HTTPS", ACE_INET_Addr("127.0.0.1:0"));
    ASSERT_NE(acceptor, nullptr);
    log.clear();
    for (int i = 0; i < 5; ++i) {
        const Test_Fd client = connect_to(port_of(*acceptor));
        ASSERT_GT(write(client.get(), "GET / HTTP/1.1\r\n\r\n", 18), 0);
        sockaddr_in name{};
        socklen_t length = sizeof name;
        getsockname(client.get(), reinterpret_cast<sockaddr*>(&name), &length);
        const std::string line =
            "Failed to accept connection from '127.0.0.1:" + std::to_string(ntohs(name.sin_port)) +
            "'.\n";
        EXPECT_TRUE(run_until(host(), [&] { return log.count(LM_ERROR, line) == 1; })) << line;
        EXPECT_EQ(record.alive, 0);
    }
    EXPECT_EQ(log.lines().size(), 5U);
}

TEST_F(ACE_Acceptor_Ex_Test, a_silent_tls_client_is_given_up_after_the_accept_timeout)
{
    ASSERT_TRUE(configure_tls());
    const auto acceptor =
        open_listener<Tls_Handler>(loops, "HTTPS", ACE_INET_Addr("127.0.0.1:0"), 1);
    ASSERT_NE(acceptor, nullptr);
    const Test_Fd client = connect_to(port_of(*acceptor));
    const long took = milliseconds_of([&] {
        EXPECT_TRUE(run_until(
            host(), [&] { return log.count(LM_ERROR, "Failed to accept connection") == 1; }));
    });
    EXPECT_GE(took, 950);
    EXPECT_EQ(read_up_to(client.get(), 1), "");
}

TEST_F(ACE_Acceptor_Ex_Test, without_a_timeout_a_slow_handshake_is_awaited)
{
    ASSERT_TRUE(configure_tls());
    const auto acceptor =
        open_listener<Tls_Handler>(loops, "HTTPS", ACE_INET_Addr("127.0.0.1:0"), -1);
    ASSERT_NE(acceptor, nullptr);
    const Test_Fd peer = connect_to(port_of(*acceptor));
    std::thread connecting([&] {
        pollfd never{-1, 0, 0};
        poll(&never, 1, 300);
        Tls_Client client(peer.get());
        EXPECT_TRUE(client.connect());
    });
    EXPECT_TRUE(run_until(host(), [] { return record.opened.size() == 1; }));
    connecting.join();
}

TEST_F(ACE_Acceptor_Ex_Test, silent_tls_clients_hold_no_other_up)
{
    ASSERT_TRUE(configure_tls());
    for (const Reactor_Kind& kind : REACTOR_KINDS) {
        SCOPED_TRACE(kind.name);
        record = Record();
        log.clear();
        ACE_Reactor reactor(kind.make(), true);
        constexpr int NO_LIMIT = -1;
        auto acceptor = std::make_unique<Tls_Acceptor>(loops, NO_LIMIT, BACKLOG, false, 0, 0);
        ASSERT_EQ(acceptor->open(ACE_INET_Addr("127.0.0.1:0"), &reactor, 0, 0, 1), 0);
        std::vector<Test_Fd> silent;
        for (int i = 0; i < 3; ++i) {
            silent.push_back(connect_to(port_of(*acceptor)));
        }
        const Tls_Connecting first(port_of(*acceptor));
        const Tls_Connecting second(port_of(*acceptor));
        EXPECT_TRUE(run_until(
            reactor, [&] { return record.opened.size() == 2 && first.done() && second.done(); }));
        EXPECT_TRUE(first.connected() && second.connected());
        EXPECT_EQ(record.alive, 3) << "those that are waited for";
        silent.pop_back();
        EXPECT_TRUE(run_until(
            reactor, [this] { return log.count(LM_ERROR, "Failed to accept connection") == 1; }));
        EXPECT_EQ(record.alive, 2);
        acceptor.reset();
        EXPECT_EQ(record.alive, 0);
        for (const Test_Fd& client : silent) {
            EXPECT_EQ(read_up_to(client.get(), 1), "") << "closed with the listener";
        }
        EXPECT_EQ(log.lines().size(), 1U) << "the end of a listener is no failure";
    }
}

TEST_F(ACE_Acceptor_Ex_Test, a_handshake_that_the_reactor_does_not_take_is_waited_for)
{
    class Full_Reactor : public ACE_Select_Reactor {
    public:
        using ACE_Select_Reactor::register_handler;
        int register_handler(ACE_Event_Handler* handler, ACE_Reactor_Mask mask) override
        {
            if (mask != ACE_Event_Handler::ACCEPT_MASK) {
                errno = EINVAL; // as for a descriptor from FD_SETSIZE up
                return -1;
            }
            return ACE_Select_Reactor::register_handler(handler, mask);
        }
    };
    ASSERT_TRUE(configure_tls());
    ACE_Reactor reactor(new Full_Reactor, true);
    Tls_Acceptor acceptor(loops, 1, BACKLOG, false, 0, 0);
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &reactor, 0, 0, 1), 0);
    const Test_Fd silent = connect_to(port_of(acceptor));
    EXPECT_TRUE(run_until(
        reactor, [this] { return log.count(LM_ERROR, "Failed to accept connection") == 1; }));
    EXPECT_EQ(record.alive, 0);
    const Tls_Connecting client(port_of(acceptor));
    EXPECT_TRUE(run_until(reactor, [&] { return record.opened.size() == 1 && client.done(); }));
    EXPECT_TRUE(client.connected());
}

TEST_F(ACE_Acceptor_Ex_Test, an_accept_without_a_connection_is_logged_with_an_empty_address)
{
    class Exposed : public Tcp_Acceptor {
    public:
        using Tcp_Acceptor::accept_svc_handler;
        using Tcp_Acceptor::Tcp_Acceptor;
    };
    Exposed acceptor(loops, 1, BACKLOG, false, 0, 0);
    auto* without_reactor = new Tcp_Handler;
    EXPECT_EQ(acceptor.accept_svc_handler(without_reactor), -1);
    EXPECT_EQ(errno, EINVAL);
    delete without_reactor;
    ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &host(), 0, 0, 1), 0);
    const long took = milliseconds_of([&] {
        EXPECT_EQ(acceptor.accept_svc_handler(new Tcp_Handler), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    EXPECT_GE(took, 950);
    EXPECT_EQ(log.texts(LM_ERROR),
              std::vector<std::string>{"Failed to accept connection from ''.\n"});
}

TEST_F(ACE_Acceptor_Ex_Test, a_lack_of_descriptors_pauses_the_listener_instead_of_spinning)
{
    for (const Reactor_Kind& kind : REACTOR_KINDS) {
        SCOPED_TRACE(kind.name);
        record = Record();
        ACE_Reactor reactor(kind.make(), true);
        Tcp_Acceptor acceptor(loops, ACCEPT_TIMEOUT, BACKLOG, false, 0, 0);
        ASSERT_EQ(acceptor.open(ACE_INET_Addr("127.0.0.1:0"), &reactor, 0, 0, 1), 0);
        warm_up(reactor, acceptor);
        log.clear();
        const Test_Fd client = connect_to(port_of(acceptor));
        int turns = 0;
        {
            const No_Descriptors none;
            turns = run_for(reactor, std::chrono::milliseconds(1000));
        }
        const size_t lines = log.count(LM_ERROR, "Failed to accept connection from ''.\n");
        EXPECT_GE(lines, 2U) << "it is tried again";
        EXPECT_LE(lines, 10U);
        EXPECT_LT(turns, 100);
        EXPECT_EQ(record.alive, 0);
        EXPECT_TRUE(run_until(reactor, [] { return record.opened.size() == 1; }))
            << "served as soon as there are descriptors";
    }
}

TEST_F(ACE_Acceptor_Ex_Test, may_be_deleted_while_it_pauses)
{
    std::unique_ptr<ACE_Service_Object> acceptor = open_tcp(loops);
    warm_up(host(), *acceptor);
    const Test_Fd client = connect_to(port_of(*acceptor));
    {
        const No_Descriptors none;
        run_until(host(), [&] { return log.count(LM_ERROR, "Failed to accept") > 0; });
    }
    acceptor.reset();
    run_for(host(), std::chrono::milliseconds(200)); // the timer would fire here
    EXPECT_TRUE(record.opened.empty());
}

TEST_F(HTTP_Acceptor_Test, places_connections_on_the_loops_in_their_order)
{
    std::vector<ACE_Reactor*> order{loops.reactor(), loops.reactor(), loops.reactor()};
    ASSERT_NE(order[0], order[1]);
    const std::unique_ptr<ACE_Service_Object> acceptor = open_tcp(loops);
    std::vector<Test_Fd> clients;
    for (int i = 0; i < 7; ++i) {
        clients.push_back(connect_to(port_of(*acceptor)));
    }
    ASSERT_TRUE(run_until(host(), [] { return record.opened.size() == 7; }));
    for (size_t i = 0; i < record.opened.size(); ++i) {
        EXPECT_EQ(record.opened[i], order[i % 3]) << i;
    }
}

TEST_F(HTTP_Acceptor_Test, a_lack_of_memory_for_a_handler_pauses_the_listener)
{
    const std::unique_ptr<ACE_Service_Object> acceptor = open_tcp(loops);
    record.no_memory = true;
    const Test_Fd client = connect_to(port_of(*acceptor));
    EXPECT_LT(run_for(host(), std::chrono::milliseconds(500)), 50);
    EXPECT_TRUE(record.opened.empty());
    record.no_memory = false;
    EXPECT_TRUE(run_until(host(), [] { return record.opened.size() == 1; }));
}

TEST_F(HTTP_Acceptor_Test, make_svc_handler_without_memory_is_ENOMEM)
{
    class Exposed : public Tcp_Acceptor {
    public:
        using Tcp_Acceptor::make_svc_handler;
        using Tcp_Acceptor::Tcp_Acceptor;
    };
    Exposed acceptor(loops, 1, BACKLOG, false, 0, 0);
    record.no_memory = true;
    Tcp_Handler* handler = nullptr;
    errno = 0;
    EXPECT_EQ(acceptor.make_svc_handler(handler), -1);
    EXPECT_EQ(errno, ENOMEM);
    record.no_memory = false;
    EXPECT_EQ(acceptor.make_svc_handler(handler), 0);
    ASSERT_NE(handler, nullptr);
    Tcp_Handler* const given = handler;
    EXPECT_EQ(acceptor.make_svc_handler(handler), 0);
    EXPECT_EQ(handler, given) << "a handler that is there is taken";
    delete handler;
}

TEST_F(HTTP_Acceptor_Test, says_that_it_listens)
{
    const int port = free_port();
    const ACE_INET_Addr address(static_cast<u_short>(port), "127.0.0.1", AF_INET);
    const auto acceptor = open_listener<Tcp_Handler>(loops, "HTTP", address);
    ASSERT_NE(acceptor, nullptr);
    EXPECT_EQ(
        log.texts(LM_INFO),
        std::vector<std::string>{"HTTP 127.0.0.1:" + std::to_string(port) + " is listening.\n"});
    EXPECT_NE(fcntl(acceptor->get_handle(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(HTTP_Acceptor_Test, an_address_in_use_is_one_error_line_and_no_acceptor)
{
    const std::unique_ptr<ACE_Service_Object> first = open_tcp(loops);
    const int port = port_of(*first);
    log.clear();
    const ACE_INET_Addr address(static_cast<u_short>(port), "127.0.0.1", AF_INET);
    const auto second = open_listener<Tcp_Handler>(loops, "HTTP", address);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    const std::string line = "Failed to listen HTTP 127.0.0.1:" + std::to_string(port) +
                             ", errno=" + std::to_string(EADDRINUSE) + ", Address already in use\n";
    EXPECT_EQ(log.texts(LM_ERROR), std::vector<std::string>{line});
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(HTTP_Acceptor_Test, an_address_that_could_not_be_read_is_refused)
{
    const auto acceptor =
        open_listener<Tcp_Handler>(loops, "HTTP", ACE_INET_Addr("127.0.0.1", AF_UNSPEC));
    EXPECT_EQ(acceptor, nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.texts(LM_ERROR),
              std::vector<std::string>{"Failed to listen HTTP [::]:0, errno=" +
                                       std::to_string(EINVAL) + ", Invalid argument\n"});
}

TEST_F(HTTP_Acceptor_Test, serves_unix_domain_sockets_and_removes_its_file)
{
    const Temp_Dir directory;
    const std::string path = directory.path("x.sock");
    auto acceptor = open_listener<Unix_Handler>(loops, "HTTP", ACE_UNIX_Addr(path.c_str()));
    ASSERT_NE(acceptor, nullptr);
    EXPECT_EQ(log.texts(LM_INFO), std::vector<std::string>{"HTTP " + path + " is listening.\n"});
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    const Test_Fd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_TRUE(run_until(host(), [] { return record.opened.size() == 1; }));
    acceptor.reset();
    EXPECT_TRUE(directory.names().empty());
}

TEST_F(HTTP_Acceptor_Test, opens_shared_memory_listeners)
{
    const int port = free_port();
    const auto acceptor =
        open_listener<Mem_Handler>(loops, "HTTPM", ACE_MEM_Addr(static_cast<u_short>(port)), 1);
    ASSERT_NE(acceptor, nullptr);
    EXPECT_EQ(
        log.texts(LM_INFO),
        std::vector<std::string>{"HTTPM 127.0.0.1:" + std::to_string(port) + " is listening.\n"});
    const Test_Fd silent = connect_to(port);
    EXPECT_TRUE(run_until(host(), [this] {
        return log.count(LM_ERROR, "Failed to accept connection from '127.0.0.1:") == 1;
    }));
    EXPECT_EQ(record.alive, 0);
}

TEST(Listener_Name, a_unix_domain_listener_is_called_HTTP)
{
    EXPECT_STREQ(Listener_Name<ACE_SOCK_Stream>::PROTOCOL, "HTTP");
    EXPECT_STREQ(Listener_Name<ACE_SSL_SOCK_Stream>::PROTOCOL, "HTTPS");
    EXPECT_STREQ(Listener_Name<MEM_Stream>::PROTOCOL, "HTTPM");
    EXPECT_STREQ(Listener_Name<LSOCK_Stream>::PROTOCOL, "HTTP");
}
