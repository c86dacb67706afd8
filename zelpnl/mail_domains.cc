// zelpnl mail domain add|list|show|suspend|resume|update|delete|set.
//
// A new row is posted, then the back-end called; when the back-end fails the
// row is deleted again. A state change (suspend, resume, set) goes to the
// files first and is posted only when they took it. A deletion removes the
// files' lines (the domain's mailboxes first) and then the rows. The
// back-end's calls go through Host::ChangeFiles, whose undo steps are those
// rules (in a batch they run at its end, when the files fail there).
#include "access_entries.h"
#include "commands.h"
#include "email/mta_interface.h"
#include "leftovers.h"
#include "panel_rows.h"
#include "row_checks.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

const std::vector<std::string> kActions = {"error", "ignore", "redir_email", "redir_domain"};

std::string ActionText(const nlohmann::ordered_json& d) {
  const std::string action = d["default_action"];
  const std::string redirect = d["redirect"];
  return redirect.empty() ? action : action + " " + redirect;
}

std::string OwnerText(const nlohmann::ordered_json& d) {
  return d["owner"].is_null() ? "-" : d["owner"].get<std::string>();
}

void Add(Host& host, const Output& out, const std::string& name, const std::string& owner,
         const std::string& action, const std::string& redirect) {
  pnl_db::Cache& db = host.Db();
  WebDomainRow web = FindWebDomain(db, name);
  if (!web)
    throw pnl_err::Error("unknown", "web domain " + Quote(name),
                         "does not exist; a mail domain must be a web domain of the panel first "
                         "(zelpnl webdomain add " + name + " --owner USER)");
  if (FindMailDomain(db, name))
    throw pnl_err::Error("exists", "mail domain " + Quote(name), "already exists");
  // A mail domain belongs to whoever owns its web domain.
  const int64_t owner_id = web->users.Value();
  if (!owner.empty() && RequireUser(db, owner)->id.Value() != owner_id) {
    const std::string web_owner = UserNameById(db, owner_id);
    throw pnl_err::Error("conflict", "mail domain " + Quote(name),
                         "belongs to the owner of its web domain (" +
                             (web_owner.empty() ? std::string("the web domain has none")
                                                : web_owner) +
                             "), not to " + owner);
  }
  // A name sendmail takes as the server's own would hand the domain's mail
  // to the system's users.
  const std::string taken = host.Mta().ServerNameReason(name);
  if (!taken.empty())
    throw pnl_err::Error("conflict", "mail domain " + Quote(name),
                         taken + "; it cannot be a mail domain of the panel");
  RefuseAccessEntryOfNewDomain(host, name);

  MailDomainRow row = db.Get<zel_db::EmailDomainTable>();
  row->New();
  row->name = name;
  row->enabled = true;
  row->def_action = action;
  row->redirect = redirect;
  if (owner_id) row->users = owner_id;
  row->Post();
  const int64_t id = row->id.Value();
  // A catch-all line for a domain the panel does not know: left by an add
  // that ended before its row was kept, or made by hand. The domain's lines
  // are replaced, so the key is written once.
  const bool leftover = HasDomainLine(name);
  if (leftover)
    MailLog().Info("mail domain " + name + ": replacing its lines in the files");
  host.ChangeFiles(
      [&] {
        if (leftover) host.Mta().DeleteDomain(row);
        host.Mta().CreateDomain(row);
      },
      [&host, id] { DeleteRowById(host.Db(), "email_domain", id); });
  if (!out.json()) return;
  row = RequireMailDomain(db, name);
  out.Print({{"domain", MailDomainJson(db, row)}}, "");
}

