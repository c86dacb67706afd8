#include "responder_fixture.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "zelapi/cf.h"
#include "zelapi/mail/tables.h"
#include "zelresponder/memory.h"
#include "zelresponder/responder.h"

namespace zeltest {

namespace {

// Stands in for sendmail: keeps each message it is given, and its
// arguments, as N.msg and N.args in the folder named by its first argument.
const char kCapture[] =
    "#!/bin/sh\n"
    "dir=$1\n"
    "shift\n"
    "n=$(ls \"$dir\" | grep -c '\\.msg$')\n"
    "n=$((n + 1))\n"
    "printf '%s\\n' \"$@\" > \"$dir/$n.args\"\n"
    "cat > \"$dir/$n.msg\"\n";

std::vector<std::string> Numbered(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> out;
  for (int n = 1;; ++n) {
    const std::string path = dir + "/" + std::to_string(n) + suffix;
    if (!std::filesystem::exists(path)) break;
    out.push_back(ReadFile(path));
  }
  return out;
}

// The mail user's ids (sendmail's default user on Debian).
bool MailIds(uid_t& uid, gid_t& gid) {
  const struct passwd* pw = ::getpwnam("mail");
  if (pw == nullptr) return false;
  uid = pw->pw_uid;
  gid = pw->pw_gid;
  return true;
}

// Gives path to the mail user when the tests run as root.
void GiveToMailUser(const std::string& path) {
  uid_t uid;
  gid_t gid;
  if (!AsRoot() || !MailIds(uid, gid)) return;
  if (::chown(path.c_str(), uid, gid) != 0) throw std::runtime_error("cannot chown " + path);
}

}  // namespace

bool AsRoot() { return ::geteuid() == 0; }

std::string SettingsGroup() {
  if (AsRoot()) return "mail";
  const struct group* gr = ::getgrgid(::getegid());
  return gr ? gr->gr_name : std::to_string(::getegid());
}

std::string Sample(const std::string& name) {
  return ReadFile(std::string(ZEL_TEST_DATA) + "/responder/" + name);
}

std::string Normal(const std::string& reply) {
  static const std::regex date(
      "\nDate: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] "
      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} [0-2][0-9]:[0-5][0-9]:[0-6][0-9] "
      "[+-][0-9]{4}\n");
  static const std::regex id("\nMessage-ID: <[0-9]{14}\\.[0-9a-f]{16}\\.responder@([a-z0-9.-]+)>\n");
  std::string out = std::regex_replace(reply, date, "\nDate: DATE\n",
                                       std::regex_constants::format_first_only);
  return std::regex_replace(out, id, "\nMessage-ID: <ID>\n", std::regex_constants::format_first_only);
}

void ResponderTest::SetUp() {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  for (const char* folder : {"out", "memory"}) {
    std::filesystem::create_directory(box_.Path(folder));
    GiveToMailUser(box_.Path(folder));
  }
  box_.Write("responder.log", "");
  GiveToMailUser(LogFile());
  box_.Write("capture.sh", kCapture);
  db_ = pnl_db::Cache::Open(box_.Path("panel.db"), zel_db::PanelSchema());
  auto domain = db_->Get<zel_db::EmailDomainTable>();
  domain->New();
  domain->name = "d.example";
  domain->Post();
  auto mailbox = db_->Get<zel_db::EmailTable>();
  mailbox->New();
  mailbox->name = "l";
  mailbox->domain = domain->id;
  mailbox->Post();
  mailbox_id_ = mailbox->id.Value();
  auto alias = db_->Get<zel_db::EmailAliasTable>();
  alias->New();
  alias->email = mailbox->id;
  alias->name = "contact";
  alias->Post();
  auto responder = db_->Get<zel_db::EmailResponderTable>();
  responder->New();
  responder->email = mailbox->id;
  responder->enabled = true;
  responder->text = kText;
  responder->Post();
  responder_id_ = responder->id.Value();

  box_.Write("responder.conf", "[params]\n"
                               "log_file = " + LogFile() + "\n"
                               "log_level = info\n"
                               "[paths]\n"
                               "responder-settings = " + SettingsDir() + "\n"
                               "responder-memory = " + MemoryFile() + "\n"
                               "responder-sendmail = " + CaptureCommand() + "\n");
  // For the panel's code and the tests that call the library in this
  // process.
  pnl_cf::Clear();
  pnl_cf::SetPath(email::kResponderSettingsKey, SettingsDir());
  pnl_cf::SetParam(email::kResponderGroupParam, SettingsGroup());
  pnl_cf::SetPath(zelresponder::kSendPathKey, CaptureCommand());
  Publish();
}

