// zelpnl mail responder ADDRESS on|off|show: a mailbox's autoresponder. The
// row (enabled, subject, text) is written first, then the back-end puts the
// responder into the mailbox's aliases entry or takes it out; when that
// fails, the row gets its earlier values back (a new row is deleted).
#include "commands.h"
#include "email/mta_interface.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

struct ResponderOptions {
  std::string action;
  std::string subject;
  std::string text;
  bool has_subject = false;
  bool has_text = false;
};

nlohmann::ordered_json ResponderJson(const std::string& address, const ResponderRow& row) {
  if (!row)
    return {{"address", address}, {"exists", false}, {"enabled", false}, {"subject", ""},
            {"text", ""}, {"period_days", nullptr}};
  return {{"address", address},
          {"exists", true},
          {"enabled", row->enabled.Value()},
          {"subject", row->subject.Value()},
          {"text", row->text.Value()},
          {"period_days", row->period_days.Value()}};
}

std::string ResponderTextForm(const nlohmann::ordered_json& r) {
  std::string text = Fields({{"address", DisplayAddress(r["address"])},
                             {"responder", r["exists"] ? (r["enabled"] ? "on" : "off") : "none"},
                             {"subject", r["subject"]}});
  const std::string body = r["text"];
  if (!body.empty()) {
    text += "text:\n";
    size_t start = 0;
    while (start <= body.size()) {
      size_t end = body.find('\n', start);
      if (end == std::string::npos) end = body.size();
      if (end == body.size() && start == end) break;
      text += "  " + body.substr(start, end - start) + "\n";
      start = end + 1;
    }
  }
  return text;
}

void Show(Host& host, const Output& out, const Address& address) {
  pnl_db::Cache& db = host.Db();
  MailboxRow mailbox = RequireMailbox(db, address);
  ResponderRow row = FindResponder(db, mailbox->id.Value());
  const nlohmann::ordered_json r = ResponderJson(address.Text(), row);
  out.Print({{"responder", r}}, ResponderTextForm(r));
}

void Switch(Host& host, const Output& out, const Address& address, const ResponderOptions& o) {
  pnl_db::Cache& db = host.Db();
  MailboxRow mailbox = RequireMailbox(db, address);
  const bool on = o.action == "on";
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
  const std::string text = o.has_text ? o.text : old_text;
  if (on && text.empty())
    throw pnl_err::Error("invalid", "responder of " + Quote(address.Text()),
                         "has no text to answer with; give --text");
  row->enabled = on;
  if (o.has_subject) row->subject = o.subject;
  if (o.has_text) row->text = o.text;
  row->Post();
  const int64_t id = row->id.Value();
  host.Files().Change([&] { host.Mta().SetResponder(row); },
                   [&host, id, is_new, old_enabled, old_subject, old_text] {
                     if (is_new) {
                       DeleteRowById(host.Db(), "email_responder", id);
                       return;
                     }
                     RestoreResponder(host.Db(), id, old_enabled, old_subject, old_text);
                   });
  if (!out.json()) return;
  row = FindResponder(db, mailbox->id.Value());
  out.Print({{"responder", ResponderJson(address.Text(), row)}}, "");
}

}  // namespace

void AddResponderCommand(CLI::App& mail, Command* out) {
  auto address = std::make_shared<std::string>();
  auto options = std::make_shared<ResponderOptions>();
  CLI::App* responder = mail.add_subcommand(
      "responder",
      "A mailbox's autoresponder: on puts it into the mailbox's aliases entry, off takes it "
      "out, show prints it");
  responder->add_option("ADDRESS", *address, "The mailbox")->required();
  responder->add_option("ACTION", options->action, "on, off or show")
      ->required()
      ->check(CLI::IsMember({"on", "off", "show"}));
  CLI::Option* subject =
      responder->add_option("--subject", options->subject, "Subject of the answers")
          ->option_text("S");
  CLI::Option* text =
      responder->add_option("--text", options->text, "Text of the answers")->option_text("T");
  responder->callback([=] {
    const Address a = KnownAddress(*address);
    ResponderOptions o = *options;
    o.has_subject = subject->count() > 0;
    o.has_text = text->count() > 0;
    if (o.action == "show") {
      if (o.has_subject || o.has_text)
        throw Invalid("responder action", o.action, "takes no --subject or --text");
      *out = {Needs::kMail, [=](Host& h, const Output& out) { Show(h, out, a); }};
      return;
    }
    if (o.has_subject) o.subject = ResponderSubject(o.subject);
    if (o.has_text) o.text = ResponderText(o.text);
    *out = {Needs::kMail, [=](Host& h, const Output& out) { Switch(h, out, a, o); }};
  });
}

}  // namespace zelpnl
