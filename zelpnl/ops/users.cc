#include "users.h"

#include "panel_rows.h"
#include "validation.h"
#include "zelapi/err.h"
#include "zelapi/str.h"

namespace zelpnl {

void AddUser(pnl_db::Cache& db, const std::string& name) {
  if (FindUser(db, name)) throw pnl_err::Error(pnl_err::Kind::kExists, "user " + Quote(name), "already exists");
  UserRow row = db.Get<zel_db::UserTable>();
  row->New();
  row->name = name;
  row->Post();
}

std::vector<UserView> ListUsers(pnl_db::Cache& db) {
  std::vector<UserView> users;
  for (const UserListRow& user : Users(db))
    users.push_back({user.name, WebDomainsOfUser(db, user.id), MailDomainsOfUser(db, user.id)});
  return users;
}

void DeleteUser(pnl_db::Cache& db, const std::string& name) {
  UserRow row = RequireUser(db, name);
  const auto web = WebDomainsOfUser(db, row->id.Value());
  const auto mail = MailDomainsOfUser(db, row->id.Value());
  if (!web.empty() || !mail.empty()) {
    std::string owned;
    if (!web.empty()) owned += "web domains " + str::Join(web, ", ");
    if (!mail.empty()) owned += std::string(owned.empty() ? "" : " and ") + "mail domains " +
                                str::Join(mail, ", ");
    throw pnl_err::Error(pnl_err::Kind::kInUse, "user " + Quote(name),
                         "owns " + owned + "; delete them first");
  }
  row->Delete();
}

namespace {

WebDomainView WebDomainOf(pnl_db::Cache& db, const std::string& name, int64_t owner, bool mail) {
  return {name, str::IdnToUnicode(name), UserNameById(db, owner), mail};
}

}  // namespace

WebDomainView AddWebDomain(pnl_db::Cache& db, const std::string& name, const std::string& owner) {
  UserRow user = RequireUser(db, owner);
  if (FindWebDomain(db, name))
    throw pnl_err::Error(pnl_err::Kind::kExists, "web domain " + Quote(name), "already exists");
  WebDomainRow row = db.Get<zel_db::DomainTable>();
  row->New();
  row->name = name;
  row->users = user->id;
  row->Post();
  return WebDomainOf(db, name, user->id.Value(), false);
}

std::vector<WebDomainView> ListWebDomains(pnl_db::Cache& db) {
  std::vector<WebDomainView> domains;
  for (const WebDomainListRow& domain : WebDomains(db))
    domains.push_back(WebDomainOf(db, domain.name, domain.owner_id, domain.has_mail));
  return domains;
}

void DeleteWebDomain(pnl_db::Cache& db, const std::string& name) {
  WebDomainRow row = RequireWebDomain(db, name);
  if (FindMailDomain(db, name))
    throw pnl_err::Error(pnl_err::Kind::kInUse, "web domain " + Quote(name),
                         "is a mail domain; delete the mail domain first (zelpnl mail domain "
                         "delete " + name + ")");
  row->Delete();
}

}  // namespace zelpnl
