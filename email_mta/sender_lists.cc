// Server-wide sender lists, kept as access-map entries: "OK" for the
// whitelist, "REJECT" for the blacklist.
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db.h"
#include "zelapi/mail/tables.h"

namespace email {

namespace {

const char kWhitelistAction[] = "OK";
const char kBlacklistAction[] = "REJECT";

// Refills a list table from the access-map entries whose target is action.
template <class ListTable>
void RefillList(SendmailLikeInterface& mta, const std::string& action, const char* clear_sql) {
  pnl_db::Cache* cache = zel_db::GetCache();
  cache->Query(clear_sql);
  std::shared_ptr<ListTable> list = cache->Get<ListTable>();
  list->ClearCache(false);
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(mta.accessdb_path(), true);
  for (access->First(); !access->Eof(); access->Next()) {
    if (access->target.Str() != action) continue;
    list->New();
    list->sender = mta.FromListVal(access->source.Str());
    list->Post();
  }
}

}  // namespace

void SendmailLikeInterface::AddToList(const std::string& sender, const std::string& action) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  const std::string key = ToListVal(sender);
  if (!access->Find(key)) {
    access->New();
    access->source.Set(key);
  }
  access->target.Set(action);
  access->Post("");
}

void SendmailLikeInterface::DeleteFromList(const std::string& sender) {
  const std::string key = ToListVal(sender);
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  if (access->Find(key)) access->_Delete(true);
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
