// pnl_db::CustomTable: new rows, posts, positioning, walking, deletes, their
// errors, and the rows a cursor remembers within a request.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/field.h"
#include "zelapi/db/query.h"
#include "zelapi/db/table.h"
#include "zelapi/err.h"

using dbtest::DbTest;
using dbtest::ErrorOf;
using dbtest::ItemTable;
using dbtest::OwnerTable;

namespace {

std::vector<std::string> Names(ItemTable& items) {
  std::vector<std::string> names;
  for (; !items.Eof(); items.Next()) names.push_back(items.name.Str());
  return names;
}

class MissingColumnTable : public pnl_db::CustomTable {
 public:
  explicit MissingColumnTable(pnl_db::Cache& cache) : CustomTable(cache, "owner") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField nickname{this, "nickname"};
};

class WrongTypeTable : public pnl_db::CustomTable {
 public:
  explicit WrongTypeTable(pnl_db::Cache& cache) : CustomTable(cache, "owner") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::IntField name{this, "name"};
};

class KeylessTable : public pnl_db::CustomTable {
 public:
  explicit KeylessTable(pnl_db::Cache& cache) : CustomTable(cache, "owner") {}
  pnl_db::StringField name{this, "name"};
};

class NoSuchTable : public pnl_db::CustomTable {
 public:
  explicit NoSuchTable(pnl_db::Cache& cache) : CustomTable(cache, "nowhere") {}
  pnl_db::KeyField id{this, "id"};
};

}  // namespace

TEST_F(DbTest, NewRowStartsAtTheColumnDefaults) {
  auto items = cache_->Get<ItemTable>();
  EXPECT_TRUE(items->Eof());
  items->New();
  EXPECT_FALSE(items->Eof());
  EXPECT_TRUE(items->IsNew());
  EXPECT_TRUE(items->id.IsNull());
  EXPECT_EQ(items->id.Value(), 0);
  EXPECT_EQ(items->name.Str(), "");
  EXPECT_TRUE(items->owner.IsNull());
  EXPECT_EQ(items->count.Value(), 3);
  EXPECT_TRUE(items->flag.Value());
  EXPECT_EQ(items->label.Str(), "it's");
  EXPECT_EQ(items->host.Str(), "");
}

TEST_F(DbTest, PostInsertsTheNewRowAndSetsItsKey) {
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->name = "first";
  items->Post();
  EXPECT_FALSE(items->IsNew());
  EXPECT_EQ(items->id.Value(), 1);
  EXPECT_EQ(items->created.Value(), 42);  // computed default, read back after the insert
  items->New();
  items->name = "second";
  items->count = 7;
  items->flag = false;
  items->Post();
  EXPECT_EQ(items->id.Str(), "2");

  auto check = cache_->Get<ItemTable>();
  check->Assert("2");
  EXPECT_EQ(check->name.Str(), "second");
  EXPECT_EQ(check->count.Value(), 7);
  EXPECT_FALSE(check->flag.Value());
  EXPECT_EQ(check->label.Str(), "it's");
  EXPECT_EQ(check->created.Value(), 42);
}

TEST_F(DbTest, PostUpdatesOnlyTheColumnsThisCursorChanged) {
  const int64_t key = AddItem("thing");
  auto a = cache_->Get<ItemTable>();
  auto b = cache_->Get<ItemTable>();
  a->Assert(std::to_string(key));
  b->Assert(std::to_string(key));
  a->name = "renamed";
  b->count = 9;
  a->Post();
  b->Post();
  auto check = cache_->Get<ItemTable>();
  check->Assert(std::to_string(key));
  EXPECT_EQ(check->name.Str(), "renamed");
  EXPECT_EQ(check->count.Value(), 9);
}

TEST_F(DbTest, PostAfterAnInsertUpdatesTheSameRow) {
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->name = "draft";
  items->Post();
  const int64_t key = items->id.Value();
  items->name = "final";
  items->Post();
  EXPECT_EQ(items->id.Value(), key);
  EXPECT_EQ(cache_->Query("SELECT count(*) FROM item").Int(), 1);
  EXPECT_EQ(cache_->Query("SELECT name FROM item WHERE id = ?", {key}).Str(), "final");
}

