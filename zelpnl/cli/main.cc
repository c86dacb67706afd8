// zelpnl: the panel host's command line. Parses the command (CLI11), then
// runs it as one request (host.h).
#include <iostream>
#include <string>

#include "commands.h"
#include "run.h"

namespace {

// A parse error's message with the word given after --password hidden: the
// option takes no value, and what was typed there is likely the password.
std::string Hidden(std::string message, int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) != "--password" || argv[i + 1][0] == '-' || !*argv[i + 1]) continue;
    const std::string word = argv[i + 1];
    for (size_t at = message.find(word); at != std::string::npos; at = message.find(word, at))
      message.replace(at, word.size(), "(hidden)");
    message += " (a password is never taken from the command line: --password asks on the "
               "terminal; or give --password-stdin or --password-file)";
  }
  return message;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "zelpnl: the hosting panel's core for mail on sendmail. Keeps users, web domains, mail "
      "domains, mailboxes, aliases, forwards, autoresponders and sender lists in the panel "
      "database and in sendmail's files.\n\nExit status: 0 success, 1 an operation failed, "
      "2 bad usage or a value refused.",
      "zelpnl"};
  app.option_defaults()->always_capture_default();
  app.require_subcommand(1);
  app.fallthrough();

  zelpnl::GlobalOptions options;
  for (int i = 1; i < argc; ++i) options.line += std::string(i > 1 ? " " : "") + argv[i];
  app.add_option("--config", options.config,
                 "Configuration file (default: $ZELPNL_CONF, else /etc/zelpnl/zelpnl.conf)")
      ->option_text("FILE");
  app.add_flag("--json", options.json, "Print machine-readable JSON on standard output");

  zelpnl::Command command;
  zelpnl::AddCommands(app, &command);
  zelpnl::AddBatchCommand(app, &command);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "error: " << Hidden(e.what(), argc, argv) << "\n"
              << "Run with --help for more information.\n";
    return 2;
  } catch (...) {
    // A value the validation refused.
    return zelpnl::ReportCurrentException(options.json);
  }
  if (!command.run) {
    std::cerr << "error: no command given\nRun with --help for more information.\n";
    return 2;
  }
  return zelpnl::Execute(options, command);
}
