// The service on standard input and output, in the real host, over whatever may stand there.

#include "tests/support/stdio_host.h"

#include "tests/support/test_sockets.h"
#include "tests/support/websocket_client.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Kind = Stdio_Host::Kind;

constexpr Kind ALL_KINDS[] = {Kind::PIPES, Kind::UNIX_SOCKET, Kind::TCP_SOCKET};

Stdio_Host::Setup with_kind(Kind kind)
{
    Stdio_Host::Setup setup;
    setup.kind = kind;
    return setup;
}

Stdio_Host::Setup with_options(const std::vector<std::string>& options)
{
    Stdio_Host::Setup setup;
    setup.options = options;
    return setup;
}

std::string file_text(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

size_t count_of(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// Stops the host while it is at work and expects that this takes no time to speak of.
void expect_prompt_stop(Stdio_Host& it)
{
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, it.host().stop(SIGTERM));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(0U, it.host().count_log("left loaded"));
}

/// A FIFO through which the probe plug-in is told to go on.
class Word {
public:
    Word() : path_(folder_.path() + "/word")
    {
        EXPECT_EQ(0, ::mkfifo(path_.c_str(), 0600));
        handle_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC); // waits for no reader
    }
    ~Word() { ::close(handle_); }
    Word(const Word&) = delete;
    Word& operator=(const Word&) = delete;

    const std::string& path() const { return path_; }
    void give() const { EXPECT_EQ(1, ::write(handle_, "!", 1)); }

private:
    Temporary_Folder folder_;
    std::string path_;
    int handle_ = -1;
};

/// Stops the host while the plug-in waits for its word, which it gets then.
int stop_and_give(Stdio_Host& it, const Word& word)
{
    EXPECT_EQ(0, ::kill(it.host().pid(), SIGTERM));
    EXPECT_TRUE(it.host().wait_for_log("Stopping on SIGTERM."));
    word.give();
    return it.wait_for_end();
}

/// A host with a folder "root" served by the plug-in `files`.
Stdio_Host::Setup with_files(const Temporary_Folder& root, Kind kind)
{
    Stdio_Host::Setup setup = with_kind(kind);
    setup.handlers = {{"/", "httpd_files", "_make_Files", "--root " + root.path()},
                      {"/probe", "probe_plugin", "_make_Probe"}};
    return setup;
}

constexpr char HELLO[] = "Hello, World!";

} // namespace

// ---------------------------------------------------------------- requests

TEST(Stdio_Service, serves_requests_until_the_end_of_input)
{
    for (const Kind kind : ALL_KINDS) {
        SCOPED_TRACE(static_cast<int>(kind));
        Stdio_Host it(with_kind(kind));
        for (int i = 0; i < 3; ++i) {
            const Wire_Response response = it.client().exchange(get_request("/probe/hello"));
            EXPECT_EQ(200, response.status);
            EXPECT_EQ(HELLO, response.body);
            EXPECT_TRUE(response.complete);
        }
        EXPECT_TRUE(it.host().is_running());
        it.client().half_close();
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_TRUE(it.client().is_closed_by_peer());
        EXPECT_EQ(0U, it.host().count_log(" ERROR "));
        EXPECT_EQ(1U, it.host().count_log("httpd_host has stopped."));
    }
}

TEST(Stdio_Service, a_kept_connection_ends_after_the_idle_time)
{
    Stdio_Host it(with_options({"-i", "1"}));
    EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(0, it.wait_for_end());
    EXPECT_EQ(1U, it.host().count_log(" is idle timeout."));
}

TEST(Stdio_Service, connection_close_ends_it)
{
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host it(with_kind(kind));
        const Wire_Response response =
            it.client().exchange(get_request("/probe/hello", {"Connection: close"}));
        EXPECT_EQ(HELLO, response.body);
        EXPECT_EQ("close", response.field("connection"));
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_TRUE(it.client().is_closed_by_peer());
        EXPECT_EQ(1U, it.host().count_log("probe: handle_close hello"));
    }
}

TEST(Stdio_Service, a_request_that_is_none_ends_it_without_a_response)
{
    Stdio_Host it;
    it.client().send("nonsense\r\n\r\n");
    EXPECT_EQ("", it.client().read_to_end());
    EXPECT_EQ(0, it.wait_for_end());
    EXPECT_EQ(1U, it.host().count_log("Failed to parse HTTP header"));
}

