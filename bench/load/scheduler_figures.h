#pragma once

#include <cstdint>
#include <vector>

#include <sys/types.h>

/**
 * The time that processes spent on a processor, as the scheduler counts it.
 *
 * The kernel brings a running thread's figure up to date only when it stops or at a clock tick
 * (4 ms with 250 of them a second): take figures while the processes wait.
 */
class Scheduler_Figures {
public:
    /// Reads the figures of the processes now; ends the program where one cannot be read.
    explicit Scheduler_Figures(const std::vector<pid_t>& pids);

    /**
     * Nanoseconds on processors since `before`, which is of the same processes.
     *
     * The sum of the threads' figures (first field of /proc/PID/task/.../schedstat). The figure of
     * a thread that has ended is gone; the process's clock, which counts by the same figures, still
     * has it and is then the larger one.
     */
    std::uint64_t since(const Scheduler_Figures& before) const;

private:
    struct Process {
        std::uint64_t clock_;
        std::uint64_t threads_; ///< the sum of their figures
    };

    static Process read(pid_t pid);
    static std::uint64_t between(const Process& before, const Process& after);

    std::vector<Process> processes_;
};
