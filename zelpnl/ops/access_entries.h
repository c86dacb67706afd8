// zelpnl access entries: the checks a command makes before it writes an
// access-map entry, so that the panel never rewrites or removes an entry it
// did not write (an administrator's "Connect:127.0.0.1 RELAY", a hand-kept
// "spam.example REJECT"): the command is refused instead, naming the line.
// Which entries are the panel's is told by email/access_entries.h.
//
// They ask the back-end for its access map's entries (a back-end without
// an access map has none, and nothing is refused), and write nothing. Used
// from the request's thread; a batch's earlier lines are seen.
#pragma once

#include <string>

namespace email {
class MtaInterface;
}

namespace zelpnl {


// Throws pnl_err::Error(pnl_err::Kind::kConflict, object, the access map holds "KEY
// VALUE", which the panel did not write) when the access map holds a line
// under key (letter case aside) that the panel did not write. For the
// suspension of a mail domain (key: its name) or a mailbox (key: L@D).
void RefuseForeignAccessEntry(email::MtaInterface& mta, const std::string& key, const std::string& object);

// For a new mail domain: as RefuseForeignAccessEntry, and also refuses
// when the domain is on one of the panel's sender lists, whose entry would
// become the domain's suspension.
void RefuseAccessEntryOfNewDomain(email::MtaInterface& mta, const std::string& domain);

}  // namespace zelpnl
