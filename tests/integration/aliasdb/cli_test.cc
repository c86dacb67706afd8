// zelpnl-newaliases as the panel runs it: arguments, output, exit status.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "sandbox.h"
#include "zelaliasdb/aliases_file.h"

using zeltest::RunShell;
using zeltest::Sandbox;

namespace {

const std::string kOurs = std::string(ZEL_BIN_DIR) + "/zelpnl-newaliases";

std::string TestName() { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }

}  // namespace

TEST(NewaliasesCommandTest, FileArgumentIsRebuiltAndSummaryPrinted) {
  Sandbox box(TestName());
  box.Write("aliases", "a: b\n");
  std::string out;
  EXPECT_EQ(RunShell(kOurs + " " + box.Path("aliases"), &out), 0);
  EXPECT_EQ(out, box.Path("aliases") + ": 1 aliases, longest 1 bytes, 2 bytes total\n");
  EXPECT_TRUE(box.Exists("aliases.db"));
}

TEST(NewaliasesCommandTest, RelativeFileNameWorksForLinesSendmailDecides) {
  Sandbox box(TestName());
  box.Write("aliases", "Joe <jdoe>: x\n");
  std::string out;
  EXPECT_EQ(RunShell("cd " + box.dir() + " && " + kOurs + " aliases", &out), 0) << out;
  EXPECT_EQ(out, "aliases: 1 aliases, longest 1 bytes, 5 bytes total\n");
  EXPECT_TRUE(box.Exists("aliases.db"));
}

TEST(NewaliasesCommandTest, SendmailStyleArgumentsWork) {
  Sandbox box(TestName());
  box.Write("aliases", "a: b\n");
  std::string out;
  EXPECT_EQ(RunShell(kOurs + " -bi -oA" + box.Path("aliases"), &out), 0) << out;
  EXPECT_TRUE(box.Exists("aliases.db"));
}

TEST(NewaliasesCommandTest, EveryFileIsBuiltAndTheFirstFailureGivesTheStatus) {
  Sandbox box(TestName());
  box.Write("one", "a: b\n");
  box.Write("two", "no colon\n");
  box.Write("three", "tail@: x\n");
  std::string out;
  EXPECT_EQ(RunShell(kOurs + " " + box.Path("one") + " " + box.Path("two") + " " + box.Path("three"), &out), 70);
  // Line messages name the file as sendmail does, shortened when long.
  const auto shown = [&](const char* f) { return zel_aliasdb::ShortFileName(box.Path(f)); };
  EXPECT_EQ(out, box.Path("one") + ": 1 aliases, longest 1 bytes, 2 bytes total\n" +
                     shown("two") + ": line 1: missing colon\n" +
                     box.Path("two") + ": 0 aliases, longest 0 bytes, 0 bytes total\n" +
                     shown("three") + ": line 1: tail@... Hostname required\n" +
                     shown("three") + ": line 1: tail@... cannot alias non-local names\n" +
                     box.Path("three") + ": 0 aliases, longest 0 bytes, 0 bytes total\n");
  EXPECT_TRUE(box.Exists("three.db"));
}

TEST(NewaliasesCommandTest, UnknownOptionIsBadUsage) {
  std::string out;
  EXPECT_EQ(RunShell(kOurs + " --frobnicate", &out), 64);
  EXPECT_NE(out.find("unknown option --frobnicate"), std::string::npos) << out;
}

TEST(NewaliasesCommandTest, HelpDescribesTheCommand) {
  std::string out;
  EXPECT_EQ(RunShell(kOurs + " --help", &out), 0);
  EXPECT_NE(out.find("usage: zelpnl-newaliases"), std::string::npos) << out;
}

TEST(NewaliasesCommandTest, UnreadableConfigurationFailsWithAnError) {
  Sandbox box(TestName());
  std::string out;
  EXPECT_EQ(RunShell(kOurs + " -C " + box.Path("missing.cf"), &out), 70);
  EXPECT_EQ(out, "zelpnl-newaliases: error: " + box.Path("missing.cf") +
                     ": cannot read the sendmail configuration\n");
}

