// The sender lists as sendmail sees them: whitelisted senders are "OK" and
// blacklisted ones "REJECT" in the access map, which check_mail consults for
// the envelope sender and check_relay (its address look-up, ruleset A, with
// the Connect tag) for the connecting client.
#include <gmock/gmock.h>

#include "proof_fixture.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/tables.h"

using proof::ProgramRun;
using proof::kSenderAccepted;
using proof::kSenderRejected;
using proof::Unjudged;
using proof::SendmailProofTest;

namespace {

class ProofSenderTest : public SendmailProofTest {
 protected:
  // What check_relay's look-up of a connecting address finds: "< OK > < >",
  // "< REJECT > < >", or "< ? > < >" for nothing.
  std::string ClientAddress(const std::string& address) {
    return Ruleset("A", "<" + address + "> <?> <+ Connect> <>");
  }

  // Puts the sandbox back as an earlier version left it: the panel's entry
  // under key is written under old instead, in the file, its map and the
  // panel's record of its entries.
  void WriteLegacyKey(const std::string& key, const std::string& old) {
    std::string text = File("access");
    const size_t at = text.find(key + "\t");
    ASSERT_NE(at, std::string::npos) << key;
    text.replace(at, key.size(), old);
    zeltest::WriteFile(Path("access"), text);
    const std::string map = Path("access");
    const ProgramRun makemap = proof::RunProgram(
        {"/bin/sh", "-c", "/usr/sbin/makemap hash '" + map + "' < '" + map + "'"}, "",
        proof::kDeadlineSeconds);
    ASSERT_EQ(makemap.status, 0) << makemap.err;
    auto db = pnl_db::Cache::Open(Path("panel.db"), zel_db::PanelSchema());
    db->Query("UPDATE email_access SET key = ? WHERE key = ?", {old, key});
  }
};

const char kClientAccepted[] = "< OK > < >";
const char kClientRejected[] = "< REJECT > < >";
const char kClientUnknown[] = "< ? > < >";

}  // namespace

TEST_F(ProofSenderTest, AWhitelistedSenderAddressIsAcceptedUntilItIsDeleted) {
  EXPECT_EQ(Ruleset("check_mail", "<good@ok.example>"), Unjudged("good@ok.example"));
  Ok({"mail", "whitelist", "add", "good@ok.example"});
  EXPECT_EQ(Map("access", "good@ok.example"), "OK");
  EXPECT_EQ(Ruleset("check_mail", "<good@ok.example>"), kSenderAccepted);
  // Only that address of the domain.
  EXPECT_EQ(Ruleset("check_mail", "<other@ok.example>"), Unjudged("other@ok.example"));

  Ok({"mail", "whitelist", "delete", "good@ok.example"});
  EXPECT_EQ(Map("access", "good@ok.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<good@ok.example>"), Unjudged("good@ok.example"));
}

TEST_F(ProofSenderTest, AWhitelistedDomainAcceptsEverySenderOfItAndOfItsSubdomains) {
  Ok({"mail", "whitelist", "add", "ok.example"});
  EXPECT_EQ(Map("access", "ok.example"), "OK");
  EXPECT_EQ(Ruleset("check_mail", "<anyone@ok.example>"), kSenderAccepted);
  EXPECT_EQ(Ruleset("check_mail", "<anyone@mx.ok.example>"), kSenderAccepted);
  EXPECT_EQ(Ruleset("check_mail", "<anyone@notok.example>"), Unjudged("anyone@notok.example"));
}

TEST_F(ProofSenderTest, ABlacklistedSenderAddressIsRejectedUntilItIsDeleted) {
  Ok({"mail", "blacklist", "add", "bad@spam.example"});
  EXPECT_EQ(Map("access", "bad@spam.example"), "REJECT");
  EXPECT_EQ(Ruleset("check_mail", "<bad@spam.example>"), kSenderRejected);
  EXPECT_EQ(Ruleset("check_mail", "<other@spam.example>"), Unjudged("other@spam.example"));

  Ok({"mail", "blacklist", "delete", "bad@spam.example"});
  EXPECT_EQ(Map("access", "bad@spam.example"), std::nullopt);
  EXPECT_EQ(Ruleset("check_mail", "<bad@spam.example>"), Unjudged("bad@spam.example"));
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

// sendmail presents an IPv6 client in all eight groups, uncompressed:
// "IPv6:2001:db8:0:0:0:0:0:7". Whatever spelling the entry was given in,
// its key is that form.
TEST_F(ProofSenderTest, ListedIpv6ClientsAreAcceptedOrRejectedAsConnectingHosts) {
  Ok({"mail", "whitelist", "add", "2001:db8::7"});
  Ok({"mail", "blacklist", "add", "2001:db8:0:0:0:0:0:9"});
  EXPECT_EQ(Map("access", "Connect:IPv6:2001:db8:0:0:0:0:0:7"), "OK");
  EXPECT_EQ(Map("access", "Connect:IPv6:2001:db8:0:0:0:0:0:9"), "REJECT");
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:0:0:0:0:0:7"), kClientAccepted);
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:0:0:0:0:0:9"), kClientRejected);
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:0:0:0:0:0:8"), kClientUnknown);
}

// A network is looked up as the client's address cut short at the last dot
// or colon, part by part: every client of it is found, and an entry of one
// of its clients comes first.
TEST_F(ProofSenderTest, ListedNetworksCoverEveryClientInThem) {
  Ok({"mail", "blacklist", "add", "198.51.100.0/24"});
  Ok({"mail", "whitelist", "add", "198.51.100.7"});
  Ok({"mail", "blacklist", "add", "10"});
  Ok({"mail", "blacklist", "add", "2001:db8::/32"});
  Ok({"mail", "whitelist", "add", "2001:db8:0:1::/64"});
  EXPECT_EQ(Map("access", "Connect:198.51.100"), "REJECT");
  EXPECT_EQ(ClientAddress("198.51.100.9"), kClientRejected);
  EXPECT_EQ(ClientAddress("198.51.100.7"), kClientAccepted);
  EXPECT_EQ(ClientAddress("198.51.101.9"), kClientUnknown);
  EXPECT_EQ(ClientAddress("10.200.3.4"), kClientRejected);
  EXPECT_EQ(ClientAddress("100.200.3.4"), kClientUnknown);
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:ab:0:0:0:0:1"), kClientRejected);
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:0:1:0:0:0:1"), kClientAccepted);
  EXPECT_EQ(ClientAddress("IPv6:2001:db9:0:0:0:0:0:1"), kClientUnknown);
}

// The key an earlier version wrote for an IPv6 address (compressed) never
// matched a client; read back, an entry of the panel's gets the key that
// does.
TEST_F(ProofSenderTest, AnOldCompressedIpv6KeyMatchesOnceTheListIsReadBack) {
  Ok({"mail", "blacklist", "add", "2001:db8::9"});
  WriteLegacyKey("Connect:IPv6:2001:db8:0:0:0:0:0:9", "Connect:IPv6:2001:db8::9");
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:0:0:0:0:0:9"), kClientUnknown);
  Ok({"mail", "blacklist", "list"});
  EXPECT_EQ(ClientAddress("IPv6:2001:db8:0:0:0:0:0:9"), kClientRejected);
}
