// pnl_db::Cache: the connection, its schema, its requests, its pool of table
// cursors, and the results of Query.
#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>

#include "internal.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/log.h"

namespace pnl_db {

namespace {

constexpr int kBusyTimeoutMs = 30000;

// Switches the file to the WAL journal and returns the mode it is in then.
// The switch reads the file first and then needs it alone; when another
// connection reads it meanwhile, SQLite answers "database is locked" at once
// instead of waiting (its busy handler never waits while a read is held, to
// avoid a deadlock). Two processes opening a new database together meet this,
// so the switch is retried here within the same busy timeout, with a short
// growing pause.
std::string SetWalJournal(Cache::Impl& impl) {
  static const std::string kSql = "PRAGMA journal_mode = WAL";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  auto pause = std::chrono::milliseconds(1);
  for (;;) {
    try {
      Statement wal(impl, kSql);
      wal.Step();
      return wal.Column(0).text;
    } catch (const SqlFailure& failure) {
      if ((failure.code & 0xff) != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline)
        throw;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(50));
  }
}

// A database holds the panel's secrets, so it is made readable by its owner
// alone: a missing file is created empty (a valid empty database) with mode
// 0600 before SQLite opens it, since SQLite would create it with 0644 less
// the umask; SQLite gives the -wal and -shm files it creates later the
// database file's mode. A file that others may read is closed to them (its
// group keeps what it has), and so are its -wal and -shm files.
void KeepPrivate(const std::string& file) {
  if (file.empty() || file == ":memory:" || file.rfind("file:", 0) == 0) return;
  std::shared_ptr<pnl_file::Ops> ops = pnl_file::CurrentOps();
  int fd = -1;
  const int err = ops->Open(file, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600, fd);
  if (err == 0) {
    ops->Close(fd);
    return;
  }
  // EEXIST: there is one (possibly made meanwhile by another process); any
  // other failure is SQLite's to report when it opens the file.
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::string path = file + suffix;
    unsigned old_mode = 0;
    if (pnl_file::CloseToOthers(path, &old_mode)) {
      char modes[32];
      std::snprintf(modes, sizeof modes, "%04o to %04o", old_mode, old_mode & ~07u);
      pnl_log::Platform().Warning(path + " was open to every user; its mode went from " + modes);
    }
  }
}

std::mutex& SchemaMutex() {
  static std::mutex mutex;
  return mutex;
}

Schema& SchemaSlot() {
  static Schema schema;
  return schema;
}

// Reads a literal column default as PRAGMA table_info gives it ("1", "'x'",
// "NULL", "TRUE"). False for a default SQLite computes (an expression).
bool ParseDefault(const std::string& sql, Value& out) {
  out = Value();
  if (sql.empty()) return true;
  std::string upper = sql;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (upper == "NULL") return true;
  if (upper == "TRUE" || upper == "FALSE") {
    out.kind = Value::kInt;
    out.integer = upper == "TRUE" ? 1 : 0;
    return true;
  }
  int64_t number = 0;
  if (ParseInt(sql, number)) {
    out.kind = Value::kInt;
    out.integer = number;
    return true;
  }
  if (sql.size() >= 2 && sql.front() == '\'' && sql.back() == '\'') {
    std::string text;
    for (size_t i = 1; i + 1 < sql.size(); ++i) {
      if (sql[i] == '\'') {
        if (sql[i + 1] != '\'' || i + 2 >= sql.size()) return false;
        ++i;
      }
      text += sql[i];
    }
    out.kind = Value::kText;
    out.text = std::move(text);
    return true;
  }
  return false;
}

// Applies a column's type affinity to a literal default, as SQLite does when
// it stores it.
void ApplyAffinity(const std::string& type, Value& v) {
  const bool integer = type.find("INT") != std::string::npos;
  const bool text = type.find("CHAR") != std::string::npos ||
                    type.find("CLOB") != std::string::npos ||
                    type.find("TEXT") != std::string::npos;
  if (integer && v.kind == Value::kText) {
    int64_t number = 0;
    if (ParseInt(v.text, number)) {
      v.kind = Value::kInt;
      v.integer = number;
      v.text.clear();
    }
  } else if (text && v.kind == Value::kInt) {
    v.kind = Value::kText;
    v.text = std::to_string(v.integer);
  }
}

}  // namespace

void RegisterSchema(const Schema& schema) {
  std::lock_guard<std::mutex> lock(SchemaMutex());
  SchemaSlot() = schema;
}

Schema RegisteredSchema() {
  std::lock_guard<std::mutex> lock(SchemaMutex());
  return SchemaSlot();
}

// ---------------------------------------------------------------------------
// Connection state

Cache::Impl::~Impl() {
  statements.Clear();
  if (db != nullptr) sqlite3_close_v2(db);
}

