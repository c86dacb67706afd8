// email::MtaInterface: the one interface through which the panel's mail
// subsystem drives a mail transfer agent.
//
// A back-end implements the slots below; the panel calls them while it handles
// its requests, with host rows positioned on the object concerned. Failures
// are exceptions only: email::Fail for a failed external command,
// pnl_err::Error for everything else. The operations catch nothing, so what a
// back-end posted before a failure stays posted. A back-end is registered with
// email::RegisterMta and then owned by the host for the life of the process.
//
// The slot order is part of the interface; new slots are only ever appended.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "email/access_entry.h"

namespace zel_db {
class EmailTable;
class EmailDomainTable;
class EmailResponderTable;
}  // namespace zel_db

namespace email {

class MtaInterface {
 public:
  using EmailPtr = std::shared_ptr<zel_db::EmailTable>&;
  using DomainPtr = std::shared_ptr<zel_db::EmailDomainTable>&;
  using ResponderPtr = std::shared_ptr<zel_db::EmailResponderTable>&;

  MtaInterface() = default;
  virtual ~MtaInterface();
  MtaInterface(const MtaInterface&) = delete;
  MtaInterface& operator=(const MtaInterface&) = delete;

  // Mailboxes.
  virtual void CacheEmails() = 0;            // the mailbox table brought into line with the files
  virtual void CreateEmail(EmailPtr email) = 0;
  virtual void DeleteEmail(EmailPtr email) = 0;
  virtual void SuspendEmail(EmailPtr email) = 0;
  virtual void ResumeEmail(EmailPtr email) = 0;
  virtual void UpdateEmail(EmailPtr email) = 0;

  // Mail domains.
  virtual void CacheDomains() = 0;
  virtual void CreateDomain(DomainPtr domain) = 0;
  virtual void DeleteDomain(DomainPtr domain) = 0;
  virtual void SuspendDomain(DomainPtr domain) = 0;
  virtual void ResumeDomain(DomainPtr domain) = 0;
  // Re-applies the row's state: ResumeDomain when enabled, else SuspendDomain.
  virtual void UpdateDomain(DomainPtr domain) = 0;

  // A mailbox's aliases and forwards.
  virtual void CacheAliases(EmailPtr email) = 0;
  // removed: local parts of aliases the mailbox no longer has.
  virtual void SetAliases(EmailPtr email, const std::list<std::string>& removed) = 0;

  // Autoresponder.
  virtual void GetResponder(ResponderPtr responder) = 0;
  virtual void SetResponder(ResponderPtr responder) = 0;

  // Server-wide sender lists; a sender as the panel shows it.
  virtual void AddToWhitelist(const std::string& sender) = 0;
  virtual void DeleteFromWhitelist(const std::string& sender) = 0;
  virtual void CacheWhitelist() = 0;
  virtual void AddToBlacklist(const std::string& sender) = 0;
  virtual void DeleteFromBlacklist(const std::string& sender) = 0;
  virtual void CacheBlacklist() = 0;

  // Optional capabilities, with their defaults.
  virtual bool CanBindToIp();                                   // true
  virtual bool CanDNSBL();                                      // false
  virtual void AddDNSBL(const std::string& list);               // does nothing
  virtual void DeleteDNSBL(const std::string& list);            // does nothing
  virtual void GetDNSBLs(std::vector<std::string>& out);        // leaves out untouched
  virtual void SetSSLCertForDomain(const std::string& domain, const std::string& cert,
                                   const std::string& key) = 0;

  // Why the MTA takes domain as one of the server's own local names already
  // (the host's names and addresses, "localhost", names an administrator
  // listed by hand), so that it cannot be a customer's mail domain; "" when
  // it does not. Default: "". Throws when the MTA cannot be asked.
  virtual std::string ServerNameReason(const std::string& domain);

  // Removals held back until the files' other changes are saved. When the
  // files are saved in one go (the engine defers saves), a delete cannot
  // remove what other lines point at in the same save: a reader would see
  // the pointer without its target for a moment, and for good when the save
  // stops half-way. Such removals wait here; after a successful save the
  // host posts them (PostHeldRemovals, true when it posted any) and saves
  // again; after a failed one it drops them (DropHeldRemovals). Defaults:
  // nothing is ever held.
  virtual bool PostHeldRemovals();
  virtual void DropHeldRemovals() noexcept;

  // What a request needs of the MTA around its file changes. The host
  // defers the saves of a request (or a batch): BeginSaves comes before its
  // first change; after the saves, LocalNamesChanged tells whether the
  // MTA's own local names changed, which a running MTA reads only when it
  // starts: RestartLater queues its restart for after the request,
  // RestartNow runs it at once (a failure is a warning, pnl_warn).
  // RebuildStaleMaps, at the start of each mail request, rebuilds the maps
  // older than their files (a request that ended between a save and its
  // rebuild, or a hand edit); a failure is a warning and the request goes
  // on. Defaults: nothing to watch, restart or rebuild.
  virtual void BeginSaves();
  virtual bool LocalNamesChanged() const;
  virtual void RestartLater();
  virtual void RestartNow();
  virtual void RebuildStaleMaps() noexcept;

  // What the files hold of mailbox L@D before it is added: lines an earlier
  // add left when its request ended before the database took the row.
  struct MailboxLeftover {
    bool found = false;   // an earlier add's lines are there: replace them
    std::string foreign;  // else: the target of a line the panel did not write
  };
  virtual MailboxLeftover FindMailboxLeftover(const std::string& local,
                                              const std::string& domain);
  // Whether the files hold the domain's catch-all already (an earlier add's).
  virtual bool HasDomainLeftover(const std::string& domain);
  // The access map's entry under the first of keys it holds (letter case
  // aside), or under any key a sender-list entry may stand under; nullopt
  // when there is none. Defaults: the MTA keeps no access map (nullopt).
  virtual std::optional<AccessEntry> FindAccessEntry(const std::vector<std::string>& keys);
  virtual std::optional<AccessEntry> FindSenderEntry(const std::string& sender);

  // Asks the MTA itself how it would deliver mail to address now (a
  // checked address, or a local user name). The verdict is the MTA's own,
  // with the command asked and its answer as it printed it. Default: throws
  // pnl_err::Error(kNotSupported).
  struct AddressCheck {
    std::string command;  // what was run
    int status = 0;       // its exit status
    std::string answer;   // its output
    bool deliverable = false;
  };
  virtual AddressCheck CheckAddress(const std::string& address);
};

}  // namespace email
