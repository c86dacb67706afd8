// What runs after each save of a sendmail file: makemap, the aliases
// rebuild, the queued restart; with the real sendmail tools.
#include "email_sendmail/after_save.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <typeinfo>

#include "counting_runner.h"
#include "email/fail.h"
#include "email/file_views.h"
#include "email/tables.h"
#include "sandbox.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/warn.h"

using zeltest::CountingRunner;
using zeltest::Sandbox;

namespace {

std::string TestName() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->name();
}

// The platform's handle on a file of table T, to call a step with any reason.
template <class T, class R>
ConfRef RefOf(const std::string& path) {
  T::template Get<R>(path, true);  // registers the table
  pnl_file::safe::Folder folder;
  return BaseCachedConfig<PnlConfCache>::Instance()->Config(typeid(T).name(), folder, path, true);
}

using Warnings = std::vector<std::string>;

std::string DumpMap(const std::string& path) {
  std::string out;
  zeltest::RunShell("/usr/sbin/makemap -u hash " + path, &out);
  return out;
}

class AfterSaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pnl_cf::Clear();
    pnl_cf::SetPath("sendmail-newaliases", "/usr/sbin/sendmail -bi -oA" + box_.Path("aliases"));
    pnl_cf::SetPath("sendmail-restart", "true restart-for-" + TestName());
    zel_api::DiscardDeferred();
    pnl_warn::Take();
    zelpriv_email_sendmail::InstallAfterSaveSteps();
  }
  void TearDown() override {
    zel_api::DiscardDeferred();
    BaseCachedConfig<PnlConfCache>::Instance()->DiscardDeferred();
    pnl_warn::Take();
  }

  Sandbox box_{TestName()};
};

}  // namespace

TEST_F(AfterSaveTest, PostToVirtualUserTableRebuildsTheHashedMap) {
  CountingRunner runner;
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
  lines->New();
  lines->name.Set("x@a.example");
  lines->target = "x+a.example";
  lines->Post("");
  EXPECT_EQ(runner.CountContaining("/usr/sbin/makemap hash " + box_.Path("virtusertable") +
                                   " < " + box_.Path("virtusertable")),
            1);
  EXPECT_TRUE(box_.Exists("virtusertable.db"));
  EXPECT_EQ(DumpMap(box_.Path("virtusertable")), "x@a.example\tx+a.example\n");
}

TEST_F(AfterSaveTest, APathTheShellWouldSplitIsQuotedForMakemap) {
  const std::string dir = box_.Path("mail files;$x");
  std::filesystem::create_directories(dir);
  CountingRunner runner;
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(dir + "/virtusertable", true);
  lines->New();
  lines->name.Set("x@a.example");
  lines->target = "x+a.example";
  lines->Post("");
  EXPECT_EQ(runner.CountContaining("/usr/sbin/makemap hash '" + dir + "/virtusertable' < '" + dir +
                                   "/virtusertable'"),
            1);
  EXPECT_EQ(DumpMap("'" + dir + "/virtusertable'"), "x@a.example\tx+a.example\n");
}

TEST_F(AfterSaveTest, PostToAccessMapRebuildsTheHashedMap) {
  auto access = email::AccessDb::Get<email::SourceTarget>(box_.Path("access"), true);
  access->New();
  access->source.Set("Connect:192.0.2.7");
  access->target.Set("REJECT");
  access->Post("");
  // makemap folds keys to lower case.
  EXPECT_EQ(DumpMap(box_.Path("access")), "connect:192.0.2.7\tREJECT\n");
}

TEST_F(AfterSaveTest, HashedMapIsRebuiltForReasonsZeroAndTwoOnly) {
  ConfRef ref = RefOf<email::VirtualUserTable, email::VirtualEmails>(box_.Path("virtusertable"));
  CountingRunner runner;
  for (ConfCache::SaveReason reason : {0, 1, 2, 3, 4}) {
    zelpriv_email_sendmail::RebuildHashedMap(ref, reason);
  }
  EXPECT_EQ(runner.CountContaining("makemap"), 2);
}

TEST_F(AfterSaveTest, AliasesAreRebuiltForReasonsZeroAndTwoOnly) {
  box_.Write("aliases", "root:\tadmin\\@a.example\n");
  ConfRef ref = RefOf<email::AliasTable, email::Aliases>(box_.Path("aliases"));
  CountingRunner runner;
  for (ConfCache::SaveReason reason : {0, 1, 2, 3}) {
    zelpriv_email_sendmail::RebuildAliases(ref, reason);
  }
  EXPECT_EQ(runner.CountContaining("sendmail -bi"), 2);
  EXPECT_TRUE(box_.Exists("aliases.db"));
}

