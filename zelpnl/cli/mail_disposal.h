// --mail archive|delete: what a delete does with the mail it leaves.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "mailstore/maildirs.h"

namespace zelpnl {

// Adds the option to cmd, storing its word in *word ("archive" unless given).
void AddMailDisposalOption(CLI::App* cmd, std::string* word);
mailstore::Disposal MailDisposal(const std::string& word);

}  // namespace zelpnl