TEST(Stdio_Service, a_request_may_come_in_pieces)
{
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host it(with_kind(kind));
        for (const char byte : get_request("/probe/hello")) {
            it.client().send(std::string(1, byte));
        }
        EXPECT_EQ(HELLO, it.client().read_response().body);
        it.client().half_close();
        EXPECT_EQ(0, it.wait_for_end());
    }
}

TEST(Stdio_Service, pipelined_requests_are_all_answered)
{
    for (const std::string target : {"/probe/describe", "/probe/thread/describe"}) {
        Stdio_Host it;
        std::string requests;
        for (int i = 0; i < 20; ++i) {
            requests += get_request(target + "?" + std::to_string(i));
        }
        it.client().send(requests);
        it.client().half_close(); // their answers are due all the same
        for (int i = 0; i < 20; ++i) {
            const std::string number = std::to_string(i);
            EXPECT_EQ("GET " + target + " " + target + "?" + number + " " + number + " test",
                      it.client().read_response().body);
        }
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ("", it.client().read_to_end());
    }
}

TEST(Stdio_Service, takes_bodies)
{
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host it(with_kind(kind));
        const std::string body = pattern(100'000);
        EXPECT_EQ("100000", it.client().exchange(body_request("POST", "/probe/count", body)).body);
        EXPECT_EQ(
            "abcdef",
            it.client().exchange(chunked_request("POST", "/probe/collect", {"abc", "def"})).body);
        it.client().send("POST /probe/collect HTTP/1.1\r\nExpect: 100-continue\r\n"
                         "Content-Length: 3\r\n\r\n");
        EXPECT_EQ(100, it.client().read_response().status);
        EXPECT_EQ("xyz", it.client().exchange("xyz").body);
        it.client().half_close();
        EXPECT_EQ(0, it.wait_for_end());
    }
}

TEST(Stdio_Service, an_answer_of_the_plug_ins_own_thread_is_sent)
{
    for (const std::string target : {"/probe/suspend", "/probe/thread-suspend"}) {
        for (const Kind kind : ALL_KINDS) {
            Stdio_Host it(with_kind(kind));
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ("abc", it.client().exchange(body_request("POST", target, "abc")).body);
            }
            EXPECT_EQ("abc",
                      it.client()
                          .exchange(body_request("POST", target, "abc", {"Connection: close"}))
                          .body);
            EXPECT_EQ(0, it.wait_for_end());
        }
    }
}

TEST(Stdio_Service, a_large_file_is_sent_by_a_worker_thread)
{
    const Temporary_Folder root;
    const std::string content = pattern(3'000'000);
    root.write("large.bin", content);
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host it(with_files(root, kind));
        for (int i = 0; i < 2; ++i) {
            const Wire_Response response = it.client().exchange(get_request("/large.bin"));
            EXPECT_EQ(200, response.status);
            EXPECT_TRUE(response.body == content);
            EXPECT_TRUE(response.complete);
        }
        it.client().half_close();
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(0U, it.host().count_log(" ERROR "));
    }
}

TEST(Stdio_Service, a_connection_in_a_worker_thread_ends_in_every_manner)
{
    {
        Stdio_Host it;
        EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/thread/hello")).body);
        it.client().half_close();
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(1U, it.host().count_log("probe: handle_close hello"));
    }
    {
        Stdio_Host it;
        EXPECT_EQ(
            HELLO,
            it.client().exchange(get_request("/probe/thread/hello", {"Connection: close"})).body);
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(1U, it.host().count_log("probe: handle_close hello"));
    }
    {
        Stdio_Host it(with_options({"-i", "1"}));
        EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/thread/hello")).body);
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(1U, it.host().count_log("probe: handle_close hello"));
    }
}

TEST(Stdio_Service, guards_its_uris)
{
    Stdio_Host::Setup setup;
    setup.authenticators = {{"/probe", "probe_plugin", "_make_Probe_Auth"}};
    Stdio_Host it(setup);
    EXPECT_EQ(200, it.client().exchange(get_request("/probe/hello", {"X-Pass: 200"})).status);
    EXPECT_EQ(401, it.client().exchange(get_request("/probe/hello", {"X-Pass: 401"})).status);
    EXPECT_EQ(0, it.wait_for_end());
}

