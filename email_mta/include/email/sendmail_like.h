// email::SendmailLikeInterface: the operations that every MTA of the sendmail
// family shares, on four files: local host names, the virtual user table, the
// aliases file and the access map.
//
// The back-end keeps six strings fixed at construction (the four file paths,
// read once from the panel configuration, and the two reject targets) and,
// while the engine defers saves, the removals a delete holds back until the
// save of the lines that point at them (under a lock of its own). Every
// operation opens the files it needs through cursors of the configuration
// engine and releases them before it returns, so the slots may be called
// from any thread; the engine serialises file access.
//
// Suspension: a suspended mailbox, and every mailbox of a suspended domain,
// has its virtual-user-table line point at the account-disabled target and
// its aliases entry refuse mail too (WriteAliasesEntry), so that no address
// reaches it, its local name at the server's own names included. A mailbox
// keeps its own state in its row: resuming the domain gives each mailbox
// back the state its row names.
// What is particular to one MTA (access keys, virtual-user-table targets, the
// default action of a domain, the aliases entry of a mailbox) is left to the
// six slots a concrete back-end adds.
#pragma once

#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "email/file_views.h"
#include "email/mta_interface.h"
#include "zelapi/file.h"

namespace email {

class SendmailLikeInterface : public MtaInterface {
 public:
  // mta prefixes the path keys ("<mta>-virtusertable", "<mta>-localhostnames",
  // "<mta>-accessdb", "<mta>-aliases"), read now with pnl_cf::GetPath; throws
  // what GetPath throws. The two targets are the virtual-user-table texts that
  // reject mail for an unknown user and for a suspended account.
  SendmailLikeInterface(const std::string& mta, const std::string& nouser_target,
                        const std::string& disabled_target);
  ~SendmailLikeInterface() override;

  // Mailboxes.
  void CacheEmails() override;
  void CreateEmail(EmailPtr email) override;
  void DeleteEmail(EmailPtr email) override;
  void SuspendEmail(EmailPtr email) override;
  void ResumeEmail(EmailPtr email) override;
  void UpdateEmail(EmailPtr email) override;

  // Mail domains.
  void CacheDomains() override;
  void CreateDomain(DomainPtr domain) override;
  void DeleteDomain(DomainPtr domain) override;
  void SuspendDomain(DomainPtr domain) override;
  void ResumeDomain(DomainPtr domain) override;
  void UpdateDomain(DomainPtr domain) override;
  bool PostHeldRemovals() override;
  void DropHeldRemovals() noexcept override;

  // Around a request's saves: local-host-names is the local names' file,
  // "<mta>-restart" the restart command (read when it runs); the maps are
  // the virtual user table's, the access map's and the aliases'.
  void BeginSaves() override;
  bool LocalNamesChanged() const override;
  void RestartLater() override;
  void RestartNow() override;
  void RebuildStaleMaps() noexcept override;
  // The virtual-user-table line L@D and the aliases entry L+D: a line
  // pointing to L+D, or the entry without such a line, is an earlier add's.
  MailboxLeftover FindMailboxLeftover(const std::string& local,
                                      const std::string& domain) override;
  bool HasDomainLeftover(const std::string& domain) override;
  std::optional<AccessEntry> FindAccessEntry(const std::vector<std::string>& keys) override;
  // Under ListKeys(sender).
  std::optional<AccessEntry> FindSenderEntry(const std::string& sender) override;

  // Autoresponder.
  void GetResponder(ResponderPtr responder) override;
  void SetResponder(ResponderPtr responder) override;

  // Sender lists.
  void AddToWhitelist(const std::string& sender) override;
  void DeleteFromWhitelist(const std::string& sender) override;
  void CacheWhitelist() override;
  void AddToBlacklist(const std::string& sender) override;
  void DeleteFromBlacklist(const std::string& sender) override;
  void CacheBlacklist() override;

