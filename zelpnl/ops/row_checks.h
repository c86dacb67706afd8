// zelpnl row checks: what the panel's rows hand to sendmail's files passes
// the checks of the command line first.
//
// The files are written from the rows (a mailbox's name, aliases and
// forwards, a domain's name, default action and redirect), and rows may come
// from elsewhere than the command line: a read-back of hand-edited files, an
// older version of the panel, a program that reached the database. Before a
// command writes a mailbox's or a domain's files, its rows are checked by
// the validation.h rules; a row that fails them stops the command before
// anything is written, with pnl_err::Error (type "row", object the value and
// the row it is in, detail what is wrong and what to do). Pipes and files
// among the forwards need allow_programs (--allow-program-targets), as on
// the command line. Cost: a few queries, one per table, for a domain of any
// size.
#pragma once

#include <cstdint>

namespace pnl_db {
class Cache;
}

namespace zelpnl {

// The rows of one mailbox: its own, its domain's name, its aliases and its
// forwards.
void CheckMailboxRows(pnl_db::Cache& db, int64_t mailbox_id, bool allow_programs);

// The rows of one mail domain and of all its mailboxes.
void CheckDomainRows(pnl_db::Cache& db, int64_t domain_id, bool allow_programs);

}  // namespace zelpnl
