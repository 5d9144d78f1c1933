#include "httpd/worker_threads.h"

#include <ace/Log_Msg.h>
#include <ace/OS_Log_Msg_Attributes.h>

#include <pthread.h>

#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>

namespace {

/// Never destroyed: a thread may outlive static objects.
struct Count {
    std::mutex mutex;
    std::condition_variable changed;
    size_t running = 0;
};

Count& count()
{
    static Count* const count = new Count;
    return *count;
}

void add_thread()
{
    const std::lock_guard<std::mutex> guard(count().mutex);
    ++count().running;
}

void remove_thread()
{
    const std::lock_guard<std::mutex> guard(count().mutex);
    if (--count().running == 0) {
        count().changed.notify_all();
    }
}

/**
 * Tells that a thread has ended when the destructors of its data have run, above all of ACE's log:
 * they take locks that ACE destroys at the end of the process. The system runs those that have set
 * their data again in a further round, after all others.
 */
class End_Of_Thread {
public:
    static void watch()
    {
        static const End_Of_Thread end;
        if (!end.has_key_ || ::pthread_setspecific(end.key_, FIRST_ROUND) != 0) {
            without_key_ = true;
        }
    }

    static void body_has_returned()
    {
        if (without_key_) {
            remove_thread();
        }
    }

private:
    static constexpr const char* FIRST_ROUND = "1";
    static constexpr const char* SECOND_ROUND = "2";

    End_Of_Thread() : has_key_(::pthread_key_create(&key_, &End_Of_Thread::destroy) == 0)
    {
        the_key_ = key_;
    }

    static void destroy(void* round)
    {
        if (round != static_cast<const void*>(FIRST_ROUND) ||
            ::pthread_setspecific(the_key_, SECOND_ROUND) != 0) {
            remove_thread();
        }
    }

    static inline pthread_key_t the_key_ = 0;
    static inline constinit thread_local bool without_key_ = false;

    pthread_key_t key_ = 0;
    bool has_key_;
};

/// What a thread starts with.
struct Start {
    Worker_Threads::Body body_;
    void* argument_;
    ACE_OS_Log_Msg_Attributes log_;
};

/// This thread's part of ACE's log, and its buffer, are made now or not at all.
bool has_log()
{
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    return log != nullptr && log->msg() != nullptr;
}

void* run(void* argument)
{
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    End_Of_Thread::watch();
    const bool logs = has_log();
    if (logs) {
        ACE_Log_Msg::inherit_hook(nullptr, start->log_);
    }
    start->body_(start->argument_, logs);
    End_Of_Thread::body_has_returned();
    return nullptr;
}

} // namespace

int Worker_Threads::start(Body body, void* argument)
{
    std::unique_ptr<Start> start(new (std::nothrow) Start);
    if (start == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    start->body_ = body;
    start->argument_ = argument;
    if (has_log()) {
        ACE_Log_Msg::init_hook(start->log_);
    }
    pthread_attr_t attributes;
    int error = ::pthread_attr_init(&attributes);
    if (error != 0) {
        errno = error;
        return -1;
    }
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    ::pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    add_thread();
    pthread_t thread{};
    error = ::pthread_create(&thread, &attributes, &run, start.get());
    ::pthread_attr_destroy(&attributes);
    if (error != 0) {
        remove_thread();
        errno = error;
        return -1;
    }
    start.release(); // the thread's
    return 0;
}

bool Worker_Threads::wait_until(std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock<std::mutex> guard(count().mutex);
    return count().changed.wait_until(guard, deadline, [] { return count().running == 0; });
}
