#include "zelapi/err.h"

#include <gtest/gtest.h>

#include <set>
#include <string_view>

TEST(ErrorTest, MessageJoinsObjectAndDetail) {
  pnl_err::Error e(pnl_err::Kind::kEmail, "makemap", "duplicate key");
  EXPECT_STREQ(e.what(), "makemap: duplicate key");
  EXPECT_EQ(e.kind(), pnl_err::Kind::kEmail);
  EXPECT_EQ(e.object(), "makemap");
  EXPECT_EQ(e.detail(), "duplicate key");
}

TEST(ErrorTest, MessageFallsBackToWhatIsSet) {
  EXPECT_STREQ(pnl_err::Error(pnl_err::Kind::kInternal, "", "only detail").what(), "only detail");
  EXPECT_STREQ(pnl_err::Error(pnl_err::Kind::kInternal, "only object", "").what(), "only object");
  EXPECT_STREQ(pnl_err::Error(pnl_err::Kind::kNotSupported, "", "").what(), "not_supported");
}

TEST(ErrorTest, SetReportMarksTheErrorForTheHost) {
  pnl_err::Error e(pnl_err::Kind::kEmail, "newaliases", "out");
  EXPECT_FALSE(e.reported());
  e.set_report();
  EXPECT_TRUE(e.reported());
  pnl_err::Error copy = e;
  EXPECT_TRUE(copy.reported());
}

TEST(ErrorTest, EveryKindHasItsOwnName) {
  // The names are what reports and JSON show; two kinds with one name could
  // not be told apart by a client.
  std::set<std::string_view> names;
  for (int k = 0; k <= static_cast<int>(pnl_err::Kind::kInternal); ++k) {
    const std::string_view name = pnl_err::KindName(static_cast<pnl_err::Kind>(k));
    EXPECT_FALSE(name.empty()) << k;
    EXPECT_TRUE(names.insert(name).second) << name;
  }
  EXPECT_EQ(pnl_err::KindName(pnl_err::Kind::kUsage), "usage");
  EXPECT_EQ(pnl_err::KindName(pnl_err::Kind::kInUse), "in_use");
  EXPECT_EQ(pnl_err::Error(pnl_err::Kind::kAliasDb, "o", "d").type(), "aliasdb");
}
