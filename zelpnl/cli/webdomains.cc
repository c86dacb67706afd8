// zelpnl webdomain add|list|delete: the panel's own domain table, which a
// mail domain must be listed in.
#include "commands.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"
#include "zelapi/str.h"

namespace zelpnl {

namespace {

nlohmann::ordered_json WebDomainJson(pnl_db::Cache& db, const std::string& name, int64_t owner,
                             bool mail) {
  const std::string user = UserNameById(db, owner);
  return {{"name", name},
          {"unicode", str::IdnToUnicode(name)},
          {"owner", user.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(user)},
          {"mail", mail}};
}

void Add(Host& host, const Output& out, const std::string& name, const std::string& owner) {
  pnl_db::Cache& db = host.Db();
  UserRow user = RequireUser(db, owner);
  if (FindWebDomain(db, name))
    throw pnl_err::Error("exists", "web domain " + Quote(name), "already exists");
  WebDomainRow row = db.Get<zel_db::DomainTable>();
  row->New();
  row->name = name;
  row->users = user->id;
  row->Post();
  out.Print({{"webdomain", WebDomainJson(db, name, user->id.Value(), false)}}, "");
}

void List(Host& host, const Output& out) {
  pnl_db::Cache& db = host.Db();
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows;
  for (const WebDomainListRow& domain : WebDomains(db)) {
    nlohmann::ordered_json item = WebDomainJson(db, domain.name, domain.owner_id, domain.has_mail);
    list.push_back(item);
    rows.push_back({item["unicode"], item["owner"].is_null() ? "-" : item["owner"].get<std::string>(),
                    YesNo(domain.has_mail)});
  }
  out.Print({{"webdomains", list}}, Table({"DOMAIN", "OWNER", "MAIL"}, rows));
}

void Delete(Host& host, const Output& out, const std::string& name) {
  pnl_db::Cache& db = host.Db();
  WebDomainRow row = RequireWebDomain(db, name);
  if (FindMailDomain(db, name))
    throw pnl_err::Error("in_use", "web domain " + Quote(name),
                         "is a mail domain; delete the mail domain first (zelpnl mail domain "
                         "delete " + name + ")");
  row->Delete();
  out.Print({{"deleted", {{"webdomain", name}}}}, "");
}

}  // namespace

void AddWebDomainCommands(CLI::App& app, Command* out) {
  CLI::App* web = app.add_subcommand("webdomain", "The panel's web domains (the \"domain\" table)");
  web->require_subcommand(1);
  auto name = std::make_shared<std::string>();
  auto owner = std::make_shared<std::string>();

  CLI::App* add = web->add_subcommand("add", "Add a web domain owned by a panel user");
  add->add_option("NAME", *name, "Domain name (Unicode names are stored in their ASCII form)")
      ->required();
  add->add_option("--owner", *owner, "The owning panel user")->required()->option_text("USER");
  add->callback([=] {
    const std::string domain = DomainName(*name);
    const std::string user = UserName(*owner);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) { Add(h, o, domain, user); }};
  });

  CLI::App* list = web->add_subcommand("list", "List the web domains");
  list->callback([=] { *out = {Needs::kDatabase, [](Host& h, const Output& o) { List(h, o); }}; });

  CLI::App* del = web->add_subcommand("delete", "Delete a web domain that is no mail domain");
  del->add_option("NAME", *name, "Domain name")->required();
  del->callback([=] {
    const std::string domain = DomainName(*name);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) { Delete(h, o, domain); }};
  });
}

}  // namespace zelpnl
