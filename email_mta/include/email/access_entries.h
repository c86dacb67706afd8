// Access-map entries and who wrote them.
//
// The panel writes entries of its own into the access map: sender-list
// entries ("OK", "REJECT") and suspensions ("550 Account disabled"). Each
// one is recorded with RecordAccessEntry and forgotten with
// ForgetAccessEntry, in the panel database (zel_db's table email_access).
// Every other line is the administrator's: the panel neither rewrites nor
// removes it, and a command that would have to refuses, naming it
// (NotThePanels). Keys compare without ASCII letter case, as sendmail folds
// the keys of its maps (and the access table's key index does too).
//
// A killed request: the panel database takes a record only when the
// request commits, after the files were saved. So that a request killed in
// between does not leave the panel's own line looking like the
// administrator's (and its rerun refused), RecordAccessEntry also appends
// the entry to a claims file beside the database ("<database>-access-
// claims", one "KEY<TAB>VALUE" line each, no flush to disk: it guards
// against a killed process, not a power failure). The first look-up of the
// next request adopts every claim whose line the access map holds with that
// value and that the database lacks, and drops the others.
//
// Reads the access map through the engine and the record through the
// process's panel database (zel_db::GetCache); from the request's thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "email/access_entry.h"
#include "email/file_views.h"

namespace email {

// Records that the panel writes key -> value into the access map at path.
// Call it right before the post that writes the entry (a record whose post
// then fails is harmless: it only names a line that is not there).
// Throws pnl_err::Error ("db", "file") when the record cannot be kept.
void RecordAccessEntry(const std::string& path, const std::string& key,
                       const std::string& value);
// Forgets the panel's entry under key (any letter case); call it right
// after the delete. Nothing when the panel wrote none.
void ForgetAccessEntry(const std::string& path, const std::string& key);

// The first line whose key is one of keys (letter case aside), the keys
// tried in their order; nullopt when there is none. The cursor is left on
// that line (on no record when there is none). Throws what the engine and
// the database throw.
std::optional<AccessEntry> FindAccessEntry(Cursor<SourceTarget>& access,
                                           const std::vector<std::string>& keys);
// The same on a cursor of its own on the access map at path.
std::optional<AccessEntry> FindAccessEntry(const std::string& path,
                                           const std::vector<std::string>& keys);
// Whether the panel wrote the line key -> value of the access map at path
// (for a walk over its lines).
bool IsPanelAccessEntry(const std::string& path, const std::string& key,
                        const std::string& value);

// The detail of a refusal over an entry the panel did not write:
// the access map holds "Connect:127.0.0.1 RELAY", which the panel did not write
std::string NotThePanels(const AccessEntry& entry);

}  // namespace email
