// Lines an add left in sendmail's files when its request ended before the
// database took the new row (the process was killed, or a rebuild failed
// after the save). Run again, the add finds them here and replaces them
// instead of writing a second line for the same key.
#pragma once

#include <string>

namespace zelpnl {

// What the files hold of mailbox L@D before it is added.
struct MailboxLeftover {
  bool found = false;       // an earlier add's lines are there: replace them
  std::string foreign;      // else: the target of a line that is not ours
};

// Looks for the virtual-user-table line L@D and the aliases entry L+D. A
// virtual-user-table line pointing to L+D, or an aliases entry L+D without
// such a line, is an earlier add's; a line L@D pointing anywhere else is
// not the panel's (foreign holds its target).
MailboxLeftover FindMailboxLeftover(const std::string& local, const std::string& domain);

// Whether the virtual user table holds a catch-all line "@D".
bool HasDomainLine(const std::string& domain);

}  // namespace zelpnl
