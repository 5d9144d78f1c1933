#include "support/json_base_conf.h"

#include "support/log.h"

#include <algorithm>

namespace {

/// What a file wrote, fit for a log line.
std::string printable(std::string_view text)
{
    std::string result(text);
    std::replace_if(
        result.begin(), result.end(), [](char c) { return (c >= '\0' && c < ' ') || c == '\x7F'; },
        '?');
    return result;
}

} // namespace

const char URI_Base_Conf_Traits::key[] = "dll\0init\0params";

JSON_Base_Conf::JSON_Base_Conf(const char* key, unsigned int count)
{
    members_[URI_MEMBER].name_ = "uri";
    for (size_t i = DLL_MEMBER; i < MEMBERS && i <= count; ++i) {
        members_[i].name_ = key;
        key += members_[i].name_.size() + 1;
    }
}

JSON_Base_Conf::~JSON_Base_Conf() = default;

int JSON_Base_Conf::handle_begin_i()
{
    depth_ = 0;
    skipped_ = 0;
    record_ = 0;
    loaded_ = 0;
    return 1;
}

int JSON_Base_Conf::handle_null_i()
{
    return scalar(Value::OTHER_SCALAR, {});
}

int JSON_Base_Conf::handle_boolean_i(bool)
{
    return scalar(Value::OTHER_SCALAR, {});
}

int JSON_Base_Conf::handle_integer_i(long long)
{
    return scalar(Value::OTHER_SCALAR, {});
}

int JSON_Base_Conf::handle_double_i(double)
{
    return scalar(Value::OTHER_SCALAR, {});
}

int JSON_Base_Conf::handle_number_i(const char*, size_t)
{
    return scalar(Value::OTHER_SCALAR, {}); // whatever its size: it is no string
}

int JSON_Base_Conf::handle_string_i(const char* text, size_t length)
{
    return scalar(Value::STRING, std::string_view(text, length));
}

int JSON_Base_Conf::handle_map_key_i(const char* text, size_t length)
{
    if (skipped_ == 0) {
        key_.assign(text, length);
    }
    return 1;
}

int JSON_Base_Conf::handle_start_map_i()
{
    return start(Value::OBJECT);
}

int JSON_Base_Conf::handle_start_array_i()
{
    return start(Value::ARRAY);
}

int JSON_Base_Conf::handle_end_map_i()
{
    return end();
}

int JSON_Base_Conf::handle_end_array_i()
{
    return end();
}

void JSON_Base_Conf::push(Kind kind)
{
    kinds_[depth_] = kind;
    ++depth_;
}

JSON_Base_Conf::Member* JSON_Base_Conf::find_member(std::string_view name)
{
    const auto found = std::find_if(members_.begin(), members_.end(), [name](const Member& member) {
        return !member.name_.empty() && member.name_ == name;
    });
    return found == members_.end() ? nullptr : &*found;
}

int JSON_Base_Conf::scalar(Value type, std::string_view text)
{
    if (skipped_ != 0) {
        return 1;
    }
    if (depth_ == 0) {
        HTTPD_ERROR("Configuration file %s holds neither an object nor an array", source().c_str());
        return 1;
    }
    settle(type);
    if (top() == Kind::RECORD) {
        value_in_record(type, text);
    } else {
        refuse_value();
    }
    return 1;
}

int JSON_Base_Conf::start(Value type)
{
    if (skipped_ != 0) {
        ++skipped_;
    } else if (depth_ == 0) {
        push(type == Value::OBJECT ? Kind::UNDECIDED_FILE : Kind::LIST);
    } else if (top() == Kind::UNDECIDED_FILE && find_member(key_) == nullptr) {
        start_first_member(type);
    } else {
        settle(type);
        start_in_container(type);
    }
    return 1;
}

/// The outermost object holds a container under its first name: it is no record.
void JSON_Base_Conf::start_first_member(Value type)
{
    if (type == Value::ARRAY) {
        top() = Kind::OUTER;
        push(Kind::LIST);
        return;
    }
    top() = Kind::TABLE;
    if (key_.starts_with('/')) {
        push(Kind::RECORD);
        start_record(&key_);
    } else {
        push(Kind::UNDECIDED_MEMBER);
        first_key_ = key_;
    }
}

