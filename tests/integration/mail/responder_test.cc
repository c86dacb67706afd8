// The autoresponder as one more target of the mailbox's aliases entry.
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class ResponderTest : public MailTest {
 protected:
  void SetUp() override {
    MailTest::SetUp();
    domain_ = NewDomain("a.example");
    mta_->CreateDomain(domain_);
  }

  std::shared_ptr<zel_db::EmailResponderTable> ResponderOf(const EmailRow& e, bool enabled) {
    auto r = Db()->Get<zel_db::EmailResponderTable>();
    r->New();
    r->email.SetText(e->id.Str());
    r->enabled = enabled;
    r->Post();
    return r;
  }

  DomainRow domain_;
};

}  // namespace

TEST_F(ResponderTest, SwitchingOnAppendsTheActionOnce) {
  auto e = CreateMailbox(domain_, "info");
  auto r = ResponderOf(e, true);
  mta_->SetResponder(r);
  mta_->SetResponder(r);
  EXPECT_EQ(Read(AliasesFile()),
            "info+a.example:\tinfo\\@a.example, " + Responder("info@a.example") + "\n");
}

TEST_F(ResponderTest, SwitchingOffRemovesTheAction) {
  auto e = CreateMailbox(domain_, "info");
  auto r = ResponderOf(e, true);
  mta_->SetResponder(r);
  r->enabled = false;
  mta_->SetResponder(r);
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\tinfo\\@a.example\n");
}

TEST_F(ResponderTest, SwitchingOffWithoutTheActionStillPostsTheEntryUnchanged) {
  auto e = CreateMailbox(domain_, "info");
  auto r = ResponderOf(e, false);
  zeltest::CountingRunner runner;
  mta_->SetResponder(r);
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\tinfo\\@a.example\n");
  EXPECT_EQ(runner.CountContaining("sendmail -bi"), 1);
}

TEST_F(ResponderTest, SwitchingOnWithoutAnEntryCreatesOneWithTheActionOnly) {
  auto e = NewMailbox(domain_, "info");
  auto r = ResponderOf(e, true);
  mta_->SetResponder(r);
  EXPECT_EQ(Read(AliasesFile()), "info+a.example:\t" + Responder("info@a.example") + "\n");
}

TEST_F(ResponderTest, GetReadsTheStateBackAndPostsTheRow) {
  auto e = CreateMailbox(domain_, "info");
  auto r = ResponderOf(e, true);
  mta_->SetResponder(r);
  Db()->Query("UPDATE email_responder SET enabled = 0");
  auto fresh = Db()->Get<zel_db::EmailResponderTable>();
  ASSERT_TRUE(fresh->DbFind("email = " + e->id.Str()));
  mta_->GetResponder(fresh);
  EXPECT_EQ(Column("SELECT enabled FROM email_responder"), "1");
}

TEST_F(ResponderTest, AnOutdatedActionReadsAsOffAndIsLeftInPlaceBySwitchingOff) {
  auto e = CreateMailbox(domain_, "info");
  box_.Write("aliases", "info+a.example:\tinfo\\@a.example, \"|/old/responder info@a.example\"\n");
  auto r = ResponderOf(e, true);
  mta_->GetResponder(r);
  EXPECT_EQ(Column("SELECT enabled FROM email_responder"), "0");
  r->enabled = false;
  mta_->SetResponder(r);
  EXPECT_EQ(Read(AliasesFile()),
            "info+a.example:\tinfo\\@a.example, \"|/old/responder info@a.example\"\n");
}

TEST_F(ResponderTest, GetWithoutAnEntryFailsAndPostsNothing) {
  auto e = NewMailbox(domain_, "info");
  auto r = ResponderOf(e, true);
  EXPECT_THROW(mta_->GetResponder(r), pnl_err::Error);
  EXPECT_EQ(Column("SELECT enabled FROM email_responder"), "1");
}

TEST_F(ResponderTest, MissingMailboxRowFailsBeforeAnyFileIsTouched) {
  auto r = Db()->Get<zel_db::EmailResponderTable>();
  r->New();
  r->enabled = true;
  r->email.SetText("4242");
  EXPECT_THROW(mta_->SetResponder(r), pnl_err::Error);
  EXPECT_EQ(Read(AliasesFile()), "");
}

TEST_F(ResponderTest, LocalPartWithPlusGivesAKeyWithTwoPlusSigns) {
  auto e = CreateMailbox(domain_, "a+b");
  auto r = ResponderOf(e, true);
  mta_->SetResponder(r);
  EXPECT_EQ(Read(AliasesFile()),
            "a+b+a.example:\ta+b\\@a.example, " + Responder("a+b@a.example") + "\n");
}
