// No panel address reaches a system account: sendmail's own answers after
// each way a mailbox's local name could lose its aliases entry while its
// address still leads there (a delete or an add whose rebuild failed, a
// vanished aliases file), after a suspension of a mailbox or a domain, and
// for the server's own names.
#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "proof_fixture.h"

using proof::kNoUser;
using proof::LocalDelivery;
using proof::Refused;
using proof::Relayed;
using proof::SendmailProofTest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace fs = std::filesystem;

namespace {

const char kDisabled[] = "Account temporary disabled";

class ProofSafetyTest : public SendmailProofTest {
 protected:
  void SetUp() override {
    SendmailProofTest::SetUp();
    if (HasFatalFailure()) return;
    AddDomain("d.example");
  }

  // The lines of sendmail's answer that hand mail to the local mailer under
  // a name without "@": a system account (the sandbox's local mailer
  // accepts any name, a real server's delivers to the account of that name).
  std::vector<std::string> SystemUsers(const std::string& address) {
    std::vector<std::string> bare;
    for (const std::string& line : Verify(address).lines) {
      const size_t user = line.find("mailer local, ");
      if (user == std::string::npos) continue;
      const size_t name = line.find("user ", user);
      if (name == std::string::npos || line.find('@', name) == std::string::npos)
        bare.push_back(line);
    }
    return bare;
  }

  // Every address of the virtual user table, and the local names its lines
  // lead to (reached directly at the server's own names): none may reach a
  // system account.
  void ExpectNoSystemUser() {
    std::vector<std::string> addresses;
    std::istringstream lines(File("virtusertable"));
    for (std::string line; std::getline(lines, line);) {
      if (line.empty() || line[0] == '#' || line[0] == '@') continue;
      const size_t tab = line.find('\t');
      addresses.push_back(line.substr(0, tab));
      const std::string target = line.substr(tab + 1);
      if (target.find('+') != std::string::npos && target.find('@') == std::string::npos)
        addresses.push_back(target);
    }
    for (const std::string& address : addresses)
      EXPECT_THAT(SystemUsers(address), ElementsAre()) << address;
  }

  std::string ConfigValue(const std::string& key) {
    std::istringstream in(File("zelpnl.conf"));
    for (std::string line; std::getline(in, line);)
      if (line.rfind(key + " = ", 0) == 0) return line.substr(key.size() + 3);
    return "";
  }

  void SetConfig(const std::string& key, const std::string& value) {
    std::istringstream in(File("zelpnl.conf"));
    std::string out;
    for (std::string line; std::getline(in, line);)
      if (line.rfind(key + " =", 0) != 0) out += line + "\n";
    out += key + " = " + value + "\n";
    std::ofstream(Path("zelpnl.conf")) << out;
  }

  // Makes makemap fail on file's map: a folder stands in its place.
  void BreakMap(const std::string& file) {
    fs::remove(Path(file + ".db"));
    fs::create_directory(Path(file + ".db"));
  }
  void MendMap(const std::string& file) { fs::remove(Path(file + ".db")); }
};

}  // namespace

TEST_F(ProofSafetyTest, NoAddressOfATypicalLifeReachesASystemAccount) {
  const std::vector<std::vector<std::string>> steps = {
      {"mail", "box", "add", "l@d.example", "--alias", "a"},
      {"mail", "box", "add", "root@d.example", "--forward", "f@far.example", "--forward-only"},
      {"mail", "box", "add", "m@d.example"},
      {"mail", "responder", "m@d.example", "on", "--text", "Away."},
      {"mail", "box", "suspend", "l@d.example"},
      {"mail", "domain", "suspend", "d.example"},
      {"mail", "domain", "resume", "d.example"},
      {"mail", "box", "resume", "l@d.example"},
      {"mail", "box", "delete", "m@d.example"},
      {"mail", "box", "delete", "root@d.example"},
  };
  for (const auto& step : steps) {
    std::string line;
    for (const auto& word : step) line += " " + word;
    SCOPED_TRACE(line);
    Ok(step);
    ExpectNoSystemUser();
  }
}

