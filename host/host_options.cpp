#include "host/host_options.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string_view>

namespace {

constexpr char HELP[] =
    R"(Usage: httpd_host [HOST OPTION]... [-f FILE]... [-S DIRECTIVE]...
       httpd_host [HOST OPTION]... [--stdio] -- [SERVICE OPTION]...

Runs services of the ACE Service Configurator, the HTTP and WebSocket server of libhttpd first of
all, until SIGINT or SIGTERM ends it cleanly, or the one connection of --stdio has ended.

What to run, one of:
  -f FILE                  Process the service configuration file FILE; may be repeated.
  -S DIRECTIVE             Process one directive as it would stand in such a file; may be
                           repeated, and mixed with -f: they are processed in the given order.
  -- [SERVICE OPTION]...   Run the HTTP service alone, with these options, which reach it as they
                           are: no quoting, no $VARIABLE substitution, no configuration file.
  --stdio -- [OPTION]...   Serve one connection, with the same options: requests come from standard
                           input, responses go to standard output. Its end ends the host.
  With none of them the file svc.conf in the current directory is processed.

Host options:
  --tls-certificate FILE   Certificate for TLS listeners, followed by its intermediates (PEM).
  --tls-private-key FILE   Its private key (PEM, not encrypted). Both or none.
  --proxy-from ADDRESS     Trust X-Forwarded-For from the proxy with this IPv4 or IPv6 address.
  --log-level LEVEL        What to log: error, warning, info (default), debug, or trace, which is
                           debug and ACE's own debugging output.
  --log-file FILE          Append the log to FILE instead of writing it to standard error.
  --pid-file FILE          Write the process id to FILE once the services run, and remove it at
                           the end. A second host with the same FILE refuses to start.
  --version                Print the version and exit.
  --help                   Print this help and exit.
  A long option's value may also be attached: --log-level=debug.

Signals: SIGINT and SIGTERM stop the services in reverse order of their start and end the process.
SIGHUP is noted in the log and otherwise ignored: nothing is reopened or read again.

Exit status: 0 after a clean stop or the end of the connection of --stdio, 1 when something could
not be started or failed, 2 when the command line is wrong.

Examples:
  httpd_host -- -p 127.0.0.1:8080 -f handlers.json
  httpd_host --tls-certificate cert.pem --tls-private-key key.pem -- -p 8080,8443s -f handlers.json
  printf 'GET / HTTP/1.0\r\n\r\n' | httpd_host --stdio -- -f handlers.json
  httpd_host -S "dynamic HTTP_Service Service_Object * httpd:_make_HTTP_Service() '-p 8080'"
)";

constexpr std::string_view STDIO = "stdio";

struct Level_Name {
    const char* name_;
    Log_Level level_;
};

constexpr std::array<Level_Name, 5> LEVELS{{{"error", Log_Level::ERRORS},
                                            {"warning", Log_Level::WARNINGS},
                                            {"info", Log_Level::INFO},
                                            {"debug", Log_Level::DEBUG},
                                            {"trace", Log_Level::TRACE}}};

/// Walks over the words of the command line.
class Option_Reader {
public:
    Option_Reader(int argc, char** argv, Host_Options& options, std::string& error)
        : word_(argv + (argc > 0 ? 1 : 0)), end_(argv + argc), options_(options), error_(error)
    {
    }

    bool read();

private:
    bool read_word(std::string_view word);
    bool read_long(std::string_view word);
    bool set_value(std::string_view name, std::string_view value);
    bool set_source(Host_Options::Source::Kind kind, std::string_view attached, const char* name);
    bool set_level(std::string_view value);
    bool set_proxy(std::string_view value);
    bool next_value(std::string_view name, std::string_view& value);
    bool check() const;

    bool fail(std::string text) const
    {
        error_ = std::move(text);
        return false;
    }

    char** word_;
    char** end_;
    Host_Options& options_;
    std::string& error_;
};

bool Option_Reader::read()
{
    while (word_ != end_) {
        const std::string_view word = *word_++;
        if (word == "--") {
            options_.short_form_ = true;
            options_.service_args_.assign(word_, end_);
            break;
        }
        if (!read_word(word)) {
            return false;
        }
        if (options_.action_ != Host_Options::Action::RUN) {
            return true;
        }
    }
    if (!check()) {
        return false;
    }
    if (options_.sources_.empty() && !options_.short_form_) {
        options_.sources_.push_back({Host_Options::Source::Kind::CONF_FILE, "svc.conf"});
    }
    return true;
}

bool Option_Reader::read_word(std::string_view word)
{
    if (word.substr(0, 2) == "--") {
        return read_long(word.substr(2));
    }
    if (word.substr(0, 2) == "-f") {
        return set_source(Host_Options::Source::Kind::CONF_FILE, word.substr(2), "-f");
    }
    if (word.substr(0, 2) == "-S") {
        return set_source(Host_Options::Source::Kind::DIRECTIVE, word.substr(2), "-S");
    }
    if (!word.empty() && word.front() == '-') {
        return fail("unknown option \"" + std::string(word) + "\"");
    }
    return fail("unexpected word \"" + std::string(word) +
                "\"; options of the HTTP service stand behind \"--\"");
}

