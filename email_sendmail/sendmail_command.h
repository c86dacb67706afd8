// How the back-end runs sendmail itself: the program, with -C and the
// set-up's own sendmail.cf when the configuration names one
// ("sendmail_cf", as a sandbox's does), quoted for the shell.
#pragma once

#include <string>

namespace zelpriv_email_sendmail {

std::string SendmailCommand();

}  // namespace zelpriv_email_sendmail
