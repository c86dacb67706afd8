// email::SandboxWriter: a mail back-end's part of a self-contained set-up in
// one folder ("zelpnl init --sandbox DIR").
//
// The host makes the folder, the panel's database and configuration and the
// responder's folders; the back-end makes its own files there (its four
// tables, its configuration, its maps) and tells the host which settings
// the panel's configuration needs to find them. A mail module registers its
// writer when it is loaded, before any configuration exists, so that the
// host can make a set-up without naming any of the back-end's files.
//
// Writers are registered under the MTA name of the configuration's "MTA"
// setting. The registry is used from one thread (the host's start-up).
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace email {

struct SandboxRequest {
  std::string dir;              // absolute; characters every command carries unquoted
  std::string aliases_builder;  // the panel's alias database builder program
  std::string default_user;     // the user the MTA runs programs of its aliases file as
  // The mail stack the MTA is part of: its daemon's SMTP port on 127.0.0.1
  // (and ::1 when with_ipv6), where it sends all outbound mail
  // ("127.0.0.1:PORT": nothing ever asks DNS), the mail store's LMTP socket
  // its local mailer delivers to, and the command that reloads the running
  // daemon (its restart command).
  int smtp_port = 0;
  bool with_ipv6 = false;
  std::string smart_host;
  std::string lmtp_socket;
  std::string reload_command;
};

// What the back-end made, for the panel's configuration and the report.
struct SandboxPart {
  std::string params;  // lines of the configuration's [params] section
  // The name of the daemon it runs in the sandbox ("" for none): params
  // then describe it as stack_NAME_start (its command), stack_NAME_pid (its
  // pid file), stack_NAME_listen (host:port ... it binds), stack_NAME_log
  // (where its output goes), stack_NAME_hup ("restarts": SIGHUP runs it
  // anew under a new pid; "rereads": it reads its files again) and
  // optionally stack_NAME_queue (the command that lists its queue).
  std::string service;
  std::string paths;   // lines of its [paths] section
  // The command the responder submits its answers with (as the mail user);
  // an answer that cannot go at once waits in answers_dir.
  std::string answer_command;
  // The report's entries: JSON members (no value: not made) ...
  std::vector<std::pair<std::string, std::optional<std::string>>> json;
  // ... and labelled lines of the text report.
  std::vector<std::pair<std::string, std::string>> text;
};

class SandboxWriter {
 public:
  virtual ~SandboxWriter();
  // The names of the files and folders it makes in the folder: a folder
  // that holds any of them already is refused before anything is written.
  virtual std::vector<std::string> Files() const = 0;
  // Makes them. answers_dir: where the responder's answers are queued.
  // Throws pnl_err::Error naming the file or command that failed.
  virtual SandboxPart Write(const SandboxRequest& request, const std::string& answers_dir) const = 0;
};

// Registers writer under mta for as long as the registration lives (a
// module's static object: it goes when the module is unloaded).
class SandboxRegistration {
 public:
  SandboxRegistration(std::string mta, const SandboxWriter& writer);
  ~SandboxRegistration();
  SandboxRegistration(const SandboxRegistration&) = delete;
  SandboxRegistration& operator=(const SandboxRegistration&) = delete;

 private:
  std::string mta_;
};

// The writer registered under mta, or nullptr.
const SandboxWriter* FindSandboxWriter(const std::string& mta);

}  // namespace email
