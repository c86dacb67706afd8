// zelpnl mail box add|list|show|suspend|resume|delete|set.
//
// A new mailbox row is posted, then the back-end creates it in the files;
// when that fails the row is deleted again. Aliases and forwards are rows of
// their own, written to the files by SetAliases; when SetAliases fails, the
// mailbox's rows are read back from the files (CacheAliases), so the panel
// shows what the files hold. A deletion clears the files first. The
// back-end's calls go through Host::ChangeFiles, whose undo steps are those
// rules (in a batch they run at its end, when the files fail there).
#include <algorithm>
#include <list>
#include <set>
#include <tuple>

#include "access_entries.h"
#include "commands.h"
#include "email/mta_interface.h"
#include "leftovers.h"
#include "panel_rows.h"
#include "row_checks.h"
#include "validation.h"
#include "zelapi/err.h"
#include "zelapi/log.h"

namespace zelpnl {

namespace {

// The values of --alias, --forward and the like, checked and canonical.
struct Changes {
  std::vector<std::string> add_aliases;
  std::vector<std::string> del_aliases;
  std::vector<std::string> add_forwards;
  std::vector<std::string> del_forwards;
  int forward_only = -1;  // -1 unchanged, 0 no, 1 yes
  bool allow_programs = false;
};

// What the command line gave, before checking.
struct RawChanges {
  std::vector<std::string> add_aliases;
  std::vector<std::string> del_aliases;
  std::vector<std::string> add_forwards;
  std::vector<std::string> del_forwards;
  std::string forward_only;
  bool allow_programs = false;
};

void RefuseTwice(const std::vector<std::string>& values, const std::string& kind) {
  std::set<std::string> seen;
  for (const std::string& value : values)
    if (!seen.insert(value).second) throw Invalid(kind, value, "is given twice");
}

void RefuseBoth(const std::vector<std::string>& added, const std::vector<std::string>& removed,
                const std::string& kind, const std::string& option) {
  for (const std::string& value : added)
    for (const std::string& other : removed)
      if (value == other)
        throw Invalid(kind, value, "is given both to add and to remove (" + option + ")");
}

// Checks and canonicalises the options for the mailbox at address.
Changes CheckChanges(const RawChanges& raw, const Address& address) {
  Changes c;
  for (const std::string& a : raw.add_aliases) {
    c.add_aliases.push_back(AliasName(a, address.domain));
    if (c.add_aliases.back() == address.local)
      throw Invalid("alias", a, "is the mailbox's own address");
  }
  for (const std::string& a : raw.del_aliases) {
    // A name the panel would not write may still be removed as it stands.
    try {
      c.del_aliases.push_back(AliasName(a, address.domain));
    } catch (const Invalid&) {
      c.del_aliases.push_back(a);
    }
  }
  for (const std::string& f : raw.add_forwards) {
    c.add_forwards.push_back(ForwardTarget(f, raw.allow_programs));
    if (c.add_forwards.back() == address.Text())
      throw Invalid("forward target", f, "is the mailbox's own address; mail would loop");
  }
  for (const std::string& f : raw.del_forwards) {
    try {
      c.del_forwards.push_back(ForwardTarget(f, true));
    } catch (const Invalid&) {
      c.del_forwards.push_back(f);
    }
  }
  c.allow_programs = raw.allow_programs;
  if (raw.forward_only == "yes") c.forward_only = 1;
  if (raw.forward_only == "no") c.forward_only = 0;
  RefuseTwice(c.add_aliases, "alias");
  RefuseTwice(c.del_aliases, "alias");
  RefuseTwice(c.add_forwards, "forward target");
  RefuseTwice(c.del_forwards, "forward target");
  RefuseBoth(c.add_aliases, c.del_aliases, "alias", "--alias and --no-alias");
  RefuseBoth(c.add_forwards, c.del_forwards, "forward target", "--forward and --no-forward");
  return c;
}

// The mailbox that owns local part `local` as an alias in the domain, or "".
std::string AliasOwner(pnl_db::Cache& db, int64_t domain_id, const std::string& local) {
  pnl_db::Query q = db.Query(
      "SELECT e.name FROM email_alias a JOIN email e ON e.id = a.email "
      "WHERE e.domain = ? AND a.name = ? ORDER BY a.id",
      {static_cast<long long>(domain_id), local});
  return q.Eof() ? "" : q.Str();
}

bool MailboxExists(pnl_db::Cache& db, int64_t domain_id, const std::string& local) {
  return !db.Query("SELECT 1 FROM email WHERE domain = ? AND name = ?",
                   {static_cast<long long>(domain_id), local})
              .Eof();
}

// Refuses an alias whose address is taken by a mailbox or another alias.
void CheckAliasFree(pnl_db::Cache& db, const MailDomainRow& domain, const std::string& local) {
  const std::string address = local + "@" + domain->name.Value();
  if (MailboxExists(db, domain->id.Value(), local))
    throw pnl_err::Error("exists", "alias " + Quote(address), "is a mailbox");
  const std::string owner = AliasOwner(db, domain->id.Value(), local);
  if (!owner.empty())
    throw pnl_err::Error("exists", "alias " + Quote(address),
                         "is already an alias of " + owner + "@" + domain->name.Value());
}

void InsertRow(pnl_db::Cache& db, const std::string& table, int64_t mailbox,
               const std::string& name) {
  db.Query("INSERT INTO " + table + "(email, name) VALUES(?, ?)",
           {static_cast<long long>(mailbox), name});
}

// Reads a mailbox's aliases and forwards back from the files, after a
// failure (the failure told is the one that made it run).
void ReadBackAliases(Host& host, int64_t id) {
  MailboxRow mailbox = MailboxById(host.Db(), id);
  if (!mailbox) return;
  try {
    host.Mta().CacheAliases(mailbox);
  } catch (const std::exception& e) {
    MailLog().Error("reading back the aliases of mailbox " + mailbox->name.Value() +
                " after a failure: " + e.what());
  }
}

// SetAliases, after the rows it writes passed their checks; when either
// fails, the mailbox's rows are read back from the files.
void WriteAliases(Host& host, MailboxRow& mailbox, const std::list<std::string>& removed,
                  bool allow_programs) {
  const int64_t id = mailbox->id.Value();
  host.ChangeFiles(
      [&] {
        CheckMailboxRows(host.Db(), id, allow_programs);
        host.Mta().SetAliases(mailbox, removed);
      },
      [&host, id] { ReadBackAliases(host, id); });
}

void Add(Host& host, const Output& out, const Address& address, const Changes& changes) {
  pnl_db::Cache& db = host.Db();
  MailDomainRow domain = RequireMailDomain(db, address.domain);
  if (MailboxExists(db, domain->id.Value(), address.local))
    throw pnl_err::Error("exists", "mailbox " + Quote(address.Text()), "already exists");
  const std::string owner = AliasOwner(db, domain->id.Value(), address.local);
  if (!owner.empty())
    throw pnl_err::Error("exists", "mailbox " + Quote(address.Text()),
                         "is an alias of " + owner + "@" + address.domain);
  for (const std::string& alias : changes.add_aliases) CheckAliasFree(db, domain, alias);
  const MailboxLeftover leftover = FindMailboxLeftover(address.local, address.domain);
  if (!leftover.foreign.empty())
    throw pnl_err::Error("exists", "mailbox " + Quote(address.Text()),
                         "the virtual user table has a line for it already, pointing to " +
                             Quote(leftover.foreign) +
                             "; remove that line, or run \"zelpnl mail sync\" to take it over");
  if (leftover.found)
    MailLog().Info("mailbox " + address.Text() +
               ": replacing the lines an earlier add left in the files");

  MailboxRow mailbox = db.Get<zel_db::EmailTable>();
  mailbox->New();
  mailbox->name = address.local;
  mailbox->domain = domain->id;
  mailbox->enabled = true;
  // Created with local delivery: an aliases entry without any target would
  // not build. Forward-only comes with the forwards below.
  mailbox->forward_only = false;
  mailbox->Post();
  const int64_t id = mailbox->id.Value();
  host.ChangeFiles(
      [&] {
        // An earlier add's lines go first, so the key is written once.
        if (leftover.found) host.Mta().DeleteEmail(mailbox);
        host.Mta().CreateEmail(mailbox);
        if (changes.add_aliases.empty() && changes.add_forwards.empty() &&
            changes.forward_only != 1)
          return;
        for (const std::string& alias : changes.add_aliases)
          InsertRow(db, "email_alias", id, alias);
        for (const std::string& target : changes.add_forwards)
          InsertRow(db, "email_forward", id, target);
        mailbox->forward_only = changes.forward_only == 1;
        mailbox->Post();
        try {
          host.Mta().SetAliases(mailbox, {});
        } catch (...) {
          try {
            host.Mta().DeleteEmail(mailbox);
          } catch (const std::exception& e) {
            MailLog().Error("removing the half-made mailbox " + address.Text() + ": " + e.what());
          }
          throw;
        }
      },
      // Its aliases' and forwards' rows go with it.
      [&host, id] { DeleteRowById(host.Db(), "email", id); });
  if (!out.json()) return;
  mailbox = RequireMailbox(db, address);
  out.Print({{"mailbox", MailboxJson(db, mailbox)}}, "");
}

std::string ResponderState(const nlohmann::ordered_json& box) {
  if (box["responder"].is_null()) return "-";
  return box["responder"]["enabled"] ? "on" : "off";
}

std::vector<std::string> AliasAddresses(const nlohmann::ordered_json& box) {
  std::vector<std::string> out;
  const std::string domain = box["unicode"].get<std::string>().substr(
      box["unicode"].get<std::string>().rfind('@') + 1);
  for (const auto& alias : box["aliases"]) out.push_back(alias.get<std::string>() + "@" + domain);
  return out;
}

void List(Host& host, const Output& out, const std::string& domain_name) {
  pnl_db::Cache& db = host.Db();
  std::string sql =
      "SELECT e.name, d.name FROM email e JOIN email_domain d ON d.id = e.domain";
  std::vector<pnl_db::Param> params;
  if (!domain_name.empty()) {
    MailDomainRow domain = RequireMailDomain(db, domain_name);
    sql += " WHERE e.domain = ?";
    params.emplace_back(static_cast<long long>(domain->id.Value()));
  }
  sql += " ORDER BY d.name, e.name";
  std::vector<Address> addresses;
  for (pnl_db::Query q = db.Query(sql, params); !q.Eof(); q.Next())
    addresses.push_back({q.Str(0), q.Str(1)});
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  for (const Address& address : addresses) {
    MailboxRow mailbox = RequireMailbox(db, address);
    nlohmann::ordered_json box = MailboxJson(db, mailbox);
    std::vector<std::string> forwards = box["forwards"];
    rows.push_back({box["unicode"], box["enabled"] ? "active" : "suspended",
                    YesNo(box["forward_only"]), JoinOrDash(AliasAddresses(box)),
                    JoinOrDash(forwards), ResponderState(box)});
    list.push_back(std::move(box));
  }
  out.Print({{"mailboxes", list}},
            Table({"ADDRESS", "STATE", "FORWARD ONLY", "ALIASES", "FORWARDS", "RESPONDER"}, rows));
}

void Show(Host& host, const Output& out, const Address& address) {
  pnl_db::Cache& db = host.Db();
  MailboxRow mailbox = RequireMailbox(db, address);
  nlohmann::ordered_json box = MailboxJson(db, mailbox);
  std::vector<std::string> forwards = box["forwards"];
  out.Print({{"mailbox", box}},
            Fields({{"address", box["unicode"]},
                    {"state", box["enabled"] ? "active" : "suspended"},
                    {"forward only", YesNo(box["forward_only"])},
                    {"aliases", JoinOrDash(AliasAddresses(box))},
                    {"forwards", JoinOrDash(forwards)},
                    {"responder", ResponderState(box)}}));
}

enum class Change { kSuspend, kResume };

void SetState(Host& host, const Output& out, const Address& address, Change change,
              bool allow_programs) {
  pnl_db::Cache& db = host.Db();
  MailboxRow mailbox = RequireMailbox(db, address);
  const int64_t id = mailbox->id.Value();
  const bool was = mailbox->enabled.Value();
  auto restore = [&host, id, was] { SetEnabledById(host.Db(), "email", id, was); };
  if (change == Change::kSuspend) {
    // The suspension writes the mailbox's access entry: never over one the
    // panel did not write.
    RefuseForeignAccessEntry(host, address.Text(), "mailbox " + Quote(address.Text()));
    host.ChangeFiles(
        [&] {
          CheckMailboxRows(db, id, true);
          host.Mta().SuspendEmail(mailbox);
        },
        restore);
    mailbox->enabled = false;
  } else {
    // A resume writes the forwards back into the files.
    host.ChangeFiles(
        [&] {
          CheckMailboxRows(db, id, allow_programs);
          host.Mta().ResumeEmail(mailbox);
        },
        restore);
    mailbox->enabled = true;
  }
  mailbox->Post();
  if (out.json()) out.Print({{"mailbox", MailboxJson(db, mailbox)}}, "");
}

void Delete(Host& host, const Output& out, const Address& address) {
  pnl_db::Cache& db = host.Db();
  MailboxRow mailbox = RequireMailbox(db, address);
  host.ChangeFiles([&] { host.Mta().DeleteEmail(mailbox); });
  mailbox->Delete();
  out.Print({{"deleted", {{"mailbox", address.Text()}}}}, "");
}

void Set(Host& host, const Output& out, const Address& address, const Changes& changes) {
  pnl_db::Cache& db = host.Db();
  MailDomainRow domain;
  MailboxRow mailbox = RequireMailbox(db, address, &domain);
  const int64_t id = mailbox->id.Value();
  const std::vector<std::string> aliases = AliasesOf(db, id);
  const std::vector<std::string> forwards = ForwardsOf(db, id);
  auto has = [](const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
  };

  // Every refusal before the first write.
  for (const std::string& alias : changes.add_aliases) {
    if (has(aliases, alias))
      throw pnl_err::Error("exists", "alias " + Quote(alias + "@" + address.domain),
                           "is already an alias of " + address.Text());
    CheckAliasFree(db, domain, alias);
  }
  for (const std::string& alias : changes.del_aliases)
    if (!has(aliases, alias))
      throw pnl_err::Error("unknown", "alias " + Quote(alias + "@" + address.domain),
                           "is not an alias of " + address.Text());
  for (const std::string& target : changes.add_forwards)
    if (has(forwards, target))
      throw pnl_err::Error("exists", "forward target " + Quote(target),
                           "is already a forward of " + address.Text());
  for (const std::string& target : changes.del_forwards)
    if (!has(forwards, target))
      throw pnl_err::Error("unknown", "forward target " + Quote(target),
                           "is not a forward of " + address.Text());
  const bool forward_only =
      changes.forward_only == -1 ? mailbox->forward_only.Value() : changes.forward_only == 1;
  const size_t forwards_after =
      forwards.size() + changes.add_forwards.size() - changes.del_forwards.size();
  if (forward_only && forwards_after == 0)
    throw pnl_err::Error("invalid", "mailbox " + Quote(address.Text()),
                         "would be forward-only without any forward, so its mail would go "
                         "nowhere; keep a forward or set --forward-only no");

  for (const std::string& alias : changes.del_aliases)
    db.Query("DELETE FROM email_alias WHERE email = ? AND name = ?",
             {static_cast<long long>(id), alias});
  for (const std::string& target : changes.del_forwards)
    db.Query("DELETE FROM email_forward WHERE email = ? AND name = ?",
             {static_cast<long long>(id), target});
  for (const std::string& alias : changes.add_aliases) InsertRow(db, "email_alias", id, alias);
  for (const std::string& target : changes.add_forwards) InsertRow(db, "email_forward", id, target);
  if (forward_only != mailbox->forward_only.Value()) {
    mailbox->forward_only = forward_only;
    mailbox->Post();
  }
  const std::list<std::string> removed(changes.del_aliases.begin(), changes.del_aliases.end());
  WriteAliases(host, mailbox, removed, changes.allow_programs);
  if (!out.json()) return;
  mailbox = RequireMailbox(db, address);
  out.Print({{"mailbox", MailboxJson(db, mailbox)}}, "");
}

void AddChangeOptions(CLI::App* cmd, RawChanges& raw, bool removals) {
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

}  // namespace

void AddMailboxCommands(CLI::App& mail, Command* out) {
  CLI::App* box = mail.add_subcommand("box", "Mailboxes");
  box->require_subcommand(1);
  auto address = std::make_shared<std::string>();
  auto domain = std::make_shared<std::string>();
  auto raw = std::make_shared<RawChanges>();
  auto forward_only = std::make_shared<bool>(false);

  CLI::App* add = box->add_subcommand(
      "add", "Add a mailbox: its virtual user table line and its aliases entry");
  add->add_option("ADDRESS", *address, "local@domain, in an existing mail domain")->required();
  add->add_flag("--forward-only", *forward_only,
                "Deliver only to the forwards, keep no local copy (needs --forward)");
  AddChangeOptions(add, *raw, false);
  add->callback([=] {
    const Address a = MailAddress(*address);
    RawChanges checked = *raw;
    Changes changes = CheckChanges(checked, a);
    if (*forward_only) {
      if (changes.add_forwards.empty())
        throw Invalid("mailbox", *address,
                      "--forward-only needs at least one --forward: without local delivery and "
                      "forwards its mail would go nowhere");
      changes.forward_only = 1;
    }
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Add(h, o, a, changes); }};
  });

