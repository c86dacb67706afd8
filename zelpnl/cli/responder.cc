// zelpnl mail responder ADDRESS on|off|show: the command line of a
// mailbox's autoresponder (responders.h) and the rendering of its state.
#include "commands.h"
#include "panel_rows.h"
#include "responders.h"
#include "validation.h"

namespace zelpnl {

namespace {

struct ResponderOptions {
  std::string action;
  std::string subject;
  std::string text;
};

nlohmann::ordered_json ResponderJson(const ResponderState& r) {
  return {{"address", r.address},
          {"exists", r.exists},
          {"enabled", r.enabled},
          {"subject", r.subject},
          {"text", r.text},
          {"period_days",
           r.period_days ? nlohmann::ordered_json(*r.period_days) : nlohmann::ordered_json(nullptr)}};
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

void Print(const Output& out, const ResponderState& state, bool with_text) {
  const nlohmann::ordered_json r = ResponderJson(state);
  out.Print({{"responder", r}}, with_text ? ResponderTextForm(r) : "");
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
    const ResponderOptions o = *options;
    std::optional<std::string> new_subject, new_text;
    if (subject->count() > 0) new_subject = o.subject;
    if (text->count() > 0) new_text = o.text;
    if (o.action == "show") {
      if (new_subject || new_text)
        throw Invalid("responder action", o.action, "takes no --subject or --text");
      *out = {Needs::kMail, [=](Host& h, const Output& out) {
                Print(out, ShowResponder(h.MailRequest(), a), true);
              }};
      return;
    }
    if (new_subject) new_subject = ResponderSubject(*new_subject);
    if (new_text) new_text = ResponderText(*new_text);
    const bool on = o.action == "on";
    *out = {Needs::kMail, [=](Host& h, const Output& out) {
              const ResponderState state =
                  SwitchResponder(h.MailRequest(), a, on, new_subject, new_text);
              if (out.json()) Print(out, state, false);
            }};
  });
}

}  // namespace zelpnl
