#include "email/access_entries.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "email/tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/mail/tables.h"

namespace email {

namespace {

constexpr char kHookName[] = "email.access_claims";

std::string ClaimsPath(const pnl_db::Cache& db) { return db.File() + "-access-claims"; }

// Marks the open request as one whose claims were looked at.
class ClaimsSeen : public pnl_db::RequestHook {
 public:
  void BeforeCommit(pnl_db::Cache&) override {}
};

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

void AppendClaim(const std::string& file, const std::string& key, const std::string& value) {
  const std::string line = key + "\t" + value + "\n";
  std::shared_ptr<pnl_file::Ops> ops = pnl_file::CurrentOps();
  int fd = -1;
  int err = ops->Open(file, O_WRONLY | O_CREAT | O_APPEND, 0600, fd);
  std::size_t written = 0;
  if (err == 0) {
    err = ops->Write(fd, line.data(), line.size(), written);
    if (err == 0 && written != line.size()) err = EIO;
    const int closed = ops->Close(fd);
    if (err == 0) err = closed;
  }
  if (err != 0)
    throw pnl_err::Error(pnl_err::Kind::kFile, file, std::string("cannot write a claim: ") + std::strerror(err));
}

// Adopts the claims of earlier requests that never committed (see the
// header) and drops the rest: once per request, before the first look-up
// of who wrote a line, and so before the request writes claims of its own.
void SettleClaims(const std::string& path) {
  pnl_db::Cache& db = *zel_db::GetCache();
  if (db.InRequest()) {
    if (db.FindRequestHook(kHookName) != nullptr) return;
    db.AddRequestHook(kHookName, std::make_unique<ClaimsSeen>());
  }
  const std::string file = ClaimsPath(db);
  std::string data;
  pnl_file::FileId id;
  if (!pnl_file::ReadFile(file, data, id)) return;
  // The last claim of a key counts; an empty value is a forget.
  std::map<std::string, std::pair<std::string, std::string>> claims;  // lower key -> key, value
  for (std::size_t start = 0; start < data.size();) {
    std::size_t end = data.find('\n', start);
    if (end == std::string::npos) break;  // a line cut short by a kill
    const std::string line = data.substr(start, end - start);
    start = end + 1;
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos || tab == 0) continue;
    const std::string key = line.substr(0, tab);
    const std::string value = line.substr(tab + 1);
    if (value.empty())
      claims.erase(Lower(key));
    else
      claims[Lower(key)] = {key, value};
  }
  std::string kept;
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(path, true);
  for (const auto& [lower, claim] : claims) {
    const auto& [key, value] = claim;
    if (!access->Find(key) || access->target.Str() != value) continue;  // never written
    const std::string line_key = access->source.Str();
    if (zel_db::IsPanelAccessEntry(db, line_key, value)) continue;  // its request committed
    // Written by a request that ended before it committed: the panel's.
    // Kept until a request that adopted it has committed.
    zel_db::RecordAccessEntry(db, line_key, value);
    kept += line_key + "\t" + value + "\n";
  }
  if (kept.empty()) {
    const int err = pnl_file::CurrentOps()->Unlink(file);
    if (err != 0 && err != ENOENT)
      throw pnl_err::Error(pnl_err::Kind::kFile, file, std::string("cannot remove: ") + std::strerror(err));
    return;
  }
  pnl_file::safe::Folder folder;
  pnl_file::safe::WriteFile(folder, file, kept, &id);
}

}  // namespace

void RecordAccessEntry(const std::string& path, const std::string& key,
                       const std::string& value) {
  SettleClaims(path);
  pnl_db::Cache& db = *zel_db::GetCache();
  // Outside a request the record is kept at once: no claim is needed.
  if (db.InRequest()) AppendClaim(ClaimsPath(db), key, value);
  zel_db::RecordAccessEntry(db, key, value);
}

void ForgetAccessEntry(const std::string& path, const std::string& key) {
  SettleClaims(path);
  pnl_db::Cache& db = *zel_db::GetCache();
  zel_db::ForgetAccessEntry(db, key);
  // A claim of this request for key must not make a later line of key the
  // panel's.
  if (db.InRequest()) AppendClaim(ClaimsPath(db), key, "");
}

std::optional<AccessEntry> FindAccessEntry(Cursor<SourceTarget>& access,
                                           const std::vector<std::string>& keys) {
  SettleClaims(access->FileName());
  for (const std::string& key : keys) {
    if (!access->Find(key)) continue;
    AccessEntry entry;
    entry.key = access->source.Str();
    entry.value = access->target.Str();
    entry.panel = zel_db::IsPanelAccessEntry(entry.key, entry.value);
    return entry;
  }
  return std::nullopt;
}

std::optional<AccessEntry> FindAccessEntry(const std::string& path,
                                           const std::vector<std::string>& keys) {
  Cursor<SourceTarget> access = AccessDb::Get<SourceTarget>(path, true);
  return FindAccessEntry(access, keys);
}

bool IsPanelAccessEntry(const std::string& path, const std::string& key,
                        const std::string& value) {
  SettleClaims(path);
  return zel_db::IsPanelAccessEntry(key, value);
}

std::string NotThePanels(const AccessEntry& entry) {
  return "the access map holds \"" + entry.Text() + "\", which the panel did not write";
}

}  // namespace email