  CLI::App* list = box->add_subcommand("list", "List the mailboxes, of one mail domain or all");
  list->add_option("DOMAIN", *domain, "Only this mail domain's mailboxes");
  list->callback([=] {
    const std::string name = domain->empty() ? "" : DomainName(*domain);
    *out = {Needs::kMail, [=](Host& h, const Output& o) { List(h, o, name); }};
  });

  CLI::App* show = box->add_subcommand("show", "Show a mailbox with its aliases and forwards");
  show->add_option("ADDRESS", *address, "The mailbox")->required();
  show->callback([=] {
    const Address a = KnownAddress(*address);
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Show(h, o, a); }};
  });

  for (const auto& [verb, help, change] :
       {std::tuple<const char*, const char*, Change>{
            "suspend", "Suspend a mailbox: mail to it is rejected", Change::kSuspend},
        std::tuple<const char*, const char*, Change>{
            "resume", "Resume a suspended mailbox: delivery, aliases and forwards are restored",
            Change::kResume}}) {
    CLI::App* cmd = box->add_subcommand(verb, help);
    cmd->add_option("ADDRESS", *address, "The mailbox")->required();
    auto allow = std::make_shared<bool>(false);
    if (change == Change::kResume)
      cmd->add_flag("--allow-program-targets", *allow,
                    "Write forward targets that pipe to a program or write to a file back too");
    const Change c = change;
    cmd->callback([=] {
      const Address a = KnownAddress(*address);
      const bool programs = *allow;
      *out = {Needs::kMail, [=](Host& h, const Output& o) { SetState(h, o, a, c, programs); }};
    });
  }

  CLI::App* del = box->add_subcommand(
      "delete", "Delete a mailbox: its lines, its aliases' lines and its rows");
  del->add_option("ADDRESS", *address, "The mailbox")->required();
  del->callback([=] {
    const Address a = KnownAddress(*address);
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Delete(h, o, a); }};
  });

  CLI::App* set = box->add_subcommand(
      "set", "Change a mailbox's aliases, forwards and forward-only flag, then write them to "
             "the files");
  set->add_option("ADDRESS", *address, "The mailbox")->required();
  AddChangeOptions(set, *raw, true);
  set->add_option("--forward-only", raw->forward_only,
                  "yes: deliver only to the forwards; no: keep a local copy too")
      ->check(CLI::IsMember({"yes", "no"}))
      ->option_text("yes|no");
  set->callback([=] {
    const Address a = KnownAddress(*address);
    const Changes changes = CheckChanges(*raw, a);
    if (changes.add_aliases.empty() && changes.del_aliases.empty() &&
        changes.add_forwards.empty() && changes.del_forwards.empty() &&
        changes.forward_only == -1)
      throw Invalid("mailbox", *address,
                    "nothing to change: give --alias, --no-alias, --forward, --no-forward or "
                    "--forward-only");
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Set(h, o, a, changes); }};
  });
}

}  // namespace zelpnl
