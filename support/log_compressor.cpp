#include "support/log_compressor.h"

#include "support/gzip_file.h"
#include "support/log.h"
#include "support/signals_blocked.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

namespace {

/// Makes the new name of a file last, as far as the file system can.
void sync_directory_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int handle = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle != -1) {
        fsync(handle);
        close(handle);
    }
}

} // namespace

void Log_Compressor::call(const std::function<void()>& callback)
{
    try {
        if (callback) {
            callback();
        }
    } catch (...) {
        HTTPD_ERROR("The callback of a log rotation threw an exception");
    }
}

Log_Compressor& Log_Compressor::instance()
{
    static Log_Compressor compressor;
    return compressor;
}

Log_Compressor::~Log_Compressor()
{
    cancelled_ = true;
    if (process_ == getpid()) {
        finish();
    }
}

int Log_Compressor::add(Job&& job)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    try {
        jobs_.push_back(std::move(job));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    if (running_) {
        return 0;
    }
    join_thread(); // it has nothing left to do but to end
    if (start_thread() == -1) {
        job = std::move(jobs_.back());
        jobs_.pop_back();
        return -1;
    }
    return 0;
}

/// Starts the thread with every signal blocked: signals are for the threads of the host.
int Log_Compressor::start_thread()
{
    const Signals_Blocked blocked;
    running_ = true;
    process_ = getpid();
    const int result = ACE_Thread::spawn(&Log_Compressor::run, this, THR_NEW_LWP | THR_JOINABLE,
                                         nullptr, &thread_);
    running_ = has_thread_ = result == 0;
    return result;
}

void Log_Compressor::join_thread()
{
    if (has_thread_) {
        ACE_Thread::join(thread_);
        has_thread_ = false;
    }
}

void Log_Compressor::finish()
{
    std::unique_lock<std::mutex> guard(mutex_);
    idle_.wait(guard, [this] { return !running_; });
    join_thread();
}

ACE_THR_FUNC_RETURN Log_Compressor::run(void* self)
{
    static_cast<Log_Compressor*>(self)->work();
    return {};
}

void Log_Compressor::work()
{
    constexpr int NICE = 10; // of this thread alone: requests come first
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), NICE);
    Job job;
    while (take(job)) {
        compress(job);
        if (!cancelled_) {
            call(job.callback_);
        }
        job = Job();
    }
}

bool Log_Compressor::take(Job& job)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    if (cancelled_) {
        jobs_.clear();
    }
    if (jobs_.empty()) {
        running_ = false;
        idle_.notify_all();
        return false;
    }
    job = std::move(jobs_.front());
    jobs_.pop_front();
    return true;
}

void Log_Compressor::compress(const Job& job)
{
    int result = -1;
    try {
        const std::string compressed = job.path_ + ".gz";
        const std::string temporary = compressed + ".tmp";
        result = gzip_file(job.path_.c_str(), temporary.c_str(), job.level_, cancelled_);
        if (result == 0) {
            result = replace_plain_copy(job.path_, temporary, compressed);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    const int error = errno;
    // A copy that is no longer there was pruned before its turn.
    if (result == -1 && error != ECANCELED && access(job.path_.c_str(), F_OK) == 0) {
        errno = error;
        HTTPD_ERROR("Failed to compress rotated log %s, errno=%d, %m", job.path_.c_str(), error);
    }
}

int Log_Compressor::replace_plain_copy(const std::string& plain, const std::string& temporary,
                                       const std::string& compressed)
{
    {
        const std::lock_guard<std::mutex> guard(names_mutex_);
        if (access(plain.c_str(), F_OK) == -1 ||
            rename(temporary.c_str(), compressed.c_str()) == -1) {
            const int error = errno;
            unlink(temporary.c_str());
            errno = error;
            return -1;
        }
    }
    sync_directory_of(compressed);
    return unlink(plain.c_str()) == -1 && errno != ENOENT ? -1 : 0;
}