TEST_F(AfterSaveTest, DuplicateKeyMakesThePostFailWithMakemapOutputAndKeepsTheText) {
  box_.Write("virtusertable", "x@a.example\tx+a.example\n");
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
  lines->New();
  lines->name.Set("x@a.example");
  lines->target = "other+a.example";
  try {
    lines->Post("");
    FAIL() << "a duplicate key must fail the post";
  } catch (const email::Fail& e) {
    EXPECT_EQ(e.object(), "makemap");
    EXPECT_NE(e.detail().find("duplicate key"), std::string::npos) << e.detail();
    EXPECT_TRUE(e.reported());
  }
  EXPECT_EQ(box_.Read("virtusertable"), "x@a.example\tx+a.example\nx@a.example\tother+a.example\n");
}

TEST_F(AfterSaveTest, NewaliasesFailureAboutThePostedEntryMakesThePostFailWithItsOutput) {
  box_.Write("aliases", "root:\tadmin\n");
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("info");  // no target: "missing value for alias"
  try {
    aliases->Post("");
    FAIL() << "a failing aliases rebuild must fail the post";
  } catch (const email::Fail& e) {
    EXPECT_EQ(e.object(), "newaliases");
    EXPECT_NE(e.detail().find("line 2: info:\t... missing value for alias"), std::string::npos) << e.detail();
  }
  EXPECT_EQ(box_.Read("aliases"), "root:\tadmin\ninfo:\t\n");
  EXPECT_TRUE(pnl_warn::Take().empty());
}

// Regression: one bad line someone else wrote made every later post fail,
// although the rebuild had built everything else, the posted entry included.
TEST_F(AfterSaveTest, ForeignAliasesLineThatDoesNotBuildMakesAWarningAndThePostStands) {
  box_.Write("aliases", "line without a colon\n");
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("info");
  aliases->alias = "root";
  aliases->Post("");
  EXPECT_EQ(box_.Read("aliases"), "line without a colon\ninfo:\troot\n");
  EXPECT_NE(DumpMap(box_.Path("aliases")).find("info\troot\n"), std::string::npos);
  EXPECT_EQ(pnl_warn::Take(),
            Warnings({box_.Path("aliases") + ": newaliases refused entries this command did not write (the rest "
                      "is built): line 1: missing colon"}));
}

TEST_F(AfterSaveTest, ForeignAliasesEntryOverSendmailsLimitMakesAWarningNamingIt) {
  box_.Write("aliases", "big:\t" + std::string(9000, 'x') + ",\n y\nnext:\tz\n");
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("next"));
  aliases->alias = "w";
  aliases->Post("");
  EXPECT_NE(DumpMap(box_.Path("aliases")).find("next\tw\n"), std::string::npos);
  EXPECT_EQ(pnl_warn::Take(),
            Warnings({box_.Path("aliases") + ": newaliases refused entries this command did not write (the rest "
                      "is built): \"big\" (line 1: alias line too long)"}));
}

TEST_F(AfterSaveTest, ForeignLineWithoutRhsInTheVirtualUserTableMakesAWarningAndThePostStands) {
  box_.Write("virtusertable", "norhs@a.example\n");
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
  lines->New();
  lines->name.Set("x@a.example");
  lines->target = "x+a.example";
  lines->Post("");
  EXPECT_EQ(DumpMap(box_.Path("virtusertable")), "x@a.example\tx+a.example\n");
  EXPECT_EQ(pnl_warn::Take(),
            Warnings({box_.Path("virtusertable") + ": makemap refused entries this command did not write (the "
                      "rest is built): \"norhs@a.example\" (line 1: no RHS for LHS norhs@a.example)"}));
}

TEST_F(AfterSaveTest, OwnLineWithoutRhsStillFailsThePost) {
  box_.Write("virtusertable", "norhs@a.example\n");
  auto domains = email::VirtualUserTable::Get<email::VirtualDomains>(box_.Path("virtusertable"), true);
  domains->New();
  domains->name.Set("A.example");  // "@A.example" without a target; makemap keys it "@a.example"
  try {
    domains->Post("");
    FAIL() << "a line of this post that does not build must fail it";
  } catch (const email::Fail& e) {
    EXPECT_EQ(e.object(), "makemap");
    EXPECT_NE(e.detail().find("line 2: no RHS for LHS @a.example"), std::string::npos) << e.detail();
  }
  EXPECT_TRUE(pnl_warn::Take().empty());
}

