// pnl_proc: running commands.
//
// Every command the platform runs goes through one Runner, so that tests can
// put in a runner that fails on purpose without changing the code under test.
// The default runner runs the command line through /bin/sh -c, waits for it
// and logs it with its duration and exit status at debug level. Thread-safe.
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

// The runner in force; the default one unless a test installed another.
Runner& CurrentRunner();
// Installs a runner (nullptr: back to the default). The caller keeps ownership
// and must keep it alive while it is installed.
void SetRunner(Runner* runner);

// Modes of Execute:
//   0: the output is discarded;
//   1: standard output is captured, standard error goes to ours;
//   2: standard output and standard error are captured together, in order.
// Standard input is always /dev/null.
class Execute {
 public:
  // Runs the command at once and waits. Result() is its exit status: 0 for
  // success, non-zero when it failed, could not start (127), or was killed by
  // a signal (128 + the signal's number).
  Execute(const std::string& command, int mode);

  int Result() const { return result_.status; }
  const std::string& Str() const { return result_.output; }
  double Seconds() const { return result_.seconds; }

 private:
  RunResult result_;
};

}  // namespace pnl_proc
