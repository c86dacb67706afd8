// Reading an aliases file into entries, errors and lines left to sendmail's
// address parser, as sendmail's own rebuild reads it.
#include "zelaliasdb/aliases_file.h"

#include <gtest/gtest.h>

#include <string>

using zel_aliasdb::AliasesFile;
using zel_aliasdb::Line;

namespace {

// One line of the parsed file as text: "E 3 key=value", "X 2 message",
// "O 1-2 raw" (line numbers: the reported one, or the range for raw).
std::string Show(const Line& l) {
  switch (l.kind) {
    case Line::Kind::kEntry:
      return "E " + std::to_string(l.line) + " " + std::string(l.key) + "=" + std::string(l.value);
    case Line::Kind::kError:
      return "X " + std::to_string(l.line) + " " + std::string(l.text);
    case Line::Kind::kOdd:
      return "O " + std::to_string(l.first_line) + "-" + std::to_string(l.line) + " " + std::string(l.text);
  }
  return "?";
}

std::vector<std::string> Parse(const std::string& text) {
  AliasesFile file(text);
  std::vector<std::string> out;
  for (const Line& l : file.Lines()) out.push_back(Show(l));
  return out;
}

using Lines = std::vector<std::string>;

}  // namespace

TEST(AliasesFileTest, NameBecomesLowerCaseKeyAndValueKeepsItsBytes) {
  EXPECT_EQ(Parse("Root: Admin, \"Team, Ops\"@Example.COM  \n"),
            Lines({"E 1 root=Admin, \"Team, Ops\"@Example.COM  "}));
}

TEST(AliasesFileTest, BlanksAroundTheColonAreNotPartOfNameOrValue) {
  AliasesFile file("Sales \t:\t \v x\n");
  const std::vector<Line> lines = file.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].key, "sales");
  EXPECT_EQ(lines[0].text, "Sales \t");  // as sendmail shows it in a warning
  EXPECT_EQ(lines[0].value, "x");
}

TEST(AliasesFileTest, ValueMayHoldColonsAndStartRightAfterTheColon) {
  EXPECT_EQ(Parse("a:b: c\nd:: e\n"), Lines({"E 1 a=b: c", "E 2 d=: e"}));
}

TEST(AliasesFileTest, ContinuationLinesStartingWithBlankOrTabJoinWithoutTheLineEnd) {
  EXPECT_EQ(Parse("list: a,\n  b,\n\tc\nnext: d\n"), Lines({"E 3 list=a,  b,\tc", "E 4 next=d"}));
}

TEST(AliasesFileTest, ValueMayStartOnAContinuationLine) {
  EXPECT_EQ(Parse("a:\n\tb\n"), Lines({"E 2 a=b"}));
}

TEST(AliasesFileTest, BackslashBeforeLineEndJoinsTheNextLineWhateverItStartsWith) {
  EXPECT_EQ(Parse("a: b,\\\nc\nd: e\\\\\n f\ng: h\\\n"), Lines({"E 2 a=b,c", "E 4 d=e\\ f", "E 5 g=h"}));
}

TEST(AliasesFileTest, BackslashLeftBeforeAnEmptyLineJoinsAgain) {
  // Of "b" and two backslashes, one joins the empty line; the other is then
  // last again and joins the line after it.
  EXPECT_EQ(Parse("a: b\\\\\n\nc\nd: e\n"), Lines({"E 3 a=bc", "E 4 d=e"}));
}

TEST(AliasesFileTest, CommentTakesItsContinuationLinesAlong) {
  EXPECT_EQ(Parse("a: b,\n# note\n  c\nd: e\n"), Lines({"E 1 a=b,", "E 4 d=e"}));
}

TEST(AliasesFileTest, BlankLineEndsAnEntryAndAnIndentedLineAfterItIsAnError) {
  EXPECT_EQ(Parse("a: b,\n\n  c\nd: e\n"),
            Lines({"E 1 a=b,", "X 3 Non-continuation line starts with space", "E 4 d=e"}));
}

