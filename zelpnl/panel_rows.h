// zelpnl records: finding the panel's rows by the names an administrator
// types, and describing them for output.
//
// Find* return a cursor positioned on the row, or nullptr when there is none;
// Require* throw pnl_err::Error (type "unknown", object the kind and the name,
// detail "does not exist") instead. Names are expected in their canonical form
// (see validation.h). Every cursor comes from the given database and must be
// released before it closes. Used from the request's thread only.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
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

// Undo steps (Host::ChangeFiles): they go by key, so that they can run at
// the end of a batch, and do nothing when the row is gone meanwhile. table
// is one of the panel's table names, never a value from the command line.
void DeleteRowById(pnl_db::Cache& db, const std::string& table, int64_t id);
void SetEnabledById(pnl_db::Cache& db, const std::string& table, int64_t id, bool enabled);
// The mailbox row with that key, or nullptr.
MailboxRow MailboxById(pnl_db::Cache& db, int64_t id);

// Descriptions for --json (and the source of the text forms):
//   mail domain: name, unicode, owner (null when none), enabled,
//     default_action, redirect, mailboxes (count);
//   mailbox: address, unicode, local, domain, enabled, forward_only, aliases,
//     forwards, responder (null, or enabled, subject, text, period_days).
nlohmann::ordered_json MailDomainJson(pnl_db::Cache& db, const MailDomainRow& domain);
nlohmann::ordered_json MailboxJson(pnl_db::Cache& db, const MailboxRow& mailbox);

}  // namespace zelpnl
