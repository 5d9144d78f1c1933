#include "host/service_loader.h"

#include "host/directive_text.h"

#include <ace/DLL.h>
#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>
#include <ace/Service_Config.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>

namespace {

constexpr char SERVICE_LIBRARY[] = "httpd";

/// A service that the short form can run.
struct Short_Form {
    const char* name_;
    const char* factory_;
};

constexpr Short_Form HTTP_SERVICE{"HTTP_Service", "_make_HTTP_Service"};
constexpr Short_Form STDIO_SERVICE{"HTTP_Stdin_Stout_Service", "_make_HTTP_Stdin_Stout_Service"};
constexpr char PROXY_SETTER[] = "httpd_set_proxy_from";

using Service_Factory = ACE_Service_Object* (*)(ACE_Service_Object_Exterminator*);
using Proxy_Setter = int (*)(const char*);

/**
 * Notices the syntax errors of directives: the service configurator prints them and then reports
 * success. Threads that a service starts meanwhile inherit the pointer, so the one object is never
 * destroyed.
 */
class Syntax_Watch : public ACE_Log_Msg_Callback {
public:
    static Syntax_Watch& instance()
    {
        static auto* const watch = new Syntax_Watch;
        return *watch;
    }

    void start()
    {
        seen_ = false;
        where_.clear();
        ACE_Log_Msg* const log = ACE_Log_Msg::instance();
        log->msg_callback(this);
        log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    }

    /// @return true when a syntax error was printed since start()
    bool stop()
    {
        ACE_Log_Msg* const log = ACE_Log_Msg::instance();
        log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
        log->msg_callback(nullptr);
        return seen_;
    }

    /// "line 2: syntax error"; to be called after stop().
    const std::string& where() const { return where_; }

    void log(ACE_Log_Record& record) override
    {
        // Other threads of a service may log at the same time; the parser's lines come from ours.
        const char* const text = record.msg_data();
        const char* const place = std::strstr(text, "] on line ");
        if (std::strncmp(text, "ACE (", 5) != 0 || std::strstr(text, ") [error ") == nullptr ||
            place == nullptr || seen_.exchange(true)) {
            return;
        }
        where_ = place + std::strlen("] on ");
        where_.erase(where_.find_last_not_of(" \n") + 1);
    }

private:
    std::atomic<bool> seen_{false};
    std::string where_; ///< written once, by whoever set seen_
};

std::string one_line(const char* text)
{
    std::string result = text != nullptr ? text : "";
    while (!result.empty() && result.back() == '\n') {
        result.pop_back();
    }
    for (size_t at = result.find('\n'); at != std::string::npos; at = result.find('\n', at)) {
        result.replace(at, 1, "; ");
    }
    return result;
}

/// Opens a library by the name that a directive gives. The holder does not close it again.
bool open_library(const std::string& name, ACE_DLL& dll, std::string& error)
{
    if (dll.open(name.c_str(), ACE_DEFAULT_SHLIB_MODE, false) == 0) {
        return true;
    }
    error = "cannot load library " + name;
    const std::string reason = one_line(dll.error());
    if (!reason.empty()) {
        error += ": " + reason;
    }
    return false;
}

void* find_symbol(const std::string& library, ACE_DLL& dll, const char* name, std::string& error)
{
    void* const symbol = dll.symbol(name, 1);
    if (symbol == nullptr) {
        error = "library " + library + " has no symbol " + name;
    }
    return symbol;
}

/**
 * Finds out why a directive failed, since the service configurator tells only that it did: the
 * libraries and symbols that the text names are tried again.
 */
std::string failure_reason(const std::string& directives)
{
    for (const Service_Location& location : service_locations(directives)) {
        ACE_DLL dll;
        std::string error;
        if (!open_library(location.dll_, dll, error) ||
            find_symbol(location.dll_, dll, location.symbol_.c_str(), error) == nullptr) {
            return error;
        }
    }
    return "a service could not be initialised";
}

bool read_conf_file(const std::string& path, std::string& text, std::string& error)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) == -1) {
        error = std::strerror(errno);
        return false;
    }
    if (S_ISDIR(info.st_mode)) {
        error = std::strerror(EISDIR); // the configurator's scanner would end the process
        return false;
    }
    errno = 0;
    std::ifstream stream(path);
    std::ostringstream content;
    content << stream.rdbuf();
    if (!stream.is_open() || stream.bad()) {
        error = std::strerror(errno != 0 ? errno : EIO);
        return false;
    }
    text = content.str();
    return true;
}

