#include "tests/support/environment_variable.h"
#include "tests/support/exact_line.h"
#include "tests/support/listener_checks.h"
#include "tests/support/listener_server.h"
#include "tests/support/process_descriptors.h"
#include "tests/support/socket_name.h"
#include "tests/support/tls_pieces.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>

namespace {

using Lines = std::vector<std::string>;

constexpr size_t RECORD_HEADER = 5;

class TLS_Listener : public testing::TestWithParam<Listener_Check> {};

Probe_Server::Setup one_loop()
{
    Probe_Server::Setup setup;
    setup.options = {"-t", "1"};
    return setup;
}

Probe_Server::Setup short_accept()
{
    Probe_Server::Setup setup;
    setup.options = {"-t", "1", "--accept-timeout=1"};
    return setup;
}

void expect_hello(Wire_Client& client)
{
    const Wire_Response response = client.exchange(get_request("/probe/hello"));
    EXPECT_EQ(200, response.status);
    EXPECT_EQ("Hello, World!", response.body);
}

void expect_service(const Listener_Server& server)
{
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    expect_hello(*client);
}

std::string failed_accept(const std::string& peer)
{
    return "ERROR Failed to accept connection from '" + peer + "'.";
}

/// The records in `bytes`, by their content types; ends with -1 when the last one is cut.
std::vector<int> record_types(const std::string& bytes)
{
    std::vector<int> types;
    for (size_t at = 0; at < bytes.size();) {
        const auto byte = [&bytes, at](size_t i) {
            return at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0U;
        };
        const size_t length = RECORD_HEADER + (byte(3) << 8U) + byte(4);
        types.push_back(at + length <= bytes.size() ? static_cast<int>(byte(0)) : -1);
        at += length;
    }
    return types;
}

} // namespace