TEST_F(DbTest, PostOfAnUnchangedRowWritesNothing) {
  const int64_t key = AddItem("thing");
  auto items = cache_->Get<ItemTable>();
  items->Assert(std::to_string(key));
  auto other = cache_->Get<ItemTable>();
  other->Assert(std::to_string(key));
  other->Delete();
  // No statement runs, so the row being gone is not noticed either.
  const uint64_t before = cache_->PrepareCount();
  items->Post();
  EXPECT_EQ(cache_->PrepareCount(), before);
  EXPECT_FALSE(items->Eof());
  EXPECT_EQ(items->name.Str(), "thing");
}

TEST_F(DbTest, PostOfARowDeletedMeanwhileFailsNamingTheKey) {
  const int64_t key = AddItem("gone");
  auto items = cache_->Get<ItemTable>();
  items->Assert(std::to_string(key));
  cache_->Get<ItemTable>()->DbDelete("id = " + std::to_string(key));
  items->count = 1;
  pnl_err::Error e = ErrorOf([&] { items->Post(); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_STREQ(e.what(), "item: key 1: no such row (deleted meanwhile)");
}

TEST_F(DbTest, PostWithoutARowFails) {
  auto items = cache_->Get<ItemTable>();
  EXPECT_STREQ(ErrorOf([&] { items->Post(); }).what(),
               "item: post: no current row (New() or a lookup first)");
}

TEST_F(DbTest, PostViolatingAConstraintNamesTableAndSqlitesMessage) {
  AddOwner("ann");
  auto owners = cache_->Get<OwnerTable>();
  owners->New();
  owners->name = "ann";
  EXPECT_STREQ(ErrorOf([&] { owners->Post(); }).what(),
               "owner: new row: UNIQUE constraint failed: owner.name");
  AddOwner("bob");
  owners->Assert("2");
  owners->name = "ann";
  EXPECT_STREQ(ErrorOf([&] { owners->Post(); }).what(),
               "owner: key 2: UNIQUE constraint failed: owner.name");
}

TEST_F(DbTest, AssertOfAMissingKeyNamesTableAndKey) {
  AddItem("x");
  auto items = cache_->Get<ItemTable>();
  pnl_err::Error e = ErrorOf([&] { items->Assert("42"); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_EQ(e.object(), "item");
  EXPECT_STREQ(e.what(), "item: no row with key 42");
  EXPECT_STREQ(ErrorOf([&] { items->Assert("x1"); }).what(), "item: no row with key \"x1\"");
  EXPECT_STREQ(ErrorOf([&] { items->Assert(""); }).what(), "item: no row with key \"\"");
  items->Assert("1");
  EXPECT_EQ(items->name.Str(), "x");
}

TEST_F(DbTest, DbFindPositionsOnTheFirstMatchAndNextWalksTheMatches) {
  AddItem("a", 0, 5);
  AddItem("b", 0, 1);
  AddItem("c", 0, 5);
  AddItem("d", 0, 5);
  auto items = cache_->Get<ItemTable>();
  ASSERT_TRUE(items->DbFind("count = 5"));
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"a", "c", "d"}));
  ASSERT_TRUE(items->DbFind("name >= 'b' AND count < 5"));
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"b"}));
  EXPECT_FALSE(items->DbFind("count=99"));
  EXPECT_TRUE(items->Eof());
}

TEST_F(DbTest, DbFindWithAConditionThatDoesNotRunNamesIt) {
  auto items = cache_->Get<ItemTable>();
  pnl_err::Error e = ErrorOf([&] { items->DbFind("nope = 1"); });
  EXPECT_EQ(e.object(), "item");
  EXPECT_EQ(e.detail(), "condition \"nope = 1\": no such column: nope");
}

TEST_F(DbTest, DbDeleteRemovesTheMatchingRowsOnly) {
  AddItem("a", 0, 5);
  AddItem("b", 0, 1);
  AddItem("c", 0, 5);
  auto items = cache_->Get<ItemTable>();
  items->DbDelete("count=5");
  items->First();
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"b"}));
  AddItem("d", 0, -1234);
  AddItem("e", 0, 8);
  items->DbDelete("count != -1234");
  items->First();
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"d"}));
  items->DbDelete("name LIKE 'd%'");
  EXPECT_EQ(Count("item"), 0);
}

TEST_F(DbTest, DbDeleteOfSimpleConditionsReusesOneStatement) {
  for (int i = 0; i < 5; ++i) AddItem("x", 0, i);
  auto items = cache_->Get<ItemTable>();
  items->DbDelete("count=0");
  const uint64_t before = cache_->PrepareCount();
  for (int i = 1; i < 5; ++i) items->DbDelete("count=" + std::to_string(i));
  EXPECT_EQ(cache_->PrepareCount(), before);
  EXPECT_EQ(Count("item"), 0);
}

