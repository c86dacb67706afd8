// The request's warnings.
#include "zelapi/warn.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using Texts = std::vector<std::string>;

TEST(WarnTest, WarningsAreKeptInOrderUntilTakenAndTakenOnce) {
  pnl_warn::Take();
  pnl_warn::Add("first");
  pnl_warn::Add("second");
  EXPECT_EQ(pnl_warn::Pending(), Texts({"first", "second"}));
  EXPECT_EQ(pnl_warn::Take(), Texts({"first", "second"}));
  EXPECT_TRUE(pnl_warn::Take().empty());
  EXPECT_TRUE(pnl_warn::Pending().empty());
}

TEST(WarnTest, AWarningIsOneLineAndTheSameTextIsKeptOnce) {
  pnl_warn::Take();
  pnl_warn::Add("a\nb\r\n");
  pnl_warn::Add("a; b");
  pnl_warn::Add("");
  pnl_warn::Add("\n");
  EXPECT_EQ(pnl_warn::Take(), Texts({"a; b"}));
}

TEST(WarnTest, WarningsFromManyThreadsAreAllKept) {
  pnl_warn::Take();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 100; ++i) pnl_warn::Add(std::to_string(t) + "-" + std::to_string(i));
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pnl_warn::Take().size(), 400u);
}
