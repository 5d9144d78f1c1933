#include "httpd/detail/send_outcome.h"

#include <gtest/gtest.h>

namespace {

constexpr bool YES = true;
constexpr bool NO = false;

struct Row {
    const char* name;
    Send_Facts facts; // headers, piece, head, chunked, keep, complete, last
    HTTP_SOCK_State state;
    int result;
};

const Row ROWS[] = {
    {"head, kept", {YES, NO, YES, NO, YES, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENT, 0},
    {"head, kept, not last", {YES, NO, YES, NO, YES, NO, NO}, HTTP_SOCK_STATE_CONTENT_SENT, 0},
    {"head, closed", {YES, NO, YES, NO, NO, NO, NO}, HTTP_SOCK_STATE_CONTENT_SENT, -1},
    {"kept, headers alone", {YES, NO, NO, NO, YES, NO, NO}, HTTP_SOCK_STATE_HEADER_SENT, 0},
    {"kept, last is not consulted",
     {YES, NO, NO, NO, YES, NO, YES},
     HTTP_SOCK_STATE_HEADER_SENT,
     0},
    {"kept, a piece", {YES, YES, NO, NO, YES, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENDING, 0},
    {"kept, complete", {YES, YES, NO, NO, YES, YES, NO}, HTTP_SOCK_STATE_CONTENT_SENT, 0},
    {"closed, headers alone", {YES, NO, NO, NO, NO, NO, NO}, HTTP_SOCK_STATE_HEADER_SENT, 0},
    {"closed, a piece", {YES, YES, NO, NO, NO, YES, NO}, HTTP_SOCK_STATE_CONTENT_SENDING, 0},
    {"closed, last", {YES, YES, NO, NO, NO, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENT, -1},
    {"chunked, headers alone", {YES, NO, NO, YES, YES, NO, NO}, HTTP_SOCK_STATE_HEADER_SENT, 0},
    {"chunked, a piece", {YES, YES, NO, YES, YES, YES, NO}, HTTP_SOCK_STATE_CONTENT_SENDING, 0},
    {"chunked, last, kept", {YES, YES, NO, YES, YES, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENT, 0},
    {"chunked, last, closed", {YES, NO, NO, YES, NO, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENT, -1},
    {"body, kept, more", {NO, YES, NO, NO, YES, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENDING, 0},
    {"body, kept, complete", {NO, YES, NO, NO, YES, YES, NO}, HTTP_SOCK_STATE_CONTENT_SENT, 0},
    {"body, closed, more", {NO, YES, NO, NO, NO, YES, NO}, HTTP_SOCK_STATE_CONTENT_SENDING, 0},
    {"body, closed, last", {NO, YES, NO, NO, NO, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENT, -1},
    {"body, chunked, more", {NO, YES, NO, YES, YES, NO, NO}, HTTP_SOCK_STATE_CONTENT_SENDING, 0},
    {"body, chunked, last", {NO, YES, NO, YES, YES, NO, YES}, HTTP_SOCK_STATE_CONTENT_SENT, 0},
};

} // namespace

TEST(Send_Outcome, follows_its_table)
{
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.name);
        const Send_Outcome outcome = send_outcome(row.facts);
        EXPECT_EQ(row.state, outcome.state);
        EXPECT_EQ(row.result, outcome.result);
    }
}
