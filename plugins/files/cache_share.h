#pragma once

#include <cstddef>

/**
 * A share of what the caches of all records together may hold: descriptors, of which connections
 * need most, and bytes of memory. Given back by the destructor. Any thread.
 */
class Cache_Share {
public:
    /// For all caches of the process together. Of descriptors, an eighth of the process's limit is
    /// taken at most.
    static constexpr int MAX_DESCRIPTORS = 1000;
    static constexpr size_t MAX_BYTES = 4 * 1024 * 1024;

    Cache_Share() = default;
    ~Cache_Share() { give_back(); }
    Cache_Share(const Cache_Share&) = delete;
    Cache_Share& operator=(const Cache_Share&) = delete;

    /// In place of what it has. @return false, and it has nothing, when so much is not left.
    bool take(int descriptors, size_t bytes);

    void give_back();

private:
    int descriptors_ = 0;
    size_t bytes_ = 0;
};
