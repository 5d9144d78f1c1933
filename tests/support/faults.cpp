#include "tests/support/faults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace {

/// AddressSanitizer wants to come first; the injector passes on to it what it does not strike.
std::string sanitizer_options()
{
    const char* const given = std::getenv("ASAN_OPTIONS");
    return (given != nullptr ? std::string(given) + ":" : "") + "verify_asan_link_order=0";
}

} // namespace

Faults::Faults() : path_(folder_.path() + "/plan"), plan_(nullptr)
{
    const int handle = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const bool sized = handle != -1 && ::ftruncate(handle, sizeof(Fault_Plan)) == 0;
    void* const memory =
        sized ? ::mmap(nullptr, sizeof(Fault_Plan), PROT_READ | PROT_WRITE, MAP_SHARED, handle, 0)
              : MAP_FAILED;
    if (handle != -1) {
        ::close(handle);
    }
    if (memory == MAP_FAILED) {
        throw std::runtime_error("cannot map " + path_);
    }
    plan_ = static_cast<Fault_Plan*>(memory); // a new file is all zero, as the plan begins
}

Faults::~Faults()
{
    ::munmap(plan_, sizeof(Fault_Plan));
}

size_t Faults::arm(const Fault& fault)
{
    if (armed_ == Fault_Plan::RULES || fault.path.size() >= Fault_Rule::PATH_SIZE) {
        throw std::length_error("the fault plan is full");
    }
    Fault_Rule& rule = plan_->rules[armed_];
    rule.call = fault.call;
    rule.descriptor = fault.descriptor;
    rule.path[fault.path.copy(rule.path, Fault_Rule::PATH_SIZE - 1)] = '\0';
    rule.skip = fault.skip;
    rule.times = fault.times;
    rule.period = fault.period;
    rule.error = fault.error;
    rule.longest = fault.longest;
    rule.counted = 0;
    rule.struck = 0;
    rule.armed.store(1, std::memory_order_release);
    plan_->calls |= std::uint64_t{1} << static_cast<unsigned>(fault.call);
    return armed_++;
}

void Faults::disarm()
{
    plan_->calls = 0;
    for (Fault_Rule& rule : plan_->rules) {
        rule.armed.store(0, std::memory_order_release);
    }
    armed_ = 0;
}

std::uint64_t Faults::counted(size_t number) const
{
    return plan_->rules[number].counted;
}

std::uint64_t Faults::struck(size_t number) const
{
    return plan_->rules[number].struck;
}

bool Faults::wait_until_struck(std::uint64_t times, size_t number) const
{
    // Nothing tells of a change in shared memory: look again and again.
    constexpr std::chrono::milliseconds STEP(1);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (this->struck(number) < times && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(STEP);
    }
    return this->struck(number) >= times;
}

Faults::In_Environment::In_Environment(const Faults& faults)
    : plan_(FAULT_PLAN_VARIABLE, faults.path_),
      preload_("LD_PRELOAD", library_path("fault_injector")),
      sanitizer_("ASAN_OPTIONS", sanitizer_options())
{
}
