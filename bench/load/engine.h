#pragma once

#include "bench/load/latencies.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <sys/epoll.h>

class Load_Driver;

/// How long a phase lasts: a time, or a number of requests where that is not 0.
struct Load_Extent {
    double seconds_;
    std::uint64_t requests_;
};

/**
 * Runs a driver's connections for a phase, counts and keeps the time.
 *
 * A phase begins and ends with no request outstanding: when its time is over, or its requests have
 * been handed out, nothing more is sent and the phase ends with the last answer. So all work that
 * the server did belongs to the requests that are counted, and the server waits while its figures
 * are read.
 */
class Load_Engine {
public:
    Load_Engine();

    void add(int fd, std::uint32_t key, std::uint32_t events);
    void change(int fd, std::uint32_t key, std::uint32_t events);

    /**
     * Runs one phase. Ends the program when there is error after error and no answer, or when
     * connections are lost and no others can be opened.
     *
     * @return false where nothing has come for some seconds; what was outstanding then has been
     *         counted as errors, and the driver is of no further use.
     */
    bool run(Load_Driver& driver, Load_Extent extent);

    // Of the last phase.
    std::uint64_t requests() const { return requests_; }
    std::uint64_t errors() const { return errors_; }
    std::uint64_t bytes() const { return bytes_; }
    double seconds() const { return static_cast<double>(now_ - begin_) * 1e-9; }
    Latencies& latencies() { return latencies_; }

    // For drivers, while a phase runs.

    /// Reads the clock: once when something has been received, for all that is done with it.
    std::uint64_t read_clock()
    {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        return now_ = static_cast<std::uint64_t>(time.tv_sec) * 1000000000U +
                      static_cast<std::uint64_t>(time.tv_nsec);
    }

    /// As read last, in nanoseconds.
    std::uint64_t now() const { return now_; }

    /// How many requests, up to `wanted`, may be sent now; they are outstanding from now on.
    size_t take(size_t wanted)
    {
        if (now_ >= deadline_) {
            return 0;
        }
        const size_t granted = wanted < tokens_ ? wanted : tokens_;
        tokens_ -= granted;
        outstanding_ += granted;
        return granted;
    }

    /// One outstanding request has been answered.
    void answered(std::uint64_t sent_at)
    {
        ++requests_;
        --outstanding_;
        failures_in_a_row_ = 0;
        latencies_.record(now_ - sent_at);
    }

    void received(size_t bytes) { bytes_ += bytes; }

    /// So many outstanding requests came to nothing.
    void failed(size_t requests);

    /// A connection could not be opened, beside those requests.
    void refused(const std::string& why);

private:
    static constexpr int MAX_EVENTS = 512;

    void control(int operation, int fd, std::uint32_t key, std::uint32_t events);
    void reset(Load_Extent extent);
    int wait();

    int epoll_;
    std::uint64_t begin_ = 0;
    std::uint64_t now_ = 0;
    std::uint64_t deadline_ = 0;
    std::uint64_t tokens_ = 0;
    std::uint64_t outstanding_ = 0;
    std::uint64_t requests_ = 0;
    std::uint64_t errors_ = 0;
    std::uint64_t bytes_ = 0;
    unsigned failures_in_a_row_ = 0;
    epoll_event events_[MAX_EVENTS];
    Latencies latencies_;
};
