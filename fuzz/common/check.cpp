#include "fuzz/common/check.h"

#include <ace/Log_Msg.h>

#include <cstdio>
#include <cstdlib>

void fuzz_fail(const char* file, int line, const char* message)
{
    std::fprintf(stderr, "%s:%d: property violated: %s\n", file, line, message);
    std::abort();
}

void fuzz_quiet_log()
{
    static const bool quiet = [] {
        ACE_Log_Msg::instance()->priority_mask(0, ACE_Log_Msg::PROCESS);
        ACE_Log_Msg::instance()->priority_mask(0, ACE_Log_Msg::THREAD);
        return true;
    }();
    static_cast<void>(quiet);
}
