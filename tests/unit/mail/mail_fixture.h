// A panel database in a sandbox, opened as the process's database, with
// helpers that add users, domains and mailboxes.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "sandbox.h"
#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"

namespace mailtest {

template <class F>
pnl_err::Error ErrorOf(F&& f) {
  try {
    f();
  } catch (const pnl_err::Error& e) {
    return e;
  }
  ADD_FAILURE() << "no pnl_err::Error was thrown";
  return pnl_err::Error(pnl_err::Kind::kInternal, "", "");
}

class MailTest : public ::testing::Test {
 protected:
  MailTest()
      : sandbox_(::testing::UnitTest::GetInstance()->current_test_info()->name()),
        file_(sandbox_.Path("panel.db")) {}

  void SetUp() override {
    pnl_cf::Clear();
    zel_db::OpenCache(file_);
    cache_ = zel_db::GetCache();
  }
  void TearDown() override {
    zel_db::CloseCache();
    pnl_cf::Clear();
  }

  int64_t AddUser(const std::string& name) {
    auto users = cache_->Get<zel_db::UserTable>();
    users->New();
    users->name = name;
    users->Post();
    return users->id.Value();
  }

  int64_t AddMailDomain(const std::string& name, int64_t user = 0) {
    auto domains = cache_->Get<zel_db::EmailDomainTable>();
    domains->New();
    domains->name = name;
    domains->users = user;
    domains->Post();
    return domains->id.Value();
  }

  int64_t AddMailbox(const std::string& local, int64_t domain) {
    auto emails = cache_->Get<zel_db::EmailTable>();
    emails->New();
    emails->name = local;
    emails->domain = domain;
    emails->Post();
    return emails->id.Value();
  }

  int64_t Count(const std::string& table) {
    return cache_->Query("SELECT count(*) FROM " + table).Int();
  }

  zeltest::Sandbox sandbox_;
  std::string file_;
  pnl_db::Cache* cache_ = nullptr;
};

}  // namespace mailtest
