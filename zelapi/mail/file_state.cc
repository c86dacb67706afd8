// zel_db::FileIsChanged: the states of the files the panel caches, remembered
// in table "file_state" and, within a request, held back until it ends.
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "zelapi/db.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/mail/tables.h"

namespace zel_db {

namespace {

constexpr char kHookName[] = "zel_db.file_state";
constexpr char kMissing[] = "missing";

// 64-bit hash of a file's content, eight bytes at a time. Not a checksum
// against tampering: it only tells a rewritten file from the old one when
// stat cannot (same size, same time stamp).
uint64_t ContentHash(const std::string& data) {
  const uint64_t kMul = 0x9E3779B97F4A7C15ull;
  uint64_t h = 0x243F6A8885A308D3ull ^ data.size();
  size_t i = 0;
  for (; i + 8 <= data.size(); i += 8) {
    uint64_t w = 0;
    for (int b = 7; b >= 0; --b) w = (w << 8) | static_cast<unsigned char>(data[i + b]);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
  }
  uint64_t tail = 0;
  for (size_t j = data.size(); j > i; --j) tail = (tail << 8) | static_cast<unsigned char>(data[j - 1]);
  h = (h ^ tail) * kMul;
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ull;
  h ^= h >> 33;
  return h;
}

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
    throw pnl_err::Error("db", cache.File(), std::string("request hook ") + kHookName +
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
                static_cast<unsigned long long>(ContentHash(data)));
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
