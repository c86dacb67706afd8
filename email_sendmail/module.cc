#include "email_sendmail/module.h"

#include <filesystem>
#include <memory>
#include <string>

#include "email/tables.h"
#include "email_sendmail/sandbox_files.h"
#include "email_sendmail/sendmail_interface.h"
#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"
#include "zelapi/log.h"
#include "zelapi/mta_registry.h"

namespace zelpriv_email_sendmail {

namespace {

pnl_log::Module email_log("email", "zelpnl");

// Path keys of the sendmail files and commands with their defaults, in the
// order they are installed. "sendmail-newaliases" has none on purpose: the
// aliases rebuild command must come from the panel's configuration.
const char* const kPathDefaults[][2] = {
    {"sendmail-mc", "/etc/mail/sendmail.mc"},
    {"sendmail-restart", "make -C /etc/mail restart"},
    {"sendmail-virtusertable", "/etc/mail/virtusertable"},
    {"sendmail-localhostnames", "/etc/mail/local-host-names"},
    {"sendmail-accessdb", "/etc/mail/access"},
    {"sendmail-aliases", "/etc/mail/aliases"},
};

// How many rows of a panel table name objects the file must hold (0 when
// no database is open: nothing to compare with).
long long PanelRows(const char* table) {
  if (!zel_db::HasCache()) return 0;
  return zel_db::GetCache()->Query(std::string("SELECT count(*) FROM ") + table).Int();
}

// A file that vanished while the panel has objects in it is not made anew:
// rebuilt from an empty file, its map would lose every entry at once, and
// sendmail would hand the panel's addresses to the system users of the same
// names. The administrator restores it first.
void RefuseVanished(const std::string& path, const char* table, const char* one,
                    const char* many, const char* restore) {
  std::error_code ec;
  if (std::filesystem::exists(path, ec) || ec) return;
  const long long rows = PanelRows(table);
  if (rows == 0) return;
  throw pnl_err::Error(pnl_err::Kind::kMissing, path,
                       "is missing while the panel has " + std::to_string(rows) + " " +
                           (rows == 1 ? one : many) +
                           " in it; it is not made anew (rebuilt from an empty file, its map "
                           "would lose them all at once). " + restore);
}

// The alias that discards mail, target of a domain's "ignore" action.
void EnsureDiscardAlias(const std::string& aliases_path) {
  Cursor<email::Aliases> entry = email::AliasTable::Get<email::Aliases>(aliases_path, true);
  if (entry->Find("devnull")) return;
  entry->New();
  entry->name.Set("devnull");
  entry->alias = "\"/dev/null\"";
  entry->Post("");
}

struct FabricRegistration {
  FabricRegistration() {
    __email_mtaFabric.Register("email_interface",
                               &zel_api::RegisterModule<__email_mtaModule>::Constructor);
  }
};

}  // namespace

zel_api::BaseRegisterModule __email_mtaFabric;

namespace {
FabricRegistration fabric_registration;
// Known as soon as the module is loaded: a set-up is made before any
// configuration says which back-end serves the panel.
const SandboxFiles sandbox_files;
email::SandboxRegistration sandbox_registration("sendmail", sandbox_files);
}  // namespace

__email_mtaModule::__email_mtaModule() : zel_api::Module("email_mta") {
  const std::string mta = pnl_cf::GetParam("MTA");
  if (mta.empty()) return;
  if (mta != "sendmail") return;  // another module serves this panel's mail

  for (const auto& path_default : kPathDefaults)
    pnl_cf::SetPathDefault(path_default[0], path_default[1]);

  auto backend = std::make_unique<SendmailInterface>();
  RefuseVanished(backend->aliases_path(), "email", "mailbox", "mailboxes",
                 "Restore it from a backup; its map (the .db file beside it) still holds the "
                 "entries, \"makemap -u hash FILE\" lists them.");
  RefuseVanished(backend->virtusertable_path(), "email_domain", "mail domain", "mail domains",
                 "Restore it from a backup; its map (the .db file beside it) still holds the "
                 "lines, \"makemap -u hash FILE\" lists them.");
  EnsureDiscardAlias(backend->aliases_path());
  apistat::ModuleInterface("mail", "sendmail");
  email::RegisterMta(backend.release());
  email_log.Debug("sendmail back-end registered");
}

}  // namespace zelpriv_email_sendmail
