// zelresponder::SendThroughCommand: hands a message to a mail command on its
// standard input.
//
// The platform's pnl_proc::Execute gives every command /dev/null as its
// standard input, so the responder runs its send command itself:
// posix_spawn of /bin/sh -c 'COMMAND "$@"' with the arguments given after
// it, so that each reaches the command as one word, exactly, and is never
// read by the shell; one pipe for standard input and one for standard
// output and error together. The text is written while the
// output is read (poll), so neither side can block the other whatever their
// sizes. The call returns once the command has exited and its output pipe is
// drained; a background process the command leaves behind (sendmail's
// delivery in background mode) that keeps the pipe open does not hold it up.
// SIGPIPE is blocked in the calling thread while it writes (a command that
// stops reading gives EPIPE, not a signal) and a SIGPIPE left pending by
// that is taken back. The command inherits the process's environment.
// Thread-safe; the host must not set SIGCHLD to SIG_IGN (see pnl_proc).
#pragma once

#include <string>
#include <vector>

namespace zelresponder {

struct SendResult {
  // The command's exit status; 128 + the signal when killed; 127 when the
  // shell could not be started.
  int status = 0;
  // True when the command took the whole text: it exited without closing
  // its standard input early.
  bool took_all = false;
  // What it printed on standard output and error, in order.
  std::string output;
};

// Runs command through /bin/sh, args appended as words of their own, with
// text on its standard input, and waits for it. Logs the command at debug
// level on the responder's channel. Throws pnl_err::Error (type "proc",
// object the command) when no pipe can be made; never for a command that
// fails.
SendResult SendThroughCommand(const std::string& command, const std::string& text,
                              const std::vector<std::string>& args = {});

// The command line as a shell would read it: command, then each argument as
// one shell word (for messages).
std::string CommandLine(const std::string& command, const std::vector<std::string>& args);

// Why command cannot send an answer ("" when it can): a sendmail option
// among its words, before any "--", that reads recipients from the header
// (-t, alone or in a cluster of flags such as -ti): the answer goes to the
// one recipient on its command line and nowhere else.
std::string SendCommandProblem(const std::string& command);

}  // namespace zelresponder
