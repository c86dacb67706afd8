// email: helpers of the panel's mail objects over the zel_db tables, used by
// the MTA back-ends. Each works on cursors the caller holds and takes any
// other cursor it needs from the same database (the cursor's own Cache).
// Thread behaviour as the cursors'.
#pragma once

#include <memory>
#include <string>

#include "zelapi/mail/tables.h"

namespace email {

// The address "L@D" of the mailbox the cursor is on: its local part and the
// name (ASCII form) of the mail domain its domain reference names. Throws
// pnl_err::Error (type "db") when the cursor has no current row or the mail
// domain row is missing (the error names "email_domain" and the key).
std::string GetEmailName(std::shared_ptr<zel_db::EmailTable>& email);

// Splits name at its first "@" into L and D, positions domains on the mail
// domain named D (at the end, Eof() true, when there is none) and emails on
// the mailbox L of that domain (at the end when there is none). Returns
// whether the mailbox was found. A name without "@", or with an empty L or D
// (a domain's catch-all "@D"), is no mailbox name: both tables end at the end.
bool FindByEmailName(const std::string& name, std::shared_ptr<zel_db::EmailTable>& emails,
                     std::shared_ptr<zel_db::EmailDomainTable>& domains);

// The aliases-file target that pipes a message for the mailbox to the panel's
// responder program: "|PROGRAM [--config FILE] L@D" in double quotes, where
// PROGRAM is the path setting "zelpnl-responder" when configured, else
// "/usr/lib/zelpnl/zelpnl-responder", and FILE the responder's own
// configuration, the path setting "responder-conf", when configured (else the
// program reads its default, /etc/zelpnl/responder.conf); never the panel's
// configuration, which the program may not read. The same text on every call
// while the mailbox, its domain and the configuration are unchanged. The
// config file and the
// address are put in single quotes when they hold characters a shell would
// read (anything but letters, digits and "@._+=:/-"). Throws pnl_err::Error
// (type "email", object the address) when a part holds a character the target
// cannot carry (a comma, a double or, in a quoted part, single quote, a
// backslash, a line end or another control character), and as GetEmailName.
std::string GetResponderAction(std::shared_ptr<zel_db::EmailTable>& email);

// The responder program used when the path setting "zelpnl-responder" is not
// configured.
inline constexpr const char* kDefaultResponderProgram = "/usr/lib/zelpnl/zelpnl-responder";

}  // namespace email