// A delete takes the address out of the virtual user table's map before its
// aliases entry goes: at no moment does the address lead to a local name
// without an entry. The aliases rebuild is held up here, to ask sendmail
// while it runs.
TEST_F(ProofSafetyTest, ADeleteTakesTheAddressOutBeforeItsAliasesEntry) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a"});
  const std::string marker = Path("rebuilding");
  SetConfig("sendmail-newaliases", ConfigValue("sendmail-newaliases") + " && touch " + marker +
                                       " && sleep 3");
  proof::ProgramRun run;
  std::thread deleting([&] { run = Zel({"mail", "box", "delete", "l@d.example"}); });
  bool rebuilding = false;
  for (int i = 0; i < 200 && !rebuilding; ++i) {
    rebuilding = fs::exists(marker);
    if (!rebuilding) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(rebuilding) << "the aliases rebuild did not start within 10 s";
  for (const char* address : {"l@d.example", "a@d.example"}) {
    SCOPED_TRACE(address);
    EXPECT_THAT(Verify(address).lines, ElementsAre(Refused(address, "No such user here")));
  }
  deleting.join();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(File("aliases"), "devnull:\t\"/dev/null\"\n");
}

TEST_F(ProofSafetyTest, AnAddWhoseAliasesRebuildFailsLeavesTheAddressToTheCatchAll) {
  SetConfig("sendmail-newaliases", "false");
  const proof::ProgramRun run = Zel({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(run.status, 1) << run.err;
  const proof::Verdict verdict = Verify("l@d.example");
  EXPECT_EQ(verdict.status, kNoUser);
  EXPECT_THAT(verdict.lines, ElementsAre(Refused("l@d.example", "No such user here")));
  ExpectNoSystemUser();
}

TEST_F(ProofSafetyTest, AVanishedAliasesFileIsNotRebuiltAndTheMailboxKeepsItsDelivery) {
  Ok({"mail", "box", "add", "l@d.example"});
  fs::remove(Path("aliases"));
  const proof::ProgramRun run = Zel({"mail", "box", "add", "m@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("is missing while the panel has 1 mailbox in it"), std::string::npos)
      << run.err;
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(LocalDelivery("l\\@d.example")));
  EXPECT_THAT(Verify("m@d.example").lines, ElementsAre(Refused("m@d.example", "No such user here")));
  ExpectNoSystemUser();
}

TEST_F(ProofSafetyTest, AMailboxDeletedAndAddedAgainInOneBatchKeepsOneLineAndItsEntry) {
  Ok({"mail", "box", "add", "l@d.example", "--forward", "f@far.example"});
  const std::string batch = Path("lines.txt");
  std::ofstream(batch) << "mail box delete l@d.example\nmail box add l@d.example\n"
                          "mail box delete l@d.example\nmail box add l@d.example\n";
  Ok({"batch", batch});
  const proof::Verdict verdict = Verify("l@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(LocalDelivery("l\\@d.example")));
  EXPECT_EQ(File("aliases"), "devnull:\t\"/dev/null\"\nl+d.example:\tl\\@d.example\n");
  EXPECT_EQ(File("virtusertable"),
            "@d.example\terror:nouser No such user here\nl@d.example\tl+d.example\n");
}

TEST_F(ProofSafetyTest, ADeletedDomainsAddressesNoLongerReachThisHost) {
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "domain", "delete", "d.example"});
  EXPECT_THAT(LocalHostNames(), ::testing::Not(::testing::Contains("d.example")));
  for (const char* address : {"l@d.example", "root@d.example", "zz@d.example"}) {
    SCOPED_TRACE(address);
    EXPECT_THAT(Verify(address).lines, ElementsAre(Relayed(address)));
  }
  EXPECT_EQ(File("virtusertable"), "");
  EXPECT_EQ(File("aliases"), "devnull:\t\"/dev/null\"\n");
}

TEST_F(ProofSafetyTest, ASuspendedMailboxRefusesMailUnderEveryAddressThatReachesIt) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@far.example"});
  Ok({"mail", "responder", "l@d.example", "on", "--text", "Away."});
  Ok({"mail", "box", "suspend", "l@d.example"});
  std::vector<std::string> local_names = {"l+d.example", "l+d.example@localhost"};
  for (const std::string& host : LocalHostNames())
    if (host[0] != '[' && host != "d.example") local_names.push_back("l+d.example@" + host);
  for (const std::string& address : {std::string("l@d.example"), std::string("a@d.example")}) {
    SCOPED_TRACE(address);
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, kNoUser);
    EXPECT_THAT(verdict.lines, ElementsAre(Refused(address, kDisabled)));
  }
  for (const std::string& address : local_names) {
    SCOPED_TRACE(address);
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, kNoUser);
    EXPECT_THAT(verdict.lines, ElementsAre(Refused("l@d.example", kDisabled)));
  }
  Ok({"mail", "box", "resume", "l@d.example"});
  EXPECT_THAT(Verify("l+d.example@localhost").lines,
              UnorderedElementsAre(LocalDelivery("l\\@d.example"), Relayed("f@far.example"),
                                   proof::Program(ResponderCommand("l@d.example"))));
}