void Cache::Impl::Exec(const std::string& sql, const std::string& object,
                       const std::string& context) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error != nullptr ? error : Message();
    sqlite3_free(error);
    Throw(object, context + ": " + message);
  }
}

TableInfo& Cache::Impl::Describe(const std::string& table, const std::string& file) {
  auto it = tables.find(table);
  if (it != tables.end()) return *it->second;
  auto info = std::make_unique<TableInfo>();
  info->name = table;
  static const std::string kSql = "SELECT name, type, dflt_value, pk FROM pragma_table_info(?)";
  Named(table, "describe", [&] {
    Statement stmt(*this, kSql);
    stmt.Bind({table});
    while (stmt.Step() == SQLITE_ROW) {
      ColumnInfo column;
      column.name = stmt.Column(0).text;
      column.type = stmt.Column(1).text;
      for (char& c : column.type) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      const Value dflt = stmt.Column(2);
      column.primary_key = stmt.Column(3).integer != 0;
      if (dflt.kind != Value::kNull) {
        column.default_known = ParseDefault(dflt.text, column.default_value);
        ApplyAffinity(column.type, column.default_value);
      }
      info->columns.push_back(std::move(column));
    }
  });
  if (info->columns.empty()) Throw(table, "no such table in " + file);
  return *tables.emplace(table, std::move(info)).first->second;
}

// ---------------------------------------------------------------------------
// The pool of table cursors

struct Cache::Pool {
  std::mutex mutex;
  Cache* cache = nullptr;  // nullptr once the Cache is gone
  std::unordered_multimap<std::type_index, CustomTable*> idle;
  std::unordered_set<CustomTable*> out;

  // Gives a cursor back, or deletes it when its Cache is gone.
  void Return(CustomTable* table) noexcept {
    std::unique_lock<std::mutex> lock(mutex);
    if (cache == nullptr || out.erase(table) == 0) {
      lock.unlock();
      delete table;
      return;
    }
    table->Reset();
    try {
      idle.emplace(std::type_index(typeid(*table)), table);
    } catch (...) {
      delete table;
    }
  }
};

void Cache::Returner::operator()(CustomTable* table) const noexcept {
  if (std::shared_ptr<Pool> p = pool.lock()) {
    p->Return(table);
  } else {
    delete table;
  }
}

CustomTable* Cache::Take(std::type_index type, Factory make) {
  {
    std::lock_guard<std::mutex> lock(pool_->mutex);
    auto it = pool_->idle.find(type);
    if (it != pool_->idle.end()) {
      CustomTable* table = it->second;
      pool_->idle.erase(it);
      pool_->out.insert(table);
      return table;
    }
  }
  std::unique_ptr<CustomTable> table(make(*this));
  std::lock_guard<std::mutex> lock(pool_->mutex);
  pool_->out.insert(table.get());
  return table.release();
}

void Cache::Put(CustomTable* table) noexcept { pool_->Return(table); }

void Cache::ClearTableCaches(const std::string& table) {
  std::lock_guard<std::mutex> lock(pool_->mutex);
  for (CustomTable* t : pool_->out)
    if (t->TableName() == table) t->memo_.clear();
  for (auto& [type, t] : pool_->idle)
    if (t->TableName() == table) t->memo_.clear();
}

// ---------------------------------------------------------------------------
// Opening and the schema

Cache::Cache(std::string file)
    : file_(std::move(file)), impl_(std::make_unique<Impl>()), pool_(std::make_shared<Pool>()) {
  pool_->cache = this;
}

Cache::~Cache() {
  Rollback();
  std::vector<CustomTable*> idle;
  {
    std::lock_guard<std::mutex> lock(pool_->mutex);
    pool_->cache = nullptr;
    for (CustomTable* t : pool_->out) t->cache_ = nullptr;
    pool_->out.clear();
    for (auto& [type, t] : pool_->idle) idle.push_back(t);
    pool_->idle.clear();
  }
  for (CustomTable* t : idle) delete t;
}

std::unique_ptr<Cache> Cache::Open(const std::string& file) {
  return Open(file, RegisteredSchema());
}

