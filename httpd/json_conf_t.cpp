#include "httpd/json_conf_t.h"

#include "support/log.h"

#include <ace/ARGV.h>

#include <cerrno>
#include <dlfcn.h>
#include <string>

namespace {

const char* error_text(ACE_DLL& dll)
{
    const char* const text = dll.error();
    return text != nullptr ? text : "";
}

bool is_blank(const std::string& text)
{
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

} // namespace

template <typename Traits>
JSON_Conf_T<Traits>::JSON_Conf_T()
    : JSON_Base_Conf(URI_Base_Conf_Traits::key, URI_Base_Conf_Traits::KEY_LEN)
{
}

template <typename Traits>
JSON_Conf_T<Traits>::~JSON_Conf_T() = default;

template <typename Traits>
int JSON_Conf_T<Traits>::handle_record()
{
    entry_ptr_type entry; // on every failure disposes of the factory and closes the library
    if (open_dll(entry) == -1 || make_creator(entry) == -1 || init_creator(*entry.obj_) == -1 ||
        insert_creator(entry) == -1) {
        return 0;
    }
    entry.detach_ = true;
    HTTPD_DEBUG("Loaded %s handler(uri='%s', dll='%s', init='%s', params='%s')", Traits::name,
                uri().c_str(), dll().c_str(), init().c_str(), params().c_str());
    return 1;
}

template <typename Traits>
int JSON_Conf_T<Traits>::open_dll(entry_ptr_type& entry) const
{
    if (entry.open(dll().c_str(), RTLD_NOW) == -1) {
        HTTPD_ERROR("Unable to open dll '%s': %s", dll().c_str(), error_text(entry.dll_));
        return -1;
    }
    return 0;
}

template <typename Traits>
int JSON_Conf_T<Traits>::make_creator(entry_ptr_type& entry) const
{
    const auto maker = reinterpret_cast<maker_type>(entry.dll_.symbol(init().c_str()));
    if (maker == nullptr) {
        HTTPD_ERROR("Unable to get symbol '%s' from dll '%s': %s", init().c_str(), dll().c_str(),
                    error_text(entry.dll_));
        return -1;
    }
    errno = 0; // the search for the library left its own
    entry.obj_ = maker(&entry.gobbler_);
    if (entry.obj_ == nullptr) {
        HTTPD_ERROR("Failed to create %s handler for method '%s': %m", Traits::name, uri().c_str());
        return -1;
    }
    return 0;
}

template <typename Traits>
int JSON_Conf_T<Traits>::init_creator(object_type& creator) const
{
    ACE_ARGV_T<char> arguments(params().c_str(), true);
    if (arguments.argc() == 0 && !is_blank(params())) {
        HTTPD_WARNING("No arguments of %s handler for uri '%s': params='%s' cannot be split "
                      "(unbalanced quote?)",
                      Traits::name, uri().c_str(), params().c_str());
    }
    errno = 0;
    if (creator.init(arguments.argc(), arguments.argv()) == -1) {
        HTTPD_ERROR("Failed to init %s handler for method '%s': %m", Traits::name, uri().c_str());
        return -1;
    }
    return 0;
}

template <typename Traits>
int JSON_Conf_T<Traits>::insert_creator(entry_ptr_type& entry) const
{
    auto* const registry = Traits::creator_map::instance();
    if (registry == nullptr || registry->insert(uri(), dll(), entry.obj_, entry.gobbler_) == -1) {
        HTTPD_ERROR("Failed to load %s handelr(uri='%s', dll='%s', init='%s', params='%s')",
                    Traits::name, uri().c_str(), dll().c_str(), init().c_str(), params().c_str());
        return -1;
    }
    return 0;
}

template class JSON_Conf_T<HTTP_Conf_Traits>;
template class JSON_Conf_T<HTTP_Authenticator_Conf_Traits>;
template class JSON_Conf_T<WebSocket_Conf_Traits>;
