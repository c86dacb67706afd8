// Faults injected through the platform's file-system seam (pnl_file::Ops)
// into saves of the four files through their record views: a full disk at
// the first or a later write, a failing flush, a failing rename, a file
// that cannot be opened for reading. Each edit throws pnl_err::Error of
// type "file" naming the file, the step and the cause; the file keeps its
// bytes, no temporary file is left, and the same edit goes through once the
// fault is gone.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "email/file_views.h"
#include "email/tables.h"
#include "sandbox.h"
#include "zelapi/err.h"
#include "zelapi/file.h"

namespace fs = std::filesystem;

namespace {

// Ops that fail one call for paths that hold a word, and pass the rest on.
class FaultyOps : public pnl_file::Ops {
 public:
  enum class Call { kWrite, kFsync, kRename, kOpenForReading };
  FaultyOps(Call call, int err, int pass_first = 0)
      : call_(call), err_(err), pass_first_(pass_first) {}

  int Open(const std::string& path, int flags, unsigned mode, int& fd) override {
    if (call_ == Call::kOpenForReading && (flags & O_ACCMODE) == O_RDONLY &&
        !(flags & O_DIRECTORY) && Hit())
      return err_;
    return Ops::Open(path, flags, mode, fd);
  }
  int Write(int fd, const char* data, std::size_t size, std::size_t& written) override {
    if (call_ == Call::kWrite && Hit()) return err_;
    // Short writes, so that a later write can be the one that fails.
    return Ops::Write(fd, data, std::min<std::size_t>(size, 16), written);
  }
  int Fsync(int fd) override {
    if (call_ == Call::kFsync && Hit()) return err_;
    return Ops::Fsync(fd);
  }
  int Rename(const std::string& from, const std::string& to) override {
    if (call_ == Call::kRename && Hit()) return err_;
    return Ops::Rename(from, to);
  }

 private:
  bool Hit() { return pass_first_-- <= 0; }

  Call call_;
  int err_;
  int pass_first_;
};

struct Edit {
  std::string file;
  std::function<void(const std::string& path)> run;
};

// One edit of each file through its view (no rebuild step is installed here).
const std::vector<Edit> kEdits = {
    {"local-host-names",
     [](const std::string& path) {
       auto hosts = email::LocalHostNames::Get<email::HostNames>(path, true);
       hosts->Create("new.example");
       hosts->Post("");
     }},
    {"virtusertable",
     [](const std::string& path) {
       auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(path, true);
       lines->Create("n@d.example");
       lines->target = "n+d.example";
       lines->Post("");
     }},
    {"aliases",
     [](const std::string& path) {
       auto entry = email::AliasTable::Get<email::Aliases>(path, true);
       entry->Assert("l+d.example");
       entry->alias.Append("g@x.example");
       entry->Post("");
     }},
    {"access",
     [](const std::string& path) {
       auto access = email::AccessDb::Get<email::SourceTarget>(path, true);
       access->Assert("spam.example");
       access->Delete();
     }},
};

const std::map<std::string, std::string> kFiles = {
    {"local-host-names", "# hosts\nd.example\n"},
    {"virtusertable", "@d.example\terror:nouser No such user here\nl@d.example\tl+d.example\n"},
    {"aliases", "devnull:\t\"/dev/null\"\nl+d.example:\tf@x.example, l\\@d.example\n"},
    {"access", "Connect:192.0.2.1\tOK\nspam.example\tREJECT\n"},
};

class SeamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& [name, text] : kFiles) box_.Write(name, text);
  }

  // Runs every edit under ops: each must throw a "file" error whose text
  // holds the file's path and expected, leave the file as it was and no
  // temporary file; then the edit succeeds without the fault.
  void ExpectEveryEditFails(const std::function<std::shared_ptr<FaultyOps>()>& make_ops,
                            const std::string& expected) {
    for (const Edit& edit : kEdits) {
      const std::string path = box_.Path(edit.file);
      {
        pnl_file::ScopedOps faulty(make_ops());
        try {
          edit.run(path);
          ADD_FAILURE() << edit.file << ": the edit went through despite the fault";
        } catch (const pnl_err::Error& e) {
          EXPECT_EQ(e.kind(), pnl_err::Kind::kFile) << e.what();
          EXPECT_EQ(e.object(), path) << e.what();
          EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
        }
      }
      EXPECT_EQ(box_.Read(edit.file), kFiles.at(edit.file)) << edit.file;
      for (const auto& entry : fs::directory_iterator(box_.dir()))
        EXPECT_NE(entry.path().filename().string()[0], '.') << edit.file << " left " << entry.path();
      ASSERT_NO_THROW(edit.run(path)) << edit.file;
      EXPECT_NE(box_.Read(edit.file), kFiles.at(edit.file)) << edit.file;
    }
  }

  zeltest::Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

}  // namespace

TEST_F(SeamTest, AFullDiskAtTheFirstWriteKeepsEveryFile) {
  ExpectEveryEditFails([] { return std::make_shared<FaultyOps>(FaultyOps::Call::kWrite, ENOSPC); },
                       "cannot write temporary file");
}

TEST_F(SeamTest, AFullDiskAtALaterWriteKeepsEveryFile) {
  ExpectEveryEditFails(
      [] { return std::make_shared<FaultyOps>(FaultyOps::Call::kWrite, ENOSPC, 1); },
      ": No space left on device");
}

TEST_F(SeamTest, AFailingFlushKeepsEveryFile) {
  ExpectEveryEditFails([] { return std::make_shared<FaultyOps>(FaultyOps::Call::kFsync, EIO); },
                       "cannot flush temporary file");
}

TEST_F(SeamTest, AFailingRenameKeepsEveryFile) {
  ExpectEveryEditFails([] { return std::make_shared<FaultyOps>(FaultyOps::Call::kRename, EXDEV); },
                       "Invalid cross-device link");
}

TEST_F(SeamTest, AFileThatCannotBeOpenedForReadingIsNamedWithTheCause) {
  ExpectEveryEditFails(
      [] { return std::make_shared<FaultyOps>(FaultyOps::Call::kOpenForReading, EACCES); },
      "cannot open for reading: Permission denied");
}