TEST_F(DbTest, DbDeleteCascadesToReferringRows) {
  const int64_t ann = AddOwner("ann");
  const int64_t bob = AddOwner("bob");
  AddItem("a1", ann);
  AddItem("b1", bob);
  AddItem("a2", ann);
  cache_->Get<OwnerTable>()->DbDelete("id = " + std::to_string(ann));
  auto items = cache_->Get<ItemTable>();
  items->First();
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"b1"}));
}

TEST_F(DbTest, DbDeleteRefusesAnEmptyConditionAndNamesABadOne) {
  AddItem("a");
  auto items = cache_->Get<ItemTable>();
  EXPECT_STREQ(ErrorOf([&] { items->DbDelete(" "); }).what(),
               "item: delete where \" \": refused, the condition is empty");
  pnl_err::Error e = ErrorOf([&] { items->DbDelete("tag != 5"); });
  EXPECT_EQ(e.object(), "item");
  EXPECT_EQ(e.detail(), "delete where \"tag != 5\": no such column: tag");
  EXPECT_EQ(Count("item"), 1);
}

TEST_F(DbTest, DeleteRemovesTheCurrentRow) {
  AddItem("a");
  AddItem("b");
  auto items = cache_->Get<ItemTable>();
  items->Assert("1");
  items->Delete();
  EXPECT_TRUE(items->Eof());
  EXPECT_STREQ(ErrorOf([&] { items->Delete(); }).what(), "item: delete: no current row");
  items->First();
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"b"}));
}

TEST_F(DbTest, WalkGoesInKeyOrderAndSurvivesDeletesOnTheWay) {
  for (const char* name : {"d", "b", "a", "c"}) AddItem(name);
  auto items = cache_->Get<ItemTable>();
  items->First();
  EXPECT_EQ(Names(*items), (std::vector<std::string>{"d", "b", "a", "c"}));

  std::vector<std::string> seen;
  for (items->First(); !items->Eof(); items->Next()) {
    seen.push_back(items->name.Str());
    if (items->name.Str() == "b") cache_->Get<ItemTable>()->DbDelete("name = 'a'");
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"d", "b", "c"}));
}

TEST_F(DbTest, FirstOnAnEmptyTableIsAtTheEnd) {
  auto items = cache_->Get<ItemTable>();
  items->First();
  EXPECT_TRUE(items->Eof());
  items->Next();
  EXPECT_TRUE(items->Eof());
}

TEST_F(DbTest, LookupFindsTheFirstEqualRowAndNextTheFurtherOnes) {
  AddItem("x", 0, 1);
  AddItem("y", 0, 2);
  AddItem("x", 0, 3);
  auto items = cache_->Get<ItemTable>();
  ASSERT_TRUE(items->name.Lookup("x"));
  EXPECT_EQ(items->count.Value(), 1);
  items->Next();
  ASSERT_FALSE(items->Eof());
  EXPECT_EQ(items->count.Value(), 3);
  items->Next();
  EXPECT_TRUE(items->Eof());
  EXPECT_FALSE(items->name.Lookup("z"));
  EXPECT_TRUE(items->Eof());
  EXPECT_TRUE(items->count.Lookup("2"));
  EXPECT_EQ(items->name.Str(), "y");
}

TEST_F(DbTest, LookupOfTextTheColumnCannotHoldFindsNothing) {
  AddItem("x");
  auto items = cache_->Get<ItemTable>();
  EXPECT_FALSE(items->count.Lookup("three"));
  EXPECT_TRUE(items->Eof());
  EXPECT_FALSE(items->id.Lookup(""));
  EXPECT_TRUE(items->id.Lookup("1"));
}

TEST_F(DbTest, LookupOnSeveralFieldsMatchesAllOfThem) {
  const int64_t ann = AddOwner("ann");
  const int64_t bob = AddOwner("bob");
  AddItem("box", ann, 1);
  AddItem("box", bob, 2);
  auto items = cache_->Get<ItemTable>();
  ASSERT_TRUE(items->Lookup({{items->name, "box"}, {items->owner, std::to_string(bob)}}));
  EXPECT_EQ(items->count.Value(), 2);
  EXPECT_FALSE(items->Lookup({{items->name, "box"}, {items->owner, "77"}}));
  EXPECT_TRUE(items->Eof());
}

