#include "zelapi/err.h"

#include <gtest/gtest.h>

TEST(ErrorTest, MessageJoinsObjectAndDetail) {
  pnl_err::Error e("email", "makemap", "duplicate key");
  EXPECT_STREQ(e.what(), "makemap: duplicate key");
  EXPECT_EQ(e.type(), "email");
  EXPECT_EQ(e.object(), "makemap");
  EXPECT_EQ(e.detail(), "duplicate key");
}

TEST(ErrorTest, MessageFallsBackToWhatIsSet) {
  EXPECT_STREQ(pnl_err::Error("t", "", "only detail").what(), "only detail");
  EXPECT_STREQ(pnl_err::Error("t", "only object", "").what(), "only object");
  EXPECT_STREQ(pnl_err::Error("not_supported", "", "").what(), "not_supported");
}

TEST(ErrorTest, SetReportMarksTheErrorForTheHost) {
  pnl_err::Error e("email", "newaliases", "out");
  EXPECT_FALSE(e.reported());
  e.set_report();
  EXPECT_TRUE(e.reported());
  pnl_err::Error copy = e;
  EXPECT_TRUE(copy.reported());
}
