#pragma once

#include "fuzz/engine/conversation.h"
#include "fuzz/engine/script.h"
#include "fuzz/engine/server.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

/// Plays a script's clients against the server, ends every connection, and checks that nothing is
/// left of them.
class Run final : private Waiting_Client {
public:
    explicit Run(const Script& script);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void play();

    const Conversation& conversation(unsigned number) const { return conversations_[number]; }

private:
    struct Client {
        int handle_ = -1;
        int server_handle_ = -1; ///< the other end's number, while the connection lives
        bool used_ = false;
        bool reads_ = true;
        bool half_closed_ = false;
        bool ended_ = false;       ///< the server has closed
        size_t cut_at_ = SIZE_MAX; ///< bytes that the server had sent when a send of it failed
    };

    int wait_for(pollfd& entry, int milliseconds) override;
    bool wait_for_room(unsigned number);
    bool play_next_of(unsigned number);

    void perform(const Step& step);
    Client& open(unsigned number);
    void send(unsigned number, const std::string& bytes);
    void half_close(Client& client);
    void leave(unsigned number);
    bool receive(unsigned number, size_t limit);
    bool receive_all();
    void exchange();
    void finish();

    const Script& script_;
    Server& server_;
    std::array<Client, Script::CONNECTIONS> clients_;
    std::array<Conversation, Script::CONNECTIONS> conversations_;
    std::vector<bool> done_; ///< by step: some are played early, while the server waits
};
