#include "plugins/files/file_answer.h"

#include "plugins/files/byte_range.h"
#include "support/http_date.h"
#include "support/http_message.h"

namespace {

/// If-Match, or else If-Unmodified-Since, lets the request pass.
bool wanted_version(const HTTP_Headers& headers, const File_Version& version)
{
    if (const char* const tags = headers.get(HTTP_HEAD_IF_MATCH)) {
        return entity_tag_in_list(tags, version.tag_.view(), Tag_Comparison::STRONG);
    }
    std::time_t date = 0;
    const char* const since = headers.get(HTTP_HEAD_IF_UNMODIFIED_SINCE);
    return since == nullptr || !http_date_parse(since, date) || version.modified_ <= date;
}

/// The client has this version, by If-None-Match or else If-Modified-Since.
bool known_version(const HTTP_Headers& headers, const File_Version& version)
{
    if (const char* const tags = headers.get(HTTP_HEAD_IF_NONE_MATCH)) {
        return entity_tag_in_list(tags, version.tag_.view(), Tag_Comparison::WEAK);
    }
    std::time_t date = 0;
    const char* const since = headers.get(HTTP_HEAD_IF_MODIFIED_SINCE);
    return since != nullptr && http_date_parse(since, date) && version.modified_ <= date;
}

/// A range may be sent: there is no If-Range, or it names exactly this version.
bool range_applies(const HTTP_Headers& headers, const File_Version& version)
{
    const char* const validator = headers.get(HTTP_HEAD_IF_RANGE);
    if (validator == nullptr) {
        return true;
    }
    const std::string_view text(validator);
    if (text.find('"') != std::string_view::npos) { // a weak tag never equals ours, which is strong
        return text == version.tag_.view();
    }
    std::time_t date = 0;
    return http_date_parse(validator, date) && version.modified_ == date;
}

} // namespace

File_Answer file_answer(const HTTP_Request& request, const File_Version& version)
{
    const HTTP_Headers& headers = request.headers();
    if (!wanted_version(headers, version)) {
        return {412, 0, 0};
    }
    if (known_version(headers, version)) {
        return {304, 0, 0};
    }
    const char* const range = headers.get(HTTP_HEAD_RANGE);
    if (range == nullptr || request.method() != HTTP_METHOD_GET ||
        !range_applies(headers, version)) {
        return {200, 0, version.size_};
    }
    const Byte_Range part = parse_byte_range(range, version.size_);
    switch (part.kind_) {
    case Byte_Range::PART:
        return {206, part.first_, part.length_};
    case Byte_Range::UNSATISFIABLE:
        return {416, 0, 0};
    case Byte_Range::WHOLE:
        break;
    }
    return {200, 0, version.size_};
}
