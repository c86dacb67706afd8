// Respond on a mailbox's settings: the answer, the one recipient on the send
// command's command line, the memory of the senders answered, and the stamp
// that makes it forget them.
#include <filesystem>

#include "responder_fixture.h"
#include "zelapi/cf.h"
#include "zelapi/mail/tables.h"
#include "zelresponder/responder.h"

using zelresponder::Memory;
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
  // The memory of this process (root's own file; the program's is the mail
  // user's).
  Memory& Mem() {
    if (!memory_) memory_ = std::make_unique<Memory>(box_.Path("in-process.db"));
    return *memory_;
  }
  Outcome Answer(const std::string& message, std::time_t now = kNow,
                 const std::string& address = "l@d.example") {
    const auto settings = Settings(address);
    EXPECT_TRUE(settings.has_value()) << address;
    if (!settings) return Outcome();
    return Respond(*settings, Mem(), Message::Parse(message), now);
  }
  std::string SentRows() {
    std::string out;
    for (pnl_db::Query q = Mem().Db().Query("SELECT mailbox, sender, sent_at FROM sent ORDER BY "
                                            "sent_at, sender");
         !q.Eof(); q.Next()) {
      if (!out.empty()) out += "|";
      out += q.Str(0) + ":" + q.Str(1) + ":" + q.Str(2);
    }
    return out;
  }
  void Remember(const std::string& sender, int64_t sent_at) {
    Mem().Db().Query("INSERT INTO sent (mailbox, sender, stamp, sent_at) VALUES (?, ?, ?, ?)",
                     {"l@d.example", sender, Settings()->stamp, static_cast<long long>(sent_at)});
  }
  void TearDown() override {
    memory_.reset();
    ResponderTest::TearDown();
  }

  std::unique_ptr<Memory> memory_;
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
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:1741000000");
}

// The answer goes to the one recipient on the command line, after "--", with
// the null envelope sender; never -t, which reads recipients from the header.
TEST_F(RespondTest, TheSendCommandGetsTheOneRecipientAsItsOwnArgumentAfterDoubleDash) {
  ASSERT_TRUE(Answer(Sample("plain.eml")).replied);
  EXPECT_EQ(SentArgs()[0], "-oi\n-f\n<>\n--\nann@x.example\n");
}

TEST_F(RespondTest, ASendCommandThatReadsRecipientsFromTheHeaderIsRefused) {
  for (const std::string command :
       {"/usr/sbin/sendmail -t -oi", "/usr/sbin/sendmail -oi -t", "/usr/sbin/sendmail -ti",
        "/usr/sbin/sendmail -itv"}) {
    pnl_cf::SetPath(zelresponder::kSendPathKey, command);
    const Outcome o = Answer(From("ann@x.example"));
    EXPECT_FALSE(o.replied) << command;
    EXPECT_TRUE(o.failed) << command;
    EXPECT_NE(o.reason.find("reads recipients from the header"), std::string::npos) << o.reason;
  }
  EXPECT_EQ(SentRows(), "");
  EXPECT_TRUE(Sent().empty());
}

TEST_F(RespondTest, TheResponderOwnSubjectReplacesReOriginal) {
  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->subject = "Out of office";
  responder->Post();
  Publish();
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
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:1741000000");

  ASSERT_TRUE(Answer(From("ann@x.example"), kNow + 7 * kDay).replied);
  EXPECT_EQ(Sent().size(), 2u);
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:" + std::to_string(kNow + 7 * kDay));
}

TEST_F(RespondTest, SendersAreRememberedWithoutRegardToCase) {
  ASSERT_TRUE(Answer(From("Ann@X.Example")).replied);
  EXPECT_FALSE(Answer(From("ann@x.example"), kNow + 1).replied);
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:1741000000");
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
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:1741000000");
}

TEST_F(RespondTest, AFailedSendForgetsTheNewSender) {
  pnl_cf::SetPath(zelresponder::kSendPathKey, "echo 'cannot queue' >&2; exit 75");
  const Outcome o = Answer(From("ann@x.example"));
  EXPECT_FALSE(o.replied);
  EXPECT_TRUE(o.failed);
  EXPECT_EQ(o.recipient, "ann@x.example");
  EXPECT_EQ(o.reason,
            "the send command \"echo 'cannot queue' >&2; exit 75 -f '<>' -- ann@x.example\" "
            "failed with status 75: cannot queue");
  EXPECT_EQ(SentRows(), "");
  // The next message is answered.
  pnl_cf::SetPath(zelresponder::kSendPathKey, CaptureCommand());
  EXPECT_TRUE(Answer(From("ann@x.example"), kNow + 1).replied);
}

