// pnl_db: the panel's database layer on one SQLite file.
//
// A Cache owns one connection to the database file (WAL journal, foreign keys
// on, a 30 s busy timeout so that several processes share the file), the
// statements of its queries (each SQL text is prepared once and reused) and
// a pool of table cursors, which keep their own prepared statements. Table cursors derive from CustomTable and declare
// their columns as typed field members; Get<T>() hands one out in a
// shared_ptr whose deleter gives it back to the pool (Put).
//
// Requests: BeginRequest opens one write transaction (BEGIN IMMEDIATE), so the
// requests of several processes are serialised by SQLite's write lock; the
// busy timeout makes a second writer wait rather than fail. EndRequest
// commits, also after an operation of the request failed: what was posted
// before the failure stays. Rollback is only for a request the host abandons.
// Outside a request every statement is its own transaction.
//
// Threads: one request at a time per Cache. BeginRequest from a second thread
// waits until the request open on the first ends; the Cache and its cursors
// are used by the thread that holds the request (or by one thread at a time
// when no request is open). Get and the pool's Put are thread-safe.
//
// Errors: every failure throws pnl_err::Error of type "db" whose object names
// the table (or the file, or the SQL text of a Query) and whose detail names
// the key or condition and carries SQLite's message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace pnl_db {

class Cache;
class CustomTable;
struct ColumnInfo;
struct TableInfo;

// One step of a schema: the SQL script that brings a database from
// version - 1 to version. Steps are listed in increasing version order,
// starting at 1; a database records the version it is at (PRAGMA user_version).
struct Migration {
  int version;
  std::string sql;
};
using Schema = std::vector<Migration>;

// Installs the schema that Cache::Open(file) applies (the panel's own tables
// register theirs when the library loads). Replaces an earlier registration.
void RegisterSchema(const Schema& schema);
// The registered schema (empty when none was registered).
Schema RegisteredSchema();

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

// Base of the hooks a layer above attaches to the open request (see
// Cache::AddRequestHook). Destroyed when the request ends or is rolled back.
class RequestHook {
 public:
  virtual ~RequestHook() = default;
  // Runs in the request's transaction just before EndRequest commits, in the
  // order the hooks were added. An exception is passed on by EndRequest after
  // the commit.
  virtual void BeforeCommit(Cache& cache) = 0;
};

class Cache {
 public:
  // Opens (creating it if needed) the database file and brings it to the
  // registered schema (RegisterSchema): the file is created with the whole
  // schema on first open, an older file is migrated in place, one step after
  // the other in one transaction. Throws pnl_err::Error (type "db", object the
  // file) when the file cannot be opened, a step fails (nothing of the
  // migration stays), or the file is at a newer version than the schema knows.
  // A new file gets mode 0600, and SQLite gives its -wal and -shm files the
  // same; an existing one of the caller's that every user may read is closed
  // to them (chmod o-rwx, its -wal and -shm files too), with a warning in the
  // log.
  static std::unique_ptr<Cache> Open(const std::string& file);
  static std::unique_ptr<Cache> Open(const std::string& file, const Schema& schema);

  // Rolls back an open request, deletes the pooled cursors and detaches the
  // ones still handed out (using one afterwards throws "database is closed";
  // releasing it deletes it).
  ~Cache();
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  const std::string& File() const { return file_; }
  // The schema version the file is at (PRAGMA user_version).
  int SchemaVersion();

  // A cursor on table T (a CustomTable with a constructor T(Cache&)): a pooled
  // one if there is one, else a new one. It stands at the end (no current row).
  // Releasing the last shared_ptr gives it back with Put. Thread-safe.
  template <class T>
  std::shared_ptr<T> Get() {
    static_assert(std::is_base_of_v<CustomTable, T>, "tables derive from pnl_db::CustomTable");
    CustomTable* table = Take(typeid(T), &Make<T>);
    return std::shared_ptr<T>(static_cast<T*>(table), Returner{pool_});
  }
  // Gives a cursor back to the pool (its position is forgotten). Called by the
  // deleter of Get's pointers; the cursor must come from this Cache's Get.
  void Put(CustomTable* table) noexcept;

