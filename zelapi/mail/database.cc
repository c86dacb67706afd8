// The process's panel database: opened by the host, reached by everyone.
#include <memory>
#include <mutex>
#include <utility>

#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"

namespace zel_db {

namespace {

std::mutex& DatabaseMutex() {
  static std::mutex mutex;
  return mutex;
}

std::unique_ptr<pnl_db::Cache>& DatabaseSlot() {
  static std::unique_ptr<pnl_db::Cache> cache;
  return cache;
}

}  // namespace

void OpenCache(const std::string& file) {
  std::unique_ptr<pnl_db::Cache> opened = pnl_db::Cache::Open(file, PanelSchema());
  std::unique_ptr<pnl_db::Cache> previous;
  {
    std::lock_guard<std::mutex> lock(DatabaseMutex());
    previous = std::exchange(DatabaseSlot(), std::move(opened));
  }
  // previous closes here, outside the lock.
}

void CloseCache() {
  std::unique_ptr<pnl_db::Cache> previous;
  {
    std::lock_guard<std::mutex> lock(DatabaseMutex());
    previous = std::move(DatabaseSlot());
  }
}

bool HasCache() {
  std::lock_guard<std::mutex> lock(DatabaseMutex());
  return DatabaseSlot() != nullptr;
}

pnl_db::Cache* GetCache() {
  std::lock_guard<std::mutex> lock(DatabaseMutex());
  if (!DatabaseSlot()) throw pnl_err::Error(pnl_err::Kind::kDb, "database", "no database is open");
  return DatabaseSlot().get();
}

}  // namespace zel_db
