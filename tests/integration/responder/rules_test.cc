// Which messages get an answer, and to which address.
#include <gtest/gtest.h>

#include "zelresponder/rules.h"

using zelresponder::Decide;
using zelresponder::Decision;
using zelresponder::Identity;
using zelresponder::Message;

namespace {

Identity Self() {
  Identity self;
  self.address = "l@d.example";
  self.names = {"l@d.example", "contact@d.example"};
  return self;
}

// A message from ann@x.example to the mailbox, with extra header lines.
std::string Mail(const std::string& extra = "", const std::string& envelope = "ann@x.example") {
  return "From " + envelope + " Mon Mar  3 09:15:02 2025\n"
         "From: Ann <ann@x.example>\n"
         "To: l@d.example\n"
         "Subject: s\n" + extra + "\nbody\n";
}

Decision D(const std::string& text) { return Decide(Message::Parse(text), Self()); }

}  // namespace

TEST(RulesTest, APersonalMessageIsAnsweredToTheEnvelopeSender) {
  const Decision d = D(Mail("", "ann-return@x.example"));
  EXPECT_TRUE(d.reply);
  EXPECT_EQ(d.recipient, "ann-return@x.example");
  EXPECT_EQ(d.source, "envelope");
  EXPECT_EQ(d.reason, "");
}

TEST(RulesTest, TheEnvelopeWinsOverAForgedReturnPathField) {
  const Decision d = D(Mail("Return-Path: <victim@v.example>\n"));
  EXPECT_EQ(d.recipient, "ann@x.example");
  EXPECT_EQ(d.source, "envelope");
}

TEST(RulesTest, WithoutEnvelopeTheReturnPathFieldThenSenderThenFromAreUsed) {
  Decision d = D("Return-Path: <rp@x.example>\nSender: s@x.example\nFrom: f@x.example\n"
                 "To: l@d.example\n\n");
  EXPECT_TRUE(d.reply);
  EXPECT_EQ(d.recipient, "rp@x.example");
  EXPECT_EQ(d.source, "Return-Path");
  d = D("Sender: S <s@x.example>\nFrom: f@x.example\nTo: l@d.example\n\n");
  EXPECT_EQ(d.recipient, "s@x.example");
  EXPECT_EQ(d.source, "Sender");
  d = D("From: F <f@x.example>\nTo: l@d.example\n\n");
  EXPECT_TRUE(d.reply);
  EXPECT_EQ(d.recipient, "f@x.example");
  EXPECT_EQ(d.source, "From");
}

TEST(RulesTest, AMessageWithoutAnySenderIsNotAnswered) {
  const Decision d = D("To: l@d.example\nSubject: s\n\n");
  EXPECT_FALSE(d.reply);
  EXPECT_EQ(d.reason, "the message names no sender");
}

TEST(RulesTest, BouncesAreNeverAnswered) {
  Decision d = D(Mail("", "<>"));
  EXPECT_FALSE(d.reply);
  EXPECT_EQ(d.reason, "the sender is empty (envelope <>): a bounce is never answered");
  d = D("Return-Path: <>\nFrom: f@x.example\nTo: l@d.example\n\n");
  EXPECT_EQ(d.reason, "the sender is empty (Return-Path <>): a bounce is never answered");
  d = D(Mail("", "MAILER-DAEMON"));
  EXPECT_EQ(d.reason, "the sender is a mail system (mailer-daemon)");
  EXPECT_EQ(d.recipient, "MAILER-DAEMON");
}

TEST(RulesTest, MailSystemsAndListAddressesAreNotAnswered) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"MAILER-DAEMON@x.example", "the sender is a mail system (mailer-daemon)"},
      {"Postmaster@x.example", "the sender is a mail system (postmaster)"},
      {"mailer@x.example", "the sender is a mail system (mailer)"},
      {"owner-users@lists.example", "the sender is a mailing list's address (owner-users)"},
      {"users-owner@lists.example", "the sender is a mailing list's address (users-owner)"},
      {"users-request@lists.example", "the sender is a mailing list's address (users-request)"},
      {"users-bounces@lists.example", "the sender is a mailing list's address (users-bounces)"},
      {"users-bounces+l=d.example@lists.example",
       "the sender is a mailing list's address (users-bounces+l=d.example)"},
      {"owner-users+x@lists.example", "the sender is a mailing list's address (owner-users+x)"},
      {"noreply@shop.example", "the sender takes no replies (noreply)"},
      {"No-Reply@shop.example", "the sender takes no replies (no-reply)"},
      {"donotreply@shop.example", "the sender takes no replies (donotreply)"},
      {"do-not-reply@shop.example", "the sender takes no replies (do-not-reply)"},
  };
  for (const auto& [sender, reason] : cases) {
    const Decision d = D(Mail("", sender));
    EXPECT_FALSE(d.reply) << sender;
    EXPECT_EQ(d.reason, reason) << sender;
  }
  // Only whole local parts or their list forms count.
  EXPECT_TRUE(D(Mail("", "postmasters@x.example")).reply);
  EXPECT_TRUE(D(Mail("", "requester@x.example")).reply);
  EXPECT_TRUE(D(Mail("", "ann+owner@x.example")).reply);
}

