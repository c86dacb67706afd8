// Aliases entries over several lines, as sendmail reads them: an entry is
// its first line and the lines that continue it (a line starting with a
// blank or a tab, a line after a backslash before the line end). Golden
// round trips on the samples of tests/data/aliases: input + edit = the
// expected bytes; refused edits leave the file as it was.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "email/file_views.h"
#include "email/tables.h"
#include "sandbox.h"
#include "zelapi/err.h"

using email::Aliases;
using email::AliasTable;
using zeltest::Sandbox;

namespace {

std::string TestName() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->name();
}

std::string Sample(const std::string& name) {
  std::ifstream in(std::string(ZEL_TEST_DATA) + "/aliases/" + name, std::ios::binary);
  if (!in) throw std::runtime_error("no sample " + name);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// The targets of entry key, joined by " | ".
std::string Targets(Cursor<Aliases>& entry, const std::string& key) {
  if (!entry->Find(key)) return "(none)";
  std::string out;
  for (const std::string& target : entry->alias.Elements()) out += (out.empty() ? "" : " | ") + target;
  return out;
}

class AliasesEntriesTest : public ::testing::Test {
 protected:
  // The sample copied into the sandbox, and a cursor on it.
  Cursor<Aliases> Open(const std::string& sample) {
    box_.Write("aliases", Sample(sample));
    return AliasTable::Get<Aliases>(box_.Path("aliases"), true);
  }
  std::string Saved() { return box_.Read("aliases"); }

  Sandbox box_{TestName()};
};

}  // namespace

TEST_F(AliasesEntriesTest, EveryLineOfAnEntryGivesItsTargets) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  EXPECT_EQ(Targets(entry, "postmaster"), "root");
  EXPECT_EQ(Targets(entry, "root"), "admin@example.org | ops@example.org");
  EXPECT_EQ(Targets(entry, "team"), "ann@example.org | bob@example.org | \"|/usr/bin/logger -t team\"");
  EXPECT_EQ(Targets(entry, "l+d.example"), "f@x.example | g@y.example | l\\@d.example");
  // A line of blanks only continues the entry too.
  EXPECT_EQ(Targets(entry, "spaced"), "a@example.org | b@example.org");
  // A backslash before the line end takes in the next line, whatever it holds.
  EXPECT_EQ(Targets(entry, "joined"), "c@example.org | d@example.org");
  EXPECT_EQ(Targets(entry, "d@example.org"), "(none)");
  // A comment ends the entry, and takes the indented line after it along.
  EXPECT_EQ(Targets(entry, "split"), "e@example.org");
  EXPECT_EQ(Targets(entry, "last"), "z@example.org");
  std::size_t entries = 0;
  for (entry->First(); !entry->Eof(); entry->Next()) ++entries;
  EXPECT_EQ(entries, 9u);
}

TEST_F(AliasesEntriesTest, UnchangedEntryPostedKeepsTheFileByteForByte) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  ASSERT_TRUE(entry->Find("team"));
  entry->Post("");
  EXPECT_EQ(Saved(), Sample("continuation.aliases"));
}

// Regression: only the first line was rewritten, and the continuation lines
// left below it were glued onto the new targets by sendmail.
TEST_F(AliasesEntriesTest, RewrittenEntryReplacesItsContinuationLinesWithOneLine) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  ASSERT_TRUE(entry->Find("l+d.example"));
  entry->alias.Erase();
  entry->alias.Append("f@x.example");
  entry->alias.Append("l\\@d.example");
  entry->Post("");
  EXPECT_EQ(Saved(), Sample("continuation_rewrite.golden"));
  Cursor<Aliases> again = AliasTable::Get<Aliases>(box_.Path("aliases"), true);
  EXPECT_EQ(Targets(again, "l+d.example"), "f@x.example | l\\@d.example");
  EXPECT_EQ(Targets(again, "spaced"), "a@example.org | b@example.org");
}

TEST_F(AliasesEntriesTest, DeletedEntryTakesItsContinuationLines) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  ASSERT_TRUE(entry->Delete("team"));
  EXPECT_EQ(Saved(), Sample("continuation_delete.golden"));
}

