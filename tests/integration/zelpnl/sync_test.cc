// zelpnl mail sync: hand edits of the files read back into the panel, with
// a summary of what changed.
#include "zelpnl_fixture.h"

using zeltest::kCatchAll;
using zeltest::kDevnull;
using zeltest::ZelpnlTest;

namespace {

class ZelpnlSyncTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    MakeDomainWithMailbox();
    Ok({"mail", "box", "set", "l@d.example", "--alias", "a", "--forward", "f@x.example"});
  }
};

}  // namespace

TEST_F(ZelpnlSyncTest, HandEditsComeIntoThePanelAndTheSummaryNamesThem) {
  WriteFile("virtusertable", std::string(kCatchAll) +
                                 "l@d.example\tl+d.example\n"
                                 "a@d.example\tl@d.example\n"
                                 "n@d.example\tn+d.example\n");
  WriteFile("aliases", std::string(kDevnull) +
                           "l+d.example:\tg@x.example, l\\@d.example\n"
                           "n+d.example:\tn\\@d.example\n");
  WriteFile("access", "Connect:192.0.2.9\tREJECT\n");
  auto doc = Json({"mail", "sync"});
  const auto& tables = doc["sync"]["tables"];
  EXPECT_EQ(tables["email"]["before"], 1);
  EXPECT_EQ(tables["email"]["after"], 2);
  EXPECT_EQ(tables["email"]["added"], nlohmann::ordered_json::array({"n@d.example active"}));
  EXPECT_EQ(tables["email_forward"]["added"],
            nlohmann::ordered_json::array({"l@d.example -> g@x.example"}));
  EXPECT_EQ(tables["email_forward"]["removed"],
            nlohmann::ordered_json::array({"l@d.example -> f@x.example"}));
  EXPECT_EQ(tables["email_alias"]["added"], nlohmann::ordered_json::array());
  EXPECT_EQ(tables["email_blacklist"]["added"], nlohmann::ordered_json::array({"192.0.2.9"}));
  EXPECT_EQ(doc["sync"]["failures"], nlohmann::ordered_json::array());
  EXPECT_EQ(Rows("SELECT name FROM email ORDER BY name"), "l|n");
  EXPECT_EQ(Rows("SELECT name FROM email_alias"), "a") << "an alias line stays an alias";

  // Nothing changed since: a second pass reports no change.
  const zeltest::Result again = Zel({"mail", "sync"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_NE(again.out.find("no changes\n"), std::string::npos) << again.out;
}

TEST_F(ZelpnlSyncTest, TextSummaryListsTheChanges) {
  WriteFile("virtusertable", kCatchAll);
  WriteFile("aliases", kDevnull);
  const zeltest::Result run = Zel({"mail", "sync"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "TABLE         BEFORE  AFTER  ADDED  REMOVED\n"
            "mail domains  1       1      0      0\n"
            "mailboxes     1       0      0      1\n"
            "aliases       1       0      0      1\n"
            "forwards      1       0      0      1\n"
            "responders    0       0      0      0\n"
            "whitelist     0       0      0      0\n"
            "blacklist     0       0      0      0\n"
            "changes:\n"
            "  - mailboxes: l@d.example active\n"
            "  - aliases: a@d.example -> l@d.example\n"
            "  - forwards: l@d.example -> f@x.example\n");
}

TEST_F(ZelpnlSyncTest, ALineThePanelDidNotWriteIsReportedAndTheRestIsRead) {
  WriteFile("virtusertable", File("virtusertable") + "x@d.example\tsomeone@far.example\n");
  WriteFile("access", "spam.example\tREJECT\n");
  const zeltest::Result run = Zel({"mail", "sync"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: mailbox x@d.example: " + Path("aliases") +
                         ": no record with key 'x+d.example' (a virtual user table line the panel "
                         "did not write, or a mailbox whose aliases entry is gone)\n");
  EXPECT_NE(run.out.find("  + blacklist: spam.example\n"), std::string::npos) << run.out;
}

TEST_F(ZelpnlSyncTest, ResponderStateIsReadFromTheAliasesEntry) {
  Ok({"mail", "responder", "l@d.example", "on", "--text", "away"});
  WriteFile("aliases", std::string(kDevnull) + "l+d.example:\tf@x.example, l\\@d.example\n");
  auto doc = Json({"mail", "sync"});
  EXPECT_EQ(doc["sync"]["tables"]["email_responder"]["removed"],
            nlohmann::ordered_json::array({"l@d.example on"}));
  EXPECT_EQ(Rows("SELECT enabled FROM email_responder"), "0");
}

TEST_F(ZelpnlSyncTest, ProgressBarOnlyWhenStandardErrorIsATerminal) {
  const std::vector<std::string> argv = {ZEL_BIN_DIR "/zelpnl", "--config", Config(), "mail",
                                         "sync"};
  const zeltest::Result piped = zeltest::RunProgram(argv);
  EXPECT_EQ(piped.err, "");
  const zeltest::Result tty = zeltest::RunProgram(argv, {}, true);
  EXPECT_EQ(tty.status, 0);
  EXPECT_NE(tty.err.find("\r\033[Kmail sync ["), std::string::npos) << tty.err;
  EXPECT_NE(tty.err.find("] 5/5 blacklist"), std::string::npos) << tty.err;
}

// Lines read back from hand-edited files reach the output; control
// characters in them are shown escaped, never sent to the terminal as they
// are.
TEST_F(ZelpnlSyncTest, ControlCharactersFromTheFilesAreShownEscaped) {
  WriteFile("aliases", File("aliases").replace(File("aliases").find("l\\@d.example"), 0,
                                               "\"/var/mail/x\x1b[2J\xc2\x9b\xe2\x80\xae\", "));
  Zel({"mail", "sync"});
  const zeltest::Result show = Zel({"mail", "box", "show", "l@d.example"});
  EXPECT_EQ(show.status, 0) << show.err;
  EXPECT_NE(show.out.find("\"/var/mail/x\\x1b[2J\\u{009B}\\u{202E}\""), std::string::npos)
      << show.out;
  EXPECT_EQ(show.out.find('\x1b'), std::string::npos);
  const zeltest::Result json = Zel({"mail", "box", "show", "l@d.example", "--json"});
  EXPECT_NE(json.out.find("\\u001b[2J\\u009b\\u202e"), std::string::npos) << json.out;
  for (unsigned char c : json.out) EXPECT_LT(c, 0x80) << "written in ASCII";
}
