// zel_db: the panel database's schema, its defaults, keys, unique names,
// references and cascades, and the process's database.
#include <gtest/gtest.h>

#include <string>

#include "mail_fixture.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/mail/tables.h"

using mailtest::ErrorOf;
using mailtest::MailTest;

TEST_F(MailTest, OpenCacheCreatesThePanelSchemaOnceAndRecordsItsVersion) {
  EXPECT_EQ(cache_->SchemaVersion(), static_cast<int>(zel_db::PanelSchema().size()));
  for (const char* table : {"users", "domain", "email_domain", "email", "email_alias",
                            "email_forward", "email_responder", "email_responder_sent",
                            "email_whitelist", "email_blacklist", "file_state"})
    EXPECT_EQ(Count(table), 0) << table;
  AddMailDomain("example.com");
  zel_db::OpenCache(file_);  // reopening runs no step again
  cache_ = zel_db::GetCache();
  EXPECT_EQ(Count("email_domain"), 1);
}

TEST_F(MailTest, PnlDbOpenWithoutSchemaCreatesThePanelTables) {
  auto other = pnl_db::Cache::Open(sandbox_.Path("other.db"));
  EXPECT_EQ(other->SchemaVersion(), static_cast<int>(zel_db::PanelSchema().size()));
  EXPECT_EQ(other->Query("SELECT count(*) FROM email").Int(), 0);
}

TEST_F(MailTest, EveryTableClassMatchesItsTable) {
  cache_->Get<zel_db::UserTable>()->First();
  cache_->Get<zel_db::DomainTable>()->First();
  cache_->Get<zel_db::EmailDomainTable>()->First();
  cache_->Get<zel_db::EmailTable>()->First();
  cache_->Get<zel_db::EmailAliasTable>()->First();
  cache_->Get<zel_db::EmailForwardTable>()->First();
  cache_->Get<zel_db::EmailResponderTable>()->First();
  cache_->Get<zel_db::EmailResponderSentTable>()->First();
  cache_->Get<zel_db::EmailWhitelist>()->First();
  cache_->Get<zel_db::EmailBlacklist>()->First();
}

