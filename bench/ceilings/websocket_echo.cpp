#include "bench/ceilings/websocket_echo.h"

#include <cstring>
#include <openssl/evp.h>

namespace {

constexpr size_t KEY_SIZE = 4;
constexpr unsigned char LENGTH = 0x7f;

} // namespace

void unmask(char* data, size_t size, const unsigned char (&key)[4], std::uint64_t phase)
{
    unsigned char pattern[8];
    for (size_t i = 0; i < sizeof pattern; ++i) {
        pattern[i] = key[(phase + i) % KEY_SIZE];
    }
    std::uint64_t word_key = 0;
    std::memcpy(&word_key, pattern, sizeof word_key);
    size_t done = 0;
    // Plain enough for the compiler to make wide instructions of it.
    for (; done + sizeof word_key <= size; done += sizeof word_key) {
        std::uint64_t word = 0;
        std::memcpy(&word, data + done, sizeof word);
        word ^= word_key;
        std::memcpy(data + done, &word, sizeof word);
    }
    for (; done < size; ++done) {
        data[done] = static_cast<char>(data[done] ^ pattern[done % sizeof pattern]);
    }
}

std::string upgrade_answer(const std::string& request)
{
    constexpr const char* NAME = "\r\nSec-WebSocket-Key:";
    const char* key = strcasestr(request.c_str(), NAME);
    if (key == nullptr) {
        return {};
    }
    key += std::strlen(NAME);
    key += std::strspn(key, " \t");
    const std::string text =
        std::string(key, std::strcspn(key, " \t\r")) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digest_size = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &digest_size, EVP_sha1(), nullptr) != 1) {
        return {};
    }
    unsigned char accept[2 * EVP_MAX_MD_SIZE];
    EVP_EncodeBlock(accept, digest, static_cast<int>(digest_size));
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Accept: " +
           std::string(reinterpret_cast<const char*>(accept)) + "\r\n\r\n";
}

bool Client_Frame::read(const char* data, size_t size)
{
    if (size < 2) {
        return false;
    }
    payload_size_ = static_cast<unsigned char>(data[1]) & LENGTH;
    const size_t more = payload_size_ == 127 ? 8 : payload_size_ == 126 ? 2 : 0;
    header_size_ = 2 + more + KEY_SIZE;
    if (size < header_size_) {
        return false;
    }
    if (more != 0) {
        payload_size_ = 0;
        for (size_t i = 0; i < more; ++i) {
            payload_size_ = payload_size_ << 8U | static_cast<unsigned char>(data[2 + i]);
        }
    }
    std::memcpy(key_, data + header_size_ - KEY_SIZE, KEY_SIZE);
    return true;
}

char* Client_Frame::place_server_header(char* frame) const
{
    frame[1] = static_cast<char>(frame[1] & LENGTH);
    std::memmove(frame + KEY_SIZE, frame, header_size_ - KEY_SIZE);
    return frame + KEY_SIZE;
}