void List(Host& host, const Output& out) {
  pnl_db::Cache& db = host.Db();
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> names;
  for (pnl_db::Query q = db.Query("SELECT name FROM email_domain ORDER BY name"); !q.Eof();
       q.Next())
    names.push_back(q.Str());
  for (const std::string& name : names) {
    MailDomainRow d = RequireMailDomain(db, name);
    nlohmann::ordered_json item = MailDomainJson(db, d);
    rows.push_back({item["unicode"], OwnerText(item), item["enabled"] ? "active" : "suspended",
                    ActionText(item), std::to_string(item["mailboxes"].get<int64_t>())});
    list.push_back(std::move(item));
  }
  out.Print({{"domains", list}},
            Table({"DOMAIN", "OWNER", "STATE", "DEFAULT ACTION", "MAILBOXES"}, rows));
}

void Show(Host& host, const Output& out, const std::string& name) {
  pnl_db::Cache& db = host.Db();
  MailDomainRow row = RequireMailDomain(db, name);
  nlohmann::ordered_json item = MailDomainJson(db, row);
  std::vector<std::string> boxes;
  for (pnl_db::Query q = db.Query("SELECT name FROM email WHERE domain = ? ORDER BY name",
                                  {static_cast<long long>(row->id.Value())});
       !q.Eof(); q.Next())
    boxes.push_back(q.Str() + "@" + item["unicode"].get<std::string>());
  item["mailbox_list"] = boxes;
  std::vector<std::pair<std::string, std::string>> fields = {
      {"domain", item["unicode"]},
      {"ascii", item["name"]},
      {"owner", OwnerText(item)},
      {"state", item["enabled"] ? "active" : "suspended"},
      {"default action", ActionText(item)},
      {"mailboxes", JoinOrDash(boxes)},
  };
  out.Print({{"domain", item}}, Fields(fields));
}

enum class Change { kSuspend, kResume, kUpdate };

void SetState(Host& host, const Output& out, const std::string& name, Change change,
              bool allow_programs) {
  pnl_db::Cache& db = host.Db();
  MailDomainRow row = RequireMailDomain(db, name);
  const int64_t id = row->id.Value();
  const bool was = row->enabled.Value();
  auto restore = [&host, id, was] { SetEnabledById(host.Db(), "email_domain", id, was); };
  // A suspension writes no forwards; a resume or an update writes every
  // mailbox's back.
  const bool programs = change == Change::kSuspend || allow_programs;
  // A suspension writes the domain's access entry: never over one the panel
  // did not write.
  if (change == Change::kSuspend || (change == Change::kUpdate && !was))
    RefuseForeignAccessEntry(host, name, "mail domain " + Quote(name));
  switch (change) {
    case Change::kSuspend:
      host.ChangeFiles(
          [&] {
            CheckDomainRows(db, id, programs);
            host.Mta().SuspendDomain(row);
          },
          restore);
      row->enabled = false;
      break;
    case Change::kResume:
      host.ChangeFiles(
          [&] {
            CheckDomainRows(db, id, programs);
            host.Mta().ResumeDomain(row);
          },
          restore);
      row->enabled = true;
      break;
    case Change::kUpdate:
      host.ChangeFiles([&] {
        CheckDomainRows(db, id, programs);
        host.Mta().UpdateDomain(row);
      });
      break;
  }
  row->Post();
  if (out.json()) out.Print({{"domain", MailDomainJson(db, row)}}, "");
}

void Set(Host& host, const Output& out, const std::string& name, const std::string& action,
         const std::string& redirect, bool allow_programs) {
  pnl_db::Cache& db = host.Db();
  MailDomainRow row = RequireMailDomain(db, name);
  const int64_t id = row->id.Value();
  const std::string old_action = row->def_action.Value();
  const std::string old_redirect = row->redirect.Value();
  if (!row->enabled.Value()) RefuseForeignAccessEntry(host, name, "mail domain " + Quote(name));
  row->def_action = action;
  row->redirect = redirect;
  // The files take the new action from the row in memory; it is stored once
  // they have it (a suspended domain keeps its suspension and gets the action
  // when it is resumed).
  try {
    host.ChangeFiles(
        [&] {
          CheckDomainRows(db, id, allow_programs);
          host.Mta().UpdateDomain(row);
        },
        [&host, id, old_action, old_redirect] {
                       host.Db().Query(
                           "UPDATE email_domain SET def_action = ?, redirect = ? WHERE id = ?",
                           {old_action, old_redirect, static_cast<long long>(id)});
                     });
  } catch (...) {
    row->Reset();
    throw;
  }
  row->Post();
  if (out.json()) out.Print({{"domain", MailDomainJson(db, row)}}, "");
}

