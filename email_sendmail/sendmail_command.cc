#include "sendmail_command.h"

#include "zelapi/cf.h"
#include "zelapi/str.h"

namespace zelpriv_email_sendmail {

std::string SendmailCommand() {
  std::string command = "/usr/sbin/sendmail";
  const std::string cf = pnl_cf::GetParam("sendmail_cf");
  if (!cf.empty()) command += " -C " + str::ShellWord(cf);
  return command;
}

}  // namespace zelpriv_email_sendmail
