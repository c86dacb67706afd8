// zelpnl mail box: the rows and the exact bytes of the sendmail files after
// each command.
#include <filesystem>

#include "zelpnl_fixture.h"

using zeltest::kCatchAll;
using zeltest::kDevnull;
using zeltest::ZelpnlTest;

namespace {

class ZelpnlMailboxTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    Ok({"webdomain", "add", "d.example", "--owner", "admin"});
    Ok({"mail", "domain", "add", "d.example"});
  }
  std::string Vut(const std::string& lines) { return std::string(kCatchAll) + lines; }
  std::string Aliases(const std::string& lines) { return std::string(kDevnull) + lines; }
};

}  // namespace

TEST_F(ZelpnlMailboxTest, AddWritesTheVirtualUserTableLineAndTheAliasesEntry) {
  auto doc = Json({"mail", "box", "add", "L@d.example"});
  EXPECT_EQ(doc["mailbox"],
            nlohmann::ordered_json({{"address", "l@d.example"},
                                    {"unicode", "l@d.example"},
                                    {"local", "l"},
                                    {"domain", "d.example"},
                                    {"enabled", true},
                                    {"forward_only", false},
                                    {"password", false},
                                    {"quota", 0},
                                    {"quota_limit", 0},
                                    {"usage", 0},
                                    {"aliases", nlohmann::ordered_json::array()},
                                    {"forwards", nlohmann::ordered_json::array()},
                                    {"responder", nullptr}}));
  EXPECT_EQ(File("virtusertable"), Vut("l@d.example\tl+d.example\n"));
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tl\\@d.example\n"));
  EXPECT_EQ(Rows("SELECT name, enabled, forward_only FROM email"), "l:1:0");
}

TEST_F(ZelpnlMailboxTest, AddForwardOnlyWithForwardsAndAliases) {
  Ok({"mail", "box", "add", "l@d.example", "--forward-only", "--forward", "f@x.example",
      "--forward", "g@Y.example", "--alias", "a", "--alias", "b@d.example"});
  EXPECT_EQ(File("virtusertable"),
            Vut("l@d.example\tl+d.example\na@d.example\tl@d.example\nb@d.example\tl@d.example\n"));
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tf@x.example, g@y.example\n"));
  EXPECT_EQ(Rows("SELECT forward_only FROM email"), "1");
  EXPECT_EQ(Rows("SELECT name FROM email_forward ORDER BY id"), "f@x.example|g@y.example");
  EXPECT_EQ(Rows("SELECT name FROM email_alias ORDER BY id"), "a|b");
}

TEST_F(ZelpnlMailboxTest, ForwardOnlyWithoutForwardIsRefused) {
  const auto before = State();
  const zeltest::Result run = Zel({"mail", "box", "add", "l@d.example", "--forward-only"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "error: mailbox \"l@d.example\": --forward-only needs at least one --forward: "
            "without local delivery and forwards its mail would go nowhere\n");
  EXPECT_EQ(State(), before);
}

TEST_F(ZelpnlMailboxTest, AddRefusesDuplicatesAliasesAndUnknownDomains) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a"});
  const auto before = State();
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"l@d.example"}, "error: mailbox \"l@d.example\": already exists\n"},
      {{"a@d.example"}, "error: mailbox \"a@d.example\": is an alias of l@d.example\n"},
      {{"m@d.example", "--alias", "a"},
       "error: alias \"a@d.example\": is already an alias of l@d.example\n"},
      {{"m@d.example", "--alias", "l"}, "error: alias \"l@d.example\": is a mailbox\n"},
      {{"m@x.example"}, "error: mail domain \"x.example\": does not exist\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"mail", "box", "add"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, 1) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
}

