// The sender-list validator: every spelling of an entry gives its one
// canonical form, in the spelling sendmail's access map matches; what is
// not an entry is refused with the reason.
#include "validation.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// "KIND VALUE" or "refused: DETAIL".
std::string Check(const std::string& text) {
  try {
    std::string kind;
    const std::string value = zelpnl::Sender(text, &kind);
    return kind + " " + value;
  } catch (const zelpnl::Invalid& e) {
    EXPECT_EQ(e.object(), "sender " + zelpnl::Quote(text));
    return "refused: " + e.detail();
  }
}

}  // namespace

TEST(SenderTest, AddressesAndDomainsAreLowerCase) {
  EXPECT_EQ(Check("Friend@Partner.Example"), "address friend@partner.example");
  EXPECT_EQ(Check("Spam.EXAMPLE"), "domain spam.example");
}

TEST(SenderTest, Ipv4AddressesAndNetworks) {
  EXPECT_EQ(Check("192.0.2.7"), "ipv4 192.0.2.7");
  EXPECT_EQ(Check("192.0.2"), "ipv4-network 192.0.2");
  EXPECT_EQ(Check("10"), "ipv4-network 10");
  EXPECT_EQ(Check("192.0.2.0/24"), "ipv4-network 192.0.2");
  EXPECT_EQ(Check("192.0.2.7/32"), "ipv4 192.0.2.7");
}

// The compressed and the uncompressed spelling of one address are one
// entry, written as sendmail presents a client.
TEST(SenderTest, Ipv6AddressesAndNetworksHaveOneSpelling) {
  EXPECT_EQ(Check("2001:DB8::9"), "ipv6 2001:db8:0:0:0:0:0:9");
  EXPECT_EQ(Check("2001:db8:0:0:0:0:0:9"), "ipv6 2001:db8:0:0:0:0:0:9");
  EXPECT_EQ(Check("IPv6:0:0:0:0:0:0:0:1"), "ipv6 0:0:0:0:0:0:0:1");
  EXPECT_EQ(Check("::1"), "ipv6 0:0:0:0:0:0:0:1");
  EXPECT_EQ(Check("2001:db8"), "ipv6-network 2001:db8");
  EXPECT_EQ(Check("2001:db8::/32"), "ipv6-network 2001:db8");
  EXPECT_EQ(Check("IPv6:2001"), "ipv6-network IPv6:2001");
  EXPECT_EQ(Check("::ffff:192.0.2.7"), "ipv4 192.0.2.7");
}

TEST(SenderTest, NetworksSendmailCannotMatchAreRefusedWithTheReason) {
  EXPECT_EQ(Check("192.0.2.0/20"),
            "refused: is a /20 network, which does not end on a whole octet (/8, /16, /24 or "
            "/32)");
  EXPECT_EQ(Check("192.0.2.1/24"), "refused: has bits set beyond its /24 prefix");
  EXPECT_EQ(Check("2001:db8::/33"),
            "refused: is a /33 network, which does not end on a whole group (/16, /32, /48, "
            "/64, /80, /96, /112 or /128)");
}

TEST(SenderTest, WhatIsNoEntryIsRefusedWithTheReason) {
  const std::string not_ipv4 =
      "refused: is not an IPv4 address or network (one to four numbers from 0 to 255, joined "
      "by dots)";
  const std::string not_ipv6 =
      "refused: is not an IPv6 address or network (an address such as 2001:db8::7, or the "
      "leading groups of one such as 2001:db8)";
  EXPECT_EQ(Check("300.1.1.1"), not_ipv4);
  EXPECT_EQ(Check("1.2.3.4.5"), not_ipv4);
  EXPECT_EQ(Check("2001:db8::zz"), not_ipv6);
  EXPECT_EQ(Check("2001:db8:"), not_ipv6);
  EXPECT_EQ(Check("Connect:192.0.2.5"),
            "refused: starts with the tag \"Connect:\"; give the sender alone (an address, a "
            "domain, an IP address or network)");
  EXPECT_EQ(Check("From:spam.example"),
            "refused: starts with the tag \"From:\"; give the sender alone (an address, a "
            "domain, an IP address or network)");
  EXPECT_EQ(Check("bad_name.example"),
            "refused: is neither an e-mail address, a domain name, nor an IPv4 or IPv6 address "
            "or network");
  EXPECT_EQ(Check(""), "refused: is empty");
  EXPECT_EQ(Check("a b.example"), "refused: contains a blank");
}

TEST(QuotaTest, SizesTakeBinaryUnits) {
  EXPECT_EQ(zelpnl::QuotaBytes("0"), 0);
  EXPECT_EQ(zelpnl::QuotaBytes("1000"), 1000);
  EXPECT_EQ(zelpnl::QuotaBytes("4k"), 4096);
  EXPECT_EQ(zelpnl::QuotaBytes("512M"), 512LL << 20);
  EXPECT_EQ(zelpnl::QuotaBytes("2G"), 2LL << 30);
  EXPECT_EQ(zelpnl::QuotaBytes("1024T"), 1LL << 50);
  for (const char* bad : {"", "M", "-1", "1.5G", "1 G", "1025T", "12X", "99999999999999999"})
    EXPECT_THROW(zelpnl::QuotaBytes(bad), zelpnl::Invalid) << bad;
}

TEST(QuotaTest, SizesAreShownInTheLargestUnitThatDividesThem) {
  EXPECT_EQ(zelpnl::QuotaText(0), "0");
  EXPECT_EQ(zelpnl::QuotaText(1000), "1000");
  EXPECT_EQ(zelpnl::QuotaText(4096), "4K");
  EXPECT_EQ(zelpnl::QuotaText(512LL << 20), "512M");
  EXPECT_EQ(zelpnl::QuotaText(3LL << 30), "3G");
  EXPECT_EQ(zelpnl::QuotaText(1LL << 50), "1024T");
}
