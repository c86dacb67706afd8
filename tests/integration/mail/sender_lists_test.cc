// Whitelist and blacklist as "OK" and "REJECT" entries of the access map.
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class SenderListsTest : public MailTest {};

}  // namespace

TEST_F(SenderListsTest, AddWritesKeysInTheirAccessForm) {
  mta_->AddToWhitelist("friend@b.example");
  mta_->AddToBlacklist("192.0.2.1");
  mta_->AddToBlacklist("2001:db8::1");
  mta_->AddToWhitelist("partner.example");
  EXPECT_EQ(Read(Access()),
            "friend@b.example\tOK\n"
            "Connect:192.0.2.1\tREJECT\n"
            "Connect:IPv6:2001:db8::1\tREJECT\n"
            "partner.example\tOK\n");
}

TEST_F(SenderListsTest, AddingTwiceRewritesTheSameEntry) {
  mta_->AddToWhitelist("friend@b.example");
  mta_->AddToWhitelist("friend@b.example");
  EXPECT_EQ(Read(Access()), "friend@b.example\tOK\n");
}

TEST_F(SenderListsTest, WhitelistingABlacklistedSenderMovesIt) {
  mta_->AddToBlacklist("x@b.example");
  mta_->AddToWhitelist("x@b.example");
  EXPECT_EQ(Read(Access()), "x@b.example\tOK\n");
  mta_->CacheWhitelist();
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT sender FROM email_whitelist"), "x@b.example");
  EXPECT_EQ(Column("SELECT count(*) FROM email_blacklist"), "0");
}

TEST_F(SenderListsTest, DeletingFromOneListRemovesAnEntryOfTheOther) {
  mta_->AddToBlacklist("x@b.example");
  mta_->DeleteFromWhitelist("x@b.example");
  EXPECT_EQ(Read(Access()), "");
  EXPECT_NO_THROW(mta_->DeleteFromBlacklist("never@b.example"));
}

TEST_F(SenderListsTest, CacheReadsBothListsWithPlainSenders) {
  box_.Write("access",
             "# senders\n"
             "friend@b.example\tOK\n"
             "Connect:192.0.2.1\tREJECT\n"
             "Connect:IPv6:2001:db8::1\tOK\n"
             "x@a.example\t550 Account disabled\n"
             "y@a.example\tok\n"
             "z@a.example\tREJECT \n");
  mta_->CacheWhitelist();
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT sender FROM email_whitelist ORDER BY id"), "friend@b.example|2001:db8::1");
  EXPECT_EQ(Column("SELECT sender FROM email_blacklist ORDER BY id"), "192.0.2.1");
}

TEST_F(SenderListsTest, UnchangedAccessMapSkipsTheWhitelistButNotTheBlacklist) {
  box_.Write("access", "w@b.example\tOK\nb@b.example\tREJECT\n");
  mta_->CacheWhitelist();
  mta_->CacheBlacklist();
  NextRequest();
  Db()->Query("INSERT INTO email_whitelist(sender) VALUES('stale-w')");
  Db()->Query("INSERT INTO email_blacklist(sender) VALUES('stale-b')");
  mta_->CacheWhitelist();
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT sender FROM email_whitelist ORDER BY id"), "w@b.example|stale-w");
  EXPECT_EQ(Column("SELECT sender FROM email_blacklist ORDER BY id"), "b@b.example");
}

TEST_F(SenderListsTest, EmptyAccessMapGivesEmptyLists) {
  Db()->Query("INSERT INTO email_whitelist(sender) VALUES('stale-w')");
  Db()->Query("INSERT INTO email_blacklist(sender) VALUES('stale-b')");
  mta_->CacheWhitelist();
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT count(*) FROM email_whitelist"), "0");
  EXPECT_EQ(Column("SELECT count(*) FROM email_blacklist"), "0");
}

TEST_F(SenderListsTest, ADomainSenderSharesItsEntryWithTheDomainSuspensionAndTheReadBackLeavesIt) {
  AddWebDomain("a.example");
  auto d = NewDomain("a.example");
  mta_->CreateDomain(d);
  mta_->AddToBlacklist("a.example");
  mta_->SuspendDomain(d);
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  mta_->ResumeDomain(d);
  EXPECT_EQ(Read(Access()), "");
  mta_->AddToBlacklist("a.example");
  NextRequest();
  box_.Write("virtusertable", Read(Vut()) + "# touched\n");
  mta_->CacheDomains();
  EXPECT_EQ(Read(Access()), "a.example\tREJECT\n");
}