TEST_F(ZelpnlMailboxTest, SetAddsAndRemovesAliasesAndForwards) {
  Ok({"mail", "box", "add", "l@d.example"});
  auto doc = Json({"mail", "box", "set", "l@d.example", "--alias", "a", "--alias", "b",
                   "--forward", "f@x.example"});
  EXPECT_EQ(doc["mailbox"]["aliases"], nlohmann::ordered_json::array({"a", "b"}));
  EXPECT_EQ(doc["mailbox"]["forwards"], nlohmann::ordered_json::array({"f@x.example"}));
  EXPECT_EQ(File("virtusertable"), Vut("l@d.example\tl+d.example\na@d.example\tl@d.example\n"
                                       "b@d.example\tl@d.example\n"));
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tf@x.example, l\\@d.example\n"));

  Ok({"mail", "box", "set", "l@d.example", "--no-alias", "a", "--forward", "g@x.example",
      "--forward-only", "yes"});
  EXPECT_EQ(File("virtusertable"),
            Vut("l@d.example\tl+d.example\nb@d.example\tl@d.example\n"));
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tf@x.example, g@x.example\n"));
  EXPECT_EQ(Rows("SELECT forward_only FROM email"), "1");

  Ok({"mail", "box", "set", "l@d.example", "--no-forward", "f@x.example", "--forward-only",
      "no"});
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tg@x.example, l\\@d.example\n"));
  EXPECT_EQ(Rows("SELECT name FROM email_forward"), "g@x.example");
}

TEST_F(ZelpnlMailboxTest, SetRefusesWhatWouldBreakTheMailboxBeforeWriting) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward-only", "--forward",
      "f@x.example"});
  Ok({"mail", "box", "add", "m@d.example"});
  const auto before = State();
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"--no-forward", "f@x.example"}, 1,
       "error: mailbox \"l@d.example\": would be forward-only without any forward, so its mail "
       "would go nowhere; keep a forward or set --forward-only no\n"},
      {{"--alias", "a"}, 1, "error: alias \"a@d.example\": is already an alias of l@d.example\n"},
      {{"--alias", "m"}, 1, "error: alias \"m@d.example\": is a mailbox\n"},
      {{"--no-alias", "zz"}, 1, "error: alias \"zz@d.example\": is not an alias of l@d.example\n"},
      {{"--forward", "f@x.example"}, 1,
       "error: forward target \"f@x.example\": is already a forward of l@d.example\n"},
      {{"--no-forward", "z@x.example"}, 1,
       "error: forward target \"z@x.example\": is not a forward of l@d.example\n"},
      {{"--forward", "l@d.example"}, 2,
       "error: forward target \"l@d.example\": is the mailbox's own address; mail would loop\n"},
      {{"--alias", "x@other.example"}, 2,
       "error: alias \"x@other.example\": is not in the mailbox's domain d.example\n"},
      {{"--alias", "b", "--no-alias", "b"}, 2,
       "error: alias \"b\": is given both to add and to remove (--alias and --no-alias)\n"},
      {{"--forward", "g@x.example", "--forward", "g@X.example"}, 2,
       "error: forward target \"g@x.example\": is given twice\n"},
      {{}, 2,
       "error: mailbox \"l@d.example\": nothing to change: give --alias, --no-alias, --forward, "
       "--no-forward, --forward-only, --quota or a password option\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"mail", "box", "set", "l@d.example"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, c.status) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
}

