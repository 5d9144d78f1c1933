#include "plugins/files/files_handler.h"

#include "httpd/http_io.h"
#include "httpd/send_open_file.h"
#include "plugins/files/request_path.h"
#include "support/http_date.h"
#include "support/log.h"

#include <algorithm>
#include <cstdio>

namespace {

/// The request brings a body, which this plug-in does not read. Any transfer coding counts.
bool has_body(const HTTP_Request& request)
{
    return request.content_length() > 0 ||
           request.headers().get(HTTP_HEAD_TRANSFER_ENCODING) != nullptr;
}

/**
 * Sends status and fields without a body. Without Content-Length the connection closes behind the
 * response, which a body that is not read requires: it must not be taken for the next request.
 */
int send_empty(HTTP_IO& io, int status)
{
    if (!has_body(io.request())) {
        return io.send_error(status);
    }
    io.response().status(status);
    return io.send(nullptr, 0, true);
}

} // namespace

HTTP_Handler::CONCURRENCY Files_Handler::concurrency(const HTTP_Request& request,
                                                     HANDLE_METHOD) const
{
    if (request.method() != HTTP_METHOD_GET) {
        return INHERITED;
    }
    const size_t offset = context_.uri_offset_.load(std::memory_order_relaxed);
    if (offset == Files_Context::UNKNOWN_OFFSET) {
        return any_large_file(request) ? THREAD : INHERITED;
    }
    prepare(request, offset);
    const bool large = status_ == 200 && answer_.length_ > context_.options_.thread_size_;
    return large ? THREAD : INHERITED;
}

int Files_Handler::handle_request(HTTP_IO& io)
{
    const HTTP_Request& request = io.request();
    if (context_.uri_offset_.load(std::memory_order_relaxed) != io.uri_off()) {
        context_.uri_offset_.store(io.uri_off(), std::memory_order_relaxed);
    }
    if (request.method() != HTTP_METHOD_GET && request.method() != HTTP_METHOD_HEAD) {
        io.response().headers().put(HTTP_HEAD_ALLOW, "GET, HEAD");
        return send_empty(io, 405);
    }
    if (offset_ != io.uri_off()) {
        prepare(request, io.uri_off());
    }
    int result = 0;
    switch (status_) {
    case 200:
        result = answer_file(io);
        break;
    case 301:
        result = redirect(io);
        break;
    default:
        result = send_empty(io, status_);
        break;
    }
    file_.close(); // this object lives until the connection's next request
    return result;
}

int Files_Handler::handle_body(HTTP_IO&, const void*, size_t)
{
    return -1; // every request is answered before its body
}

/// Finds the file and what of it is to be sent.
void Files_Handler::prepare(const HTTP_Request& request, size_t offset) const
{
    offset_ = offset;
    status_ = file_.locate(context_.root_, context_.options_, context_.cache_, request, offset);
    if (status_ == 200) {
        answer_ = file_answer(request, file_.version());
    }
}

/**
 * For the first requests, when it is not known yet where the path goes on below the plug-in's URI:
 * whether any of the places where it may go on names a large file.
 */
bool Files_Handler::any_large_file(const HTTP_Request& request) const
{
    constexpr int MAX_LOOKUPS = 8;
    int lookups = 0;
    const std::string_view path(request.uri(true));
    for (size_t i = path.find('/'); i != std::string_view::npos; i = path.find('/', i + 1)) {
        if (++lookups > MAX_LOOKUPS) {
            return true;
        }
        Located_File candidate;
        if (candidate.locate(context_.root_, context_.options_, context_.cache_, request, i + 1) ==
                200 &&
            candidate.version().size_ > context_.options_.thread_size_) {
            return true;
        }
    }
    return false;
}

/// The fields that tell a cache which version this is and how to keep it.
void Files_Handler::put_validators(HTTP_Response& response) const
{
    HTTP_Headers& headers = response.headers();
    const File_Form& form = file_.form();
    headers.put(HTTP_HEAD_ETAG, form.version().tag_.view());
    if (!form.last_modified().empty()) {
        headers.put(HTTP_HEAD_LAST_MODIFIED, form.last_modified());
    } else {
        // RFC 9110, section 8.8.2.1: never later than the time of the answer.
        char date[HTTP_DATE_SIZE];
        http_date_format(std::min(form.version().modified_, std::time(nullptr)), date);
        headers.put(HTTP_HEAD_LAST_MODIFIED, std::string_view(date, HTTP_DATE_LENGTH));
    }
    if (file_.has_compressed()) {
        headers.put(HTTP_HEAD_VARY, "Accept-Encoding");
    }
    if (!context_.options_.cache_control_.empty()) {
        headers.put(HTTP_HEAD_CACHE_CONTROL, context_.options_.cache_control_.c_str());
    }
}

