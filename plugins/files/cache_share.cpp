#include "plugins/files/cache_share.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>

namespace {

std::atomic<int> descriptors_taken{0};
std::atomic<size_t> bytes_taken{0};

int descriptor_limit()
{
    constexpr rlim_t PART = 8;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == -1) {
        return 0;
    }
    return static_cast<int>(std::min<rlim_t>(limit.rlim_cur / PART, Cache_Share::MAX_DESCRIPTORS));
}

} // namespace

bool Cache_Share::take(int descriptors, size_t bytes)
{
    give_back();
    descriptors_ = descriptors;
    bytes_ = bytes;
    // Nothing but these counts is handed over by them.
    const int all_descriptors =
        descriptors_taken.fetch_add(descriptors, std::memory_order_relaxed) + descriptors;
    const size_t all_bytes = bytes_taken.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    if (all_bytes > MAX_BYTES || (descriptors > 0 && all_descriptors > descriptor_limit())) {
        give_back();
        return false;
    }
    return true;
}

void Cache_Share::give_back()
{
    descriptors_taken.fetch_sub(descriptors_, std::memory_order_relaxed);
    bytes_taken.fetch_sub(bytes_, std::memory_order_relaxed);
    descriptors_ = 0;
    bytes_ = 0;
}
