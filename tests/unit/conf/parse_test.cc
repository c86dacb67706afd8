// The parse context: what views see and what they store.
#include "zelapi/conf/parse_context.h"

#include <gtest/gtest.h>

#include <functional>

#include "test_tables.h"

using conftest::DomainView;
using conftest::MailView;
using conftest::NameView;

namespace {

pnl_token::Params VirtRules() {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken("@", 2));
  p.Add(pnl_token::CharToken("\t ", 1));
  p.Add(pnl_token::CharToken("\n", 6));
  p.Add(pnl_token::Comment("#", "\n", false));
  return p;
}

// "name: a, b" lines whose entries go on over the lines that start with a
// blank or a tab and over a backslash before the line end.
pnl_token::Params ContinuedRules() {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken(":\t ", 1));
  p.Add(pnl_token::CharToken("\n", 6));
  p.Add(pnl_token::Comment("#", "\n", false));
  p.Add(pnl_token::Continuation(" \t", true));
  return p;
}

// The logical lines of text, each as it stands.
std::vector<std::string> LogicalLines(const std::string& text, const pnl_token::Params& rules) {
  Cf cf(text, rules);
  std::vector<std::string> lines;
  while (cf.NextLine()) lines.push_back(text.substr(cf.line_offset(), cf.line_end() - cf.line_offset()));
  return lines;
}

// A view that stores what its test tells it to, to reach every corner.
class ProbeView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override { return step ? step(cf, *this) : false; }
  std::string NewRecordTemplate() override { return key.Str() + "\n"; }

  std::function<bool(Cf&, ProbeView&)> step;
  dd::Field key{this, "key"};
  dd::Field value{this, "value"};
};

}  // namespace

TEST(CfTest, PosEqualsLineOffsetOnlyForTheLinesFirstToken) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a b\n  c\n", rules);
  ASSERT_TRUE(cf.NextLine());
  EXPECT_EQ(cf.pos(), 0u);
  EXPECT_EQ(cf.line_offset(), 0u);
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "b");
  EXPECT_EQ(cf.pos(), 2u);
  EXPECT_NE(cf.pos(), cf.line_offset());
  ASSERT_TRUE(cf.NextLine());
  EXPECT_EQ(cf.line_offset(), 4u);
  EXPECT_EQ(cf.token(), "c");
  EXPECT_EQ(cf.pos(), 6u);
  EXPECT_FALSE(cf.NextLine());
}

TEST(CfTest, GetTokenStopsAtTheLineEnd) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a\nb\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "\n");
  EXPECT_EQ(cf.token_type(), pnl_token::Token::LineEnd);
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "\n");
  cf.AddToken();
  EXPECT_EQ(cf.token(), "\n");
}

TEST(CfTest, GetTokenWithSeparatorsShowsTheBlanks) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a \tb\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetToken(true);
  EXPECT_EQ(cf.token(), " \t");
  EXPECT_EQ(cf.token_type(), pnl_token::Token::Separator);
  cf.GetToken(true);
  EXPECT_EQ(cf.token(), "b");
}

TEST(CfTest, AddTokenJoinsAdjacentTokensWithTheirSpan) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("user@example.com x\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.AddToken();
  EXPECT_EQ(cf.token(), "user@");
  cf.AddToken();
  EXPECT_EQ(cf.token(), "user@example.com");
  ProbeView view;
  cf.CacheStart(view, true);
  cf.CacheField(view.key);
  cf.CacheDone(view, false);
  ASSERT_TRUE(cf.stored());
  const Cf::Cached& c = cf.stored_field(0);
  EXPECT_TRUE(c.has_span);
  EXPECT_EQ(c.start, 0u);
  EXPECT_EQ(c.size, 16u);
  EXPECT_FALSE(c.own);
}

TEST(CfTest, AddTokenAcrossBlanksHasNoSpanButKeepsTheValue) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("user @example.com\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.AddToken();
  cf.AddToken();
  EXPECT_EQ(cf.token(), "user@example.com");
  ProbeView view;
  cf.CacheStart(view, true);
  cf.CacheField(view.key);
  cf.CacheDone(view, false);
  EXPECT_FALSE(cf.stored_field(0).has_span);
  EXPECT_EQ(cf.stored_value(0), "user@example.com");
}

TEST(CfTest, GetUntilTokenTakesTheRestWithoutOuterBlanksOrRemark) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("key \t error:nouser No such user  # why\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "error:nouser No such user");
  EXPECT_EQ(cf.pos(), 6u);
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "\n");
}

