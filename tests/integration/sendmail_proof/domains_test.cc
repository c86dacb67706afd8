// Mail domains as sendmail sees them: local or not, and where mail for a
// local part without a mailbox goes under each default action, while the
// domain is active, suspended, resumed, rewritten and deleted.
#include <gmock/gmock.h>

#include "proof_fixture.h"

using proof::FileTarget;
using proof::kNoUser;
using proof::LocalDelivery;
using proof::Refused;
using proof::Relayed;
using proof::SendmailProofTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

namespace {

// A connecting client from elsewhere, for the recipient check.
const std::vector<std::string> kRemoteClient = {".D{client_addr}203.0.113.5",
                                                ".D{client_name}client.far.example"};

class ProofDomainTest : public SendmailProofTest {
 protected:
  void MakeMap(const std::string& map) {
    const proof::ProgramRun run =
        proof::RunProgram({"/usr/sbin/makemap", "hash", Path(map)}, File(map), 30);
    ASSERT_EQ(run.status, 0) << run.err;
  }
};

}  // namespace

TEST_F(ProofDomainTest, ANewDomainBecomesLocalAndRefusesUnknownLocalPartsWithNoSuchUser) {
  // Before: a domain like any other, relayed to its host.
  EXPECT_THAT(LocalHostNames(), Not(Contains("d.example")));
  proof::Verdict verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(Relayed("zz@d.example")));

  AddDomain("d.example");
  EXPECT_THAT(LocalHostNames(), Contains("d.example"));
  EXPECT_EQ(Map("virtuser", "@d.example"), "error:nouser No such user here");
  verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, kNoUser);
  EXPECT_THAT(verdict.lines, ElementsAre(Refused("zz@d.example", "No such user here")));
}

TEST_F(ProofDomainTest, IgnoreSendsUnknownLocalPartsThroughTheDevnullAliasToDevNull) {
  AddDomain("d.example", {"--default-action", "ignore"});
  EXPECT_EQ(Map("virtuser", "@d.example"), "devnull");
  EXPECT_EQ(Map("aliases", "devnull"), "\"/dev/null\"");
  const proof::Verdict verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(FileTarget("/dev/null")));
}

TEST_F(ProofDomainTest, RedirEmailRelaysUnknownLocalPartsToTheRedirectAddress) {
  AddDomain("d.example", {"--default-action", "redir_email", "--redirect", "boss@far.example"});
  EXPECT_EQ(Map("virtuser", "@d.example"), "boss@far.example");
  const proof::Verdict verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(Relayed("boss@far.example", "zz@d.example")));
}

TEST_F(ProofDomainTest, RedirDomainRelaysTheSameLocalPartToTheRedirectDomain) {
  AddDomain("d.example", {"--default-action", "redir_domain", "--redirect", "far.example"});
  // The line's target is "%1@far.example"; a bare look-up has no local part
  // to put for %1.
  EXPECT_EQ(Map("virtuser", "@d.example"), "@far.example");
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(Relayed("zz@far.example", "zz@d.example")));
  EXPECT_THAT(Verify("other@d.example").lines,
              ElementsAre(Relayed("other@far.example", "other@d.example")));
}

TEST_F(ProofDomainTest, MailboxesOfARedirectedDomainStayLocal) {
  AddDomain("d.example", {"--default-action", "redir_domain", "--redirect", "far.example"});
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(LocalDelivery("l\\@d.example")));
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(Relayed("zz@far.example", "zz@d.example")));
}

TEST_F(ProofDomainTest, SettingTheDefaultActionChangesWhereUnknownLocalPartsGo) {
  AddDomain("d.example");
  Ok({"mail", "domain", "set", "d.example", "--default-action", "ignore"});
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(FileTarget("/dev/null")));
  Ok({"mail", "domain", "set", "d.example", "--default-action", "redir_email", "--redirect",
      "boss@far.example"});
  EXPECT_THAT(Verify("zz@d.example").lines,
              ElementsAre(Relayed("boss@far.example", "zz@d.example")));
  Ok({"mail", "domain", "set", "d.example", "--default-action", "redir_domain", "--redirect",
      "far.example"});
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(Relayed("zz@far.example", "zz@d.example")));
  Ok({"mail", "domain", "set", "d.example", "--default-action", "error"});
  const proof::Verdict verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, kNoUser);
  EXPECT_THAT(verdict.lines, ElementsAre(Refused("zz@d.example", "No such user here")));
}

TEST_F(ProofDomainTest, ASuspendedDomainRefusesUnknownLocalPartsWithTheDisabledText) {
  AddDomain("d.example", {"--default-action", "ignore"});
  EXPECT_EQ(Map("access", "d.example"), std::nullopt);
  Ok({"mail", "domain", "suspend", "d.example"});
  EXPECT_EQ(Map("virtuser", "@d.example"), "error:nouser Account temporary disabled");
  EXPECT_EQ(Map("access", "d.example"), "550 Account disabled");
  const proof::Verdict verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, kNoUser);
  EXPECT_THAT(verdict.lines, ElementsAre(Refused("zz@d.example", "Account temporary disabled")));
  // The domain is still one of this host's names.
  EXPECT_THAT(LocalHostNames(), Contains("d.example"));
}

