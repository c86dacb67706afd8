// zel_db: the panel's database, its tables of users, web domains and mail
// objects, and the record of which files the panel has read.
//
// The host opens one database per process with OpenCache; every part of the
// panel then reaches it with GetCache() and takes table cursors from it
// (pnl_db::Cache::Get<zel_db::EmailTable>() and so on). The schema is created
// on first open and migrated in place by later versions (PanelSchema()).
//
// Keys and references (SQL names in quotes):
//   "users"            id, name (unique)
//   "domain"           id, name (domain name, unique, ASCII form), users -> users
//   "email_domain"     id, name (unique, ASCII form), enabled (default true),
//                      users -> users (NULL when unknown), tag, def_action
//                      (default "error"), redirect (default "")
//   "email"            id, name (local part), domain -> email_domain, enabled
//                      (default true), forward_only (default false), tag;
//                      (name, domain) unique
//   "email_alias", "email_forward"   id, email -> email, name (not unique)
//   "email_responder"  id, email -> email (unique), enabled (default false),
//                      subject, text, period_days (default 7)
//   "email_responder_sent"  id, responder -> email_responder, sender,
//                      sent_at (seconds since the epoch); (responder, sender) unique
//   "email_whitelist", "email_blacklist"   id, sender, hand_written (default
//                      false: an entry of the panel's)
//   "email_access"     id, key (unique, compared without ASCII letter case),
//                      value: the access-map entries the panel wrote
//   "file_state"       id, path (unique), state
// Deleting a mail domain deletes its mailboxes; deleting a mailbox deletes its
// aliases, forwards and responder; deleting a responder deletes its sent
// records. Deleting a user leaves its domains and mail domains with a NULL
// owner. Domain names compare without regard to ASCII letter case.
//
// Threads: OpenCache, CloseCache and GetCache are thread-safe; the Cache
// itself follows pnl_db's rules (one request at a time).
#pragma once

#include <string>

#include "zelapi/db/cache.h"
#include "zelapi/db/field.h"
#include "zelapi/db/schema.h"
#include "zelapi/db/table.h"

