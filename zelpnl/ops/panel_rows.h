// zelpnl panel rows: the panel's rows. Finding them by the names an
// administrator types, the lists and look-ups the commands show, the few
// changes no table object covers (the rows of a mailbox's aliases and
// forwards, undo steps, sender-list rows in a batch), and descriptions for
// output. Every SQL text of the host is here, so that a change of the
// schema is a change of this file.
//
// Find* return a cursor positioned on the row, or nullptr when there is none;
// Require* throw pnl_err::Error (type "unknown", object the kind and the name,
// detail "does not exist") instead. Names are expected in their canonical form
// (see validation.h). Every cursor comes from the given database and must be
// released before it closes. Used from the request's thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "validation.h"
#include "zelapi/mail/tables.h"

namespace zelpnl {

using UserRow = std::shared_ptr<zel_db::UserTable>;
using WebDomainRow = std::shared_ptr<zel_db::DomainTable>;
using MailDomainRow = std::shared_ptr<zel_db::EmailDomainTable>;
using MailboxRow = std::shared_ptr<zel_db::EmailTable>;
using ResponderRow = std::shared_ptr<zel_db::EmailResponderTable>;

UserRow FindUser(pnl_db::Cache& db, const std::string& name);
UserRow RequireUser(pnl_db::Cache& db, const std::string& name);
WebDomainRow FindWebDomain(pnl_db::Cache& db, const std::string& name);
WebDomainRow RequireWebDomain(pnl_db::Cache& db, const std::string& name);
MailDomainRow FindMailDomain(pnl_db::Cache& db, const std::string& name);
MailDomainRow RequireMailDomain(pnl_db::Cache& db, const std::string& name);

// The mailbox L@D; domain_out (when given) receives the mail domain's row.
MailboxRow FindMailbox(pnl_db::Cache& db, const Address& address,
                       MailDomainRow* domain_out = nullptr);
MailboxRow RequireMailbox(pnl_db::Cache& db, const Address& address,
                          MailDomainRow* domain_out = nullptr);

// The responder row of a mailbox, or nullptr.
ResponderRow FindResponder(pnl_db::Cache& db, int64_t mailbox_id);

// The name of the user with that key; "" for none (0 or a missing row).
std::string UserNameById(pnl_db::Cache& db, int64_t id);

// A mailbox's alias local parts and forward targets, in key order.
std::vector<std::string> AliasesOf(pnl_db::Cache& db, int64_t mailbox_id);
std::vector<std::string> ForwardsOf(pnl_db::Cache& db, int64_t mailbox_id);

// The address of a mailbox row, as stored and for display (domain in Unicode).
std::string AddressOf(pnl_db::Cache& db, const MailboxRow& mailbox);
std::string DisplayAddress(const std::string& ascii_address);

// Undo steps (FileChange::Change): they go by key, so that they can run at
// the end of a batch, and do nothing when the row is gone meanwhile. table
// is one of the panel's table names, never a value from the command line.
void DeleteRowById(pnl_db::Cache& db, const std::string& table, int64_t id);
void SetEnabledById(pnl_db::Cache& db, const std::string& table, int64_t id, bool enabled);
// The mailbox row with that key, or nullptr.
MailboxRow MailboxById(pnl_db::Cache& db, int64_t id);

// Lists, in the order the commands show them.
std::vector<std::string> MailDomainNames(pnl_db::Cache& db);  // by name
// A domain's mailboxes' local parts, by name or in the order they were added.
std::vector<std::string> MailboxNamesOf(pnl_db::Cache& db, int64_t domain_id);
std::vector<std::string> MailboxNamesInOrderAdded(pnl_db::Cache& db, int64_t domain_id);
// Every mailbox (of one domain, when given) by domain and local part.
std::vector<Address> MailboxAddresses(pnl_db::Cache& db,
                                      std::optional<int64_t> domain_id = std::nullopt);
// The mailboxes that have a responder row, by domain and local part.
std::vector<Address> ResponderAddresses(pnl_db::Cache& db);
int64_t MailboxCount(pnl_db::Cache& db, int64_t domain_id);

struct UserListRow {
  int64_t id;
  std::string name;
};
std::vector<UserListRow> Users(pnl_db::Cache& db);  // by name
// The names of the web and mail domains a user owns, by name.
std::vector<std::string> WebDomainsOfUser(pnl_db::Cache& db, int64_t user_id);
std::vector<std::string> MailDomainsOfUser(pnl_db::Cache& db, int64_t user_id);

struct WebDomainListRow {
  std::string name;
  int64_t owner_id;
  bool has_mail;  // a mail domain of the same name exists
};
std::vector<WebDomainListRow> WebDomains(pnl_db::Cache& db);  // by name

// Whether the domain has a mailbox of that local part.
bool MailboxExists(pnl_db::Cache& db, int64_t domain_id, const std::string& local);
// The local part of the mailbox that has `local` as an alias in the domain
// (the first one added, leaving out the mailbox `except`), or "".
std::string AliasOwner(pnl_db::Cache& db, int64_t domain_id, const std::string& local,
                       int64_t except = 0);

// A mailbox's alias and forward rows.
void AddAliasRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& local);
void DeleteAliasRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& local);
void AddForwardRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& target);
void DeleteForwardRow(pnl_db::Cache& db, int64_t mailbox_id, const std::string& target);

