// zel_db::FileIsChanged: the states of the files the panel caches, remembered
// in table "file_state" and, within a request, held back until it ends.
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/hash.h"
#include "zelapi/mail/tables.h"

namespace zel_db {

namespace {

constexpr char kHookName[] = "zel_db.file_state";
constexpr char kMissing[] = "missing";

bool Stored(pnl_db::Cache& cache, const std::string& path, std::string& state) {
  pnl_db::Query q = cache.Query("SELECT state FROM file_state WHERE path = ?", {path});
  if (q.Eof()) return false;
  state = q.Str();
  return true;
}

void Store(pnl_db::Cache& cache, const std::string& path, const std::string& state) {
  cache.Query(
      "INSERT INTO file_state (path, state) VALUES (?, ?) "
      "ON CONFLICT (path) DO UPDATE SET state = excluded.state",
      {path, state});
}

// The answers of the open request, and the states to remember when it ends.
class PendingStates : public pnl_db::RequestHook {
 public:
  struct Seen {
    bool changed;
    std::string state;  // as the first call of the request saw it
  };
  std::map<std::string, Seen> files;

  void BeforeCommit(pnl_db::Cache& cache) override {
    for (const auto& [path, seen] : files)
      if (seen.changed) Store(cache, path, seen.state);
  }
};

PendingStates* Pending(pnl_db::Cache& cache, bool create) {
  pnl_db::RequestHook* hook = cache.FindRequestHook(kHookName);
  if (hook == nullptr) {
    if (!create) return nullptr;
    hook = &cache.AddRequestHook(kHookName, std::make_unique<PendingStates>());
  }
  auto* pending = dynamic_cast<PendingStates*>(hook);
  if (pending == nullptr)
    throw pnl_err::Error(pnl_err::Kind::kDb, cache.File(), std::string("request hook ") + kHookName +
                                                 " is of another kind");
  return pending;
}

}  // namespace

std::string FileState(const std::string& path) {
  std::string data;
  pnl_file::FileId id;
  if (!pnl_file::ReadFile(path, data, id)) return kMissing;
  char text[160];
  std::snprintf(text, sizeof text, "dev=%llu ino=%llu size=%llu mtime=%lld.%09lld hash=%016llx",
                static_cast<unsigned long long>(id.dev), static_cast<unsigned long long>(id.ino),
                static_cast<unsigned long long>(data.size()),
                static_cast<long long>(id.mtime_ns / 1000000000),
                static_cast<long long>(id.mtime_ns % 1000000000),
                static_cast<unsigned long long>(pnl_hash::Hash64(data)));
  return text;
}

bool FileIsChanged(pnl_db::Cache& cache, const std::string& path, std::string& stamp) {
  stamp = FileState(path);
  if (cache.InRequest()) {
    PendingStates* pending = Pending(cache, true);
    auto it = pending->files.find(path);
    if (it != pending->files.end()) return it->second.changed;
    std::string before;
    const bool changed = !Stored(cache, path, before) || before != stamp;
    pending->files.emplace(path, PendingStates::Seen{changed, stamp});
    return changed;
  }
  std::string before;
  const bool changed = !Stored(cache, path, before) || before != stamp;
  if (changed) Store(cache, path, stamp);
  return changed;
}

bool FileIsChanged(const std::string& path, std::string& stamp) {
  return FileIsChanged(*GetCache(), path, stamp);
}

void ForgetFileState(pnl_db::Cache& cache, const std::string& path) {
  if (cache.InRequest())
    if (PendingStates* pending = Pending(cache, false)) pending->files.erase(path);
  cache.Query("DELETE FROM file_state WHERE path = ?", {path});
}

void ForgetFileState(const std::string& path) { ForgetFileState(*GetCache(), path); }

}  // namespace zel_db
