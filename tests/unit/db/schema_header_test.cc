// zelapi/db/schema.h stands on its own: included first, it declares a
// schema without any other header of the database layer.
#include "zelapi/db/schema.h"

#include <gtest/gtest.h>

TEST(SchemaHeader, CompilesAloneAndDeclaresASchemaOfSteps) {
  const pnl_db::Schema schema = {{1, "CREATE TABLE t (id INTEGER PRIMARY KEY);"},
                                 {2, "ALTER TABLE t ADD COLUMN name TEXT;"}};
  ASSERT_EQ(schema.size(), 2u);
  EXPECT_EQ(schema[1].version, 2);
}
