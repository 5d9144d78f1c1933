#pragma once

struct Ceiling_Options;

/**
 * Opens the listening socket, says "ready" and lets SIGTERM end the program with status 0.
 *
 * @param blocking  false: its accept4 and every socket that it accepts are meant not to block
 * @return the descriptor; it ends the program where it fails.
 *
 * TCP_NODELAY is set here: Linux hands it on to what is accepted, at no cost per connection.
 */
int open_listener(const Ceiling_Options& options, bool blocking);
