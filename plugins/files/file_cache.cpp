#include "plugins/files/file_cache.h"

#include <ctime>
#include <functional>
#include <limits>
#include <new>
#include <utility>

namespace {

/// Sets that each put() clears of what is outdated: a file that nobody asks for any more is closed
/// soon after the next requests for others.
constexpr size_t SETS_PER_PUT = 8;

bool is_small(const std::optional<File_Form>& form)
{
    return form && form->version().size_ <= File_Cache::MAX_CONTENT;
}

bool is_large(const std::optional<File_Form>& form)
{
    return form && form->version().size_ > File_Cache::MAX_SIZE;
}

size_t content_size(const std::optional<File_Form>& form)
{
    return is_small(form) ? static_cast<size_t>(form->version().size_) : 0;
}

int descriptors(const std::optional<File_Form>& form)
{
    return form && !is_small(form) ? 1 : 0;
}

} // namespace

std::int64_t File_Cache::coarse_clock()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

std::shared_ptr<const Found_File> File_Cache::find(std::string_view name)
{
    const size_t hash = std::hash<std::string_view>()(name);
    Set& set = sets_[hash % SETS];
    const std::int64_t now = clock_();
    const std::lock_guard<std::mutex> lock(set.mutex_);
    for (const Slot& slot : set.slots_) {
        if (slot.hash_ == hash && slot.file_ != nullptr && slot.name_ == name) {
            return now - slot.since_ < FRESH_MS ? slot.file_ : nullptr;
        }
    }
    return nullptr;
}

void File_Cache::put(std::string_view name, std::shared_ptr<Found_File> file)
{
    drop_outdated(SETS_PER_PUT);
    if (name.size() > MAX_NAME || is_large(file->plain_) || is_large(file->compressed_) ||
        !(admit(*file) || (make_room() && admit(*file)))) {
        return;
    }
    for (std::optional<File_Form>* const form : {&file->plain_, &file->compressed_}) {
        if (is_small(*form) && !(*form)->hold_content()) {
            return;
        }
    }
    const size_t hash = std::hash<std::string_view>()(name);
    Set& set = sets_[hash % SETS];
    std::shared_ptr<const Found_File> replaced; // closed when the lock is free again
    const std::lock_guard<std::mutex> lock(set.mutex_);
    Slot* target = &set.slots_[0];
    for (Slot& slot : set.slots_) {
        if (slot.file_ != nullptr && slot.hash_ == hash && slot.name_ == name) {
            target = &slot;
            break;
        }
        const bool older = slot.file_ == nullptr || slot.since_ < target->since_;
        if (target->file_ != nullptr && older) {
            target = &slot;
        }
    }
    replaced = std::move(target->file_);
    try {
        target->name_ = name;
    } catch (const std::bad_alloc&) {
        return; // the slot is free now
    }
    target->hash_ = hash;
    target->since_ = clock_();
    target->file_ = std::move(file);
}

bool File_Cache::clear()
{
    bool dropped = false;
    for (Set& set : sets_) {
        dropped = drop(set, std::numeric_limits<std::int64_t>::max()) || dropped;
    }
    return dropped;
}

bool File_Cache::admit(Found_File& file)
{
    return file.share_.take(descriptors(file.plain_) + descriptors(file.compressed_),
                            content_size(file.plain_) + content_size(file.compressed_));
}

/// Forgets all that is outdated. @return false when there is nothing, or was nothing just now.
bool File_Cache::make_room()
{
    constexpr std::int64_t PAUSE_MS = 100;
    const std::int64_t now = clock_();
    std::int64_t last = last_search_.load(std::memory_order_relaxed);
    return now - last >= PAUSE_MS &&
           last_search_.compare_exchange_strong(last, now, std::memory_order_relaxed) &&
           drop_outdated(SETS);
}

bool File_Cache::drop_outdated(size_t sets)
{
    const std::int64_t before = clock_() - FRESH_MS + 1;
    bool dropped = false;
    for (size_t i = 0; i < sets; ++i) {
        const size_t next = next_set_.fetch_add(1, std::memory_order_relaxed);
        dropped = drop(sets_[next % SETS], before) || dropped;
    }
    return dropped;
}

/// Forgets what was put in before that time. @return whether there was anything.
bool File_Cache::drop(Set& set, std::int64_t before)
{
    std::array<std::shared_ptr<const Found_File>, WAYS> dropped; // closed behind the lock
    const std::lock_guard<std::mutex> lock(set.mutex_);
    bool any = false;
    for (size_t i = 0; i < WAYS; ++i) {
        Slot& slot = set.slots_[i];
        if (slot.file_ != nullptr && slot.since_ < before) {
            dropped[i] = std::move(slot.file_);
            any = true;
        }
    }
    return any;
}
