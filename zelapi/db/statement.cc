// Prepared statements: the per-connection statement cache, the one-use lease
// on a statement, and the small helpers every pnl_db source uses.
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "internal.h"
#include "zelapi/err.h"

namespace pnl_db {

void Throw(const std::string& object, const std::string& detail) {
  throw pnl_err::Error(pnl_err::Kind::kDb, object, detail);
}

std::string Ident(const std::string& name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

bool ParseInt(const std::string& text, int64_t& out) {
  if (text.empty() || text.size() > 20) return false;
  size_t i = (text[0] == '-' || text[0] == '+') ? 1 : 0;
  if (i == text.size()) return false;
  for (size_t j = i; j < text.size(); ++j)
    if (!std::isdigit(static_cast<unsigned char>(text[j]))) return false;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || end != text.c_str() + text.size()) return false;
  out = value;
  return true;
}

bool Value::operator==(const Value& other) const {
  if (kind != other.kind) return false;
  if (kind == kInt) return integer == other.integer;
  if (kind == kText) return text == other.text;
  return true;
}

const ColumnInfo* TableInfo::Find(const std::string& column) const {
  for (const ColumnInfo& c : columns)
    if (c.name == column) return &c;
  return nullptr;
}

sqlite3_stmt* PrepareOne(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()),
                                    SQLITE_PREPARE_PERSISTENT, &stmt, &tail);
  if (rc != SQLITE_OK) {
    SqlFailure failure{sqlite3_errmsg(db)};
    sqlite3_finalize(stmt);
    throw failure;
  }
  if (stmt == nullptr) throw SqlFailure{"no SQL statement"};
  for (const char* p = tail; p != nullptr && p < sql.data() + sql.size(); ++p) {
    if (!std::isspace(static_cast<unsigned char>(*p)) && *p != ';') {
      sqlite3_finalize(stmt);
      throw SqlFailure{"more than one SQL statement"};
    }
  }
  return stmt;
}

sqlite3_stmt* StatementCache::Acquire(sqlite3* db, const std::string& sql, std::string* error) {
  auto it = entries_.find(sql);
  if (it != entries_.end()) {
    lru_.splice(lru_.begin(), lru_, it->second.lru);
    if (!it->second.idle.empty()) {
      sqlite3_stmt* stmt = it->second.idle.back();
      it->second.idle.pop_back();
      return stmt;
    }
  }
  ++prepared_;
  try {
    return PrepareOne(db, sql);
  } catch (const SqlFailure& failure) {
    *error = failure.message;
    return nullptr;
  }
}

void StatementCache::Release(const std::string& sql, sqlite3_stmt* stmt) noexcept {
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  try {
    auto it = entries_.find(sql);
    if (it == entries_.end()) {
      lru_.push_front(sql);
      it = entries_.emplace(sql, Entry{{}, lru_.begin()}).first;
    } else {
      lru_.splice(lru_.begin(), lru_, it->second.lru);
    }
    it->second.idle.push_back(stmt);
    while (entries_.size() > limit_) {
      auto victim = entries_.find(lru_.back());
      for (sqlite3_stmt* s : victim->second.idle) sqlite3_finalize(s);
      lru_.pop_back();
      entries_.erase(victim);
    }
  } catch (...) {
    sqlite3_finalize(stmt);  // out of memory: drop the statement instead of keeping it
  }
}

void StatementCache::Clear() noexcept {
  for (auto& [sql, entry] : entries_)
    for (sqlite3_stmt* s : entry.idle) sqlite3_finalize(s);
  entries_.clear();
  lru_.clear();
}

int BindParams(sqlite3_stmt* stmt, const std::vector<Param>& params) {
  int i = 1;
  for (const Param& p : params) {
    int rc = SQLITE_OK;
    switch (p.kind()) {
      case Param::kNull:
        rc = sqlite3_bind_null(stmt, i);
        break;
      case Param::kInt:
        rc = sqlite3_bind_int64(stmt, i, p.int_value());
        break;
      case Param::kText:
        rc = sqlite3_bind_text64(stmt, i, p.text().data(), p.text().size(), SQLITE_TRANSIENT,
                                 SQLITE_UTF8);
        break;
    }
    if (rc != SQLITE_OK) return rc;
    ++i;
  }
  return SQLITE_OK;
}

Statement::Statement(Cache::Impl& impl, const std::string& sql)
    : impl_(impl), sql_(sql), stmt_(nullptr) {
  std::string error;
  stmt_ = impl_.statements.Acquire(impl_.db, sql_, &error);
  if (stmt_ == nullptr) throw SqlFailure{error};
}

Statement::Statement(Cache::Impl& impl, const std::string& sql, sqlite3_stmt** stmt)
    : impl_(impl), sql_(sql), stmt_(*stmt), owned_(true) {
  if (stmt_ == nullptr) {
    impl_.statements.CountPrepare();
    stmt_ = *stmt = PrepareOne(impl_.db, sql_);
  }
}

Statement::~Statement() {
  if (owned_) {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  } else {
    impl_.statements.Release(sql_, stmt_);
  }
}

void Statement::Bind(const std::vector<Param>& params) {
  if (BindParams(stmt_, params) != SQLITE_OK) throw SqlFailure{impl_.Message()};
}

void Statement::Bind(int index, const Value& v) {
  int rc = SQLITE_OK;
  switch (v.kind) {
    case Value::kNull:
      rc = sqlite3_bind_null(stmt_, index);
      break;
    case Value::kInt:
      rc = sqlite3_bind_int64(stmt_, index, v.integer);
      break;
    case Value::kText:
      rc = sqlite3_bind_text64(stmt_, index, v.text.data(), v.text.size(), SQLITE_STATIC,
                               SQLITE_UTF8);
      break;
  }
  if (rc != SQLITE_OK) throw SqlFailure{impl_.Message()};
}

int Statement::Step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW || rc == SQLITE_DONE) return rc;
  SqlFailure failure{impl_.Message(), sqlite3_extended_errcode(impl_.db)};
  sqlite3_reset(stmt_);
  throw failure;
}

void Statement::Read(int col, Value& out) const {
  switch (sqlite3_column_type(stmt_, col)) {
    case SQLITE_NULL:
      out.kind = Value::kNull;
      out.integer = 0;
      out.text.clear();
      break;
    case SQLITE_INTEGER:
      out.kind = Value::kInt;
      out.integer = sqlite3_column_int64(stmt_, col);
      out.text.clear();
      break;
    default: {
      out.kind = Value::kText;
      out.integer = 0;
      const unsigned char* text = sqlite3_column_text(stmt_, col);
      const int size = sqlite3_column_bytes(stmt_, col);
      if (text != nullptr)
        out.text.assign(reinterpret_cast<const char*>(text), size);
      else
        out.text.clear();
      break;
    }
  }
}

}  // namespace pnl_db