// Sender lists: table is "email_whitelist" or "email_blacklist".
struct SenderListRow {
  std::string sender;
  bool hand_written;
};
std::vector<SenderListRow> SenderListRows(pnl_db::Cache& db, const std::string& table);  // by id
bool SenderListed(pnl_db::Cache& db, const std::string& table, const std::string& sender);
void AddSenderRow(pnl_db::Cache& db, const std::string& table, const std::string& sender);
void DeleteSenderRow(pnl_db::Cache& db, const std::string& table, const std::string& sender);

// The values the row checks look at before a row reaches a file.
struct MailDomainValues {
  std::string name, action, redirect;
};
std::optional<MailDomainValues> MailDomainValuesById(pnl_db::Cache& db, int64_t domain_id);
std::optional<MailDomainValues> MailDomainValuesOfMailbox(pnl_db::Cache& db, int64_t mailbox_id);
// The mailboxes, and the alias and forward rows with their mailbox, of one
// mailbox or of every mailbox of one domain.
struct MailboxScope {
  enum Kind { kMailbox, kDomain } kind;
  int64_t id;
};
struct MailboxValue {
  std::string value;    // the alias's local part or the forward's target
  Address mailbox;
};
std::vector<Address> MailboxesIn(pnl_db::Cache& db, MailboxScope scope);
std::vector<MailboxValue> AliasesIn(pnl_db::Cache& db, MailboxScope scope);
std::vector<MailboxValue> ForwardsIn(pnl_db::Cache& db, MailboxScope scope);

// Every row of the mail tables as one line of text each, sorted, table by
// table: what `mail sync` compares before and after its passes.
struct TableText {
  const char* table;
  const char* label;
  std::vector<std::string> lines;
};
std::vector<TableText> MailTablesAsText(pnl_db::Cache& db);

// Undo steps that put back a row's earlier values.
void RestoreDomainAction(pnl_db::Cache& db, int64_t domain_id, const std::string& action,
                         const std::string& redirect);
void RestoreResponder(pnl_db::Cache& db, int64_t responder_id, bool enabled,
                      const std::string& subject, const std::string& text);

// A mailbox as the panel shows it.
struct ResponderView {
  bool enabled = false;
  std::string subject;
  std::string text;
  int64_t period_days = 0;
};
struct MailboxView {
  std::string address;  // L@D, the domain in ASCII
  std::string unicode;  // the same with the domain in Unicode
  std::string local;
  std::string domain;   // ASCII
  bool enabled = true;
  bool forward_only = false;
  bool has_password = false;          // whether it can log in (the hash is never shown)
  int64_t quota = 0;                  // its own, in bytes; 0: its domain's
  int64_t quota_limit = 0;            // the one that holds: its own, else its domain's; 0: none
  std::optional<int64_t> usage;       // bytes of stored mail (ShowMailbox only)
  std::vector<std::string> aliases;   // local parts, in the order added
  std::vector<std::string> forwards;  // targets, in the order added
  std::optional<ResponderView> responder;
};
MailboxView MailboxViewOf(pnl_db::Cache& db, const MailboxRow& mailbox);

// A mail domain as the panel shows it.
struct MailDomainView {
  std::string name;     // ASCII
  std::string unicode;
  std::string owner;    // the owning user's name, "" for none
  bool enabled = true;
  std::string default_action;
  std::string redirect;
  int64_t quota = 0;        // default per mailbox, in bytes; 0: none
  int64_t mailboxes = 0;  // how many
};
MailDomainView MailDomainViewOf(pnl_db::Cache& db, const MailDomainRow& domain);

}  // namespace zelpnl
