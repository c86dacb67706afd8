#include "zelapi/proc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "zelapi/err.h"
#include "zelapi/fd.h"
#include "zelapi/log.h"
#include "zelapi/spawn.h"

namespace pnl_proc {
namespace {

using pnl_file::Fd;

// How often a reader whose pipe stays open checks whether the command's own
// process has ended (a background child may hold the pipe for ever).
constexpr int kExitCheckMillis = 100;
// What is still read from the pipe once the command's process has ended.
constexpr size_t kDrainLimit = 1 << 20;

pnl_err::Error SystemError(const std::string& command, const std::string& what, int error) {
  return pnl_err::Error(pnl_err::Kind::kProc, command, what + ": " + std::strerror(error));
}

void CheckMode(const std::string& command, int mode) {
  if (mode < 0 || mode > 2)
    throw pnl_err::Error(pnl_err::Kind::kProc, command, "unknown output mode " + std::to_string(mode));
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int WaitFor(pid_t pid) {
  int wait_status = 0;
  while (::waitpid(pid, &wait_status, 0) < 0) {
    if (errno != EINTR) return 127;  // not our child any more: nothing to report
  }
  return ExitStatus(wait_status);
}

// Reads what is in the pipe now. Returns false at end of file or on error.
bool ReadAvailable(int fd, std::string& output, size_t limit) {
  char buffer[65536];
  size_t taken = 0;
  while (taken < limit) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      output.append(buffer, static_cast<size_t>(n));
      taken += static_cast<size_t>(n);
    } else if (n == 0) {
      return false;
    } else if (errno == EINTR) {
      continue;
    } else {
      return errno == EAGAIN || errno == EWOULDBLOCK;
    }
  }
  return true;
}

// Collects the output until the pipe closes or the process has ended, then
// reaps the process. Returns its status.
int Collect(pid_t pid, int fd, std::string& output) {
  for (;;) {
    struct pollfd p = {fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, kExitCheckMillis);
    if (ready < 0 && errno != EINTR) break;
    if (ready > 0) {
      if (!ReadAvailable(fd, output, static_cast<size_t>(-1))) break;
      continue;
    }
    if (ready == 0) {
      int wait_status = 0;
      pid_t done;
      do {
        done = ::waitpid(pid, &wait_status, WNOHANG);
      } while (done < 0 && errno == EINTR);
      if (done == pid) {
        ReadAvailable(fd, output, kDrainLimit);
        return ExitStatus(wait_status);
      }
      if (done < 0) return 127;
    }
  }
  return WaitFor(pid);
}

// A descriptor of at least 3, so that moving it onto 1 or 2 in the child is
// never a no-op that would leave its close-on-exec flag set.
int AboveStandard(int fd) {
  if (fd > STDERR_FILENO) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  ::close(fd);
  return moved;
}

std::string Escaped(const std::string& command) {
  std::string text;
  text.reserve(command.size());
  for (char c : command) {
    switch (c) {
      case '\\': text += "\\\\"; break;
      case '"': text += "\\\""; break;
      case '\n': text += "\\n"; break;
      case '\r': text += "\\r"; break;
      default: text += c;
    }
  }
  return text;
}

std::atomic<Runner*> installed{nullptr};

}  // namespace

ShellRunner::ShellRunner(std::string shell) : shell_(std::move(shell)) {}

RunResult ShellRunner::Run(const std::string& command, int mode) {
  CheckMode(command, mode);
  const auto start = std::chrono::steady_clock::now();
  RunResult result;

  Fd read_end;
  Fd write_end;
  if (mode != 0) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw SystemError(command, "cannot make a pipe", errno);
    read_end = Fd(AboveStandard(fds[0]));
    write_end = Fd(AboveStandard(fds[1]));
    if (read_end.get() < 0 || write_end.get() < 0)
      throw SystemError(command, "cannot make a pipe", errno);
  }

  SpawnOptions options;
  if (mode != 0) {
    options.out = write_end.get();
    options.err = mode == 2 ? write_end.get() : SpawnOptions::kOurs;
  }
  // The command starts with no blocked signals and default dispositions,
  // whatever the host ignores or blocks (SIGPIPE, SIGCHLD).
  options.signals = SpawnOptions::Signals::kNoneBlockedAllDefault;
  pid_t pid = 0;
  const int spawned = Spawn(shell_, {shell_, "-c", command}, options, pid);
  write_end.Close();
  if (spawned != 0) {
    result.status = 127;
    result.output = "cannot start " + shell_ + ": " + std::strerror(spawned);
    result.seconds = SecondsSince(start);
    return result;
  }

  if (mode == 0) {
    result.status = WaitFor(pid);
  } else {
    const int flags = ::fcntl(read_end.get(), F_GETFL);
    ::fcntl(read_end.get(), F_SETFL, flags | O_NONBLOCK);
    result.status = Collect(pid, read_end.get(), result.output);
  }
  result.seconds = SecondsSince(start);
  return result;
}

Runner& CurrentRunner() {
  Runner* runner = installed.load();
  if (runner != nullptr) return *runner;
  static ShellRunner* shell = new ShellRunner();
  return *shell;
}

void SetRunner(Runner* runner) { installed.store(runner); }

Execute::Execute(const std::string& command, int mode) {
  CheckMode(command, mode);
  result_ = CurrentRunner().Run(command, mode);
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.6f", result_.seconds);
  pnl_log::Platform().Debug("ran \"" + Escaped(command) + "\" status=" +
                            std::to_string(result_.status) + " seconds=" + seconds);
}

}  // namespace pnl_proc
