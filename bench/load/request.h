#pragma once

#include <string>

struct Load_Options;

/// The bytes of one request of the mode that the options name: head and body.
std::string make_request(const Load_Options& options);
