#pragma once

#include <cstddef>
#include <string>

/// The head of an answer as the host sends it, with a Date of when the program began.
std::string answer_head(size_t content_length, bool keep_alive);

/// The whole constant answer: the head and 13 bytes.
std::string constant_answer(bool keep_alive);
