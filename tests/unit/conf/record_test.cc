// Fields and list fields: values, checks, splitting and joining.
#include "zelapi/conf/field.h"

#include <gtest/gtest.h>

#include "zelapi/err.h"

namespace {

// A bare record: navigation is the engine's, not needed here.
class Bare : public dd::Record {
 public:
  bool Find(const std::string&) override { return false; }
  void First() override {}
  void Next() override {}
  bool Eof() const override { return true; }
  void New() override {}
  void Create(const std::string&) override {}
  void Assert(const std::string&) override {}

  dd::Field name{this, "name"};
  dd::Field port{this, "port", [](const std::string& v) { return v.find_first_not_of("0123456789") == std::string::npos; }};
  dd::ArrayField words{this, "words", ' '};
  dd::ArrayField list{this, "list", ','};
};

using Elements = std::vector<std::string>;

}  // namespace

TEST(FieldTest, FieldsAreNumberedInDeclarationOrder) {
  Bare r;
  ASSERT_EQ(r.FieldCount(), 4u);
  EXPECT_EQ(r.name.Index(), 0);
  EXPECT_EQ(r.list.Index(), 3);
  EXPECT_EQ(&r.FieldAt(2), &r.words);
  EXPECT_EQ(r.FieldByName("port"), &r.port);
  EXPECT_EQ(r.FieldByName("none"), nullptr);
  EXPECT_EQ(&r.name.Owner(), &r);
}

TEST(FieldTest, SetStrEraseAndConversions) {
  Bare r;
  r.name.Set("example.com");
  EXPECT_EQ(r.name.Str(), "example.com");
  std::string s = r.name;
  EXPECT_EQ(s, "example.com");
  r.name = "other.org";
  EXPECT_EQ(r.name.Str(), "other.org");
  r.port.Set("25");
  r.name = r.port;  // copies the value
  EXPECT_EQ(r.name.Str(), "25");
  r.name.Erase();
  EXPECT_EQ(r.name.Str(), "");
}

TEST(FieldTest, LineEndsAndRejectedValuesLeaveTheValueUnchanged) {
  Bare r;
  r.name.Set("a");
  EXPECT_THROW(r.name.Set("a\nb"), pnl_err::Error);
  EXPECT_THROW(r.name = "a\rb", pnl_err::Error);
  EXPECT_EQ(r.name.Str(), "a");
  r.port.Set("25");
  EXPECT_THROW(r.port.Set("smtp"), pnl_err::Error);
  EXPECT_EQ(r.port.Str(), "25");
  try {
    r.port.Set("x");
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kConf);
    EXPECT_EQ(std::string(e.what()), "field port: value 'x' is not valid");
  }
}

TEST(ArrayFieldTest, SplitsOnTheSeparatorOutsideQuotesAndTrimsBlanks) {
  EXPECT_EQ(dd::ArrayField::Split("a, b ,c", ','), (Elements{"a", "b", "c"}));
  EXPECT_EQ(dd::ArrayField::Split("\"|/bin/prog a,b\", x", ','), (Elements{"\"|/bin/prog a,b\"", "x"}));
  EXPECT_EQ(dd::ArrayField::Split("a,,b", ','), (Elements{"a", "b"}));
  EXPECT_EQ(dd::ArrayField::Split("root,", ','), Elements{"root"});
  EXPECT_EQ(dd::ArrayField::Split("  a \t b  ", ' '), (Elements{"a", "b"}));
  EXPECT_EQ(dd::ArrayField::Split(" \t ", ','), Elements{});
  EXPECT_EQ(dd::ArrayField::Split("", ' '), Elements{});
}

TEST(ArrayFieldTest, JoinsWithOneSpaceAfterANonBlankSeparator) {
  EXPECT_EQ(dd::ArrayField::Join({"a", "b"}, ','), "a, b");
  EXPECT_EQ(dd::ArrayField::Join({"a", "b"}, ' '), "a b");
  EXPECT_EQ(dd::ArrayField::Join({"a"}, ','), "a");
  EXPECT_EQ(dd::ArrayField::Join({}, ','), "");
}

