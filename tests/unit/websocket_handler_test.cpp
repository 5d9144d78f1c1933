#include "httpd/websocket_handler.h"

#include "httpd/websocket_io.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/// Supplies what the base class leaves open; a test may choose for it.
class Handler : public WebSocket_Handler {
public:
    using WebSocket_Handler::select_protocol;
    using WebSocket_Handler::subprotocol_;

    int handle_data_framing(const void*, size_t, bool, bool) override { return 0; }
};

/// Keeps the offers and chooses none or a fixed one.
class Choosing_Handler : public Handler {
public:
    using Handler::select_protocol;

    const char* select_protocol(const std::vector<std::string>& protocols) override
    {
        offers_ = protocols;
        return choice_;
    }

    std::vector<std::string> offers_;
    const char* choice_ = nullptr;
};

using Offers = std::vector<std::string>;

TEST(WebSocket_Handler, numbers_of_the_ways_to_run_are_fixed)
{
    EXPECT_EQ(WebSocket_Handler::INHERITED, 0);
    EXPECT_EQ(WebSocket_Handler::REACTIVE, 1);
    EXPECT_EQ(WebSocket_Handler::THREAD, 2);
    EXPECT_EQ(WebSocket_Handler::PROACTIVE, 3);
}

TEST(WebSocket_Handler, the_base_class_consents_to_everything)
{
    Handler handler;
    WebSocket_IO* const io = nullptr; // not touched
    EXPECT_EQ(handler.init(0, nullptr), 0);
    EXPECT_EQ(handler.fini(), 0);
    EXPECT_EQ(handler.handle_handshaked(), 0);
    EXPECT_EQ(handler.handle_close(WebSocket_Data_Frame::CLOSE_ABNORMAL, nullptr, 0), 0);
    EXPECT_EQ(handler.handle_ping(), 0);
    EXPECT_EQ(handler.concurrency(), WebSocket_Handler::INHERITED);
    EXPECT_EQ(io, nullptr);
}

TEST(WebSocket_Handler, splits_the_offers_at_commas)
{
    const struct {
        const char* header;
        Offers offers;
    } rows[] = {
        {"", {}},
        {",", {}},
        {", ,, ", {}},
        {"chat", {"chat"}},
        {"chat,superchat", {"chat", "superchat"}},
        {"chat, superchat", {"chat", "superchat"}},
        {"chat,   superchat,v3", {"chat", "superchat", "v3"}},
        {"chat , superchat", {"chat ", "superchat"}},
        {"chat, superchat ", {"chat", "superchat "}},
        {" chat", {" chat"}},
        {"  , chat", {"  ", "chat"}},
        {",chat", {"chat"}},
        {",,chat", {"chat"}},
        {", , chat", {"chat"}},
        {"chat,", {"chat"}},
        {"chat, ", {"chat"}},
        {"chat,,superchat", {"chat", "superchat"}},
        {"chat, ,superchat", {"chat", "superchat"}},
        {"a b,c d", {"a b", "c d"}},
        {"a,\tb", {"a", "\tb"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string("'") + row.header + "'");
        Choosing_Handler handler;
        EXPECT_EQ(handler.select_protocol(row.header), nullptr);
        EXPECT_EQ(handler.offers_, row.offers);
    }
}

TEST(WebSocket_Handler, no_header_is_no_choice)
{
    Choosing_Handler handler;
    handler.choice_ = "chat";
    handler.subprotocol_ = "before";
    const char* const header = nullptr;
    EXPECT_EQ(handler.select_protocol(header), nullptr);
    EXPECT_EQ(handler.subprotocol_, "before");
}

TEST(WebSocket_Handler, the_base_class_takes_the_first_offer)
{
    Handler handler;
    EXPECT_STREQ(handler.select_protocol("v2.chat, chat"), "v2.chat");
    EXPECT_EQ(handler.select_protocol(Offers{}), nullptr);
    const Offers offers = {"one", "two"};
    EXPECT_EQ(handler.select_protocol(offers), offers.front().c_str());
}

TEST(WebSocket_Handler, a_header_without_an_offer_is_no_choice)
{
    Handler handler;
    EXPECT_EQ(handler.select_protocol(", ,"), nullptr);
    EXPECT_EQ(handler.select_protocol(""), nullptr);
}

TEST(WebSocket_Handler, the_choice_is_kept_until_the_next_one)
{
    Handler handler;
    const char* const choice = handler.select_protocol("a-sub-protocol-of-a-long-name, chat");
    EXPECT_STREQ(choice, "a-sub-protocol-of-a-long-name");
    EXPECT_EQ(handler.subprotocol_, "a-sub-protocol-of-a-long-name");
    EXPECT_EQ(choice, handler.subprotocol_.c_str());
    EXPECT_STREQ(handler.select_protocol("chat"), "chat");
    EXPECT_EQ(handler.subprotocol_, "chat");
}

TEST(WebSocket_Handler, no_choice_leaves_the_earlier_one)
{
    Choosing_Handler handler;
    handler.choice_ = "chat";
    EXPECT_STREQ(handler.select_protocol("chat, superchat"), "chat");
    handler.choice_ = nullptr;
    EXPECT_EQ(handler.select_protocol("chat, superchat"), nullptr);
    EXPECT_EQ(handler.subprotocol_, "chat");
}

TEST(WebSocket_Handler, a_choice_that_lies_in_the_earlier_one_is_taken)
{
    Choosing_Handler handler;
    handler.subprotocol_ = "v1.chat";
    handler.choice_ = handler.subprotocol_.c_str() + 3;
    EXPECT_STREQ(handler.select_protocol("chat"), "chat");
    EXPECT_EQ(handler.subprotocol_, "chat");
}

} // namespace
