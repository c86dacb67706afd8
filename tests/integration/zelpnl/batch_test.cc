// zelpnl batch: many commands in one request, each changed file saved and
// rebuilt once; failed lines reported and set back as single commands are.
#include <filesystem>
#include <fstream>

#include "zelpnl_fixture.h"

using zeltest::kCatchAll;
using zeltest::kDevnull;
using zeltest::ZelpnlTest;

namespace {

class ZelpnlBatchTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    // Every command the platform runs is logged with its duration at debug
    // level: the tests count the rebuilds.
    SetConfig("log_level", "debug");
  }

  // Writes text as the batch file and runs "zelpnl batch FILE args...".
  zeltest::Result Batch(const std::string& text, const std::vector<std::string>& args = {}) {
    WriteFile("batch.txt", text);
    std::vector<std::string> all = {"batch", Path("batch.txt")};
    all.insert(all.end(), args.begin(), args.end());
    return Zel(all);
  }

  // How many commands the log says ran whose command line contains what.
  int Ran(const std::string& what) const {
    const std::string log = File("zelpnl.log");
    int count = 0;
    size_t at = 0;
    while ((at = log.find("ran \"", at)) != std::string::npos) {
      const size_t end = log.find('\n', at);
      if (log.substr(at, end - at).find(what) != std::string::npos) ++count;
      at = end;
    }
    return count;
  }
  int Makemaps(const std::string& file) const { return Ran("makemap hash " + Path(file) + " "); }
  int Newaliases() const { return Ran(" -bi"); }

  void ClearLog() const { WriteFile("zelpnl.log", ""); }

  // Makes the map of file unbuildable: makemap refuses a folder in its place.
  void BreakMap(const std::string& file) const {
    std::filesystem::remove(Path(file + ".db"));
    std::filesystem::create_directory(Path(file + ".db"));
  }

  std::string Vut(const std::string& lines) { return std::string(kCatchAll) + lines; }
  std::string Aliases(const std::string& lines) { return std::string(kDevnull) + lines; }
};

const char kSetUp[] =
    "# a domain with three mailboxes\n"
    "webdomain add d.example --owner admin\n"
    "mail domain add d.example\n"
    "\n"
    "mail box add l@d.example --alias a --forward f@x.example\n"
    "   # an indented comment\n"
    "mail box add m@d.example\n"
    "mail box add n@d.example\n"
    "mail box suspend n@d.example\n"
    "mail whitelist add friend@partner.example\n";

}  // namespace

TEST_F(ZelpnlBatchTest, RunsEveryLineAndRebuildsEachChangedFileOnce) {
  ClearLog();
  const zeltest::Result run = Batch(kSetUp);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(File("virtusertable"),
            Vut("n@d.example\terror:nouser Account temporary disabled\n"
                "m@d.example\tm+d.example\n"
                "l@d.example\tl+d.example\n"
                "a@d.example\tl@d.example\n"));
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tf@x.example, l\\@d.example\n"
                                     "m+d.example:\tm\\@d.example\n"
                                     "n+d.example:\tn@d.example\n"));
  EXPECT_EQ(File("access"), "n@d.example\t550 Account disabled\nfriend@partner.example\tOK\n");
  EXPECT_EQ(File("local-host-names"), "d.example\n");
  EXPECT_EQ(Rows("SELECT e.name, e.enabled FROM email e ORDER BY e.name"), "l:1|m:1|n:0");
  EXPECT_EQ(Rows("SELECT name FROM email_alias"), "a");
  EXPECT_EQ(Rows("SELECT name FROM email_forward"), "f@x.example");
  EXPECT_EQ(Rows("SELECT sender FROM email_whitelist"), "friend@partner.example");
  // Seven lines changed the three maps' files: one rebuild each.
  EXPECT_EQ(Makemaps("virtusertable"), 1);
  EXPECT_EQ(Makemaps("access"), 1);
  EXPECT_EQ(Newaliases(), 1);
}

TEST_F(ZelpnlBatchTest, ASingleCommandAlsoRebuildsEachFileOnce) {
  MakeDomainWithMailbox();
  ClearLog();
  // Two alias lines and the aliases entry: one makemap, one newaliases.
  Ok({"mail", "box", "set", "l@d.example", "--alias", "a", "--alias", "b", "--forward",
      "f@x.example"});
  EXPECT_EQ(Makemaps("virtusertable"), 1);
  EXPECT_EQ(Newaliases(), 1);
  EXPECT_EQ(File("virtusertable"),
            Vut("l@d.example\tl+d.example\na@d.example\tl@d.example\nb@d.example\tl@d.example\n"));
}

