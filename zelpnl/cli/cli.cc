#include "commands.h"

namespace zelpnl {

namespace {

// The command line's groups, in the order --help shows them: a group's
// words (under "mail" or at the top) and the function adding its
// subcommands. The one list both the whole tree and a batch line's part of
// it are built from.
struct CommandGroup {
  bool under_mail;
  std::vector<std::string> words;  // any of them names the group
  void (*add)(CLI::App& app, Command* out);
};

const std::vector<CommandGroup>& Groups() {
  static const std::vector<CommandGroup> groups = {
      {false, {"init"}, &AddInitCommand},
      {false, {"user"}, &AddUserCommands},
      {false, {"webdomain"}, &AddWebDomainCommands},
      {true, {"domain"}, &AddMailDomainCommands},
      {true, {"box"}, &AddMailboxCommands},
      {true, {"responder"}, &AddResponderCommand},
      {true, {"whitelist", "blacklist"}, &AddSenderListCommands},
      {true, {"sync"}, &AddSyncCommand},
      {true, {"check"}, &AddCheckCommand},
      {false, {"stack"}, &AddStackCommands},
  };
  return groups;
}

CLI::App& AddMail(CLI::App& app) {
  CLI::App* mail = app.add_subcommand("mail", "Mail domains, mailboxes and sender lists");
  mail->require_subcommand(1);
  return *mail;
}

bool Names(const CommandGroup& group, const std::string& word) {
  for (const std::string& w : group.words)
    if (w == word) return true;
  return false;
}

}  // namespace

void AddCommands(CLI::App& app, Command* out) {
  CLI::App* mail = nullptr;
  for (const CommandGroup& group : Groups()) {
    if (!group.under_mail) {
      group.add(app, out);
      continue;
    }
    if (mail == nullptr) mail = &AddMail(app);
    group.add(*mail, out);
  }
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
  for (const CommandGroup& group : Groups()) {
    if (!group.under_mail && Names(group, first)) return group.add(app, out);
    if (group.under_mail && first == "mail" && Names(group, second))
      return group.add(AddMail(app), out);
  }
  // Anything else gets the whole tree, and with it the parser's own message.
  AddCommands(app, out);
}

}  // namespace zelpnl
