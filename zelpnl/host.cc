#include "host.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "email/fail.h"
#include "email/mta_interface.h"
#include "validation.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelapi/log.h"
#include "zelapi/mail/tables.h"
#include "zelapi/mta_registry.h"

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

// Ends the request (commit) and runs the deferred commands; their failures
// are in the log and told as one warning.
void FinishRequest(pnl_db::Cache& db) {
  db.EndRequest();
  const int failed = zel_api::RunDeferred();
  if (failed > 0) {
    const std::string log_file = pnl_cf::GetParam("log_file");
    std::cerr << "warning: " << failed << " deferred command" << (failed == 1 ? "" : "s")
              << " failed" << (log_file.empty() ? "" : " (see " + log_file + ")") << "\n";
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

int ReportCurrentException(bool json) {
  try {
    throw;
  } catch (const Invalid& e) {
    return Report(json, e.type(), e.object(), e.detail(), 2);
  } catch (const pnl_err::Error& e) {
    return Report(json, e.type(), e.object(), e.detail(), 1);
  } catch (const std::exception& e) {
    return Report(json, "internal", "", e.what(), 1);
  } catch (...) {
    return Report(json, "internal", "", "unknown failure", 1);
  }
}

int Execute(const GlobalOptions& options, const Command& command) {
  const Output out(options.json);
  command_line = options.line;
  // The host outlives the report: an error may come from a module's code.
  Host host(options);
  try {
    host.Open(command.needs);
    if (command.needs < Needs::kDatabase) {
      command.run(host, out);
      if (log_ready && !out.failed()) HostLog().Info("done: " + command_line);
      return out.failed() ? 1 : 0;
    }
    pnl_db::Cache& db = host.Db();
    db.BeginRequest();
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
    return out.failed() ? 1 : 0;
  } catch (...) {
    return ReportCurrentException(options.json);
  }
}

}  // namespace zelpnl
