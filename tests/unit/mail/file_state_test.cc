// zel_db::FileIsChanged: one answer per path and request, remembered when the
// request ends, across requests, reopened databases and processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "mail_fixture.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/tables.h"

using mailtest::MailTest;

namespace {

// Sets the file's modification time to sec.nsec.
void SetMtime(const std::string& path, time_t sec, long nsec) {
  struct timespec times[2];
  times[0].tv_sec = sec;
  times[0].tv_nsec = nsec;
  times[1] = times[0];
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

struct timespec Mtime(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0);
  return st.st_mtim;
}

}  // namespace

class FileStateTest : public MailTest {
 protected:
  void SetUp() override {
    MailTest::SetUp();
    path_ = sandbox_.Path("virtusertable");
    zeltest::WriteFile(path_, "info@example.com info+example.com\n");
    SetMtime(path_, 1700000000, 123456789);
  }

  bool Changed() {
    std::string stamp;
    return zel_db::FileIsChanged(path_, stamp);
  }

  // One request around one question.
  bool ChangedInARequest() {
    pnl_db::Request request(*cache_);
    const bool changed = Changed();
    request.End();
    return changed;
  }

  std::string path_;
};

TEST_F(FileStateTest, TheFirstCallReportsTheFileChanged) {
  EXPECT_TRUE(ChangedInARequest());
}

TEST_F(FileStateTest, TheStampDescribesTheFileToTheNanosecond) {
  std::string stamp;
  zel_db::FileIsChanged(path_, stamp);
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(stamp.rfind("dev=" + std::to_string(st.st_dev) + " ino=" + std::to_string(st.st_ino) +
                            " size=34 mtime=1700000000.123456789 hash=",
                        0),
            0u)
      << stamp;
  EXPECT_EQ(stamp, zel_db::FileState(path_));
}

TEST_F(FileStateTest, EveryCallOfOneRequestGivesTheFirstCallsAnswer) {
  pnl_db::Request request(*cache_);
  EXPECT_TRUE(Changed());
  EXPECT_TRUE(Changed());  // the second cache pass of the request reads it too
  request.End();
  pnl_db::Request next(*cache_);
  EXPECT_FALSE(Changed());
  zeltest::WriteFile(path_, "changed within the request\n");
  EXPECT_FALSE(Changed());  // still the request's first answer
  next.End();
  EXPECT_TRUE(ChangedInARequest());  // the next request sees the edit
}

TEST_F(FileStateTest, TheStateIsRememberedOnlyWhenTheRequestEnds) {
  cache_->BeginRequest();
  EXPECT_TRUE(Changed());
  EXPECT_EQ(Count("file_state"), 0);
  cache_->EndRequest();
  EXPECT_EQ(Count("file_state"), 1);
  EXPECT_EQ(cache_->Query("SELECT state FROM file_state WHERE path = ?", {path_}).Str(),
            zel_db::FileState(path_));
}

TEST_F(FileStateTest, AnUnchangedFileIsReportedUnchangedInTheNextRequests) {
  EXPECT_TRUE(ChangedInARequest());
  EXPECT_FALSE(ChangedInARequest());
  EXPECT_FALSE(ChangedInARequest());
}

TEST_F(FileStateTest, ATouchIsAChange) {
  EXPECT_TRUE(ChangedInARequest());
  SetMtime(path_, 1700000000, 123456790);  // one nanosecond later
  EXPECT_TRUE(ChangedInARequest());
  EXPECT_FALSE(ChangedInARequest());
}

TEST_F(FileStateTest, AnEditOfTheSameSizeAndTimeIsFoundByTheContentHash) {
  EXPECT_TRUE(ChangedInARequest());
  const struct timespec before = Mtime(path_);
  zeltest::WriteFile(path_, "sale@example.com sale+example.com\n");  // same length
  SetMtime(path_, before.tv_sec, before.tv_nsec);
  EXPECT_TRUE(ChangedInARequest());
}

