#pragma once

#include "httpd/dll_object_manager_t.h"
#include "httpd/export.h"
#include "httpd/http_handler.h"
#include "httpd/object_creator_t.h"

#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

template <class TYPE, class ACE_LOCK>
class ACE_Singleton;

/**
 * The HTTP plug-ins by URI: the registry that every request is routed by. One for the process.
 *
 * Made by the first call of instance(), which must not race; destroyed only by close_instance().
 */
class HTTPD_EXPORT HTTP_Handler_Creator_Map
    : public DLL_Object_Manager_T<Object_Creator_T<HTTP_Handler>, void (*)(void*),
                                  ACE_Thread_Mutex> {
public:
    ~HTTP_Handler_Creator_Map() override;

    /// Null when there is no memory (ENOMEM).
    static HTTP_Handler_Creator_Map* instance();

    /// Disposes of every factory and closes the libraries. A later instance() is a fresh one.
    static void close_instance();

private:
    friend class ACE_Singleton<HTTP_Handler_Creator_Map, ACE_Null_Mutex>;

    HTTP_Handler_Creator_Map();
};
