#pragma once

#include "fuzz/engine/conversation.h"

#include <string>

/**
 * Reads what a server sent on a connection, strictly, and knows nothing of the server's own code:
 * whole HTTP/1.x answers in order (RFC 9112), not more than there were requests, nothing behind one
 * that closes the connection; behind a 101 well-formed unmasked frames (RFC 6455). What is not so
 * ends the process by fail().
 *
 * @return the answers in a form that does not depend on the time, nor on how a body or a message
 *         was cut: two runs that are to give the same give the same text. What the end of the
 *         connection has cut off is left out.
 */
std::string read_answers(const Conversation& conversation);
