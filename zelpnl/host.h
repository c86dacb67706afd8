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
// The Host owns the database connection and the module loader; module
// objects, the back-end and every cursor are used only while it lives. One
// Host per process, used from one thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "output.h"

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
struct Command {
  Needs needs = Needs::kMail;
  std::function<void(Host&, const Output&)> run;
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
  explicit Host(GlobalOptions options);
  // Closes the database, destroys the module objects and unloads the modules.
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
  // The database and the back-end; throw pnl_err::Error when not open.
  pnl_db::Cache& Db() const;
  email::MtaInterface& Mta() const;

 private:
  GlobalOptions options_;
  std::string config_file_;
  bool db_open_ = false;
  std::unique_ptr<zel_api::ModuleLoader> loader_;
  email::MtaInterface* mta_ = nullptr;
};

// Runs the command as one request (see above) and returns the exit status;
// writes the error message on stderr (and, with --json, an error document on
// stdout). Never throws.
int Execute(const GlobalOptions& options, const Command& command);

// Maps an exception in flight to its message and exit status: call from a
// catch block. Writes to stderr (and stdout with json). Returns 1 or 2.
int ReportCurrentException(bool json);

}  // namespace zelpnl
