// What sendmail's default user may do on a set-up laid out as on a real
// server (a sandbox made by "zelpnl init" as root): the responder runs as
// that user (the mail user), reads its configuration and its settings,
// writes its memory and its log, and can neither read nor write the panel's
// database and configuration, so a program of the aliases file cannot put a
// row into the panel that root would later write into the aliases file.
//
// The checks run in a child process that has taken the mail user's ids
// (setgroups, setgid, setuid), as sendmail's delivery does.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>

#include "sandbox.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"

namespace {

struct Owned {
  std::string user;
  std::string group;
  unsigned mode = 0;
  bool operator==(const Owned& o) const {
    return user == o.user && group == o.group && mode == o.mode;
  }
};

std::ostream& operator<<(std::ostream& out, const Owned& o) {
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", o.mode);
  return out << o.user << ":" << o.group << " " << mode;
}

Owned OwnedOf(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return {"missing", "missing", 0};
  const struct passwd* pw = ::getpwuid(st.st_uid);
  const struct group* gr = ::getgrgid(st.st_gid);
  return {pw ? pw->pw_name : std::to_string(st.st_uid),
          gr ? gr->gr_name : std::to_string(st.st_gid), st.st_mode & 07777u};
}

class PrivilegeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the users' rights can be shown only as root";
    mail_ = ::getpwnam("mail");
    if (mail_ == nullptr) GTEST_SKIP() << "there is no mail user";
    std::string output;
    ASSERT_EQ(
        zeltest::RunShell(std::string(ZEL_BIN_DIR) + "/zelpnl init --sandbox " + Dir(), &output), 0)
        << output;
  }

  std::string Dir() const { return box_.Path("sb"); }
  std::string Path(const std::string& file) const { return Dir() + "/" + file; }

  void Zel(const std::string& args) {
    std::string output;
    ASSERT_EQ(zeltest::RunShell(
                  std::string(ZEL_BIN_DIR) + "/zelpnl --config " + Path("zelpnl.conf") + " " + args,
                  &output),
              0)
        << args << ": " << output;
  }

  // Runs each check in a child process that is the mail user, and returns
  // what each said: "ok", or the system's message.
  std::map<std::string, std::string> AsMailUser(
      const std::vector<std::pair<std::string, std::function<std::string()>>>& checks) {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(fds[0]);
      std::string out;
      if (::setgroups(0, nullptr) != 0 || ::setgid(mail_->pw_gid) != 0 ||
          ::setuid(mail_->pw_uid) != 0) {
        out = "setuid\tfailed\n";
      } else {
        for (const auto& [name, check] : checks) out += name + "\t" + check() + "\n";
      }
      const ssize_t ignored = ::write(fds[1], out.data(), out.size());
      (void)ignored;
      ::_exit(0);
    }
    ::close(fds[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, n);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::map<std::string, std::string> results;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
      const size_t tab = line.find('\t');
      results[line.substr(0, tab)] = line.substr(tab + 1);
    }
    return results;
  }

  static std::function<std::string()> Opens(const std::string& path, int flags) {
    return [path, flags] {
      const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
      if (fd < 0) return std::string(std::strerror(errno));
      ::close(fd);
      return std::string("ok");
    };
  }

  const struct passwd* mail_ = nullptr;
  zeltest::Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

const std::string kDenied = std::strerror(EACCES);

}  // namespace

TEST_F(PrivilegeTest, AFreshSandboxHasTheDocumentedOwnersAndModes) {
  const std::vector<std::pair<std::string, Owned>> expected = {
      {"zelpnl.conf", {"root", "root", 0600}},      {"panel.db", {"root", "root", 0600}},
      {"responder.conf", {"root", "mail", 0640}},   {"responder", {"root", "mail", 0750}},
      {"responder-memory", {"mail", "mail", 0700}}, {"responder.log", {"mail", "mail", 0640}},
      {"answers", {"mail", "mail", 0700}},
  };
  for (const auto& [file, owned] : expected) EXPECT_EQ(OwnedOf(Path(file)), owned) << file;
  // The sandbox's sendmail runs the programs of its aliases file as mail.
  EXPECT_NE(zeltest::ReadFile(Path("sendmail.cf")).find("\nO DefaultUser=mail:mail\n"),
            std::string::npos);
}

TEST_F(PrivilegeTest, TheDatabasesJournalFilesAreTheOwnersAloneToo) {
  std::unique_ptr<pnl_db::Cache> db = pnl_db::Cache::Open(Path("panel.db"), zel_db::PanelSchema());
  {
    pnl_db::Request request(*db);
    db->Query("INSERT INTO users (name) VALUES ('carol')");
    request.End();
  }
  // While the connection is open, SQLite keeps its -wal and -shm files.
  for (const char* file : {"panel.db", "panel.db-wal", "panel.db-shm"})
    EXPECT_EQ(OwnedOf(Path(file)), (Owned{"root", "root", 0600})) << file;
}

TEST_F(PrivilegeTest, ANewDatabaseIsMadeWithModeSixHundredWhateverTheUmask) {
  const mode_t old = ::umask(0);
  std::unique_ptr<pnl_db::Cache> db =
      pnl_db::Cache::Open(box_.Path("new.db"), zel_db::PanelSchema());
  ::umask(old);
  EXPECT_EQ(OwnedOf(box_.Path("new.db")).mode, 0600u);
}