TEST_F(AfterSaveTest, ForeignDuplicateInTheAccessMapMakesAWarningNamingTheKey) {
  box_.Write("access", "dup@b.example\tOK\nDup@b.example\tREJECT\n");
  auto access = email::AccessDb::Get<email::SourceTarget>(box_.Path("access"), true);
  access->New();
  access->source.Set("new@c.example");
  access->target.Set("OK");
  access->Post("");
  EXPECT_EQ(DumpMap(box_.Path("access")), "dup@b.example\tOK\nnew@c.example\tOK\n");
  EXPECT_EQ(pnl_warn::Take(),
            Warnings({box_.Path("access") + ": makemap refused entries this command did not write (the rest is "
                      "built): \"dup@b.example\" (line 2: key dup@b.example: duplicate key)"}));
}

TEST_F(AfterSaveTest, OwnKeyRepeatedInOtherCaseInTheAccessMapStillFailsThePost) {
  box_.Write("access", "New@c.example\tREJECT\n");
  auto access = email::AccessDb::Get<email::SourceTarget>(box_.Path("access"), true);
  access->New();
  access->source.Set("new@c.example");
  access->target.Set("OK");
  EXPECT_THROW(access->Post(""), email::Fail);
  EXPECT_TRUE(pnl_warn::Take().empty());
}

// makemap reads a line longer than its buffer as several, counting each.
TEST_F(AfterSaveTest, ForeignLineLongerThanMakemapReadsIsNamedByItsKeyAndLaterLinesStillMap) {
  box_.Write("virtusertable", "long@a.example\t" + std::string(2100, 'y') + "\nnorhs@a.example\n");
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
  lines->New();
  lines->name.Set("x@a.example");
  lines->target = "x+a.example";
  lines->Post("");
  const std::vector<std::string> warnings = pnl_warn::Take();
  ASSERT_EQ(warnings.size(), 1u);
  const std::string& w = warnings[0];
  EXPECT_NE(w.find("\"long@a.example\" (line 1: line too long (1024 bytes max); line 2: line too long (1024 "
                   "bytes max); line 3: no RHS for LHS yyy"),
            std::string::npos)
      << w;
  EXPECT_NE(w.find("\"norhs@a.example\" (line 4: no RHS for LHS norhs@a.example)"), std::string::npos) << w;
  EXPECT_EQ(DumpMap(box_.Path("virtusertable")), "x@a.example\tx+a.example\n");
}

TEST_F(AfterSaveTest, DeferredSaveWeighsTheKeysOfAllItsChanges) {
  box_.Write("virtusertable", "norhs@a.example\n");
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
  engine->BeginDeferred();
  lines->New();
  lines->name.Set("x@a.example");
  lines->target = "x+a.example";
  lines->Post("");
  lines->New();
  lines->name.Set("y@a.example");  // no target: this change's own bad line
  lines->Post("");
  EXPECT_THROW(engine->FlushDeferred(), email::Fail);
  EXPECT_TRUE(pnl_warn::Take().empty());
  ASSERT_TRUE(lines->Find("y@a.example"));
  lines->target = "y+a.example";
  engine->BeginDeferred();
  lines->Post("");
  engine->FlushDeferred();
  EXPECT_EQ(pnl_warn::Take().size(), 1u);
}

TEST_F(AfterSaveTest, RebuildOutputThatCannotBeReadFailsThePostAsItSays) {
  pnl_cf::SetPath("sendmail-newaliases", "sh -c 'echo something went wrong; exit 1'");
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("info");
  aliases->alias = "root";
  try {
    aliases->Post("");
    FAIL() << "an unreadable failure must fail the post";
  } catch (const email::Fail& e) {
    EXPECT_EQ(e.object(), "newaliases");
    EXPECT_EQ(e.detail(), "something went wrong\n");
  }
  EXPECT_TRUE(pnl_warn::Take().empty());
}