TEST(CfTest, GetUntilTokenKeepsBlanksBeforeTheLineEnd) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("z@a.example\tREJECT \t\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.AddToken();
  cf.AddToken();
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "REJECT \t");
  Cf empty("key \n", rules);
  ASSERT_TRUE(empty.NextLine());
  empty.GetUntilToken("\n", false, true);
  EXPECT_EQ(empty.token(), "");
}

TEST(CfTest, GetUntilTokenKeepsLeadingBlanksWhenAskedAndIncludesTheEndWhenAsked) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("key  a b@c d\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("@", false, false);
  EXPECT_EQ(cf.token(), "  a b");
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "@");
  Cf again("key a b@c d\n", rules);
  ASSERT_TRUE(again.NextLine());
  again.GetUntilToken("@", true, true);
  EXPECT_EQ(again.token(), "a b@");
  again.GetToken(false);
  EXPECT_EQ(again.token(), "c");
}

TEST(CfTest, GetUntilTokenOnAnEmptyRestIsEmpty) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("@empty.org\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetToken(false);
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "");
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "\n");
}

TEST(CfTest, ViewsParseTheirOwnLines) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("@example.com\terror:nouser No such user here\ninfo@example.com\ta b\n", rules);
  DomainView domain;
  MailView mail;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_TRUE(domain.Parse(cf));
  ASSERT_TRUE(cf.stored());
  EXPECT_EQ(cf.stored_view(), &domain);
  EXPECT_EQ(cf.stored_value(0), "example.com");
  EXPECT_EQ(cf.stored_value(1), "error:nouser No such user here");
  cf.Rewind();
  EXPECT_FALSE(mail.Parse(cf));
  EXPECT_FALSE(cf.stored());
  ASSERT_TRUE(cf.NextLine());
  EXPECT_FALSE(domain.Parse(cf));
  EXPECT_FALSE(cf.stored());
  cf.Rewind();
  EXPECT_TRUE(mail.Parse(cf));
  EXPECT_EQ(cf.stored_value(0), "info@example.com");
  EXPECT_EQ(cf.stored_value(1), "a b");
}

TEST(CfTest, ParseAwayFromTheLineStartReturnsFalseAndStoresNothing) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("info@example.com\tinfo+example.com\n", rules);
  DomainView domain;
  MailView mail;
  ASSERT_TRUE(cf.NextLine());
  cf.GetToken(false);  // now on "@", mid-line
  EXPECT_FALSE(mail.Parse(cf));
  EXPECT_FALSE(cf.stored());
  EXPECT_FALSE(domain.Parse(cf));
  EXPECT_FALSE(cf.stored());
  EXPECT_EQ(cf.stored_count(), 0u);
}

TEST(CfTest, LineStartingWithABlankIsClaimedByNoView) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("  info@example.com\tx\n", rules);
  MailView mail;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_FALSE(mail.Parse(cf));
  EXPECT_FALSE(cf.stored());
}

TEST(CfTest, CacheFieldRefusesLineEndsAndUnknownFields) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a b\n", rules);
  ProbeView view;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_THROW(cf.CacheField(view.key), pnl_err::Error);  // no CacheStart
  cf.CacheStart(view, true);
  EXPECT_THROW(cf.CacheField(2, "a", "a"), pnl_err::Error);
  EXPECT_THROW(cf.CacheField(1, "a\n", "a"), pnl_err::Error);
  EXPECT_THROW(cf.CacheField(1, "a", "a\r"), pnl_err::Error);
  EXPECT_THROW(cf.CacheField(1, "a", "a", -1, 1, 0), pnl_err::Error);
  EXPECT_THROW(cf.CacheField(1, "b", "b", 0), pnl_err::Error);  // "b" is not at 0
  cf.CacheField(1, "b", "B", 2);
  cf.CacheField(0, "a", "a");
  cf.CacheDone(view, false);
  EXPECT_EQ(cf.stored_value(0), "a");
  EXPECT_EQ(cf.stored_value(1), "B");
  EXPECT_TRUE(cf.stored_field(1).has_span);
  EXPECT_EQ(cf.stored_field(1).start, 2u);
  EXPECT_TRUE(cf.stored_field(1).own);
}

