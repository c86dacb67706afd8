// zelpnl users and web domains: the panel's users, owners of web and mail
// domains, and its web domains, which a mail domain must be one of. They
// live in the panel database alone: no mail file, no back-end. Names are
// canonical (validation.h); refusals throw pnl_err::Error.
#pragma once

#include <string>
#include <vector>

namespace pnl_db {
class Cache;
}

namespace zelpnl {

struct UserView {
  std::string name;
  std::vector<std::string> web_domains;   // by name
  std::vector<std::string> mail_domains;  // by name
};

void AddUser(pnl_db::Cache& db, const std::string& name);
std::vector<UserView> ListUsers(pnl_db::Cache& db);  // by name
// Refused while the user owns a web or a mail domain.
void DeleteUser(pnl_db::Cache& db, const std::string& name);

struct WebDomainView {
  std::string name;     // ASCII
  std::string unicode;
  std::string owner;    // "" for none
  bool mail = false;    // a mail domain of the same name exists
};

WebDomainView AddWebDomain(pnl_db::Cache& db, const std::string& name, const std::string& owner);
std::vector<WebDomainView> ListWebDomains(pnl_db::Cache& db);  // by name
// Refused while it is a mail domain.
void DeleteWebDomain(pnl_db::Cache& db, const std::string& name);

}  // namespace zelpnl
