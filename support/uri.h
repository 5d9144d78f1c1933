#pragma once

#include "support/export.h"

#include <string>
#include <string_view>

/**
 * The parts of an absolute URI (RFC 3986). They are kept as they were written, except that the
 * scheme and the host are in lower case, so that hosts can be compared as strings.
 *
 * A plain value: copy it, use it from one thread at a time.
 */
class HTTPD_SUPPORT_EXPORT URI {
public:
    const std::string& scheme() const { return scheme_; }

    /// The text before "@", or "".
    const std::string& userinfo() const { return userinfo_; }

    /// The host. `bracketed` adds the brackets that an IPv6 literal has inside a URI ("[::1]");
    /// false gives the bare literal ("::1"). Other hosts are the same either way.
    std::string host(bool bracketed) const;

    /// Sets the host. `bracketed`: an IPv6 literal may stand in its brackets, as in a URI, which
    /// are taken off; false: the text is the host as it is. It is not checked for forbidden
    /// characters.
    void host(const std::string& host, bool bracketed);

    /// The port, or 0 when there is none.
    unsigned short port() const { return port_; }

    /// 0: no port, which means the default of the scheme.
    void port(unsigned short port) { port_ = port; }

    /// Whether the scheme runs over TLS: "https" or "wss".
    bool ssl() const;

    /// Switches between "http" and "https", "ws" and "wss"; a URI without a scheme becomes "http"
    /// or "https". Other schemes stay.
    void ssl(bool ssl);

    /// The path, percent-encodings untouched; may be empty.
    const std::string& path() const { return path_; }

    /// The text behind "?" or "#", without that character; "" when there is none.
    const std::string& query() const { return query_; }
    const std::string& fragment() const { return fragment_; }

    /// The whole URI (RFC 3986, section 5.3). "" for a URI without scheme and host.
    std::string text() const;

private:
    friend class URI_Parser;

    std::string scheme_;
    std::string userinfo_;
    std::string host_; ///< without brackets
    std::string path_;
    std::string query_;
    std::string fragment_;
    unsigned short port_ = 0;
    bool has_authority_ = false;
    bool has_userinfo_ = false;
    bool is_literal_ = false; ///< the host stands in brackets inside a URI
    bool has_query_ = false;
    bool has_fragment_ = false;
};

/**
 * Parses absolute URIs, with or without a fragment.
 *
 * The scheme and the authority are held to RFC 3986 to the letter, since decisions are based on the
 * host. Path, query and fragment may hold any byte but controls and the blank: browsers send
 * characters there that the RFC wants encoded, such as the brackets of "?a[]=1".
 */
class HTTPD_SUPPORT_EXPORT URI_Parser {
public:
    /**
     * @param text  NUL-terminated; null is an error.
     * @param out   replaced on success, untouched on failure.
     * @return false with errno EINVAL for what is no absolute URI: no scheme, a broken authority, a
     *         port above 65535, an http, https, ws or wss URI without a host; ENOMEM.
     */
    bool parse(const char* text, URI& out) const;

private:
    static bool parse_parts(std::string_view text, URI& uri);
    static bool parse_authority(std::string_view text, URI& uri);
};
