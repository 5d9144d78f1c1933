#include "support/json_base_conf.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

/// Writes the records down as "uri dll init params".
class Conf : public JSON_Base_Conf {
public:
    Conf() : JSON_Base_Conf(URI_Base_Conf_Traits::key, URI_Base_Conf_Traits::KEY_LEN) {}

    int handle_record() override
    {
        records_.push_back(uri() + " " + dll() + " " + init() + " " + params());
        return uri() == "/refused" ? 0 : 1;
    }

    std::vector<std::string> records_;
};

using Strings = std::vector<std::string>;

/// Loads `text` in pieces of `step` bytes as the file "f.json"; 0 or -1.
int load(Conf& conf, std::string_view text, size_t step)
{
    if (conf.begin("f.json") == -1) {
        return -1;
    }
    for (size_t i = 0; i < text.size(); i += step) {
        if (conf.feed(text.substr(i, step)) == -1) {
            return -1;
        }
    }
    return conf.finish();
}

/// A file, the records it gives and the error lines.
struct Row {
    const char* text;
    Strings records;
    Strings errors;
};

std::string record_error(const std::string& record, const std::string& problem)
{
    return "Failed to load record " + record + " of configuration file f.json: " + problem + "\n";
}

void check_rows(const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        const size_t length = std::strlen(row.text);
        for (size_t step = 1; step <= length; step = step < 8 ? step + 1 : step * 2 + 1) {
            SCOPED_TRACE(testing::Message() << row.text << ", pieces of " << step);
            const Log_Capture log;
            Conf conf;
            EXPECT_EQ(load(conf, row.text, step), 0) << conf.error();
            EXPECT_EQ(conf.records_, row.records);
            EXPECT_EQ(log.texts(LM_ERROR), row.errors);
            EXPECT_EQ(log.lines().size(), row.errors.size());
        }
    }
}

TEST(URI_Base_Conf_Traits, key_names_the_three_members_inside_a_record)
{
    EXPECT_EQ(+URI_Base_Conf_Traits::KEY_LEN, 3U);
    EXPECT_EQ(std::string(URI_Base_Conf_Traits::key, 16), std::string("dll\0init\0params\0", 16));
}

TEST(JSON_Base_Conf, takes_every_layout)
{
    const Strings two = {"/a d1 i1 p1", "/b d2 i2 "};
    check_rows({
        {R"([{"uri": "/a", "dll": "d1", "init": "i1", "params": "p1"},
             {"init": "i2", "dll": "d2", "uri": "/b"}])",
         two,
         {}},
        {R"({"uri": "/a", "dll": "d1", "init": "i1", "params": "p1"})", {two[0]}, {}},
        {R"({"/a": {"dll": "d1", "init": "i1", "params": "p1"}, "/b": {"dll": "d2", "init": "i2"}})",
         two,
         {}},
        {R"({"/a": {"dll": "d1", "init": "i1", "params": "p1"}})", {two[0]}, {}},
        {R"({"first": {"uri": "/a", "dll": "d1", "init": "i1", "params": "p1"},
             "second": {"dll": "d2", "init": "i2", "uri": "/b"}})",
         two,
         {}},
        {R"({"handlers": [{"uri": "/a", "dll": "d1", "init": "i1", "params": "p1"},
                          {"uri": "/b", "dll": "d2", "init": "i2"}]})",
         two,
         {}},
        {R"({"handlers": {"/a": {"dll": "d1", "init": "i1", "params": "p1"},
                          "/b": {"dll": "d2", "init": "i2"}}})",
         two,
         {}},
        {R"({"handlers": {"x": {"uri": "/a", "dll": "d1", "init": "i1", "params": "p1"}}})",
         {two[0]},
         {}},
        {R"({"handler": {"uri": "/a", "dll": "d1", "init": "i1", "params": "p1"}})", {two[0]}, {}},
    });
}

TEST(JSON_Base_Conf, takes_files_without_records)
{
    check_rows({{"[]", {}, {}}, {"{}", {}, {}}, {R"({"handlers": []})", {}, {}}});
}

TEST(JSON_Base_Conf, takes_comments)
{
    check_rows({{"// plug-ins\n[ /* one */ {\"uri\": \"/a\", // its place\n"
                 "\"dll\": \"d\", \"init\": \"i\" } ] // end",
                 {"/a d i "},
                 {}}});
}

