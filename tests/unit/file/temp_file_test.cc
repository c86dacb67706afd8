// pnl_file::safe::TempFile: the temporary name beside a file being replaced,
// and what is left of it when the replacement is given up.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zelapi/file.h"

namespace {

class TempFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::string(ZEL_TEST_SCRATCH) + "/temp_file/" + info->name();
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  std::vector<std::string> Entries() const { return zeltest::FolderListing(dir_); }

  std::string dir_;
  pnl_file::Ops ops_;
};

class NoRoomOps : public pnl_file::Ops {
 public:
  int MakeTemp(std::string&, int&) override { return ENOSPC; }
};

}  // namespace

TEST_F(TempFileTest, NameIsHiddenBesideTheTargetAndOnlyTheOwnerMayRead) {
  pnl_file::safe::TempFile temp(ops_);
  ASSERT_EQ(temp.Make(dir_, "aliases.db"), 0);
  const std::string name = pnl_file::BaseName(temp.path());
  EXPECT_EQ(pnl_file::FolderOf(temp.path()), dir_);
  EXPECT_EQ(name.size(), std::string(".aliases.db.XXXXXX").size());
  EXPECT_EQ(name.rfind(".aliases.db.", 0), 0u) << name;
  struct stat st {};
  ASSERT_EQ(::fstat(temp.fd(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(TempFileTest, UncommittedFileAndTheNamesGivenWithItAreRemoved) {
  {
    pnl_file::safe::TempFile temp(ops_);
    ASSERT_EQ(temp.Make(dir_, "map"), 0);
    std::ofstream(temp.path() + ".db") << "made by someone else\n";
    temp.AlsoRemove(temp.path() + ".db");
    EXPECT_EQ(Entries().size(), 2u);
  }
  EXPECT_TRUE(Entries().empty());
}

TEST_F(TempFileTest, CommittedFileStays) {
  std::string path;
  {
    pnl_file::safe::TempFile temp(ops_);
    ASSERT_EQ(temp.Make(dir_, "map"), 0);
    EXPECT_EQ(temp.Close(), 0);
    path = temp.path();
    temp.Commit();
  }
  EXPECT_EQ(Entries(), std::vector<std::string>{pnl_file::BaseName(path)});
}

TEST_F(TempFileTest, FailureToMakeItIsReturnedAndLeavesNothing) {
  NoRoomOps no_room;
  {
    pnl_file::safe::TempFile temp(no_room);
    EXPECT_EQ(temp.Make(dir_, "map"), ENOSPC);
    EXPECT_EQ(temp.fd(), -1);
  }
  EXPECT_TRUE(Entries().empty());
}

TEST_F(TempFileTest, InTheRootFolderTheNameHasOneSlash) {
  // Nothing is made: the name is only checked.
  class NameOnlyOps : public pnl_file::Ops {
   public:
    int MakeTemp(std::string& path, int&) override {
      seen = path;
      return EACCES;
    }
    std::string seen;
  } name_only;
  pnl_file::safe::TempFile temp(name_only);
  EXPECT_EQ(temp.Make("/", "x"), EACCES);
  EXPECT_EQ(name_only.seen, "/.x.XXXXXX");
}
