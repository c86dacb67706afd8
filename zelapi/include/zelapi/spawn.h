// pnl_proc::Spawn: starting one program with posix_spawn, its standard
// input, output and error wired as the caller says.
//
// The one place the platform and its programs (the shell runner of
// pnl_proc, the alias builder's makemap and sendmail, the responder's send
// command) make a process. It only starts it: reading its output, writing
// its input and waiting stay with the caller, whose needs differ (a pipe
// read under poll, an output file read at the end). The child inherits the
// process's environment and every descriptor not marked close-on-exec, so
// the descriptors passed for 0, 1 and 2 should be close-on-exec (one that
// already sits at its place keeps that flag on some systems: pnl_proc's
// runner moves its pipe above 2 first).
//
// Costs one posix_spawn (a vfork-like clone and an exec) and the copies of
// the argument strings. Thread-safe; holds nothing after it returns.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace pnl_proc {

struct SpawnOptions {
  // Values for in, out and err besides a descriptor of ours to put there.
  static constexpr int kDevNull = -1;  // /dev/null (read-only for 0, write-only for 1, 2)
  static constexpr int kOurs = -2;     // the caller's own descriptor stays
  int in = kDevNull;
  int out = kDevNull;
  int err = kDevNull;

  // The signals the child starts with.
  enum class Signals {
    kAsOurs,          // our blocked set and dispositions, as fork would leave them
    kNoneBlocked,     // nothing blocked; dispositions as ours
    kNoneBlockedAllDefault,  // nothing blocked, every disposition the default
  };
  Signals signals = Signals::kAsOurs;
  // Every descriptor above 2 closed in the child, close-on-exec or not: for
  // a daemon, which must hold nothing of the process that started it (a
  // pipe it kept open would keep that process's reader waiting).
  bool close_others = false;
};

// Starts program (a path, not searched) with argv (argv[0] included).
// Returns 0 and sets pid, or returns posix_spawn's error number (no process
// was made; pid is unchanged). Never throws but for std::bad_alloc.
int Spawn(const std::string& program, const std::vector<std::string>& argv,
          const SpawnOptions& options, pid_t& pid);

// The exit status that a status from waitpid stands for: the code a program
// exited with, 128 + the signal's number when one ended it, and 127 for
// anything else (a stopped process, which waitpid reports only when asked).
int ExitStatus(int wait_status);

}  // namespace pnl_proc
