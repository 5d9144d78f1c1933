#include "bench/load/engine.h"

#include "bench/common/fail.h"
#include "bench/load/driver.h"

#include <cerrno>
#include <limits>

namespace {

constexpr int SILENCE = 2000; // milliseconds after which nothing more is waited for
constexpr std::uint64_t MILLISECOND = 1'000'000;
constexpr unsigned MAX_FAILURES = 1000; // in a row, before it is given up
constexpr double NANOSECONDS = 1e9;     // in a second
constexpr std::uint64_t NO_END = std::numeric_limits<std::uint64_t>::max();

} // namespace

Load_Engine::Load_Engine() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (epoll_ == -1) {
        fail_errno("epoll_create1");
    }
}

void Load_Engine::control(int operation, int fd, std::uint32_t key, std::uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.u32 = key;
    if (epoll_ctl(epoll_, operation, fd, &event) == -1) {
        fail_errno("epoll_ctl");
    }
}

void Load_Engine::add(int fd, std::uint32_t key, std::uint32_t events)
{
    control(EPOLL_CTL_ADD, fd, key, events);
}

void Load_Engine::change(int fd, std::uint32_t key, std::uint32_t events)
{
    control(EPOLL_CTL_MOD, fd, key, events);
}

void Load_Engine::reset(Load_Extent extent)
{
    const bool counted = extent.requests_ != 0;
    latencies_.reset(extent.requests_);
    requests_ = 0;
    errors_ = 0;
    bytes_ = 0;
    outstanding_ = 0;
    failures_in_a_row_ = 0;
    tokens_ = counted ? extent.requests_ : NO_END;
    begin_ = read_clock();
    deadline_ =
        counted ? NO_END : begin_ + static_cast<std::uint64_t>(extent.seconds_ * NANOSECONDS);
}

int Load_Engine::wait()
{
    for (;;) {
        const int count = epoll_wait(epoll_, events_, MAX_EVENTS, SILENCE);
        if (count != -1) {
            return count;
        }
        if (errno != EINTR) {
            fail_errno("epoll_wait");
        }
    }
}

bool Load_Engine::run(Load_Driver& driver, Load_Extent extent)
{
    reset(extent);
    driver.begin();
    while (outstanding_ != 0) {
        const int count = wait();
        if (count == 0) {
            warn("%llu requests are not answered", static_cast<unsigned long long>(outstanding_));
            errors_ += outstanding_;
            read_clock();
            return false;
        }
        for (int i = 0; i < count; ++i) {
            driver.ready(events_[i].data.u32, events_[i].events);
        }
    }
    read_clock();
    return true;
}

void Load_Engine::failed(size_t requests)
{
    errors_ += requests;
    outstanding_ -= requests;
    if (++failures_in_a_row_ >= MAX_FAILURES) {
        fail("nothing can be measured: %u errors in a row", failures_in_a_row_);
    }
}

void Load_Engine::refused(const std::string& why)
{
    ++errors_;
    const std::uint64_t begin = now_;
    // One that took long would be followed by more of its kind.
    const bool took_long = read_clock() - begin >= SILENCE * MILLISECOND;
    if (++failures_in_a_row_ >= MAX_FAILURES || took_long) {
        fail("nothing can be measured: %s", why.c_str());
    }
}
