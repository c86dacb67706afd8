#include "panel_rows.h"

#include <algorithm>

#include "zelapi/err.h"
#include "zelapi/mail/email.h"
#include "zelapi/str.h"

namespace zelpnl {

namespace {

[[noreturn]] void Unknown(const std::string& kind, const std::string& name) {
  throw pnl_err::Error(pnl_err::Kind::kUnknown, kind + " " + Quote(name), "does not exist");
}

long long Key(int64_t id) { return static_cast<long long>(id); }

// The first column of every row the query gives.
std::vector<std::string> Column(pnl_db::Cache& db, const std::string& sql,
                                const std::vector<pnl_db::Param>& params = {}) {
  std::vector<std::string> out;
  for (pnl_db::Query q = db.Query(sql, params); !q.Eof(); q.Next()) out.push_back(q.Str());
  return out;
}

// Rows whose first two columns are a local part and a domain name.
std::vector<Address> Addresses(pnl_db::Cache& db, const std::string& sql,
                               const std::vector<pnl_db::Param>& params = {}) {
  std::vector<Address> out;
  for (pnl_db::Query q = db.Query(sql, params); !q.Eof(); q.Next())
    out.push_back({q.Str(0), q.Str(1)});
  return out;
}

std::vector<std::string> Names(pnl_db::Cache& db, const std::string& table, int64_t mailbox_id) {
  return Column(db, "SELECT name FROM " + table + " WHERE email = ? ORDER BY id",
                {Key(mailbox_id)});
}

const char kMailboxes[] = " FROM email e JOIN email_domain d ON d.id = e.domain ";

std::string Where(MailboxScope scope) {
  return scope.kind == MailboxScope::kMailbox ? "WHERE e.id = ?" : "WHERE e.domain = ?";
}

std::vector<MailboxValue> ValuesIn(pnl_db::Cache& db, const char* table, MailboxScope scope) {
  std::vector<MailboxValue> out;
  for (pnl_db::Query q = db.Query(std::string("SELECT r.name, e.name, d.name FROM ") + table +
                                      " r JOIN email e ON e.id = r.email "
                                      "JOIN email_domain d ON d.id = e.domain " + Where(scope),
                                  {Key(scope.id)});
       !q.Eof(); q.Next())
    out.push_back({q.Str(0), {q.Str(1), q.Str(2)}});
  return out;
}

std::optional<MailDomainValues> DomainValues(pnl_db::Cache& db, const std::string& sql,
                                             int64_t key) {
  pnl_db::Query q = db.Query(sql, {Key(key)});
  if (q.Eof()) return std::nullopt;
  return MailDomainValues{q.Str(0), q.Str(1), q.Str(2)};
}

// One line of text per row of each mail table, with the label `mail sync`
// shows for it.
struct TableQuery {
  const char* table;
  const char* label;
  const char* sql;
};

const TableQuery kTableText[] = {
    {"email_domain", "mail domains",
     "SELECT name || CASE WHEN enabled THEN ' active ' ELSE ' suspended ' END || def_action || "
     "CASE WHEN redirect != '' THEN ' ' || redirect ELSE '' END FROM email_domain"},
    {"email", "mailboxes",
     "SELECT e.name || '@' || d.name || CASE WHEN e.enabled THEN ' active' ELSE ' suspended' END "
     "|| CASE WHEN e.forward_only THEN ' forward-only' ELSE '' END "
     "FROM email e JOIN email_domain d ON d.id = e.domain"},
    {"email_alias", "aliases",
     "SELECT a.name || '@' || d.name || ' -> ' || e.name || '@' || d.name FROM email_alias a "
     "JOIN email e ON e.id = a.email JOIN email_domain d ON d.id = e.domain"},
    {"email_forward", "forwards",
     "SELECT e.name || '@' || d.name || ' -> ' || f.name FROM email_forward f "
     "JOIN email e ON e.id = f.email JOIN email_domain d ON d.id = e.domain"},
    {"email_responder", "responders",
     "SELECT e.name || '@' || d.name || CASE WHEN r.enabled THEN ' on' ELSE ' off' END "
     "FROM email_responder r JOIN email e ON e.id = r.email JOIN email_domain d ON d.id = "
     "e.domain"},
    {"email_whitelist", "whitelist", "SELECT sender FROM email_whitelist"},
    {"email_blacklist", "blacklist", "SELECT sender FROM email_blacklist"},
};

}  // namespace

UserRow FindUser(pnl_db::Cache& db, const std::string& name) {
  UserRow row = db.Get<zel_db::UserTable>();
  if (!row->name.Lookup(name)) return nullptr;
  return row;
}

UserRow RequireUser(pnl_db::Cache& db, const std::string& name) {
  UserRow row = FindUser(db, name);
  if (!row) Unknown("user", name);
  return row;
}

WebDomainRow FindWebDomain(pnl_db::Cache& db, const std::string& name) {
  WebDomainRow row = db.Get<zel_db::DomainTable>();
  if (!row->name.Lookup(name)) return nullptr;
  return row;
}

WebDomainRow RequireWebDomain(pnl_db::Cache& db, const std::string& name) {
  WebDomainRow row = FindWebDomain(db, name);
  if (!row) Unknown("web domain", name);
  return row;
}

MailDomainRow FindMailDomain(pnl_db::Cache& db, const std::string& name) {
  MailDomainRow row = db.Get<zel_db::EmailDomainTable>();
  if (!row->name.Lookup(name)) return nullptr;
  return row;
}

MailDomainRow RequireMailDomain(pnl_db::Cache& db, const std::string& name) {
  MailDomainRow row = FindMailDomain(db, name);
  if (!row) Unknown("mail domain", name);
  return row;
}

MailboxRow FindMailbox(pnl_db::Cache& db, const Address& address, MailDomainRow* domain_out) {
  MailboxRow mailbox = db.Get<zel_db::EmailTable>();
  MailDomainRow domain = db.Get<zel_db::EmailDomainTable>();
  const bool found = email::FindByEmailName(address.Text(), mailbox, domain);
  if (domain_out) *domain_out = domain->Eof() ? nullptr : domain;
  return found ? mailbox : nullptr;
}

MailboxRow RequireMailbox(pnl_db::Cache& db, const Address& address, MailDomainRow* domain_out) {
  MailDomainRow domain;
  MailboxRow mailbox = FindMailbox(db, address, &domain);
  if (!domain) Unknown("mail domain", address.domain);
  if (!mailbox) Unknown("mailbox", address.Text());
  if (domain_out) *domain_out = domain;
  return mailbox;
}

ResponderRow FindResponder(pnl_db::Cache& db, int64_t mailbox_id) {
  ResponderRow row = db.Get<zel_db::EmailResponderTable>();
  if (!row->email.Lookup(std::to_string(mailbox_id))) return nullptr;
  return row;
}

std::string UserNameById(pnl_db::Cache& db, int64_t id) {
  if (id == 0) return "";
  pnl_db::Query q = db.Query("SELECT name FROM users WHERE id = ?", {static_cast<long long>(id)});
  return q.Eof() ? "" : q.Str();
}

std::vector<std::string> AliasesOf(pnl_db::Cache& db, int64_t mailbox_id) {
  return Names(db, "email_alias", mailbox_id);
}

std::vector<std::string> ForwardsOf(pnl_db::Cache& db, int64_t mailbox_id) {
  return Names(db, "email_forward", mailbox_id);
}

std::string AddressOf(pnl_db::Cache& db, const MailboxRow& mailbox) {
  pnl_db::Query q = db.Query("SELECT name FROM email_domain WHERE id = ?",
                             {static_cast<long long>(mailbox->domain.Value())});
  return mailbox->name.Value() + "@" + (q.Eof() ? std::string() : q.Str());
}

std::string DisplayAddress(const std::string& ascii_address) {
  const size_t at = ascii_address.rfind('@');
  if (at == std::string::npos) return ascii_address;
  return ascii_address.substr(0, at + 1) + str::IdnToUnicode(ascii_address.substr(at + 1));
}

void DeleteRowById(pnl_db::Cache& db, const std::string& table, int64_t id) {
  db.Query("DELETE FROM " + table + " WHERE id = ?", {static_cast<long long>(id)});
}

void SetEnabledById(pnl_db::Cache& db, const std::string& table, int64_t id, bool enabled) {
  db.Query("UPDATE " + table + " SET enabled = ? WHERE id = ?",
           {enabled ? 1 : 0, static_cast<long long>(id)});
}

MailboxRow MailboxById(pnl_db::Cache& db, int64_t id) {
  MailboxRow row = db.Get<zel_db::EmailTable>();
  if (!row->id.Lookup(std::to_string(id))) return nullptr;
  return row;
}

std::vector<std::string> MailDomainNames(pnl_db::Cache& db) {
  return Column(db, "SELECT name FROM email_domain ORDER BY name");
}

std::vector<std::string> MailboxNamesOf(pnl_db::Cache& db, int64_t domain_id) {
  return Column(db, "SELECT name FROM email WHERE domain = ? ORDER BY name", {Key(domain_id)});
}

std::vector<std::string> MailboxNamesInOrderAdded(pnl_db::Cache& db, int64_t domain_id) {
  return Column(db, "SELECT name FROM email WHERE domain = ? ORDER BY id", {Key(domain_id)});
}

std::vector<Address> MailboxAddresses(pnl_db::Cache& db, std::optional<int64_t> domain_id) {
  std::string sql = std::string("SELECT e.name, d.name") + kMailboxes;
  std::vector<pnl_db::Param> params;
  if (domain_id) {
    sql += "WHERE e.domain = ? ";
    params.emplace_back(Key(*domain_id));
  }
  return Addresses(db, sql + "ORDER BY d.name, e.name", params);
}

std::vector<Address> ResponderAddresses(pnl_db::Cache& db) {
  return Addresses(db,
                   "SELECT e.name, d.name FROM email_responder r JOIN email e ON e.id = r.email "
                   "JOIN email_domain d ON d.id = e.domain ORDER BY d.name, e.name");
}

int64_t MailboxCount(pnl_db::Cache& db, int64_t domain_id) {
  return db.Query("SELECT count(*) FROM email WHERE domain = ?", {Key(domain_id)}).Int();
}

std::vector<UserListRow> Users(pnl_db::Cache& db) {
  std::vector<UserListRow> out;
  for (pnl_db::Query q = db.Query("SELECT id, name FROM users ORDER BY name"); !q.Eof(); q.Next())
    out.push_back({q.Int(0), q.Str(1)});
  return out;
}

std::vector<std::string> WebDomainsOfUser(pnl_db::Cache& db, int64_t user_id) {
  return Column(db, "SELECT name FROM domain WHERE users = ? ORDER BY name", {Key(user_id)});
}

std::vector<std::string> MailDomainsOfUser(pnl_db::Cache& db, int64_t user_id) {
  return Column(db, "SELECT name FROM email_domain WHERE users = ? ORDER BY name",
                {Key(user_id)});
}

std::vector<WebDomainListRow> WebDomains(pnl_db::Cache& db) {
  std::vector<WebDomainListRow> out;
  for (pnl_db::Query q = db.Query(
           "SELECT d.name, d.users, EXISTS(SELECT 1 FROM email_domain m WHERE m.name = d.name "
           "COLLATE NOCASE) FROM domain d ORDER BY d.name");
       !q.Eof(); q.Next())
    out.push_back({q.Str(0), q.Int(1), q.Int(2) != 0});
  return out;
}

bool MailboxExists(pnl_db::Cache& db, int64_t domain_id, const std::string& local) {
  return !db.Query("SELECT 1 FROM email WHERE domain = ? AND name = ?", {Key(domain_id), local})
              .Eof();
}

std::string AliasOwner(pnl_db::Cache& db, int64_t domain_id, const std::string& local,
                       int64_t except) {
  pnl_db::Query q = db.Query(
      "SELECT e.name FROM email_alias a JOIN email e ON e.id = a.email "
      "WHERE e.domain = ? AND a.name = ? AND e.id != ? ORDER BY a.id",
      {Key(domain_id), local, Key(except)});
  return q.Eof() ? "" : q.Str();
}

void AddAliasRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& local) {
  db.Query("INSERT INTO email_alias(email, name) VALUES(?, ?)", {Key(mailbox_id), local});
}

void DeleteAliasRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& local) {
  db.Query("DELETE FROM email_alias WHERE email = ? AND name = ?", {Key(mailbox_id), local});
}

void AddForwardRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& target) {
  db.Query("INSERT INTO email_forward(email, name) VALUES(?, ?)", {Key(mailbox_id), target});
}

void DeleteForwardRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& target) {
  db.Query("DELETE FROM email_forward WHERE email = ? AND name = ?", {Key(mailbox_id), target});
}

std::vector<SenderListRow> SenderListRows(pnl_db::Cache& db, const std::string& table) {
  std::vector<SenderListRow> out;
  for (pnl_db::Query q = db.Query("SELECT sender, hand_written FROM " + table + " ORDER BY id");
       !q.Eof(); q.Next())
    out.push_back({q.Str(0), q.Int(1) != 0});
  return out;
}

bool SenderListed(pnl_db::Cache& db, const std::string& table, const std::string& sender) {
  return !db.Query("SELECT 1 FROM " + table + " WHERE sender = ?", {sender}).Eof();
}

void AddSenderRow(pnl_db::Cache& db, const std::string& table, const std::string& sender) {
  db.Query("INSERT INTO " + table + "(sender) VALUES(?)", {sender});
}

void DeleteSenderRow(pnl_db::Cache& db, const std::string& table, const std::string& sender) {
  db.Query("DELETE FROM " + table + " WHERE sender = ?", {sender});
}