void ResponderTest::TearDown() {
  db_.reset();
  pnl_cf::Clear();
}

std::string ResponderTest::CaptureCommand() const {
  return "/bin/sh " + box_.Path("capture.sh") + " " + box_.Path("out") + " -oi";
}

void ResponderTest::Publish() { email::SyncResponderSettings(*db_); }

std::optional<email::ResponderSettings> ResponderTest::Settings(const std::string& address) {
  return email::ReadResponderSettings(SettingsDir(), address);
}

std::string ResponderTest::AsMailUser() {
  return AsRoot() ? "setpriv --reuid=mail --regid=mail --clear-groups -- " : "";
}

int ResponderTest::Run(const std::string& message, const std::string& address,
                       std::string* output) {
  return RunArgs(message, "--config " + Config() + " " + address, output);
}

int ResponderTest::RunArgs(const std::string& message, const std::string& args,
                           std::string* output) {
  box_.Write("in.eml", message);
  return RunShell("TZ=UTC " + AsMailUser() + std::string(ZEL_BIN_DIR) + "/zelpnl-responder " +
                      args + " < " + box_.Path("in.eml"),
                  output);
}

std::vector<std::string> ResponderTest::Sent() const { return Numbered(box_.Path("out"), ".msg"); }

std::vector<std::string> ResponderTest::SentArgs() const {
  return Numbered(box_.Path("out"), ".args");
}

std::vector<std::string> ResponderTest::Log() const {
  std::vector<std::string> lines;
  if (!std::filesystem::exists(LogFile())) return lines;
  std::istringstream in(ReadFile(LogFile()));
  std::string line;
  // "2025-03-03 10:15:00.123 info zelpnl/responder: ..." from the level on.
  while (std::getline(in, line)) {
    const size_t space = line.find(' ', line.find(' ') + 1);
    lines.push_back(space == std::string::npos ? line : line.substr(space + 1));
  }
  return lines;
}

std::string ResponderTest::LastLog() const {
  const std::vector<std::string> lines = Log();
  return lines.empty() ? std::string() : lines.back();
}

std::string ResponderTest::Rows(const std::string& sql) {
  std::string out;
  for (pnl_db::Query q = db_->Query(sql); !q.Eof(); q.Next()) {
    if (!out.empty()) out += "|";
    for (int c = 0; c < q.Columns(); ++c) {
      if (c > 0) out += ":";
      out += q.Str(c);
    }
  }
  return out;
}

std::string ResponderTest::MemoryRows() {
  if (!std::filesystem::exists(MemoryFile())) return "";
  zelresponder::Memory memory(MemoryFile());
  std::string out;
  for (pnl_db::Query q =
           memory.Db().Query("SELECT mailbox, sender, sent_at FROM sent ORDER BY mailbox, sender");
       !q.Eof(); q.Next()) {
    if (!out.empty()) out += "|";
    out += q.Str(0) + ":" + q.Str(1) + ":" + q.Str(2);
  }
  return out;
}

void ResponderTest::OnMemory(const std::string& sql) {
  if (!std::filesystem::exists(MemoryFile())) return;
  zelresponder::Memory memory(MemoryFile());
  memory.Db().Query(sql);
}

void ResponderTest::SetResponderEnabled(bool enabled) {
  auto responder = db_->Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->enabled = enabled;
  responder->Post();
  Publish();
}

void ResponderTest::SetPeriodDays(int64_t days) {
  auto responder = db_->Get<zel_db::EmailResponderTable>();
  responder->Assert(std::to_string(responder_id_));
  responder->period_days = days;
  responder->Post();
  Publish();
}

}  // namespace zeltest
