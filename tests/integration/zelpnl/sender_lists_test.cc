// zelpnl mail whitelist and blacklist: access map entries and the cached
// tables; entries the panel did not write are listed but never changed.
#include <filesystem>

#include "zelapi/db/cache.h"
#include "zelapi/db/schema.h"
#include "zelapi/mail/tables.h"
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

TEST_F(ZelpnlTest, WhitelistAndBlacklistEachKindOfSender) {
  Ok({"mail", "whitelist", "add", "friend@Partner.example"});
  Ok({"mail", "whitelist", "add", "partner.example"});
  Ok({"mail", "whitelist", "add", "192.0.2.7"});
  Ok({"mail", "blacklist", "add", "2001:DB8:0::9"});
  auto doc = Json({"mail", "blacklist", "add", "spam.example"});
  EXPECT_EQ(doc["blacklist"], nlohmann::ordered_json::parse(R"([
      {"sender":"2001:db8:0:0:0:0:0:9","kind":"ipv6","hand_written":false},
      {"sender":"spam.example","kind":"domain","hand_written":false}])"));
  EXPECT_EQ(File("access"),
            "friend@partner.example\tOK\n"
            "partner.example\tOK\n"
            "Connect:192.0.2.7\tOK\n"
            "Connect:IPv6:2001:db8:0:0:0:0:0:9\tREJECT\n"
            "spam.example\tREJECT\n");
  EXPECT_EQ(Zel({"mail", "whitelist", "list"}).out,
            "SENDER                  KIND     WRITTEN\n"
            "friend@partner.example  address  panel\n"
            "partner.example         domain   panel\n"
            "192.0.2.7               ipv4     panel\n");
  EXPECT_EQ(Rows("SELECT sender FROM email_blacklist ORDER BY id"),
            "2001:db8:0:0:0:0:0:9|spam.example");
  Ok({"mail", "whitelist", "delete", "192.0.2.7"});
  Ok({"mail", "blacklist", "delete", "2001:db8::9"});
  EXPECT_EQ(File("access"),
            "friend@partner.example\tOK\npartner.example\tOK\nspam.example\tREJECT\n");
  EXPECT_EQ(Rows("SELECT sender FROM email_whitelist ORDER BY id"),
            "friend@partner.example|partner.example");
}

TEST_F(ZelpnlTest, NetworksAreWrittenAsSendmailMatchesThem) {
  Ok({"mail", "blacklist", "add", "198.51.100.0/24"});
  Ok({"mail", "blacklist", "add", "10"});
  Ok({"mail", "blacklist", "add", "2001:db8::/32"});
  Ok({"mail", "whitelist", "add", "IPv6:2001"});
  EXPECT_EQ(File("access"),
            "Connect:198.51.100\tREJECT\n"
            "Connect:10\tREJECT\n"
            "Connect:IPv6:2001:db8\tREJECT\n"
            "Connect:IPv6:2001\tOK\n");
  EXPECT_EQ(Zel({"mail", "blacklist", "list"}).out,
            "SENDER      KIND          WRITTEN\n"
            "198.51.100  ipv4-network  panel\n"
            "10          ipv4-network  panel\n"
            "2001:db8    ipv6-network  panel\n");
  EXPECT_EQ(Zel({"mail", "whitelist", "list"}).out,
            "SENDER     KIND          WRITTEN\n"
            "IPv6:2001  ipv6-network  panel\n");
  Ok({"mail", "blacklist", "delete", "198.51.100"});
  Ok({"mail", "blacklist", "delete", "2001:db8:0:0:0:0:0:0/32"});
  EXPECT_EQ(File("access"), "Connect:10\tREJECT\nConnect:IPv6:2001\tOK\n");
}

