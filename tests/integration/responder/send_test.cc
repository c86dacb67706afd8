// Handing a message to a command on its standard input.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zelapi/err.h"
#include "zelresponder/send.h"

using zelresponder::SendResult;
using zelresponder::SendThroughCommand;

namespace {

class SendTest : public ::testing::Test {
 protected:
  zeltest::Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

bool SigpipePending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

TEST_F(SendTest, TheCommandGetsTheWholeTextOnItsStandardInput) {
  const std::string text = "From: l@d.example\nTo: ann@x.example\n\nhello\n";
  const SendResult r = SendThroughCommand("cat > " + box_.Path("got"), text);
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.took_all);
  EXPECT_EQ(r.output, "");
  EXPECT_EQ(box_.Read("got"), text);
}

TEST_F(SendTest, TextsLargerThanAPipeAndOutputAtTheSameTimeDoNotBlock) {
  // cat echoes everything back while the text is still being written: with
  // one side waiting for the other, this would hang.
  std::string text;
  for (int i = 0; text.size() < (4u << 20); ++i) text += "line " + std::to_string(i) + "\n";
  const SendResult r = SendThroughCommand("cat; echo done >&2", text);
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.took_all);
  EXPECT_EQ(r.output, text + "done\n");
}

TEST_F(SendTest, ExitStatusAndOutputOfAFailingCommandAreReported) {
  const SendResult r = SendThroughCommand("cat >/dev/null; echo 'queue full' >&2; exit 75", "x\n");
  EXPECT_EQ(r.status, 75);
  EXPECT_TRUE(r.took_all);
  EXPECT_EQ(r.output, "queue full\n");
}

TEST_F(SendTest, ACommandThatStopsReadingDidNotTakeTheTextAndRaisesNoSignal) {
  const std::string text(1 << 20, 'x');
  ASSERT_FALSE(SigpipePending());
  const SendResult r = SendThroughCommand("head -c 10 >/dev/null", text);
  EXPECT_EQ(r.status, 0);
  EXPECT_FALSE(r.took_all);
  EXPECT_FALSE(SigpipePending());
}

TEST_F(SendTest, AMissingProgramIsStatus127) {
  const SendResult r = SendThroughCommand(box_.Path("no-such-program") + " -t", "x\n");
  EXPECT_EQ(r.status, 127);
  EXPECT_NE(r.output.find("no-such-program"), std::string::npos);
}

TEST_F(SendTest, ASignalledCommandIs128PlusTheSignal) {
  const SendResult r = SendThroughCommand("kill -TERM $$", "");
  EXPECT_EQ(r.status, 128 + SIGTERM);
}

TEST_F(SendTest, ABackgroundProcessHoldingTheOutputDoesNotHoldTheCaller) {
  // The background process keeps the output pipe open for five seconds and
  // then writes to it; the call returns when the shell itself has exited,
  // without what comes late.
  const SendResult r = SendThroughCommand(
      "cat > " + box_.Path("got") + "; echo queued; (sleep 5; echo late) &", "text\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.took_all);
  EXPECT_EQ(r.output, "queued\n");
  EXPECT_EQ(box_.Read("got"), "text\n");
}

TEST_F(SendTest, ThePipesEndsOfTheCallerAreClosedInTheCommand) {
  // The command's descriptors are 0, 1 and 2 and whatever this process holds
  // open without close-on-exec (a test runner's own); the caller's ends of
  // the pipes are close-on-exec and do not reach the command.
  std::set<int> expected = {0, 1, 2};
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    const int flags = ::fcntl(fd, F_GETFD);
    if (fd > 2 && flags >= 0 && (flags & FD_CLOEXEC) == 0) expected.insert(fd);
  }
  // The shell's listing opens the folder itself and closes it again: only
  // the descriptors still open after it count.
  const SendResult r = SendThroughCommand(
      "for f in /proc/$$/fd/*; do [ -e \"$f\" ] && echo ${f##*/}; done; true", "");
  EXPECT_EQ(r.status, 0);
  std::set<int> got;
  std::istringstream lines(r.output);
  for (std::string line; std::getline(lines, line);) got.insert(std::stoi(line));
  EXPECT_EQ(got, expected) << r.output;
}

// Each argument reaches the command as one word, exactly: the shell that
// runs the configured command line never reads them.
TEST_F(SendTest, ArgumentsReachTheCommandAsWordsOfTheirOwnUnread) {
  const std::vector<std::string> args = {"-f",          "<>",         "--",       "a b@x.example",
                                         "$(touch x)",  "`touch y`",  "a;touch z", "'\"\\",
                                         "*",           "",           "-t"};
  const SendResult r = SendThroughCommand(
      "cd " + box_.dir() + " && cat >/dev/null && printf '[%s]\\n'", "text\n", args);
  EXPECT_EQ(r.status, 0);
  std::string expected;
  for (const std::string& arg : args) expected += "[" + arg + "]\n";
  EXPECT_EQ(r.output, expected);
  for (const char* file : {"x", "y", "z"}) EXPECT_FALSE(box_.Exists(file)) << file;
}

TEST_F(SendTest, TheCommandLineIsShownAsAShellWouldReadIt) {
  EXPECT_EQ(zelresponder::CommandLine("/usr/sbin/sendmail -oi",
                                      {"-f", "<>", "--", "ann@x.example"}),
            "/usr/sbin/sendmail -oi -f '<>' -- ann@x.example");
  EXPECT_EQ(zelresponder::CommandLine("x", {"o'brien@x.example"}), "x 'o'\\''brien@x.example'");
}

// sendmail -t reads recipients from the header (and, in sendmail 8.17,
// adds those of the command line): an answer must go to the one recipient
// on the command line, so a command that says -t is refused.
TEST_F(SendTest, ASendCommandThatReadsRecipientsFromTheHeaderIsNamed) {
  for (const char* command :
       {"/usr/sbin/sendmail -t", "/usr/sbin/sendmail -oi -t", "/usr/sbin/sendmail -ti",
        "/usr/sbin/sendmail -it", "/usr/sbin/sendmail\t-vt -oi"})
    EXPECT_NE(zelresponder::SendCommandProblem(command), "") << command;
  for (const char* command :
       {"/usr/sbin/sendmail -oi", "/usr/sbin/sendmail -odq -oi", "/usr/sbin/sendmail -oi -C /etc/t",
        "/usr/sbin/sendmail -OQueueDirectory=/var/spool/test -oi", "/usr/sbin/sendmail -Ftest",
        "/usr/sbin/sendmail -oi -- -t", "/usr/sbin/sendmail --t", "/bin/sh /opt/capture.sh"})
    EXPECT_EQ(zelresponder::SendCommandProblem(command), "") << command;
  EXPECT_EQ(zelresponder::SendCommandProblem("/usr/sbin/sendmail -oi -t"),
            "the send command \"/usr/sbin/sendmail -oi -t\" reads recipients from the header "
            "(\"-t\"); remove -t: the answer goes to the one recipient on its command line");
}
