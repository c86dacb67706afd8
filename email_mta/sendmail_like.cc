#include "email/sendmail_like.h"

#include <algorithm>

#include "email/access_entries.h"
#include "email/tables.h"
#include "zelapi/cf.h"
#include "zelapi/conf/cache.h"
#include "zelapi/mail/tables.h"

namespace email {

SendmailLikeInterface::SendmailLikeInterface(const std::string& mta,
                                             const std::string& nouser_target,
                                             const std::string& disabled_target)
    : restart_key_(mta + "-restart"),
      virtusertable_path_(pnl_cf::GetPath(mta + "-virtusertable")),
      localhostnames_path_(pnl_cf::GetPath(mta + "-localhostnames")),
      accessdb_path_(pnl_cf::GetPath(mta + "-accessdb")),
      aliases_path_(pnl_cf::GetPath(mta + "-aliases")),
      nouser_target_(nouser_target),
      disabled_target_(disabled_target) {}

SendmailLikeInterface::~SendmailLikeInterface() = default;

bool SendmailLikeInterface::InService(EmailPtr email, DomainPtr domain) {
  return email->enabled.Value() && domain->enabled.Value();
}

void SendmailLikeInterface::WriteSuspension(const std::string& key) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  access->Create(key);
  access->target.Set(kDisabledAccess);
  RecordAccessEntry(accessdb_path(), key, kDisabledAccess);
  access->Post("");
}

void SendmailLikeInterface::RemoveSuspension(const std::string& key, bool second_look) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  const std::optional<AccessEntry> entry = email::FindAccessEntry(access, {key});
  if (!entry || !entry->panel || entry->value != kDisabledAccess) return;
  if (second_look)
    access->Delete();
  else
    access->_Delete(true);
  ForgetAccessEntry(accessdb_path(), key);
}

void SendmailLikeInterface::RemoveNow(Held what, const std::string& key) {
  if (what == Held::kAliasesEntry) {
    Cursor<Aliases> entry = AliasTable::Get<Aliases>(aliases_path(), true);
    entry->Delete(key);
  } else {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    if (line->Find(key)) line->_Delete(true);
  }
}

void SendmailLikeInterface::RemoveAfterSave(Held what, const std::string& key) {
  if (!BaseCachedConfig<PnlConfCache>::Instance()->Deferred()) {
    RemoveNow(what, key);
    return;
  }
  std::lock_guard<std::mutex> lock(held_mu_);
  held_.push_back({what, key});
}

void SendmailLikeInterface::KeepHeld(Held what, const std::string& key) {
  std::lock_guard<std::mutex> lock(held_mu_);
  held_.erase(std::remove_if(held_.begin(), held_.end(),
                             [&](const HeldRemoval& h) { return h.what == what && h.key == key; }),
              held_.end());
}

bool SendmailLikeInterface::PostHeldRemovals() {
  std::vector<HeldRemoval> held;
  {
    std::lock_guard<std::mutex> lock(held_mu_);
    held.swap(held_);
  }
  for (const HeldRemoval& h : held) RemoveNow(h.what, h.key);
  return !held.empty();
}

void SendmailLikeInterface::DropHeldRemovals() noexcept {
  std::lock_guard<std::mutex> lock(held_mu_);
  held_.clear();
}

}  // namespace email