TEST_F(DbTest, FieldsAreCheckedAgainstTheTableOnFirstUse) {
  EXPECT_STREQ(ErrorOf([&] { cache_->Get<MissingColumnTable>()->First(); }).what(),
               "owner: no column \"nickname\"");
  EXPECT_STREQ(ErrorOf([&] { cache_->Get<WrongTypeTable>()->New(); }).what(),
               "owner: column \"name\" is TEXT, the field wants INTEGER");
  EXPECT_STREQ(ErrorOf([&] { cache_->Get<KeylessTable>()->First(); }).what(),
               "owner: the table class declares no key field");
  pnl_err::Error e = ErrorOf([&] { cache_->Get<NoSuchTable>()->First(); });
  EXPECT_EQ(e.object(), "nowhere");
  EXPECT_EQ(e.detail(), "no such table in " + file_);
}

TEST_F(DbTest, NextOnANewRowGoesToTheEnd) {
  AddItem("x");
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->Next();
  EXPECT_TRUE(items->Eof());
}

TEST_F(DbTest, ResetLeavesTheCursorAtTheEnd) {
  AddItem("x");
  auto items = cache_->Get<ItemTable>();
  items->First();
  items->Reset();
  EXPECT_TRUE(items->Eof());
  EXPECT_TRUE(items->name.IsNull());
}

// Rows remembered within a request ---------------------------------------

TEST_F(DbTest, LookupsAreRememberedOnlyWithinARequest) {
  AddItem("x");
  auto items = cache_->Get<ItemTable>();
  items->name.Lookup("x");
  EXPECT_EQ(items->CachedRows(), 0u);
  pnl_db::Request request(*cache_);
  items->name.Lookup("x");
  items->name.Lookup("x");
  items->name.Lookup("nothing");
  EXPECT_EQ(items->CachedRows(), 2u);
  request.End();
  items->name.Lookup("x");
  EXPECT_EQ(items->CachedRows(), 0u);
}

TEST_F(DbTest, ARememberedMissIsForgottenWhenAnotherCursorPostsTheRow) {
  pnl_db::Request request(*cache_);
  auto items = cache_->Get<ItemTable>();
  EXPECT_FALSE(items->name.Lookup("late"));
  AddItem("late");
  EXPECT_TRUE(items->name.Lookup("late"));
}

TEST_F(DbTest, ARememberedRowIsForgottenWhenItChanges) {
  const int64_t key = AddItem("x", 0, 1);
  pnl_db::Request request(*cache_);
  auto items = cache_->Get<ItemTable>();
  ASSERT_TRUE(items->name.Lookup("x"));
  auto other = cache_->Get<ItemTable>();
  other->Assert(std::to_string(key));
  other->count = 2;
  other->Post();
  ASSERT_TRUE(items->name.Lookup("x"));
  EXPECT_EQ(items->count.Value(), 2);
}

TEST_F(DbTest, ARememberedRowIsForgottenAfterADeleteOrAQueryThatWrites) {
  const int64_t ann = AddOwner("ann");
  AddItem("x", ann);
  pnl_db::Request request(*cache_);
  auto items = cache_->Get<ItemTable>();
  ASSERT_TRUE(items->name.Lookup("x"));
  cache_->Get<OwnerTable>()->DbDelete("id = " + std::to_string(ann));  // cascades to item
  EXPECT_FALSE(items->name.Lookup("x"));
  cache_->Query("INSERT INTO item (name) VALUES ('x')");
  EXPECT_TRUE(items->name.Lookup("x"));
}

TEST_F(DbTest, ClearCacheDropsTheRowsOfThisCursorOrOfEveryCursorOfTheTable) {
  AddItem("x");
  pnl_db::Request request(*cache_);
  auto a = cache_->Get<ItemTable>();
  auto b = cache_->Get<ItemTable>();
  auto owners = cache_->Get<OwnerTable>();
  a->name.Lookup("x");
  b->name.Lookup("x");
  owners->name.Lookup("ann");
  a->ClearCache(false);
  EXPECT_EQ(a->CachedRows(), 0u);
  EXPECT_EQ(b->CachedRows(), 1u);
  a->name.Lookup("x");
  a->ClearCache(true);
  EXPECT_EQ(a->CachedRows(), 0u);
  EXPECT_EQ(b->CachedRows(), 0u);
  EXPECT_EQ(owners->CachedRows(), 1u);
  EXPECT_EQ(a->name.Str(), "x");  // the current row stays
}
