#pragma once

#include "tests/support/listener_server.h"

#include <ostream>
#include <string>
#include <vector>

/// What every kind of listener serves alike: one sentence and the code that checks it over a new
/// server. Failures are those of GoogleTest.
struct Listener_Check {
    const char* name;
    void (*run)(const Listener_Server& server);
};

const std::vector<Listener_Check>& listener_checks();

/// Runs the check, stops the server, and expects its end to be clean and no error in its log.
void run_listener_check(Listener_Kind kind, const Listener_Check& check);

inline void PrintTo(const Listener_Check& check, std::ostream* out)
{
    *out << check.name;
}

struct Listener_Check_Name {
    template <typename Info>
    std::string operator()(const Info& info) const
    {
        return info.param.name;
    }
};
