// The panel database's schema, one migration step per version. A released
// step is never edited: a change of the schema is a new step at the end.
#include "zelapi/db/cache.h"
#include "zelapi/db/schema.h"
#include "zelapi/mail/tables.h"

namespace zel_db {

namespace {

// Version 1: users, web domains, mail objects and the file states.
const char kVersion1[] = R"sql(
CREATE TABLE users (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE
) STRICT;

CREATE TABLE domain (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL COLLATE NOCASE UNIQUE,
  users INTEGER REFERENCES users(id) ON DELETE SET NULL
) STRICT;
CREATE INDEX domain_users ON domain(users);

CREATE TABLE email_domain (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL COLLATE NOCASE UNIQUE,
  enabled INTEGER NOT NULL DEFAULT 1 CHECK (enabled IN (0, 1)),
  users INTEGER REFERENCES users(id) ON DELETE SET NULL,
  tag INTEGER NOT NULL DEFAULT 0,
  def_action TEXT NOT NULL DEFAULT 'error',
  redirect TEXT NOT NULL DEFAULT ''
) STRICT;
CREATE INDEX email_domain_users ON email_domain(users);

CREATE TABLE email (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL,
  domain INTEGER NOT NULL REFERENCES email_domain(id) ON DELETE CASCADE,
  enabled INTEGER NOT NULL DEFAULT 1 CHECK (enabled IN (0, 1)),
  forward_only INTEGER NOT NULL DEFAULT 0 CHECK (forward_only IN (0, 1)),
  tag INTEGER NOT NULL DEFAULT 0,
  UNIQUE (name, domain)
) STRICT;
CREATE INDEX email_domain_ref ON email(domain);

CREATE TABLE email_alias (
  id INTEGER PRIMARY KEY,
  email INTEGER NOT NULL REFERENCES email(id) ON DELETE CASCADE,
  name TEXT NOT NULL
) STRICT;
CREATE INDEX email_alias_email ON email_alias(email);

CREATE TABLE email_forward (
  id INTEGER PRIMARY KEY,
  email INTEGER NOT NULL REFERENCES email(id) ON DELETE CASCADE,
  name TEXT NOT NULL
) STRICT;
CREATE INDEX email_forward_email ON email_forward(email);

CREATE TABLE email_responder (
  id INTEGER PRIMARY KEY,
  email INTEGER NOT NULL UNIQUE REFERENCES email(id) ON DELETE CASCADE,
  enabled INTEGER NOT NULL DEFAULT 0 CHECK (enabled IN (0, 1)),
  subject TEXT NOT NULL DEFAULT '',
  text TEXT NOT NULL DEFAULT '',
  period_days INTEGER NOT NULL DEFAULT 7 CHECK (period_days >= 0)
) STRICT;

CREATE TABLE email_responder_sent (
  id INTEGER PRIMARY KEY,
  responder INTEGER NOT NULL REFERENCES email_responder(id) ON DELETE CASCADE,
  sender TEXT NOT NULL,
  sent_at INTEGER NOT NULL DEFAULT 0,
  UNIQUE (responder, sender)
) STRICT;

CREATE TABLE email_whitelist (
  id INTEGER PRIMARY KEY,
  sender TEXT NOT NULL
) STRICT;

CREATE TABLE email_blacklist (
  id INTEGER PRIMARY KEY,
  sender TEXT NOT NULL
) STRICT;

CREATE TABLE file_state (
  id INTEGER PRIMARY KEY,
  path TEXT NOT NULL UNIQUE,
  state TEXT NOT NULL
) STRICT;
)sql";

// Version 2: a responder switched off forgets the senders it answered, so
// that switched on again it answers each of them anew. (Deleting the
// responder, or its mailbox, removes them through the cascade.)
const char kVersion2[] = R"sql(
CREATE TRIGGER email_responder_off_forgets_senders
AFTER UPDATE OF enabled ON email_responder
WHEN NEW.enabled = 0
BEGIN
  DELETE FROM email_responder_sent WHERE responder = NEW.id;
END;
)sql";

