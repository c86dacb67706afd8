// zelpnl init: the sandbox's files, its configuration, its database, and the
// folders it refuses; finding the configuration file.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "mailstore/dovecot_sandbox.h"
#include "zelapi/net.h"
#include "zelpnl_fixture.h"

using zeltest::RunProgram;
using zeltest::ZelpnlTest;

namespace {

const char kZelpnl[] = ZEL_BIN_DIR "/zelpnl";
const bool kHaveCf = std::filesystem::exists("/usr/share/sendmail/cf/m4/cf.m4") &&
                     std::filesystem::exists("/usr/bin/m4");

// The group that reads the responder's settings: the mail user's when init
// runs as root, else the caller's own.
std::string ResponderGroup() {
  if (::geteuid() == 0) return "mail";
  const struct group* gr = ::getgrgid(::getegid());
  return gr ? gr->gr_name : "";
}

}  // namespace

namespace {

// The port a "stack_NAME_listen = 127.0.0.1:PORT ..." line of text names.
std::string ListenPort(const std::string& text, const std::string& service) {
  const std::string key = "stack_" + service + "_listen = 127.0.0.1:";
  const std::string::size_type at = text.find(key);
  if (at == std::string::npos) return "";
  const std::string::size_type from = at + key.size();
  return text.substr(from, text.find_first_not_of("0123456789", from) - from);
}

}  // namespace

TEST_F(ZelpnlTest, InitWritesAConfigurationWhosePathsPointIntoTheFolder) {
  ASSERT_TRUE(kHaveCf) << "sendmail-cf and m4 are installed by the set-up";
  const std::string d = Dir();
  const std::string conf = File("zelpnl.conf");
  const std::string smtp = ListenPort(conf, "sendmail");
  const std::string imap = ListenPort(conf, "dovecot");
  ASSERT_FALSE(smtp.empty()) << conf;
  ASSERT_FALSE(imap.empty()) << conf;
  EXPECT_NE(smtp, imap);
  const bool v6 = pnl_net::HasIpv6Loopback();
  const std::string expected =
      "# zelpnl sandbox in " + d + ", made by \"zelpnl init\".\n"
      "[params]\n"
      "MTA = sendmail\n"
      "database = " + d + "/panel.db\n"
      "log_file = " + d + "/zelpnl.log\n"
      "log_level = info\n"
      "module_dir = " + std::filesystem::path(ZEL_LIB_DIR "/modules").lexically_normal().string() +
      "\n"
      "sendmail_cf = " + d + "/sendmail.cf\n"
      "stack_sendmail_start = /usr/sbin/sendmail -C " + d + "/sendmail.cf -L zelpnl-sandbox -bd "
      "-q1m\n"
      "stack_sendmail_pid = " + d + "/sendmail.pid\n"
      "stack_sendmail_log = " + d + "/log/sendmail.log\n"
      "stack_sendmail_hup = restarts\n"
      "stack_sendmail_listen = 127.0.0.1:" + smtp + (v6 ? " [::1]:" + smtp : "") + "\n"
      "stack_sendmail_queue = /usr/sbin/sendmail -C " + d + "/sendmail.cf -bp\n"
      "responder_group = " + ResponderGroup() + "\n"
      "mail_root = " + d + "/mail\n"
      "mail_archive = " + d + "/mail-archive\n"
      "doveadm = /usr/bin/doveadm -c " + d + "/dovecot.conf\n"
      "stack_dovecot_start = /usr/sbin/dovecot -c " + d + "/dovecot.conf\n"
      "stack_dovecot_pid = " + mailstore::DovecotRunDir(d) + "/master.pid\n"
      "stack_dovecot_rundir = " + mailstore::DovecotRunDir(d) + "\n"
      "stack_dovecot_listen = 127.0.0.1:" + imap + (v6 ? " [::1]:" + imap : "") + "\n"
      "stack_dovecot_log = " + d + "/log/dovecot.log\n"
      "stack_dovecot_hup = rereads\n"
      "# The mail stack's servers, started in this order by \"zelpnl stack start\".\n"
      "stack_services = dovecot sendmail\n"
      "[paths]\n"
      "sendmail-virtusertable = " + d + "/virtusertable\n"
      "sendmail-localhostnames = " + d + "/local-host-names\n"
      "sendmail-accessdb = " + d + "/access\n"
      "sendmail-aliases = " + d + "/aliases\n"
      "sendmail-mc = " + d + "/sendmail.mc\n"
      "sendmail-newaliases = " + zeltest::OurProgram("zelpnl-newaliases") + " -C " + d +
      "/sendmail.cf -bi\n"
      "sendmail-restart = " + zeltest::OurProgram("zelpnl") + " --config " + d +
      "/zelpnl.conf stack reload\n"
      "zelpnl-responder = " + zeltest::OurProgram("zelpnl-responder") + "\n"
      "responder-conf = " + d + "/responder.conf\n"
      "responder-settings = " + d + "/responder\n";
  EXPECT_EQ(conf, expected);
}