TEST(CfTest, CacheFieldOfTheLineEndIsRefused) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("@\n", rules);
  DomainView domain;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_THROW(domain.Parse(cf), pnl_err::Error);
  EXPECT_FALSE(cf.stored());
}

TEST(CfTest, KeyRequiredRefusesARecordWithoutKey) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a b\n", rules);
  ProbeView view;
  ASSERT_TRUE(cf.NextLine());
  cf.CacheStart(view, true);
  cf.CacheField(view.value);
  EXPECT_THROW(cf.CacheDone(view, false), pnl_err::Error);
  EXPECT_FALSE(cf.stored());
  cf.Rewind();
  cf.CacheStart(view, true);
  cf.CacheField(0, "", "", 1);
  EXPECT_THROW(cf.CacheDone(view, false), pnl_err::Error);  // an empty key
  cf.Rewind();
  cf.CacheStart(view, false);
  cf.CacheField(view.value);
  cf.CacheDone(view, false);
  EXPECT_TRUE(cf.stored());
  EXPECT_FALSE(cf.stored_field(0).set);
}

TEST(CfTest, DomainLineWithoutDomainAtTheEndIsNoRecord) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("@", rules);
  DomainView domain;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_THROW(domain.Parse(cf), pnl_err::Error);
  EXPECT_FALSE(cf.stored());
}

TEST(CfTest, LineEndingInCarriageReturnIsRefused) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("@a.example\tdevnull\r\n", rules);
  DomainView domain;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_THROW(domain.Parse(cf), pnl_err::Error);
  EXPECT_FALSE(cf.stored());
}

TEST(CfTest, CacheDoneToLineEndRefusesTextAfterTheRecord) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a # remark\nb c\n", rules);
  NameView view;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_TRUE(view.Parse(cf));
  EXPECT_TRUE(cf.stored());
  ASSERT_TRUE(cf.NextLine());
  EXPECT_THROW(view.Parse(cf), pnl_err::Error);
  EXPECT_FALSE(cf.stored());
}

TEST(CfTest, OnlyTheOfferedViewMayCache) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("a\n", rules);
  ProbeView offered, other;
  ASSERT_TRUE(cf.NextLine());
  cf.Offer(&offered);
  EXPECT_THROW(cf.CacheStart(other, true), pnl_err::Error);
  EXPECT_THROW(cf.CacheField(offered.key), pnl_err::Error);
  cf.CacheStart(offered, true);
  EXPECT_THROW(cf.CacheField(other.key), pnl_err::Error);
}

// The rest of a line, taken up to the line end, in the cases where no
// comment can start in it and where one can.
TEST(CfTest, GetUntilTokenToTheLineEndTakesAHashInsideAWordAsText) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("key a#b  c \t\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "a#b  c \t");
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "\n");
}

TEST(CfTest, GetUntilTokenToTheLineEndOfALastLineWithoutOne) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("x y\nkey  value  ", rules);
  ASSERT_TRUE(cf.NextLine());
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "value  ");
  EXPECT_EQ(cf.pos(), 9u);
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "");
  EXPECT_EQ(cf.token_type(), pnl_token::Token::End);
}

