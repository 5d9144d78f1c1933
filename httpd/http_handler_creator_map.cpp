#include "httpd/http_handler_creator_map.h"

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

using Singleton = ACE_Unmanaged_Singleton<HTTP_Handler_Creator_Map, ACE_Null_Mutex>;

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
