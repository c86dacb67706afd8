// pnl_proc: running commands.
//
// Every command the platform runs goes through one Runner, so that tests can
// put in a runner that fails on purpose without changing the code under test.
// The default runner (a ShellRunner for /bin/sh) runs the command line
// through "/bin/sh -c" and waits for it. Execute logs every command it runs,
// whichever runner is installed, at debug level on the platform channel as
//
//   ran "<command>" status=<N> seconds=<F>
//
// with backslash, double quote and line ends of the command escaped as \\, \"
// and \n, and F the wall time in seconds with six decimals. Thread-safe.
// The host must not set SIGCHLD to SIG_IGN: the kernel would then reap the
// commands itself and their status could not be read (it is reported as 127).
#pragma once

#include <string>

namespace pnl_proc {

struct RunResult {
  int status = 0;       // exit status; 128 + signal when killed; 127 when /bin/sh cannot start
  std::string output;   // what the command printed (see the modes below)
  double seconds = 0;   // wall time
};

class Runner {
 public:
  virtual ~Runner() = default;
  // Runs one command line and waits for it. Never throws for a command that
  // fails; only for a failure of the runner itself (no process could be made).
  virtual RunResult Run(const std::string& command, int mode) = 0;
};

// Runs command lines as "<shell> -c <command>" with standard input from
// /dev/null and the output handled per mode (see Execute). The output is read
// until the command's process has exited and the pipe is drained; a
// background process that keeps the pipe open does not hold the caller up
// (what it prints after the command ended may be lost). When the shell
// cannot be started, Run returns status 127 with "cannot start <shell>:
// <cause>" as output. Throws pnl_err::Error (type "proc", object the
// command) when no pipe can be made or the mode is unknown. Stateless.
class ShellRunner : public Runner {
 public:
  explicit ShellRunner(std::string shell = "/bin/sh");
  RunResult Run(const std::string& command, int mode) override;

 private:
  std::string shell_;
};

// The runner in force; the default one unless a test installed another.
Runner& CurrentRunner();
// Installs a runner (nullptr: back to the default). The caller keeps ownership
// and must keep it alive while it is installed.
void SetRunner(Runner* runner);

// Modes of Execute:
//   0: the output is discarded (standard output and error go to /dev/null);
//   1: standard output is captured, standard error goes to ours;
//   2: standard output and standard error are captured together, in order.
// Standard input is always /dev/null.
class Execute {
 public:
  // Runs the command at once through CurrentRunner() and waits. Result() is
  // its exit status: 0 for success, non-zero when it failed, could not start
  // (127), or was killed by a signal (128 + the signal's number). Throws
  // pnl_err::Error (type "proc") for a mode other than 0, 1, 2, and what the
  // runner throws when it fails itself.
  Execute(const std::string& command, int mode);

  int Result() const { return result_.status; }
  const std::string& Str() const { return result_.output; }
  double Seconds() const { return result_.seconds; }

 private:
  RunResult result_;
};

}  // namespace pnl_proc
