// The built zelpnl-responder, fed real messages on its standard input, run
// as the mail user (as sendmail runs it) when the tests run as root, with a
// send command that keeps what it would send.
#include <filesystem>
#include <regex>

#include "responder_fixture.h"
#include "zelapi/mail/tables.h"

using zeltest::Normal;
using zeltest::ResponderTest;
using zeltest::Sample;

namespace {

class ProgramTest : public ResponderTest {
 protected:
  // Runs the program on message; expects exit status 0 and nothing on
  // standard output or error.
  void Feed(const std::string& message) {
    std::string output;
    EXPECT_EQ(Run(message, "l@d.example", &output), 0);
    EXPECT_EQ(output, "");
  }
  // Expects one answer, and returns it normalised.
  std::string OneAnswer() {
    const auto sent = Sent();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? std::string() : Normal(sent[0]);
  }
  // Expects no answer, and a last log line giving reason.
  void ExpectNoAnswer(const std::string& reason) {
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(LastLog(), "info zelpnl/responder: no answer for l@d.example" + reason);
  }
};

// plain.eml with extra header lines after its Subject.
std::string PlainWith(const std::string& lines) {
  std::string text = Sample("plain.eml");
  const size_t at = text.find("Message-ID:");
  return text.insert(at, lines);
}

const char kAnswerBody[] =
    "Auto-Submitted: auto-replied\n"
    "MIME-Version: 1.0\n"
    "Content-Type: text/plain; charset=UTF-8\n"
    "Content-Transfer-Encoding: 7bit\n"
    "\n"
    "I am away until Monday.\n"
    "Your message will be read then.\n";

}  // namespace

TEST_F(ProgramTest, APlainMessageIsAnsweredOnceFromTheMailboxToTheEnvelopeSender) {
  Feed(Sample("plain.eml"));
  EXPECT_EQ(OneAnswer(), std::string("From: l@d.example\n"
                                     "To: ann@x.example\n"
                                     "Subject: Re: Meeting on Tuesday\n"
                                     "Date: DATE\n"
                                     "Message-ID: <ID>\n"
                                     "In-Reply-To: <20250303101500.plain@x.example>\n"
                                     "References: <20250303101500.plain@x.example>\n") +
                             kAnswerBody);
  // The one recipient is an argument of its own after "--"; the answer's
  // envelope sender is null.
  EXPECT_EQ(SentArgs()[0], "-oi\n-f\n<>\n--\nann@x.example\n");
  EXPECT_EQ(LastLog(), "info zelpnl/responder: answered ann@x.example for l@d.example");
  // Remembered in the program's own memory, not in the panel database.
  EXPECT_TRUE(std::regex_match(MemoryRows(), std::regex("l@d\\.example:ann@x\\.example:[0-9]+")))
      << MemoryRows();
  EXPECT_EQ(Rows("SELECT count(*) FROM email_responder_sent"), "0");
}

TEST_F(ProgramTest, AMultipartMessageIsAnsweredInItsThread) {
  Feed(Sample("multipart.eml"));
  EXPECT_EQ(OneAnswer(), std::string("From: l@d.example\n"
                                     "To: bob@y.example\n"
                                     "Subject: Re: =?UTF-8?Q?Angebot_f=C3=BCr_M=C3=A4rz?=\n"
                                     "Date: DATE\n"
                                     "Message-ID: <ID>\n"
                                     "In-Reply-To: <cafe.1741097529@y.example>\n"
                                     "References: <start.1740000000@y.example> "
                                     "<20250303101500.plain@x.example>\n"
                                     " <cafe.1741097529@y.example>\n") +
                             kAnswerBody);
}

TEST_F(ProgramTest, AMessageToAnAliasInCcIsAnsweredFromTheMailbox) {
  Feed(Sample("alias_cc.eml"));
  EXPECT_EQ(OneAnswer(), std::string("From: l@d.example\n"
                                     "To: erin@w.example\n"
                                     "Subject: Re: Question about an order\n"
                                     "Date: DATE\n"
                                     "Message-ID: <ID>\n"
                                     "In-Reply-To: <q.77@w.example>\n"
                                     "References: <q.77@w.example>\n") +
                             kAnswerBody);
}

TEST_F(ProgramTest, AMessageWithoutToOrCcIsNotAnswered) {
  Feed(Sample("no_to.eml"));
  ExpectNoAnswer(" to dave@z.example: the message does not name the mailbox in To or Cc");
}