namespace zel_db {

// The panel's schema, step by step (pnl_db::Migration).
const pnl_db::Schema& PanelSchema();

// Opens the panel database at file (creating or migrating it, see
// pnl_db::Cache::Open) and makes it the process's database; a database open
// before is closed once the new one is open. Throws pnl_err::Error (type
// "db") when the file cannot be opened; the previous database then stays.
void OpenCache(const std::string& file);
// Closes the process's database (an open request is rolled back; cursors
// still held are detached, see pnl_db::Cache). Does nothing when none is open.
void CloseCache();
// The process's database. Throws pnl_err::Error (type "db", object
// "database") when none is open. Valid until CloseCache or the next OpenCache.
pnl_db::Cache* GetCache();
// Whether a database is open (GetCache would not throw).
bool HasCache();

// Whether the file at path changed since the panel last looked at it, by its
// state: device and inode, size, modification time to the nanosecond and a
// 64-bit hash of its content; a missing file has the state "missing". stamp
// receives the state found now, as text. The first call for a path reports it
// changed.
//
// Within a request every call for a path gives the answer of the first call
// (two cache passes of one request read the same file); the state that first
// call saw is written to table "file_state" when the request ends, so the
// next request answers against it. Outside a request the state is written at
// once. A rolled-back request forgets what it saw.
//
// Throws pnl_err::Error (type "file", object the path) when the file exists
// but cannot be read, or (type "db") on a database error.
bool FileIsChanged(const std::string& path, std::string& stamp);
bool FileIsChanged(pnl_db::Cache& cache, const std::string& path, std::string& stamp);

// Forgets what is remembered of path (in the database and in the open
// request), so that the next FileIsChanged reports it changed: for a host
// whose cache pass failed and must run again.
void ForgetFileState(const std::string& path);
void ForgetFileState(pnl_db::Cache& cache, const std::string& path);

// The state of the file at path as FileIsChanged sees it (without remembering
// anything).
std::string FileState(const std::string& path);

// The access-map entries the panel wrote: sender-list entries ("OK",
// "REJECT") and suspensions ("550 Account disabled"), each key with the
// value the panel gave it, in table "email_access". Every other line of the
// access map is the administrator's, and the panel neither rewrites nor
// removes it, even when it says the same as an entry of the panel would.
//
// The mail back-end records each entry it is about to post and forgets
// each one it deleted (the sender lists' add and delete, the suspend,
// resume and delete of domains and mailboxes), through helpers of its own
// that also cover a request killed before it committed. Keys compare
// without ASCII letter case, as sendmail folds the keys of its maps. Throw
// pnl_err::Error (type "db") on a database error.
//
// Records (or replaces) the panel's entry key -> value.
void RecordAccessEntry(pnl_db::Cache& cache, const std::string& key, const std::string& value);
void RecordAccessEntry(const std::string& key, const std::string& value);
// Forgets what the panel wrote under key; nothing when it wrote nothing.
void ForgetAccessEntry(pnl_db::Cache& cache, const std::string& key);
void ForgetAccessEntry(const std::string& key);
// Whether the panel wrote key with exactly this value (byte for byte): an
// access-map line for which this is false is the administrator's.
bool IsPanelAccessEntry(pnl_db::Cache& cache, const std::string& key, const std::string& value);
bool IsPanelAccessEntry(const std::string& key, const std::string& value);

class UserTable : public pnl_db::CustomTable {
 public:
  explicit UserTable(pnl_db::Cache& cache) : CustomTable(cache, "users") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField name{this, "name"};
};

// The panel's web domains.
class DomainTable : public pnl_db::CustomTable {
 public:
  explicit DomainTable(pnl_db::Cache& cache) : CustomTable(cache, "domain") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::IdnField name{this, "name"};
  pnl_db::RefField users{this, "users"};
};

class EmailDomainTable : public pnl_db::CustomTable {
 public:
  explicit EmailDomainTable(pnl_db::Cache& cache) : CustomTable(cache, "email_domain") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::IdnField name{this, "name"};
  pnl_db::BoolField enabled{this, "enabled"};
  pnl_db::RefField users{this, "users"};
  pnl_db::IntField tag{this, "tag"};
  // "error", "ignore", "redir_email" or "redir_domain".
  pnl_db::StringField def_action{this, "def_action"};
  // The redirect address ("redir_email") or domain ("redir_domain").
  pnl_db::StringField redirect{this, "redirect"};
  pnl_db::IntField quota{this, "quota"};            // bytes per mailbox; 0: none
  pnl_db::StringField postmaster{this, "postmaster"};  // local part; "": the administrator
};

// Mailboxes.
class EmailTable : public pnl_db::CustomTable {
 public:
  explicit EmailTable(pnl_db::Cache& cache) : CustomTable(cache, "email") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField name{this, "name"};  // the local part
  pnl_db::RefField domain{this, "domain"};
  pnl_db::BoolField enabled{this, "enabled"};
  pnl_db::BoolField forward_only{this, "forward_only"};
  pnl_db::IntField tag{this, "tag"};
  pnl_db::StringField password{this, "password"};  // pnl_password hash; "": no login
  pnl_db::IntField quota{this, "quota"};           // bytes; 0: the domain's
};

// Alias local parts of a mailbox (in the mailbox's own domain).
class EmailAliasTable : public pnl_db::CustomTable {
 public:
  explicit EmailAliasTable(pnl_db::Cache& cache) : CustomTable(cache, "email_alias") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::RefField email{this, "email"};
  pnl_db::StringField name{this, "name"};
};

// Forward targets of a mailbox, as written in the aliases file.
class EmailForwardTable : public pnl_db::CustomTable {
 public:
  explicit EmailForwardTable(pnl_db::Cache& cache) : CustomTable(cache, "email_forward") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::RefField email{this, "email"};
  pnl_db::StringField name{this, "name"};
};

class EmailResponderTable : public pnl_db::CustomTable {
 public:
  explicit EmailResponderTable(pnl_db::Cache& cache) : CustomTable(cache, "email_responder") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::RefField email{this, "email"};
  pnl_db::BoolField enabled{this, "enabled"};
  pnl_db::StringField subject{this, "subject"};
  pnl_db::StringField text{this, "text"};
  pnl_db::IntField period_days{this, "period_days"};
};

// The senders a responder has answered, and when: the responder program
// answers a sender again only after period_days.
class EmailResponderSentTable : public pnl_db::CustomTable {
 public:
  explicit EmailResponderSentTable(pnl_db::Cache& cache)
      : CustomTable(cache, "email_responder_sent") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::RefField responder{this, "responder"};
  pnl_db::StringField sender{this, "sender"};
  pnl_db::IntField sent_at{this, "sent_at"};
};

// The sender lists as read back from the access map: one row per listed
// sender, hand_written set for an entry the panel did not write.
class EmailWhitelist : public pnl_db::CustomTable {
 public:
  explicit EmailWhitelist(pnl_db::Cache& cache) : CustomTable(cache, "email_whitelist") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField sender{this, "sender"};
  pnl_db::BoolField hand_written{this, "hand_written"};
};

class EmailBlacklist : public pnl_db::CustomTable {
 public:
  explicit EmailBlacklist(pnl_db::Cache& cache) : CustomTable(cache, "email_blacklist") {}
  pnl_db::KeyField id{this, "id"};
  pnl_db::StringField sender{this, "sender"};
  pnl_db::BoolField hand_written{this, "hand_written"};
};

}  // namespace zel_db
