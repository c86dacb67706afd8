// A file that cannot be read, a file that is missing, a full disk and a
// rebuild command that fails, met by the built zelpnl: the command fails
// with a message naming the file and the cause, every line the files held
// before is still there byte for byte, no temporary file is left, and the
// database holds nothing the files do not back.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "faults_support.h"

namespace fs = std::filesystem;
using zelfaults::Panel;

namespace {

class FileFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    panel_.Ok({"webdomain", "add", "d.example", "--owner", "admin"});
    panel_.Ok({"webdomain", "add", "e.example", "--owner", "admin"});
    panel_.Ok({"mail", "domain", "add", "d.example"});
    panel_.Ok({"mail", "box", "add", "l@d.example", "--alias", "a", "--forward", "f@x.example"});
    panel_.Ok({"mail", "whitelist", "add", "192.0.2.1"});
  }

  // No line of any file was removed or changed since before, and no
  // temporary file of a save is left.
  void ExpectEarlierLinesKept(const std::map<std::string, std::string>& before,
                              const std::string& what) {
    const auto after = panel_.Files();
    for (const char* name : zelfaults::kMailFiles) {
      if (before.at(name) == "<missing>" || after.at(name) == "<missing>") continue;
      const auto diff = zelfaults::DiffLines(before.at(name), after.at(name));
      EXPECT_TRUE(diff.removed.empty())
          << what << ": " << name << " lost " << zelfaults::Show(diff.removed.front());
    }
    EXPECT_EQ(panel_.HiddenFiles(), std::vector<std::string>()) << what;
  }

  void SetConfig(const std::string& key, const std::string& value) const {
    std::string conf = panel_.Read("zelpnl.conf");
    const size_t at = conf.find("\n" + key + " = ");
    ASSERT_NE(at, std::string::npos) << key;
    const size_t end = conf.find('\n', at + 1);
    conf.replace(at + 1, end - at - 1, key + " = " + value);
    panel_.Write("zelpnl.conf", conf);
  }

  Panel panel_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

// A small tmpfs mounted for the test's life; Mounted() is false where the
// machine does not allow mounting.
class SmallDisk {
 public:
  SmallDisk(const std::string& dir, const std::string& size) : dir_(dir) {
    fs::create_directories(dir);
    mounted_ = ::mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size + ",mode=0755").c_str()) == 0;
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  bool Mounted() const { return mounted_; }

 private:
  std::string dir_;
  bool mounted_ = false;
};

}  // namespace

TEST_F(FileFaultsTest, AFileThatCannotBeReadFailsTheCommandByNameAndChangesNothing) {
  // As root every file can be opened; a folder in the file's place cannot be read.
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"virtusertable", {"mail", "box", "add", "n@d.example"}},
      {"aliases", {"mail", "box", "set", "l@d.example", "--forward", "g@x.example"}},
      {"access", {"mail", "blacklist", "add", "spam.example"}},
      {"local-host-names", {"mail", "domain", "add", "e.example"}},
  };
  for (const auto& [file, command] : cases) {
    const auto before = panel_.Files();
    const std::string rows = panel_.Rows();
    fs::rename(panel_.Path(file), panel_.Path(file + ".kept"));
    fs::create_directory(panel_.Path(file));
    const zelfaults::Result run = panel_.Zel(command);
    EXPECT_EQ(run.status, 1) << file;
    EXPECT_EQ(run.err, "error: " + panel_.Path(file) + ": cannot read: Is a directory\n") << file;
    fs::remove(panel_.Path(file));
    fs::rename(panel_.Path(file + ".kept"), panel_.Path(file));
    ExpectEarlierLinesKept(before, file);
    if (file != "local-host-names") {
      EXPECT_EQ(panel_.Files(), before) << file;
      EXPECT_EQ(panel_.Rows(), rows) << file;
    } else {
      // The catch-all line went in before local-host-names was met; the
      // domain's row was deleted again.
      EXPECT_EQ(panel_.Query("SELECT count(*) FROM email_domain WHERE name = 'e.example'"), "0\n");
    }
  }
}

TEST_F(FileFaultsTest, AMissingAccessMapIsMadeAnew) {
  fs::remove(panel_.Path("access"));
  panel_.Ok({"mail", "blacklist", "add", "spam.example"});
  EXPECT_EQ(panel_.Read("access"), "spam.example\tREJECT\n");
  // The whitelist is read back from the new map when it is listed.
  panel_.Ok({"mail", "whitelist", "list"});
  EXPECT_EQ(panel_.Query("SELECT sender FROM email_whitelist"), "");
}

