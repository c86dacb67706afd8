// zelpnl mail domain add|list|show|suspend|resume|update|delete|set: the
// command line of the mail domain operations (mail_domains.h) and the
// rendering of their results, as JSON and as text.
#include "commands.h"
#include "mail_disposal.h"
#include "mail_domains.h"
#include "validation.h"

namespace zelpnl {

namespace {

// mail domain: name, unicode, owner (null when none), enabled,
// default_action, redirect, quota (bytes per mailbox, 0 for none),
// mailboxes (count).
nlohmann::ordered_json DomainJson(const MailDomainView& d) {
  return {
      {"name", d.name},
      {"unicode", d.unicode},
      {"owner", d.owner.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(d.owner)},
      {"enabled", d.enabled},
      {"default_action", d.default_action},
      {"redirect", d.redirect},
      {"quota", d.quota},
      {"mailboxes", d.mailboxes},
  };
}

std::string ActionText(const MailDomainView& d) {
  return d.redirect.empty() ? d.default_action : d.default_action + " " + d.redirect;
}

std::string OwnerText(const MailDomainView& d) { return d.owner.empty() ? "-" : d.owner; }

void PrintList(const Output& out, const std::vector<MailDomainView>& domains) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  for (const MailDomainView& d : domains) {
    rows.push_back({d.unicode, OwnerText(d), d.enabled ? "active" : "suspended", ActionText(d),
                    std::to_string(d.mailboxes)});
    list.push_back(DomainJson(d));
  }
  out.Print({{"domains", list}},
            Table({"DOMAIN", "OWNER", "STATE", "DEFAULT ACTION", "MAILBOXES"}, rows));
}

void PrintDetail(const Output& out, const MailDomainDetail& detail) {
  const MailDomainView& d = detail.domain;
  nlohmann::ordered_json item = DomainJson(d);
  item["mailbox_list"] = detail.mailboxes;
  out.Print({{"domain", item}}, Fields({
                                    {"domain", d.unicode},
                                    {"ascii", d.name},
                                    {"owner", OwnerText(d)},
                                    {"state", d.enabled ? "active" : "suspended"},
                                    {"default action", ActionText(d)},
                                    {"quota", d.quota == 0 ? std::string("none")
                                                           : QuotaText(d.quota) + " per mailbox"},
                                    {"mailboxes", JoinOrDash(detail.mailboxes)},
                                }));
}

// The values common to add and set: the action and its redirect.
struct ActionOptions {
  std::string action = "error";
  std::string redirect;
};

// Writing a domain's state writes its mailboxes' entries again, forwards
// included.
void AddAllowPrograms(CLI::App* cmd, bool& allow) {
  cmd->add_flag("--allow-program-targets", allow,
                "Write the mailboxes' forward targets that pipe to a program or write to a file "
                "back too");
}

void AddActionOptions(CLI::App* cmd, ActionOptions& options, bool required) {
  CLI::Option* action =
      cmd->add_option("--default-action", options.action,
                      "What mail to unknown local parts gets: error (rejected), ignore "
                      "(discarded), redir_email (sent to the --redirect address), redir_domain "
                      "(sent to the same local part at the --redirect domain)")
          ->check(CLI::IsMember(MailDomainActions()))
          ->option_text("ACTION");
  if (required) action->required();
  cmd->add_option("--redirect", options.redirect,
                  "The address (redir_email) or domain (redir_domain) mail is sent to")
      ->option_text("X");
}

}  // namespace