// The responder runs as sendmail's default user and reads nothing of the
// panel's: its own configuration names its settings, its memory, its log
// and its send command (answers sent at once through the sandbox's smart
// host, kept in the sandbox when they cannot go).
TEST_F(ZelpnlTest, InitWritesTheRespondersOwnConfiguration) {
  const std::string d = Dir();
  EXPECT_EQ(File("responder.conf"),
            "# zelpnl-responder in the sandbox " + d + ", made by \"zelpnl init\".\n"
            "[params]\n"
            "log_file = " + d + "/responder.log\n"
            "log_level = info\n"
            "[paths]\n"
            "responder-settings = " + d + "/responder\n"
            "responder-memory = " + d + "/responder-memory/sent.db\n"
            "# Answers go out at once through the sandbox's smart host; one that cannot\n"
            "# waits in " + d + "/answers.\n"
            "responder-sendmail = /usr/sbin/sendmail " +
                (kHaveCf ? "-C " + d + "/sendmail.cf " : std::string()) +
                "-odi -oi -OQueueDirectory=" + d + "/answers\n");
  EXPECT_EQ(File("responder.log"), "");
  EXPECT_TRUE(std::filesystem::is_directory(Path("responder")));
  EXPECT_TRUE(std::filesystem::is_directory(Path("responder-memory")));
  EXPECT_TRUE(std::filesystem::is_directory(Path("answers")));
}

TEST_F(ZelpnlTest, InitKeepsTheConfigurationAndTheDatabaseToTheirOwner) {
  for (const char* file : {"zelpnl.conf", "panel.db"}) {
    struct stat st {};
    ASSERT_EQ(::stat(Path(file).c_str(), &st), 0) << file;
    EXPECT_EQ(st.st_mode & 07777, 0600u) << file;
  }
}

TEST_F(ZelpnlTest, InitMakesEmptyMailFilesTheirMapsTheDevnullAliasAndTheAdministrator) {
  EXPECT_EQ(File("local-host-names"), "");
  EXPECT_EQ(File("virtusertable"), "");
  EXPECT_EQ(File("access"), "");
  EXPECT_EQ(File("aliases"), zeltest::kDevnull);
  for (const char* map : {"virtusertable.db", "access.db", "aliases.db"})
    EXPECT_TRUE(std::filesystem::exists(Path(map))) << map;
  EXPECT_EQ(Rows("SELECT name FROM users"), "admin");
  EXPECT_EQ(File("service.switch"), "hosts files\naliases files\n");
}

