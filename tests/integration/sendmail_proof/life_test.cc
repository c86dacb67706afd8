// The typical life of a domain and its mailbox, step by step, with sendmail's
// verdict after each step.
#include <gmock/gmock.h>

#include "proof_fixture.h"

using proof::kNoUser;
using proof::LocalDelivery;
using proof::Refused;
using proof::Relayed;
using proof::SendmailProofTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

TEST_F(SendmailProofTest, ATypicalLifeOfADomainAndItsMailbox) {
  const std::string local = "info\\@shop.example";

  AddDomain("shop.example");
  EXPECT_THAT(LocalHostNames(), Contains("shop.example"));
  EXPECT_THAT(Verify("info@shop.example").lines,
              ElementsAre(Refused("info@shop.example", "No such user here")));

  Ok({"mail", "box", "add", "info@shop.example"});
  EXPECT_THAT(Verify("info@shop.example").lines, ElementsAre(LocalDelivery(local)));

  Ok({"mail", "box", "set", "info@shop.example", "--alias", "sales", "--forward",
      "owner@home.example"});
  for (const char* address : {"info@shop.example", "sales@shop.example"})
    EXPECT_THAT(Verify(address).lines,
                UnorderedElementsAre(LocalDelivery(local), Relayed("owner@home.example")))
        << address;

  Ok({"mail", "box", "suspend", "info@shop.example"});
  for (const char* address : {"info@shop.example", "sales@shop.example"}) {
    const proof::Verdict verdict = Verify(address);
    EXPECT_EQ(verdict.status, kNoUser);
    EXPECT_THAT(verdict.lines, ElementsAre(Refused(address, "Account temporary disabled")));
  }
  EXPECT_EQ(Map("access", "info@shop.example"), "550 Account disabled");

  Ok({"mail", "box", "resume", "info@shop.example"});
  EXPECT_EQ(Map("access", "info@shop.example"), std::nullopt);
  EXPECT_THAT(Verify("sales@shop.example").lines,
              UnorderedElementsAre(LocalDelivery(local), Relayed("owner@home.example")));

  Ok({"mail", "box", "delete", "info@shop.example"});
  for (const char* address : {"info@shop.example", "sales@shop.example"})
    EXPECT_THAT(Verify(address).lines, ElementsAre(Refused(address, "No such user here")));

  Ok({"mail", "domain", "delete", "shop.example"});
  EXPECT_THAT(LocalHostNames(), Not(Contains("shop.example")));
  EXPECT_THAT(Verify("info@shop.example").lines, ElementsAre(Relayed("info@shop.example")));
}
