// email:: helpers: a mailbox's address, finding a mailbox by its address, and
// its responder's aliases target.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "mail_fixture.h"
#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"

using mailtest::ErrorOf;
using mailtest::MailTest;

class EmailHelpersTest : public MailTest {
 protected:
  void SetUp() override {
    MailTest::SetUp();
    domain_ = AddMailDomain("example.com");
    box_ = AddMailbox("info", domain_);
    emails_ = cache_->Get<zel_db::EmailTable>();
    domains_ = cache_->Get<zel_db::EmailDomainTable>();
  }
  void TearDown() override {
    emails_.reset();
    domains_.reset();
    MailTest::TearDown();
  }

  // The mailbox cursor positioned on a new mailbox local@example.com.
  std::shared_ptr<zel_db::EmailTable>& Mailbox(const std::string& local) {
    emails_->Assert(std::to_string(AddMailbox(local, domain_)));
    return emails_;
  }

  int64_t domain_ = 0;
  int64_t box_ = 0;
  std::shared_ptr<zel_db::EmailTable> emails_;
  std::shared_ptr<zel_db::EmailDomainTable> domains_;
};

TEST_F(EmailHelpersTest, GetEmailNameJoinsTheLocalPartAndTheDomainName) {
  emails_->Assert(std::to_string(box_));
  EXPECT_EQ(email::GetEmailName(emails_), "info@example.com");
  const int64_t idn = AddMailDomain("b\xc3\xbc" "cher.example");
  emails_->Assert(std::to_string(AddMailbox("post", idn)));
  EXPECT_EQ(email::GetEmailName(emails_), "post@xn--bcher-kva.example");
}

