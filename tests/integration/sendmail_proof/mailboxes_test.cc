// Mailboxes as sendmail sees them: the virtual user table's line leads to the
// mailbox's aliases entry, which holds its local delivery, its forwards and
// its responder; suspension points the line at the disabled text and puts the
// address into the access map.
#include <gmock/gmock.h>

#include "proof_fixture.h"

using proof::FileTarget;
using proof::kNoUser;
using proof::LocalDelivery;
using proof::Program;
using proof::Refused;
using proof::Relayed;
using proof::SendmailProofTest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

const char kLocal[] = "l\\@d.example";

class ProofMailboxTest : public SendmailProofTest {
 protected:
  void SetUp() override {
    SendmailProofTest::SetUp();
    if (HasFatalFailure()) return;
    AddDomain("d.example");
  }
  std::string Responder() const { return ResponderCommand("l@d.example"); }
};

}  // namespace

TEST_F(ProofMailboxTest, AMailboxIsDeliveredByTheLocalMailerToItsLocalDeliveryName) {
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(Map("virtuser", "l@d.example"), "l+d.example");
  EXPECT_EQ(Map("aliases", "l+d.example"), kLocal);
  const proof::Verdict verdict = Verify("l@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(LocalDelivery(kLocal)));
}

TEST_F(ProofMailboxTest, AnUpperCaseAddressReachesTheSameMailbox) {
  Ok({"mail", "box", "add", "L@D.example"});
  EXPECT_THAT(Verify("L@D.EXAMPLE").lines, ElementsAre(LocalDelivery(kLocal)));
}

TEST_F(ProofMailboxTest, AnAliasReachesTheMailbox) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a"});
  EXPECT_EQ(Map("virtuser", "a@d.example"), "l@d.example");
  const proof::Verdict verdict = Verify("a@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, ElementsAre(LocalDelivery(kLocal)));
}

TEST_F(ProofMailboxTest, AnAliasAddedLaterReachesTheMailbox) {
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_THAT(Verify("b@d.example").lines,
              ElementsAre(Refused("b@d.example", "No such user here")));
  Ok({"mail", "box", "set", "l@d.example", "--alias", "b"});
  EXPECT_THAT(Verify("b@d.example").lines, ElementsAre(LocalDelivery(kLocal)));
}

TEST_F(ProofMailboxTest, AForwardIsRelayedToItsTargetAndTheLocalCopyKept) {
  Ok({"mail", "box", "add", "l@d.example", "--forward", "f@far.example"});
  EXPECT_EQ(Map("aliases", "l+d.example"), "f@far.example, l\\@d.example");
  const proof::Verdict verdict = Verify("l@d.example");
  EXPECT_EQ(verdict.status, 0);
  EXPECT_THAT(verdict.lines, UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example")));
}

TEST_F(ProofMailboxTest, AForwardOnlyMailboxIsRelayedWithoutALocalCopy) {
  Ok({"mail", "box", "add", "l@d.example", "--forward-only", "--forward", "f@far.example",
      "--forward", "g@far.example", "--alias", "a"});
  EXPECT_EQ(Map("aliases", "l+d.example"), "f@far.example, g@far.example");
  for (const char* address : {"l@d.example", "a@d.example"}) {
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, 0) << address;
    EXPECT_THAT(verdict.lines,
                UnorderedElementsAre(Relayed("f@far.example"), Relayed("g@far.example")))
        << address;
  }
}

TEST_F(ProofMailboxTest, SwitchingForwardOnlyOnAndOffDropsAndRestoresTheLocalCopy) {
  Ok({"mail", "box", "add", "l@d.example", "--forward", "f@far.example"});
  Ok({"mail", "box", "set", "l@d.example", "--forward-only", "yes"});
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(Relayed("f@far.example")));
  Ok({"mail", "box", "set", "l@d.example", "--forward-only", "no"});
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example")));
}

TEST_F(ProofMailboxTest, AForwardToAnotherMailboxOfTheDomainIsDeliveredLocally) {
  Ok({"mail", "box", "add", "m@d.example"});
  Ok({"mail", "box", "add", "l@d.example", "--forward-only", "--forward", "m@d.example"});
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(LocalDelivery("m\\@d.example")));
}

