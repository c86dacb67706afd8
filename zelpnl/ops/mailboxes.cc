#include "mailboxes.h"

#include <algorithm>
#include <list>
#include <set>

#include "access_entries.h"
#include "mail_log.h"
#include "email/mta_interface.h"
#include "file_change.h"
#include "row_checks.h"
#include "zelapi/err.h"
#include "zelapi/password.h"

namespace zelpnl {

namespace {

void RefuseTwice(const std::vector<std::string>& values, const std::string& kind) {
  std::set<std::string> seen;
  for (const std::string& value : values)
    if (!seen.insert(value).second) throw Invalid(kind, value, "is given twice");
}

void RefuseBoth(const std::vector<std::string>& added, const std::vector<std::string>& removed,
                const std::string& kind, const std::string& option) {
  for (const std::string& value : added)
    for (const std::string& other : removed)
      if (value == other)
        throw Invalid(kind, value, "is given both to add and to remove (" + option + ")");
}

}  // namespace

MailboxChanges CheckMailboxChanges(const MailboxChangeOptions& raw, const Address& address) {
  MailboxChanges c;
  for (const std::string& a : raw.add_aliases) {
    c.add_aliases.push_back(AliasName(a, address.domain));
    if (c.add_aliases.back() == address.local)
      throw Invalid("alias", a, "is the mailbox's own address");
  }
  for (const std::string& a : raw.del_aliases) {
    // A name the panel would not write may still be removed as it stands.
    try {
      c.del_aliases.push_back(AliasName(a, address.domain));
    } catch (const Invalid&) {
      c.del_aliases.push_back(a);
    }
  }
  for (const std::string& f : raw.add_forwards) {
    c.add_forwards.push_back(ForwardTarget(f, raw.allow_programs));
    if (c.add_forwards.back() == address.Text())
      throw Invalid("forward target", f, "is the mailbox's own address; mail would loop");
  }
  for (const std::string& f : raw.del_forwards) {
    try {
      c.del_forwards.push_back(ForwardTarget(f, true));
    } catch (const Invalid&) {
      c.del_forwards.push_back(f);
    }
  }
  c.allow_programs = raw.allow_programs;
  c.forward_only = raw.forward_only;
  if (raw.password_hash && !raw.password_hash->empty() &&
      !pnl_password::LooksLikeHash(*raw.password_hash))
    throw pnl_err::Error(pnl_err::Kind::kUsage, "password", "is no password hash");
  c.password_hash = raw.password_hash;
  if (raw.quota && *raw.quota < 0) throw Invalid("quota", std::to_string(*raw.quota), "is negative");
  c.quota = raw.quota;
  RefuseTwice(c.add_aliases, "alias");
  RefuseTwice(c.del_aliases, "alias");
  RefuseTwice(c.add_forwards, "forward target");
  RefuseTwice(c.del_forwards, "forward target");
  RefuseBoth(c.add_aliases, c.del_aliases, "alias", "--alias and --no-alias");
  RefuseBoth(c.add_forwards, c.del_forwards, "forward target", "--forward and --no-forward");
  return c;
}

namespace {

// Refuses an alias whose address is taken by a mailbox or another alias.
void CheckAliasFree(pnl_db::Cache& db, const MailDomainRow& domain, const std::string& local) {
  const std::string address = local + "@" + domain->name.Value();
  if (MailboxExists(db, domain->id.Value(), local))
    throw pnl_err::Error(pnl_err::Kind::kExists, "alias " + Quote(address), "is a mailbox");
  const std::string owner = AliasOwner(db, domain->id.Value(), local);
  if (!owner.empty())
    throw pnl_err::Error(pnl_err::Kind::kExists, "alias " + Quote(address),
                         "is already an alias of " + owner + "@" + domain->name.Value());
}

// Refuses a forward to an address of one of the panel's own mail domains
// that names no mailbox or alias there: the files would send it to the
// domain's catch-all, and the mail would bounce or vanish.
void RefuseUnknownLocalTargets(pnl_db::Cache& db, const std::vector<std::string>& targets) {
  for (const std::string& target : targets) {
    if (target.empty() || target[0] == '|' || target[0] == '/') continue;
    const std::string::size_type at = target.rfind('@');
    if (at == std::string::npos) continue;
    const std::string local = target.substr(0, at);
    const std::string domain_name = target.substr(at + 1);
    MailDomainRow domain = FindMailDomain(db, domain_name);
    if (!domain) continue;
    if (MailboxExists(db, domain->id.Value(), local) ||
        !AliasOwner(db, domain->id.Value(), local).empty())
      continue;
    throw pnl_err::Error(pnl_err::Kind::kUnknown, "forward target " + Quote(target),
                         "is in the panel's mail domain " + domain_name +
                             ", which has no such mailbox or alias");
  }
}

// Reads a mailbox's aliases and forwards back from the files, after a
// failure (the failure told is the one that made it run).
void ReadBackAliases(const Request& request, int64_t id) {
  MailboxRow mailbox = MailboxById(request.db, id);
  if (!mailbox) return;
  try {
    request.mta.CacheAliases(mailbox);
  } catch (const std::exception& e) {
    MailLog().Error("reading back the aliases of mailbox " + mailbox->name.Value() +
                " after a failure: " + e.what());
  }
}

// SetAliases, after the rows it writes passed their checks; when either
// fails, the mailbox's rows are read back from the files.
void WriteAliases(const Request& request, MailboxRow& mailbox,
                  const std::list<std::string>& removed, bool allow_programs) {
  const int64_t id = mailbox->id.Value();
  request.files.Change(
      [&] {
        CheckMailboxRows(request.db, id, allow_programs);
        request.mta.SetAliases(mailbox, removed);
      },
      [request, id] { ReadBackAliases(request, id); });
}

}  // namespace

void AddMailbox(const Request& request, const Address& address, const MailboxChanges& changes) {
  pnl_db::Cache& db = request.db;
  MailDomainRow domain = RequireMailDomain(db, address.domain);
  if (MailboxExists(db, domain->id.Value(), address.local))
    throw pnl_err::Error(pnl_err::Kind::kExists, "mailbox " + Quote(address.Text()), "already exists");
  const std::string owner = AliasOwner(db, domain->id.Value(), address.local);
  if (!owner.empty())
    throw pnl_err::Error(pnl_err::Kind::kExists, "mailbox " + Quote(address.Text()),
                         "is an alias of " + owner + "@" + address.domain);
  for (const std::string& alias : changes.add_aliases) CheckAliasFree(db, domain, alias);
  RefuseUnknownLocalTargets(db, changes.add_forwards);
  const email::MtaInterface::MailboxLeftover leftover =
      request.mta.FindMailboxLeftover(address.local, address.domain);
  if (!leftover.foreign.empty())
    throw pnl_err::Error(pnl_err::Kind::kExists, "mailbox " + Quote(address.Text()),
                         "the virtual user table has a line for it already, pointing to " +
                             Quote(leftover.foreign) +
                             "; remove that line, or run \"zelpnl mail sync\" to take it over");
  if (leftover.found)
    MailLog().Info("mailbox " + address.Text() +
               ": replacing the lines an earlier add left in the files");
  // Mail left by an earlier mailbox of this address (its deletion could not
  // move it) is not the new one's.
  const std::string old_mail =
      request.mail.Dispose(address.domain, address.local, mailstore::Disposal::kArchive);
  if (!old_mail.empty())
    MailLog().Warning("mailbox " + address.Text() + ": mail an earlier mailbox left is archived in " +
                      old_mail);

  MailboxRow mailbox = db.Get<zel_db::EmailTable>();
  mailbox->New();
  mailbox->name = address.local;
  mailbox->domain = domain->id;
  mailbox->enabled = true;
  // Created with local delivery: an aliases entry without any target would
  // not build. Forward-only comes with the forwards below.
  mailbox->forward_only = false;
  mailbox->password = changes.password_hash.value_or("");
  mailbox->quota = changes.quota.value_or(0);
  mailbox->Post();
  const int64_t id = mailbox->id.Value();
  request.files.Change(
      [&] {
        // An earlier add's lines go first, so the key is written once.
        if (leftover.found) request.mta.DeleteEmail(mailbox);
        request.mta.CreateEmail(mailbox);
        if (changes.add_aliases.empty() && changes.add_forwards.empty() &&
            !changes.forward_only.value_or(false))
          return;
        for (const std::string& alias : changes.add_aliases) AddAliasRow(db, id, alias);
        for (const std::string& target : changes.add_forwards) AddForwardRow(db, id, target);
        mailbox->forward_only = changes.forward_only.value_or(false);
        mailbox->Post();
        try {
          request.mta.SetAliases(mailbox, {});
        } catch (...) {
          try {
            request.mta.DeleteEmail(mailbox);
          } catch (const std::exception& e) {
            MailLog().Error("removing the half-made mailbox " + address.Text() + ": " + e.what());
          }
          throw;
        }
      },
      // Its aliases' and forwards' rows go with it.
      [request, id] { DeleteRowById(request.db, "email", id); });
}

std::vector<MailboxView> ListMailboxes(const Request& request, const std::string& domain) {
  pnl_db::Cache& db = request.db;
  std::optional<int64_t> domain_id;
  if (!domain.empty()) domain_id = RequireMailDomain(db, domain)->id.Value();
  std::vector<MailboxView> views;
  for (const Address& address : MailboxAddresses(db, domain_id))
    views.push_back(MailboxViewOf(db, RequireMailbox(db, address)));
  return views;
}

MailboxView ShowMailbox(const Request& request, const Address& address) {
  MailboxView view = MailboxViewOf(request.db, RequireMailbox(request.db, address));
  if (request.mail.Kept())
    view.usage = static_cast<int64_t>(request.mail.Usage(address.domain, address.local));
  return view;
}

namespace {

enum class StateChange { kSuspend, kResume };

void SetState(const Request& request, const Address& address, StateChange change,
              bool allow_programs) {
  pnl_db::Cache& db = request.db;
  MailboxRow mailbox = RequireMailbox(db, address);
  const int64_t id = mailbox->id.Value();
  const bool was = mailbox->enabled.Value();
  auto restore = [request, id, was] { SetEnabledById(request.db, "email", id, was); };
  const bool suspend = change == StateChange::kSuspend;
  // The suspension writes the mailbox's access entry: never over one the
  // panel did not write. A resume writes the forwards back into the files.
  if (suspend)
    RefuseForeignAccessEntry(request.mta, address.Text(), "mailbox " + Quote(address.Text()));
  request.files.Change(
      [&] {
        CheckMailboxRows(db, id, allow_programs);
        if (suspend)
          request.mta.SuspendEmail(mailbox);
        else
          request.mta.ResumeEmail(mailbox);
      },
      restore);
  mailbox->enabled = !suspend;
  mailbox->Post();
}

}  // namespace

void SuspendMailbox(const Request& request, const Address& address) {
  // A suspended entry holds no forward: any target may stand in the rows.
  SetState(request, address, StateChange::kSuspend, true);
}

void ResumeMailbox(const Request& request, const Address& address, bool allow_programs) {
  SetState(request, address, StateChange::kResume, allow_programs);
}

void DeleteMailbox(const Request& request, const Address& address, mailstore::Disposal mail) {
  MailboxRow mailbox = RequireMailbox(request.db, address);
  request.files.Change([&] { request.mta.DeleteEmail(mailbox); });
  mailbox->Delete();
  const mailstore::Maildirs* maildirs = &request.mail;
  request.files.AfterSaved("the mail of mailbox " + address.Text(), [maildirs, address, mail] {
    const std::string to = maildirs->Dispose(address.domain, address.local, mail);
    if (!to.empty()) MailLog().Info("mailbox " + address.Text() + ": its mail is archived in " + to);
  });
}

void SetMailbox(const Request& request, const Address& address, const MailboxChanges& changes) {
  pnl_db::Cache& db = request.db;
  MailDomainRow domain;
  MailboxRow mailbox = RequireMailbox(db, address, &domain);
  const int64_t id = mailbox->id.Value();
  const std::vector<std::string> aliases = AliasesOf(db, id);
  const std::vector<std::string> forwards = ForwardsOf(db, id);
  auto has = [](const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
  };

  // Every refusal before the first write.
  for (const std::string& alias : changes.add_aliases) {
    if (has(aliases, alias))
      throw pnl_err::Error(pnl_err::Kind::kExists, "alias " + Quote(alias + "@" + address.domain),
                           "is already an alias of " + address.Text());
    CheckAliasFree(db, domain, alias);
  }
  for (const std::string& alias : changes.del_aliases)
    if (!has(aliases, alias))
      throw pnl_err::Error(pnl_err::Kind::kUnknown, "alias " + Quote(alias + "@" + address.domain),
                           "is not an alias of " + address.Text());
  for (const std::string& target : changes.add_forwards)
    if (has(forwards, target))
      throw pnl_err::Error(pnl_err::Kind::kExists, "forward target " + Quote(target),
                           "is already a forward of " + address.Text());
  RefuseUnknownLocalTargets(db, changes.add_forwards);
  for (const std::string& target : changes.del_forwards)
    if (!has(forwards, target))
      throw pnl_err::Error(pnl_err::Kind::kUnknown, "forward target " + Quote(target),
                           "is not a forward of " + address.Text());
  const bool forward_only =
      changes.forward_only.value_or(mailbox->forward_only.Value());
  const size_t forwards_after =
      forwards.size() + changes.add_forwards.size() - changes.del_forwards.size();
  if (forward_only && forwards_after == 0)
    throw pnl_err::Error(pnl_err::Kind::kInvalid, "mailbox " + Quote(address.Text()),
                         "would be forward-only without any forward, so its mail would go "
                         "nowhere; keep a forward or set --forward-only no");

  for (const std::string& alias : changes.del_aliases) DeleteAliasRow(db, id, alias);
  for (const std::string& target : changes.del_forwards) DeleteForwardRow(db, id, target);
  for (const std::string& alias : changes.add_aliases) AddAliasRow(db, id, alias);
  for (const std::string& target : changes.add_forwards) AddForwardRow(db, id, target);
  const bool row_changes = forward_only != mailbox->forward_only.Value() ||
                           changes.password_hash || changes.quota;
  if (forward_only != mailbox->forward_only.Value()) mailbox->forward_only = forward_only;
  if (changes.password_hash) mailbox->password = *changes.password_hash;
  if (changes.quota) mailbox->quota = *changes.quota;
  if (row_changes) mailbox->Post();
  if (!changes.ChangesFiles()) return;
  const std::list<std::string> removed(changes.del_aliases.begin(), changes.del_aliases.end());
  WriteAliases(request, mailbox, removed, changes.allow_programs);
}

}  // namespace zelpnl