std::unique_ptr<Cache> Cache::Open(const std::string& file, const Schema& schema) {
  for (size_t i = 0; i < schema.size(); ++i)
    if (schema[i].version != static_cast<int>(i) + 1)
      Throw(file, "schema steps must be numbered 1, 2, 3, ... (step " + std::to_string(i + 1) +
                      " says " + std::to_string(schema[i].version) + ")");

  KeepPrivate(file);
  std::unique_ptr<Cache> cache(new Cache(file));
  Impl& impl = *cache->impl_;
  const int rc = sqlite3_open_v2(file.c_str(), &impl.db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                                 nullptr);
  if (rc != SQLITE_OK) {
    const std::string message = impl.db != nullptr ? impl.Message() : sqlite3_errstr(rc);
    Throw(file, "open: " + message);
  }
  sqlite3_extended_result_codes(impl.db, 1);
  sqlite3_busy_timeout(impl.db, kBusyTimeoutMs);

  const std::string mode = Named(file, "set the WAL journal", [&] { return SetWalJournal(impl); });
  if (mode != "wal") Throw(file, "set the WAL journal: the file stays in journal mode " + mode);
  // Foreign keys stay off while the schema migrates (a step may rebuild a
  // table); the result is checked before the migration commits.
  impl.Exec("PRAGMA foreign_keys = OFF", file, "configure");

  const int target = static_cast<int>(schema.size());
  const int found = cache->SchemaVersion();
  if (found > target)
    Throw(file, "schema version " + std::to_string(found) + " is newer than this program's " +
                    std::to_string(target));
  if (found < target) {
    impl.Exec("BEGIN IMMEDIATE", file, "migrate");
    try {
      const int current = cache->SchemaVersion();  // another process may have done it meanwhile
      if (current > target)
        Throw(file, "schema version " + std::to_string(current) +
                        " is newer than this program's " + std::to_string(target));
      for (int v = current + 1; v <= target; ++v)
        impl.Exec(schema[v - 1].sql, file, "schema step " + std::to_string(v));
      if (current < target) {
        impl.Exec("PRAGMA user_version = " + std::to_string(target), file, "migrate");
        std::string broken;
        Named(file, "migrate", [&] {
          static const std::string kSql = "PRAGMA foreign_key_check";
          Statement check(impl, kSql);
          if (check.Step() == SQLITE_ROW)
            broken = "rows of table " + check.Column(0).text + " refer to missing rows of " +
                     check.Column(2).text;
        });
        if (!broken.empty()) Throw(file, "migrate: " + broken);
      }
      impl.Exec("COMMIT", file, "migrate");
    } catch (...) {
      sqlite3_exec(impl.db, "ROLLBACK", nullptr, nullptr, nullptr);
      throw;
    }
  }
  impl.Exec("PRAGMA foreign_keys = ON", file, "configure");
  impl.has_triggers = Named(file, "configure", [&] {
    static const std::string kSql = "SELECT count(*) FROM sqlite_master WHERE type = 'trigger'";
    Statement triggers(impl, kSql);
    triggers.Step();
    return triggers.Column(0).integer != 0;
  });
  return cache;
}

uint64_t Cache::PrepareCount() const { return impl_->statements.Prepared(); }

size_t Cache::KeptStatements() const { return impl_->statements.Size(); }

int Cache::SchemaVersion() {
  return Named(file_, "read the schema version", [&] {
    static const std::string kSql = "PRAGMA user_version";
    Statement stmt(*impl_, kSql);
    stmt.Step();
    return static_cast<int>(stmt.Column(0).integer);
  });
}

// ---------------------------------------------------------------------------
// Queries

pnl_db::Query Cache::Query(const std::string& sql) { return pnl_db::Query(*this, sql, {}); }

pnl_db::Query Cache::Query(const std::string& sql, const std::vector<Param>& params) {
  return pnl_db::Query(*this, sql, params);
}

std::string Cache::EscapeValue(const std::string& text) {
  if (text.find('\0') != std::string::npos)
    Throw("value", "an SQL literal cannot hold a NUL byte");
  std::string out;
  out.reserve(text.size() + 2);
  out += '\'';
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  out += '\'';
  return out;
}

Query::Query(Cache& cache, std::string sql, const std::vector<Param>& params)
    : cache_(&cache), sql_(std::move(sql)) {
  Cache::Impl& impl = cache.impl();
  std::string error;
  stmt_ = impl.statements.Acquire(impl.db, sql_, &error);
  if (stmt_ == nullptr) Throw(sql_, error);
  columns_ = sqlite3_column_count(stmt_);
  if (BindParams(stmt_, params) != SQLITE_OK) {
    error = impl.Message();
    Finish();
    Throw(sql_, error);
  }
  if (!sqlite3_stmt_readonly(stmt_)) ++impl.global_epoch;
  Step();
}

Query::Query(Query&& other) noexcept
    : cache_(other.cache_), sql_(std::move(other.sql_)), stmt_(other.stmt_),
      columns_(other.columns_) {
  other.stmt_ = nullptr;
}

Query& Query::operator=(Query&& other) noexcept {
  if (this != &other) {
    Finish();
    cache_ = other.cache_;
    sql_ = std::move(other.sql_);
    stmt_ = other.stmt_;
    columns_ = other.columns_;
    other.stmt_ = nullptr;
  }
  return *this;
}

Query::~Query() { Finish(); }