std::optional<MailDomainValues> MailDomainValuesById(pnl_db::Cache& db, int64_t domain_id) {
  return DomainValues(db, "SELECT name, def_action, redirect FROM email_domain WHERE id = ?",
                      domain_id);
}

std::optional<MailDomainValues> MailDomainValuesOfMailbox(pnl_db::Cache& db, int64_t mailbox_id) {
  return DomainValues(db,
                      std::string("SELECT d.name, d.def_action, d.redirect") + kMailboxes +
                          "WHERE e.id = ?",
                      mailbox_id);
}

std::vector<Address> MailboxesIn(pnl_db::Cache& db, MailboxScope scope) {
  return Addresses(db, std::string("SELECT e.name, d.name") + kMailboxes + Where(scope),
                   {Key(scope.id)});
}

std::vector<MailboxValue> AliasesIn(pnl_db::Cache& db, MailboxScope scope) {
  return ValuesIn(db, "email_alias", scope);
}

std::vector<MailboxValue> ForwardsIn(pnl_db::Cache& db, MailboxScope scope) {
  return ValuesIn(db, "email_forward", scope);
}

std::vector<TableText> MailTablesAsText(pnl_db::Cache& db) {
  std::vector<TableText> out;
  for (const TableQuery& t : kTableText) {
    std::vector<std::string> lines = Column(db, t.sql);
    std::sort(lines.begin(), lines.end());
    out.push_back({t.table, t.label, std::move(lines)});
  }
  return out;
}

