#include "httpd/http_options.h"

#include "httpd/detail/known_singleton_t.h"
#include "httpd/http_access_logger.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/json_conf_t.h"
#include "httpd/utils.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/addr_string.h"
#include "support/conf_loader_t.h"
#include "support/log.h"
#include "support/uri.h"

#include <ace/ACE.h>
#include <ace/Get_Opt.h>
#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>
#include <ace/OS_NS_unistd.h>
#include <ace/UNIX_Addr.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

namespace {

using Options_Singleton = Known_Singleton_T<HTTP_Options>;
using Listen_Address = HTTP_Options::Listen_Address;

bool equal(const char* left, const char* right)
{
    return std::strcmp(left, right) == 0;
}

/// Makes what the connections share: they look it up from many threads at once, and the first
/// look-up of a singleton must not race. False when there is no memory.
bool make_shared_objects()
{
    return HTTP_Access_Logger_Impl::instance() != nullptr &&
           HTTP_Handler_Creator_Map::instance() != nullptr &&
           HTTP_Authenticator_Creator_Map::instance() != nullptr &&
           WebSocket_Handler_Creator_Map::instance() != nullptr;
}

template <typename Traits>
void load_configuration(const char* path)
{
    // A file that cannot be loaded has been reported by the loader; the server starts without it.
    JSON_Conf_T<Traits> conf;
    Conf_Loader_T<JSON_Base_Conf>::load(path, conf);
}

/// Rounds a positive size up to whole pages, at most to the last page that the type can express.
off_t round_up_to_page(off_t size)
{
    if (size <= 0) {
        return size;
    }
    const auto page = static_cast<off_t>(ACE::round_to_pagesize(1));
    constexpr off_t MAX = std::numeric_limits<off_t>::max();
    if (size > MAX - page) {
        return MAX - MAX % page;
    }
    return static_cast<off_t>(ACE::round_to_pagesize(static_cast<size_t>(size)));
}

/// What an option with an optional size means: -1 without one, else the size in whole pages.
off_t cache_policy(const char* value)
{
    return value == nullptr ? -1 : round_up_to_page(parse_size<off_t>(value, nullptr, nullptr));
}

std::optional<ACE_Time_Value> duration(const char* name, const char* value)
{
    const boost::optional<ACE_Time_Value> time = to_time_value(name, value, 0);
    return time ? std::optional<ACE_Time_Value>(*time) : std::nullopt;
}

/**
 * The address that `text` names, or null with errno.
 *
 * What ACE cannot read leaves the object at its default, and a path too long fills its object: both
 * are refused when they are opened. An empty text is left at the default too, since ACE would read
 * it as a random port on every interface.
 */
std::unique_ptr<ACE_Addr> make_sap(Listen_Address::Type type, const std::string& text)
{
    std::unique_ptr<ACE_Addr> sap;
    switch (type) {
    case Listen_Address::TYPE_HTTP:
    case Listen_Address::TYPE_HTTPS:
        if (text.empty()) {
            sap.reset(new (std::nothrow) ACE_INET_Addr());
        } else {
            sap.reset(new (std::nothrow) ACE_INET_Addr(text.c_str(), AF_UNSPEC));
        }
        break;
    case Listen_Address::TYPE_HTTPM:
        sap.reset(new (std::nothrow) ACE_MEM_Addr(text.c_str()));
        break;
    case Listen_Address::TYPE_HTTPU:
        sap.reset(new (std::nothrow) ACE_UNIX_Addr(text.c_str()));
        break;
    default:
        HTTPD_ERROR("Unknown address type %u", static_cast<unsigned int>(type));
        errno = EINVAL;
        return nullptr;
    }
    if (sap == nullptr) {
        errno = ENOMEM;
    }
    return sap;
}

/// Cuts "address[m|s][/flags]" into type, flag and the text of the address itself.
std::string split_piece(std::string_view piece, Listen_Address& address)
{
    if (piece.front() == '/' || piece.front() == '@') {
        address.type = Listen_Address::TYPE_HTTPU;
        return std::string(piece);
    }
    const size_t slash = piece.find('/');
    if (slash != std::string_view::npos) {
        address.ipv6_only = piece.substr(slash + 1).starts_with("ipv6only");
        piece = piece.substr(0, slash);
    }
    // The marker is always the last character, whatever it belongs to in the eyes of a reader.
    if (piece.ends_with('m')) {
        address.type = Listen_Address::TYPE_HTTPM;
        piece.remove_suffix(1);
    } else if (piece.ends_with('s')) {
        address.type = Listen_Address::TYPE_HTTPS;
        piece.remove_suffix(1);
    }
    return std::string(piece);
}

const ACE_INET_Addr& inet(const Listen_Address& address)
{
    return static_cast<const ACE_INET_Addr&>(*address.sap);
}

/**
 * Whether a local client had better use `left` than `right`. Not a strict weak order: of two
 * addresses that differ in nothing listed here the left one is "less" (kept).
 */
bool less_listen_address(const Listen_Address& left, const Listen_Address& right)
{
    if (left.type != right.type) {
        return left.type < right.type;
    }
    if (left.type > Listen_Address::TYPE_HTTPS) {
        return true;
    }
    const ACE_INET_Addr& a = inet(left);
    const ACE_INET_Addr& b = inet(right);
    if (a.get_type() != b.get_type()) {
        static_assert(AF_INET < AF_INET6);
        return a.get_type() < b.get_type();
    }
    if (a.is_loopback() || b.is_loopback()) {
        return a.is_loopback();
    }
    return a.is_any() || !b.is_any();
}

} // namespace