TEST(JSON_Base_Conf, has_empty_params_when_they_are_absent)
{
    check_rows({{R"([{"uri": "/a", "dll": "d", "init": "i", "params": "p"},
                     {"uri": "/b", "dll": "d", "init": "i"}])",
                 {"/a d i p", "/b d i "},
                 {}}});
}

TEST(JSON_Base_Conf, hands_on_empty_strings_as_they_are)
{
    check_rows({{R"([{"uri": "", "dll": "", "init": "", "params": ""}])", {"   "}, {}},
                {R"({"": {"dll": "d", "init": "i"}})", {" d i "}, {}}});
}

TEST(JSON_Base_Conf, takes_the_own_uri_rather_than_the_member_name)
{
    check_rows({{R"({"/name": {"uri": "/own", "dll": "d", "init": "i"},
                     "/other": {"dll": "d", "init": "i", "uri": "/own2"}})",
                 {"/own d i ", "/own2 d i "},
                 {}}});
}

TEST(JSON_Base_Conf, decodes_escapes_in_names_and_values)
{
    check_rows({{R"([{"\u0075ri": "/\u00e9", "dll": "a\/b", "init": "i", "params": "\"x\" \\"}])",
                 {"/\xC3\xA9 a/b i \"x\" \\"},
                 {}}});
}

TEST(JSON_Base_Conf, goes_on_after_a_record_that_was_not_loaded)
{
    const Log_Capture log;
    Conf conf;
    EXPECT_EQ(load(conf,
                   R"({"/refused": {"dll": "d", "init": "i"}, "/b": {"dll": "d", "init": "i"}})",
                   5),
              0);
    EXPECT_EQ(conf.records_, (Strings{"/refused d i ", "/b d i "}));
    EXPECT_EQ(conf.loaded(), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST(JSON_Base_Conf, logs_a_missing_member_and_loads_the_others)
{
    check_rows({
        {R"([{"uri": "/a", "dll": "d", "init": "i"}, {"uri": "/b", "init": "i"},
             {"dll": "d", "init": "i"}, {"uri": "/d", "dll": "d"}, {}, {"params": "p"},
             {"uri": "/e", "dll": "d", "init": "i"}])",
         {"/a d i ", "/e d i "},
         {record_error("2 (uri='/b')", "missing member 'dll'"),
          record_error("3", "missing member 'uri'"),
          record_error("4 (uri='/d')", "missing member 'init'"),
          record_error("5", "missing member 'uri', missing member 'dll', missing member 'init'"),
          record_error("6", "missing member 'uri', missing member 'dll', missing member 'init'")}},
        {R"({"/a": {}, "/b": {"dll": "d", "init": "i"}})",
         {"/b d i "},
         {record_error("1 (uri='/a')", "missing member 'dll', missing member 'init'")}},
        {R"({"handlers": {}})",
         {},
         {record_error("1 (uri='handlers')", "missing member 'dll', missing member 'init'")}},
    });
}

TEST(JSON_Base_Conf, logs_a_member_of_another_type_and_loads_the_others)
{
    check_rows({
        {R"([{"uri": 5, "dll": "d", "init": "i"}, {"uri": "/b", "dll": true, "init": null},
             {"uri": "/c", "dll": "d", "init": {"uri": "/x", "dll": "x", "init": "x"}},
             {"uri": "/d", "dll": "d", "init": "i", "params": ["a", {"b": []}]},
             {"uri": "/e", "dll": "d", "init": "i", "params": 1e999},
             {"uri": "/f", "dll": "d", "init": "i"}])",
         {"/f d i "},
         {record_error("1", "no string in member 'uri'"),
          record_error("2 (uri='/b')", "no string in member 'dll', no string in member 'init'"),
          record_error("3 (uri='/c')", "no string in member 'init'"),
          record_error("4 (uri='/d')", "no string in member 'params'"),
          record_error("5 (uri='/e')", "no string in member 'params'")}},
        {R"({"dll": {"x": "y"}, "uri": "/a", "init": "i"})",
         {},
         {record_error("1 (uri='/a')", "no string in member 'dll'")}},
        {R"({"uri": [], "dll": "d", "init": "i"})",
         {},
         {record_error("1", "no string in member 'uri'")}},
        {R"({"/a": {"dll": {}, "init": "i"}, "/b": {"dll": "d", "init": "i"}})",
         {"/b d i "},
         {record_error("1 (uri='/a')", "no string in member 'dll'")}},
    });
}

