// zelpnl host: what a run of the panel core opens and owns. It finds and
// loads the panel configuration, configures the log, opens the panel
// database, loads the modules of the module folder and finds the
// registered mail back-end, each as far as a command needs (Needs).
//
// The request's changes of the mail files go through its FileChange
// (file_change.h): saved together, undone together, stretched over a batch.
//
// The Host owns the database connection, the module loader, the back-end
// and the request's FileChange; module objects, the back-end and every
// cursor are used only while it lives. One Host per process, used from one
// thread.
#pragma once

#include <memory>
#include <string>

#include "file_change.h"
#include "request.h"
#include "run_log.h"

namespace pnl_db {
class Cache;
}
namespace email {
class MtaInterface;
class SandboxWriter;
}
namespace zel_api {
class ModuleLoader;
}
namespace mailstore {
class Maildirs;
}

namespace zelpnl {

// What a command needs before it runs, each level including the ones before.
enum class Needs {
  kNothing,   // runs on its own (init)
  kConfig,    // the configuration loaded and the log configured
  kDatabase,  // and the database open, in a request
  kMail,      // and the modules constructed and the mail back-end found
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
  // config: the configuration file as given (--config), "" for the default
  // (see ConfigFile). log: the run's log, which Open makes ready once the
  // configuration named its file; it must outlive the Host.
  Host(std::string config, RunLog& log);
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
  void UseConfig(const std::string& file) { config_ = file; }

  // The set-up writer of the mail back-end mta, from the modules of the
  // default module folder, before any configuration is loaded (init).
  // Throws pnl_err::Error(kModule) when no module registered one.
  const email::SandboxWriter& SandboxWriter(const std::string& mta);

  // The configuration file loaded ("" before Open(kConfig)).
  const std::string& config_file() const { return config_file_; }
  // The database, the back-end and the request's file changes; throw
  // pnl_err::Error when not open (the file changes come with the database).
  pnl_db::Cache& Db() const;
  email::MtaInterface& Mta() const;
  FileChange& Files() const;
  // The three of them, for a mail operation.
  Request MailRequest() const { return {Db(), Mta(), Files(), *maildirs_}; }

 private:
  std::string config_;
  RunLog& log_;
  std::string config_file_;
  bool db_open_ = false;
  // Loads the modules of folder, unless they are loaded already.
  void LoadModules(const std::string& folder);

  std::unique_ptr<zel_api::ModuleLoader> loader_;
  std::string module_dir_;  // the folder loader_ loaded
  email::MtaInterface* mta_ = nullptr;
  std::unique_ptr<FileChange> files_;
  std::unique_ptr<mailstore::Maildirs> maildirs_;
};

}  // namespace zelpnl
