// What sendmail needs after each save of one of its files:
//   virtual user table, access map: "/usr/sbin/makemap hash F < F", at once;
//   aliases file: the configured "sendmail-newaliases" command, at once;
//   local-host-names: the "sendmail-restart" command, queued for the end of
//     the request (zel_api::ExecuteLater).
// Each acts on save reasons 0 and 2 only (local-host-names on 0 only). A
// command that exits non-zero throws email::Fail with "makemap" or
// "newaliases" and the command's own output; the text file is saved by then.
// Except: the tools build every good line and report the bad ones. When the
// report can be read (each of its lines a "line N:" message about the saved
// file, or about another aliases file) and none of the entries it refused has
// a key of the save (ConfRef::ChangedKeys, compared in lower case as the
// maps keep keys), the step returns and adds a warning (pnl_warn) naming
// those entries with the tool's words. Reading a report costs one read of the
// saved file, and is done only when the command failed.
#pragma once

#include "zelapi/conf/conf.h"

namespace zelpriv_email_sendmail {

void RebuildHashedMap(ConfRef& ref, ConfCache::SaveReason& reason);
void RebuildAliases(ConfRef& ref, ConfCache::SaveReason& reason);
void QueueRestart(ConfRef& ref, ConfCache::SaveReason& reason);

// Installs the three steps on the four tables. Idempotent and thread-safe.
void InstallAfterSaveSteps();

}  // namespace zelpriv_email_sendmail
