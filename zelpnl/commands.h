// zelpnl commands: each group adds its subcommands to the command line. A
// subcommand's callback runs once the command line is parsed: it checks and
// canonicalises the values (throwing Invalid, before anything is opened) and
// stores in *out what the command needs and what it does.
#pragma once

#include <CLI/CLI.hpp>

#include "host.h"

namespace zelpnl {

void AddInitCommand(CLI::App& app, Command* out);
void AddUserCommands(CLI::App& app, Command* out);
void AddWebDomainCommands(CLI::App& app, Command* out);

// Under "mail".
void AddMailDomainCommands(CLI::App& mail, Command* out);
void AddMailboxCommands(CLI::App& mail, Command* out);
void AddResponderCommand(CLI::App& mail, Command* out);
void AddSenderListCommands(CLI::App& mail, Command* out);
void AddSyncCommand(CLI::App& mail, Command* out);
void AddCheckCommand(CLI::App& mail, Command* out);

}  // namespace zelpnl
