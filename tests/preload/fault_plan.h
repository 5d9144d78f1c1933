#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// The environment variable that names the plan's file.
constexpr const char* FAULT_PLAN_VARIABLE = "HTTPD_TEST_FAULT_PLAN";

/// What can be made to fail. Calls that differ in their arguments alone are one.
enum class Fault_Call : std::uint32_t {
    ALLOCATE,      ///< malloc and its relatives, operator new
    READ,          ///< read, readv, pread
    WRITE,         ///< write, writev, pwrite
    RECEIVE,       ///< recv, recvfrom, recvmsg
    SEND,          ///< send, sendto, sendmsg
    SENDFILE,      ///< sendfile
    ACCEPT,        ///< accept, accept4
    OPEN,          ///< open, openat, openat2, fopen, opendir
    STAT,          ///< stat, lstat, fstat, fstatat
    RENAME,        ///< rename
    UNLINK,        ///< unlink
    TRUNCATE,      ///< ftruncate
    SYNC,          ///< fsync
    EPOLL_CREATE,  ///< epoll_create1
    EPOLL_CONTROL, ///< epoll_ctl
    EPOLL_WAIT,    ///< epoll_wait
    EVENT,         ///< eventfd
    TIMER,         ///< timerfd_create
    TIMER_SET,     ///< timerfd_settime
    SIGNAL,        ///< signalfd
    POLL,          ///< poll, select
    THREAD,        ///< pthread_create
    SOCKET,        ///< socket
    BIND,          ///< bind
    LISTEN,        ///< listen
    CONTROL,       ///< fcntl
    SET_OPTION,    ///< setsockopt
    GET_OPTION,    ///< getsockopt
    NAME,          ///< getsockname, getpeername
    SHUTDOWN,      ///< shutdown
    COUNT
};

/// The kind of descriptor that a rule is for.
enum class Fault_Descriptor : std::uint32_t { ANY, SOCKET, REGULAR_FILE, OTHER };

/**
 * One fault. A call counts for a rule when its kind, its descriptor and its path are the rule's; of
 * the counted calls the first `skip` go through, then every `period`-th one is struck, `times` in
 * all.
 */
struct Fault_Rule {
    enum : std::size_t { PATH_SIZE = 160 };

    std::atomic<std::uint32_t> armed; ///< set last, when all else is filled in
    Fault_Call call;
    Fault_Descriptor descriptor;
    char path[PATH_SIZE]; ///< a part of the path that is opened, or of the descriptor's; "": any
    std::uint64_t skip;
    std::uint64_t times;
    std::uint64_t period;
    int error;             ///< errno of a struck call; 0: it is cut short instead
    std::uint64_t longest; ///< most bytes that a call that is cut short moves

    std::atomic<std::uint64_t> counted; ///< calls
    std::atomic<std::uint64_t> struck;  ///< calls that failed or were cut short
};

/// What the test and the process under test share: a file mapped by both, all zero at first.
struct Fault_Plan {
    enum : std::size_t { RULES = 24 };

    std::atomic<std::uint64_t> calls; ///< bit n: a rule for the call n may be armed
    Fault_Rule rules[RULES];
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "shared by two processes");