TEST_F(ProofMailboxTest, ProgramAndFileForwardsReachTheProgramAndFileMailers) {
  Ok({"mail", "box", "add", "l@d.example", "--allow-program-targets", "--forward", "|/bin/cat",
      "--forward", "/var/mail/l.copy"});
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Program("|/bin/cat"),
                                   FileTarget("/var/mail/l.copy")));
}

TEST_F(ProofMailboxTest, RemovedAliasesAndForwardsNoLongerReachOrRelay) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@far.example"});
  Ok({"mail", "box", "set", "l@d.example", "--no-alias", "a", "--no-forward", "f@far.example"});
  EXPECT_EQ(Map("virtuser", "a@d.example"), std::nullopt);
  const proof::Verdict alias = Verify("a@d.example");
  EXPECT_EQ(alias.status, kNoUser);
  EXPECT_THAT(alias.lines, ElementsAre(Refused("a@d.example", "No such user here")));
  EXPECT_THAT(Verify("l@d.example").lines, ElementsAre(LocalDelivery(kLocal)));
}

TEST_F(ProofMailboxTest, TheResponderIsPipedTheMailboxsMailWhileItIsOn) {
  Ok({"mail", "box", "add", "l@d.example", "--forward", "f@far.example"});
  Ok({"mail", "responder", "l@d.example", "on", "--subject", "Away", "--text", "Back soon."});
  EXPECT_THAT(
      Verify("l@d.example").lines,
      UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"), Program(Responder())));
  Ok({"mail", "responder", "l@d.example", "off"});
  EXPECT_THAT(Verify("l@d.example").lines,
              UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example")));
}

TEST_F(ProofMailboxTest, ASuspendedMailboxAndItsAliasesAreRefusedWithTheDisabledText) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@far.example"});
  Ok({"mail", "box", "suspend", "l@d.example"});
  EXPECT_EQ(Map("virtuser", "l@d.example"), "error:nouser Account temporary disabled");
  for (const char* address : {"l@d.example", "a@d.example"}) {
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, kNoUser) << address;
    EXPECT_THAT(verdict.lines, ElementsAre(Refused(address, "Account temporary disabled")));
  }
}

TEST_F(ProofMailboxTest, ASuspendedMailboxIsRefusedAsASenderWithAccountDisabled) {
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(Map("access", "l@d.example"), std::nullopt);
  Ok({"mail", "box", "suspend", "l@d.example"});
  EXPECT_EQ(Map("access", "l@d.example"), "550 Account disabled");
  EXPECT_EQ(Ruleset("check_mail", "<l@d.example>"), proof::kSenderDisabled);
  // Only that address: another one of the domain is not refused by the map.
  EXPECT_EQ(Ruleset("check_mail", "<m@d.example>"), proof::Unjudged("m@d.example"));
}

TEST_F(ProofMailboxTest, AResumedMailboxIsDeliverableAgainWithItsForwardsAndResponder) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@far.example"});
  Ok({"mail", "responder", "l@d.example", "on", "--text", "Back soon."});
  Ok({"mail", "box", "suspend", "l@d.example"});
  Ok({"mail", "box", "resume", "l@d.example"});
  EXPECT_EQ(Map("access", "l@d.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<l@d.example>"), proof::Unjudged("l@d.example"));
  for (const char* address : {"l@d.example", "a@d.example"}) {
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, 0) << address;
    EXPECT_THAT(verdict.lines, UnorderedElementsAre(LocalDelivery(kLocal), Relayed("f@far.example"),
                                                    Program(Responder())))
        << address;
  }
}

TEST_F(ProofMailboxTest, ADeletedMailboxAndItsAliasesAreNoLongerDeliverable) {
  Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@far.example"});
  Ok({"mail", "box", "delete", "l@d.example"});
  EXPECT_EQ(Map("virtuser", "l@d.example"), std::nullopt);
  EXPECT_EQ(Map("virtuser", "a@d.example"), std::nullopt);
  EXPECT_EQ(Map("aliases", "l+d.example"), std::nullopt);
  for (const char* address : {"l@d.example", "a@d.example"}) {
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, kNoUser) << address;
    EXPECT_THAT(verdict.lines, ElementsAre(Refused(address, "No such user here")));
  }
}

TEST_F(ProofMailboxTest, ADeletedSuspendedMailboxLeavesNoAccessEntry) {
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "box", "suspend", "l@d.example"});
  Ok({"mail", "box", "delete", "l@d.example"});
  EXPECT_EQ(Map("access", "l@d.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<l@d.example>"), proof::Unjudged("l@d.example"));
}
