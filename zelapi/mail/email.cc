// email:: helpers over the mail tables: a mailbox's address, finding a
// mailbox by its address, and the aliases target of its responder.
#include "zelapi/mail/email.h"

#include <cctype>

#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/str.h"

namespace email {

namespace {

constexpr char kResponderPathKey[] = "zelpnl-responder";
constexpr char kResponderConfKey[] = "responder-conf";

// Characters that an aliases-file target in double quotes cannot carry as
// they are: the list separator, the quote itself, the escape character and
// line ends or other control characters.
bool CarriedByTarget(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return c != ',' && c != '"' && c != '\\' && u >= 0x20 && u != 0x7f;
}

[[noreturn]] void Refuse(const std::string& address, const std::string& what,
                         const std::string& text) {
  throw pnl_err::Error(pnl_err::Kind::kEmail, address,
                       "responder action: the " + what + " \"" + text +
                           "\" holds a character an aliases target cannot carry");
}

void CheckCarried(const std::string& address, const std::string& what, const std::string& text) {
  for (char c : text)
    if (!CarriedByTarget(c)) Refuse(address, what, text);
}

// text as one shell word: as it is when plain, else in single quotes. A
// single quote inside would need a backslash, which a target cannot carry.
std::string ShellWord(const std::string& address, const std::string& what,
                      const std::string& text) {
  CheckCarried(address, what, text);
  if (text.find('\'') != std::string::npos) Refuse(address, what, text);
  return str::ShellWord(text);
}

}  // namespace

std::string GetEmailName(std::shared_ptr<zel_db::EmailTable>& email) {
  if (!email || email->Eof()) throw pnl_err::Error(pnl_err::Kind::kDb, "email", "no current mailbox row");
  std::shared_ptr<zel_db::EmailDomainTable> domains =
      email->GetCache().Get<zel_db::EmailDomainTable>();
  domains->Assert(email->domain.Str());
  return email->name.Str() + "@" + domains->name.Str();
}

bool FindByEmailName(const std::string& name, std::shared_ptr<zel_db::EmailTable>& emails,
                     std::shared_ptr<zel_db::EmailDomainTable>& domains) {
  const std::string::size_type at = name.find('@');
  if (at == std::string::npos || at == 0 || at + 1 == name.size()) {
    domains->Reset();
    emails->Reset();
    return false;
  }
  if (!domains->name.Lookup(name.substr(at + 1))) {
    emails->Reset();
    return false;
  }
  return emails->Lookup({{emails->name, name.substr(0, at)}, {emails->domain, domains->id.Str()}});
}

std::string GetResponderAction(std::shared_ptr<zel_db::EmailTable>& email) {
  const std::string address = GetEmailName(email);
  const std::string program = pnl_cf::HasPath(kResponderPathKey)
                                  ? pnl_cf::GetPath(kResponderPathKey)
                                  : std::string(kDefaultResponderProgram);
  // The program setting is a command line of the administrator's: it is
  // written as it is, arguments and all.
  CheckCarried(address, "responder program", program);
  if (program.empty()) Refuse(address, "responder program", program);
  std::string action = "\"|";
  action += program;
  // The responder's own configuration, never the panel's: the program runs
  // as sendmail's default user, who may not read the panel's.
  const std::string config =
      pnl_cf::HasPath(kResponderConfKey) ? pnl_cf::GetPath(kResponderConfKey) : std::string();
  if (!config.empty()) {
    action += " --config ";
    action += ShellWord(address, "configuration file", config);
  }
  action += ' ';
  action += ShellWord(address, "address", address);
  action += '"';
  return action;
}

}  // namespace email