TEST_F(RespondTest, AFailedSendPutsBackTheEarlierRecord) {
  Remember("ann@x.example", kNow - 30 * kDay);
  pnl_cf::SetPath(zelresponder::kSendPathKey, "exit 1");
  EXPECT_TRUE(Answer(From("ann@x.example")).failed);
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:" + std::to_string(kNow - 30 * kDay));
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
  Publish();
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

// Switched off and on, the mailbox's settings get a new stamp, and the
// senders answered under the old one are answered anew.
TEST_F(RespondTest, SwitchingTheResponderOffAndOnForgetsItsSenders) {
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  ASSERT_TRUE(Answer(From("bob@y.example")).replied);
  const std::string stamp = Settings()->stamp;
  SetResponderEnabled(false);
  EXPECT_FALSE(Settings().has_value());
  SetResponderEnabled(true);
  EXPECT_NE(Settings()->stamp, stamp);
  EXPECT_TRUE(Answer(From("ann@x.example"), kNow + 1).replied);
  // The records of the old stamp are gone with the first answer.
  EXPECT_EQ(SentRows(), "l@d.example:ann@x.example:" + std::to_string(kNow + 1));
}

TEST_F(RespondTest, ChangingTheTextOfAnEnabledResponderKeepsItsSenders) {
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  const std::string stamp = Settings()->stamp;
  auto responder = Db().Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->text = "Back next week.";
  responder->Post();
  Publish();
  EXPECT_EQ(Settings()->text, "Back next week.");
  EXPECT_EQ(Settings()->stamp, stamp);
  EXPECT_FALSE(Answer(From("ann@x.example"), kNow + 1).replied);
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
  Publish();
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  ASSERT_TRUE(Answer(From("ann@x.example", "m@d.example"), kNow, "m@d.example").replied);
  SetResponderEnabled(false);
  SetResponderEnabled(true);
  ASSERT_TRUE(Answer(From("bob@y.example"), kNow + 1).replied);
  EXPECT_EQ(SentRows(), "m@d.example:ann@x.example:1741000000|l@d.example:bob@y.example:" +
                            std::to_string(kNow + 1));
  EXPECT_FALSE(Answer(From("ann@x.example", "m@d.example"), kNow + 2, "m@d.example").replied);
}

TEST_F(RespondTest, AnEnormousPeriodMeansNeverAgain) {
  SetPeriodDays(INT64_MAX / 2);
  EXPECT_EQ(Settings()->period_days, 1000000);
  ASSERT_TRUE(Answer(From("ann@x.example")).replied);
  EXPECT_EQ(Answer(From("ann@x.example"), kNow + 3650 * kDay).reason,
            "the sender was answered on Mon, 03 Mar 2025 11:06:40 +0000, less than 1000000 days "
            "ago");
}

// Every answer goes to exactly one address; a sender field that is several
// addresses, or one with tricks a header or command line could misread, is
// not answered and nothing is sent or remembered.
TEST_F(RespondTest, HostileSendersAreNeitherAnsweredNorRemembered) {
  const std::vector<std::string> envelopes = {
      "a@x.example,b@y.example", "<a@x.example>,b@y.example", "\"a@x.example\"@y.example",
      "-oQ/tmp@x.example",       "a@x.example%b@y.example",   "|/bin/sh@x.example",
      "a(c)@x.example",          std::string(300, 'a') + "@x.example"};
  for (const std::string& sender : envelopes) {
    const Outcome o = Answer(From(sender), kNow);
    EXPECT_FALSE(o.replied) << sender;
    EXPECT_FALSE(o.failed) << sender;
  }
  const std::vector<std::string> from_fields = {
      "a@x.example, b@y.example",  "<a@x.example> b@y.example", "g: a@x.example, b@y.example;",
      "a@x.example (b@y.example)", "\"a@x\" b@y.example",        "A <a@x.example>, <b@y.example>",
      "<a@x.example><b@y.example>", "a@x.example <b@y.example>", "<@relay.example:a@x.example>"};
  for (const std::string& from : from_fields) {
    const Outcome o = Answer("From: " + from + "\nTo: l@d.example\nSubject: s\n\nbody\n", kNow);
    EXPECT_FALSE(o.replied) << from;
  }
  EXPECT_TRUE(Sent().empty());
  EXPECT_EQ(SentRows(), "");
}
