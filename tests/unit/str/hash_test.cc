// pnl_hash::Hash64: values that must never change (the panel keeps them in
// its database), and the folded variant agreeing with the plain one.
#include "zelapi/hash.h"

#include <gtest/gtest.h>

#include <string>

#include "zelapi/str.h"

TEST(HashTest, ValuesKeptInTheDatabaseStayTheSame) {
  // Hashes that the file states of earlier releases hold: a change would
  // make every cached file look rewritten.
  EXPECT_EQ(pnl_hash::Hash64(""), 0x226e040144470ef3ull);
  EXPECT_EQ(pnl_hash::Hash64("a"), 0xc579621339e5a90bull);
  EXPECT_EQ(pnl_hash::Hash64("root: admin\n"), 0x19833e1c80ba2ff6ull);
  EXPECT_EQ(pnl_hash::Hash64("0123456789abcdef"), 0x13ec7ec205fc5c18ull);
  EXPECT_EQ(pnl_hash::Hash64("0123456789abcdefg"), 0xec3ef5cb2bf07444ull);
  EXPECT_EQ(pnl_hash::Hash64(std::string("a\0b", 3)), 0x8ffb071c8cb77142ull);
}

TEST(HashTest, LengthCountsSoTrailingNulBytesMakeADifferentHash) {
  EXPECT_NE(pnl_hash::Hash64("ab"), pnl_hash::Hash64(std::string("ab\0", 3)));
  EXPECT_NE(pnl_hash::Hash64(""), pnl_hash::Hash64(std::string(8, '\0')));
}

TEST(HashTest, FoldedHashIsTheHashOfTheLowerCaseText) {
  for (const std::string text : {"", "A", "Root@Example.COM", "MAILER-DAEMON", "x\x80\xc3\x89Z[@`{",
                                 "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"})
    EXPECT_EQ(pnl_hash::Hash64Folded(text), pnl_hash::Hash64(str::Lower(text))) << text;
}

TEST(HashTest, LowerWordChangesOnlyTheCapitals) {
  for (unsigned c = 0; c < 256; ++c) {
    const std::uint64_t w = 0x4142434445464748ull & ~0xffull;
    const std::uint64_t lowered = pnl_hash::LowerWord(w | c);
    const unsigned expected = c >= 'A' && c <= 'Z' ? c + 32 : c;
    EXPECT_EQ(lowered & 0xff, expected) << c;
    EXPECT_EQ(lowered >> 8, 0x6162636465666700ull >> 8) << c;
  }
}