bool HTTP_Options::Listen_Address::is_inet_or_inet6() const
{
    return sap != nullptr && (sap->get_type() == AF_INET || sap->get_type() == AF_INET6);
}

HTTP_Options::HTTP_Options() = default;

HTTP_Options::~HTTP_Options() = default;

HTTP_Options* HTTP_Options::instance()
{
    return Options_Singleton::instance();
}

void HTTP_Options::close_instance()
{
    Options_Singleton::close();
}

class HTTP_Options::Parser {
public:
    Parser(HTTP_Options& options, int argc, char** argv);

    int parse();

private:
    int register_long_options();
    int apply(int letter);
    bool apply_to_access_log(int letter);
    void apply_long(const char* name);
    void set_concurrency(const char* word);
    void set_loops();
    void add_servers(std::string_view names);
    void open_access_log() const;

    char* value() const { return get_opt_.opt_arg(); }
    int int_value() const { return natoi<int, char*>(value(), nullptr, nullptr); }

    template <typename T>
    T size_value() const
    {
        return parse_size<T>(value(), nullptr, nullptr);
    }

    HTTP_Options& options_;
    ACE_Get_Opt get_opt_;
    const char* log_path_ = nullptr;
    unsigned int log_max_file_number_ = std::numeric_limits<unsigned int>::max();
    unsigned int log_max_size_ = 0; ///< bytes
    bool log_compression_ = false;
};

HTTP_Options::Parser::Parser(HTTP_Options& options, int argc, char** argv)
    : options_(options),
      get_opt_(argc, argv, "p:i:c:t:f:w:a:l:m:N:zs:", 0, 0, ACE_Get_Opt::PERMUTE_ARGS, 0)
{
}

