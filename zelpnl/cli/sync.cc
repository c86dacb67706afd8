// zelpnl mail sync: reads sendmail's files back into the panel's tables and
// tells what changed.
#include <algorithm>
#include <iostream>

#include "commands.h"
#include "email/mta_interface.h"
#include "panel_rows.h"
#include "zelapi/err.h"
#include "zelapi/mail/responder_settings.h"

namespace zelpnl {

namespace {

constexpr char kSyncHelp[] =
    "Read sendmail's files back into the panel's database; the files are the truth. In order: "
    "mail domains from the virtual user table (a catch-all line of a web domain of the panel "
    "makes a mail domain row, a row without its line goes; the panel's suspension entry in the "
    "access map suspends it, and no read-back resumes a suspended domain; a domain missing "
    "from local-host-names is added there), mailboxes from the virtual user table (lines of "
    "known mail domains make rows, rows without a line go, a disabled target means suspended "
    "except in a suspended domain, whose mailboxes keep their own state; an alias line, which has no aliases entry of its own, stays an alias and is no mailbox), then each mailbox's aliases, forwards and forward-only "
    "flag from its aliases entry and the virtual user table, each responder's on/off state from "
    "its mailbox's aliases entry, and the whitelist and blacklist from the access map. Domains "
    "and mailboxes are only read when the virtual user table changed since the panel last read "
    "it, the whitelist when the access map did.\n\n"
    "What it repairs: rows left behind or missing after a failed command (a command whose "
    "back-end call failed undoes its own rows, but the files may hold part of the change), and "
    "any hand edit of the files. It does not rewrite the files (except local-host-names and "
    "access entries of domains, as above); to write a row's state to the files again use "
    "\"mail domain update\", \"mail box resume\" or \"mail box set\".\n\n"
    "Prints, per table, the rows before and after and what was added and removed. A progress "
    "bar goes to standard error when it is a terminal.";

std::vector<std::string> Minus(const std::vector<std::string>& a,
                               const std::vector<std::string>& b) {
  std::vector<std::string> out;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
  return out;
}

void Sync(Host& host, const Output& out) {
  pnl_db::Cache& db = host.Db();
  email::MtaInterface& mta = host.Mta();
  const std::vector<TableText> before = MailTablesAsText(db);
  std::vector<std::pair<std::string, std::string>> failures;  // object, cause

  // The passes add local-host-names lines and access entries of domains:
  // each file is saved (and its map rebuilt) once.
  host.Files().Change([&] {
    mta.CacheDomains();
    mta.CacheEmails();
  });

  const std::vector<Address> mailboxes = MailboxAddresses(db);
  const std::vector<Address> responders = ResponderAddresses(db);

  // Drawn once the mailboxes and responders are counted: the first two steps
  // are then done.
  Progress bar("mail sync", 2 + mailboxes.size() + responders.size() + 2, StderrIsTerminal());
  Progress* progress = &bar;
  progress->Step("mail domains");
  progress->Step("mailboxes");
  std::vector<std::pair<Address, std::string>> unbacked;  // no aliases entry
  for (const Address& address : mailboxes) {
    progress->Step(address.Text());
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
    progress->Step("responder " + address.Text());
    try {
      MailboxRow mailbox = RequireMailbox(db, address);
      ResponderRow responder = FindResponder(db, mailbox->id.Value());
      if (responder) mta.GetResponder(responder);
    } catch (const pnl_err::Error& e) {
      failures.emplace_back("responder of " + address.Text(), e.what());
    }
  }
  progress->Step("whitelist");
  mta.CacheWhitelist();
  progress->Step("blacklist");
  mta.CacheBlacklist();
  progress->Done();
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
  nlohmann::ordered_json tables = nlohmann::ordered_json::object();
  std::vector<std::vector<std::string>> rows;
  std::string changes;
  for (size_t i = 0; i < after.size(); ++i) {
    const TableText& t = after[i];
    const std::vector<std::string>& b = before[i].lines;
    const std::vector<std::string>& a = t.lines;
    const auto added = Minus(a, b);
    const auto removed = Minus(b, a);
    tables[t.table] = {{"label", t.label},      {"before", b.size()},  {"after", a.size()},
                       {"added", added},        {"removed", removed}};
    rows.push_back({t.label, std::to_string(b.size()), std::to_string(a.size()),
                    std::to_string(added.size()), std::to_string(removed.size())});
    for (const auto& item : removed) changes += std::string("  - ") + t.label + ": " + item + "\n";
    for (const auto& item : added) changes += std::string("  + ") + t.label + ": " + item + "\n";
  }
  nlohmann::ordered_json failed = nlohmann::ordered_json::array();
  for (const auto& [object, cause] : failures) failed.push_back({{"object", object}, {"cause", cause}});

  std::string text = Table({"TABLE", "BEFORE", "AFTER", "ADDED", "REMOVED"}, rows);
  text += changes.empty() ? "no changes\n" : "changes:\n" + changes;
  out.Print({{"sync", {{"tables", tables}, {"failures", failed}}}}, text);
  if (!failures.empty()) {
    for (const auto& [object, cause] : failures) PrintError(object, cause);
    out.SetFailed();
  }
}

}  // namespace

void AddSyncCommand(CLI::App& mail, Command* out) {
  CLI::App* sync = mail.add_subcommand("sync", "Read sendmail's files back into the panel");
  sync->footer(kSyncHelp);
  sync->callback([=] { *out = {Needs::kMail, [](Host& h, const Output& o) { Sync(h, o); }}; });
}

}  // namespace zelpnl