TEST(Stdio_Service, has_no_addresses)
{
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host it(with_kind(kind));
        EXPECT_EQ("remote=:: original=:: ssl=0 inet=0 unix=-1 nodelay=0 timeout=0",
                  it.client().exchange(get_request("/probe/addresses")).body);
        EXPECT_EQ(0, it.host().stop(SIGTERM));
        EXPECT_EQ(0U, it.host().count_log(" ERROR "));
    }
}

TEST(Stdio_Service, options_about_listening_have_no_effect)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/socket";
    Stdio_Host it(with_options(
        {"-p", path, "-t", "4", "-c", "process", "--listen-backlog=3", "--accept-timeout=3"}));
    EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
    EXPECT_NE(0, ::access(path.c_str(), F_OK));
    it.client().half_close();
    EXPECT_EQ(0, it.wait_for_end());
    EXPECT_EQ(0U, it.host().count_log("event loops"));
}

TEST(Stdio_Service, writes_the_access_log)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/access.log";
    Stdio_Host it(with_options({"-l", path}));
    EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
    EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/thread/hello")).body);
    it.client().half_close();
    EXPECT_EQ(0, it.wait_for_end());
    const std::string text = file_text(path);
    EXPECT_EQ(2U, count_of(text, "\n")) << text;
    EXPECT_EQ(2U, count_of(text, "@::@")) << text;
    EXPECT_EQ(1U, count_of(text, "@GET /probe/thread/hello HTTP/1.1 200 0 13\n")) << text;
}

// ---------------------------------------------------------------- files and devices

TEST(Stdio_Service, takes_its_requests_from_a_file)
{
    for (const std::string target : {"/probe/hello", "/probe/thread/hello"}) {
        const Temporary_Folder folder;
        const std::string path = folder.write(
            "requests", get_request(target) + body_request("POST", "/probe/collect", "abc") +
                            body_request("POST", "/probe/suspend", "def") + get_request(target));
        const Test_Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        Stdio_Host::Setup setup;
        setup.input = file.get();
        Stdio_Host it(setup);
        for (const std::string body : {HELLO, "abc", "def", HELLO}) {
            EXPECT_EQ(body, it.client().read_response().body);
        }
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(0U, it.host().count_log(" ERROR "));
    }
}

TEST(Stdio_Service, a_large_body_may_come_from_a_file)
{
    const Temporary_Folder folder;
    const std::string path =
        folder.write("requests", body_request("POST", "/probe/count", pattern(3'000'000)));
    const Test_Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    Stdio_Host::Setup setup;
    setup.input = file.get();
    Stdio_Host it(setup);
    EXPECT_EQ("3000000", it.client().read_response().body);
    EXPECT_EQ(0, it.wait_for_end());
}