TEST_P(TLS_Listener, serves)
{
    run_listener_check(Listener_Kind::TLS, this->GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, TLS_Listener, testing::ValuesIn(listener_checks()),
                         Listener_Check_Name());

TEST(HTTP_TLS_Listener, is_called_HTTPS)
{
    Listener_Server server(Listener_Kind::TLS);
    EXPECT_TRUE(wait_for_exact_line(server.host(),
                                    "INFO HTTPS " + server.address() + ":8443 is listening."));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, starts_without_reading_certificate_authorities)
{
    const Temporary_Folder folder;
    const std::string fifo = folder.path() + "/fifo"; // who opens it waits for a writer
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const Environment_Variable authorities("SSL_CERT_FILE", fifo);
    Listener_Server server(Listener_Kind::TLS);
    expect_service(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(0U, server.host().count_log("ACE_SSL")) << server.host().log_text();
}

TEST(HTTP_TLS_Listener, tells_plug_ins_of_the_peer_and_of_encryption)
{
    Listener_Server server(Listener_Kind::TLS);
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    const std::string name = local_name_of(client->handle());
    const std::string host = name.substr(0, name.find(':'));
    EXPECT_EQ("remote=" + host + " original=" + host + " ssl=1 inet=0 unix=-1 nodelay=0 timeout=0",
              client->exchange(get_request("/probe/addresses")).body);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, handles_a_whole_record_without_waiting_for_more_input)
{
    Listener_Server server(Listener_Kind::TLS, one_loop());
    // Header and body fill one record, which is twice the receive buffer, and not a byte follows.
    for (const char* target : {"/probe/count", "/probe/thread/count"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        const size_t head = body_request("POST", target, std::string(16000, 'b')).size() - 16000;
        const size_t body = SSL3_RT_MAX_PLAIN_LENGTH - head;
        for (const size_t length : {body, body - 1, size_t{8192} - head, size_t{8193} - head}) {
            EXPECT_EQ(
                std::to_string(length),
                client->exchange(body_request("POST", target, std::string(length, 'b'))).body);
        }
        // Many requests in one record.
        std::string requests;
        for (int i = 0; i < 200; ++i) {
            requests += get_request("/probe/hello");
        }
        ASSERT_LT(requests.size(), size_t{SSL3_RT_MAX_PLAIN_LENGTH});
        ASSERT_TRUE(client->send(requests));
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ("Hello, World!", client->read_response().body) << i;
        }
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, request_that_comes_with_the_end_of_the_handshake_is_served)
{
    Listener_Server server(Listener_Kind::TLS);
    const std::string upload = body_request("POST", "/probe/count", std::string(9000, 'b'));
    for (const std::string& requests :
         {get_request("/probe/hello"), get_request("/probe/thread"),
          upload + get_request("/probe/hello"), get_request("/probe/hello").substr(0, 20)}) {
        const auto client = Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()),
                                                TLS1_3_VERSION, requests);
        ASSERT_NE(nullptr, client);
        if (requests.find("\r\n\r\n") == std::string::npos) { // the rest comes later
            ASSERT_TRUE(
                client->wire().send(client->encrypt(get_request("/probe/hello").substr(20))));
        }
        EXPECT_NE(std::string::npos, client->read_until("Hello, World!").find("Hello, World!"));
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, delivers_a_mebibyte_in_full_records)
{
    Listener_Server server(Listener_Kind::TLS, one_loop());
    const std::string body(1024 * 1024, 'b');
    for (const char* target : {"/probe/count", "/probe/thread/count"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        EXPECT_EQ("1048576", client->exchange(body_request("POST", target, body)).body);
        EXPECT_EQ("1048576", client->exchange(chunked_request("POST", target, {body})).body);
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, partial_record_holds_nobody_up)
{
    Listener_Server server(Listener_Kind::TLS, one_loop());
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto slow =
            Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()), version);
        ASSERT_NE(nullptr, slow);
        const auto other = server.connect();
        ASSERT_NE(nullptr, other);
        const std::string records = slow->encrypt(get_request("/probe/hello"));
        // The one loop has seen each byte before it serves the other connection: events are
        // handed out in the order in which descriptors became ready.
        for (const char byte : records) {
            ASSERT_TRUE(slow->wire().send(std::string(1, byte)));
            expect_hello(*other);
        }
        const std::string answer = slow->read_until("Hello, World!");
        EXPECT_EQ(0U, answer.find("HTTP/1.1 200 OK\r\n"));
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(Lines(), texts_of(server.host(), "ERROR"));
}

TEST(HTTP_TLS_Listener, records_are_served_that_come_with_a_part_of_the_next)
{
    Listener_Server server(Listener_Kind::TLS, one_loop());
    const std::string request = get_request("/probe/hello");
    for (const std::string& first : {request, get_request("/probe/thread")}) {
        const auto client = Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()));
        ASSERT_NE(nullptr, client);
        const auto expect_answers = [&client](size_t wanted) {
            size_t count = 0;
            while (count < wanted) {
                const std::string text = client->read_until("Hello, World!");
                const size_t before = count;
                for (size_t at = text.find("HTTP/1.1 200"); at != std::string::npos;
                     at = text.find("HTTP/1.1 200", at + 1)) {
                    ++count;
                }
                ASSERT_GT(count, before);
            }
            EXPECT_EQ(wanted, count);
        };
        // Two requests in one record, a request across two records, and records cut everywhere.
        const std::string cut = client->encrypt(first);
        ASSERT_TRUE(client->wire().send(cut));
        expect_answers(1);
        for (size_t at = 0; at <= cut.size(); at += 3) {
            SCOPED_TRACE(at);
            std::string records = client->encrypt(request + request);
            records += client->encrypt(request.substr(0, 10));
            records += client->encrypt(request.substr(10));
            const std::string next = client->encrypt(request);
            const size_t part = std::min(at, next.size());
            ASSERT_TRUE(client->wire().send(records + next.substr(0, part)));
            expect_answers(part == next.size() ? 4 : 3);
            if (part < next.size()) {
                ASSERT_TRUE(client->wire().send(next.substr(part)));
                expect_answers(1);
            }
        }
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(Lines(), texts_of(server.host(), "ERROR"));
}

TEST(HTTP_TLS_Listener, partial_record_in_a_worker_thread_is_waited_for)
{
    Listener_Server server(Listener_Kind::TLS, one_loop());
    const auto slow = Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()));
    ASSERT_NE(nullptr, slow);
    ASSERT_TRUE(slow->wire().send(slow->encrypt(get_request("/probe/thread"))));
    EXPECT_NE(std::string::npos, slow->read_until("Hello, World!").find("HTTP/1.1 200 OK"));
    const std::string records = slow->encrypt(get_request("/probe/hello"));
    const auto other = server.connect();
    ASSERT_NE(nullptr, other);
    for (const char byte : records) {
        ASSERT_TRUE(slow->wire().send(std::string(1, byte)));
        expect_hello(*other);
    }
    EXPECT_NE(std::string::npos, slow->read_until("Hello, World!").find("HTTP/1.1 200 OK"));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, header_and_small_body_leave_in_one_record)
{
    Listener_Server server(Listener_Kind::TLS);
    const auto client =
        Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()), TLS1_2_VERSION);
    ASSERT_NE(nullptr, client);
    for (const char* target : {"/probe/hello", "/probe/vector"}) {
        ASSERT_TRUE(client->wire().send(client->encrypt(get_request(target))));
        std::string records;
        std::string text;
        while (text.find("World!") == std::string::npos) {
            const std::string bytes = client->wire().receive();
            ASSERT_FALSE(bytes.empty());
            records += bytes;
            text += client->decrypt(bytes);
        }
        EXPECT_EQ(std::vector<int>{SSL3_RT_APPLICATION_DATA}, record_types(records)) << target;
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, silent_client_is_given_up)
{
    Listener_Server server(Listener_Kind::TLS, short_accept());
    const auto other = server.connect();
    ASSERT_NE(nullptr, other);
    expect_hello(*other);
    const size_t before = process_descriptors(server.host().pid()).count;
    const auto silent = Wire_Client::tcp(server.address(), server.port());
    ASSERT_NE(nullptr, silent);
    EXPECT_TRUE(wait_for_exact_line(server.host(), failed_accept(local_name_of(silent->handle()))));
    EXPECT_TRUE(silent->is_closed_by_peer());
    EXPECT_EQ(before, process_descriptors(server.host().pid()).count);
    expect_hello(*other);
    expect_service(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, silent_clients_without_a_time_limit_hold_no_other_up)
{
    Probe_Server::Setup no_limit;
    no_limit.options = {"--accept-timeout=-1"};
    Listener_Server server(Listener_Kind::TLS, no_limit);
    std::vector<std::unique_ptr<Wire_Client>> silent;
    for (int i = 0; i < 100; ++i) {
        silent.push_back(Wire_Client::tcp(server.address(), server.port()));
        ASSERT_NE(nullptr, silent.back());
        // Every other one has begun: the first bytes of a ClientHello.
        ASSERT_TRUE(i % 2 == 0 || silent.back()->send(std::string("\x16\x03\x01\x02\x00\x01", 6)));
    }
    expect_service(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM)) << "it waits for none of them";
    EXPECT_EQ(Lines(), texts_of(server.host(), "ERROR"));
    for (const auto& client : silent) {
        EXPECT_TRUE(client->is_closed_by_peer());
    }
}