TEST_F(ZelpnlBatchTest, ChangedLocalHostNamesQueueOneRestart) {
  SetConfig("sendmail-restart", "echo restart >> " + Path("restarts"));
  Ok({"webdomain", "add", "c.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "c.example"});
  EXPECT_EQ(File("restarts"), "restart\n") << "a single command queues it too";
  const zeltest::Result run = Batch(
      "webdomain add d.example --owner admin\nwebdomain add e.example --owner admin\n"
      "mail domain add d.example\nmail domain add e.example\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(File("local-host-names"), "c.example\nd.example\ne.example\n");
  EXPECT_EQ(File("restarts"), "restart\nrestart\n");
  // A batch that leaves local-host-names alone restarts nothing.
  EXPECT_EQ(Batch("mail box add l@d.example\n").status, 0);
  EXPECT_EQ(File("restarts"), "restart\nrestart\n");
}

TEST_F(ZelpnlBatchTest, QuotedWordsKeepTheirBlanksAndLineEnds) {
  MakeDomainWithMailbox();
  const zeltest::Result run = Batch(
      "mail responder l@d.example on --subject 'Away  now' --text $'Back on Monday.\\n\\tBye'\n"
      "mail responder l@d.example on --subject \"He said \\\"later\\\"\"\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Rows("SELECT subject, text FROM email_responder"),
            "He said \"later\":Back on Monday.\n\tBye");
}

TEST_F(ZelpnlBatchTest, AFailedLineIsReportedAndTheOtherLinesStay) {
  const zeltest::Result run = Batch(
      "webdomain add d.example --owner admin\n"
      "mail domain add d.example\n"
      "mail box add l@d.example\n"
      "\n"
      "mail box add L@d.example\n"
      "mail box add m@x.example\n"
      "mail box add m@d.example\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: line 5 \"mail box add L@d.example\": mailbox \"l@d.example\": already exists\n"
            "error: line 6 \"mail box add m@x.example\": mail domain \"x.example\": does not "
            "exist\n"
            "error: batch: 2 of 6 lines failed; the others were applied\n");
  EXPECT_EQ(File("virtusertable"), Vut("m@d.example\tm+d.example\nl@d.example\tl+d.example\n"));
  EXPECT_EQ(Rows("SELECT name FROM email ORDER BY name"), "l|m");
  EXPECT_NE(File("zelpnl.log").find("error zelpnl/batch: failed: line 5 \"mail box add "
                                    "L@d.example\": mailbox \"l@d.example\": already exists"),
            std::string::npos);
}

TEST_F(ZelpnlBatchTest, StopOnErrorLeavesTheLinesAfterTheFailedOneUnrun) {
  MakeDomainWithMailbox();
  const zeltest::Result run = Batch(
      "mail box add m@d.example\nmail box add l@d.example\nmail box add n@d.example\n"
      "mail box add o@d.example\n",
      {"--stop-on-error"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: line 2 \"mail box add l@d.example\": mailbox \"l@d.example\": already exists\n"
            "error: batch: 1 of 4 lines failed; stopped at line 2, the 2 after it were not run\n");
  EXPECT_EQ(Rows("SELECT name FROM email ORDER BY name"), "l|m") << "line 1 stays";
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tl\\@d.example\nm+d.example:\tm\\@d.example\n"));
}

TEST_F(ZelpnlBatchTest, AMalformedLineRefusesTheWholeBatchBeforeAnythingRuns) {
  const auto before = State();
  const zeltest::Result run = Batch(
      "webdomain add d.example --owner admin\n"
      "mail domain add d.example\n"
      "mail box add \"l@d.example\n"
      "mail box add l#x@d.example\n"
      "mail box frobnicate l@d.example\n"
      "mail box add l@d.example --json\n"
      "mail check l@d.example\n"
      "init --sandbox " + Path("other") + "\n"
      "batch other.txt\n");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "error: line 3 \"mail box add \\\"l@d.example\": quoting \"\\\"l@d.example\": double "
            "quote not closed (column 14)\n"
            "error: line 4 \"mail box add l#x@d.example\": address \"l#x@d.example\": contains "
            "\"#\", which starts a comment in the mail files\n"
            "error: line 5 \"mail box frobnicate l@d.example\": A subcommand is required\n"
            "error: line 6 \"mail box add l@d.example --json\": option \"--json\": is an option "
            "of the batch, not of its lines\n"
            "error: line 7 \"mail check l@d.example\": command \"mail check\": cannot be a batch "
            "line: it asks sendmail about the files, which a batch writes only at its end; run it "
            "after the batch\n"
            "error: line 8 \"init --sandbox " + Path("other") + "\": command \"init\": cannot be a "
            "batch line: it makes a new set-up; run it on its own\n"
            "error: line 9 \"batch other.txt\": command \"batch\": cannot be a batch line: a "
            "batch cannot run another batch\n"
            "error: batch: 7 of 9 lines refused; nothing was run\n");
  EXPECT_EQ(State(), before);
}

TEST_F(ZelpnlBatchTest, ALineThatFailsDeletesItsNewRowAndTheOtherLinesRun) {
  // local-host-names cannot be read: the domain add fails before it writes
  // anything, as on its own.
  std::filesystem::remove(Path("local-host-names"));
  std::filesystem::create_directory(Path("local-host-names"));
  const zeltest::Result run = Batch(
      "webdomain add d.example --owner admin\nmail domain add d.example\nuser add bob\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("error: line 2 \"mail domain add d.example\": "), std::string::npos)
      << run.err;
  EXPECT_EQ(Count("email_domain"), 0) << "no row the files do not back";
  EXPECT_EQ(Rows("SELECT name FROM domain"), "d.example");
  EXPECT_EQ(Rows("SELECT name FROM users ORDER BY id"), "admin|bob") << "line 3 ran";
  EXPECT_EQ(File("virtusertable"), "") << "nothing was written, as on its own";
}

TEST_F(ZelpnlBatchTest, AFailedRebuildAtTheEndSetsTheLinesThatChangedFilesBack) {
  MakeDomainWithMailbox();
  BreakMap("virtusertable");
  const zeltest::Result run = Batch(
      "user add bob\n"
      "webdomain add e.example --owner bob\n"
      "mail domain add e.example\n"
      "mail box add m@d.example\n"
      "mail box suspend l@d.example\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: makemap: makemap: error opening type hash map " + Path("virtusertable") +
                ": Regular files only\n"
                "error: batch: the files could not be saved and rebuilt at its end; the 3 lines "
                "that changed them (3, 4, 5) failed with it: new rows were deleted again, state "
                "changes not stored\n"
                "error: batch: 3 of 5 lines failed; the others were applied\n");
  // The rows are as three single commands whose rebuild failed leave them.
  EXPECT_EQ(Rows("SELECT name FROM email_domain"), "d.example");
  EXPECT_EQ(Rows("SELECT name, enabled FROM email"), "l:1");
  // Lines that changed no file stay.
  EXPECT_EQ(Rows("SELECT name FROM users ORDER BY id"), "admin|bob");
  EXPECT_EQ(Rows("SELECT name FROM domain ORDER BY name"), "d.example|e.example");
  // The text took every change before the rebuild failed.
  EXPECT_EQ(File("virtusertable"),
            Vut("m@d.example\tm+d.example\nl@d.example\terror:nouser Account temporary disabled\n"
                "@e.example\terror:nouser No such user here\n"));
}

TEST_F(ZelpnlBatchTest, AFailedRebuildReadsAChangedMailboxBackFromTheFiles) {
  MakeDomainWithMailbox();
  SetConfig("sendmail-newaliases", "false");
  const zeltest::Result run = Batch("mail box set l@d.example --forward f@x.example --alias a\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("error: newaliases: "), std::string::npos) << run.err;
  // The aliases text holds the change (it was written before its rebuild
  // failed); the virtual user table, saved after it, was not: the rows read
  // back say so.
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tf@x.example, l\\@d.example\n"));
  EXPECT_EQ(File("virtusertable"), Vut("l@d.example\tl+d.example\n"));
  EXPECT_EQ(Rows("SELECT name FROM email_forward"), "f@x.example");
  EXPECT_EQ(Rows("SELECT name FROM email_alias"), "");
}

TEST_F(ZelpnlBatchTest, LaterLinesSeeTheSenderListsAsEarlierLinesLeftThem) {
  const zeltest::Result run = Batch(
      "mail whitelist add friend@partner.example\n"
      "mail blacklist add friend@partner.example\n"
      "mail whitelist add friend@partner.example\n"
      "mail blacklist add 192.0.2.7\n"
      "mail blacklist delete 192.0.2.7\n"
      "mail blacklist add spam.example\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: line 2 \"mail blacklist add friend@partner.example\": sender "
            "\"friend@partner.example\": is on the whitelist; delete it there first\n"
            "error: line 3 \"mail whitelist add friend@partner.example\": sender "
            "\"friend@partner.example\": is already on the whitelist\n"
            "error: batch: 2 of 6 lines failed; the others were applied\n");
  EXPECT_EQ(File("access"), "friend@partner.example\tOK\nspam.example\tREJECT\n");
  EXPECT_EQ(Rows("SELECT sender FROM email_whitelist"), "friend@partner.example");
  EXPECT_EQ(Rows("SELECT sender FROM email_blacklist"), "spam.example");
}

TEST_F(ZelpnlBatchTest, JsonReportHasEveryLineWithItsOutputOrError) {
  const zeltest::Result run = Batch(
      "webdomain add d.example --owner admin\nmail domain add d.example\n"
      "mail box add l@d.example\nmail box add l@d.example\nmail box list d.example\n",
      {"--json"});
  EXPECT_EQ(run.status, 1);
  const auto doc = nlohmann::ordered_json::parse(run.out);
  const auto& batch = doc["batch"];
  EXPECT_EQ(batch["file"], Path("batch.txt"));
  EXPECT_EQ(batch["lines"], 5);
  EXPECT_EQ(batch["done"], 4);
  EXPECT_EQ(batch["failed"], 1);
  EXPECT_EQ(batch["refused"], 0);
  EXPECT_EQ(batch["not_run"], 0);
  EXPECT_TRUE(batch["save_error"].is_null());
  ASSERT_EQ(batch["results"].size(), 5u);
  EXPECT_EQ(batch["results"][2]["line"], 3);
  EXPECT_EQ(batch["results"][2]["command"], "mail box add l@d.example");
  EXPECT_EQ(batch["results"][2]["status"], "done");
  EXPECT_EQ(batch["results"][2]["output"]["mailbox"]["address"], "l@d.example");
  EXPECT_EQ(batch["results"][3]["status"], "failed");
  EXPECT_EQ(batch["results"][3]["error"],
            nlohmann::ordered_json::parse(R"({"type": "exists", "object": "mailbox \"l@d.example\"",
                                              "detail": "already exists", "status": 1})"));
  EXPECT_EQ(batch["results"][4]["output"]["mailboxes"].size(), 1u);
}

TEST_F(ZelpnlBatchTest, TextOutputOfLinesGoesToStandardOutputAsTheyRun) {
  MakeDomainWithMailbox();
  const zeltest::Result run = Batch("mail box add m@d.example\nmail domain list\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "DOMAIN     OWNER  STATE   DEFAULT ACTION  MAILBOXES\n"
            "d.example  admin  active  error           2\n");
}

TEST_F(ZelpnlBatchTest, ReadsStandardInputForADashOrNoFile) {
  const std::string lines = "webdomain add d.example --owner admin\nmail domain add d.example\n";
  zeltest::Result run = Zel({"batch", "-"}, lines);
  EXPECT_EQ(run.status, 0) << run.err;
  run = Zel({"batch"}, "mail box add l@d.example\r\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Rows("SELECT name FROM email"), "l");
}

TEST_F(ZelpnlBatchTest, AnEmptyBatchDoesNothing) {
  const auto before = State();
  const zeltest::Result run = Batch("# nothing\n\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(State(), before);
}

TEST_F(ZelpnlBatchTest, AMissingBatchFileIsBadUsage) {
  const zeltest::Result run = Zel({"batch", Path("none.txt")});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "error: batch file \"" + Path("none.txt") +
                         "\": cannot be read: No such file or directory\n");
}

TEST_F(ZelpnlBatchTest, ProgressBarOnlyWhenStandardErrorIsATerminal) {
  WriteFile("batch.txt", "user add bob\nuser add carol\n");
  const zeltest::Result tty = zeltest::RunProgram(
      {ZEL_BIN_DIR "/zelpnl", "--config", Config(), "batch", Path("batch.txt")}, {}, true);
  EXPECT_EQ(tty.status, 0) << tty.err;
  EXPECT_NE(tty.err.find("\r\033[Kbatch ["), std::string::npos) << tty.err;
  EXPECT_EQ(Zel({"batch", Path("batch.txt")}).err, "error: line 1 \"user add bob\": user \"bob\": "
                                                   "already exists\nerror: line 2 \"user add "
                                                   "carol\": user \"carol\": already exists\n"
                                                   "error: batch: 2 of 2 lines failed; the "
                                                   "others were applied\n");
}

TEST_F(ZelpnlBatchTest, EachRunLogsItsPeakMemoryAtDebugLevel) {
  ClearLog();
  Ok({"user", "add", "bob"});
  const std::string log = File("zelpnl.log");
  const std::string note = "debug zelpnl/host: peak memory ";
  const size_t at = log.find(note);
  ASSERT_NE(at, std::string::npos) << log;
  const std::string rest = log.substr(at + note.size());
  EXPECT_GT(std::stol(rest), 1000) << rest;
  EXPECT_EQ(rest.substr(rest.find(' '), 5), " KiB\n");
}

TEST_F(ZelpnlBatchTest, ABatchOfUsersAndWebDomainsNeedsNoMailBackEnd) {
  // Without the module, local-host-names has no default path.
  std::string conf = File("zelpnl.conf");
  const size_t at = conf.find("sendmail-localhostnames = ");
  ASSERT_NE(at, std::string::npos);
  conf.erase(at, conf.find('\n', at) - at + 1);
  WriteFile("zelpnl.conf", conf);
  const zeltest::Result run = Batch("user add bob\nwebdomain add d.example --owner bob\n");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Rows("SELECT name FROM domain"), "d.example");
}
