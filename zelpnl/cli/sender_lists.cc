// zelpnl mail whitelist|blacklist add|delete|list: the server-wide sender
// lists, kept in the access map. The panel's tables of the lists are caches:
// after every change, and before a listing, they are read back from the map.
// Whether a sender is listed, and by whom, is asked of the access map itself
// (the line under the sender's key): an entry the panel did not write is
// listed but never changed.
#include "access_entries.h"
#include "commands.h"
#include "email/access_entries.h"
#include "email/mta_interface.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"
#include "zelapi/log.h"

namespace zelpnl {

namespace {

struct List {
  const char* name;    // "whitelist"
  const char* table;   // SQL table
  const char* action;  // its entries' value in the access map
  const char* other;   // the other list's name
  const char* other_action;
  bool white;
};

const List kWhite{"whitelist", "email_whitelist", "OK", "blacklist", "REJECT", true};
const List kBlack{"blacklist", "email_blacklist", "REJECT", "whitelist", "OK", false};

void Cache(Host& host, const List& list) {
  if (list.white)
    host.Mta().CacheWhitelist();
  else
    host.Mta().CacheBlacklist();
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
  for (const SenderListRow& row : SenderListRows(db, list.table))
    entries.push_back(
        {{"sender", row.sender}, {"kind", KindOf(row.sender)}, {"hand_written", row.hand_written}});
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
// the sender is added or removed here, so that the later lines' listings
// show it (their checks ask the access map, which holds the change).
template <class F>
void ChangeAndCache(Host& host, const List& list, const std::string& sender, bool add,
                    F change) {
  const List* l = &list;
  host.Files().Change(change, [&host, l] { ReadBack(host, *l); });
  if (!host.Files().InBatch()) return Cache(host, list);
  pnl_db::Cache& db = host.Db();
  if (add)
    AddSenderRow(db, list.table, sender);
  else
    DeleteSenderRow(db, list.table, sender);
  host.Files().AtBatchEnd(std::string("reading back the ") + list.name, [&host, l] { Cache(host, *l); });
}

bool OnList(pnl_db::Cache& db, const List& list, const std::string& sender) {
  return SenderListed(db, list.table, sender);
}

// The panel's entry of sender in the access map (nullopt when there is
// none); an entry the panel did not write is refused, naming it. When the
// list's rows say otherwise than the map (a request that ended after its
// save, before its rows were kept), the list is read back first, so that
// a refusal leaves them right.
std::optional<email::AccessEntry> PanelEntry(Host& host, const List& list,
                                             const std::string& sender) {
  std::optional<email::AccessEntry> entry = host.Mta().FindSenderEntry(sender);
  if (entry && !entry->panel)
    throw pnl_err::Error("conflict", "sender " + Quote(sender), email::NotThePanels(*entry));
  const bool listed = entry && entry->value == list.action;
  if (listed != OnList(host.Db(), list, sender)) Cache(host, list);
  return entry;
}

void Add(Host& host, const Output& out, const List& list, const std::string& sender,
         const std::string& kind) {
  pnl_db::Cache& db = host.Db();
  const std::string object = "sender " + Quote(sender);
  const std::optional<email::AccessEntry> entry = PanelEntry(host, list, sender);
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
  if (entry && entry->value == list.action)
    throw pnl_err::Error("exists", object, std::string("is already on the ") + list.name);
  if (entry && entry->value == list.other_action)
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
  const std::optional<email::AccessEntry> entry = PanelEntry(host, list, sender);
  if (!entry || entry->value != list.action)
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
  for (const auto& entry : entries)
    rows.push_back({entry["sender"], entry["kind"], entry["hand_written"] ? "by hand" : "panel"});
  out.Print({{list.name, entries}}, Table({"SENDER", "KIND", "WRITTEN"}, rows));
}

void AddList(CLI::App& mail, Command* out, const List& list) {
  const std::string action = list.white ? "always accepted" : "always refused";
  CLI::App* cmd = mail.add_subcommand(
      list.name, std::string("Senders whose mail is ") + action + " (kept in the access map)");
  cmd->require_subcommand(1);
  auto sender = std::make_shared<std::string>();
  const List* l = &list;

  CLI::App* add = cmd->add_subcommand("add", std::string("Put a sender on the ") + list.name);
  add->add_option("SENDER", *sender,
                  "An e-mail address, a domain, an IPv4 or IPv6 address, or a network: "
                  "192.0.2, 2001:db8, 192.0.2.0/24, 2001:db8::/32")
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
    // Any spelling of the entry finds it.
    const std::string value = Sender(*sender);
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
