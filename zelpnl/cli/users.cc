// zelpnl user add|list|delete: the panel's users, owners of web and mail
// domains.
#include "commands.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

void Add(Host& host, const Output& out, const std::string& name) {
  pnl_db::Cache& db = host.Db();
  if (FindUser(db, name)) throw pnl_err::Error("exists", "user " + Quote(name), "already exists");
  UserRow row = db.Get<zel_db::UserTable>();
  row->New();
  row->name = name;
  row->Post();
  out.Print({{"user", {{"name", name}}}}, "");
}

void List(Host& host, const Output& out) {
  pnl_db::Cache& db = host.Db();
  nlohmann::ordered_json users = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  for (const UserListRow& user : Users(db)) {
    const auto web = WebDomainsOfUser(db, user.id);
    const auto mail = MailDomainsOfUser(db, user.id);
    users.push_back({{"name", user.name}, {"web_domains", web}, {"mail_domains", mail}});
    rows.push_back({user.name, std::to_string(web.size()), std::to_string(mail.size())});
  }
  out.Print({{"users", users}}, Table({"USER", "WEB DOMAINS", "MAIL DOMAINS"}, rows));
}

void Delete(Host& host, const Output& out, const std::string& name) {
  pnl_db::Cache& db = host.Db();
  UserRow row = RequireUser(db, name);
  const auto web = WebDomainsOfUser(db, row->id.Value());
  const auto mail = MailDomainsOfUser(db, row->id.Value());
  if (!web.empty() || !mail.empty()) {
    std::string owned;
    if (!web.empty()) owned += "web domains " + JoinOrDash(web);
    if (!mail.empty()) owned += std::string(owned.empty() ? "" : " and ") + "mail domains " +
                                JoinOrDash(mail);
    throw pnl_err::Error("in_use", "user " + Quote(name),
                         "owns " + owned + "; delete them first");
  }
  row->Delete();
  out.Print({{"deleted", {{"user", name}}}}, "");
}

}  // namespace

void AddUserCommands(CLI::App& app, Command* out) {
  CLI::App* user = app.add_subcommand("user", "Panel users (owners of domains)");
  user->require_subcommand(1);
  auto name = std::make_shared<std::string>();

  CLI::App* add = user->add_subcommand("add", "Add a panel user");
  add->add_option("NAME", *name, "User name: lower-case letters, digits, \".\", \"_\", \"-\"")
      ->required();
  add->callback([=] {
    const std::string user_name = UserName(*name);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) { Add(h, o, user_name); }};
  });

  CLI::App* list = user->add_subcommand("list", "List the panel users and what they own");
  list->callback([=] { *out = {Needs::kDatabase, [](Host& h, const Output& o) { List(h, o); }}; });

  CLI::App* del = user->add_subcommand(
      "delete", "Delete a panel user who owns no web or mail domain");
  del->add_option("NAME", *name, "User name")->required();
  del->callback([=] {
    const std::string user_name = UserName(*name);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) { Delete(h, o, user_name); }};
  });
}

}  // namespace zelpnl
