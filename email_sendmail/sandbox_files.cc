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

// A minimal sendmail configuration that reads only the sandbox's files and
// never asks DNS: host names from the hosts file, no probing of interfaces,
// no canonification of addresses. The panel's mailboxes are no system
// accounts, so the local mailer takes any user name (no "w" flag).
std::string SandboxMailConfig(const std::string& d, const std::string& user) {
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
         "define(`confDEF_USER_ID', `" + user + ":" + user + "')dnl\n"
         "define(`confSERVICE_SWITCH_FILE', `" + d + "/service.switch')dnl\n"
         "define(`QUEUE_DIR', `" + d + "/queue')dnl\n"
         "define(`confDONT_PROBE_INTERFACES', `True')dnl\n"
         "MAILER(`local')dnl\n"
         "MAILER(`smtp')dnl\n";
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
    pnl_file::WriteNewFile(d + "/sendmail.mc", SandboxMailConfig(d, request.default_user), 0644);
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
  part.paths +=
      "# No mail daemon runs on the sandbox's files, so there is nothing to restart:\n"
      "# \"true\" does nothing and succeeds.\n"
      "sendmail-restart = true\n";
  part.answer_command = "/usr/sbin/sendmail " + (with_cf ? "-C " + d + "/sendmail.cf " : "") +
                        "-odq -oi -OQueueDirectory=" + answers_dir;
  part.json = {{"sendmail_cf", with_cf ? std::optional<std::string>(d + "/sendmail.cf")
                                       : std::nullopt}};
  part.text = {{"sendmail files", d + "/{local-host-names,virtusertable,aliases,access}"},
               {"sendmail.cf", with_cf ? d + "/sendmail.cf (for mail check)"
                                       : std::string("none (sendmail-cf or m4 missing)")},
               {"restart command", "true (no mail daemon runs on these files)"}};
  return part;
}

}  // namespace zelpriv_email_sendmail
