// A WebSocket plug-in that does at random, in every call that it gets, what the interface allows
// there, and an HTTP plug-in that tells what became of its connections.
//
// The path below its own URI is <mode>/<seed>. Words of the mode, joined by "-":
//   thread  the connection gets a thread of its own
//   later   now and then another thread answers, while reading is suspended
//   echo    no chance at all: every message goes back as it came

#include "httpd/http_handler.h"
#include "httpd/http_io.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"
#include "httpd/websocket_io.h"

#include <ace/INET_Addr.h>
#include <ace/UNIX_Addr.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr bool FINAL = true;
constexpr bool MORE = false;
constexpr bool LAST = true;
constexpr bool TEXT = false;
constexpr bool WAIT = true;
constexpr bool DONT_WAIT = false;
constexpr bool SUSPEND = true;
constexpr bool RESUME = false;

/// What became of all connections of the plug-in.
class Counts {
public:
    void opened() { ++opened_; }
    void closed() { ++closed_; }

    /// A call behind handle_close, or of a connection that was suspended.
    void out_of_turn() { ++out_of_turn_; }

    void made() { ++made_; }

    /// An object is destroyed that has got this many calls of handle_close.
    void destroyed(bool was_opened, unsigned closes)
    {
        if (closes != (was_opened ? 1U : 0U)) {
            ++wrong_closes_;
        }
        const std::lock_guard<std::mutex> guard(mutex_);
        ++destroyed_;
        changed_.notify_all();
    }

    /// Waits until no object is left, or for a while.
    void wait_for_none()
    {
        std::unique_lock<std::mutex> guard(mutex_);
        changed_.wait_for(guard, std::chrono::seconds(20),
                          [this] { return destroyed_ == made_.load(); });
    }

    std::string text()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        return "opened=" + std::to_string(opened_) + " closed=" + std::to_string(closed_) +
               " left=" + std::to_string(made_ - destroyed_) +
               " wrong_closes=" + std::to_string(wrong_closes_) +
               " out_of_turn=" + std::to_string(out_of_turn_);
    }

private:
    std::atomic<unsigned long> made_{0};
    std::atomic<unsigned long> opened_{0};
    std::atomic<unsigned long> closed_{0};
    std::atomic<unsigned long> wrong_closes_{0};
    std::atomic<unsigned long> out_of_turn_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned long destroyed_ = 0;
};

Counts counts;

/// A thread that does things when their time has come; what is left at its end it does at once.
class Later {
public:
    Later() : thread_([this] { this->run(); }) {}

    ~Later()
    {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            ended_ = true;
            changed_.notify_all();
        }
        thread_.join();
    }

    void after(std::chrono::milliseconds delay, std::function<void()> task)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        tasks_.emplace(Clock::now() + delay, std::move(task));
        changed_.notify_all();
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> guard(mutex_);
        while (!ended_ || !tasks_.empty()) {
            if (tasks_.empty()) {
                changed_.wait(guard);
                continue;
            }
            const auto first = tasks_.begin();
            const Clock::time_point due = first->first;
            if (!ended_ && due > Clock::now()) {
                changed_.wait_until(guard, due);
                continue;
            }
            const std::function<void()> task = std::move(first->second);
            tasks_.erase(first);
            guard.unlock();
            task();
            guard.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, std::function<void()>> tasks_;
    bool ended_ = false;
    std::thread thread_;
};

/// Chance, seeded by the client, so that a conversation can be had again.
class Chance {
public:
    explicit Chance(unsigned seed) : engine_(seed) {}

    /// A number below `limit`.
    unsigned below(unsigned limit)
    {
        return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine_);
    }

    bool one_in(unsigned n) { return this->below(n) == 0; }
    bool coin() { return this->one_in(2); }

    /// From now on payloads may be larger than what a socket takes while its client does not read.
    void allow_large() { large_ = true; }

    std::string payload()
    {
        const unsigned limit = large_ && this->one_in(20)  ? 70000
                               : large_ && this->one_in(4) ? 9000
                                                           : 200;
        return std::string(this->below(limit), static_cast<char>('a' + this->below(26)));
    }

    std::chrono::milliseconds delay() { return std::chrono::milliseconds(this->below(120)); }

