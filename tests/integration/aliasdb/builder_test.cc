// The alias database builder on real files: the map it writes, how it puts
// it in place, its messages and exit status; lines left to sendmail's
// parser are answered by the real sendmail.
#include "zelaliasdb/builder.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <thread>

#include "sandbox.h"
#include "zelaliasdb/aliases_file.h"
#include "zelaliasdb/hash_map.h"
#include "zelapi/err.h"

using zel_aliasdb::Build;
using zel_aliasdb::BuildOptions;
using zel_aliasdb::BuildReport;
using zel_aliasdb::ReadHashMap;
using zeltest::Sandbox;

namespace {

std::string TestName() { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }

std::map<std::string, std::string> MapOf(const std::string& db) {
  std::map<std::string, std::string> out;
  for (auto& [k, v] : ReadHashMap(db)) out[k] = v;
  return out;
}

std::string Z(const std::string& s) { return s + std::string(1, '\0'); }

using zeltest::FolderListing;

class BuilderTest : public ::testing::Test {
 protected:
  BuildReport BuildFile(const std::string& text) {
    box_.Write("aliases", text);
    options_.alias_file = box_.Path("aliases");
    return Build(options_);
  }

  Sandbox box_{TestName()};
  BuildOptions options_;
};

}  // namespace

TEST_F(BuilderTest, MapHoldsNulTerminatedKeysAndValuesAndTheEndMarker) {
  BuildFile("Root: Admin\n");
  EXPECT_EQ(MapOf(box_.Path("aliases.db")),
            (std::map<std::string, std::string>{{Z("@"), Z("@")}, {Z("root"), Z("Admin")}}));
}

TEST_F(BuilderTest, SummaryCountsEntriesLongestValueAndBytesOfKeysAndValues) {
  const BuildReport r = BuildFile("root: admin\nFoo: bar, baz\n");
  EXPECT_EQ(r.output, std::vector<std::string>{box_.Path("aliases") + ": 2 aliases, longest 8 bytes, 20 bytes total"});
  EXPECT_EQ(r.exit_code, 0);
}

TEST_F(BuilderTest, RepeatedNameKeepsTheLastValueAndWarnsWithTheNameAsWritten) {
  const BuildReport r = BuildFile("A : x\na: y\nA\t: z\n");
  const std::string f = box_.Path("aliases");
  const std::string s = zel_aliasdb::ShortFileName(f);
  EXPECT_EQ(r.output, (std::vector<std::string>{s + ": line 2: a... Warning: duplicate alias name a",
                                                s + ": line 3: A\t... Warning: duplicate alias name a",
                                                f + ": 3 aliases, longest 1 bytes, 6 bytes total"}));
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("a")), Z("z"));
}

TEST_F(BuilderTest, RejectedLinesAreReportedAndTheRestIsStillBuilt) {
  const BuildReport r = BuildFile("a: b\nno colon\nc:\nd: e\n");
  const std::string f = box_.Path("aliases");
  const std::string s = zel_aliasdb::ShortFileName(f);
  EXPECT_EQ(r.output, (std::vector<std::string>{s + ": line 2: missing colon",
                                                s + ": line 3: c:... missing value for alias",
                                                f + ": 2 aliases, longest 1 bytes, 4 bytes total"}));
  EXPECT_EQ(r.exit_code, 70);
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).size(), 3u);
}

TEST_F(BuilderTest, NameOnlySendmailCanJudgeIsAnsweredBySendmailWithTheOriginalLineNumber) {
  const BuildReport r = BuildFile("a: b\n# c\nuser@example.com: x,\n  y\nJoe <jdoe>: z\n");
  const std::string f = box_.Path("aliases");
  EXPECT_EQ(r.output, (std::vector<std::string>{zel_aliasdb::ShortFileName(f) + ": line 4: user@example.com... cannot alias non-local names",
                                                f + ": 2 aliases, longest 1 bytes, 7 bytes total"}));
  EXPECT_EQ(r.exit_code, 70);
  EXPECT_EQ(r.odd_lines, 2u);
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("jdoe")), Z("z"));
}

TEST_F(BuilderTest, RepeatOfANameSendmailJudgedIsShownAsSendmailShowsIt) {
  const BuildReport r = BuildFile("jdoe: a\nJoe <jdoe>: b\n");
  EXPECT_EQ(r.output.at(0), zel_aliasdb::ShortFileName(box_.Path("aliases")) + ": line 2: Joe <jdoe>... Warning: duplicate alias name jdoe");
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("jdoe")), Z("b"));
}

