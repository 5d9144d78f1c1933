#pragma once

#include "bench/load/kept_driver.h"
#include "bench/load/websocket_frames.h"

#include <vector>

/// Mode websocket: messages that the server echoes.
class Websocket_Driver : public Kept_Driver {
public:
    Websocket_Driver(const Load_Options& options, Load_Engine& engine);

protected:
    bool greet(Client_Stream& stream, std::string& why) override;
    void opened(Connection& connection, Client_Stream& stream) override;
    bool take_answers(Connection& connection, const char* data, size_t size) override;

private:
    std::string upgrade_;
    std::string payload_;
    std::vector<Echo_Reader> readers_;
};

/// Sends the request for an upgrade and takes its answer. False, and why: there will be none.
bool open_websocket(Client_Stream& stream, const std::string& upgrade, std::string& why);
