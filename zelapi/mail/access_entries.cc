// zel_db's record of the access-map entries the panel wrote (table
// "email_access").
#include <string>

#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/mail/tables.h"

namespace zel_db {

void RecordAccessEntry(pnl_db::Cache& cache, const std::string& key, const std::string& value) {
  // The key as written last is kept: an entry rewritten in another letter
  // case replaces the record of the old spelling.
  cache.Query(
      "INSERT INTO email_access (key, value) VALUES (?, ?) "
      "ON CONFLICT (key) DO UPDATE SET key = excluded.key, value = excluded.value",
      {key, value});
}

void RecordAccessEntry(const std::string& key, const std::string& value) {
  RecordAccessEntry(*GetCache(), key, value);
}

void ForgetAccessEntry(pnl_db::Cache& cache, const std::string& key) {
  cache.Query("DELETE FROM email_access WHERE key = ?", {key});
}

void ForgetAccessEntry(const std::string& key) { ForgetAccessEntry(*GetCache(), key); }

bool IsPanelAccessEntry(pnl_db::Cache& cache, const std::string& key, const std::string& value) {
  pnl_db::Query q = cache.Query("SELECT value FROM email_access WHERE key = ?", {key});
  return !q.Eof() && q.Str() == value;
}

bool IsPanelAccessEntry(const std::string& key, const std::string& value) {
  return IsPanelAccessEntry(*GetCache(), key, value);
}

}  // namespace zel_db