TEST_F(MailTest, GetCacheWithoutAnOpenDatabaseIsAnError) {
  zel_db::CloseCache();
  pnl_err::Error e = ErrorOf([] { zel_db::GetCache(); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_STREQ(e.what(), "database: no database is open");
  zel_db::CloseCache();  // closing again does nothing
}

TEST_F(MailTest, FailedOpenKeepsThePreviousDatabase) {
  EXPECT_THROW(zel_db::OpenCache(sandbox_.Path("no/folder/x.db")), pnl_err::Error);
  EXPECT_EQ(zel_db::GetCache(), cache_);
}

TEST_F(MailTest, NewRowsStartAtThePanelsDefaults) {
  auto domains = cache_->Get<zel_db::EmailDomainTable>();
  domains->New();
  EXPECT_TRUE(domains->enabled.Value());
  EXPECT_TRUE(domains->users.IsNull());
  EXPECT_EQ(domains->tag.Value(), 0);
  EXPECT_EQ(domains->def_action.Str(), "error");
  EXPECT_EQ(domains->redirect.Str(), "");

  auto emails = cache_->Get<zel_db::EmailTable>();
  emails->New();
  EXPECT_TRUE(emails->enabled.Value());
  EXPECT_FALSE(emails->forward_only.Value());

  auto responders = cache_->Get<zel_db::EmailResponderTable>();
  responders->New();
  EXPECT_FALSE(responders->enabled.Value());
  EXPECT_EQ(responders->period_days.Value(), 7);
  EXPECT_EQ(responders->subject.Str(), "");
}

TEST_F(MailTest, MailDomainNameIsStoredInAsciiAndShownInUnicode) {
  AddMailDomain("b\xc3\xbc" "cher.example");
  EXPECT_EQ(cache_->Query("SELECT name FROM email_domain").Str(), "xn--bcher-kva.example");
  auto domains = cache_->Get<zel_db::EmailDomainTable>();
  ASSERT_TRUE(domains->name.Lookup("xn--bcher-kva.example"));
  EXPECT_EQ(domains->name.Unicode(), "b\xc3\xbc" "cher.example");
  ASSERT_TRUE(domains->name.Lookup("b\xc3\xbc" "cher.example"));
}

TEST_F(MailTest, DomainNamesAreUniqueWithoutRegardToCase) {
  AddMailDomain("example.com");
  pnl_err::Error e = ErrorOf([&] { AddMailDomain("Example.COM"); });
  EXPECT_STREQ(e.what(), "email_domain: new row: UNIQUE constraint failed: email_domain.name");
  auto web = cache_->Get<zel_db::DomainTable>();
  web->New();
  web->name = "example.com";
  web->Post();
  web->New();
  web->name = "EXAMPLE.com";
  EXPECT_THROW(web->Post(), pnl_err::Error);
}

TEST_F(MailTest, AMailboxNameIsUniqueWithinItsDomainOnly) {
  const int64_t a = AddMailDomain("a.example");
  const int64_t b = AddMailDomain("b.example");
  AddMailbox("info", a);
  AddMailbox("info", b);
  pnl_err::Error e = ErrorOf([&] { AddMailbox("info", a); });
  EXPECT_STREQ(e.what(), "email: new row: UNIQUE constraint failed: email.name, email.domain");
}

TEST_F(MailTest, AMailboxNeedsAnExistingDomain) {
  pnl_err::Error e = ErrorOf([&] { AddMailbox("info", 99); });
  EXPECT_STREQ(e.what(), "email: new row: FOREIGN KEY constraint failed");
  EXPECT_THROW(AddMailbox("info", 0), pnl_err::Error);  // no domain at all
}

TEST_F(MailTest, TheSameForwardMayBeListedTwiceButAMailboxHasOneResponder) {
  const int64_t box = AddMailbox("info", AddMailDomain("example.com"));
  auto forwards = cache_->Get<zel_db::EmailForwardTable>();
  for (int i = 0; i < 2; ++i) {
    forwards->New();
    forwards->email = box;
    forwards->name = "someone@elsewhere.example";
    forwards->Post();
  }
  EXPECT_EQ(Count("email_forward"), 2);
  auto responders = cache_->Get<zel_db::EmailResponderTable>();
  responders->New();
  responders->email = box;
  responders->Post();
  responders->New();
  responders->email = box;
  EXPECT_THROW(responders->Post(), pnl_err::Error);
}

TEST_F(MailTest, DeletingAMailDomainDeletesItsMailboxesAndAllTheirRows) {
  const int64_t gone = AddMailDomain("gone.example");
  const int64_t kept = AddMailDomain("kept.example");
  const int64_t box = AddMailbox("info", gone);
  const int64_t other = AddMailbox("info", kept);
  for (int64_t mailbox : {box, other}) {
    auto aliases = cache_->Get<zel_db::EmailAliasTable>();
    aliases->New();
    aliases->email = mailbox;
    aliases->name = "contact";
    aliases->Post();
    auto forwards = cache_->Get<zel_db::EmailForwardTable>();
    forwards->New();
    forwards->email = mailbox;
    forwards->name = "x@elsewhere.example";
    forwards->Post();
    auto responders = cache_->Get<zel_db::EmailResponderTable>();
    responders->New();
    responders->email = mailbox;
    responders->enabled = true;
    responders->Post();
    auto sent = cache_->Get<zel_db::EmailResponderSentTable>();
    sent->New();
    sent->responder = responders->id;
    sent->sender = "someone@elsewhere.example";
    sent->sent_at = 1700000000;
    sent->Post();
  }

  cache_->Get<zel_db::EmailDomainTable>()->DbDelete("id = " + std::to_string(gone));

  for (const char* table : {"email", "email_alias", "email_forward", "email_responder",
                            "email_responder_sent"})
    EXPECT_EQ(Count(table), 1) << table;
  EXPECT_EQ(cache_->Query("SELECT id FROM email").Int(), other);
  EXPECT_EQ(cache_->Query("SELECT email FROM email_alias").Int(), other);
}

TEST_F(MailTest, DeletingAUserLeavesItsDomainsWithoutOwner) {
  const int64_t ann = AddUser("ann");
  AddMailDomain("example.com", ann);
  auto web = cache_->Get<zel_db::DomainTable>();
  web->New();
  web->name = "example.com";
  web->users = ann;
  web->Post();
  cache_->Get<zel_db::UserTable>()->DbDelete("id = " + std::to_string(ann));
  EXPECT_EQ(Count("email_domain"), 1);
  EXPECT_TRUE(cache_->Query("SELECT users FROM email_domain").IsNull());
  EXPECT_TRUE(cache_->Query("SELECT users FROM domain").IsNull());
}

TEST_F(MailTest, AMailDomainMayHaveNoKnownOwner) {
  AddMailDomain("example.com");
  auto domains = cache_->Get<zel_db::EmailDomainTable>();
  domains->First();
  EXPECT_TRUE(domains->users.IsNull());
  EXPECT_EQ(domains->users.Str(), "");
}

TEST_F(MailTest, TheOwnerOfAWebDomainIsFoundByItsEscapedName) {
  const int64_t ann = AddUser("ann");
  auto web = cache_->Get<zel_db::DomainTable>();
  web->New();
  web->name = "o'brien.example";  // not a valid host name, but the quote must survive
  web->users = ann;
  web->Post();
  pnl_db::Query owner = cache_->Query("SELECT users FROM domain WHERE name = " +
                                      cache_->EscapeValue("o'brien.example"));
  ASSERT_FALSE(owner.Eof());
  auto domains = cache_->Get<zel_db::EmailDomainTable>();
  domains->New();
  domains->name = "o'brien.example";
  domains->users = owner.Str();
  domains->Post();
  EXPECT_EQ(domains->users.Value(), ann);
}

TEST_F(MailTest, NamesWithQuotesAreFoundByEscapedConditionsAndLookups) {
  const int64_t domain = AddMailDomain("example.com");
  const int64_t box = AddMailbox("o'brien", domain);
  auto emails = cache_->Get<zel_db::EmailTable>();
  ASSERT_TRUE(emails->DbFind("name = " + cache_->EscapeValue("o'brien")));
  EXPECT_EQ(emails->id.Value(), box);
  ASSERT_TRUE(emails->name.Lookup("o'brien"));
  EXPECT_EQ(emails->id.Value(), box);
  emails->DbDelete("name = " + cache_->EscapeValue("o'brien"));
  EXPECT_EQ(Count("email"), 0);
}

TEST_F(MailTest, ResponderSentRecordsAreUniquePerSender) {
  const int64_t box = AddMailbox("info", AddMailDomain("example.com"));
  auto responders = cache_->Get<zel_db::EmailResponderTable>();
  responders->New();
  responders->email = box;
  responders->Post();
  auto sent = cache_->Get<zel_db::EmailResponderSentTable>();
  sent->New();
  sent->responder = responders->id;
  sent->sender = "a@b.example";
  sent->Post();
  sent->New();
  sent->responder = responders->id;
  sent->sender = "a@b.example";
  EXPECT_THROW(sent->Post(), pnl_err::Error);
}
