// A message delivered by a sandbox's real sendmail to a mailbox whose
// responder is on: sendmail pipes it to zelpnl-responder through the
// mailbox's aliases entry, and the answer lands in the sandbox's queue.
//
// sendmail runs a program of a root-owned aliases file as its DefaultUser
// (daemon), which may not write the sandbox's root-owned database and log;
// the delivery here is made with DefaultUser=0:0 so that the program runs
// as root, the owner of the sandbox. The answer is sent with "-odq": queued
// only, never sent on.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "responder_fixture.h"
#include "zelapi/mail/tables.h"

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
  // at once (-odi).
  void Deliver(const std::string& sender, const std::string& recipient,
               const std::string& message) {
    box_.Write("in.eml", message);
    std::string output;
    zeltest::RunShell("/usr/sbin/sendmail -C " + Dir() + "/sendmail.cf -ODefaultUser=0:0 -f " +
                          sender + " -oi -odi " + recipient + " < " + box_.Path("in.eml"),
                      &output);
    last_delivery_ = output;
  }

  // The queue files (qf*) of the sandbox's queue that hold an automatic
  // answer.
  std::vector<std::string> QueuedAnswers() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(Dir() + "/queue")) {
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

}  // namespace

TEST_F(EndToEndTest, SendmailPipesTheMessageToTheResponderAndTheAnswerIsQueued) {
  std::string output;
  ASSERT_EQ(zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl init --sandbox " + Dir(),
                              &output),
            0)
      << output;
  ASSERT_TRUE(std::filesystem::exists(Dir() + "/sendmail.cf"));
  // The responder action names the built program; answers are queued only.
  std::string conf = zeltest::ReadFile(Conf());
  const size_t key = conf.find("zelpnl-responder = ");
  ASSERT_NE(key, std::string::npos);
  conf.replace(key, conf.find('\n', key) - key,
               std::string("zelpnl-responder = ") + ZEL_BIN_DIR + "/zelpnl-responder");
  conf += "responder-sendmail = /usr/sbin/sendmail -C " + Dir() + "/sendmail.cf -odq -t -oi\n";
  zeltest::WriteFile(Conf(), conf);

  Zel("webdomain add d.example --owner admin");
  Zel("mail domain add d.example");
  Zel("mail box add l@d.example --alias contact");
  Zel("mail responder l@d.example on --subject Away --text 'Back on Monday.'");
  ASSERT_NE(zeltest::ReadFile(Dir() + "/aliases")
                .find("\"|" + std::string(ZEL_BIN_DIR) + "/zelpnl-responder --config " + Conf() +
                      " l@d.example\""),
            std::string::npos);

  const std::string message =
      "From: Ann <ann@x.example>\n"
      "To: Contact <contact@d.example>\n"
      "Subject: Hello\n"
      "Message-ID: <e2e-1@x.example>\n"
      "\n"
      "Are you there?\n";
  Deliver("ann@x.example", "contact@d.example", message);

  const std::vector<std::string> answers = QueuedAnswers();
  ASSERT_EQ(answers.size(), 1u) << "sendmail said: " << last_delivery_ << "\nlog:\n"
                                << zeltest::ReadFile(Dir() + "/zelpnl.log");
  const std::vector<std::string> qf = Lines(answers[0]);
  // The null envelope sender, the sender of the message as recipient.
  EXPECT_TRUE(HasLine(qf, "S<>")) << answers[0];
  bool to_sender = false;
  for (const std::string& line : qf)
    if (line.rfind("R", 0) == 0 && line.size() > 14 &&
        line.compare(line.size() - 14, 14, ":ann@x.example") == 0)
      to_sender = true;
  EXPECT_TRUE(to_sender) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??From: l@d.example")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??To: ann@x.example")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??Subject: Away")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??In-Reply-To: <e2e-1@x.example>")) << answers[0];
  EXPECT_TRUE(HasLine(qf, "H??Auto-Submitted: auto-replied")) << answers[0];
  // The body file of the same queue entry holds the text.
  const std::string id = [&] {
    for (const auto& entry : std::filesystem::directory_iterator(Dir() + "/queue")) {
      const std::string name = entry.path().filename().string();
      if (name.rfind("qf", 0) == 0 && zeltest::ReadFile(entry.path()) == answers[0])
        return name.substr(2);
    }
    return std::string();
  }();
  EXPECT_EQ(zeltest::ReadFile(Dir() + "/queue/df" + id), "Back on Monday.\n");

  const std::string log = zeltest::ReadFile(Dir() + "/zelpnl.log");
  EXPECT_NE(log.find("info zelpnl/responder: answered ann@x.example for l@d.example"),
            std::string::npos)
      << log;

  // The same sender again: no second answer.
  Deliver("ann@x.example", "l@d.example",
          "From: Ann <ann@x.example>\nTo: l@d.example\nSubject: Again\n\nStill there?\n");
  EXPECT_EQ(QueuedAnswers().size(), 1u);

  // Switched off, the responder forgets whom it answered.
  std::unique_ptr<pnl_db::Cache> db =
      pnl_db::Cache::Open(Dir() + "/panel.db", zel_db::PanelSchema());
  EXPECT_EQ(db->Query("SELECT sender FROM email_responder_sent").Str(), "ann@x.example");
  Zel("mail responder l@d.example off");
  EXPECT_TRUE(db->Query("SELECT sender FROM email_responder_sent").Eof());
}
