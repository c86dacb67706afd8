// zelpnl responders: a mailbox's autoresponder, over a Request. The row
// (enabled, subject, text) is written first, then the back-end puts the
// responder into the mailbox's aliases entry or takes it out; when that
// fails, the row gets its earlier values back (a new row is deleted).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "request.h"
#include "validation.h"

namespace zelpnl {

// A mailbox's responder as the panel shows it; exists is false for a
// mailbox that never had one (enabled false, subject and text empty).
struct ResponderState {
  std::string address;  // L@D, the domain in ASCII
  bool exists = false;
  bool enabled = false;
  std::string subject;
  std::string text;
  std::optional<int64_t> period_days;  // none without a row
};

ResponderState ShowResponder(const Request& request, const Address& address);

// Switches the responder on or off; subject and text (canonical, see
// ResponderSubject and ResponderText) replace the row's when given. Turning
// it on needs a text, given or kept.
ResponderState SwitchResponder(const Request& request, const Address& address, bool on,
                               const std::optional<std::string>& subject,
                               const std::optional<std::string>& text);

}  // namespace zelpnl
