// A file that is kept open, by sendfile: the header waits for the first of it (MSG_MORE).
#include "bench/ceilings/answer.h"
#include "bench/ceilings/event_loop.h"
#include "bench/ceilings/kinds.h"
#include "bench/ceilings/listener.h"
#include "bench/ceilings/options.h"
#include "bench/common/fail.h"
#include "bench/common/page_buffer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

class File_Server {
public:
    explicit File_Server(const Ceiling_Options& options)
        : buffer_(options.buffer_), file_(open(options.file_.c_str(), O_RDONLY | O_CLOEXEC))
    {
        struct stat attributes = {};
        if (file_ == -1 || fstat(file_, &attributes) == -1) {
            fail_errno("%s", options.file_.c_str());
        }
        size_ = attributes.st_size;
        head_ = answer_head(static_cast<size_t>(size_), true);
    }

    [[noreturn]] void run(int listener)
    {
        Event_Loop loop(listener);
        loop.run(
            [&](int fd) {
                unsent_.resize(std::max(unsent_.size(), static_cast<size_t>(fd) + 1));
                unsent_[static_cast<size_t>(fd)] = 0;
                loop.add(fd);
            },
            [&](int fd, std::uint32_t) {
                off_t& unsent = unsent_[static_cast<size_t>(fd)];
                const bool waited = unsent != 0;
                if ((!waited && !begin(fd, unsent)) || !send_rest(fd, unsent)) {
                    close(fd);
                } else if (waited != (unsent != 0)) {
                    loop.change(fd, unsent != 0 ? EPOLLOUT : EPOLLIN);
                }
            });
    }

private:
    bool begin(int fd, off_t& unsent)
    {
        unsent = size_;
        return recv(fd, buffer_.data(), buffer_.size(), 0) > 0 &&
               send(fd, head_.data(), head_.size(), MSG_NOSIGNAL | MSG_MORE) ==
                   static_cast<ssize_t>(head_.size());
    }

    bool send_rest(int fd, off_t& unsent) const
    {
        off_t position = size_ - unsent;
        const ssize_t sent = sendfile(fd, file_, &position, static_cast<size_t>(unsent));
        if (sent == -1) {
            return errno == EAGAIN;
        }
        unsent -= sent;
        return sent != 0; // the file has become shorter
    }

    Page_Buffer buffer_;
    int file_;
    off_t size_ = 0;
    std::string head_;
    std::vector<off_t> unsent_; ///< bytes of the file that are still to be sent, by descriptor
};

} // namespace

void serve_file(const Ceiling_Options& options)
{
    File_Server server(options);
    server.run(open_listener(options, false));
}