int Files_Handler::answer_file(HTTP_IO& io)
{
    HTTP_Response& response = io.response();
    if (answer_.status_ == 412) {
        return send_empty(io, 412);
    }
    if (answer_.status_ == 304) {
        return not_modified(io);
    }
    char range[80];
    if (answer_.status_ == 416) {
        std::snprintf(range, sizeof(range), "bytes */%llu",
                      static_cast<unsigned long long>(file_.version().size_));
        response.headers().put(HTTP_HEAD_CONTENT_RANGE, range);
        return send_empty(io, 416);
    }

    response.status(answer_.status_);
    response.content_type(file_.content_type());
    if (!has_body(io.request())) { // else the connection must close: see send_empty
        response.content_length(answer_.length_);
    }
    if (answer_.status_ == 206) {
        std::snprintf(range, sizeof(range), "bytes %llu-%llu/%llu",
                      static_cast<unsigned long long>(answer_.offset_),
                      static_cast<unsigned long long>(answer_.offset_ + answer_.length_ - 1),
                      static_cast<unsigned long long>(file_.version().size_));
        response.headers().put(HTTP_HEAD_CONTENT_RANGE, range);
    }
    if (file_.compressed()) {
        response.headers().put(HTTP_HEAD_CONTENT_ENCODING, "gzip");
    }
    response.headers().put(HTTP_HEAD_ACCEPT_RANGES, "bytes");
    put_validators(response);
    if (io.request().method() == HTTP_METHOD_HEAD) {
        return io.send(nullptr, 0, true);
    }
    return send_content(io);
}

/// Sends the client to the canonical spelling of its URI, or to that of a directory: with a slash.
int Files_Handler::redirect(HTTP_IO& io) const
{
    const HTTP_Request& request = io.request();
    std::string_view prefix(request.uri(true));
    Request_Path path;
    if (!path.decode(prefix, offset_)) {
        return send_empty(io, 404);
    }
    prefix = prefix.substr(0, offset_);
    // Two slashes at its front would make the path's first name a host (RFC 3986, section 4.2).
    while (prefix.size() > 1 && prefix[1] == '/') {
        prefix.remove_prefix(1);
    }
    const std::string_view name(path.c_str());
    const std::string_view query(request.query() != nullptr ? request.query() : "");
    constexpr size_t MARKS = 3; // two slashes and "?"
    char* const location = static_cast<char*>(io.response().arena().allocate(
        prefix.size() + name.size() * MAX_ENCODED_SIZE + query.size() + MARKS));
    if (location == nullptr) {
        return send_empty(io, 500);
    }
    char* end = std::copy(prefix.begin(), prefix.end(), location);
    if (!name.empty() && (end == location || end[-1] != '/')) {
        *end++ = '/';
    }
    for (const char c : name) {
        end = encode_path_byte(c, end);
    }
    if (path.is_canonical() || path.ends_with_slash()) {
        *end++ = '/';
    }
    if (request.query() != nullptr) {
        *end++ = '?';
        end = std::copy(query.begin(), query.end(), end);
    }
    io.response().headers().put(HTTP_HEAD_LOCATION,
                                std::string_view(location, static_cast<size_t>(end - location)));
    return send_empty(io, 301);
}

/**
 * A 304 never has a body, and its Content-Length, without which the connection would not be kept,
 * has to be that of the file (RFC 9110, section 8.6). So the response waits for a body that does
 * not come, and is ended here the way a response without a length is.
 */
int Files_Handler::not_modified(HTTP_IO& io) const
{
    HTTP_Response& response = io.response();
    response.status(304);
    if (!has_body(io.request())) {
        response.content_length(file_.version().size_);
    }
    put_validators(response);
    const int result = io.send(nullptr, 0, true);
    if (result == -1 || io.response_state() == HTTP_SOCK_STATE_CONTENT_SENT) {
        return result; // failed, to be closed, HEAD, or an empty file
    }
    response.keep_alive(false);
    io.send(nullptr, 0, true); // writes nothing; its -1 asks for the close that is not meant
    response.keep_alive(true);
    return io.response_state() == HTTP_SOCK_STATE_CONTENT_SENT ? 0 : -1;
}

/**
 * Sends the body from what was checked. The header leaves with its first bytes. No more than the
 * announced length is sent; a file that has become shorter ends the connection short of it, so that
 * the client sees the loss.
 */
int Files_Handler::send_content(HTTP_IO& io) const
{
    constexpr bool LAST = true;
    const File_Form& form = file_.form();
    if (form.content() != nullptr) {
        return io.send(form.content() + answer_.offset_, static_cast<size_t>(answer_.length_),
                       LAST);
    }
    return send_open_file(io, form.fd(), answer_.offset_, answer_.length_, LAST);
}
