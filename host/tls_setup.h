#pragma once

#include <string>

/**
 * Sets up the process-wide TLS context that every TLS listener uses: TLS 1.2 and 1.3, the given
 * certificate and key. To be called once, before the services start.
 *
 * @param certificate  PEM file: the server's certificate, then its intermediates
 * @param private_key  PEM file; an encrypted key is refused, since nobody is there to ask
 * @param error        names the file and the reason when it fails
 */
bool setup_tls(const std::string& certificate, const std::string& private_key, std::string& error);