bool process(const Host_Options::Source& source, std::string& error)
{
    const bool is_file = source.kind_ == Host_Options::Source::Kind::CONF_FILE;
    const std::string what = is_file ? "service configuration file " + source.text_
                                     : "service directive \"" + source.text_ + "\"";
    std::string text = source.text_;
    if (is_file && !read_conf_file(source.text_, text, error)) {
        error = "cannot read " + what + ": " + error;
        return false;
    }
    Syntax_Watch& watch = Syntax_Watch::instance();
    watch.start();
    const int failed = is_file ? ACE_Service_Config::process_file(source.text_.c_str())
                               : ACE_Service_Config::process_directive(source.text_.c_str());
    const int process_error = errno;
    if (watch.stop()) {
        error = what + ", " + watch.where();
        return false;
    }
    if (failed < 0) {
        error = "cannot process " + what + ": " + std::strerror(process_error);
        return false;
    }
    if (failed > 0) {
        error = what + ": " + failure_reason(text);
        return false;
    }
    return true;
}

/// Makes the service and enters it as the directive would, but with the words as they are.
bool load_short_form(const Short_Form& form, std::vector<char*>& args, std::string& error)
{
    ACE_DLL dll;
    if (!open_library(SERVICE_LIBRARY, dll, error)) {
        return false;
    }
    const auto factory =
        reinterpret_cast<Service_Factory>(find_symbol(SERVICE_LIBRARY, dll, form.factory_, error));
    if (factory == nullptr) {
        return false;
    }
    ACE_Service_Object_Exterminator gobbler = nullptr;
    ACE_Service_Object* const service = factory(&gobbler);
    if (service == nullptr) {
        error = std::string(form.factory_) + ": " + std::strerror(errno);
        return false;
    }
    // From here on the repository's entry owns the service: deleting the entry calls fini, where
    // init has succeeded, and then the gobbler.
    auto* const type = new ACE_Service_Object_Type(
        service, form.name_, ACE_Service_Type::DELETE_OBJ | ACE_Service_Type::DELETE_THIS, gobbler);
    auto entry = std::make_unique<ACE_Service_Type>(form.name_, type, dll, true);
    std::vector<char*> words = args;
    words.push_back(nullptr);
    if (type->init(static_cast<int>(args.size()), words.data()) == -1) {
        error = std::string(form.name_) + ": the service could not be initialised";
        return false;
    }
    ACE_Service_Type* const inserted = entry.release(); // the repository's now, whatever it answers
    if (ACE_Service_Repository::instance()->insert(inserted) == -1) {
        error = std::string(form.name_) + ": the service repository refused it";
        return false;
    }
    return true;
}

/// Hands the trusted proxy to the HTTP library, which a directive may load only later.
bool set_proxy_from(const std::string& address, std::string& error)
{
    ACE_DLL dll;
    if (!open_library(SERVICE_LIBRARY, dll, error)) {
        return false;
    }
    const auto setter =
        reinterpret_cast<Proxy_Setter>(find_symbol(SERVICE_LIBRARY, dll, PROXY_SETTER, error));
    if (setter == nullptr) {
        return false;
    }
    if (setter(address.c_str()) == -1) {
        error = std::string(PROXY_SETTER) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

/// Libraries enter helpers of their own, such as the initialisation of OpenSSL.
size_t count_services()
{
    constexpr bool ACTIVE_ONLY = false;
    ACE_Service_Repository_Iterator it(*ACE_Service_Repository::instance(), ACTIVE_ONLY);
    size_t count = 0;
    for (const ACE_Service_Type* entry = nullptr; it.next(entry) != 0; it.advance()) {
        ++count;
    }
    return count;
}

} // namespace

bool load_services(Host_Options& options, std::string& error)
{
    if (!options.proxy_from_.empty() && !set_proxy_from(options.proxy_from_, error)) {
        return false;
    }
    if (options.short_form_) {
        return load_short_form(options.stdio_ ? STDIO_SERVICE : HTTP_SERVICE, options.service_args_,
                               error);
    }
    const size_t before = count_services();
    for (const Host_Options::Source& source : options.sources_) {
        if (!process(source, error)) {
            return false;
        }
    }
    if (count_services() == before) {
        error = "no service is configured";
        return false;
    }
    return true;
}
