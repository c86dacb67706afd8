// pnl_db requests: one transaction per request, committed also after a failed
// operation, rolled back only when abandoned; request hooks; one request at a
// time per Cache.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "test_tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"

using dbtest::DbTest;
using dbtest::ErrorOf;
using dbtest::ItemTable;
using dbtest::OwnerTable;

namespace {

// Posts an owner named by the hook when the request commits.
class AddOwnerHook : public pnl_db::RequestHook {
 public:
  AddOwnerHook(std::string name, int* calls) : name_(std::move(name)), calls_(calls) {}
  void BeforeCommit(pnl_db::Cache& cache) override {
    ++*calls_;
    cache.Query("INSERT INTO owner (name) VALUES (?)", {name_});
  }

 private:
  std::string name_;
  int* calls_;
};

class FailingHook : public pnl_db::RequestHook {
 public:
  void BeforeCommit(pnl_db::Cache&) override {
    throw pnl_err::Error(pnl_err::Kind::kDb, "hook", "failed on purpose");
  }
};

}  // namespace

TEST_F(DbTest, RowsPostedBeforeAFailingOperationStayAfterEndRequest) {
  cache_->BeginRequest();
  EXPECT_TRUE(cache_->InRequest());
  AddOwner("ann");
  EXPECT_THROW(AddOwner("ann"), pnl_err::Error);  // the operation fails half-way
  cache_->EndRequest();
  EXPECT_FALSE(cache_->InRequest());
  Reopen();
  EXPECT_EQ(Count("owner"), 1);
}

TEST_F(DbTest, RequestLeftByAnExceptionIsCommitted) {
  try {
    pnl_db::Request request(*cache_);
    AddOwner("ann");
    throw std::runtime_error("operation failed");
  } catch (const std::runtime_error&) {
  }
  EXPECT_FALSE(cache_->InRequest());
  Reopen();
  EXPECT_EQ(Count("owner"), 1);
}

TEST_F(DbTest, AbandonedRequestIsRolledBack) {
  {
    pnl_db::Request request(*cache_);
    AddOwner("ann");
    request.Abandon();
  }
  EXPECT_EQ(Count("owner"), 0);
  cache_->BeginRequest();
  AddOwner("bob");
  cache_->Rollback();
  EXPECT_FALSE(cache_->InRequest());
  EXPECT_EQ(Count("owner"), 0);
}

TEST_F(DbTest, WritesOfARequestAreInvisibleToOthersUntilItEnds) {
  auto reader = pnl_db::Cache::Open(file_, dbtest::TestSchema());
  cache_->BeginRequest();
  AddOwner("ann");
  EXPECT_EQ(reader->Query("SELECT count(*) FROM owner").Int(), 0);
  cache_->EndRequest();
  EXPECT_EQ(reader->Query("SELECT count(*) FROM owner").Int(), 1);
}

TEST_F(DbTest, ASecondRequestOnTheSameThreadIsRefused) {
  cache_->BeginRequest();
  pnl_err::Error e = ErrorOf([&] { cache_->BeginRequest(); });
  EXPECT_EQ(e.object(), file_);
  EXPECT_EQ(e.detail(), "begin request: a request is already open on this thread");
  cache_->EndRequest();
}

TEST_F(DbTest, EndingOrRollingBackWithoutARequestDoesNothing) {
  cache_->EndRequest();
  cache_->Rollback();
  AddOwner("ann");
  EXPECT_EQ(Count("owner"), 1);
}

TEST_F(DbTest, AnotherThreadWaitsUntilTheRequestEnds) {
  cache_->BeginRequest();
  AddOwner("first");
  std::atomic<bool> entered{false};
  std::thread second([&] {
    cache_->BeginRequest();
    entered = true;
    cache_->Query("INSERT INTO owner (name) VALUES ('second')");
    cache_->EndRequest();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(entered);
  cache_->EndRequest();
  second.join();
  EXPECT_TRUE(entered);
  EXPECT_EQ(cache_->Query("SELECT group_concat(name, ',') FROM owner").Str(), "first,second");
}

TEST_F(DbTest, OnlyTheThreadOfTheRequestMayEndIt) {
  cache_->BeginRequest();
  std::string detail;
  std::thread other([&] { detail = ErrorOf([&] { cache_->EndRequest(); }).detail(); });
  other.join();
  EXPECT_EQ(detail, "end request: the request is open on another thread");
  EXPECT_TRUE(cache_->InRequest());
  cache_->EndRequest();
}

TEST_F(DbTest, RequestHooksRunInTheRequestBeforeItCommits) {
  int calls = 0;
  cache_->BeginRequest();
  cache_->AddRequestHook("a", std::make_unique<AddOwnerHook>("from-hook", &calls));
  EXPECT_NE(cache_->FindRequestHook("a"), nullptr);
  EXPECT_EQ(cache_->FindRequestHook("b"), nullptr);
  EXPECT_EQ(calls, 0);
  cache_->EndRequest();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(cache_->Query("SELECT name FROM owner").Str(), "from-hook");
  EXPECT_EQ(cache_->FindRequestHook("a"), nullptr);  // gone with its request
}

TEST_F(DbTest, RequestHooksOfARolledBackRequestDoNotRun) {
  int calls = 0;
  cache_->BeginRequest();
  cache_->AddRequestHook("a", std::make_unique<AddOwnerHook>("x", &calls));
  cache_->Rollback();
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(Count("owner"), 0);
}

TEST_F(DbTest, AFailingHookIsReportedAfterTheCommit) {
  cache_->BeginRequest();
  AddOwner("ann");
  cache_->AddRequestHook("bad", std::make_unique<FailingHook>());
  EXPECT_STREQ(ErrorOf([&] { cache_->EndRequest(); }).what(), "hook: failed on purpose");
  EXPECT_FALSE(cache_->InRequest());
  Reopen();
  EXPECT_EQ(Count("owner"), 1);
}

TEST_F(DbTest, HooksNeedAnOpenRequestAndUniqueNames) {
  int calls = 0;
  EXPECT_THROW(cache_->AddRequestHook("a", std::make_unique<AddOwnerHook>("x", &calls)),
               pnl_err::Error);
  cache_->BeginRequest();
  cache_->AddRequestHook("a", std::make_unique<AddOwnerHook>("x", &calls));
  EXPECT_THROW(cache_->AddRequestHook("a", std::make_unique<AddOwnerHook>("y", &calls)),
               pnl_err::Error);
  cache_->EndRequest();
  EXPECT_EQ(calls, 1);
}
