// The tokenizer: separators, character tokens, line ends and the two kinds
// of comment.
#include "zelapi/conf/token.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zelapi/err.h"

namespace {

using pnl_token::Token;

pnl_token::Params VirtRules(bool comment_anywhere) {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken("@", 2));
  p.Add(pnl_token::CharToken("\t ", 1));
  p.Add(pnl_token::CharToken("\n", 6));
  p.Add(pnl_token::Comment("#", "\n", comment_anywhere));
  return p;
}

// "type:text" for every token of text.
std::vector<std::string> Tokens(const pnl_token::Params& rules, const std::string& text,
                                bool with_separators = false) {
  pnl_token::Tokenizer t(rules, text);
  std::vector<std::string> out;
  std::size_t pos = 0;
  for (;;) {
    Token tok = t.Next(pos, with_separators);
    if (tok.type == Token::End) break;
    std::string s = text.substr(tok.start, tok.end - tok.start);
    if (s == "\n") s = "\\n";
    out.push_back(std::to_string(tok.type) + ":" + s);
  }
  return out;
}

}  // namespace

TEST(TokenizerTest, SeparatorsEndWordsAndCharTokensStandAlone) {
  EXPECT_EQ(Tokens(VirtRules(false), "info@example.com\t  x y\n"),
            (std::vector<std::string>{"0:info", "2:@", "0:example.com", "0:x", "0:y", "6:\\n"}));
}

TEST(TokenizerTest, SeparatorRunsAreTokensOnRequest) {
  EXPECT_EQ(Tokens(VirtRules(false), "a \t b\n", true),
            (std::vector<std::string>{"0:a", "1: \t ", "0:b", "6:\\n"}));
}

TEST(TokenizerTest, CommentAtWordStartIsSkippedUpToTheLineEnd) {
  EXPECT_EQ(Tokens(VirtRules(false), "a #x y\n#whole line\nb\n"),
            (std::vector<std::string>{"0:a", "6:\\n", "6:\\n", "0:b", "6:\\n"}));
}

TEST(TokenizerTest, CommentInsideWordIsTextUnlessItMayStartAnywhere) {
  EXPECT_EQ(Tokens(VirtRules(false), "a#b\n"), (std::vector<std::string>{"0:a#b", "6:\\n"}));
  EXPECT_EQ(Tokens(VirtRules(true), "a#b\n"), (std::vector<std::string>{"0:a", "6:\\n"}));
}

TEST(TokenizerTest, WithoutSeparatorsTheLineUpToARemarkIsOneWord) {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken("\n", 6));
  p.Add(pnl_token::Comment("#", "\n", true));
  EXPECT_EQ(Tokens(p, "example.com #x\nmail example.net\n"),
            (std::vector<std::string>{"0:example.com ", "6:\\n", "0:mail example.net", "6:\\n"}));
}

TEST(TokenizerTest, CommentEndsBeforeItsEndText) {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken(" ", 1));
  p.Add(pnl_token::Comment("/*", "*/", false));
  EXPECT_EQ(Tokens(p, "a /* b */c\nd /* open\ne"),
            (std::vector<std::string>{"0:a", "0:*/c", "6:\\n", "0:d", "6:\\n", "0:e"}));
}

TEST(TokenizerTest, LineEndIsAlwaysALineEnd) {
  pnl_token::Params p;  // no rules at all
  EXPECT_EQ(Tokens(p, "a b\nc"), (std::vector<std::string>{"0:a b", "6:\\n", "0:c"}));
}

TEST(TokenizerTest, ConflictingOrUnknownRulesAreRefused) {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken(" ", 1));
  EXPECT_THROW(p.Add(pnl_token::CharToken(" ", 2)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::CharToken("x", 4)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::CharToken(";", 6)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::CharToken("\n", 1)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::CharToken("", 1)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::Comment(" #", "\n", false)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::Comment("", "\n", false)), pnl_err::Error);
  p.Add(pnl_token::Comment("#", "\n", false));
  EXPECT_THROW(p.Add(pnl_token::CharToken("#", 2)), pnl_err::Error);
}

TEST(TokenizerTest, ContinuationStartsMustBeSeparatorsAndTheLimitAtLeastOneByte) {
  pnl_token::Params p;
  p.Add(pnl_token::CharToken(":\t ", 1));
  EXPECT_THROW(p.Add(pnl_token::Continuation("x", false)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::Continuation("", false)), pnl_err::Error);
  EXPECT_THROW(p.Add(pnl_token::LongestLine(0)), pnl_err::Error);
  EXPECT_FALSE(p.HasContinuation());
  p.Add(pnl_token::Continuation(" \t", true));
  p.Add(pnl_token::LongestLine(80));
  EXPECT_TRUE(p.HasContinuation());
  EXPECT_TRUE(p.BackslashJoins());
  EXPECT_TRUE(p.Continues(' '));
  EXPECT_TRUE(p.Continues('\t'));
  EXPECT_FALSE(p.Continues(':'));
  EXPECT_EQ(p.LongestLineBytes(), 80u);
}
