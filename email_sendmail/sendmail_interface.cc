#include "email_sendmail/sendmail_interface.h"

#include "email/tables.h"
#include "email_sendmail/after_save.h"
#include "zelapi/db.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"
#include "zelapi/test.h"

namespace zelpriv_email_sendmail {

namespace {

const char kNoUserTarget[] = "error:nouser No such user here";
const char kDisabledTarget[] = "error:nouser Account temporary disabled";
const char kDiscardAlias[] = "devnull";
const char kRedirectDomainPrefix[] = "%1@";

}  // namespace

SendmailInterface::SendmailInterface()
    : email::SendmailLikeInterface("sendmail", kNoUserTarget, kDisabledTarget) {
  InstallAfterSaveSteps();
}

void SendmailInterface::CreateEmail(EmailPtr email) {
  std::shared_ptr<zel_db::EmailDomainTable> domains =
      zel_db::GetCache()->Get<zel_db::EmailDomainTable>();
  domains->Assert(email->domain.Str());

  // The aliases entry before the line that points at it: when the entry
  // cannot be built, the address never leads to a local name without one.
  WriteAliasesEntry(email, domains, InService(email, domains));
  email::SendmailLikeInterface::CreateEmail(email);
}

bool SendmailInterface::CanBindToIp() { return false; }

void SendmailInterface::SetSSLCertForDomain(const std::string& domain, const std::string&,
                                            const std::string&) {
  throw pnl_err::Error("not_supported", domain,
                       "sendmail cannot bind a certificate to a single mail domain");
}

void SendmailInterface::CacheOne(DomainPtr) {}

void SendmailInterface::SetDefAction(Cursor<email::VirtualDomains>& line, DomainPtr domain) {
  const std::string action = domain->def_action.Str();
  if (action == "error")
    line->target.Set(kNoUserTarget);
  else if (action == "ignore")
    line->target.Set(kDiscardAlias);
  else if (action == "redir_email")
    line->target.Set(domain->redirect.Str());
  else if (action == "redir_domain")
    line->target.Set(kRedirectDomainPrefix + domain->redirect.Str());
  // Any other action writes nothing: the line keeps its target.
}

void SendmailInterface::GetDefAction(Cursor<email::VirtualDomains>& line, DomainPtr domain) {
  const std::string target = line->target.Str();
  if (target == nouser_target()) {
    domain->def_action = std::string("error");
    return;
  }
  if (target == kDiscardAlias) {
    domain->def_action = std::string("ignore");
    return;
  }
  if (target.find(kRedirectDomainPrefix) != std::string::npos) {
    // The prefix is always cut from the front, wherever it was found.
    const std::string redirect = target.substr(3);
    if (test::Const<&test::Domain>(redirect)) {
      domain->def_action = std::string("redir_domain");
      domain->redirect = redirect;
      return;
    }
  }
  if (test::Const<&test::Email>(target)) {
    domain->def_action = std::string("redir_email");
    domain->redirect = target;
  }
}

std::string SendmailInterface::GetVirtuserTarget(EmailPtr email, DomainPtr domain) {
  return email->name.Str() + "+" + domain->name.Str();
}

std::string SendmailInterface::ToListVal(const std::string& entry) {
  if (!test::Const<&test::Ip>(entry)) return entry;
  std::string key = "Connect:";
  if (test::Const<&test::Ip6>(entry)) key += "IPv6:";
  return key + entry;
}

std::string SendmailInterface::FromListVal(const std::string& key) {
  const size_t n = key.size();
  if (n <= 8) return key;
  // The first letter is not compared: "Connect:" and "connect:" alike.
  if (key.compare(1, 7, "onnect:") != 0) return key;
  if (n > 13 && key.compare(8, 5, "IPv6:") == 0) return key.substr(13);
  return key.substr(8);
}

}  // namespace zelpriv_email_sendmail
