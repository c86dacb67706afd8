// One bad line someone else wrote never blocks the panel: with such a line
// in the virtual user table, the access map or the aliases file, mailboxes
// are added, changed and deleted and senders whitelisted; the command warns
// naming the line, and sendmail answers with the change. A line the command
// itself wrote that does not build still fails it.
#include <gmock/gmock.h>

#include <ostream>

#include "proof_fixture.h"

using proof::LocalDelivery;
using proof::Refused;
using proof::Relayed;
using proof::SendmailProofTest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

const char kLocal[] = "l\\@d.example";

// A bad line written by hand at the end of a file, and how the rebuild
// that meets it is named in the warning ("" when it builds all the same).
// The item gives the line numbers as "{0}" and "{1}": the first line of the
// bad text, and the one after it, when no line of the panel stands before it.
struct Foreign {
  const char* name;
  const char* file;
  std::string text;
  std::string item;  // what the warning says of it
};

// GoogleTest names a case by its name, not its bytes.
void PrintTo(const Foreign& foreign, std::ostream* out) { *out << foreign.name; }

// The item with its line numbers, shift lines further down.
std::string Numbered(std::string item, int first, int shift) {
  for (int i = 0; i < 2; ++i) {
    const std::string mark = "{" + std::to_string(i) + "}";
    for (std::size_t at = item.find(mark); at != std::string::npos; at = item.find(mark))
      item.replace(at, mark.size(), std::to_string(first + i + shift));
  }
  return item;
}

std::string LongLine(const std::string& key) { return key + "\t" + std::string(1100, 'y') + "\n"; }

// makemap reads a line of L bytes as pieces of 1023: the rest of this one,
// 97 bytes with the line end, is a piece of its own.
std::string LongItem(const std::string& key) {
  return "\"" + key + "\" (line {0}: line too long (1024 bytes max); line {1}: no RHS for LHS " +
         std::string(96, 'y') + ")";
}

// The files hold one line before the bad text (the domain's catch-all line,
// the devnull alias), or none (the access map).
const Foreign kForeign[] = {
    {"virtusertable_no_rhs", "virtusertable", "norhs@other.example\n",
     "\"norhs@other.example\" (line {0}: no RHS for LHS norhs@other.example)"},
    {"virtusertable_duplicate", "virtusertable", "dup@other.example\tx@y.example\nDup@other.example\tz@y.example\n",
     "\"dup@other.example\" (line {1}: key dup@other.example: duplicate key)"},
    {"virtusertable_too_long", "virtusertable", LongLine("long@other.example"), LongItem("long@other.example")},
    {"access_no_rhs", "access", "norhs@other.example\n",
     "\"norhs@other.example\" (line {0}: no RHS for LHS norhs@other.example)"},
    {"access_duplicate", "access", "dup@other.example\tOK\nDup@other.example\tREJECT\n",
     "\"dup@other.example\" (line {1}: key dup@other.example: duplicate key)"},
    {"access_too_long", "access", LongLine("long@other.example"), LongItem("long@other.example")},
    {"aliases_missing_colon", "aliases", "no colon here\n", "line {0}: missing colon"},
    {"aliases_no_value", "aliases", "novalue:\n", "\"novalue\" (line {0}: novalue:... missing value for alias)"},
    // A repeated name is only a warning of sendmail's: the rebuild succeeds.
    {"aliases_duplicate", "aliases", "dup:\tx@y.example\nDup:\tz@y.example\n", ""},
    {"aliases_too_long", "aliases", "big:\t" + std::string(9000, 'x') + "\n", "\"big\" (line {0}: alias line too long)"},
};

class ForeignLineTest : public SendmailProofTest, public ::testing::WithParamInterface<Foreign> {
 protected:
  void SetUp() override {
    SendmailProofTest::SetUp();
    if (HasFatalFailure()) return;
    AddDomain("d.example");
    const Foreign& bad = GetParam();
    zeltest::WriteFile(Path(bad.file), File(bad.file) + bad.text);
    // The map brought up to date as a hand edit would be followed by: the
    // commands below rebuild only what they save.
    std::string out;
    if (std::string(bad.file) == "aliases")
      zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl-newaliases -C " + Path("sendmail.cf") + " -bi", &out);
    else
      zeltest::RunShell("/usr/sbin/makemap hash " + Path(bad.file) + " < " + Path(bad.file), &out);
  }

