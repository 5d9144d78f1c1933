#pragma once

#include "httpd/export.h"

class HTTP_IO;
class HTTP_Request;
class HTTP_Response;

/**
 * Base class of a plug-in that admits or refuses the requests below a URI. One object for each
 * request, made by its factory (Object_Creator_T<HTTP_Authenticator>).
 */
class HTTPD_EXPORT HTTP_Authenticator {
public:
    HTTP_Authenticator() = default;
    virtual ~HTTP_Authenticator();
    HTTP_Authenticator(const HTTP_Authenticator&) = delete;
    HTTP_Authenticator& operator=(const HTTP_Authenticator&) = delete;

    /**
     * Called before the request's handler, in the thread that drives the connection.
     * @param response  fields put here (WWW-Authenticate, say) go out with a refusal
     * @return 200 admits the request; any other value is sent as the status of the refusal, and the
     *         connection is closed.
     */
    virtual int authenticate(const HTTP_IO& io, HTTP_Request& request,
                             HTTP_Response& response) const = 0;
};
