// pnl_db fields: text forms, assignments, their refusals, and domain names
// stored in their ASCII form.
#include <gtest/gtest.h>

#include <string>

#include "test_tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/field.h"
#include "zelapi/db/query.h"
#include "zelapi/err.h"

using dbtest::DbTest;
using dbtest::ErrorOf;
using dbtest::ItemTable;
using dbtest::OwnerTable;

TEST_F(DbTest, EveryFieldHasATextForm) {
  const int64_t ann = AddOwner("O'Brien");
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->name = "box";
  items->owner = ann;
  items->count = -12;
  items->flag = false;
  items->Post();

  EXPECT_EQ(items->id.Str(), "1");
  EXPECT_EQ(std::string(items->id), "1");
  EXPECT_EQ(items->owner.Str(), "1");
  EXPECT_EQ(items->count.Str(), "-12");
  EXPECT_EQ(items->flag.Str(), "0");
  EXPECT_EQ(std::string(items->name), "box");
  EXPECT_EQ(items->count.AsString(), "-12");
  auto owners = cache_->Get<OwnerTable>();
  owners->Assert(items->owner.Str());
  EXPECT_EQ(owners->name.AsString(), "'O''Brien'");
  items->owner.SetNull();
  EXPECT_EQ(items->owner.Str(), "");
  EXPECT_EQ(items->owner.AsString(), "NULL");
}

TEST_F(DbTest, FieldsAreAssignedFromTheirValuesAndFromText) {
  const int64_t ann = AddOwner("ann");
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->count.SetText("17");
  items->flag.SetText("false");
  items->owner.SetText(std::to_string(ann));
  items->name.SetText("n");
  EXPECT_EQ(items->count.Value(), 17);
  EXPECT_FALSE(items->flag.Value());
  EXPECT_EQ(items->owner.Value(), ann);
  items->flag.SetText("1");
  EXPECT_TRUE(items->flag.Value());
  items->count = std::string("8");
  EXPECT_EQ(static_cast<int64_t>(items->count), 8);
  items->Post();

  auto copy = cache_->Get<ItemTable>();
  copy->New();
  copy->name = items->name;
  copy->owner = items->owner;
  copy->count = items->count;
  copy->flag = items->flag;
  copy->Post();
  EXPECT_EQ(copy->name.Str(), "n");
  EXPECT_EQ(copy->owner.Value(), ann);
  EXPECT_EQ(copy->count.Value(), 8);
  EXPECT_TRUE(copy->flag.Value());
}

TEST_F(DbTest, AReferenceIsAssignedFromAKeyAndZeroMeansNone) {
  auto owners = cache_->Get<OwnerTable>();
  owners->New();
  owners->name = "ann";
  owners->Post();
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->owner = owners->id;
  EXPECT_EQ(items->owner.Value(), owners->id.Value());
  items->owner = 0;
  EXPECT_TRUE(items->owner.IsNull());
  items->owner.SetText("");
  EXPECT_TRUE(items->owner.IsNull());
  items->Post();
  EXPECT_TRUE(cache_->Query("SELECT owner FROM item").IsNull());
}

TEST_F(DbTest, TextAColumnCannotHoldIsRefusedNamingTheColumn) {
  auto items = cache_->Get<ItemTable>();
  items->New();
  pnl_err::Error e = ErrorOf([&] { items->count.SetText("three"); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kDb);
  EXPECT_EQ(e.object(), "item.count");
  EXPECT_EQ(e.detail(), "\"three\" is not a value of this column");
  EXPECT_EQ(ErrorOf([&] { items->flag.SetText("yes"); }).object(), "item.flag");
  EXPECT_EQ(ErrorOf([&] { items->owner.SetText("1x"); }).object(), "item.owner");
  EXPECT_EQ(items->count.Value(), 3);  // unchanged
}

TEST_F(DbTest, TheKeyOfAStoredRowIsNotAssignable) {
  AddItem("x");
  auto items = cache_->Get<ItemTable>();
  items->Assert("1");
  pnl_err::Error e = ErrorOf([&] { items->id.SetText("5"); });
  EXPECT_EQ(e.object(), "item.id");
  EXPECT_EQ(e.detail(), "\"5\" refused: the key of a stored row does not change");
  items->New();
  items->id.SetText("10");  // a new row may be given its key
  items->Post();
  EXPECT_EQ(items->id.Value(), 10);
}

TEST_F(DbTest, UnicodeDomainNameIsStoredInItsAsciiForm) {
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->host = "b\xc3\xbc" "cher.example";
  EXPECT_EQ(items->host.Str(), "xn--bcher-kva.example");
  EXPECT_EQ(items->host.Unicode(), "b\xc3\xbc" "cher.example");
  items->Post();
  EXPECT_EQ(cache_->Query("SELECT host FROM item").Str(), "xn--bcher-kva.example");

  auto found = cache_->Get<ItemTable>();
  ASSERT_TRUE(found->host.Lookup("b\xc3\xbc" "cher.example"));
  EXPECT_EQ(found->host.Unicode(), "b\xc3\xbc" "cher.example");
  ASSERT_TRUE(found->host.Lookup("xn--bcher-kva.example"));
  ASSERT_TRUE(found->host.Lookup("XN--BCHER-KVA.example"));  // the column ignores ASCII case
}

TEST_F(DbTest, AsciiDomainNameIsStoredAsGiven) {
  auto items = cache_->Get<ItemTable>();
  items->New();
  items->host = "Mail.Example.com";
  EXPECT_EQ(items->host.Str(), "Mail.Example.com");
  EXPECT_EQ(items->host.Unicode(), "Mail.Example.com");
}

TEST_F(DbTest, DomainNameThatCannotBeConvertedIsRefused) {
  auto items = cache_->Get<ItemTable>();
  items->New();
  const std::string bad = "bad\xff.example";
  pnl_err::Error e = ErrorOf([&] { items->host = bad; });
  EXPECT_EQ(e.object(), "item.host");
  EXPECT_EQ(e.detail(), "\"" + bad + "\" cannot be converted to an ASCII domain name");
  EXPECT_FALSE(items->host.Lookup(bad));
}
