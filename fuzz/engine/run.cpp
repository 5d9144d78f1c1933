#include "fuzz/engine/run.h"

#include "fuzz/engine/failure.h"
#include "fuzz/engine/own_plug_ins.h"
#include "fuzz/engine/watched_plug_ins.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace {

constexpr size_t NO_LIMIT = SIZE_MAX;

} // namespace

Run::Run(const Script& script)
    : script_(script), server_(Server::instance()), done_(script.steps().size())
{
    server_.prepare(script.buffer_size(), script.logged(), *this);
    set_conversations(conversations_.data(), conversations_.size());
}

Run::~Run()
{
    set_conversations(nullptr, 0);
}

void Run::play()
{
    for (size_t i = 0; i < done_.size(); ++i) {
        if (!done_[i]) {
            done_[i] = true;
            this->perform(script_.steps()[i]);
        }
    }
    this->finish();
}

void Run::perform(const Step& step)
{
    const unsigned number = step.connection_;
    Client& client = clients_[number];
    switch (step.kind_) {
    case Step::SEND:
        this->send(number, step.bytes_);
        break;
    case Step::ROUND:
        this->exchange();
        break;
    case Step::HALF_CLOSE:
        this->half_close(this->open(number));
        break;
    case Step::RESET:
        this->leave(number);
        break;
    case Step::STOP_READING:
        this->open(number).reads_ = false;
        break;
    case Step::READ_SOME:
        this->receive(number, step.amount_);
        break;
    case Step::READ_ON:
        client.reads_ = true;
        this->exchange();
        break;
    case Step::CLOCK:
        for (Conversation& conversation : conversations_) {
            conversation.interrupted_ = true; // whom the timers end
        }
        server_.pass(step.amount_);
        this->exchange();
        break;
    case Step::ANSWER_HELD:
        answer_held();
        this->exchange();
        break;
    case Step::LET_GO_OF_HELD:
        let_go_of_held();
        this->exchange();
        break;
    }
}

Run::Client& Run::open(unsigned number)
{
    Client& client = clients_[number];
    if (client.used_) {
        return client;
    }
    client.used_ = true;
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == -1) {
        fail("no sockets");
    }
    client.handle_ = pair[0];
    client.server_handle_ = pair[1];
    if (script_.small_output()) {
        constexpr int LEAST = 1; // the system makes the smallest that it can of it
        ::setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &LEAST, sizeof LEAST);
    }
    server_.accept(pair[1], number);
    return client;
}

/// What finds no room, since the server does not read, waits for it like a client would.
void Run::send(unsigned number, const std::string& bytes)
{
    Client& client = this->open(number);
    size_t done = 0;
    while (done < bytes.size() && client.handle_ != -1 && !client.half_closed_) {
        const ssize_t sent = ::send(client.handle_, bytes.data() + done, bytes.size() - done,
                                    MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == -1) {
            return; // the server has closed; or it reads no more, and gets no more then
        }
        conversations_[number].sent_.append(bytes, done, static_cast<size_t>(sent));
        done += static_cast<size_t>(sent);
    }
}

void Run::half_close(Client& client)
{
    if (client.handle_ != -1 && !client.half_closed_) {
        client.half_closed_ = true;
        ::shutdown(client.handle_, SHUT_WR);
    }
}

/// The client is gone.
void Run::leave(unsigned number)
{
    Client& client = this->open(number);
    if (client.handle_ != -1) {
        conversations_[number].interrupted_ = true;
        ::close(client.handle_);
        client.handle_ = -1;
    }
}

/// @return whether anything came: bytes, or the end.
bool Run::receive(unsigned number, size_t limit)
{
    Client& client = clients_[number];
    Conversation& conversation = conversations_[number];
    bool any = false;
    while (client.handle_ != -1 && !client.ended_ && limit > 0) {
        static char buffer[16 * 1024]; // not on the stack, which the sanitizer would clear
        const ssize_t received =
            ::recv(client.handle_, buffer, std::min(limit, sizeof buffer), MSG_DONTWAIT);
        if (received == -1 && errno == EAGAIN) {
            break;
        }
        any = true;
        if (received <= 0) {
            client.ended_ = true;
            break;
        }
        conversation.received_.append(buffer, static_cast<size_t>(received));
        limit -= static_cast<size_t>(received);
    }
    return any;
}

bool Run::receive_all()
{
    bool any = false;
    for (unsigned number = 0; number < clients_.size(); ++number) {
        if (clients_[number].reads_) {
            any = this->receive(number, NO_LIMIT) || any;
        }
    }
    return any;
}

/// The server works and the clients read until nothing moves any more.
void Run::exchange()
{
    do {
        server_.work();
    } while (this->receive_all());
}

// ---------------------------------------------------------------- while the server waits

int Run::wait_for(pollfd& entry, int milliseconds)
{
    if (const int ready = ::poll(&entry, 1, 0); ready != 0) {
        return ready;
    }
    if (milliseconds < 0) {
        fail("the loop would wait without a limit");
    }
    unsigned number = 0;
    while (number < clients_.size() && clients_[number].server_handle_ != entry.fd) {
        ++number;
    }
    if (number == clients_.size()) {
        fail("the loop waits for a descriptor that is no connection");
    }
    const bool moved =
        (entry.events & POLLOUT) != 0 ? this->wait_for_room(number) : this->play_next_of(number);
    if (!moved) {
        server_.pass_within_call(static_cast<size_t>(milliseconds));
        return 0;
    }
    return ::poll(&entry, 1, 0) == 0 ? this->wait_for(entry, milliseconds) : 1;
}

/// @return false when the client leaves the server waiting until its limit has passed.
bool Run::wait_for_room(unsigned number)
{
    Client& client = clients_[number];
    if (client.reads_) {
        return this->receive(number, NO_LIMIT);
    }
    conversations_[number].interrupted_ = true;
    int waiting = 0;
    ::ioctl(client.handle_, FIONREAD, &waiting);
    client.cut_at_ =
        std::min(client.cut_at_, conversations_[number].received_.size() + size_t(waiting));
    return false;
}

/// The client's next step, while the server waits for input. @return false when there is none.
bool Run::play_next_of(unsigned number)
{
    for (size_t i = 0; i < done_.size(); ++i) {
        const Step& step = script_.steps()[i];
        if (done_[i] || step.connection_ != number) {
            continue;
        }
        if (step.kind_ == Step::SEND || step.kind_ == Step::HALF_CLOSE ||
            step.kind_ == Step::RESET) {
            done_[i] = true;
            this->perform(step);
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- the end

void Run::finish()
{
    for (Client& client : clients_) {
        client.reads_ = true;
    }
    do {
        this->exchange();
    } while (answer_held());
    for (Client& client : clients_) {
        this->half_close(client);
    }
    do {
        this->exchange();
    } while (answer_held());
    for (unsigned number = 0; number < clients_.size(); ++number) {
        Client& client = clients_[number];
        if (client.handle_ == -1) {
            continue;
        }
        if (!client.ended_) {
            fail("a connection does not end with its client", conversations_[number].sent_);
        }
        if (conversations_[number].received_.size() > client.cut_at_) {
            fail("bytes behind a failed send", conversations_[number].received_);
        }
        ::close(client.handle_);
        client.handle_ = -1;
    }
    server_.work();
    server_.check_empty();
}