// A set-up made before the files were private: the panel closes them to
// other users when it next runs, and says so in its log.
TEST_F(PrivilegeTest, ADatabaseAndConfigurationOpenToEveryUserAreClosedToThem) {
  ::chmod(Path("panel.db").c_str(), 0644);
  ::chmod(Path("zelpnl.conf").c_str(), 0644);
  Zel("user list");
  EXPECT_EQ(OwnedOf(Path("panel.db")).mode, 0640u);
  EXPECT_EQ(OwnedOf(Path("zelpnl.conf")).mode, 0640u);
  const std::string log = zeltest::ReadFile(Path("zelpnl.log"));
  EXPECT_NE(log.find("warning zelpnl/platform: " + Path("panel.db") +
                     " was open to every user; its mode went from 0644 to 0640"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("warning zelpnl/host: " + Path("zelpnl.conf") +
                     " was open to every user; they no longer have access to it"),
            std::string::npos)
      << log;
}

TEST_F(PrivilegeTest, TheDefaultUserCanNeitherReadNorWriteThePanelsFiles) {
  Zel("webdomain add d.example --owner admin");
  Zel("mail domain add d.example");
  Zel("mail box add l@d.example");
  Zel("mail responder l@d.example on --text away");
  const std::string settings = Path("responder/d.example/l");
  const std::string panel_db = Path("panel.db");
  const auto results = AsMailUser({
      {"read database", Opens(panel_db, O_RDONLY)},
      {"write database", Opens(panel_db, O_RDWR)},
      {"make a journal beside it", Opens(panel_db + "-journal", O_WRONLY | O_CREAT | O_EXCL)},
      {"make a wal beside it", Opens(panel_db + "-wal", O_WRONLY | O_CREAT | O_EXCL)},
      {"read configuration", Opens(Path("zelpnl.conf"), O_RDONLY)},
      {"write aliases", Opens(Path("aliases"), O_WRONLY)},
      {"write settings", Opens(settings, O_WRONLY)},
      {"add settings", Opens(Path("responder/d.example/m"), O_WRONLY | O_CREAT | O_EXCL)},
      {"replace the settings folder", Opens(Path("responder/x"), O_WRONLY | O_CREAT | O_EXCL)},
      // Through the platform's own database layer: a forward that the next
      // command would write into the aliases file, as root.
      {"insert a forward",
       [&] {
         try {
           std::unique_ptr<pnl_db::Cache> db = pnl_db::Cache::Open(panel_db, zel_db::PanelSchema());
           db->Query("INSERT INTO email_forward (email, name) VALUES (1, '\"|/bin/sh -c x\"')");
           return std::string("ok");
         } catch (const pnl_err::Error& e) {
           return std::string(e.what());
         }
       }},
      // What it needs.
      {"read its configuration", Opens(Path("responder.conf"), O_RDONLY)},
      {"read settings", Opens(settings, O_RDONLY)},
      {"write its memory", Opens(Path("responder-memory/probe"), O_WRONLY | O_CREAT)},
      {"append to its log", Opens(Path("responder.log"), O_WRONLY | O_APPEND)},
  });
  for (const char* denied : {"read database", "write database", "make a journal beside it",
                             "make a wal beside it", "read configuration", "write aliases",
                             "write settings", "add settings", "replace the settings folder"})
    EXPECT_EQ(results.at(denied), kDenied) << denied;
  EXPECT_NE(results.at("insert a forward").find(panel_db + ": open: unable to open database file"),
            std::string::npos)
      << results.at("insert a forward");
  for (const char* allowed :
       {"read its configuration", "read settings", "write its memory", "append to its log"})
    EXPECT_EQ(results.at(allowed), "ok") << allowed;
  std::unique_ptr<pnl_db::Cache> db = pnl_db::Cache::Open(panel_db, zel_db::PanelSchema());
  EXPECT_EQ(db->Query("SELECT count(*) FROM email_forward").Int(), 0);

  // Nor can it run the panel.
  std::string output;
  EXPECT_NE(zeltest::RunShell("setpriv --reuid=mail --regid=mail --clear-groups -- " +
                                  std::string(ZEL_BIN_DIR) + "/zelpnl --config " +
                                  Path("zelpnl.conf") + " user add mallory",
                              &output),
            0);
  EXPECT_EQ(db->Query("SELECT count(*) FROM users WHERE name = 'mallory'").Int(), 0);
}

TEST_F(PrivilegeTest, ThePanelWritesTheSettingsAsRootForTheMailGroupToRead) {
  Zel("webdomain add d.example --owner admin");
  Zel("mail domain add d.example");
  Zel("mail box add l@d.example --alias contact");
  Zel("mail responder l@d.example on --subject Away --text 'Back soon.'");
  EXPECT_EQ(OwnedOf(Path("responder/d.example")), (Owned{"root", "mail", 0750}));
  EXPECT_EQ(OwnedOf(Path("responder/d.example/l")), (Owned{"root", "mail", 0640}));
  Zel("mail box set l@d.example --alias info");
  Zel("mail sync");
  EXPECT_EQ(OwnedOf(Path("responder/d.example/l")), (Owned{"root", "mail", 0640}));
  EXPECT_NE(zeltest::ReadFile(Path("responder/d.example/l")).find("\ninfo@d.example\n"),
            std::string::npos);
  Zel("mail responder l@d.example off");
  EXPECT_FALSE(std::filesystem::exists(Path("responder/d.example")));
}
