#include "tests/support/probe_server.h"

#include <gtest/gtest.h>

#include <csignal>

TEST(HTTP_Keep_Alive, serves_many_requests_on_one_connection)
{
    Probe_Server server;
    const auto client = server.connect();
    ASSERT_NE(nullptr, client);
    for (int i = 0; i < 3; ++i) {
        const Wire_Response response = client->exchange(get_request("/probe/hello"));
        EXPECT_EQ("HTTP/1.1 200 OK", response.status_line);
        EXPECT_EQ("Hello, World!", response.body);
        EXPECT_EQ("Keep-Alive", response.field("connection"));
    }
    EXPECT_EQ(0, server.host().stop(SIGTERM));
}
