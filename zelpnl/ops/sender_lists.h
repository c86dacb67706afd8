// zelpnl sender lists: the server-wide whitelist and blacklist, kept in the
// access map, over a Request. The panel's tables of the lists are caches:
// after every change, and before a listing, they are read back from the
// map. Whether a sender is listed, and by whom, is asked of the access map
// itself (the line under the sender's key): an entry the panel did not
// write is listed but never changed.
//
// Senders are canonical (see Sender in validation.h). Operations throw
// pnl_err::Error for a refusal or a failure.
#pragma once

#include <string>
#include <vector>

#include "request.h"

namespace zelpnl {

enum class SenderList { kWhite, kBlack };

// "whitelist" or "blacklist".
const char* SenderListName(SenderList list);

struct SenderListEntry {
  std::string sender;
  std::string kind;  // as Sender tells it: "address", "domain", ...; "unknown"
  bool hand_written = false;
};

// kind: the sender's kind as Sender told it.
void AddSender(const Request& request, SenderList list, const std::string& sender,
               const std::string& kind);
void DeleteSender(const Request& request, SenderList list, const std::string& sender);
// The list as the panel's rows hold it now, in the order added.
std::vector<SenderListEntry> SenderListEntries(const Request& request, SenderList list);
// The list read back from the access map first.
std::vector<SenderListEntry> ReadSenderList(const Request& request, SenderList list);

}  // namespace zelpnl
