// Whitelist and blacklist as "OK" and "REJECT" entries of the access map.
#include <functional>

#include "email/access_entries.h"
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class SenderListsTest : public MailTest {};

}  // namespace

TEST_F(SenderListsTest, AddWritesKeysInTheirAccessForm) {
  mta_->AddToWhitelist("friend@b.example");
  mta_->AddToBlacklist("192.0.2.1");
  mta_->AddToBlacklist("2001:db8:0:0:0:0:0:1");
  mta_->AddToBlacklist("198.51.100");
  mta_->AddToWhitelist("partner.example");
  EXPECT_EQ(Read(Access()),
            "friend@b.example\tOK\n"
            "Connect:192.0.2.1\tREJECT\n"
            "Connect:IPv6:2001:db8:0:0:0:0:0:1\tREJECT\n"
            "Connect:198.51.100\tREJECT\n"
            "partner.example\tOK\n");
}

TEST_F(SenderListsTest, EveryEntryThePanelWritesIsRecordedAndADeletedOneForgotten) {
  mta_->AddToWhitelist("friend@b.example");
  mta_->AddToBlacklist("192.0.2.1");
  EXPECT_EQ(Column("SELECT key || ' ' || value FROM email_access ORDER BY id"),
            "friend@b.example OK|Connect:192.0.2.1 REJECT");
  EXPECT_TRUE(zel_db::IsPanelAccessEntry("connect:192.0.2.1", "REJECT"));
  EXPECT_FALSE(zel_db::IsPanelAccessEntry("Connect:192.0.2.1", "OK"));
  mta_->AddToWhitelist("192.0.2.1");
  EXPECT_EQ(Column("SELECT value FROM email_access WHERE key = 'Connect:192.0.2.1'"), "OK");
  mta_->DeleteFromWhitelist("192.0.2.1");
  mta_->DeleteFromWhitelist("friend@b.example");
  EXPECT_EQ(Column("SELECT count(*) FROM email_access"), "0");
  EXPECT_EQ(Read(Access()), "");
}

// Debian's own "Connect:127.0.0.1 RELAY" and a hand-kept "REJECT" line (in
// another letter case, the same key to sendmail) are the administrator's:
// the list operations refuse them, naming the line, and change nothing.
TEST_F(SenderListsTest, EntriesThePanelDidNotWriteAreNeitherRewrittenNorRemoved) {
  const std::string hand = "Connect:127.0.0.1\tRELAY\nSpam.Example\tREJECT\n";
  box_.Write("access", hand);
  auto refused = [&](const std::function<void()>& op, const std::string& object,
                     const std::string& line) {
    try {
      op();
      ADD_FAILURE() << "not refused: " << object;
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kConflict);
      EXPECT_EQ(e.object(), object);
      EXPECT_EQ(e.detail(), "the access map holds \"" + line + "\", which the panel did not write");
    }
  };
  refused([&] { mta_->AddToWhitelist("127.0.0.1"); }, "sender \"127.0.0.1\"",
          "Connect:127.0.0.1 RELAY");
  refused([&] { mta_->DeleteFromBlacklist("127.0.0.1"); }, "sender \"127.0.0.1\"",
          "Connect:127.0.0.1 RELAY");
  refused([&] { mta_->AddToWhitelist("spam.example"); }, "sender \"spam.example\"",
          "Spam.Example REJECT");
  refused([&] { mta_->AddToBlacklist("spam.example"); }, "sender \"spam.example\"",
          "Spam.Example REJECT");
  refused([&] { mta_->DeleteFromBlacklist("spam.example"); }, "sender \"spam.example\"",
          "Spam.Example REJECT");
  EXPECT_EQ(Read(Access()), hand);
  EXPECT_EQ(Column("SELECT count(*) FROM email_access"), "0");
}

// A line the panel wrote, then changed by hand, is the administrator's now.
TEST_F(SenderListsTest, AnEntryChangedByHandIsNoLongerThePanels) {
  mta_->AddToBlacklist("spam.example");
  box_.Write("access", "spam.example\tDISCARD\n");
  EXPECT_THROW(mta_->DeleteFromBlacklist("spam.example"), pnl_err::Error);
  EXPECT_EQ(Read(Access()), "spam.example\tDISCARD\n");
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
             "Connect:IPv6:2001:db8:0:0:0:0:0:1\tOK\n"
             "x@a.example\t550 Account disabled\n"
             "y@a.example\tok\n"
             "z@a.example\tREJECT \n");
  mta_->CacheWhitelist();
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT sender FROM email_whitelist ORDER BY id"),
            "friend@b.example|2001:db8:0:0:0:0:0:1");
  EXPECT_EQ(Column("SELECT sender FROM email_blacklist ORDER BY id"), "192.0.2.1");
}

// The lists show what sendmail does: the administrator's "OK" and "REJECT"
// lines too, marked, with their senders in canonical form.
TEST_F(SenderListsTest, HandWrittenEntriesAreListedAndMarked) {
  mta_->AddToBlacklist("192.0.2.1");
  box_.Write("access", Read(Access()) + "Spam.EXAMPLE\tREJECT\nConnect:198.51.100\tREJECT\n");
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT sender || ' ' || hand_written FROM email_blacklist ORDER BY id"),
            "192.0.2.1 0|spam.example 1|198.51.100 1");
}