TEST_F(EmailHelpersTest, GetEmailNameOfAMailboxWhoseDomainIsMissingNamesTheDomainKey) {
  emails_->Assert(std::to_string(box_));
  cache_->Get<zel_db::EmailDomainTable>()->DbDelete("id = " + std::to_string(domain_));
  pnl_err::Error e = ErrorOf([&] { email::GetEmailName(emails_); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_STREQ(e.what(), ("email_domain: no row with key " + std::to_string(domain_)).c_str());
}

TEST_F(EmailHelpersTest, GetEmailNameWithoutACurrentMailboxIsAnError) {
  EXPECT_STREQ(ErrorOf([&] { email::GetEmailName(emails_); }).what(),
               "email: no current mailbox row");
}

TEST_F(EmailHelpersTest, FindByEmailNamePositionsTheDomainAndTheMailbox) {
  AddMailbox("sales", domain_);
  ASSERT_TRUE(email::FindByEmailName("info@example.com", emails_, domains_));
  EXPECT_EQ(emails_->id.Value(), box_);
  EXPECT_EQ(emails_->name.Str(), "info");
  EXPECT_EQ(domains_->id.Value(), domain_);
  EXPECT_EQ(domains_->name.Str(), "example.com");
}

TEST_F(EmailHelpersTest, FindByEmailNameOfAMissingMailboxLeavesTheDomainPositioned) {
  EXPECT_FALSE(email::FindByEmailName("nobody@example.com", emails_, domains_));
  EXPECT_TRUE(emails_->Eof());
  ASSERT_FALSE(domains_->Eof());
  EXPECT_EQ(domains_->id.Value(), domain_);
}

TEST_F(EmailHelpersTest, FindByEmailNameOfAnUnknownDomainLeavesBothAtTheEnd) {
  EXPECT_FALSE(email::FindByEmailName("info@elsewhere.example", emails_, domains_));
  EXPECT_TRUE(emails_->Eof());
  EXPECT_TRUE(domains_->Eof());
}

TEST_F(EmailHelpersTest, FindByEmailNameFindsNoMailboxOfAnotherDomain) {
  AddMailDomain("other.example");
  EXPECT_FALSE(email::FindByEmailName("info@other.example", emails_, domains_));
  EXPECT_TRUE(emails_->Eof());
  EXPECT_FALSE(domains_->Eof());
}

TEST_F(EmailHelpersTest, CatchAllsAndNamesWithoutAtSignAreNoMailboxNames) {
  for (const char* name : {"@example.com", "info@", "info", ""}) {
    domains_->First();
    EXPECT_FALSE(email::FindByEmailName(name, emails_, domains_)) << name;
    EXPECT_TRUE(emails_->Eof()) << name;
    EXPECT_TRUE(domains_->Eof()) << name;
  }
}

TEST_F(EmailHelpersTest, FindByEmailNameSplitsAtTheFirstAtSign) {
  const int64_t odd = AddMailDomain("odd@example.com");  // not a host name; the split decides
  AddMailbox("info", odd);
  ASSERT_TRUE(email::FindByEmailName("info@odd@example.com", emails_, domains_));
  EXPECT_EQ(domains_->id.Value(), odd);
}

TEST_F(EmailHelpersTest, FindByEmailNameTakesTheDomainInEitherForm) {
  const int64_t idn = AddMailDomain("b\xc3\xbc" "cher.example");
  const int64_t box = AddMailbox("post", idn);
  ASSERT_TRUE(email::FindByEmailName("post@b\xc3\xbc" "cher.example", emails_, domains_));
  EXPECT_EQ(emails_->id.Value(), box);
  ASSERT_TRUE(email::FindByEmailName("post@xn--bcher-kva.example", emails_, domains_));
  EXPECT_EQ(emails_->id.Value(), box);
}

TEST_F(EmailHelpersTest, FindByEmailNameKeepsQuotesOfTheLocalPart) {
  const int64_t box = AddMailbox("o'brien", domain_);
  ASSERT_TRUE(email::FindByEmailName("o'brien@example.com", emails_, domains_));
  EXPECT_EQ(emails_->id.Value(), box);
}

TEST_F(EmailHelpersTest, FindByEmailNameInARequestSeesMailboxesPostedMeanwhile) {
  pnl_db::Request request(*cache_);
  EXPECT_FALSE(email::FindByEmailName("new@example.com", emails_, domains_));
  emails_->New();
  emails_->name = "new";
  emails_->domain = domains_->id;
  emails_->Post();
  ASSERT_TRUE(email::FindByEmailName("new@example.com", emails_, domains_));
  EXPECT_EQ(emails_->name.Str(), "new");
}

TEST_F(EmailHelpersTest, ResponderActionPipesToTheDefaultProgramWithTheAddress) {
  emails_->Assert(std::to_string(box_));
  EXPECT_EQ(email::GetResponderAction(emails_),
            "\"|/usr/lib/zelpnl/zelpnl-responder info@example.com\"");
  EXPECT_EQ(email::GetResponderAction(emails_), email::GetResponderAction(emails_));
}

TEST_F(EmailHelpersTest, ResponderActionUsesTheConfiguredProgramAndResponderConfiguration) {
  const std::string config = sandbox_.Path("zelpnl.conf");
  zeltest::WriteFile(config,
                     "[paths]\nzelpnl-responder = /opt/zel/responder\n"
                     "responder-conf = /etc/zel/responder.conf\n");
  pnl_cf::Load(config);
  emails_->Assert(std::to_string(box_));
  EXPECT_EQ(email::GetResponderAction(emails_),
            "\"|/opt/zel/responder --config /etc/zel/responder.conf info@example.com\"");
}

// The program runs as sendmail's default user, who may not read the panel's
// configuration: the action never names it.
TEST_F(EmailHelpersTest, ResponderActionNeverNamesThePanelConfiguration) {
  const std::string config = sandbox_.Path("zelpnl.conf");
  zeltest::WriteFile(config, "[paths]\nzelpnl-responder = /opt/zel/responder\n");
  pnl_cf::Load(config);
  emails_->Assert(std::to_string(box_));
  EXPECT_EQ(email::GetResponderAction(emails_), "\"|/opt/zel/responder info@example.com\"");
}

TEST_F(EmailHelpersTest, ResponderActionQuotesWordsAShellWouldRead) {
  const std::string config = sandbox_.Path("my responder.conf");
  pnl_cf::SetPath("responder-conf", config);
  EXPECT_EQ(email::GetResponderAction(Mailbox("a$b|c")),
            "\"|/usr/lib/zelpnl/zelpnl-responder --config '" + config +
                "' 'a$b|c@example.com'\"");
  EXPECT_EQ(email::GetResponderAction(Mailbox("#x")),
            "\"|/usr/lib/zelpnl/zelpnl-responder --config '" + config + "' '#x@example.com'\"");
}

TEST_F(EmailHelpersTest, ResponderActionRefusesWhatAnAliasesTargetCannotCarry) {
  for (const char* local : {"a,b", "a\"b", "a\\b", "it's"}) {
    pnl_err::Error e = ErrorOf([&] { email::GetResponderAction(Mailbox(local)); });
    EXPECT_EQ(e.kind(), pnl_err::Kind::kEmail) << local;
    EXPECT_EQ(e.object(), std::string(local) + "@example.com");
    EXPECT_EQ(e.detail(), "responder action: the address \"" + std::string(local) +
                              "@example.com\" holds a character an aliases target cannot carry");
  }
  pnl_cf::SetPath("zelpnl-responder", "/opt/resp,onder");
  pnl_err::Error e = ErrorOf([&] { email::GetResponderAction(Mailbox("ok")); });
  EXPECT_EQ(e.detail(),
            "responder action: the responder program \"/opt/resp,onder\" holds a character an "
            "aliases target cannot carry");
  pnl_cf::SetPath("zelpnl-responder", "/opt/resp\nonder");
  EXPECT_THROW(email::GetResponderAction(Mailbox("ok2")), pnl_err::Error);
}

TEST_F(EmailHelpersTest, ResponderActionOfAMailboxWhoseDomainIsMissingFails) {
  emails_->Assert(std::to_string(box_));
  cache_->Get<zel_db::EmailDomainTable>()->DbDelete("id = " + std::to_string(domain_));
  EXPECT_EQ(ErrorOf([&] { email::GetResponderAction(emails_); }).type(), "db");
}