TEST_F(BuilderTest, LongFileNameIsShortenedInLineMessagesAsSendmailDoes) {
  EXPECT_EQ(zel_aliasdb::ShortFileName(std::string(82, 'a')), std::string(82, 'a'));
  EXPECT_EQ(zel_aliasdb::ShortFileName(std::string(43, 'a') + std::string(40, 'b')),
            std::string(40, 'a') + "..." + std::string(40, 'b'));
  const std::string folder = box_.Path(std::string(60, 'd'));
  std::filesystem::create_directory(folder);
  zeltest::WriteFile(folder + "/aliases", "no colon\n");
  options_.alias_file = folder + "/aliases";
  std::string theirs;
  zeltest::RunShell("/usr/sbin/sendmail -bi -oA" + folder + "/aliases", &theirs);
  const BuildReport r = Build(options_);
  std::string ours;
  for (const std::string& line : r.output) ours += line + "\n";
  EXPECT_EQ(ours, theirs);
}

TEST_F(BuilderTest, LastLineForSendmailIsAskedAsItEndsTheFile) {
  // Without a line end the backslash stays; before a last line end it goes.
  BuildFile("x <j>: a\nJoe <j>: b\\");
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("j")), Z("b\\"));
  const BuildReport r = BuildFile("x <j>: a\nJoe <j>: b\\\n");
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("j")), Z("b"));
  EXPECT_EQ(r.output.at(0), zel_aliasdb::ShortFileName(box_.Path("aliases")) +
                                ": line 2: Joe <j>... Warning: duplicate alias name j");
}

TEST_F(BuilderTest, FirstFailingLineGivesTheExitStatus) {
  EXPECT_EQ(BuildFile("tail@: x\nno colon\n").exit_code, 64);
  EXPECT_EQ(BuildFile("no colon\ntail@: x\n").exit_code, 70);
}

TEST_F(BuilderTest, NewMapReplacesTheOldOneByRenameAndLeavesNoTemporaryFile) {
  BuildFile("a: old\n");
  // A second name for the old map: rewriting it in place would change it.
  ASSERT_EQ(::link(box_.Path("aliases.db").c_str(), box_.Path("old.db").c_str()), 0);
  BuildFile("a: new\n");
  EXPECT_EQ(MapOf(box_.Path("old.db")).at(Z("a")), Z("old"));
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("a")), Z("new"));
  EXPECT_EQ(FolderListing(box_.dir()), (std::vector<std::string>{"aliases", "aliases.db", "old.db"}));
}

