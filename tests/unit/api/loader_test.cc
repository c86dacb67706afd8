// The module loader with real shared objects (testmod.cc built four times).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"

namespace {

namespace fs = std::filesystem;

const std::string kModules = ZEL_TEST_MODULES;

std::string ModulePath(const std::string& name) { return kModules + "/testmod_" + name + ".so"; }

std::vector<std::string> RegisteredNames() {
  std::vector<std::string> names;
  for (const zel_api::Registration& r : zel_api::RegisteredModules()) names.push_back(r.name);
  return names;
}

std::vector<std::string> ModuleNames(const zel_api::ModuleLoader& loader) {
  std::vector<std::string> names;
  for (const zel_api::Module* module : loader.Modules()) names.push_back(module->Name());
  return names;
}

class LocalModule : public zel_api::Module {
 public:
  LocalModule() : zel_api::Module("local") {}
};

class LoaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pnl_cf::Clear();
    dir_ = fs::path(ZEL_TEST_SCRATCH) / "api" /
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { pnl_cf::Clear(); }

  static std::string Events() { return pnl_cf::GetParam("events"); }

  fs::path dir_;
};

TEST_F(LoaderTest, LoadingRegistersWithoutConstructing) {
  zel_api::ModuleLoader loader;
  loader.Load(ModulePath("a"));
  EXPECT_EQ(RegisteredNames(), std::vector<std::string>{"a"});
  EXPECT_TRUE(loader.Modules().empty());
  EXPECT_EQ(Events(), "load:a");
}

TEST_F(LoaderTest, ConstructAllBuildsTheModulesInRegistrationOrder) {
  zel_api::ModuleLoader loader;
  loader.Load(ModulePath("b"));
  loader.Load(ModulePath("a"));
  loader.ConstructAll();
  EXPECT_EQ(ModuleNames(loader), (std::vector<std::string>{"module_b", "module_a"}));
  EXPECT_EQ(Events(), "load:b load:a construct:b construct:a");
}

TEST_F(LoaderTest, DestroyingTheLoaderDestroysModulesInReverseThenUnloadsInReverse) {
  {
    zel_api::ModuleLoader loader;
    loader.Load(ModulePath("a"));
    loader.Load(ModulePath("b"));
    loader.Load(ModulePath("c"));
    loader.ConstructAll();
    pnl_cf::SetParam("events", "");
  }
  EXPECT_EQ(Events(), "destroy:c destroy:b destroy:a unload:c unload:b unload:a");
  EXPECT_TRUE(zel_api::RegisteredModules().empty());
}

TEST_F(LoaderTest, ConstructAllBuildsEachRegistrationOnce) {
  zel_api::ModuleLoader loader;
  loader.Load(ModulePath("a"));
  loader.ConstructAll();
  loader.ConstructAll();
  loader.Load(ModulePath("b"));
  loader.ConstructAll();
  EXPECT_EQ(ModuleNames(loader), (std::vector<std::string>{"module_a", "module_b"}));
  EXPECT_EQ(Events(), "load:a construct:a load:b construct:b");
}

TEST_F(LoaderTest, FactoriesRegisteredByTheHostItselfAreConstructedToo) {
  zel_api::BaseRegisterModule registration;
  registration.Register("local", &zel_api::RegisterModule<LocalModule>::Constructor);
  zel_api::ModuleLoader loader;
  loader.ConstructAll();
  EXPECT_EQ(ModuleNames(loader), std::vector<std::string>{"local"});
}

TEST_F(LoaderTest, ThrowingConstructorPropagatesAndTheModulesBeforeItStay) {
  zel_api::ModuleLoader loader;
  loader.Load(ModulePath("broken"));
  EXPECT_EQ(RegisteredNames(), (std::vector<std::string>{"broken", "broken_throws"}));
  try {
    loader.ConstructAll();
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_STREQ(e.what(), "broken_throws: constructor failed");
  }
  EXPECT_EQ(ModuleNames(loader), std::vector<std::string>{"module_broken"});
  // The failed factory is not tried again; the ones after it are.
  loader.Load(ModulePath("a"));
  EXPECT_NO_THROW(loader.ConstructAll());
  EXPECT_EQ(ModuleNames(loader), (std::vector<std::string>{"module_broken", "module_a"}));
}

TEST_F(LoaderTest, LoadOfAMissingFileThrowsWithTheLinkersMessage) {
  zel_api::ModuleLoader loader;
  const std::string path = (dir_ / "absent.so").string();
  try {
    loader.Load(path);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kModule);
    EXPECT_EQ(e.object(), path);
    EXPECT_NE(e.detail().find("cannot open shared object file: No such file or directory"),
              std::string::npos)
        << e.detail();
  }
}

TEST_F(LoaderTest, LoadOfAFileThatIsNoSharedObjectThrows) {
  const std::string path = (dir_ / "fake.so").string();
  std::ofstream(path) << "this is no shared object, only text long enough to have a header\n";
  zel_api::ModuleLoader loader;
  try {
    loader.Load(path);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kModule);
    EXPECT_EQ(e.object(), path);
    EXPECT_NE(e.detail().find("invalid ELF header"), std::string::npos) << e.detail();
  }
}

TEST_F(LoaderTest, LoadFolderLoadsSharedObjectsInNameOrderAndSkipsOtherFiles) {
  fs::create_symlink(ModulePath("c"), dir_ / "10-c.so");
  fs::create_symlink(ModulePath("a"), dir_ / "20-a.so");
  fs::create_symlink(ModulePath("b"), dir_ / "30-b.so");
  fs::create_symlink(ModulePath("broken"), dir_ / "40-broken.so.1");
  fs::create_symlink(ModulePath("broken"), dir_ / "50-broken.so.disabled");
  fs::create_directory(dir_ / "60-folder.so");
  std::ofstream(dir_ / "README") << "modules of this host\n";
  std::ofstream(dir_ / ".so") << "not a module\n";
  zel_api::ModuleLoader loader;
  loader.LoadFolder(dir_.string());
  EXPECT_EQ(RegisteredNames(), (std::vector<std::string>{"c", "a", "b"}));
  EXPECT_EQ(Events(), "load:c load:a load:b");
  EXPECT_NO_THROW(loader.ConstructAll());
}

TEST_F(LoaderTest, LoadFolderOfAMissingFolderThrows) {
  zel_api::ModuleLoader loader;
  const std::string folder = (dir_ / "absent").string();
  try {
    loader.LoadFolder(folder);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kModule);
    EXPECT_EQ(e.object(), folder);
    EXPECT_EQ(e.detail(), "cannot list: No such file or directory");
  }
}

TEST_F(LoaderTest, LoadFolderStopsAtABadObjectAndKeepsTheOnesBefore) {
  fs::create_symlink(ModulePath("a"), dir_ / "10-a.so");
  std::ofstream(dir_ / "20-bad.so") << "not an object\n";
  fs::create_symlink(ModulePath("b"), dir_ / "30-b.so");
  {
    zel_api::ModuleLoader loader;
    try {
      loader.LoadFolder(dir_.string());
      FAIL() << "no error";
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.object(), (dir_ / "20-bad.so").string());
    }
    EXPECT_EQ(RegisteredNames(), std::vector<std::string>{"a"});
  }
  EXPECT_EQ(Events(), "load:a unload:a");
}

}  // namespace
