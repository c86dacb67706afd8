#include "sandbox.h"

#include <arpa/inet.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "host.h"
#include "users.h"
#include "validation.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/net.h"

namespace fs = std::filesystem;

namespace zelpnl {

namespace {

constexpr char kMta[] = "sendmail";
constexpr char kAdmin[] = "admin";
// The user the mail system runs the programs of the root-owned aliases file
// as (the responder), as on Debian.
constexpr char kMailUser[] = "mail";

// The files init makes besides the back-end's; an existing one stops it.
const char* const kPanelFiles[] = {"zelpnl.conf",   "panel.db",  "zelpnl.log",
                                   "responder.conf", "responder", "responder-memory",
                                   "responder.log", "answers",   "log"};

// Who the responder runs as, and the group that reads its settings: the
// mail user when init runs as root; else the caller (a sandbox of an
// unprivileged user, where the mail system runs no programs anyway).
struct ResponderUser {
  uid_t uid = 0;
  gid_t gid = 0;
  std::string group;          // the name of gid
};

ResponderUser FindResponderUser() {
  ResponderUser user;
  if (::geteuid() == 0) {
    const struct passwd* pw = ::getpwnam(kMailUser);
    if (pw == nullptr)
      throw pnl_err::Error(pnl_err::Kind::kInit, std::string("user ") + kMailUser,
                           "does not exist; the sandbox's mail system runs the responder as it");
    user.uid = pw->pw_uid;
    user.gid = pw->pw_gid;
  } else {
    user.uid = ::geteuid();
    user.gid = ::getegid();
  }
  const struct group* gr = ::getgrgid(user.gid);
  if (gr == nullptr)
    throw pnl_err::Error(pnl_err::Kind::kInit, "group " + std::to_string(user.gid), "has no name");
  user.group = gr->gr_name;
  return user;
}

// The mail system refuses maps and alias files below a folder anyone may
// write to.
void CheckFolderChain(const fs::path& dir) {
  for (fs::path p = dir;; p = p.parent_path()) {
    struct stat st;
    if (::stat(p.c_str(), &st) == 0) {
      if (!S_ISDIR(st.st_mode))
        throw pnl_err::Error(pnl_err::Kind::kUnsafe, "folder " + Quote(p.string()), "is not a folder");
      if (st.st_mode & S_IWOTH)
        throw pnl_err::Error(
            pnl_err::Kind::kUnsafe, "folder " + Quote(p.string()),
            "is writable by everyone, and sendmail refuses files below such a folder; choose a "
            "sandbox folder whose parents only their owners may write to (not under /tmp)");
    }
    if (p == p.root_path() || p.empty()) break;
  }
}

void MakeFolders(const fs::path& dir) {
  std::vector<fs::path> missing;
  for (fs::path p = dir; !fs::exists(p); p = p.parent_path()) missing.push_back(p);
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    fs::create_directory(*it);
    fs::permissions(*it, fs::perms(0755));
  }
}

// A program of ours: the one beside this program when it is there (a build
// folder), else the installed one in /usr/lib/zelpnl.
std::string OurProgram(const std::string& name) {
  const fs::path beside = fs::path(ProgramDir()) / name;
  std::error_code ec;
  if (!ProgramDir().empty() && fs::exists(beside, ec)) return beside.string();
  return "/usr/lib/zelpnl/" + name;
}

std::string PanelConfig(const SandboxSetUp& s, const std::string& group) {
  std::string services;
  for (const std::string& service : {s.store.service, s.mail.service})
    if (!service.empty()) services += (services.empty() ? "" : " ") + service;
  return "# zelpnl sandbox in " + s.dir + ", made by \"zelpnl init\".\n"
         "[params]\n"
         "MTA = " + kMta + "\n"
         "database = " + s.database + "\n"
         "log_file = " + s.log_file + "\n"
         "log_level = info\n"
         "module_dir = " + DefaultModuleDir() + "\n" +
         s.mail.params +
         "responder_group = " + group + "\n" +
         s.store.params +
         "# The mail stack's servers, started in this order by \"zelpnl stack start\".\n"
         "stack_services = " + services + "\n"
         "[paths]\n" +
         s.mail.paths +
         "zelpnl-responder = " + OurProgram("zelpnl-responder") + "\n"
         "responder-conf = " + s.responder_conf + "\n"
         "responder-settings = " + s.dir + "/responder\n";
}

// The responder's own configuration: nothing of the panel's, since the
// program runs as the mail user, who may read this file but not the
// panel's.
std::string ResponderConfig(const SandboxSetUp& s) {
  return "# zelpnl-responder in the sandbox " + s.dir + ", made by \"zelpnl init\".\n"
         "[params]\n"
         "log_file = " + s.dir + "/responder.log\n"
         "log_level = info\n"
         "[paths]\n"
         "responder-settings = " + s.dir + "/responder\n"
         "responder-memory = " + s.dir + "/responder-memory/sent.db\n"
         "# Answers go out at once through the sandbox's smart host; one that cannot\n"
         "# waits in " + s.answers + ".\n"
         "responder-sendmail = " + s.mail.answer_command + "\n";
}

}  // namespace

