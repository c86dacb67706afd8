// Mailboxes: the virtual-user-table line, the aliases entry and the access
// entry while suspended; and the cache pass back into the panel database.
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class MailboxesTest : public MailTest {
 protected:
  void SetUp() override {
    MailTest::SetUp();
    domain_ = NewDomain("a.example");
    mta_->CreateDomain(domain_);
  }
  DomainRow domain_;
};

}  // namespace

TEST_F(MailboxesTest, CreateWritesTheAddressLineAfterItsDomainAndTheAliasesEntry) {
  auto other = NewDomain("b.example");
  mta_->CreateDomain(other);
  CreateMailbox(domain_, "info");
  EXPECT_EQ(Read(Vut()),
            "@a.example\terror:nouser No such user here\n"
            "info@a.example\tinfo+a.example\n"
            "@b.example\terror:nouser No such user here\n");
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\tinfo\\@a.example\n");
}

TEST_F(MailboxesTest, ForwardOnlyMailboxGetsAnEntryWithoutLocalDelivery) {
  // With no target at all the entry is one newaliases refuses; the panel sets
  // the forwards of such a mailbox right after creating it.
  auto e = NewMailbox(domain_, "relay", true);
  try {
    mta_->CreateEmail(e);
    FAIL() << "newaliases refuses an alias without a value";
  } catch (const email::Fail& fail) {
    EXPECT_EQ(fail.object(), "newaliases");
    EXPECT_NE(fail.detail().find("missing value"), std::string::npos) << fail.detail();
  }
  EXPECT_EQ(Read(AliasesFile()), "relay+a.example:\t\n");
  AddForwardRow(e, "out@b.example");
  mta_->SetAliases(e, {});
  EXPECT_EQ(Read(AliasesFile()), "relay+a.example:\tout@b.example\n");
}

TEST_F(MailboxesTest, CreateWithoutDomainRowFailsBeforeAnyFileIsTouched) {
  EmailRow e = Db()->Get<zel_db::EmailTable>();
  e->New();
  e->name = std::string("x");
  e->domain.SetText("999");
  const std::string before = Read(Vut());
  EXPECT_THROW(mta_->CreateEmail(e), pnl_err::Error);
  EXPECT_EQ(Read(Vut()), before);
  EXPECT_EQ(Read(AliasesFile()), "");
}

TEST_F(MailboxesTest, FailingAliasesStepLeavesNoVirtualUserTableLine) {
  // The entry is written before the line that points at it: when its map
  // cannot be built (the rebuild refuses the new entry itself, at line 1),
  // the address never leads to a local name without one.
  pnl_cf::SetPath("sendmail-newaliases",
                  "echo '" + AliasesFile() + ": line 1: refused' >&2; exit 1");
  const std::string before = Read(Vut());
  auto e = NewMailbox(domain_, "info");
  EXPECT_THROW(mta_->CreateEmail(e), email::Fail);
  EXPECT_EQ(Read(Vut()), before);
}

