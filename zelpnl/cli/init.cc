// zelpnl init --sandbox DIR: a self-contained set-up in one folder, with
// every file and command of the panel's mail pointing into it.
#include "commands.h"
#include "sandbox.h"

namespace zelpnl {

namespace {

void Init(Host& host, const Output& out, const SandboxOptions& options) {
  const SandboxSetUp s = MakeSandbox(host, options);
  nlohmann::ordered_json sandbox = {{"dir", s.dir},
                                    {"config", s.config},
                                    {"database", s.database},
                                    {"log_file", s.log_file}};
  for (const auto& [key, value] : s.mail.json)
    sandbox[key] = value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
  sandbox["responder_conf"] = s.responder_conf;
  sandbox["admin"] = s.admin;

  std::vector<std::pair<std::string, std::string>> fields = {
      {"configuration", s.config}, {"database", s.database + " (user \"" + s.admin + "\")"}};
  fields.insert(fields.end(), s.mail.text.begin(), s.mail.text.end());
  fields.insert(fields.end(), s.store.text.begin(), s.store.text.end());
  fields.push_back({"responder", s.responder_conf + " (answers that cannot go at once wait in " + s.answers + ")"});
  out.Print({{"sandbox", sandbox}}, "sandbox ready in " + s.dir + "\n" + Fields(fields) +
                                        "use it with: export ZELPNL_CONF=" + s.config + "\n");
}

}  // namespace

void AddInitCommand(CLI::App& app, Command* out) {
  auto dir = std::make_shared<std::string>();
  CLI::App* init = app.add_subcommand(
      "init", "Make a self-contained set-up in a folder: configuration, database, sendmail files");
  init->footer(
      "Writes DIR/zelpnl.conf with every path key pointing into DIR, the panel database "
      "DIR/panel.db with the user \"admin\", empty local-host-names, virtusertable, aliases and "
      "access files (the aliases file gets the \"devnull\" alias), and, where sendmail-cf and m4 "
      "are installed, DIR/sendmail.mc and DIR/sendmail.cf: a sendmail configuration that reads "
      "DIR's files, so that \"mail check\" asks sendmail itself. The aliases rebuild "
      "(sendmail-newaliases) is zelpnl-newaliases on DIR's aliases; the restart command is "
      "\"true\", which is harmless: no mail daemon runs on these files. The autoresponder gets "
      "its own configuration DIR/responder.conf, its settings folder DIR/responder, and, owned "
      "by the mail user it runs as, DIR/responder-memory, DIR/responder.log and DIR/answers, "
      "where its answers are queued. DIR must not lie below a folder anyone may write to (such "
      "as /tmp): sendmail refuses files there.");
  init->add_option("--sandbox", *dir, "The folder (made when missing; must hold none of the files)")
      ->required()
      ->option_text("DIR");
  auto smart_host = std::make_shared<std::string>();
  init->add_option("--smart-host", *smart_host,
                   "Where the sandbox's mail stack sends outbound mail (default: a free loopback "
                   "port, where it waits in the queue until something listens)")
      ->option_text("IP:PORT");
  init->callback([=] {
    SandboxOptions options;
    options.dir = SandboxDir(*dir);
    if (!smart_host->empty()) options.smart_host = SmartHost(*smart_host);
    *out = {Needs::kNothing, [=](Host& h, const Output& o) { Init(h, o, options); },
            "makes a new set-up; run it on its own"};
  });
}

}  // namespace zelpnl
