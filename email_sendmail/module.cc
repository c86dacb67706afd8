#include "email_sendmail/module.h"

#include <memory>

#include "email/tables.h"
#include "email_sendmail/sendmail_interface.h"
#include "zelapi/cf.h"
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
}  // namespace

__email_mtaModule::__email_mtaModule() : zel_api::Module("email_mta") {
  const std::string mta = pnl_cf::GetParam("MTA");
  if (mta.empty()) return;
  if (mta != "sendmail") return;  // another module serves this panel's mail

  for (const auto& path_default : kPathDefaults)
    pnl_cf::SetPathDefault(path_default[0], path_default[1]);

  auto backend = std::make_unique<SendmailInterface>();
  EnsureDiscardAlias(backend->aliases_path());
  apistat::ModuleInterface("mail", "sendmail");
  email::RegisterMta(backend.release());
  email_log.Debug("sendmail back-end registered");
}

}  // namespace zelpriv_email_sendmail
