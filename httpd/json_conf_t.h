#pragma once

#include "httpd/dll_object_manager_t.h"
#include "httpd/export.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/json_base_conf.h"

/// Records of HTTP plug-ins (option -f).
struct HTTPD_EXPORT HTTP_Conf_Traits {
    using object_type = HTTP_Handler;
    using creator_map = HTTP_Handler_Creator_Map;
    static constexpr char name[] = "HTTP";
};

/// Records of authenticators (option -a).
struct HTTPD_EXPORT HTTP_Authenticator_Conf_Traits {
    using object_type = HTTP_Authenticator;
    using creator_map = HTTP_Authenticator_Creator_Map;
    static constexpr char name[] = "HTTP authenticator";
};

/// Records of WebSocket plug-ins (option -w).
struct HTTPD_EXPORT WebSocket_Conf_Traits {
    using object_type = WebSocket_Handler;
    using creator_map = WebSocket_Handler_Creator_Map;
    static constexpr char name[] = "WebSocket";
};

/**
 * Reads a plug-in configuration file: for each record, loads the library, makes the factory with
 * the function that the record names, initialises it with the record's parameters and registers it
 * under the record's URI.
 *
 * Given to Conf_Loader_T<JSON_Base_Conf>::load by the thread that configures the service, before
 * requests are served. A record that fails is logged and does not stop the others.
 */
template <typename Traits>
class HTTPD_EXPORT JSON_Conf_T : public JSON_Base_Conf {
public:
    using object_type = Object_Creator_T<typename Traits::object_type>;
    using gobbler_type = void (*)(void*);
    using entry_ptr_type = DLL_Object_Entry_Ptr<object_type, gobbler_type>;

    /// A library's factory function: stores the function that disposes of what it returns.
    using maker_type = object_type* (*)(gobbler_type*);

    JSON_Conf_T();
    ~JSON_Conf_T() override;

    /// Loads the record that was read. @return 1, or 0 when it failed (logged).
    int handle_record() override;

private:
    int open_dll(entry_ptr_type& entry) const;
    int make_creator(entry_ptr_type& entry) const;
    int init_creator(object_type& creator) const;
    int insert_creator(entry_ptr_type& entry) const;
};

extern template class JSON_Conf_T<HTTP_Conf_Traits>;
extern template class JSON_Conf_T<HTTP_Authenticator_Conf_Traits>;
extern template class JSON_Conf_T<WebSocket_Conf_Traits>;
