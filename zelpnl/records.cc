#include "panel_rows.h"

#include "zelapi/err.h"
#include "zelapi/mail/email.h"
#include "zelapi/str.h"

namespace zelpnl {

namespace {

[[noreturn]] void Unknown(const std::string& kind, const std::string& name) {
  throw pnl_err::Error("unknown", kind + " " + Quote(name), "does not exist");
}

std::vector<std::string> Names(pnl_db::Cache& db, const std::string& table, int64_t mailbox_id) {
  std::vector<std::string> out;
  for (pnl_db::Query q = db.Query("SELECT name FROM " + table + " WHERE email = ? ORDER BY id",
                                  {static_cast<long long>(mailbox_id)});
       !q.Eof(); q.Next())
    out.push_back(q.Str());
  return out;
}

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

nlohmann::ordered_json MailDomainJson(pnl_db::Cache& db, const MailDomainRow& domain) {
  const std::string owner = UserNameById(db, domain->users.Value());
  pnl_db::Query count = db.Query("SELECT count(*) FROM email WHERE domain = ?",
                                 {static_cast<long long>(domain->id.Value())});
  return {
      {"name", domain->name.Value()},
      {"unicode", domain->name.Unicode()},
      {"owner", owner.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(owner)},
      {"enabled", domain->enabled.Value()},
      {"default_action", domain->def_action.Value()},
      {"redirect", domain->redirect.Value()},
      {"mailboxes", count.Int()},
  };
}

nlohmann::ordered_json MailboxJson(pnl_db::Cache& db, const MailboxRow& mailbox) {
  const int64_t id = mailbox->id.Value();
  const std::string address = AddressOf(db, mailbox);
  nlohmann::ordered_json responder = nullptr;
  if (ResponderRow row = FindResponder(db, id)) {
    responder = {
        {"enabled", row->enabled.Value()},
        {"subject", row->subject.Value()},
        {"text", row->text.Value()},
        {"period_days", row->period_days.Value()},
    };
  }
  return {
      {"address", address},
      {"unicode", DisplayAddress(address)},
      {"local", mailbox->name.Value()},
      {"domain", address.substr(address.rfind('@') + 1)},
      {"enabled", mailbox->enabled.Value()},
      {"forward_only", mailbox->forward_only.Value()},
      {"aliases", AliasesOf(db, id)},
      {"forwards", ForwardsOf(db, id)},
      {"responder", responder},
  };
}

}  // namespace zelpnl
