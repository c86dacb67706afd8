// A mailbox's aliases and forwards in both directions: each alias a is a
// virtual-user-table line "a@D -> L@D"; the forwards, the local delivery
// "L\@D" (unless forward-only) and the responder action are the targets of
// the mailbox's aliases entry "L+D".
#include <mutex>
#include <unordered_map>
#include <vector>

#include "email/file_views.h"
#include "email/tables.h"
#include "email_sendmail/sendmail_interface.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"
#include "zelapi/str.h"
#include "zelapi/test.h"

namespace zelpriv_email_sendmail {

namespace {

// The address lines of a virtual user table by their target: for each
// target text, the keys of the lines that point to it, in file order. Made
// with one walk of the table and kept while the table's cached copy stays
// the same, so reading back the aliases of every mailbox (a whole sync)
// walks the table once instead of once per mailbox.
class LinesByTarget {
 public:
  // The keys of the lines of lines' file whose whole target is target, in
  // file order (moves the cursor when the index is made anew).
  std::vector<std::string> Keys(Cursor<email::VirtualEmails>& lines, const std::string& target) {
    std::lock_guard<std::mutex> lock(mu_);
    // Versions never repeat within the process, across files too.
    const std::uint64_t version = lines->ContentVersion();
    if (version != version_) {
      by_target_.clear();
      for (lines->First(); !lines->Eof(); lines->Next())
        by_target_[lines->target.Str()].push_back(lines->name.Str());
      version_ = version;
    }
    const auto found = by_target_.find(target);
    return found == by_target_.end() ? std::vector<std::string>() : found->second;
  }