TEST(RulesTest, MalformedAndUnqualifiedSendersAreNotAnswered) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"root", "it has no \"@\" and a domain"},
      {"a,b@x.example",
       "its local part holds \",\" (answers go to letters, digits and ._+-=&' only)"},
      {"a@x_y.example",
       "its domain is no host name (two or more labels of letters, digits and \"-\")"},
  };
  for (const auto& [sender, why] : cases) {
    const Decision d = D(Mail("", sender));
    EXPECT_FALSE(d.reply) << sender;
    EXPECT_EQ(d.reason, "the sender is no address an answer may go to: " + why) << sender;
  }
}

// The answer goes to exactly one address: a header field that is not one
// address gives no sender at all, never the first of several.
TEST(RulesTest, ASenderFieldOfSeveralAddressesIsNotAnswered) {
  Decision d = D("From: a@x.example, b@y.example\nTo: l@d.example\n\n");
  EXPECT_FALSE(d.reply);
  EXPECT_EQ(d.source, "From");
  EXPECT_EQ(d.recipient, "a@x.example, b@y.example");
  EXPECT_EQ(d.reason, "the sender's From field is not one address: it holds several addresses");
  d = D("Sender: g: a@x.example;\nFrom: f@x.example\nTo: l@d.example\n\n");
  EXPECT_EQ(d.reason,
            "the sender's Sender field is not one address: it is a group or holds a source route");
  d = D("Return-Path: <a@x.example> <b@y.example>\nTo: l@d.example\n\n");
  EXPECT_EQ(d.reason,
            "the sender's Return-Path field is not one address: it is not one address in angle "
            "brackets (it holds \">\")");
  // The envelope is taken whole, not read as a list.
  d = D(Mail("", "<a@x.example>,b@y.example"));
  EXPECT_FALSE(d.reply);
  EXPECT_EQ(d.recipient, "<a@x.example>,b@y.example");
}

TEST(RulesTest, TheMailboxNeverAnswersItselfOrItsAliases) {
  for (const char* sender : {"l@d.example", "L@D.EXAMPLE", "contact@d.example"}) {
    const Decision d = D(Mail("", sender));
    EXPECT_FALSE(d.reply) << sender;
    EXPECT_EQ(d.reason, "the sender is the mailbox itself") << sender;
  }
}

TEST(RulesTest, AutoSubmittedOtherThanNoIsNotAnswered) {
  EXPECT_EQ(D(Mail("Auto-Submitted: auto-replied\n")).reason,
            "the message is automatic (Auto-Submitted: auto-replied)");
  EXPECT_EQ(D(Mail("Auto-Submitted: Auto-Generated (failure)\n")).reason,
            "the message is automatic (Auto-Submitted: auto-generated)");
  EXPECT_EQ(D(Mail("auto-submitted: auto-notified; owner-email=\"x@y\"\n")).reason,
            "the message is automatic (Auto-Submitted: auto-notified)");
  EXPECT_EQ(D(Mail("Auto-Submitted:\n")).reason, "the message is automatic (Auto-Submitted: )");
  EXPECT_TRUE(D(Mail("Auto-Submitted: no\n")).reply);
  EXPECT_TRUE(D(Mail("Auto-Submitted: (a person wrote it) No\n")).reply);
  EXPECT_FALSE(D(Mail("Auto-Submitted: no\nAuto-Submitted: auto-generated\n")).reply);
}

