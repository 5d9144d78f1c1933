#include "httpd/http_access_logger.h"

#include "httpd/detail/known_singleton_t.h"
#include "support/http_message.h"
#include "support/http_method.h"
#include "support/log.h"
#include "support/log_rotation.h"

#include <ace/FILE_Addr.h>
#include <ace/FILE_Connector.h>
#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <limits>
#include <mutex>
#include <system_error>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/uio.h>

namespace {

using Logger_Singleton = Known_Singleton_T<HTTP_Access_Logger_Impl>;

constexpr int LOG_FILE_MODE = 0600;

// Room for the longest texts, which are not NUL-terminated.
constexpr size_t TIME_SIZE = 28;        // "2024-05-06 07:08:09.123456@", and a year of five digits
constexpr size_t MICROSECONDS_SIZE = 7; // "123456@"
constexpr size_t HOST_SIZE = INET6_ADDRSTRLEN;
constexpr size_t DURATION_SIZE = 29; // "@9223372036854775807.999999@"
constexpr size_t NUMBERS_SIZE = 68;  // two ints, two unsigned longs, three blanks, the new line

// A line up to this long is put together first: for the kernel, one piece is less work than eight.
constexpr size_t SHORT_LINE = 1024;

iovec piece(const char* text, size_t length)
{
    return {const_cast<char*>(text), length};
}

/// Writes everything, also where the system takes it in parts or is interrupted. Changes the
/// entries. @return whether all was written; `written` receives how much was.
bool write_all(ACE_HANDLE handle, iovec* entries, int count, size_t& written)
{
    while (count > 0) {
        const ssize_t taken = ::writev(handle, entries, count);
        if (taken == -1 && errno == EINTR) {
            continue;
        }
        if (taken == -1) {
            return false;
        }
        written += static_cast<size_t>(taken);
        size_t rest = static_cast<size_t>(taken);
        while (count > 0 && rest >= entries->iov_len) {
            rest -= entries->iov_len;
            ++entries;
            --count;
        }
        if (count > 0) {
            *entries = piece(static_cast<char*>(entries->iov_base) + rest, entries->iov_len - rest);
        }
    }
    return true;
}

/// All pieces, one behind the other, or as they are where they are too long for that.
/// @return whether all was written; `written` receives how much was.
bool write_pieces(ACE_HANDLE handle, iovec* pieces, int count, size_t& written)
{
    char line[SHORT_LINE];
    size_t length = 0;
    for (const iovec* it = pieces; it != pieces + count; ++it) {
        if (it->iov_len > sizeof line - length) {
            return write_all(handle, pieces, count, written);
        }
        std::memcpy(line + length, it->iov_base, it->iov_len);
        length += it->iov_len;
    }
    iovec whole = piece(line, length);
    return write_all(handle, &whole, 1, written);
}

/// Writes the last `width` digits of `value`. @return behind them.
char* put_digits(char* out, long value, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return out + width;
}

/// Writes `value` in decimal. @return behind it.
template <typename T>
char* put_number(char* out, T value)
{
    constexpr int LONGEST = std::numeric_limits<T>::digits10 + 2; // a digit more, and a sign
    return std::to_chars(out, out + LONGEST, value).ptr;
}

/// A second of local time, as "2024-05-06 07:08:09.".
struct Second_Text {
    bool filled;
    time_t second;
    size_t length;
    char text[TIME_SIZE - MICROSECONDS_SIZE + 1];
};

/// Breaking a time down takes a lock of the whole process, so each thread keeps its last second.
const Second_Text& second_text(time_t second)
{
    static constinit thread_local Second_Text last{};
    if (!last.filled || last.second != second) {
        tm local{};
        ::localtime_r(&second, &local);
        const int length =
            std::snprintf(last.text, sizeof(last.text), "%4.4d-%2.2d-%2.2d %2.2d:%2.2d:%2.2d.",
                          local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                          local.tm_min, local.tm_sec);
        last.length = std::min(static_cast<size_t>(length), sizeof(last.text) - 1);
        last.second = second;
        last.filled = true;
    }
    return last;
}

/// "%4.4d-%2.2d-%2.2d %2.2d:%2.2d:%2.2d.%06ld@" in local time. @return its length.
size_t put_time(char (&out)[TIME_SIZE], const ACE_Time_Value& time)
{
    const Second_Text& second = second_text(time.sec());
    std::memcpy(out, second.text, second.length);
    char* end = put_digits(out + second.length, std::max(time.usec(), suseconds_t{0}), 6);
    *end++ = '@';
    return static_cast<size_t>(end - out);
}

/// "@%lu.%06ld@". @return its length.
size_t put_duration(char (&out)[DURATION_SIZE], ACE_Time_Value duration)
{
    // The wall clock may have been set back meanwhile.
    duration = std::max(duration, ACE_Time_Value::zero);
    out[0] = '@';
    char* end = put_number(out + 1, duration.sec());
    *end++ = '.';
    end = put_digits(end, duration.usec(), 6);
    *end++ = '@';
    return static_cast<size_t>(end - out);
}

/// "%d %d %lu %lu\n". @return its length.
size_t put_numbers(char (&out)[NUMBERS_SIZE], int minor_version, int status, unsigned long received,
                   unsigned long sent)
{
    char* end = put_number(out, minor_version);
    *end++ = ' ';
    end = put_number(end, status);
    *end++ = ' ';
    end = put_number(end, received);
    *end++ = ' ';
    end = put_number(end, sent);
    *end++ = '\n';
    return static_cast<size_t>(end - out);
}

/// The four bytes of an IPv4 address, which an IPv6 one may carry; null when there is none.
const unsigned char* ipv4_bytes(const ACE_INET_Addr& peer)
{
    if (peer.get_type() == AF_INET) {
        const auto* const ipv4 = static_cast<const sockaddr_in*>(peer.get_addr());
        return reinterpret_cast<const unsigned char*>(&ipv4->sin_addr.s_addr);
    }
    if (peer.get_type() == AF_INET6 && peer.is_ipv4_mapped_ipv6()) {
        const auto* const ipv6 = static_cast<const sockaddr_in6*>(peer.get_addr());
        return &ipv6->sin6_addr.s6_addr[12];
    }
    return nullptr;
}

/// The numeric host; an IPv4 peer of a dual-stack listener shows as plain IPv4. @return its length.
size_t put_host(char (&out)[HOST_SIZE], const ACE_INET_Addr& peer)
{
    const unsigned char* const bytes = ipv4_bytes(peer);
    if (bytes == nullptr) {
        peer.get_host_addr(out, sizeof(out));
        return ::strnlen(out, sizeof(out));
    }
    // By hand, since the C library goes through printf: that was half the cost of a line.
    char* end = put_number(out, bytes[0]);
    for (int i = 1; i < 4; ++i) {
        *end++ = '.';
        end = put_number(end, bytes[i]);
    }
    return static_cast<size_t>(end - out);
}

} // namespace

