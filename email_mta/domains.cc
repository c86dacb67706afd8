// Mail domains: a catch-all line in the virtual user table, a line in
// local-host-names and, while suspended, an access-map entry.
#include "email/access_entries.h"
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db.h"
#include "zelapi/mail/tables.h"
#include "zelapi/str.h"

namespace email {

namespace {

const char kDisabledAccess[] = "550 Account disabled";

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
    const std::string domain = lines->name.Str();
    if (!domains->name.Lookup(domain)) {
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

    if (access->Find(domains->name.Str()))
      domains->enabled = access->target.Str() != kDisabledAccess;

    if (!domains->enabled.Value()) {
      if (!access->Find(domain)) {
        access->Create(domain);
        access->target.Set(disabled_target());
        access->Post("");
      }
    } else {
      if (access->Find(domain)) access->_Delete(true);
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
    line->New();
    line->name.Set(name);
    SetDefAction(line, domain);
    line->Post("");
  }
  Cursor<HostNames> hosts = LocalHostNames::Get<HostNames>(localhostnames_path(), true);
  hosts->Create(name);
  hosts->Post("");
}

void SendmailLikeInterface::DeleteDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    if (line->Find(name)) line->_Delete(true);
  }
  {
    Cursor<HostNames> hosts = LocalHostNames::Get<HostNames>(localhostnames_path(), true);
    if (hosts->Find(name)) hosts->_Delete(true);
  }
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  if (access->Find(name)) access->_Delete(true);
  ForgetAccessEntry(accessdb_path(), name);
}

void SendmailLikeInterface::SuspendDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    line->Assert(name);
    line->target.Set(disabled_target());
    line->Post("");
  }
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  access->Create(name);
  access->target.Set(kDisabledAccess);
  RecordAccessEntry(accessdb_path(), name, kDisabledAccess);
  access->Post("");
}

void SendmailLikeInterface::ResumeDomain(DomainPtr domain) {
  const std::string name = domain->name.Str();
  {
    Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
    if (access->Find(name)) access->_Delete(true);
    ForgetAccessEntry(accessdb_path(), name);
  }
  {
    Cursor<VirtualDomains> line = VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
    line->Assert(name);
    SetDefAction(line, domain);
    line->Post("");
  }
  // Looked up again after the virtual user table changed: an entry that
  // appeared meanwhile must not keep the domain refused.
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  if (access->Find(name)) access->Delete();
  ForgetAccessEntry(accessdb_path(), name);
}

void SendmailLikeInterface::UpdateDomain(DomainPtr domain) {
  if (!domain->enabled.Value())
    SuspendDomain(domain);
  else
    ResumeDomain(domain);
}

}  // namespace email
