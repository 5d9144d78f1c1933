#include "bench/ceilings/kinds.h"
#include "bench/ceilings/options.h"
#include "bench/common/fail.h"

namespace {

struct Kind {
    const char* name_;
    void (*serve_)(const Ceiling_Options&);
};

constexpr Kind KINDS[] = {
    {"get", serve_get},
    {"pipelined", serve_pipelined},
    {"close", serve_close},
    {"file", serve_file},
    {"upload", serve_upload},
    {"tls", serve_tls},
    {"tls-close", serve_tls_close},
    {"websocket", serve_websocket},
    {"threads", serve_threads},
};

} // namespace

int main(int argc, char** argv)
{
    const Ceiling_Options options = Ceiling_Options::parse(argc, argv);
    for (const Kind& kind : KINDS) {
        if (options.kind_ == kind.name_) {
            kind.serve_(options);
        }
    }
    fail("unknown kind \"%s\"; see --help", options.kind_.c_str());
}