TEST(AliasesFileTest, SecondIndentedLineInARowIsNotReportedAgain) {
  // Each empty line joins the indented line after it; two empty lines in a
  // row leave one empty logical line between, and the report comes back.
  EXPECT_EQ(Parse(" a\n\n b\n\n c\n\n\n d\nn: v\n\n e\n"),
            Lines({"X 1 Non-continuation line starts with space", "X 8 Non-continuation line starts with space",
                   "E 9 n=v", "X 11 Non-continuation line starts with space"}));
}

TEST(AliasesFileTest, IndentedFirstLineIsAnError) {
  EXPECT_EQ(Parse(" a: b\nc: d\n"), Lines({"X 1 Non-continuation line starts with space", "E 2 c=d"}));
}

TEST(AliasesFileTest, LineWithoutColonIsMissingColonWhateverItHolds) {
  EXPECT_EQ(Parse("no colon <here>\n"), Lines({"X 1 missing colon"}));
}

TEST(AliasesFileTest, NothingButBlanksAfterTheColonIsMissingValueShowingTheWholeLine) {
  EXPECT_EQ(Parse("ab  : \r\nc:\n  \n"),
            Lines({"X 1 ab  : \r... missing value for alias", "X 3 c:  ... missing value for alias"}));
}

TEST(AliasesFileTest, ReportedLineIsTheLastPhysicalLineOfTheEntry) {
  AliasesFile file("# c\nlist: a,\n b,\n c\n");
  const std::vector<Line> lines = file.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].first_line, 2u);
  EXPECT_EQ(lines[0].line, 4u);
}

TEST(AliasesFileTest, CarriageReturnStaysAtTheEndOfTheValue) {
  EXPECT_EQ(Parse("a: b\r\n"), Lines({"E 1 a=b\r"}));
}

TEST(AliasesFileTest, LastLineWithoutLineEndIsRead) {
  EXPECT_EQ(Parse("a: b\nc: d"), Lines({"E 1 a=b", "E 2 c=d"}));
}

TEST(AliasesFileTest, NamesOfOrdinaryPunctuationAreDecidedHere) {
  EXPECT_EQ(Parse("a.b-c_d+e=f'g#h$i&j*k?l{m}n~o^p`q|r/s[t]: x\n"),
            Lines({"E 1 a.b-c_d+e=f'g#h$i&j*k?l{m}n~o^p`q|r/s[t]=x"}));
}

TEST(AliasesFileTest, NamesForSendmailsAddressParserAreLeftToIt) {
  for (const std::string name :
       {"\"quoted\"", "a b", "Joe <j>", "j (comment)", "a@b", "a%b", "a!b", "a,b", "a;", "a\\b", "|prog",
        "/file", "a\rb", "\xc3\xa9t\xc3\xa9", "@"}) {
    const std::string raw = name + ": x\n";
    EXPECT_EQ(Parse(raw), Lines({"O 1-1 " + raw})) << name;
  }
}

TEST(AliasesFileTest, OddLineKeepsAllItsPhysicalLines) {
  EXPECT_EQ(Parse("a@b: x,\n  y\nc: d\n"), Lines({"O 1-2 a@b: x,\n  y\n", "E 3 c=d"}));
}

TEST(AliasesFileTest, NameOf255BytesIsDecidedHereAndLongerOnesAreNot) {
  const std::string n255(255, 'k');
  EXPECT_EQ(Parse(n255 + ": x\n"), Lines({"E 1 " + n255 + "=x"}));
  const std::string raw = n255 + "k: x\n";
  EXPECT_EQ(Parse(raw), Lines({"O 1-1 " + raw}));
}

