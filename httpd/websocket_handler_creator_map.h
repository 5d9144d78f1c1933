#pragma once

#include "httpd/dll_object_manager_t.h"
#include "httpd/export.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"

#include <ace/Null_Mutex.h>

template <class TYPE, class ACE_LOCK>
class ACE_Singleton;

/**
 * The WebSocket plug-ins by URI. One for the process; not locked, so it is filled before requests
 * are served and not changed while they are.
 *
 * Made by the first call of instance(), which must not race; destroyed only by close_instance().
 */
class HTTPD_EXPORT WebSocket_Handler_Creator_Map
    : public DLL_Object_Manager_T<Object_Creator_T<WebSocket_Handler>, void (*)(void*),
                                  ACE_Null_Mutex> {
public:
    ~WebSocket_Handler_Creator_Map() override;

    /// Null when there is no memory (ENOMEM).
    static WebSocket_Handler_Creator_Map* instance();

    /// Disposes of every factory and closes the libraries. A later instance() is a fresh one.
    static void close_instance();

private:
    friend class ACE_Singleton<WebSocket_Handler_Creator_Map, ACE_Null_Mutex>;

    WebSocket_Handler_Creator_Map();
};
