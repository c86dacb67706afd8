// zelpnl mail sync: the command line of the read-back (sync.h), with a
// progress bar on a terminal, and the rendering of what it changed.
#include <memory>

#include "commands.h"
#include "sync.h"

namespace zelpnl {

namespace {

constexpr char kSyncHelp[] =
    "Read sendmail's files back into the panel's database; the files are the truth. In order: "
    "mail domains from the virtual user table (a catch-all line of a web domain of the panel "
    "makes a mail domain row, a row without its line goes; the panel's suspension entry in the "
    "access map suspends it, and no read-back resumes a suspended domain; a domain missing "
    "from local-host-names is added there), mailboxes from the virtual user table (lines of "
    "known mail domains make rows, rows without a line go, a disabled target means suspended "
    "except in a suspended domain, whose mailboxes keep their own state; an alias line, which has no aliases entry of its own, stays an alias and is no mailbox), then each mailbox's aliases, forwards and forward-only "
    "flag from its aliases entry and the virtual user table, each responder's on/off state from "
    "its mailbox's aliases entry, and the whitelist and blacklist from the access map. Domains "
    "and mailboxes are only read when the virtual user table changed since the panel last read "
    "it, the whitelist when the access map did.\n\n"
    "What it repairs: rows left behind or missing after a failed command (a command whose "
    "back-end call failed undoes its own rows, but the files may hold part of the change), and "
    "any hand edit of the files. It does not rewrite the files (except local-host-names and "
    "access entries of domains, as above); to write a row's state to the files again use "
    "\"mail domain update\", \"mail box resume\" or \"mail box set\".\n\n"
    "Prints, per table, the rows before and after and what was added and removed. A progress "
    "bar goes to standard error when it is a terminal.";

// The sync's progress as a bar on standard error when it is a terminal.
class ProgressBar : public SyncProgress {
 public:
  void Begin(size_t steps) override {
    bar_ = std::make_unique<Progress>("mail sync", steps, StderrIsTerminal());
  }
  void Step(const std::string& what) override { bar_->Step(what); }
  void Done() override { bar_->Done(); }

 private:
  std::unique_ptr<Progress> bar_;
};

void Sync(Host& host, const Output& out) {
  ProgressBar bar;
  const SyncReport report = SyncMail(host.MailRequest(), bar);
  nlohmann::ordered_json tables = nlohmann::ordered_json::object();
  std::vector<std::vector<std::string>> rows;
  std::string changes;
  for (const SyncTableChange& t : report.tables) {
    tables[t.table] = {{"label", t.label},     {"before", t.before},   {"after", t.after},
                       {"added", t.added},     {"removed", t.removed}};
    rows.push_back({t.label, std::to_string(t.before), std::to_string(t.after),
                    std::to_string(t.added.size()), std::to_string(t.removed.size())});
    for (const auto& item : t.removed) changes += "  - " + t.label + ": " + item + "\n";
    for (const auto& item : t.added) changes += "  + " + t.label + ": " + item + "\n";
  }
  const auto& failures = report.failures;
  nlohmann::ordered_json failed = nlohmann::ordered_json::array();
  for (const auto& [object, cause] : failures) failed.push_back({{"object", object}, {"cause", cause}});

  std::string text = Table({"TABLE", "BEFORE", "AFTER", "ADDED", "REMOVED"}, rows);
  text += changes.empty() ? "no changes\n" : "changes:\n" + changes;
  out.Print({{"sync", {{"tables", tables}, {"failures", failed}}}}, text);
  if (!failures.empty()) {
    for (const auto& [object, cause] : failures) PrintError(object, cause);
    out.SetFailed();
  }
}

}  // namespace

void AddSyncCommand(CLI::App& mail, Command* out) {
  CLI::App* sync = mail.add_subcommand("sync", "Read sendmail's files back into the panel");
  sync->footer(kSyncHelp);
  sync->callback([=] { *out = {Needs::kMail, [](Host& h, const Output& o) { Sync(h, o); }}; });
}

}  // namespace zelpnl