HTTP_Access_Logger_Impl::~HTTP_Access_Logger_Impl()
{
    this->close_file();
    std::free(filename_);
}

HTTP_Access_Logger_Impl* HTTP_Access_Logger_Impl::instance()
{
    return Logger_Singleton::instance();
}

void HTTP_Access_Logger_Impl::close_instance()
{
    Logger_Singleton::close();
}

/// The lock; not held, with errno, when it cannot be taken.
std::unique_lock<std::mutex> HTTP_Access_Logger_Impl::take_lock()
{
    try {
        return std::unique_lock<std::mutex>(lock_);
    } catch (const std::system_error& error) {
        errno = error.code().value();
        return std::unique_lock<std::mutex>(lock_, std::defer_lock);
    }
}

int HTTP_Access_Logger_Impl::open(const char* path, unsigned int max_file_number, long max_size,
                                  bool compression)
{
    if (path == nullptr || *path == '\0') {
        HTTPD_EMERGENCY("Unexpected error in %N:%l, path is NULL or \"\":\n%?");
        return -1;
    }
    const std::unique_lock<std::mutex> guard = this->take_lock();
    if (!guard) {
        return -1;
    }
    const int result = this->open_i(path, max_file_number, max_size, compression);
    open_.store(result == 0, std::memory_order_relaxed);
    return result;
}