TEST(CfTest, GetUntilTokenToTheLineEndKeepsLeadingBlanksWhenAsked) {
  const pnl_token::Params rules = VirtRules();
  Cf cf("key  a b\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, false);
  EXPECT_EQ(cf.token(), "  a b");
  EXPECT_EQ(cf.pos(), 3u);
}

TEST(CfTest, GetUntilTokenWithoutCommentRulesTakesEverything) {
  pnl_token::Params rules;
  rules.Add(pnl_token::CharToken("\t ", 1));
  Cf cf("key a # b\n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "a # b");
}

TEST(CfTest, GetUntilTokenStopsAtAnyOfSeveralCommentStarts) {
  pnl_token::Params rules;
  rules.Add(pnl_token::CharToken("\t ", 1));
  rules.Add(pnl_token::Comment("#", "\n", false));
  rules.Add(pnl_token::Comment(";", "\n", false));
  Cf cf("key a ; b\nkey a;b c # d\nkey plain text \n", rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "a");
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "a;b c");
  ASSERT_TRUE(cf.NextLine());
  cf.GetUntilToken("\n", false, true);
  EXPECT_EQ(cf.token(), "plain text ");
}

TEST(CfTest, RemarksAndCarriageReturnsAreFoundOnTheLinesThatHaveThem) {
  // The lines are searched once from the start; each line must still see
  // exactly what stands on it.
  const pnl_token::Params rules = VirtRules();
  Cf cf("a@x.example\tone\n"
        "b@x.example\ttwo # remark\n"
        "c@x.example\tthree\n"
        "d@x.example\tfo\rur\n"
        "e@x.example\tfive\n",
        rules);
  MailView mail;
  std::vector<std::string> values;
  while (cf.NextLine()) {
    try {
      if (mail.Parse(cf) && cf.stored()) values.push_back(cf.stored_value(1));
    } catch (const pnl_err::Error&) {
      values.push_back("refused");
    }
  }
  EXPECT_EQ(values, (std::vector<std::string>{"one", "two", "three", "refused", "five"}));
}

TEST(CfTest, ContinuationLinesJoinTheLineAboveIntoOneLogicalLine) {
  const pnl_token::Params rules = ContinuedRules();
  EXPECT_EQ(LogicalLines("a: b,\n c,\n\td\ne: f\n", rules),
            std::vector<std::string>({"a: b,\n c,\n\td\n", "e: f\n"}));
  // A line of blanks continues too; an empty line or a comment does not,
  // and a comment takes its own continuation lines along.
  EXPECT_EQ(LogicalLines("a: b\n  \n c\n\n# x\n y\nz: w", rules),
            std::vector<std::string>({"a: b\n  \n c\n", "\n", "# x\n y\n", "z: w"}));
  // A backslash before the line end takes in the next line, whatever it holds.
  EXPECT_EQ(LogicalLines("a: b\\\nc\nd: e\\\n", rules),
            std::vector<std::string>({"a: b\\\nc\n", "d: e\\\n"}));
  // Without the rule every line stands alone.
  EXPECT_EQ(LogicalLines("a b\n c\n", VirtRules()), std::vector<std::string>({"a b\n", " c\n"}));
}

TEST(CfTest, ValueOverContinuationLinesIsJoinedWithoutItsLineEnds) {
  const pnl_token::Params rules = ContinuedRules();
  const std::string text = "list:\ta,\n  b, \\\nc\n";
  Cf cf(text, rules);
  conftest::ListView view;
  ASSERT_TRUE(cf.NextLine());
  ASSERT_TRUE(view.Parse(cf));
  EXPECT_EQ(cf.stored_value(0), "list");
  // The line ends go, and the backslash before one.
  EXPECT_EQ(cf.stored_value(1), "a,  b, c");
  const Cf::Cached& items = cf.stored_field(1);
  EXPECT_TRUE(items.has_span);
  EXPECT_TRUE(items.own);
  EXPECT_EQ(text.substr(items.start, items.size), "a,\n  b, \\\nc");
}

TEST(CfTest, TokensRunOverTheLineEndsInsideALogicalLine) {
  const pnl_token::Params rules = ContinuedRules();
  Cf cf("a\n b # x\n\tc\nd\n", rules);
  ASSERT_TRUE(cf.NextLine());
  EXPECT_EQ(cf.token(), "a");
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "b");
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "c");
  cf.GetToken(false);
  EXPECT_EQ(cf.token(), "\n");
  ASSERT_TRUE(cf.NextLine());
  EXPECT_EQ(cf.token(), "d");
}

TEST(CfTest, LineStartingWithABlankAfterAnEmptyLineIsClaimedByNoView) {
  const pnl_token::Params rules = ContinuedRules();
  Cf cf("\n c: d\n", rules);
  conftest::ListView view;
  ASSERT_TRUE(cf.NextLine());
  EXPECT_FALSE(view.Parse(cf));
  EXPECT_FALSE(cf.stored());
}

TEST(CfTest, RawOverTheLineEndsOfALogicalLineIsTakenWithAValueWithoutThem) {
  const pnl_token::Params rules = ContinuedRules();
  Cf cf("k: a\n b\n", rules);
  ProbeView view;
  ASSERT_TRUE(cf.NextLine());
  cf.CacheStart(view, true);
  cf.CacheField(0, "k", "k", 0);
  EXPECT_THROW(cf.CacheField(1, "a\n b", "a\n b", 3), pnl_err::Error);
  EXPECT_THROW(cf.CacheField(1, "a\n b\n", "a b", 3), pnl_err::Error);  // the line's own end
  cf.CacheField(1, "a\n b", "a b", 3);
  cf.CacheDone(view, false);
  EXPECT_EQ(cf.stored_value(1), "a b");
}