  // Runs sql (one statement) with params bound to its "?" placeholders, in
  // order, and returns its result positioned on the first row. A statement
  // that writes runs to completion here. The statement is prepared once per
  // SQL text and reused. Throws pnl_err::Error (type "db", object the SQL text,
  // detail SQLite's message).
  pnl_db::Query Query(const std::string& sql);
  pnl_db::Query Query(const std::string& sql, const std::vector<Param>& params);

  // text as an SQL string literal with its quotes: O'Brien -> 'O''Brien'.
  // Throws pnl_err::Error (type "db") for text holding a NUL byte, which a
  // literal cannot carry.
  static std::string EscapeValue(const std::string& text);

  // Opens the request's write transaction (BEGIN IMMEDIATE, waiting up to the
  // busy timeout for another process's request). Throws pnl_err::Error if the
  // calling thread already has a request open or the lock cannot be had.
  void BeginRequest();
  // Runs the request hooks, then commits. Does nothing when no request is
  // open. Throws pnl_err::Error when the commit fails (the request is then
  // rolled back) or a hook failed (after the commit).
  void EndRequest();
  // Abandons the open request: everything written in it is undone, its hooks
  // are dropped. Does nothing when no request is open. Never throws.
  void Rollback() noexcept;
  bool InRequest() const { return in_request_; }

  // Request hooks: state a layer above keeps for the open request and writes
  // when it ends. AddRequestHook throws pnl_err::Error when no request is open
  // or a hook of that name exists; FindRequestHook returns nullptr when none.
  // The returned reference is valid until the request ends.
  RequestHook& AddRequestHook(const std::string& name, std::unique_ptr<RequestHook> hook);
  RequestHook* FindRequestHook(const std::string& name);

  // Drops the rows that every cursor of table (SQL name) keeps in memory:
  // the handed-out ones and the pooled ones.
  void ClearTableCaches(const std::string& table);

  // Statements prepared on this connection so far (each SQL text is prepared
  // once while it stays among the most recently used): for tests and
  // diagnostics.
  uint64_t PrepareCount() const;
  // Number of SQL texts whose prepared statements Query and the deletes keep
  // now: at most 512, the least recently used are finalized first.
  size_t KeptStatements() const;

  // For the layer's own use.
  struct Impl;
  Impl& impl() { return *impl_; }

 private:
  struct Pool;
  struct Returner {
    std::weak_ptr<Pool> pool;
    void operator()(CustomTable* table) const noexcept;
  };
  using Factory = CustomTable* (*)(Cache&);
  template <class T>
  static CustomTable* Make(Cache& cache) {
    return new T(cache);
  }

  explicit Cache(std::string file);
  CustomTable* Take(std::type_index type, Factory make);

  std::string file_;
  std::unique_ptr<Impl> impl_;
  std::shared_ptr<Pool> pool_;
  bool in_request_ = false;
};

// RAII request: BeginRequest on construction; the destructor ends a request
// still open (committing it, as EndRequest) and logs instead of throwing.
class Request {
 public:
  explicit Request(Cache& cache);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // Commits now (EndRequest); throws as EndRequest.
  void End();
  // Rolls the request back (the host abandons it).
  void Abandon() noexcept;

 private:
  Cache& cache_;
  bool open_ = true;
};

// A stored value of one column: NULL, an integer or a text.
struct Value {
  enum Kind : uint8_t { kNull, kInt, kText };
  Kind kind = kNull;
  int64_t integer = 0;
  std::string text;

  bool operator==(const Value& other) const;
};

// A column of a table cursor, declared as a member of the table class:
//   pnl_db::StringField name{this, "name"};
// A field holds the value of its column in the cursor's current row (or the
// new row being built). Not copyable; assigning one field from another of the
// same kind copies the value. References to a field's text are valid until
// the cursor moves.
class Field {
 public:
  Field(CustomTable* table, const char* column);
  virtual ~Field() = default;
  Field(const Field&) = delete;

