// pnl_proc::Spawn: where the child's standard descriptors lead, which
// signals it starts with, and how a program that cannot start is told.
#include "zelapi/spawn.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

// Runs argv with options, out (and err unless told) into a pipe; returns
// what it printed and sets *status.
std::string RunCollecting(const std::vector<std::string>& argv, pnl_proc::SpawnOptions options,
                          int* status) {
  int fds[2];
  EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  if (options.out == pnl_proc::SpawnOptions::kDevNull) options.out = fds[1];
  if (options.err == pnl_proc::SpawnOptions::kDevNull) options.err = fds[1];
  pid_t pid = -1;
  EXPECT_EQ(pnl_proc::Spawn(argv[0], argv, options, pid), 0);
  ::close(fds[1]);
  std::string out;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<size_t>(n));
  ::close(fds[0]);
  int wait_status = 0;
  ::waitpid(pid, &wait_status, 0);
  *status = pnl_proc::ExitStatus(wait_status);
  return out;
}

// SIGUSR1 blocked in this thread for the object's life.
class BlockUsr1 {
 public:
  BlockUsr1() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set_, &old_);
  }
  ~BlockUsr1() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }

 private:
  sigset_t set_;
  sigset_t old_;
};

// Whether a child has SIGUSR1 blocked, from the mask the kernel shows for
// it (not a shell: a shell unblocks every signal when it starts).
bool ChildBlocksUsr1(const pnl_proc::SpawnOptions& options) {
  int status = -1;
  const std::string text = RunCollecting({"/bin/cat", "/proc/self/status"}, options, &status);
  const std::size_t at = text.find("\nSigBlk:");
  if (at == std::string::npos) {
    ADD_FAILURE() << text;
    return false;
  }
  const unsigned long long mask = std::stoull(text.substr(at + 8), nullptr, 16);
  return (mask >> (SIGUSR1 - 1)) & 1;
}

}  // namespace

TEST(SpawnTest, OutputAndErrorGoWhereTheCallerSaysInOrder) {
  int status = -1;
  const std::string out =
      RunCollecting({"/bin/sh", "-c", "echo one; echo two >&2; exit 3"}, {}, &status);
  EXPECT_EQ(out, "one\ntwo\n");
  EXPECT_EQ(status, 3);
}

TEST(SpawnTest, InputIsDevNullUnlessGiven) {
  int status = -1;
  EXPECT_EQ(RunCollecting({"/bin/sh", "-c", "wc -c"}, {}, &status), "0\n");

  int in[2];
  ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
  ASSERT_EQ(::write(in[1], "abc", 3), 3);
  ::close(in[1]);
  pnl_proc::SpawnOptions options;
  options.in = in[0];
  EXPECT_EQ(RunCollecting({"/bin/sh", "-c", "cat"}, options, &status), "abc");
  ::close(in[0]);
}

TEST(SpawnTest, ArgumentsReachTheProgramAsGiven) {
  int status = -1;
  EXPECT_EQ(RunCollecting({"/bin/sh", "-c", "printf '[%s]' \"$@\"", "name", "a b", "$HOME", ""}, {},
                          &status),
            "[a b][$HOME][]");
}

TEST(SpawnTest, ChildKeepsOurBlockedSignalsOnlyWhenAsked) {
  BlockUsr1 block;
  EXPECT_TRUE(ChildBlocksUsr1(pnl_proc::SpawnOptions()));
  pnl_proc::SpawnOptions none;
  none.signals = pnl_proc::SpawnOptions::Signals::kNoneBlocked;
  EXPECT_FALSE(ChildBlocksUsr1(none));
}

TEST(SpawnTest, DefaultDispositionsUndoWhatWeIgnore) {
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGUSR2, &ignore, &previous), 0);
  int status = -1;
  pnl_proc::SpawnOptions kept;
  kept.signals = pnl_proc::SpawnOptions::Signals::kNoneBlocked;
  RunCollecting({"/bin/sh", "-c", "kill -USR2 $$; exit 0"}, kept, &status);
  EXPECT_EQ(status, 0);
  pnl_proc::SpawnOptions defaults;
  defaults.signals = pnl_proc::SpawnOptions::Signals::kNoneBlockedAllDefault;
  RunCollecting({"/bin/sh", "-c", "kill -USR2 $$; exit 0"}, defaults, &status);
  EXPECT_EQ(status, 128 + SIGUSR2);
  ::sigaction(SIGUSR2, &previous, nullptr);
}

TEST(SpawnTest, ProgramThatCannotStartGivesTheErrorAndNoProcess) {
  pid_t pid = 12345;
  EXPECT_EQ(pnl_proc::Spawn("/nonexistent/program", {"/nonexistent/program"}, {}, pid), ENOENT);
  EXPECT_EQ(pid, 12345);
}

TEST(ExitStatusTest, ExitCodeOrSignalPlus128) {
  EXPECT_EQ(pnl_proc::ExitStatus(3 << 8), 3);
  EXPECT_EQ(pnl_proc::ExitStatus(SIGKILL), 128 + SIGKILL);
  EXPECT_EQ(pnl_proc::ExitStatus(0x137f), 127);  // stopped by SIGSTOP
}

TEST(SpawnTest, ADaemonsChildKeepsNoDescriptorAboveTwoWhenAsked) {
  // A descriptor without close-on-exec, as a caller's inherited pipe is.
  int open_fd = ::open("/dev/null", O_RDONLY);
  ASSERT_GE(open_fd, 3);
  const std::string probe = "/proc/self/fd/" + std::to_string(open_fd);
  int status = -1;
  RunCollecting({"/usr/bin/test", "-e", probe}, {}, &status);
  EXPECT_EQ(status, 0) << "inherited without the option";
  pnl_proc::SpawnOptions options;
  options.close_others = true;
  RunCollecting({"/usr/bin/test", "-e", probe}, options, &status);
  EXPECT_EQ(status, 1) << "still open with the option";
  ::close(open_fd);
}
