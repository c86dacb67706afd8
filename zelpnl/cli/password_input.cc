#include "password_input.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>

#include "zelapi/err.h"
#include "zelapi/fd.h"
#include "zelapi/password.h"

namespace zelpnl {

namespace {

[[noreturn]] void Refuse(const std::string& detail) {
  throw pnl_err::Error(pnl_err::Kind::kUsage, "password", detail);
}

// The first line of in, without its line end; a line is required.
std::string FirstLine(std::istream& in, const std::string& where) {
  std::string line;
  if (!std::getline(in, line)) Refuse(where + " holds no line");
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// One line read from the terminal with echo off, echo restored after. Echo
// goes off before the question is shown: an answer typed as soon as it
// appears is never echoed, and what was typed before it is discarded.
std::string AskTerminal(int tty, const char* question) {
  termios old_mode{};
  if (::tcgetattr(tty, &old_mode) != 0) Refuse("cannot set the terminal");
  termios quiet = old_mode;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  if (::tcsetattr(tty, TCSAFLUSH, &quiet) != 0) Refuse("cannot set the terminal");
  std::string line;
  ssize_t n = 0;
  if (::write(tty, question, std::char_traits<char>::length(question)) >= 0) {
    char c = 0;
    while ((n = ::read(tty, &c, 1)) == 1 && c != '\n') line += c;
  }
  ::tcsetattr(tty, TCSANOW, &old_mode);
  if (n != 1) Refuse("no answer on the terminal");
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::string Prompt() {
  pnl_file::Fd tty(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!tty.open())
    Refuse("there is no terminal to ask on; give it with --password-stdin or --password-file");
  const std::string first = AskTerminal(tty.get(), "New password: ");
  if (const std::string problem = pnl_password::Problem(first); !problem.empty()) Refuse(problem);
  if (AskTerminal(tty.get(), "Again: ") != first) Refuse("the two answers differ");
  return first;
}

}  // namespace

std::string PasswordInput::NotInBatch() const {
  if (from_stdin) return "reads the password from standard input; give it with --password-file";
  if (prompt) return "asks for the password on the terminal; give it with --password-file";
  return "";
}

std::optional<std::string> PasswordInput::Hash() const {
  if (remove) return std::string();
  std::string password;
  if (from_stdin) {
    password = FirstLine(std::cin, "standard input");
  } else if (!file.empty()) {
    std::ifstream in(file, std::ios::binary);
    if (!in) Refuse("cannot read the file " + file);
    password = FirstLine(in, "the file " + file);
  } else if (prompt) {
    password = Prompt();
  } else {
    return std::nullopt;
  }
  return pnl_password::Hash(password);
}

void AddPasswordOptions(CLI::App* cmd, PasswordInput& input, bool with_remove) {
  CLI::Option* in = cmd->add_flag("--password-stdin", input.from_stdin,
                                  "Read the mailbox's password from the first line of standard "
                                  "input");
  CLI::Option* file = cmd->add_option("--password-file", input.file,
                                      "Read the mailbox's password from the first line of FILE")
                          ->option_text("FILE");
  CLI::Option* prompt = cmd->add_flag("--password", input.prompt,
                                      "Ask for the mailbox's password on the terminal (twice)");
  in->excludes(file)->excludes(prompt);
  file->excludes(prompt);
  if (with_remove) {
    CLI::Option* remove = cmd->add_flag("--no-password", input.remove,
                                        "Remove the mailbox's password: it can no longer log in");
    remove->excludes(in)->excludes(file)->excludes(prompt);
  }
}

}  // namespace zelpnl
