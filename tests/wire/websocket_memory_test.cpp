#include "tests/support/probe_server.h"
#include "tests/support/sanitized.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

namespace {

constexpr size_t KIBIBYTE = 1024;
constexpr size_t MEBIBYTE = 1024 * KIBIBYTE;

/// MiB of one message: 64, or what HTTPD_TEST_MESSAGE_MIB says.
size_t message_size()
{
    const char* const wanted = std::getenv("HTTPD_TEST_MESSAGE_MIB");
    const size_t mebibytes = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 0;
    return (mebibytes > 0 ? mebibytes : 64) * MEBIBYTE;
}

/// A number of KiB from /proc/PID/status; 0 when it is not there.
size_t status_of(pid_t pid, const std::string& name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stoul(line.substr(name.size() + 1));
        }
    }
    return 0;
}

/// From here on VmHWM is the largest VmRSS that there will be.
bool reset_peak(pid_t pid)
{
    std::ofstream file("/proc/" + std::to_string(pid) + "/clear_refs");
    return static_cast<bool>(file << "5" << std::flush);
}

/// Sends a message of `size` zeros, masked with zeros, in frames of `frame_size`.
void send_zeros(Wire_Client& wire, size_t size, size_t frame_size)
{
    const std::string zeros(256 * KIBIBYTE, '\0');
    for (size_t at = 0; at < size; at += frame_size) {
        std::string head(14, '\0');
        head[0] =
            static_cast<char>((at == 0 ? WS_BINARY : 0) | (at + frame_size == size ? 0x80U : 0U));
        head[1] = static_cast<char>(0xFF);
        for (int i = 0; i < 8; ++i) {
            head[static_cast<size_t>(9 - i)] = static_cast<char>(frame_size >> (8 * i));
        }
        if (!wire.send(head)) {
            return;
        }
        for (size_t sent = 0; sent < frame_size; sent += zeros.size()) {
            if (!wire.send(zeros)) {
                return;
            }
        }
    }
}

/// Reads frames to the end of a message, and forgets them. @return bytes of its payload.
class Echo_Counter {
public:
    explicit Echo_Counter(Wire_Client& wire) : wire_(wire), buffer_(MEBIBYTE, '\0') {}

    size_t count()
    {
        for (size_t total = 0;;) {
            const std::string head = this->take(2);
            if (head.size() < 2) {
                return 0;
            }
            size_t length = static_cast<unsigned char>(head[1]);
            if (length > 125) {
                const std::string bytes = this->take(length == 126 ? 2 : 8);
                length = 0;
                for (const char byte : bytes) {
                    length = length << 8 | static_cast<unsigned char>(byte);
                }
            }
            if (!this->skip(length)) {
                return 0;
            }
            total += length;
            if ((static_cast<unsigned char>(head[0]) & 0x80U) != 0) {
                return total;
            }
        }
    }

private:
    bool fill()
    {
        const ssize_t count = ::recv(wire_.handle(), buffer_.data(), buffer_.size(), 0);
        begin_ = 0;
        end_ = count > 0 ? static_cast<size_t>(count) : 0;
        return end_ > 0;
    }

    std::string take(size_t length)
    {
        std::string bytes;
        while (bytes.size() < length && (begin_ < end_ || this->fill())) {
            bytes += buffer_[begin_++];
        }
        return bytes;
    }

    bool skip(size_t length)
    {
        while (length > 0 && (begin_ < end_ || this->fill())) {
            const size_t step = std::min(length, end_ - begin_);
            begin_ += step;
            length -= step;
        }
        return length == 0;
    }

    Wire_Client& wire_;
    std::string buffer_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

/// A client that has exchanged a short message, and the growth of the server by a long one.
class WebSocket_Memory : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(HTTPD_TEST_SANITIZED)
        GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
    }

    static void expect_flat(const std::string& target, size_t frame_size)
    {
        Probe_Server::Setup setup;
        setup.log_level = "info";
        setup.websockets = {{"/loop", "httpd_ws_echo", "_make_WS_Echo"},
                            {"/thread", "httpd_ws_echo", "_make_WS_Echo", "--thread"}};
        Probe_Server server(setup);
        WebSocket_Client client(server.connect());
        ASSERT_TRUE(client.open(target));
        Echo_Counter counter(client.wire());
        send_zeros(client.wire(), 2 * MEBIBYTE, MEBIBYTE);
        ASSERT_EQ(2 * MEBIBYTE, counter.count());

        const pid_t pid = server.host().pid();
        ASSERT_TRUE(reset_peak(pid));
        const size_t before = status_of(pid, "VmRSS");
        ASSERT_LT(0U, before);
        const auto start = std::chrono::steady_clock::now();
        std::thread sender(
            [&client, frame_size] { send_zeros(client.wire(), message_size(), frame_size); });
        const size_t echoed = counter.count();
        sender.join();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(message_size(), echoed);
        const size_t peak = status_of(pid, "VmHWM");
        EXPECT_LE(peak, before + MEBIBYTE / KIBIBYTE);
        EXPECT_EQ(0, server.host().stop(SIGTERM));
        std::ostringstream figures;
        figures << message_size() / MEBIBYTE << " MiB in " << time.count() << " s; resident "
                << before << " KiB before, at most " << peak << " KiB";
        RecordProperty("figures", figures.str());
        std::cout << figures.str() << "\n";
    }
};

} // namespace

TEST_F(WebSocket_Memory, does_not_grow_with_a_message_of_many_frames)
{
    for (const char* const target : {"/loop", "/thread"}) {
        expect_flat(target, MEBIBYTE);
    }
}

TEST_F(WebSocket_Memory, does_not_grow_with_a_message_in_one_frame)
{
    for (const char* const target : {"/loop", "/thread"}) {
        expect_flat(target, message_size());
    }
}