int HTTP_Access_Logger_Impl::open_i(const char* path, unsigned int max_file_number, long max_size,
                                    bool compression)
{
    char* const filename = ::strdup(path);
    if (filename == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    max_file_number_ = max_file_number;
    max_size_.store(max_size, std::memory_order_relaxed);
    std::free(filename_);
    filename_ = filename;
    this->close_file();
    if (this->open_file(O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC) == -1) {
        return -1;
    }
    compression_ = compression;
    count_ = find_current_log_count(filename_, max_file_number_, compression_ ? ".gz" : "");
    return 0;
}

int HTTP_Access_Logger_Impl::open_file(int flags)
{
    ACE_FILE_Connector connector;
    if (connector.connect(file_, ACE_FILE_Addr(filename_), nullptr, ACE_Addr::sap_any, 0, flags,
                          LOG_FILE_MODE) == -1) {
        HTTPD_ERROR("Failed to open http access log '%s' for writing, errno=%d, %m", filename_,
                    errno);
        return -1;
    }
    // Appending begins at the end, although the position is 0 until the first write.
    struct stat info;
    const bool known = ::fstat(file_.get_handle(), &info) == 0;
    position_.store(known ? info.st_size : 0, std::memory_order_relaxed);
    return 0;
}

void HTTP_Access_Logger_Impl::close_file()
{
    if (file_.get_handle() != ACE_INVALID_HANDLE) {
        file_.close();
    }
}

int HTTP_Access_Logger_Impl::log(const ACE_Time_Value& start, const ACE_Time_Value& end,
                                 const ACE_INET_Addr& peer, const HTTP_Request& request,
                                 const HTTP_Response& response, unsigned long received,
                                 unsigned long sent)
{
    if (!this->is_open()) {
        return -1;
    }
    char time[TIME_SIZE];
    char host[HOST_SIZE] = {};
    char duration[DURATION_SIZE];
    char numbers[NUMBERS_SIZE];
    const char* const method = http_method_string(request.method());
    const char* const uri = request.uri(true);
    static constexpr char BLANK[] = " ";
    static constexpr char VERSION[] = " HTTP/1.";
    iovec pieces[] = {
        piece(time, put_time(time, end)),
        piece(host, put_host(host, peer)),
        piece(duration, put_duration(duration, end - start)),
        piece(method, std::strlen(method)),
        piece(BLANK, sizeof(BLANK) - 1),
        piece(uri, std::strlen(uri)),
        piece(VERSION, sizeof(VERSION) - 1),
        piece(numbers,
              put_numbers(numbers, request.minor_version(), response.status(), received, sent)),
    };
    if (this->write_line(pieces, static_cast<int>(std::size(pieces))) == -1) {
        return -1;
    }
    return this->rotate();
}

int HTTP_Access_Logger_Impl::write_line(iovec* pieces, int count)
{
    const std::unique_lock<std::mutex> guard = this->take_lock();
    if (!guard) {
        return -1;
    }
    if (file_.get_handle() == ACE_INVALID_HANDLE) {
        return -1; // a rotation has failed meanwhile
    }
    size_t written = 0;
    if (!write_pieces(file_.get_handle(), pieces, count, written)) {
        if (failures_.may_log()) {
            HTTPD_ERROR("Failed to write http access log, errno=%d, %m", errno);
        }
        this->take_back(written);
        return -1;
    }
    position_.fetch_add(static_cast<std::int64_t>(written), std::memory_order_relaxed);
    return 0;
}

/// Cuts off the beginning of a line that did not fit (a full disk), so that the next one, when
/// there is room again, does not continue it.
void HTTP_Access_Logger_Impl::take_back(size_t written)
{
    const int error = errno;
    const auto length = static_cast<ACE_OFF_T>(written);
    const ACE_OFF_T end = length > 0 ? file_.tell() : -1;
    if (end < length || file_.truncate(end - length) == -1) {
        position_.fetch_add(length, std::memory_order_relaxed);
    }
    errno = error;
}

bool HTTP_Access_Logger_Impl::above_limit() const
{
    const std::int64_t limit = max_size_.load(std::memory_order_relaxed);
    return limit != 0 && position_.load(std::memory_order_relaxed) > limit;
}

int HTTP_Access_Logger_Impl::rotate()
{
    if (!this->above_limit()) {
        return 0;
    }
    const std::unique_lock<std::mutex> guard = this->take_lock();
    if (!guard) {
        return -1;
    }
    if (!this->above_limit()) {
        return 0; // another thread has rotated
    }
    if (file_.get_handle() == ACE_INVALID_HANDLE) {
        return -1;
    }
    // The count is right unless someone else has cut the file, or it is not a file at all.
    position_.store(std::max<ACE_OFF_T>(file_.tell(), 0), std::memory_order_relaxed);
    return this->above_limit() ? this->rotate_i() : 0;
}

int HTTP_Access_Logger_Impl::rotate_i()
{
    if (max_file_number_ == 0) {
        if (file_.truncate(0) == 0) {
            position_.store(0, std::memory_order_relaxed);
        }
        file_.seek(0, SEEK_SET);
        return 0;
    }
    this->close_file();
    ++count_;
    int result = rotate_log(filename_, count_, max_file_number_, 1, compression_, {});
    if (result != -1) {
        result = this->open_file(O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC);
    }
    open_.store(result != -1, std::memory_order_relaxed);
    return result;
}
