// The sender lists as sendmail sees them: whitelisted senders are "OK" and
// blacklisted ones "REJECT" in the access map, which check_mail consults for
// the envelope sender and check_relay (its address look-up, ruleset A, with
// the Connect tag) for the connecting client.
#include <gmock/gmock.h>

#include "proof_fixture.h"

using proof::kSenderAccepted;
using proof::kSenderRejected;
using proof::kUnresolvableSender;
using proof::SendmailProofTest;

namespace {

class ProofSenderTest : public SendmailProofTest {
 protected:
  // What check_relay's look-up of a connecting address finds: "< OK > < >",
  // "< REJECT > < >", or "< ? > < >" for nothing.
  std::string ClientAddress(const std::string& address) {
    return Ruleset("A", "<" + address + "> <?> <+ Connect> <>");
  }
};

const char kClientAccepted[] = "< OK > < >";
const char kClientRejected[] = "< REJECT > < >";
const char kClientUnknown[] = "< ? > < >";

}  // namespace

TEST_F(ProofSenderTest, AWhitelistedSenderAddressIsAcceptedUntilItIsDeleted) {
  EXPECT_EQ(Ruleset("check_mail", "<good@ok.example>"), kUnresolvableSender);
  Ok({"mail", "whitelist", "add", "good@ok.example"});
  EXPECT_EQ(Map("access", "good@ok.example"), "OK");
  EXPECT_EQ(Ruleset("check_mail", "<good@ok.example>"), kSenderAccepted);
  // Only that address of the domain.
  EXPECT_EQ(Ruleset("check_mail", "<other@ok.example>"), kUnresolvableSender);

  Ok({"mail", "whitelist", "delete", "good@ok.example"});
  EXPECT_EQ(Map("access", "good@ok.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<good@ok.example>"), kUnresolvableSender);
}

TEST_F(ProofSenderTest, AWhitelistedDomainAcceptsEverySenderOfItAndOfItsSubdomains) {
  Ok({"mail", "whitelist", "add", "ok.example"});
  EXPECT_EQ(Map("access", "ok.example"), "OK");
  EXPECT_EQ(Ruleset("check_mail", "<anyone@ok.example>"), kSenderAccepted);
  EXPECT_EQ(Ruleset("check_mail", "<anyone@mx.ok.example>"), kSenderAccepted);
  EXPECT_EQ(Ruleset("check_mail", "<anyone@notok.example>"), kUnresolvableSender);
}

TEST_F(ProofSenderTest, ABlacklistedSenderAddressIsRejectedUntilItIsDeleted) {
  Ok({"mail", "blacklist", "add", "bad@spam.example"});
  EXPECT_EQ(Map("access", "bad@spam.example"), "REJECT");
  EXPECT_EQ(Ruleset("check_mail", "<bad@spam.example>"), kSenderRejected);
  EXPECT_EQ(Ruleset("check_mail", "<other@spam.example>"), kUnresolvableSender);

  Ok({"mail", "blacklist", "delete", "bad@spam.example"});
  EXPECT_EQ(Map("access", "bad@spam.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<bad@spam.example>"), kUnresolvableSender);
}

TEST_F(ProofSenderTest, ABlacklistedDomainRejectsEverySenderOfItAndOfItsSubdomains) {
  Ok({"mail", "blacklist", "add", "spam.example"});
  EXPECT_EQ(Map("access", "spam.example"), "REJECT");
  EXPECT_EQ(Ruleset("check_mail", "<anyone@spam.example>"), kSenderRejected);
  EXPECT_EQ(Ruleset("check_mail", "<anyone@mx.spam.example>"), kSenderRejected);
}

// An address entry is looked up before its domain's: a whitelisted address
// of a blacklisted domain gets through.
TEST_F(ProofSenderTest, AWhitelistedAddressOfABlacklistedDomainIsAccepted) {
  Ok({"mail", "blacklist", "add", "spam.example"});
  Ok({"mail", "whitelist", "add", "friend@spam.example"});
  EXPECT_EQ(Ruleset("check_mail", "<friend@spam.example>"), kSenderAccepted);
  EXPECT_EQ(Ruleset("check_mail", "<anyone@spam.example>"), kSenderRejected);
}

TEST_F(ProofSenderTest, ASenderMovedFromTheBlacklistToTheWhitelistIsAccepted) {
  Ok({"mail", "blacklist", "add", "x@spam.example"});
  Ok({"mail", "blacklist", "delete", "x@spam.example"});
  Ok({"mail", "whitelist", "add", "x@spam.example"});
  EXPECT_EQ(Map("access", "x@spam.example"), "OK");
  EXPECT_EQ(Ruleset("check_mail", "<x@spam.example>"), kSenderAccepted);
}

TEST_F(ProofSenderTest, ListedIpv4ClientsAreAcceptedOrRejectedAsConnectingHosts) {
  EXPECT_EQ(ClientAddress("192.0.2.7"), kClientUnknown);
  Ok({"mail", "whitelist", "add", "192.0.2.7"});
  Ok({"mail", "blacklist", "add", "198.51.100.9"});
  EXPECT_EQ(Map("access", "Connect:192.0.2.7"), "OK");
  EXPECT_EQ(Map("access", "Connect:198.51.100.9"), "REJECT");
  EXPECT_EQ(ClientAddress("192.0.2.7"), kClientAccepted);
  EXPECT_EQ(ClientAddress("198.51.100.9"), kClientRejected);
  EXPECT_EQ(ClientAddress("198.51.100.10"), kClientUnknown);

  Ok({"mail", "blacklist", "delete", "198.51.100.9"});
  EXPECT_EQ(Map("access", "Connect:198.51.100.9"), std::nullopt);
  EXPECT_EQ(ClientAddress("198.51.100.9"), kClientUnknown);
}

TEST_F(ProofSenderTest, ListedIpv6ClientsAreAcceptedOrRejectedAsConnectingHosts) {
  Ok({"mail", "whitelist", "add", "2001:db8::7"});
  Ok({"mail", "blacklist", "add", "2001:db8::9"});
  EXPECT_EQ(Map("access", "Connect:IPv6:2001:db8::7"), "OK");
  EXPECT_EQ(Map("access", "Connect:IPv6:2001:db8::9"), "REJECT");
  EXPECT_EQ(ClientAddress("IPv6:2001:db8::7"), kClientAccepted);
  EXPECT_EQ(ClientAddress("IPv6:2001:db8::9"), kClientRejected);
}
