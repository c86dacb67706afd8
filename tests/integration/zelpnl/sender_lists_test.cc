// zelpnl mail whitelist and blacklist: access map entries and the cached
// tables.
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

TEST_F(ZelpnlTest, WhitelistAndBlacklistEachKindOfSender) {
  Ok({"mail", "whitelist", "add", "friend@Partner.example"});
  Ok({"mail", "whitelist", "add", "partner.example"});
  Ok({"mail", "whitelist", "add", "192.0.2.7"});
  Ok({"mail", "blacklist", "add", "2001:DB8:0::9"});
  auto doc = Json({"mail", "blacklist", "add", "spam.example"});
  EXPECT_EQ(doc["blacklist"],
            nlohmann::ordered_json::parse(R"([{"sender":"2001:db8::9","kind":"ipv6"},
                                              {"sender":"spam.example","kind":"domain"}])"));
  EXPECT_EQ(File("access"),
            "friend@partner.example\tOK\n"
            "partner.example\tOK\n"
            "Connect:192.0.2.7\tOK\n"
            "Connect:IPv6:2001:db8::9\tREJECT\n"
            "spam.example\tREJECT\n");
  EXPECT_EQ(Zel({"mail", "whitelist", "list"}).out,
            "SENDER                  KIND\n"
            "friend@partner.example  address\n"
            "partner.example         domain\n"
            "192.0.2.7               ipv4\n");
  EXPECT_EQ(Rows("SELECT sender FROM email_blacklist ORDER BY id"), "2001:db8::9|spam.example");
  Ok({"mail", "whitelist", "delete", "192.0.2.7"});
  Ok({"mail", "blacklist", "delete", "2001:db8::9"});
  EXPECT_EQ(File("access"),
            "friend@partner.example\tOK\npartner.example\tOK\nspam.example\tREJECT\n");
  EXPECT_EQ(Rows("SELECT sender FROM email_whitelist ORDER BY id"),
            "friend@partner.example|partner.example");
}

TEST_F(ZelpnlTest, ListingReadsTheAccessMapBack) {
  WriteFile("access", "Connect:198.51.100.1\tOK\nbad.example\tREJECT\n");
  auto doc = Json({"mail", "whitelist", "list"});
  EXPECT_EQ(doc["whitelist"], nlohmann::ordered_json::parse(
                                  R"([{"sender":"198.51.100.1","kind":"ipv4"}])"));
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
      {{"whitelist", "add", "192.0.2.7"}, "error: sender \"192.0.2.7\": is already on the whitelist\n"},
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
