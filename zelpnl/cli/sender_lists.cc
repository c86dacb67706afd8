// zelpnl mail whitelist|blacklist add|delete|list: the command line of the
// sender lists (sender_lists.h) and the rendering of their entries.
#include "commands.h"
#include "sender_lists.h"
#include "validation.h"

namespace zelpnl {

namespace {

void PrintEntries(const Output& out, SenderList which, const std::vector<SenderListEntry>& list,
                  bool with_text) {
  nlohmann::ordered_json entries = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  for (const SenderListEntry& entry : list) {
    entries.push_back(
        {{"sender", entry.sender}, {"kind", entry.kind}, {"hand_written", entry.hand_written}});
    rows.push_back({entry.sender, entry.kind, entry.hand_written ? "by hand" : "panel"});
  }
  out.Print({{SenderListName(which), entries}},
            with_text ? Table({"SENDER", "KIND", "WRITTEN"}, rows) : "");
}

void AddList(CLI::App& mail, Command* out, SenderList which) {
  const std::string name = SenderListName(which);
  const std::string action =
      which == SenderList::kWhite ? "always accepted" : "always refused";
  CLI::App* cmd = mail.add_subcommand(
      name, std::string("Senders whose mail is ") + action + " (kept in the access map)");
  cmd->require_subcommand(1);
  auto sender = std::make_shared<std::string>();

  CLI::App* add = cmd->add_subcommand("add", std::string("Put a sender on the ") + name);
  add->add_option("SENDER", *sender,
                  "An e-mail address, a domain, an IPv4 or IPv6 address, or a network: "
                  "192.0.2, 2001:db8, 192.0.2.0/24, 2001:db8::/32")
      ->required();
  add->callback([=] {
    std::string kind;
    const std::string value = Sender(*sender, &kind);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              AddSender(h.MailRequest(), which, value, kind);
              if (o.json()) PrintEntries(o, which, SenderListEntries(h.MailRequest(), which), false);
            }};
  });

  CLI::App* del =
      cmd->add_subcommand("delete", std::string("Take a sender off the ") + name);
  del->add_option("SENDER", *sender, "The sender as listed")->required();
  del->callback([=] {
    // Any spelling of the entry finds it.
    const std::string value = Sender(*sender);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              DeleteSender(h.MailRequest(), which, value);
              if (o.json()) PrintEntries(o, which, SenderListEntries(h.MailRequest(), which), false);
            }};
  });

  CLI::App* list_cmd = cmd->add_subcommand(
      "list", std::string("List the ") + name + ", read from the access map");
  list_cmd->callback([=] {
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              PrintEntries(o, which, ReadSenderList(h.MailRequest(), which), true);
            }};
  });
}

}  // namespace

void AddSenderListCommands(CLI::App& mail, Command* out) {
  AddList(mail, out, SenderList::kWhite);
  AddList(mail, out, SenderList::kBlack);
}

}  // namespace zelpnl
