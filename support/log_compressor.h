#pragma once

#include <ace/Thread.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <sys/types.h>

/**
 * Compresses rotated logs one after the other, in a thread that lives while there is work: logs
 * rotate rarely, and a thread per burst has the log settings of the thread that rotates.
 *
 * One per process. Its end, with the process, cancels what is not done.
 */
class Log_Compressor {
public:
    static Log_Compressor& instance();

    struct Job {
        std::string path_; ///< of the plain copy
        int level_;
        std::function<void()> callback_; ///< may be empty
    };

    /// Runs the callback of a rotation, if there is one; lets no exception pass.
    static void call(const std::function<void()>& callback);

    /// Hands over a copy. 0, or -1 with errno and the job untouched when there is no memory or no
    /// thread to be had.
    int add(Job&& job);

    /// Waits until there is no work and no thread.
    void finish();

    /// Guards the names of copies: held while copies are pruned and while a compressed copy takes
    /// its final name, so that no pruned number comes back.
    std::mutex& names_mutex() { return names_mutex_; }

private:
    Log_Compressor() = default;
    ~Log_Compressor();
    Log_Compressor(const Log_Compressor&) = delete;
    Log_Compressor& operator=(const Log_Compressor&) = delete;

    static ACE_THR_FUNC_RETURN run(void* self);
    int start_thread();
    void join_thread();
    void work();
    bool take(Job& job);
    void compress(const Job& job);
    int replace_plain_copy(const std::string& plain, const std::string& temporary,
                           const std::string& compressed);

    std::mutex names_mutex_;
    std::mutex mutex_; ///< of everything below
    std::condition_variable idle_;
    std::deque<Job> jobs_;
    bool running_ = false;    ///< the thread takes jobs
    bool has_thread_ = false; ///< it was not joined yet
    ACE_hthread_t thread_{};
    pid_t process_ = 0; ///< that the thread belongs to: a forked child has none
    std::atomic<bool> cancelled_{false};
};
