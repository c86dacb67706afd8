// zelpnl mail domains: the panel's mail domain operations, over a Request,
// with typed arguments and results.
//
// A new row is posted, then the back-end called; when the back-end fails the
// row is deleted again. A state change (suspend, resume, set) goes to the
// files first and is posted only when they took it. A deletion removes the
// files' lines (the domain's mailboxes first) and then the rows. The
// back-end's calls go through FileChange::Change, whose undo steps are those
// rules (in a batch they run at its end, when the files fail there).
//
// Names are canonical (validation.h); action and redirect as Redirect
// returns them. Operations throw pnl_err::Error for a refusal or a failure.
#pragma once

#include <string>
#include <vector>

#include "mailstore/maildirs.h"
#include "panel_rows.h"
#include "request.h"

namespace zelpnl {

// The default actions a mail domain's catch-all can have.
const std::vector<std::string>& MailDomainActions();

// owner: "" for the web domain's owner, else it must be that user. quota:
// the default of its mailboxes, in bytes (0: none).
MailDomainView AddMailDomain(const Request& request, const std::string& name,
                             const std::string& owner, const std::string& action,
                             const std::string& redirect, int64_t quota = 0);
std::vector<MailDomainView> ListMailDomains(const Request& request);  // by name

struct MailDomainDetail {
  MailDomainView domain;
  std::vector<std::string> mailboxes;  // addresses, the domain in Unicode, by name
};
MailDomainDetail ShowMailDomain(const Request& request, const std::string& name);

// allow_programs: the mailboxes' forward targets that are programs or files
// are written back too (resume, update and set write every mailbox's entry).
MailDomainView SuspendMailDomain(const Request& request, const std::string& name);
MailDomainView ResumeMailDomain(const Request& request, const std::string& name,
                                bool allow_programs);
// Writes the domain's state (active or suspended, default action) again.
MailDomainView UpdateMailDomain(const Request& request, const std::string& name,
                                bool allow_programs);
MailDomainView SetMailDomainAction(const Request& request, const std::string& name,
                                   const std::string& action, const std::string& redirect,
                                   bool allow_programs);
// The default quota of its mailboxes (bytes, 0: none); a mailbox's own
// quota holds over it. Only the database changes: the mail store reads it
// at each delivery.
MailDomainView SetMailDomainQuota(const Request& request, const std::string& name, int64_t quota);
// Returns the addresses of the mailboxes deleted with it.
// Its mailboxes' mail is archived or removed once the lines are gone.
std::vector<std::string> DeleteMailDomain(const Request& request, const std::string& name,
                                          mailstore::Disposal mail);

}  // namespace zelpnl