TEST_F(AliasesEntriesTest, ChangedOneLineEntryKeepsItsSpacing) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  ASSERT_TRUE(entry->Find("postmaster"));
  entry->alias.Append("admin@example.org");
  entry->Post("");
  EXPECT_EQ(Saved(), Sample("continuation_change_one_line.golden"));
}

TEST_F(AliasesEntriesTest, NewEntryFollowsALastLineWithoutLineEnd) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  entry->New();
  entry->name.Set("new+d.example");
  entry->alias.Append("new\\@d.example");
  entry->Post("");
  EXPECT_EQ(Saved(), Sample("continuation_append.golden"));
}

// A new entry appended after a line ending in a backslash would become part
// of that line's entry.
TEST_F(AliasesEntriesTest, NewEntryGoesBeforeALastLineEndingInABackslash) {
  Cursor<Aliases> entry = Open("backslash-last.aliases");
  entry->New();
  entry->name.Set("new+d.example");
  entry->alias.Append("new\\@d.example");
  entry->Post("");
  EXPECT_EQ(Saved(), Sample("backslash-last_append.golden"));
  Cursor<Aliases> again = AliasTable::Get<Aliases>(box_.Path("aliases"), true);
  EXPECT_EQ(Targets(again, "new+d.example"), "new\\@d.example");
}

TEST_F(AliasesEntriesTest, NewEntryIntoAFileOfOneLineEndingInABackslashGoesFirst) {
  box_.Write("aliases", "only:\ty@example.org, \\\n");
  Cursor<Aliases> entry = AliasTable::Get<Aliases>(box_.Path("aliases"), true);
  entry->New();
  entry->name.Set("new+d.example");
  entry->alias.Append("new\\@d.example");
  entry->Post("");
  EXPECT_EQ(Saved(), "new+d.example:\tnew\\@d.example\nonly:\ty@example.org, \\\n");
}

TEST_F(AliasesEntriesTest, TargetEndingInABackslashIsRefusedAndNothingWritten) {
  Cursor<Aliases> entry = Open("continuation.aliases");
  ASSERT_TRUE(entry->Find("root"));
  entry->alias.Append("x\\");
  try {
    entry->Post("");
    FAIL() << "posted";
  } catch (const pnl_err::Error& e) {
    EXPECT_NE(std::string(e.what()).find("would take in the line after it"), std::string::npos) << e.what();
  }
  EXPECT_EQ(Saved(), Sample("continuation.aliases"));
}

// sendmail reads at most 8190 bytes of an entry: the engine writes no longer one.
TEST_F(AliasesEntriesTest, EntryAtSendmailsLimitIsWrittenAndOneByteMoreIsRefused) {
  box_.Write("aliases", "a:\tb\n");
  Cursor<Aliases> entry = AliasTable::Get<Aliases>(box_.Path("aliases"), true);
  ASSERT_TRUE(entry->Find("a"));
  const std::string at(email::kLongestAliasesEntry - 3, 't');  // "a:\t" and the target
  entry->alias = at;
  entry->Post("");
  EXPECT_EQ(box_.Read("aliases"), "a:\t" + at + "\n");
  ASSERT_TRUE(entry->Find("a"));
  entry->alias = at + "t";
  try {
    entry->Post("");
    FAIL() << "posted";
  } catch (const pnl_err::Error& e) {
    const std::string why = "the line would be 8191 bytes, over the longest the file takes (8190 bytes)";
    EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
  }
  EXPECT_EQ(box_.Read("aliases"), "a:\t" + at + "\n");
}

TEST(CheckAliasesEntryTest, EntryOverTheLimitIsRefusedNamingItsSizeAndTheLimit) {
  const std::string forward(4090, 'f');
  EXPECT_NO_THROW(email::CheckAliasesEntry("l+d.example", {forward, "x"}, 1));
  try {
    email::CheckAliasesEntry("l+d.example", {forward, forward}, 2);
    FAIL() << "accepted";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kLimit);
    EXPECT_EQ(std::string(e.what()),
              "aliases entry \"l+d.example\": 8195 bytes with its 2 forwards, over sendmail's limit of "
              "8190 bytes; remove forwards");
  }
}
