#include "sync.h"

#include <algorithm>
#include <iterator>

#include "email/mta_interface.h"
#include "file_change.h"
#include "mail_log.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"
#include "zelapi/mail/responder_settings.h"

namespace zelpnl {

namespace {

std::vector<std::string> Minus(const std::vector<std::string>& a,
                               const std::vector<std::string>& b) {
  std::vector<std::string> out;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
  return out;
}

}  // namespace

SyncReport SyncMail(const Request& request, SyncProgress& progress) {
  pnl_db::Cache& db = request.db;
  email::MtaInterface& mta = request.mta;
  const std::vector<TableText> before = MailTablesAsText(db);
  SyncReport report;
  auto& failures = report.failures;

  // The passes add lines to the local names' file and access entries of domains:
  // each file is saved (and its map rebuilt) once.
  request.files.Change([&] {
    mta.CacheDomains();
    mta.CacheEmails();
  });

  const std::vector<Address> mailboxes = MailboxAddresses(db);
  const std::vector<Address> responders = ResponderAddresses(db);

  // Drawn once the mailboxes and responders are counted: the first two steps
  // are then done.
  progress.Begin(2 + mailboxes.size() + responders.size() + 2);
  progress.Step("mail domains");
  progress.Step("mailboxes");
  std::vector<std::pair<Address, std::string>> unbacked;  // no aliases entry
  for (const Address& address : mailboxes) {
    progress.Step(address.Text());
    try {
      MailboxRow mailbox = RequireMailbox(db, address);
      mta.CacheAliases(mailbox);
    } catch (const pnl_err::Error& e) {
      unbacked.emplace_back(address, e.what());
    }
  }
  // Every address line of a known mail domain came in as a mailbox, the
  // alias lines too. A "mailbox" without an aliases entry of its own whose
  // name is an alias of another mailbox is that alias's line: its row goes
  // (the line stays). Any other one is a line the panel did not write.
  for (const auto& [address, cause] : unbacked) {
    MailDomainRow domain;
    MailboxRow mailbox = RequireMailbox(db, address, &domain);
    if (AliasOwner(db, domain->id.Value(), address.local, mailbox->id.Value()).empty()) {
      failures.emplace_back("mailbox " + address.Text(),
                            cause + " (a virtual user table line the panel did not write, or a "
                                    "mailbox whose aliases entry is gone)");
    } else {
      mailbox->Delete();
    }
  }
  for (const Address& address : responders) {
    progress.Step("responder " + address.Text());
    try {
      MailboxRow mailbox = RequireMailbox(db, address);
      ResponderRow responder = FindResponder(db, mailbox->id.Value());
      if (responder) mta.GetResponder(responder);
    } catch (const pnl_err::Error& e) {
      failures.emplace_back("responder of " + address.Text(), e.what());
    }
  }
  progress.Step("whitelist");
  mta.CacheWhitelist();
  progress.Step("blacklist");
  mta.CacheBlacklist();
  progress.Done();
  // The responder's settings files, made to agree with the rows as they are
  // now (written when missing or different, removed when unknown).
  try {
    const email::ResponderSettingsCount n = email::SyncResponderSettings(db);
    if (n.written + n.removed > 0)
      MailLog().Info("mail sync: responder settings: " + std::to_string(n.written) +
                     " written, " + std::to_string(n.removed) + " removed");
  } catch (const pnl_err::Error& e) {
    failures.emplace_back("responder settings", e.what());
  }

  const std::vector<TableText> after = MailTablesAsText(db);
  for (size_t i = 0; i < after.size(); ++i) {
    const std::vector<std::string>& b = before[i].lines;
    const std::vector<std::string>& a = after[i].lines;
    report.tables.push_back({after[i].table, after[i].label, b.size(), a.size(), Minus(a, b),
                             Minus(b, a)});
  }
  return report;
}

}  // namespace zelpnl
