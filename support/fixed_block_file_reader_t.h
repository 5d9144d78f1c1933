#pragma once

#include "support/file_block_reader.h"
#include "support/file_buffer_t.h"

/**
 * Reads a regular file from its start to its end in blocks of a fixed size, the last one shorter,
 * through a `Buffer` of `Char` that it owns, as large as the largest block of this file.
 *
 * Never hands out more bytes than the size that get_info() tells, also when the file grows
 * meanwhile; fewer when it shrinks. The destructor closes. Used by one thread at a time.
 */
template <class Char, class Buffer>
class Fixed_Block_File_Reader_T {
    static_assert(sizeof(Char) == 1, "blocks are counted in bytes");

public:
    /**
     * Opens `path`, after closing what was open.
     *
     * @param block_size     in bytes; 0 means 256 KiB. Direct reading rounds it up to 4096.
     * @param flags          of open(2). O_NONBLOCK and O_NOCTTY are added, so that nothing but a
     *                       file is ever waited for.
     * @param read_ahead     has the kernel fetch the next block while this one is used.
     * @param discard_cache  what becomes of the page cache behind the reader: 0 leaves it, -1 drops
     *                       it behind each block, n > 0 every n bytes. -2 reads past the cache, or
     *                       through it where the file system refuses.
     * @param mode           permission bits, used when `flags` create the file.
     * @param exclusive      asks for a lock; not used.
     * @param filter         when not empty, asked with `path` first; false refuses it.
     * @return false with errno: that of open(2) or fstat(2); EINVAL for what is no regular file and
     *         a null path; EACCES when the filter refused or threw.
     */
    bool open(const char* path, size_t block_size, int flags, bool read_ahead, long discard_cache,
              unsigned int mode, bool exclusive, const std::function<bool(const char*)>& filter)
    {
        return reader_.open(path, block_size, flags, read_ahead, discard_cache, mode, exclusive,
                            filter);
    }

    /// Fills in size, mode and links as they were at open; false with errno EBADF when not open.
    bool get_info(ACE_FILE_Info& info) const { return reader_.get_info(info); }

    /**
     * Reads the next block. `data` points to it until the next call or close, `length` is its size;
     * null and 0 at the end of the file.
     * @return false with errno: that of pread(2), EBADF when not open, ENOMEM.
     */
    bool read(void*& data, long& length)
    {
        data = nullptr;
        length = 0;
        if (!buffer_.reserve(reader_.next_room())) {
            return false;
        }
        const ssize_t count = reader_.read(buffer_.data());
        if (count > 0) {
            data = buffer_.data();
            length = count;
        }
        return count >= 0;
    }

    void close() { reader_.close(); }

    /// The open file, or -1; it stays the reader's. For calls with an offset of their own, such as
    /// sendfile(2).
    int handle() const { return reader_.handle(); }

private:
    File_Block_Reader reader_;
    Buffer buffer_;
};
