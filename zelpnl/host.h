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
// File changes: a command makes its back-end calls that write the mail
// files through ChangeFiles, with the engine deferring saves, so that each
// file the command changed is saved once and its map rebuilt once (one
// map rebuild per file, however many records the calls posted).
// A batch (BeginBatch .. EndBatch) stretches that over all its lines: the
// files are saved once, at its end.
//
// The Host owns the database connection and the module loader; module
// objects, the back-end and every cursor are used only while it lives. One
// Host per process, used from one thread.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

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
// not_in_batch: why the command cannot be a line of a batch ("" when it can).
struct Command {
  Command() = default;
  Command(Needs n, std::function<void(Host&, const Output&)> r, std::string not_batch = "")
      : needs(n), run(std::move(r)), not_in_batch(std::move(not_batch)) {}

  Needs needs = Needs::kMail;
  std::function<void(Host&, const Output&)> run;
  std::string not_in_batch;
};

// What a failure reports: the error's type, object and detail, and the exit
// status it calls for (1, or 2 for a value the validation refused).
struct Failure {
  std::string type;
  std::string object;
  std::string detail;
  int status = 1;
};

// The failure of the exception in flight: call from a catch block. Never
// throws.
Failure CurrentFailure();

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

  // Runs change, back-end calls that write the mail files, and sees the
  // files take it. undo (may be empty) sets the database back the way the
  // command's rule says when the files did not take it (a new row deleted
  // again, an earlier state restored); it must capture keys, not cursors.
  // On its own: the calls post into the cached copies only; then each
  // changed file is saved once and rebuilt (also after change threw: what
  // was posted before a failure is written, as a direct post would have
  // been). When change throws or a save or rebuild fails, undo runs and the
  // error passes (change's own error first). In a batch: the files are
  // saved at EndBatch; undo runs at once when change throws, else it is
  // kept for EndBatch. Throws what change and the engine throw.
  void ChangeFiles(const std::function<void()>& change,
                   const std::function<void()>& undo = nullptr);

  // Batch: from BeginBatch to EndBatch the engine defers every save, and
  // ChangeFiles keeps each undo with the line set by BatchLine. Throws
  // pnl_err::Error when a batch is open already.
  void BeginBatch();
  bool InBatch() const { return batch_; }
  void BatchLine(int line) { batch_line_ = line; }
  // Saves each file the batch changed once and rebuilds it; when that
  // fails, drops what could not be saved, runs every kept undo (latest
  // first), fills *failure and returns the lines that changed files (they
  // failed with it); else returns no line. Then runs the AtBatchEnd steps.
  // Ends the batch in every case. Never throws.
  std::set<int> EndBatch(Failure* failure) noexcept;
  // A step for the end of the batch (after the saves, whether they
  // succeeded or not), run once however many lines ask for it under key:
  // for work a single command does after each change but a batch needs
  // once (reading a whole list back from the files). Outside a batch the
  // step runs now. Errors of a step at the batch's end are logged.
  void AtBatchEnd(const std::string& key, std::function<void()> step);

  // Has the back-end rebuild each map older than its file (a request that
  // saved the text was ended before its rebuild, or the file was edited by
  // hand). Run at the start of each mail request, so a command run again
  // completes what the first run began; a failed rebuild is a warning and
  // the command goes on. Never throws.
  void RebuildStaleMaps() noexcept;

 private:
  // Saves the files changed since the engine began deferring (it stops
  // deferring in every case) and queues the restart the MTA's changed local
  // names need. Throws the first error of the saves.
  void SaveDeferred();
  void BeginDeferred();
  // Whether the MTA's local names changed since BeginDeferred.
  bool NamesChanged() const;
  void QueueRestartIfNamesChanged();

  GlobalOptions options_;
  std::string config_file_;
  bool db_open_ = false;
  std::unique_ptr<zel_api::ModuleLoader> loader_;
  email::MtaInterface* mta_ = nullptr;

  // Deferral of file saves.
  struct Kept {
    int line;
    std::function<void()> undo;
  };
  bool deferring_ = false;       // the engine defers saves for us
  bool batch_ = false;
  int batch_line_ = 0;
  std::vector<Kept> kept_;       // undos of the batch's lines, in order
  std::vector<std::pair<std::string, std::function<void()>>> at_end_;  // AtBatchEnd steps
};

// Runs the command as one request (see above) and returns the exit status;
// writes the error message on stderr (and, with --json, an error document on
// stdout). Never throws.
int Execute(const GlobalOptions& options, const Command& command);

// Maps an exception in flight to its message and exit status: call from a
// catch block. Writes to stderr (and stdout with json). Returns 1 or 2.
int ReportCurrentException(bool json);

}  // namespace zelpnl