// Version 3: the access-map entries the panel wrote (key and value), so
// that an administrator's own line is told apart from the panel's even when
// it says the same; and the sender lists' rows say which entries are the
// administrator's. The entries of an existing install are adopted as the
// panel's: the keys its list rows stand under (IPv4 "Connect:" keys, IPv6
// "Connect:IPv6:" keys in the spelling earlier versions wrote), then the
// suspended domains and mailboxes, whose entries took over any list entry of
// the same key. The remembered file states are dropped, so that the next
// reading of each file (the lists' first of all) fills the new column.
const char kVersion3[] = R"sql(
CREATE TABLE email_access (
  id INTEGER PRIMARY KEY,
  key TEXT NOT NULL COLLATE NOCASE UNIQUE,
  value TEXT NOT NULL
) STRICT;

ALTER TABLE email_whitelist
  ADD COLUMN hand_written INTEGER NOT NULL DEFAULT 0 CHECK (hand_written IN (0, 1));
ALTER TABLE email_blacklist
  ADD COLUMN hand_written INTEGER NOT NULL DEFAULT 0 CHECK (hand_written IN (0, 1));

INSERT OR REPLACE INTO email_access (key, value)
  SELECT CASE
           WHEN sender GLOB '*:*' AND sender NOT GLOB '*[^0-9A-Fa-f:.]*'
             THEN 'Connect:IPv6:' || sender
           WHEN sender NOT GLOB '*[^0-9.]*' THEN 'Connect:' || sender
           ELSE sender
         END, value
  FROM (SELECT 0 AS list, id, sender, 'OK' AS value FROM email_whitelist
        UNION ALL
        SELECT 1, id, sender, 'REJECT' FROM email_blacklist)
  ORDER BY list, id;
INSERT OR REPLACE INTO email_access (key, value)
  SELECT name, '550 Account disabled' FROM email_domain WHERE enabled = 0;
INSERT OR REPLACE INTO email_access (key, value)
  SELECT e.name || '@' || d.name, '550 Account disabled'
  FROM email e JOIN email_domain d ON d.id = e.domain WHERE e.enabled = 0;

DELETE FROM file_state;
)sql";

// Version 4: what the mail store needs. A mailbox's password (a hash the
// mail server verifies, "" for none: no login) and quota in bytes (0: its
// domain's default); a domain's default quota (0: none) and the mailbox
// that receives its postmaster and abuse mail ("" for the server's
// administrator). The two views are the mail server's way into the
// database, a supported interface: its queries name them and nothing else,
// so the tables can change while the views keep their columns. Ask them by
// domain and local (the columns' own indexes answer that); the user column
// is computed, and a lookup by it reads every mailbox.
//   mail_login: who may log in now, with the hash: mailboxes with a
//     password, in service (neither they nor their domain suspended) and
//     keeping mail (not forward-only).
//   mail_user: every mailbox that keeps mail, with where it lives and its
//     quota in bytes (0: none).
const char kVersion4[] = R"sql(
ALTER TABLE email ADD COLUMN password TEXT NOT NULL DEFAULT '';
ALTER TABLE email ADD COLUMN quota INTEGER NOT NULL DEFAULT 0 CHECK (quota >= 0);
ALTER TABLE email_domain ADD COLUMN quota INTEGER NOT NULL DEFAULT 0 CHECK (quota >= 0);
ALTER TABLE email_domain ADD COLUMN postmaster TEXT NOT NULL DEFAULT '';

CREATE VIEW mail_login AS
  SELECT e.name || '@' || d.name AS user, d.name AS domain, e.name AS local,
         e.password AS password
  FROM email e JOIN email_domain d ON d.id = e.domain
  WHERE e.enabled = 1 AND d.enabled = 1 AND e.forward_only = 0 AND e.password <> '';

CREATE VIEW mail_user AS
  SELECT e.name || '@' || d.name AS user, d.name AS domain, e.name AS local,
         CASE WHEN e.quota > 0 THEN e.quota ELSE d.quota END AS quota
  FROM email e JOIN email_domain d ON d.id = e.domain
  WHERE e.forward_only = 0;
)sql";

// The schema becomes pnl_db's default when the library loads, so that
// pnl_db::Cache::Open(file) opens a panel database.
[[maybe_unused]] const bool kRegistered = (pnl_db::RegisterSchema(PanelSchema()), true);

}  // namespace

const pnl_db::Schema& PanelSchema() {
  static const pnl_db::Schema schema = {
      {1, kVersion1},
      {2, kVersion2},
      {3, kVersion3},
      {4, kVersion4},
  };
  return schema;
}

}  // namespace zel_db
