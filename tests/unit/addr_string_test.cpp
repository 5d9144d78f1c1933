#include "support/addr_string.h"

#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>
#include <ace/UNIX_Addr.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <string>

namespace {

std::string text_of(const ACE_Addr& address, bool with_port)
{
    const ACE_Addr_String text(address, with_port);
    return text.c_str() == nullptr ? "(null)" : text.c_str();
}

struct Row {
    const char* address;
    const char* with_port;
    const char* host;
};

const Row ROWS[] = {
    {"127.0.0.1:8080", "127.0.0.1:8080", "127.0.0.1"},
    {"0.0.0.0:1", "0.0.0.0:1", "0.0.0.0"},
    {"255.255.255.255:65535", "255.255.255.255:65535", "255.255.255.255"},
    {"[::1]:80", "[::1]:80", "::1"},
    {"[::]:443", "[::]:443", "::"},
    {"[::ffff:10.1.2.3]:99", "10.1.2.3:99", "10.1.2.3"},
    {"[2001:db8:1234:5678:9abc:def0:1234:5678]:65535",
     "[2001:db8:1234:5678:9abc:def0:1234:5678]:65535", "2001:db8:1234:5678:9abc:def0:1234:5678"},
};

} // namespace

TEST(ACE_Addr_String, prints_internet_addresses_with_and_without_port)
{
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.address);
        const ACE_INET_Addr address(row.address);
        EXPECT_EQ(text_of(address, true), row.with_port);
        EXPECT_EQ(text_of(address, false), row.host);
    }
}

TEST(ACE_Addr_String, prints_the_zone_of_a_link_local_address)
{
    sockaddr_in6 raw{};
    raw.sin6_family = AF_INET6;
    raw.sin6_port = htons(80);
    raw.sin6_scope_id = 1; // the loopback interface
    ASSERT_EQ(inet_pton(AF_INET6, "fe80::1", &raw.sin6_addr), 1);
    ACE_INET_Addr address;
    address.set_addr(&raw, sizeof raw);
    EXPECT_EQ(text_of(address, true), "[fe80::1%lo]:80");
    EXPECT_EQ(text_of(address, false), "fe80::1%lo");
}

TEST(ACE_Addr_String, prints_the_path_of_a_unix_address_whatever_the_flag)
{
    const ACE_UNIX_Addr address("/run/x.sock");
    EXPECT_EQ(text_of(address, true), "/run/x.sock");
    EXPECT_EQ(text_of(address, false), "/run/x.sock");
}

TEST(ACE_Addr_String, prints_the_longest_path_as_a_whole)
{
    const std::string path(sizeof(sockaddr_un::sun_path) - 1, 'p');
    EXPECT_EQ(text_of(ACE_UNIX_Addr(path.c_str()), true), path);
}

TEST(ACE_Addr_String, an_unnamed_unix_peer_is_an_empty_text)
{
    EXPECT_EQ(text_of(ACE_UNIX_Addr(), true), "");
}

TEST(ACE_Addr_String, a_shared_memory_address_is_the_loopback_address_that_it_listens_on)
{
    EXPECT_EQ(text_of(ACE_MEM_Addr(5000), true), "127.0.0.1:5000");
    EXPECT_EQ(text_of(ACE_MEM_Addr(5000), false), "127.0.0.1");
}

TEST(ACE_Addr_String, an_address_of_no_kind_has_no_text)
{
    EXPECT_EQ(ACE_Addr_String(ACE_Addr(), true).c_str(), nullptr);
    EXPECT_EQ(ACE_Addr_String(ACE_Addr(), false).c_str(), nullptr);
}

TEST(ACE_Addr_String, unmap_makes_plain_ipv4_of_a_mapped_address_alone)
{
    ACE_INET_Addr mapped("[::ffff:10.1.2.3]:99");
    ASSERT_EQ(mapped.get_type(), AF_INET6);
    unmap_ipv4(mapped);
    EXPECT_EQ(mapped.get_type(), AF_INET);
    EXPECT_TRUE(mapped == ACE_INET_Addr("10.1.2.3:99"));

    for (const char* text : {"10.1.2.3:99", "[::1]:99", "[::]:0"}) {
        ACE_INET_Addr address(text);
        const ACE_INET_Addr before(address);
        unmap_ipv4(address);
        EXPECT_TRUE(address == before) << text;
    }
}
