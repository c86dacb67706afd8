#include "host.h"

#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "email/fail.h"
#include "email/mta_interface.h"
#include "validation.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/conf/cache.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/log.h"
#include "zelapi/mail/responder_settings.h"
#include "zelapi/mail/tables.h"
#include "zelapi/mta_registry.h"
#include "zelapi/warn.h"

namespace fs = std::filesystem;

namespace zelpnl {

namespace {

constexpr char kDefaultConfig[] = "/etc/zelpnl/zelpnl.conf";
constexpr char kSystemModuleDir[] = "/usr/lib/zelpnl/modules";

// Set once the log is configured: before that, the logger would write to
// stderr, where the error is told already.
bool log_ready = false;
// The command line of this run, for the log.
std::string command_line;

const pnl_log::Module& HostLog() {
  static const pnl_log::Module log("host", "zelpnl");
  return log;
}

std::string TrimLineEnds(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

PnlConfCache& Engine() { return *BaseCachedConfig<PnlConfCache>::Instance(); }

// Runs an undo; its failure is logged (the error that made it run is the one
// told).
void RunUndo(const std::function<void()>& undo) {
  if (!undo) return;
  try {
    undo();
  } catch (const std::exception& e) {
    if (log_ready) HostLog().Error(std::string("setting the database back after a failure: ") + e.what());
  }
}

int Report(bool json, const std::string& type, const std::string& object,
           const std::string& detail, int status) {
  PrintError(object, detail);
  if (status == 1 && log_ready)
    HostLog().Error("failed: " + command_line + ": " + (object.empty() ? "" : object + ": ") +
                    TrimLineEnds(detail));
  if (json) {
    nlohmann::ordered_json doc = {{"error",
                           {{"type", type}, {"object", object}, {"detail", TrimLineEnds(detail)},
                            {"status", status}}}};
    Output(true).Print(doc, "");
  }
  return status;
}

// Tells the request's warnings (pnl_warn) when it goes out of scope, after
// the command's output and error: each as "warning: TEXT" on standard
// error, and in the log.
class WarningsAtEnd {
 public:
  WarningsAtEnd() = default;
  WarningsAtEnd(const WarningsAtEnd&) = delete;
  WarningsAtEnd& operator=(const WarningsAtEnd&) = delete;
  ~WarningsAtEnd() {
    try {
      for (const std::string& warning : pnl_warn::Take()) {
        PrintWarning(warning);
        if (log_ready) HostLog().Warning(command_line + ": " + warning);
      }
    } catch (...) {
    }
  }
};

// Logs the process's peak memory at debug level when it goes out of scope
// (the commands it ran are not counted): "peak memory N KiB".
class PeakMemoryNote {
 public:
  PeakMemoryNote() = default;
  PeakMemoryNote(const PeakMemoryNote&) = delete;
  PeakMemoryNote& operator=(const PeakMemoryNote&) = delete;
  ~PeakMemoryNote() {
    if (!log_ready) return;
    struct rusage usage {};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return;
    try {
      HostLog().Debug("peak memory " + std::to_string(usage.ru_maxrss) + " KiB");
    } catch (...) {
    }
  }
};

// Ends the request (commit) and runs the deferred commands; their failures
// are in the log and told as one warning.
void FinishRequest(pnl_db::Cache& db) {
  db.EndRequest();
  const int failed = zel_api::RunDeferred();
  if (failed > 0) {
    const std::string log_file = pnl_cf::GetParam("log_file");
    PrintWarning(std::to_string(failed) + " deferred command" + (failed == 1 ? "" : "s") +
                 " failed" + (log_file.empty() ? "" : " (see " + log_file + ")"));
  }
}

}  // namespace

std::string ConfigFile(const std::string& option) {
  std::string file = option;
  if (file.empty()) {
    const char* env = std::getenv("ZELPNL_CONF");
    file = (env && *env) ? env : kDefaultConfig;
  }
  std::error_code ec;
  fs::path path = fs::weakly_canonical(fs::absolute(file), ec);
  if (ec) return fs::absolute(file).lexically_normal().string();
  return path.string();
}

std::string ProgramDir() {
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return "";
  return exe.parent_path().string();
}

std::string DefaultModuleDir() {
  const std::string bin = ProgramDir();
  if (!bin.empty()) {
    const fs::path beside = (fs::path(bin).parent_path() / "lib" / "modules").lexically_normal();
    std::error_code ec;
    if (fs::is_directory(beside, ec)) return beside.string();
  }
  return kSystemModuleDir;
}

Host::Host(GlobalOptions options) : options_(std::move(options)) {}

Host::~Host() {
  // Changes a failed run never saved are dropped, not written later.
  if (deferring_) Engine().DiscardDeferred();
  if (db_open_) zel_db::CloseCache();
  if (mta_) {
    // The host owns the back-end; it goes before the code it runs is unloaded.
    email::ForgetMta();
    delete mta_;
    mta_ = nullptr;
  }
  loader_.reset();
  zel_api::DiscardDeferred();
}

void Host::Open(Needs needs) {
  if (needs == Needs::kNothing) return;

  config_file_ = ConfigFile(options_.config);
  std::error_code ec;
  if (!fs::exists(config_file_, ec))
    throw pnl_err::Error("conf", config_file_,
                         "no such configuration file (make a set-up with \"zelpnl init "
                         "--sandbox DIR\", or name the file with --config or ZELPNL_CONF)");
  pnl_cf::Load(config_file_);
  const std::string level = pnl_cf::GetParam("log_level");
  pnl_log::Configure(pnl_cf::GetParam("log_file"),
                     pnl_log::ParseLevel(level.empty() ? "info" : level), pnl_log::Level::kOff);
  log_ready = true;
  // The configuration is root's alone (or a panel group's): a file open to
  // every user is closed to them.
  if (pnl_file::CloseToOthers(config_file_))
    HostLog().Warning(config_file_ + " was open to every user; they no longer have access to it");
  if (needs == Needs::kConfig) return;

  const std::string database = pnl_cf::GetParam("database");
  if (database.empty())
    throw pnl_err::Error("conf", config_file_, "the parameter \"database\" is not set");
  zel_db::OpenCache(database);
  db_open_ = true;
  if (needs == Needs::kDatabase) return;

  std::string module_dir = pnl_cf::GetParam("module_dir");
  if (module_dir.empty()) module_dir = DefaultModuleDir();
  loader_ = std::make_unique<zel_api::ModuleLoader>();
  loader_->LoadFolder(module_dir);
  loader_->ConstructAll();
  mta_ = email::GetMta();
  if (!mta_)
    throw pnl_err::Error("module", "mail",
                         "no mail back-end registered; is MTA = sendmail set in " + config_file_ +
                             "?");
}

pnl_db::Cache& Host::Db() const {
  if (!db_open_) throw pnl_err::Error("db", "database", "the database is not open");
  return *zel_db::GetCache();
}

email::MtaInterface& Host::Mta() const {
  if (!mta_) throw pnl_err::Error("module", "mail", "no mail back-end registered");
  return *mta_;
}

void Host::BeginDeferred() {
  // Without the mail back-end (a batch of users and web domains) there are
  // no mail files to watch.
  if (mta_) mta_->BeginSaves();
  Engine().BeginDeferred();
  deferring_ = true;
}

void Host::SaveDeferred() {
  deferring_ = false;
  try {
    Engine().FlushDeferred();
  } catch (...) {
    // A file that could not be written (or whose rebuild failed) and the
    // files after it keep their changes only in memory: they are dropped,
    // and read again at their next use. What waited on them goes too.
    Engine().DiscardDeferred();
    if (mta_) mta_->DropHeldRemovals();
    QueueRestartIfNamesChanged();
    throw;
  }
  // The removals that waited on this save: the lines that pointed at what
  // they remove are gone from the maps now.
  bool held = false;
  if (mta_) {
    Engine().BeginDeferred();
    try {
      held = mta_->PostHeldRemovals();
    } catch (const std::exception& e) {
      Engine().DiscardDeferred();
      pnl_warn::Add(std::string("removing what deleted objects left in the files: ") + e.what());
    }
  }
  // A domain the local names no longer list keeps its catch-all line until
  // the MTA has read its local names again: restart it now, before
  // the catch-all goes, instead of after the request.
  if (held && NamesChanged()) {
    mta_->RestartNow();
  } else {
    QueueRestartIfNamesChanged();
  }
  if (Engine().Deferred()) {
    try {
      Engine().FlushDeferred();
    } catch (const std::exception& e) {
      Engine().DiscardDeferred();
      pnl_warn::Add(std::string("removing what deleted objects left in the files: ") + e.what());
    }
  }
}

bool Host::NamesChanged() const { return mta_ && mta_->LocalNamesChanged(); }

void Host::QueueRestartIfNamesChanged() {
  // The local names' file asks for its restart only after a direct save;
  // after a deferred one the host queues it.
  try {
    if (NamesChanged()) mta_->RestartLater();
  } catch (const std::exception& e) {
    if (log_ready) HostLog().Error(std::string("queueing the restart: ") + e.what());
  }
}

void Host::ChangeFiles(const std::function<void()>& change, const std::function<void()>& undo) {
  if (deferring_) {
    // In a batch (or inside another ChangeFiles): saved at its end.
    try {
      change();
    } catch (...) {
      RunUndo(undo);
      throw;
    }
    kept_.push_back({batch_line_, undo});
    return;
  }
  BeginDeferred();
  try {
    change();
  } catch (...) {
    try {
      SaveDeferred();
    } catch (const std::exception& e) {
      if (log_ready) HostLog().Error(std::string("saving the files after a failure: ") + e.what());
    }
    for (auto it = kept_.rbegin(); it != kept_.rend(); ++it) RunUndo(it->undo);
    kept_.clear();
    RunUndo(undo);
    throw;
  }
  try {
    SaveDeferred();
  } catch (...) {
    for (auto it = kept_.rbegin(); it != kept_.rend(); ++it) RunUndo(it->undo);
    kept_.clear();
    RunUndo(undo);
    throw;
  }
  kept_.clear();
}

void Host::RebuildStaleMaps() noexcept {
  if (mta_) mta_->RebuildStaleMaps();
}

void Host::BeginBatch() {
  if (batch_ || deferring_) throw pnl_err::Error("batch", "batch", "a batch is open already");
  BeginDeferred();
  batch_ = true;
  batch_line_ = 0;
  kept_.clear();
}

std::set<int> Host::EndBatch(Failure* failure) noexcept {
  std::set<int> failed;
  if (!batch_) return failed;
  batch_ = false;
  try {
    SaveDeferred();
  } catch (...) {
    if (failure) *failure = CurrentFailure();
    for (auto it = kept_.rbegin(); it != kept_.rend(); ++it) {
      failed.insert(it->line);
      RunUndo(it->undo);
    }
  }
  kept_.clear();
  batch_line_ = 0;
  std::vector<std::pair<std::string, std::function<void()>>> steps = std::move(at_end_);
  at_end_.clear();
  for (const auto& step : steps) {
    try {
      step.second();
    } catch (const std::exception& e) {
      if (log_ready) HostLog().Error("at the end of the batch, " + step.first + ": " + e.what());
    }
  }
  return failed;
}

void Host::AtBatchEnd(const std::string& key, std::function<void()> step) {
  if (!batch_) {
    step();
    return;
  }
  for (const auto& kept : at_end_)
    if (kept.first == key) return;
  at_end_.emplace_back(key, std::move(step));
}

Failure CurrentFailure() {
  try {
    throw;
  } catch (const Invalid& e) {
    return {e.type(), e.object(), e.detail(), 2};
  } catch (const pnl_err::Error& e) {
    return {e.type(), e.object(), e.detail(), 1};
  } catch (const std::exception& e) {
    return {"internal", "", e.what(), 1};
  } catch (...) {
    return {"internal", "", "unknown failure", 1};
  }
}

int ReportCurrentException(bool json) {
  const Failure f = CurrentFailure();
  return Report(json, f.type, f.object, f.detail, f.status);
}

int Execute(const GlobalOptions& options, const Command& command) {
  const Output out(options.json);
  command_line = options.line;
  // Told last, once the host is gone: what the run needed at most.
  const PeakMemoryNote peak;
  // The host outlives the report: an error may come from a module's code.
  Host host(options);
  const WarningsAtEnd warnings;
  try {
    host.Open(command.needs);
    if (command.needs < Needs::kDatabase) {
      command.run(host, out);
      if (log_ready && !out.failed()) HostLog().Info("done: " + command_line);
      return out.status();
    }
    pnl_db::Cache& db = host.Db();
    db.BeginRequest();
    // The responder's settings files follow the rows the request changes.
    email::WatchResponderSettings(db);
    if (command.needs == Needs::kMail) host.RebuildStaleMaps();
    try {
      command.run(host, out);
    } catch (...) {
      // What was posted before the failure stays; the error is told after.
      try {
        FinishRequest(db);
      } catch (const std::exception& e) {
        if (log_ready) HostLog().Error(std::string("ending the failed request: ") + e.what());
      }
      throw;
    }
    FinishRequest(db);
    if (!out.failed()) HostLog().Info("done: " + command_line);
    return out.status();
  } catch (...) {
    return ReportCurrentException(options.json);
  }
}

}  // namespace zelpnl
