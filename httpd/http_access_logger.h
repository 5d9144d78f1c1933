#pragma once

#include "httpd/export.h"
#include "support/log_limit.h"

#include <ace/FILE_IO.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

class ACE_INET_Addr;
class ACE_Time_Value;
class HTTP_Request;
class HTTP_Response;

/**
 * Writes one line for each answered request:
 *
 *     2024-05-06 07:08:09.123456@192.0.2.7@0.004512@GET /status HTTP/1.1 200 0 1536
 *
 * that is the local time at which the request ended, the peer, the seconds it took, the request
 * line with the path alone, the status, and the bytes of body received and sent. The file is
 * rotated, or emptied where no copies are to be kept, when it has grown above a limit.
 *
 * Lines of several threads never mix, and none is lost by a rotation. Every operation may be called
 * by any thread.
 */
class HTTPD_EXPORT HTTP_Access_Logger_Impl {
public:
    HTTP_Access_Logger_Impl() = default;
    ~HTTP_Access_Logger_Impl(); ///< closes the file
    HTTP_Access_Logger_Impl(const HTTP_Access_Logger_Impl&) = delete;
    HTTP_Access_Logger_Impl& operator=(const HTTP_Access_Logger_Impl&) = delete;

    /// The logger of the process; null when there is no memory. The first call makes it and must
    /// not race with another.
    static HTTP_Access_Logger_Impl* instance();
    static void close_instance();

    /**
     * Opens the log, for appending, in place of the one that is open.
     *
     * @param path             a new file is readable by its owner only
     * @param max_file_number  how many rotated copies are kept; 0: the file is emptied instead
     * @param max_size         bytes; a line that takes the file above it makes it rotate; 0: never
     * @param compression      rotated copies are compressed and end in ".gz"
     * @return 0; -1 when it cannot be opened (logged), and log() does nothing then.
     */
    int open(const char* path, unsigned int max_file_number, long max_size, bool compression);

    /// Whether log() would write; costs one read.
    bool is_open() const { return open_.load(std::memory_order_relaxed); }

    /**
     * Writes a line, in one system call.
     *
     * @param start, end       wall clock; a clock set back in between gives a duration of 0
     * @param peer             printed numerically, without port
     * @param received, sent   bytes of body
     * @return 0; -1 silently when no log is open, with an error line when writing or reopening
     *         failed, but for writing with ten lines a second at most: a full disk concerns every
     *         request. A line that could not be written whole leaves nothing behind.
     */
    int log(const ACE_Time_Value& start, const ACE_Time_Value& end, const ACE_INET_Addr& peer,
            const HTTP_Request& request, const HTTP_Response& response, unsigned long received,
            unsigned long sent);

private:
    std::unique_lock<std::mutex> take_lock();
    int open_i(const char* path, unsigned int max_file_number, long max_size, bool compression);
    int open_file(int flags);
    void close_file();
    int write_line(iovec* pieces, int count);
    void take_back(size_t written);
    int rotate();
    int rotate_i();
    bool above_limit() const;

    char* filename_ = nullptr; ///< from strdup
    std::uint32_t max_file_number_ = static_cast<std::uint32_t>(-1);
    std::atomic<std::int64_t> max_size_{0};
    bool compression_ = false;
    std::uint32_t count_ = 0; ///< number of the newest rotated copy
    ACE_FILE_IO file_;
    std::mutex lock_; ///< guards everything; the atomics are also read without it
    Log_Limit failures_;

    /// Where the last write ended, counted so that the file is not asked after each line.
    std::atomic<std::int64_t> position_{0};

    /// Stays true while a rotation has the file closed: a line that comes just then waits for it.
    std::atomic<bool> open_{false};
};
