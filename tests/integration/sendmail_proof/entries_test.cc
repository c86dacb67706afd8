// A mailbox's aliases entry as sendmail reads it: an entry kept by hand over
// several lines is read, rewritten and removed whole, and the panel never
// writes an entry longer than sendmail reads.
#include <gmock/gmock.h>

#include <sys/stat.h>

#include "proof_fixture.h"

using proof::LocalDelivery;
using proof::Program;
using proof::Refused;
using proof::Relayed;
using proof::SendmailProofTest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

namespace {

const char kLocal[] = "l\\@d.example";

// The mailbox's entry as an administrator may keep it: its targets over
// three lines, a tab and a blank starting the continuation lines.
const char kHandKept[] = "l+d.example:\tf@far.example,\n\tg@far.example,\n l\\@d.example\n";

class ProofEntryTest : public SendmailProofTest {
 protected:
  void SetUp() override {
    SendmailProofTest::SetUp();
    if (HasFatalFailure()) return;
    AddDomain("d.example");
  }

  // The mailbox l@d.example with forward f, its entry then kept by hand as
  // kHandKept and read back into the panel.
  void AddHandKeptMailbox() {
    Ok({"mail", "box", "add", "l@d.example", "--forward", "f@far.example"});
    const std::string before = File("aliases");
    const std::string one_line = "l+d.example:\tf@far.example, l\\@d.example\n";
    ASSERT_NE(before.find(one_line), std::string::npos) << before;
    std::string edited = before;
    edited.replace(edited.find(one_line), one_line.size(), kHandKept);
    zeltest::WriteFile(Path("aliases"), edited);
    Ok({"mail", "sync"});
  }

  // The mailbox's forwards as the panel lists them.
  std::string Forwards() {
    const proof::ProgramRun run = Zel({"mail", "box", "show", "l@d.example"});
    EXPECT_EQ(run.status, 0) << run.err;
    const std::string key = "forwards:";
    const std::size_t at = run.out.find(key);
    if (at == std::string::npos) return "(none shown)";
    const std::size_t from = run.out.find_first_not_of(' ', at + key.size());
    return run.out.substr(from, run.out.find('\n', from) - from);
  }

  // The texts of the four files and the maps' contents.
  std::vector<std::string> Everything() {
    std::vector<std::string> all;
    for (const char* file : {"virtusertable", "aliases", "access", "local-host-names"}) all.push_back(File(file));
    for (const char* map : {"virtusertable", "aliases", "access"}) {
      std::string dump;
      zeltest::RunShell("/usr/sbin/makemap -u hash " + Path(map), &dump);
      all.push_back(dump);
    }
    return all;
  }
};

// n forwards of the given length each (at least 24), all different.
std::vector<std::string> LongForwards(int n, std::size_t length) {
  std::vector<std::string> forwards;
  for (int i = 0; i < n; ++i) {
    std::string local = "fwd" + std::to_string(1000 + i) + "-";
    const std::string domain = "@far.example";
    local.resize(length - domain.size(), 'x');
    forwards.push_back(local + domain);
  }
  return forwards;
}

std::vector<std::string> SetWithForwards(const std::vector<std::string>& forwards) {
  std::vector<std::string> args = {"mail", "box", "set", "l@d.example"};
  for (const std::string& f : forwards) {
    args.push_back("--forward");
    args.push_back(f);
  }
  return args;
}

}  // namespace

TEST_F(ProofEntryTest, AnEntryOverSeveralLinesIsReadBackWithTheTargetsOfAllItsLines) {
  AddHandKeptMailbox();
  EXPECT_EQ(Forwards(), "f@far.example, g@far.example");
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"), Relayed("g@far.example")));
}

// Regression: the first line was rewritten and the continuation lines left
// below it, so sendmail glued " l\@d.example" and the old forward onto the
// new targets and the mailbox lost its own delivery.
TEST_F(ProofEntryTest, ChangingAnEntryKeptOverSeveralLinesRewritesItWholeAndGluesNothing) {
  AddHandKeptMailbox();
  Ok({"mail", "box", "set", "l@d.example", "--forward", "h@far.example"});
  const std::string aliases = File("aliases");
  EXPECT_NE(aliases.find("l+d.example:\tf@far.example, g@far.example, h@far.example, l\\@d.example\n"),
            std::string::npos)
      << aliases;
  EXPECT_EQ(aliases.find("\tg@far.example,\n"), std::string::npos) << aliases;
  EXPECT_EQ(aliases.find("\n l\\@d.example"), std::string::npos) << aliases;
  EXPECT_EQ(Map("aliases", "l+d.example"), "f@far.example, g@far.example, h@far.example, l\\@d.example");
  const proof::Verdict verdict = Verify("l@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"),
                                                  Relayed("g@far.example"), Relayed("h@far.example")));
}

TEST_F(ProofEntryTest, TheResponderIsAddedToAnEntryKeptOverSeveralLinesAsOneLine) {
  AddHandKeptMailbox();
  Ok({"mail", "responder", "l@d.example", "on", "--text", "Back on Monday."});
  const std::string action = ResponderCommand("l@d.example");
  EXPECT_EQ(Map("aliases", "l+d.example"), "f@far.example, g@far.example, l\\@d.example, \"" + action + "\"");
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"), Relayed("g@far.example"),
                                   Program(action)));
}