int HTTP_Options::Parser::register_long_options()
{
    struct Long_Option {
        const char* name;
        int letter; ///< 0: there is no short form
        ACE_Get_Opt::OPTION_ARG_MODE mode;
    };
    static constexpr Long_Option LONG_OPTIONS[] = {
        {"listen-address", 'p', ACE_Get_Opt::ARG_REQUIRED},
        {"listen-backlog", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"idle", 'i', ACE_Get_Opt::ARG_REQUIRED},
        {"accept-timeout", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"concurrency", 'c', ACE_Get_Opt::ARG_REQUIRED},
        {"ping-interval", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"ping-timeout", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"file-read-buffer-size", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"file-write-buffer-size", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"socket-receive-buffer-size", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"socket-send-buffer-size", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"socket-receive-timeout", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"socket-send-timeout", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"http-receive-buffer-size", 0, ACE_Get_Opt::ARG_REQUIRED},
        {"read-ahead", 0, ACE_Get_Opt::NO_ARG},
        {"read-discard-cache", 0, ACE_Get_Opt::ARG_OPTIONAL},
        {"write-sync-close", 0, ACE_Get_Opt::ARG_OPTIONAL},
        {"write-sync", 0, ACE_Get_Opt::ARG_OPTIONAL},
        {"write-discard-cache", 0, ACE_Get_Opt::ARG_OPTIONAL},
    };
    for (const Long_Option& option : LONG_OPTIONS) {
        if (get_opt_.long_option(option.name, option.letter, option.mode) == -1) {
            errno = ENOMEM;
            return -1;
        }
    }
    return 0;
}

int HTTP_Options::Parser::parse()
{
    if (this->register_long_options() == -1) {
        return -1;
    }
    for (int letter = get_opt_(); letter != EOF; letter = get_opt_()) {
        if (this->apply(letter) == -1) {
            return -1;
        }
    }
    this->open_access_log();
    return 0;
}

int HTTP_Options::Parser::apply(int letter)
{
    switch (letter) {
    case 0:
        this->apply_long(get_opt_.long_option());
        return 0;
    case 'p':
        return options_.parse_listen_address(this->value()) ? 0 : -1;
    case 'i':
        options_.idle_ = duration("idle", this->value());
        return 0;
    case 'c':
        this->set_concurrency(this->value());
        return 0;
    case 't':
        this->set_loops();
        return 0;
    case 'f':
        load_configuration<HTTP_Conf_Traits>(this->value());
        return 0;
    case 'w':
        load_configuration<WebSocket_Conf_Traits>(this->value());
        return 0;
    case 'a':
        load_configuration<HTTP_Authenticator_Conf_Traits>(this->value());
        return 0;
    case 's':
        this->add_servers(this->value());
        return 0;
    default:
        if (!this->apply_to_access_log(letter)) {
            HTTPD_WARNING("Unknown HTTP option: %s", get_opt_.last_option());
        }
        return 0;
    }
}

bool HTTP_Options::Parser::apply_to_access_log(int letter)
{
    switch (letter) {
    case 'l':
        log_path_ = this->value();
        return true;
    case 'm':
        // KiB to bytes in 32 bits: 4 GiB wraps to 0, which is no limit (kept).
        log_max_size_ = natoi<unsigned int, char*>(this->value(), nullptr, nullptr) << 10U;
        return true;
    case 'N':
        // The live file is one of the n; 0 wraps to "keep all of them".
        log_max_file_number_ = static_cast<unsigned int>(this->int_value()) - 1U;
        return true;
    case 'z':
        log_compression_ = true;
        return true;
    default:
        return false;
    }
}

/// @param name  the full name, also where the command line has it abbreviated
void HTTP_Options::Parser::apply_long(const char* name)
{
    if (equal(name, "listen-backlog")) {
        options_.listen_backlog_ = this->int_value();
    } else if (equal(name, "ping-interval")) {
        options_.ping_interval_ = duration(name, this->value());
    } else if (equal(name, "ping-timeout")) {
        options_.ping_timeout_ = duration(name, this->value());
    } else if (equal(name, "read-ahead")) {
        options_.read_ahead_ = true;
    } else if (equal(name, "read-discard-cache")) {
        options_.read_discard_cache_ = cache_policy(this->value());
    } else if (equal(name, "write-sync-close")) {
        options_.write_sync_close_ = this->value() == nullptr ? 1 : this->size_value<int>();
    } else if (equal(name, "write-sync")) {
        options_.write_sync_ = cache_policy(this->value());
    } else if (equal(name, "write-discard-cache")) {
        options_.write_discard_cache_ = cache_policy(this->value());
    } else if (equal(name, "file-read-buffer-size")) {
        options_.file_read_buffer_size_ = this->size_value<size_t>();
    } else if (equal(name, "file-write-buffer-size")) {
        options_.file_write_buffer_size_ = this->size_value<size_t>();
    } else if (equal(name, "socket-receive-buffer-size")) {
        options_.socket_receive_buffer_size_ = this->size_value<int>();
    } else if (equal(name, "socket-send-buffer-size")) {
        options_.socket_send_buffer_size_ = this->size_value<int>();
    } else if (equal(name, "socket-receive-timeout")) {
        options_.socket_receive_timeout_ = this->size_value<int>();
    } else if (equal(name, "socket-send-timeout")) {
        options_.socket_send_timeout_ = this->size_value<int>();
    } else if (equal(name, "http-receive-buffer-size")) {
        options_.http_receive_buffer_size_ = this->size_value<size_t>();
    } else if (equal(name, "accept-timeout")) {
        const int seconds = this->int_value();
        options_.accept_timeout_ = seconds != 0 ? seconds : DEFAULT_ACCEPTOR_TIMEOUT;
    }
}