TEST_F(FileStateTest, AMissingFileHasTheStateMissing) {
  const std::string missing = sandbox_.Path("no-such-file");
  std::string stamp;
  {
    pnl_db::Request request(*cache_);
    EXPECT_TRUE(zel_db::FileIsChanged(missing, stamp));  // first call
    EXPECT_EQ(stamp, "missing");
  }
  {
    pnl_db::Request request(*cache_);
    EXPECT_FALSE(zel_db::FileIsChanged(missing, stamp));  // still missing
  }
  zeltest::WriteFile(missing, "now here\n");
  {
    pnl_db::Request request(*cache_);
    EXPECT_TRUE(zel_db::FileIsChanged(missing, stamp));
  }
  ASSERT_EQ(unlink(missing.c_str()), 0);
  {
    pnl_db::Request request(*cache_);
    EXPECT_TRUE(zel_db::FileIsChanged(missing, stamp));
    EXPECT_EQ(stamp, "missing");
  }
}

TEST_F(FileStateTest, AFileThatExistsButCannotBeReadIsAnError) {
  std::string stamp;
  pnl_err::Error e = mailtest::ErrorOf([&] { zel_db::FileIsChanged(sandbox_.dir(), stamp); });
  EXPECT_EQ(e.kind(), pnl_err::Kind::kFile);
  EXPECT_EQ(e.object(), sandbox_.dir());
  EXPECT_EQ(Count("file_state"), 0);
}

TEST_F(FileStateTest, OutsideARequestTheStateIsRememberedAtOnce) {
  EXPECT_TRUE(Changed());
  EXPECT_EQ(Count("file_state"), 1);
  EXPECT_FALSE(Changed());
}

TEST_F(FileStateTest, ARolledBackRequestForgetsWhatItSaw) {
  cache_->BeginRequest();
  EXPECT_TRUE(Changed());
  cache_->Rollback();
  EXPECT_TRUE(ChangedInARequest());
}

TEST_F(FileStateTest, TheStateSurvivesReopeningTheDatabase) {
  EXPECT_TRUE(ChangedInARequest());
  zel_db::CloseCache();
  zel_db::OpenCache(file_);
  cache_ = zel_db::GetCache();
  EXPECT_FALSE(ChangedInARequest());
}

TEST_F(FileStateTest, ForgettingAFileMakesTheNextCallReportItChanged) {
  EXPECT_TRUE(ChangedInARequest());
  zel_db::ForgetFileState(path_);
  EXPECT_TRUE(ChangedInARequest());
  pnl_db::Request request(*cache_);
  EXPECT_FALSE(Changed());
  zel_db::ForgetFileState(path_);  // also within a request
  EXPECT_TRUE(Changed());
}

TEST_F(FileStateTest, PathsAreRememberedEachOnItsOwn) {
  const std::string other = sandbox_.Path("aliases");
  zeltest::WriteFile(other, "devnull: /dev/null\n");
  std::string stamp;
  EXPECT_TRUE(ChangedInARequest());
  pnl_db::Request request(*cache_);
  EXPECT_TRUE(zel_db::FileIsChanged(other, stamp));
  EXPECT_FALSE(Changed());
}

TEST_F(FileStateTest, AnotherProcessSeesTheStateAndItsChanges) {
  EXPECT_TRUE(ChangedInARequest());
  zel_db::CloseCache();  // no connection is carried into the child

  auto ask = [&]() -> int {
    const pid_t pid = fork();
    if (pid == 0) {
      int code = 2;
      try {
        zel_db::OpenCache(file_);
        pnl_db::Request request(*zel_db::GetCache());
        std::string stamp;
        const bool first = zel_db::FileIsChanged(path_, stamp);
        const bool second = zel_db::FileIsChanged(path_, stamp);
        request.End();
        code = first != second ? 3 : first ? 1 : 0;
        zel_db::CloseCache();
      } catch (...) {
        code = 4;
      }
      _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };

  EXPECT_EQ(ask(), 0);  // unchanged since this process looked
  SetMtime(path_, 1700000001, 0);
  EXPECT_EQ(ask(), 1);  // the child sees the touch...
  zel_db::OpenCache(file_);
  cache_ = zel_db::GetCache();
  EXPECT_FALSE(ChangedInARequest());  // ...and remembered it for this process too
}