private:
    std::minstd_rand engine_;
    bool large_ = false;
};

bool send_frame(WebSocket_IO& io, Chance& chance)
{
    const std::string payload = chance.payload();
    return io.send_frame(payload.data(), payload.size(), !chance.one_in(10), chance.coin()) != -1;
}

bool send_vector(WebSocket_IO& io, Chance& chance)
{
    std::vector<std::string> pieces(chance.one_in(30) ? 300 : chance.below(6));
    std::vector<iovec> entries;
    for (std::string& piece : pieces) {
        piece.assign(chance.coin() ? chance.below(100) : 0, 'v');
        entries.push_back({piece.data(), piece.size()});
    }
    return io.sendv_frame(entries.data(), static_cast<int>(entries.size()), !chance.one_in(10),
                          chance.coin()) != -1;
}

bool send_fragments(WebSocket_IO& io, Chance& chance)
{
    for (unsigned i = chance.below(4); i > 0; --i) {
        const std::string payload = chance.payload();
        if (io.send_frame(payload.data(), payload.size(), MORE, TEXT) == -1) {
            return false;
        }
        if (chance.one_in(3)) {
            io.send_ping(DONT_WAIT);
        }
    }
    return io.send_frame(nullptr, 0, FINAL, TEXT) != -1;
}

/// A length without data, which is refused.
bool send_nothing(WebSocket_IO& io, Chance& chance)
{
    const iovec entries[2] = {{const_cast<char*>("x"), 1}, {nullptr, 3}};
    if (chance.coin()) {
        io.send_frame(nullptr, 5, chance.coin(), TEXT);
    } else {
        io.sendv_frame(entries, 2, chance.coin(), TEXT);
    }
    return true;
}

bool send_ping(WebSocket_IO& io, Chance&)
{
    return io.send_ping(DONT_WAIT) != -1;
}

bool send_close_twice(WebSocket_IO& io, Chance& chance)
{
    if (chance.one_in(3)) {
        const std::string reason(chance.below(60), 'r');
        io.send_close_frame(WebSocket_Data_Frame::CLOSE_GOING_AWAY, reason.data(), reason.size());
        io.send_close_frame(WebSocket_Data_Frame::CLOSE_NORMAL);
    }
    return true;
}

/// What belongs to an HTTP response; of an upgraded connection it is refused.
bool send_http(WebSocket_IO& io, Chance& chance)
{
    const iovec entry = {const_cast<char*>("body"), 4};
    switch (chance.below(4)) {
    case 0:
        io.send("body", 4, chance.coin());
        break;
    case 1:
        io.sendv_n(&entry, 1, chance.coin());
        break;
    case 2:
        io.send_error(404);
        break;
    default:
        io.send_file(chance.coin() ? "/etc/services" : "/no/such/file");
        break;
    }
    return true;
}

bool ask(WebSocket_IO& io, Chance&)
{
    ACE_INET_Addr inet;
    ACE_UNIX_Addr local;
    io.get_local_addr(inet);
    io.get_remote_addr(inet);
    io.get_remote_addr(local);
    io.get_original_addr(inet);
    constexpr bool WITH_PORT = true;
    io.get_remote_addr(WITH_PORT);
    io.get_original_addr();
    static_cast<void>(io.is_ssl());
    return true;
}

void tune(WebSocket_IO& io, Chance& chance)
{
    io.tcp_nodelay(chance.coin());
    constexpr int SEND_SECONDS = 1;
    io.socket_timeout(SEND_SECONDS, chance.coin() ? 1 : 0);
}

/// @return false when a write has failed
using Operation = bool (*)(WebSocket_IO& io, Chance& chance);