/// The first value in an undecided object tells what the object is.
void JSON_Base_Conf::settle(Value type)
{
    if (top() == Kind::UNDECIDED_FILE) {
        top() = Kind::RECORD;
        start_record(nullptr);
    } else if (top() == Kind::UNDECIDED_MEMBER) {
        if (type == Value::OBJECT && find_member(key_) == nullptr) {
            kinds_[0] = Kind::OUTER;
            top() = Kind::TABLE;
        } else {
            top() = Kind::RECORD;
            start_record(&first_key_);
        }
    }
}

void JSON_Base_Conf::start_in_container(Value type)
{
    if (top() == Kind::RECORD) {
        value_in_record(type, {});
        skipped_ = 1;
    } else if (type == Value::OBJECT && top() != Kind::OUTER) {
        const bool named = top() == Kind::TABLE;
        push(Kind::RECORD);
        start_record(named ? &key_ : nullptr);
    } else {
        refuse_value();
        skipped_ = 1;
    }
}

int JSON_Base_Conf::end()
{
    if (skipped_ != 0) {
        --skipped_;
        return 1;
    }
    if (top() == Kind::UNDECIDED_MEMBER) { // an empty object: a record that lacks everything
        start_record(&first_key_);
        top() = Kind::RECORD;
    }
    const bool is_record = top() == Kind::RECORD;
    --depth_;
    if (is_record) {
        finish_record();
    }
    return 1;
}

/// Where a record should be there is none; or the outer object has a second member.
void JSON_Base_Conf::refuse_value()
{
    if (top() == Kind::OUTER) {
        HTTPD_ERROR("Ignored member '%s' of configuration file %s: only one may hold records",
                    printable(key_).c_str(), source().c_str());
        return;
    }
    start_record(top() == Kind::TABLE ? &key_ : nullptr);
    problems_ = "not an object";
    log_problems();
}

void JSON_Base_Conf::start_record(const std::string* name)
{
    ++record_;
    problems_.clear();
    for (Member& member : members_) {
        member.value_.clear();
        member.seen_ = false;
    }
    named_ = name != nullptr;
    if (named_) {
        store(members_[URI_MEMBER], *name);
    }
}

void JSON_Base_Conf::store(Member& member, std::string_view text)
{
    if (text.find('\0') == std::string_view::npos) {
        member.value_ = text;
    } else {
        add_problem("NUL in member",
                    member.name_); // would be cut wherever it is used as a C string
    }
}

void JSON_Base_Conf::value_in_record(Value type, std::string_view text)
{
    Member* const member = find_member(key_);
    if (member == nullptr) {
        add_problem("unknown member", key_);
    } else if (member->seen_) {
        add_problem("repeated member", key_);
    } else if (type != Value::STRING) {
        member->seen_ = true;
        add_problem("no string in member", key_);
    } else {
        member->seen_ = true;
        store(*member, text);
    }
}

void JSON_Base_Conf::finish_record()
{
    for (const Member& member : members_) {
        const bool optional =
            &member == &members_[PARAMS_MEMBER] || (&member == &members_[URI_MEMBER] && named_);
        if (!member.seen_ && !optional && !member.name_.empty()) {
            add_problem("missing member", member.name_);
        }
    }
    if (!problems_.empty()) {
        log_problems();
    } else if (handle_record() == 1) {
        ++loaded_;
    }
}

void JSON_Base_Conf::add_problem(std::string_view what, std::string_view name)
{
    constexpr size_t LONGEST = 1024; // of a log line's list; a broken file may have thousands
    constexpr size_t LONGEST_NAME = 64;
    if (problems_.size() > LONGEST) {
        return;
    }
    problems_ += problems_.empty() ? "" : ", ";
    problems_ += what;
    problems_ += " '" + printable(name.substr(0, LONGEST_NAME)) + "'";
}

void JSON_Base_Conf::log_problems()
{
    if (uri().empty()) {
        HTTPD_ERROR("Failed to load record %u of configuration file %s: %s", record_,
                    source().c_str(), problems_.c_str());
    } else {
        HTTPD_ERROR("Failed to load record %u (uri='%s') of configuration file %s: %s", record_,
                    printable(uri()).c_str(), source().c_str(), problems_.c_str());
    }
}
