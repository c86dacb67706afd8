#include "email/access_entries.h"

#include "email/tables.h"
#include "zelapi/mail/tables.h"

namespace email {

std::optional<AccessEntry> FindAccessEntry(Cursor<SourceTarget>& access,
                                           const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    if (!access->Find(key)) continue;
    AccessEntry entry;
    entry.key = access->source.Str();
    entry.value = access->target.Str();
    entry.panel = zel_db::IsPanelAccessEntry(entry.key, entry.value);
    return entry;
  }
  return std::nullopt;
}

std::optional<AccessEntry> FindAccessEntry(const std::string& path,
                                           const std::vector<std::string>& keys) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(path, true);
  return FindAccessEntry(access, keys);
}

std::string NotThePanels(const AccessEntry& entry) {
  return "the access map holds \"" + entry.Text() + "\", which the panel did not write";
}

}  // namespace email
