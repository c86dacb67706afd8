#include "row_checks.h"

#include <optional>
#include <string>

#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

[[noreturn]] void Refuse(const std::string& what, const std::string& value, const std::string& row,
                         const std::string& why) {
  throw pnl_err::Error(pnl_err::Kind::kRow, what + " " + Quote(value) + " of " + row,
                       why + " (a row of the panel database the command would write into "
                             "sendmail's files; correct or remove it first)");
}

// Runs check(value); a refusal becomes the row's error.
template <class Check>
void Checked(const std::string& what, const std::string& value, const std::string& row,
             Check check) {
  try {
    check(value);
  } catch (const Invalid& e) {
    Refuse(what, value, row, e.detail());
  }
}

void CheckDomain(const std::string& name, const std::string& action, const std::string& redirect) {
  const std::string row = "mail domain " + Quote(name);
  Checked("name", name, row, [](const std::string& v) {
    if (DomainName(v) != v) throw Invalid("domain name", v, "is not in its canonical form");
  });
  Checked("default action", action, row,
          [&](const std::string& v) { Redirect(v, redirect, name); });
}

// The mailboxes of the scope, and their aliases and forwards.
void CheckMailboxes(pnl_db::Cache& db, MailboxScope scope, bool allow_programs) {
  for (const Address& mailbox : MailboxesIn(db, scope))
    Checked("local part", mailbox.local, "mailbox " + Quote(mailbox.Text()),
            [](const std::string& v) {
              if (LocalPart(v) != v) throw Invalid("local part", v, "is not in lower case");
            });
  for (const MailboxValue& alias : AliasesIn(db, scope))
    Checked("alias", alias.value, "mailbox " + Quote(alias.mailbox.Text()),
            [](const std::string& v) {
              if (LocalPart(v, "alias") != v) throw Invalid("alias", v, "is not in lower case");
            });
  for (const MailboxValue& forward : ForwardsIn(db, scope))
    Checked("forward target", forward.value, "mailbox " + Quote(forward.mailbox.Text()),
            [&](const std::string& v) {
              if (ForwardTarget(v, allow_programs) != v)
                throw Invalid("forward target", v, "is not in its canonical form");
            });
}

}  // namespace

void CheckMailboxRows(pnl_db::Cache& db, int64_t mailbox_id, bool allow_programs) {
  const std::optional<MailDomainValues> domain = MailDomainValuesOfMailbox(db, mailbox_id);
  if (!domain) return;
  Checked("name", domain->name, "mail domain " + Quote(domain->name),
          [](const std::string& v) {
            if (DomainName(v) != v) throw Invalid("domain name", v, "is not in its canonical form");
          });
  CheckMailboxes(db, {MailboxScope::kMailbox, mailbox_id}, allow_programs);
}

void CheckDomainRows(pnl_db::Cache& db, int64_t domain_id, bool allow_programs) {
  const std::optional<MailDomainValues> domain = MailDomainValuesById(db, domain_id);
  if (!domain) return;
  CheckDomain(domain->name, domain->action, domain->redirect);
  CheckMailboxes(db, {MailboxScope::kDomain, domain_id}, allow_programs);
}

}  // namespace zelpnl
