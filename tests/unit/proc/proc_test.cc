#include "zelapi/proc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "zelapi/err.h"
#include "zelapi/log.h"

namespace {

namespace fs = std::filesystem;

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Sends this process's stderr into a file while it lives.
class StderrToFile {
 public:
  explicit StderrToFile(const std::string& path) {
    saved_ = ::dup(STDERR_FILENO);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~StderrToFile() {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }

 private:
  int saved_;
};

// A runner that runs nothing: it records the calls and answers as told.
class ScriptedRunner : public pnl_proc::Runner {
 public:
  pnl_proc::RunResult Run(const std::string& command, int mode) override {
    calls.push_back(command + " #" + std::to_string(mode));
    if (fail_itself) throw pnl_err::Error(pnl_err::Kind::kProc, command, "no process could be made");
    return answer;
  }
  std::vector<std::string> calls;
  pnl_proc::RunResult answer;
  bool fail_itself = false;
};

class ProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(ZEL_TEST_SCRATCH) / "proc" /
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    pnl_proc::SetRunner(nullptr);
    pnl_log::Configure("", pnl_log::Level::kInfo, pnl_log::Level::kWarning);
  }

  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  fs::path dir_;
};

TEST_F(ProcTest, Mode1CapturesStandardOutput) {
  pnl_proc::Execute run("printf 'one\\ntwo\\n'", 1);
  EXPECT_EQ(run.Result(), 0);
  EXPECT_EQ(run.Str(), "one\ntwo\n");
}

TEST_F(ProcTest, Mode1LeavesStandardErrorToTheCaller) {
  const std::string err = Path("stderr");
  std::string output;
  {
    StderrToFile redirect(err);
    pnl_proc::Execute run("echo out; echo err >&2", 1);
    output = run.Str();
  }
  EXPECT_EQ(output, "out\n");
  EXPECT_EQ(Read(err), "err\n");
}

TEST_F(ProcTest, Mode2CapturesBothStreamsInTheOrderWritten) {
  const std::string err = Path("stderr");
  std::string output;
  {
    StderrToFile redirect(err);
    pnl_proc::Execute run("echo a; echo b >&2; echo c; echo d >&2", 2);
    output = run.Str();
  }
  EXPECT_EQ(output, "a\nb\nc\nd\n");
  EXPECT_EQ(Read(err), "");
}

TEST_F(ProcTest, Mode0DiscardsAllOutput) {
  const std::string err = Path("stderr");
  std::string output = "(not run)";
  int status = -1;
  {
    StderrToFile redirect(err);
    pnl_proc::Execute run("echo out; echo err >&2; exit 5", 0);
    output = run.Str();
    status = run.Result();
  }
  EXPECT_EQ(status, 5);
  EXPECT_EQ(output, "");
  EXPECT_EQ(Read(err), "");
}

TEST_F(ProcTest, ExitStatusIsTheResult) {
  EXPECT_EQ(pnl_proc::Execute("true", 2).Result(), 0);
  EXPECT_EQ(pnl_proc::Execute("false", 2).Result(), 1);
  pnl_proc::Execute run("echo partial; exit 42", 2);
  EXPECT_EQ(run.Result(), 42);
  EXPECT_EQ(run.Str(), "partial\n");
}

TEST_F(ProcTest, UnknownCommandGives127WithTheShellsMessage) {
  pnl_proc::Execute run("/nonexistent/makemap hash x", 2);
  EXPECT_EQ(run.Result(), 127);
  EXPECT_NE(run.Str().find("/nonexistent/makemap"), std::string::npos) << run.Str();
}

TEST_F(ProcTest, ShellThatCannotStartGives127AndSaysWhy) {
  pnl_proc::ShellRunner runner("/nonexistent/sh");
  const pnl_proc::RunResult result = runner.Run("true", 2);
  EXPECT_EQ(result.status, 127);
  EXPECT_EQ(result.output, "cannot start /nonexistent/sh: No such file or directory");

  pnl_proc::SetRunner(&runner);
  pnl_proc::Execute run("true", 0);
  EXPECT_EQ(run.Result(), 127);
  EXPECT_EQ(run.Str(), "cannot start /nonexistent/sh: No such file or directory");
}

