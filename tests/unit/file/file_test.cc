// The file-system seam: whole-file reads, identities, atomic replacement
// and what a failing file system leaves behind.
#include "zelapi/file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "flush_counting_ops.h"
#include "sandbox.h"
#include "zelapi/err.h"

namespace {

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::string(ZEL_TEST_SCRATCH) + "/file/" + info->name();
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  std::vector<std::string> Entries() const { return zeltest::FolderListing(dir_); }

  std::string dir_;
};

// Counts the calls that matter and fails the one it is told to.
class ScriptedOps : public pnl_file::Ops {
 public:
  std::string fail;  // "write", "fchmod", "fchown", "fsync", "close", "rename", "mktemp", "folder-sync"
  int err = EIO;
  int fsyncs = 0;
  int renames = 0;
  int chowns = 0;
  int MakeTemp(std::string& path, int& fd) override {
    return fail == "mktemp" ? err : pnl_file::Ops::MakeTemp(path, fd);
  }
  int Write(int fd, const char* data, std::size_t size, std::size_t& written) override {
    if (fail == "write") return err;
    // Short writes: the caller must loop.
    return pnl_file::Ops::Write(fd, data, size > 3 ? 3 : size, written);
  }
  int Fchmod(int fd, unsigned mode) override { return fail == "fchmod" ? err : pnl_file::Ops::Fchmod(fd, mode); }
  int Fchown(int fd, unsigned uid, unsigned gid) override {
    ++chowns;
    return fail == "fchown" ? err : pnl_file::Ops::Fchown(fd, uid, gid);
  }
  int Fsync(int fd) override {
    ++fsyncs;
    if (fail == "fsync" && fsyncs == 1) return err;
    if (fail == "folder-sync" && fsyncs == 2) return err;
    return pnl_file::Ops::Fsync(fd);
  }
  int Close(int fd) override {
    const int r = pnl_file::Ops::Close(fd);
    return fail == "close" ? err : r;
  }
  int Rename(const std::string& from, const std::string& to) override {
    ++renames;
    return fail == "rename" ? err : pnl_file::Ops::Rename(from, to);
  }
};

}  // namespace

TEST_F(FileTest, ReadFileGivesTheBytesAndTheirIdentity) {
  Write("a", std::string("x\0y\n", 4));
  std::string data;
  pnl_file::FileId id;
  ASSERT_TRUE(pnl_file::ReadFile(Path("a"), data, id));
  EXPECT_EQ(data, std::string("x\0y\n", 4));
  EXPECT_TRUE(id.exists);
  EXPECT_EQ(id.size, 4u);
  EXPECT_TRUE(id.SameContent(pnl_file::StatFile(Path("a"))));
  EXPECT_FALSE(pnl_file::ReadFile(Path("missing"), data, id));
  EXPECT_FALSE(pnl_file::StatFile(Path("missing")).exists);
  EXPECT_TRUE(pnl_file::FileId().SameContent(pnl_file::StatFile(Path("missing"))));
}

TEST_F(FileTest, IdentityChangesWithSizeInodeOrTime) {
  Write("a", "one\n");
  const pnl_file::FileId first = pnl_file::StatFile(Path("a"));
  Write("a", "three\n");
  EXPECT_FALSE(first.SameContent(pnl_file::StatFile(Path("a"))));
  const pnl_file::FileId second = pnl_file::StatFile(Path("a"));
  struct timespec times[2] = {{0, UTIME_OMIT}, {12345, 678}};
  ASSERT_EQ(::utimensat(AT_FDCWD, Path("a").c_str(), times, 0), 0);
  EXPECT_FALSE(second.SameContent(pnl_file::StatFile(Path("a"))));
  EXPECT_FALSE(second.SameContent(pnl_file::FileId()));
}

TEST_F(FileTest, FolderHelpers) {
  EXPECT_EQ(pnl_file::FolderOf("/etc/mail/aliases"), "/etc/mail");
  EXPECT_EQ(pnl_file::FolderOf("/aliases"), "/");
  EXPECT_EQ(pnl_file::FolderOf("aliases"), ".");
  EXPECT_EQ(pnl_file::BaseName("/etc/mail/aliases"), "aliases");
  pnl_file::safe::Folder folder;
  EXPECT_FALSE(folder.IsOpen());
  EXPECT_THROW(folder.Open(Path("no-such-folder")), pnl_err::Error);
  folder.Open(dir_);
  EXPECT_TRUE(folder.IsOpen());
  EXPECT_EQ(folder.Path(), dir_);
  EXPECT_NO_THROW(folder.Sync());
  pnl_file::safe::Folder moved(std::move(folder));
  EXPECT_TRUE(moved.IsOpen());
  EXPECT_FALSE(folder.IsOpen());
}

