// zelpnl user add|list|delete: the command line of the panel's users
// (users.h), owners of web and mail domains.
#include "commands.h"
#include "users.h"
#include "validation.h"

namespace zelpnl {

void AddUserCommands(CLI::App& app, Command* out) {
  CLI::App* user = app.add_subcommand("user", "Panel users (owners of domains)");
  user->require_subcommand(1);
  auto name = std::make_shared<std::string>();

  CLI::App* add = user->add_subcommand("add", "Add a panel user");
  add->add_option("NAME", *name, "User name: lower-case letters, digits, \".\", \"_\", \"-\"")
      ->required();
  add->callback([=] {
    const std::string user_name = UserName(*name);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) {
              AddUser(h.Db(), user_name);
              o.Print({{"user", {{"name", user_name}}}}, "");
            }};
  });

  CLI::App* list = user->add_subcommand("list", "List the panel users and what they own");
  list->callback([=] {
    *out = {Needs::kDatabase, [](Host& h, const Output& o) {
              nlohmann::ordered_json users = nlohmann::ordered_json::array();
              std::vector<std::vector<std::string>> rows;
              for (const UserView& user : ListUsers(h.Db())) {
                users.push_back({{"name", user.name},
                                 {"web_domains", user.web_domains},
                                 {"mail_domains", user.mail_domains}});
                rows.push_back({user.name, std::to_string(user.web_domains.size()),
                                std::to_string(user.mail_domains.size())});
              }
              o.Print({{"users", users}}, Table({"USER", "WEB DOMAINS", "MAIL DOMAINS"}, rows));
            }};
  });

  CLI::App* del = user->add_subcommand(
      "delete", "Delete a panel user who owns no web or mail domain");
  del->add_option("NAME", *name, "User name")->required();
  del->callback([=] {
    const std::string user_name = UserName(*name);
    *out = {Needs::kDatabase, [=](Host& h, const Output& o) {
              DeleteUser(h.Db(), user_name);
              o.Print({{"deleted", {{"user", user_name}}}}, "");
            }};
  });
}

}  // namespace zelpnl
