// pnl_db tables: CustomTable, the row cursor every table class derives from.
//
// A cursor belongs to the Cache that handed it out (Cache::Get) and keeps
// its own prepared statements: one per kind of lookup and per set of columns
// an insert or update writes, each prepared on first use and reused, so a
// pass over many rows parses each statement once. A lookup by a key or one
// indexed column costs one index search. A cursor is used by one thread at a
// time, the one holding its Cache's request.
//
// Errors: every failure throws pnl_err::Error of type "db" whose object names
// the table and whose detail names the key or condition and carries SQLite's
// message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelapi/db/field.h"

struct sqlite3_stmt;

namespace pnl_db {

class Cache;
struct ColumnInfo;
struct TableInfo;

// Base of every table cursor. A derived class names its SQL table and
// declares one KeyField (its INTEGER PRIMARY KEY column) and its other
// columns as field members; it needs a constructor taking Cache&. The fields
// are checked against the table's columns on first use (a missing column or a
// wrong type throws pnl_err::Error naming the table and the column).
//
// A cursor is at the end (Eof) or on one row: a stored row it was positioned
// on, or a new row started with New(). Positioning reads the row's values
// into the fields; assignments change the fields only, until Post().
//
// Rows kept in memory: within a request a cursor remembers the rows its
// single-column lookups, Assert and DbFind found (and those that found none),
// so that a cache pass that looks up the same few rows many times asks the
// database once. Every write
// made through the Cache (a post or delete of any cursor, a Query that
// writes) and the start and end of each request drop what became stale;
// ClearCache drops it on demand. Outside a request nothing is remembered.
class CustomTable {
 public:
  CustomTable(Cache& cache, std::string table);
  virtual ~CustomTable();
  CustomTable(const CustomTable&) = delete;
  CustomTable& operator=(const CustomTable&) = delete;

  const std::string& TableName() const { return table_; }
  // The Cache this cursor belongs to. Throws "database is closed" once the
  // Cache is gone.
  Cache& GetCache() const;

  // Starts a new row: every field at its column's default (key NULL).
  void New();
  // INSERTs a new row (the key field then holds its key) or UPDATEs the
  // changed columns of the current one. Throws pnl_err::Error naming the table
  // and the key ("new row" for an insert) with SQLite's message, also when the
  // current row was deleted meanwhile, or at the end.
  void Post();
  // Positions on the row with that key, or throws pnl_err::Error (type "db",
  // object the table, detail "no row with key K").
  void Assert(const std::string& key);
  // Positions on the first row (in key order) matching the SQL condition text
  // (e.g. "email = 5"); Next() walks the further matches. Returns false, at the
  // end, when none matches. Throws pnl_err::Error naming the table and the
  // condition for SQL that does not run.
  bool DbFind(const std::string& condition);
  // Deletes every row matching the SQL condition (e.g. "tag != -1234"); an
  // empty condition is refused. Rows of other tables referring to them go too
  // where their reference cascades. The cursor keeps its fields; a Post of a
  // row deleted here fails. Throws as DbFind.
  void DbDelete(const std::string& condition);
  // Deletes the current stored row and goes to the end. Throws at the end or
  // on a new row.
  void Delete();
  // Positions on the first row matching every (field, value) pair, values as
  // text as for Field::Lookup. Returns false, at the end, when none matches.
  // Its result is never remembered (see below).
  struct Match {
    const Field& field;
    std::string value;
  };
  bool Lookup(std::initializer_list<Match> matches);

  // Walking in key order: First() goes to the first row of the table, Next()
  // to the following one (after DbFind or a lookup, to the following match);
  // at the last, to the end. Next() at the end does nothing.
  void First();
  void Next();
  bool Eof() const { return state_ == kEnd; }
  // True on a new row not yet posted.
  bool IsNew() const { return state_ == kNew; }
  // Goes to the end: no current row, no walk, fields NULL.
  void Reset();

  // Drops the rows this cursor keeps in memory (see above). With
  // every_cursor, also those of every other cursor of the same SQL table that
  // the Cache has handed out or pooled. The current row and the fields are
  // left as they are.
  void ClearCache(bool every_cursor);
  // Number of lookups this cursor remembers now (for tests and diagnostics).
  size_t CachedRows() const { return memo_.size(); }

 private:
  friend class Field;
  friend class Cache;
  enum State { kEnd, kRow, kNew };
  // The walk a positioning started: Next() goes to the next row by key that
  // matches where with params bound (none: the whole table).
  struct Filter {
    std::string where;
    std::vector<Value> params;
  };
  struct Memo {
    bool found = false;
    std::vector<Value> row;
  };
  // One of the cursor's own statements: prepared on first use, reset after
  // each, finalized with the cursor. where is the condition of a positioning
  // statement (kept for Next).
  struct Prepared {
    std::string sql;
    std::string where;
    sqlite3_stmt* stmt = nullptr;
  };

  void Register(Field* field);
  // Post's two paths: Insert writes the new row and reads its key back,
  // Update writes the changed columns of the current row. Both make their
  // SQL through the one column builder in table.cc.
  void Insert();
  void Update();
  void Prepare();
  bool PositionBy(Prepared& sql, Filter&& filter, bool remember);
  bool Fetch(Prepared& sql, const std::vector<Value>& params);
  Prepared& WhereSql(const std::string& where);
  Prepared& FieldSql(size_t index);
  void ClearFields();
  bool MemoValid();
  void Finalize() noexcept;
  [[noreturn]] void Fail(const std::string& detail) const;
  std::string KeyText() const;
  Cache& Live() const;

  Cache* cache_;  // nullptr once the Cache is gone
  std::string table_;
  std::vector<Field*> fields_;
  KeyField* key_ = nullptr;
  TableInfo* info_ = nullptr;  // set by Prepare
  std::vector<const ColumnInfo*> columns_;  // of each field
  // The cursor's statements: lookups by one field, by several (keyed by their
  // field numbers), by a condition text, the walk's next row by condition,
  // inserts and updates by the set of columns they write, delete by key.
  std::string select_;  // SELECT <columns> FROM <table>
  std::vector<Prepared> field_sql_;
  std::unordered_map<std::string, Prepared> fields_sql_;
  std::unordered_map<std::string, Prepared> where_sql_;
  std::unordered_map<std::string, Prepared> next_sql_;
  std::unordered_map<uint64_t, Prepared> insert_sql_;
  std::unordered_map<uint64_t, Prepared> update_sql_;
  Prepared delete_sql_;
  State state_ = kEnd;
  Filter filter_;
  std::unordered_map<std::string, Memo> memo_;
  uint64_t memo_table_epoch_ = 0;
  uint64_t memo_global_epoch_ = 0;
};

}  // namespace pnl_db