void RestoreDomainAction(pnl_db::Cache& db, int64_t domain_id, const std::string& action,
                         const std::string& redirect) {
  db.Query("UPDATE email_domain SET def_action = ?, redirect = ? WHERE id = ?",
           {action, redirect, Key(domain_id)});
}

void RestoreResponder(pnl_db::Cache& db, int64_t responder_id, bool enabled,
                      const std::string& subject, const std::string& text) {
  db.Query("UPDATE email_responder SET enabled = ?, subject = ?, text = ? WHERE id = ?",
           {enabled ? 1 : 0, subject, text, Key(responder_id)});
}

MailDomainView MailDomainViewOf(pnl_db::Cache& db, const MailDomainRow& domain) {
  return {domain->name.Value(),
          domain->name.Unicode(),
          UserNameById(db, domain->users.Value()),
          domain->enabled.Value(),
          domain->def_action.Value(),
          domain->redirect.Value(),
          domain->quota.Value(),
          MailboxCount(db, domain->id.Value())};
}

MailboxView MailboxViewOf(pnl_db::Cache& db, const MailboxRow& mailbox) {
  const int64_t id = mailbox->id.Value();
  MailboxView view;
  view.address = AddressOf(db, mailbox);
  view.unicode = DisplayAddress(view.address);
  view.local = mailbox->name.Value();
  view.domain = view.address.substr(view.address.rfind('@') + 1);
  view.enabled = mailbox->enabled.Value();
  view.forward_only = mailbox->forward_only.Value();
  view.has_password = !mailbox->password.Value().empty();
  view.quota = mailbox->quota.Value();
  view.quota_limit = view.quota;
  if (view.quota_limit == 0)
    view.quota_limit = db.Query("SELECT quota FROM email_domain WHERE id = ?",
                                {static_cast<long long>(mailbox->domain.Value())})
                           .Int();
  view.aliases = AliasesOf(db, id);
  view.forwards = ForwardsOf(db, id);
  if (ResponderRow row = FindResponder(db, id))
    view.responder = ResponderView{row->enabled.Value(), row->subject.Value(), row->text.Value(),
                                   row->period_days.Value()};
  return view;
}

}  // namespace zelpnl
