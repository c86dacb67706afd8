#include "zelapi/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "zelapi/err.h"

namespace {

namespace fs = std::filesystem;
using pnl_log::Level;

std::vector<std::string> Lines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The message part of a log line, after the time stamp.
std::string WithoutTime(const std::string& line) {
  static const std::regex stamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
  std::smatch match;
  if (!std::regex_search(line, match, stamp)) return "(no time stamp) " + line;
  return match.suffix();
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

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(ZEL_TEST_SCRATCH) / "log" /
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    log_ = (dir_ / "zelpnl.log").string();
  }
  void TearDown() override { pnl_log::Configure("", Level::kInfo, Level::kWarning); }

  fs::path dir_;
  std::string log_;
};

TEST_F(LogTest, ParseLevelKnowsTheFiveNames) {
  EXPECT_EQ(pnl_log::ParseLevel("debug"), Level::kDebug);
  EXPECT_EQ(pnl_log::ParseLevel("info"), Level::kInfo);
  EXPECT_EQ(pnl_log::ParseLevel("warning"), Level::kWarning);
  EXPECT_EQ(pnl_log::ParseLevel("error"), Level::kError);
  EXPECT_EQ(pnl_log::ParseLevel("off"), Level::kOff);
}

TEST_F(LogTest, ParseLevelRejectsOtherNames) {
  for (const char* name : {"", "Debug", "warn", "fatal", " info"}) {
    try {
      pnl_log::ParseLevel(name);
      ADD_FAILURE() << "accepted \"" << name << "\"";
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kConf);
      EXPECT_EQ(e.object(), name);
      EXPECT_EQ(e.detail(), "unknown log level (expected debug, info, warning, error or off)");
    }
  }
}

TEST_F(LogTest, EachMessageIsOneLineWithTimeLevelAndChannel) {
  pnl_log::Configure(log_, Level::kDebug, Level::kOff);
  pnl_log::Module email("email", "zelpnl");
  email.Debug("first");
  email.Info("second");
  email.Warning("third");
  email.Error("fourth");
  pnl_log::Write("panel", "chan", Level::kInfo, "direct");
  const std::vector<std::string> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(WithoutTime(lines[0]), "debug zelpnl/email: first");
  EXPECT_EQ(WithoutTime(lines[1]), "info zelpnl/email: second");
  EXPECT_EQ(WithoutTime(lines[2]), "warning zelpnl/email: third");
  EXPECT_EQ(WithoutTime(lines[3]), "error zelpnl/email: fourth");
  EXPECT_EQ(WithoutTime(lines[4]), "info panel/chan: direct");
}

TEST_F(LogTest, FileThresholdDropsLowerLevels) {
  pnl_log::Configure(log_, Level::kWarning, Level::kOff);
  const pnl_log::Module channel("c", "p");
  channel.Debug("d");
  channel.Info("i");
  channel.Warning("w");
  channel.Error("e");
  const std::vector<std::string> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(WithoutTime(lines[0]), "warning p/c: w");
  EXPECT_EQ(WithoutTime(lines[1]), "error p/c: e");
}

TEST_F(LogTest, OffThresholdWritesNothingToTheFile) {
  pnl_log::Configure(log_, Level::kOff, Level::kOff);
  pnl_log::Module("c", "p").Error("e");
  EXPECT_TRUE(fs::exists(log_));
  EXPECT_EQ(Read(log_), "");
}

TEST_F(LogTest, StderrThresholdIsIndependentOfTheFileThreshold) {
  const std::string err = (dir_ / "stderr").string();
  {
    StderrToFile redirect(err);
    pnl_log::Configure(log_, Level::kDebug, Level::kError);
    const pnl_log::Module channel("c", "p");
    channel.Info("only in the file");
    channel.Error("in both");
  }
  const std::vector<std::string> file = Lines(log_);
  ASSERT_EQ(file.size(), 2u);
  EXPECT_EQ(WithoutTime(file[0]), "info p/c: only in the file");
  EXPECT_EQ(WithoutTime(file[1]), "error p/c: in both");
  const std::vector<std::string> shown = Lines(err);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(WithoutTime(shown[0]), "error p/c: in both");
}

