#include "mail_domains.h"

#include <functional>

#include "access_entries.h"
#include "email/mta_interface.h"
#include "file_change.h"
#include "mail_log.h"
#include "row_checks.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

const std::vector<std::string>& MailDomainActions() {
  static const std::vector<std::string> actions = {"error", "ignore", "redir_email",
                                                   "redir_domain"};
  return actions;
}

MailDomainView AddMailDomain(const Request& request, const std::string& name,
                             const std::string& owner, const std::string& action,
                             const std::string& redirect, int64_t quota) {
  if (quota < 0) throw Invalid("quota", std::to_string(quota), "is negative");
  pnl_db::Cache& db = request.db;
  WebDomainRow web = FindWebDomain(db, name);
  if (!web)
    throw pnl_err::Error(pnl_err::Kind::kUnknown, "web domain " + Quote(name),
                         "does not exist; a mail domain must be a web domain of the panel first "
                         "(zelpnl webdomain add " + name + " --owner USER)");
  if (FindMailDomain(db, name))
    throw pnl_err::Error(pnl_err::Kind::kExists, "mail domain " + Quote(name), "already exists");
  // A mail domain belongs to whoever owns its web domain.
  const int64_t owner_id = web->users.Value();
  if (!owner.empty() && RequireUser(db, owner)->id.Value() != owner_id) {
    const std::string web_owner = UserNameById(db, owner_id);
    throw pnl_err::Error(pnl_err::Kind::kConflict, "mail domain " + Quote(name),
                         "belongs to the owner of its web domain (" +
                             (web_owner.empty() ? std::string("the web domain has none")
                                                : web_owner) +
                             "), not to " + owner);
  }
  // A name sendmail takes as the server's own would hand the domain's mail
  // to the system's users.
  const std::string taken = request.mta.ServerNameReason(name);
  if (!taken.empty())
    throw pnl_err::Error(pnl_err::Kind::kConflict, "mail domain " + Quote(name),
                         taken + "; it cannot be a mail domain of the panel");
  RefuseAccessEntryOfNewDomain(request.mta, name);

  MailDomainRow row = db.Get<zel_db::EmailDomainTable>();
  row->New();
  row->name = name;
  row->enabled = true;
  row->def_action = action;
  row->redirect = redirect;
  row->quota = quota;
  if (owner_id) row->users = owner_id;
  row->Post();
  const int64_t id = row->id.Value();
  // A catch-all line for a domain the panel does not know: left by an add
  // that ended before its row was kept, or made by hand. The domain's lines
  // are replaced, so the key is written once.
  const bool leftover = request.mta.HasDomainLeftover(name);
  if (leftover)
    MailLog().Info("mail domain " + name + ": replacing its lines in the files");
  request.files.Change(
      [&] {
        if (leftover) request.mta.DeleteDomain(row);
        request.mta.CreateDomain(row);
      },
      [request, id] { DeleteRowById(request.db, "email_domain", id); });
  return MailDomainViewOf(db, RequireMailDomain(db, name));
}

std::vector<MailDomainView> ListMailDomains(const Request& request) {
  std::vector<MailDomainView> views;
  for (const std::string& name : MailDomainNames(request.db))
    views.push_back(MailDomainViewOf(request.db, RequireMailDomain(request.db, name)));
  return views;
}

MailDomainDetail ShowMailDomain(const Request& request, const std::string& name) {
  MailDomainRow row = RequireMailDomain(request.db, name);
  MailDomainDetail detail{MailDomainViewOf(request.db, row), {}};
  for (const std::string& local : MailboxNamesOf(request.db, row->id.Value()))
    detail.mailboxes.push_back(local + "@" + detail.domain.unicode);
  return detail;
}

