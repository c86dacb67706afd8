// zelpnl webdomain add|list|delete: the command line of the panel's own
// domain table (users.h), which a mail domain must be listed in.
#include "commands.h"
#include "users.h"
#include "validation.h"

namespace zelpnl {

namespace {

nlohmann::ordered_json WebDomainJson(const WebDomainView& d) {
  return {{"name", d.name},
          {"unicode", d.unicode},
          {"owner", d.owner.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(d.owner)},
          {"mail", d.mail}};
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
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) {
              o.Print({{"webdomain", WebDomainJson(AddWebDomain(h.Db(), domain, user))}}, "");
            }};
  });

  CLI::App* list = web->add_subcommand("list", "List the web domains");
  list->callback([=] {
    *out = {Needs::kDatabase, [](Host& h, const Output& o) {
              nlohmann::ordered_json list = nlohmann::ordered_json::array();
              std::vector<std::vector<std::string>> rows;
              for (const WebDomainView& d : ListWebDomains(h.Db())) {
                list.push_back(WebDomainJson(d));
                rows.push_back({d.unicode, d.owner.empty() ? "-" : d.owner, YesNo(d.mail)});
              }
              o.Print({{"webdomains", list}}, Table({"DOMAIN", "OWNER", "MAIL"}, rows));
            }};
  });

  CLI::App* del = web->add_subcommand("delete", "Delete a web domain that is no mail domain");
  del->add_option("NAME", *name, "Domain name")->required();
  del->callback([=] {
    const std::string domain = DomainName(*name);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) {
              DeleteWebDomain(h.Db(), domain);
              o.Print({{"deleted", {{"webdomain", domain}}}}, "");
            }};
  });
}

}  // namespace zelpnl