TEST_F(ProgramTest, ListMailIsNotAnswered) {
  Feed(Sample("list.eml"));
  ExpectNoAnswer(" to users-bounces+l=d.example@lists.v.example: the sender is a mailing list's "
                 "address (users-bounces+l=d.example)");
  // The same from a person's own envelope address: the list fields tell.
  Feed(PlainWith("List-Id: Users of V <users.lists.v.example>\n"));
  ExpectNoAnswer(" to ann@x.example: the message is list mail (List-Id)");
  Feed(PlainWith("List-Unsubscribe: <mailto:leave@lists.v.example>\n"));
  ExpectNoAnswer(" to ann@x.example: the message is list mail (List-Unsubscribe)");
}

TEST_F(ProgramTest, BulkJunkAndListPrecedenceAreNotAnswered) {
  for (const char* value : {"bulk", "junk", "list"}) {
    Feed(PlainWith(std::string("Precedence: ") + value + "\n"));
    ExpectNoAnswer(std::string(" to ann@x.example: the message is bulk mail (Precedence: ") + value +
                   ")");
  }
}

TEST_F(ProgramTest, BouncesAreNotAnswered) {
  Feed(Sample("bounce.eml"));
  ExpectNoAnswer(" to MAILER-DAEMON: the sender is a mail system (mailer-daemon)");
  Feed(Sample("null_return_path.eml"));
  ExpectNoAnswer(": the sender is empty (Return-Path <>): a bounce is never answered");
  const std::string plain = Sample("plain.eml");
  Feed("From <> Sat Mar  8 10:00:05 2025\n" + plain.substr(plain.find('\n') + 1));
  ExpectNoAnswer(": the sender is empty (envelope <>): a bounce is never answered");
  Feed(PlainWith("").replace(5, 13, "postmaster@x.example"));
  ExpectNoAnswer(" to postmaster@x.example: the sender is a mail system (postmaster)");
  EXPECT_EQ(MemoryRows(), "");
}

TEST_F(ProgramTest, AutomaticAnswersAreNotAnswered) {
  Feed(Sample("auto_replied.eml"));
  ExpectNoAnswer(" to hank@t.example: the message is automatic (Auto-Submitted: auto-replied)");
  Feed(PlainWith("Auto-Submitted: auto-generated\n"));
  ExpectNoAnswer(" to ann@x.example: the message is automatic (Auto-Submitted: auto-generated)");
}

TEST_F(ProgramTest, RepeatedSendersAreAnsweredOncePerPeriod) {
  Feed(Sample("plain.eml"));
  Feed(Sample("plain.eml"));
  Feed(Sample("alias_cc.eml"));
  Feed(Sample("plain.eml"));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_NE(sent[0].find("\nTo: ann@x.example\n"), std::string::npos);
  EXPECT_NE(sent[1].find("\nTo: erin@w.example\n"), std::string::npos);
  const auto log = Log();
  ASSERT_EQ(log.size(), 4u);
  EXPECT_TRUE(std::regex_match(
      log[1], std::regex("info zelpnl/responder: no answer for l@d\\.example to ann@x\\.example: "
                         "the sender was answered on [A-Z][a-z][a-z], .* \\+0000, less than 7 "
                         "days ago")))
      << log[1];
  EXPECT_EQ(log[3], log[1]);
  // Eight days later (the record made older), the sender is answered again.
  OnMemory("UPDATE sent SET sent_at = sent_at - 8 * 86400");
  Feed(Sample("plain.eml"));
  EXPECT_EQ(Sent().size(), 3u);
}

TEST_F(ProgramTest, BrokenHeadersAreReadUpToTheBrokenLine) {
  Feed(Sample("broken_header.eml"));
  EXPECT_EQ(OneAnswer(), std::string("From: l@d.example\n"
                                     "To: ivy@s.example\n"
                                     "Subject: Re: Broken tabs,  folded lines and a control character\n"
                                     "Date: DATE\n"
                                     "Message-ID: <ID>\n"
                                     "In-Reply-To: <broken@s.example>\n"
                                     "References: <old@s.example> <broken@s.example>\n") +
                             kAnswerBody);
}