/// Any other word leaves the model as it is, without a message.
void HTTP_Options::Parser::set_concurrency(const char* word)
{
    static constexpr struct {
        const char* word;
        CONCURRENCY concurrency;
    } MODELS[] = {{"REACTIVE", REACTIVE},
                  {"THREAD", THREAD},
                  {"PROCESS", PROCESS},
                  {"THREAD_POOL", THREAD_POOL}};
    for (const auto& model : MODELS) {
        if (equal(word, model.word)) {
            options_.concurrency_ = model.concurrency;
        }
    }
}

void HTTP_Options::Parser::set_loops()
{
    const int loops = equal(this->value(), "auto") ? static_cast<int>(ACE_OS::num_processors())
                                                   : this->int_value();
    options_.loops_ = loops < 1 ? 1 : loops;
}

/// Adjacent commas count as one; a comma at either end still makes an empty name.
void HTTP_Options::Parser::add_servers(std::string_view names)
{
    size_t begin = 0;
    for (;;) {
        const size_t comma = names.find(',', begin);
        options_.servers_.emplace(names.substr(begin, comma - begin));
        if (comma == std::string_view::npos) {
            return;
        }
        begin = names.find_first_not_of(',', comma);
        if (begin == std::string_view::npos) {
            begin = names.size();
        }
    }
}

void HTTP_Options::Parser::open_access_log() const
{
    if (log_path_ == nullptr || *log_path_ == '\0') {
        return;
    }
    // A log that cannot be opened has been reported; the server runs without it.
    HTTP_Access_Logger_Impl::instance()->open(log_path_, log_max_file_number_,
                                              static_cast<long>(log_max_size_), log_compression_);
}

