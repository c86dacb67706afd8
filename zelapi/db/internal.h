// Private parts of pnl_db shared by its source files: the connection state
// behind a Cache, the statement cache, the description of a table's columns
// and the error helper. Not installed; sqlite3.h stays in here.
#pragma once

#include <sqlite3.h>

#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <typeindex>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "zelapi/db/cache.h"
#include "zelapi/db/field.h"
#include "zelapi/db/query.h"
#include "zelapi/db/schema.h"
#include "zelapi/db/table.h"

namespace pnl_db {

// Throws pnl_err::Error of type "db".
[[noreturn]] void Throw(const std::string& object, const std::string& detail);

// Double-quoted SQL identifier.
std::string Ident(const std::string& name);

// Parses a whole decimal integer (optional sign, digits, nothing else, within
// 64 bits).
bool ParseInt(const std::string& text, int64_t& out);

// One column of a table, from PRAGMA table_info.
struct ColumnInfo {
  std::string name;
  std::string type;        // declared type, upper case
  bool primary_key = false;
  bool default_known = true;  // false: a default SQLite computes (not a literal)
  Value default_value;        // the literal default, NULL when none
};

// What a Cache knows of one table. The epoch counts the posts made to the
// table through the Cache; a cursor's remembered rows are valid while it and
// the Cache's global epoch stay as they were.
struct TableInfo {
  std::string name;
  std::vector<ColumnInfo> columns;
  uint64_t epoch = 1;

  const ColumnInfo* Find(const std::string& column) const;
};

// Prepared statements by SQL text. A statement in use is out of the cache;
// Release puts it back (reset, bindings cleared). At most `limit` distinct
// texts are kept; the least recently used idle ones are finalized first.
class StatementCache {
 public:
  explicit StatementCache(size_t limit) : limit_(limit) {}
  ~StatementCache() { Clear(); }
  StatementCache(const StatementCache&) = delete;
  StatementCache& operator=(const StatementCache&) = delete;

  // An idle statement for sql, or a newly prepared one. On a prepare error
  // returns nullptr with *error set to SQLite's message.
  sqlite3_stmt* Acquire(sqlite3* db, const std::string& sql, std::string* error);
  void Release(const std::string& sql, sqlite3_stmt* stmt) noexcept;
  void Clear() noexcept;
  size_t Size() const { return entries_.size(); }
  // Statements prepared so far (here and by cursors, which count theirs in).
  uint64_t Prepared() const { return prepared_; }
  void CountPrepare() { ++prepared_; }

 private:
  struct Entry {
    std::vector<sqlite3_stmt*> idle;
    std::list<std::string>::iterator lru;
  };
  size_t limit_;
  std::unordered_map<std::string, Entry> entries_;
  std::list<std::string> lru_;  // most recent first
  uint64_t prepared_ = 0;
};

struct Cache::Impl {
  sqlite3* db = nullptr;
  StatementCache statements{512};
  std::map<std::string, std::unique_ptr<TableInfo>> tables;
  uint64_t global_epoch = 1;
  bool has_triggers = false;

  // The request: one at a time; another thread waits in BeginRequest.
  std::mutex request_mutex;
  std::condition_variable request_free;
  bool request_busy = false;
  std::thread::id request_owner;
  std::vector<std::pair<std::string, std::unique_ptr<RequestHook>>> hooks;

  ~Impl();

  // Runs SQL that returns no rows (may hold several statements). Throws
  // Error(object, context + ": " + SQLite's message).
  void Exec(const std::string& sql, const std::string& object, const std::string& context);
  // The description of a table, read once. Throws when there is no such table.
  TableInfo& Describe(const std::string& table, const std::string& file);
  std::string Message() const { return sqlite3_errmsg(db); }
};

// An SQL failure inside the layer, before it is named: the caller catches it
// and throws pnl_err::Error with the table or file and the key or condition.
// Building those names only on failure keeps the hot paths cheap.
struct SqlFailure {
  std::string message;
  int code = SQLITE_ERROR;  // SQLite's extended result code
};

// A statement taken from the cache for one use; given back on destruction.
// sql must stay alive as long as the Statement.
class Statement {
 public:
  // Throws SqlFailure when sql does not prepare.
  Statement(Cache::Impl& impl, const std::string& sql);
  // Uses a statement the caller owns (*stmt, prepared from sql here when
  // null); it is reset, not given back, at the end.
  Statement(Cache::Impl& impl, const std::string& sql, sqlite3_stmt** stmt);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  sqlite3_stmt* get() const { return stmt_; }
  // Binds params to the placeholders 1..n (copies them).
  void Bind(const std::vector<Param>& params);
  // Binds one value to placeholder index (1-based) without copying it: v
  // must stay unchanged until the last Step.
  void Bind(int index, const Value& v);
  // sqlite3_step; throws SqlFailure on an error.
  int Step();
  // Reads column col of the current row.
  void Read(int col, Value& out) const;
  Value Column(int col) const {
    Value v;
    Read(col, v);
    return v;
  }

 private:
  Cache::Impl& impl_;
  const std::string& sql_;
  sqlite3_stmt* stmt_;
  bool owned_ = false;
};

// Prepares sql on db; throws SqlFailure. Refuses text after the first statement.
sqlite3_stmt* PrepareOne(sqlite3* db, const std::string& sql);

// Runs f, turning a SqlFailure into pnl_err::Error(object, context + ": " + message).
template <class F>
auto Named(const std::string& object, const std::string& context, F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (const SqlFailure& failure) {
    Throw(object, context + ": " + failure.message);
  }
}

// Binds params to stmt's placeholders 1..n; returns SQLite's result code.
int BindParams(sqlite3_stmt* stmt, const std::vector<Param>& params);

}  // namespace pnl_db