TEST_F(ZelpnlTest, InitBuildsASendmailConfigurationThatReadsTheSandbox) {
  if (!kHaveCf) GTEST_SKIP() << "sendmail-cf or m4 is not installed";
  const std::string mc = File("sendmail.mc");
  for (const std::string& line : std::vector<std::string>{
           "include(`/usr/share/sendmail/cf/m4/cf.m4')dnl\n",
        "define(`confCW_FILE', `" + Path("local-host-names") + "')dnl\n",
        "define(`ALIAS_FILE', `" + Path("aliases") + "')dnl\n",
        "FEATURE(`virtusertable', `hash -o " + Path("virtusertable.db") + "')dnl\n",
        "FEATURE(`access_db', `hash -T<TMPF> -o " + Path("access.db") + "')dnl\n",
        "FEATURE(`nocanonify')dnl\n",
        "define(`confSERVICE_SWITCH_FILE', `" + Path("service.switch") + "')dnl\n",
        "define(`QUEUE_DIR', `" + Path("queue") + "')dnl\n",
        "define(`confDONT_PROBE_INTERFACES', `True')dnl\n"})
    EXPECT_NE(mc.find(line), std::string::npos) << line;
  EXPECT_EQ(mc.find("OSTYPE(`debian')"), std::string::npos);
  const std::string cf = File("sendmail.cf");
  EXPECT_NE(cf.find("O AliasFile=" + Path("aliases")), std::string::npos);
  EXPECT_NE(cf.find("Fw" + Path("local-host-names")), std::string::npos);
  // sendmail itself answers with the sandbox's configuration.
  const zeltest::Result run = Zel({"mail", "check", "devnull"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("deliverable: mailer *file*"), std::string::npos) << run.out;
}

TEST_F(ZelpnlTest, InitJsonNamesTheSetUp) {
  const std::string other = box_.Path("other");
  const zeltest::Result run = RunProgram({kZelpnl, "init", "--sandbox", other, "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  const auto doc = nlohmann::ordered_json::parse(run.out);
  EXPECT_EQ(doc["sandbox"]["dir"], other);
  EXPECT_EQ(doc["sandbox"]["config"], other + "/zelpnl.conf");
  EXPECT_EQ(doc["sandbox"]["database"], other + "/panel.db");
  EXPECT_EQ(doc["sandbox"]["admin"], "admin");
  EXPECT_EQ(doc["sandbox"]["responder_conf"], other + "/responder.conf");
  if (kHaveCf) {
    EXPECT_EQ(doc["sandbox"]["sendmail_cf"], other + "/sendmail.cf");
  }
}

TEST_F(ZelpnlTest, InitRefusesAFolderBelowAWorldWritableFolder) {
  const std::string open = box_.Path("open");
  std::filesystem::create_directory(open);
  ::chmod(open.c_str(), 01777);
  const zeltest::Result run = RunProgram({kZelpnl, "init", "--sandbox", open + "/sb"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: folder \"" + open +
                         "\": is writable by everyone, and sendmail refuses files below such a "
                         "folder; choose a sandbox folder whose parents only their owners may "
                         "write to (not under /tmp)\n");
  EXPECT_FALSE(std::filesystem::exists(open + "/sb"));
}

TEST_F(ZelpnlTest, InitRefusesAFolderThatHoldsASetUpAndLeavesItAlone) {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  const auto before = State();
  const std::string conf = File("zelpnl.conf");
  const zeltest::Result run = RunProgram({kZelpnl, "init", "--sandbox", Dir()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: sandbox folder \"" + Dir() +
                         "\": already holds zelpnl.conf; choose a new or empty folder\n");
  EXPECT_EQ(State(), before);
  EXPECT_EQ(File("zelpnl.conf"), conf);
}

TEST_F(ZelpnlTest, InitRefusesAFolderNameTheCommandsCannotCarry) {
  const std::string bad = box_.Path("with blank");
  const zeltest::Result run = RunProgram({kZelpnl, "init", "--sandbox", bad});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("error: sandbox folder \"" + bad + "\": contains \" \""),
            std::string::npos)
      << run.err;
  EXPECT_FALSE(std::filesystem::exists(bad));
}

TEST_F(ZelpnlTest, ConfigurationComesFromTheEnvironmentWithoutConfigOption) {
  Ok({"user", "add", "carol"});
  const zeltest::Result run =
      RunProgram({kZelpnl, "user", "list", "--json"}, {"ZELPNL_CONF=" + Config()});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(nlohmann::ordered_json::parse(run.out)["users"].size(), 2u);
}

TEST_F(ZelpnlTest, MissingConfigurationFileIsAnError) {
  const std::string missing = box_.Path("none.conf");
  const zeltest::Result run = RunProgram({kZelpnl, "--config", missing, "user", "list"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: " + missing +
                ": no such configuration file (make a set-up with \"zelpnl init --sandbox DIR\", "
                "or name the file with --config or ZELPNL_CONF)\n");
}

TEST_F(ZelpnlTest, ConfigurationWithoutSendmailRegistersNoBackEnd) {
  std::string conf = File("zelpnl.conf");
  conf.replace(conf.find("MTA = sendmail"), 14, "MTA = other");
  WriteFile("zelpnl.conf", conf);
  const zeltest::Result run = Zel({"mail", "domain", "list"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: mail: no mail back-end registered; is MTA = sendmail set in " +
                         Config() + "?\n");
}

TEST_F(ZelpnlTest, UsageErrorsExitTwoAndHelpExitsZero) {
  zeltest::Result run = Zel({"mail", "domain", "frobnicate"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err.rfind("error: ", 0), 0u) << run.err;
  run = Zel({"mail", "box", "add"});
  EXPECT_EQ(run.status, 2);
  run = Zel({"mail", "domain", "add", "d.example", "--default-action", "bounce"});
  EXPECT_EQ(run.status, 2);
  for (const std::vector<std::string>& help :
       {std::vector<std::string>{"--help"}, {"mail", "--help"}, {"mail", "sync", "--help"},
        {"mail", "box", "set", "--help"}, {"init", "--help"}}) {
    run = Zel(help);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("Usage:"), std::string::npos) << run.out;
  }
  run = Zel({"mail", "sync", "--help"});
  EXPECT_NE(run.out.find("What it repairs"), std::string::npos) << run.out;
}

TEST_F(ZelpnlTest, TheRestartRunsAfterTheRequestAndOnlyWhenQueued) {
  SetConfig("sendmail-restart", "echo run >> " + Path("restarts"));
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  EXPECT_FALSE(std::filesystem::exists(Path("restarts")));
  Ok({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(File("restarts"), "run\n") << "local-host-names changed: one restart";
  Ok({"mail", "box", "add", "l@d.example"});
  EXPECT_EQ(File("restarts"), "run\n") << "no change of local-host-names: no restart";
}

TEST_F(ZelpnlTest, AFailedRestartIsAWarningAndInTheLog) {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  SetConfig("sendmail-restart", "false");
  const zeltest::Result run = Zel({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "warning: 1 deferred command failed (see " + Path("zelpnl.log") + ")\n");
  EXPECT_NE(File("zelpnl.log").find("deferred command \"false\" failed with status 1"),
            std::string::npos)
      << File("zelpnl.log");
  EXPECT_EQ(Count("email_domain"), 1) << "the request was committed before";
}

TEST_F(ZelpnlTest, TheLogNamesEachCommandAndEachFailure) {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  EXPECT_EQ(Zel({"mail", "domain", "add", "x.example"}).status, 1);
  const std::string log = File("zelpnl.log");
  EXPECT_NE(log.find("info zelpnl/host: done: --config " + Config() +
                     " webdomain add d.example --owner admin\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("error zelpnl/host: failed: --config " + Config() +
                     " mail domain add x.example: web domain \"x.example\": does not exist"),
            std::string::npos)
      << log;
}

TEST_F(ZelpnlTest, TheSandboxRebuildsItsAliasesMapWithTheBuiltBuilder) {
  SetConfig("log_level", "debug");
  MakeDomainWithMailbox();
  const std::string builder = zeltest::OurProgram("zelpnl-newaliases");
  EXPECT_NE(File("zelpnl.log").find("ran \"" + builder + " "), std::string::npos)
      << File("zelpnl.log");
  std::string dump;
  ASSERT_EQ(zeltest::RunShell("/usr/sbin/makemap -u hash " + Path("aliases"), &dump), 0) << dump;
  EXPECT_NE(dump.find("l+d.example\tl\\@d.example"), std::string::npos) << dump;
  EXPECT_NE(dump.find("devnull\t\"/dev/null\""), std::string::npos) << dump;
}
