#include "plugins/basic_auth/basic_auth.h"

#include <new>

extern "C" {

/// Makes the factory of a record that asks for user and password.
HTTPD_EXPORT Object_Creator_T<HTTP_Authenticator>* _make_Basic_Auth(void (**disposer)(void*))
{
    *disposer = [](void* creator) {
        delete static_cast<Object_Creator_T<HTTP_Authenticator>*>(creator);
    };
    return new (std::nothrow) Basic_Auth_Creator;
}
}
