#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>

/// How many descriptors a process has open now, and the greatest of them (-1: none).
struct Process_Descriptors {
    size_t count = 0;
    int greatest = -1;
};

inline Process_Descriptors process_descriptors(pid_t pid)
{
    Process_Descriptors found;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        ++found.count;
        found.greatest =
            std::max(found.greatest, std::atoi(entry.path().filename().string().c_str()));
    }
    return found;
}
