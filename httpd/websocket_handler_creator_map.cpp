#include "httpd/websocket_handler_creator_map.h"

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

using Singleton = ACE_Unmanaged_Singleton<WebSocket_Handler_Creator_Map, ACE_Null_Mutex>;

WebSocket_Handler_Creator_Map::WebSocket_Handler_Creator_Map() = default;
WebSocket_Handler_Creator_Map::~WebSocket_Handler_Creator_Map() = default;

WebSocket_Handler_Creator_Map* WebSocket_Handler_Creator_Map::instance()
{
    return Singleton::instance();
}

void WebSocket_Handler_Creator_Map::close_instance()
{
    Singleton::close();
}
