// A command whose request ended after it saved a file and before the
// database kept its rows (a failed rebuild, or the process killed), run
// again: it completes the change and writes each key once. And the maps a
// request did not get to rebuild are rebuilt by the next one.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "faults_support.h"

namespace fs = std::filesystem;
using zelfaults::Panel;

namespace {

class RerunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    panel_.Ok({"webdomain", "add", "d.example", "--owner", "admin"});
    panel_.Ok({"webdomain", "add", "e.example", "--owner", "admin"});
    panel_.Ok({"mail", "domain", "add", "d.example"});
    panel_.Ok({"mail", "box", "add", "l@d.example"});
  }

  // Runs args with the virtual user table's map made unwritable, so the
  // command fails after its save; the map is put back afterwards.
  void FailAtTheRebuild(const std::vector<std::string>& args) {
    fs::rename(panel_.Path("virtusertable.db"), panel_.Path("virtusertable.db.kept"));
    fs::create_directory(panel_.Path("virtusertable.db"));
    const zelfaults::Result run = panel_.Zel(args);
    fs::remove(panel_.Path("virtusertable.db"));
    fs::rename(panel_.Path("virtusertable.db.kept"), panel_.Path("virtusertable.db"));
    ASSERT_EQ(run.status, 1) << run.err;
    ASSERT_NE(run.err.find("makemap"), std::string::npos) << run.err;
  }

  int Count(const std::string& file, const std::string& line_start) const {
    int n = 0;
    for (const std::string& line : zeltest::Lines(panel_.Read(file)))
      if (line.rfind(line_start, 0) == 0) ++n;
    return n;
  }

  void ExpectInStep() const {
    int status = -1;
    EXPECT_EQ(panel_.SyncChanges(status), "");
    EXPECT_EQ(status, 0);
  }

  // Makes the map older than its text, as a request ended before the
  // rebuild leaves it.
  void AgeMap(const std::string& file) const {
    const std::string map = panel_.Path(file + ".db");
    const struct timespec times[2] = {{::time(nullptr) - 60, 0}, {::time(nullptr) - 60, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, map.c_str(), times, 0), 0);
  }

  Panel panel_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

}  // namespace