namespace {

enum class StateChange { kSuspend, kResume, kUpdate };

MailDomainView SetState(const Request& request, const std::string& name, StateChange change,
                        bool allow_programs) {
  pnl_db::Cache& db = request.db;
  MailDomainRow row = RequireMailDomain(db, name);
  const int64_t id = row->id.Value();
  const bool was = row->enabled.Value();
  const auto restore = [request, id, was] {
    SetEnabledById(request.db, "email_domain", id, was);
  };
  // A suspension writes no forwards; a resume or an update writes every
  // mailbox's back.
  const bool programs = change == StateChange::kSuspend || allow_programs;
  // A suspension writes the domain's access entry: never over one the panel
  // did not write.
  if (change == StateChange::kSuspend || (change == StateChange::kUpdate && !was))
    RefuseForeignAccessEntry(request.mta, name, "mail domain " + Quote(name));
  // An update keeps the row as it is: nothing to set back.
  std::function<void()> undo;
  if (change != StateChange::kUpdate) undo = restore;
  request.files.Change(
      [&] {
        CheckDomainRows(db, id, programs);
        switch (change) {
          case StateChange::kSuspend:
            request.mta.SuspendDomain(row);
            break;
          case StateChange::kResume:
            request.mta.ResumeDomain(row);
            break;
          case StateChange::kUpdate:
            request.mta.UpdateDomain(row);
            break;
        }
      },
      undo);
  if (change != StateChange::kUpdate) row->enabled = change == StateChange::kResume;
  row->Post();
  return MailDomainViewOf(db, row);
}

}  // namespace

MailDomainView SuspendMailDomain(const Request& request, const std::string& name) {
  return SetState(request, name, StateChange::kSuspend, false);
}

MailDomainView ResumeMailDomain(const Request& request, const std::string& name,
                                bool allow_programs) {
  return SetState(request, name, StateChange::kResume, allow_programs);
}

MailDomainView UpdateMailDomain(const Request& request, const std::string& name,
                                bool allow_programs) {
  return SetState(request, name, StateChange::kUpdate, allow_programs);
}

MailDomainView SetMailDomainAction(const Request& request, const std::string& name,
                                   const std::string& action, const std::string& redirect,
                                   bool allow_programs) {
  pnl_db::Cache& db = request.db;
  MailDomainRow row = RequireMailDomain(db, name);
  const int64_t id = row->id.Value();
  const std::string old_action = row->def_action.Value();
  const std::string old_redirect = row->redirect.Value();
  if (!row->enabled.Value()) RefuseForeignAccessEntry(request.mta, name, "mail domain " + Quote(name));
  row->def_action = action;
  row->redirect = redirect;
  // The files take the new action from the row in memory; it is stored once
  // they have it (a suspended domain keeps its suspension and gets the action
  // when it is resumed).
  try {
    request.files.Change(
        [&] {
          CheckDomainRows(db, id, allow_programs);
          request.mta.UpdateDomain(row);
        },
        [request, id, old_action, old_redirect] {
          RestoreDomainAction(request.db, id, old_action, old_redirect);
        });
  } catch (...) {
    row->Reset();
    throw;
  }
  row->Post();
  return MailDomainViewOf(db, row);
}

MailDomainView SetMailDomainQuota(const Request& request, const std::string& name, int64_t quota) {
  if (quota < 0) throw Invalid("quota", std::to_string(quota), "is negative");
  MailDomainRow row = RequireMailDomain(request.db, name);
  row->quota = quota;
  row->Post();
  return MailDomainViewOf(request.db, row);
}

std::vector<std::string> DeleteMailDomain(const Request& request, const std::string& name,
                                          mailstore::Disposal mail) {
  pnl_db::Cache& db = request.db;
  MailDomainRow row = RequireMailDomain(db, name);
  const std::vector<std::string> locals = MailboxNamesInOrderAdded(db, row->id.Value());
  std::vector<std::string> deleted;
  // Each mailbox's lines go, then its rows; then the domain's. The files are
  // saved once, at the end, with all of it gone; when that fails the rows
  // stay deleted (the files' text lost the lines too).
  request.files.Change([&] {
    for (const std::string& local : locals) {
      const Address address{local, name};
      MailboxRow mailbox = RequireMailbox(db, address);
      request.mta.DeleteEmail(mailbox);
      mailbox->Delete();
      deleted.push_back(address.Text());
    }
    request.mta.DeleteDomain(row);
    row->Delete();
  });
  const mailstore::Maildirs* maildirs = &request.mail;
  request.files.AfterSaved("the mail of mail domain " + name, [maildirs, name, mail] {
    const std::string to = maildirs->DisposeDomain(name, mail);
    if (!to.empty()) MailLog().Info("mail domain " + name + ": its mail is archived in " + to);
  });
  return deleted;
}

}  // namespace zelpnl
