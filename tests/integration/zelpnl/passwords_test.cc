// zelpnl mail box: passwords and quotas. A password is taken from standard
// input, a file or the terminal, never from the command line; it is stored
// only as a hash the mail server verifies, and shown, logged or printed
// nowhere.
#include <poll.h>
#include <signal.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "zelapi/password.h"
#include "zelapi/proc.h"
#include "zelapi/str.h"
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

namespace {

constexpr char kSecret[] = "tr0ub4dor & 3";

class ZelpnlPasswordTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    Ok({"webdomain", "add", "d.example", "--owner", "admin"});
    Ok({"mail", "domain", "add", "d.example"});
  }
  std::string Hash(const std::string& local) {
    return Rows("SELECT password FROM email WHERE name = '" + local + "'");
  }
  // Dovecot's own verdict on the stored hash.
  int DovecotVerdict(const std::string& hash, const std::string& password) {
    pnl_proc::Execute run("/usr/bin/doveadm -c /dev/null pw -t " + str::ShellWord(hash) + " -p " +
                              str::ShellWord(password),
                          2);
    return run.Result();
  }
};

}  // namespace

TEST_F(ZelpnlPasswordTest, APasswordFromStandardInputIsStoredAsAHashDovecotVerifies) {
  const zeltest::Result run =
      Zel({"--json", "mail", "box", "add", "l@d.example", "--password-stdin"}, std::string(kSecret) + "\n");
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string hash = Hash("l");
  EXPECT_TRUE(pnl_password::LooksLikeHash(hash)) << hash;
  EXPECT_TRUE(pnl_password::Verify(hash, kSecret));
  EXPECT_EQ(DovecotVerdict(hash, kSecret), 0);
  EXPECT_NE(DovecotVerdict(hash, "tr0ub4dor & 4"), 0);
  EXPECT_EQ(nlohmann::ordered_json::parse(run.out)["mailbox"]["password"], true);
  // Neither the password nor its hash is printed or logged.
  for (const std::string& text : {run.out, run.err, File("zelpnl.log")}) {
    EXPECT_EQ(text.find(kSecret), std::string::npos) << text;
    EXPECT_EQ(text.find("argon2"), std::string::npos) << text;
  }
}

TEST_F(ZelpnlPasswordTest, AMailboxWithoutAPasswordHasNone) {
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(Hash("l"), "");
  EXPECT_EQ(Json({"mail", "box", "show", "l@d.example"})["mailbox"]["password"], false);
}

TEST_F(ZelpnlPasswordTest, SetChangesAndRemovesThePasswordWithoutTouchingTheFiles) {
  Ok({"mail", "box", "add", "l@d.example"});
  const auto files = State();
  const zeltest::Result set =
      Zel({"mail", "box", "set", "l@d.example", "--password-stdin"}, "another secret\r\n");
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_TRUE(pnl_password::Verify(Hash("l"), "another secret"));
  const std::string file = box_.Path("pw");
  std::filesystem::create_directories(box_.Path(""));
  {
    std::FILE* f = std::fopen(file.c_str(), "w");
    std::fputs("from a file\nsecond line ignored\n", f);
    std::fclose(f);
  }
  Ok({"mail", "box", "set", "l@d.example", "--password-file", file});
  EXPECT_TRUE(pnl_password::Verify(Hash("l"), "from a file"));
  Ok({"mail", "box", "set", "l@d.example", "--no-password"});
  EXPECT_EQ(Hash("l"), "");
  for (const char* name : {"virtusertable", "aliases", "access", "local-host-names"})
    EXPECT_EQ(File(name), files.at(name)) << name;
}

TEST_F(ZelpnlPasswordTest, AnUnfitPasswordIsRefusedAndNothingChanges) {
  const auto before = State();
  struct Case {
    std::vector<std::string> args;
    std::string input;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"--password-stdin"}, "short\n", "error: password: is shorter than 8 characters\n"},
      {{"--password-stdin"}, "", "error: password: standard input holds no line\n"},
      {{"--password-file", box_.Path("missing")}, "",
       "error: password: cannot read the file " + box_.Path("missing") + "\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"mail", "box", "add", "l@d.example"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args, c.input);
    EXPECT_EQ(run.status, 2) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
}