TEST_F(ProofEntryTest, DeletingAMailboxRemovesEveryLineOfItsEntry) {
  AddHandKeptMailbox();
  Ok({"mail", "box", "delete", "l@d.example"});
  EXPECT_EQ(File("aliases"), "devnull:\t\"/dev/null\"\n");
  EXPECT_EQ(Map("aliases", "l+d.example"), std::nullopt);
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(Refused("l@d.example", "No such user here")));
}

// Regression: 200 long forwards made an entry sendmail does not read; it was
// written, and every later rebuild of every customer failed.
TEST_F(ProofEntryTest, ForwardsThatWouldMakeTheEntryTooLongForSendmailAreRefusedAndNothingChanges) {
  Ok({"mail", "box", "add", "l@d.example", "--forward", "f@far.example"});
  const std::vector<std::string> before = Everything();
  struct stat aliases_before {};
  ASSERT_EQ(::stat(Path("aliases").c_str(), &aliases_before), 0);

  // "l+d.example:\t" (13) + f (13) + 200 forwards of 45 + 201 separators + "l\@d.example" (12)
  const proof::ProgramRun run = Zel(SetWithForwards(LongForwards(200, 45)));
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: aliases entry \"l+d.example\": 9440 bytes with its 201 forwards, over sendmail's limit of "
            "8190 bytes; remove forwards\n");
  EXPECT_EQ(Everything(), before);
  struct stat aliases_after {};
  ASSERT_EQ(::stat(Path("aliases").c_str(), &aliases_after), 0);
  EXPECT_EQ(aliases_after.st_mtim.tv_nsec, aliases_before.st_mtim.tv_nsec);
  EXPECT_EQ(aliases_after.st_mtim.tv_sec, aliases_before.st_mtim.tv_sec);
  EXPECT_EQ(Forwards(), "f@far.example");
  EXPECT_THAT(Verify("l@d.example").lines, UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example")));
}

TEST_F(ProofEntryTest, AMailboxAddedWithTooManyForwardsIsRefusedAndLeavesNoLine) {
  const std::string vut = File("virtusertable");
  const std::string aliases = File("aliases");
  std::vector<std::string> args = {"mail", "box", "add", "l@d.example"};
  for (const std::string& f : LongForwards(200, 45)) {
    args.push_back("--forward");
    args.push_back(f);
  }
  const proof::ProgramRun run = Zel(args);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: aliases entry \"l+d.example\": 9425 bytes with its 200 forwards, over sendmail's limit of "
            "8190 bytes; remove forwards\n");
  EXPECT_EQ(File("virtusertable"), vut);
  EXPECT_EQ(File("aliases"), aliases);
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(Refused("l@d.example", "No such user here")));
}

TEST_F(ProofEntryTest, AnEntryOfExactlySendmailsLimitIsWrittenAndDeliversToEveryForward) {
  Ok({"mail", "box", "add", "l@d.example"});
  // 13 + 200 forwards + 200 separators of 2 + 12 = 8190: forwards of 38 and
  // 165 of 39 bytes (7765 in all).
  std::vector<std::string> forwards = LongForwards(35, 38);
  for (const std::string& f : LongForwards(165, 39)) forwards.push_back("z" + f.substr(1));
  Ok(SetWithForwards(forwards));
  const std::string aliases = File("aliases");
  const std::size_t start = aliases.find("l+d.example:");
  ASSERT_NE(start, std::string::npos);
  EXPECT_EQ(aliases.find('\n', start) - start, 8190u);
  std::vector<std::string> expected = {LocalDelivery(kLocal)};
  for (const std::string& f : forwards) expected.push_back(Relayed(f));
  const proof::Verdict verdict = Verify("l@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, UnorderedElementsAreArray(expected));
}

TEST_F(ProofEntryTest, TurningTheResponderOnIsRefusedWhenItsActionWouldMakeTheEntryTooLong) {
  Ok({"mail", "box", "add", "l@d.example"});
  // 13 + 200 forwards + 200 separators of 2 + 12 = 8170 bytes: forwards of 38
  // and 145 of 39 bytes (7745 in all).
  std::vector<std::string> forwards = LongForwards(55, 38);
  for (const std::string& f : LongForwards(145, 39)) forwards.push_back("z" + f.substr(1));
  Ok(SetWithForwards(forwards));
  const std::vector<std::string> before = Everything();
  const std::size_t action = ResponderCommand("l@d.example").size() + 2;  // in double quotes
  const proof::ProgramRun run = Zel({"mail", "responder", "l@d.example", "on", "--text", "Away."});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: aliases entry \"l+d.example\": " + std::to_string(8170 + 2 + action) +
                         " bytes, over sendmail's limit of 8190 bytes\n");
  EXPECT_EQ(Everything(), before);
  EXPECT_EQ(Verify("l@d.example").lines.size(), 201u);
}
