// The mailboxes' mail on disk: what a delete does with it, and what it
// takes.
#include "mailstore/maildirs.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "zelapi/err.h"

namespace fs = std::filesystem;

namespace {

class MaildirsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::string(ZEL_TEST_SCRATCH) + "/maildirs/" +
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_ + "/mail");
    maildirs_ = std::make_unique<mailstore::Maildirs>(dir_ + "/mail", dir_ + "/archive");
  }
  // A message of size bytes in the mailbox's Maildir.
  void Message(const std::string& domain, const std::string& local, const std::string& name,
               size_t size) {
    const std::string folder = dir_ + "/mail/" + domain + "/" + local + "/Maildir/cur";
    fs::create_directories(folder);
    std::ofstream(folder + "/" + name) << std::string(size, 'x');
  }
  std::string dir_;
  std::unique_ptr<mailstore::Maildirs> maildirs_;
};

}  // namespace

TEST_F(MaildirsTest, UsageIsTheBytesOfTheMailboxsFiles) {
  EXPECT_EQ(maildirs_->Usage("d.example", "l"), 0u);
  Message("d.example", "l", "1", 100);
  Message("d.example", "l", "2", 23);
  Message("d.example", "other", "1", 5000);
  // The mail store's own files beside the messages count nothing.
  std::ofstream(dir_ + "/mail/d.example/l/Maildir/dovecot.index.log") << std::string(999, 'i');
  EXPECT_EQ(maildirs_->Usage("d.example", "l"), 123u);
}

TEST_F(MaildirsTest, AnArchivedMailboxsMailMovesAsideWithItsTimeAndTheAddressStartsEmpty) {
  Message("d.example", "l", "1", 10);
  const std::string to = maildirs_->Dispose("d.example", "l", mailstore::Disposal::kArchive);
  ASSERT_EQ(to.rfind(dir_ + "/archive/d.example/l.", 0), 0u) << to;
  EXPECT_TRUE(fs::exists(to + "/Maildir/cur/1"));
  EXPECT_FALSE(fs::exists(dir_ + "/mail/d.example/l"));
  EXPECT_EQ(maildirs_->Usage("d.example", "l"), 0u);
  // A second archive of the same address in the same second keeps both.
  Message("d.example", "l", "2", 10);
  const std::string again = maildirs_->Dispose("d.example", "l", mailstore::Disposal::kArchive);
  EXPECT_NE(again, to);
  EXPECT_TRUE(fs::exists(again + "/Maildir/cur/2"));
  EXPECT_TRUE(fs::exists(to + "/Maildir/cur/1"));
}

TEST_F(MaildirsTest, ADeletedMailboxsMailIsGoneAndNothingElse) {
  Message("d.example", "l", "1", 10);
  Message("d.example", "m", "1", 10);
  EXPECT_EQ(maildirs_->Dispose("d.example", "l", mailstore::Disposal::kDelete), "");
  EXPECT_FALSE(fs::exists(dir_ + "/mail/d.example/l"));
  EXPECT_TRUE(fs::exists(dir_ + "/mail/d.example/m/Maildir/cur/1"));
  EXPECT_FALSE(fs::exists(dir_ + "/archive"));
}

TEST_F(MaildirsTest, ADomainsMailGoesWhole) {
  Message("d.example", "l", "1", 10);
  Message("d.example", "m", "1", 10);
  const std::string to = maildirs_->DisposeDomain("d.example", mailstore::Disposal::kArchive);
  EXPECT_TRUE(fs::exists(to + "/l/Maildir/cur/1"));
  EXPECT_TRUE(fs::exists(to + "/m/Maildir/cur/1"));
  EXPECT_FALSE(fs::exists(dir_ + "/mail/d.example"));
}

TEST_F(MaildirsTest, AMailboxWithoutMailHasNothingToDispose) {
  EXPECT_EQ(maildirs_->Dispose("d.example", "l", mailstore::Disposal::kArchive), "");
  EXPECT_FALSE(fs::exists(dir_ + "/archive"));
}

TEST_F(MaildirsTest, ANameThatWouldLeaveTheRootIsRefused) {
  fs::create_directories(dir_ + "/kept");
  for (const char* bad : {"", ".", "..", "a/b", "../kept"}) {
    try {
      maildirs_->Dispose("d.example", bad, mailstore::Disposal::kDelete);
      ADD_FAILURE() << bad;
    } catch (const pnl_err::Error& e) {
      EXPECT_EQ(e.kind(), pnl_err::Kind::kRow) << bad;
    }
    EXPECT_THROW(maildirs_->DisposeDomain(bad, mailstore::Disposal::kDelete), pnl_err::Error) << bad;
  }
  EXPECT_TRUE(fs::exists(dir_ + "/kept"));
  EXPECT_TRUE(fs::exists(dir_ + "/mail"));
}

TEST(MaildirsWithoutRootTest, ASetUpWithoutAMailRootKeepsNoMail) {
  const mailstore::Maildirs none("", "");
  EXPECT_FALSE(none.Kept());
  EXPECT_EQ(none.Usage("d.example", "l"), 0u);
  EXPECT_EQ(none.Dispose("d.example", "l", mailstore::Disposal::kDelete), "");
}
