#include "zelapi/str.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdint>
#include <set>

namespace {

TEST(GetWordTest, ReturnsTextBeforeDelimiterAndRemovesBoth) {
  std::string text = "alias:target:more";
  EXPECT_EQ(str::GetWord(text, ':'), "alias");
  EXPECT_EQ(text, "target:more");
  EXPECT_EQ(str::GetWord(text, ':'), "target");
  EXPECT_EQ(text, "more");
}

TEST(GetWordTest, WithoutDelimiterReturnsAllAndEmptiesText) {
  std::string text = "more";
  EXPECT_EQ(str::GetWord(text, ':'), "more");
  EXPECT_EQ(text, "");
  EXPECT_EQ(str::GetWord(text, ':'), "");
  EXPECT_EQ(text, "");
}

TEST(GetWordTest, LeadingAndDoubledDelimitersGiveEmptyWords) {
  std::string text = "@@x@";
  EXPECT_EQ(str::GetWord(text, '@'), "");
  EXPECT_EQ(text, "@x@");
  EXPECT_EQ(str::GetWord(text, '@'), "");
  EXPECT_EQ(str::GetWord(text, '@'), "x");
  EXPECT_EQ(text, "");
}

TEST(RandomTest, ReturnsTheRequestedNumberOfBytes) {
  EXPECT_EQ(str::Random(0), "");
  EXPECT_EQ(str::Random(1).size(), 1u);
  EXPECT_EQ(str::Random(4).size(), 4u);
  EXPECT_EQ(str::Random(1000).size(), 1000u);
}

TEST(RandomTest, SuccessiveDrawsDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 20; ++i) seen.insert(str::Random(16));
  EXPECT_EQ(seen.size(), 20u);
}

// The operating system hands out at most 32 MiB per call: a larger request
// needs several, and every byte must be filled.
TEST(RandomTest, RequestLargerThanOneSystemCallIsFilledToTheEnd) {
  const size_t n = 40u << 20;
  const std::string bytes = str::Random(n);
  ASSERT_EQ(bytes.size(), n);
  const std::string tail = bytes.substr(n - 4096);
  EXPECT_NE(tail, std::string(4096, '\0'));
  EXPECT_NE(bytes.substr(n - (4u << 20), 4096), std::string(4096, '\0'));
}

TEST(RandomTest, TypedRandomValuesVary) {
  std::set<int> ints;
  std::set<uint64_t> wide;
  for (int i = 0; i < 32; ++i) {
    ints.insert(str::Random<int>());
    wide.insert(str::Random<uint64_t>());
  }
  EXPECT_GT(ints.size(), 28u);
  EXPECT_EQ(wide.size(), 32u);
}

TEST(StrTest, WritesDecimalWithSignWhenNegative) {
  EXPECT_EQ(str::Str(0), "0");
  EXPECT_EQ(str::Str(42), "42");
  EXPECT_EQ(str::Str(-7), "-7");
  EXPECT_EQ(str::Str(LONG_MAX), "9223372036854775807");
  EXPECT_EQ(str::Str(LONG_MIN), "-9223372036854775808");
}

TEST(ReplaceTest, ReplacesEveryOccurrence) {
  EXPECT_EQ(str::Replace("a@b@c", "@", "\\@"), "a\\@b\\@c");
  EXPECT_EQ(str::Replace("user+example.com", "+", "@"), "user@example.com");
  EXPECT_EQ(str::Replace("abcabc", "abc", ""), "");
  EXPECT_EQ(str::Replace("xx", "x", "yy"), "yyyy");
}

TEST(ReplaceTest, MatchesDoNotOverlapAndReplacementsAreNotRescanned) {
  EXPECT_EQ(str::Replace("aaa", "aa", "b"), "ba");
  EXPECT_EQ(str::Replace("aaaa", "aa", "b"), "bb");
  EXPECT_EQ(str::Replace("a", "a", "aa"), "aa");
  EXPECT_EQ(str::Replace("ab", "b", "ab"), "aab");
}

TEST(ReplaceTest, NoMatchOrEmptyPatternLeavesTextUnchanged) {
  EXPECT_EQ(str::Replace("mailbox", "@", "+"), "mailbox");
  EXPECT_EQ(str::Replace("mailbox", "", "+"), "mailbox");
  EXPECT_EQ(str::Replace("", "a", "b"), "");
}

TEST(TrimTest, RemovesSpacesAndTabsAtBothEndsOnly) {
  EXPECT_EQ(str::Trim("  \tvalue with  blanks\t "), "value with  blanks");
  EXPECT_EQ(str::Trim("value"), "value");
  EXPECT_EQ(str::Trim(" \t \t"), "");
  EXPECT_EQ(str::Trim(""), "");
  EXPECT_EQ(str::Trim("\nvalue\r"), "\nvalue\r");
}

TEST(ShellWordTest, PlainTextStaysAsItIsOtherTextIsQuoted) {
  EXPECT_EQ(str::ShellWord("/etc/mail/virtusertable"), "/etc/mail/virtusertable");
  EXPECT_EQ(str::ShellWord("l+d.example@x-y_z=1:2,3"), "l+d.example@x-y_z=1:2,3");
  EXPECT_EQ(str::ShellWord(""), "''");
  EXPECT_EQ(str::ShellWord("/srv/mail files/access"), "'/srv/mail files/access'");
  EXPECT_EQ(str::ShellWord("a;b$c`d`|e&f*g"), "'a;b$c`d`|e&f*g'");
  EXPECT_EQ(str::ShellWord("it's"), "'it'\\''s'");
}

TEST(ShellWordTest, TheShellGivesBackTheTextExactly) {
  for (const std::string text : {"plain", "two words", "it's", "$HOME", "a\\b", "'", "*", "-n"}) {
    const std::string command = "printf '%s' " + str::ShellWord(text);
    FILE* pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char buffer[256];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    EXPECT_EQ(::pclose(pipe), 0);
    EXPECT_EQ(out, text) << command;
  }
}

}  // namespace

TEST(StrTest, JoinPutsTheSeparatorBetweenEachTwoItems) {
  EXPECT_EQ(str::Join({}, ", "), "");
  EXPECT_EQ(str::Join({"a"}, ", "), "a");
  EXPECT_EQ(str::Join({"a", "", "c"}, ", "), "a, , c");
}
