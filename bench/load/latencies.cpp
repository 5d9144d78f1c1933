#include "bench/load/latencies.h"

#include <algorithm>
#include <cmath>

void Latencies::reset(std::uint64_t count)
{
    exact_ = count != 0;
    count_ = 0;
    max_ = 0;
    buckets_.fill(0);
    values_.clear();
    values_.reserve(count);
}

std::uint64_t Latencies::middle_of(size_t bucket)
{
    if (bucket < STEPS) {
        return bucket;
    }
    const size_t shift = bucket / STEPS - 1;
    const std::uint64_t first = (STEPS + bucket % STEPS) << shift;
    return first + ((std::uint64_t(1) << shift) >> 1);
}

std::uint64_t Latencies::percentile(double share)
{
    const std::uint64_t count = exact_ ? values_.size() : count_;
    if (count == 0) {
        return 0;
    }
    const double wanted = std::ceil(share * static_cast<double>(count));
    const std::uint64_t rank =
        std::clamp<std::uint64_t>(static_cast<std::uint64_t>(wanted), 1, count);
    if (exact_) {
        const auto nth = values_.begin() + static_cast<std::ptrdiff_t>(rank - 1);
        std::nth_element(values_.begin(), nth, values_.end());
        return *nth;
    }
    std::uint64_t seen = 0;
    size_t bucket = 0;
    while ((seen += buckets_[bucket]) < rank) {
        ++bucket;
    }
    return std::min(middle_of(bucket), max_);
}