TEST(JSON_Base_Conf, logs_an_unknown_member_and_loads_the_others)
{
    check_rows({
        {R"([{"uri": "/a", "dll": "d", "init": "i", "parms": "p"},
             {"x": [[{"dll": "x"}]], "uri": "/b", "dll": "d", "init": "i", "DLL": "d"},
             {"uri": "/c", "dll": "d", "init": "i"}])",
         {"/c d i "},
         {record_error("1 (uri='/a')", "unknown member 'parms'"),
          record_error("2 (uri='/b')", "unknown member 'x', unknown member 'DLL'")}},
        {R"({"/a": {"options": {"dll": "x"}, "dll": "d", "init": "i"},
             "/b": {"dll": "d", "init": "i"}})",
         {"/b d i "},
         {record_error("1 (uri='/a')", "unknown member 'options'")}},
        {R"({"/a": {"options": ["x"], "dll": "d", "init": "i"}, "/b": {"dll": "d", "init": "i"}})",
         {"/b d i "},
         {record_error("1 (uri='/a')", "unknown member 'options'")}},
        {R"({"version": "1", "handlers": [{"uri": "/a", "dll": "d", "init": "i"}]})",
         {},
         {record_error("1", "unknown member 'version', unknown member 'handlers', "
                            "missing member 'uri', missing member 'dll', missing member 'init'")}},
    });
}

TEST(JSON_Base_Conf, logs_a_repeated_member_and_loads_the_others)
{
    check_rows({
        {R"([{"uri": "/a", "dll": "d", "init": "i", "dll": "e"},
             {"uri": "/b", "uri": "/b", "dll": "d", "init": "i"},
             {"uri": "/c", "dll": "d", "init": "i", "init": 5},
             {"uri": "/d", "dll": "d", "init": "i"}])",
         {"/d d i "},
         {record_error("1 (uri='/a')", "repeated member 'dll'"),
          record_error("2 (uri='/b')", "repeated member 'uri'"),
          record_error("3 (uri='/c')", "repeated member 'init'")}},
    });
}

TEST(JSON_Base_Conf, hands_on_records_of_one_name_one_after_the_other)
{
    check_rows({{R"({"/a": {"dll": "d1", "init": "i"}, "/a": {"dll": "d2", "init": "i"}})",
                 {"/a d1 i ", "/a d2 i "},
                 {}}});
}

TEST(JSON_Base_Conf, logs_a_nul_within_a_value)
{
    check_rows({
        {R"([{"uri": "/a\u0000b", "dll": "d", "init": "i"},
             {"uri": "/b", "dll": "d\u0000", "init": "i"}])",
         {},
         {record_error("1", "NUL in member 'uri'"),
          record_error("2 (uri='/b')", "NUL in member 'dll'")}},
        {R"({"/a\u0000": {"dll": "d", "init": "i"}})",
         {},
         {record_error("1", "NUL in member 'uri'")}},
    });
}

TEST(JSON_Base_Conf, logs_what_stands_in_a_records_place)
{
    check_rows({
        {R"(["a", 1, null, [{"uri": "/x", "dll": "d", "init": "i"}],
             {"uri": "/a", "dll": "d", "init": "i"}])",
         {"/a d i "},
         {record_error("1", "not an object"), record_error("2", "not an object"),
          record_error("3", "not an object"), record_error("4", "not an object")}},
        {R"({"/a": {"dll": "d", "init": "i"}, "/b": "d", "/c": [{"uri": "/x"}], "/d": false,
             "/e": {"dll": "d", "init": "i"}})",
         {"/a d i ", "/e d i "},
         {record_error("2 (uri='/b')", "not an object"),
          record_error("3 (uri='/c')", "not an object"),
          record_error("4 (uri='/d')", "not an object")}},
        {R"({"/a": {"dll": "d", "init": "i"}, "more": {"/b": {"dll": "d", "init": "i"}}})",
         {"/a d i "},
         {record_error("2 (uri='more')", "unknown member '/b', missing member 'dll', "
                                         "missing member 'init'")}},
    });
}