TEST_F(MailboxesTest, SuspendAndResume) {
  auto e = CreateMailbox(domain_, "info");
  mta_->SuspendEmail(e);
  EXPECT_NE(Read(Vut()).find("info@a.example\terror:nouser Account temporary disabled\n"),
            std::string::npos);
  EXPECT_EQ(Read(Access()), "info@a.example\t550 Account disabled\n");
  // The local name refuses too: its entry points back at the address.
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\tinfo@a.example\n");
  mta_->ResumeEmail(e);
  EXPECT_NE(Read(Vut()).find("info@a.example\tinfo+a.example\n"), std::string::npos);
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\tinfo\\@a.example\n");
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(MailboxesTest, SuspendOverwritesASenderListEntryAndResumeDeletesIt) {
  auto e = CreateMailbox(domain_, "info");
  mta_->AddToWhitelist("info@a.example");
  mta_->SuspendEmail(e);
  EXPECT_EQ(Read(Access()), "info@a.example\t550 Account disabled\n");
  mta_->ResumeEmail(e);
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(MailboxesTest, ResumeOfANeverSuspendedMailboxResyncsAndKeepsAnAccessLineNotItsOwn) {
  auto e = CreateMailbox(domain_, "info");
  AddForwardRow(e, "out@b.example");
  mta_->AddToBlacklist("info@a.example");
  mta_->ResumeEmail(e);
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\tout@b.example, info\\@a.example\n");
  EXPECT_EQ(Read(Access()), "info@a.example\tREJECT\n");
}

TEST_F(MailboxesTest, SuspendOrResumeWithoutALineFailsBeforeAnyChange) {
  auto e = NewMailbox(domain_, "ghost");
  EXPECT_THROW(mta_->SuspendEmail(e), pnl_err::Error);
  EXPECT_THROW(mta_->ResumeEmail(e), pnl_err::Error);
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(MailboxesTest, DeleteRemovesEveryTraceAndLinesPointingAtTheAddressOnly) {
  auto e = CreateMailbox(domain_, "info");
  AddAliasRow(e, "sales");
  AddForwardRow(e, "out@b.example");
  mta_->SetAliases(e, {});
  mta_->SuspendEmail(e);
  box_.Write("virtusertable", Read(Vut()) +
                                  "other@a.example\tinfo+a.example\n"
                                  "third@a.example\tINFO@a.example\n"
                                  "fourth@a.example\tinfo@a.example\n");
  mta_->DeleteEmail(e);
  EXPECT_EQ(Read(Vut()),
            "@a.example\terror:nouser No such user here\n"
            "other@a.example\tinfo+a.example\n"
            "third@a.example\tINFO@a.example\n");
  EXPECT_EQ(Read(AliasesFile()), "");
  EXPECT_EQ(Read(Access()), "");
  EXPECT_EQ(Column("SELECT count(*) FROM email_alias"), "0");
  EXPECT_EQ(Column("SELECT count(*) FROM email_forward"), "0");
}

TEST_F(MailboxesTest, UpdateTouchesNothing) {
  auto e = CreateMailbox(domain_, "info");
  const std::string vut = Read(Vut());
  zeltest::CountingRunner runner;
  mta_->UpdateEmail(e);
  EXPECT_EQ(Read(Vut()), vut);
  EXPECT_TRUE(runner.commands().empty());
}

TEST_F(MailboxesTest, CacheReadsMailboxesAndTheirState) {
  box_.Write("virtusertable",
             "@a.example\terror:nouser No such user here\n"
             "info@a.example\tinfo+a.example\n"
             "off@a.example\terror:nouser Account temporary disabled\n"
             "x@unknown.example\tx+unknown.example\n");
  mta_->CacheEmails();
  EXPECT_EQ(Column("SELECT name || ':' || enabled || ':' || domain FROM email ORDER BY name"),
            "info:1:" + domain_->id.Str() + "|off:0:" + domain_->id.Str());
}

TEST_F(MailboxesTest, CacheSetsAnExistingRowDisabledAndSweepsStaleRows) {
  auto kept = NewMailbox(domain_, "off");
  NewMailbox(domain_, "stale");
  box_.Write("virtusertable", "off@a.example\terror:nouser Account temporary disabled\n");
  mta_->CacheEmails();
  EXPECT_EQ(Column("SELECT id || ':' || name || ':' || enabled FROM email"),
            kept->id.Str() + ":off:0");
}

TEST_F(MailboxesTest, UnchangedVirtualUserTableMakesCacheANoOp) {
  box_.Write("virtusertable", "info@a.example\tinfo+a.example\n");
  mta_->CacheEmails();
  NextRequest();
  NewMailbox(domain_, "stale");
  mta_->CacheEmails();
  EXPECT_EQ(Column("SELECT name FROM email ORDER BY name"), "info|stale");
}

TEST_F(MailboxesTest, CacheSweepsWithANegativePassTagWrittenWithItsSign) {
  auto stale = NewMailbox(domain_, "stale");
  stale->tag = 1234;
  stale->Post();
  box_.Write("virtusertable", "info@a.example\tinfo+a.example\n");
  PinPassTag(-1234);
  mta_->CacheEmails();
  EXPECT_EQ(Column("SELECT name || ':' || tag FROM email ORDER BY name"), "info:-1234");
}
