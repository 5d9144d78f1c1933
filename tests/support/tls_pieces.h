#pragma once

#include "tests/support/wire_client.h"

#include <openssl/ssl.h>

#include <memory>
#include <string>

/**
 * A TLS client whose records pass through the test's hands: it encrypts into strings, which the
 * test sends whole, in part, or not at all, over a plain connection of its own.
 */
class Tls_Pieces {
public:
    /**
     * Shakes hands over `wire`; null (and a message) when that fails.
     * @param version   TLS1_2_VERSION and so on, 0 for the newest
     * @param at_once   text that leaves with the last message of the handshake, in one piece
     */
    static std::unique_ptr<Tls_Pieces> connect(std::unique_ptr<Wire_Client> wire, int version = 0,
                                               const std::string& at_once = "");
    ~Tls_Pieces();
    Tls_Pieces(const Tls_Pieces&) = delete;
    Tls_Pieces& operator=(const Tls_Pieces&) = delete;

    /// The records that carry `text`, not sent yet.
    std::string encrypt(const std::string& text);

    /// The text of these records.
    std::string decrypt(const std::string& records);

    /// Receives and decrypts until `end` has come, or nothing comes any more.
    std::string read_until(const std::string& end);

    Wire_Client& wire() { return *wire_; }

private:
    Tls_Pieces(std::unique_ptr<Wire_Client> wire, int version);

    bool shake_hands(const std::string& at_once);
    std::string take_output();

    std::unique_ptr<Wire_Client> wire_;
    SSL_CTX* context_;
    SSL* ssl_;
    BIO* input_;  ///< what has come; the SSL object's
    BIO* output_; ///< what is to be sent; the SSL object's
};
