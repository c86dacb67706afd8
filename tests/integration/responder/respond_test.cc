// Respond on a panel database: the mailbox and its responder, the memory of
// the senders answered, the send command, and what the database guarantees.
#include "responder_fixture.h"
#include "zelapi/cf.h"
#include "zelapi/mail/tables.h"
#include "zelresponder/responder.h"

using zelresponder::Message;
using zelresponder::Outcome;
using zelresponder::Respond;
using zeltest::Normal;
using zeltest::ResponderTest;
using zeltest::Sample;

namespace {

constexpr std::time_t kNow = 1741000000;  // Mon, 03 Mar 2025 11:06:40 UTC
constexpr std::time_t kDay = 86400;

// A message from sender to the mailbox.
std::string From(const std::string& sender, const std::string& to = "l@d.example") {
  return "From " + sender + " Mon Mar  3 09:15:02 2025\nFrom: " + sender + "\nTo: " + to +
         "\nSubject: Hello\nMessage-ID: <m@x.example>\n\nbody\n";
}

class RespondTest : public ResponderTest {
 protected:
  Outcome Answer(const std::string& message, std::time_t now = kNow,
                 const std::string& address = "l@d.example") {
    return Respond(Db(), address, Message::Parse(message), now);
  }
  std::string SentRows() {
    return Rows("SELECT responder, sender, sent_at FROM email_responder_sent ORDER BY id");
  }
};

}  // namespace

TEST_F(RespondTest, AnAnswerIsSentAndItsSenderRemembered) {
  const Outcome o = Answer(Sample("plain.eml"));
  EXPECT_TRUE(o.replied);
  EXPECT_FALSE(o.failed);
  EXPECT_EQ(o.recipient, "ann@x.example");
  EXPECT_EQ(o.reason, "");
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0],
            "From: l@d.example\n"
            "To: ann@x.example\n"
            "Subject: Re: Meeting on Tuesday\n"
            "Date: Mon, 03 Mar 2025 11:06:40 +0000\n" +
                sent[0].substr(sent[0].find("Message-ID:"), sent[0].find("In-Reply-To:") -
                                                                sent[0].find("Message-ID:")) +
                "In-Reply-To: <20250303101500.plain@x.example>\n"
                "References: <20250303101500.plain@x.example>\n"
                "Auto-Submitted: auto-replied\n"
                "MIME-Version: 1.0\n"
                "Content-Type: text/plain; charset=UTF-8\n"
                "Content-Transfer-Encoding: 7bit\n"
                "\n" +
                zeltest::kText);
  EXPECT_NE(Normal(sent[0]).find("\nMessage-ID: <ID>\n"), std::string::npos);
  EXPECT_EQ(SentArgs()[0], "-t\n-oi\n-f\n<>\n");
  EXPECT_EQ(SentRows(), std::to_string(responder_id_) + ":ann@x.example:1741000000");
}

TEST_F(RespondTest, TheResponderOwnSubjectReplacesReOriginal) {
  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->subject = "Out of office";
  responder->Post();
  ASSERT_TRUE(Answer(Sample("plain.eml")).replied);
  EXPECT_NE(Sent()[0].find("\nSubject: Out of office\n"), std::string::npos);
}

TEST_F(RespondTest, ASenderIsAnsweredOncePerPeriod) {
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  const Outcome again = Answer(From("ann@x.example"), kNow + 7 * kDay - 1);
  EXPECT_FALSE(again.replied);
  EXPECT_FALSE(again.failed);
  EXPECT_EQ(again.recipient, "ann@x.example");
  EXPECT_EQ(again.reason,
            "the sender was answered on Mon, 03 Mar 2025 11:06:40 +0000, less than 7 days ago");
  EXPECT_EQ(Sent().size(), 1u);
  EXPECT_EQ(SentRows(), std::to_string(responder_id_) + ":ann@x.example:1741000000");

  ASSERT_TRUE(Answer(From("ann@x.example"), kNow + 7 * kDay).replied);
  EXPECT_EQ(Sent().size(), 2u);
  EXPECT_EQ(SentRows(), std::to_string(responder_id_) + ":ann@x.example:" +
                            std::to_string(kNow + 7 * kDay));
}

TEST_F(RespondTest, SendersAreRememberedWithoutRegardToCase) {
  ASSERT_TRUE(Answer(From("Ann@X.Example")).replied);
  EXPECT_FALSE(Answer(From("ann@x.example"), kNow + 1).replied);
  EXPECT_EQ(SentRows(), std::to_string(responder_id_) + ":ann@x.example:1741000000");
  EXPECT_NE(Sent()[0].find("\nTo: Ann@X.Example\n"), std::string::npos);
}

