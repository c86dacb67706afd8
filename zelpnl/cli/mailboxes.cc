// zelpnl mail box add|list|show|suspend|resume|delete|set: the command
// line of the mailbox operations (mailboxes.h) and the rendering of their
// results, as JSON and as text.
#include "commands.h"
#include "mail_disposal.h"
#include "mailboxes.h"
#include "password_input.h"

namespace zelpnl {

namespace {

// mailbox: address, unicode, local, domain, enabled, forward_only,
// password (whether it has one), quota and quota_limit (bytes), usage (bytes
// stored, null where unknown: in lists, or a set-up keeping no mail), aliases,
// forwards, responder (null, or enabled, subject, text, period_days).
nlohmann::ordered_json MailboxJson(const MailboxView& box) {
  nlohmann::ordered_json responder = nullptr;
  if (box.responder)
    responder = {
        {"enabled", box.responder->enabled},
        {"subject", box.responder->subject},
        {"text", box.responder->text},
        {"period_days", box.responder->period_days},
    };
  return {
      {"address", box.address},
      {"unicode", box.unicode},
      {"local", box.local},
      {"domain", box.domain},
      {"enabled", box.enabled},
      {"forward_only", box.forward_only},
      {"password", box.has_password},
      {"quota", box.quota},
      {"quota_limit", box.quota_limit},
      {"usage", box.usage ? nlohmann::ordered_json(*box.usage) : nlohmann::ordered_json(nullptr)},
      {"aliases", box.aliases},
      {"forwards", box.forwards},
      {"responder", responder},
  };
}

std::string ResponderState(const MailboxView& box) {
  if (!box.responder) return "-";
  return box.responder->enabled ? "on" : "off";
}

// The aliases as addresses, the domain in Unicode.
std::vector<std::string> AliasAddresses(const MailboxView& box) {
  const std::string domain = box.unicode.substr(box.unicode.rfind('@') + 1);
  std::vector<std::string> out;
  for (const std::string& alias : box.aliases) out.push_back(alias + "@" + domain);
  return out;
}

void PrintList(const Output& out, const std::vector<MailboxView>& boxes) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  for (const MailboxView& box : boxes) {
    rows.push_back({box.unicode, box.enabled ? "active" : "suspended", YesNo(box.forward_only),
                    JoinOrDash(AliasAddresses(box)), JoinOrDash(box.forwards),
                    ResponderState(box)});
    list.push_back(MailboxJson(box));
  }
  out.Print({{"mailboxes", list}},
            Table({"ADDRESS", "STATE", "FORWARD ONLY", "ALIASES", "FORWARDS", "RESPONDER"}, rows));
}

// After a change: the mailbox as it is now, for a program (text stays quiet).
void PrintChanged(Host& host, const Output& out, const Address& address) {
  if (out.json()) out.Print({{"mailbox", MailboxJson(ShowMailbox(host.MailRequest(), address))}}, "");
}

std::string QuotaLine(const MailboxView& box) {
  std::string line = box.quota_limit == 0 ? "none" : QuotaText(box.quota_limit);
  if (box.quota_limit != 0 && box.quota == 0) line += " (the domain's)";
  if (box.usage) line += ", " + std::to_string(*box.usage) + " bytes used";
  return line;
}

void PrintOne(const Output& out, const MailboxView& box) {
  out.Print({{"mailbox", MailboxJson(box)}},
            Fields({{"address", box.unicode},
                    {"state", box.enabled ? "active" : "suspended"},
                    {"forward only", YesNo(box.forward_only)},
                    {"password", box.has_password ? "set" : "none (cannot log in)"},
                    {"quota", QuotaLine(box)},
                    {"aliases", JoinOrDash(AliasAddresses(box))},
                    {"forwards", JoinOrDash(box.forwards)},
                    {"responder", ResponderState(box)}}));
}

void AddChangeOptions(CLI::App* cmd, MailboxChangeOptions& raw, bool removals) {
  cmd->add_option("--alias", raw.add_aliases,
                  "Add an alias: another local part (or address) of the mailbox's domain")
      ->option_text("A")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  cmd->add_option("--forward", raw.add_forwards,
                  "Add a forward target: an e-mail address (a \"|program\" or \"/file\" only "
                  "with --allow-program-targets)")
      ->option_text("T")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  if (removals) {
    cmd->add_option("--no-alias", raw.del_aliases, "Remove an alias")
        ->option_text("A")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    cmd->add_option("--no-forward", raw.del_forwards, "Remove a forward target")
        ->option_text("T")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  }
  cmd->add_flag("--allow-program-targets", raw.allow_programs,
                "Accept forward targets that pipe to a program or write to a file");
}

// --quota SIZE, and the password options; their values join the changes
// in FinishChanges.
struct RowOptions {
  std::string quota;
  PasswordInput password;
};

void AddRowOptions(CLI::App* cmd, RowOptions& row, bool removals) {
  cmd->add_option("--quota", row.quota,
                  "How much mail the mailbox may hold: bytes, or with K, M, G or T; 0: its "
                  "domain's default")
      ->option_text("SIZE");
  AddPasswordOptions(cmd, row.password, removals);
}

// The command: the password is read and hashed when it runs, so that a
// refused command line never asks for one.
Command MailboxCommand(const RowOptions& row, std::function<void(Host&, const Output&, const MailboxChanges&)> run,
                       MailboxChanges changes) {
  if (!row.quota.empty()) changes.quota = QuotaBytes(row.quota);
  const PasswordInput password = row.password;
  return {Needs::kMail,
          [=](Host& h, const Output& o) {
            MailboxChanges c = changes;
            c.password_hash = password.Hash();
            run(h, o, c);
          },
          password.NotInBatch()};
}

}  // namespace

