// mailstore::WriteDovecotSandbox: the mail store of a sandbox: a Dovecot
// instance of its own that keeps one Maildir per mailbox under the
// sandbox's mail root, owned by one mail user, takes mail from the MTA over
// LMTP on a unix socket, and serves IMAP on loopback. Mailboxes, passwords
// and quotas come from the panel database through its views mail_login and
// mail_user, asked at every login (no cache), so a suspension holds at once.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mailstore {

struct DovecotSandboxRequest {
  std::string dir;       // the sandbox folder (absolute, carried unquoted)
  std::string database;  // the panel database
  int imap_port = 0;     // on 127.0.0.1 (and ::1 when with_ipv6)
  bool with_ipv6 = false;
  std::string mail_user;       // owns the mail root and every Maildir
  std::string postmaster;      // the address Dovecot's own reports come from
};

struct DovecotSandbox {
  std::string lmtp_socket;  // where the MTA's local mailer delivers
  std::string mail_root;    // DOMAIN/LOCAL/Maildir below it
  std::string service;      // "dovecot", the daemon's name in params
  std::string params;       // lines of the panel configuration's [params]
  std::vector<std::pair<std::string, std::string>> text;  // the report's lines
};

// The files and folders it makes in the folder (its log goes to the
// sandbox's folder log/, which must exist) (a folder holding any of
// them is refused before anything is written).
std::vector<std::string> DovecotSandboxFiles();

// Writes dovecot.conf and dovecot-sql.conf.ext and makes the mail root and
// the folders Dovecot runs in. Throws pnl_err::Error naming what failed.
DovecotSandbox WriteDovecotSandbox(const DovecotSandboxRequest& request);

// Where the sandbox dir's Dovecot keeps its sockets and pid file:
// /run/zelpnl/ and 16 hex digits of the folder's hash (Dovecot makes it).
std::string DovecotRunDir(const std::string& dir);

// The configuration text itself (for tests and for a reader).
std::string DovecotConfig(const DovecotSandboxRequest& request, unsigned mail_uid,
                          unsigned mail_gid);
std::string DovecotSqlConfig(const std::string& database);

}  // namespace mailstore
