// Mailboxes: an address line in the virtual user table pointing at the
// mailbox's local name, an aliases entry of that name (written by the
// concrete back-end) and, while suspended, an access-map entry.

#include "email/access_entries.h"
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"
#include "zelapi/str.h"

namespace email {

namespace {


// The mailbox's domain row, positioned.
std::shared_ptr<zel_db::EmailDomainTable> DomainOf(MtaInterface::EmailPtr email) {
  std::shared_ptr<zel_db::EmailDomainTable> domains =
      zel_db::GetCache()->Get<zel_db::EmailDomainTable>();
  domains->Assert(email->domain.Str());
  return domains;
}


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
    const std::string address = str::Lower(lines->name.Str());
    const bool found = email::FindByEmailName(address, emails, domains);
    if (!found && domains->Eof()) continue;  // not a domain of the panel
    if (!found) {
      std::string rest = address;
      emails->New();
      emails->name = str::GetWord(rest, '@');
      emails->domain.SetText(domains->id.Str());
    }
    // While its domain is suspended every mailbox line refuses mail: a
    // mailbox's own state is then its row's alone.
    if (domains->enabled.Value() || !found)
      emails->enabled = lines->target.Str() != disabled_target();
    emails->tag = tag;
    emails->Post();
  }
  emails->DbDelete("tag != " + str::Str(static_cast<long>(tag)));
}

void SendmailLikeInterface::CreateEmail(EmailPtr email) {
  std::shared_ptr<zel_db::EmailDomainTable> domains = DomainOf(email);

  Cursor<VirtualDomains> domain_line =
      VirtualUserTable::Get<VirtualDomains>(virtusertable_path(), true);
  Cursor<VirtualEmails> line = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
  line->New();
  line->name.Set(email->name.Str() + "@" + domains->name.Str());
  // A mailbox made in a suspended domain is suspended with it.
  line->target = InService(email, domains) ? GetVirtuserTarget(email, domains) : disabled_target();
  // The mailbox line goes with its domain's catch-all line.
  domain_line->Find(domains->name.Str());
  line->Post(*domain_line);
}

void SendmailLikeInterface::DeleteEmail(EmailPtr email) {
  const std::string address = email::GetEmailName(email);
  std::shared_ptr<zel_db::EmailDomainTable> domains = DomainOf(email);
  const std::string entry = GetVirtuserTarget(email, domains);
  pnl_db::Cache* cache = zel_db::GetCache();
  cache->Get<zel_db::EmailAliasTable>()->DbDelete("email=" + email->id.Str());
  cache->Get<zel_db::EmailForwardTable>()->DbDelete("email=" + email->id.Str());

  // The lines that point at the mailbox go first, then its aliases entry:
  // the other way round, its local name would for a moment (or, when the
  // save stops half-way, for good) have no entry while its address still
  // leads to it, and sendmail would hand it to the system user of the same
  // name.
  {
    Cursor<VirtualEmails> lines = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
    lines->Delete(address);
    // Aliases and redirects of other addresses onto this mailbox go too.
    for (lines->First(); !lines->Eof(); lines->Next()) {
      if (lines->target.Str() == address) lines->Delete();
    }
  }
  RemoveSuspension(address, false);
  RemoveAfterSave(Held::kAliasesEntry, entry);
}

void SendmailLikeInterface::SuspendEmail(EmailPtr email) {
  const std::string address = email::GetEmailName(email);
  std::shared_ptr<zel_db::EmailDomainTable> domains = DomainOf(email);
  {
    Cursor<VirtualEmails> line = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
    line->Assert(address);
    line->target = disabled_target();
    line->Post("");
  }
  // Its local name refuses mail too (reached at the server's own names).
  WriteAliasesEntry(email, domains, false);
  WriteSuspension(address);
}

void SendmailLikeInterface::ResumeEmail(EmailPtr email) {
  std::shared_ptr<zel_db::EmailDomainTable> domains = DomainOf(email);
  const std::string address = email->name.Str() + "@" + domains->name.Str();
  // In a suspended domain the mailbox stays out of service until the domain
  // is resumed; only its own suspension entry goes.
  if (domains->enabled.Value()) {
    {
      Cursor<VirtualEmails> line = VirtualUserTable::Get<VirtualEmails>(virtusertable_path(), true);
      line->Assert(address);
      line->target = GetVirtuserTarget(email, domains);
      line->Post("");
    }
    // Suspension left the alias lines as they were: the entry is all that
    // comes back.
    WriteAliasesEntry(email, domains, true);
  }
  RemoveSuspension(address, true);
}

void SendmailLikeInterface::UpdateEmail(EmailPtr) {}

}  // namespace email
