#pragma once

#include "plugins/basic_auth/credentials.h"

#include <array>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/**
 * The users of one version of a password file. Read once, then only asked; any thread.
 */
class Htpasswd_Table {
public:
    Htpasswd_Table() = default;
    Htpasswd_Table(const Htpasswd_Table&) = delete;
    Htpasswd_Table& operator=(const Htpasswd_Table&) = delete;

    /**
     * Reads lines of the form `user:hash`; empty lines and those that begin with "#" are skipped.
     * A hash that is not one of crypt(3) with a salt (`$id$...`) is left out with a warning, as is
     * a user who was named before.
     * @param path  names the file in log lines
     * @return 0; -1 with EINVAL and one error line that names file and line. Throws std::bad_alloc.
     */
    int parse(std::string_view text, const char* path);

    size_t size() const { return entries_.size(); }

    /**
     * True when the user is known and the password is the user's. Takes the time of one hash
     * whether or not the user is known, except for a pair that was found right before.
     */
    bool verify(const Credentials& credentials) const;

private:
    struct Entry {
        std::string user_;
        std::string hash_;
        int line_; ///< of the file
    };
    using Digest = std::array<unsigned char, 32>;

    static constexpr size_t CACHE_SIZE = 256;

    int parse_line(std::string_view line, int number, const char* path);
    void order_entries(const char* path);
    const Entry* find(std::string_view user) const;
    const Entry& stand_in(std::string_view user) const;
    bool is_cached(const Digest& digest) const;
    void cache(const Digest& digest) const;

    std::vector<Entry> entries_; ///< ordered by user

    // Digests of pairs that were found right, so that a client that comes back does not cost a hash
    // each time. Each has one place, given by itself; they go with the table.
    mutable std::mutex cache_lock_;
    mutable std::array<Digest, CACHE_SIZE> cache_{};
};
