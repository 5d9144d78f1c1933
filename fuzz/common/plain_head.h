#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/**
 * A request head as a plain reading of the rules has it: all at once, line by line, with strings.
 * What the server's parser, which reads in pieces and sixteen characters at a time, must agree
 * with.
 */
struct Plain_Head {
    enum Verdict { UNFINISHED, MALFORMED, COMPLETE };
    using Fields = std::vector<std::pair<std::string, std::string>>;

    Verdict verdict_ = UNFINISHED;
    size_t size_ = 0; ///< of a complete one: bytes up to and with its empty line
    std::string method_;
    std::string target_;
    std::string path_;
    bool has_query_ = false;
    std::string query_;
    std::string authority_;
    int minor_version_ = 0;
    Fields fields_;
};

Plain_Head plain_head(std::string_view text);
