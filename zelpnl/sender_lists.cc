// zelpnl mail whitelist|blacklist add|delete|list: the server-wide sender
// lists, kept in the access map. The panel's tables of the lists are caches:
// after every change, and before a listing, they are read back from the map.
#include "commands.h"
#include "email/mta_interface.h"
#include "records.h"
#include "validation.h"
#include "zelapi/err.h"
#include "zelapi/log.h"

namespace zelpnl {

namespace {

struct List {
  const char* name;   // "whitelist"
  const char* table;  // SQL table
  const char* other;  // the other list's name
  const char* other_table;
  bool white;
};

const List kWhite{"whitelist", "email_whitelist", "blacklist", "email_blacklist", true};
const List kBlack{"blacklist", "email_blacklist", "whitelist", "email_whitelist", false};

void Cache(Host& host, const List& list) {
  if (list.white)
    host.Mta().CacheWhitelist();
  else
    host.Mta().CacheBlacklist();
}

bool OnList(pnl_db::Cache& db, const char* table, const std::string& sender) {
  return !db.Query(std::string("SELECT 1 FROM ") + table + " WHERE sender = ?", {sender}).Eof();
}

std::string KindOf(const std::string& sender) {
  std::string kind = "unknown";
  try {
    Sender(sender, &kind);
  } catch (const Invalid&) {
  }
  return kind;
}

nlohmann::ordered_json Entries(pnl_db::Cache& db, const List& list) {
  nlohmann::ordered_json entries = nlohmann::ordered_json::array();
  for (pnl_db::Query q = db.Query(std::string("SELECT sender FROM ") + list.table + " ORDER BY id");
       !q.Eof(); q.Next())
    entries.push_back({{"sender", q.Str()}, {"kind", KindOf(q.Str())}});
  return entries;
}

void ReadBack(Host& host, const List& list) {
  try {
    Cache(host, list);
  } catch (const std::exception& e) {
    MailLog().Error(std::string("reading back the ") + list.name +
                                            " after a failure: " + e.what());
  }
}

// Runs a change of the access map and reads the list back, also after a
// failure (the map's text may hold the change although its rebuild failed).
// In a batch the list is read back once, at its end; meanwhile the row of
// the sender is added or removed here, so that the later lines' checks see
// it.
template <class F>
void ChangeAndCache(Host& host, const List& list, const std::string& sender, bool add,
                    F change) {
  const List* l = &list;
  host.ChangeFiles(change, [&host, l] { ReadBack(host, *l); });
  if (!host.InBatch()) return Cache(host, list);
  pnl_db::Cache& db = host.Db();
  if (add)
    db.Query(std::string("INSERT INTO ") + list.table + "(sender) VALUES(?)", {sender});
  else
    db.Query(std::string("DELETE FROM ") + list.table + " WHERE sender = ?", {sender});
  host.AtBatchEnd(std::string("reading back the ") + list.name, [&host, l] { Cache(host, *l); });
}

void Add(Host& host, const Output& out, const List& list, const std::string& sender,
         const std::string& kind) {
  pnl_db::Cache& db = host.Db();
  const std::string object = "sender " + Quote(sender);
  if (kind == "domain" && FindMailDomain(db, sender))
    throw pnl_err::Error("conflict", object,
                         "is a mail domain of this server; its access entry is the domain's "
                         "suspension");
  if (kind == "address") {
    const size_t at = sender.rfind('@');
    if (FindMailbox(db, {sender.substr(0, at), sender.substr(at + 1)}))
      throw pnl_err::Error("conflict", object,
                           "is a mailbox of this server; its access entry is the mailbox's "
                           "suspension");
  }
  if (OnList(db, list.table, sender))
    throw pnl_err::Error("exists", object, std::string("is already on the ") + list.name);
  if (OnList(db, list.other_table, sender))
    throw pnl_err::Error("conflict", object,
                         std::string("is on the ") + list.other + "; delete it there first");
  ChangeAndCache(host, list, sender, true, [&] {
    if (list.white)
      host.Mta().AddToWhitelist(sender);
    else
      host.Mta().AddToBlacklist(sender);
  });
  if (out.json()) out.Print({{list.name, Entries(db, list)}}, "");
}

void Delete(Host& host, const Output& out, const List& list, const std::string& sender) {
  pnl_db::Cache& db = host.Db();
  if (!OnList(db, list.table, sender))
    throw pnl_err::Error("unknown", "sender " + Quote(sender),
                         std::string("is not on the ") + list.name);
  ChangeAndCache(host, list, sender, false, [&] {
    if (list.white)
      host.Mta().DeleteFromWhitelist(sender);
    else
      host.Mta().DeleteFromBlacklist(sender);
  });
  if (out.json()) out.Print({{list.name, Entries(db, list)}}, "");
}

void Show(Host& host, const Output& out, const List& list) {
  pnl_db::Cache& db = host.Db();
  Cache(host, list);
  const nlohmann::ordered_json entries = Entries(db, list);
  std::vector<std::vector<std::string>> rows;
  for (const auto& entry : entries) rows.push_back({entry["sender"], entry["kind"]});
  out.Print({{list.name, entries}}, Table({"SENDER", "KIND"}, rows));
}

void AddList(CLI::App& mail, Command* out, const List& list) {
  const std::string action = list.white ? "always accepted" : "always refused";
  CLI::App* cmd = mail.add_subcommand(
      list.name, std::string("Senders whose mail is ") + action + " (kept in the access map)");
  cmd->require_subcommand(1);
  auto sender = std::make_shared<std::string>();
  const List* l = &list;

  CLI::App* add = cmd->add_subcommand("add", std::string("Put a sender on the ") + list.name);
  add->add_option("SENDER", *sender, "An e-mail address, a domain, an IPv4 or an IPv6 address")
      ->required();
  add->callback([=] {
    std::string kind;
    const std::string value = Sender(*sender, &kind);
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Add(h, o, *l, value, kind); }};
  });

  CLI::App* del =
      cmd->add_subcommand("delete", std::string("Take a sender off the ") + list.name);
  del->add_option("SENDER", *sender, "The sender as listed")->required();
  del->callback([=] {
    std::string value = *sender;
    try {
      value = Sender(*sender);
    } catch (const Invalid&) {
      // An entry written by hand is removed as it stands.
    }
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Delete(h, o, *l, value); }};
  });

  CLI::App* list_cmd = cmd->add_subcommand(
      "list", std::string("List the ") + list.name + ", read from the access map");
  list_cmd->callback(
      [=] { *out = {Needs::kMail, [=](Host& h, const Output& o) { Show(h, o, *l); }}; });
}

}  // namespace

void AddSenderListCommands(CLI::App& mail, Command* out) {
  AddList(mail, out, kWhite);
  AddList(mail, out, kBlack);
}

}  // namespace zelpnl
