#pragma once

#include "support/export.h"
#include "support/yajl_handler.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

/// The names that stand inside every record of a plug-in file; `uri` is the record's own name.
struct HTTPD_SUPPORT_EXPORT URI_Base_Conf_Traits {
    static const char key[]; ///< NUL-separated: dll, init, params
    enum : unsigned int { KEY_LEN = 3 };
};

/**
 * Picks the records out of a plug-in file and hands them to handle_record(), one after the other.
 *
 * A record is an object with the string members `uri`, `dll`, `init` and, optionally, `params`. A
 * file holds
 * - an array of records,
 * - or one record alone,
 * - or an object whose members are records, named by their member unless they have an own `uri`,
 * - or one of these inside the only member of an outer object, such as {"handlers": [ ... ]}; a
 *   name that begins with a slash is that of a record and never of an outer member.
 *
 * A record with an unknown, repeated or missing member or one that is no string is logged with the
 * file and its number and uri, and not handed on; the others are. Records are counted from 1.
 */
class HTTPD_SUPPORT_EXPORT JSON_Base_Conf : public YAJL_Handler {
public:
    /**
     * @param key    `count` names, each closed by a NUL: those of dll, init and params, in this
     *               order. Must outlive the object.
     * @param count  at most 3.
     */
    JSON_Base_Conf(const char* key, unsigned int count);
    ~JSON_Base_Conf() override;

    /**
     * Called for each complete record; uri() and the others hold its values until it returns.
     * @return 1 when the record was loaded, else 0. The file goes on either way.
     */
    virtual int handle_record() = 0;

    /// How many records handle_record() has taken with 1 since the file began.
    unsigned int loaded() const { return loaded_; }

    int handle_begin_i() override;
    int handle_null_i() override;
    int handle_boolean_i(bool value) override;
    int handle_integer_i(long long value) override;
    int handle_double_i(double value) override;
    int handle_number_i(const char* text, size_t length) override;
    int handle_string_i(const char* text, size_t length) override;
    int handle_map_key_i(const char* text, size_t length) override;
    int handle_start_map_i() override;
    int handle_end_map_i() override;
    int handle_start_array_i() override;
    int handle_end_array_i() override;

protected:
    const std::string& uri() const { return members_[URI_MEMBER].value_; }
    const std::string& dll() const { return members_[DLL_MEMBER].value_; }
    const std::string& init() const { return members_[INIT_MEMBER].value_; }
    const std::string& params() const { return members_[PARAMS_MEMBER].value_; }

private:
    enum : size_t { URI_MEMBER, DLL_MEMBER, INIT_MEMBER, PARAMS_MEMBER, MEMBERS };

    struct Member {
        std::string_view name_;
        std::string value_;
        bool seen_ = false;
    };

    /// What an open container is taken for.
    enum class Kind {
        UNDECIDED_FILE,   ///< the outermost object, before its first value
        UNDECIDED_MEMBER, ///< its first member's object, likewise: a record or an object of records
        OUTER,            ///< its one member holds the records
        TABLE,            ///< its members are records
        LIST,             ///< its elements are records
        RECORD,
    };

    enum class Value { STRING, OTHER_SCALAR, OBJECT, ARRAY };

    int scalar(Value type, std::string_view text);
    int start(Value type);
    int end();

    void push(Kind kind);
    Kind& top() { return kinds_[depth_ - 1]; }
    Member* find_member(std::string_view name);

    void start_first_member(Value type);
    void settle(Value type);
    void start_in_container(Value type);
    void value_in_record(Value type, std::string_view text);
    void refuse_value();

    void start_record(const std::string* name);
    void store(Member& member, std::string_view text);
    void finish_record();
    void add_problem(std::string_view what, std::string_view name);
    void log_problems();

    enum : size_t { MAX_KINDS = 3 }; ///< outer object, container, record
    std::array<Kind, MAX_KINDS> kinds_{};
    size_t depth_ = 0;
    unsigned int skipped_ = 0; ///< open containers inside a value that is passed over
    std::string key_;          ///< the last member name of the open object
    std::string first_key_;    ///< of the outermost object, while its first member is undecided
    std::array<Member, MEMBERS> members_;
    bool named_ = false;   ///< the open record has the uri of its member's name
    std::string problems_; ///< of the open record
    unsigned int record_ = 0;
    unsigned int loaded_ = 0;
};