void Query::Finish() noexcept {
  if (stmt_ != nullptr) {
    cache_->impl().statements.Release(sql_, stmt_);
    stmt_ = nullptr;
  }
}

void Query::Step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return;
  if (rc == SQLITE_DONE) {
    Finish();
    return;
  }
  const std::string error = cache_->impl().Message();
  Finish();
  Throw(sql_, error);
}

void Query::Next() {
  if (stmt_ != nullptr) Step();
}

void Query::CheckRow(int col) const {
  if (stmt_ == nullptr) Throw(sql_, "no current row");
  if (col < 0 || col >= columns_)
    Throw(sql_, "no column " + std::to_string(col) + " (the result has " +
                    std::to_string(columns_) + ")");
}

std::string Query::Str(int col) const {
  CheckRow(col);
  const unsigned char* text = sqlite3_column_text(stmt_, col);
  if (text == nullptr) return "";
  return std::string(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt_, col));
}

int64_t Query::Int(int col) const {
  CheckRow(col);
  return sqlite3_column_int64(stmt_, col);
}

bool Query::IsNull(int col) const {
  CheckRow(col);
  return sqlite3_column_type(stmt_, col) == SQLITE_NULL;
}

// ---------------------------------------------------------------------------
// Requests

void Cache::BeginRequest() {
  Impl& impl = *impl_;
  {
    std::unique_lock<std::mutex> lock(impl.request_mutex);
    if (impl.request_busy && impl.request_owner == std::this_thread::get_id())
      Throw(file_, "begin request: a request is already open on this thread");
    impl.request_free.wait(lock, [&impl] { return !impl.request_busy; });
    impl.request_busy = true;
    impl.request_owner = std::this_thread::get_id();
  }
  try {
    impl.Exec("BEGIN IMMEDIATE", file_, "begin request");
  } catch (...) {
    std::lock_guard<std::mutex> lock(impl.request_mutex);
    impl.request_busy = false;
    impl.request_owner = std::thread::id();
    impl.request_free.notify_one();
    throw;
  }
  in_request_ = true;
  ++impl.global_epoch;
}

namespace {

// Ends the request's bookkeeping: hooks dropped, the request slot freed.
void CloseRequest(Cache::Impl& impl, bool& in_request) noexcept {
  impl.hooks.clear();
  in_request = false;
  ++impl.global_epoch;
  std::lock_guard<std::mutex> lock(impl.request_mutex);
  impl.request_busy = false;
  impl.request_owner = std::thread::id();
  impl.request_free.notify_one();
}

}  // namespace

void Cache::EndRequest() {
  if (!in_request_) return;
  Impl& impl = *impl_;
  if (impl.request_owner != std::this_thread::get_id())
    Throw(file_, "end request: the request is open on another thread");
  std::exception_ptr hook_error;
  for (auto& [name, hook] : impl.hooks) {
    try {
      hook->BeforeCommit(*this);
    } catch (...) {
      if (!hook_error) hook_error = std::current_exception();
    }
  }
  char* error = nullptr;
  if (sqlite3_exec(impl.db, "COMMIT", nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : impl.Message();
    sqlite3_free(error);
    sqlite3_exec(impl.db, "ROLLBACK", nullptr, nullptr, nullptr);
    CloseRequest(impl, in_request_);
    Throw(file_, "commit: " + message);
  }
  CloseRequest(impl, in_request_);
  if (hook_error) std::rethrow_exception(hook_error);
}

void Cache::Rollback() noexcept {
  if (!in_request_) return;
  sqlite3_exec(impl_->db, "ROLLBACK", nullptr, nullptr, nullptr);
  CloseRequest(*impl_, in_request_);
}

RequestHook& Cache::AddRequestHook(const std::string& name, std::unique_ptr<RequestHook> hook) {
  if (!in_request_) Throw(file_, "request hook " + name + ": no request is open");
  if (FindRequestHook(name) != nullptr)
    Throw(file_, "request hook " + name + ": the request has one already");
  impl_->hooks.emplace_back(name, std::move(hook));
  return *impl_->hooks.back().second;
}

RequestHook* Cache::FindRequestHook(const std::string& name) {
  for (auto& [n, hook] : impl_->hooks)
    if (n == name) return hook.get();
  return nullptr;
}

Request::Request(Cache& cache) : cache_(cache) { cache_.BeginRequest(); }

Request::~Request() {
  if (!open_) return;
  try {
    cache_.EndRequest();
  } catch (const std::exception& e) {
    try {
      pnl_log::Platform().Error(std::string("database request not committed: ") + e.what());
    } catch (...) {
    }
  }
}

void Request::End() {
  open_ = false;
  cache_.EndRequest();
}

void Request::Abandon() noexcept {
  open_ = false;
  cache_.Rollback();
}

}  // namespace pnl_db
