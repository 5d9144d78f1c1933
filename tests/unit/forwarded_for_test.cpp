#include "httpd/detail/forwarded_for.h"
#include "support/addr_string.h"

#include <ace/INET_Addr.h>

#include <gtest/gtest.h>

namespace {

std::string host_of(const ACE_INET_Addr& address)
{
    constexpr bool WITHOUT_PORT = false;
    return ACE_Addr_String(address, WITHOUT_PORT).c_str();
}

} // namespace

TEST(Forwarded_For, takes_the_trimmed_text_before_the_first_comma)
{
    EXPECT_EQ("192.0.2.7", first_forwarded_for(" 192.0.2.7 , 10.0.0.1"));
    EXPECT_EQ("192.0.2.7", first_forwarded_for("192.0.2.7"));
    EXPECT_EQ("", first_forwarded_for("  "));
}

TEST(Forwarded_For, takes_the_whole_field_when_nothing_stands_before_the_comma)
{
    EXPECT_EQ(", 192.0.2.7 ", first_forwarded_for(", 192.0.2.7 "));
    EXPECT_EQ("", first_forwarded_for(""));
}

TEST(Forwarded_For, replaces_the_host_and_sets_port_0)
{
    for (const char* text : {"192.0.2.7", "2001:db8::1"}) {
        ACE_INET_Addr address(4711, "127.0.0.1");
        ASSERT_TRUE(set_forwarded_for(address, text));
        EXPECT_EQ(text, host_of(address));
        EXPECT_EQ(0, address.get_port_number());
    }
}

TEST(Forwarded_For, leaves_the_address_alone_when_the_field_names_none)
{
    for (const char* text :
         {"", "unknown", "192.0.2.300", "192.0.2.7:80", "[2001:db8::1]", ",192.0.2.7", "::g"}) {
        SCOPED_TRACE(text);
        ACE_INET_Addr address(4711, "127.0.0.1");
        EXPECT_FALSE(set_forwarded_for(address, text));
        EXPECT_EQ("127.0.0.1", host_of(address));
        EXPECT_EQ(4711, address.get_port_number());
    }
}
