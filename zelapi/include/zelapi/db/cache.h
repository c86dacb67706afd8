// pnl_db cache: the connection to the panel's SQLite file and its requests.
//
// A Cache owns one connection to the database file (WAL journal, foreign keys
// on, a 30 s busy timeout so that several processes share the file), the
// statements of its queries (each SQL text is prepared once and reused) and
// a pool of table cursors, which keep their own prepared statements. Table
// cursors derive from CustomTable (table.h) and declare their columns as
// typed field members; Get<T>() hands one out in a shared_ptr whose deleter
// gives it back to the pool (Put). Cursors are pooled per type, so a second
// Get of a type costs a lock and a pop, not new statements.
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
//
// Cache::Query returns a Query by value and Open takes a Schema, so query.h
// and schema.h come with this header; table.h is needed only by the code that
// declares or walks a table cursor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

#include "zelapi/db/query.h"
#include "zelapi/db/schema.h"

namespace pnl_db {

class CustomTable;

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

}  // namespace pnl_db
