#pragma once

#include <ace/Log_Msg.h>

#include <cerrno>

/**
 * Whether ACE can log a message of this priority now. It makes a thread's part of the log at the
 * first message, and crashes where there has been no memory for that.
 */
inline bool httpd_log_enabled(ACE_Log_Msg* log, ACE_Log_Priority priority)
{
    return log != nullptr && log->log_priority_enabled(priority) != 0 && log->msg() != nullptr;
}

/**
 * One log macro per priority: each sets file and line, keeps errno as it was at the call (for %m),
 * and adds the final newline, so that message literals read as they are printed. The arguments are
 * not evaluated when the priority is switched off. Conversions are those of ACE_Log_Msg.
 */
#define HTTPD_LOG_RAW(PRIORITY, FORMAT, ...)                                                       \
    do {                                                                                           \
        const int httpd_log_errno = errno;                                                         \
        ACE_Log_Msg* const httpd_log_msg = ACE_Log_Msg::instance();                                \
        if (httpd_log_enabled(httpd_log_msg, PRIORITY)) {                                          \
            httpd_log_msg->conditional_set(__FILE__, __LINE__, -1, httpd_log_errno);               \
            httpd_log_msg->log(PRIORITY, FORMAT __VA_OPT__(, ) __VA_ARGS__);                       \
        }                                                                                          \
        errno = httpd_log_errno;                                                                   \
    } while (false)

#define HTTPD_EMERGENCY(FORMAT, ...)                                                               \
    HTTPD_LOG_RAW(LM_EMERGENCY, FORMAT "\n" __VA_OPT__(, ) __VA_ARGS__)
#define HTTPD_ERROR(FORMAT, ...) HTTPD_LOG_RAW(LM_ERROR, FORMAT "\n" __VA_OPT__(, ) __VA_ARGS__)
#define HTTPD_WARNING(FORMAT, ...) HTTPD_LOG_RAW(LM_WARNING, FORMAT "\n" __VA_OPT__(, ) __VA_ARGS__)
#define HTTPD_INFO(FORMAT, ...) HTTPD_LOG_RAW(LM_INFO, FORMAT "\n" __VA_OPT__(, ) __VA_ARGS__)
#define HTTPD_DEBUG(FORMAT, ...) HTTPD_LOG_RAW(LM_DEBUG, FORMAT "\n" __VA_OPT__(, ) __VA_ARGS__)

/// HTTPD_ERROR for a message whose literal carries no newline at all.
#define HTTPD_ERROR_NO_NEWLINE(FORMAT, ...)                                                        \
    HTTPD_LOG_RAW(LM_ERROR, FORMAT __VA_OPT__(, ) __VA_ARGS__)
