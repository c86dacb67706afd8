// zelpnl host: one run of the panel core. It finds and loads the panel
// configuration, configures the log, opens the panel database, loads the
// modules of the module folder and finds the registered mail back-end; then
// it runs one command as one request and maps every failure to an exit status
// and one message, in one place.
//
// A request: BeginRequest, the command, EndRequest (which commits also when
// the command failed, so that rows posted before a failure stay), then the
// deferred commands (zel_api::RunDeferred; their failures are logged and
// reported as a warning). Exit statuses: 0 success, 1 an operation failed,
// 2 bad usage (the command line, or a value the validation refused).
//
// The request's changes of the mail files go through its FileChange
// (file_change.h): saved together, undone together, stretched over a batch.
//
// The Host owns the database connection, the module loader, the back-end
// and the request's FileChange; module objects, the back-end and every
// cursor are used only while it lives. One Host per process, used from one
// thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "failure.h"
#include "file_change.h"
#include "output.h"
#include "request.h"
#include "run_log.h"

namespace pnl_db {
class Cache;
}
namespace email {
class MtaInterface;
}
namespace zel_api {
class ModuleLoader;
}

namespace zelpnl {

// Options every command takes.
struct GlobalOptions {
  std::string config;  // --config FILE; "" for $ZELPNL_CONF, else the default file
  bool json = false;   // --json
  std::string line;    // the command line, for the log
};

// What a command needs before it runs, each level including the ones before.
enum class Needs {
  kNothing,   // runs on its own (init)
  kConfig,    // the configuration loaded and the log configured
  kDatabase,  // and the database open, in a request
  kMail,      // and the modules constructed and the mail back-end found
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

// The configuration file to use: the option, else $ZELPNL_CONF, else
// /etc/zelpnl/zelpnl.conf; made absolute (symbolic links resolved).
std::string ConfigFile(const std::string& option);

// The module folder when the configuration names none: lib/modules beside
// the folder of this program's bin/ folder when it exists, else
// /usr/lib/zelpnl/modules.
std::string DefaultModuleDir();

// The folder this program lives in (from /proc/self/exe).
std::string ProgramDir();

class Host {
 public:
  // log: the run's log, which Open makes ready once the configuration named
  // its file; it must outlive the Host.
  Host(GlobalOptions options, RunLog& log);
  // Drops the changes never saved, closes the database, destroys the module
  // objects and unloads the modules.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Opens what the level needs (see Needs). Throws pnl_err::Error naming the
  // configuration file, the parameter, the database or the module folder.
  void Open(Needs needs);

  // Makes Open use this configuration file, whatever the options said (init,
  // which writes the file first).
  void UseConfig(const std::string& file) { options_.config = file; }

  const GlobalOptions& options() const { return options_; }
  // The configuration file loaded ("" before Open(kConfig)).
  const std::string& config_file() const { return config_file_; }
  // The database, the back-end and the request's file changes; throw
  // pnl_err::Error when not open (the file changes come with the database).
  pnl_db::Cache& Db() const;
  email::MtaInterface& Mta() const;
  FileChange& Files() const;
  // The three of them, for a mail operation.
  Request MailRequest() const { return {Db(), Mta(), Files()}; }

 private:
  GlobalOptions options_;
  RunLog& log_;
  std::string config_file_;
  bool db_open_ = false;
  std::unique_ptr<zel_api::ModuleLoader> loader_;
  email::MtaInterface* mta_ = nullptr;
  std::unique_ptr<FileChange> files_;
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