TEST(HTTP_TLS_Listener, half_a_handshake_is_given_up)
{
    Listener_Server server(Listener_Kind::TLS, short_accept());
    const auto client = Wire_Client::tcp(server.address(), server.port());
    ASSERT_NE(nullptr, client);
    // The first bytes of a ClientHello.
    ASSERT_TRUE(client->send(std::string("\x16\x03\x01\x02\x00\x01\x00", 7)));
    EXPECT_TRUE(wait_for_exact_line(server.host(), failed_accept(local_name_of(client->handle()))));
    EXPECT_TRUE(client->is_closed_by_peer());
    expect_service(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, client_that_goes_before_its_handshake_is_one_error_line)
{
    Listener_Server server(Listener_Kind::TLS);
    auto client = Wire_Client::tcp(server.address(), server.port());
    ASSERT_NE(nullptr, client);
    const std::string line = failed_accept(local_name_of(client->handle()));
    client.reset();
    EXPECT_TRUE(wait_for_exact_line(server.host(), line));
    expect_service(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(1U, texts_of(server.host(), "ERROR").size());
}

TEST(HTTP_TLS_Listener, plain_HTTP_is_refused)
{
    Listener_Server server(Listener_Kind::TLS);
    expect_service(server);
    for (int i = 0; i < 5; ++i) {
        const auto plain = Wire_Client::tcp(server.address(), server.port());
        ASSERT_NE(nullptr, plain);
        ASSERT_TRUE(plain->send(get_request("/probe/hello")));
        EXPECT_EQ(std::string::npos, plain->read_to_end().find("Hello"));
        EXPECT_TRUE(plain->at_end());
        EXPECT_TRUE(
            wait_for_exact_line(server.host(), failed_accept(local_name_of(plain->handle()))));
    }
    expect_service(server);
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(5U, texts_of(server.host(), "ERROR").size());
}

TEST(HTTP_TLS_Listener, versions_from_1_2_up_are_spoken)
{
    Listener_Server server(Listener_Kind::TLS);
    const auto connect = [&server](int version) {
        return Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()), version);
    };
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto client = connect(version);
        ASSERT_NE(nullptr, client) << version;
        ASSERT_TRUE(client->wire().send(client->encrypt(get_request("/probe/hello"))));
        EXPECT_EQ(0U, client->read_until("Hello, World!").find("HTTP/1.1 200 OK"));
    }
    EXPECT_EQ(nullptr, connect(TLS1_1_VERSION));
    EXPECT_EQ(nullptr, connect(TLS1_VERSION));
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    const Lines errors = texts_of(server.host(), "ERROR");
    ASSERT_EQ(2U, errors.size()); // of the two old versions alone
    for (const std::string& error : errors) {
        EXPECT_EQ(0U, error.find("Failed to accept connection from '127.")) << error;
    }
}

