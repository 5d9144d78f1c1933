#include "bench/ceilings/options.h"

#include "bench/common/arguments.h"
#include "bench/common/fail.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr const char* HELP =
    R"(bench_ceiling KIND [options]: a bare server, the limit that a real one is measured against

get         one recv and one send of a constant answer per request; parses nothing
pipelined   the same, with one send per request where several come at once (--request-bytes)
close       accept, recv, send, close
file        a file by sendfile, kept open (--file)
upload      receives and drops a request of a known length, then answers (--request-bytes)
tls         as get, over TLS 1.3 (--cert, --key)
tls-close   as close, over TLS 1.3
websocket   answers the upgrade, then unmasks in place and echoes
threads     a thread per connection: blocking recv and send

  --port N            listen on 127.0.0.1
  --unix PATH         listen on a UNIX-domain socket
  --cert F --key F    certificate chain and key, PEM
  --file PATH         what "file" serves
  --buffer BYTES      the receive buffer (65536)
  --request-bytes N   head and body of one request
  --tickets N         session tickets after a TLS handshake (2, as OpenSSL has it)

Prints "ready" when it listens; SIGTERM ends it.
)";

void check(const Ceiling_Options& options)
{
    const std::string& kind = options.kind_;
    if ((options.port_ == 0) == options.unix_path_.empty()) {
        fail("one of --port and --unix is needed");
    }
    if ((kind == "pipelined" || kind == "upload") && options.request_bytes_ == 0) {
        fail("%s needs --request-bytes", kind.c_str());
    }
    if (kind == "file" && options.file_.empty()) {
        fail("file needs --file");
    }
    if (kind.starts_with("tls") &&
        (options.certificate_file_.empty() || options.key_file_.empty())) {
        fail("%s needs --cert and --key", kind.c_str());
    }
}

} // namespace

Ceiling_Options Ceiling_Options::parse(int argc, char** argv)
{
    if (argc < 2) {
        fail("which kind? see --help");
    }
    Ceiling_Options options;
    options.kind_ = argv[1];
    options.buffer_ = 65536;
    options.tickets_ = 2;
    if (options.kind_ == "--help") {
        std::fputs(HELP, stdout);
        std::exit(0);
    }
    Arguments arguments(argc, argv, 2);
    while (arguments.more()) {
        const std::string_view name = arguments.name();
        if (name == "--port") {
            options.port_ = static_cast<int>(arguments.number(1, 65535));
        } else if (name == "--unix") {
            options.unix_path_ = arguments.text();
        } else if (name == "--cert") {
            options.certificate_file_ = arguments.text();
        } else if (name == "--key") {
            options.key_file_ = arguments.text();
        } else if (name == "--file") {
            options.file_ = arguments.text();
        } else if (name == "--buffer") {
            options.buffer_ = arguments.number(64);
        } else if (name == "--request-bytes") {
            options.request_bytes_ = arguments.number(1);
        } else if (name == "--tickets") {
            options.tickets_ = static_cast<unsigned>(arguments.number());
        } else {
            arguments.unknown();
        }
    }
    check(options);
    return options;
}