TEST_F(ZelpnlPasswordTest, APasswordIsNeverTakenFromTheCommandLine) {
  const zeltest::Result run = Zel({"mail", "box", "add", "l@d.example", "--password", kSecret});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(Count("email"), 0);
  EXPECT_EQ(run.err.find("tr0ub4dor"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("a password is never taken from the command line"), std::string::npos)
      << run.err;
}

TEST_F(ZelpnlPasswordTest, APromptNeedsATerminal) {
  // The tests run without a controlling terminal.
  const zeltest::Result run = Zel({"mail", "box", "add", "l@d.example", "--password"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "error: password: there is no terminal to ask on; give it with --password-stdin or "
            "--password-file\n");
  EXPECT_EQ(Count("email"), 0);
}

TEST_F(ZelpnlPasswordTest, TwoSourcesAtOnceAreRefused) {
  const zeltest::Result run =
      Zel({"mail", "box", "add", "l@d.example", "--password-stdin", "--password-file", "x"});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("excludes"), std::string::npos) << run.err;
}

TEST_F(ZelpnlPasswordTest, ABatchLineTakesItsPasswordFromAFileOnly) {
  const std::string file = box_.Path("pw");
  {
    std::FILE* f = std::fopen(file.c_str(), "w");
    std::fputs("batch secret\n", f);
    std::fclose(f);
  }
  const zeltest::Result refused = Zel({"batch", "-"}, "mail box add l@d.example --password-stdin\n");
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.err.find("reads the password from standard input; give it with "
                             "--password-file"),
            std::string::npos)
      << refused.err;
  EXPECT_EQ(Count("email"), 0);
  const zeltest::Result ok =
      Zel({"batch", "-"}, "mail box add l@d.example --password-file " + file + "\n");
  ASSERT_EQ(ok.status, 0) << ok.err;
  EXPECT_TRUE(pnl_password::Verify(Hash("l"), "batch secret"));
}

TEST_F(ZelpnlPasswordTest, AQuotaIsTheMailboxsOwnOrItsDomains) {
  Ok({"mail", "box", "add", "l@d.example", "--quota", "512M"});
  auto doc = Json({"mail", "box", "show", "l@d.example"});
  EXPECT_EQ(doc["mailbox"]["quota"], 512LL << 20);
  EXPECT_EQ(doc["mailbox"]["quota_limit"], 512LL << 20);
  EXPECT_NE(Zel({"mail", "box", "show", "l@d.example"}).out.find("quota:        512M, 0 bytes used\n"),
            std::string::npos);
  Ok({"mail", "box", "set", "l@d.example", "--quota", "0"});
  EXPECT_EQ(Json({"mail", "box", "show", "l@d.example"})["mailbox"]["quota_limit"], 0);
  for (const char* bad : {"-1", "12X", "", "99999999999999999T", "1.5G"}) {
    const zeltest::Result run = Zel({"mail", "box", "set", "l@d.example", "--quota", bad});
    EXPECT_EQ(run.status, 2) << bad;
  }
}

TEST_F(ZelpnlPasswordTest, PasswordAndQuotaOutliveASyncWithTheFiles) {
  ASSERT_EQ(Zel({"mail", "box", "add", "l@d.example", "--password-stdin", "--quota", "1G"},
                std::string(kSecret) + "\n")
                .status,
            0);
  const std::string hash = Hash("l");
  Ok({"mail", "sync"});
  Ok({"mail", "box", "suspend", "l@d.example"});
  Ok({"mail", "box", "resume", "l@d.example"});
  Ok({"mail", "box", "set", "l@d.example", "--alias", "a"});
  EXPECT_EQ(Hash("l"), hash);
  EXPECT_EQ(Json({"mail", "box", "show", "l@d.example"})["mailbox"]["quota"], 1LL << 30);
}

TEST_F(ZelpnlPasswordTest, ADomainsQuotaHoldsForItsMailboxesWithoutOneOfTheirOwn) {
  Ok({"mail", "domain", "quota", "d.example", "2G"});
  EXPECT_EQ(Json({"mail", "domain", "show", "d.example"})["domain"]["quota"], 2LL << 30);
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "box", "add", "m@d.example", "--quota", "100M"});
  EXPECT_EQ(Json({"mail", "box", "show", "l@d.example"})["mailbox"]["quota_limit"], 2LL << 30);
  EXPECT_EQ(Json({"mail", "box", "show", "m@d.example"})["mailbox"]["quota_limit"], 100LL << 20);
  EXPECT_NE(Zel({"mail", "box", "show", "l@d.example"}).out.find("quota:        2G (the domain's)"),
            std::string::npos);
  // What the mail store reads: the quota that holds, per mailbox.
  EXPECT_EQ(Rows("SELECT user, quota FROM mail_user ORDER BY user"),
            "l@d.example:2147483648|m@d.example:104857600");
  Ok({"mail", "domain", "quota", "d.example", "0"});
  EXPECT_EQ(Rows("SELECT user, quota FROM mail_user ORDER BY user"),
            "l@d.example:0|m@d.example:104857600");
  EXPECT_EQ(Zel({"mail", "domain", "quota", "d.example", "lots"}).status, 2);
}

