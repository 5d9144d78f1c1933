#pragma once

#include <string_view>

/**
 * True when a client that sent this Accept-Encoding field is to get a gzip-coded answer where there
 * is one: gzip (or `*`) has a weight above 0 that is not below an explicit one of `identity`
 * (RFC 9110, section 12.5.3). An element with a malformed weight counts as not acceptable.
 */
bool accepts_gzip(std::string_view value);
