#include "bench/load/options.h"

#include "bench/common/arguments.h"
#include "bench/common/fail.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

constexpr const char* HELP =
    R"(bench_load MODE [options]: drives a server from one thread and measures

get         requests over kept connections, one outstanding on each
pipelined   the same, --depth requests in one send, the next ones when all are answered
close       a connection per request, --connections at a time, read to the end
upload      requests with a body of --body bytes, counted, or in chunks of --chunk bytes
tls         as get, over TLS 1.3
tls-close   as close, over TLS 1.3, a full handshake each
websocket   masked binary messages of --message bytes, echoed (--depth of them at once)
idle        opens --connections, sends a request on each, prints "ready" and holds them until
            SIGTERM; then status 1 when the server has closed some (--websocket: after the upgrade
            instead of a request; --tls: over TLS)

  --port N | --unix PATH   where the server listens (127.0.0.1)
  --connections C          (64)
  --warm-up SECONDS        (0.2; 0 with --requests)
  --seconds SECONDS        (1)
  --requests N             measures N requests instead of a time; latencies are exact then
  --path /x                (/)
  --head FILE              the head of a request, as it is to be sent
  --depth N                (16; 1 for websocket)
  --body BYTES             (1048576)
  --chunk BYTES            (0: counted)
  --message BYTES          (16)
  --server-pid PID         sums the processor time of this process; may be given again
  --print-request          writes one request as it would be sent to stdout and ends

Prints one line of JSON. "requests" are those with a right answer, "errors" wrong lengths, refused
and broken connections, "bytes" what was received, all within the measured time, which ends with
the last answer. "server_cpu_ns" is the difference of the first field of
/proc/PID/task/*/schedstat, or of the process's clock where threads have ended meanwhile.
)";

constexpr const char* MODES[] = {"get", "pipelined", "close",     "upload",
                                 "tls", "tls-close", "websocket", "idle"};

std::string contents_of(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    std::string contents((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file || contents.empty()) {
        fail("cannot read %s", path);
    }
    return contents;
}

/// Takes one option; false: it is none of them.
bool take_target(Load_Options& options, std::string_view name, Arguments& arguments)
{
    if (name == "--port") {
        options.port_ = static_cast<int>(arguments.number(1, 65535));
    } else if (name == "--unix") {
        options.unix_path_ = arguments.text();
    } else if (name == "--connections") {
        options.connections_ = arguments.number(1);
    } else if (name == "--server-pid") {
        options.server_pids_.push_back(static_cast<pid_t>(arguments.number(1, INT_MAX)));
    } else {
        return false;
    }
    return true;
}

bool take_request(Load_Options& options, std::string_view name, Arguments& arguments)
{
    if (name == "--path") {
        options.path_ = arguments.text();
    } else if (name == "--head") {
        options.head_ = contents_of(arguments.text());
    } else if (name == "--depth") {
        options.depth_ = arguments.number(1);
    } else if (name == "--body") {
        options.body_ = arguments.number();
    } else if (name == "--chunk") {
        options.chunk_ = arguments.number();
    } else if (name == "--message") {
        options.message_ = arguments.number();
    } else if (name == "--websocket") {
        options.websocket_ = true;
    } else if (name == "--tls") {
        options.tls_ = true;
    } else {
        return false;
    }
    return true;
}

bool take_extent(Load_Options& options, std::string_view name, Arguments& arguments)
{
    if (name == "--warm-up") {
        options.warm_up_ = arguments.seconds();
    } else if (name == "--seconds") {
        options.seconds_ = arguments.seconds();
    } else if (name == "--requests") {
        options.requests_ = arguments.number(1);
    } else {
        return false;
    }
    return true;
}

} // namespace

Load_Options Load_Options::parse(int argc, char** argv)
{
    if (argc < 2) {
        fail("which mode? see --help");
    }
    Load_Options options;
    options.mode_ = argv[1];
    if (options.mode_ == "--help") {
        std::fputs(HELP, stdout);
        std::exit(0);
    }
    if (std::find(std::begin(MODES), std::end(MODES), options.mode_) == std::end(MODES)) {
        fail("unknown mode \"%s\"; see --help", argv[1]);
    }
    options.path_ = "/";
    options.connections_ = 64;
    options.warm_up_ = -1;
    options.seconds_ = 1;
    options.depth_ = options.mode_ == "pipelined" ? 16 : 1;
    options.body_ = 1048576;
    options.message_ = 16;
    Arguments arguments(argc, argv, 2);
    while (arguments.more()) {
        const std::string_view name = arguments.name();
        if (name == "--print-request") {
            options.print_request_ = true;
        } else if (!take_target(options, name, arguments) &&
                   !take_request(options, name, arguments) &&
                   !take_extent(options, name, arguments)) {
            arguments.unknown();
        }
    }
    if (!options.print_request_ && (options.port_ == 0) == options.unix_path_.empty()) {
        fail("one of --port and --unix is needed");
    }
    if (options.warm_up_ < 0) {
        options.warm_up_ = options.requests_ != 0 ? 0 : 0.2;
    }
    return options;
}
