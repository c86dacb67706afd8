#include "host.h"

#include <cstdlib>
#include <filesystem>

#include "email/mta_interface.h"
#include "email/sandbox.h"
#include "mailstore/maildirs.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/log.h"
#include "zelapi/mail/tables.h"
#include "zelapi/mta_registry.h"

namespace fs = std::filesystem;

namespace zelpnl {

namespace {

constexpr char kDefaultConfig[] = "/etc/zelpnl/zelpnl.conf";
constexpr char kSystemModuleDir[] = "/usr/lib/zelpnl/modules";

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

Host::Host(std::string config, RunLog& log) : config_(std::move(config)), log_(log) {}

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

  config_file_ = ConfigFile(config_);
  std::error_code ec;
  if (!fs::exists(config_file_, ec))
    throw pnl_err::Error(pnl_err::Kind::kConf, config_file_,
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
    throw pnl_err::Error(pnl_err::Kind::kConf, config_file_, "the parameter \"database\" is not set");
  zel_db::OpenCache(database);
  db_open_ = true;
  if (needs == Needs::kDatabase) {
    files_ = std::make_unique<FileChange>(nullptr, log_);
    return;
  }

  std::string module_dir = pnl_cf::GetParam("module_dir");
  if (module_dir.empty()) module_dir = DefaultModuleDir();
  LoadModules(module_dir);
  loader_->ConstructAll();
  mta_ = email::GetMta();
  if (!mta_)
    throw pnl_err::Error(pnl_err::Kind::kModule, "mail",
                         "no mail back-end registered; is MTA = sendmail set in " + config_file_ +
                             "?");
  files_ = std::make_unique<FileChange>(mta_, log_);
  maildirs_ = std::make_unique<mailstore::Maildirs>(pnl_cf::GetParam("mail_root"),
                                                    pnl_cf::GetParam("mail_archive"));
}

void Host::LoadModules(const std::string& folder) {
  if (loader_ && module_dir_ == folder) return;
  loader_ = std::make_unique<zel_api::ModuleLoader>();
  loader_->LoadFolder(folder);
  module_dir_ = folder;
}

const email::SandboxWriter& Host::SandboxWriter(const std::string& mta) {
  LoadModules(DefaultModuleDir());
  const email::SandboxWriter* writer = email::FindSandboxWriter(mta);
  if (writer == nullptr)
    throw pnl_err::Error(pnl_err::Kind::kModule, "mail",
                         "no module of " + DefaultModuleDir() + " makes a set-up for MTA = " + mta);
  return *writer;
}

pnl_db::Cache& Host::Db() const {
  if (!db_open_) throw pnl_err::Error(pnl_err::Kind::kDb, "database", "the database is not open");
  return *zel_db::GetCache();
}

email::MtaInterface& Host::Mta() const {
  if (!mta_) throw pnl_err::Error(pnl_err::Kind::kModule, "mail", "no mail back-end registered");
  return *mta_;
}

FileChange& Host::Files() const {
  if (!files_) throw pnl_err::Error(pnl_err::Kind::kDb, "database", "the database is not open");
  return *files_;
}

}  // namespace zelpnl
