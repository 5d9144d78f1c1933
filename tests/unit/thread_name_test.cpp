#include "httpd/thread_name.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// The name of a thread that has been given `name`.
std::string name_after(const char* name)
{
    char result[16] = {};
    std::promise<void> named;
    std::thread thread([done = named.get_future()] { done.wait(); });
    set_thread_name(name, thread.native_handle());
    ::pthread_getname_np(thread.native_handle(), result, sizeof(result));
    named.set_value();
    thread.join();
    return result;
}

/// A thread that has ended and is still to be joined.
class Ended_Thread {
public:
    Ended_Thread()
    {
        std::promise<long> id;
        thread_ = std::thread([&id] { id.set_value(::syscall(SYS_gettid)); });
        const std::string task = "/proc/self/task/" + std::to_string(id.get_future().get());
        while (::access(task.c_str(), F_OK) == 0) {
            ::sched_yield();
        }
    }
    ~Ended_Thread() { thread_.join(); }

    unsigned long handle() { return thread_.native_handle(); }

private:
    std::thread thread_;
};

} // namespace

TEST(Thread_Name, is_given_to_the_thread)
{
    const Log_Capture log;
    EXPECT_EQ(name_after("HTTPd"), "HTTPd");
    EXPECT_EQ(name_after("WebSocket"), "WebSocket");
    EXPECT_EQ(name_after("fifteen letters"), "fifteen letters");
    EXPECT_TRUE(log.lines().empty());
}

TEST(Thread_Name, that_is_too_long_is_cut_with_one_warning)
{
    const Log_Capture log;
    EXPECT_EQ(name_after("sixteen letters."), "sixteen letters");
    EXPECT_EQ(log.texts(LM_WARNING),
              std::vector<std::string>{
                  "Thread name(sixteen letters.) is too long, truncate to 15 chars.\n"});
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Thread_Name, that_cannot_be_set_is_an_error)
{
    Ended_Thread thread;
    const Log_Capture log;
    set_thread_name("HTTPd", thread.handle());
    EXPECT_EQ(log.texts(LM_ERROR),
              std::vector<std::string>{"Failed to set thread name(HTTPd): 2\n"});
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Thread_Name, that_cannot_be_set_when_cut_is_an_error_that_has_the_whole_name)
{
    Ended_Thread thread;
    const Log_Capture log;
    set_thread_name("a name that is too long", thread.handle());
    EXPECT_EQ(log.count(LM_WARNING, "truncate to 15 chars."), 1U);
    EXPECT_EQ(log.texts(LM_ERROR),
              std::vector<std::string>{"Failed to set thread name(a name that is too long): 2\n"});
    EXPECT_EQ(log.lines().size(), 2U);
}