void AddMailboxCommands(CLI::App& mail, Command* out) {
  CLI::App* box = mail.add_subcommand("box", "Mailboxes");
  box->require_subcommand(1);
  auto address = std::make_shared<std::string>();
  auto domain = std::make_shared<std::string>();
  auto raw = std::make_shared<MailboxChangeOptions>();
  auto forward_only = std::make_shared<bool>(false);
  auto forward_only_word = std::make_shared<std::string>();
  auto row = std::make_shared<RowOptions>();

  CLI::App* add = box->add_subcommand(
      "add", "Add a mailbox: its virtual user table line and its aliases entry");
  add->add_option("ADDRESS", *address, "local@domain, in an existing mail domain")->required();
  add->add_flag("--forward-only", *forward_only,
                "Deliver only to the forwards, keep no local copy (needs --forward)");
  AddChangeOptions(add, *raw, false);
  AddRowOptions(add, *row, false);
  add->callback([=] {
    const Address a = MailAddress(*address);
    MailboxChanges changes = CheckMailboxChanges(*raw, a);
    if (*forward_only) {
      if (changes.add_forwards.empty())
        throw Invalid("mailbox", *address,
                      "--forward-only needs at least one --forward: without local delivery and "
                      "forwards its mail would go nowhere");
      changes.forward_only = true;
    }
    *out = MailboxCommand(*row, [a](Host& h, const Output& o, const MailboxChanges& c) {
      AddMailbox(h.MailRequest(), a, c);
      PrintChanged(h, o, a);
    }, changes);
  });

  CLI::App* list = box->add_subcommand("list", "List the mailboxes, of one mail domain or all");
  list->add_option("DOMAIN", *domain, "Only this mail domain's mailboxes");
  list->callback([=] {
    const std::string name = domain->empty() ? "" : DomainName(*domain);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              PrintList(o, ListMailboxes(h.MailRequest(), name));
            }};
  });

  CLI::App* show = box->add_subcommand("show", "Show a mailbox with its aliases and forwards");
  show->add_option("ADDRESS", *address, "The mailbox")->required();
  show->callback([=] {
    const Address a = KnownAddress(*address);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              PrintOne(o, ShowMailbox(h.MailRequest(), a));
            }};
  });

  CLI::App* suspend = box->add_subcommand("suspend", "Suspend a mailbox: mail to it is rejected");
  suspend->add_option("ADDRESS", *address, "The mailbox")->required();
  suspend->callback([=] {
    const Address a = KnownAddress(*address);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              SuspendMailbox(h.MailRequest(), a);
              PrintChanged(h, o, a);
            }};
  });

  CLI::App* resume = box->add_subcommand(
      "resume", "Resume a suspended mailbox: delivery, aliases and forwards are restored");
  resume->add_option("ADDRESS", *address, "The mailbox")->required();
  auto allow = std::make_shared<bool>(false);
  resume->add_flag("--allow-program-targets", *allow,
                   "Write forward targets that pipe to a program or write to a file back too");
  resume->callback([=] {
    const Address a = KnownAddress(*address);
    const bool programs = *allow;
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              ResumeMailbox(h.MailRequest(), a, programs);
              PrintChanged(h, o, a);
            }};
  });

  CLI::App* del = box->add_subcommand(
      "delete", "Delete a mailbox: its lines, its aliases' lines and its rows");
  del->add_option("ADDRESS", *address, "The mailbox")->required();
  auto disposal = std::make_shared<std::string>();
  AddMailDisposalOption(del, disposal.get());
  del->callback([=] {
    const Address a = KnownAddress(*address);
    const mailstore::Disposal mail = MailDisposal(*disposal);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              DeleteMailbox(h.MailRequest(), a, mail);
              o.Print({{"deleted", {{"mailbox", a.Text()}}}}, "");
            }};
  });

  CLI::App* set = box->add_subcommand(
      "set", "Change a mailbox's aliases, forwards, forward-only flag, password or quota");
  set->add_option("ADDRESS", *address, "The mailbox")->required();
  AddChangeOptions(set, *raw, true);
  AddRowOptions(set, *row, true);
  set->add_option("--forward-only", *forward_only_word,
                  "yes: deliver only to the forwards; no: keep a local copy too")
      ->check(CLI::IsMember({"yes", "no"}))
      ->option_text("yes|no");
  set->callback([=] {
    const Address a = KnownAddress(*address);
    MailboxChangeOptions options = *raw;
    if (!forward_only_word->empty()) options.forward_only = *forward_only_word == "yes";
    const MailboxChanges changes = CheckMailboxChanges(options, a);
    if (changes.Empty() && row->quota.empty() && !row->password.Given())
      throw Invalid("mailbox", *address,
                    "nothing to change: give --alias, --no-alias, --forward, --no-forward, "
                    "--forward-only, --quota or a password option");
    *out = MailboxCommand(*row, [a](Host& h, const Output& o, const MailboxChanges& c) {
      SetMailbox(h.MailRequest(), a, c);
      PrintChanged(h, o, a);
    }, changes);
  });
}

}  // namespace zelpnl
