#include "plugins/files/found_file.h"

#include "support/http_date.h"

#include <cerrno>
#include <ctime>
#include <new>
#include <utility>

namespace {

bool same_time(const timespec& left, const timespec& right)
{
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool is_same_version(const struct stat& left, const struct stat& right)
{
    return left.st_size == right.st_size && same_time(left.st_mtim, right.st_mtim) &&
           same_time(left.st_ctim, right.st_ctim);
}

/// Reads exactly `length` bytes; false when that failed or the file ended before.
bool read_whole(int fd, char* content, size_t length)
{
    for (size_t done = 0; done < length;) {
        const ssize_t n = ::pread(fd, content + done, length - done, static_cast<off_t>(done));
        if (n == 0 || (n == -1 && errno != EINTR)) {
            return false;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

} // namespace

File_Form::File_Form(Unique_Fd file, const struct stat& status, bool compressed)
    : file_(std::move(file)),
      status_(status), version_{Entity_Tag(status, compressed), status.st_mtim.tv_sec,
                                static_cast<std::uint64_t>(status.st_size)}
{
    if (version_.modified_ <= std::time(nullptr)) {
        http_date_format(version_.modified_, date_);
        last_modified_ = std::string_view(date_, HTTP_DATE_LENGTH);
    }
}

bool File_Form::hold_content()
{
    const size_t length = static_cast<size_t>(version_.size_);
    std::unique_ptr<char[]> content(new (std::nothrow) char[length]);
    if (content == nullptr || !read_whole(file_.get(), content.get(), length) || !is_unchanged()) {
        return false;
    }
    content_ = std::move(content);
    file_.reset();
    return true;
}

bool File_Form::is_unchanged() const
{
    struct stat now {};
    return content_ != nullptr ||
           (::fstat(file_.get(), &now) == 0 && is_same_version(now, status_));
}
