// zelpnl password input: where a command line takes a mailbox's password
// from. Never from the command line itself (any user may read another's
// argv in /proc): from standard input (--password-stdin), a file
// (--password-file FILE) or a prompt on the terminal (--password). The
// password is read when the command runs, hashed at once, and never logged
// or shown.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace zelpnl {

struct PasswordInput {
  bool from_stdin = false;
  std::string file;
  bool prompt = false;
  bool remove = false;  // --no-password (set only)

  bool Given() const { return from_stdin || !file.empty() || prompt || remove; }
  // Why a batch line cannot read it ("" when it can): a batch's lines
  // share one standard input and no terminal is asked in the middle.
  std::string NotInBatch() const;
  // The stored form: the new password's hash, "" to remove it, nullopt when
  // no option was given. Throws pnl_err::Error(kUsage) for an unfit
  // password, input without a line, or a prompt without a terminal.
  std::optional<std::string> Hash() const;
};

// Adds the options to cmd; with_remove adds --no-password too. Refuses more
// than one of them (CLI::ParseError, at parse time).
void AddPasswordOptions(CLI::App* cmd, PasswordInput& input, bool with_remove);

}  // namespace zelpnl
