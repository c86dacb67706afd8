// zelapi/db/table.h stands on its own: included first, it is enough to
// declare a table cursor and its fields; the Cache that hands it out comes
// from the fixture's headers after it.
#include "zelapi/db/table.h"

#include <gtest/gtest.h>

#include "test_tables.h"

namespace {

class OwnerNames : public pnl_db::CustomTable {
 public:
  explicit OwnerNames(pnl_db::Cache& cache) : CustomTable(cache, "owner") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField name{this, "name"};
};

using TableHeader = dbtest::DbTest;

TEST_F(TableHeader, CompilesAloneAndDeclaresACursor) {
  AddOwner("ann");
  auto owners = cache_->Get<OwnerNames>();
  ASSERT_TRUE(owners->name.Lookup("ann"));
  EXPECT_EQ(owners->TableName(), "owner");
}

}  // namespace
