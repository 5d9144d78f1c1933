#pragma once

#include "plugins/files/found_file.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

/**
 * The files that were found below a root in the last second, by the spelling of the request's path:
 * a request for one of them looks nothing up and opens nothing. What was put in is forgotten after
 * FRESH_MS, so a name that stands for another file, or for none, is noticed by then.
 *
 * Bounded in names (SETS * WAYS), and by Cache_Share in descriptors and memory. Every operation by
 * any thread.
 */
class File_Cache {
public:
    static constexpr size_t SETS = 128;
    static constexpr size_t WAYS = 8;

    static constexpr std::int64_t FRESH_MS = 1000;

    /// Larger files are looked up each time, which their sending outweighs: none holds its space on
    /// the disk here once it has been removed.
    static constexpr std::uint64_t MAX_SIZE = 1024 * 1024;

    /// Up to here the content is held in place of a descriptor.
    static constexpr std::uint64_t MAX_CONTENT = 8 * 1024;

    /// Longer names are looked up each time.
    static constexpr size_t MAX_NAME = 255;

    /// Milliseconds that only grow.
    using Clock = std::int64_t (*)();

    explicit File_Cache(Clock clock = coarse_clock) : clock_(clock) {}

    /// What was put in under that name less than FRESH_MS ago, or null.
    std::shared_ptr<const Found_File> find(std::string_view name);

    /// Keeps the file for a while if it is not too large and there is room; may read its content.
    void put(std::string_view name, std::shared_ptr<Found_File> file);

    /// Forgets everything: descriptors are needed elsewhere. @return false when it was empty.
    bool clear();

    /// The system's clock by its ticks: some milliseconds late, and cheap.
    static std::int64_t coarse_clock();

private:
    struct Slot {
        size_t hash_ = 0;
        std::int64_t since_ = 0;
        std::string name_;
        std::shared_ptr<const Found_File> file_; ///< null: the slot is free
    };

    struct Set {
        std::mutex mutex_;
        std::array<Slot, WAYS> slots_;
    };

    bool admit(Found_File& file);
    bool make_room();
    bool drop_outdated(size_t sets);
    bool drop(Set& set, std::int64_t before);

    Clock clock_;
    std::array<Set, SETS> sets_;
    std::atomic<size_t> next_set_{0};          ///< that is searched for what is outdated
    std::atomic<std::int64_t> last_search_{0}; ///< of all sets
};
