#include "support/event_loop_manager.h"

#include "support/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/reactor_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>

using testing::UnorderedElementsAre;

namespace {

constexpr ACE_Reactor_Mask READ = ACE_Event_Handler::READ_MASK;
constexpr ACE_Reactor_Mask EXCEPT = ACE_Event_Handler::EXCEPT_MASK;

/// Has the loop of the reactor do something, and waits for it.
void run_in_loop(ACE_Reactor& reactor, const std::function<void()>& what)
{
    Held_Probe probe(ACE_INVALID_HANDLE);
    std::promise<void> done;
    probe.probe->on_exception = [&](ACE_HANDLE) {
        what();
        done.set_value();
        return 0;
    };
    ASSERT_EQ(reactor.notify(probe.probe, EXCEPT), 0);
    done.get_future().wait();
    while (probe.probe->references() != 1) {
        std::this_thread::yield();
    }
}

std::multiset<std::string> loop_threads()
{
    std::multiset<std::string> names;
    DIR* const tasks = ::opendir("/proc/self/task");
    while (const dirent* const task = ::readdir(tasks)) {
        std::ifstream comm(std::string("/proc/self/task/") + task->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name.rfind("httpd-loop-", 0) == 0) {
            names.insert(name);
        }
    }
    ::closedir(tasks);
    return names;
}

size_t descriptors()
{
    size_t count = 0;
    DIR* const entries = ::opendir("/proc/self/fd");
    while (::readdir(entries) != nullptr) {
        ++count;
    }
    ::closedir(entries);
    return count;
}

} // namespace

TEST(Event_Loop_Manager, prefers_the_epoll_reactor)
{
    EXPECT_STREQ(get_preferred_reactor_type(), "epoll");
}

TEST(Event_Loop_Manager, is_closed_at_first_and_closing_it_is_harmless)
{
    Event_Loop_Manager manager;
    EXPECT_EQ(manager.reactor(), nullptr);
    manager.close();
    manager.close();
    EXPECT_EQ(manager.reactor(), nullptr);
}

TEST(Event_Loop_Manager, refuses_other_types_and_no_loops)
{
    Event_Loop_Manager manager;
    for (const char* const type : {"select", "tp", "dev_poll", "", "epoll2", "EPOLL"}) {
        errno = 0;
        EXPECT_FALSE(manager.open(type, 1)) << type;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_FALSE(manager.open(nullptr, 1));
    errno = 0;
    EXPECT_FALSE(manager.open("epoll", 0));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(manager.reactor(), nullptr);
}

TEST(Event_Loop_Manager, opens_once)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 1));
    errno = 0;
    EXPECT_FALSE(manager.open("epoll", 1));
    EXPECT_EQ(errno, EBUSY);
    EXPECT_NE(manager.reactor(), nullptr);
}

TEST(Event_Loop_Manager, hands_out_its_reactors_in_rotation)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open(get_preferred_reactor_type(), 3));
    ACE_Reactor* const first[] = {manager.reactor(), manager.reactor(), manager.reactor()};
    EXPECT_EQ(std::set<ACE_Reactor*>(std::begin(first), std::end(first)).size(), 3U);
    for (int turn = 0; turn < 6; ++turn) {
        EXPECT_EQ(manager.reactor(), first[turn % 3]);
    }
}

TEST(Event_Loop_Manager, each_reactor_runs_in_a_thread_of_its_own_with_a_name)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 2));
    std::set<pthread_t> threads{::pthread_self()};
    std::multiset<std::string> names;
    for (int i = 0; i < 2; ++i) {
        run_in_loop(*manager.reactor(), [&] {
            threads.insert(::pthread_self());
            char name[16];
            ::pthread_getname_np(::pthread_self(), name, sizeof name);
            names.insert(name);
        });
    }
    EXPECT_EQ(threads.size(), 3U);
    EXPECT_THAT(names, UnorderedElementsAre("httpd-loop-0", "httpd-loop-1"));
    manager.close();
    EXPECT_TRUE(loop_threads().empty());
}

TEST(Event_Loop_Manager, loop_threads_block_signals_and_the_opening_thread_keeps_its_mask)
{
    sigset_t before;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 1));
    sigset_t after;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
    sigset_t inside;
    run_in_loop(*manager.reactor(), [&] { ::pthread_sigmask(SIG_SETMASK, nullptr, &inside); });
    for (const int signum : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGUSR1, SIGUSR2, SIGCHLD,
                             SIGALRM, SIGWINCH, SIGTSTP, SIGPROF, SIGIO}) {
        EXPECT_EQ(::sigismember(&inside, signum), 1) << signum;
        EXPECT_EQ(::sigismember(&after, signum), ::sigismember(&before, signum)) << signum;
    }
    EXPECT_EQ(::sigismember(&inside, SIGSEGV), 0);
}

