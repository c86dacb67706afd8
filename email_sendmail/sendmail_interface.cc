#include "email_sendmail/sendmail_interface.h"

#include <cstring>

#include "email/tables.h"
#include "email_sendmail/after_save.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"
#include "zelapi/mail/tables.h"
#include "zelapi/net.h"
#include "zelapi/test.h"

namespace zelpriv_email_sendmail {

namespace {

const char kNoUserTarget[] = "error:nouser No such user here";
const char kDisabledTarget[] = "error:nouser Account temporary disabled";
const char kDiscardAlias[] = "devnull";
const char kRedirectDomainPrefix[] = "%1@";
// Access-map tags of a connecting client's address: sendmail looks a client
// up as "Connect:192.0.2.7" and "Connect:IPv6:2001:db8:0:0:0:0:0:7", then
// cut short at the last dot or colon, one part at a time.
const char kConnectTag[] = "Connect:";
const char kIpv6Tag[] = "IPv6:";
const std::string kConnectIpv6Tag = std::string(kConnectTag) + kIpv6Tag;

char LowerChar(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string Lower(std::string text) {
  for (char& c : text) c = LowerChar(c);
  return text;
}

// sendmail folds the keys of its maps to lower case (ASCII letters only).
bool SameKey(const std::string& a, const std::string& b) { return Lower(a) == Lower(b); }

bool HasTag(const std::string& key, const char* tag) {
  const size_t n = std::strlen(tag);
  return key.size() >= n && SameKey(key.substr(0, n), tag);
}

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
  throw pnl_err::Error(pnl_err::Kind::kNotSupported, domain,
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
  pnl_net::Network net;
  if (pnl_net::Parse(entry, &net, nullptr) != pnl_net::Parsed::kOk) return entry;
  return (net.family == pnl_net::Family::kIpv6 ? kConnectIpv6Tag : kConnectTag) + net.address;
}

std::string SendmailInterface::FromListVal(const std::string& key) {
  std::string entry;
  if (HasTag(key, kConnectTag)) {
    const std::string client = key.substr(sizeof(kConnectTag) - 1);
    pnl_net::Network net;
    if (pnl_net::Parse(client, &net, nullptr) != pnl_net::Parsed::kOk) return "";
    // Only an IPv6 client carries the IPv6 tag, and every IPv6 client does.
    if ((net.family == pnl_net::Family::kIpv6) != HasTag(client, kIpv6Tag)) return "";
    entry = net.Text();
  } else {
    // A tag of another kind (From:, To:, Spam:...) is none the panel writes,
    // nor is an address or a network without its Connect: tag.
    if (key.find(':') != std::string::npos) return "";
    if (pnl_net::Parse(key, nullptr, nullptr) != pnl_net::Parsed::kNotAnAddress) return "";
    entry = Lower(key);
    // As the validators have it (a Unicode name would come back in its ASCII
    // form, which is another key).
    std::string checked = entry;
    const bool valid = entry.find('@') != std::string::npos ? test::Email(checked)
                                                             : test::Domain(checked);
    if (!valid || checked != entry) return "";
  }
  // The key must be the one the panel writes for entry, or one an earlier
  // version wrote: any other spelling of it is not the panel's.
  for (const std::string& written : ListKeys(entry))
    if (SameKey(written, key)) return entry;
  return "";
}

std::vector<std::string> SendmailInterface::ListKeys(const std::string& entry) {
  std::vector<std::string> keys = {ToListVal(entry)};
  // Earlier versions wrote an IPv6 address in its compressed spelling, which
  // sendmail never matches: it looks a client up uncompressed.
  pnl_net::Network net;
  if (pnl_net::Parse(entry, &net, nullptr) == pnl_net::Parsed::kOk &&
      net.family == pnl_net::Family::kIpv6 && !net.prefix) {
    const std::string old = kConnectIpv6Tag + pnl_net::CompressedIpv6(net.address);
    if (!SameKey(old, keys[0])) keys.push_back(old);
  }
  return keys;
}

}  // namespace zelpriv_email_sendmail
