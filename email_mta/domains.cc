// Mail domains: a catch-all line in the virtual user table, a line in
// local-host-names and, while suspended, an access-map entry; while a domain
// is suspended its mailboxes are suspended in the files with it.
#include <vector>

#include "email/access_entries.h"
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/mail/tables.h"
#include "zelapi/str.h"

namespace email {

namespace {


// The ids of the domain's mailboxes, and of those whose own row is in
// service when only_in_service is set.
std::vector<std::string> MailboxIds(MtaInterface::DomainPtr domain, bool only_in_service) {
  std::vector<std::string> ids;
  std::string sql = "SELECT id FROM email WHERE domain = " + domain->id.Str();
  if (only_in_service) sql += " AND enabled != 0";
  for (pnl_db::Query q = zel_db::GetCache()->Query(sql + " ORDER BY id"); !q.Eof(); q.Next())
    ids.push_back(q.Str());
  return ids;
}

}  // namespace

void SendmailLikeInterface::CacheDomains() {
  std::string stamp;
  if (!zel_db::FileIsChanged(virtusertable_path(), stamp)) return;

  pnl_db::Cache* cache = zel_db::GetCache();
  std::shared_ptr<zel_db::EmailDomainTable> domains = cache->Get<zel_db::EmailDomainTable>();
  Cursor<HostNames> hosts = LocalHostNames::Get<HostNames>(localhostnames_path(), true);
  Cursor<VirtualDomains> lines = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);

  const int tag = str::Random<int>();
  for (lines->First(); !lines->Eof(); lines->Next()) {
    const std::string domain = str::Lower(lines->name.Str());
    const bool known = domains->name.Lookup(domain);
    if (!known) {
      // Only domains the panel knows become mail domains.
      pnl_db::Query owner =
          cache->Query("SELECT users FROM domain WHERE name = " + cache->EscapeValue(domain));
      if (owner.Eof()) continue;
      domains->New();
      domains->name = domain;
      if (owner.IsNull())
        domains->users.SetNull();
      else
        domains->users = owner.Int();
    }

    if (!hosts->Find(domain)) {
      hosts->Create(domain);
      hosts->Post("");
    }

    // The panel's suspension entry suspends the domain. No read-back takes
    // a suspension away: only resuming the domain does. An entry with any
    // other value is not the panel's (a sender list, a hand-written line)
    // and is left alone.
    const bool entry = access->Find(domain);
    const bool suspension = entry && access->target.Str() == kDisabledAccess;
    if (suspension) domains->enabled = false;
    if (!known && !suspension) domains->enabled = true;

    if (!domains->enabled.Value()) {
      // The suspension entry is the panel's, also one written by hand.
      if (suspension && !IsPanelAccessEntry(accessdb_path(), domain, kDisabledAccess))
        RecordAccessEntry(accessdb_path(), domain, kDisabledAccess);
      if (!entry) WriteSuspension(domain);
    } else {
      GetDefAction(lines, domains);
    }

    CacheOne(domains);
    domains->tag = tag;
    domains->Post();
  }
  domains->DbDelete("tag != " + str::Str(static_cast<long>(tag)));
}

void SendmailLikeInterface::CreateDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    // A catch-all this save was to remove (an earlier add's, replaced) is
    // written anew in its place: one line per key.
    KeepHeld(Held::kCatchAll, name);
    if (!line->Find(name)) {
      line->New();
      line->name.Set(name);
    }
    SetDefAction(line, domain);
    line->Post("");
  }
  Cursor<HostNames> hosts = LocalHostNames::Get<HostNames>(localhostnames_path(), true);
  hosts->Create(name);
  hosts->Post("");
}

void SendmailLikeInterface::DeleteDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  // local-host-names first: once sendmail no longer takes the domain as
  // local, its catch-all line no longer matters. The catch-all goes last,
  // so that an unknown local part of the domain never reaches a system
  // user meanwhile.
  {
    Cursor<HostNames> hosts = LocalHostNames::Get<HostNames>(localhostnames_path(), true);
    if (hosts->Find(name)) hosts->_Delete(true);
  }
  RemoveSuspension(name, false);
  RemoveAfterSave(Held::kCatchAll, name);
}

void SendmailLikeInterface::SuspendDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    line->Assert(name);
    line->target.Set(disabled_target());
    line->Post("");
  }
  WriteSuspension(name);

  // Every mailbox refuses mail with the domain; the rows keep each
  // mailbox's own state for the resume.
  WriteMailboxesOf(domain, false);
}

void SendmailLikeInterface::ResumeDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  RemoveSuspension(name, false);
  {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    line->Assert(name);
    SetDefAction(line, domain);
    line->Post("");
  }
  // Looked up again after the virtual user table changed: a suspension
  // entry that appeared meanwhile must not keep the domain refused.
  RemoveSuspension(name, true);

  // Each mailbox gets back the state its row names: one suspended on its
  // own stays suspended.
  WriteMailboxesOf(domain, true);
}

void SendmailLikeInterface::WriteMailboxesOf(DomainPtr domain, bool in_service) {
  const std::string name = domain->name.Str();
  std::shared_ptr<zel_db::EmailTable> email = zel_db::GetCache()->Get<zel_db::EmailTable>();
  Cursor<VirtualEmails> lines = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
  for (const std::string& id : MailboxIds(domain, in_service)) {
    email->Assert(id);
    if (lines->Find(email->name.Str() + "@" + name)) {
      lines->target = in_service ? GetVirtuserTarget(email, domain) : disabled_target();
      lines->Post("");
    }
    WriteAliasesEntry(email, domain, in_service);
  }
}

void SendmailLikeInterface::UpdateDomain(DomainPtr domain) {
  if (!domain->enabled.Value())
    SuspendDomain(domain);
  else
    ResumeDomain(domain);
}

}  // namespace email
