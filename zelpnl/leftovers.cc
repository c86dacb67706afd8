#include "leftovers.h"

#include "email/file_views.h"
#include "email/tables.h"
#include "zelapi/cf.h"

namespace zelpnl {

MailboxLeftover FindMailboxLeftover(const std::string& local, const std::string& domain) {
  MailboxLeftover result;
  const std::string name = local + "+" + domain;
  Cursor<email::VirtualEmails> lines = email::VirtualUserTable::Get<email::VirtualEmails>(
      pnl_cf::GetPath("sendmail-virtusertable"), true);
  if (lines->Find(local + "@" + domain)) {
    const std::string target = lines->target.Str();
    if (target == name)
      result.found = true;
    else
      result.foreign = target;
    return result;
  }
  Cursor<email::Aliases> aliases =
      email::AliasTable::Get<email::Aliases>(pnl_cf::GetPath("sendmail-aliases"), true);
  result.found = aliases->Find(name);
  return result;
}

bool HasDomainLine(const std::string& domain) {
  Cursor<email::VirtualDomains> lines = email::VirtualUserTable::Get<email::VirtualDomains>(
      pnl_cf::GetPath("sendmail-virtusertable"), true);
  return lines->Find(domain);
}

}  // namespace zelpnl