TEST_F(ProgramTest, LinesEndedByCarriageReturnAndLineFeedAreRead) {
  Feed(Sample("crlf.eml"));
  EXPECT_EQ(OneAnswer(), std::string("From: l@d.example\n"
                                     "To: kim@r.example\n"
                                     "Subject: Re: Lines ended by CR LF\n"
                                     "Date: DATE\n"
                                     "Message-ID: <ID>\n"
                                     "In-Reply-To: <crlf@r.example>\n"
                                     "References: <crlf@r.example>\n") +
                             kAnswerBody);
}

TEST_F(ProgramTest, WithoutEnvelopeLineTheSenderFieldIsAnswered) {
  Feed(Sample("no_envelope.eml"));
  EXPECT_NE(OneAnswer().find("\nTo: assistant@q.example\n"), std::string::npos);
  EXPECT_EQ(LastLog(), "info zelpnl/responder: answered assistant@q.example for l@d.example");
}

TEST_F(ProgramTest, GarbageAndEmptyInputAreNotAnswered) {
  Feed("");
  ExpectNoAnswer(": the message names no sender");
  Feed(std::string("\0\xff\xfe\n\n\x01\x02", 7));
  ExpectNoAnswer(": the message names no sender");
  Feed("From \n\n");
  ExpectNoAnswer(": the sender is empty (envelope <>): a bounce is never answered");
}

TEST_F(ProgramTest, HugeHeadersAreReadUpToTheLimitWithoutHarm) {
  // 20,000 Received fields, 1.3 MB, after the fields that matter: the header
  // is read up to the limit and the message answered.
  std::string received;
  for (int i = 0; i < 20000; ++i)
    received += "Received: from relay" + std::to_string(i) + ".x.example by mx.x.example; Mon\n";
  Feed(PlainWith(received));
  ASSERT_EQ(Sent().size(), 1u);
  EXPECT_NE(Sent()[0].find("\nTo: ann@x.example\n"), std::string::npos);

  // A 300 KB subject of words: cut after a whole word within 200 bytes.
  OnMemory("DELETE FROM sent");
  std::string subject;
  while (subject.size() < 300000) subject += "very long ";
  Feed(PlainWith("").replace(PlainWith("").find("Subject: ") + 9, 18, subject));
  ASSERT_EQ(Sent().size(), 2u);
  // 199 bytes: 40 words.
  std::string expected = "Re:";
  for (int i = 0; i < 40; ++i) expected += std::string(i % 2 == 0 ? " very" : " long");
  std::string unfolded;
  const std::string second = Sent()[1];
  const size_t start = second.find("Subject: ") + 9;
  for (size_t i = start; second[i] != '\n' || second[i + 1] == ' '; ++i)
    if (second[i] != '\n') unfolded += second[i];
  EXPECT_EQ(unfolded, expected);

  // 10,000 other recipients before the mailbox in To.
  OnMemory("DELETE FROM sent");
  std::string to = "To: ";
  for (int i = 0; i < 10000; ++i) to += "user" + std::to_string(i) + "@x.example,\n ";
  to += "l@d.example\n";
  std::string many = Sample("plain.eml");
  many.replace(many.find("To: Lou <l@d.example>\n"), 22, to);
  Feed(many);
  EXPECT_EQ(Sent().size(), 3u);
}

TEST_F(ProgramTest, TheWholeInputIsReadSoTheDelivererNeverSeesABrokenPipe) {
  // A 5 MB body after the header: sendmail writes all of it into the pipe.
  std::string message = Sample("plain.eml");
  std::string line(76, 'A');
  line += "\n";
  while (message.size() < (5u << 20)) message += line;
  box_.Write("big.eml", message);
  std::string output;
  const int status = zeltest::RunShell(
      "(cat " + box_.Path("big.eml") + "; echo $? > " + box_.Path("cat-status") + ") | TZ=UTC " +
          AsMailUser() + ZEL_BIN_DIR + "/zelpnl-responder --config " + Config() + " l@d.example",
      &output);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output, "");
  EXPECT_EQ(box_.Read("cat-status"), "0\n");
  EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(ProgramTest, AFailingSendCommandIsLoggedAsAnErrorAndTheExitStatusIsStillZero) {
  std::string config = box_.Read("responder.conf");
  config.replace(config.find("responder-sendmail = "), std::string::npos,
                 "responder-sendmail = exit 75\n");
  box_.Write("responder.conf", config);
  std::string output;
  EXPECT_EQ(Run(Sample("plain.eml"), "l@d.example", &output), 0);
  const std::string line =
      "error zelpnl/responder: no answer for l@d.example to ann@x.example: the send command "
      "\"exit 75 -f '<>' -- ann@x.example\" failed with status 75";
  EXPECT_EQ(LastLog(), line);
  // Errors are shown on standard error too.
  EXPECT_NE(output.find(line.substr(6)), std::string::npos) << output;
  EXPECT_EQ(MemoryRows(), "");
}

