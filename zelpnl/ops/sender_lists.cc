#include "sender_lists.h"

#include <optional>

#include "email/access_entries.h"
#include "email/mta_interface.h"
#include "file_change.h"
#include "mail_log.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"

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

void Cache(const Request& request, const List& list) {
  if (list.white)
    request.mta.CacheWhitelist();
  else
    request.mta.CacheBlacklist();
}

std::string KindOf(const std::string& sender) {
  std::string kind = "unknown";
  try {
    Sender(sender, &kind);
  } catch (const Invalid&) {
  }
  return kind;
}

const List& Of(SenderList list) { return list == SenderList::kWhite ? kWhite : kBlack; }

void ReadBack(const Request& request, const List& list) {
  try {
    Cache(request, list);
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
void ChangeAndCache(const Request& request, const List& list, const std::string& sender,
                    bool add, F change) {
  const List* l = &list;
  request.files.Change(change, [request, l] { ReadBack(request, *l); });
  if (!request.files.InBatch()) return Cache(request, list);
  pnl_db::Cache& db = request.db;
  if (add)
    AddSenderRow(db, list.table, sender);
  else
    DeleteSenderRow(db, list.table, sender);
  request.files.AtBatchEnd(std::string("reading back the ") + list.name,
                           [request, l] { Cache(request, *l); });
}

bool OnList(pnl_db::Cache& db, const List& list, const std::string& sender) {
  return SenderListed(db, list.table, sender);
}

// The panel's entry of sender in the access map (nullopt when there is
// none); an entry the panel did not write is refused, naming it. When the
// list's rows say otherwise than the map (a request that ended after its
// save, before its rows were kept), the list is read back first, so that
// a refusal leaves them right.
std::optional<email::AccessEntry> PanelEntry(const Request& request, const List& list,
                                             const std::string& sender) {
  std::optional<email::AccessEntry> entry = request.mta.FindSenderEntry(sender);
  if (entry && !entry->panel)
    throw pnl_err::Error(pnl_err::Kind::kConflict, "sender " + Quote(sender), email::NotThePanels(*entry));
  const bool listed = entry && entry->value == list.action;
  if (listed != OnList(request.db, list, sender)) Cache(request, list);
  return entry;
}

}  // namespace

const char* SenderListName(SenderList list) { return Of(list).name; }

void AddSender(const Request& request, SenderList which, const std::string& sender,
               const std::string& kind) {
  const List& list = Of(which);
  pnl_db::Cache& db = request.db;
  const std::string object = "sender " + Quote(sender);
  const std::optional<email::AccessEntry> entry = PanelEntry(request, list, sender);
  if (kind == "domain" && FindMailDomain(db, sender))
    throw pnl_err::Error(pnl_err::Kind::kConflict, object,
                         "is a mail domain of this server; its access entry is the domain's "
                         "suspension");
  if (kind == "address") {
    const size_t at = sender.rfind('@');
    if (FindMailbox(db, {sender.substr(0, at), sender.substr(at + 1)}))
      throw pnl_err::Error(pnl_err::Kind::kConflict, object,
                           "is a mailbox of this server; its access entry is the mailbox's "
                           "suspension");
  }
  if (entry && entry->value == list.action)
    throw pnl_err::Error(pnl_err::Kind::kExists, object, std::string("is already on the ") + list.name);
  if (entry && entry->value == list.other_action)
    throw pnl_err::Error(pnl_err::Kind::kConflict, object,
                         std::string("is on the ") + list.other + "; delete it there first");
  ChangeAndCache(request, list, sender, true, [&] {
    if (list.white)
      request.mta.AddToWhitelist(sender);
    else
      request.mta.AddToBlacklist(sender);
  });
}

void DeleteSender(const Request& request, SenderList which, const std::string& sender) {
  const List& list = Of(which);
  const std::optional<email::AccessEntry> entry = PanelEntry(request, list, sender);
  if (!entry || entry->value != list.action)
    throw pnl_err::Error(pnl_err::Kind::kUnknown, "sender " + Quote(sender),
                         std::string("is not on the ") + list.name);
  ChangeAndCache(request, list, sender, false, [&] {
    if (list.white)
      request.mta.DeleteFromWhitelist(sender);
    else
      request.mta.DeleteFromBlacklist(sender);
  });
}

std::vector<SenderListEntry> SenderListEntries(const Request& request, SenderList which) {
  std::vector<SenderListEntry> entries;
  for (const SenderListRow& row : SenderListRows(request.db, Of(which).table))
    entries.push_back({row.sender, KindOf(row.sender), row.hand_written});
  return entries;
}

std::vector<SenderListEntry> ReadSenderList(const Request& request, SenderList which) {
  Cache(request, Of(which));
  return SenderListEntries(request, which);
}

}  // namespace zelpnl
