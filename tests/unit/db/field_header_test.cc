// zelapi/db/field.h stands on its own: included first, it gives the stored
// values and field kinds without the cursor that holds them.
#include "zelapi/db/field.h"

#include <gtest/gtest.h>

TEST(FieldHeader, CompilesAloneAndComparesValues) {
  pnl_db::Value five;
  five.kind = pnl_db::Value::kInt;
  five.integer = 5;
  pnl_db::Value other = five;
  EXPECT_TRUE(five == other);
  other.integer = 6;
  EXPECT_FALSE(five == other);
}