TEST_F(ProcTest, KilledCommandGives128PlusTheSignal) {
  EXPECT_EQ(pnl_proc::Execute("kill -TERM $$", 2).Result(), 128 + SIGTERM);
  EXPECT_EQ(pnl_proc::Execute("kill -KILL $$", 0).Result(), 128 + SIGKILL);
  EXPECT_EQ(pnl_proc::Execute("kill -HUP $$", 1).Result(), 128 + SIGHUP);
}

TEST_F(ProcTest, StandardInputIsDevNull) {
  pnl_proc::Execute run("cat; read line; echo \"read=$?\"; ls -l /proc/self/fd/0", 2);
  EXPECT_EQ(run.Result(), 0);
  EXPECT_NE(run.Str().find("read=1\n"), std::string::npos) << run.Str();
  EXPECT_NE(run.Str().find("-> /dev/null"), std::string::npos) << run.Str();
}

TEST_F(ProcTest, LargeOutputIsReadCompletelyInEveryCapturingMode) {
  pnl_proc::Execute out("head -c 5000000 /dev/zero | tr '\\0' x", 1);
  EXPECT_EQ(out.Result(), 0);
  EXPECT_EQ(out.Str(), std::string(5000000, 'x'));
  pnl_proc::Execute both("head -c 3000000 /dev/zero | tr '\\0' y >&2; echo end", 2);
  EXPECT_EQ(both.Result(), 0);
  EXPECT_EQ(both.Str(), std::string(3000000, 'y') + "end\n");
  pnl_proc::Execute discarded("head -c 3000000 /dev/zero", 0);
  EXPECT_EQ(discarded.Result(), 0);
}

// A command that leaves a background process behind (a service restart)
// returns when the command ends, although the background process still
// holds the output pipe open.
TEST_F(ProcTest, BackgroundProcessHoldingTheOutputDoesNotHoldTheCaller) {
  pnl_proc::Execute run("(sleep 30; echo late) & echo started $!", 2);
  EXPECT_EQ(run.Result(), 0);
  std::istringstream words(run.Str());
  std::string started;
  pid_t background = 0;
  words >> started >> background;
  EXPECT_EQ(started, "started");
  EXPECT_EQ(run.Str().find("late"), std::string::npos) << "waited for the background process";
  if (background > 1) ::kill(background, SIGKILL);
}

TEST_F(ProcTest, CommandStartsWithDefaultSignalsWhateverTheHostIgnoresOrBlocks) {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction saved;
  ::sigaction(SIGPIPE, &ignore, &saved);
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &block, &old);
  pnl_proc::Execute run("grep -E '^Sig(Ign|Blk):' /proc/self/status", 1);
  ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
  ::sigaction(SIGPIPE, &saved, nullptr);

  std::istringstream lines(run.Str());
  std::string name;
  std::string mask;
  int seen = 0;
  while (lines >> name >> mask) {
    const unsigned long long bits = std::stoull(mask, nullptr, 16);
    if (name == "SigIgn:") {
      EXPECT_EQ(bits & (1ull << (SIGPIPE - 1)), 0u) << mask;
    } else if (name == "SigBlk:") {
      EXPECT_EQ(bits & (1ull << (SIGUSR1 - 1)), 0u) << mask;
    }
    ++seen;
  }
  EXPECT_EQ(seen, 2) << run.Str();
}

// A timer signal that interrupts every wait (no automatic restart), as a
// host's own timers would.
class InterruptingTimer {
 public:
  InterruptingTimer() {
    struct sigaction action = {};
    action.sa_handler = [](int) { ticks.fetch_add(1, std::memory_order_relaxed); };
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ::sigaction(SIGALRM, &action, &saved_);
    struct itimerval every = {{0, 2000}, {0, 2000}};
    ::setitimer(ITIMER_REAL, &every, nullptr);
  }
  ~InterruptingTimer() {
    struct itimerval off = {};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    ::sigaction(SIGALRM, &saved_, nullptr);
  }
  static inline std::atomic<int> ticks{0};

 private:
  struct sigaction saved_;
};

