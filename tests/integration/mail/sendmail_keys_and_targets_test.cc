// What is particular to sendmail: access keys of sender-list entries, the
// capabilities it lacks, virtual-user-table targets and a domain's default
// action.
#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

class SendmailSpecificsTest : public MailTest {
 protected:
  // Writes a catch-all line with the target, reads it back into the row.
  void ReadBack(DomainRow& d, const std::string& target) {
    box_.Write("virtusertable", "@" + d->name.Str() + "\t" + target + "\n");
    Cursor<email::VirtualDomains> line =
        email::VirtualUserTable::Get<email::VirtualDomains>(Vut(), true);
    ASSERT_TRUE(line->Find(d->name.Str()));
    mta_->GetDefAction(line, d);
  }
};

}  // namespace

TEST_F(SendmailSpecificsTest, ToListValLeavesAddressesAndDomainsAsTheyAre) {
  EXPECT_EQ(mta_->ToListVal("x@b.example"), "x@b.example");
  EXPECT_EQ(mta_->ToListVal("b.example"), "b.example");
}

// sendmail looks a client up as "Connect:" and its address, an IPv6 one
// tagged and in all eight groups ("IPv6:0:0:0:0:0:0:0:1"), then cut short at
// the last dot or colon: a network is the address's leading parts.
TEST_F(SendmailSpecificsTest, ToListValWritesClientsAsSendmailLooksThemUp) {
  EXPECT_EQ(mta_->ToListVal("192.0.2.1"), "Connect:192.0.2.1");
  EXPECT_EQ(mta_->ToListVal("192.0.2"), "Connect:192.0.2");
  EXPECT_EQ(mta_->ToListVal("192.0.2.0/24"), "Connect:192.0.2");
  EXPECT_EQ(mta_->ToListVal("2001:db8::1"), "Connect:IPv6:2001:db8:0:0:0:0:0:1");
  EXPECT_EQ(mta_->ToListVal("2001:db8:0:0:0:0:0:1"), "Connect:IPv6:2001:db8:0:0:0:0:0:1");
  EXPECT_EQ(mta_->ToListVal("::1"), "Connect:IPv6:0:0:0:0:0:0:0:1");
  EXPECT_EQ(mta_->ToListVal("2001:db8"), "Connect:IPv6:2001:db8");
  EXPECT_EQ(mta_->ToListVal("IPv6:2001"), "Connect:IPv6:2001");
  EXPECT_EQ(mta_->ToListVal("::ffff:192.0.2.1"), "Connect:192.0.2.1");
}

TEST_F(SendmailSpecificsTest, FromListValGivesTheEntryInItsCanonicalForm) {
  EXPECT_EQ(mta_->FromListVal("Connect:192.0.2.1"), "192.0.2.1");
  EXPECT_EQ(mta_->FromListVal("connect:192.0.2"), "192.0.2");
  EXPECT_EQ(mta_->FromListVal("Connect:IPv6:2001:db8:0:0:0:0:0:1"), "2001:db8:0:0:0:0:0:1");
  EXPECT_EQ(mta_->FromListVal("CONNECT:ipv6:2001:DB8:0:0:0:0:0:1"), "2001:db8:0:0:0:0:0:1");
  EXPECT_EQ(mta_->FromListVal("Connect:IPv6:2001:db8"), "2001:db8");
  EXPECT_EQ(mta_->FromListVal("Connect:IPv6:2001"), "IPv6:2001");
  EXPECT_EQ(mta_->FromListVal("Spam.Example"), "spam.example");
  EXPECT_EQ(mta_->FromListVal("Friend@B.example"), "friend@b.example");
  EXPECT_EQ(mta_->FromListVal("xn--bcher-kva.example"), "xn--bcher-kva.example");
  // The spelling earlier versions wrote.
  EXPECT_EQ(mta_->FromListVal("Connect:IPv6:2001:db8::1"), "2001:db8:0:0:0:0:0:1");
}

// Lines the panel never writes are none of its lists' entries: other tags,
// host names after Connect:, untagged addresses, spellings sendmail never
// matches, Unicode names (the panel writes their ASCII form).
TEST_F(SendmailSpecificsTest, FromListValGivesNothingForKeysThePanelDoesNotWrite) {
  for (const char* key :
       {"", "Connect:", "Connect:x", "Connect:IPv6:", "Connect:mail.example", "From:x@b.example",
        "To:b.example", "192.0.2.1", "2001:db8::1", "Connect:2001:db8:0:0:0:0:0:1",
        "Connect:IPv6:192.0.2.1", "Connect:IPv6:0:0:0:0:0:ffff:c000:201", "Connect:192.000.2.1",
        "Connect:IPv6:2001:0db8:0:0:0:0:0:1", "Connect:IPv6:2001:db8:0::1", "user@",
        "b\xc3\xbc" "cher.example", "bad_name.example"})
    EXPECT_EQ(mta_->FromListVal(key), "") << key;
}

TEST_F(SendmailSpecificsTest, EveryEntryComesBackFromItsKey) {
  for (const char* entry : {"x@b.example", "b.example", "192.0.2.1", "192.0.2", "10",
                            "2001:db8:0:0:0:0:0:1", "0:0:0:0:0:0:0:1", "2001:db8", "IPv6:2001",
                            "1:2:3:4:5:6:7"})
    EXPECT_EQ(mta_->FromListVal(mta_->ToListVal(entry)), entry) << entry;
}