std::string SandboxDir(const std::string& text) {
  if (text.empty()) throw Invalid("sandbox folder", text, "is empty");
  const fs::path dir = fs::absolute(text).lexically_normal();
  std::string s = dir.string();
  if (s.size() > 1 && s.back() == '/') s.pop_back();
  for (char c : s) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '/' || c == '.' || c == '_' || c == '-' || c == '+';
    if (!ok)
      throw Invalid("sandbox folder", text,
                    std::string("contains ") + Quote(std::string(1, c)) +
                        "; use letters, digits and \"/._+-\" only (the path goes unquoted into "
                        "shell commands and sendmail's configuration)");
  }
  if (s == "/") throw Invalid("sandbox folder", text, "is the root folder");
  return s;
}

std::string SmartHost(const std::string& text) {
  const std::string::size_type colon = text.rfind(':');
  if (colon == std::string::npos)
    throw Invalid("smart host", text, "is no HOST:PORT (an IPv4 address and a port)");
  const std::string host = text.substr(0, colon);
  const std::string port = text.substr(colon + 1);
  in_addr ignored{};
  if (::inet_pton(AF_INET, host.c_str(), &ignored) != 1)
    throw Invalid("smart host", text, "names no IPv4 address: the sandbox asks no DNS");
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(port) < 1 || std::stoi(port) > 65535)
    throw Invalid("smart host", text, "has no port from 1 to 65535");
  return host + ":" + std::to_string(std::stoi(port));
}

SandboxSetUp MakeSandbox(Host& host, const SandboxOptions& options) {
  const std::string& dir = options.dir;
  SandboxSetUp s;
  s.dir = dir;
  s.config = dir + "/zelpnl.conf";
  s.database = dir + "/panel.db";
  s.log_file = dir + "/zelpnl.log";
  s.responder_conf = dir + "/responder.conf";
  s.answers = dir + "/answers";
  s.admin = kAdmin;

  CheckFolderChain(dir);
  const email::SandboxWriter& mail = host.SandboxWriter(kMta);
  std::vector<std::string> files(std::begin(kPanelFiles), std::end(kPanelFiles));
  for (std::string& name : mail.Files()) files.push_back(std::move(name));
  for (std::string& name : mailstore::DovecotSandboxFiles()) files.push_back(std::move(name));
  for (const std::string& name : files)
    if (fs::exists(fs::path(dir) / name))
      throw pnl_err::Error(pnl_err::Kind::kExists, "sandbox folder " + Quote(dir),
                           "already holds " + name + "; choose a new or empty folder");
  MakeFolders(dir);

  const ResponderUser user = FindResponderUser();
  fs::create_directory(dir + "/log");
  fs::permissions(dir + "/log", fs::perms(0750));

  // The stack: the mail store first, since the MTA delivers to it.
  const bool ipv6 = pnl_net::HasIpv6Loopback();
  const int smtp_port = pnl_net::FreeLoopbackPort(ipv6);
  int imap_port = pnl_net::FreeLoopbackPort(ipv6);
  while (imap_port == smtp_port) imap_port = pnl_net::FreeLoopbackPort(ipv6);
  s.smart_host = options.smart_host;
  if (s.smart_host.empty()) {
    int port = pnl_net::FreeLoopbackPort(false);
    while (port == smtp_port || port == imap_port) port = pnl_net::FreeLoopbackPort(false);
    s.smart_host = "127.0.0.1:" + std::to_string(port);
  }
  s.store = mailstore::WriteDovecotSandbox(
      {dir, s.database, imap_port, ipv6, kMailUser, "postmaster@localhost"});
  email::SandboxRequest request;
  request.dir = dir;
  request.aliases_builder = OurProgram("zelpnl-newaliases");
  request.default_user = kMailUser;
  request.smtp_port = smtp_port;
  request.with_ipv6 = ipv6;
  request.smart_host = s.smart_host;
  request.lmtp_socket = s.store.lmtp_socket;
  request.reload_command = fs::path(ProgramDir()) / "zelpnl";
  request.reload_command += " --config " + s.config + " stack reload";
  s.mail = mail.Write(request, s.answers);

  // The panel's configuration is root's alone; the responder gets its own,
  // its settings folder (written by the panel), and what it writes itself:
  // its memory, its log and, in the sandbox, the queue of its answers.
  pnl_file::WriteNewFile(s.config, PanelConfig(s, user.group), 0600);
  pnl_file::WriteNewFile(s.responder_conf, ResponderConfig(s), 0640);
  pnl_file::GiveTo(s.responder_conf, ::geteuid(), user.gid, 0640);
  fs::create_directory(dir + "/responder");
  pnl_file::GiveTo(dir + "/responder", ::geteuid(), user.gid, 0750);
  for (const char* folder : {"responder-memory", "answers"}) {
    fs::create_directory(fs::path(dir) / folder);
    pnl_file::GiveTo((fs::path(dir) / folder).string(), user.uid, user.gid, 0700);
  }
  pnl_file::WriteNewFile(dir + "/responder.log", "", 0640);
  pnl_file::GiveTo(dir + "/responder.log", user.uid, user.gid, 0640);

  // The panel as every later run opens it: the module writes the "devnull"
  // alias and builds the aliases database.
  host.UseConfig(s.config);
  host.Open(Needs::kMail);
  pnl_db::Request db_request(host.Db());
  AddUser(host.Db(), kAdmin);
  db_request.End();
  return s;
}

}  // namespace zelpnl
