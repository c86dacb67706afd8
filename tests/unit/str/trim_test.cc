// str::Trim and str::TrimView: which characters go, from where, and what the
// result refers to.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "zelapi/str.h"

TEST(TrimTest, BlanksGoFromBothEndsAndStayInside) {
  EXPECT_EQ(str::Trim(" \t a \t b\t "), "a \t b");
  EXPECT_EQ(str::TrimView(" \t a \t b\t "), "a \t b");
}

TEST(TrimTest, OnlyBlanksGiveAnEmptyText) {
  EXPECT_EQ(str::Trim(" \t\t "), "");
  EXPECT_EQ(str::TrimView(""), "");
  EXPECT_TRUE(str::TrimView(" \t").empty());
}

TEST(TrimTest, LineEndsAndOtherSpaceAreNoBlanks) {
  EXPECT_EQ(str::Trim("\r\n a \n"), "\r\n a \n");
  EXPECT_EQ(str::TrimView("\va\f"), "\va\f");
}

TEST(TrimTest, CharactersToTakeCanBeChosen) {
  EXPECT_EQ(str::TrimView(" \ta b\t ", " "), "\ta b\t");
  EXPECT_EQ(str::TrimView("<<x>>", "<>"), "x");
}

TEST(TrimTest, ViewPointsIntoTheGivenText) {
  const std::string text = "  word  ";
  const std::string_view view = str::TrimView(text);
  EXPECT_EQ(view.data(), text.data() + 2);
  EXPECT_EQ(view.size(), 4u);
}

TEST(TrimTest, NulBytesAreKeptLikeAnyOtherByte) {
  const std::string text(" a\0b ", 5);
  EXPECT_EQ(str::Trim(text), std::string("a\0b", 3));
}