TEST(AliasesFileTest, LogicalLineOverTheLimitIsLeftToSendmail) {
  const std::string fits = "a: " + std::string(zel_aliasdb::kMaxPlainLine - 3, 'v');
  EXPECT_EQ(Parse(fits + "\n").at(0).substr(0, 4), "E 1 ");
  const std::string over = "a: v,\n " + std::string(zel_aliasdb::kMaxPlainLine, 'v') + "\n";
  EXPECT_EQ(Parse(over), Lines({"O 1-2 " + over}));
}

// sendmail's buffer holds 8190 bytes of a logical line and its line end.
TEST(AliasesFileTest, EntryOfExactlyTheBufferIsReadAndOneByteMoreDoesNotFit) {
  const std::string at = "a: " + std::string(zel_aliasdb::kLineBuffer - 4, 'v');
  EXPECT_EQ(Parse(at + "\n").at(0).substr(0, 4), "O 1-");
  EXPECT_EQ(Parse(at + "v\nb: c\n"), Lines({"X 1 alias line too long", "E 2 b=c"}));
  // The last line needs no room for a line end.
  EXPECT_EQ(Parse("x: y\n" + at + "v").at(1).substr(0, 4), "O 2-");
}

TEST(AliasesFileTest, EntryThatOutgrowsTheBufferOnAContinuationLineIsReportedThere) {
  const std::string half(4100, 'h');
  AliasesFile file("a: b\nlong: " + half + ",\n " + half + "\nnext: x\n");
  const std::vector<Line> lines = file.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(Show(lines[1]), "X 3 alias line too long");
  EXPECT_EQ(lines[1].key, "long");
  EXPECT_EQ(Show(lines[2]), "E 4 next=x");
}

TEST(AliasesFileTest, LinesSkippedAfterAnEntryThatDoesNotFitAreNotCounted) {
  const std::string over(9000, 'y');
  EXPECT_EQ(Parse("long: " + over + "\n c\n d\nnocolon\nx: y\nx: z\n"),
            Lines({"X 1 alias line too long", "X 2 missing colon", "E 3 x=y", "E 4 x=z"}));
}

TEST(AliasesFileTest, OverlongLineEndingInBackslashSkipsTheNextLineAndAnEmptyLineCarriesItOn) {
  const std::string over(9005, 'b');
  EXPECT_EQ(Parse("e: " + over + "\\\nskipped\nnocolon\n"),
            Lines({"X 1 alias line too long", "X 2 missing colon"}));
  EXPECT_EQ(Parse("e: " + over + "\\\n\nskipped\nnocolon\n"),
            Lines({"X 1 alias line too long", "X 2 missing colon"}));
}

TEST(AliasesFileTest, OverlongCommentIsAnErrorToo) {
  EXPECT_EQ(Parse("#" + std::string(9000, 'c') + "\n skipped\nnocolon\n"),
            Lines({"X 1 alias line too long", "X 2 missing colon"}));
}

TEST(AliasesFileTest, NulByteIsNoticed) {
  EXPECT_FALSE(AliasesFile("a: b\n").has_nul());
  EXPECT_TRUE(AliasesFile(std::string("a: b\0c\n", 7)).has_nul());
}

TEST(AliasesFileTest, BackslashOnTheLastLineWithoutLineEndStaysInTheValue) {
  EXPECT_EQ(Parse("a: b\\"), Lines({"E 1 a=b\\"}));
  EXPECT_EQ(Parse("a: b\\\n"), Lines({"E 1 a=b"}));
}

TEST(AliasesFileTest, PhysicalLinesCountLinesWithAndWithoutLineEnd) {
  EXPECT_EQ(AliasesFile("a: b\n\nc: d").PhysicalLines(), 3u);
  EXPECT_GE(AliasesFile("a: b\n").PhysicalLines(), 1u);
}

TEST(AliasesFileTest, EmptyAndCommentOnlyFilesHoldNothing) {
  EXPECT_TRUE(Parse("").empty());
  EXPECT_TRUE(Parse("\n\n# x\n#\n").empty());
}
