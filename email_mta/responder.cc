// Autoresponder: the responder action is one more target of the mailbox's
// aliases entry while the responder is on.
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"

namespace email {

namespace {

// The mailbox row of a responder, and the key of its aliases entry.
struct ResponderMailbox {
  std::shared_ptr<zel_db::EmailTable> email;
  std::shared_ptr<zel_db::EmailDomainTable> domain;
  std::string entry_key;
};

ResponderMailbox FindMailbox(MtaInterface::ResponderPtr responder) {
  pnl_db::Cache* cache = zel_db::GetCache();
  ResponderMailbox found;
  found.email = cache->Get<zel_db::EmailTable>();
  found.email->Assert(responder->email.Str());
  found.domain = cache->Get<zel_db::EmailDomainTable>();
  found.domain->Assert(found.email->domain.Str());
  found.entry_key = found.email->name.Str() + "+" + found.domain->name.Str();
  return found;
}

}  // namespace

void SendmailLikeInterface::SetResponder(ResponderPtr responder) {
  ResponderMailbox mailbox = FindMailbox(responder);
  // A suspended mailbox's entry only refuses mail; its responder comes back
  // with the rest of the entry when it is resumed.
  if (!InService(mailbox.email, mailbox.domain)) return;
  Cursor<Aliases> entry = AliasTable::Get<Aliases>(aliases_path(), true);
  if (!entry->Find(mailbox.entry_key)) {
    entry->New();
    entry->name.Set(mailbox.entry_key);
  }
  const std::string action = email::GetResponderAction(mailbox.email);
  const bool on = responder->enabled.Value();
  if (on && !entry->alias.Has(action)) {
    // Refused before the post when sendmail would not read the longer entry.
    std::vector<std::string> targets = entry->alias.Elements();
    targets.push_back(action);
    CheckAliasesEntry(mailbox.entry_key, targets, 0);
    entry->alias.Append(action);
  } else if (!on && entry->alias.Has(action))
    entry->alias.Delete(action);
  entry->Post("");
}

void SendmailLikeInterface::GetResponder(ResponderPtr responder) {
  ResponderMailbox mailbox = FindMailbox(responder);
  // Out of service the entry does not show the responder: the row keeps it.
  if (!InService(mailbox.email, mailbox.domain)) return;
  Cursor<Aliases> entry = AliasTable::Get<Aliases>(aliases_path(), true);
  entry->Assert(mailbox.entry_key);
  const std::string action = email::GetResponderAction(mailbox.email);
  responder->enabled = entry->alias.Has(action);
  responder->Post();
}

}  // namespace email