TEST(Stdio_Service, writes_its_responses_to_a_file)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/responses";
    const Test_Fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    Stdio_Host::Setup setup;
    setup.output = file.get();
    Stdio_Host it(setup);
    it.client().send(get_request("/probe/hello") + get_request("/probe/large"));
    it.client().half_close();
    EXPECT_EQ(0, it.wait_for_end());
    const std::string text = file_text(path);
    EXPECT_EQ(0U, text.find("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(1U, count_of(text, HELLO));
    EXPECT_EQ(2U, count_of(text, "HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(text.ends_with(std::string(1024 * 1024, 'x')));
}

TEST(Stdio_Service, the_null_device_has_no_request_and_takes_any_response)
{
    {
        const Test_Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
        Stdio_Host::Setup setup;
        setup.input = null.get();
        Stdio_Host it(setup);
        EXPECT_EQ("", it.client().read_to_end());
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(0U, it.host().count_log(" ERROR "));
    }
    {
        const Test_Fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
        Stdio_Host::Setup setup;
        setup.output = null.get();
        Stdio_Host it(setup);
        it.client().send(get_request("/probe/large") + get_request("/probe/hello"));
        it.client().half_close();
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(2U, it.host().count_log("probe: handle_request"));
    }
}

// ---------------------------------------------------------------- WebSocket

TEST(Stdio_Service, carries_a_websocket_conversation)
{
    for (const std::string prefix : {"/ws/", "/ws/thread/"}) {
        for (const Kind kind : ALL_KINDS) {
            SCOPED_TRACE(prefix + std::to_string(static_cast<int>(kind)));
            Stdio_Host it(with_kind(kind));
            WebSocket_Client client(it.take_client());
            ASSERT_TRUE(client.open(prefix + "echo", {}, websocket_frame(WS_TEXT, "first")));
            EXPECT_EQ("first", client.read().payload);
            const std::string data = pattern(70'000);
            client.send(WS_BINARY, data);
            std::string echoed;
            WebSocket_Frame frame;
            do {
                frame = client.read();
                echoed += frame.payload;
            } while (frame.complete && !frame.final);
            EXPECT_TRUE(echoed == data);
            client.send(WS_PING, "p");
            frame = client.read();
            EXPECT_EQ(WS_PONG, frame.opcode);
            EXPECT_EQ("p", frame.payload);
            client.send(WS_CLOSE, close_payload(1000));
            frame = client.read();
            EXPECT_EQ(WS_CLOSE, frame.opcode);
            EXPECT_EQ(1000U, frame.close_status());
            EXPECT_TRUE(client.wire().is_closed_by_peer());
            EXPECT_EQ(0, it.wait_for_end());
            EXPECT_EQ(1U, it.host().count_log("ws: handle_close"));
            EXPECT_EQ(1U, it.host().count_log("ws: destroyed"));
            EXPECT_EQ(0U, it.host().count_log(" ERROR "));
        }
    }
}

TEST(Stdio_Service, a_websocket_that_is_shut_down_in_a_callback_ends_the_host)
{
    for (const std::string prefix : {"/ws/", "/ws/thread/"}) {
        for (const Kind kind : ALL_KINDS) {
            SCOPED_TRACE(prefix + std::to_string(static_cast<int>(kind)));
            Stdio_Host it(with_kind(kind));
            WebSocket_Client client(it.take_client());
            ASSERT_TRUE(client.open(prefix + "shutdown"));
            client.send(WS_TEXT, "x");
            EXPECT_EQ("", client.wire().read_to_end());
            EXPECT_EQ(0, it.wait_for_end());
            EXPECT_EQ(1U, it.host().count_log("ws: handle_close 1006"));
            EXPECT_EQ(1U, it.host().count_log("ws: destroyed"));
        }
        Stdio_Host it;
        WebSocket_Client client(it.take_client());
        client.open(prefix + "shutdown-handshaked");
        client.wire().read_to_end();
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(1U, it.host().count_log("ws: handle_close 1006"));
        EXPECT_EQ(1U, it.host().count_log("ws: destroyed"));
    }
}

TEST(Stdio_Service, a_websocket_is_told_of_the_end_of_input)
{
    for (const std::string prefix : {"/ws/", "/ws/thread/"}) {
        Stdio_Host it;
        WebSocket_Client client(it.take_client());
        ASSERT_TRUE(client.open(prefix + "echo"));
        client.wire().half_close();
        EXPECT_EQ("", client.wire().read_to_end());
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(1U, it.host().count_log("ws: handle_close 1006"));
        EXPECT_EQ(1U, it.host().count_log("ws: destroyed"));
    }
}

TEST(Stdio_Service, a_silent_websocket_is_pinged)
{
    Stdio_Host it(with_options({"-i", "60", "--ping-interval", "1", "--ping-timeout", "1"}));
    WebSocket_Client client(it.take_client());
    ASSERT_TRUE(client.open("/ws/echo"));
    EXPECT_EQ(WS_PING, client.read().opcode);
    client.send(WS_PONG, "");
    client.wire().half_close();
    EXPECT_EQ(0, it.wait_for_end());
}

// ---------------------------------------------------------------- stopping

TEST(Stdio_Service, stops_on_a_signal_while_a_request_is_open)
{
    Stdio_Host it;
    EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
    it.client().send("POST /probe/collect HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
    ASSERT_TRUE(it.host().wait_for_log("probe: handle_body 3"));
    expect_prompt_stop(it);
    EXPECT_EQ("", it.client().read_to_end());
    EXPECT_EQ(1U, it.host().count_log("probe: handle_close collect"));
}

TEST(Stdio_Service, stops_on_a_signal_while_a_worker_thread_waits_for_input)
{
    for (const Kind kind : ALL_KINDS) {
        for (const std::vector<std::string>& options :
             {std::vector<std::string>{}, std::vector<std::string>{"-i", "60"}}) {
            Stdio_Host::Setup setup = with_kind(kind);
            setup.options = options;
            Stdio_Host it(setup);
            EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/thread/hello")).body);
            expect_prompt_stop(it);
            EXPECT_EQ(1U, it.host().count_log("probe: handle_close hello"));
        }
    }
}

TEST(Stdio_Service, stops_on_a_signal_while_a_worker_thread_waits_for_the_reader)
{
    const Temporary_Folder root;
    root.write("large.bin", std::string(32 * 1024 * 1024, 'x'));
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host it(with_files(root, kind));
        it.client().send(get_request("/large.bin"));
        EXPECT_EQ("HTTP/1.1 200 OK", it.client().read_exactly(15));
        expect_prompt_stop(it);
    }
}

TEST(Stdio_Service, stops_on_a_signal_while_a_websocket_is_open)
{
    for (const std::string prefix : {"/ws/", "/ws/thread/"}) {
        Stdio_Host it;
        WebSocket_Client client(it.take_client());
        ASSERT_TRUE(client.open(prefix + "echo"));
        client.send(WS_TEXT, "x");
        EXPECT_EQ("x", client.read().payload);
        expect_prompt_stop(it);
        EXPECT_EQ(1U, it.host().count_log("ws: handle_close 1006"));
        EXPECT_EQ(1U, it.host().count_log("ws: destroyed"));
    }
}

// A thread of a plug-in that is about to end keeps a leak checker busy: no time is expected here.
TEST(Stdio_Service, waits_for_a_plug_in_that_still_answers_when_it_stops)
{
    for (const Kind kind : ALL_KINDS) {
        const Word word;
        Stdio_Host it(with_kind(kind));
        it.client().send(body_request("POST", "/probe/late?" + word.path(), "abc"));
        ASSERT_TRUE(it.host().wait_for_log("probe: handle_body 3"));
        EXPECT_EQ(0, stop_and_give(it, word));
        EXPECT_EQ(0U, it.host().count_log("left loaded"));
        EXPECT_EQ("abc", it.client().read_response().body);
        EXPECT_EQ(1U, it.host().count_log("probe: handle_close late"));
    }
}

TEST(Stdio_Service, waits_for_a_plug_in_that_holds_the_connection_when_it_stops)
{
    for (const std::string target : {"/probe/hold", "/probe/thread/hold"}) {
        SCOPED_TRACE(target);
        const Word word;
        Stdio_Host it;
        it.client().send(body_request("POST", target + "?" + word.path(), "abc"));
        ASSERT_TRUE(it.host().wait_for_log("probe: handle_body 3"));
        EXPECT_EQ(0, stop_and_give(it, word));
        EXPECT_EQ(0U, it.host().count_log("left loaded"));
        EXPECT_EQ(1U, it.host().count_log("probe: handle_close hold"));
    }
}

/// Takes as long as a stopping service waits for a plug-in: ten seconds.
TEST(Slow_Stdio_Service, ends_without_a_plug_in_that_does_not_come_back)
{
    Stdio_Host it;
    it.client().send(get_request("/probe/thread-stuck"));
    ASSERT_TRUE(it.host().wait_for_log("probe: handle_request GET /probe/thread-stuck"));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, it.host().stop(SIGTERM));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(10));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(1U, it.host().count_log("ERROR A connection is still in its worker thread, its "
                                      "plug-in is left loaded: uri '/probe' of dll '"));
}

TEST(Stdio_Service, a_reader_that_has_gone_ends_it_without_a_signal)
{
    for (const std::string target : {"/probe/large", "/probe/thread/large"}) {
        Test_Pair out = pipe_pair();
        Stdio_Host::Setup setup;
        setup.output = out.second.get();
        Stdio_Host it(setup);
        out.second.close();
        out.first.close();
        it.client().send(get_request(target));
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_EQ(1U, it.host().count_log("Broken pipe"));
        EXPECT_EQ(1U, it.host().count_log("httpd_host has stopped."));
    }
    for (const Kind kind : {Kind::UNIX_SOCKET, Kind::TCP_SOCKET}) {
        Stdio_Host it(with_kind(kind));
        EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
        it.client().send(get_request("/probe/large"));
        it.take_client();
        EXPECT_EQ(0, it.wait_for_end());
    }
}

TEST(Stdio_Service, a_client_that_is_still_sending_gets_to_read_the_response)
{
    for (int i = 0; i < 5; ++i) {
        Stdio_Host it(with_kind(Kind::TCP_SOCKET));
        // Refused by its header; the body is on its way.
        it.client().send("POST /nowhere HTTP/1.1\r\nContent-Length: 800000\r\n\r\n");
        EXPECT_TRUE(it.client().send(std::string(800'000, 'x')));
        const Wire_Response response = it.client().read_response();
        EXPECT_EQ(404, response.status);
        EXPECT_TRUE(response.complete);
        char byte = 0;
        EXPECT_EQ(0, ::recv(it.client().handle(), &byte, 1, 0)) << "an end, not a reset";
        it.client().half_close();
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << "the client has closed";
    }
}

TEST(Stdio_Service, a_client_that_never_stops_sending_is_not_waited_for)
{
    Stdio_Host it(with_kind(Kind::TCP_SOCKET));
    it.client().send("POST /nowhere HTTP/1.1\r\nContent-Length: 800000\r\n\r\n");
    EXPECT_EQ(404, it.client().read_response().status);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, it.wait_for_end());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    EXPECT_GT(Clock::now() - start, std::chrono::seconds(1));
}

// ---------------------------------------------------------------- log and command line

TEST(Stdio_Service, nothing_but_responses_is_written_to_standard_output)
{
    Stdio_Host::Setup setup;
    setup.log_level = "trace";
    Stdio_Host it(setup);
    it.client().send(get_request("/probe/hello") + get_request("/nowhere"));
    const Wire_Response first = it.client().read_response();
    EXPECT_EQ(HELLO, first.body);
    EXPECT_EQ(0U, first.status_line.find("HTTP/1.1 200"));
    const Wire_Response second = it.client().read_response();
    EXPECT_EQ(404, second.status);
    EXPECT_EQ(0U, second.status_line.find("HTTP/1.1 404"));
    EXPECT_EQ("", it.client().read_to_end());
    EXPECT_EQ(0, it.wait_for_end());
    EXPECT_GT(it.host().count_log(" DEBUG "), 3U);
}

TEST(Stdio_Service, the_log_goes_to_its_file)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/host.log";
    for (const bool error_to_client : {false, true}) {
        Stdio_Host::Setup setup = with_kind(Kind::UNIX_SOCKET);
        setup.host = {"--log-file", path};
        setup.error_to_client = error_to_client;
        Stdio_Host it(setup);
        EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
        it.client().half_close();
        EXPECT_EQ("", it.client().read_to_end());
        EXPECT_EQ(0, it.wait_for_end());
        EXPECT_TRUE(it.host().log().empty());
    }
    EXPECT_EQ(2U, count_of(file_text(path), "httpd_host has stopped."));
}

TEST(Stdio_Service, the_log_never_goes_to_a_client_that_has_descriptor_2_too)
{
    for (const Kind kind : ALL_KINDS) {
        Stdio_Host::Setup setup = with_kind(kind);
        setup.error_to_client = true;
        setup.log_level = "trace";
        Stdio_Host it(setup);
        EXPECT_EQ(HELLO, it.client().exchange(get_request("/probe/hello")).body);
        it.client().half_close();
        EXPECT_EQ("", it.client().read_to_end());
        EXPECT_EQ(0, it.wait_for_end());

        setup.host = {"--no-such-option"};
        Stdio_Host wrong(setup);
        EXPECT_EQ("", wrong.client().read_to_end());
        EXPECT_EQ(2, wrong.wait_for_end());
    }
}

TEST(Stdio_Service, stdio_needs_service_options_and_goes_with_no_directive)
{
    const struct {
        std::vector<std::string> words;
        std::string error;
    } rows[] = {
        {{"--stdio"}, "option \"--stdio\" needs the service options behind \"--\""},
        {{"--stdio", "-f", "svc.conf"}, "option \"--stdio\" cannot be combined with -f or -S"},
        {{"-S", "x", "--stdio", "--"}, "option \"--stdio\" cannot be combined with -f or -S"},
        {{"--stdio=yes", "--"}, "option \"--stdio\" takes no value"},
    };
    for (const auto& row : rows) {
        Host_Process::Command command;
        command.host = row.words;
        command.wait_until_ready = false;
        Host_Process host(command);
        EXPECT_EQ(2, host.stop(0));
        EXPECT_EQ(1U, host.count_log("httpd_host: " + row.error)) << host.log_text();
    }
}

TEST(Stdio_Service, may_be_a_directive)
{
    const Temporary_Folder folder;
    const std::string handlers = folder.write(
        "http.json", plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}}));
    const std::string directive = "dynamic Pipe Service_Object * "
                                  "httpd:_make_HTTP_Stdin_Stout_Service() '-f " +
                                  handlers + "'";
    Test_Pair in = pipe_pair();
    Test_Pair out = pipe_pair();
    Host_Process::Command command;
    command.host = {"-S", directive};
    command.standard_input = in.first.get();
    command.standard_output = out.second.get();
    Host_Process host(command);
    const auto client = make_pipe_client(in.second.release(), out.first.release());
    EXPECT_EQ(HELLO, client->exchange(get_request("/probe/hello")).body);
    client->half_close();
    EXPECT_EQ(0, host.stop(0));
}

