// Mailboxes: an address line in the virtual user table pointing at the
// mailbox's local name, an aliases entry of that name (written by the
// concrete back-end) and, while suspended, an access-map entry.
#include "email/access_entries.h"
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"
#include "zelapi/str.h"

namespace email {

namespace {

const char kDisabledAccess[] = "550 Account disabled";

}  // namespace

void SendmailLikeInterface::CacheEmails() {
  std::string stamp;
  if (!zel_db::FileIsChanged(virtusertable_path(), stamp)) return;

  pnl_db::Cache* cache = zel_db::GetCache();
  std::shared_ptr<zel_db::EmailTable> emails = cache->Get<zel_db::EmailTable>();
  std::shared_ptr<zel_db::EmailDomainTable> domains = cache->Get<zel_db::EmailDomainTable>();
  Cursor<VirtualEmails> lines = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);

  const int tag = str::Random<int>();
  for (lines->First(); !lines->Eof(); lines->Next()) {
    const std::string address = lines->name.Str();
    const bool found = email::FindByEmailName(address, emails, domains);
    if (!found && domains->Eof()) continue;  // not a domain of the panel
    if (!found) {
      std::string rest = address;
      emails->New();
      emails->name = str::GetWord(rest, '@');
      emails->domain.SetText(domains->id.Str());
    }
    emails->enabled = lines->target.Str() != disabled_target();
    emails->tag = tag;
    emails->Post();
  }
  emails->DbDelete("tag != " + str::Str(static_cast<long>(tag)));
}

void SendmailLikeInterface::CreateEmail(EmailPtr email) {
  pnl_db::Cache* cache = zel_db::GetCache();
  std::shared_ptr<zel_db::EmailDomainTable> domains = cache->Get<zel_db::EmailDomainTable>();
  domains->Assert(email->domain.Str());

  Cursor<VirtualDomains> domain_line =
      VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
  Cursor<VirtualEmails> line = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
  line->New();
  line->name.Set(email->name.Str() + "@" + domains->name.Str());
  line->target = GetVirtuserTarget(email, domains);
  // The mailbox line goes with its domain's catch-all line.
  domain_line->Find(domains->name.Str());
  line->Post(*domain_line);
}

void SendmailLikeInterface::DeleteEmail(EmailPtr email) {
  const std::string address = email::GetEmailName(email);
  pnl_db::Cache* cache = zel_db::GetCache();
  cache->Get<zel_db::EmailAliasTable>()->DbDelete("email=" + email->id.Str());
  cache->Get<zel_db::EmailForwardTable>()->DbDelete("email=" + email->id.Str());

  {
    Cursor<Aliases> aliases = AliasTable::Get<Aliases>(aliases_path(), true);
    aliases->Delete(str::Replace(address, "@", "+"));
  }
  {
    Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
    access->Delete(address);
    ForgetAccessEntry(accessdb_path(), address);
  }
  Cursor<VirtualEmails> lines = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
  lines->Delete(address);
  // Aliases and redirects of other addresses onto this mailbox go too.
  for (lines->First(); !lines->Eof(); lines->Next()) {
    if (lines->target.Str() == address) lines->Delete();
  }
}

void SendmailLikeInterface::SuspendEmail(EmailPtr email) {
  const std::string address = email::GetEmailName(email);
  {
    Cursor<VirtualEmails> line = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
    line->Assert(address);
    line->target = disabled_target();
    line->Post("");
  }
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  if (!access->Find(address)) {
    access->New();
    access->source.Set(address);
  }
  access->target.Set(kDisabledAccess);
  RecordAccessEntry(accessdb_path(), address, kDisabledAccess);
  access->Post("");
}

void SendmailLikeInterface::ResumeEmail(EmailPtr email) {
  std::string address;
  {
    Cursor<VirtualEmails> line = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
    std::shared_ptr<zel_db::EmailDomainTable> domains =
        zel_db::GetCache()->Get<zel_db::EmailDomainTable>();
    domains->Assert(email->domain.Str());
    address = email->name.Str() + "@" + domains->name.Str();
    line->Assert(address);
    line->target = GetVirtuserTarget(email, domains);
    line->Post("");
  }
  SetAliases(email, {});
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(accessdb_path(), true);
  if (access->Find(address)) access->Delete();
  ForgetAccessEntry(accessdb_path(), address);
}

void SendmailLikeInterface::UpdateEmail(EmailPtr) {}

}  // namespace email
