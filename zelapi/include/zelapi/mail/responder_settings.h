// email responder settings: what the responder program needs to answer for
// one mailbox, kept by the panel in a folder of small read-only files, so
// that the program never opens the panel database.
//
// The responder runs as sendmail's default user (a program named in the
// root-owned aliases file). The panel database and configuration are root's
// alone; what that user may read of them is exactly this: one file per
// mailbox that answers now (its responder on with a text, the mailbox and its
// mail domain in service), holding its address, every address that names it
// (its own and its aliases', each also with the domain's Unicode form), the
// responder's subject, text and period, and a stamp. A mailbox that does not
// answer has no file. Files are FOLDER/D/L: the domain's ASCII name, then the
// local part with every byte but letters, digits and "_+=-." (a dot not
// first) written as %XX; owner the panel's user, group responder_group,
// mode 0640 (folders 0750), each written atomically (pnl_file::safe).
//
// The stamp is new each time a mailbox starts to answer (responder switched
// on, mailbox or domain back in service) and kept while it answers (a new
// text or alias keeps it): the responder forgets the senders it answered
// under another stamp.
//
// The panel keeps the files in agreement with its rows: WatchResponderSettings
// notes, through temporary triggers on the request's connection, every
// mailbox whose responder, state, name or aliases change, or whose domain's
// state or name changes, and rewrites or removes those mailboxes' files just
// before the request commits (the cost grows with what changed, not with the
// number of mailboxes). SyncResponderSettings makes the whole folder agree.
//
// Functions are thread-safe where their pnl_db and pnl_cf use is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pnl_db {
class Cache;
}

namespace email {

// Path key of the settings folder, and its default.
inline constexpr char kResponderSettingsKey[] = "responder-settings";
inline constexpr char kDefaultResponderSettings[] = "/var/lib/zelpnl/responder";
// Parameter naming the group that may read the settings (sendmail's default
// user's group), and its default.
inline constexpr char kResponderGroupParam[] = "responder_group";
inline constexpr char kDefaultResponderGroup[] = "mail";

struct ResponderSettings {
  std::string address;             // L@D, ASCII, lower case: the From of the answers
  std::vector<std::string> names;  // every address that names the mailbox
  std::string subject;             // "" for "Re: " and the original's subject
  std::string text;                // the answer's text
  int64_t period_days = 7;         // a sender is answered once per period; 0: always
  std::string stamp;               // 32 hexadecimal digits

  bool operator==(const ResponderSettings& other) const;
};

// The file of address's settings under folder. Throws pnl_err::Error (type
// "email", object the address) when the address is no mailbox address whose
// domain can be a folder name (letters, digits, "-" and ".", not starting
// with "." or "-") or whose local part is empty or longer than 64 bytes.
// Letters are taken in lower case.
std::string ResponderSettingsPath(const std::string& folder, const std::string& address);

// The file's text and back. Parse returns false with a reason in *error for
// text that is not exactly what Format writes (the version line, the fields
// in order with their lengths, nothing after the end line).
std::string FormatResponderSettings(const ResponderSettings& settings);
bool ParseResponderSettings(std::string_view text, ResponderSettings& out, std::string* error);

// The settings of address under folder, or nullopt when the mailbox does
// not answer (no file). Throws pnl_err::Error (type "email", object the
// file) when the file cannot be read or is malformed or larger than 4 MiB,
// and as ResponderSettingsPath. Reads only.
std::optional<ResponderSettings> ReadResponderSettings(const std::string& folder,
                                                       const std::string& address);

// The settings folder of the loaded configuration (path key, else the
// default).
std::string ResponderSettingsFolder();

// Starts keeping the settings files in agreement with the rows changed in
// the request open on db: installs the triggers once per connection and
// adds the request hook that writes the files before the commit. Does
// nothing when the hook is in place already. Throws pnl_err::Error when no
// request is open, or on a database error. The hook throws pnl_err::Error
// (after the commit) when a file cannot be written or removed, the group
// does not exist, or a row's name cannot be a file name; the files of the
// other mailboxes are written first. Cost: one query per changed mailbox and
// one write or unlink; a domain whose state or name changed counts all its
// mailboxes.
void WatchResponderSettings(pnl_db::Cache& db);

// What SyncResponderSettings did.
struct ResponderSettingsCount {
  size_t written = 0;  // files made or rewritten
  size_t removed = 0;  // files of mailboxes that do not answer, or unknown
  size_t kept = 0;     // files that agreed already
};

// Makes the whole folder agree with the rows on db: writes the file of each
// mailbox that answers when missing or different (keeping its stamp),
// removes every other file and empty domain folders, and forgets the
// changes WatchResponderSettings noted so far (they are in agreement now).
// Cost: one pass over the answering mailboxes and the folder. Throws as the
// hook of WatchResponderSettings, after doing what it could.
ResponderSettingsCount SyncResponderSettings(pnl_db::Cache& db);

}  // namespace email