TEST_F(SenderListsTest, LinesThePanelCannotRepresentAreLeftAloneAndNotListed) {
  const std::string hand =
      "From:x@b.example\tREJECT\n"
      "Connect:mail.example\tREJECT\n"
      "192.0.2.1\tREJECT\n"
      "Connect:2001:db8:0:0:0:0:0:1\tREJECT\n"
      "Connect:IPv6:2001:db8::1\tREJECT\n"
      "user@\tREJECT\n";
  box_.Write("access", hand);
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT count(*) FROM email_blacklist"), "0");
  EXPECT_EQ(Read(Access()), hand);
}

// Two lines of one key in different letter case (makemap refuses them, the
// map keeps the first): one sender, listed once.
TEST_F(SenderListsTest, TwoLinesOfOneKeyAreListedOnce) {
  box_.Write("access", "Spam.Example\tREJECT\nspam.example\tREJECT\n");
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT sender FROM email_blacklist"), "spam.example");
}

// Earlier versions wrote an IPv6 address compressed ("Connect:IPv6:2001:db8::1"),
// which sendmail never matches. Such an entry of the panel's gets the key
// sendmail looks up when the lists are read back; one the administrator
// wrote is left alone.
TEST_F(SenderListsTest, OldCompressedIpv6EntriesOfThePanelAreRewrittenWhenReadBack) {
  box_.Write("access", "Connect:IPv6:2001:db8::1\tREJECT\nConnect:IPv6:2001:db8::2\tREJECT\n");
  zel_db::RecordAccessEntry("Connect:IPv6:2001:db8::1", "REJECT");
  mta_->CacheBlacklist();
  EXPECT_EQ(Read(Access()),
            "Connect:IPv6:2001:db8:0:0:0:0:0:1\tREJECT\nConnect:IPv6:2001:db8::2\tREJECT\n");
  EXPECT_EQ(Column("SELECT sender || ' ' || hand_written FROM email_blacklist"),
            "2001:db8:0:0:0:0:0:1 0");
  EXPECT_EQ(Column("SELECT key FROM email_access"), "Connect:IPv6:2001:db8:0:0:0:0:0:1");
}

TEST_F(SenderListsTest, OldCompressedIpv6EntryIsFoundByAddAndDelete) {
  box_.Write("access", "Connect:IPv6:2001:db8::1\tREJECT\nConnect:IPv6:2001:db8::2\tOK\n");
  zel_db::RecordAccessEntry("Connect:IPv6:2001:db8::1", "REJECT");
  zel_db::RecordAccessEntry("Connect:IPv6:2001:db8::2", "OK");
  mta_->DeleteFromBlacklist("2001:db8:0:0:0:0:0:1");
  mta_->AddToBlacklist("2001:db8:0:0:0:0:0:2");
  EXPECT_EQ(Read(Access()), "Connect:IPv6:2001:db8:0:0:0:0:0:2\tREJECT\n");
  EXPECT_EQ(Column("SELECT key || ' ' || value FROM email_access"),
            "Connect:IPv6:2001:db8:0:0:0:0:0:2 REJECT");
}

TEST_F(SenderListsTest, RecordsOfListEntriesWhoseLinesAreGoneAreForgotten) {
  mta_->AddToBlacklist("gone.example");
  mta_->AddToBlacklist("kept.example");
  mta_->AddToWhitelist("friend.example");
  box_.Write("access", "kept.example\tREJECT\nfriend.example\tOK\n");
  mta_->CacheBlacklist();
  EXPECT_EQ(Column("SELECT key FROM email_access ORDER BY id"), "kept.example|friend.example");
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

// A request killed after it saved the access map but before the panel
// database took its record (its transaction is rolled back): the entry's
// claim makes the line the panel's all the same for the next request. A
// hand-written line of the same value is not.
TEST_F(SenderListsTest, AnEntryOfARequestThatNeverCommittedIsStillThePanels) {
  mta_->AddToBlacklist("spam.example");
  EXPECT_EQ(Read(Access()), "spam.example\tREJECT\n");
  Db()->Rollback();
  Db()->BeginRequest();
  EXPECT_EQ(Column("SELECT count(*) FROM email_access"), "0");
  box_.Write("access", Read(Access()) + "hand.example\tREJECT\n");
  const auto entry = email::FindAccessEntry(Access(), {"spam.example"});
  ASSERT_TRUE(entry);
  EXPECT_TRUE(entry->panel);
  EXPECT_FALSE(email::FindAccessEntry(Access(), {"hand.example"})->panel);
  EXPECT_TRUE(box_.Exists("panel.db-access-claims"));  // until the adoption is committed
  NextRequest();
  EXPECT_TRUE(email::IsPanelAccessEntry(Access(), "spam.example", "REJECT"));
  EXPECT_FALSE(box_.Exists("panel.db-access-claims"));
  mta_->DeleteFromBlacklist("spam.example");
  EXPECT_EQ(Read(Access()), "hand.example\tREJECT\n");
}

// A claim whose line was never written (the request died before its save)
// makes no later line of that key the panel's.
TEST_F(SenderListsTest, AClaimWhoseLineWasNeverWrittenIsDropped) {
  email::RecordAccessEntry(Access(), "spam.example", "REJECT");
  Db()->Rollback();
  Db()->BeginRequest();
  EXPECT_FALSE(email::IsPanelAccessEntry(Access(), "x.example", "OK"));
  EXPECT_FALSE(box_.Exists("panel.db-access-claims"));
  NextRequest();
  box_.Write("access", "spam.example\tREJECT\n");
  EXPECT_FALSE(email::FindAccessEntry(Access(), {"spam.example"})->panel);
}
