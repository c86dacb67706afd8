#include "mailstore/dovecot_sandbox.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/hash.h"

namespace fs = std::filesystem;

namespace mailstore {

namespace {

constexpr char kDovecot[] = "/usr/sbin/dovecot";
constexpr char kDoveadm[] = "/usr/bin/doveadm";

struct Ids {
  unsigned uid = 0;
  unsigned gid = 0;
};

Ids MailUserIds(const std::string& user) {
  const struct passwd* pw = ::getpwnam(user.c_str());
  if (pw == nullptr)
    throw pnl_err::Error(pnl_err::Kind::kInit, "user " + user,
                         "does not exist; the sandbox's mail store keeps its mail as it");
  return {pw->pw_uid, pw->pw_gid};
}

void MakeFolder(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
  fs::create_directory(path);
  pnl_file::GiveTo(path, uid, gid, mode);
}

}  // namespace

std::string DovecotRunDir(const std::string& dir) {
  char id[17];
  std::snprintf(id, sizeof id, "%016llx",
                static_cast<unsigned long long>(pnl_hash::Hash64(dir)));
  return std::string("/run/zelpnl/") + id;
}

std::vector<std::string> DovecotSandboxFiles() {
  return {"dovecot.conf", "dovecot-sql.conf.ext", "mail", "mail-archive", "state"};
}

std::string DovecotSqlConfig(const std::string& database) {
  return "# How the sandbox's Dovecot reads the panel database, made by \"zelpnl init\".\n"
         "# The views mail_login and mail_user are the panel's interface for it.\n"
         "driver = sqlite\n"
         "connect = " + database + "\n"
         "# Who may log in now: a mailbox with a password, in service, keeping mail.\n"
         "# Asked by domain and local part, which the database finds by its indexes.\n"
         "password_query = SELECT user, password FROM mail_login WHERE domain = '%d' AND local = '%n'\n"
         "# Where mail is delivered: every mailbox that keeps mail, with its quota\n"
         "# (bytes, 0 for none). The MTA refuses a suspended mailbox's mail itself.\n"
         "user_query = SELECT '*:bytes=' || quota AS quota_rule FROM mail_user WHERE domain = '%d' AND local = '%n'\n"
         "iterate_query = SELECT user FROM mail_user\n";
}

std::string DovecotConfig(const DovecotSandboxRequest& r, unsigned uid, unsigned gid) {
  const std::string& d = r.dir;
  const std::string listen = r.with_ipv6 ? "127.0.0.1, ::1" : "127.0.0.1";
  const std::string u = std::to_string(uid);
  const std::string g = std::to_string(gid);
  return "# The zelpnl sandbox's Dovecot, made by \"zelpnl init\"; \"zelpnl stack start\"\n"
         "# runs it as: " + std::string(kDovecot) + " -c " + d + "/dovecot.conf\n"
         "# Nothing else is read: every path below is the sandbox's own.\n"
         "instance_name = zelpnl-sandbox\n"
         "# Its sockets: a unix socket's path holds at most 107 bytes, so they live\n"
         "# in a short folder of their own, named after the sandbox's.\n"
         "base_dir = " + DovecotRunDir(d) + "\n"
         "state_dir = " + d + "/state\n"
         "log_path = " + d + "/log/dovecot.log\n"
         "info_log_path = " + d + "/log/dovecot.log\n"
         "protocols = imap lmtp\n"
         "listen = " + listen + "\n"
         "# Loopback only, without TLS: a sandbox is no server.\n"
         "ssl = no\n"
         "disable_plaintext_auth = no\n"
         "auth_mechanisms = plain login\n"
         "# Every login asks the database: a suspension holds at the next login.\n"
         "auth_cache_size = 0\n"
         "auth_username_format = %Lu\n"
         "auth_verbose = yes\n"
         "\n"
         "# One owner for all mail, and no other: the mail user.\n"
         "mail_uid = " + u + "\n"
         "mail_gid = " + g + "\n"
         "first_valid_uid = " + u + "\n"
         "last_valid_uid = " + u + "\n"
         "first_valid_gid = " + g + "\n"
         "last_valid_gid = " + g + "\n"
         "mail_home = " + d + "/mail/%d/%n\n"
         "mail_location = maildir:~/Maildir\n"
         "mail_plugins = $mail_plugins quota\n"
         "\n"
         "passdb {\n"
         "  driver = sql\n"
         "  args = " + d + "/dovecot-sql.conf.ext\n"
         "}\n"
         "userdb {\n"
         "  driver = sql\n"
         "  args = " + d + "/dovecot-sql.conf.ext\n"
         "}\n"
         "\n"
         "plugin {\n"
         "  quota = count:User quota\n"
         "  quota_vsizes = yes\n"
         "}\n"
         "# A full mailbox is a temporary failure (452 4.2.2): the message waits in\n"
         "# the MTA's queue until there is room, and goes back to its sender when\n"
         "# the queue's return time passes.\n"
         "quota_full_tempfail = yes\n"
         "lmtp_rcpt_check_quota = yes\n"
         "\n"
         "protocol imap {\n"
         "  mail_plugins = $mail_plugins imap_quota\n"
         "}\n"
         "protocol lmtp {\n"
         "  postmaster_address = " + r.postmaster + "\n"
         "}\n"
         "\n"
         "service imap-login {\n"
         "  inet_listener imap {\n"
         "    port = " + std::to_string(r.imap_port) + "\n"
         "  }\n"
         "  inet_listener imaps {\n"
         "    port = 0\n"
         "  }\n"
         "}\n"
         "# The MTA's local mailer connects as root.\n"
         "service lmtp {\n"
         "  unix_listener lmtp {\n"
         "    mode = 0600\n"
         "    user = root\n"
         "    group = root\n"
         "  }\n"
         "}\n";
}

DovecotSandbox WriteDovecotSandbox(const DovecotSandboxRequest& r) {
  const std::string& d = r.dir;
  const Ids mail = MailUserIds(r.mail_user);
  const struct group* dovecot = ::getgrnam("dovecot");
  const unsigned dovecot_gid = dovecot ? dovecot->gr_gid : static_cast<unsigned>(::getegid());

  pnl_file::WriteNewFile(d + "/dovecot.conf", DovecotConfig(r, mail.uid, mail.gid), 0644);
  // The queries name the database; Dovecot's processes read them.
  pnl_file::WriteNewFile(d + "/dovecot-sql.conf.ext", DovecotSqlConfig(r.database), 0640);
  pnl_file::GiveTo(d + "/dovecot-sql.conf.ext", ::geteuid(), dovecot_gid, 0640);
  MakeFolder(d + "/mail", mail.uid, mail.gid, 0750);
  MakeFolder(d + "/mail-archive", ::geteuid(), ::getegid(), 0700);
  MakeFolder(d + "/state", ::geteuid(), ::getegid(), 0750);

  DovecotSandbox out;
  out.lmtp_socket = DovecotRunDir(d) + "/lmtp";
  out.mail_root = d + "/mail";
  const std::string port = std::to_string(r.imap_port);
  out.service = "dovecot";
  out.params = "mail_root = " + out.mail_root + "\n"
               "mail_archive = " + d + "/mail-archive\n"
               "doveadm = " + std::string(kDoveadm) + " -c " + d + "/dovecot.conf\n"
               "stack_dovecot_start = " + std::string(kDovecot) + " -c " + d + "/dovecot.conf\n"
               "stack_dovecot_pid = " + DovecotRunDir(d) + "/master.pid\n"
               "stack_dovecot_rundir = " + DovecotRunDir(d) + "\n"
               "stack_dovecot_listen = 127.0.0.1:" + port +
               (r.with_ipv6 ? " [::1]:" + port : std::string()) + "\n"
               "stack_dovecot_log = " + d + "/log/dovecot.log\n"
               "stack_dovecot_hup = rereads\n";
  out.text = {{"mail store", out.mail_root + "/DOMAIN/LOCAL/Maildir (Dovecot, " + d +
                                 "/dovecot.conf)"},
              {"IMAP", "127.0.0.1:" + port + (r.with_ipv6 ? ", [::1]:" + port : std::string())}};
  return out;
}

}  // namespace mailstore
