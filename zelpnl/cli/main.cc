// zelpnl: the panel host's command line. Parses the command (CLI11), then
// runs it as one request (host.h).
#include <iostream>
#include <string>

#include "commands.h"
#include "run.h"

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
    std::cerr << "error: " << e.what() << "\n"
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