int HTTP_Options::parse_args(int argc, char** argv)
{
    if (!make_shared_objects()) {
        errno = ENOMEM;
        return -1;
    }
    try {
        if (Parser(*this, argc, argv).parse() == -1) {
            return -1;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    this->log_sizes();
    this->log_cache_policies();
    return 0;
}

void HTTP_Options::log_sizes() const
{
    if (file_read_buffer_size_ != 0) {
        HTTPD_DEBUG("Reading file buffer size: %B", file_read_buffer_size_);
    }
    if (file_write_buffer_size_ != 0) {
        HTTPD_DEBUG("Writing file buffer size: %B", file_write_buffer_size_);
    }
    if (socket_receive_buffer_size_ > 0) {
        HTTPD_DEBUG("Socket receive buffer size: %d", socket_receive_buffer_size_);
    }
    if (socket_send_buffer_size_ > 0) {
        HTTPD_DEBUG("Socket send buffer size: %d", socket_send_buffer_size_);
    }
    if (socket_receive_timeout_ > 0) {
        HTTPD_DEBUG("Socket receive timeout: %d", socket_receive_timeout_);
    }
    if (socket_send_timeout_ > 0) {
        HTTPD_DEBUG("Socket send timeout: %d", socket_send_timeout_);
    }
    if (http_receive_buffer_size_ != 0) {
        HTTPD_DEBUG("HTTP receive buffer size: %B", http_receive_buffer_size_);
    }
}

void HTTP_Options::log_cache_policies() const
{
    if (read_ahead_) {
        HTTPD_DEBUG("Enabled read-ahead.");
    }
    if (read_discard_cache_ == -2) {
        HTTPD_DEBUG("Enabled read direct.");
    } else if (read_discard_cache_ == -1) {
        HTTPD_DEBUG("Enabled discard read cache.");
    } else if (read_discard_cache_ > 0) {
        HTTPD_DEBUG("Enabled discard read cache %b.", read_discard_cache_);
    }
    if (write_sync_close_ == 1) {
        HTTPD_DEBUG("Enabled async write sync before closing.");
    } else if (write_sync_close_ == 2) {
        HTTPD_DEBUG("Enabled write sync before closing.");
    }
    if (write_sync_ == -1) {
        HTTPD_DEBUG("Enabled write through.");
    } else if (write_sync_ >= 1) {
        HTTPD_DEBUG("Enabled async write sync %b.", write_sync_);
    } else if (write_sync_ < 0) {
        constexpr off_t LOWEST = std::numeric_limits<off_t>::min();
        // The lowest number, which is where a size too large ends, has no positive counterpart.
        HTTPD_DEBUG("Enabled write sync %b.", -(write_sync_ == LOWEST ? LOWEST + 1 : write_sync_));
    }
    if (write_discard_cache_ == -2) {
        HTTPD_DEBUG("Enabled write direct.");
    } else if (write_discard_cache_ == -1) {
        HTTPD_DEBUG("Enabled discard write cache.");
    } else if (write_discard_cache_ > 0) {
        HTTPD_DEBUG("Enabled discard write cache %b.", write_discard_cache_);
    }
}

bool HTTP_Options::parse_listen_address(const char* text)
{
    try {
        std::string_view rest = text != nullptr ? text : "";
        while (!rest.empty()) {
            const std::string_view piece = rest.substr(0, rest.find(','));
            rest.remove_prefix(std::min(piece.size() + 1, rest.size()));
            if (piece.empty()) {
                continue;
            }
            Listen_Address address;
            const std::string host_and_port = split_piece(piece, address);
            address.sap = make_sap(address.type, host_and_port);
            if (address.sap == nullptr) {
                return false;
            }
            if (address.ipv6_only && !ACE::ipv6_enabled()) {
                continue;
            }
            listen_addrs_.push_back(std::move(address));
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    return true;
}

const HTTP_Options::Listen_Address* HTTP_Options::listen_address(int i) const
{
    const auto index = static_cast<size_t>(i);
    return i >= 0 && index < listen_addrs_.size() ? &listen_addrs_[index] : nullptr;
}

bool HTTP_Options::get_local_listen_address(std::string& host, unsigned short& port,
                                            bool& ssl) const
{
    if (listen_addrs_.empty()) {
        return false;
    }
    // Of addresses that are each "less" than the other, the first one given stays.
    const Listen_Address* best = &listen_addrs_.front();
    for (const Listen_Address& address : listen_addrs_) {
        if (!less_listen_address(*best, address)) {
            best = &address;
        }
    }
    if (best->type == Listen_Address::TYPE_HTTPM || best->type == Listen_Address::TYPE_HTTPU) {
        return false;
    }
    const ACE_INET_Addr& address = inet(*best);
    try {
        if (address.is_any() || address.is_loopback()) {
            host = address.get_type() == AF_INET6 && ACE::ipv6_enabled() ? "::1" : "127.0.0.1";
        } else {
            const ACE_Addr_String text(address, false);
            host = text.c_str() != nullptr ? text.c_str() : "";
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    port = address.get_port_number();
    ssl = best->is_ssl();
    return true;
}

bool HTTP_Options::get_local_listen_address(URI& uri) const
{
    std::string host;
    unsigned short port = 0;
    bool ssl = false;
    if (!this->get_local_listen_address(host, port, ssl)) {
        return false;
    }
    uri.host(host, false);
    uri.port(port);
    uri.ssl(ssl);
    return true;
}