TEST_F(AfterSaveTest, UnsetNewaliasesCommandFailsThePostWithAClearError) {
  pnl_cf::Clear();
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("info");
  aliases->alias = "root";
  try {
    aliases->Post("");
    FAIL() << "an unset aliases command must fail";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.object(), "sendmail-newaliases");
  }
  EXPECT_EQ(box_.Read("aliases"), "info:\troot\n");
}

TEST_F(AfterSaveTest, LocalHostNamesSaveQueuesTheRestartForTheEndOfTheRequest) {
  CountingRunner runner;
  auto hosts = email::LocalHostNames::Get<email::HostNames>(box_.Path("lhn"), true);
  hosts->Create("a.example");
  hosts->Post("");
  hosts->Create("b.example");
  hosts->Post("");
  EXPECT_EQ(runner.commands().size(), 0u) << "the restart is not run at once";
  const auto pending = zel_api::PendingCommands();
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0], "true restart-for-" + TestName());
}

TEST_F(AfterSaveTest, RestartIsQueuedForReasonZeroOnly) {
  ConfRef ref = RefOf<email::LocalHostNames, email::HostNames>(box_.Path("lhn"));
  zel_api::DiscardDeferred();
  for (ConfCache::SaveReason reason : {1, 2, 3}) zelpriv_email_sendmail::QueueRestart(ref, reason);
  EXPECT_TRUE(zel_api::PendingCommands().empty());
  ConfCache::SaveReason zero = 0;
  zelpriv_email_sendmail::QueueRestart(ref, zero);
  EXPECT_EQ(zel_api::PendingCommands().size(), 1u);
}

TEST_F(AfterSaveTest, FilesWrittenByTheTablesAreAcceptedByMakemapAndNewaliasesAndReadBack) {
  {
    auto domains = email::VirtualUserTable::Get<email::VirtualDomains>(box_.Path("virtusertable"), true);
    domains->New();
    domains->name.Set("a.example");
    domains->target.Set("error:nouser No such user here");
    domains->Post("");
    auto emails = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
    emails->New();
    emails->name.Set("x@a.example");
    emails->target = "x+a.example";
    emails->Post(*domains);
    auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
    aliases->New();
    aliases->name.Set("x+a.example");
    aliases->alias.Append("x\\@a.example");
    aliases->alias.Append("fwd@b.example");
    aliases->Post("");
  }
  EXPECT_EQ(DumpMap(box_.Path("virtusertable")),
            "@a.example\terror:nouser No such user here\nx@a.example\tx+a.example\n");
  std::string out;
  ASSERT_EQ(zeltest::RunShell("/usr/sbin/makemap -u hash " + box_.Path("aliases"), &out), 0) << out;
  EXPECT_NE(out.find("x+a.example\tx\\@a.example, fwd@b.example\n"), std::string::npos) << out;

  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("x+a.example"));
  ASSERT_EQ(aliases->alias.Size(), 2u);
  EXPECT_EQ(aliases->alias[0], "x\\@a.example");
  EXPECT_EQ(aliases->alias[1], "fwd@b.example");
}

// A rebuild of every aliases file of a configuration reports on the others
// too. (sendmail shortens a long name, which then cannot be told apart from
// the saved file: the other file's folder has a short name.)
TEST_F(AfterSaveTest, ErrorsOfAnotherAliasesFileAreNotThisSavesAndMakeAWarning) {
  Sandbox other("oa");
  other.Write("aliases", "no colon\n");
  pnl_cf::SetPath("sendmail-newaliases",
                  "/usr/sbin/sendmail -bi -oA" + other.Path("aliases") + " -oA" + box_.Path("aliases"));
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("info");
  aliases->alias = "root";
  aliases->Post("");
  EXPECT_NE(DumpMap(box_.Path("aliases")).find("info\troot\n"), std::string::npos);
  EXPECT_EQ(pnl_warn::Take(),
            Warnings({box_.Path("aliases") + ": newaliases refused entries this command did not write (the rest "
                      "is built): " + other.Path("aliases") + ": line 1: missing colon"}));
}

TEST_F(AfterSaveTest, AFileNameThatCannotBeToldApartFromTheSavedFileFailsThePost) {
  pnl_cf::SetPath("sendmail-newaliases", "sh -c 'echo \"aliases: line 1: missing colon\"; exit 70'");
  auto aliases = email::AliasTable::Get<email::Aliases>(box_.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("info");
  aliases->alias = "root";
  EXPECT_THROW(aliases->Post(""), email::Fail);
  EXPECT_TRUE(pnl_warn::Take().empty());
}
