// pnl_db::Cache: opening and migrating the file, Query, EscapeValue and the
// pool of cursors.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "test_tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/db/schema.h"
#include "zelapi/err.h"

using dbtest::DbTest;
using dbtest::ErrorOf;
using dbtest::ItemTable;
using dbtest::OwnerTable;

TEST_F(DbTest, OpenCreatesTheSchemaAndRecordsItsVersion) {
  EXPECT_EQ(cache_->SchemaVersion(), 2);
  EXPECT_EQ(Count("owner"), 0);
  EXPECT_EQ(Count("item"), 0);
  EXPECT_EQ(Count("mark"), 0);
  EXPECT_EQ(cache_->Query("PRAGMA journal_mode").Str(), "wal");
  EXPECT_EQ(cache_->Query("PRAGMA foreign_keys").Int(), 1);
  EXPECT_EQ(cache_->Query("PRAGMA busy_timeout").Int(), 30000);
}

TEST_F(DbTest, ReopeningKeepsRowsAndRunsNoStepAgain) {
  AddOwner("ann");
  Reopen();  // a step run twice would fail on its CREATE TABLE
  EXPECT_EQ(cache_->SchemaVersion(), 2);
  EXPECT_EQ(Count("owner"), 1);
}

TEST_F(DbTest, OpenWithoutSchemaUsesTheRegisteredOne) {
  const pnl_db::Schema saved = pnl_db::RegisteredSchema();
  pnl_db::RegisterSchema({dbtest::TestSchema()[0]});
  auto other = pnl_db::Cache::Open(sandbox_.Path("registered.db"));
  pnl_db::RegisterSchema(saved);
  EXPECT_EQ(other->SchemaVersion(), 1);
  EXPECT_EQ(other->Query("SELECT count(*) FROM item").Int(), 0);
}

TEST_F(DbTest, OlderFileIsMigratedInPlace) {
  const std::string file = sandbox_.Path("old.db");
  {
    auto v1 = pnl_db::Cache::Open(file, {dbtest::TestSchema()[0]});
    EXPECT_EQ(v1->SchemaVersion(), 1);
    v1->Query("INSERT INTO owner (name) VALUES ('kept')");
  }
  auto v2 = pnl_db::Cache::Open(file, dbtest::TestSchema());
  EXPECT_EQ(v2->SchemaVersion(), 2);
  EXPECT_EQ(v2->Query("SELECT name || '/' || note FROM owner").Str(), "kept/");
  EXPECT_EQ(v2->Query("SELECT count(*) FROM mark").Int(), 0);
}

TEST_F(DbTest, StepLeavingBrokenReferencesIsRolledBack) {
  const std::string file = sandbox_.Path("dangling.db");
  { pnl_db::Cache::Open(file, {dbtest::TestSchema()[0]}); }
  pnl_db::Schema dangling = {dbtest::TestSchema()[0],
                             {2, "INSERT INTO item (name, owner) VALUES ('orphan', 99)"}};
  pnl_err::Error e = ErrorOf([&] { pnl_db::Cache::Open(file, dangling); });
  EXPECT_EQ(e.detail(), "migrate: rows of table item refer to missing rows of owner");
  auto v1 = pnl_db::Cache::Open(file, {dbtest::TestSchema()[0]});
  EXPECT_EQ(v1->SchemaVersion(), 1);
  EXPECT_EQ(v1->Query("SELECT count(*) FROM item").Int(), 0);
}

