#pragma once

#include <openssl/ssl.h>

class ACE_SSL_SOCK_Stream;

/**
 * Makes the stream's SSL object fit for an event loop; called again it does nothing.
 *
 * Its bytes then pass a BIO that neither blocks nor raises SIGPIPE, whatever the descriptor's mode.
 * Renegotiation is off, a FIN without close_notify is an ordinary end (RFC 9112, section 9.8 leaves
 * the message framing to tell), idle connections hold no record buffers.
 *
 * @return the SSL object; null with errno when there is none or no memory.
 */
SSL* tls_ready(const ACE_SSL_SOCK_Stream& stream);

/// Empties this thread's error queue, where anything may have left an entry that the outcome of the
/// next SSL call would be taken for. Cheap when it is empty.
void tls_clear_errors();

/// What an SSL call that did not succeed waits for: POLLIN or POLLOUT; 0 for an ordinary end of the
/// stream; -1 with errno for a failure (EPROTO, or what the system says). Empties the error queue.
int tls_outcome(SSL* ssl, int result);

/// Sends close_notify once, without waiting for room or for an answer.
void tls_say_goodbye(ACE_SSL_SOCK_Stream& stream);

/// Makes the stream's handle invalid without closing the descriptor, which is returned.
int tls_detach(ACE_SSL_SOCK_Stream& stream);
