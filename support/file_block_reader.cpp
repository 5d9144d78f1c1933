#include "support/file_block_reader.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr off_t PAGE = 4096;
constexpr off_t LARGEST_FOLIO = 2 * 1024 * 1024; ///< pages that the kernel keeps as one piece

/// Asks the caller's filter; one that throws has not agreed.
bool is_accepted(const std::function<bool(const char*)>& filter, const char* path)
{
    try {
        return !filter || filter(path);
    } catch (...) {
        return false;
    }
}

} // namespace

File_Block_Reader::~File_Block_Reader()
{
    close();
}

bool File_Block_Reader::open(const char* path, size_t block_size, int flags, bool read_ahead,
                             long discard_cache, unsigned int mode, bool,
                             const std::function<bool(const char*)>& filter)
{
    close();
    if (path == nullptr) {
        errno = EINVAL;
        return false;
    }
    if (!is_accepted(filter, path)) {
        errno = EACCES;
        return false;
    }
    block_size_ = block_size == 0 ? +DEFAULT_BLOCK_SIZE : block_size;
    read_ahead_ = read_ahead;
    discard_cache_ = discard_cache;
    direct_ = discard_cache == DIRECT;
    offset_ = 0;
    discarded_ = 0;
    if (!open_file(path, flags, mode) || !check_file()) {
        const int error = errno;
        close();
        errno = error;
        return false;
    }
    if (read_ahead_ && !direct_) {
        posix_fadvise(handle_, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    return true;
}

bool File_Block_Reader::open_file(const char* path, int flags, unsigned int mode)
{
    flags |= O_NONBLOCK | O_NOCTTY;
    for (;;) {
        handle_ = ::open(path, direct_ ? flags | O_DIRECT : flags, static_cast<mode_t>(mode));
        if (handle_ != -1) {
            return true;
        }
        if (direct_ && errno == EINVAL) {
            direct_ = false; // the file system knows no direct I/O
        } else if (errno != EINTR) {
            break;
        }
    }
    if (errno == ENXIO || errno == EISDIR) { // a socket, a device that is not there, a directory
        errno = EINVAL;
    }
    return false;
}

bool File_Block_Reader::check_file()
{
    struct stat status;
    if (fstat(handle_, &status) == -1) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return false;
    }
    info_.mode_ = status.st_mode;
    info_.nlink_ = status.st_nlink;
    info_.size_ = status.st_size;
    return true;
}

void File_Block_Reader::close()
{
    if (handle_ == -1) {
        return;
    }
    const int error = errno;
    discard_cache(true);
    ::close(handle_);
    handle_ = -1;
    errno = error;
}

bool File_Block_Reader::get_info(ACE_FILE_Info& info) const
{
    if (handle_ == -1) {
        errno = EBADF;
        return false;
    }
    info = info_;
    return true;
}

size_t File_Block_Reader::next_room() const
{
    if (handle_ == -1 || offset_ >= info_.size_) {
        return 0;
    }
    const size_t room = std::min(block_size_, static_cast<size_t>(info_.size_ - offset_));
    return direct_ ? (room + DIRECT_ALIGNMENT - 1) / DIRECT_ALIGNMENT * DIRECT_ALIGNMENT : room;
}

ssize_t File_Block_Reader::read(void* buffer)
{
    if (handle_ == -1) {
        errno = EBADF;
        return -1;
    }
    const size_t room = next_room();
    ssize_t count = room == 0 ? 0 : fill(static_cast<char*>(buffer), room);
    if (count > 0) {
        // A direct read is rounded up and may see what the file has grown by.
        count = static_cast<ssize_t>(std::min<off_t>(count, info_.size_ - offset_));
        offset_ += count;
        discard_cache(offset_ == info_.size_);
        announce_next_block();
    }
    return count;
}

/// Reads until `room` bytes are there or the file ends.
ssize_t File_Block_Reader::fill(char* buffer, size_t room)
{
    size_t filled = 0;
    while (filled < room) {
        const ssize_t count =
            pread(handle_, buffer + filled, room - filled, offset_ + static_cast<off_t>(filled));
        if (count > 0) {
            filled += static_cast<size_t>(count);
        } else if (count == 0) {
            break;
        } else if (direct_ && errno == EINVAL) {
            // Refused only now, or the last read ended at a place where no direct one may begin.
            leave_direct_mode();
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(filled);
}

void File_Block_Reader::leave_direct_mode()
{
    direct_ = false;
    const int flags = fcntl(handle_, F_GETFL);
    if (flags != -1) {
        fcntl(handle_, F_SETFL, flags & ~O_DIRECT);
    }
}

/// Gives up the cache behind the reader. The kernel drops only what lies in the range as a whole: a
/// page, or a larger folio of them, that ends behind the range waits for a later block, whose range
/// therefore begins where the folio may have begun.
void File_Block_Reader::discard_cache(bool at_end)
{
    if (discard_cache_ != DISCARD_EACH_BLOCK && discard_cache_ <= KEEP_CACHE) {
        return;
    }
    const off_t step = discard_cache_ == DISCARD_EACH_BLOCK ? 1 : discard_cache_;
    const off_t whole_pages = offset_ / PAGE * PAGE;
    const off_t end = at_end ? offset_ : whole_pages;
    if (end <= discarded_ || (!at_end && offset_ - discarded_ < step)) {
        return;
    }
    const off_t begin = discarded_ / LARGEST_FOLIO * LARGEST_FOLIO;
    posix_fadvise(handle_, begin, end - begin, POSIX_FADV_DONTNEED);
    discarded_ = whole_pages;
}

void File_Block_Reader::announce_next_block() const
{
    if (read_ahead_ && !direct_ && offset_ < info_.size_) {
        posix_fadvise(handle_, offset_, static_cast<off_t>(next_room()), POSIX_FADV_WILLNEED);
    }
}
