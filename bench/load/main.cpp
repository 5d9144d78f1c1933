#include "bench/common/fail.h"
#include "bench/load/close_driver.h"
#include "bench/load/driver.h"
#include "bench/load/engine.h"
#include "bench/load/idle.h"
#include "bench/load/options.h"
#include "bench/load/request.h"
#include "bench/load/request_driver.h"
#include "bench/load/scheduler_figures.h"
#include "bench/load/tls_close_driver.h"
#include "bench/load/tls_driver.h"
#include "bench/load/websocket_driver.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <sys/resource.h>

namespace {

constexpr std::uint64_t SECOND = 1'000'000'000;

std::unique_ptr<Load_Driver> make_driver(const Load_Options& options, Load_Engine& engine)
{
    if (options.mode_ == "close") {
        return std::make_unique<Close_Driver>(options, engine);
    }
    if (options.mode_ == "tls") {
        return std::make_unique<Tls_Driver>(options, engine);
    }
    if (options.mode_ == "tls-close") {
        return std::make_unique<Tls_Close_Driver>(options, engine);
    }
    if (options.mode_ == "websocket") {
        return std::make_unique<Websocket_Driver>(options, engine);
    }
    return std::make_unique<Request_Driver>(options, engine);
}

void allow_many_descriptors()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

std::uint64_t own_processor_time()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * SECOND +
           static_cast<std::uint64_t>(time.tv_nsec);
}

/// The server has sent its last answer but may still be on its way to where it waits.
void let_server_come_to_rest()
{
    const timespec millisecond = {0, 1'000'000};
    nanosleep(&millisecond, nullptr);
}

double microseconds(std::uint64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1000.0;
}

void report(Load_Engine& engine, const std::string& server_time, std::uint64_t own_time)
{
    Latencies& latencies = engine.latencies();
    std::printf("{\"requests\":%llu,\"seconds\":%.6f,\"errors\":%llu,\"bytes\":%llu,"
                "\"server_cpu_ns\":%s,\"own_cpu_ns\":%llu,"
                "\"p50_us\":%.3f,\"p90_us\":%.3f,\"p99_us\":%.3f,\"max_us\":%.3f}\n",
                static_cast<unsigned long long>(engine.requests()), engine.seconds(),
                static_cast<unsigned long long>(engine.errors()),
                static_cast<unsigned long long>(engine.bytes()), server_time.c_str(),
                static_cast<unsigned long long>(own_time), microseconds(latencies.percentile(0.5)),
                microseconds(latencies.percentile(0.9)), microseconds(latencies.percentile(0.99)),
                microseconds(latencies.max()));
}

void measure(const Load_Options& options, Load_Engine& engine, Load_Driver& driver)
{
    if (options.warm_up_ > 0 && !engine.run(driver, {options.warm_up_, 0})) {
        fail("nothing can be measured: the server stopped answering while warming up");
    }
    let_server_come_to_rest();
    const Scheduler_Figures before(options.server_pids_);
    const std::uint64_t own_before = own_processor_time();
    engine.run(driver, {options.seconds_, options.requests_});
    const std::uint64_t own_time = own_processor_time() - own_before;
    let_server_come_to_rest();
    const Scheduler_Figures after(options.server_pids_);
    if (engine.requests() == 0) {
        fail("nothing could be measured: %llu errors, no answer",
             static_cast<unsigned long long>(engine.errors()));
    }
    report(engine, options.server_pids_.empty() ? "null" : std::to_string(after.since(before)),
           own_time);
}

} // namespace

int main(int argc, char** argv)
{
    const Load_Options options = Load_Options::parse(argc, argv);
    if (options.print_request_) {
        const std::string request = make_request(options);
        return std::fwrite(request.data(), 1, request.size(), stdout) == request.size() ? 0 : 1;
    }
    allow_many_descriptors();
    if (options.mode_ == "idle") {
        return hold_idle_connections(options);
    }
    Load_Engine engine;
    const std::unique_ptr<Load_Driver> driver = make_driver(options, engine);
    driver->prepare();
    measure(options, engine, *driver);
    return 0;
}
