// zelpnl commands: each group adds its subcommands to the command line. A
// subcommand's callback runs once the command line is parsed: it checks and
// canonicalises the values (throwing Invalid, before anything is opened) and
// stores in *out what the command needs and what it does.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include "run.h"
#include "mail_log.h"

namespace zelpnl {

// Every command of the command line but batch, on app (the top level).
void AddCommands(CLI::App& app, Command* out);
// The part of that tree a batch line with these words can name (the group
// its first words choose, e.g. "mail box"), or all of it when they choose
// none: the same commands, options and checks, for a fraction of the cost
// of building the whole tree for each of many lines.
void AddCommandsFor(CLI::App& app, Command* out, const std::vector<std::string>& words);

// batch [FILE|-]: many commands, one a line, in one request (batch.cc). The
// lines are read and checked when the command line is parsed.
void AddBatchCommand(CLI::App& app, Command* out);

void AddInitCommand(CLI::App& app, Command* out);
void AddUserCommands(CLI::App& app, Command* out);
void AddWebDomainCommands(CLI::App& app, Command* out);
void AddStackCommands(CLI::App& app, Command* out);

// Under "mail".
void AddMailDomainCommands(CLI::App& mail, Command* out);
void AddMailboxCommands(CLI::App& mail, Command* out);
void AddResponderCommand(CLI::App& mail, Command* out);
void AddSenderListCommands(CLI::App& mail, Command* out);
void AddSyncCommand(CLI::App& mail, Command* out);
void AddCheckCommand(CLI::App& mail, Command* out);

}  // namespace zelpnl