bool Option_Reader::read_long(std::string_view word)
{
    const size_t equals = word.find('=');
    const std::string_view name = word.substr(0, equals);
    if (name == "help" || name == "version") {
        if (equals != std::string_view::npos) {
            return fail("option \"--" + std::string(name) + "\" takes no value");
        }
        options_.action_ =
            name == "help" ? Host_Options::Action::SHOW_HELP : Host_Options::Action::SHOW_VERSION;
        return true;
    }
    if (name == STDIO) {
        options_.stdio_ = true;
        return equals == std::string_view::npos || fail("option \"--stdio\" takes no value");
    }
    for (const char* known : {"tls-certificate", "tls-private-key", "proxy-from", "log-level",
                              "log-file", "pid-file"}) {
        if (name == known) {
            std::string_view value;
            if (equals != std::string_view::npos) {
                value = word.substr(equals + 1);
            } else if (!next_value("--" + std::string(name), value)) {
                return false;
            }
            if (value.empty()) {
                return fail("option \"--" + std::string(name) + "\" has an empty value");
            }
            return set_value(name, value);
        }
    }
    return fail("unknown option \"--" + std::string(name) + "\"");
}

bool Option_Reader::set_value(std::string_view name, std::string_view value)
{
    if (name == "log-level") {
        return set_level(value);
    }
    if (name == "proxy-from") {
        return set_proxy(value);
    }
    if (name == "tls-certificate") {
        options_.tls_certificate_ = value;
    } else if (name == "tls-private-key") {
        options_.tls_private_key_ = value;
    } else if (name == "log-file") {
        options_.log_file_ = value;
    } else {
        options_.pid_file_ = value;
    }
    return true;
}

bool Option_Reader::set_source(Host_Options::Source::Kind kind, std::string_view attached,
                               const char* name)
{
    std::string_view value = attached;
    if (value.empty() && !next_value(name, value)) {
        return false;
    }
    if (value.empty()) {
        return fail("option \"" + std::string(name) + "\" has an empty value");
    }
    options_.sources_.push_back({kind, std::string(value)});
    return true;
}

bool Option_Reader::set_level(std::string_view value)
{
    for (const Level_Name& known : LEVELS) {
        if (value == known.name_) {
            options_.log_level_ = known.level_;
            return true;
        }
    }
    return fail("option \"--log-level\": \"" + std::string(value) +
                "\" is none of error, warning, info, debug, trace");
}

// Peers are compared by their printed text, so the address is brought into that form: lower case,
// zeros compressed, and an IPv4 address that stands in an IPv6 one as plain IPv4.
bool Option_Reader::set_proxy(std::string_view value)
{
    const std::string text(value);
    in_addr v4{};
    in6_addr v6{};
    char printed[INET6_ADDRSTRLEN];
    bool good = false;
    if (::inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        good = ::inet_ntop(AF_INET, &v4, printed, sizeof printed) != nullptr;
    } else if (::inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
        if (IN6_IS_ADDR_V4MAPPED(&v6)) {
            good = ::inet_ntop(AF_INET, &v6.s6_addr[12], printed, sizeof printed) != nullptr;
        } else {
            good = ::inet_ntop(AF_INET6, &v6, printed, sizeof printed) != nullptr;
        }
    }
    if (!good) {
        return fail("option \"--proxy-from\": \"" + text + "\" is not an IPv4 or IPv6 address");
    }
    options_.proxy_from_ = printed;
    return true;
}

bool Option_Reader::next_value(std::string_view name, std::string_view& value)
{
    if (word_ == end_) {
        return fail("option \"" + std::string(name) + "\" needs a value");
    }
    value = *word_++;
    return true;
}

bool Option_Reader::check() const
{
    if (options_.tls_certificate_.empty() != options_.tls_private_key_.empty()) {
        return fail(options_.tls_certificate_.empty()
                        ? "option \"--tls-private-key\" needs \"--tls-certificate\" too"
                        : "option \"--tls-certificate\" needs \"--tls-private-key\" too");
    }
    if (options_.stdio_ && !options_.sources_.empty()) {
        return fail("option \"--stdio\" cannot be combined with -f or -S");
    }
    if (options_.stdio_ && !options_.short_form_) {
        return fail("option \"--stdio\" needs the service options behind \"--\"");
    }
    if (options_.short_form_ && !options_.sources_.empty()) {
        return fail("service options behind \"--\" cannot be combined with -f or -S");
    }
    return true;
}

} // namespace

bool parse_host_options(int argc, char** argv, Host_Options& options, std::string& error)
{
    return Option_Reader(argc, argv, options, error).read();
}

bool asks_for_stdio(int argc, char** argv)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        const std::string_view word = argv[i];
        if (word.substr(0, 2) == "--" && word.substr(2, word.find('=') - 2) == STDIO) {
            return true;
        }
    }
    return false;
}

const char* host_help()
{
    return HELP;
}