TEST_F(DbTest, FileOfANewerVersionIsRefused) {
  cache_.reset();
  pnl_err::Error e = ErrorOf([&] { pnl_db::Cache::Open(file_, {dbtest::TestSchema()[0]}); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_EQ(e.object(), file_);
  EXPECT_EQ(e.detail(), "schema version 2 is newer than this program's 1");
}

TEST_F(DbTest, FailingStepLeavesTheFileAtItsOldVersion) {
  const std::string file = sandbox_.Path("broken.db");
  { pnl_db::Cache::Open(file, {dbtest::TestSchema()[0]}); }
  pnl_db::Schema broken = {dbtest::TestSchema()[0],
                           {2, "CREATE TABLE half (id INTEGER PRIMARY KEY); CREATE TABLE oops ("}};
  pnl_err::Error e = ErrorOf([&] { pnl_db::Cache::Open(file, broken); });
  EXPECT_EQ(e.object(), file);
  EXPECT_NE(e.detail().find("schema step 2: "), std::string::npos) << e.what();

  auto v1 = pnl_db::Cache::Open(file, {dbtest::TestSchema()[0]});
  EXPECT_EQ(v1->SchemaVersion(), 1);
  EXPECT_EQ(v1->Query("SELECT count(*) FROM sqlite_master WHERE name = 'half'").Int(), 0);
}

TEST_F(DbTest, MisnumberedStepsAreRefused) {
  pnl_err::Error e = ErrorOf([&] {
    pnl_db::Cache::Open(sandbox_.Path("x.db"), {{1, "CREATE TABLE a (id INTEGER PRIMARY KEY)"},
                                                 {3, "CREATE TABLE b (id INTEGER PRIMARY KEY)"}});
  });
  EXPECT_NE(std::string(e.what()).find("step 2 says 3"), std::string::npos) << e.what();
}

TEST_F(DbTest, FileThatCannotBeOpenedIsNamed) {
  const std::string file = sandbox_.Path("no/such/folder/x.db");
  pnl_err::Error e = ErrorOf([&] { pnl_db::Cache::Open(file, dbtest::TestSchema()); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_EQ(e.object(), file);
  EXPECT_EQ(e.detail().rfind("open: ", 0), 0u) << e.what();
}

TEST(EscapeValueTest, QuotesAreDoubledInsideTheLiteral) {
  EXPECT_EQ(pnl_db::Cache::EscapeValue("O'Brien"), "'O''Brien'");
  EXPECT_EQ(pnl_db::Cache::EscapeValue(""), "''");
  EXPECT_EQ(pnl_db::Cache::EscapeValue("''"), "''''''");
  EXPECT_EQ(pnl_db::Cache::EscapeValue("a\"b"), "'a\"b'");
}

TEST(EscapeValueTest, NulByteIsRefused) {
  pnl_err::Error e = ErrorOf([] { pnl_db::Cache::EscapeValue(std::string("a\0b", 3)); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
}

TEST_F(DbTest, EscapedValuesComeBackUnchanged) {
  for (const std::string text : {"O'Brien", "'; DROP TABLE owner; --", "''", "b\xc3\xbc" "cher",
                                 "tab\there", "line\nend"}) {
    EXPECT_EQ(cache_->Query("SELECT " + cache_->EscapeValue(text)).Str(), text);
  }
  const std::string nasty = "x'); DELETE FROM owner; --";
  AddOwner("ann");
  cache_->Query("INSERT INTO owner (name) VALUES (" + cache_->EscapeValue(nasty) + ")");
  EXPECT_EQ(Count("owner"), 2);
  EXPECT_EQ(cache_->Query("SELECT id FROM owner WHERE name = " + cache_->EscapeValue(nasty)).Int(),
            2);
}

TEST_F(DbTest, QueryWalksRowsAndColumns) {
  AddOwner("ann");
  AddOwner("bob");
  pnl_db::Query q = cache_->Query("SELECT id, name, NULL FROM owner ORDER BY id");
  EXPECT_EQ(q.Columns(), 3);
  ASSERT_FALSE(q.Eof());
  EXPECT_EQ(q.Str(), "1");
  EXPECT_EQ(q.Str(1), "ann");
  EXPECT_TRUE(q.IsNull(2));
  EXPECT_EQ(q.Str(2), "");
  q.Next();
  ASSERT_FALSE(q.Eof());
  EXPECT_EQ(q.Int(), 2);
  EXPECT_EQ(q.Str(1), "bob");
  q.Next();
  EXPECT_TRUE(q.Eof());
  q.Next();
  EXPECT_TRUE(q.Eof());
  EXPECT_EQ(ErrorOf([&] { q.Str(); }).detail(), "no current row");
}

TEST_F(DbTest, QueryOfNoRowIsAtItsEnd) {
  EXPECT_TRUE(cache_->Query("SELECT name FROM owner").Eof());
}

TEST_F(DbTest, QueryColumnOutOfRangeIsAnError) {
  AddOwner("ann");
  pnl_db::Query q = cache_->Query("SELECT name FROM owner");
  pnl_err::Error e = ErrorOf([&] { q.Str(1); });
  EXPECT_EQ(e.object(), "SELECT name FROM owner");
  EXPECT_EQ(e.detail(), "no column 1 (the result has 1)");
}

TEST_F(DbTest, QueryBindsParametersAsValues) {
  cache_->Query("INSERT INTO owner (name) VALUES (?)", {"O'Brien"});
  cache_->Query("INSERT INTO item (name, owner, count) VALUES (?, ?, ?)", {"it", nullptr, 4});
  EXPECT_EQ(cache_->Query("SELECT id FROM owner WHERE name = ?", {"O'Brien"}).Int(), 1);
  EXPECT_EQ(cache_->Query("SELECT name FROM owner").Str(), "O'Brien");
  pnl_db::Query item = cache_->Query("SELECT owner, count FROM item WHERE name = ?", {"it"});
  EXPECT_TRUE(item.IsNull(0));
  EXPECT_EQ(item.Int(1), 4);
}

TEST_F(DbTest, QueryErrorNamesTheSqlAndSqlitesMessage) {
  pnl_err::Error e = ErrorOf([&] { cache_->Query("SELECT nope FROM owner"); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_EQ(e.object(), "SELECT nope FROM owner");
  EXPECT_EQ(e.detail(), "no such column: nope");
  AddOwner("ann");
  e = ErrorOf([&] { cache_->Query("INSERT INTO owner (name) VALUES ('ann')"); });
  EXPECT_EQ(e.detail(), "UNIQUE constraint failed: owner.name");
}

TEST_F(DbTest, QueryRefusesMoreThanOneStatement) {
  pnl_err::Error e =
      ErrorOf([&] { cache_->Query("DELETE FROM owner; DELETE FROM item"); });
  EXPECT_EQ(e.detail(), "more than one SQL statement");
}

TEST_F(DbTest, AStatementIsPreparedOnceAndReused) {
  AddOwner("ann");
  cache_->Query("SELECT name FROM owner WHERE id = ?", {1});
  const uint64_t before = cache_->PrepareCount();
  for (int i = 0; i < 50; ++i)
    EXPECT_EQ(cache_->Query("SELECT name FROM owner WHERE id = ?", {1}).Str(), "ann");
  EXPECT_EQ(cache_->PrepareCount(), before);
}

TEST_F(DbTest, OnlyTheMostRecentlyUsedStatementsAreKept) {
  for (int i = 0; i < 600; ++i) cache_->Query("SELECT " + std::to_string(i));
  EXPECT_EQ(cache_->KeptStatements(), 512u);
  const uint64_t before = cache_->PrepareCount();
  EXPECT_EQ(cache_->Query("SELECT 599").Int(), 599);  // kept
  EXPECT_EQ(cache_->PrepareCount(), before);
  EXPECT_EQ(cache_->Query("SELECT 0").Int(), 0);  // dropped, prepared again
  EXPECT_EQ(cache_->PrepareCount(), before + 1);
}

TEST_F(DbTest, TwoOpenResultsOfOneSqlTextDoNotDisturbEachOther) {
  AddOwner("ann");
  AddOwner("bob");
  pnl_db::Query outer = cache_->Query("SELECT name FROM owner ORDER BY id");
  pnl_db::Query inner = cache_->Query("SELECT name FROM owner ORDER BY id");
  inner.Next();
  EXPECT_EQ(outer.Str(), "ann");
  EXPECT_EQ(inner.Str(), "bob");
}

TEST_F(DbTest, GetHandsBackAPooledCursorPositionForgotten) {
  auto first = cache_->Get<OwnerTable>();
  AddOwner("ann");  // takes a second cursor, since the first is held
  first->First();
  ASSERT_FALSE(first->Eof());
  OwnerTable* raw = first.get();
  first.reset();
  auto again = cache_->Get<OwnerTable>();
  EXPECT_EQ(again.get(), raw);
  EXPECT_TRUE(again->Eof());
  EXPECT_TRUE(again->name.IsNull());
  auto other = cache_->Get<OwnerTable>();
  EXPECT_NE(other.get(), again.get());
}

TEST_F(DbTest, CursorsAreTakenAndGivenBackFromSeveralThreads) {
  AddOwner("ann");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this] {
      for (int i = 0; i < 2000; ++i) {
        auto owners = cache_->Get<OwnerTable>();
        auto items = cache_->Get<ItemTable>();
        EXPECT_TRUE(owners->Eof());
      }
    });
  for (std::thread& t : threads) t.join();
  auto owners = cache_->Get<OwnerTable>();
  owners->First();
  EXPECT_EQ(owners->name.Str(), "ann");
}

TEST_F(DbTest, CursorHeldPastItsCacheIsDetached) {
  AddOwner("ann");
  auto owners = cache_->Get<OwnerTable>();
  owners->First();  // the cursor now holds prepared statements of the connection
  ASSERT_TRUE(owners->name.Lookup("ann"));
  cache_.reset();
  EXPECT_EQ(owners->name.Str(), "ann");  // the fields stay readable
  pnl_err::Error e = ErrorOf([&] { owners->First(); });
  EXPECT_EQ(e.object(), "owner");
  EXPECT_EQ(e.detail(), "database is closed");
  owners.reset();  // deleted, not pooled (the sanitizer build checks)
}
