#include "access_entries.h"

#include "email/access_entries.h"
#include "email/mta_interface.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

void RefuseForeignAccessEntry(email::MtaInterface& mta, const std::string& key, const std::string& object) {
  const std::optional<email::AccessEntry> entry = mta.FindAccessEntry({key});
  if (entry && !entry->panel) throw pnl_err::Error(pnl_err::Kind::kConflict, object, email::NotThePanels(*entry));
}

void RefuseAccessEntryOfNewDomain(email::MtaInterface& mta, const std::string& domain) {
  const std::string object = "mail domain " + Quote(domain);
  const std::optional<email::AccessEntry> entry = mta.FindAccessEntry({domain});
  if (!entry) return;
  if (!entry->panel) throw pnl_err::Error(pnl_err::Kind::kConflict, object, email::NotThePanels(*entry));
  const char* list = entry->value == "OK"       ? "whitelist"
                     : entry->value == "REJECT" ? "blacklist"
                                                : nullptr;
  if (list != nullptr)
    throw pnl_err::Error(pnl_err::Kind::kConflict, object,
                         std::string("is on the ") + list +
                             "; delete it there first (a mail domain's access entry is its "
                             "suspension)");
}

}  // namespace zelpnl
