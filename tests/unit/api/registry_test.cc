// The interface statistics and the mail back-end's registration.
#include <gtest/gtest.h>

#include "zelapi/api.h"
#include "zelapi/err.h"
#include "zelapi/mta_registry.h"

namespace {

// The registry only keeps the pointer; these stand in for back-ends.
int first_backend;
int second_backend;

email::MtaInterface* Backend(int& storage) {
  return reinterpret_cast<email::MtaInterface*>(&storage);
}

class MtaRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { email::ForgetMta(); }
  void TearDown() override { email::ForgetMta(); }
};

TEST_F(MtaRegistryTest, NoBackEndUntilOneIsRegistered) { EXPECT_EQ(email::GetMta(), nullptr); }

TEST_F(MtaRegistryTest, RegisteredBackEndIsReturned) {
  email::RegisterMta(Backend(first_backend));
  EXPECT_EQ(email::GetMta(), Backend(first_backend));
}

TEST_F(MtaRegistryTest, LaterRegistrationReplacesTheEarlierOne) {
  email::RegisterMta(Backend(first_backend));
  email::RegisterMta(Backend(second_backend));
  EXPECT_EQ(email::GetMta(), Backend(second_backend));
}

TEST_F(MtaRegistryTest, NullBackEndIsRefusedAndTheRegisteredOneStays) {
  email::RegisterMta(Backend(first_backend));
  try {
    email::RegisterMta(nullptr);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kModule);
    EXPECT_STREQ(e.what(), "email::RegisterMta: null MTA interface");
  }
  EXPECT_EQ(email::GetMta(), Backend(first_backend));
}

TEST_F(MtaRegistryTest, ForgetMtaLeavesNoBackEnd) {
  email::RegisterMta(Backend(first_backend));
  email::ForgetMta();
  EXPECT_EQ(email::GetMta(), nullptr);
}

class ApistatTest : public ::testing::Test {
 protected:
  void SetUp() override { apistat::Clear(); }
  void TearDown() override { apistat::Clear(); }
};

TEST_F(ApistatTest, RecordsWhichImplementationServesAnInterface) {
  apistat::ModuleInterface("mail", "sendmail");
  EXPECT_EQ(apistat::InterfaceImplementation("mail"), "sendmail");
  EXPECT_EQ(apistat::InterfaceImplementation("sendmail"), "");
}

TEST_F(ApistatTest, UnknownInterfaceHasNoImplementation) {
  EXPECT_EQ(apistat::InterfaceImplementation("mail"), "");
}

TEST_F(ApistatTest, LaterCallForTheSameInterfaceReplacesTheRecord) {
  apistat::ModuleInterface("mail", "other-mta");
  apistat::ModuleInterface("dns", "bind");
  apistat::ModuleInterface("mail", "sendmail");
  EXPECT_EQ(apistat::InterfaceImplementation("mail"), "sendmail");
  EXPECT_EQ(apistat::InterfaceImplementation("dns"), "bind");
}

TEST_F(ApistatTest, ClearForgetsEveryRecord) {
  apistat::ModuleInterface("mail", "sendmail");
  apistat::Clear();
  EXPECT_EQ(apistat::InterfaceImplementation("mail"), "");
}

}  // namespace
