#include "httpd/http_handler_creator_map.h"

#include "httpd/detail/known_singleton_t.h"

using Singleton = Known_Singleton_T<HTTP_Handler_Creator_Map>;

HTTP_Handler_Creator_Map::HTTP_Handler_Creator_Map() = default;
HTTP_Handler_Creator_Map::~HTTP_Handler_Creator_Map() = default;

HTTP_Handler_Creator_Map* HTTP_Handler_Creator_Map::instance()
{
    return Singleton::instance();
}

void HTTP_Handler_Creator_Map::close_instance()
{
    Singleton::close();
}