TEST(Event_Loop_Manager, loop_threads_log_where_the_opening_thread_does)
{
    Log_Capture capture;
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 1));
    run_in_loop(*manager.reactor(), [] { HTTPD_INFO("from the loop"); });
    EXPECT_EQ(capture.count(LM_INFO, "from the loop"), 1U);
    manager.close();
}

TEST(Event_Loop_Manager, serves_handlers_that_other_threads_register)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 2));
    std::vector<std::unique_ptr<Pair_Probe>> probes;
    for (int i = 0; i < 50; ++i) {
        probes.push_back(std::make_unique<Pair_Probe>());
        Pair_Probe* const probe = probes.back().get();
        probe->probe->on_input = [probe](ACE_HANDLE) { return probe->pair.drain(); };
        ASSERT_EQ(manager.reactor()->register_handler(probe->probe, READ), 0);
        probe->pair.send();
    }
    for (const auto& probe : probes) {
        probe->record.wait_for_inputs(1);
    }
    manager.close();
    for (const auto& probe : probes) {
        EXPECT_EQ(probe->probe->references(), 1);
        probe->probe->reactor(nullptr);
    }
}

TEST(Event_Loop_Manager, close_closes_every_handler_through_its_handle_close)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 3));
    std::vector<std::unique_ptr<Pair_Probe>> probes;
    std::atomic<size_t> threads_left{0};
    for (int i = 0; i < 30; ++i) {
        probes.push_back(std::make_unique<Pair_Probe>());
        Pair_Probe& probe = *probes.back();
        probe.probe->on_close = [&] { threads_left += loop_threads().size(); };
        ACE_Reactor* const reactor = manager.reactor();
        ASSERT_EQ(reactor->register_handler(probe.probe, READ), 0);
        if (i % 3 == 0) {
            ASSERT_EQ(reactor->suspend_handler(probe.probe), 0);
        }
        ASSERT_NE(reactor->schedule_timer(probe.probe, nullptr, ACE_Time_Value(1000)), -1);
        probe.release();
    }
    manager.close();
    EXPECT_EQ(threads_left, 0U);
    for (const auto& probe : probes) {
        EXPECT_FALSE(probe->record.alive);
        ASSERT_EQ(probe->record.closes.size(), 2U);
        EXPECT_EQ(probe->record.closes[0].left, 0);
    }
    EXPECT_EQ(manager.reactor(), nullptr);
}

TEST(Event_Loop_Manager, a_handler_may_reach_for_another_loop_while_it_is_closed)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 2));
    ACE_Reactor* const first = manager.reactor();
    ACE_Reactor* const second = manager.reactor();
    Pair_Probe a;
    Pair_Probe b;
    int from_a = 0;
    int from_b = 0;
    a.probe->on_close = [&] { from_a = second->suspend_handler(b.probe); };
    b.probe->on_close = [&] { from_b = first->suspend_handler(a.probe); };
    ASSERT_EQ(first->register_handler(a.probe, READ), 0);
    ASSERT_EQ(second->register_handler(b.probe, READ), 0);
    manager.close();
    EXPECT_EQ(from_a, 0);
    EXPECT_EQ(from_b, -1);
    a.probe->reactor(nullptr);
    b.probe->reactor(nullptr);
}

TEST(Event_Loop_Manager, opens_again_after_close_and_leaks_nothing)
{
    const size_t before = descriptors();
    for (int turn = 0; turn < 20; ++turn) {
        Event_Loop_Manager manager;
        ASSERT_TRUE(manager.open("epoll", 2));
        manager.close();
        ASSERT_TRUE(manager.open("epoll", 1));
        run_in_loop(*manager.reactor(), [] {});
    }
    EXPECT_EQ(descriptors(), before);
    EXPECT_TRUE(loop_threads().empty());
}

TEST(Event_Loop_Manager, a_loop_goes_on_when_a_handler_ends_it)
{
    Event_Loop_Manager manager;
    ASSERT_TRUE(manager.open("epoll", 1));
    ACE_Reactor& reactor = *manager.reactor();
    run_in_loop(reactor, [&] { reactor.end_reactor_event_loop(); });
    bool ran = false;
    run_in_loop(reactor, [&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST(Event_Loop_Manager, leaves_nothing_behind_when_descriptors_run_out)
{
    const size_t before = descriptors();
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit small = limit;
    const int next = ::dup(0);
    ::close(next);
    small.rlim_cur = static_cast<rlim_t>(next) + 5; // one loop, and half of another
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &small), 0);
    Event_Loop_Manager manager;
    errno = 0;
    const bool opened = manager.open("epoll", 100);
    const int error = errno;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(opened);
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(manager.reactor(), nullptr);
    EXPECT_EQ(descriptors(), before);
    EXPECT_TRUE(loop_threads().empty());
    EXPECT_TRUE(manager.open("epoll", 1));
}
