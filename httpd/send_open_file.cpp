#include "httpd/send_open_file.h"

#include "httpd/detail/file_block.h"
#include "httpd/detail/loop_io.h"
#include "support/log.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace {

/// Up to here a part is read and leaves with the header in one write, which is no dearer.
constexpr std::uint64_t SMALL_PART = 4096;

int read_failed(const HTTP_IO& io)
{
    HTTPD_ERROR("Failed to read the file of '%C', errno=%d, %m", io.request().uri(true), errno);
    return -1;
}

int became_shorter(const HTTP_IO& io)
{
    HTTPD_ERROR("The file of '%C' became shorter while it was sent", io.request().uri(true));
    return -1;
}

/// Reads `length` bytes unless the file ends before. @return how many, or -1 with errno.
ssize_t read_at(int file, char* buffer, size_t length, std::uint64_t offset)
{
    size_t done = 0;
    while (done < length) {
        const ssize_t n =
            ::pread(file, buffer + done, length - done, static_cast<off_t>(offset + done));
        if (n == -1 && errno == EINTR) {
            continue;
        }
        if (n == -1) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

/// A block at a time, the header with the first: a file of one block is one read and one write.
int send_blocks(HTTP_IO& io, int file, std::uint64_t offset, std::uint64_t length, bool last)
{
    char* const buffer = file_block();
    if (buffer == nullptr) {
        HTTPD_ERROR("Failed to allocate a buffer for '%C', errno=%d, %m", io.request().uri(true),
                    errno);
        return -1;
    }
    int result = 0;
    while (length > 0 && result == 0) {
        const size_t wanted = static_cast<size_t>(std::min<std::uint64_t>(length, FILE_BLOCK_SIZE));
        const ssize_t n = read_at(file, buffer, wanted, offset);
        if (n == -1) {
            return read_failed(io);
        }
        if (static_cast<size_t>(n) < wanted) {
            return became_shorter(io);
        }
        length -= wanted;
        offset += wanted;
        result = io.send(buffer, wanted, last && length == 0);
    }
    return result;
}

} // namespace

int send_open_file(HTTP_IO& io, int file, std::uint64_t offset, std::uint64_t length, bool last)
{
    if (length == 0) {
        return io.send(nullptr, 0, last);
    }
    auto* const loop_io = length > SMALL_PART ? dynamic_cast<Loop_IO*>(&io) : nullptr;
    if (loop_io == nullptr || !loop_io->sends_from_files()) {
        return send_blocks(io, file, offset, length, last);
    }
    File_Sent::Outcome outcome = File_Sent::COMPLETE;
    const int result =
        loop_io->send_file_part(file, static_cast<off_t>(offset), static_cast<size_t>(length),
                                FILE_BLOCK_SIZE, last, outcome);
    switch (outcome) {
    case File_Sent::READ_FAILED:
        return read_failed(io);
    case File_Sent::FILE_ENDED:
        return became_shorter(io);
    case File_Sent::COMPLETE:
    case File_Sent::SEND_FAILED:
        break;
    }
    return result;
}