TEST(HTTP_TLS_Listener, end_without_close_notify_is_an_ordinary_end)
{
    Listener_Server server(Listener_Kind::TLS);
    for (const char* target : {"/probe/hello", "/probe/thread"}) {
        const auto client = server.connect();
        ASSERT_NE(nullptr, client);
        EXPECT_EQ(200, client->exchange(get_request(target)).status);
        ASSERT_EQ(0, ::shutdown(client->handle(), SHUT_WR));
        EXPECT_TRUE(client->is_closed_by_peer());
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
    EXPECT_EQ(Lines(), texts_of(server.host(), "ERROR"));
}

TEST(HTTP_TLS_Listener, client_gets_close_notify)
{
    Listener_Server server(Listener_Kind::TLS);
    const auto client =
        Tls_Pieces::connect(Wire_Client::tcp(server.address(), server.port()), TLS1_2_VERSION);
    ASSERT_NE(nullptr, client);
    ASSERT_TRUE(
        client->wire().send(client->encrypt(get_request("/probe/hello", {"Connection: close"}))));
    EXPECT_EQ((std::vector<int>{SSL3_RT_APPLICATION_DATA, SSL3_RT_ALERT}),
              record_types(client->wire().read_to_end()));
    EXPECT_TRUE(client->wire().at_end());
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}

TEST(HTTP_TLS_Listener, slow_reader_in_a_thread_gets_everything)
{
    Listener_Server server(Listener_Kind::TLS, one_loop());
    const auto slow = server.connect();
    ASSERT_NE(nullptr, slow);
    std::string requests;
    for (int i = 0; i < 8; ++i) {
        requests += get_request("/probe/thread/large");
    }
    ASSERT_TRUE(slow->send(requests)); // 8 MiB that nobody reads yet
    ASSERT_TRUE(server.host().wait_for_log("probe: handle_request GET /probe/thread/large"));
    for (int i = 0; i < 20; ++i) {
        expect_service(server);
    }
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(std::string(1024 * 1024, 'x'), slow->read_response().body);
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
