// Access-map entries and who wrote them.
//
// The panel writes entries of its own into the access map (sender-list
// entries and suspensions) and records each one in the panel database
// (zel_db::RecordAccessEntry). Every other line is the administrator's: the
// panel neither rewrites nor removes it, and a command that would have to
// refuses, naming it (NotThePanels). Keys compare without ASCII letter case,
// as sendmail folds the keys of its maps (the access table's key index
// does too).
//
// Reads the access map through the engine and the record through the
// process's panel database (zel_db::GetCache); from the request's thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "email/records.h"

namespace email {

// One line of the access map, as the file holds it.
struct AccessEntry {
  std::string key;
  std::string value;
  bool panel = false;  // the panel wrote this key with this very value

  // "KEY VALUE", for messages.
  std::string Text() const { return key + " " + value; }
};

// The first line whose key is one of keys (letter case aside), the keys
// tried in their order; nullopt when there is none. The cursor is left on
// that line (on no record when there is none). Throws what the engine and
// the database throw.
std::optional<AccessEntry> FindAccessEntry(Cursor<SourceTarget>& access,
                                           const std::vector<std::string>& keys);
// The same on a cursor of its own on the access map at path.
std::optional<AccessEntry> FindAccessEntry(const std::string& path,
                                           const std::vector<std::string>& keys);

// The detail of a refusal over an entry the panel did not write:
// the access map holds "Connect:127.0.0.1 RELAY", which the panel did not write
std::string NotThePanels(const AccessEntry& entry);

}  // namespace email
