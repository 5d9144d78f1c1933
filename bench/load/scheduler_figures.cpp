#include "bench/load/scheduler_figures.h"

#include "bench/common/fail.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <string>

namespace {

/// The first field of the file: nanoseconds on a processor. False: the thread is gone.
bool read_schedstat(const std::string& path, std::uint64_t& nanoseconds)
{
    std::FILE* const file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    char line[128];
    const bool read = std::fgets(line, sizeof line, file) != nullptr;
    static_cast<void>(std::fclose(file));
    if (read) {
        nanoseconds = std::strtoull(line, nullptr, 10);
    }
    return read;
}

std::uint64_t process_clock(pid_t pid)
{
    clockid_t id = 0;
    timespec time = {};
    const int error = clock_getcpuclockid(pid, &id);
    if (error != 0 || clock_gettime(id, &time) == -1) {
        fail("the clock of process %d cannot be read", static_cast<int>(pid));
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(time.tv_nsec);
}

} // namespace

Scheduler_Figures::Scheduler_Figures(const std::vector<pid_t>& pids)
{
    processes_.reserve(pids.size());
    for (const pid_t pid : pids) {
        processes_.push_back(read(pid));
    }
}

Scheduler_Figures::Process Scheduler_Figures::read(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    DIR* const threads = opendir(folder.c_str());
    if (threads == nullptr) {
        fail_errno("%s", folder.c_str());
    }
    Process process{process_clock(pid), 0};
    while (const dirent* const entry = readdir(threads)) {
        std::uint64_t nanoseconds = 0;
        if (entry->d_name[0] != '.' &&
            read_schedstat(folder + '/' + entry->d_name + "/schedstat", nanoseconds)) {
            process.threads_ += nanoseconds;
        }
    }
    closedir(threads);
    return process;
}

std::uint64_t Scheduler_Figures::between(const Process& before, const Process& after)
{
    const std::uint64_t by_threads =
        after.threads_ > before.threads_ ? after.threads_ - before.threads_ : 0;
    return std::max(by_threads, after.clock_ - before.clock_);
}

std::uint64_t Scheduler_Figures::since(const Scheduler_Figures& before) const
{
    std::uint64_t sum = 0;
    for (size_t i = 0; i < processes_.size(); ++i) {
        sum += between(before.processes_[i], processes_[i]);
    }
    return sum;
}
