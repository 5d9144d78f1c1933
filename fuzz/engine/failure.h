#pragma once

#include <string>
#include <string_view>

/// Says what is wrong, and where bytes show it these, and ends the process: libFuzzer keeps the
/// input then.
[[noreturn]] void fail(const std::string& what, std::string_view bytes = {});