void Delete(Host& host, const Output& out, const std::string& name) {
  pnl_db::Cache& db = host.Db();
  MailDomainRow row = RequireMailDomain(db, name);
  std::vector<std::string> locals;
  for (pnl_db::Query q = db.Query("SELECT name FROM email WHERE domain = ? ORDER BY id",
                                  {static_cast<long long>(row->id.Value())});
       !q.Eof(); q.Next())
    locals.push_back(q.Str());
  std::vector<std::string> deleted;
  // Each mailbox's lines go, then its rows; then the domain's. The files are
  // saved once, at the end, with all of it gone; when that fails the rows
  // stay deleted (the files' text lost the lines too).
  host.ChangeFiles([&] {
    for (const std::string& local : locals) {
      const Address address{local, name};
      MailboxRow mailbox = RequireMailbox(db, address);
      host.Mta().DeleteEmail(mailbox);
      mailbox->Delete();
      deleted.push_back(address.Text());
    }
    host.Mta().DeleteDomain(row);
    row->Delete();
  });
  out.Print({{"deleted", {{"domain", name}, {"mailboxes", deleted}}}}, "");
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
          ->check(CLI::IsMember(kActions))
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
  add->callback([=] {
    const std::string domain_name = DomainName(*name);
    const std::string user = owner->empty() ? "" : UserName(*owner);
    const std::string redirect = Redirect(action->action, action->redirect, domain_name);
    const std::string act = action->action;
    *out = {Needs::kMail,
            [=](Host& h, const Output& o) { Add(h, o, domain_name, user, act, redirect); }};
  });

  CLI::App* list = domain->add_subcommand("list", "List the mail domains");
  list->callback([=] { *out = {Needs::kMail, [](Host& h, const Output& o) { List(h, o); }}; });

  CLI::App* show = domain->add_subcommand("show", "Show one mail domain and its mailboxes");
  show->add_option("NAME", *name, "Mail domain")->required();
  show->callback([=] {
    const std::string domain_name = DomainName(*name);
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Show(h, o, domain_name); }};
  });

  struct StateCommand {
    const char* verb;
    const char* help;
    Change change;
  };
  const StateCommand states[] = {
      {"suspend",
       "Suspend a mail domain: its catch-all line rejects mail and the access map refuses it",
       Change::kSuspend},
      {"resume", "Resume a suspended mail domain: its default action and access are restored",
       Change::kResume},
      {"update",
       "Write the mail domain's state (active or suspended, default action) to the files again",
       Change::kUpdate},
  };
  for (const StateCommand& state : states) {
    CLI::App* cmd = domain->add_subcommand(state.verb, state.help);
    cmd->add_option("NAME", *name, "Mail domain")->required();
    auto allow = std::make_shared<bool>(false);
    if (state.change != Change::kSuspend) AddAllowPrograms(cmd, *allow);
    const Change change = state.change;
    cmd->callback([=] {
      const std::string domain_name = DomainName(*name);
      const bool programs = *allow;
      *out = {Needs::kMail,
              [=](Host& h, const Output& o) { SetState(h, o, domain_name, change, programs); }};
    });
  }

  CLI::App* del = domain->add_subcommand(
      "delete", "Delete a mail domain with all its mailboxes, from the files and then the panel");
  del->add_option("NAME", *name, "Mail domain")->required();
  del->callback([=] {
    const std::string domain_name = DomainName(*name);
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Delete(h, o, domain_name); }};
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
    *out = {Needs::kMail,
            [=](Host& h, const Output& o) { Set(h, o, domain_name, act, redirect, programs); }};
  });
}

}  // namespace zelpnl