TEST_F(RespondTest, EachSenderIsAnsweredOnce) {
  EXPECT_TRUE(Answer(From("ann@x.example")).replied);
  EXPECT_TRUE(Answer(From("bob@y.example"), kNow + 1).replied);
  EXPECT_FALSE(Answer(From("ann@x.example"), kNow + 2).replied);
  EXPECT_FALSE(Answer(From("bob@y.example"), kNow + 3).replied);
  EXPECT_EQ(Sent().size(), 2u);
}

TEST_F(RespondTest, ThePeriodIsTheRespondersOwn) {
  SetPeriodDays(1);
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  EXPECT_EQ(Answer(From("ann@x.example"), kNow + kDay - 1).reason,
            "the sender was answered on Mon, 03 Mar 2025 11:06:40 +0000, less than 1 days ago");
  EXPECT_TRUE(Answer(From("ann@x.example"), kNow + kDay).replied);
  SetPeriodDays(30);
  EXPECT_FALSE(Answer(From("ann@x.example"), kNow + 29 * kDay).replied);
}

TEST_F(RespondTest, PeriodZeroAnswersEveryMessage) {
  SetPeriodDays(0);
  EXPECT_TRUE(Answer(From("ann@x.example")).replied);
  EXPECT_TRUE(Answer(From("ann@x.example")).replied);
  EXPECT_EQ(Sent().size(), 2u);
  EXPECT_EQ(SentRows(), std::to_string(responder_id_) + ":ann@x.example:1741000000");
}

TEST_F(RespondTest, AFailedSendForgetsTheNewSender) {
  pnl_cf::SetPath(zelresponder::kSendPathKey, "echo 'cannot queue' >&2; exit 75");
  const Outcome o = Answer(From("ann@x.example"));
  EXPECT_FALSE(o.replied);
  EXPECT_TRUE(o.failed);
  EXPECT_EQ(o.recipient, "ann@x.example");
  EXPECT_EQ(o.reason,
            "the send command \"echo 'cannot queue' >&2; exit 75 -f '<>'\" failed with status 75: "
            "cannot queue");
  EXPECT_EQ(SentRows(), "");
  // The next message is answered.
  pnl_cf::SetPath(zelresponder::kSendPathKey, CaptureCommand());
  EXPECT_TRUE(Answer(From("ann@x.example"), kNow + 1).replied);
}

TEST_F(RespondTest, AFailedSendPutsBackTheEarlierRecord) {
  Remember("ann@x.example", kNow - 30 * kDay);
  pnl_cf::SetPath(zelresponder::kSendPathKey, "exit 1");
  EXPECT_TRUE(Answer(From("ann@x.example")).failed);
  EXPECT_EQ(SentRows(),
            std::to_string(responder_id_) + ":ann@x.example:" + std::to_string(kNow - 30 * kDay));
}

TEST_F(RespondTest, NoAnswerWithoutAnEnabledResponderOnAnActiveMailbox) {
  EXPECT_EQ(Answer(From("ann@x.example"), kNow, "zz@d.example").reason,
            "there is no mailbox zz@d.example");
  EXPECT_EQ(Answer(From("ann@x.example"), kNow, "l@other.example").reason,
            "there is no mailbox l@other.example");
  EXPECT_EQ(Answer(From("ann@x.example"), kNow, "not-an-address").reason,
            "there is no mailbox not-an-address");

  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->text = "";
  responder->Post();
  EXPECT_EQ(Answer(From("ann@x.example")).reason, "the responder has no text");
  responder->text = "away";
  responder->enabled = false;
  responder->Post();
  EXPECT_EQ(Answer(From("ann@x.example")).reason, "the responder is off");
  responder->enabled = true;
  responder->Post();

  auto mailbox = Db().Get<zel_db::EmailTable>();
  mailbox->Assert(std::to_string(mailbox_id_));
  mailbox->enabled = false;
  mailbox->Post();
  EXPECT_EQ(Answer(From("ann@x.example")).reason, "the mailbox is suspended");
  mailbox->enabled = true;
  mailbox->Post();

  auto domain = Db().Get<zel_db::EmailDomainTable>();
  domain->First();
  domain->enabled = false;
  domain->Post();
  EXPECT_EQ(Answer(From("ann@x.example")).reason, "the mail domain is suspended");
  domain->enabled = true;
  domain->Post();

  responder->Delete();
  EXPECT_EQ(Answer(From("ann@x.example")).reason, "the mailbox has no responder");
  EXPECT_TRUE(Sent().empty());
  EXPECT_EQ(SentRows(), "");
}

TEST_F(RespondTest, MailToAnAliasIsAnsweredFromTheMailbox) {
  ASSERT_TRUE(Answer(Sample("alias_cc.eml")).replied);
  const std::string reply = Sent()[0];
  EXPECT_EQ(reply.substr(0, reply.find("Subject:")),
            "From: l@d.example\nTo: erin@w.example\n");
}

