// A message delivered by a sandbox's real sendmail to a mailbox whose
// responder is on: sendmail pipes it to zelpnl-responder through the
// mailbox's aliases entry, as its default user (the mail user, from the
// sandbox's sendmail.mc), and the answer goes to the sandbox's smart host;
// nothing listens there in these tests, so it waits in the sandbox's
// answer queue, owned by that user.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "responder_fixture.h"
#include "zelapi/mail/tables.h"
#include "zelresponder/memory.h"

namespace {

class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "sendmail delivers to programs only when run as root";
    if (!std::filesystem::exists("/usr/sbin/sendmail") ||
        !std::filesystem::exists("/usr/share/sendmail/cf/m4/cf.m4"))
      GTEST_SKIP() << "sendmail or sendmail-cf is not installed";
  }

  std::string Dir() const { return box_.Path("sb"); }
  std::string Conf() const { return Dir() + "/zelpnl.conf"; }

  // zelpnl --config <sandbox> args; expects success.
  void Zel(const std::string& args) {
    std::string output;
    ASSERT_EQ(zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl --config " + Conf() + " " +
                                    args,
                                &output),
              0)
        << args << ": " << output;
  }

  // Delivers message from sender to recipient with the sandbox's sendmail,
  // at once (-odi), as root: sendmail runs the responder as its default
  // user.
  void Deliver(const std::string& sender, const std::string& recipient,
               const std::string& message) {
    box_.Write("in.eml", message);
    std::string output;
    zeltest::RunShell("/usr/sbin/sendmail -C " + Dir() + "/sendmail.cf -f " + sender +
                          " -oi -odi " + recipient + " < " + box_.Path("in.eml"),
                      &output);
    last_delivery_ = output;
  }

  // The queue files (qf*) of the sandbox's queue that hold an automatic
  // answer.
  std::vector<std::string> QueuedAnswers() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(Dir() + "/answers")) {
      if (entry.path().filename().string().rfind("qf", 0) != 0) continue;
      const std::string text = zeltest::ReadFile(entry.path());
      if (text.find("Auto-Submitted: auto-replied\n") != std::string::npos) found.push_back(text);
    }
    return found;
  }

  static std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
  }

  std::string last_delivery_;
  zeltest::Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

bool HasLine(const std::vector<std::string>& lines, const std::string& line) {
  for (const std::string& l : lines)
    if (l == line) return true;
  return false;
}

// The recipient lines of a queue file: "R" lines are the recipients sendmail
// delivers to.
std::vector<std::string> Recipients(const std::vector<std::string>& qf) {
  std::vector<std::string> out;
  for (const std::string& line : qf)
    if (!line.empty() && line[0] == 'R') out.push_back(line);
  return out;
}

unsigned Owner(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_uid : ~0u;
}

}  // namespace

