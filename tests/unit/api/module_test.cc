// Module objects and their registration, without shared objects.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zelapi/api.h"
#include "zelapi/err.h"

namespace {

std::vector<std::string> RegisteredNames() {
  std::vector<std::string> names;
  for (const zel_api::Registration& r : zel_api::RegisteredModules()) names.push_back(r.name);
  return names;
}

class Plain : public zel_api::Module {
 public:
  Plain() : zel_api::Module("plain") {}
};

class Other : public zel_api::Module {
 public:
  Other() : zel_api::Module("other") {}
};

int allocations = 0;
int deallocations = 0;

class Throwing : public zel_api::Module {
 public:
  Throwing() : zel_api::Module("throwing") {
    throw pnl_err::Error(pnl_err::Kind::kModule, "throwing", "constructor failed");
  }
  static void* operator new(size_t size) {
    ++allocations;
    return ::operator new(size);
  }
  static void operator delete(void* p) {
    ++deallocations;
    ::operator delete(p);
  }
};

TEST(ModuleObjectTest, ModuleKeepsItsName) {
  Plain plain;
  EXPECT_EQ(plain.Name(), "plain");
}

TEST(RegistrationTest, RegisterAddsInOrderAndDestructionWithdraws) {
  ASSERT_TRUE(zel_api::RegisteredModules().empty());
  {
    zel_api::BaseRegisterModule first;
    first.Register("email_interface", &zel_api::RegisterModule<Plain>::Constructor);
    {
      zel_api::BaseRegisterModule second;
      second.Register("other_interface", &zel_api::RegisterModule<Other>::Constructor);
      EXPECT_EQ(RegisteredNames(), (std::vector<std::string>{"email_interface", "other_interface"}));
      EXPECT_EQ(zel_api::RegisteredModules()[0].factory,
                &zel_api::RegisterModule<Plain>::Constructor);
    }
    EXPECT_EQ(RegisteredNames(), std::vector<std::string>{"email_interface"});
  }
  EXPECT_TRUE(zel_api::RegisteredModules().empty());
}

TEST(RegistrationTest, RegisteringAgainReplacesTheEarlierRegistrationInPlace) {
  zel_api::BaseRegisterModule first;
  zel_api::BaseRegisterModule second;
  first.Register("a", &zel_api::RegisterModule<Plain>::Constructor);
  second.Register("b", &zel_api::RegisterModule<Plain>::Constructor);
  first.Register("c", &zel_api::RegisterModule<Other>::Constructor);
  const std::vector<zel_api::Registration> registered = zel_api::RegisteredModules();
  ASSERT_EQ(registered.size(), 2u);
  EXPECT_EQ(registered[0].name, "c");
  EXPECT_EQ(registered[0].factory, &zel_api::RegisterModule<Other>::Constructor);
  EXPECT_EQ(registered[1].name, "b");
}

TEST(RegistrationTest, FactoryBuildsTheModuleType) {
  zel_api::Module* module = zel_api::RegisterModule<Other>::Constructor();
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module->Name(), "other");
  EXPECT_NE(dynamic_cast<Other*>(module), nullptr);
  delete module;
}

TEST(RegistrationTest, FactoryFreesTheMemoryWhenTheConstructorThrows) {
  allocations = deallocations = 0;
  try {
    zel_api::RegisterModule<Throwing>::Constructor();
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_STREQ(e.what(), "throwing: constructor failed");
  }
  EXPECT_EQ(allocations, 1);
  EXPECT_EQ(deallocations, 1);
}

}  // namespace
