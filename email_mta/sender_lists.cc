// Server-wide sender lists, kept as access-map entries: "OK" for the
// whitelist, "REJECT" for the blacklist. The panel changes only the entries
// it wrote (email/access_entries.h) and records every one it writes.
#include <set>

#include "email/access_entries.h"
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"

namespace email {

namespace {

const char kWhitelistAction[] = "OK";
const char kBlacklistAction[] = "REJECT";

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool SameKey(const std::string& a, const std::string& b) { return Lower(a) == Lower(b); }

[[noreturn]] void RefuseForeign(const std::string& sender, const AccessEntry& entry) {
  throw pnl_err::Error(pnl_err::Kind::kConflict, "sender \"" + sender + "\"", NotThePanels(entry));
}

// An entry of the panel's under a key an earlier version wrote (an IPv6
// address in its compressed spelling, which sendmail never matches) gets
// the key sendmail looks up, unless another line holds that key already.
// Returns whether the line's key is now key.
bool Rewrite(Cursor<SourceTarget>& access, const std::string& path, const std::string& key,
             const std::string& action) {
  {
    Cursor<SourceTarget> other = AccessDb::Get<SourceTarget>(path, true);
    if (other->Find(key)) return false;
  }
  const std::string old_key = access->source.Str();
  RecordAccessEntry(path, key, action);
  access->source.Set(key);
  access->Post("");
  ForgetAccessEntry(path, old_key);
  return true;
}

// Refills a list table from the access-map entries whose target is action
// and whose key is one the panel writes (FromListVal gives a sender for it).
// The first line of a sender counts, as the first of two keys that differ
// only in letter case is the one sendmail's map keeps; entries the panel did
// not write are listed too, marked hand-written. Records of the panel's
// entries of this list whose line is gone are dropped.
template <class ListTable>
void RefillList(SendmailLikeInterface& mta, const std::string& action, const char* clear_sql) {
  pnl_db::Cache* cache = zel_db::GetCache();
  cache->Query(clear_sql);
  std::shared_ptr<ListTable> list = cache->Get<ListTable>();
  list->ClearCache(false);
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(mta.accessdb_path(), true);
  std::set<std::string> listed;
  std::set<std::string> keys;  // lower case
  for (access->First(); !access->Eof(); access->Next()) {
    keys.insert(Lower(access->source.Str()));
    if (access->target.Str() != action) continue;
    const std::string sender = mta.FromListVal(access->source.Str());
    if (sender.empty()) continue;
    const bool panel = IsPanelAccessEntry(mta.accessdb_path(), access->source.Str(), action);
    const std::string key = mta.ToListVal(sender);
    if (!SameKey(access->source.Str(), key)) {
      if (!panel || !Rewrite(access, mta.accessdb_path(), key, action)) continue;
      keys.insert(Lower(key));
    }
    if (!listed.insert(sender).second) continue;
    list->New();
    list->sender = sender;
    list->hand_written = !panel;
    list->Post();
  }
  std::vector<std::string> gone;
  for (pnl_db::Query q = cache->Query("SELECT key FROM email_access WHERE value = ?", {action});
       !q.Eof(); q.Next())
    if (keys.count(Lower(q.Str())) == 0) gone.push_back(q.Str());
  for (const std::string& key : gone) ForgetAccessEntry(mta.accessdb_path(), key);
}

}  // namespace

std::vector<std::string> SendmailLikeInterface::ListKeys(const std::string& entry) {
  return {ToListVal(entry)};
}

void SendmailLikeInterface::AddToList(const std::string& sender, const std::string& action) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  const std::vector<std::string> keys = ListKeys(sender);
  const std::optional<AccessEntry> entry = email::FindAccessEntry(access, keys);
  if (entry && !entry->panel) RefuseForeign(sender, *entry);
  if (!entry) {
    access->New();
    access->source.Set(keys[0]);
  } else if (!SameKey(entry->key, keys[0])) {
    // The panel's line under an older spelling: it takes the key sendmail
    // looks up.
    access->source.Set(keys[0]);
  }
  access->target.Set(action);
  RecordAccessEntry(accessdb_path(), keys[0], action);
  access->Post("");
  if (entry && !SameKey(entry->key, keys[0])) ForgetAccessEntry(accessdb_path(), entry->key);
}

void SendmailLikeInterface::DeleteFromList(const std::string& sender) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  const std::optional<AccessEntry> entry = email::FindAccessEntry(access, ListKeys(sender));
  if (!entry) return;
  if (!entry->panel) RefuseForeign(sender, *entry);
  access->_Delete(true);
  ForgetAccessEntry(accessdb_path(), entry->key);
}

void SendmailLikeInterface::AddToWhitelist(const std::string& sender) {
  AddToList(sender, kWhitelistAction);
}

void SendmailLikeInterface::DeleteFromWhitelist(const std::string& sender) {
  DeleteFromList(sender);
}

void SendmailLikeInterface::CacheWhitelist() {
  std::string stamp;
  if (!zel_db::FileIsChanged(accessdb_path(), stamp)) return;
  RefillList<zel_db::EmailWhitelist>(*this, kWhitelistAction, "DELETE FROM email_whitelist");
}

void SendmailLikeInterface::AddToBlacklist(const std::string& sender) {
  AddToList(sender, kBlacklistAction);
}

void SendmailLikeInterface::DeleteFromBlacklist(const std::string& sender) {
  DeleteFromList(sender);
}

void SendmailLikeInterface::CacheBlacklist() {
  RefillList<zel_db::EmailBlacklist>(*this, kBlacklistAction, "DELETE FROM email_blacklist");
}

}  // namespace email
