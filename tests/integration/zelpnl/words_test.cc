// Batch lines split into words as a shell splits a simple command.
#include "words.h"

#include <gtest/gtest.h>

#include "validation.h"

using zelpnl::SplitWords;
using Words = std::vector<std::string>;

TEST(BatchWordsTest, BlanksSeparateWords) {
  EXPECT_EQ(SplitWords("  mail box\tadd  l@d.example "), (Words{"mail", "box", "add", "l@d.example"}));
  EXPECT_EQ(SplitWords(""), Words{});
  EXPECT_EQ(SplitWords(" \t "), Words{});
}

TEST(BatchWordsTest, ALineStartingWithAHashIsAComment) {
  EXPECT_EQ(SplitWords("# mail box add l@d.example"), Words{});
  EXPECT_EQ(SplitWords("   #indented"), Words{});
  EXPECT_EQ(SplitWords("user add a#b"), (Words{"user", "add", "a#b"})) << "only at the start";
}

TEST(BatchWordsTest, QuotesKeepBlanksAndJoinTouchingPieces) {
  EXPECT_EQ(SplitWords("--subject 'Away  now'"), (Words{"--subject", "Away  now"}));
  EXPECT_EQ(SplitWords("--text \"a 'b' c\""), (Words{"--text", "a 'b' c"}));
  EXPECT_EQ(SplitWords("x'y z'\"w\"v"), (Words{"xy zwv"}));
  EXPECT_EQ(SplitWords("a '' b \"\""), (Words{"a", "", "b", ""})) << "empty words stay";
}

TEST(BatchWordsTest, BackslashesQuoteOneCharacter) {
  EXPECT_EQ(SplitWords("a\\ b c\\\\d"), (Words{"a b", "c\\d"}));
  EXPECT_EQ(SplitWords("\"say \\\"hi\\\" \\\\ \\$x \\`y\\` \\n\""), (Words{"say \"hi\" \\ $x `y` \\n"}))
      << "inside double quotes only \\\" \\\\ \\$ and \\` are escapes";
  EXPECT_EQ(SplitWords("'a\\b'"), (Words{"a\\b"})) << "nothing is an escape in single quotes";
}

TEST(BatchWordsTest, DollarQuotesTakeLineEndsAndTabs) {
  EXPECT_EQ(SplitWords("--text $'Back on Monday.\\n\\tBye \\'x\\' \\\"y\\\" \\\\'"),
            (Words{"--text", "Back on Monday.\n\tBye 'x' \"y\" \\"}));
  EXPECT_EQ(SplitWords("a$b"), (Words{"a$b"})) << "a dollar sign alone is itself";
}

TEST(BatchWordsTest, UnclosedQuotesAndDanglingBackslashesAreRefused) {
  struct Case {
    std::string line;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"add \"l@d", "quoting \"\\\"l@d\": double quote not closed (column 5)"},
      {"add 'l@d", "quoting \"'l@d\": single quote not closed (column 5)"},
      {"add $'l\\n", "quoting \"$'l\\\\n\": $' quote not closed (column 5)"},
      {"add $'\\q'", "quoting \"\\\\q'\": unknown escape \\q in $'...' (column 7)"},
      {"add l\\", "quoting \"\\\\\": backslash at the end of the line (column 6)"},
  };
  for (const Case& c : cases) {
    try {
      SplitWords(c.line);
      ADD_FAILURE() << c.line << ": accepted";
    } catch (const zelpnl::Invalid& e) {
      EXPECT_EQ(std::string(e.object()) + ": " + e.detail(), c.message) << c.line;
    }
  }
}
