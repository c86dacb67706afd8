// zelpnl mailboxes: the panel's mailbox operations, over a Request, with
// typed arguments and results; the command line and any other front door
// render the results.
//
// A new mailbox row is posted, then the back-end creates it in the files;
// when that fails the row is deleted again. Aliases and forwards are rows of
// their own, written to the files by SetAliases; when SetAliases fails, the
// mailbox's rows are read back from the files (CacheAliases), so the panel
// shows what the files hold. A deletion clears the files first. The
// back-end's calls go through FileChange::Change, whose undo steps are those
// rules (in a batch they run at its end, when the files fail there).
//
// Operations throw pnl_err::Error for a refusal or a failure (Invalid only
// from CheckMailboxChanges, before anything is opened). The changes return
// nothing: a batch of many lines would otherwise read every mailbox back
// once for a result nobody asked for; ShowMailbox reads it when wanted.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mailstore/maildirs.h"
#include "panel_rows.h"
#include "request.h"
#include "validation.h"

namespace zelpnl {

// The aliases, forwards and forward-only flag a command adds, removes or
// sets, as given.
struct MailboxChangeOptions {
  std::vector<std::string> add_aliases;
  std::vector<std::string> del_aliases;
  std::vector<std::string> add_forwards;
  std::vector<std::string> del_forwards;
  std::optional<bool> forward_only;  // nullopt: unchanged
  bool allow_programs = false;       // forward targets may be programs and files
  // The new password's hash (pnl_password::Hash), "" to remove it; nullopt:
  // unchanged. The password itself never reaches the operations.
  std::optional<std::string> password_hash;
  std::optional<int64_t> quota;      // bytes, 0: the domain's; nullopt: unchanged
};

// The same, checked and canonical (CheckMailboxChanges).
struct MailboxChanges {
  std::vector<std::string> add_aliases;
  std::vector<std::string> del_aliases;
  std::vector<std::string> add_forwards;
  std::vector<std::string> del_forwards;
  std::optional<bool> forward_only;
  bool allow_programs = false;
  std::optional<std::string> password_hash;
  std::optional<int64_t> quota;

  // Whether the mail files change (else only the mailbox's row does).
  bool ChangesFiles() const {
    return !add_aliases.empty() || !del_aliases.empty() || !add_forwards.empty() ||
           !del_forwards.empty() || forward_only;
  }
  bool Empty() const { return !ChangesFiles() && !password_hash && !quota; }
};

// Checks and canonicalises the changes for the mailbox at address. Throws
// Invalid naming the value refused.
MailboxChanges CheckMailboxChanges(const MailboxChangeOptions& options, const Address& address);

// Mail an earlier mailbox of the same address left on disk is archived
// first: a new mailbox starts empty.
void AddMailbox(const Request& request, const Address& address, const MailboxChanges& changes);
// Every mailbox, or those of one mail domain ("" for all), by address.
std::vector<MailboxView> ListMailboxes(const Request& request, const std::string& domain);
// With the bytes its stored mail takes, where the set-up keeps mail.
MailboxView ShowMailbox(const Request& request, const Address& address);
void SuspendMailbox(const Request& request, const Address& address);
// allow_programs: forward targets that are programs or files are written
// back too.
void ResumeMailbox(const Request& request, const Address& address, bool allow_programs);
// The mailbox's mail is archived or removed (mailstore::Disposal) once its
// lines are gone from the files; a failure there is a warning.
void DeleteMailbox(const Request& request, const Address& address, mailstore::Disposal mail);
void SetMailbox(const Request& request, const Address& address, const MailboxChanges& changes);

}  // namespace zelpnl