TEST(ArrayFieldTest, AppendDeleteHasSizeIndex) {
  Bare r;
  r.list.Set("root, \"|/bin/prog a,b\"");
  EXPECT_EQ(r.list.Size(), 2u);
  EXPECT_TRUE(r.list.Has("\"|/bin/prog a,b\""));
  EXPECT_FALSE(r.list.Has("prog"));
  r.list.Append("x\\@example.com");
  r.list.Append("root");
  EXPECT_EQ(r.list.Str(), "root, \"|/bin/prog a,b\", x\\@example.com, root");
  EXPECT_TRUE(r.list.Delete("root"));
  EXPECT_EQ(r.list[0], "\"|/bin/prog a,b\"");
  EXPECT_EQ(r.list[2], "root");
  EXPECT_FALSE(r.list.Delete("nobody"));
  EXPECT_THROW(r.list[3], pnl_err::Error);
  EXPECT_THROW(r.list[-1], pnl_err::Error);
  r.list.Erase();
  EXPECT_EQ(r.list.Size(), 0u);
  EXPECT_EQ(r.list.Str(), "");
}

TEST(ArrayFieldTest, ElementsThatWouldNotReadBackAreRefused) {
  Bare r;
  r.list.Set("a");
  EXPECT_THROW(r.list.Append("b, c"), pnl_err::Error);
  EXPECT_THROW(r.list.Append(" b"), pnl_err::Error);
  EXPECT_THROW(r.list.Append("b\nc"), pnl_err::Error);
  EXPECT_THROW(r.words.Append("two words"), pnl_err::Error);
  EXPECT_THROW(r.words.Append(""), pnl_err::Error);
  EXPECT_NO_THROW(r.list.Append("\"b, c\""));
  EXPECT_EQ(r.list.Size(), 2u);
}

TEST(ArrayFieldTest, AssigningMakesTheWholeListOneElement) {
  Bare r;
  r.list.Set("a, b, c");
  r.list = "x@example.com";
  EXPECT_EQ(r.list.Size(), 1u);
  EXPECT_EQ(r.list[0], "x@example.com");
  r.list = "\"|/bin/prog a,b\"";
  EXPECT_EQ(r.list.Size(), 1u);
  // A value that holds separators is what the file will read back.
  r.words = "error:nouser Account temporary disabled";
  EXPECT_EQ(r.words.Str(), "error:nouser Account temporary disabled");
  EXPECT_EQ(r.words.Size(), 4u);
  EXPECT_THROW(r.list = "a\nb", pnl_err::Error);
  EXPECT_EQ(r.list.Size(), 1u);
  r.list = "";
  EXPECT_EQ(r.list.Size(), 0u);
  // Through the base class the list keeps its meaning.
  dd::Field& base = r.list;
  base = "y@example.com";
  EXPECT_EQ(r.list.Size(), 1u);
  base.Set("p, q");
  EXPECT_EQ(r.list.Size(), 2u);
}

TEST(ArrayFieldTest, CanonicalFormIsTheJoinedSplit) {
  Bare r;
  EXPECT_EQ(r.list.Canonical("a,b ,  c"), "a, b, c");
  EXPECT_EQ(r.words.Canonical(" a  b "), "a b");
  EXPECT_EQ(r.name.Canonical(" a  b "), " a  b ");
}

TEST(ArrayFieldTest, LoadingAShorterListLeavesNoElementOfTheLongerOne) {
  Bare r;
  r.list.Load("a@example.com, b@example.com, c@example.com");
  r.list.Load("d@example.com");
  EXPECT_EQ(r.list.Elements(), (Elements{"d@example.com"}));
  r.list.Load("  ");
  EXPECT_EQ(r.list.Size(), 0u);
  r.list.Load("e, \"|prog x,y\"");
  EXPECT_EQ(r.list.Elements(), (Elements{"e", "\"|prog x,y\""}));
}
