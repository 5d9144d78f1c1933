#include "httpd/http_authenticator_creator_map.h"

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

using Singleton = ACE_Unmanaged_Singleton<HTTP_Authenticator_Creator_Map, ACE_Null_Mutex>;

HTTP_Authenticator_Creator_Map::HTTP_Authenticator_Creator_Map() = default;
HTTP_Authenticator_Creator_Map::~HTTP_Authenticator_Creator_Map() = default;

HTTP_Authenticator_Creator_Map* HTTP_Authenticator_Creator_Map::instance()
{
    return Singleton::instance();
}

void HTTP_Authenticator_Creator_Map::close_instance()
{
    Singleton::close();
}