TEST_F(LogTest, WithoutConfigurationStderrShowsWarningsAndUp) {
  const std::string err = (dir_ / "stderr").string();
  {
    StderrToFile redirect(err);
    const pnl_log::Module channel("c", "p");
    channel.Info("hidden");
    channel.Warning("shown");
  }
  const std::vector<std::string> shown = Lines(err);
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(WithoutTime(shown[0]), "warning p/c: shown");
}

TEST_F(LogTest, FileIsAppendedToNotTruncated) {
  std::ofstream(log_) << "earlier line\n";
  pnl_log::Configure(log_, Level::kInfo, Level::kOff);
  pnl_log::Module("c", "p").Info("later");
  const std::vector<std::string> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "earlier line");
  EXPECT_EQ(WithoutTime(lines[1]), "info p/c: later");
}

TEST_F(LogTest, LineEndsInsideAMessageAreEscaped) {
  pnl_log::Configure(log_, Level::kInfo, Level::kOff);
  pnl_log::Module("c", "p").Error("makemap: line 1\nline 2\r\n\x01tab\tkept\n");
  const std::string text = Read(log_);
  ASSERT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  EXPECT_EQ(WithoutTime(Lines(log_)[0]),
            "error p/c: makemap: line 1\\nline 2\\r\\n\\x01tab\tkept");
}

TEST_F(LogTest, UnopenableFileThrowsAndKeepsThePreviousFile) {
  pnl_log::Configure(log_, Level::kInfo, Level::kOff);
  const std::string bad = (dir_ / "missing" / "x.log").string();
  try {
    pnl_log::Configure(bad, Level::kDebug, Level::kOff);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kLog);
    EXPECT_EQ(e.object(), bad);
    EXPECT_EQ(e.detail(), "cannot open for appending: No such file or directory");
  }
  const pnl_log::Module channel("c", "p");
  channel.Debug("still filtered at info");
  channel.Info("still here");
  const std::vector<std::string> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(WithoutTime(lines[0]), "info p/c: still here");
}

TEST_F(LogTest, ReconfiguringMovesToTheNewFileAndEmptyNameStopsFileLogging) {
  const std::string second = (dir_ / "second.log").string();
  pnl_log::Configure(log_, Level::kInfo, Level::kOff);
  const pnl_log::Module channel("c", "p");
  channel.Info("one");
  pnl_log::Configure(second, Level::kInfo, Level::kOff);
  channel.Info("two");
  pnl_log::Configure("", Level::kInfo, Level::kOff);
  channel.Info("three");
  ASSERT_EQ(Lines(log_).size(), 1u);
  EXPECT_EQ(WithoutTime(Lines(log_)[0]), "info p/c: one");
  ASSERT_EQ(Lines(second).size(), 1u);
  EXPECT_EQ(WithoutTime(Lines(second)[0]), "info p/c: two");
}

TEST_F(LogTest, PlatformChannelIsPlatformOfZelpnl) {
  EXPECT_EQ(pnl_log::Platform().channel(), "platform");
  EXPECT_EQ(pnl_log::Platform().panel(), "zelpnl");
  pnl_log::Configure(log_, Level::kDebug, Level::kOff);
  pnl_log::Platform().Info("hello");
  EXPECT_EQ(WithoutTime(Lines(log_).at(0)), "info zelpnl/platform: hello");
}

TEST_F(LogTest, ConcurrentWritersNeverSplitALine) {
  pnl_log::Configure(log_, Level::kInfo, Level::kOff);
  const std::string payload(3000, 'x');
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t, &payload] {
      const pnl_log::Module channel("thread" + std::to_string(t), "p");
      for (int i = 0; i < 200; ++i) channel.Info(payload);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<std::string> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 1600u);
  static const std::regex whole(R"(^info p/thread[0-7]: x{3000}$)");
  for (const std::string& line : lines) ASSERT_TRUE(std::regex_match(WithoutTime(line), whole));
}

}  // namespace
