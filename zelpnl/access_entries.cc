#include "access_entries.h"

#include "commands.h"
#include "email/sendmail_like.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

// The back-end's sendmail-family side, or nullptr for another kind.
email::SendmailLikeInterface* SendmailLike(Host& host) {
  return dynamic_cast<email::SendmailLikeInterface*>(&host.Mta());
}

std::optional<email::AccessEntry> FindKeys(Host& host, const std::vector<std::string>& keys) {
  email::SendmailLikeInterface* mta = SendmailLike(host);
  if (mta == nullptr) return std::nullopt;
  return email::FindAccessEntry(mta->accessdb_path(), keys);
}

}  // namespace

std::optional<email::AccessEntry> FindSenderEntry(Host& host, const std::string& sender) {
  email::SendmailLikeInterface* mta = SendmailLike(host);
  if (mta == nullptr) return std::nullopt;
  return FindKeys(host, mta->ListKeys(sender));
}

void RefuseForeignAccessEntry(Host& host, const std::string& key, const std::string& object) {
  const std::optional<email::AccessEntry> entry = FindKeys(host, {key});
  if (entry && !entry->panel) throw pnl_err::Error("conflict", object, email::NotThePanels(*entry));
}

void RefuseAccessEntryOfNewDomain(Host& host, const std::string& domain) {
  const std::string object = "mail domain " + Quote(domain);
  const std::optional<email::AccessEntry> entry = FindKeys(host, {domain});
  if (!entry) return;
  if (!entry->panel) throw pnl_err::Error("conflict", object, email::NotThePanels(*entry));
  const char* list = entry->value == "OK"       ? "whitelist"
                     : entry->value == "REJECT" ? "blacklist"
                                                : nullptr;
  if (list != nullptr)
    throw pnl_err::Error("conflict", object,
                         std::string("is on the ") + list +
                             "; delete it there first (a mail domain's access entry is its "
                             "suspension)");
}

}  // namespace zelpnl
