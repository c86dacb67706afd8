#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zelapi/test.h"

namespace {

std::string Repeat(char c, size_t n) { return std::string(n, c); }

// A name of exactly n characters: labels of 63 "a" joined by dots, the last
// one shorter, then ".example" made to fit.
std::string DomainOfLength(size_t n) {
  std::string name = ".example";
  while (name.size() + 64 <= n) name = "." + Repeat('a', 63) + name;
  return Repeat('b', n - name.size()) + name;
}

void ExpectAll(bool (*check)(std::string&), const std::vector<std::string>& samples,
               bool valid) {
  for (const std::string& sample : samples) {
    std::string text = sample;
    EXPECT_EQ(check(text), valid) << "\"" << sample << "\"";
    if (!valid) {
      EXPECT_EQ(text, sample) << "a refused text must be left alone";
    }
  }
}

TEST(DomainTest, AcceptsHostNames) {
  ExpectAll(test::Domain,
            {"example.com", "a.b", "mail.example.co.uk", "EXAMPLE.Com", "x-y.example",
             "a--b.example", "xn--bcher-kva.example", "123.example", "1a.2b.example",
             "0.example.c0m", Repeat('a', 63) + ".example", "a." + Repeat('b', 63),
             DomainOfLength(253)},
            true);
}

TEST(DomainTest, RefusesBadLabelsAndShapes) {
  ExpectAll(test::Domain,
            {"", "localhost", ".", "example.com.", ".example.com", "a..b", "a.b..",
             "-a.example", "a-.example", "a.-example", "a.example-", "-.example",
             "a_b.example", "a b.example", "a.b c", "a@b.example", "exa!mple.com",
             "example.123", "1.2.3.4", "a.0", Repeat('a', 64) + ".example",
             "a." + Repeat('b', 64), DomainOfLength(254), DomainOfLength(300),
             std::string("a\0b.example", 11), "a.example\n", " a.example", "a.example\t"},
            false);
}

TEST(DomainTest, LengthLimitsCountCharacters) {
  ASSERT_EQ(DomainOfLength(253).size(), 253u);
  ASSERT_EQ(DomainOfLength(254).size(), 254u);
  std::string exact = DomainOfLength(253);
  EXPECT_TRUE(test::Domain(exact));
  std::string over = DomainOfLength(254);
  EXPECT_FALSE(test::Domain(over));
}

TEST(DomainTest, UnicodeNameIsCheckedAndReturnedInAsciiForm) {
  std::string text = "bücher.example";
  EXPECT_TRUE(test::Domain(text));
  EXPECT_EQ(text, "xn--bcher-kva.example");
  text = "mail.例え.テスト";
  EXPECT_TRUE(test::Domain(text));
  EXPECT_EQ(text, "mail.xn--r8jz45g.xn--zckzah");
}

TEST(DomainTest, AsciiNameIsLeftAsGiven) {
  std::string text = "Mail.Example.COM";
  EXPECT_TRUE(test::Domain(text));
  EXPECT_EQ(text, "Mail.Example.COM");
}

TEST(DomainTest, RefusesUnicodeNamesThatAreInvalidOrTooLong) {
  ExpectAll(test::Domain,
            {"bücher", "bücher.example.", "-bücher.example", "bücher..example", "\xff.example",
             "b\xc3.example", Repeat('a', 60) + "ü.example",
             "ü" + DomainOfLength(250).substr(1)},
            false);
}

TEST(EmailTest, AcceptsDotAtomAddresses) {
  ExpectAll(test::Email,
            {"user@example.com", "first.last@example.com", "a@b.c",
             "user+tag@example.com", "!#$%&'*+-/=?^_`{|}~@example.com", "O'Brien@example.ie",
             "x.y.z@mail.example.org", "123@example.com", Repeat('l', 64) + "@example.com",
             "USER@EXAMPLE.COM"},
            true);
}

TEST(EmailTest, RefusesBadLocalParts) {
  ExpectAll(test::Email,
            {"@example.com", ".user@example.com", "user.@example.com", "a..b@x.example",
             "\"quoted\"@example.com", "\"a b\"@example.com", "us er@example.com",
             "user(comment)@example.com", "a,b@example.com", "a;b@example.com",
             "a\\b@example.com", "a[b]@example.com", "a:b@example.com", "a<b>@example.com",
             "a\"b@example.com", "a@b@example.com", Repeat('l', 65) + "@example.com",
             "ü@example.com", "user\n@example.com"},
            false);
}

TEST(EmailTest, RefusesBadDomains) {
  ExpectAll(test::Email,
            {"user", "user@", "user@localhost", "user@example.com.", "user@.example.com",
             "user@-example.com", "user@example-.com", "user@exa_mple.com", "user@[1.2.3.4]",
             "user@1.2.3.4", "user@example..com", "user@example.com ",
             "user@" + Repeat('a', 64) + ".com"},
            false);
}

TEST(EmailTest, WholeAddressIsAtMost254Characters) {
  // 64 + 1 + 189 = 254, then one more.
  const std::string local = Repeat('l', 64);
  std::string fits = local + "@" + DomainOfLength(189);
  ASSERT_EQ(fits.size(), 254u);
  EXPECT_TRUE(test::Email(fits));
  std::string over = local + "@" + DomainOfLength(190);
  EXPECT_FALSE(test::Email(over));
  // The domain alone is valid at 253, but the address is then too long.
  std::string long_domain = "a@" + DomainOfLength(253);
  EXPECT_FALSE(test::Email(long_domain));
}

TEST(EmailTest, UnicodeDomainIsReturnedInAsciiFormAndCountedSo) {
  std::string text = "info@bücher.example";
  EXPECT_TRUE(test::Email(text));
  EXPECT_EQ(text, "info@xn--bcher-kva.example");
  // 250 characters as given (251 bytes), 257 once "bü" becomes "xn--b-eha".
  const std::string rest = DomainOfLength(182);
  std::string grows = Repeat('l', 64) + "@bü." + rest;
  EXPECT_FALSE(test::Email(grows));
  std::string shorter = Repeat('l', 61) + "@bü." + rest;
  EXPECT_TRUE(test::Email(shorter));
  EXPECT_EQ(shorter, Repeat('l', 61) + "@xn--b-eha." + rest);
}

TEST(EmailTest, LocalPartIsSplitAtTheLastAt) {
  std::string text = "a@b@example.com";
  EXPECT_FALSE(test::Email(text)) << "\"a@b\" is not a dot-atom";
  std::string plain = "user@example.com";
  EXPECT_TRUE(test::Email(plain));
  EXPECT_EQ(plain, "user@example.com");
}

TEST(IpTest, AcceptsIpv4AndIpv6Addresses) {
  ExpectAll(test::Ip,
            {"0.0.0.0", "1.2.3.4", "192.168.10.254", "255.255.255.255", "::", "::1",
             "2001:db8::1", "2001:DB8:0:0:0:0:0:1", "fe80::1:2:3:4", "::ffff:1.2.3.4",
             "::ffff:192.0.2.128", "64:ff9b::192.0.2.33", "1:2:3:4:5:6:7:8"},
            true);
}

TEST(IpTest, RefusesOtherForms) {
  ExpectAll(test::Ip,
            {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.-1", "01.2.3.4", "1.2.3.4 ",
             " 1.2.3.4", "0x1.2.3.4", "1.2.3.4/24", "1.2.3.", ".1.2.3.4", "1..2.3",
             "example.com", "1.2.3.a", "12345", "fe80::1%eth0", "fe80::1%1", "[::1]",
             "1:2:3:4:5:6:7:8:9", "1::2::3", ":::", "2001:db8::g", "::ffff:1.2.3",
             "::ffff:256.1.1.1", std::string("1.2.3.4\0", 8)},
            false);
}

TEST(Ip6Test, AcceptsIpv6AddressesOnly) {
  ExpectAll(test::Ip6,
            {"::", "::1", "2001:db8::1", "2001:0db8:0000:0000:0000:ff00:0042:8329",
             "::ffff:1.2.3.4", "fe80::1", "1:2:3:4:5:6:7::"},
            true);
  ExpectAll(test::Ip6,
            {"", "1.2.3.4", "127.0.0.1", "fe80::1%eth0", "2001:db8::1/64", "[2001:db8::1]",
             "2001:db8:::1", "12345::", "example.com", "::ffff:1.2.3"},
            false);
}

TEST(ConstTest, RunsTheCheckOnACopy) {
  const std::string unicode = "info@bücher.example";
  EXPECT_TRUE(test::Const<&test::Email>(unicode));
  EXPECT_EQ(unicode, "info@bücher.example");
  EXPECT_TRUE(test::Const<&test::Domain>("bücher.example"));
  EXPECT_FALSE(test::Const<&test::Email>("a..b@x.example"));
  EXPECT_TRUE(test::Const<&test::Ip>("2001:db8::1"));
  EXPECT_FALSE(test::Const<&test::Ip6>("1.2.3.4"));
}

}  // namespace
