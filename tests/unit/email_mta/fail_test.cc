// email::Fail, the error of a failed rebuild command.
#include <gtest/gtest.h>

#include "email/fail.h"

TEST(FailTest, CarriesTypeEmailTheCommandAndItsOutputAndIsReported) {
  const email::Fail fail("makemap", "makemap: virtusertable: line 2: no RHS for LHS bad\n");
  EXPECT_EQ(fail.kind(), pnl_err::Kind::kEmail);
  EXPECT_EQ(fail.object(), "makemap");
  EXPECT_EQ(fail.detail(), "makemap: virtusertable: line 2: no RHS for LHS bad\n");
  EXPECT_TRUE(fail.reported());
  EXPECT_EQ(std::string(fail.what()),
            "makemap: makemap: virtusertable: line 2: no RHS for LHS bad\n");
}

TEST(FailTest, IsCaughtAsThePlatformsError) {
  try {
    throw email::Fail("newaliases", "line 1: missing colon");
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kEmail);
    return;
  }
  FAIL() << "not caught as pnl_err::Error";
}
