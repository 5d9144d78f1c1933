#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

/**
 * How long requests took, in nanoseconds.
 *
 * A histogram of fixed size: each power of two is divided into 64 steps, so a percentile is off by
 * 1.6 % at most. Where the number of requests is known before, every single value is kept instead.
 * Recording allocates nothing.
 */
class Latencies {
public:
    /// Keeps the next `count` values exactly; 0: the histogram.
    void reset(std::uint64_t count);

    void record(std::uint64_t nanoseconds)
    {
        max_ = nanoseconds > max_ ? nanoseconds : max_;
        if (exact_) {
            values_.push_back(nanoseconds);
        } else {
            ++buckets_[bucket_of(nanoseconds)];
            ++count_;
        }
    }

    /// The smallest value that `share` (0 to 1) of all values do not exceed; 0 without values.
    std::uint64_t percentile(double share);

    std::uint64_t max() const { return max_; }

private:
    static constexpr unsigned STEP_BITS = 6;
    static constexpr std::uint64_t STEPS = 1U << STEP_BITS;
    static constexpr size_t BUCKETS = (64 - STEP_BITS + 1) * STEPS;

    static size_t bucket_of(std::uint64_t value)
    {
        if (value < STEPS) {
            return value;
        }
        const unsigned shift = 63U - static_cast<unsigned>(__builtin_clzll(value)) - STEP_BITS;
        return (shift + 1) * STEPS + ((value >> shift) - STEPS);
    }

    static std::uint64_t middle_of(size_t bucket);

    bool exact_ = false;
    std::uint64_t count_ = 0;
    std::uint64_t max_ = 0;
    std::array<std::uint64_t, BUCKETS> buckets_ = {};
    std::vector<std::uint64_t> values_;
};
