#include "host.h"

#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "email/mta_interface.h"
#include "validation.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
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

std::string TrimLineEnds(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

int Report(bool json, const Failure& f, const RunLog* log) {
  const std::string& object = f.object;
  PrintError(object, f.detail);
  if (f.status == 1 && log)
    log->Error("failed: " + log->command_line() + ": " + (object.empty() ? "" : object + ": ") +
               TrimLineEnds(f.detail));
  if (json) {
    nlohmann::ordered_json doc = {{"error",
                           {{"type", f.type}, {"object", object}, {"detail", TrimLineEnds(f.detail)},
                            {"status", f.status}}}};
    Output(true).Print(doc, "");
  }
  return f.status;
}

// Tells the request's warnings (pnl_warn) when it goes out of scope, after
// the command's output and error: each as "warning: TEXT" on standard
// error, and in the log.
class WarningsAtEnd {
 public:
  explicit WarningsAtEnd(const RunLog& log) : log_(log) {}
  WarningsAtEnd(const WarningsAtEnd&) = delete;
  WarningsAtEnd& operator=(const WarningsAtEnd&) = delete;
  ~WarningsAtEnd() {
    try {
      for (const std::string& warning : pnl_warn::Take()) {
        PrintWarning(warning);
        log_.Warning(log_.command_line() + ": " + warning);
      }
    } catch (...) {
    }
  }

 private:
  const RunLog& log_;
};

// Logs the process's peak memory at debug level when it goes out of scope
// (the commands it ran are not counted): "peak memory N KiB".
class PeakMemoryNote {
 public:
  explicit PeakMemoryNote(const RunLog& log) : log_(log) {}
  PeakMemoryNote(const PeakMemoryNote&) = delete;
  PeakMemoryNote& operator=(const PeakMemoryNote&) = delete;
  ~PeakMemoryNote() {
    if (!log_.ready()) return;
    struct rusage usage {};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return;
    try {
      log_.Debug("peak memory " + std::to_string(usage.ru_maxrss) + " KiB");
    } catch (...) {
    }
  }

 private:
  const RunLog& log_;
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

Host::Host(GlobalOptions options, RunLog& log) : options_(std::move(options)), log_(log) {}

Host::~Host() {
  // Changes a failed run never saved are dropped, not written later.
  files_.reset();
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
  log_.SetReady();
  // The configuration is root's alone (or a panel group's): a file open to
  // every user is closed to them.
  if (pnl_file::CloseToOthers(config_file_))
    log_.Warning(config_file_ + " was open to every user; they no longer have access to it");
  if (needs == Needs::kConfig) return;

  const std::string database = pnl_cf::GetParam("database");
  if (database.empty())
    throw pnl_err::Error("conf", config_file_, "the parameter \"database\" is not set");
  zel_db::OpenCache(database);
  db_open_ = true;
  if (needs == Needs::kDatabase) {
    files_ = std::make_unique<FileChange>(nullptr, log_);
    return;
  }

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
  files_ = std::make_unique<FileChange>(mta_, log_);
}

pnl_db::Cache& Host::Db() const {
  if (!db_open_) throw pnl_err::Error("db", "database", "the database is not open");
  return *zel_db::GetCache();
}

email::MtaInterface& Host::Mta() const {
  if (!mta_) throw pnl_err::Error("module", "mail", "no mail back-end registered");
  return *mta_;
}

FileChange& Host::Files() const {
  if (!files_) throw pnl_err::Error("db", "database", "the database is not open");
  return *files_;
}

int ReportCurrentException(bool json, const RunLog* log) {
  return Report(json, CurrentFailure(), log);
}

int Execute(const GlobalOptions& options, const Command& command) {
  const Output out(options.json);
  RunLog log(options.line);
  // Told last, once the host is gone: what the run needed at most.
  const PeakMemoryNote peak(log);
  // The host outlives the report: an error may come from a module's code.
  Host host(options, log);
  const WarningsAtEnd warnings(log);
  try {
    host.Open(command.needs);
    if (command.needs < Needs::kDatabase) {
      command.run(host, out);
      if (!out.failed()) log.Info("done: " + log.command_line());
      return out.status();
    }
    pnl_db::Cache& db = host.Db();
    db.BeginRequest();
    // The responder's settings files follow the rows the request changes.
    email::WatchResponderSettings(db);
    if (command.needs == Needs::kMail) host.Mta().RebuildStaleMaps();
    try {
      command.run(host, out);
    } catch (...) {
      // What was posted before the failure stays; the error is told after.
      try {
        FinishRequest(db);
      } catch (const std::exception& e) {
        log.Error(std::string("ending the failed request: ") + e.what());
      }
      throw;
    }
    FinishRequest(db);
    if (!out.failed()) log.Info("done: " + log.command_line());
    return out.status();
  } catch (...) {
    return ReportCurrentException(options.json, &log);
  }
}

}  // namespace zelpnl