TEST(Stdio_Service, its_end_is_the_end_of_the_listening_service_beside_it)
{
    const Temporary_Folder folder;
    const std::string handlers = folder.write(
        "http.json", plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}}));
    const std::string socket = folder.path() + "/socket";
    const std::string listener = "dynamic Web Service_Object * httpd:_make_HTTP_Service() '-p " +
                                 socket + " -f " + handlers + "'";
    const std::string pipe =
        "dynamic Pipe Service_Object * httpd:_make_HTTP_Stdin_Stout_Service() ''";
    for (const bool pipe_first : {false, true}) {
        Test_Pair in = pipe_pair();
        Test_Pair out = pipe_pair();
        Host_Process::Command command;
        command.host = {"-S", pipe_first ? pipe : listener, "-S", pipe_first ? listener : pipe};
        command.standard_input = in.first.get();
        command.standard_output = out.second.get();
        command.wait_until_ready = false;
        Host_Process host(command);
        ASSERT_TRUE(host.wait_for_log(" is running as process "));
        const auto pipe_client = make_pipe_client(in.second.release(), out.first.release());
        const auto socket_client = Wire_Client::unix_domain(socket);
        ASSERT_NE(nullptr, socket_client);
        EXPECT_EQ(HELLO, pipe_client->exchange(get_request("/probe/thread/hello")).body);
        EXPECT_EQ(HELLO, socket_client->exchange(get_request("/probe/thread/hello")).body);
        pipe_client->half_close();
        EXPECT_EQ(0, host.stop(0));
        EXPECT_TRUE(socket_client->is_closed_by_peer());
        EXPECT_EQ(2U, host.count_log("probe: handle_close hello"));
        EXPECT_EQ(0U, host.count_log(" ERROR "));
    }
}

TEST(Stdio_Service, a_connection_that_cannot_be_opened_fails_the_start)
{
    const std::string pipe = "Service_Object * httpd:_make_HTTP_Stdin_Stout_Service() '-i 60'";
    Test_Pair in = pipe_pair();
    Host_Process::Command command;
    command.host = {"-S", "dynamic First " + pipe, "-S", "dynamic Second " + pipe};
    command.standard_input = in.first.get();
    Host_Process host(command);
    EXPECT_EQ(1, host.stop(0));
    EXPECT_EQ(1U, host.count_log("unable to register client handler, errno=17, File exists"));
    EXPECT_EQ(1U, host.count_log("a service could not be initialised"));
}
