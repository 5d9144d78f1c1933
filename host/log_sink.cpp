#include "host/log_sink.h"

#include <ace/ACE.h>
#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

const char* priority_text(ACE_UINT32 priority)
{
    switch (priority) {
    case LM_TRACE:
        return "TRACE";
    case LM_DEBUG:
        return "DEBUG";
    case LM_INFO:
    case LM_STARTUP:
        return "INFO";
    case LM_NOTICE:
        return "NOTICE";
    case LM_WARNING:
        return "WARNING";
    case LM_ERROR:
        return "ERROR";
    case LM_CRITICAL:
        return "CRITICAL";
    case LM_ALERT:
        return "ALERT";
    case LM_EMERGENCY:
        return "EMERGENCY";
    default:
        return "LOG";
    }
}

/// Writes all entries: with one call, except where the system takes less than it was given.
bool write_all(int fd, iovec* entry, int count)
{
    while (count > 0) {
        const ssize_t written = ::writev(fd, entry, count);
        if (written < 0) {
            if (errno == EAGAIN) {
                // Standard error may be shared with a process that made it non-blocking.
                pollfd ready{fd, POLLOUT, 0};
                ::poll(&ready, 1, -1);
            } else if (errno != EINTR) {
                return false;
            }
            continue;
        }
        auto rest = static_cast<size_t>(written);
        while (count > 0 && rest >= entry->iov_len) {
            rest -= entry->iov_len;
            ++entry;
            --count;
        }
        if (count > 0) {
            entry->iov_base = static_cast<char*>(entry->iov_base) + rest;
            entry->iov_len -= rest;
        }
    }
    return true;
}

/// ACE calls it under the one lock that all its output takes.
class Log_Sink : public ACE_Log_Msg_Backend {
public:
    explicit Log_Sink(int fd) : fd_(fd) {}

    int open(const ACE_TCHAR* /*logger_key*/) override { return 0; }
    int reset() override { return 0; }
    int close() override { return 0; }
    ssize_t log(ACE_Log_Record& record) override;

private:
    const int fd_;
};

ssize_t Log_Sink::log(ACE_Log_Record& record)
{
    const int error = errno;
    const ACE_Time_Value stamp = record.time_stamp();
    const time_t seconds = stamp.sec();
    tm local{};
    ::localtime_r(&seconds, &local);
    char date[32] = "";
    char zone[8] = "";
    if (std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local) == 0 ||
        std::strftime(zone, sizeof zone, "%z", &local) == 0) {
        date[0] = zone[0] = '\0'; // a clock that is off the calendar
    }
    char head[80];
    const int head_length =
        std::snprintf(head, sizeof head, "%s.%03ld%s %s ", date,
                      static_cast<long>(stamp.usec() / 1000), zone, priority_text(record.type()));

    const char* text = record.msg_data();
    if (text == nullptr) { // there was no memory for it
        text = "A line of the log is lost, errno=12, Cannot allocate memory";
    }
    size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    char newline = '\n';
    std::array<iovec, 3> line{{{head, static_cast<size_t>(head_length)},
                               {const_cast<char*>(text), length},
                               {&newline, 1}}};
    const bool written = write_all(fd_, line.data(), static_cast<int>(line.size()));
    errno = error;
    return written ? static_cast<ssize_t>(length) : -1;
}

u_long priority_mask(Log_Level level)
{
    u_long mask = LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY;
    switch (level) {
    case Log_Level::TRACE:
        mask |= LM_TRACE;
        [[fallthrough]];
    case Log_Level::DEBUG:
        mask |= LM_DEBUG;
        [[fallthrough]];
    case Log_Level::INFO:
        mask |= LM_INFO | LM_NOTICE | LM_STARTUP;
        [[fallthrough]];
    case Log_Level::WARNINGS:
        mask |= LM_WARNING;
        [[fallthrough]];
    case Log_Level::ERRORS:
        break;
    }
    return mask;
}

} // namespace

bool open_log(Log_Level level, const std::string& file, std::string& error)
{
    int fd = STDERR_FILENO;
    if (!file.empty()) {
        fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0640);
        if (fd == -1) {
            error = "cannot open log file " + file + ": " + std::strerror(errno);
            return false;
        }
    }
    // Never freed: lines are logged until the last of ACE's exit handlers has run.
    static Log_Sink* const sink = new Log_Sink(fd);
    ACE_Log_Msg::msg_backend(sink);
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    if (log->open("httpd_host", ACE_Log_Msg::CUSTOM) == -1) {
        error = "cannot open the log";
        return false;
    }
    log->priority_mask(priority_mask(level), ACE_Log_Msg::PROCESS);
    ACE::debug(level == Log_Level::TRACE);
    return true;
}