/// What may be done in any call, and by another thread while reading is suspended.
constexpr Operation OPERATIONS[] = {send_frame,     send_frame,   send_vector, send_vector,
                                    send_fragments, send_nothing, send_ping,   send_close_twice,
                                    send_http,      ask};

bool do_any(WebSocket_IO& io, Chance& chance)
{
    return OPERATIONS[chance.below(std::size(OPERATIONS))](io, chance);
}

class Stress_Handler : public WebSocket_Handler {
public:
    explicit Stress_Handler(Later& later) : later_(later) { counts.made(); }
    ~Stress_Handler() override { counts.destroyed(io_ != nullptr, closes_); }

    using WebSocket_Handler::select_protocol;

    const char* select_protocol(const std::vector<std::string>& offers) override
    {
        return chance_.coin() ? nullptr : WebSocket_Handler::select_protocol(offers);
    }

    int handle_handshaking(WebSocket_IO& io) override
    {
        io_ = &io;
        counts.opened();
        const std::string path = io.request().uri(true);
        const size_t seed = path.rfind('/');
        const std::string mode = path.substr(0, seed);
        chance_ = Chance(static_cast<unsigned>(std::atoi(path.c_str() + seed + 1)));
        threaded_ = mode.find("thread") != std::string::npos;
        hands_over_ = mode.find("later") != std::string::npos;
        echoes_ = mode.find("echo") != std::string::npos;
        // What it sends comes before the 101: no client understands that.
        return chance_.one_in(10) ? this->act(HANDSHAKING) : 0;
    }

    CONCURRENCY concurrency() const override { return threaded_ ? THREAD : INHERITED; }

    int handle_handshaked() override
    {
        if (threaded_) {
            in_own_thread_ = true;
            chance_.allow_large(); // it holds up nobody else
        }
        return this->act(HANDSHAKED);
    }

    int handle_data_framing(const void* data, size_t length, bool last, bool binary) override
    {
        if (echoes_) {
            return io_->send_frame(data, length, last, binary) == -1 ? -1 : 0;
        }
        return this->act(DATA);
    }

    int handle_ping() override { return this->act(PING); }

    int handle_close(WebSocket_Data_Frame::Close_Status, const char*, size_t) override
    {
        counts.closed();
        ++closes_;
        return this->act(CLOSE);
    }

private:
    enum Call { HANDSHAKING, HANDSHAKED, DATA, PING, CLOSE };

    int act(Call call)
    {
        if (call != CLOSE && (closes_ > 0 || away_.load(std::memory_order_relaxed))) {
            counts.out_of_turn();
        }
        // Another thread may still be on its way out of the connection when the end is told.
        if (echoes_ || (call == CLOSE && was_away_)) {
            return 0;
        }
        handed_over_ = false;
        stuck_ = false;
        for (unsigned i = chance_.below(4); i > 0 && !handed_over_ && !stuck_; --i) {
            this->do_one(call);
        }
        if (handed_over_) {
            return 0; // perhaps by a call within this one: the connection is another thread's
        }
        return stuck_ || chance_.one_in(25) ? -1 : chance_.one_in(5) ? 1 : 0;
    }

    void do_one(Call call)
    {
        switch (chance_.below(15)) {
        case 0:
            if (chance_.one_in(6)) {
                io_->shutdown();
            }
            break;
        case 1:
            io_->suspend_read(SUSPEND);
            io_->suspend_read(RESUME);
            break;
        case 2:
            this->keep_reference();
            break;
        case 3:
            if (hands_over_ && call != HANDSHAKING && closes_ == 0) {
                this->hand_over();
            }
            break;
        case 4:
            this->wait_for_input();
            break;
        case 5:
            tune(*io_, chance_);
            break;
        default:
            // A thread of its own goes on; a loop is not to wait for this client again.
            stuck_ = !do_any(*io_, chance_) && !in_own_thread_;
            break;
        }
    }

