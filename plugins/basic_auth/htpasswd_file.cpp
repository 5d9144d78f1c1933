#include "plugins/basic_auth/htpasswd_file.h"

#include "support/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>

namespace {

constexpr off_t MAX_FILE_SIZE = 16 * 1024 * 1024;

bool equal_times(const timespec& left, const timespec& right)
{
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

/// Closes a descriptor and keeps errno.
class File_Guard {
public:
    explicit File_Guard(int fd) : fd_(fd) {}
    ~File_Guard()
    {
        const int error = errno;
        ::close(fd_);
        errno = error;
    }
    File_Guard(const File_Guard&) = delete;
    File_Guard& operator=(const File_Guard&) = delete;

private:
    int fd_;
};

/// Reads a whole file. @return 0, or -1 with errno.
int read_text(int fd, size_t size, std::string& text)
{
    text.resize(size);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, text.data() + done, size - done);
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
    text.resize(done);
    return 0;
}

} // namespace

Htpasswd_File::Version::Version(const struct stat& status)
    : exists_(true), device_(status.st_dev), inode_(status.st_ino), size_(status.st_size),
      modified_(status.st_mtim), changed_(status.st_ctim)
{
}

bool Htpasswd_File::Version::operator==(const Version& other) const
{
    return exists_ == other.exists_ && device_ == other.device_ && inode_ == other.inode_ &&
           size_ == other.size_ && equal_times(modified_, other.modified_) &&
           equal_times(changed_, other.changed_);
}

int Htpasswd_File::open(const std::string& path)
{
    path_ = path;
    table_ = read(version_);
    return table_ != nullptr ? 0 : -1;
}

std::shared_ptr<const Htpasswd_Table> Htpasswd_File::table()
{
    struct stat status {};
    const Version version = ::stat(path_.c_str(), &status) == 0 ? Version(status) : Version();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (version == version_) {
            return table_;
        }
    }
    reload();
    const std::lock_guard<std::mutex> guard(lock_);
    return table_;
}

/// One thread reads the new version; the others go on with the old one meanwhile.
void Htpasswd_File::reload()
{
    const std::unique_lock<std::mutex> reading(reload_lock_, std::try_to_lock);
    if (!reading.owns_lock()) {
        return;
    }
    Version version;
    std::shared_ptr<const Htpasswd_Table> table;
    try {
        table = read(version);
    } catch (const std::bad_alloc&) { // the old version stays, the next request tries again
        errno = ENOMEM;
        HTTPD_ERROR("basic_auth: failed to read %C, errno=%d, %m", path_.c_str(), ENOMEM);
        return;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    version_ = version;
    if (table != nullptr) {
        table_ = std::move(table);
    }
}

/// @param version  receives which version was read, or could not be read
/// @return null with errno, logged
std::shared_ptr<const Htpasswd_Table> Htpasswd_File::read(Version& version) const
{
    version = Version();
    const auto failed = [this]() -> std::shared_ptr<const Htpasswd_Table> {
        HTTPD_ERROR("basic_auth: failed to read %C, errno=%d, %m", path_.c_str(), errno);
        return nullptr;
    };
    // O_NONBLOCK: a FIFO in place of the file must not hold the thread.
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd == -1) {
        const int error = errno;
        struct stat status {};
        if (::stat(path_.c_str(), &status) == 0) { // there, but not to be opened
            version = Version(status);
        }
        errno = error;
        return failed();
    }
    const File_Guard guard(fd);
    struct stat status {};
    if (::fstat(fd, &status) == -1) {
        return failed();
    }
    version = Version(status);
    if (!S_ISREG(status.st_mode) || status.st_size > MAX_FILE_SIZE) {
        errno = S_ISREG(status.st_mode) ? EFBIG : EINVAL;
        return failed();
    }
    std::string text;
    if (read_text(fd, static_cast<size_t>(status.st_size), text) == -1) {
        return failed();
    }
    auto table = std::make_shared<Htpasswd_Table>();
    if (table->parse(text, path_.c_str()) == -1) {
        return nullptr;
    }
    return table;
}