TEST_F(EndToEndTest, SendmailPipesTheMessageToTheResponderAndTheAnswerIsQueued) {
  std::string output;
  ASSERT_EQ(zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl init --sandbox " + Dir(),
                              &output),
            0)
      << output;
  ASSERT_TRUE(std::filesystem::exists(Dir() + "/sendmail.cf"));
  const struct passwd* mail = ::getpwnam("mail");
  ASSERT_NE(mail, nullptr);

  Zel("webdomain add d.example --owner admin");
  Zel("mail domain add d.example");
  Zel("mail box add l@d.example --alias contact");
  Zel("mail responder l@d.example on --subject Away --text 'Back on Monday.'");
  // The action names the responder's own configuration, not the panel's.
  ASSERT_NE(zeltest::ReadFile(Dir() + "/aliases")
                .find("\"|" + std::string(ZEL_BIN_DIR) + "/zelpnl-responder --config " + Dir() +
                      "/responder.conf l@d.example\""),
            std::string::npos);

  // Many recipients in the header: the answer still has one.
  const std::string message =
      "From: Ann <ann@x.example>\n"
      "To: Contact <contact@d.example>, Zoe <zoe@z.example>\n"
      "Cc: cc@c.example\n"
      "Bcc: bcc@b.example\n"
      "Reply-To: other@o.example\n"
      "Subject: Hello\n"
      "Message-ID: <e2e-1@x.example>\n"
      "\n"
      "Are you there?\n";
  Deliver("ann@x.example", "contact@d.example", message);

  const std::vector<std::string> answers = QueuedAnswers();
  ASSERT_EQ(answers.size(), 1u) << "sendmail said: " << last_delivery_ << "\nlog:\n"
                                << zeltest::ReadFile(Dir() + "/responder.log");
  const std::vector<std::string> qf = Lines(answers[0]);
  // The null envelope sender, and exactly one recipient: the sender of the
  // message.
  EXPECT_TRUE(HasLine(qf, "S<>")) << answers[0];
  const std::vector<std::string> recipients = Recipients(qf);
  ASSERT_EQ(recipients.size(), 1u) << answers[0];
  EXPECT_EQ(recipients[0].substr(recipients[0].rfind(':')), ":ann@x.example") << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??From: l@d.example")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??To: ann@x.example")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??Subject: Away")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??In-Reply-To: <e2e-1@x.example>")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??Auto-Submitted: auto-replied")) << answers[0];
  for (const std::string& line : qf) {
    EXPECT_EQ(line.rfind("H??Cc:", 0), std::string::npos) << line;
    EXPECT_EQ(line.rfind("H??Bcc:", 0), std::string::npos) << line;
  }
  // Queued by the responder's user, in its own queue.
  EXPECT_NE(answers[0].find("Received: (from mail@localhost)"), std::string::npos) << answers[0];
  // The body file of the same queue entry holds the text.
  const std::string id = [&] {
    for (const auto& entry : std::filesystem::directory_iterator(Dir() + "/answers")) {
      const std::string name = entry.path().filename().string();
      if (name.rfind("qf", 0) == 0 && zeltest::ReadFile(entry.path()) == answers[0])
        return name.substr(2);
    }
    return std::string();
  }();
  EXPECT_EQ(zeltest::ReadFile(Dir() + "/answers/df" + id), "Back on Monday.\n");
  EXPECT_EQ(Owner(Dir() + "/answers/qf" + id), mail->pw_uid);

  const std::string log = zeltest::ReadFile(Dir() + "/responder.log");
  EXPECT_NE(log.find("info zelpnl/responder: answered ann@x.example for l@d.example"),
            std::string::npos)
      << log;

  // It remembered the sender in its own memory, a file of the mail user's;
  // the panel database has no trace of it.
  const std::string memory = Dir() + "/responder-memory/sent.db";
  EXPECT_EQ(Owner(memory), mail->pw_uid);
  std::unique_ptr<pnl_db::Cache> db =
      pnl_db::Cache::Open(Dir() + "/panel.db", zel_db::PanelSchema());
  EXPECT_EQ(db->Query("SELECT count(*) FROM email_responder_sent").Int(), 0);
  {
    zelresponder::Memory remembered(memory);
    EXPECT_EQ(remembered.Db().Query("SELECT mailbox || ' ' || sender FROM sent").Str(),
              "l@d.example ann@x.example");
  }

  // The same sender again: no second answer.
  Deliver("ann@x.example", "l@d.example",
          "From: Ann <ann@x.example>\nTo: l@d.example\nSubject: Again\n\nStill there?\n");
  EXPECT_EQ(QueuedAnswers().size(), 1u);

  // Switched off and on, the responder answers each sender anew.
  Zel("mail responder l@d.example off");
  EXPECT_FALSE(std::filesystem::exists(Dir() + "/responder/d.example/l"));
  Zel("mail responder l@d.example on");
  Deliver("ann@x.example", "l@d.example",
          "From: Ann <ann@x.example>\nTo: l@d.example\nSubject: Back?\n\nAnd now?\n");
  EXPECT_EQ(QueuedAnswers().size(), 2u) << zeltest::ReadFile(Dir() + "/responder.log");

  // A suspended mailbox does not answer, whatever its aliases entry says:
  // its settings are gone.
  Zel("mail box suspend l@d.example");
  EXPECT_FALSE(std::filesystem::exists(Dir() + "/responder/d.example/l"));
}
