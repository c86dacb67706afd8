// The request's deferred commands.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "zelapi/api.h"
#include "zelapi/err.h"
#include "zelapi/log.h"
#include "zelapi/proc.h"

namespace {

namespace fs = std::filesystem;

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs nothing: records each call and answers from a table (status 0 for a
// command not in it; a command in `broken` makes the runner itself fail).
class ScriptedRunner : public pnl_proc::Runner {
 public:
  pnl_proc::RunResult Run(const std::string& command, int mode) override {
    calls.push_back(command + " #" + std::to_string(mode));
    if (broken.count(command)) throw pnl_err::Error(pnl_err::Kind::kProc, command, "no process could be made");
    auto it = answers.find(command);
    return it == answers.end() ? pnl_proc::RunResult() : it->second;
  }
  std::vector<std::string> calls;
  std::map<std::string, pnl_proc::RunResult> answers;
  std::map<std::string, bool> broken;
};

class DeferredTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel_api::DiscardDeferred();
    dir_ = fs::path(ZEL_TEST_SCRATCH) / "api" /
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    log_ = (dir_ / "zelpnl.log").string();
    pnl_log::Configure(log_, pnl_log::Level::kInfo, pnl_log::Level::kOff);
  }
  void TearDown() override {
    zel_api::DiscardDeferred();
    pnl_proc::SetRunner(nullptr);
    pnl_log::Configure("", pnl_log::Level::kInfo, pnl_log::Level::kWarning);
  }

  fs::path dir_;
  std::string log_;
};

TEST_F(DeferredTest, QueueKeepsFirstQueuedOrderWithoutDuplicates) {
  zel_api::ExecuteLater("make -C /etc/mail restart");
  zel_api::ExecuteLater("/usr/bin/newaliases");
  zel_api::ExecuteLater("make -C /etc/mail restart");
  zel_api::ExecuteLater("make -C /etc/mail  restart");
  EXPECT_EQ(zel_api::PendingCommands(),
            (std::vector<std::string>{"make -C /etc/mail restart", "/usr/bin/newaliases",
                                      "make -C /etc/mail  restart"}));
}

TEST_F(DeferredTest, RunDeferredRunsEachCommandOnceInQueueOrderCapturingAllOutput) {
  ScriptedRunner runner;
  pnl_proc::SetRunner(&runner);
  zel_api::ExecuteLater("b");
  zel_api::ExecuteLater("a");
  zel_api::ExecuteLater("b");
  EXPECT_EQ(zel_api::RunDeferred(), 0);
  EXPECT_EQ(runner.calls, (std::vector<std::string>{"b #2", "a #2"}));
  EXPECT_TRUE(zel_api::PendingCommands().empty());
  EXPECT_EQ(zel_api::RunDeferred(), 0);
  EXPECT_EQ(runner.calls.size(), 2u);
  EXPECT_EQ(Read(log_), "");
}

TEST_F(DeferredTest, FailureIsLoggedWithItsOutputAndTheOthersStillRun) {
  ScriptedRunner runner;
  runner.answers["make -C /etc/mail restart"] = {2, "make: *** No rule to make target\n", 0.1};
  pnl_proc::SetRunner(&runner);
  zel_api::ExecuteLater("first");
  zel_api::ExecuteLater("make -C /etc/mail restart");
  zel_api::ExecuteLater("last");
  EXPECT_EQ(zel_api::RunDeferred(), 1);
  EXPECT_EQ(runner.calls,
            (std::vector<std::string>{"first #2", "make -C /etc/mail restart #2", "last #2"}));
  const std::string log = Read(log_);
  EXPECT_NE(log.find(" error zelpnl/platform: deferred command \"make -C /etc/mail restart\" "
                     "failed with status 2: make: *** No rule to make target\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST_F(DeferredTest, RunnerThatFailsItselfCountsAsAFailedCommand) {
  ScriptedRunner runner;
  runner.broken["restart"] = true;
  runner.answers["other"] = {1, "", 0};
  pnl_proc::SetRunner(&runner);
  zel_api::ExecuteLater("restart");
  zel_api::ExecuteLater("other");
  EXPECT_EQ(zel_api::RunDeferred(), 2);
  EXPECT_EQ(runner.calls, (std::vector<std::string>{"restart #2", "other #2"}));
  const std::string log = Read(log_);
  EXPECT_NE(log.find("deferred command \"restart\" could not run: restart: no process could be "
                     "made\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("deferred command \"other\" failed with status 1: \n"), std::string::npos)
      << log;
}

TEST_F(DeferredTest, DiscardDeferredDropsTheQueueWithoutRunningIt) {
  ScriptedRunner runner;
  pnl_proc::SetRunner(&runner);
  zel_api::ExecuteLater("restart");
  zel_api::DiscardDeferred();
  EXPECT_TRUE(zel_api::PendingCommands().empty());
  EXPECT_EQ(zel_api::RunDeferred(), 0);
  EXPECT_TRUE(runner.calls.empty());
}

TEST_F(DeferredTest, NextRequestMayQueueTheSameCommandAgain) {
  ScriptedRunner runner;
  pnl_proc::SetRunner(&runner);
  zel_api::ExecuteLater("restart");
  zel_api::RunDeferred();
  zel_api::ExecuteLater("restart");
  EXPECT_EQ(zel_api::PendingCommands(), std::vector<std::string>{"restart"});
  zel_api::RunDeferred();
  EXPECT_EQ(runner.calls, (std::vector<std::string>{"restart #2", "restart #2"}));
}

TEST_F(DeferredTest, CommandsRunThroughTheShellForReal) {
  const std::string file = (dir_ / "restarts").string();
  zel_api::ExecuteLater("echo restarted >> " + file);
  zel_api::ExecuteLater("echo restarted >> " + file);
  zel_api::ExecuteLater("echo oops; exit 3");
  EXPECT_EQ(zel_api::RunDeferred(), 1);
  EXPECT_EQ(Read(file), "restarted\n");
  EXPECT_NE(Read(log_).find("deferred command \"echo oops; exit 3\" failed with status 3: oops\n"),
            std::string::npos);
}

TEST_F(DeferredTest, ConcurrentQueueingKeepsOneOfEachCommand) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) zel_api::ExecuteLater("command " + std::to_string(i));
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<std::string> pending = zel_api::PendingCommands();
  ASSERT_EQ(pending.size(), 50u);
  std::vector<std::string> sorted = pending;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::unique(sorted.begin(), sorted.end()), sorted.end());
}

}  // namespace