TEST_F(RespondTest, AMailboxOfAUnicodeDomainIsNamedInEitherForm) {
  auto domain = Db().Get<zel_db::EmailDomainTable>();
  domain->New();
  domain->name = "m\xc3\xbcnchen.example";
  domain->Post();
  auto mailbox = Db().Get<zel_db::EmailTable>();
  mailbox->New();
  mailbox->name = "l";
  mailbox->domain = domain->id;
  mailbox->Post();
  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->New();
  responder->email = mailbox->id;
  responder->enabled = true;
  responder->text = "away";
  responder->Post();
  const Outcome o = Answer(From("ann@x.example", "Lou <l@m\xc3\xbcnchen.example>"), kNow,
                           "l@xn--mnchen-3ya.example");
  EXPECT_TRUE(o.replied) << o.reason;
  ASSERT_EQ(Sent().size(), 1u);
  EXPECT_EQ(Sent()[0].substr(0, Sent()[0].find("To:")), "From: l@xn--mnchen-3ya.example\n");
  EXPECT_NE(Normal(Sent()[0]).find("Message-ID: <ID>"), std::string::npos);
}

TEST_F(RespondTest, ARuleThatRefusesKeepsTheSenderUnremembered) {
  const Outcome o = Answer(Sample("list.eml"));
  EXPECT_FALSE(o.replied);
  EXPECT_FALSE(o.failed);
  EXPECT_EQ(o.recipient, "users-bounces+l=d.example@lists.v.example");
  EXPECT_EQ(o.reason, "the sender is a mailing list's address (users-bounces+l=d.example)");
  EXPECT_EQ(SentRows(), "");
}

TEST_F(RespondTest, SwitchingTheResponderOffForgetsItsSenders) {
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  ASSERT_TRUE(Answer(From("bob@y.example")).replied);
  SetResponderEnabled(false);
  EXPECT_EQ(SentRows(), "");
  SetResponderEnabled(true);
  EXPECT_TRUE(Answer(From("ann@x.example"), kNow + 1).replied);
}

TEST_F(RespondTest, ChangingTheTextOfAnEnabledResponderKeepsItsSenders) {
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->text = "Back next week.";
  responder->Post();
  EXPECT_EQ(SentRows(), std::to_string(responder_id_) + ":ann@x.example:1741000000");
}

TEST_F(RespondTest, SwitchingOneResponderOffKeepsTheSendersOfOthers) {
  auto mailbox = Db().Get<zel_db::EmailTable>();
  mailbox->Assert(std::to_string(mailbox_id_));
  auto other = Db().Get<zel_db::EmailTable>();
  other->New();
  other->name = "m";
  other->domain = mailbox->domain;
  other->Post();
  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->New();
  responder->email = other->id;
  responder->enabled = true;
  responder->text = "away";
  responder->Post();
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  ASSERT_TRUE(Answer(From("ann@x.example", "m@d.example"), kNow, "m@d.example").replied);
  SetResponderEnabled(false);
  EXPECT_EQ(SentRows(), responder->id.Str() + ":ann@x.example:1741000000");
}

TEST_F(RespondTest, DeletingTheMailboxForgetsItsResponderAndSenders) {
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  auto mailbox = Db().Get<zel_db::EmailTable>();
  mailbox->Assert(std::to_string(mailbox_id_));
  mailbox->Delete();
  EXPECT_EQ(Rows("SELECT count(*) FROM email_responder"), "0");
  EXPECT_EQ(SentRows(), "");
}

TEST_F(RespondTest, AnEnormousPeriodMeansNeverAgain) {
  SetPeriodDays(INT64_MAX / 2);
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  EXPECT_EQ(Answer(From("ann@x.example"), kNow + 3650 * kDay).reason,
            "the sender was answered on Mon, 03 Mar 2025 11:06:40 +0000, less than 1000000 days "
            "ago");
}

TEST_F(RespondTest, ADatabaseOfTheFirstVersionGetsTheForgettingWhenMigrated) {
  const std::string file = box_.Path("old.db");
  {
    auto old = pnl_db::Cache::Open(file, {zel_db::PanelSchema().front()});
    ASSERT_EQ(old->SchemaVersion(), 1);
  }
  auto db = pnl_db::Cache::Open(file, zel_db::PanelSchema());
  EXPECT_GE(db->SchemaVersion(), 2);
  db->Query("INSERT INTO email_domain (id, name) VALUES (1, 'd.example')");
  db->Query("INSERT INTO email (id, name, domain) VALUES (1, 'l', 1)");
  db->Query("INSERT INTO email_responder (id, email, enabled, text) VALUES (1, 1, 1, 'away')");
  db->Query("INSERT INTO email_responder_sent (responder, sender) VALUES (1, 'ann@x.example')");
  db->Query("UPDATE email_responder SET enabled = 0");
  EXPECT_EQ(db->Query("SELECT count(*) FROM email_responder_sent").Int(), 0);
}