// Rebuilt from a file made anew, the aliases map would lose every mailbox's
// entry at once, and sendmail would hand their local names to the system
// users of the same names: the command refuses and changes nothing.
TEST_F(FileFaultsTest, AVanishedAliasesFileIsNotMadeAnewWhileThePanelHasMailboxes) {
  const std::string map_before = panel_.Read("aliases.db");
  fs::remove(panel_.Path("aliases"));
  const auto run = panel_.Zel({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: " + panel_.Path("aliases") +
                ": is missing while the panel has 1 mailbox in it; it is not made anew "
                "(rebuilt from an empty file, its map would lose them all at once). Restore it "
                "from a backup; its map (the .db file beside it) still holds the entries, "
                "\"makemap -u hash FILE\" lists them.\n");
  EXPECT_FALSE(fs::exists(panel_.Path("aliases")));
  EXPECT_EQ(panel_.Read("aliases.db"), map_before);
  EXPECT_EQ(panel_.Query("SELECT name FROM email ORDER BY name"), "l\n");
}

TEST_F(FileFaultsTest, AVanishedVirtualUserTableIsNotMadeAnewWhileThePanelHasDomains) {
  fs::remove(panel_.Path("virtusertable"));
  const auto run = panel_.Zel({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find(panel_.Path("virtusertable") +
                         ": is missing while the panel has 1 mail domain in it"),
            std::string::npos)
      << run.err;
  EXPECT_FALSE(fs::exists(panel_.Path("virtusertable")));
}

TEST_F(FileFaultsTest, AFullDiskFailsTheSaveAndKeepsTheFileAsItWas) {
  const std::string disk = panel_.Path("disk");
  SmallDisk small(disk, "96k");
  if (!small.Mounted()) GTEST_SKIP() << "this machine does not allow mounting a tmpfs";
  for (const char* name : zelfaults::kMailFiles) {
    for (const std::string suffix : {"", ".db"}) {
      if (fs::exists(panel_.Path(name + suffix)))
        fs::copy_file(panel_.Path(name + suffix), disk + "/" + name + suffix);
    }
  }
  for (const auto& [key, file] : std::vector<std::pair<std::string, std::string>>{
           {"sendmail-virtusertable", "virtusertable"},
           {"sendmail-localhostnames", "local-host-names"},
           {"sendmail-accessdb", "access"},
           {"sendmail-aliases", "aliases"}})
    SetConfig(key, disk + "/" + file);
  SetConfig("sendmail-newaliases", "/usr/sbin/sendmail -bi -oA" + disk + "/aliases");
  panel_.Ok({"mail", "whitelist", "add", "192.0.2.2"});
  {
    // Fill the disk to the last byte.
    std::ofstream filler(disk + "/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), block.size())) {
    }
  }
  std::ofstream(disk + "/filler", std::ios::app).write("x", 1);
  const std::string access = zeltest::ReadFile(disk + "/access");
  const std::string rows = panel_.Rows();

  const zelfaults::Result run = panel_.Zel({"mail", "whitelist", "add", "192.0.2.3"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("error: " + disk + "/access: cannot write temporary file " + disk +
                              "/.access.",
                          0),
            0u)
      << run.err;
  EXPECT_NE(run.err.find(": No space left on device\n"), std::string::npos) << run.err;
  EXPECT_EQ(zeltest::ReadFile(disk + "/access"), access);
  EXPECT_EQ(panel_.Rows(), rows);
  for (const auto& e : fs::directory_iterator(disk))
    EXPECT_NE(e.path().filename().string()[0], '.') << "left " << e.path();

  // With room again, the same command goes through.
  fs::remove(disk + "/filler");
  panel_.Ok({"mail", "whitelist", "add", "192.0.2.3"});
  EXPECT_EQ(zeltest::ReadFile(disk + "/access"), access + "Connect:192.0.2.3\tOK\n");
}

TEST_F(FileFaultsTest, AFailingMakemapFailsTheCommandAndTheRowIsDeletedAgain) {
  const auto before = panel_.Files();
  fs::rename(panel_.Path("virtusertable.db"), panel_.Path("virtusertable.db.kept"));
  fs::create_directory(panel_.Path("virtusertable.db"));
  const zelfaults::Result run = panel_.Zel({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err.rfind("error: makemap: makemap: error opening type hash map " +
                              panel_.Path("virtusertable"),
                          0),
            0u)
      << run.err;
  ExpectEarlierLinesKept(before, "makemap");
  EXPECT_EQ(panel_.Query("SELECT count(*) FROM email WHERE name = 'n'"), "0\n");
}

TEST_F(FileFaultsTest, AFailingAliasesRebuildFailsTheCommandWithItsOutput) {
  SetConfig("sendmail-newaliases", "echo aliases: cannot rebuild; exit 3");
  const auto before = panel_.Files();
  const zelfaults::Result run = panel_.Zel({"mail", "box", "add", "n@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: newaliases: aliases: cannot rebuild\n");
  ExpectEarlierLinesKept(before, "newaliases");
  EXPECT_EQ(panel_.Query("SELECT count(*) FROM email WHERE name = 'n'"), "0\n");
}