TEST_F(ZelpnlMailboxTest, ProgramAndFileTargetsOnlyWhenAllowed) {
  Ok({"mail", "box", "add", "l@d.example"});
  const auto before = State();
  zeltest::Result run = Zel({"mail", "box", "set", "l@d.example", "--forward", "|/usr/bin/filter -q"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "error: forward target \"|/usr/bin/filter -q\": is a pipe to a program, which needs "
            "--allow-program-targets\n");
  run = Zel({"mail", "box", "set", "l@d.example", "--forward", "/var/mail/copy"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(State(), before);
  Ok({"mail", "box", "set", "l@d.example", "--allow-program-targets", "--forward",
      "|/usr/bin/filter -q", "--forward", "/var/mail/copy"});
  EXPECT_EQ(File("aliases"),
            Aliases("l+d.example:\t\"|/usr/bin/filter -q\", \"/var/mail/copy\", l\\@d.example\n"));
  // The file target stays a row of the mailbox: writing the entry again
  // needs the flag again, as the command line would.
  const auto with_programs = State();
  run = Zel({"mail", "box", "set", "l@d.example", "--no-forward", "|/usr/bin/filter -q"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: forward target \"\\\"/var/mail/copy\\\"\" of mailbox \"l@d.example\": is a "
            "file, which needs --allow-program-targets (a row of the panel database the command "
            "would write into sendmail's files; correct or remove it first)\n");
  EXPECT_EQ(State(), with_programs);
  Ok({"mail", "box", "set", "l@d.example", "--no-forward", "|/usr/bin/filter -q",
      "--allow-program-targets"});
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\t\"/var/mail/copy\", l\\@d.example\n"));
}

TEST_F(ZelpnlMailboxTest, SuspendResumeAndDelete) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a"});
  auto doc = Json({"mail", "box", "suspend", "l@d.example"});
  EXPECT_EQ(doc["mailbox"]["enabled"], false);
  EXPECT_EQ(File("virtusertable"),
            Vut("l@d.example\terror:nouser Account temporary disabled\na@d.example\tl@d.example\n"));
  EXPECT_EQ(File("access"), "l@d.example\t550 Account disabled\n");
  doc = Json({"mail", "box", "resume", "l@d.example"});
  EXPECT_EQ(doc["mailbox"]["enabled"], true);
  EXPECT_EQ(File("virtusertable"),
            Vut("l@d.example\tl+d.example\na@d.example\tl@d.example\n"));
  EXPECT_EQ(File("access"), "");
  doc = Json({"mail", "box", "delete", "l@d.example"});
  EXPECT_EQ(doc["deleted"]["mailbox"], "l@d.example");
  EXPECT_EQ(File("virtusertable"), kCatchAll);
  EXPECT_EQ(File("aliases"), kDevnull);
  EXPECT_EQ(Count("email"), 0);
  EXPECT_EQ(Count("email_alias"), 0);
  const zeltest::Result run = Zel({"mail", "box", "delete", "l@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: mailbox \"l@d.example\": does not exist\n");
}

TEST_F(ZelpnlMailboxTest, ListAndShow) {
  Ok({"webdomain", "add", "e.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "e.example"});
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@x.example"});
  Ok({"mail", "box", "add", "m@e.example"});
  Ok({"mail", "box", "suspend", "m@e.example"});
  EXPECT_EQ(Zel({"mail", "box", "list"}).out,
            "ADDRESS      STATE      FORWARD ONLY  ALIASES      FORWARDS     RESPONDER\n"
            "l@d.example  active     no            a@d.example  f@x.example  -\n"
            "m@e.example  suspended  no            -            -            -\n");
  auto doc = Json({"mail", "box", "list", "e.example"});
  ASSERT_EQ(doc["mailboxes"].size(), 1u);
  EXPECT_EQ(doc["mailboxes"][0]["address"], "m@e.example");
  EXPECT_EQ(Zel({"mail", "box", "show", "l@d.example"}).out,
            "address:      l@d.example\n"
            "state:        active\n"
            "forward only: no\n"
            "password:     none (cannot log in)\n"
            "quota:        none, 0 bytes used\n"
            "aliases:      a@d.example\n"
            "forwards:     f@x.example\n"
            "responder:    -\n");
}

TEST_F(ZelpnlMailboxTest, FailedAliasesRebuildDeletesTheNewRowAndKeepsTheAddressOutOfTheTable) {
  SetConfig("sendmail-newaliases", "echo 'aliases: line 9: broken' >&2; exit 1");
  const zeltest::Result run = Zel({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: newaliases: aliases: line 9: broken\n");
  EXPECT_EQ(Count("email"), 0) << "no row the files do not back";
  // The aliases file took its entry before the rebuild failed; the virtual
  // user table, saved after it, was not saved at all: the address never led
  // to a local name without an entry in the map.
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tl\\@d.example\n"));
  EXPECT_EQ(File("virtusertable"), kCatchAll);
  // sync finds no mailbox, and warns that the aliases map, older than the
  // file, still fails to build.
  const zeltest::Result sync = Zel({"mail", "sync"});
  EXPECT_EQ(sync.status, 0);
  EXPECT_EQ(sync.err,
            "warning: the aliases map is older than its file and could not be rebuilt: "
            "newaliases: aliases: line 9: broken\n");
  EXPECT_EQ(Rows("SELECT name FROM email"), "");
}

TEST_F(ZelpnlMailboxTest, FailedSetReadsTheMailboxBackFromTheFiles) {
  Ok({"mail", "box", "add", "l@d.example"});
  std::filesystem::remove(Path("virtusertable.db"));
  std::filesystem::create_directory(Path("virtusertable.db"));
  const zeltest::Result run =
      Zel({"mail", "box", "set", "l@d.example", "--alias", "a", "--forward", "f@x.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("error: makemap: ", 0), 0u) << run.err;
  // Both files are saved once, together: the alias line reached the text of
  // the virtual user table (its map failed), the aliases entry took the
  // forward and its map was rebuilt. The rows read back are what the files
  // hold.
  EXPECT_EQ(File("virtusertable"), Vut("l@d.example\tl+d.example\na@d.example\tl@d.example\n"));
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\tf@x.example, l\\@d.example\n"));
  EXPECT_EQ(Rows("SELECT name FROM email_alias"), "a");
  EXPECT_EQ(Rows("SELECT name FROM email_forward"), "f@x.example");
}

// Rows reach the files only through the checks of the command line: a row
// put into the database by other means is refused by name, and nothing is
// written.
TEST_F(ZelpnlMailboxTest, ARowTheCommandLineWouldRefuseIsNeverWrittenIntoTheFiles) {
  Ok({"mail", "box", "add", "l@d.example"});
  Rows("INSERT INTO email_forward(email, name) SELECT id, '|/tmp/run' FROM email");
  auto before = State();
  zeltest::Result run = Zel({"mail", "box", "set", "l@d.example", "--alias", "b"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: forward target \"|/tmp/run\" of mailbox \"l@d.example\": is a pipe to a "
            "program, which needs --allow-program-targets (a row of the panel database the "
            "command would write into sendmail's files; correct or remove it first)\n");
  EXPECT_EQ(File("aliases"), before["aliases"]);
  EXPECT_EQ(File("virtusertable"), before["virtusertable"]);
  // The rows were read back from the files: the stray row is gone with the
  // command's own.
  EXPECT_EQ(Rows("SELECT name FROM email_forward"), "");
  EXPECT_EQ(Rows("SELECT name FROM email_alias"), "");

  Rows("INSERT INTO email_alias(email, name) SELECT id, 'Two Words' FROM email");
  run = Zel({"mail", "box", "resume", "l@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: alias \"Two Words\" of mailbox \"l@d.example\": contains a blank (a row of "
            "the panel database the command would write into sendmail's files; correct or "
            "remove it first)\n");
  Rows("DELETE FROM email_alias");

  // A program target in its written form passes when the command says so.
  Rows("INSERT INTO email_forward(email, name) SELECT id, '\"|/usr/bin/filter\"' FROM email");
  run = Zel({"mail", "box", "resume", "l@d.example"});
  EXPECT_EQ(run.status, 1) << run.err;
  Ok({"mail", "box", "resume", "l@d.example", "--allow-program-targets"});
  EXPECT_EQ(File("aliases"), Aliases("l+d.example:\t\"|/usr/bin/filter\", l\\@d.example\n"));
  run = Zel({"mail", "domain", "resume", "d.example"});
  EXPECT_EQ(run.status, 1) << run.err;
  Ok({"mail", "domain", "resume", "d.example", "--allow-program-targets"});
}

TEST_F(ZelpnlMailboxTest, AForwardToAnAddressThatDoesNotExistInAPanelDomainIsRefused) {
  Ok({"mail", "box", "add", "m@d.example", "--alias", "info"});
  const auto before = State();
  zeltest::Result run = Zel({"mail", "box", "add", "l@d.example", "--forward", "nobody@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: forward target \"nobody@d.example\": is in the panel's mail domain d.example, "
            "which has no such mailbox or alias\n");
  run = Zel({"mail", "box", "set", "m@d.example", "--forward", "Nobody@D.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(State(), before);
  // A mailbox, an alias and an address elsewhere are all fine.
  Ok({"mail", "box", "add", "l@d.example", "--forward", "m@d.example", "--forward", "info@d.example",
      "--forward", "someone@far.example"});
}