TEST_F(SendmailSpecificsTest, ListKeysAddTheCompressedSpellingOfAnIpv6Address) {
  using Keys = std::vector<std::string>;
  EXPECT_EQ(mta_->ListKeys("2001:db8:0:0:0:0:0:1"),
            (Keys{"Connect:IPv6:2001:db8:0:0:0:0:0:1", "Connect:IPv6:2001:db8::1"}));
  EXPECT_EQ(mta_->ListKeys("0:0:0:0:0:0:0:1"),
            (Keys{"Connect:IPv6:0:0:0:0:0:0:0:1", "Connect:IPv6:::1"}));
  // Nothing to compress.
  EXPECT_EQ(mta_->ListKeys("1:2:3:4:5:6:7:8"), (Keys{"Connect:IPv6:1:2:3:4:5:6:7:8"}));
  EXPECT_EQ(mta_->ListKeys("2001:db8"), (Keys{"Connect:IPv6:2001:db8"}));
  EXPECT_EQ(mta_->ListKeys("192.0.2.1"), (Keys{"Connect:192.0.2.1"}));
  EXPECT_EQ(mta_->ListKeys("b.example"), (Keys{"b.example"}));
}

TEST_F(SendmailSpecificsTest, CapabilitiesSendmailLacks) {
  EXPECT_FALSE(mta_->CanBindToIp());
  try {
    mta_->SetSSLCertForDomain("a.example", "c", "k");
    FAIL();
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kNotSupported);
  }
  auto d = NewDomain("a.example");
  EXPECT_NO_THROW(mta_->CacheOne(d));
}

TEST_F(SendmailSpecificsTest, VirtuserTargetJoinsTheNamesWithPlus) {
  auto d = NewDomain("a.example");
  auto e = NewMailbox(d, "First.Last");
  EXPECT_EQ(mta_->GetVirtuserTarget(e, d), "First.Last+a.example");
}

TEST_F(SendmailSpecificsTest, RedirectDomainRoundTrip) {
  auto d = NewDomain("a.example", "redir_domain", "b.example");
  mta_->CreateDomain(d);
  EXPECT_EQ(Read(Vut()), "@a.example\t%1@b.example\n");
  auto fresh = NewDomain("c.example", "error", "");
  ReadBack(fresh, "%1@b.example");
  EXPECT_EQ(fresh->def_action.Str(), "redir_domain");
  EXPECT_EQ(fresh->redirect.Str(), "b.example");
}

TEST_F(SendmailSpecificsTest, EachActionReadsBack) {
  auto d = NewDomain("a.example", "redir_email", "old@c.example");
  ReadBack(d, "error:nouser No such user here");
  EXPECT_EQ(d->def_action.Str(), "error");
  EXPECT_EQ(d->redirect.Str(), "old@c.example");
  ReadBack(d, "devnull");
  EXPECT_EQ(d->def_action.Str(), "ignore");
  EXPECT_EQ(d->redirect.Str(), "old@c.example");
  ReadBack(d, "all@b.example");
  EXPECT_EQ(d->def_action.Str(), "redir_email");
  EXPECT_EQ(d->redirect.Str(), "all@b.example");
}

TEST_F(SendmailSpecificsTest, PrefixIsAlwaysCutFromTheFront) {
  // "1@b.example" is no domain, so the address test on the whole target
  // decides: "%" is a valid local-part character.
  auto d = NewDomain("a.example", "ignore", "keep");
  ReadBack(d, "xy%1@b.example");
  EXPECT_EQ(d->def_action.Str(), "redir_email");
  EXPECT_EQ(d->redirect.Str(), "xy%1@b.example");
  // When the address test fails too, the row keeps what it had.
  auto e = NewDomain("e.example", "ignore", "keep");
  ReadBack(e, "x y%1@b.example");
  EXPECT_EQ(e->def_action.Str(), "ignore");
  EXPECT_EQ(e->redirect.Str(), "keep");
}

TEST_F(SendmailSpecificsTest, UnmatchedTargetLeavesTheRowAlone) {
  auto d = NewDomain("a.example", "ignore", "keep");
  ReadBack(d, "error:5.1.1:550 Go away");
  EXPECT_EQ(d->def_action.Str(), "ignore");
  EXPECT_EQ(d->redirect.Str(), "keep");
}

TEST_F(SendmailSpecificsTest, ActionNamesAreCaseSensitive) {
  box_.Write("virtusertable", "@a.example\tdevnull\n");
  auto d = NewDomain("a.example", "Error");
  Cursor<email::VirtualDomains> line =
      email::VirtualUserTable::Get<email::VirtualDomains>(Vut(), true);
  ASSERT_TRUE(line->Find("a.example"));
  mta_->SetDefAction(line, d);
  EXPECT_EQ(line->target.Str(), "devnull");
}

TEST_F(SendmailSpecificsTest, ErrorIsRecognisedByTheBackEndsOwnTextOnly) {
  email::SendmailLikeInterface* base = mta_.get();
  EXPECT_EQ(base->nouser_target(), "error:nouser No such user here");
  auto d = NewDomain("a.example", "ignore");
  ReadBack(d, "error:nouser No such user here ");
  EXPECT_EQ(d->def_action.Str(), "ignore") << "a trailing blank is another text";
}
