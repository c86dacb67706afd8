// zelpnl run: one run of the command line. It opens what the command needs
// (Host), runs it as one request and maps every failure to an exit status
// and one message, in one place.
//
// A request: BeginRequest, the command, EndRequest (which commits also when
// the command failed, so that rows posted before a failure stay), then the
// deferred commands (zel_api::RunDeferred; their failures are logged and
// reported as a warning). Exit statuses: 0 success, 1 an operation failed,
// 2 bad usage (the command line, or a value the validation refused).
#pragma once

#include <functional>
#include <string>

#include "failure.h"
#include "host.h"
#include "output.h"

namespace zelpnl {

// Options every command takes.
struct GlobalOptions {
  std::string config;  // --config FILE; "" for $ZELPNL_CONF, else the default file
  bool json = false;   // --json
  std::string line;    // the command line, for the log
};

class Host;

// A parsed command: what it needs and what it does. run throws on failure.
// not_in_batch: why the command cannot be a line of a batch ("" when it can).
struct Command {
  Command() = default;
  Command(Needs n, std::function<void(Host&, const Output&)> r, std::string not_batch = "")
      : needs(n), run(std::move(r)), not_in_batch(std::move(not_batch)) {}

  Needs needs = Needs::kMail;
  std::function<void(Host&, const Output&)> run;
  std::string not_in_batch;
};

// Runs the command as one request (see above) and returns the exit status;
// writes the error message on stderr (and, with --json, an error document on
// stdout). Never throws.
int Execute(const GlobalOptions& options, const Command& command);

// Maps an exception in flight to its message and exit status: call from a
// catch block. Writes to stderr (and stdout with json), and a failure of an
// operation to the log when given and ready. Returns 1 or 2.
int ReportCurrentException(bool json, const RunLog* log = nullptr);

}  // namespace zelpnl
