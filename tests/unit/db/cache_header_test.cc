// zelapi/db/cache.h stands on its own: included first, it gives the Cache
// without the table cursors it pools.
#include "zelapi/db/cache.h"

#include <gtest/gtest.h>

TEST(CacheHeader, CompilesAloneAndEscapesALiteral) {
  EXPECT_EQ(pnl_db::Cache::EscapeValue("O'Brien"), "'O''Brien'");
}
