#pragma once

#include <cstdint>
#include <map>
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
     * Threads that began in between count from their begin. Where one has ended, its own figure is
     * gone; that process is then counted by its clock, which includes ended threads.
     */
    std::uint64_t since(const Scheduler_Figures& before) const;

private:
    struct Process {
        pid_t pid_;
        std::uint64_t clock_;
        std::map<pid_t, std::uint64_t> threads_;
    };

    static Process read(pid_t pid);
    static std::uint64_t between(const Process& before, const Process& after);

    std::vector<Process> processes_;
};
