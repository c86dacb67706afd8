// pnl_net: addresses and networks in their one canonical spelling.
#include "zelapi/net.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using pnl_net::Family;
using pnl_net::Network;
using pnl_net::Parsed;

// "ipv4 192.0.2.7", "ipv6-network 2001:db8", or "invalid: WHY", "not an address".
std::string Read(const std::string& text) {
  Network net;
  std::string why;
  switch (pnl_net::Parse(text, &net, &why)) {
    case Parsed::kNotAnAddress:
      return "not an address";
    case Parsed::kInvalid:
      return "invalid: " + why;
    case Parsed::kOk:
      break;
  }
  return std::string(net.family == Family::kIpv4 ? "ipv4" : "ipv6") +
         (net.prefix ? "-network " : " ") + net.Text();
}

const char kNotIpv4[] =
    "invalid: is not an IPv4 address or network (one to four numbers from 0 to 255, joined by "
    "dots)";
const char kNotIpv6[] =
    "invalid: is not an IPv6 address or network (an address such as 2001:db8::7, or the "
    "leading groups of one such as 2001:db8)";

}  // namespace

TEST(NetTest, Ipv4AddressesAndTheirLeadingOctets) {
  EXPECT_EQ(Read("192.0.2.7"), "ipv4 192.0.2.7");
  EXPECT_EQ(Read("192.0.2"), "ipv4-network 192.0.2");
  EXPECT_EQ(Read("10.0"), "ipv4-network 10.0");
  EXPECT_EQ(Read("10"), "ipv4-network 10");
  EXPECT_EQ(Read("0.0.0.0"), "ipv4 0.0.0.0");
}

TEST(NetTest, MalformedIpv4IsInvalidNotSomethingElse) {
  for (const char* text : {"300.1.1.1", "1.2.3.4.5", "192.0.2.", "192..2", "192.00.2", "256",
                           "1.2.3.04", "1234"})
    EXPECT_EQ(Read(text), kNotIpv4) << text;
}

TEST(NetTest, Ipv4CidrOnAWholeOctetBecomesItsLeadingOctets) {
  EXPECT_EQ(Read("192.0.2.0/24"), "ipv4-network 192.0.2");
  EXPECT_EQ(Read("10.0.0.0/8"), "ipv4-network 10");
  EXPECT_EQ(Read("172.16.0.0/16"), "ipv4-network 172.16");
  EXPECT_EQ(Read("192.0.2.7/32"), "ipv4 192.0.2.7");
  EXPECT_EQ(Read("192.0.2.0/20"),
            "invalid: is a /20 network, which does not end on a whole octet (/8, /16, /24 or "
            "/32)");
  EXPECT_EQ(Read("0.0.0.0/0"),
            "invalid: is a /0 network, which does not end on a whole octet (/8, /16, /24 or /32)");
  EXPECT_EQ(Read("192.0.2.5/24"), "invalid: has bits set beyond its /24 prefix");
  for (const char* text : {"192.0.2/24", "192.0.2.0/33", "192.0.2.0/024", "192.0.2.0/", "1/2/3"})
    EXPECT_EQ(Read(text), kNotIpv4) << text;
}

// Every spelling of an IPv6 address is one: all eight groups, in lower-case
// hex without leading zeros, no "::".
TEST(NetTest, Ipv6AddressesAreWrittenUncompressed) {
  EXPECT_EQ(Read("::1"), "ipv6 0:0:0:0:0:0:0:1");
  EXPECT_EQ(Read("0:0:0:0:0:0:0:1"), "ipv6 0:0:0:0:0:0:0:1");
  EXPECT_EQ(Read("2001:DB8::7"), "ipv6 2001:db8:0:0:0:0:0:7");
  EXPECT_EQ(Read("2001:0db8:0000:0000:0000:0000:0000:0007"), "ipv6 2001:db8:0:0:0:0:0:7");
  EXPECT_EQ(Read("IPv6:2001:db8::7"), "ipv6 2001:db8:0:0:0:0:0:7");
  EXPECT_EQ(Read("ipv6:::1"), "ipv6 0:0:0:0:0:0:0:1");
  EXPECT_EQ(Read("::"), "ipv6 0:0:0:0:0:0:0:0");
  EXPECT_EQ(Read("::102:304"), "ipv6 0:0:0:0:0:0:102:304");
  EXPECT_EQ(Read("::1.2.3.4"), "ipv6 0:0:0:0:0:0:102:304");
}

