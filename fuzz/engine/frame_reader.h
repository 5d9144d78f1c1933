#pragma once

#include "fuzz/engine/conversation.h"

#include <string>
#include <string_view>

/// The part of read_answers() behind a 101: frames of a server.
std::string read_frames(const Conversation& conversation, std::string_view bytes);
