// The record of the access-map entries the panel wrote, and how an existing
// install's entries are adopted when its database is migrated.
#include "mail_fixture.h"

using mailtest::MailTest;

namespace {

std::string Rows(pnl_db::Cache& db, const std::string& sql) {
  std::string out;
  for (pnl_db::Query q = db.Query(sql); !q.Eof(); q.Next()) {
    if (!out.empty()) out += "|";
    out += q.Str();
  }
  return out;
}

}  // namespace

TEST_F(MailTest, AccessEntriesAreRecordedAndForgottenWithoutLetterCase) {
  zel_db::RecordAccessEntry("Connect:192.0.2.7", "OK");
  zel_db::RecordAccessEntry("spam.example", "REJECT");
  EXPECT_TRUE(zel_db::IsPanelAccessEntry("connect:192.0.2.7", "OK"));
  EXPECT_TRUE(zel_db::IsPanelAccessEntry("Spam.EXAMPLE", "REJECT"));
  // The value is compared byte for byte: a hand-written "ok" is not the panel's.
  EXPECT_FALSE(zel_db::IsPanelAccessEntry("Connect:192.0.2.7", "ok"));
  EXPECT_FALSE(zel_db::IsPanelAccessEntry("Connect:192.0.2.7", "RELAY"));
  EXPECT_FALSE(zel_db::IsPanelAccessEntry("other.example", "REJECT"));
  // Recorded again in another case and with another value: one record.
  zel_db::RecordAccessEntry("SPAM.example", "550 Account disabled");
  EXPECT_EQ(Rows(*cache_, "SELECT key || ' ' || value FROM email_access ORDER BY id"),
            "Connect:192.0.2.7 OK|SPAM.example 550 Account disabled");
  zel_db::ForgetAccessEntry("spam.EXAMPLE");
  zel_db::ForgetAccessEntry("never.example");
  EXPECT_EQ(Rows(*cache_, "SELECT key FROM email_access"), "Connect:192.0.2.7");
}

// A database of the version before: its list rows (IPv6 addresses in the
// compressed spelling that version wrote), suspended domains and mailboxes
// become the panel's entries; the list rows are the panel's (not hand
// written); the remembered file states go, so the lists are read again.
TEST_F(MailTest, MigrationAdoptsTheAccessEntriesOfAnExistingInstall) {
  const std::string file = sandbox_.Path("old.db");
  pnl_db::Schema before;
  for (const pnl_db::Migration& step : zel_db::PanelSchema())
    if (step.version <= 2) before.push_back(step);
  {
    auto old = pnl_db::Cache::Open(file, before);
    ASSERT_EQ(old->SchemaVersion(), 2);
    old->Query(
        "INSERT INTO email_domain (name, enabled) VALUES ('off.example', 0), ('on.example', 1)");
    old->Query(
        "INSERT INTO email (name, domain, enabled) VALUES ('l', 2, 0), ('m', 2, 1), ('n', 1, 0)");
    old->Query(
        "INSERT INTO email_whitelist (sender) VALUES ('friend@partner.example'), ('192.0.2.7'), "
        "('2001:db8::7')");
    old->Query(
        "INSERT INTO email_blacklist (sender) VALUES ('spam.example'), ('198.51.100'), "
        "('off.example')");
    old->Query("INSERT INTO file_state (path, state) VALUES ('/etc/mail/access', 'x')");
  }
  auto db = pnl_db::Cache::Open(file, zel_db::PanelSchema());
  EXPECT_EQ(db->SchemaVersion(), static_cast<int>(zel_db::PanelSchema().size()));
  EXPECT_EQ(Rows(*db, "SELECT key || ' ' || value FROM email_access ORDER BY key"),
            "Connect:192.0.2.7 OK|"
            "Connect:198.51.100 REJECT|"
            "Connect:IPv6:2001:db8::7 OK|"
            "friend@partner.example OK|"
            "l@on.example 550 Account disabled|"
            "n@off.example 550 Account disabled|"
            "off.example 550 Account disabled|"
            "spam.example REJECT");
  EXPECT_EQ(Rows(*db, "SELECT sender || ' ' || hand_written FROM email_whitelist ORDER BY id"),
            "friend@partner.example 0|192.0.2.7 0|2001:db8::7 0");
  EXPECT_EQ(Rows(*db, "SELECT count(*) FROM file_state"), "0");
}