TEST_F(BuilderTest, NewMapKeepsModeAndOwnerOfTheOldOne) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  BuildFile("a: b\n");
  ASSERT_EQ(::chmod(box_.Path("aliases.db").c_str(), 0604), 0);
  ASSERT_EQ(::chown(box_.Path("aliases.db").c_str(), 4321, 4322), 0);
  BuildFile("a: c\n");
  struct stat st {};
  ASSERT_EQ(::stat(box_.Path("aliases.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0604u);
  EXPECT_EQ(st.st_uid, 4321u);
  EXPECT_EQ(st.st_gid, 4322u);
}

TEST_F(BuilderTest, BuildWaitsWhileTheAliasesFileIsLocked) {
  box_.Write("aliases", "a: b\n");
  options_.alias_file = box_.Path("aliases");
  // sendmail's rebuild holds this lock while it works.
  const int held = ::open(box_.Path("aliases").c_str(), O_RDONLY);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  std::thread build([&] { Build(options_); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(box_.Exists("aliases.db"));
  ::flock(held, LOCK_UN);
  ::close(held);
  build.join();
  EXPECT_TRUE(box_.Exists("aliases.db"));
}

TEST_F(BuilderTest, SendmailLeavesTheMapAloneWhileABuildHoldsTheLock) {
  box_.Write("aliases", "a: b\n");
  const int held = ::open(box_.Path("aliases").c_str(), O_RDONLY);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  std::string out;
  zeltest::RunShell("/usr/sbin/sendmail -bi -oA" + box_.Path("aliases"), &out);
  ::close(held);
  EXPECT_NE(out.find("is locked"), std::string::npos) << out;
  EXPECT_FALSE(box_.Exists("aliases.db"));
}

TEST_F(BuilderTest, FirstMapIsReadableByOwnerAndGroupOnly) {
  BuildFile("a: b\n");
  struct stat st {};
  ASSERT_EQ(::stat(box_.Path("aliases.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(BuilderTest, FailedWriteLeavesTheOldMapAndNoTemporaryFile) {
  BuildFile("a: old\n");
  options_.writer = zel_aliasdb::Writer::kMakemap;
  options_.makemap = "/bin/false";
  try {
    BuildFile("a: new\n");
    FAIL() << "expected the build to fail";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kAliasDb);
    // Either makemap is gone before it was written to, or it ends with status 1.
    EXPECT_NE(std::string(e.what()).find("/bin/false"), std::string::npos) << e.what();
  }
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).at(Z("a")), Z("old"));
  EXPECT_EQ(FolderListing(box_.dir()), (std::vector<std::string>{"aliases", "aliases.db"}));
}

TEST_F(BuilderTest, MakemapWriterBuildsTheSameMap) {
  const std::string text = "Root: Admin\nlist: a,\n  \"b, c\"\nx: \"|/bin/cat\"  \n";
  BuildFile(text);
  const auto direct = MapOf(box_.Path("aliases.db"));
  options_.writer = zel_aliasdb::Writer::kMakemap;
  BuildFile(text);
  EXPECT_EQ(MapOf(box_.Path("aliases.db")), direct);
  EXPECT_EQ(FolderListing(box_.dir()), (std::vector<std::string>{"aliases", "aliases.db"}));
}

TEST_F(BuilderTest, MakemapWriterRefusesAKeyMakemapWouldReadAsAComment) {
  options_.writer = zel_aliasdb::Writer::kMakemap;
  EXPECT_THROW(BuildFile("\"#x\": y\n"), pnl_err::Error);
  EXPECT_EQ(FolderListing(box_.dir()), std::vector<std::string>{"aliases"});
}

TEST_F(BuilderTest, MissingAliasesFileIsReportedAsSendmailDoesWithoutAMap) {
  options_.alias_file = box_.Path("none");
  const BuildReport r = Build(options_);
  EXPECT_EQ(r.output, std::vector<std::string>{"newaliases: cannot open " + box_.Path("none") +
                                               ": No such file or directory"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_FALSE(r.built);
  EXPECT_FALSE(box_.Exists("none.db"));
}

TEST_F(BuilderTest, FileWithNulByteIsHandedToSendmailWhole) {
  const BuildReport r = BuildFile(std::string("a: b\nc: d\0e\nf: g\n", 18));
  EXPECT_TRUE(r.whole_file_by_sendmail);
  EXPECT_EQ(r.output.at(0), zel_aliasdb::ShortFileName(box_.Path("aliases")) + ": line 2: alias line too long");
  EXPECT_EQ(r.exit_code, 70);
  EXPECT_EQ(MapOf(box_.Path("aliases.db")).count(Z("a")), 1u);
}

TEST_F(BuilderTest, AliasesFileThatCannotBeReadFailsNamingIt) {
  std::filesystem::create_directory(box_.Path("folder"));
  options_.alias_file = box_.Path("folder");
  try {
    Build(options_);
    FAIL() << "expected a failure";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kAliasDb);
    EXPECT_EQ(std::string(e.what()), box_.Path("folder") + ": cannot read: Is a directory");
  }
  EXPECT_FALSE(box_.Exists("folder.db"));
}

TEST(AliasFilesOfTest, ReadsTheAliasFileOptionOfASendmailConfiguration) {
  Sandbox box(TestName());
  box.Write("sendmail.cf", "# x\nO AliasWait=10\nO AliasFile=/etc/mail/aliases, hash:/srv/more\nO Other=1\n");
  EXPECT_EQ(zel_aliasdb::AliasFilesOf(box.Path("sendmail.cf")),
            (std::vector<std::string>{"/etc/mail/aliases", "/srv/more"}));
}

TEST(AliasFilesOfTest, RefusesMapsThatAreNoHashFile) {
  Sandbox box(TestName());
  box.Write("sendmail.cf", "O AliasFile=/etc/mail/aliases,nis:mail.aliases\n");
  EXPECT_THROW(zel_aliasdb::AliasFilesOf(box.Path("sendmail.cf")), pnl_err::Error);
  box.Write("sendmail.cf", "O AliasWait=10\n");
  EXPECT_THROW(zel_aliasdb::AliasFilesOf(box.Path("sendmail.cf")), pnl_err::Error);
}