  const std::string& Column() const { return column_; }
  CustomTable& Table() const { return *table_; }

  // The value as text: an integer in decimal, a boolean "1" or "0", a text as
  // it is, NULL as "".
  std::string Str() const;
  operator std::string() const { return Str(); }
  // The value as an SQL literal: 5, 'O''Brien', NULL.
  std::string AsString() const;
  bool IsNull() const { return value_.kind == Value::kNull; }

  // Assigns the value given as text, parsed as Str() writes it (an empty text
  // is NULL for key, reference and integer columns). Throws pnl_err::Error
  // (type "db", object "table.column") for text the column cannot hold.
  void SetText(const std::string& text);

  // Positions the table on the first row (in key order) whose column equals
  // value, given as text as for SetText; Next() then walks the further rows
  // with that value. Returns false, the table at the end, when there is none
  // (also for text the column cannot hold). Throws on an SQL error.
  bool Lookup(const std::string& value);

  const Value& Raw() const { return value_; }

 protected:
  // Parses text into the column's value; false when it cannot hold it.
  virtual bool Parse(const std::string& text, Value& out) const = 0;
  // The declared SQL type this field expects ("INTEGER" or "TEXT").
  virtual const char* SqlType() const = 0;
  void Assign(Value value);
  void AssignFrom(const Field& other) { Assign(other.value_); }
  [[noreturn]] void Refuse(const std::string& text, const std::string& why) const;

 private:
  friend class CustomTable;
  CustomTable* table_;
  std::string column_;
  Value value_;
  bool dirty_ = false;
  size_t index_ = 0;
};

// The table's key, column INTEGER PRIMARY KEY. Set by the database when a new
// row is posted; SetText may give a new row an explicit key, a stored row's
// key never changes.
class KeyField : public Field {
 public:
  using Field::Field;
  // The key, 0 when there is none (a new row not yet posted).
  int64_t Value() const { return Raw().integer; }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

// A reference to another table's key (INTEGER, may be NULL). A reference of 0
// means none and is stored as NULL.
class RefField : public Field {
 public:
  using Field::Field;
  RefField& operator=(const RefField& other);
  RefField& operator=(const KeyField& key);
  RefField& operator=(int64_t key);
  RefField& operator=(const std::string& text);
  // The referenced key, 0 for NULL.
  int64_t Value() const { return Raw().integer; }
  void SetNull();

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

class IntField : public Field {
 public:
  using Field::Field;
  IntField& operator=(const IntField& other);
  IntField& operator=(int64_t value);
  IntField& operator=(const std::string& text);
  int64_t Value() const { return Raw().integer; }
  operator int64_t() const { return Raw().integer; }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

// A boolean stored as INTEGER 0 or 1. Text forms: "1"/"0", "true"/"false".
// Assignment from text goes through SetText only: a string literal would
// otherwise silently convert to true.
class BoolField : public Field {
 public:
  using Field::Field;
  BoolField& operator=(const BoolField& other);
  BoolField& operator=(bool value);
  BoolField& operator=(const char*) = delete;
  BoolField& operator=(const std::string&) = delete;
  bool Value() const { return Raw().integer != 0; }
  explicit operator bool() const { return Value(); }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

class StringField : public Field {
 public:
  using Field::Field;
  StringField& operator=(const StringField& other);
  StringField& operator=(const std::string& text);
  StringField& operator=(const char* text) { return *this = std::string(text); }
  const std::string& Value() const { return Raw().text; }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "TEXT"; }
};

// A domain name. Assigning a Unicode name stores its ASCII (A-label) form;
// Str() gives the stored ASCII form, Unicode() the display form. Lookup takes
// either form. Assigning a name that cannot be converted throws
// pnl_err::Error (type "db", object "table.column").
class IdnField : public Field {
 public:
  using Field::Field;
  IdnField& operator=(const IdnField& other);
  IdnField& operator=(const std::string& name);
  IdnField& operator=(const char* name) { return *this = std::string(name); }
  const std::string& Value() const { return Raw().text; }
  std::string Unicode() const;

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "TEXT"; }
};

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
