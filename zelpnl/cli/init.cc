// zelpnl init --sandbox DIR: a self-contained set-up in one folder, with
// every file and command of the panel's mail pointing into it.
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "commands.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/mail/email.h"
#include "zelapi/proc.h"

namespace fs = std::filesystem;

namespace zelpnl {

namespace {

constexpr char kCfMacros[] = "/usr/share/sendmail/cf/m4/cf.m4";
constexpr char kM4[] = "/usr/bin/m4";
constexpr char kAdmin[] = "admin";
// The user sendmail runs the programs of the root-owned aliases file as, its
// DefaultUser, as on Debian (the sandbox's sendmail.mc says so).
constexpr char kMailUser[] = "mail";

// The files init makes; an existing one stops it.
const char* const kFiles[] = {"zelpnl.conf",      "panel.db",  "local-host-names", "virtusertable",
                              "aliases",          "access",    "sendmail.mc",      "sendmail.cf",
                              "service.switch",   "queue",     "zelpnl.log",       "responder.conf",
                              "responder",        "responder-memory", "responder.log", "answers"};

// Who the responder runs as, and the group that reads its settings: the
// mail user when init runs as root; else the caller (a sandbox of an
// unprivileged user, where sendmail runs no programs anyway).
struct ResponderUser {
  bool change_owner = false;  // init runs as root: files are given to the mail user
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
                           "does not exist; the sandbox's sendmail runs the responder as it");
    user.change_owner = true;
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

// Gives path the owner and group (when init runs as root) and the mode.
void Own(const fs::path& path, uid_t uid, gid_t gid, unsigned mode, const ResponderUser& user) {
  if (user.change_owner && ::chown(path.c_str(), uid, gid) != 0)
    throw pnl_err::Error(pnl_err::Kind::kInit, path.string(), "cannot change its owner");
  fs::permissions(path, fs::perms(mode));
}

// The folder as an absolute path of characters that every file and command
// line of the set-up carries without quoting (the commands run through the
// shell, and the sendmail configuration quotes with ` and ').
fs::path SandboxDir(const std::string& text) {
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

// sendmail refuses maps and alias files below a folder anyone may write to.
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

void WriteText(const fs::path& path, const std::string& text, unsigned mode = 0644) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw pnl_err::Error(pnl_err::Kind::kFile, path.string(), "cannot be written");
  fs::permissions(path, fs::perms(mode));
}

void Run(const std::string& command, const std::string& object) {
  pnl_proc::Execute run(command, 2);
  if (run.Result() != 0)
    throw pnl_err::Error(pnl_err::Kind::kInit, object,
                         "\"" + command + "\" failed with status " + std::to_string(run.Result()) +
                             (run.Str().empty() ? "" : ":\n" + run.Str()));
}

// A minimal sendmail configuration that reads only the sandbox's files and
// never asks DNS: host names from the hosts file, no probing of interfaces,
// no canonification of addresses. The panel's mailboxes are no system
// accounts, so the local mailer takes any user name (no "w" flag).
std::string MailConfig(const std::string& d) {
  return "divert(-1)\n"
         "# sendmail configuration of the zelpnl sandbox in " + d + ", made by \"zelpnl init\".\n"
         "# It reads the sandbox's files only and never asks DNS. Rebuild with:\n"
         "#   m4 " + d + "/sendmail.mc > " + d + "/sendmail.cf\n"
         "divert(0)dnl\n"
         "include(`" + kCfMacros + "')dnl\n"
         "VERSIONID(`zelpnl sandbox')dnl\n"
         "OSTYPE(`linux')dnl\n"
         "MODIFY_MAILER_FLAGS(`LOCAL', `-w')dnl\n"
         "define(`confCW_FILE', `" + d + "/local-host-names')dnl\n"
         "FEATURE(`use_cw_file')dnl\n"
         "define(`ALIAS_FILE', `" + d + "/aliases')dnl\n"
         "FEATURE(`virtusertable', `hash -o " + d + "/virtusertable.db')dnl\n"
         "FEATURE(`access_db', `hash -T<TMPF> -o " + d + "/access.db')dnl\n"
         "FEATURE(`nocanonify')dnl\n"
         "dnl Programs of the root-owned aliases file (the responder) run as this user.\n"
         "define(`confDEF_USER_ID', `" + std::string(kMailUser) + ":" + kMailUser + "')dnl\n"
         "define(`confSERVICE_SWITCH_FILE', `" + d + "/service.switch')dnl\n"
         "define(`QUEUE_DIR', `" + d + "/queue')dnl\n"
         "define(`confDONT_PROBE_INTERFACES', `True')dnl\n"
         "MAILER(`local')dnl\n"
         "MAILER(`smtp')dnl\n";
}

// A program of ours: the one beside this program when it is there (a build
// folder), else the installed one in /usr/lib/zelpnl.
std::string OurProgram(const std::string& name) {
  const fs::path beside = fs::path(ProgramDir()) / name;
  std::error_code ec;
  if (!ProgramDir().empty() && fs::exists(beside, ec)) return beside.string();
  return "/usr/lib/zelpnl/" + name;
}

std::string PanelConfig(const std::string& d, bool with_cf, const std::string& group) {
  std::string text =
      "# zelpnl sandbox in " + d + ", made by \"zelpnl init\".\n"
      "[params]\n"
      "MTA = sendmail\n"
      "database = " + d + "/panel.db\n"
      "log_file = " + d + "/zelpnl.log\n"
      "log_level = info\n"
      "module_dir = " + DefaultModuleDir() + "\n";
  if (with_cf) text += "sendmail_cf = " + d + "/sendmail.cf\n";
  text += "responder_group = " + group + "\n";
  text +=
      "[paths]\n"
      "sendmail-virtusertable = " + d + "/virtusertable\n"
      "sendmail-localhostnames = " + d + "/local-host-names\n"
      "sendmail-accessdb = " + d + "/access\n"
      "sendmail-aliases = " + d + "/aliases\n"
      "sendmail-mc = " + d + "/sendmail.mc\n";
  // The aliases rebuild is our builder: sendmail's own result in a fraction
  // of its time ("-bi" is accepted and ignored, as on sendmail's line).
  const std::string builder = OurProgram("zelpnl-newaliases");
  if (with_cf)
    text += "sendmail-newaliases = " + builder + " -C " + d + "/sendmail.cf -bi\n";
  else
    text += "sendmail-newaliases = " + builder + " -bi -oA" + d + "/aliases\n";
  text +=
      "# No mail daemon runs on the sandbox's files, so there is nothing to restart:\n"
      "# \"true\" does nothing and succeeds.\n"
      "sendmail-restart = true\n"
      "zelpnl-responder = " + OurProgram("zelpnl-responder") + "\n"
      "responder-conf = " + d + "/responder.conf\n"
      "responder-settings = " + d + "/responder\n";
  return text;
}

// The responder's own configuration: nothing of the panel's, since the
// program runs as the mail user, who may read this file but not the
// panel's.
std::string ResponderConfig(const std::string& d, bool with_cf) {
  return "# zelpnl-responder in the sandbox " + d + ", made by \"zelpnl init\".\n"
         "[params]\n"
         "log_file = " + d + "/responder.log\n"
         "log_level = info\n"
         "[paths]\n"
         "responder-settings = " + d + "/responder\n"
         "responder-memory = " + d + "/responder-memory/sent.db\n"
         "# Answers are queued in " + d + "/answers and never sent on.\n"
         "responder-sendmail = /usr/sbin/sendmail " + (with_cf ? "-C " + d + "/sendmail.cf " : "") +
         "-odq -oi -OQueueDirectory=" + d + "/answers\n";
}

void Init(Host& host, const Output& out, const fs::path& dir) {
  const std::string d = dir.string();
  CheckFolderChain(dir);
  for (const char* name : kFiles)
    if (fs::exists(dir / name))
      throw pnl_err::Error(pnl_err::Kind::kExists, "sandbox folder " + Quote(d),
                           "already holds " + std::string(name) + "; choose a new or empty folder");
  MakeFolders(dir);

  for (const char* name : {"local-host-names", "virtusertable", "access", "aliases"})
    WriteText(dir / name, "");
  WriteText(dir / "service.switch", "hosts files\naliases files\n");
  fs::create_directory(dir / "queue");
  fs::permissions(dir / "queue", fs::perms(0750));

  const bool with_cf = fs::exists(kCfMacros) && fs::exists(kM4);
  if (with_cf) {
    WriteText(dir / "sendmail.mc", MailConfig(d));
    const std::string cf = d + "/sendmail.cf";
    pnl_proc::Execute m4(std::string(kM4) + " " + d + "/sendmail.mc > " + cf, 2);
    if (m4.Result() != 0 || !m4.Str().empty()) {
      fs::remove(cf);
      throw pnl_err::Error(pnl_err::Kind::kInit, cf, "m4 could not build it:\n" + m4.Str());
    }
    fs::permissions(cf, fs::perms(0644));
  }
  // The panel's configuration is root's alone; the responder gets its own,
  // its settings folder (written by the panel), and what it writes itself:
  // its memory, its log and, in the sandbox, the queue of its answers.
  const ResponderUser user = FindResponderUser();
  const std::string config = d + "/zelpnl.conf";
  WriteText(config, PanelConfig(d, with_cf, user.group), 0600);
  WriteText(dir / "responder.conf", ResponderConfig(d, with_cf), 0640);
  Own(dir / "responder.conf", ::geteuid(), user.gid, 0640, user);
  fs::create_directory(dir / "responder");
  Own(dir / "responder", ::geteuid(), user.gid, 0750, user);
  for (const char* folder : {"responder-memory", "answers"}) {
    fs::create_directory(dir / folder);
    Own(dir / folder, user.uid, user.gid, 0700, user);
  }
  WriteText(dir / "responder.log", "", 0640);
  Own(dir / "responder.log", user.uid, user.gid, 0640, user);
  for (const char* map : {"virtusertable", "access"})
    Run("/usr/sbin/makemap hash " + d + "/" + map + " < " + d + "/" + map, d + "/" + map);

  // The panel as every later run opens it: the module writes the "devnull"
  // alias and builds the aliases database.
  host.UseConfig(config);
  host.Open(Needs::kMail);
  pnl_db::Cache& db = host.Db();
  {
    pnl_db::Request request(db);
    UserRow admin = db.Get<zel_db::UserTable>();
    admin->New();
    admin->name = kAdmin;
    admin->Post();
    request.End();
  }

  nlohmann::ordered_json doc = {{"sandbox",
                         {{"dir", d},
                          {"config", config},
                          {"database", d + "/panel.db"},
                          {"log_file", d + "/zelpnl.log"},
                          {"sendmail_cf", with_cf ? nlohmann::ordered_json(d + "/sendmail.cf") : nullptr},
                          {"responder_conf", d + "/responder.conf"},
                          {"admin", kAdmin}}}};
  std::string text = "sandbox ready in " + d + "\n" +
                     Fields({{"configuration", config},
                             {"database", d + "/panel.db (user \"admin\")"},
                             {"sendmail files", d + "/{local-host-names,virtusertable,aliases,access}"},
                             {"sendmail.cf", with_cf ? d + "/sendmail.cf (for mail check)"
                                                     : std::string("none (sendmail-cf or m4 missing)")},
                             {"restart command", "true (no mail daemon runs on these files)"},
                             {"responder", d + "/responder.conf (answers queued in " + d +
                                               "/answers)"}}) +
                     "use it with: export ZELPNL_CONF=" + config + "\n";
  out.Print(doc, text);
}

}  // namespace

void AddInitCommand(CLI::App& app, Command* out) {
  auto dir = std::make_shared<std::string>();
  CLI::App* init = app.add_subcommand(
      "init", "Make a self-contained set-up in a folder: configuration, database, sendmail files");
  init->footer(
      "Writes DIR/zelpnl.conf with every path key pointing into DIR, the panel database "
      "DIR/panel.db with the user \"admin\", empty local-host-names, virtusertable, aliases and "
      "access files (the aliases file gets the \"devnull\" alias), and, where sendmail-cf and m4 "
      "are installed, DIR/sendmail.mc and DIR/sendmail.cf: a sendmail configuration that reads "
      "DIR's files, so that \"mail check\" asks sendmail itself. The aliases rebuild "
      "(sendmail-newaliases) is zelpnl-newaliases on DIR's aliases; the restart command is "
      "\"true\", which is harmless: no mail daemon runs on these files. The autoresponder gets "
      "its own configuration DIR/responder.conf, its settings folder DIR/responder, and, owned "
      "by the mail user it runs as, DIR/responder-memory, DIR/responder.log and DIR/answers, "
      "where its answers are queued. DIR must not lie below a folder anyone may write to (such "
      "as /tmp): sendmail refuses files there.");
  init->add_option("--sandbox", *dir, "The folder (made when missing; must hold none of the files)")
      ->required()
      ->option_text("DIR");
  init->callback([=] {
    const fs::path d = SandboxDir(*dir);
    *out = {Needs::kNothing, [=](Host& h, const Output& o) { Init(h, o, d); },
            "makes a new set-up; run it on its own"};
  });
}

}  // namespace zelpnl
