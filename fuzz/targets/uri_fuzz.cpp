// Absolute URIs: taken and split as liburiparser does, where that is there, but for the differences
// that are meant and listed here; and written and read again they stay the same.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "support/uri.h"

#include <string>

#ifdef HTTPD_FUZZ_URIPARSER
#include <uriparser/Uri.h>
#endif

namespace {

bool same(const URI& a, const URI& b)
{
    return a.scheme() == b.scheme() && a.userinfo() == b.userinfo() &&
           a.host(true) == b.host(true) && a.host(false) == b.host(false) && a.port() == b.port() &&
           a.path() == b.path() && a.query() == b.query() && a.fragment() == b.fragment();
}

/// The text of a parsed URI is one, stands for the same, and is written the same again.
void check_round_trip(const URI& uri)
{
    const std::string text = uri.text();
    URI again;
    FUZZ_CHECK(URI_Parser().parse(text.c_str(), again), "its own text is not taken");
    FUZZ_CHECK(same(uri, again), "its own text stands for another URI");
    FUZZ_CHECK(again.text() == text, "its own text changes");
}

#ifdef HTTPD_FUZZ_URIPARSER

std::string text_of(const UriTextRangeA& range)
{
    return range.first == nullptr ? std::string() : std::string(range.first, range.afterLast);
}

/// A URI as liburiparser sees it.
class Judge {
public:
    explicit Judge(const std::string& text) : text_(text)
    {
        taken_ = uriParseSingleUriA(&uri_, text_.c_str(), nullptr) == URI_SUCCESS;
    }
    ~Judge()
    {
        if (taken_) {
            uriFreeUriMembersA(&uri_);
        }
    }
    Judge(const Judge&) = delete;
    Judge& operator=(const Judge&) = delete;

    /// It takes relative references too.
    bool takes_absolute() const { return taken_ && uri_.scheme.first != nullptr; }

    std::string scheme() const { return plain::lower(text_of(uri_.scheme)); }
    std::string userinfo() const { return text_of(uri_.userInfo); }
    std::string host() const { return plain::lower(text_of(uri_.hostText)); }
    std::string port() const { return text_of(uri_.portText); }
    std::string query() const { return text_of(uri_.query); }
    std::string fragment() const { return text_of(uri_.fragment); }

    std::string path() const
    {
        std::string path;
        const bool has_host = uri_.hostText.first != nullptr;
        const char* separator = uri_.absolutePath || has_host ? "/" : "";
        for (const UriPathSegmentA* part = uri_.pathHead; part != nullptr; part = part->next) {
            path += separator + text_of(part->text);
            separator = "/";
        }
        return path.empty() && uri_.absolutePath ? "/" : path;
    }

private:
    const std::string& text_;
    UriUriA uri_{};
    bool taken_ = false;
};

/// Characters that RFC 3986 has in a path (section 3.3), and in a query or fragment with `more`.
bool is_plain_part(const std::string& text, std::string_view more)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || plain::hex(text[i + 1]) < 0 ||
                plain::hex(text[i + 2]) < 0) {
                return false;
            }
            i += 2;
        } else if (!plain::is_letter(c) && !plain::is_digit(c) &&
                   std::string_view("-._~!$&'()*+,;=:@/").find(c) == std::string_view::npos &&
                   more.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

/// Why the server's parser is stricter: its decisions rest on host and port.
bool may_refuse(const Judge& judge)
{
    plain::Unsigned_Wide port = 0;
    plain::leading_number(judge.port(), 65536, port);
    const std::string scheme = judge.scheme();
    const bool is_ours = scheme == "http" || scheme == "https" || scheme == "ws" || scheme == "wss";
    return port > 65535 || (is_ours && judge.host().empty());
}

/// Why it is more lenient: browsers send what the RFC wants encoded, behind the authority.
bool may_take(const URI& uri)
{
    return !is_plain_part(uri.path(), "") || !is_plain_part(uri.query(), "?") ||
           !is_plain_part(uri.fragment(), "?");
}

void check_against_judge(const std::string& text, bool taken, const URI& uri)
{
    const Judge judge(text);
    if (!taken) {
        FUZZ_CHECK(!judge.takes_absolute() || may_refuse(judge), "refused without a reason");
        return;
    }
    if (!judge.takes_absolute()) {
        FUZZ_CHECK(may_take(uri), "taken without a reason");
        return;
    }
    FUZZ_CHECK(!may_refuse(judge), "a port or an empty host that has to be refused");
    FUZZ_CHECK(uri.scheme() == judge.scheme(), "another scheme");
    FUZZ_CHECK(uri.userinfo() == judge.userinfo(), "another user");
    FUZZ_CHECK(uri.host(false) == judge.host(), "another host");
    plain::Unsigned_Wide port = 0;
    plain::leading_number(judge.port(), 65536, port);
    FUZZ_CHECK(uri.port() == port, "another port");
    FUZZ_CHECK(uri.path() == judge.path(), "another path");
    FUZZ_CHECK(uri.query() == judge.query(), "another query");
    FUZZ_CHECK(uri.fragment() == judge.fragment(), "another fragment");
}

#endif

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(Fuzz_Input(data, size).until('\0'));
    URI uri;
    const bool taken = URI_Parser().parse(text.c_str(), uri);
    if (taken) {
        check_round_trip(uri);
    } else {
        FUZZ_CHECK(same(uri, URI()), "a refused text has changed the URI");
    }
#ifdef HTTPD_FUZZ_URIPARSER
    check_against_judge(text, taken, uri);
#endif
    return 0;
}
