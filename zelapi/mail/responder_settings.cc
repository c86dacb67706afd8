// The responder's settings files: their names and format, reading them, and
// keeping them in agreement with the panel's rows.
#include "zelapi/mail/responder_settings.h"

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/log.h"
#include "zelapi/str.h"

namespace email {

namespace {

constexpr char kMagic[] = "zelpnl responder settings 1\n";
constexpr size_t kMaxFileBytes = 4 << 20;
constexpr size_t kMaxLocal = 64;
constexpr size_t kMaxDomain = 253;
constexpr unsigned kFileMode = 0640;
constexpr unsigned kFolderMode = 0750;
constexpr char kHookName[] = "responder-settings";
constexpr int64_t kMaxPeriodDays = 1000000;
// From this many files written at once, each is saved without its own flush
// to disk and the file system is flushed once at the end: a flush costs
// milliseconds, so a sync or a batch that switches on thousands of
// responders would otherwise spend most of its time waiting for the disk.
constexpr size_t kBulkFiles = 32;

// What the triggers note, kept per connection in its temporary schema (a
// rolled-back request takes its notes along).
const char* const kWatchStatements[] = {
    "CREATE TEMP TABLE responder_settings_mailbox (id INTEGER PRIMARY KEY)",
    "CREATE TEMP TABLE responder_settings_address (address TEXT PRIMARY KEY)",
    "CREATE TEMP TABLE responder_settings_domain (id INTEGER PRIMARY KEY, name TEXT NOT NULL)",

    "CREATE TEMP TRIGGER responder_settings_responder_insert AFTER INSERT ON main.email_responder "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (NEW.email); END",
    "CREATE TEMP TRIGGER responder_settings_responder_update AFTER UPDATE ON main.email_responder "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (OLD.email); "
    "INSERT OR IGNORE INTO responder_settings_mailbox VALUES (NEW.email); END",
    "CREATE TEMP TRIGGER responder_settings_responder_delete AFTER DELETE ON main.email_responder "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (OLD.email); END",

    // A renamed mailbox leaves its old address behind; the mark-and-sweep
    // tag of mail sync is no change.
    "CREATE TEMP TRIGGER responder_settings_mailbox_update "
    "AFTER UPDATE OF name, domain, enabled ON main.email "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (NEW.id); "
    "INSERT OR IGNORE INTO responder_settings_address "
    "SELECT OLD.name || '@' || d.name FROM main.email_domain d "
    "WHERE d.id = OLD.domain AND (OLD.name IS NOT NEW.name OR OLD.domain IS NOT NEW.domain); END",
    // Before the delete, while the domain row is there (when the domain
    // itself goes, its own trigger notes its whole folder).
    "CREATE TEMP TRIGGER responder_settings_mailbox_delete BEFORE DELETE ON main.email "
    "BEGIN INSERT OR IGNORE INTO responder_settings_address "
    "SELECT OLD.name || '@' || d.name FROM main.email_domain d WHERE d.id = OLD.domain; END",

    "CREATE TEMP TRIGGER responder_settings_alias_insert AFTER INSERT ON main.email_alias "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (NEW.email); END",
    "CREATE TEMP TRIGGER responder_settings_alias_update AFTER UPDATE ON main.email_alias "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (OLD.email); "
    "INSERT OR IGNORE INTO responder_settings_mailbox VALUES (NEW.email); END",
    "CREATE TEMP TRIGGER responder_settings_alias_delete AFTER DELETE ON main.email_alias "
    "BEGIN INSERT OR IGNORE INTO responder_settings_mailbox VALUES (OLD.email); END",

    // The first name a domain had in the request is kept.
    "CREATE TEMP TRIGGER responder_settings_domain_update "
    "AFTER UPDATE OF name, enabled ON main.email_domain "
    "BEGIN INSERT OR IGNORE INTO responder_settings_domain VALUES (OLD.id, OLD.name); END",
    "CREATE TEMP TRIGGER responder_settings_domain_delete BEFORE DELETE ON main.email_domain "
    "BEGIN INSERT OR IGNORE INTO responder_settings_domain VALUES (OLD.id, OLD.name); END",
};

// Whether a mailbox answers, as one SQL condition over e (email), d
// (email_domain) and r (email_responder, left-joined).
constexpr char kAnswers[] = "e.enabled = 1 AND d.enabled = 1 AND r.enabled = 1 AND r.text != ''";

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string LowerText(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = Lower(c);
  return out;
}

bool IsLowerAlnum(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

[[noreturn]] void Refuse(const std::string& address, const std::string& why) {
  throw pnl_err::Error(pnl_err::Kind::kEmail, address, "cannot name a responder settings file: " + why);
}

// A domain name that is safe as one folder name: letters, digits, "-" and
// ".", neither "." nor "-" first, no empty label.
bool IsFolderName(const std::string& domain) {
  if (domain.empty() || domain.size() > kMaxDomain) return false;
  if (domain.front() == '.' || domain.front() == '-' || domain.back() == '.') return false;
  for (size_t i = 0; i < domain.size(); ++i) {
    const char c = domain[i];
    if (c == '.' && domain[i + 1] == '.') return false;
    if (!IsLowerAlnum(c) && c != '-' && c != '.') return false;
  }
  return true;
}

std::string EncodeLocal(const std::string& local) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < local.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(local[i]);
    const bool plain = IsLowerAlnum(static_cast<char>(c)) || c == '_' || c == '+' || c == '=' ||
                       c == '-' || (c == '.' && i > 0);
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

void AppendField(std::string& out, const char* name, const std::string& value) {
  out += name;
  out += ' ';
  out += std::to_string(value.size());
  out += '\n';
  out += value;
  out += '\n';
}

// Reads the field "NAME LENGTH\nVALUE\n" at text[pos]; false when the text
// there is anything else.
bool TakeField(std::string_view text, size_t& pos, std::string_view name, std::string& value) {
  if (text.substr(pos, name.size()) != name || pos + name.size() >= text.size() ||
      text[pos + name.size()] != ' ')
    return false;
  size_t i = pos + name.size() + 1;
  size_t length = 0;
  const size_t digits_start = i;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    if (i - digits_start >= 9) return false;
    length = length * 10 + static_cast<size_t>(text[i] - '0');
    ++i;
  }
  if (i == digits_start || (text[digits_start] == '0' && i - digits_start > 1)) return false;
  if (i >= text.size() || text[i] != '\n') return false;
  ++i;
  if (length > text.size() - i || i + length >= text.size() || text[i + length] != '\n')
    return false;
  value.assign(text.substr(i, length));
  pos = i + length + 1;
  return true;
}

bool Fail(std::string* error, const std::string& why) {
  if (error) *error = why;
  return false;
}

std::string NewStamp() {
  static const char kHex[] = "0123456789abcdef";
  const std::string bytes = str::Random(16);
  std::string out;
  for (unsigned char c : bytes) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

bool IsStamp(const std::string& stamp) {
  if (stamp.size() != 32) return false;
  for (char c : stamp)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

// The gid of the group that may read the settings (responder_group).
unsigned ResponderGid() {
  std::string name = pnl_cf::GetParam(kResponderGroupParam);
  if (name.empty()) name = kDefaultResponderGroup;
  std::vector<char> buffer(16384);
  struct group entry;
  struct group* found = nullptr;
  const int err = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (err != 0 || found == nullptr)
    throw pnl_err::Error(pnl_err::Kind::kConf, kResponderGroupParam,
                         "the group \"" + name + "\" that may read the responder settings " +
                             (err != 0 ? std::string("cannot be looked up: ") + std::strerror(err)
                                       : std::string("does not exist")));
  return static_cast<unsigned>(found->gr_gid);
}

[[noreturn]] void FileFail(const std::string& path, const std::string& step, int err) {
  throw pnl_err::Error(pnl_err::Kind::kFile, path, step + ": " + std::strerror(err));
}

// Sets owner, group and mode of an existing folder.
void SetFolderOwner(pnl_file::Ops& ops, const std::string& path, unsigned gid) {
  int fd = -1;
  int err = ops.Open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW, 0, fd);
  if (err != 0) FileFail(path, "cannot open the folder", err);
  err = ops.Fchown(fd, ::geteuid(), gid);
  if (err == 0) err = ops.Fchmod(fd, kFolderMode);
  ops.Close(fd);
  if (err != 0) FileFail(path, "cannot give the folder its owner and mode", err);
}

// The folder at path, made (owner the caller, group gid, mode 0750) when
// missing; its parent must exist.
void EnsureFolder(const std::string& path, unsigned gid) {
  std::shared_ptr<pnl_file::Ops> ops = pnl_file::CurrentOps();
  const int err = ops->MakeDir(path, kFolderMode);
  if (err == EEXIST) return;
  if (err != 0) FileFail(path, "cannot make the responder settings folder", err);
  SetFolderOwner(*ops, path, gid);
}

// Removes a file; a missing one is no error.
void RemoveFile(const std::string& path) {
  const int err = pnl_file::CurrentOps()->Unlink(path);
  if (err != 0 && err != ENOENT) FileFail(path, "cannot remove", err);
}

// Removes a domain folder that became empty; one that is not is left.
void RemoveFolderIfEmpty(const std::string& path) { pnl_file::CurrentOps()->RemoveDir(path); }

// Whether the file at path is one of ours (starts with the format's first
// line): only such files are ever removed by a sweep, so a settings folder
// set by mistake to a folder of other files loses none of them.
bool IsSettingsFile(const std::string& path) {
  std::string data;
  pnl_file::FileId id;
  try {
    const pnl_file::FileId st = pnl_file::StatFile(path);
    if (!st.exists || st.size > kMaxFileBytes) return false;
    if (!pnl_file::ReadFile(path, data, id)) return false;
  } catch (const pnl_err::Error&) {
    return false;
  }
  return data.compare(0, sizeof kMagic - 1, kMagic) == 0;
}

// Writes settings unless the file holds them already; keeps the stamp of
// the file of the same address (a new one when there is none). Returns
// whether it wrote.
bool WriteSettings(const std::string& folder, ResponderSettings settings, unsigned gid,
                   pnl_file::safe::Flush flush) {
  const std::string path = ResponderSettingsPath(folder, settings.address);
  std::optional<ResponderSettings> old;
  try {
    old = ReadResponderSettings(folder, settings.address);
  } catch (const pnl_err::Error&) {
    // A damaged file is replaced.
  }
  settings.stamp = old && old->address == settings.address ? old->stamp : NewStamp();
  if (old && *old == settings) {
    const pnl_file::FileId id = pnl_file::StatFile(path);
    if (id.mode == kFileMode && id.uid == ::geteuid() && id.gid == gid) return false;
  }
  EnsureFolder(folder, gid);
  EnsureFolder(pnl_file::FolderOf(path), gid);
  pnl_file::FileId owner;
  owner.exists = true;
  owner.mode = kFileMode;
  owner.uid = ::geteuid();
  owner.gid = gid;
  pnl_file::safe::Folder open_folder;
  pnl_file::safe::WriteFile(open_folder, path, FormatResponderSettings(settings), &owner, flush);
  return true;
}

// A mailbox that answers, as its row gives it.
struct Answering {
  int64_t id = 0;
  std::string local;
  std::string domain;
  std::string subject;
  std::string text;
  int64_t period_days = 0;
};

ResponderSettings Settings(const std::string& local, const std::string& domain,
                           const std::vector<std::string>& aliases, const std::string& subject,
                           const std::string& text, int64_t period_days) {
  ResponderSettings s;
  s.address = local + "@" + domain;
  const std::string unicode = str::IdnToUnicode(domain);
  std::vector<std::string> locals = {local};
  locals.insert(locals.end(), aliases.begin(), aliases.end());
  for (const std::string& l : locals) {
    s.names.push_back(l + "@" + domain);
    if (unicode != domain) s.names.push_back(l + "@" + unicode);
  }
  s.subject = subject;
  s.text = text;
  // The program takes longer periods as this one anyway.
  s.period_days = std::min<int64_t>(std::max<int64_t>(period_days, 0), kMaxPeriodDays);
  return s;
}

std::vector<std::string> Aliases(pnl_db::Cache& db, int64_t mailbox) {
  std::vector<std::string> names;
  for (pnl_db::Query q = db.Query("SELECT name FROM email_alias WHERE email = ? ORDER BY id",
                                  {static_cast<long long>(mailbox)});
       !q.Eof(); q.Next())
    names.push_back(q.Str(0));
  return names;
}

// Runs step, keeping the first error for later and logging the others, so
// that one bad row does not keep the other mailboxes' files stale.
class Errors {
 public:
  template <class F>
  void Run(F&& step) {
    try {
      step();
    } catch (const std::exception& e) {
      if (!first_) {
        first_ = std::current_exception();
      } else {
        pnl_log::Platform().Error(std::string("responder settings: ") + e.what());
      }
    }
  }
  void Rethrow() {
    if (first_) std::rethrow_exception(first_);
  }

 private:
  std::exception_ptr first_;
};

bool Watching(pnl_db::Cache& db) {
  return !db.Query(
                "SELECT 1 FROM sqlite_temp_master WHERE type = 'table' AND "
                "name = 'responder_settings_mailbox'")
              .Eof();
}

void ForgetChanges(pnl_db::Cache& db) {
  if (!Watching(db)) return;
  db.Query("DELETE FROM temp.responder_settings_mailbox");
  db.Query("DELETE FROM temp.responder_settings_address");
  db.Query("DELETE FROM temp.responder_settings_domain");
}

// Removes every settings file below the domain folder, then the folder.
void RemoveDomainFolder(const std::string& folder, const std::string& domain) {
  if (!IsFolderName(domain)) return;
  const std::string dir = folder + "/" + domain;
  std::error_code ec;
  std::vector<std::string> files;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (!name.empty() && name[0] != '.') files.push_back(dir + "/" + name);
  }
  for (const std::string& file : files)
    if (IsSettingsFile(file)) RemoveFile(file);
  RemoveFolderIfEmpty(dir);
}

void ApplyChanges(pnl_db::Cache& db) {
  const std::string folder = ResponderSettingsFolder();
  Errors errors;
  std::optional<unsigned> gid;
  auto group = [&gid] {
    if (!gid) gid = ResponderGid();
    return *gid;
  };

  // Domains whose state or name changed: a domain renamed or gone takes
  // its folder along; each of its mailboxes is looked at again.
  std::vector<std::pair<int64_t, std::string>> domains;
  for (pnl_db::Query q = db.Query("SELECT id, name FROM temp.responder_settings_domain"); !q.Eof();
       q.Next())
    domains.emplace_back(q.Int(0), q.Str(1));
  for (const auto& [id, old_name] : domains) {
    pnl_db::Query now =
        db.Query("SELECT name FROM email_domain WHERE id = ?", {static_cast<long long>(id)});
    const bool same = !now.Eof() && LowerText(now.Str(0)) == LowerText(old_name);
    const std::string gone = LowerText(old_name);  // clang 14 captures no structured binding
    if (!same) errors.Run([&] { RemoveDomainFolder(folder, gone); });
    db.Query(
        "INSERT OR IGNORE INTO temp.responder_settings_mailbox SELECT id FROM email "
        "WHERE domain = ?",
        {static_cast<long long>(id)});
  }

  // Addresses a mailbox had before it was renamed or deleted.
  std::vector<std::string> gone;
  for (pnl_db::Query q = db.Query("SELECT address FROM temp.responder_settings_address"); !q.Eof();
       q.Next())
    gone.push_back(q.Str(0));
  for (const std::string& address : gone)
    errors.Run([&] {
      const std::string path = ResponderSettingsPath(folder, address);
      RemoveFile(path);
      RemoveFolderIfEmpty(pnl_file::FolderOf(path));
    });

  // The mailboxes themselves: a file for each that answers, none for the
  // others.
  std::vector<Answering> answering;
  std::vector<std::string> silent;
  for (pnl_db::Query q =
           db.Query(std::string("SELECT e.id, e.name, d.name, ") + kAnswers +
                    ", r.subject, r.text, r.period_days FROM temp.responder_settings_mailbox t "
                    "JOIN email e ON e.id = t.id JOIN email_domain d ON d.id = e.domain "
                    "LEFT JOIN email_responder r ON r.email = e.id");
       !q.Eof(); q.Next()) {
    const std::string local = LowerText(q.Str(1));
    const std::string domain = LowerText(q.Str(2));
    if (q.Int(3) != 1) {
      silent.push_back(local + "@" + domain);
      continue;
    }
    answering.push_back({q.Int(0), local, domain, q.Str(4), q.Str(5), q.Int(6)});
  }
  for (const std::string& address : silent)
    errors.Run([&] {
      const std::string path = ResponderSettingsPath(folder, address);
      RemoveFile(path);
      RemoveFolderIfEmpty(pnl_file::FolderOf(path));
    });
  const pnl_file::safe::Flush flush = answering.size() >= kBulkFiles
                                          ? pnl_file::safe::Flush::kLater
                                          : pnl_file::safe::Flush::kNow;
  size_t written = 0;
  for (const Answering& a : answering)
    errors.Run([&] {
      if (WriteSettings(
              folder,
              Settings(a.local, a.domain, Aliases(db, a.id), a.subject, a.text, a.period_days),
              group(), flush))
        ++written;
    });
  if (flush == pnl_file::safe::Flush::kLater && written > 0)
    errors.Run([&] { pnl_file::safe::FlushFileSystem(folder); });
  ForgetChanges(db);
  errors.Rethrow();
}

class WatchHook : public pnl_db::RequestHook {
 public:
  void BeforeCommit(pnl_db::Cache& cache) override { ApplyChanges(cache); }
};

}  // namespace

bool ResponderSettings::operator==(const ResponderSettings& other) const {
  return address == other.address && names == other.names && subject == other.subject &&
         text == other.text && period_days == other.period_days && stamp == other.stamp;
}

std::string ResponderSettingsPath(const std::string& folder, const std::string& address) {
  const size_t at = address.rfind('@');
  if (at == std::string::npos || at == 0 || at + 1 == address.size())
    Refuse(address, "it is no mailbox address L@D");
  const std::string local = LowerText(address.substr(0, at));
  const std::string domain = LowerText(address.substr(at + 1));
  if (local.size() > kMaxLocal) Refuse(address, "its local part is longer than 64 bytes");
  if (!IsFolderName(domain))
    Refuse(address, "its domain is not letters, digits, \"-\" and \".\" (in its ASCII form)");
  return folder + "/" + domain + "/" + EncodeLocal(local);
}

std::string FormatResponderSettings(const ResponderSettings& settings) {
  std::string out = kMagic;
  AppendField(out, "address", settings.address);
  AppendField(out, "stamp", settings.stamp);
  AppendField(out, "period_days", std::to_string(settings.period_days));
  AppendField(out, "subject", settings.subject);
  AppendField(out, "text", settings.text);
  for (const std::string& name : settings.names) AppendField(out, "name", name);
  out += "end\n";
  return out;
}

bool ParseResponderSettings(std::string_view text, ResponderSettings& out, std::string* error) {
  ResponderSettings s;
  if (text.substr(0, sizeof kMagic - 1) != kMagic)
    return Fail(error, "it does not start with \"zelpnl responder settings 1\"");
  size_t pos = sizeof kMagic - 1;
  std::string period;
  if (!TakeField(text, pos, "address", s.address)) return Fail(error, "no address field");
  if (!TakeField(text, pos, "stamp", s.stamp) || !IsStamp(s.stamp))
    return Fail(error, "no stamp field of 32 hexadecimal digits");
  if (!TakeField(text, pos, "period_days", period) || period.empty() || period.size() > 18)
    return Fail(error, "no period_days field");
  for (char c : period)
    if (c < '0' || c > '9') return Fail(error, "period_days is not a number");
  s.period_days = std::stoll(period);
  if (!TakeField(text, pos, "subject", s.subject)) return Fail(error, "no subject field");
  if (!TakeField(text, pos, "text", s.text)) return Fail(error, "no text field");
  std::string name;
  while (TakeField(text, pos, "name", name)) s.names.push_back(name);
  if (text.substr(pos) != "end\n") return Fail(error, "it does not end with the line \"end\"");
  out = std::move(s);
  return true;
}

std::optional<ResponderSettings> ReadResponderSettings(const std::string& folder,
                                                       const std::string& address) {
  const std::string path = ResponderSettingsPath(folder, address);
  const pnl_file::FileId st = pnl_file::StatFile(path);
  if (!st.exists) return std::nullopt;
  if (st.size > kMaxFileBytes)
    throw pnl_err::Error(pnl_err::Kind::kEmail, path, "the responder settings file is larger than 4 MiB");
  std::string data;
  pnl_file::FileId id;
  if (!pnl_file::ReadFile(path, data, id)) return std::nullopt;
  if (data.size() > kMaxFileBytes)
    throw pnl_err::Error(pnl_err::Kind::kEmail, path, "the responder settings file is larger than 4 MiB");
  ResponderSettings settings;
  std::string why;
  if (!ParseResponderSettings(data, settings, &why))
    throw pnl_err::Error(pnl_err::Kind::kEmail, path, "the responder settings file is malformed: " + why);
  if (LowerText(settings.address) != LowerText(address))
    throw pnl_err::Error(
        pnl_err::Kind::kEmail, path,
        "the responder settings file is for " + settings.address + ", not " + address);
  return settings;
}

std::string ResponderSettingsFolder() {
  return pnl_cf::HasPath(kResponderSettingsKey) ? pnl_cf::GetPath(kResponderSettingsKey)
                                                : std::string(kDefaultResponderSettings);
}

void WatchResponderSettings(pnl_db::Cache& db) {
  if (!db.InRequest())
    throw pnl_err::Error(pnl_err::Kind::kDb, db.File(), "responder settings: no request is open");
  if (db.FindRequestHook(kHookName) != nullptr) return;
  if (!Watching(db))
    for (const char* statement : kWatchStatements) db.Query(statement);
  db.AddRequestHook(kHookName, std::make_unique<WatchHook>());
}

ResponderSettingsCount SyncResponderSettings(pnl_db::Cache& db) {
  const std::string folder = ResponderSettingsFolder();
  ResponderSettingsCount count;
  Errors errors;

  // What the folder should hold: path → settings.
  std::map<std::string, ResponderSettings> wanted;
  std::map<int64_t, std::vector<std::string>> aliases;
  for (pnl_db::Query q = db.Query(
           std::string("SELECT a.email, a.name FROM email_alias a JOIN email e ON e.id = a.email "
                       "JOIN email_domain d ON d.id = e.domain JOIN email_responder r ON "
                       "r.email = e.id WHERE ") +
           kAnswers + " ORDER BY a.email, a.id");
       !q.Eof(); q.Next())
    aliases[q.Int(0)].push_back(q.Str(1));
  for (pnl_db::Query q = db.Query(
           std::string("SELECT e.id, e.name, d.name, r.subject, r.text, r.period_days FROM email e "
                       "JOIN email_domain d ON d.id = e.domain JOIN email_responder r ON "
                       "r.email = e.id WHERE ") +
           kAnswers);
       !q.Eof(); q.Next()) {
    const int64_t id = q.Int(0);
    ResponderSettings s = Settings(LowerText(q.Str(1)), LowerText(q.Str(2)), aliases[id], q.Str(3),
                                   q.Str(4), q.Int(5));
    errors.Run([&] { wanted.emplace(ResponderSettingsPath(folder, s.address), std::move(s)); });
  }

  // What it holds: settings files not wanted go, empty domain folders too.
  std::error_code ec;
  std::vector<std::string> domains;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    std::error_code is_dir_ec;
    if (IsFolderName(name) && it->is_directory(is_dir_ec) && !it->is_symlink(is_dir_ec))
      domains.push_back(name);
  }
  for (const std::string& domain : domains) {
    const std::string dir = folder + "/" + domain;
    std::vector<std::string> files;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      const std::string name = it->path().filename().string();
      if (!name.empty() && name[0] != '.') files.push_back(dir + "/" + name);
    }
    for (const std::string& file : files)
      if (wanted.count(file) == 0 && IsSettingsFile(file))
        errors.Run([&] {
          RemoveFile(file);
          ++count.removed;
        });
    RemoveFolderIfEmpty(dir);
  }

  if (!wanted.empty()) {
    unsigned gid = 0;
    errors.Run([&] { gid = ResponderGid(); });
    errors.Rethrow();
    const pnl_file::safe::Flush flush = wanted.size() >= kBulkFiles
                                            ? pnl_file::safe::Flush::kLater
                                            : pnl_file::safe::Flush::kNow;
    for (const auto& entry : wanted)
      errors.Run([&] {
        if (WriteSettings(folder, entry.second, gid, flush)) {
          ++count.written;
        } else {
          ++count.kept;
        }
      });
    if (flush == pnl_file::safe::Flush::kLater && count.written > 0)
      errors.Run([&] { pnl_file::safe::FlushFileSystem(folder); });
  }
  ForgetChanges(db);
  errors.Rethrow();
  return count;
}

}  // namespace email