TEST_F(ProgramTest, ASendCommandWithMinusTIsRefused) {
  std::string config = box_.Read("responder.conf");
  config.replace(config.find("responder-sendmail = "), std::string::npos,
                 "responder-sendmail = " + CaptureCommand() + " -t\n");
  box_.Write("responder.conf", config);
  std::string output;
  EXPECT_EQ(Run(Sample("plain.eml"), "l@d.example", &output), 0);
  EXPECT_TRUE(Sent().empty());
  EXPECT_NE(LastLog().find("error zelpnl/responder: no answer for l@d.example to ann@x.example: "
                           "the send command \"" + CaptureCommand() +
                           " -t\" reads recipients from the header (\"-t\")"),
            std::string::npos)
      << LastLog();
}

TEST_F(ProgramTest, AMailboxWithoutSettingsOrAResponderSwitchedOffGivesNoAnswer) {
  const std::string reason =
      ": the mailbox does not answer (no responder settings: its responder is off, or it or "
      "its domain is suspended or gone)";
  std::string output;
  EXPECT_EQ(Run(Sample("plain.eml"), "zz@d.example", &output), 0);
  EXPECT_EQ(LastLog(), "info zelpnl/responder: no answer for zz@d.example" + reason);
  SetResponderEnabled(false);
  Feed(Sample("plain.eml"));
  ExpectNoAnswer(reason);
  EXPECT_EQ(MemoryRows(), "");
}

TEST_F(ProgramTest, AnAddressThatCannotNameASettingsFileIsRefused) {
  for (const char* address : {"l@../../etc", "l@d.example/../x", "nobody"}) {
    std::string output;
    EXPECT_EQ(Run(Sample("plain.eml"), address, &output), 0);
    EXPECT_NE(LastLog().find(std::string("error zelpnl/responder: no answer for ") + address +
                             ": " + address + ": cannot name a responder settings file"),
              std::string::npos)
        << LastLog();
  }
  EXPECT_TRUE(Sent().empty());
}

TEST_F(ProgramTest, BadUsageAndAMissingConfigurationExitZeroAndSayWhy) {
  std::string output;
  EXPECT_EQ(RunArgs(Sample("plain.eml"), "", &output), 0);
  EXPECT_NE(output.find("usage: zelpnl-responder [--config FILE] ADDRESS"), std::string::npos)
      << output;
  EXPECT_EQ(RunArgs(Sample("plain.eml"), "--config " + Config() + " a@b.example extra", &output), 0);
  EXPECT_NE(output.find("usage:"), std::string::npos) << output;
  EXPECT_EQ(RunArgs(Sample("plain.eml"), "--config " + box_.Path("missing.conf") + " l@d.example",
                    &output),
            0);
  EXPECT_NE(output.find("error zelpnl/responder: no answer for l@d.example: " +
                        box_.Path("missing.conf") + ": cannot read"),
            std::string::npos)
      << output;
  EXPECT_TRUE(Sent().empty());
}