TEST_F(ProofSafetyTest, ASuspendedDomainStaysSuspendedThroughSyncsAndItsResumeKeepsEachMailboxsState) {
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "box", "add", "m@d.example", "--alias", "a"});
  Ok({"mail", "box", "suspend", "l@d.example"});
  Ok({"mail", "domain", "suspend", "d.example"});
  // Whatever the access map holds: its entry removed by hand, then one of
  // another value.
  std::ofstream(Path("access")) << "";
  for (int sync = 0; sync < 3; ++sync) {
    if (sync == 2) std::ofstream(Path("access")) << "d.example\tOK\n";
    // A touch of the virtual user table, so that each sync reads it.
    std::ofstream(Path("virtusertable"), std::ios::app) << "# sync " << sync << "\n";
    SCOPED_TRACE("sync " + std::to_string(sync));
    Ok({"mail", "sync"});
    for (const char* address : {"l@d.example", "m@d.example", "a@d.example", "zz@d.example"}) {
      SCOPED_TRACE(address);
      EXPECT_EQ(Verify(address).status, kNoUser);
    }
  }
  std::ofstream(Path("access")) << "";
  Ok({"mail", "domain", "resume", "d.example"});
  // m comes back; l, suspended on its own, stays suspended.
  EXPECT_THAT(Verify("m@d.example").lines, ElementsAre(LocalDelivery("m\\@d.example")));
  EXPECT_THAT(Verify("a@d.example").lines, ElementsAre(LocalDelivery("m\\@d.example")));
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(Refused("l@d.example", kDisabled)));
  EXPECT_THAT(Verify("l+d.example").lines, ElementsAre(Refused("l@d.example", kDisabled)));
  ExpectNoSystemUser();
}

TEST_F(ProofSafetyTest, TheServersOwnNamesStayTheServers) {
  std::string host;
  for (const std::string& name : LocalHostNames())
    if (name[0] != '[' && name.find('.') != std::string::npos && name != "d.example") host = name;
  ASSERT_NE(host, "");
  Ok({"webdomain", "add", host, "--owner", "admin"});
  const proof::ProgramRun run = Zel({"mail", "domain", "add", host});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(File("virtusertable"), "@d.example\terror:nouser No such user here\n");
  // Mail to the host's own postmaster still goes where the system sends it.
  EXPECT_THAT(Verify("postmaster@" + host).lines,
              ElementsAre("postmaster@" + host + "... deliverable: mailer local, user postmaster"));
}
