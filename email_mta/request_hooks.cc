// What a request needs of a sendmail-family MTA around its file changes:
// the restart after its local names changed, the maps a request left older
// than their files, the lines an interrupted add left behind, and the
// access map's entries for the checks made before one is written.
#include <filesystem>

#include "email/access_entries.h"
#include "email/sendmail_like.h"
#include "email/tables.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/conf/cache.h"
#include "zelapi/log.h"
#include "zelapi/proc.h"
#include "zelapi/warn.h"

namespace email {

namespace {

const pnl_log::Module& RequestLog() {
  static const pnl_log::Module log("mta", "zelpnl");
  return log;
}

// Rebuilds table T's map of the file at path when the map is older than
// the text. A file or map that is missing, or that is no plain file, is the
// command's to report when it reads it.
template <class T>
void RebuildIfStale(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return;
  const pnl_file::FileId text = pnl_file::StatFile(path);
  const pnl_file::FileId map = pnl_file::StatFile(path + ".db");
  if (!text.exists || !map.exists || map.mtime_ns >= text.mtime_ns) return;
  RequestLog().Info(path + ".db is older than " + path + ": rebuilding it");
  pnl_file::safe::Folder folder;
  ConfRef ref =
      BaseCachedConfig<PnlConfCache>::Instance()->Config(T::Table().Name(), folder, path, true);
  // A deferred save's reason: the map is rebuilt, no restart is queued.
  ConfCache::SaveReason reason = ConfCache::kSaveDeferred;
  T::Table().AfterSave(ref, reason);
}

// A rebuild's failure as a warning: the request goes on.
template <class T>
void AttemptRebuild(const char* what, const std::string& path) noexcept {
  try {
    RebuildIfStale<T>(path);
  } catch (const std::exception& e) {
    try {
      std::string message = std::string("the ") + what +
                            " map is older than its file and could not be rebuilt: " + e.what();
      while (!message.empty() && message.back() == '\n') message.pop_back();
      pnl_warn::Add(message);
    } catch (...) {
    }
  }
}

}  // namespace

void SendmailLikeInterface::BeginSaves() {
  local_names_before_ = pnl_file::StatFile(localhostnames_path_);
}

bool SendmailLikeInterface::LocalNamesChanged() const {
  return !pnl_file::StatFile(localhostnames_path_).SameContent(local_names_before_);
}

void SendmailLikeInterface::RestartLater() {
  zel_api::ExecuteLater(pnl_cf::GetPath(restart_key_));
}

void SendmailLikeInterface::RestartNow() {
  try {
    const std::string command = pnl_cf::GetPath(restart_key_);
    pnl_proc::Execute run(command, 2);
    if (run.Result() != 0)
      pnl_warn::Add("the restart \"" + command + "\" failed with status " +
                    std::to_string(run.Result()) + ": " + run.Str());
  } catch (const std::exception& e) {
    pnl_warn::Add(std::string("the restart could not run: ") + e.what());
  }
}

void SendmailLikeInterface::RebuildStaleMaps() noexcept {
  AttemptRebuild<VirtualUserTable>("virtual user table", virtusertable_path_);
  AttemptRebuild<AccessDb>("access", accessdb_path_);
  AttemptRebuild<AliasTable>("aliases", aliases_path_);
}

MtaInterface::MailboxLeftover SendmailLikeInterface::FindMailboxLeftover(
    const std::string& local, const std::string& domain) {
  MailboxLeftover result;
  const std::string name = local + "+" + domain;
  Cursor<VirtualEmails> lines = VirtualUserTable::Get<VirtualEmails>(virtusertable_path_, true);
  if (lines->Find(local + "@" + domain)) {
    const std::string target = lines->target.Str();
    if (target == name)
      result.found = true;
    else
      result.foreign = target;
    return result;
  }
  Cursor<Aliases> aliases = AliasTable::Get<Aliases>(aliases_path_, true);
  result.found = aliases->Find(name);
  return result;
}

bool SendmailLikeInterface::HasDomainLeftover(const std::string& domain) {
  Cursor<VirtualDomains> lines = VirtualUserTable::Get<VirtualDomains>(virtusertable_path_, true);
  return lines->Find(domain);
}

std::optional<AccessEntry> SendmailLikeInterface::FindAccessEntry(
    const std::vector<std::string>& keys) {
  return email::FindAccessEntry(accessdb_path_, keys);
}

std::optional<AccessEntry> SendmailLikeInterface::FindSenderEntry(const std::string& sender) {
  return FindAccessEntry(ListKeys(sender));
}

}  // namespace email
