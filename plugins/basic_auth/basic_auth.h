#pragma once

#include "httpd/http_authenticator.h"
#include "httpd/simple_creator_t.h"
#include "plugins/basic_auth/htpasswd_file.h"

#include <string>

/// What the authenticators of one record share.
struct Basic_Auth_Context {
    Htpasswd_File file_;
    std::string challenge_; ///< the WWW-Authenticate field of a refusal
};

/// Admits requests with user and password of a file (RFC 7617).
class Basic_Auth : public HTTP_Authenticator {
public:
    explicit Basic_Auth(Basic_Auth_Context& context) : context_(context) {}

    int authenticate(const HTTP_IO& io, HTTP_Request& request,
                     HTTP_Response& response) const override;

private:
    Basic_Auth_Context& context_;
};

/// Factory of the authenticators of one record. Parameters: `--file HTPASSWD --realm TEXT`.
class Basic_Auth_Creator : public Simple_Creator_T<HTTP_Authenticator, Basic_Auth> {
public:
    /// @return 0; -1 with errno and one error line when a parameter or the file is no good.
    int init(int argc, char** argv) override;

protected:
    Basic_Auth* construct(void* memory) override;

private:
    int init_i(int argc, char** argv);

    Basic_Auth_Context context_;
};

/// The challenge for a realm (RFC 7617, section 2). @return "" when the realm has a control
/// character, which no field can carry.
std::string basic_challenge(const std::string& realm);
