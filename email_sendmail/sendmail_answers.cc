// What the back-end asks sendmail itself: how it would deliver an address
// ("-bv"), and the names it takes as the server's own, its class w ("$=w"
// in address test mode). A customer's mail domain must not be one of them:
// sendmail would hand the domain's mail to the system's users.
#include <mutex>
#include <set>

#include "email/tables.h"
#include "email_sendmail/sendmail_interface.h"
#include "sendmail_command.h"
#include "zelapi/err.h"
#include "zelapi/proc.h"
#include "zelapi/str.h"

namespace zelpriv_email_sendmail {

namespace {

bool IsLocalhostName(const std::string& name) {
  const std::string localhost = "localhost";
  if (name == localhost || name.rfind(localhost + ".", 0) == 0) return true;
  return name.size() > localhost.size() &&
         name.compare(name.size() - localhost.size() - 1, std::string::npos, "." + localhost) == 0;
}

// The members of class w that sendmail prints for "$=w", lower case.
std::set<std::string> AskClassW() {
  const std::string command = "echo '$=w' | " + SendmailCommand() + " -bt";
  pnl_proc::Execute run(command, 2);
  if (run.Result() != 0)
    throw pnl_err::Error(pnl_err::Kind::kEmail, "class w",
                         "cannot ask sendmail for the names it takes as local (\"" + command +
                             "\" exited with status " + std::to_string(run.Result()) +
                             "): " + run.Str());
  std::set<std::string> names;
  std::string text = run.Str();
  while (!text.empty()) {
    std::string line = str::GetWord(text, '\n');
    while (line.rfind("> ", 0) == 0) line.erase(0, 2);
    if (line.empty() || line == ">" || line.rfind("ADDRESS TEST MODE", 0) == 0 ||
        line.rfind("Enter <ruleset>", 0) == 0)
      continue;
    names.insert(str::Lower(line));
  }
  return names;
}

}  // namespace

SendmailInterface::AddressCheck SendmailInterface::CheckAddress(const std::string& address) {
  AddressCheck check;
  check.command = SendmailCommand() + " -bv -- " + str::ShellWord(address);
  pnl_proc::Execute run(check.command, 2);
  check.status = run.Result();
  check.answer = run.Str();
  check.deliverable = check.status == 0;
  return check;
}

std::string SendmailInterface::ServerNameReason(const std::string& domain) {
  const std::string name = str::Lower(domain);
  if (IsLocalhostName(name)) return "is a name of the local host itself (\"localhost\")";

  // Asked once per process: the host's names do not change while it runs.
  // What local-host-names listed when sendmail was asked is told apart, as
  // this process may change that file.
  static std::mutex mu;
  static bool asked = false;
  static std::set<std::string> host_names;
  {
    std::lock_guard<std::mutex> lock(mu);
    if (!asked) {
      std::set<std::string> listed;
      Cursor<email::HostNames> hosts =
          email::LocalHostNames::Get<email::HostNames>(localhostnames_path(), true);
      for (hosts->First(); !hosts->Eof(); hosts->Next()) listed.insert(str::Lower(hosts->name.Str()));
      for (const std::string& member : AskClassW())
        if (!listed.count(member)) host_names.insert(member);
      asked = true;
    }
    if (host_names.count(name))
      return "is a name of this server (sendmail's class w), whose mail goes to the system's "
             "own users";
  }

  Cursor<email::HostNames> hosts =
      email::LocalHostNames::Get<email::HostNames>(localhostnames_path(), true);
  if (!hosts->Find(name)) return "";
  // Listed with a catch-all line of its own: an earlier add of this domain
  // that ended before the panel kept its row; the add replaces its lines.
  Cursor<email::VirtualDomains> line =
      email::VirtualUserTable::Get<email::VirtualDomains>(virtusertable_path(), true);
  if (line->Find(name)) return "";
  return "is listed in " + localhostnames_path() +
         " by a line the panel did not write, so sendmail takes it as one of the server's own "
         "names; remove that line first";
}

}  // namespace zelpriv_email_sendmail
