#include "httpd/http_io_ostreambuf.h"

#include "httpd/http_io.h"
#include "support/check_message.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>

namespace {

constexpr bool MORE_PIECES = false;
constexpr bool LAST_PIECE = true;

/// The put pointer is moved by an int, so no more is collected at a time.
constexpr size_t MAX_COLLECTED = std::numeric_limits<int>::max();

} // namespace

HTTP_IO_ostreambuf::HTTP_IO_ostreambuf(HTTP_IO& io, size_t size) : io_(io), size_(size)
{
    if (size_ == 0) {
        HTTPD_EMERGENCY("Unexpected error in %N:%l, size_%s <= 0%s:\n%?",
                        check_message(size_).c_str(), check_message(0).c_str());
        return;
    }
    buf_ = new (std::nothrow) char[size_];
    if (buf_ == nullptr) {
        errno = ENOMEM;
        HTTPD_EMERGENCY("Unexpected error in %N:%l, buf_ is NULL:\n%?");
        return;
    }
    setp(buf_, buf_ + std::min(size_, MAX_COLLECTED));
}

HTTP_IO_ostreambuf::~HTTP_IO_ostreambuf()
{
    sync(LAST_PIECE);
    delete[] buf_;
}

// Also after a flush that succeeded, end-of-file is answered with end-of-file, unlike what the
// standard library's own buffers do; intended.
HTTP_IO_ostreambuf::int_type HTTP_IO_ostreambuf::overflow(int_type c)
{
    if (pptr() == epptr() && sync(MORE_PIECES) == -1) {
        return traits_type::eof();
    }
    if (traits_type::eq_int_type(c, traits_type::eof())) {
        return traits_type::eof();
    }
    if (pptr() == epptr()) {
        return traits_type::eof();
    }
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
}

int HTTP_IO_ostreambuf::sync()
{
    return sync(MORE_PIECES) == -1 ? -1 : 0;
}

int HTTP_IO_ostreambuf::sync(bool last)
{
    const int collected = static_cast<int>(pptr() - pbase());
    if (collected != 0) {
        if (io_.send(pbase(), static_cast<size_t>(collected), last) == -1) {
            return -1;
        }
        pbump(-collected);
        return collected;
    }
    if (last) {
        return io_.send(pbase(), 0, LAST_PIECE);
    }
    return 0;
}