TEST(NewaliasesCommandTest, MapThatCannotBeWrittenFailsWithStatus70AndOldMapStays) {
  Sandbox box(TestName());
  box.Write("aliases", "a: b\n");
  std::string out;
  ASSERT_EQ(RunShell(kOurs + " " + box.Path("aliases"), &out), 0);
  box.Write("aliases", "a: c\n");
  EXPECT_EQ(RunShell(kOurs + " --writer=makemap --makemap /bin/false " + box.Path("aliases"), &out), 70);
  EXPECT_NE(out.find("zelpnl-newaliases: error: "), std::string::npos) << out;
  std::string dump;
  RunShell("/usr/sbin/makemap -u hash " + box.Path("aliases.db") + " | sort", &dump);
  EXPECT_EQ(dump, "@\t@\na\tb\n");
}

// The panel as the administrator sets it up: a sandbox whose
// "sendmail-newaliases" is zelpnl-newaliases with the sandbox's sendmail.cf.
TEST(NewaliasesCommandTest, PanelUsesItAsItsNewaliasesCommand) {
  const std::string zelpnl = std::string(ZEL_BIN_DIR) + "/zelpnl";
  if (::access(zelpnl.c_str(), X_OK) != 0) GTEST_SKIP() << "zelpnl is not built";
  Sandbox box(TestName());
  const std::string d = box.Path("panel");
  std::string out;
  ASSERT_EQ(RunShell(zelpnl + " init --sandbox " + d, &out), 0) << out;
  if (!box.Exists("panel/sendmail.cf")) GTEST_SKIP() << "sendmail-cf and m4 are needed for the sandbox";
  // The configuration names sendmail's rebuild; point it at ours.
  std::string conf = zeltest::ReadFile(d + "/zelpnl.conf");
  const std::size_t at = conf.find("sendmail-newaliases = ");
  ASSERT_NE(at, std::string::npos) << conf;
  conf.replace(at, conf.find('\n', at) - at, "sendmail-newaliases = " + kOurs + " -C " + d + "/sendmail.cf");
  zeltest::WriteFile(d + "/zelpnl.conf", conf);
  const std::string run = "ZELPNL_CONF=" + d + "/zelpnl.conf " + zelpnl + " ";
  ASSERT_EQ(RunShell(run + "webdomain add shop.example --owner admin", &out), 0) << out;
  ASSERT_EQ(RunShell(run + "mail domain add shop.example", &out), 0) << out;
  ASSERT_EQ(RunShell(run + "mail box add Info@shop.example --forward x@other.example", &out), 0) << out;
  std::string dump;
  RunShell("/usr/sbin/makemap -u hash " + d + "/aliases.db | LC_ALL=C sort", &dump);
  EXPECT_EQ(dump, "@\t@\ndevnull\t\"/dev/null\"\ninfo+shop.example\tx@other.example, info\\@shop.example\n");
  // sendmail itself finds the mailbox through the map ours wrote.
  EXPECT_EQ(RunShell(run + "mail check info@shop.example", &out), 0) << out;
}

TEST(NewaliasesCommandTest, TerminationSignalWaitsUntilTheMapIsInPlace) {
  Sandbox box(TestName());
  box.Write("aliases", "a: b\n");
  // Hold the aliases file's lock, so the program is mid-build when the
  // signal comes.
  const int held = ::open(box.Path("aliases").c_str(), O_RDONLY);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const std::string file = box.Path("aliases");
    ::execl(kOurs.c_str(), kOurs.c_str(), file.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  // Signal once the program holds SIGTERM back (its status shows it).
  for (int i = 0; i < 1000; ++i) {
    std::string status;
    try {
      status = zeltest::ReadFile("/proc/" + std::to_string(pid) + "/status");
    } catch (const std::exception&) {
    }
    const std::size_t at = status.find("SigBlk:");
    if (at != std::string::npos && (std::stoull(status.substr(at + 7), nullptr, 16) & (1ull << (SIGTERM - 1))))
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(pid, SIGTERM);
  ::flock(held, LOCK_UN);
  ::close(held);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_TRUE(box.Exists("aliases.db"));
}