TEST_F(RerunTest, AMailboxAddRunAgainAfterAFailedRebuildWritesItsLinesOnce) {
  FailAtTheRebuild({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(Count("virtusertable", "n@d.example\t"), 1) << "the save stays";
  EXPECT_EQ(panel_.Query("SELECT count(*) FROM email WHERE name = 'n'"), "0\n");
  panel_.Ok({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(Count("virtusertable", "n@d.example\t"), 1) << panel_.Read("virtusertable");
  EXPECT_EQ(Count("aliases", "n+d.example:"), 1) << panel_.Read("aliases");
  EXPECT_EQ(panel_.Query("SELECT count(*) FROM email WHERE name = 'n'"), "1\n");
  EXPECT_NE(panel_.MapDump("virtusertable").find("n@d.example\tn+d.example"), std::string::npos);
  ExpectInStep();
}

TEST_F(RerunTest, AMailboxAddWithAliasesRunAgainReplacesTheEarlierAliasLines) {
  FailAtTheRebuild({"mail", "box", "add", "n@d.example", "--alias", "a", "--forward", "f@x.example"});
  panel_.Ok({"mail", "box", "add", "n@d.example", "--alias", "a", "--forward", "f@x.example"});
  EXPECT_EQ(Count("virtusertable", "n@d.example\t"), 1) << panel_.Read("virtusertable");
  EXPECT_EQ(Count("virtusertable", "a@d.example\t"), 1) << panel_.Read("virtusertable");
  EXPECT_EQ(Count("aliases", "n+d.example:"), 1) << panel_.Read("aliases");
  ExpectInStep();
}

TEST_F(RerunTest, AMailboxAddFindingOnlyItsAliasesEntryWritesItOnce) {
  panel_.Write("aliases", panel_.Read("aliases") + "n+d.example:\tn\\@d.example\n");
  panel_.Ok({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(Count("aliases", "n+d.example:"), 1) << panel_.Read("aliases");
  EXPECT_EQ(Count("virtusertable", "n@d.example\t"), 1);
  ExpectInStep();
}

TEST_F(RerunTest, AMailboxAddRefusesALineThatIsNotThePanelsAndChangesNothing) {
  panel_.Write("virtusertable", panel_.Read("virtusertable") + "n@d.example\tsomeone@x.example\n");
  const auto files = panel_.Files();
  const std::string rows = panel_.Rows();
  const zelfaults::Result run = panel_.Zel({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: mailbox \"n@d.example\": the virtual user table has a line for it already, "
            "pointing to \"someone@x.example\"; remove that line, or run \"zelpnl mail sync\" to "
            "take it over\n");
  EXPECT_EQ(panel_.Files(), files);
  EXPECT_EQ(panel_.Rows(), rows);
}

TEST_F(RerunTest, AMailDomainAddRunAgainAfterAFailedRebuildWritesItsCatchAllOnce) {
  FailAtTheRebuild({"mail", "domain", "add", "e.example"});
  EXPECT_EQ(Count("virtusertable", "@e.example\t"), 1) << "the save stays";
  EXPECT_EQ(panel_.Query("SELECT count(*) FROM email_domain WHERE name = 'e.example'"), "0\n");
  panel_.Ok({"mail", "domain", "add", "e.example", "--default-action", "ignore"});
  EXPECT_EQ(Count("virtusertable", "@e.example\t"), 1) << panel_.Read("virtusertable");
  EXPECT_EQ(Count("local-host-names", "e.example"), 1) << panel_.Read("local-host-names");
  EXPECT_NE(panel_.MapDump("virtusertable").find("@e.example\tdevnull"), std::string::npos)
      << panel_.MapDump("virtusertable");
  ExpectInStep();
}

TEST_F(RerunTest, ADeleteRunAgainRebuildsTheMapItsFirstRunDidNotReach) {
  panel_.Ok({"mail", "blacklist", "add", "spam.example"});
  // The first run saved the access file without the entry and was killed.
  std::string access = panel_.Read("access");
  access.erase(access.find("spam.example"), access.find('\n', access.find("spam.example")) + 1 -
                                                access.find("spam.example"));
  panel_.Write("access", access);
  AgeMap("access");
  ASSERT_NE(panel_.MapDump("access").find("spam.example"), std::string::npos);
  panel_.Zel({"mail", "blacklist", "delete", "spam.example"});
  EXPECT_EQ(panel_.MapDump("access").find("spam.example"), std::string::npos)
      << panel_.MapDump("access");
}

TEST_F(RerunTest, AnyMailCommandRebuildsAMapOlderThanItsFile) {
  panel_.Write("virtusertable", panel_.Read("virtusertable") + "x@d.example\tl+d.example\n");
  AgeMap("virtusertable");
  panel_.Ok({"mail", "domain", "list"});
  EXPECT_NE(panel_.MapDump("virtusertable").find("x@d.example\tl+d.example"), std::string::npos)
      << panel_.MapDump("virtusertable");
}

TEST_F(RerunTest, AStaleMapThatCannotBeRebuiltIsAWarningAndTheCommandGoesOn) {
  panel_.Write("access", "dup.example\tREJECT\ndup.example\tOK\n");
  AgeMap("access");
  const zelfaults::Result run = panel_.Zel({"mail", "domain", "list"});
  EXPECT_EQ(run.status, 0);
  // The command wrote none of the lines makemap refused.
  EXPECT_EQ(run.err, "warning: " + panel_.Path("access") +
                         ": makemap refused entries this command did not write (the rest is built): "
                         "\"dup.example\" (line 2: key dup.example: duplicate key)\n");
  EXPECT_NE(panel_.Read("zelpnl.log").find("refused entries this command did not write"), std::string::npos);
}

TEST_F(RerunTest, AStaleMapWhoseRebuildCannotBeReadIsAWarningAndTheCommandGoesOn) {
  // makemap cannot write a map where a folder stands: it says so, naming no line.
  panel_.Write("virtusertable", "x@d.example\tx+d.example\n");
  std::filesystem::remove(panel_.Path("virtusertable.db"));
  std::filesystem::create_directory(panel_.Path("virtusertable.db"));
  AgeMap("virtusertable");
  const zelfaults::Result run = panel_.Zel({"mail", "domain", "list"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err.rfind("warning: the virtual user table map is older than its file and could not be "
                          "rebuilt: makemap: ",
                          0),
            0u)
      << run.err;
  EXPECT_NE(panel_.Read("zelpnl.log").find("could not be rebuilt"), std::string::npos);
}

TEST_F(RerunTest, ASaveRemovesTheTemporaryFileAKilledSaveLeft) {
  const std::string left = panel_.Path(".virtusertable.kIlLd1");
  panel_.Write(".virtusertable.kIlLd1", "half a fi");
  const struct timespec times[2] = {{::time(nullptr) - 60, 0}, {::time(nullptr) - 60, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, left.c_str(), times, 0), 0);
  panel_.Ok({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(panel_.HiddenFiles(), std::vector<std::string>());
}
