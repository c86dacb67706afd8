// The typical life of a mailbox, with the exact bytes of every file after
// each step; and the round trip of domains and mailboxes through the files
// into an empty database.
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class LifeCycleTest : public MailTest {
 protected:
  void ExpectFiles(const std::string& vut, const std::string& lhn, const std::string& aliases,
                   const std::string& access) {
    EXPECT_EQ(Read(Vut()), vut);
    EXPECT_EQ(Read(Lhn()), lhn);
    EXPECT_EQ(Read(AliasesFile()), aliases);
    EXPECT_EQ(Read(Access()), access);
  }
  std::string Dump(const std::string& file) {
    std::string out;
    zeltest::RunShell("/usr/sbin/makemap -u hash " + file, &out);
    return out;
  }
};

const char kDevnull[] = "devnull:\t\"/dev/null\"\n";
const char kCatchAll[] = "@d.example\terror:nouser No such user here\n";

}  // namespace

TEST_F(LifeCycleTest, TypicalLifeOfAMailbox) {
  box_.Write("aliases", kDevnull);
  auto domain = NewDomain("d.example");

  mta_->CreateDomain(domain);
  ExpectFiles(kCatchAll, "d.example\n", kDevnull, "");

  auto mailbox = CreateMailbox(domain, "l");
  const std::string box_line = "l@d.example\tl+d.example\n";
  ExpectFiles(std::string(kCatchAll) + box_line, "d.example\n",
              std::string(kDevnull) + "l+d.example:\tl\\@d.example\n", "");

  AddAliasRow(mailbox, "a");
  AddForwardRow(mailbox, "f@x.example");
  mta_->SetAliases(mailbox, {});
  const std::string alias_line = "a@d.example\tl@d.example\n";
  ExpectFiles(std::string(kCatchAll) + box_line + alias_line, "d.example\n",
              std::string(kDevnull) + "l+d.example:\tf@x.example, l\\@d.example\n", "");

  auto responder = Db()->Get<zel_db::EmailResponderTable>();
  responder->New();
  responder->email.SetText(mailbox->id.Str());
  responder->enabled = true;
  responder->Post();
  mta_->SetResponder(responder);
  const std::string entry_on = "l+d.example:\tf@x.example, l\\@d.example, " +
                               Responder("l@d.example") + "\n";
  ExpectFiles(std::string(kCatchAll) + box_line + alias_line, "d.example\n",
              kDevnull + entry_on, "");

  mta_->SuspendEmail(mailbox);
  ExpectFiles(std::string(kCatchAll) + "l@d.example\terror:nouser Account temporary disabled\n" +
                  alias_line,
              "d.example\n", std::string(kDevnull) + "l+d.example:\tl@d.example\n",
              "l@d.example\t550 Account disabled\n");
  EXPECT_EQ(Dump(Access()), "l@d.example\t550 Account disabled\n");

  mta_->ResumeEmail(mailbox);
  ExpectFiles(std::string(kCatchAll) + box_line + alias_line, "d.example\n", kDevnull + entry_on,
              "");
  EXPECT_EQ(Dump(Access()), "");

  mta_->DeleteEmail(mailbox);
  ExpectFiles(kCatchAll, "d.example\n", kDevnull, "");
  EXPECT_EQ(Dump(Vut()), kCatchAll);
}

TEST_F(LifeCycleTest, DomainsAndMailboxesRoundTripIntoAnEmptyDatabase) {
  auto one = NewDomain("one.example", "ignore");
  auto two = NewDomain("two.example", "redir_domain", "elsewhere.example");
  auto three = NewDomain("three.example", "redir_email", "all@elsewhere.example");
  auto off = NewDomain("off.example");
  for (auto* d : {&one, &two, &three, &off}) mta_->CreateDomain(*d);
  CreateMailbox(one, "a");
  auto b = CreateMailbox(one, "b");
  CreateMailbox(two, "c");
  auto d = CreateMailbox(off, "d");
  mta_->SuspendEmail(b);
  mta_->SuspendDomain(off);
  mta_->SuspendDomain(three);
  mta_->ResumeDomain(three);
  mta_->SuspendEmail(d);
  mta_->ResumeEmail(d);

  const std::string domain_rows =
      "SELECT name || ':' || def_action || ':' || redirect FROM email_domain ORDER BY name";
  const std::string mailbox_rows =
      "SELECT e.name || '@' || d.name || ':' || e.enabled FROM email e "
      "JOIN email_domain d ON d.id = e.domain ORDER BY 1";
  Db()->Query("UPDATE email_domain SET enabled = 0 WHERE name = 'off.example'");
  Db()->Query("UPDATE email SET enabled = 0 WHERE name = 'b'");
  const std::string domains_before = Column(domain_rows);
  const std::string enabled_before =
      Column("SELECT name || ':' || enabled FROM email_domain ORDER BY name");
  const std::string mailboxes_before = Column(mailbox_rows);

  zel_db::GetCache()->EndRequest();
  zel_db::CloseCache();
  zel_db::OpenCache(box_.Path("fresh.db"));
  zel_db::GetCache()->BeginRequest();
  for (const char* name : {"one.example", "two.example", "three.example", "off.example"})
    AddWebDomain(name);
  mta_->CacheDomains();
  mta_->CacheEmails();

  EXPECT_EQ(Column(domain_rows), domains_before);
  EXPECT_EQ(Column("SELECT name || ':' || enabled FROM email_domain ORDER BY name"), enabled_before);
  EXPECT_EQ(Column(mailbox_rows), mailboxes_before);
}
