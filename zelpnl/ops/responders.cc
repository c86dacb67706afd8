#include "responders.h"

#include "email/mta_interface.h"
#include "file_change.h"
#include "panel_rows.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

ResponderState StateOf(const std::string& address, const ResponderRow& row) {
  if (!row) return {address, false, false, "", "", std::nullopt};
  return {address,
          true,
          row->enabled.Value(),
          row->subject.Value(),
          row->text.Value(),
          row->period_days.Value()};
}

}  // namespace

ResponderState ShowResponder(const Request& request, const Address& address) {
  MailboxRow mailbox = RequireMailbox(request.db, address);
  return StateOf(address.Text(), FindResponder(request.db, mailbox->id.Value()));
}

ResponderState SwitchResponder(const Request& request, const Address& address, bool on,
                               const std::optional<std::string>& subject,
                               const std::optional<std::string>& text) {
  pnl_db::Cache& db = request.db;
  MailboxRow mailbox = RequireMailbox(db, address);
  ResponderRow row = FindResponder(db, mailbox->id.Value());
  const bool is_new = !row;
  bool old_enabled = false;
  std::string old_subject, old_text;
  if (is_new) {
    row = db.Get<zel_db::EmailResponderTable>();
    row->New();
    row->email = mailbox->id;
  } else {
    old_enabled = row->enabled.Value();
    old_subject = row->subject.Value();
    old_text = row->text.Value();
  }
  if (on && text.value_or(old_text).empty())
    throw pnl_err::Error(pnl_err::Kind::kInvalid, "responder of " + Quote(address.Text()),
                         "has no text to answer with; give --text");
  row->enabled = on;
  if (subject) row->subject = *subject;
  if (text) row->text = *text;
  row->Post();
  const int64_t id = row->id.Value();
  request.files.Change([&] { request.mta.SetResponder(row); },
                       [request, id, is_new, old_enabled, old_subject, old_text] {
                         if (is_new) {
                           DeleteRowById(request.db, "email_responder", id);
                           return;
                         }
                         RestoreResponder(request.db, id, old_enabled, old_subject, old_text);
                       });
  return StateOf(address.Text(), FindResponder(db, mailbox->id.Value()));
}

}  // namespace zelpnl
