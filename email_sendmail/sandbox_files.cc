#include "email_sendmail/sandbox_files.h"

#include <filesystem>

#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/proc.h"

namespace fs = std::filesystem;

namespace zelpriv_email_sendmail {

namespace {

constexpr char kCfMacros[] = "/usr/share/sendmail/cf/m4/cf.m4";
constexpr char kM4[] = "/usr/bin/m4";

void Run(const std::string& command, const std::string& object) {
  pnl_proc::Execute run(command, 2);
  if (run.Result() != 0)
    throw pnl_err::Error(pnl_err::Kind::kInit, object,
                         "\"" + command + "\" failed with status " + std::to_string(run.Result()) +
                             (run.Str().empty() ? "" : ":\n" + run.Str()));
}

// sendmail.cf from sendmail.mc, through Debian's m4 macros. m4 says nothing
// when all is well: any output is a fault of the configuration.
void BuildCf(const std::string& d) {
  const std::string cf = d + "/sendmail.cf";
  pnl_proc::Execute m4(std::string(kM4) + " " + d + "/sendmail.mc > " + cf, 2);
  if (m4.Result() != 0 || !m4.Str().empty()) {
    std::error_code ec;
    fs::remove(cf, ec);
    throw pnl_err::Error(pnl_err::Kind::kInit, cf, "m4 could not build it:\n" + m4.Str());
  }
  fs::permissions(cf, fs::perms(0644));
}

}  // namespace

// The sandbox's sendmail: it reads only the sandbox's files and never asks
// DNS (host names from the hosts file, no probing of interfaces, no
// canonification, every outbound message to the smart host). The panel's
// mailboxes are no system accounts, so the local mailer takes any user
// name (no "w" flag) and hands mail to the mail store over LMTP.
std::string SandboxMailConfig(const email::SandboxRequest& r) {
  const std::string& d = r.dir;
  const std::string user = r.default_user;
  std::string mc =
      "divert(-1)\n"
      "# sendmail configuration of the zelpnl sandbox in " + d + ", made by \"zelpnl init\".\n"
      "# It reads the sandbox's files only and never asks DNS. Rebuild with:\n"
      "#   m4 " + d + "/sendmail.mc > " + d + "/sendmail.cf\n"
      "divert(0)dnl\n"
      "include(`" + std::string(kCfMacros) + "')dnl\n"
      "VERSIONID(`zelpnl sandbox')dnl\n"
      "OSTYPE(`linux')dnl\n"
      "MODIFY_MAILER_FLAGS(`LOCAL', `-w')dnl\n"
      "define(`confCW_FILE', `" + d + "/local-host-names')dnl\n"
      "FEATURE(`use_cw_file')dnl\n"
      "define(`ALIAS_FILE', `" + d + "/aliases')dnl\n"
      "FEATURE(`virtusertable', `hash -o " + d + "/virtusertable.db')dnl\n"
      "FEATURE(`access_db', `hash -T<TMPF> -o " + d + "/access.db')dnl\n"
      "dnl The access map's entries of suspended domains and mailboxes refuse them\n"
      "dnl as recipients too, at RCPT.\n"
      "FEATURE(`blocklist_recipients')dnl\n"
      "FEATURE(`nocanonify')dnl\n"
      "dnl Without DNS no sender's domain resolves; take them as they are.\n"
      "FEATURE(`accept_unresolvable_domains')dnl\n"
      "dnl Programs of the root-owned aliases file (the responder) run as this user.\n"
      "define(`confDEF_USER_ID', `" + user + ":" + user + "')dnl\n"
      "define(`confSERVICE_SWITCH_FILE', `" + d + "/service.switch')dnl\n"
      "define(`QUEUE_DIR', `" + d + "/queue')dnl\n"
      "define(`confDONT_PROBE_INTERFACES', `True')dnl\n"
      "define(`confPID_FILE', `" + d + "/sendmail.pid')dnl\n"
      "define(`STATUS_FILE', `" + d + "/log/statistics')dnl\n"
      "define(`confDEAD_LETTER_DROP', `" + d + "/log/dead.letter')dnl\n"
      "dnl No disclosure of forwards or of the responder's command line.\n"
      "define(`confPRIVACY_FLAGS', `authwarnings,noexpn,novrfy,noverb,noetrn')dnl\n"
      "define(`confTO_IDENT', `0s')dnl\n"
      "dnl The daemon listens where the sandbox says, and nowhere else.\n"
      "FEATURE(`no_default_msa')dnl\n";
  const std::string port = std::to_string(r.smtp_port);
  mc += "DAEMON_OPTIONS(`Family=inet, Name=MTA-v4, Addr=127.0.0.1, Port=" + port + "')dnl\n";
  if (r.with_ipv6)
    mc += "DAEMON_OPTIONS(`Family=inet6, Name=MTA-v6, Addr=::1, Port=" + port + "')dnl\n";
  const std::string::size_type colon = r.smart_host.rfind(':');
  const std::string relay_host = r.smart_host.substr(0, colon);
  const std::string relay_port = r.smart_host.substr(colon + 1);
  mc += "dnl All outbound mail goes to the smart host (\"relay:\": a bare loopback\n"
        "dnl literal would be taken for this host and looked up in DNS).\n"
        "define(`SMART_HOST', `relay:[" + relay_host + "]')dnl\n"
        "define(`RELAY_MAILER_ARGS', `TCP $h " + relay_port + "')dnl\n"
        "define(`ESMTP_MAILER_ARGS', `TCP $h " + relay_port + "')dnl\n"
        "define(`SMTP_MAILER_ARGS', `TCP $h " + relay_port + "')dnl\n"
        "dnl The local mailer hands mail to the mail store over LMTP.\n"
        "FEATURE(`local_lmtp', `[IPC]', `FILE " + r.lmtp_socket + "')dnl\n"
        "MAILER(`local')dnl\n"
        "MAILER(`smtp')dnl\n"
        "LOCAL_RULESETS\n"
        "# The panel's internal names, local+domain, exist only as the virtual\n"
        "# user table's targets: no client may name them, at any of our names,\n"
        "# bare or as a literal, so no suspension or access entry is bypassed.\n"
        "SLocal_check_rcpt\n"
        "R$*\t\t\t$: $>canonify $1\n"
        "R$+ + $=w\t\t$#error $@ 5.1.1 $: \"550 User unknown\"\n"
        "R$+ + $=w < @ $=w . > $*\t$#error $@ 5.1.1 $: \"550 User unknown\"\n"
        "R$+ + $=w < @ $=w > $*\t$#error $@ 5.1.1 $: \"550 User unknown\"\n"
        "R$+ + $=w < @ [ $+ ] $* > $*\t$#error $@ 5.1.1 $: \"550 User unknown\"\n"
        "# A mailbox's local delivery reaches the local mailer as its internal\n"
        "# name; the mail store knows it as local@domain.\n"
        "SLocal_localaddr\n"
        "R$+ + $=w\t\t$#local $@ $2 $: $1 @ $2\n";
  return mc;
}

std::vector<std::string> SandboxFiles::Files() const {
  return {"local-host-names", "virtusertable", "aliases", "access", "sendmail.mc", "sendmail.cf",
          "service.switch", "queue"};
}

email::SandboxPart SandboxFiles::Write(const email::SandboxRequest& request,
                                       const std::string& answers_dir) const {
  const std::string& d = request.dir;
  for (const char* name : {"local-host-names", "virtusertable", "access", "aliases"})
    pnl_file::WriteNewFile(d + "/" + name, "", 0644);
  pnl_file::WriteNewFile(d + "/service.switch", "hosts files\naliases files\n", 0644);
  fs::create_directory(d + "/queue");
  fs::permissions(d + "/queue", fs::perms(0750));

  const bool with_cf = fs::exists(kCfMacros) && fs::exists(kM4);
  if (with_cf) {
    pnl_file::WriteNewFile(d + "/sendmail.mc", SandboxMailConfig(request), 0644);
    BuildCf(d);
  }
  for (const char* map : {"virtusertable", "access"})
    Run("/usr/sbin/makemap hash " + d + "/" + map + " < " + d + "/" + map, d + "/" + map);

  email::SandboxPart part;
  if (with_cf) part.params = "sendmail_cf = " + d + "/sendmail.cf\n";
  part.paths =
      "sendmail-virtusertable = " + d + "/virtusertable\n"
      "sendmail-localhostnames = " + d + "/local-host-names\n"
      "sendmail-accessdb = " + d + "/access\n"
      "sendmail-aliases = " + d + "/aliases\n"
      "sendmail-mc = " + d + "/sendmail.mc\n";
  // The aliases rebuild is our builder: sendmail's own result in a fraction
  // of its time ("-bi" is accepted and ignored, as on sendmail's line).
  if (with_cf)
    part.paths += "sendmail-newaliases = " + request.aliases_builder + " -C " + d + "/sendmail.cf -bi\n";
  else
    part.paths += "sendmail-newaliases = " + request.aliases_builder + " -bi -oA" + d + "/aliases\n";
  // The running daemon reads local-host-names only when it starts: the
  // restart reloads it (nothing to do while it is stopped).
  part.paths += "sendmail-restart = " + request.reload_command + "\n";
  if (with_cf) {
    const std::string port = std::to_string(request.smtp_port);
    part.service = "sendmail";
    // Started by its absolute path: on SIGHUP the daemon runs itself anew
    // by the name it was started with.
    part.params +=
        "stack_sendmail_start = /usr/sbin/sendmail -C " + d + "/sendmail.cf -L zelpnl-sandbox "
        "-bd -q1m\n"
        "stack_sendmail_pid = " + d + "/sendmail.pid\n"
        "stack_sendmail_log = " + d + "/log/sendmail.log\n"
        "stack_sendmail_hup = restarts\n"
        "stack_sendmail_listen = 127.0.0.1:" + port +
        (request.with_ipv6 ? " [::1]:" + port : std::string()) + "\n"
        "stack_sendmail_queue = /usr/sbin/sendmail -C " + d + "/sendmail.cf -bp\n";
  }
  // The responder runs as the mail user: it hands each answer to sendmail,
  // which sends it at once through the smart host (an unprivileged sendmail
  // cannot use the root-owned queue), and keeps one that cannot go now in
  // answers_dir, the mail user's own.
  part.answer_command = "/usr/sbin/sendmail " + (with_cf ? "-C " + d + "/sendmail.cf " : "") +
                        "-odi -oi -OQueueDirectory=" + answers_dir;
  part.json = {{"sendmail_cf", with_cf ? std::optional<std::string>(d + "/sendmail.cf")
                                       : std::nullopt}};
  part.text = {{"sendmail files", d + "/{local-host-names,virtusertable,aliases,access}"},
               {"sendmail.cf", with_cf ? d + "/sendmail.cf (for mail check)"
                                       : std::string("none (sendmail-cf or m4 missing)")},
               {"SMTP", with_cf ? "127.0.0.1:" + std::to_string(request.smtp_port) +
                                     (request.with_ipv6 ? ", [::1]:" + std::to_string(request.smtp_port)
                                                        : std::string()) +
                                     " (outbound mail to " + request.smart_host + ")"
                               : std::string("none")}};
  return part;
}

}  // namespace zelpriv_email_sendmail
