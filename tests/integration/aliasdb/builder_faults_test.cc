// Faults injected through the platform's file-system seam (pnl_file::Ops)
// reach the alias database builder: a flush of the folder, a rename, a read
// or a temporary file that fails is reported as an "aliasdb" error naming
// the file and the cause, and a failure before the rename leaves the old
// map and no temporary file.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <utility>

#include "sandbox.h"
#include "zelaliasdb/builder.h"
#include "zelaliasdb/hash_map.h"
#include "zelapi/err.h"
#include "zelapi/file.h"

namespace {

std::string TestName() { return ::testing::UnitTest::GetInstance()->current_test_info()->name(); }

std::string Z(const std::string& s) { return s + std::string(1, '\0'); }

using zeltest::FolderListing;

std::string ValueOf(const std::string& db, const std::string& key) {
  for (auto& [k, v] : zel_aliasdb::ReadHashMap(db))
    if (k == Z(key)) return v;
  return "(none)";
}

// Ops that fail every call of one kind with one error, and count them.
class FailingOps : public pnl_file::Ops {
 public:
  enum class Call { kFsync, kRename, kRead, kMakeTemp };
  FailingOps(Call call, int err) : call_(call), err_(err) {}

  int Fsync(int fd) override { return Fail(Call::kFsync) ? err_ : Ops::Fsync(fd); }
  int Rename(const std::string& from, const std::string& to) override {
    return Fail(Call::kRename) ? err_ : Ops::Rename(from, to);
  }
  int Read(int fd, char* buffer, std::size_t size, std::size_t& got) override {
    return Fail(Call::kRead) ? err_ : Ops::Read(fd, buffer, size, got);
  }
  int MakeTemp(std::string& path, int& fd) override {
    return Fail(Call::kMakeTemp) ? err_ : Ops::MakeTemp(path, fd);
  }
  int failed = 0;

 private:
  bool Fail(Call call) {
    if (call != call_) return false;
    ++failed;
    return true;
  }
  Call call_;
  int err_;
};

class BuilderFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    box_.Write("aliases", "a: old\n");
    options_.alias_file = box_.Path("aliases");
    zel_aliasdb::Build(options_);
    box_.Write("aliases", "a: new\n");
  }

  // Builds with ops installed; returns the error's message ("" when none).
  std::string BuildWith(std::shared_ptr<pnl_file::Ops> ops) {
    pnl_file::ScopedOps scoped(std::move(ops));
    try {
      zel_aliasdb::Build(options_);
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kAliasDb);
      return e.what();
    }
    return "";
  }

  zeltest::Sandbox box_{TestName()};
  zel_aliasdb::BuildOptions options_;
};

}  // namespace

TEST_F(BuilderFaultTest, FailingFlushOfTheFolderIsReportedAfterTheNewMapIsInPlace) {
  auto ops = std::make_shared<FailingOps>(FailingOps::Call::kFsync, EIO);
  EXPECT_EQ(BuildWith(ops), box_.dir() + ": cannot flush the folder: Input/output error");
  EXPECT_EQ(ops->failed, 1);
  EXPECT_EQ(ValueOf(box_.Path("aliases.db"), "a"), Z("new"));
  EXPECT_EQ(FolderListing(box_.dir()), (std::vector<std::string>{"aliases", "aliases.db"}));
}

TEST_F(BuilderFaultTest, FailingRenameLeavesTheOldMapAndNoTemporaryFile) {
  auto ops = std::make_shared<FailingOps>(FailingOps::Call::kRename, ENOSPC);
  EXPECT_EQ(BuildWith(ops),
            box_.Path("aliases.db") + ": cannot rename the new map into place: No space left on device");
  EXPECT_EQ(ValueOf(box_.Path("aliases.db"), "a"), Z("old"));
  EXPECT_EQ(FolderListing(box_.dir()), (std::vector<std::string>{"aliases", "aliases.db"}));
}

TEST_F(BuilderFaultTest, FailingReadOfTheAliasesFileLeavesTheOldMap) {
  auto ops = std::make_shared<FailingOps>(FailingOps::Call::kRead, EIO);
  EXPECT_EQ(BuildWith(ops), box_.Path("aliases") + ": cannot read: Input/output error");
  EXPECT_EQ(ValueOf(box_.Path("aliases.db"), "a"), Z("old"));
  EXPECT_EQ(FolderListing(box_.dir()), (std::vector<std::string>{"aliases", "aliases.db"}));
}

TEST_F(BuilderFaultTest, NoRoomForTheTemporaryMapLeavesTheOldMap) {
  auto ops = std::make_shared<FailingOps>(FailingOps::Call::kMakeTemp, ENOSPC);
  EXPECT_EQ(BuildWith(ops), box_.Path("aliases.db") +
                                ": cannot make a temporary file beside it: No space left on device");
  EXPECT_EQ(ValueOf(box_.Path("aliases.db"), "a"), Z("old"));
}

TEST_F(BuilderFaultTest, TheSameBuildGoesThroughOnceTheFaultIsGone) {
  BuildWith(std::make_shared<FailingOps>(FailingOps::Call::kRename, EIO));
  EXPECT_EQ(BuildWith(std::make_shared<pnl_file::Ops>()), "");
  EXPECT_EQ(ValueOf(box_.Path("aliases.db"), "a"), Z("new"));
}