void AddMailDomainCommands(CLI::App& mail, Command* out) {
  CLI::App* domain = mail.add_subcommand("domain", "Mail domains");
  domain->require_subcommand(1);
  auto name = std::make_shared<std::string>();
  auto owner = std::make_shared<std::string>();
  auto action = std::make_shared<ActionOptions>();

  CLI::App* add = domain->add_subcommand(
      "add", "Make a web domain a mail domain: its catch-all line in the virtual user table and "
             "its local-host-names line");
  add->add_option("NAME", *name, "A web domain of the panel (see zelpnl webdomain add)")
      ->required();
  add->add_option("--owner", *owner,
                  "The owning panel user: the web domain's owner, the only one it may be")
      ->option_text("USER");
  AddActionOptions(add, *action, false);
  auto add_quota = std::make_shared<std::string>();
  add->add_option("--quota", *add_quota,
                  "The default quota of its mailboxes: bytes, or with K, M, G or T; 0: none")
      ->option_text("SIZE");
  add->callback([=] {
    const std::string domain_name = DomainName(*name);
    const std::string user = owner->empty() ? "" : UserName(*owner);
    const std::string redirect = Redirect(action->action, action->redirect, domain_name);
    const std::string act = action->action;
    const int64_t quota = add_quota->empty() ? 0 : QuotaBytes(*add_quota);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              const MailDomainView d =
                  AddMailDomain(h.MailRequest(), domain_name, user, act, redirect, quota);
              if (o.json()) o.Print({{"domain", DomainJson(d)}}, "");
            }};
  });

  CLI::App* list = domain->add_subcommand("list", "List the mail domains");
  list->callback([=] {
    *out = {Needs::kMail,
            [](Host& h, const Output& o) { PrintList(o, ListMailDomains(h.MailRequest())); }};
  });

  CLI::App* show = domain->add_subcommand("show", "Show one mail domain and its mailboxes");
  show->add_option("NAME", *name, "Mail domain")->required();
  show->callback([=] {
    const std::string domain_name = DomainName(*name);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              PrintDetail(o, ShowMailDomain(h.MailRequest(), domain_name));
            }};
  });

  using StateChange = MailDomainView (*)(const Request&, const std::string&, bool);
  struct StateCommand {
    const char* verb;
    const char* help;
    StateChange change;  // nullptr: suspend
  };
  const StateCommand states[] = {
      {"suspend",
       "Suspend a mail domain: its catch-all line rejects mail and the access map refuses it",
       nullptr},
      {"resume", "Resume a suspended mail domain: its default action and access are restored",
       &ResumeMailDomain},
      {"update",
       "Write the mail domain's state (active or suspended, default action) to the files again",
       &UpdateMailDomain},
  };
  for (const StateCommand& state : states) {
    CLI::App* cmd = domain->add_subcommand(state.verb, state.help);
    cmd->add_option("NAME", *name, "Mail domain")->required();
    auto allow = std::make_shared<bool>(false);
    if (state.change != nullptr) AddAllowPrograms(cmd, *allow);
    const StateChange change = state.change;
    cmd->callback([=] {
      const std::string domain_name = DomainName(*name);
      const bool programs = *allow;
      *out = {Needs::kMail, [=](Host& h, const Output& o) {
                const MailDomainView d =
                    change == nullptr ? SuspendMailDomain(h.MailRequest(), domain_name)
                                      : change(h.MailRequest(), domain_name, programs);
                if (o.json()) o.Print({{"domain", DomainJson(d)}}, "");
              }};
    });
  }

  CLI::App* del = domain->add_subcommand(
      "delete", "Delete a mail domain with all its mailboxes, from the files and then the panel");
  del->add_option("NAME", *name, "Mail domain")->required();
  auto disposal = std::make_shared<std::string>();
  AddMailDisposalOption(del, disposal.get());
  del->callback([=] {
    const std::string domain_name = DomainName(*name);
    const mailstore::Disposal mail = MailDisposal(*disposal);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              const std::vector<std::string> deleted =
                  DeleteMailDomain(h.MailRequest(), domain_name, mail);
              o.Print({{"deleted", {{"domain", domain_name}, {"mailboxes", deleted}}}}, "");
            }};
  });

  auto size = std::make_shared<std::string>();
  CLI::App* quota = domain->add_subcommand(
      "quota", "Set the default quota of a mail domain's mailboxes (a mailbox's own holds over it)");
  quota->add_option("NAME", *name, "Mail domain")->required();
  quota->add_option("SIZE", *size, "Bytes, or with K, M, G or T; 0: none")->required();
  quota->callback([=] {
    const std::string domain_name = DomainName(*name);
    const int64_t bytes = QuotaBytes(*size);
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              const MailDomainView d = SetMailDomainQuota(h.MailRequest(), domain_name, bytes);
              if (o.json()) o.Print({{"domain", DomainJson(d)}}, "");
            }};
  });

  CLI::App* set = domain->add_subcommand("set", "Change a mail domain's default action");
  set->add_option("NAME", *name, "Mail domain")->required();
  AddActionOptions(set, *action, true);
  auto set_allow = std::make_shared<bool>(false);
  AddAllowPrograms(set, *set_allow);
  set->callback([=] {
    const std::string domain_name = DomainName(*name);
    const std::string redirect = Redirect(action->action, action->redirect, domain_name);
    const std::string act = action->action;
    const bool programs = *set_allow;
    *out = {Needs::kMail, [=](Host& h, const Output& o) {
              const MailDomainView d =
                  SetMailDomainAction(h.MailRequest(), domain_name, act, redirect, programs);
              if (o.json()) o.Print({{"domain", DomainJson(d)}}, "");
            }};
  });
}

}  // namespace zelpnl
