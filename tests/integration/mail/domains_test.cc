// Mail domains in the three files, and read back into the panel database.
#include "email/access_entries.h"
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class DomainsTest : public MailTest {};

}  // namespace

TEST_F(DomainsTest, CreateWritesCatchAllLineAndLocalHostName) {
  auto d = NewDomain("a.example");
  mta_->CreateDomain(d);
  EXPECT_EQ(Read(Vut()), "@a.example\terror:nouser No such user here\n");
  EXPECT_EQ(Read(Lhn()), "a.example\n");
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(DomainsTest, CreateWritesEachDefaultAction) {
  auto ignore = NewDomain("i.example", "ignore");
  auto to_box = NewDomain("e.example", "redir_email", "catch@b.example");
  auto to_domain = NewDomain("d.example", "redir_domain", "b.example");
  for (auto* d : {&ignore, &to_box, &to_domain}) mta_->CreateDomain(*d);
  EXPECT_EQ(Read(Vut()),
            "@i.example\tdevnull\n"
            "@e.example\tcatch@b.example\n"
            "@d.example\t%1@b.example\n");
}

TEST_F(DomainsTest, UnknownDefaultActionWritesAnEmptyTargetThatMakemapRefuses) {
  auto unknown = NewDomain("u.example", "Error");
  try {
    mta_->CreateDomain(unknown);
    FAIL() << "makemap must refuse a line without a value";
  } catch (const email::Fail& e) {
    EXPECT_EQ(e.object(), "makemap");
    EXPECT_NE(e.detail().find("no RHS"), std::string::npos) << e.detail();
  }
  EXPECT_EQ(Read(Vut()), "@u.example\t\n");
}

TEST_F(DomainsTest, CreatingAnExistingLocalHostNameAddsNoSecondLine) {
  box_.Write("local-host-names", "a.example\n");
  auto d = NewDomain("a.example");
  mta_->CreateDomain(d);
  EXPECT_EQ(Read(Lhn()), "a.example\n");
}

TEST_F(DomainsTest, SuspendAndResume) {
  auto d = NewDomain("a.example", "ignore");
  mta_->CreateDomain(d);
  mta_->SuspendDomain(d);
  EXPECT_EQ(Read(Vut()), "@a.example\terror:nouser Account temporary disabled\n");
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  mta_->ResumeDomain(d);
  EXPECT_EQ(Read(Vut()), "@a.example\tdevnull\n");
  EXPECT_EQ(Read(Access()), "");
  EXPECT_EQ(Read(Lhn()), "a.example\n");
}

TEST_F(DomainsTest, UpdateFollowsTheEnabledFlag) {
  auto d = NewDomain("a.example");
  mta_->CreateDomain(d);
  d->enabled = false;
  mta_->UpdateDomain(d);
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  d->enabled = true;
  mta_->UpdateDomain(d);
  EXPECT_EQ(Read(Access()), "");
  EXPECT_EQ(Read(Vut()), "@a.example\terror:nouser No such user here\n");
}

TEST_F(DomainsTest, UpdateOfAnActiveDomainNeverSuspendedRewritesTheDefaultAction) {
  box_.Write("virtusertable", "@a.example   devnull\n");
  auto d = NewDomain("a.example", "redir_domain", "b.example");
  mta_->UpdateDomain(d);
  EXPECT_EQ(Read(Vut()), "@a.example   %1@b.example\n");
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(DomainsTest, DeleteRemovesTheThreeLinesOnly) {
  box_.Write("virtusertable", "@a.example\tdevnull\nx@a.example\tx+a.example\n");
  box_.Write("local-host-names", "# mine\na.example\nb.example\n");
  box_.Write("access", "a.example\t550 Account disabled\nspam@c.example\tREJECT\n");
  email::RecordAccessEntry(Access(), "a.example", "550 Account disabled");
  auto d = NewDomain("a.example");
  mta_->DeleteDomain(d);
  EXPECT_EQ(Read(Vut()), "x@a.example\tx+a.example\n");
  EXPECT_EQ(Read(Lhn()), "# mine\nb.example\n");
  EXPECT_EQ(Read(Access()), "spam@c.example\tREJECT\n");
}

TEST_F(DomainsTest, DeleteOfADomainInNoFileDoesNothing) {
  box_.Write("virtusertable", "@b.example\tdevnull\n");
  auto d = NewDomain("a.example");
  EXPECT_NO_THROW(mta_->DeleteDomain(d));
  EXPECT_EQ(Read(Vut()), "@b.example\tdevnull\n");
}

TEST_F(DomainsTest, SuspendWithoutCatchAllLineFailsAtAssert) {
  auto d = NewDomain("a.example");
  EXPECT_THROW(mta_->SuspendDomain(d), pnl_err::Error);
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(DomainsTest, ResumeWithoutCatchAllLineFailsAfterRemovingTheAccessEntry) {
  box_.Write("access", "a.example\t550 Account disabled\n");
  email::RecordAccessEntry(Access(), "a.example", "550 Account disabled");
  auto d = NewDomain("a.example");
  EXPECT_THROW(mta_->ResumeDomain(d), pnl_err::Error);
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(DomainsTest, DeleteAndResumeLeaveASuspensionEntryThePanelDidNotWrite) {
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  box_.Write("access", "a.example\t550 Account disabled\n");
  auto d = NewDomain("a.example");
  mta_->ResumeDomain(d);
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  mta_->DeleteDomain(d);
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
}

TEST_F(DomainsTest, SuspendTakesOverASenderListEntryAndResumeDeletesIt) {
  auto d = NewDomain("a.example");
  mta_->CreateDomain(d);
  mta_->AddToWhitelist("a.example");
  EXPECT_EQ(Read(Access()), "a.example\tOK\n");
  mta_->SuspendDomain(d);
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  mta_->ResumeDomain(d);
  EXPECT_EQ(Read(Access()), "");
}

TEST_F(DomainsTest, CacheReadsPanelDomainsWithOwnerActionAndState) {
  const std::string owner = AddWebDomain("a.example", "alice");
  AddWebDomain("b.example", "bob");
  box_.Write("virtusertable",
             "@a.example\t%1@c.example\n@b.example\terror:nouser Account temporary disabled\n");
  box_.Write("local-host-names", "a.example\nb.example\n");
  box_.Write("access", "b.example\t550 Account disabled\n");
  mta_->CacheDomains();
  EXPECT_EQ(Column("SELECT name || ':' || enabled || ':' || def_action || ':' || redirect "
                   "FROM email_domain ORDER BY name"),
            "a.example:1:redir_domain:c.example|b.example:0:error:");
  EXPECT_EQ(Column("SELECT users FROM email_domain WHERE name = 'a.example'"), owner);
}

TEST_F(DomainsTest, UnchangedVirtualUserTableMakesCacheANoOp) {
  AddWebDomain("a.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  mta_->CacheDomains();
  NextRequest();
  Db()->Query("DELETE FROM email_domain");
  box_.Write("access", "a.example\t550 Account disabled\n");
  box_.Write("local-host-names", "other.example\n");
  mta_->CacheDomains();
  EXPECT_EQ(Column("SELECT count(*) FROM email_domain"), "0");
  EXPECT_EQ(Read(Lhn()), "other.example\n");
}

TEST_F(DomainsTest, CacheIgnoresDomainsThePanelDoesNotKnowAndSweepsStaleRows) {
  box_.Write("virtusertable", "@stranger.example\tdevnull\n");
  NewDomain("gone.example");
  mta_->CacheDomains();
  EXPECT_EQ(Column("SELECT count(*) FROM email_domain"), "0");
  EXPECT_EQ(Read(Lhn()), "");
  EXPECT_EQ(Read(Vut()), "@stranger.example\tdevnull\n");
}

TEST_F(DomainsTest, CacheLeavesEntriesItDidNotWriteAndNeverUndoesASuspension) {
  AddWebDomain("a.example");
  AddWebDomain("b.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n@b.example\tdevnull\n");
  const std::string access =
      "a.example\terror:nouser Account temporary disabled\nb.example\t550 account disabled\n";
  box_.Write("access", access);
  auto d = NewDomain("a.example");
  d->enabled = false;
  d->Post();
  mta_->CacheDomains();
  // a.example stays suspended whatever its entry says; neither entry is the
  // panel's suspension (the value differs), so both stay as they are.
  EXPECT_EQ(Column("SELECT name || ':' || enabled FROM email_domain ORDER BY name"),
            "a.example:0|b.example:1");
  EXPECT_EQ(Read(Access()), access);
}

TEST_F(DomainsTest, CacheGivesAnInactiveRowWithoutEntryThePanelsSuspensionEntry) {
  AddWebDomain("a.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  auto d = NewDomain("a.example");
  d->enabled = false;
  d->Post();
  mta_->CacheDomains();
  EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  EXPECT_EQ(Column("SELECT enabled FROM email_domain"), "0");
  // The next passes read that entry as suspended.
  for (int pass = 0; pass < 3; ++pass) {
    NextRequest();
    box_.Write("virtusertable", "@a.example\tdevnull\n# pass " + std::to_string(pass) + "\n");
    mta_->CacheDomains();
    EXPECT_EQ(Column("SELECT enabled FROM email_domain"), "0");
    EXPECT_EQ(Read(Access()), "a.example\t550 Account disabled\n");
  }
}

TEST_F(DomainsTest, CacheTakesThePanelsSuspensionEntryOfAnInServiceRowAsSuspended) {
  AddWebDomain("a.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  box_.Write("access", "a.example\t550 Account disabled\n");
  NewDomain("a.example");
  mta_->CacheDomains();
  EXPECT_EQ(Column("SELECT enabled FROM email_domain"), "0");
}

TEST_F(DomainsTest, CacheAddsMissingLocalHostNames) {
  AddWebDomain("a.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  box_.Write("local-host-names", "# local\n");
  mta_->CacheDomains();
  EXPECT_EQ(Read(Lhn()), "# local\na.example\n");
}

TEST_F(DomainsTest, CacheLeavesSenderListEntriesOfADomainsName) {
  AddWebDomain("a.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  box_.Write("access", "a.example\tOK\nx.example\tREJECT\n");
  mta_->CacheDomains();
  EXPECT_EQ(Read(Access()), "a.example\tOK\nx.example\tREJECT\n");
  EXPECT_EQ(Column("SELECT enabled FROM email_domain"), "1");
}

TEST_F(DomainsTest, CacheKeepsTheOwnerOfAnExistingRow) {
  AddWebDomain("a.example", "alice");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  auto d = NewDomain("a.example");
  mta_->CacheDomains();
  EXPECT_EQ(Column("SELECT users IS NULL FROM email_domain"), "1");
  EXPECT_EQ(Column("SELECT def_action FROM email_domain"), "ignore");
}

TEST_F(DomainsTest, CacheSweepsWithANegativePassTagWrittenWithItsSign) {
  AddWebDomain("a.example");
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  auto stale = NewDomain("gone.example");
  stale->tag = 1234;
  stale->Post();
  PinPassTag(-1234);
  mta_->CacheDomains();
  EXPECT_EQ(Column("SELECT name || ':' || tag FROM email_domain ORDER BY name"),
            "a.example:-1234");
}
