// Tables of the pnl_db tests: a small schema of owners and their items, with
// a column of every field kind, and a fixture that opens it in a sandbox.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "sandbox.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/field.h"
#include "zelapi/db/schema.h"
#include "zelapi/db/table.h"
#include "zelapi/err.h"

namespace dbtest {

inline const pnl_db::Schema& TestSchema() {
  static const pnl_db::Schema schema = {
      {1, R"sql(
CREATE TABLE owner (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE
) STRICT;
CREATE TABLE item (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL DEFAULT '',
  owner INTEGER REFERENCES owner(id) ON DELETE CASCADE,
  count INTEGER NOT NULL DEFAULT 3,
  flag INTEGER NOT NULL DEFAULT 1,
  label TEXT NOT NULL DEFAULT 'it''s',
  host TEXT NOT NULL DEFAULT '' COLLATE NOCASE,
  created INTEGER NOT NULL DEFAULT (40 + 2)
) STRICT;
)sql"},
      {2, R"sql(
ALTER TABLE owner ADD COLUMN note TEXT NOT NULL DEFAULT '';
CREATE TABLE mark (
  id INTEGER PRIMARY KEY,
  item INTEGER NOT NULL REFERENCES item(id) ON DELETE CASCADE,
  word TEXT NOT NULL
) STRICT;
)sql"},
  };
  return schema;
}

class OwnerTable : public pnl_db::CustomTable {
 public:
  explicit OwnerTable(pnl_db::Cache& cache) : CustomTable(cache, "owner") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField name{this, "name"};
};

class ItemTable : public pnl_db::CustomTable {
 public:
  explicit ItemTable(pnl_db::Cache& cache) : CustomTable(cache, "item") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField name{this, "name"};
  pnl_db::RefField owner{this, "owner"};
  pnl_db::IntField count{this, "count"};
  pnl_db::BoolField flag{this, "flag"};
  pnl_db::StringField label{this, "label"};
  pnl_db::IdnField host{this, "host"};
  pnl_db::IntField created{this, "created"};  // default computed by SQLite
};

// Runs f and returns the pnl_err::Error it throws; fails the test if it
// throws nothing.
template <class F>
pnl_err::Error ErrorOf(F&& f) {
  try {
    f();
  } catch (const pnl_err::Error& e) {
    return e;
  }
  ADD_FAILURE() << "no pnl_err::Error was thrown";
  return pnl_err::Error(pnl_err::Kind::kInternal, "", "");
}

class DbTest : public ::testing::Test {
 protected:
  DbTest()
      : sandbox_(::testing::UnitTest::GetInstance()->current_test_info()->name()),
        file_(sandbox_.Path("test.db")) {}

  void SetUp() override { cache_ = pnl_db::Cache::Open(file_, TestSchema()); }

  // Reopens the database (a new connection on the same file).
  void Reopen() {
    cache_.reset();
    cache_ = pnl_db::Cache::Open(file_, TestSchema());
  }

  int64_t AddOwner(const std::string& name) {
    auto owners = cache_->Get<OwnerTable>();
    owners->New();
    owners->name = name;
    owners->Post();
    return owners->id.Value();
  }

  int64_t AddItem(const std::string& name, int64_t owner = 0, int64_t count = 3) {
    auto items = cache_->Get<ItemTable>();
    items->New();
    items->name = name;
    items->owner = owner;
    items->count = count;
    items->Post();
    return items->id.Value();
  }

  int64_t Count(const std::string& table) {
    return cache_->Query("SELECT count(*) FROM " + table).Int();
  }

  zeltest::Sandbox sandbox_;
  std::string file_;
  std::unique_ptr<pnl_db::Cache> cache_;
};

}  // namespace dbtest
