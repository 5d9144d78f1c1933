#pragma once

#include "tests/preload/fault_plan.h"
#include "tests/support/environment_variable.h"
#include "tests/support/host_process.h"

#include <cstdint>
#include <memory>
#include <string>

/// A fault as a test states it.
struct Fault {
    static constexpr std::uint64_t FOR_EVER = UINT64_MAX;

    Fault_Call call;
    int error = 0; ///< errno; 0: the call moves `longest` bytes at most
    std::uint64_t longest = UINT64_MAX;
    std::uint64_t skip = 0; ///< calls that go through before
    std::uint64_t times = FOR_EVER;
    std::uint64_t period = 1; ///< every n-th call is struck
    Fault_Descriptor descriptor = Fault_Descriptor::ANY;
    std::string path = ""; ///< a part of the file's path
};

/**
 * The faults of one host process: started while Faults::In_Environment lives, it has the injector
 * loaded and follows what is armed here, at once and in all of its threads.
 */
class Faults {
public:
    Faults();
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    /// @return the number of the fault. What was armed before stays.
    size_t arm(const Fault& fault);

    /// The calls go through again; the counts stay until the next arm().
    void disarm();

    std::uint64_t counted(size_t number = 0) const; ///< calls that the fault was for
    std::uint64_t struck(size_t number = 0) const;  ///< those of them that it struck

    /// Waits until it has struck so often. @return false after 20 seconds.
    bool wait_until_struck(std::uint64_t times, size_t number = 0) const;

    /// What a process inherits that is to have these faults.
    class In_Environment {
    public:
        explicit In_Environment(const Faults& faults);

    private:
        Environment_Variable plan_;
        Environment_Variable preload_;
        Environment_Variable sanitizer_;
    };

private:
    Temporary_Folder folder_;
    std::string path_;
    Fault_Plan* plan_;
    size_t armed_ = 0;
};
