#pragma once

#include "httpd/detail/loop_io.h"
#include "support/socket_helpers.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <utility>

/**
 * A WebSocket connection without its engine: sends its frames on a socket or, without one, into a
 * string, of which the test says how much room it has. Sending a close frame and shutting down do
 * what the engine does.
 */
class Fake_Loop_IO : public Loop_IO {
public:
    explicit Fake_Loop_IO(ACE_Reactor* loop, ACE_HANDLE handle = ACE_INVALID_HANDLE)
        : loop_(loop), handle_(handle)
    {
    }

    ACE_Reactor* event_loop() const override { return loop_; }
    ACE_HANDLE output_handle() const override { return handle_; }
    Frame_State frame_state() const override { return state_; }
    ssize_t sendv_now(const iovec* iov, int count) override
    {
        ++calls_;
        if (fails_) {
            errno = ECONNRESET;
            return -1;
        }
        if (room_ == UNLIMITED && handle_ != ACE_INVALID_HANDLE) {
            return ace_sendv_now(handle_, iov, count);
        }
        size_t taken = 0;
        for (int i = 0; i < count && room_ > 0; ++i) {
            const size_t part = std::min(iov[i].iov_len, room_);
            sent_.append(static_cast<const char*>(iov[i].iov_base), part);
            taken += part;
            room_ -= room_ == UNLIMITED ? 0 : part;
        }
        return static_cast<ssize_t>(taken);
    }

    int send_close_frame(WebSocket_Data_Frame::Close_Status status, const void*, size_t) override
    {
        if (state_ == FRAMES_ENDED) {
            return 0;
        }
        state_ = FRAMES_ENDED;
        const std::string frame = {'\x88', '\x02', static_cast<char>(status >> 8),
                                   static_cast<char>(status)};
        return this->write(frame) == -1 ? -1 : 0;
    }
    void shutdown() override
    {
        ++shutdowns_;
        state_ = FRAMES_ENDED;
        if (on_shutdown_) {
            std::exchange(on_shutdown_, nullptr)();
        }
    }

    /// Writes a frame as the engine does.
    ssize_t write(const std::string& frame)
    {
        const iovec entry{const_cast<char*>(frame.data()), frame.size()}; // only read
        return frame_output() != nullptr ? frame_output()->write_frame(*this, &entry, 1)
                                         : this->sendv_now(&entry, 1);
    }

    static constexpr size_t UNLIMITED = SIZE_MAX;

    size_t room_ = UNLIMITED; ///< bytes that are taken from now on
    bool fails_ = false;
    Frame_State state_ = FRAMES_FREE;
    std::string sent_;
    int calls_ = 0; ///< of sendv_now
    int shutdowns_ = 0;
    std::atomic<int> references_{0};
    std::function<void()> on_shutdown_; ///< what the plug-in does in its handle_close

    // Of no use here.
    int send_file(const char*) override { return -1; }
    int send_error(int, const void*, size_t) override { return -1; }
    int send(const void*, size_t, bool) override { return -1; }
    int get_local_addr(ACE_Addr&) const override { return -1; }
    int get_remote_addr(ACE_Addr&) const override { return -1; }
    int get_original_addr(ACE_Addr&) const override { return -1; }
    std::string get_remote_addr(bool) const override { return "peer"; }
    std::string get_original_addr() const override { return "peer"; }
    int sendv_n(const iovec*, int, bool) override { return -1; }
    int suspend_read(bool) override { return -1; }
    int tcp_nodelay(bool) const override { return -1; }
    int socket_timeout(int, int) const override { return -1; }
    bool is_ssl() const override { return false; }
    ACE_Event_Handler::Reference_Count add_reference() override { return ++references_; }
    ACE_Event_Handler::Reference_Count remove_reference() override { return --references_; }
    ssize_t send_frame(const void*, size_t, bool, bool) override { return -1; }
    ssize_t sendv_frame(const iovec*, int, bool, bool) override { return -1; }
    int send_ping(bool) override { return -1; }

private:
    ACE_Reactor* loop_;
    ACE_HANDLE handle_;
};
