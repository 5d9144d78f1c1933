#include "tests/support/fake_http_io.h"

#include <strings.h>

#include <algorithm>

namespace {

constexpr int REFERENCES = 1;

bool same_name(std::string_view left, std::string_view right)
{
    return left.size() == right.size() &&
           ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

} // namespace

void Fake_HTTP_IO::begin(std::string_view method, std::string_view target, Fields fields,
                         int minor_version)
{
    request_.reset();
    response_.reset();
    request_.request_line(method, target);
    request_.minor_version(minor_version);
    for (const auto& [name, value] : fields) {
        request_.headers().add(http_header_id(name), name, value);
    }
    request_state_ = HTTP_SOCK_STATE_HEADER_RECEIVED;
    response_state(HTTP_SOCK_STATE_CONNECTED);
    status_ = 0;
    fields_.clear();
    body_.clear();
    sends_.clear();
    content_length_ = 0;
    content_sent_ = 0;
    wrong_state_calls_ = 0;
}

int Fake_HTTP_IO::run(HTTP_Handler& handler, std::string_view body, size_t step)
{
    handler.concurrency(request_, HTTP_Handler::HEADER);
    if (handler.handle_request(*this) == -1) {
        return -1;
    }
    if (complete()) {
        return response_.keep_alive() ? 0 : -1;
    }
    if (request_.method() == HTTP_METHOD_HEAD) {
        return send(nullptr, 0, true);
    }
    const bool chunked = request_.chunked_transfer_encoding();
    if (!chunked && request_.headers().get(HTTP_HEAD_CONTENT_LENGTH) == nullptr) {
        send_error(411);
        return -1;
    }
    while (!body.empty()) {
        const std::string_view piece = body.substr(0, step);
        body.remove_prefix(piece.size());
        if (handler.handle_body(*this, piece.data(), piece.size()) == -1) {
            return -1;
        }
    }
    if (chunked && handler.handle_body(*this, nullptr, 0) == -1) {
        return -1;
    }
    if (response_state() == HTTP_SOCK_STATE_CONNECTED) {
        send_error(response_.status());
    }
    return request_.keep_alive() ? 0 : -1;
}

std::string Fake_HTTP_IO::field(std::string_view name) const
{
    for (const auto& [field_name, value] : fields_) {
        if (same_name(field_name, name)) {
            return value;
        }
    }
    return {};
}

bool Fake_HTTP_IO::has_field(std::string_view name) const
{
    return std::any_of(fields_.begin(), fields_.end(),
                       [name](const auto& field) { return same_name(field.first, name); });
}

int Fake_HTTP_IO::send_file(const char*)
{
    ++wrong_state_calls_; // no plug-in under test may take this way
    return -1;
}

int Fake_HTTP_IO::send_error(int status, const void* body, size_t length)
{
    response_.status(status, nullptr);
    response_.chunked_transfer_encoding(false);
    response_.content_length(body != nullptr ? length : 0);
    return send(body, length, true);
}

int Fake_HTTP_IO::send(const void* data, size_t length, bool last)
{
    std::string piece;
    if (data != nullptr) {
        piece.assign(static_cast<const char*>(data), length);
    }
    constexpr bool HEAD_DROPS_BODY = true;
    return send_piece(std::move(piece), last, HEAD_DROPS_BODY);
}

int Fake_HTTP_IO::sendv_n(const iovec* iov, int count, bool last)
{
    std::string piece;
    for (int i = 0; iov != nullptr && i < count; ++i) {
        piece.append(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len);
    }
    constexpr bool HEAD_SENDS_BODY = false;
    return send_piece(std::move(piece), last, HEAD_SENDS_BODY);
}

int Fake_HTTP_IO::send_piece(std::string piece, bool last, bool head_drops_body)
{
    const HTTP_SOCK_State state = response_state();
    int result = -1;
    if (static_cast<int>(sends_.size()) == fail_at_) {
        response_state(state == HTTP_SOCK_STATE_CONNECTED ? HTTP_SOCK_STATE_HEADER_SENDING
                                                          : HTTP_SOCK_STATE_CONTENT_SENDING);
    } else if (state == HTTP_SOCK_STATE_CONNECTED) {
        result = send_header(piece, last, head_drops_body);
    } else if (state == HTTP_SOCK_STATE_HEADER_SENT || state == HTTP_SOCK_STATE_CONTENT_SENDING) {
        result = send_rest(piece, last);
    } else {
        ++wrong_state_calls_;
    }
    sends_.push_back({std::move(piece), last, result});
    return result;
}

int Fake_HTTP_IO::send_header(const std::string& piece, bool last, bool head_drops_body)
{
    if (response_.chunked_transfer_encoding()) {
        return send_chunked_header(piece, last);
    }
    const bool head = request_.method() == HTTP_METHOD_HEAD;
    const bool keep =
        request_.keep_alive() && response_.headers().get(HTTP_HEAD_CONTENT_LENGTH) != nullptr;
    response_.keep_alive(keep);
    keep_header();
    if (!head || !head_drops_body) {
        body_ += piece;
        content_sent_ = piece.size();
    }
    const HTTP_SOCK_State begun =
        piece.empty() ? HTTP_SOCK_STATE_HEADER_SENT : HTTP_SOCK_STATE_CONTENT_SENDING;
    if (head) {
        response_state(HTTP_SOCK_STATE_CONTENT_SENT);
        return keep ? 0 : -1;
    }
    if (keep) {
        content_length_ = response_.content_length();
        response_state(content_sent_ < content_length_ ? begun : HTTP_SOCK_STATE_CONTENT_SENT);
        return 0;
    }
    response_state(last ? HTTP_SOCK_STATE_CONTENT_SENT : begun);
    return last ? -1 : 0;
}

int Fake_HTTP_IO::send_chunked_header(const std::string& piece, bool last)
{
    const bool keep = request_.keep_alive();
    response_.keep_alive(keep);
    keep_header();
    body_ += piece;
    content_sent_ = piece.size();
    if (last) {
        response_state(HTTP_SOCK_STATE_CONTENT_SENT);
        return keep ? 0 : -1;
    }
    response_state(piece.empty() ? HTTP_SOCK_STATE_HEADER_SENT : HTTP_SOCK_STATE_CONTENT_SENDING);
    return 0;
}

int Fake_HTTP_IO::send_rest(const std::string& piece, bool last)
{
    response_state(HTTP_SOCK_STATE_CONTENT_SENDING);
    body_ += piece;
    content_sent_ += piece.size();
    if (response_.chunked_transfer_encoding()) {
        if (!last) {
            return 0;
        }
        response_state(HTTP_SOCK_STATE_CONTENT_SENT);
        return response_.keep_alive() ? 0 : -1;
    }
    if (response_.keep_alive()) {
        if (content_sent_ >= content_length_) {
            response_state(HTTP_SOCK_STATE_CONTENT_SENT);
        }
        return 0;
    }
    if (last) {
        response_state(HTTP_SOCK_STATE_CONTENT_SENT);
        return -1;
    }
    return 0;
}

void Fake_HTTP_IO::keep_header()
{
    status_ = response_.status();
    for (const HTTP_Headers::Field& field : response_.headers()) {
        fields_.emplace_back(field.name, field.value);
    }
}

int Fake_HTTP_IO::get_local_addr(ACE_Addr&) const
{
    return -1;
}

int Fake_HTTP_IO::get_remote_addr(ACE_Addr&) const
{
    return -1;
}

int Fake_HTTP_IO::get_original_addr(ACE_Addr&) const
{
    return -1;
}

std::string Fake_HTTP_IO::get_remote_addr(bool) const
{
    return {};
}

std::string Fake_HTTP_IO::get_original_addr() const
{
    return {};
}

int Fake_HTTP_IO::suspend_read(bool)
{
    return 0;
}

int Fake_HTTP_IO::tcp_nodelay(bool) const
{
    return 0;
}

int Fake_HTTP_IO::socket_timeout(int, int) const
{
    return 0;
}

bool Fake_HTTP_IO::is_ssl() const
{
    return false;
}

ACE_Event_Handler::Reference_Count Fake_HTTP_IO::add_reference()
{
    return REFERENCES;
}

ACE_Event_Handler::Reference_Count Fake_HTTP_IO::remove_reference()
{
    return REFERENCES;
}
