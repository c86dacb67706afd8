// pnl_db queries: a statement's parameters (Param) and the rows it returns
// (Query), as handed out by Cache::Query.
//
// A Query borrows one of its Cache's prepared statements while it has a
// current row and gives it back at its end; each SQL text is prepared once
// per Cache and reused, so running the same text again costs a reset and a
// bind, not a parse. A Query is used by the thread that holds its Cache.
//
// Errors: every failure throws pnl_err::Error of type "db" whose object is
// the SQL text and whose detail carries SQLite's message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct sqlite3_stmt;

namespace pnl_db {

class Cache;

// A statement parameter: NULL, an integer or a text.
class Param {
 public:
  Param(std::nullptr_t) {}
  Param(int value) : kind_(kInt), int_(value) {}
  Param(long value) : kind_(kInt), int_(value) {}
  Param(long long value) : kind_(kInt), int_(value) {}
  Param(const char* value) : kind_(kText), text_(value) {}
  Param(std::string value) : kind_(kText), text_(std::move(value)) {}

  enum Kind { kNull, kInt, kText };
  Kind kind() const { return kind_; }
  int64_t int_value() const { return int_; }
  const std::string& text() const { return text_; }

 private:
  Kind kind_ = kNull;
  int64_t int_ = 0;
  std::string text_;
};

// The result of Cache::Query: positioned on its first row when constructed,
// walked with Eof/Next. Holds one of the Cache's prepared statements until it
// reaches its end or is destroyed; it must not outlive the Cache. Movable,
// not copyable.
class Query {
 public:
  Query(Query&& other) noexcept;
  Query& operator=(Query&& other) noexcept;
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  ~Query();

  // True when there is no current row (no row at all, or walked past the last).
  bool Eof() const { return stmt_ == nullptr; }
  // Moves to the next row. Does nothing at the end. Throws on an SQL error.
  void Next();
  // Column col (0 = first) of the current row as text; "" for NULL. Throws
  // pnl_err::Error at the end or for a column out of range.
  std::string Str(int col = 0) const;
  // Column col as an integer (NULL reads as 0). Throws as Str.
  int64_t Int(int col = 0) const;
  bool IsNull(int col = 0) const;
  // Number of columns of the result.
  int Columns() const { return columns_; }
  // The SQL text this result was made from.
  const std::string& Sql() const { return sql_; }

 private:
  friend class Cache;
  Query(Cache& cache, std::string sql, const std::vector<Param>& params);
  void Step();
  void Finish() noexcept;
  void CheckRow(int col) const;

  Cache* cache_ = nullptr;
  std::string sql_;
  sqlite3_stmt* stmt_ = nullptr;  // held while a row is current
  int columns_ = 0;
};

}  // namespace pnl_db