TEST_F(ProofDomainTest, ASuspendedDomainsAddressesAreRefusedAsSendersWithAccountDisabled) {
  AddDomain("d.example");
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "domain", "suspend", "d.example"});
  EXPECT_EQ(Ruleset("check_mail", "<l@d.example>"), proof::kSenderDisabled);
  EXPECT_EQ(Ruleset("check_mail", "<zz@d.example>"), proof::kSenderDisabled);
}

// Suspending a domain suspends its mailboxes in the files with it: their
// lines, their aliases and their local names refuse mail.
TEST_F(ProofDomainTest, ASuspendedDomainRefusesItsMailboxesTheirAliasesAndLocalNames) {
  AddDomain("d.example");
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@far.example"});
  Ok({"mail", "domain", "suspend", "d.example"});
  // sendmail names the address asked about when the virtual user table
  // refused it, and the address the aliases entry led to otherwise.
  for (const auto& [address, shown] : std::vector<std::pair<std::string, std::string>>{
           {"l@d.example", "l@d.example"},
           {"a@d.example", "a@d.example"},
           {"l+d.example", "l@d.example"}}) {
    SCOPED_TRACE(address);
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, kNoUser);
    EXPECT_THAT(verdict.lines, ElementsAre(Refused(shown, "Account temporary disabled")));
  }
}

// The sandbox's sendmail checks recipients against the access map too: a
// suspended domain's addresses, mailboxes or not, are refused at RCPT, and
// come back with the domain.
TEST_F(ProofDomainTest, ASuspendedDomainsAddressesAreRefusedAtTheRecipientCheck) {
  AddDomain("d.example");
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "domain", "suspend", "d.example"});
  EXPECT_EQ(Ruleset("check_rcpt", "<l@d.example>", kRemoteClient),
            "$# error $: 550 Account disabled");
  EXPECT_EQ(Ruleset("check_rcpt", "<zz@d.example>", kRemoteClient),
            "$# error $: 550 Account disabled");
  Ok({"mail", "domain", "resume", "d.example"});
  EXPECT_EQ(Ruleset("check_rcpt", "<l@d.example>", kRemoteClient), "RELAY");
  // What a domain that is not local gets from the same client.
  EXPECT_EQ(Ruleset("check_rcpt", "<zz@far.example>", kRemoteClient),
            "$# error $@ 5 . 7 . 1 $: \"550 Relaying denied\"");
}

TEST_F(ProofDomainTest, AResumedDomainGetsItsDefaultActionBackAndLosesItsAccessEntry) {
  AddDomain("d.example", {"--default-action", "redir_email", "--redirect", "boss@far.example"});
  Ok({"mail", "domain", "suspend", "d.example"});
  Ok({"mail", "domain", "resume", "d.example"});
  EXPECT_EQ(Map("access", "d.example"), std::nullopt);
  const proof::Verdict verdict = Verify("zz@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(Relayed("boss@far.example", "zz@d.example")));
  EXPECT_EQ(Ruleset("check_mail", "<zz@d.example>"), proof::Unjudged("zz@d.example"));
}

TEST_F(ProofDomainTest, ADefaultActionSetWhileSuspendedTakesEffectOnResume) {
  AddDomain("d.example");
  Ok({"mail", "domain", "suspend", "d.example"});
  Ok({"mail", "domain", "set", "d.example", "--default-action", "ignore"});
  EXPECT_THAT(Verify("zz@d.example").lines,
              ElementsAre(Refused("zz@d.example", "Account temporary disabled")));
  Ok({"mail", "domain", "resume", "d.example"});
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(FileTarget("/dev/null")));
}

TEST_F(ProofDomainTest, UpdateRestoresAHandEditedCatchAllAndAccessEntry) {
  AddDomain("d.example", {"--default-action", "ignore"});
  Ok({"mail", "domain", "suspend", "d.example"});
  zeltest::WriteFile(Path("virtusertable"), "@d.example\tdevnull\n");
  zeltest::WriteFile(Path("access"), "");
  MakeMap("virtusertable");
  MakeMap("access");
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(FileTarget("/dev/null")));

  Ok({"mail", "domain", "update", "d.example"});
  EXPECT_EQ(Map("access", "d.example"), "550 Account disabled");
  EXPECT_THAT(Verify("zz@d.example").lines,
              ElementsAre(Refused("zz@d.example", "Account temporary disabled")));
}

TEST_F(ProofDomainTest, ADeletedDomainIsNoLongerLocal) {
  AddDomain("d.example");
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a"});
  Ok({"mail", "domain", "delete", "d.example"});
  EXPECT_THAT(LocalHostNames(), Not(Contains("d.example")));
  EXPECT_EQ(Map("virtuser", "@d.example"), std::nullopt);
  EXPECT_EQ(Map("virtuser", "l@d.example"), std::nullopt);
  EXPECT_EQ(Map("aliases", "l+d.example"), std::nullopt);
  for (const char* address : {"l@d.example", "a@d.example", "zz@d.example"}) {
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, 0) << address;
    EXPECT_THAT(verdict.lines, ElementsAre(Relayed(address)));
  }
}

TEST_F(ProofDomainTest, ADeletedSuspendedDomainLeavesNoAccessEntry) {
  AddDomain("d.example");
  Ok({"mail", "domain", "suspend", "d.example"});
  Ok({"mail", "domain", "delete", "d.example"});
  EXPECT_EQ(Map("access", "d.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<zz@d.example>"), proof::Unjudged("zz@d.example"));
  EXPECT_THAT(Verify("zz@d.example").lines, ElementsAre(Relayed("zz@d.example")));
}