TEST_F(ProgramTest, WithoutConfigOptionTheEnvironmentNamesTheConfiguration) {
  box_.Write("in.eml", Sample("plain.eml"));
  std::string output;
  EXPECT_EQ(zeltest::RunShell("TZ=UTC ZELPNL_RESPONDER_CONF=" + Config() + " " + AsMailUser() +
                                  ZEL_BIN_DIR + "/zelpnl-responder l@d.example < " +
                                  box_.Path("in.eml"),
                              &output),
            0);
  EXPECT_EQ(output, "");
  EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(ProgramTest, AnUnwritableLogFileLeavesTheLogOnStandardError) {
  std::string config = box_.Read("responder.conf");
  config.replace(config.find("log_file = "), config.find('\n', config.find("log_file = ")) -
                                                 config.find("log_file = "),
                 "log_file = " + box_.Path("no-such-folder/responder.log"));
  box_.Write("responder.conf", config);
  std::string output;
  EXPECT_EQ(Run(Sample("plain.eml"), "l@d.example", &output), 0);
  EXPECT_NE(output.find("warning zelpnl/responder: log file not used"), std::string::npos) << output;
  EXPECT_EQ(Sent().size(), 1u);
}

// What sendmail runs as root could write the panel's files: the program
// opens nothing then, not even its log or its memory (which their owner
// could have replaced by links to root's files).
TEST_F(ProgramTest, TheProgramRefusesToRunAsRoot) {
  if (!zeltest::AsRoot()) GTEST_SKIP() << "needs root";
  box_.Write("in.eml", Sample("plain.eml"));
  std::string output;
  EXPECT_EQ(zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl-responder --config " + Config() +
                                  " l@d.example < " + box_.Path("in.eml"),
                              &output),
            0);
  EXPECT_EQ(output,
            "zelpnl-responder: error: refusing to run as root (set sendmail's DefaultUser to an "
            "unprivileged user, such as mail); no answer sent\n");
  EXPECT_TRUE(Sent().empty());
  EXPECT_TRUE(Log().empty());
  EXPECT_FALSE(std::filesystem::exists(MemoryFile()));
}

// Senders that are several addresses, or one address with tricks, through
// sendmail's envelope line and through the header fields read without it:
// no answer, and the log says why.
TEST_F(ProgramTest, HostileSendersAreNotAnswered) {
  const std::string plain = Sample("plain.eml");
  const std::string body = plain.substr(plain.find('\n') + 1);
  const std::vector<std::pair<std::string, std::string>> envelopes = {
      {"a@x.example,b@y.example", "it holds more than one \"@\""},
      {"-oQ/tmp/x@x.example", "its local part starts with \"-\""},
      {"\"a,b\"@x.example", "its local part holds \"\"\""},
      {"a%b@x.example", "its local part holds \"%\""},
      {"|sh@x.example", "its local part holds \"|\""},
      {std::string(300, 'a') + "@x.example", "it is longer than 254 characters"},
      {"a@[192.0.2.1]", "its domain is no host name"},
      {"a@localhost", "its domain is no host name"},
  };
  for (const auto& [sender, why] : envelopes) {
    Feed("From " + sender + " Mon Mar  3 09:15:02 2025\n" + body);
    EXPECT_NE(LastLog().find(": the sender is no address an answer may go to: " + why),
              std::string::npos)
        << sender << ": " << LastLog();
  }
  const std::vector<std::pair<std::string, std::string>> froms = {
      {"a@x.example, b@y.example", "it holds several addresses"},
      {"<a@x.example> b@y.example", "it has text after the address in angle brackets"},
      {"team: a@x.example, b@y.example;", "it is a group or holds a source route"},
      {"team:;", "it is a group or holds a source route"},
      {"a@x.example (b@y.example)", "it holds a comment"},
      {"\"a@x.example\"@y.example", "it holds words or quotes besides one address"},
      {"a@x.example <b@y.example>", "it has an \"@\" outside the angle brackets"},
      {"<a@x.example><b@y.example>", "it holds more than one \"<\""},
      {"A <a@x.example", "its angle brackets do not pair"},
      {"<@r.example:a@x.example>", "it is a group or holds a source route"},
      {"\"open <a@x.example>", "it has an unterminated quoted string"},
  };
  for (const auto& [from, why] : froms) {
    Feed("From: " + from + "\nTo: l@d.example\nSubject: s\n\nbody\n");
    EXPECT_NE(LastLog().find(": the sender's From field is not one address: " + why),
              std::string::npos)
        << from << ": " << LastLog();
  }
  Feed("Return-Path: <a@x.example>, <b@y.example>\nFrom: c@z.example\nTo: l@d.example\n\n");
  EXPECT_NE(LastLog().find(": the sender's Return-Path field is not one address"),
            std::string::npos)
      << LastLog();
  // A carriage return inside a field (a line end to a later reader).
  Feed("From: a@x.example\rBcc: b@y.example\nTo: l@d.example\n\n");
  EXPECT_NE(LastLog().find(": the sender's From field is not one address: it holds a control "
                           "character"),
            std::string::npos)
      << LastLog();
  EXPECT_TRUE(Sent().empty());
  EXPECT_EQ(MemoryRows(), "");
}
