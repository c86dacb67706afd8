// zelapi/db/query.h stands on its own: included first, it gives the
// statement parameters without the Cache that runs them.
#include "zelapi/db/query.h"

#include <gtest/gtest.h>

#include <string>

TEST(QueryHeader, CompilesAloneAndGivesParamsOfEachKind) {
  EXPECT_EQ(pnl_db::Param(nullptr).kind(), pnl_db::Param::kNull);
  EXPECT_EQ(pnl_db::Param(7).int_value(), 7);
  EXPECT_EQ(pnl_db::Param(std::string("O'Brien")).text(), "O'Brien");
}