TEST_F(FileTest, WriteFileReplacesAtomicallyKeepingMode) {
  Write("a", "old\n");
  ASSERT_EQ(::chmod(Path("a").c_str(), 0600), 0);
  const pnl_file::FileId original = pnl_file::StatFile(Path("a"));
  auto ops = std::make_shared<ScriptedOps>();
  pnl_file::ScopedOps scoped(ops);
  pnl_file::safe::Folder folder;
  const pnl_file::FileId id = pnl_file::safe::WriteFile(folder, Path("a"), "new content\n", &original);
  EXPECT_EQ(Read("a"), "new content\n");
  EXPECT_TRUE(id.SameContent(pnl_file::StatFile(Path("a"))));
  EXPECT_NE(id.ino, original.ino);
  struct stat st;
  ASSERT_EQ(::stat(Path("a").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(ops->fsyncs, 2);  // the file, then its folder
  EXPECT_EQ(ops->renames, 1);
  EXPECT_EQ(ops->chowns, 0);  // same owner: nothing to change
  EXPECT_TRUE(folder.IsOpen());
  EXPECT_EQ(Entries(), (std::vector<std::string>{"a"}));
}

// A temporary file as a killed save leaves it, seconds_old seconds ago.
void LeaveTemp(const std::string& path, int seconds_old) {
  std::ofstream(path, std::ios::binary) << "half";
  const struct timespec times[2] = {{::time(nullptr) - seconds_old, 0},
                                    {::time(nullptr) - seconds_old, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(FileTest, ASaveRemovesTheTemporaryFilesOfKilledSavesOnly) {
  Write("a", "old\n");
  Write("b", "other\n");
  LeaveTemp(Path(".a.Xy12zQ"), 60);   // a killed save's: removed
  LeaveTemp(Path(".a.live01"), 60);   // a live save holds it: stays
  LeaveTemp(Path(".a.fresh1"), 0);    // just made, maybe not locked yet: stays
  LeaveTemp(Path(".b.Xy12zQ"), 60);   // another file's: stays
  LeaveTemp(Path(".a.Xy12zQ7"), 60);  // not a temporary name: stays
  const int held = ::open(Path(".a.live01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  pnl_file::safe::Folder folder;
  pnl_file::safe::WriteFile(folder, Path("a"), "new\n", nullptr);
  ::close(held);
  EXPECT_EQ(Read("a"), "new\n");
  EXPECT_EQ(Entries(), (std::vector<std::string>{".a.Xy12zQ7", ".a.fresh1", ".a.live01", ".b.Xy12zQ",
                                                 "a", "b"}));
}

TEST_F(FileTest, WriteFileGivesTheOriginalsOwner) {
  Write("a", "old\n");
  pnl_file::FileId original = pnl_file::StatFile(Path("a"));
  original.gid += 1;  // as if the file belonged to another group
  auto ops = std::make_shared<ScriptedOps>();
  ops->fail = "fchown";
  ops->err = EPERM;
  pnl_file::ScopedOps scoped(ops);
  pnl_file::safe::Folder folder;
  EXPECT_THROW(pnl_file::safe::WriteFile(folder, Path("a"), "new\n", &original), pnl_err::Error);
  EXPECT_EQ(ops->chowns, 1);
  EXPECT_EQ(Read("a"), "old\n");
  EXPECT_EQ(Entries(), (std::vector<std::string>{"a"}));
}

TEST_F(FileTest, NewFileGetsMode0644WhateverTheUmask) {
  const mode_t old = ::umask(077);
  pnl_file::safe::Folder folder;
  pnl_file::safe::WriteFile(folder, Path("b"), "", nullptr);
  ::umask(old);
  struct stat st;
  ASSERT_EQ(::stat(Path("b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(Read("b"), "");
}

TEST_F(FileTest, EveryFailedStepLeavesTheOriginalAndNoTemporaryFile) {
  for (const char* step : {"mktemp", "write", "fchmod", "fsync", "close", "rename"}) {
    Write("a", "old\n");
    const pnl_file::FileId original = pnl_file::StatFile(Path("a"));
    auto ops = std::make_shared<ScriptedOps>();
    ops->fail = step;
    ops->err = ENOSPC;
    pnl_file::ScopedOps scoped(ops);
    pnl_file::safe::Folder folder;
    try {
      pnl_file::safe::WriteFile(folder, Path("a"), "new content\n", &original);
      ADD_FAILURE() << step << " did not fail the save";
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kFile) << step;
      EXPECT_EQ(e.object(), Path("a")) << step;
      EXPECT_NE(std::string(e.what()).find("No space left on device"), std::string::npos) << e.what();
    }
    EXPECT_EQ(Read("a"), "old\n") << step;
    EXPECT_EQ(Entries(), (std::vector<std::string>{"a"})) << step;
  }
}

TEST_F(FileTest, FailedFolderSyncSaysTheContentIsInPlace) {
  Write("a", "old\n");
  auto ops = std::make_shared<ScriptedOps>();
  ops->fail = "folder-sync";
  pnl_file::ScopedOps scoped(ops);
  pnl_file::safe::Folder folder;
  try {
    pnl_file::safe::WriteFile(folder, Path("a"), "new\n", nullptr);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(std::string(e.what()), Path("a") + ": saved, but cannot flush folder: Input/output error");
  }
  EXPECT_EQ(Read("a"), "new\n");
}

TEST_F(FileTest, ScopedOpsPutsThePreviousOpsBack) {
  auto before = pnl_file::CurrentOps();
  {
    auto mine = std::make_shared<ScriptedOps>();
    pnl_file::ScopedOps scoped(mine);
    EXPECT_EQ(pnl_file::CurrentOps(), mine);
  }
  EXPECT_EQ(pnl_file::CurrentOps(), before);
}

TEST_F(FileTest, ReplacingThroughASymbolicLinkKeepsTheLink) {
  std::filesystem::create_directories(Path("real"));
  Write("real/aliases", "old\n");
  std::filesystem::create_symlink("real/aliases", Path("aliases"));
  pnl_file::safe::Folder folder;
  const pnl_file::FileId original = pnl_file::StatFile(Path("aliases"));
  pnl_file::safe::WriteFile(folder, Path("aliases"), "new\n", &original);
  EXPECT_TRUE(std::filesystem::is_symlink(Path("aliases")));
  EXPECT_EQ(Read("real/aliases"), "new\n");
  EXPECT_EQ(Read("aliases"), "new\n");
  EXPECT_EQ(folder.Path(), Path("real"));
  EXPECT_EQ(Entries(), (std::vector<std::string>{"aliases", "real"}));
  std::vector<std::string> inside;
  for (const auto& e : std::filesystem::directory_iterator(Path("real"))) inside.push_back(e.path().filename().string());
  EXPECT_EQ(inside, (std::vector<std::string>{"aliases"}));
}

namespace {

// Records every write (where its bytes came from and how many) and writes
// at most `most` bytes a call.
class RecordingOps : public pnl_file::Ops {
 public:
  struct Call {
    const char* data;
    std::size_t size;
  };
  std::size_t most = static_cast<std::size_t>(-1);
  std::vector<Call> calls;
  int Write(int fd, const char* data, std::size_t size, std::size_t& written) override {
    calls.push_back(Call{data, size});
    return pnl_file::Ops::Write(fd, data, size > most ? most : size, written);
  }
};

}  // namespace

TEST_F(FileTest, PiecesAreWrittenInOrderLargeOnesFromWhereTheyLie) {
  const std::string big(200 * 1024, 'x');
  std::vector<std::string> small;
  for (int i = 0; i < 5000; ++i) small.push_back("line " + std::to_string(i) + "\n");
  std::vector<std::string_view> pieces;
  std::string expected;
  for (const std::string& s : small) {
    pieces.push_back(s);
    expected += s;
  }
  pieces.push_back(big);
  expected += big;
  pieces.push_back("last\n");
  expected += "last\n";
  auto ops = std::make_shared<RecordingOps>();
  pnl_file::ScopedOps scoped(ops);
  pnl_file::safe::Folder folder;
  pnl_file::safe::WriteFile(folder, Path("a"), pieces, nullptr);
  EXPECT_EQ(Read("a"), expected);
  // The 5000 short pieces went out gathered, the large one as it lies.
  ASSERT_EQ(ops->calls.size(), 3u);
  EXPECT_EQ(ops->calls[0].size, expected.size() - big.size() - 5);
  EXPECT_EQ(ops->calls[1].data, big.data());
  EXPECT_EQ(ops->calls[2].size, 5u);
}

TEST_F(FileTest, ShortWritesOfPiecesAreCompleted) {
  auto ops = std::make_shared<RecordingOps>();
  ops->most = 7;
  pnl_file::ScopedOps scoped(ops);
  const std::string big(100 * 1024, 'y');
  pnl_file::safe::Folder folder;
  pnl_file::safe::WriteFile(folder, Path("a"), std::vector<std::string_view>{"head\n", big, "", "tail\n"}, nullptr);
  EXPECT_EQ(Read("a"), "head\n" + big + "tail\n");
}

TEST_F(FileTest, FailedWriteOfPiecesLeavesTheOriginalAndNoTemporaryFile) {
  Write("a", "old\n");
  const pnl_file::FileId original = pnl_file::StatFile(Path("a"));
  auto ops = std::make_shared<ScriptedOps>();
  ops->fail = "write";
  ops->err = ENOSPC;
  pnl_file::ScopedOps scoped(ops);
  pnl_file::safe::Folder folder;
  const std::string big(100 * 1024, 'z');
  EXPECT_THROW(pnl_file::safe::WriteFile(folder, Path("a"), std::vector<std::string_view>{"new\n", big}, &original),
               pnl_err::Error);
  EXPECT_EQ(Read("a"), "old\n");
  EXPECT_EQ(Entries(), (std::vector<std::string>{"a"}));
}

TEST_F(FileTest, ASaveFlushedLaterReplacesTheFileWithoutWaitingForTheDisk) {
  Write("a", "old\n");
  auto ops = std::make_shared<zeltest::FlushCountingOps>();
  pnl_file::ScopedOps scoped(ops);
  pnl_file::safe::Folder folder;
  pnl_file::safe::WriteFile(folder, Path("a"), "new\n", nullptr);
  EXPECT_EQ(ops->fsyncs, 2);  // the file, then its folder
  for (int i = 0; i < 10; ++i)
    pnl_file::safe::WriteFile(folder, Path("b" + std::to_string(i)), "x\n", nullptr,
                              pnl_file::safe::Flush::kLater);
  EXPECT_EQ(ops->fsyncs, 2);
  EXPECT_EQ(Read("b9"), "x\n");
  pnl_file::safe::FlushFileSystem(Path("b9"));
  EXPECT_EQ(ops->syncfs, 1);
  EXPECT_THROW(pnl_file::safe::FlushFileSystem(Path("missing/x")), pnl_err::Error);
}

TEST_F(FileTest, CloseToOthersTakesAwayOnlyTheAccessOfOthers) {
  Write("open", "x\n");
  ::chmod(Path("open").c_str(), 0664);
  unsigned old_mode = 0;
  EXPECT_TRUE(pnl_file::CloseToOthers(Path("open"), &old_mode));
  EXPECT_EQ(old_mode, 0664u);
  EXPECT_EQ(pnl_file::StatFile(Path("open")).mode, 0660u);
  EXPECT_FALSE(pnl_file::CloseToOthers(Path("open")));
  EXPECT_FALSE(pnl_file::CloseToOthers(Path("missing")));
}

TEST_F(FileTest, WriteNewFileMakesTheFileWithExactlyItsMode) {
  const mode_t old_umask = ::umask(077);
  pnl_file::WriteNewFile(Path("conf"), "a = 1\n", 0640);
  ::umask(old_umask);
  EXPECT_EQ(Read("conf"), "a = 1\n");
  EXPECT_EQ(pnl_file::StatFile(Path("conf")).mode, 0640u);
}

TEST_F(FileTest, WriteNewFileNeverReplacesOrFollowsWhatIsThere) {
  Write("kept", "old\n");
  Write("target", "target\n");
  ASSERT_EQ(::symlink(Path("target").c_str(), Path("link").c_str()), 0);
  for (const char* name : {"kept", "link"}) {
    try {
      pnl_file::WriteNewFile(Path(name), "new\n", 0644);
      ADD_FAILURE() << name << " was written";
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kFile);
      EXPECT_EQ(e.object(), Path(name));
    }
  }
  EXPECT_EQ(Read("kept"), "old\n");
  EXPECT_EQ(Read("target"), "target\n");
}

TEST_F(FileTest, WriteNewFileCompletesShortWritesAndRemovesAFileItCouldNotWrite) {
  auto ops = std::make_shared<ScriptedOps>();
  {
    pnl_file::ScopedOps scoped(ops);
    pnl_file::WriteNewFile(Path("short"), "longer than three bytes\n", 0600);
  }
  EXPECT_EQ(Read("short"), "longer than three bytes\n");
  for (const char* step : {"write", "fchmod", "close"}) {
    ops->fail = step;
    pnl_file::ScopedOps scoped(ops);
    EXPECT_THROW(pnl_file::WriteNewFile(Path(step), "text\n", 0600), pnl_err::Error) << step;
    EXPECT_FALSE(std::filesystem::exists(Path(step))) << step;
  }
}

TEST_F(FileTest, GiveToSetsTheModeAndTheOwnerWhenRootAsks) {
  Write("given", "x\n");
  pnl_file::GiveTo(Path("given"), 8, 8, 0640);
  const pnl_file::FileId id = pnl_file::StatFile(Path("given"));
  EXPECT_EQ(id.mode, 0640u);
  if (::geteuid() == 0) {
    EXPECT_EQ(id.uid, 8u);
  }
  try {
    pnl_file::GiveTo(Path("missing"), 8, 8, 0640);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kFile);
    EXPECT_EQ(e.object(), Path("missing"));
  }
}
