#pragma once

#include <cstdint>
#include <string>

/// The parameters of a record that serves files.
struct File_Options {
    static constexpr std::uint64_t DEFAULT_THREAD_SIZE = 256 * 1024;

    std::string root_;                                ///< --root: required
    std::string index_ = "index.html";                ///< --index: a name without slash
    std::string cache_control_;                       ///< --cache-control: "" sends no such field
    std::uint64_t thread_size_ = DEFAULT_THREAD_SIZE; ///< --thread-size: bytes; larger answers get
                                                      ///< a thread of their own

    /**
     * @param argv  argv[0] is the first parameter; null when there are none
     * @return 0; -1 with EINVAL and one error line. Throws std::bad_alloc.
     */
    int parse(int argc, char** argv);
};

/**
 * Reads a size in bytes: digits, then nothing or one of the letters k, m, g in either case, for
 * powers of 1024. @return false when it is malformed or does not fit in 64 bits.
 */
bool parse_file_size(const std::string& text, std::uint64_t& size);
