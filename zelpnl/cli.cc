#include "commands.h"

namespace zelpnl {

namespace {

// Adds "mail" with the groups chosen by add.
template <class F>
void AddMail(CLI::App& app, F add) {
  CLI::App* mail = app.add_subcommand("mail", "Mail domains, mailboxes and sender lists");
  mail->require_subcommand(1);
  add(*mail);
}

}  // namespace

void AddCommands(CLI::App& app, Command* out) {
  AddInitCommand(app, out);
  AddUserCommands(app, out);
  AddWebDomainCommands(app, out);
  AddMail(app, [out](CLI::App& mail) {
    AddMailDomainCommands(mail, out);
    AddMailboxCommands(mail, out);
    AddResponderCommand(mail, out);
    AddSenderListCommands(mail, out);
    AddSyncCommand(mail, out);
    AddCheckCommand(mail, out);
  });
}

void AddCommandsFor(CLI::App& app, Command* out, const std::vector<std::string>& words) {
  // The first two words that are no options (nor --config's value).
  std::vector<std::string> names;
  for (size_t i = 0; i < words.size() && names.size() < 2; ++i) {
    if (words[i] == "--config") {
      ++i;
      continue;
    }
    if (!words[i].empty() && words[i][0] == '-') continue;
    names.push_back(words[i]);
  }
  const std::string first = names.empty() ? "" : names[0];
  const std::string second = names.size() < 2 ? "" : names[1];
  if (first == "user") return AddUserCommands(app, out);
  if (first == "webdomain") return AddWebDomainCommands(app, out);
  if (first == "mail") {
    if (second == "domain") return AddMail(app, [out](CLI::App& m) { AddMailDomainCommands(m, out); });
    if (second == "box") return AddMail(app, [out](CLI::App& m) { AddMailboxCommands(m, out); });
    if (second == "responder")
      return AddMail(app, [out](CLI::App& m) { AddResponderCommand(m, out); });
    if (second == "whitelist" || second == "blacklist")
      return AddMail(app, [out](CLI::App& m) { AddSenderListCommands(m, out); });
    if (second == "sync") return AddMail(app, [out](CLI::App& m) { AddSyncCommand(m, out); });
  }
  // Anything else gets the whole tree, and with it the parser's own message.
  AddCommands(app, out);
}

}  // namespace zelpnl
