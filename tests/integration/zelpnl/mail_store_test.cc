// zelpnl and the mailboxes' stored mail: a delete archives it (or removes
// it) once the lines are gone, and a re-added address starts empty.
#include <filesystem>
#include <fstream>

#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

namespace fs = std::filesystem;

namespace {

class ZelpnlMailStoreTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    MakeDomainWithMailbox();
  }
  std::string Home(const std::string& local) { return Path("mail/d.example/" + local); }
  void Message(const std::string& local, const std::string& name) {
    fs::create_directories(Home(local) + "/Maildir/new");
    std::ofstream(Home(local) + "/Maildir/new/" + name) << "Subject: " << name << "\n\nbody\n";
  }
  // The archived homes of the address, by name.
  std::vector<std::string> Archived(const std::string& local) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(Path("mail-archive/d.example"), ec))
      if (e.path().filename().string().rfind(local + ".", 0) == 0)
        out.push_back(e.path().string());
    return out;
  }
};

}  // namespace

TEST_F(ZelpnlMailStoreTest, ADeletedMailboxsMailIsArchivedAndTheReaddedAddressStartsEmpty) {
  Message("l", "old-message");
  Ok({"mail", "box", "delete", "l@d.example"});
  EXPECT_FALSE(fs::exists(Home("l")));
  const std::vector<std::string> archived = Archived("l");
  ASSERT_EQ(archived.size(), 1u);
  EXPECT_TRUE(fs::exists(archived[0] + "/Maildir/new/old-message"));
  EXPECT_NE(File("zelpnl.log").find("its mail is archived in " + archived[0]), std::string::npos);

  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(Json({"mail", "box", "show", "l@d.example"})["mailbox"]["usage"], 0);
  EXPECT_FALSE(fs::exists(Home("l") + "/Maildir/new/old-message"));
}

TEST_F(ZelpnlMailStoreTest, DeleteWithMailDeleteRemovesTheMail) {
  Message("l", "old-message");
  Ok({"mail", "box", "delete", "l@d.example", "--mail", "delete"});
  EXPECT_FALSE(fs::exists(Home("l")));
  EXPECT_TRUE(Archived("l").empty());
}

TEST_F(ZelpnlMailStoreTest, MailAnEarlierMailboxLeftIsArchivedBeforeTheAddressIsAddedAgain) {
  // As if an earlier delete could not move it.
  Ok({"mail", "box", "delete", "l@d.example", "--mail", "delete"});
  Message("l", "left-behind");
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_FALSE(fs::exists(Home("l") + "/Maildir/new/left-behind"));
  ASSERT_EQ(Archived("l").size(), 1u);
  EXPECT_TRUE(fs::exists(Archived("l")[0] + "/Maildir/new/left-behind"));
}

TEST_F(ZelpnlMailStoreTest, ADeletedDomainsMailIsArchivedWhole) {
  Ok({"mail", "box", "add", "m@d.example"});
  Message("l", "one");
  Message("m", "two");
  Ok({"mail", "domain", "delete", "d.example"});
  EXPECT_FALSE(fs::exists(Path("mail/d.example")));
  std::vector<std::string> archived;
  for (const auto& e : fs::directory_iterator(Path("mail-archive")))
    archived.push_back(e.path().string());
  ASSERT_EQ(archived.size(), 1u);
  EXPECT_TRUE(fs::exists(archived[0] + "/l/Maildir/new/one"));
  EXPECT_TRUE(fs::exists(archived[0] + "/m/Maildir/new/two"));
}

TEST_F(ZelpnlMailStoreTest, ARefusedDeleteLeavesTheMailWhereItIs) {
  Message("l", "kept");
  const zeltest::Result run = Zel({"mail", "box", "delete", "l@d.example", "--mail", "shred"});
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(fs::exists(Home("l") + "/Maildir/new/kept"));
}

TEST_F(ZelpnlMailStoreTest, ShowTellsTheBytesTheMailboxStores) {
  Message("l", "a");
  const auto doc = Json({"mail", "box", "show", "l@d.example"});
  EXPECT_EQ(doc["mailbox"]["usage"], fs::file_size(Home("l") + "/Maildir/new/a"));
}
