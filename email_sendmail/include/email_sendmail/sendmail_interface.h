// zelpriv_email_sendmail::SendmailInterface: the sendmail back-end.
//
// It adds to the shared sendmail-like operations what is particular to
// sendmail: the aliases entry of each mailbox (its local delivery, forwards
// and autoresponder), the virtual-user-table targets of mailboxes and of a
// domain's default action, the access-map keys of sender-list entries, and the
// capabilities sendmail lacks. Constructing it binds the four file tables to
// sendmail's rebuild commands (see after_save.h). No data of its own; thread
// rules as its base.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "email/sendmail_like.h"

namespace zelpriv_email_sendmail {

class SendmailInterface final : public email::SendmailLikeInterface {
 public:
  // Reads the "sendmail-*" path keys (throws what pnl_cf::GetPath throws).
  SendmailInterface();

  // Adds the mailbox's aliases entry "L+D" delivering to "L\@D" (no target
  // for a forward-only mailbox), then its virtual-user-table line. In a
  // suspended domain both are written suspended.
  void CreateEmail(EmailPtr email) override;
  // Reads the mailbox's forwards, aliases and forward-only flag back from
  // the files into its rows.
  void CacheAliases(EmailPtr email) override;
  // Writes the mailbox's aliases, forwards and forward-only flag into the
  // files and drops the alias lines of the local parts in removed. While the
  // mailbox or its domain is suspended the entry keeps refusing mail (the
  // forwards are written when it is resumed).
  void SetAliases(EmailPtr email, const std::list<std::string>& removed) override;
  // In service: forwards, "L\@D" unless forward-only, the responder action
  // while on. Out of service: "L@D", the address its suspended line refuses.
  void WriteAliasesEntry(EmailPtr email, DomainPtr domain, bool in_service) override;
  // Asks sendmail for its class w (the names it takes as local) once per
  // process and tells why domain is one of them: a name of this host, or a
  // line of local-host-names that is no panel domain's.
  std::string ServerNameReason(const std::string& domain) override;

  // "sendmail -bv" on the address, with the set-up's own sendmail.cf when
  // the configuration names one ("sendmail_cf"); "--" ends sendmail's
  // options, so the address is never read as one.
  AddressCheck CheckAddress(const std::string& address) override;

  bool CanBindToIp() override;  // false
  // Always throws pnl_err::Error of type "not_supported".
  void SetSSLCertForDomain(const std::string& domain, const std::string& cert,
                           const std::string& key) override;

  void CacheOne(DomainPtr domain) override;  // nothing to do for sendmail
  void SetDefAction(Cursor<email::VirtualDomains>& line, DomainPtr domain) override;
  void GetDefAction(Cursor<email::VirtualDomains>& line, DomainPtr domain) override;
  // L "+" D: the mailbox's local name, also the name of its aliases entry.
  std::string GetVirtuserTarget(EmailPtr email, DomainPtr domain) override;
  // A connecting client's address or network (pnl_net::Parse) becomes the
  // key sendmail looks it up by, in canonical spelling: "Connect:192.0.2.7",
  // "Connect:192.0.2", "Connect:IPv6:2001:db8:0:0:0:0:0:7",
  // "Connect:IPv6:2001:db8". An address or a domain stays as it is.
  std::string ToListVal(const std::string& entry) override;
  // The entry whose key this is, in its canonical form (addresses and
  // domains in lower case, IP forms as Sender shows them), when key is one
  // ListKeys gives for it, letter case aside; "" for any other key (another
  // tag, an address without its Connect: tag, a spelling sendmail never
  // matches, a Unicode name). Never throws.
  std::string FromListVal(const std::string& key) override;
  // ToListVal's key, then the one earlier versions wrote for an IPv6
  // address: "Connect:IPv6:" and its compressed spelling.
  std::vector<std::string> ListKeys(const std::string& entry) override;
};

}  // namespace zelpriv_email_sendmail
