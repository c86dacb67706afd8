// A mailbox's aliases and forwards written into the files, and read back.
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class AliasesTest : public MailTest {
 protected:
  void SetUp() override {
    MailTest::SetUp();
    domain_ = NewDomain("a.example");
    mta_->CreateDomain(domain_);
    mbox_ = CreateMailbox(domain_, "n");
  }

  std::string Forwards(const EmailRow& e) {
    return Column("SELECT name FROM email_forward WHERE email = " + e->id.Str() + " ORDER BY id");
  }
  std::string AliasRows(const EmailRow& e) {
    return Column("SELECT name FROM email_alias WHERE email = " + e->id.Str() + " ORDER BY id");
  }
  std::string ForwardOnly(const EmailRow& e) {
    return Column("SELECT forward_only FROM email WHERE id = " + e->id.Str());
  }

  DomainRow domain_;
  EmailRow mbox_;
};

}  // namespace

TEST_F(AliasesTest, NoAliasesNoForwardsLeavesTheLocalDeliveryOnly) {
  const std::string vut = Read(Vut());
  mta_->SetAliases(mbox_, {});
  EXPECT_EQ(Read(Vut()), vut);
  EXPECT_EQ(Read(AliasesFile()), "n+a.example:\tn\\@a.example\n");
}

TEST_F(AliasesTest, AliasesBecomeLinesAndForwardsComeBeforeTheLocalDelivery) {
  AddAliasRow(mbox_, "sales");
  AddAliasRow(mbox_, "info");
  AddForwardRow(mbox_, "f@b.example");
  AddForwardRow(mbox_, "g@c.example");
  mta_->SetAliases(mbox_, {});
  EXPECT_EQ(Read(Vut()),
            "@a.example\terror:nouser No such user here\n"
            "n@a.example\tn+a.example\n"
            "sales@a.example\tn@a.example\n"
            "info@a.example\tn@a.example\n");
  EXPECT_EQ(Read(AliasesFile()), "n+a.example:\tf@b.example, g@c.example, n\\@a.example\n");
}

TEST_F(AliasesTest, ForwardOnlyDropsTheLocalDelivery) {
  AddForwardRow(mbox_, "f@b.example");
  mbox_->forward_only = true;
  mbox_->Post();
  mta_->SetAliases(mbox_, {});
  EXPECT_EQ(Read(AliasesFile()), "n+a.example:\tf@b.example\n");
}

TEST_F(AliasesTest, ForwardOnlyWithoutForwardsWritesAnEntryNewaliasesRefuses) {
  mbox_->forward_only = true;
  mbox_->Post();
  EXPECT_THROW(mta_->SetAliases(mbox_, {}), email::Fail);
  EXPECT_EQ(Read(AliasesFile()), "n+a.example:\t\n");
}

TEST_F(AliasesTest, AnAliasLineOfAnotherMailboxIsKept) {
  box_.Write("virtusertable", Read(Vut()) + "sales@a.example\tother@a.example\n");
  AddAliasRow(mbox_, "sales");
  mta_->SetAliases(mbox_, {});
  EXPECT_NE(Read(Vut()).find("sales@a.example\tother@a.example\n"), std::string::npos);
  EXPECT_EQ(Read(Vut()).find("sales@a.example\tn@a.example"), std::string::npos);
}

TEST_F(AliasesTest, RemovedLocalPartsLoseTheirLinesWhateverTheyPointAt) {
  box_.Write("virtusertable", Read(Vut()) +
                                  "old@a.example\tother@a.example\n"
                                  "full@a.example\tn@a.example\n");
  mta_->SetAliases(mbox_, {"old", "full@a.example", "never"});
  EXPECT_EQ(Read(Vut()).find("old@a.example"), std::string::npos);
  EXPECT_NE(Read(Vut()).find("full@a.example\tn@a.example\n"), std::string::npos);
}

TEST_F(AliasesTest, AnAliasBothStoredAndRemovedEndsWithoutALine) {
  AddAliasRow(mbox_, "sales");
  mta_->SetAliases(mbox_, {"sales"});
  EXPECT_EQ(Read(Vut()).find("sales@"), std::string::npos);
}

TEST_F(AliasesTest, ProgramAndFileForwardsAreWrittenAsStored) {
  AddForwardRow(mbox_, "\"|/usr/local/bin/sorter -a x\"");
  AddForwardRow(mbox_, "/var/mail/archive");
  mta_->SetAliases(mbox_, {});
  EXPECT_EQ(Read(AliasesFile()),
            "n+a.example:\t\"|/usr/local/bin/sorter -a x\", /var/mail/archive, n\\@a.example\n");
}

TEST_F(AliasesTest, TheResponderIsReappliedAfterTheRewrite) {
  AddForwardRow(mbox_, "f@b.example");
  Db()->Query("INSERT INTO email_responder(email, enabled) VALUES(" + mbox_->id.Str() + ", 1)");
  mta_->SetAliases(mbox_, {});
  EXPECT_EQ(Read(AliasesFile()),
            "n+a.example:\tf@b.example, n\\@a.example, " + Responder("n@a.example") + "\n");
}

TEST_F(AliasesTest, SecondCallChangesNothing) {
  AddAliasRow(mbox_, "sales");
  AddForwardRow(mbox_, "f@b.example");
  mta_->SetAliases(mbox_, {});
  const std::string vut = Read(Vut());
  const std::string aliases = Read(AliasesFile());
  mta_->SetAliases(mbox_, {});
  EXPECT_EQ(Read(Vut()), vut);
  EXPECT_EQ(Read(AliasesFile()), aliases);
}