    /// To be dropped by another thread, perhaps when the connection has gone.
    void keep_reference()
    {
        io_->add_reference();
        later_.after(chance_.delay(), [io = io_] { io->remove_reference(); });
    }

    /// Only a connection in a thread of its own may wait.
    void wait_for_input()
    {
        constexpr unsigned MAX_DEPTH = 3;
        if (in_own_thread_ && depth_ < MAX_DEPTH) {
            ++depth_;
            io_->send_ping(WAIT);
            --depth_;
        }
    }

    /// Another thread answers, and reads on; until then the connection is its alone.
    void hand_over()
    {
        if (io_->suspend_read(SUSPEND) == -1) {
            return;
        }
        handed_over_ = true;
        was_away_ = true;
        away_.store(true, std::memory_order_relaxed);
        io_->add_reference();
        // This object lives as long as the connection does.
        const auto answer = [this, chance = Chance(chance_.below(1000000))]() mutable {
            chance.allow_large();
            bool goes_on = true;
            for (unsigned i = chance.below(4); i > 0 && goes_on; --i) {
                goes_on = do_any(*io_, chance);
            }
            away_.store(false, std::memory_order_relaxed);
            io_->suspend_read(RESUME);
            io_->remove_reference();
        };
        later_.after(chance_.delay(), answer);
    }

    Later& later_;
    Chance chance_{1};
    WebSocket_IO* io_ = nullptr;
    unsigned closes_ = 0;
    unsigned depth_ = 0;
    bool threaded_ = false;
    bool in_own_thread_ = false;
    bool hands_over_ = false;
    bool echoes_ = false;
    bool handed_over_ = false; ///< in the present call
    bool stuck_ = false;       ///< a write in the present call has failed, in an event loop
    bool was_away_ = false;
    /// Another thread has the connection. Without order: what it did is to be seen by the engine's
    /// own order alone.
    std::atomic<bool> away_{false};
};

class Stress_Creator : public Object_Creator_T<WebSocket_Handler> {
public:
    WebSocket_Handler* create() override { return new Stress_Handler(later_); }
    void destroy(WebSocket_Handler* handler) override { delete handler; }

private:
    Later later_;
};

/// Answers with the counts; "settled" waits first until no connection of the plug-in is left.
class Counts_Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return THREAD; }

    int handle_body(HTTP_IO&, const void*, size_t) override { return -1; }

    int handle_request(HTTP_IO& io) override
    {
        if (std::string_view(io.request().uri(true)).ends_with("/settled")) {
            counts.wait_for_none();
        }
        const std::string text = counts.text();
        io.response().status(200);
        io.response().content_length(text.size());
        return io.send(text.data(), text.size(), LAST);
    }
};

class Counts_Creator : public Object_Creator_T<HTTP_Handler> {
public:
    HTTP_Handler* create() override { return new Counts_Handler; }
    void destroy(HTTP_Handler* handler) override { delete handler; }
};

template <typename Creator>
Creator* make(void (**gobbler)(void*))
{
    if (gobbler != nullptr) {
        *gobbler = [](void* creator) { delete static_cast<Creator*>(creator); };
    }
    return new Creator;
}

} // namespace

#define STRESS_EXPORT extern "C" __attribute__((visibility("default")))

STRESS_EXPORT Object_Creator_T<WebSocket_Handler>* _make_WS_Stress(void (**gobbler)(void*));
STRESS_EXPORT Object_Creator_T<HTTP_Handler>* _make_WS_Stress_Counts(void (**gobbler)(void*));

Object_Creator_T<WebSocket_Handler>* _make_WS_Stress(void (**gobbler)(void*))
{
    return make<Stress_Creator>(gobbler);
}

Object_Creator_T<HTTP_Handler>* _make_WS_Stress_Counts(void (**gobbler)(void*))
{
    return make<Counts_Creator>(gobbler);
}