 private:
  std::mutex mu_;
  std::uint64_t version_ = 0;  // 0: no index made yet
  std::unordered_map<std::string, std::vector<std::string>> by_target_;
};

LinesByTarget& AliasLines() {
  static LinesByTarget index;
  return index;
}

// The targets of the mailbox's aliases entry (see WriteAliasesEntry), and in
// forwards how many of them are forwards.
std::vector<std::string> EntryTargets(pnl_db::Cache* cache,
                                      std::shared_ptr<zel_db::EmailTable>& email,
                                      const std::string& domain, bool in_service,
                                      std::size_t* forwards) {
  const std::string mailbox = email->name.Str();
  std::vector<std::string> targets;
  *forwards = 0;
  if (!in_service) {
    // The mailbox's address, which its suspended line refuses: mail that
    // reaches the local name directly (at the server's own names) is
    // refused the same way, and neither the forwards nor the responder see
    // it.
    targets.push_back(mailbox + "@" + domain);
    return targets;
  }
  const std::string id = email->id.Str();
  for (pnl_db::Query forward = cache->Query("SELECT name FROM email_forward WHERE email = " + id);
       !forward.Eof(); forward.Next())
    targets.push_back(forward.Str());
  *forwards = targets.size();
  if (!email->forward_only.Value()) targets.push_back(mailbox + "\\@" + domain);
  pnl_db::Query responder = cache->Query("SELECT enabled FROM email_responder WHERE email = " + id);
  if (!responder.Eof() && responder.Int() != 0) targets.push_back(email::GetResponderAction(email));
  return targets;
}

}  // namespace

void SendmailInterface::SetAliases(EmailPtr email, const std::list<std::string>& removed) {
  pnl_db::Cache* cache = zel_db::GetCache();
  std::shared_ptr<zel_db::EmailDomainTable> domains = cache->Get<zel_db::EmailDomainTable>();
  domains->Assert(email->domain.Str());
  const std::string domain = domains->name.Str();
  const std::string mailbox = email->name.Str();
  const std::string address = mailbox + "@" + domain;
  const bool in_service = InService(email, domains);
  // An entry sendmail would not read fails every later rebuild of the
  // aliases file: refused before anything is posted, the alias lines too.
  {
    std::size_t forwards = 0;
    const std::vector<std::string> targets =
        EntryTargets(cache, email, domain, in_service, &forwards);
    email::CheckAliasesEntry(GetVirtuserTarget(email, domains), targets, forwards);
  }
  const std::string alias_query = "SELECT name FROM email_alias WHERE email = " + email->id.Str();

  Cursor<email::VirtualEmails> lines =
      email::VirtualUserTable::Get<email::VirtualEmails>(virtusertable_path(), true);
  for (pnl_db::Query alias = cache->Query(alias_query); !alias.Eof(); alias.Next()) {
    const std::string key = alias.Str() + "@" + domain;
    if (lines->Find(key)) continue;  // kept as it is, whatever it points at
    lines->New();
    lines->name.Set(key);
    lines->target = address;
    lines->Post(address);
  }
  for (const std::string& gone : removed) {
    if (test::Const<&test::Email>(gone)) continue;
    if (lines->Find(gone + "@" + domain)) lines->_Delete(true);
  }

  WriteAliasesEntry(email, domains, in_service);
}

void SendmailInterface::WriteAliasesEntry(EmailPtr email, DomainPtr domain, bool in_service) {
  pnl_db::Cache* cache = zel_db::GetCache();
  const std::string key = GetVirtuserTarget(email, domain);
  std::size_t forwards = 0;
  const std::vector<std::string> targets =
      EntryTargets(cache, email, domain->name.Str(), in_service, &forwards);
  email::CheckAliasesEntry(key, targets, forwards);
  Cursor<email::Aliases> entry = email::AliasTable::Get<email::Aliases>(aliases_path(), true);
  // An entry this save was to remove (the mailbox deleted and made again)
  // is written anew in its place: one entry per name.
  KeepHeld(Held::kAliasesEntry, key);
  if (!entry->Find(key)) {
    entry->New();
    entry->name.Set(key);
  }
  entry->alias.Erase();
  for (const std::string& target : targets) entry->alias.Append(target);
  entry->Post("");
}

void SendmailInterface::CacheAliases(EmailPtr email) {
  pnl_db::Cache* cache = zel_db::GetCache();
  std::shared_ptr<zel_db::EmailForwardTable> forwards = cache->Get<zel_db::EmailForwardTable>();
  std::shared_ptr<zel_db::EmailAliasTable> aliases = cache->Get<zel_db::EmailAliasTable>();
  std::shared_ptr<zel_db::EmailDomainTable> domains = cache->Get<zel_db::EmailDomainTable>();
  domains->Assert(email->domain.Str());
  const std::string domain = domains->name.Str();
  const std::string mailbox = email->name.Str();
  // Out of service the entry holds only the refusal: the forwards and the
  // forward-only flag live on in the rows until the mailbox is resumed.
  const bool in_service = InService(email, domains);
  if (in_service) forwards->DbDelete("email=" + email->id.Str());
  aliases->DbDelete("email=" + email->id.Str());
  Cursor<email::Aliases> entry = email::AliasTable::Get<email::Aliases>(aliases_path(), true);
  entry->Assert(mailbox + "+" + domain);

  if (in_service) {
    const std::string action = email::GetResponderAction(email);
    const std::string local_delivery = mailbox + "\\@" + domain;
    const size_t count = entry->alias.Size();
    email->forward_only = true;
    for (size_t i = 0; i < count; ++i) {
      const std::string target = entry->alias[static_cast<int>(i)];
      if (target == action) continue;
      if (target == local_delivery) {
        email->forward_only = false;
        continue;
      }
      forwards->New();
      forwards->email.SetText(email->id.Str());
      forwards->name = target;
      forwards->Post();
    }
    email->Post();
  }

  // Every line "a@D -> L@D" of the mailbox's domain, in file order.
  Cursor<email::VirtualEmails> lines =
      email::VirtualUserTable::Get<email::VirtualEmails>(virtusertable_path(), true);
  for (std::string rest : AliasLines().Keys(lines, mailbox + "@" + domain)) {
    const std::string local = str::Lower(str::GetWord(rest, '@'));
    if (str::Lower(rest) != domain) continue;
    if (local == mailbox) continue;  // the mailbox's own line
    aliases->New();
    aliases->email.SetText(email->id.Str());
    aliases->name = local;
    aliases->Post();
  }
}

}  // namespace zelpriv_email_sendmail
