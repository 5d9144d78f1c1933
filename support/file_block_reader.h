#pragma once

#include "support/export.h"

#include <ace/FILE.h>

#include <cstddef>
#include <functional>
#include <sys/types.h>

/**
 * Reads a regular file from its start in blocks, into the caller's memory. What
 * Fixed_Block_File_Reader_T does apart from the buffer. Used by one thread at a time.
 */
class HTTPD_SUPPORT_EXPORT File_Block_Reader {
public:
    enum : size_t {
        DEFAULT_BLOCK_SIZE = 256 * 1024,
        DIRECT_ALIGNMENT = 4096 ///< of buffer, length and offset of a direct read
    };

    /// Values of `discard_cache`; a positive one is a count of bytes.
    enum : long {
        KEEP_CACHE = 0,
        DISCARD_EACH_BLOCK = -1,
        DIRECT = -2,
    };

    File_Block_Reader() = default;
    ~File_Block_Reader(); ///< close()
    File_Block_Reader(const File_Block_Reader&) = delete;
    File_Block_Reader& operator=(const File_Block_Reader&) = delete;

    /// See Fixed_Block_File_Reader_T.
    bool open(const char* path, size_t block_size, int flags, bool read_ahead, long discard_cache,
              unsigned int mode, bool exclusive, const std::function<bool(const char*)>& filter);

    /// Harmless when not open; keeps errno.
    void close();

    /// Size, mode and links as they were at open; false with errno EBADF when not open.
    bool get_info(ACE_FILE_Info& info) const;

    /// The room that the next read() needs; 0 at the end of the file and when not open.
    size_t next_room() const;

    /**
     * Reads the next block.
     * @param buffer  at least next_room() bytes, aligned to DIRECT_ALIGNMENT.
     * @return its length, 0 at the end of the file, -1 with errno (EBADF: not open).
     */
    ssize_t read(void* buffer);

    /// The open file, or -1. It stays the reader's; offset-based calls such as sendfile(2) with an
    /// offset do not disturb the reader.
    int handle() const { return handle_; }

private:
    bool open_file(const char* path, int flags, unsigned int mode);
    bool check_file();
    void leave_direct_mode();
    ssize_t fill(char* buffer, size_t room);
    void discard_cache(bool at_end);
    void announce_next_block() const;

    int handle_ = -1;
    ACE_FILE_Info info_{}; ///< at open: nothing beyond its size is handed out
    size_t block_size_ = 0;
    off_t offset_ = 0;    ///< of the next block
    off_t discarded_ = 0; ///< where the cache that is not given up yet begins
    long discard_cache_ = KEEP_CACHE;
    bool read_ahead_ = false;
    bool direct_ = false;
};