TEST(NetTest, AnIpv4MappedAddressIsItsIpv4Address) {
  EXPECT_EQ(Read("::ffff:192.0.2.7"), "ipv4 192.0.2.7");
  EXPECT_EQ(Read("::FFFF:c000:207"), "ipv4 192.0.2.7");
  EXPECT_EQ(Read("::ffff:192.0.2.7/128"), "ipv4 192.0.2.7");
}

TEST(NetTest, Ipv6NetworksAreTheirLeadingGroups) {
  EXPECT_EQ(Read("2001:db8"), "ipv6-network 2001:db8");
  EXPECT_EQ(Read("2001:0DB8:00a0"), "ipv6-network 2001:db8:a0");
  EXPECT_EQ(Read("1:2:3:4:5:6:7"), "ipv6-network 1:2:3:4:5:6:7");
  EXPECT_EQ(Read("IPv6:2001"), "ipv6-network IPv6:2001");
  EXPECT_EQ(Read("IPv6:fe80:0"), "ipv6-network fe80:0");
}

TEST(NetTest, Ipv6CidrOnAWholeGroupBecomesItsLeadingGroups) {
  EXPECT_EQ(Read("2001:db8::/32"), "ipv6-network 2001:db8");
  EXPECT_EQ(Read("2001:db8:0:a::/64"), "ipv6-network 2001:db8:0:a");
  EXPECT_EQ(Read("2001::/16"), "ipv6-network IPv6:2001");
  EXPECT_EQ(Read("::/112"), "ipv6-network 0:0:0:0:0:0:0");
  EXPECT_EQ(Read("2001:db8::7/128"), "ipv6 2001:db8:0:0:0:0:0:7");
  EXPECT_EQ(Read("IPv6:2001:db8::/48"), "ipv6-network 2001:db8:0");
  EXPECT_EQ(Read("2001:db8::/36"),
            "invalid: is a /36 network, which does not end on a whole group (/16, /32, /48, "
            "/64, /80, /96, /112 or /128)");
  EXPECT_EQ(Read("::/0"),
            "invalid: is a /0 network, which does not end on a whole group (/16, /32, /48, /64, "
            "/80, /96, /112 or /128)");
  EXPECT_EQ(Read("2001:db8::1/64"), "invalid: has bits set beyond its /64 prefix");
  for (const char* text : {"2001:db8/32", "2001:db8::/129", "2001:db8::/"})
    EXPECT_EQ(Read(text), kNotIpv6) << text;
}

TEST(NetTest, MalformedIpv6IsInvalidNotSomethingElse) {
  for (const char* text : {"2001:db8:", ":2001", "2001::db8::1", "1:2:3:4:5:6:7:8:9", "12345:1",
                           "2001:db8::1.2.3", "IPv6:", "IPv6:zz", "IPv6:192.0.2.1"})
    EXPECT_EQ(Read(text), kNotIpv6) << text;
}

TEST(NetTest, NamesAndOtherTextAreNoAddresses) {
  for (const char* text : {"", "example.com", "a@b.example", "Connect:192.0.2.7", "From:x",
                           "2001:db8::zz", ".1", "/24", "abc", "192.0.2.7 ", " 192.0.2.7"})
    EXPECT_EQ(Read(text), "not an address") << text;
  EXPECT_EQ(Read(std::string("1.2\0.3", 6)), "not an address");
}

TEST(NetTest, CompressedIpv6IsTheUsualSpelling) {
  EXPECT_EQ(pnl_net::CompressedIpv6("2001:db8:0:0:0:0:0:7"), "2001:db8::7");
  EXPECT_EQ(pnl_net::CompressedIpv6("0:0:0:0:0:0:0:1"), "::1");
  EXPECT_EQ(pnl_net::CompressedIpv6("192.0.2.7"), "");
  EXPECT_EQ(pnl_net::CompressedIpv6("2001:db8"), "");
}
