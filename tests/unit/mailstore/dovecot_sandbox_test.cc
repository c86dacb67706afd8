// The sandbox's Dovecot configuration, read by Dovecot itself.
#include "mailstore/dovecot_sandbox.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "zelapi/proc.h"

namespace {

std::string Scratch() {
  const std::string dir = std::string(ZEL_TEST_SCRATCH) + "/dovecot-conf";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

}  // namespace

TEST(DovecotSandboxTest, DovecotReadsTheConfigurationWithoutAComplaint) {
  const std::string dir = Scratch();
  const mailstore::DovecotSandboxRequest request{dir, dir + "/panel.db", 14300, true, "mail",
                                                 "postmaster@localhost"};
  std::ofstream(dir + "/dovecot.conf") << mailstore::DovecotConfig(request, 8, 8);
  std::ofstream(dir + "/dovecot-sql.conf.ext") << mailstore::DovecotSqlConfig(dir + "/panel.db");
  pnl_proc::Execute run("/usr/bin/doveconf -c " + dir + "/dovecot.conf -n", 2);
  ASSERT_EQ(run.Result(), 0) << run.Str();
  EXPECT_EQ(run.Str().find("Warning"), std::string::npos) << run.Str();
  // What the mail store must keep: loopback only, the full-mailbox answer
  // a temporary failure. (No auth cache is Dovecot's default, which -n
  // does not print.)
  for (const char* line : {"listen = 127.0.0.1, ::1", "quota_full_tempfail = yes", "mail_home = "})
    EXPECT_NE(run.Str().find(line), std::string::npos) << line << "\n" << run.Str();
}

TEST(DovecotSandboxTest, TheQueriesReadOnlyThePanelsViews) {
  const std::string sql = mailstore::DovecotSqlConfig("/srv/panel.db");
  EXPECT_NE(sql.find("FROM mail_login WHERE domain = '%d' AND local = '%n'"), std::string::npos);
  EXPECT_NE(sql.find("FROM mail_user WHERE domain = '%d' AND local = '%n'"), std::string::npos);
  EXPECT_EQ(sql.find("FROM email"), std::string::npos);
}
