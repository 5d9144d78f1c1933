#include "httpd/websocket_handler_creator_map.h"

#include "httpd/detail/known_singleton_t.h"

using Singleton = Known_Singleton_T<WebSocket_Handler_Creator_Map>;

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