  // Runs a command that saves the files named: it succeeds, and warns about
  // the bad line when it saved its file and the rebuild refused the line.
  // The mailbox's line of the virtual user table stands before the bad text
  // while the mailbox lives (it follows the domain's line).
  void Run(const std::vector<std::string>& args, const std::vector<std::string>& saves, bool mailbox_lives) {
    const Foreign& bad = GetParam();
    const proof::ProgramRun run = Zel(args);
    EXPECT_EQ(run.status, 0) << run.err;
    std::string expected;
    const bool saved = std::find(saves.begin(), saves.end(), bad.file) != saves.end();
    if (saved && !bad.item.empty()) {
      const std::string tool = std::string(bad.file) == "aliases" ? "newaliases" : "makemap";
      const int first = std::string(bad.file) == "access" ? 1 : 2;
      const int shift = std::string(bad.file) == "virtusertable" && mailbox_lives ? 1 : 0;
      expected = "warning: " + Path(bad.file) + ": " + tool +
                 " refused entries this command did not write (the rest is built): " +
                 Numbered(bad.item, first, shift) + "\n";
    }
    EXPECT_EQ(run.err, expected) << args[0] << " " << args[1] << " " << args[2];
  }
};

std::string CaseName(const ::testing::TestParamInfo<Foreign>& info) { return info.param.name; }

}  // namespace

TEST_P(ForeignLineTest, MailboxesAndSendersChangeWithAWarningAndSendmailHasTheChange) {
  Run({"mail", "box", "add", "l@d.example", "--forward", "f@far.example", "--alias", "a"},
      {"virtusertable", "aliases"}, true);
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example")));
  EXPECT_THAT(Verify("a@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example")));

  Run({"mail", "box", "set", "l@d.example", "--forward", "g@far.example", "--no-alias", "a", "--alias", "b"},
      {"virtusertable", "aliases"}, true);
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"), Relayed("g@far.example")));
  EXPECT_THAT(Verify("b@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"), Relayed("g@far.example")));
  EXPECT_THAT(Verify("a@d.example").lines, ElementsAre(Refused("a@d.example", "No such user here")));

  Run({"mail", "whitelist", "add", "s@sender.example"}, {"access"}, true);
  EXPECT_EQ(Map("access", "s@sender.example"), "OK");

  Run({"mail", "box", "delete", "l@d.example"}, {"virtusertable", "aliases"}, false);
  EXPECT_EQ(Map("virtuser", "l@d.example"), std::nullopt);
  EXPECT_EQ(Map("aliases", "l+d.example"), std::nullopt);
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(Refused("l@d.example", "No such user here")));
  EXPECT_THAT(Verify("b@d.example").lines, ElementsAre(Refused("b@d.example", "No such user here")));
}

INSTANTIATE_TEST_SUITE_P(BadLines, ForeignLineTest, ::testing::ValuesIn(kForeign), CaseName);

// The mailbox's own entry written again by hand in other letters, with no
// value: sendmail keys it as the entry the add writes, and so does the
// panel, which takes the line over (an entry without a line pointing at it,
// as an earlier add leaves) and writes one entry.
TEST_F(SendmailProofTest, AnEntryOfTheNewMailboxsKeyInOtherLettersIsTakenOver) {
  AddDomain("d.example");
  zeltest::WriteFile(Path("aliases"), File("aliases") + "L+D.example:\n");
  zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl-newaliases -C " + Path("sendmail.cf") + " -bi");
  const proof::ProgramRun run = Zel({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(File("aliases"), "devnull:\t\"/dev/null\"\nL+D.example:\tl\\@d.example\n");
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(proof::LocalDelivery("l\\@d.example")));
}

TEST_F(SendmailProofTest, WarningsGoIntoTheJsonDocumentToo) {
  AddDomain("d.example");
  zeltest::WriteFile(Path("access"), "norhs@other.example\n");
  zeltest::RunShell("/usr/sbin/makemap hash " + Path("access") + " < " + Path("access"));
  const proof::ProgramRun run = Zel({"--json", "mail", "whitelist", "add", "s@sender.example"});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string warning = Path("access") +
                              ": makemap refused entries this command did not write (the rest is built): "
                              "\"norhs@other.example\" (line 1: no RHS for LHS norhs@other.example)";
  std::string in_json;
  for (char c : warning) in_json += c == '"' ? std::string("\\\"") : std::string(1, c);
  EXPECT_NE(run.out.find("\"warnings\": [\n    \"" + in_json + "\"\n  ]"), std::string::npos) << run.out;
  EXPECT_EQ(run.err, "warning: " + warning + "\n");
}
