#include "email_sendmail/after_save.h"

#include "email/fail.h"
#include "email/tables.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/proc.h"
#include "zelapi/str.h"

namespace zelpriv_email_sendmail {

namespace {

// Codes 0 (records posted or deleted) and 2 (a deferred save of several
// changes); the test is that the code with bit 1 cleared is zero.
bool RebuildsMaps(ConfCache::SaveReason reason) { return (reason & ~2) == 0; }

// Runs a rebuild command and waits; a failure carries its own output.
void RunRebuild(const std::string& command, const std::string& name) {
  pnl_proc::Execute run(command, 2);
  if (run.Result() != 0) throw email::Fail(name, run.Str());
}

}  // namespace

void RebuildHashedMap(ConfRef& ref, ConfCache::SaveReason& reason) {
  if (!RebuildsMaps(reason)) return;
  // A path a shell would split or expand goes in quotes.
  const std::string file = str::ShellWord(ref.FileName());
  RunRebuild("/usr/sbin/makemap hash " + file + " < " + file, "makemap");
}

void RebuildAliases(ConfRef&, ConfCache::SaveReason& reason) {
  if (!RebuildsMaps(reason)) return;
  RunRebuild(pnl_cf::GetPath("sendmail-newaliases"), "newaliases");
}

void QueueRestart(ConfRef&, ConfCache::SaveReason& reason) {
  if (reason != 0) return;
  zel_api::ExecuteLater(pnl_cf::GetPath("sendmail-restart"));
}

void InstallAfterSaveSteps() {
  email::LocalHostNames::SetAfterSaveStep(&QueueRestart);
  email::VirtualUserTable::SetAfterSaveStep(&RebuildHashedMap);
  email::AliasTable::SetAfterSaveStep(&RebuildAliases);
  email::AccessDb::SetAfterSaveStep(&RebuildHashedMap);
}

}  // namespace zelpriv_email_sendmail