TEST_F(AliasesTest, AMissingEntryIsWrittenAnew) {
  box_.Write("aliases", "");
  AddAliasRow(mbox_, "sales");
  mta_->SetAliases(mbox_, {});
  EXPECT_NE(Read(Vut()).find("sales@a.example\tn@a.example\n"), std::string::npos);
  EXPECT_EQ(Read(AliasesFile()), "n+a.example:\tn\\@a.example\n");
}

TEST_F(AliasesTest, CacheReadsForwardsAndLocalDelivery) {
  box_.Write("aliases", "n+a.example:\tn\\@a.example, f@b.example\n");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(Forwards(mbox_), "f@b.example");
  EXPECT_EQ(ForwardOnly(mbox_), "0");
}

TEST_F(AliasesTest, CacheWithoutLocalDeliveryIsForwardOnly) {
  box_.Write("aliases", "n+a.example:\tf@b.example\n");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(Forwards(mbox_), "f@b.example");
  EXPECT_EQ(ForwardOnly(mbox_), "1");
}

TEST_F(AliasesTest, CacheSkipsTheResponderAction) {
  box_.Write("aliases", "n+a.example:\t" + Responder("n@a.example") + "\n");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(Forwards(mbox_), "");
  EXPECT_EQ(ForwardOnly(mbox_), "1");
}

TEST_F(AliasesTest, CacheOfAnEmptyEntryStillPostsTheMailbox) {
  box_.Write("aliases", "n+a.example:\t\n");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(Forwards(mbox_), "");
  EXPECT_EQ(ForwardOnly(mbox_), "1");
}

TEST_F(AliasesTest, CacheKeepsEachOccurrenceOfAForward) {
  box_.Write("aliases", "n+a.example:\tf@b.example, f@b.example\n");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(Forwards(mbox_), "f@b.example|f@b.example");
}

TEST_F(AliasesTest, CacheReadsAliasesOfTheOwnDomainPointingWhollyAtTheMailbox) {
  box_.Write("virtusertable",
             "@a.example\tdevnull\n"
             "n@a.example\tn+a.example\n"
             "a@a.example\tn@a.example\n"
             "two@a.example\tn@a.example g@b.example\n"
             "a@e.example\tn@a.example\n");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(AliasRows(mbox_), "a");
}

TEST_F(AliasesTest, CacheSeesAliasLinesAddedSinceTheLastCache) {
  box_.Write("aliases", "n+a.example:\tn\\@a.example\nm+a.example:\tm\\@a.example\n");
  box_.Write("virtusertable", "n@a.example\tn+a.example\nb@a.example\tn@a.example\n");
  EmailRow other = NewMailbox(domain_, "m");
  mta_->CacheAliases(mbox_);
  mta_->CacheAliases(other);
  EXPECT_EQ(AliasRows(mbox_), "b");
  // Through the engine (the copy is edited) and then by hand (read again).
  auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(box_.Path("virtusertable"), true);
  lines->New();
  lines->name.Set("c@a.example");
  lines->target = "n@a.example";
  lines->Post("");
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(AliasRows(mbox_), "b|c");
  box_.Write("virtusertable", box_.Read("virtusertable") + "d@a.example\tm@a.example\n");
  mta_->CacheAliases(mbox_);
  mta_->CacheAliases(other);
  EXPECT_EQ(AliasRows(mbox_), "b|c");
  EXPECT_EQ(AliasRows(other), "d");
}

TEST_F(AliasesTest, CacheWithoutEntryFailsAfterDeletingTheRows) {
  AddForwardRow(mbox_, "f@b.example");
  AddAliasRow(mbox_, "sales");
  box_.Write("aliases", "");
  EXPECT_THROW(mta_->CacheAliases(mbox_), pnl_err::Error);
  EXPECT_EQ(Forwards(mbox_), "");
  EXPECT_EQ(AliasRows(mbox_), "");
}

TEST_F(AliasesTest, CacheTwiceLeavesTheSameRows) {
  box_.Write("aliases", "n+a.example:\tf@b.example, n\\@a.example\n");
  box_.Write("virtusertable", "n@a.example\tn+a.example\na@a.example\tn@a.example\n");
  mta_->CacheAliases(mbox_);
  mta_->CacheAliases(mbox_);
  EXPECT_EQ(Forwards(mbox_), "f@b.example");
  EXPECT_EQ(AliasRows(mbox_), "a");
}

TEST_F(AliasesTest, SetThenCacheGivesBackTheSameRowsAndFlag) {
  AddAliasRow(mbox_, "sales");
  AddAliasRow(mbox_, "info");
  AddForwardRow(mbox_, "f@b.example");
  AddForwardRow(mbox_, "\"|/usr/bin/filter\"");
  Db()->Query("INSERT INTO email_responder(email, enabled) VALUES(" + mbox_->id.Str() + ", 1)");
  for (bool forward_only : {false, true}) {
    mbox_->forward_only = forward_only;
    mbox_->Post();
    mta_->SetAliases(mbox_, {});
    mta_->CacheAliases(mbox_);
    EXPECT_EQ(Forwards(mbox_), "f@b.example|\"|/usr/bin/filter\"");
    EXPECT_EQ(AliasRows(mbox_), "sales|info");
    EXPECT_EQ(ForwardOnly(mbox_), forward_only ? "1" : "0");
  }
}