// The compressed and the uncompressed spelling of an IPv6 address are one
// entry: the second is a duplicate, and either finds it.
TEST_F(ZelpnlTest, EverySpellingOfAnIpv6AddressIsOneEntry) {
  Ok({"mail", "blacklist", "add", "2001:db8::9"});
  const zeltest::Result again = Zel({"mail", "blacklist", "add", "2001:db8:0:0:0:0:0:9"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "error: sender \"2001:db8:0:0:0:0:0:9\": is already on the blacklist\n");
  const zeltest::Result other = Zel({"mail", "whitelist", "add", "IPv6:2001:DB8::0009"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.err,
            "error: sender \"2001:db8:0:0:0:0:0:9\": is on the blacklist; delete it there first\n");
  EXPECT_EQ(File("access"), "Connect:IPv6:2001:db8:0:0:0:0:0:9\tREJECT\n");
  Ok({"mail", "blacklist", "delete", "2001:db8:0::9"});
  EXPECT_EQ(File("access"), "");
}

TEST_F(ZelpnlTest, ListingReadsTheAccessMapBack) {
  WriteFile("access", "Connect:198.51.100.1\tOK\nbad.example\tREJECT\n");
  auto doc = Json({"mail", "whitelist", "list"});
  EXPECT_EQ(doc["whitelist"],
            nlohmann::ordered_json::parse(
                R"([{"sender":"198.51.100.1","kind":"ipv4","hand_written":true}])"));
  EXPECT_EQ(Rows("SELECT sender FROM email_blacklist"), "");
  Json({"mail", "blacklist", "list"});
  EXPECT_EQ(Rows("SELECT sender FROM email_blacklist"), "bad.example");
}

TEST_F(ZelpnlTest, SenderListConflictsAreRefused) {
  MakeDomainWithMailbox();
  Ok({"mail", "whitelist", "add", "192.0.2.7"});
  const auto before = State();
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"whitelist", "add", "192.0.2.7"},
       "error: sender \"192.0.2.7\": is already on the whitelist\n"},
      {{"blacklist", "add", "192.0.2.7"},
       "error: sender \"192.0.2.7\": is on the whitelist; delete it there first\n"},
      {{"blacklist", "add", "d.example"},
       "error: sender \"d.example\": is a mail domain of this server; its access entry is the "
       "domain's suspension\n"},
      {{"whitelist", "add", "l@d.example"},
       "error: sender \"l@d.example\": is a mailbox of this server; its access entry is the "
       "mailbox's suspension\n"},
      {{"blacklist", "delete", "192.0.2.7"},
       "error: sender \"192.0.2.7\": is not on the blacklist\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"mail"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, 1) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
}

namespace {

struct Refusal {
  std::vector<std::string> args;
  std::string err;
};

}  // namespace

// Debian's own "Connect:127.0.0.1 RELAY" and a hand-kept REJECT line (in
// another letter case: the same key to sendmail) are the administrator's.
// The lists show the REJECT line, marked; no list command rewrites or
// removes either, and none adds a second line of the same key.
TEST_F(ZelpnlTest, EntriesThePanelDidNotWriteAreListedButNeverChanged) {
  WriteFile("access", "Connect:127.0.0.1\tRELAY\nSpam.EXAMPLE\tREJECT\n");
  EXPECT_EQ(Zel({"mail", "blacklist", "list"}).out,
            "SENDER        KIND    WRITTEN\n"
            "spam.example  domain  by hand\n");
  EXPECT_EQ(Json({"mail", "blacklist", "list"})["blacklist"],
            nlohmann::ordered_json::parse(
                R"([{"sender":"spam.example","kind":"domain","hand_written":true}])"));
  EXPECT_EQ(Zel({"mail", "whitelist", "list"}).out, "SENDER  KIND  WRITTEN\n");
  const auto before = State();
  const std::string relay =
      "the access map holds \"Connect:127.0.0.1 RELAY\", which the panel did not write\n";
  const std::string reject =
      "the access map holds \"Spam.EXAMPLE REJECT\", which the panel did not write\n";
  const std::vector<Refusal> cases = {
      {{"whitelist", "add", "127.0.0.1"}, "error: sender \"127.0.0.1\": " + relay},
      {{"blacklist", "add", "127.0.0.1/32"}, "error: sender \"127.0.0.1\": " + relay},
      {{"blacklist", "delete", "127.0.0.1"}, "error: sender \"127.0.0.1\": " + relay},
      {{"blacklist", "delete", "spam.example"}, "error: sender \"spam.example\": " + reject},
      {{"whitelist", "delete", "Spam.Example"}, "error: sender \"spam.example\": " + reject},
      {{"whitelist", "add", "spam.example"}, "error: sender \"spam.example\": " + reject},
      {{"blacklist", "add", "SPAM.example"}, "error: sender \"spam.example\": " + reject},
  };
  for (const Refusal& c : cases) {
    std::vector<std::string> args = {"mail"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, 1) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
}

// A line of the panel's that an administrator wrote again in other letters
// is still the panel's (the same key, the same value).
TEST_F(ZelpnlTest, APanelEntryInOtherLettersIsStillFoundAndDeleted) {
  Ok({"mail", "blacklist", "add", "spam.example"});
  WriteFile("access", "SPAM.Example\tREJECT\n");
  EXPECT_EQ(Zel({"mail", "blacklist", "list"}).out,
            "SENDER        KIND    WRITTEN\n"
            "spam.example  domain  panel\n");
  Ok({"mail", "blacklist", "delete", "spam.example"});
  EXPECT_EQ(File("access"), "");
}

// The other order: a new mail domain that stands on a sender list, or
// under an entry the panel did not write, would make its suspension take
// that entry over and its resume remove it.
TEST_F(ZelpnlTest, ANewMailDomainMustNotHaveAnAccessEntry) {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  Ok({"mail", "blacklist", "add", "d.example"});
  const zeltest::Result listed = Zel({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(listed.status, 1);
  EXPECT_EQ(listed.err,
            "error: mail domain \"d.example\": is on the blacklist; delete it there first (a mail "
            "domain's access entry is its suspension)\n");
  Ok({"mail", "blacklist", "delete", "d.example"});
  WriteFile("access", "D.Example\tRELAY\n");
  const zeltest::Result hand = Zel({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(hand.status, 1);
  EXPECT_EQ(hand.err,
            "error: mail domain \"d.example\": the access map holds \"D.Example RELAY\", which "
            "the panel did not write\n");
  EXPECT_EQ(Count("email_domain"), 0);
  EXPECT_EQ(File("virtusertable"), "");
  EXPECT_EQ(File("access"), "D.Example\tRELAY\n");
}

TEST_F(ZelpnlTest, ASuspensionIsRefusedOverAnEntryThePanelDidNotWrite) {
  MakeDomainWithMailbox();
  WriteFile("access", "d.example\tOK\nL@d.example\tREJECT\n");
  const auto before = State();
  const std::vector<Refusal> cases = {
      {{"domain", "suspend", "d.example"},
       "error: mail domain \"d.example\": the access map holds \"d.example OK\", which the "
       "panel did not write\n"},
      {{"box", "suspend", "l@d.example"},
       "error: mailbox \"l@d.example\": the access map holds \"L@d.example REJECT\", which the "
       "panel did not write\n"},
  };
  for (const Refusal& c : cases) {
    std::vector<std::string> args = {"mail"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, 1) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
  // Without them, the panel's own entries come and go as before.
  WriteFile("access", "");
  Ok({"mail", "domain", "suspend", "d.example"});
  Ok({"mail", "domain", "suspend", "d.example"});
  Ok({"mail", "box", "suspend", "l@d.example"});
  EXPECT_EQ(File("access"), "d.example\t550 Account disabled\nl@d.example\t550 Account disabled\n");
  Ok({"mail", "domain", "set", "d.example", "--default-action", "ignore"});
  Ok({"mail", "box", "resume", "l@d.example"});
  Ok({"mail", "domain", "resume", "d.example"});
  EXPECT_EQ(File("access"), "");
  EXPECT_EQ(Rows("SELECT count(*) FROM email_access"), "0");
}

// An install of the version before: the panel database is migrated, its
// list rows adopted as the panel's entries, and an IPv6 entry it wrote
// compressed (which sendmail never matched) is rewritten in the form
// sendmail looks up when the list is read back.
TEST_F(ZelpnlTest, AnEarlierInstallsEntriesAreAdoptedAndItsIpv6KeysRewritten) {
  std::filesystem::remove(Path("panel.db"));
  {
    pnl_db::Schema before;
    for (const pnl_db::Migration& step : zel_db::PanelSchema())
      if (step.version <= 2) before.push_back(step);
    auto old = pnl_db::Cache::Open(Path("panel.db"), before);
    old->Query("INSERT INTO users (name) VALUES ('admin')");
    old->Query("INSERT INTO email_blacklist (sender) VALUES ('2001:db8::9'), ('spam.example')");
    old->Query("INSERT INTO email_whitelist (sender) VALUES ('192.0.2.7')");
  }
  WriteFile("access",
            "Connect:127.0.0.1\tRELAY\n"
            "Connect:IPv6:2001:db8::9\tREJECT\n"
            "spam.example\tREJECT\n"
            "Connect:192.0.2.7\tOK\n");
  EXPECT_EQ(Zel({"mail", "blacklist", "list"}).out,
            "SENDER                KIND    WRITTEN\n"
            "2001:db8:0:0:0:0:0:9  ipv6    panel\n"
            "spam.example          domain  panel\n");
  EXPECT_EQ(File("access"),
            "Connect:127.0.0.1\tRELAY\n"
            "Connect:IPv6:2001:db8:0:0:0:0:0:9\tREJECT\n"
            "spam.example\tREJECT\n"
            "Connect:192.0.2.7\tOK\n");
  Ok({"mail", "whitelist", "delete", "192.0.2.7"});
  Ok({"mail", "blacklist", "delete", "2001:db8::9"});
  EXPECT_EQ(Zel({"mail", "whitelist", "add", "127.0.0.1"}).status, 1);
  EXPECT_EQ(File("access"), "Connect:127.0.0.1\tRELAY\nspam.example\tREJECT\n");
}

// The rows are a cache of the map: when a request ended after its save and
// before its rows were kept (or the map was edited by hand), a refused add
// or delete reads the list back, so that the rows are right afterwards.
TEST_F(ZelpnlTest, ARefusalReadsBackAListWhoseRowsAreBehindTheMap) {
  Ok({"mail", "whitelist", "add", "192.0.2.7"});
  WriteFile("access", "");
  const zeltest::Result gone = Zel({"mail", "whitelist", "delete", "192.0.2.7"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_EQ(gone.err, "error: sender \"192.0.2.7\": is not on the whitelist\n");
  EXPECT_EQ(Count("email_whitelist"), 0);
}