TEST(RulesTest, RequestsToSuppressAnswersAndOtherRespondersAnswersAreHonoured) {
  EXPECT_EQ(D(Mail("X-Auto-Response-Suppress: DR, OOF\n")).reason,
            "the message asks for no automatic answer (X-Auto-Response-Suppress: oof)");
  EXPECT_EQ(D(Mail("X-Auto-Response-Suppress: All\n")).reason,
            "the message asks for no automatic answer (X-Auto-Response-Suppress: all)");
  EXPECT_TRUE(D(Mail("X-Auto-Response-Suppress: DR, RN\n")).reply);
  EXPECT_EQ(D(Mail("X-Autoreply: yes\n")).reason,
            "the message is an automatic answer (X-Autoreply)");
  EXPECT_EQ(D(Mail("X-Autorespond: 1\n")).reason,
            "the message is an automatic answer (X-Autorespond)");
}

TEST(RulesTest, BulkJunkAndListPrecedenceAreNotAnswered) {
  for (const char* value : {"bulk", "junk", "list", "BULK", "auto_reply"}) {
    const Decision d = D(Mail(std::string("Precedence: ") + value + "\n"));
    EXPECT_FALSE(d.reply) << value;
    std::string lower = value;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(d.reason, "the message is bulk mail (Precedence: " + lower + ")");
  }
  EXPECT_TRUE(D(Mail("Precedence: first-class\n")).reply);
}

TEST(RulesTest, ListMailIsNotAnswered) {
  for (const char* field : {"List-Id", "List-Unsubscribe", "List-Subscribe", "List-Post",
                            "List-Help", "List-Owner", "List-Archive"}) {
    const Decision d = D(Mail(std::string(field) + ": <x.lists.example>\n"));
    EXPECT_FALSE(d.reply) << field;
    EXPECT_EQ(d.reason, std::string("the message is list mail (") + field + ")");
  }
  EXPECT_FALSE(D(Mail("list-id: <x>\n")).reply);
}

TEST(RulesTest, ReportsAreNotAnswered) {
  EXPECT_EQ(D(Mail("Content-Type: Multipart/Report; report-type=delivery-status;\n"
                   " boundary=\"b\"\n"))
                .reason,
            "the message is a delivery or disposition report (multipart/report)");
  EXPECT_TRUE(D(Mail("Content-Type: multipart/mixed; boundary=report\n")).reply);
}

TEST(RulesTest, OnlyMailNamingTheMailboxInARecipientFieldIsAnswered) {
  const std::string without_to =
      "From ann@x.example Mon Mar  3 09:15:02 2025\nFrom: ann@x.example\nSubject: s\n\n";
  Decision d = D(without_to);
  EXPECT_FALSE(d.reply);
  EXPECT_EQ(d.reason, "the message does not name the mailbox in To or Cc");
  EXPECT_EQ(d.recipient, "ann@x.example");
  d = D("From ann@x.example Mon\nTo: other@d.example\nCc: Desk <CONTACT@d.example>\n\n");
  EXPECT_TRUE(d.reply);
  EXPECT_TRUE(D("From ann@x.example Mon\nResent-To: l@d.example\n\n").reply);
  EXPECT_TRUE(D("From ann@x.example Mon\nBcc: l@d.example\n\n").reply);
  EXPECT_TRUE(D("From ann@x.example Mon\nTo: a@x.example\nTo: l@d.example\n\n").reply);
  EXPECT_FALSE(D("From ann@x.example Mon\nTo: l@d.example.evil.example\n\n").reply);
  EXPECT_FALSE(D("From ann@x.example Mon\nTo: undisclosed-recipients:;\n\n").reply);
  EXPECT_FALSE(D("From ann@x.example Mon\nX-Original-To: l@d.example\n\n").reply);
}

TEST(RulesTest, UnicodeFormsOfTheDomainNameTheMailbox) {
  Identity self;
  self.address = "l@xn--mnchen-3ya.example";
  self.names = {"l@xn--mnchen-3ya.example", "l@m\xc3\xbcnchen.example"};
  EXPECT_TRUE(Decide(Message::Parse("From a@x.example Mon\nTo: l@m\xc3\xbcnchen.example\n\n"), self)
                  .reply);
  EXPECT_TRUE(Decide(Message::Parse("From a@x.example Mon\nTo: l@XN--MNCHEN-3YA.example\n\n"), self)
                  .reply);
}

TEST(RulesTest, TheFirstRuleThatRefusesGivesTheReason) {
  // A list message from a list's bounce address, marked bulk.
  const Decision d = D(Mail("Precedence: bulk\nList-Id: <x>\n", "users-bounces@lists.example"));
  EXPECT_EQ(d.reason, "the sender is a mailing list's address (users-bounces)");
  EXPECT_EQ(D(Mail("Precedence: bulk\nList-Id: <x>\n")).reason,
            "the message is bulk mail (Precedence: bulk)");
}