  // Slots of a concrete back-end.
  virtual void CacheOne(DomainPtr domain) = 0;
  // Writes the domain's default action into its catch-all record's target.
  virtual void SetDefAction(Cursor<VirtualDomains>& line, DomainPtr domain) = 0;
  // Reads the catch-all record's target back into the domain row's default
  // action and redirect (in memory; the caller posts the row).
  virtual void GetDefAction(Cursor<VirtualDomains>& line, DomainPtr domain) = 0;
  // The target of a mailbox's own virtual-user-table line.
  virtual std::string GetVirtuserTarget(EmailPtr email, DomainPtr domain) = 0;
  // A sender-list entry as an access-map key, and back: FromListVal gives
  // the entry in its canonical form, or "" for a key that is none the panel
  // writes (such lines are not listed).
  virtual std::string ToListVal(const std::string& entry) = 0;
  virtual std::string FromListVal(const std::string& key) = 0;
  // Writes the mailbox's aliases entry whole: in service, its forwards, its
  // local delivery (unless forward-only) and the responder action while the
  // responder is on; out of service (the mailbox or its domain suspended),
  // a target that refuses mail the way the mailbox's suspended line does.
  // domain is the mailbox's domain row. The entry is made when missing.
  virtual void WriteAliasesEntry(EmailPtr email, DomainPtr domain, bool in_service) = 0;
  // Every key under which entry's line may stand, ToListVal's first; the
  // others are spellings an earlier version wrote, found so that their lines
  // can be deleted and rewritten. Default: ToListVal's alone.
  virtual std::vector<std::string> ListKeys(const std::string& entry);

  const std::string& virtusertable_path() const { return virtusertable_path_; }
  const std::string& localhostnames_path() const { return localhostnames_path_; }
  const std::string& accessdb_path() const { return accessdb_path_; }
  const std::string& aliases_path() const { return aliases_path_; }
  const std::string& nouser_target() const { return nouser_target_; }
  const std::string& disabled_target() const { return disabled_target_; }

 protected:
  // Shared by the whitelist and the blacklist.
  void AddToList(const std::string& sender, const std::string& action);
  void DeleteFromList(const std::string& sender);

  // What a delete holds back while the engine defers saves (see
  // MtaInterface::PostHeldRemovals): a mailbox's aliases entry, which its
  // own line points at, and a domain's catch-all line, which keeps the
  // domain's unknown local parts from the system users until
  // local-host-names no longer lists it. Outside deferred saves the removal
  // is made at once.
  enum class Held { kAliasesEntry, kCatchAll };
  void RemoveAfterSave(Held what, const std::string& key);
  // Forgets a held removal of key: this save writes the record again.
  void KeepHeld(Held what, const std::string& key);
  // Whether mail reaches the mailbox: its row and its domain's row are both
  // in service.
  static bool InService(EmailPtr email, DomainPtr domain);

  // The access-map value of a suspension, refusing the domain or the
  // address as a sender.
  static constexpr char kDisabledAccess[] = "550 Account disabled";
  // Writes the suspension entry of key (a domain or an address), recorded
  // as the panel's.
  void WriteSuspension(const std::string& key);
  // Removes the suspension entry of key when it is the panel's; an entry
  // someone else wrote stays. second_look: the entry is deleted through
  // the cursor (ConfDataSet::Delete) rather than _Delete.
  void RemoveSuspension(const std::string& key, bool second_look);

 private:
  const std::string restart_key_;  // "<mta>-restart"
  const std::string virtusertable_path_;
  const std::string localhostnames_path_;
  const std::string accessdb_path_;
  const std::string aliases_path_;
  const std::string nouser_target_;
  const std::string disabled_target_;
  pnl_file::FileId local_names_before_;  // local-host-names at BeginSaves

  void RemoveNow(Held what, const std::string& key);
  // The lines and entries of the domain's mailboxes: out of service, every
  // mailbox's; in service, those whose own row is in service.
  void WriteMailboxesOf(DomainPtr domain, bool in_service);

  struct HeldRemoval {
    Held what;
    std::string key;
  };
  std::mutex held_mu_;
  std::vector<HeldRemoval> held_;
};

}  // namespace email