TEST_F(ZelpnlPasswordTest, TheMailStoresLookupsAreAnsweredByIndexesNotByReadingEveryMailbox) {
  for (const char* view : {"mail_login", "mail_user"}) {
    const std::string plan = Rows(std::string("EXPLAIN QUERY PLAN SELECT * FROM ") + view +
                                  " WHERE domain = 'd.example' AND local = 'l'");
    EXPECT_EQ(plan.find("SCAN"), std::string::npos) << view << ": " << plan;
    EXPECT_NE(plan.find("USING"), std::string::npos) << view << ": " << plan;
  }
}

TEST_F(ZelpnlPasswordTest, OnlyMailboxesInServiceWithAPasswordMayLogIn) {
  for (const char* local : {"a", "b", "c"})
    ASSERT_EQ(Zel({"mail", "box", "add", std::string(local) + "@d.example", "--password-stdin"},
                  "password one\n")
                  .status,
              0);
  Ok({"mail", "box", "add", "n@d.example"});
  Ok({"mail", "box", "set", "b@d.example", "--forward", "x@far.example", "--forward-only", "yes"});
  Ok({"mail", "box", "suspend", "c@d.example"});
  EXPECT_EQ(Rows("SELECT user FROM mail_login ORDER BY user"), "a@d.example");
  Ok({"mail", "box", "resume", "c@d.example"});
  EXPECT_EQ(Rows("SELECT user FROM mail_login ORDER BY user"), "a@d.example|c@d.example");
  Ok({"mail", "domain", "suspend", "d.example"});
  EXPECT_EQ(Rows("SELECT user FROM mail_login ORDER BY user"), "");
  // Delivery still knows them all but the forward-only one.
  EXPECT_EQ(Rows("SELECT user FROM mail_user ORDER BY user"), "a@d.example|c@d.example|n@d.example");
}

namespace {

// Runs zelpnl args on a terminal of its own (forkpty: the terminal is its
// controlling one, as an administrator's is) and answers each prompt that
// appears with the next of answers. Returns the exit status and what the
// terminal showed. Every wait is bounded.
std::pair<int, std::string> OnTerminal(const std::vector<std::string>& args,
                                       const std::vector<std::string>& answers) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  int master = -1;
  const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  std::string shown;
  size_t answered = 0;
  for (int rounds = 0; rounds < 100; ++rounds) {
    pollfd p{master, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) {
      if (::waitpid(pid, nullptr, WNOHANG) != 0) break;
      continue;
    }
    char buffer[512];
    const ssize_t n = ::read(master, buffer, sizeof buffer);
    if (n <= 0) break;
    shown.append(buffer, static_cast<size_t>(n));
    const size_t prompts = (shown.find("New password: ") != std::string::npos ? 1 : 0) +
                           (shown.find("Again: ") != std::string::npos ? 1 : 0);
    while (answered < prompts && answered < answers.size()) {
      const std::string line = answers[answered++] + "\n";
      if (::write(master, line.data(), line.size()) < 0) break;
    }
  }
  int status = 0;
  pid_t done = 0;
  for (int i = 0; i < 50 && (done = ::waitpid(pid, &status, WNOHANG)) == 0; ++i) ::usleep(100000);
  ::close(master);
  if (done != pid) {
    // Still waiting for an answer: a failure, whatever it would have said.
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    return {-1, shown};
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, shown};
}

}  // namespace

TEST_F(ZelpnlPasswordTest, ThePromptAsksTwiceWithoutEchoAndStoresOnlyTheHash) {
  const std::string zelpnl = zeltest::OurProgram("zelpnl");
  const auto [status, shown] = OnTerminal(
      {zelpnl, "--config", Config(), "mail", "box", "add", "l@d.example", "--password"},
      {"typed on the terminal", "typed on the terminal"});
  EXPECT_EQ(status, 0) << shown;
  EXPECT_NE(shown.find("New password: "), std::string::npos) << shown;
  EXPECT_EQ(shown.find("typed on the terminal"), std::string::npos) << "echoed: " << shown;
  EXPECT_TRUE(pnl_password::Verify(Hash("l"), "typed on the terminal"));
}

TEST_F(ZelpnlPasswordTest, TwoDifferentAnswersAtThePromptChangeNothing) {
  const std::string zelpnl = zeltest::OurProgram("zelpnl");
  const auto [status, shown] = OnTerminal(
      {zelpnl, "--config", Config(), "mail", "box", "add", "l@d.example", "--password"},
      {"first answer here", "second answer here"});
  EXPECT_EQ(status, 2) << shown;
  EXPECT_NE(shown.find("error: password: the two answers differ"), std::string::npos) << shown;
  EXPECT_EQ(Count("email"), 0);
}
