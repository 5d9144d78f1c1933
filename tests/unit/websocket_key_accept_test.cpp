#include "support/websocket_key_accept.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

TEST(WebSocket_Key_Accept, derives_the_value_of_the_rfc_example)
{
    char accept[WEBSOCKET_ACCEPT_SIZE];
    ASSERT_EQ(0, websocket_key_accept("dGhlIHNhbXBsZSBub25jZQ==", accept)); // RFC 6455, 1.3
    EXPECT_STREQ("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", accept);
}

TEST(WebSocket_Key_Accept, derives_known_values)
{
    const struct {
        std::string key;
        const char* accept;
    } cases[] = {
        {"", "Kfh9QIsMVZcl6xEPYxPHzW8SZ8w="},
        {"x3JJHMbDL1EzLkh9GBhXDw==", "HSmrc0sMlYUkAGmm5OPpG2HaGWk="},
        {std::string(200, 'k'), "HXr7Nbki1tHdEVpq+a7G7IV4VJU="},
    };
    for (const auto& entry : cases) {
        char accept[WEBSOCKET_ACCEPT_SIZE];
        ASSERT_EQ(0, websocket_key_accept(entry.key.c_str(), accept));
        EXPECT_STREQ(entry.accept, accept) << entry.key;
    }
}

TEST(WebSocket_Key_Accept, writes_28_characters_and_the_end_and_no_more)
{
    char room[WEBSOCKET_ACCEPT_SIZE + 1];
    std::memset(room, '#', sizeof room);
    ASSERT_EQ(0, websocket_key_accept("dGhlIHNhbXBsZSBub25jZQ==", room));
    EXPECT_EQ(28U, std::strlen(room));
    EXPECT_EQ('#', room[WEBSOCKET_ACCEPT_SIZE]);
}

TEST(WebSocket_Key_Accept, refuses_what_is_not_there)
{
    char accept[WEBSOCKET_ACCEPT_SIZE] = "untouched";
    errno = 0;
    EXPECT_EQ(-1, websocket_key_accept(nullptr, accept));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_STREQ("untouched", accept);
    errno = 0;
    EXPECT_EQ(-1, websocket_key_accept("key", nullptr));
    EXPECT_EQ(EINVAL, errno);
}