TEST_F(ProcTest, InterruptedWaitsAreResumed) {
  InterruptingTimer timer;
  for (int mode : {0, 1, 2}) {
    pnl_proc::Execute run("sleep 0.2; echo done; exit 6", mode);
    EXPECT_EQ(run.Result(), 6) << "mode " << mode;
    EXPECT_EQ(run.Str(), mode == 0 ? "" : "done\n") << "mode " << mode;
  }
  EXPECT_GT(InterruptingTimer::ticks.load(), 10);
}

TEST_F(ProcTest, ExecuteRunsThroughTheInstalledRunner) {
  ScriptedRunner runner;
  runner.answer.status = 3;
  runner.answer.output = "scripted";
  runner.answer.seconds = 2.5;
  pnl_proc::SetRunner(&runner);
  EXPECT_EQ(&pnl_proc::CurrentRunner(), &runner);
  pnl_proc::Execute run("touch " + Path("touched"), 2);
  EXPECT_EQ(run.Result(), 3);
  EXPECT_EQ(run.Str(), "scripted");
  EXPECT_EQ(run.Seconds(), 2.5);
  EXPECT_EQ(runner.calls, std::vector<std::string>{"touch " + Path("touched") + " #2"});
  EXPECT_FALSE(fs::exists(Path("touched")));
}

TEST_F(ProcTest, ResettingTheRunnerRestoresTheShell) {
  ScriptedRunner runner;
  pnl_proc::SetRunner(&runner);
  pnl_proc::SetRunner(nullptr);
  EXPECT_EQ(pnl_proc::Execute("echo real", 1).Str(), "real\n");
  EXPECT_TRUE(runner.calls.empty());
}

TEST_F(ProcTest, RunnerFailurePropagatesFromExecute) {
  ScriptedRunner runner;
  runner.fail_itself = true;
  pnl_proc::SetRunner(&runner);
  try {
    pnl_proc::Execute run("make -C /etc/mail restart", 0);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_STREQ(e.what(), "make -C /etc/mail restart: no process could be made");
  }
}

TEST_F(ProcTest, UnknownModeIsRefusedBeforeAnythingRuns) {
  ScriptedRunner runner;
  pnl_proc::SetRunner(&runner);
  for (int mode : {-1, 3}) {
    try {
      pnl_proc::Execute run("true", mode);
      ADD_FAILURE() << "accepted mode " << mode;
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kProc);
      EXPECT_EQ(e.object(), "true");
      EXPECT_EQ(e.detail(), "unknown output mode " + std::to_string(mode));
    }
  }
  EXPECT_TRUE(runner.calls.empty());
  EXPECT_THROW(pnl_proc::ShellRunner().Run("true", 7), pnl_err::Error);
}

TEST_F(ProcTest, EveryCommandIsLoggedAtDebugWithStatusAndDuration) {
  const std::string log = Path("zelpnl.log");
  pnl_log::Configure(log, pnl_log::Level::kDebug, pnl_log::Level::kOff);
  ScriptedRunner runner;
  runner.answer.status = 7;
  runner.answer.seconds = 1.25;
  pnl_proc::SetRunner(&runner);
  pnl_proc::Execute scripted("echo \"a\\b\"\nnext", 2);
  pnl_proc::SetRunner(nullptr);
  pnl_proc::Execute real("exit 4", 0);

  std::istringstream lines(Read(log));
  std::string first;
  std::string second;
  std::getline(lines, first);
  std::getline(lines, second);
  EXPECT_TRUE(first.ends_with(
      " debug zelpnl/platform: ran \"echo \\\"a\\\\b\\\"\\nnext\" status=7 seconds=1.250000"))
      << first;
  static const std::regex ran(
      R"(^\S+ \S+ debug zelpnl/platform: ran "exit 4" status=4 seconds=\d+\.\d{6}$)");
  EXPECT_TRUE(std::regex_match(second, ran)) << second;
}

TEST_F(ProcTest, CommandsAreNotLoggedAboveDebugLevel) {
  const std::string log = Path("zelpnl.log");
  pnl_log::Configure(log, pnl_log::Level::kInfo, pnl_log::Level::kOff);
  pnl_proc::Execute("true", 0);
  EXPECT_EQ(Read(log), "");
}

}  // namespace