TEST(JSON_Base_Conf, takes_one_outer_member_only)
{
    const std::string ignored = "Ignored member 'more' of configuration file f.json: only one may "
                                "hold records\n";
    check_rows({
        {R"({"handlers": [{"uri": "/a", "dll": "d", "init": "i"}],
             "more": [{"uri": "/b", "dll": "d", "init": "i"}]})",
         {"/a d i "},
         {ignored}},
        {R"({"handlers": {"/a": {"dll": "d", "init": "i"}},
             "more": {"/b": {"dll": "d", "init": "i"}}})",
         {"/a d i "},
         {ignored}},
        {R"({"handlers": [], "more": "x"})", {}, {ignored}},
        {R"({"outer": {"handlers": [{"uri": "/a", "dll": "d", "init": "i"}]}})",
         {},
         {record_error("1 (uri='outer')", "unknown member 'handlers', missing member 'dll', "
                                          "missing member 'init'")}},
        {R"({"outer": {"handlers": {"x": {"uri": "/a", "dll": "d", "init": "i"}}}})",
         {},
         {record_error("1 (uri='handlers')", "unknown member 'x', missing member 'dll', "
                                             "missing member 'init'")}},
    });
}

TEST(JSON_Base_Conf, logs_a_file_that_is_neither_an_object_nor_an_array)
{
    for (const char* text : {"\"text\"", "5", "null", "true"}) {
        check_rows(
            {{text, {}, {"Configuration file f.json holds neither an object nor an array\n"}}});
    }
}

TEST(JSON_Base_Conf, keeps_the_records_before_a_syntax_error)
{
    const std::string_view text = R"([{"uri": "/a", "dll": "d", "init": "i"},
        {"uri": "/b", "dll": "d", "init": "i"}, {"uri": "/c", "dll": "d", "init": "i" "x"}])";
    for (size_t step = 1; step <= text.size(); ++step) {
        Conf conf;
        EXPECT_EQ(load(conf, text, step), -1);
        EXPECT_EQ(conf.records_, (Strings{"/a d i ", "/b d i "}));
    }
}

TEST(JSON_Base_Conf, starts_afresh_with_each_file)
{
    const Log_Capture log;
    Conf conf;
    EXPECT_EQ(load(conf, R"({"outer": [{"uri": "/a", "dll": {"x": [)", 7), -1);
    EXPECT_EQ(load(conf, R"([{"uri": "/b", "dll": "d", "init": "i"}, 5])", 7), 0);
    EXPECT_EQ(conf.records_, Strings{"/b d i "});
    EXPECT_EQ(conf.loaded(), 1U);
    EXPECT_EQ(log.texts(LM_ERROR), Strings{record_error("2", "not an object")});
}

TEST(JSON_Base_Conf, writes_no_control_character_into_the_log)
{
    check_rows({{"[{\"uri\": \"/a\\n\\u001b\", \"dll\": \"d\", \"init\": \"i\", \"x\\ny\": 5}]",
                 {},
                 {record_error("1 (uri='/a\?\?')", "unknown member 'x?y'")}}});
}

TEST(JSON_Base_Conf, keeps_its_log_line_short_whatever_the_file_holds)
{
    std::string text = "[{\"uri\": \"/a\"";
    for (int i = 0; i < 1000; ++i) {
        text += ", \"" + std::string(1000, 'x') + "\": 1";
    }
    const Log_Capture log;
    Conf conf;
    EXPECT_EQ(load(conf, text + "}]", 4096), 0);
    ASSERT_EQ(log.texts(LM_ERROR).size(), 1U);
    EXPECT_LT(log.texts(LM_ERROR)[0].size(), 1500U);
}

TEST(JSON_Base_Conf, takes_long_values)
{
    const std::string params(100000, 'p');
    Conf conf;
    EXPECT_EQ(load(conf, R"([{"uri": "/a", "dll": "d", "init": "i", "params": ")" + params + "\"}]",
                   4096),
              0);
    EXPECT_EQ(conf.records_, Strings{"/a d i " + params});
}

TEST(JSON_Base_Conf, knows_as_many_members_as_it_was_given_keys)
{
    class Two_Keys : public JSON_Base_Conf {
    public:
        Two_Keys() : JSON_Base_Conf("lib\0make", 2) {}
        int handle_record() override
        {
            record_ = uri() + " " + dll() + " " + init() + " " + params();
            return 1;
        }
        std::string record_;
    };
    Two_Keys conf;
    ASSERT_EQ(conf.begin("f.json"), 0);
    ASSERT_EQ(conf.feed(R"([{"uri": "/a", "lib": "d", "make": "i"}])"), 0);
    ASSERT_EQ(conf.finish(), 0);
    EXPECT_EQ(conf.record_, "/a d i ");
}

} // namespace
