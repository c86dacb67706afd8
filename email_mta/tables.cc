#include "email/tables.h"

#include <atomic>
#include <memory>
#include <typeinfo>
#include <utility>

#include "email/file_views.h"

namespace email {

namespace {

// One installed step per table class.
template <class T>
class StepSlot {
 public:
  static void Install(AfterSaveStep step) { slot().store(step); }
  static void Run(ConfRef& ref, ConfCache::SaveReason& reason) {
    if (AfterSaveStep step = slot().load()) step(ref, reason);
  }

 private:
  static std::atomic<AfterSaveStep>& slot() {
    static std::atomic<AfterSaveStep> s{nullptr};
    return s;
  }
};

template <class R>
void AddView(PnlConfCache* engine, const std::string& table) {
  engine->Add(table, typeid(R).name(), typeid(R).name(), &ConfCache::Create<R>);
}

// The order in which one request's changes are saved: each file after the
// ones its lines point into. A mailbox's virtual-user-table line points at
// its aliases entry, so that entry is in the aliases map before the line
// goes live (and when the aliases rebuild fails, the line is not saved at
// all: sendmail would hand the mailbox's local name to the system user of
// the same name). local-host-names comes last: a domain becomes local only
// once its catch-all line stands.
enum SaveRank { kAliasesFirst = 0, kVirtualUserTable = 1, kAccess = 2, kLocalHostNames = 3 };

// sendmail folds the keys of its hashed maps (virtual user table, access
// map, aliases) to lower case and compares class w (local-host-names)
// without case: a key in another letter case is the same key to it, so it
// is to the tables too.
template <class Table>
PnlConfCache* RegisterTable(Table* table, std::shared_ptr<pnl_token::Params> rules,
                            SaveRank rank) {
  PnlConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  engine->Register(table->Name(), std::move(rules));
  engine->FoldKeys(table->Name(), true);
  engine->_AfterSave(table->Name(), table, &BaseCachedConfigEvent::_AfterSave);
  engine->SetSaveRank(table->Name(), rank);
  return engine;
}

}  // namespace

LocalHostNames::LocalHostNames() {
  auto rules = std::make_shared<pnl_token::Params>();
  rules->Add(pnl_token::CharToken("\n", 6));
  rules->Add(pnl_token::Comment("#", "\n", true));
  AddView<HostNames>(RegisterTable(this, rules, kLocalHostNames), Name());
}

void LocalHostNames::AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) {
  StepSlot<LocalHostNames>::Run(ref, reason);
}

void LocalHostNames::SetAfterSaveStep(AfterSaveStep step) {
  StepSlot<LocalHostNames>::Install(step);
}

VirtualUserTable::VirtualUserTable() {
  auto rules = std::make_shared<pnl_token::Params>();
  rules->Add(pnl_token::CharToken("@", 2));
  rules->Add(pnl_token::CharToken("\t ", 1));
  rules->Add(pnl_token::CharToken("\n", 6));
  rules->Add(pnl_token::Comment("#", "\n", false));
  PnlConfCache* engine = RegisterTable(this, rules, kVirtualUserTable);
  AddView<VirtualDomains>(engine, Name());
  AddView<VirtualEmails>(engine, Name());
}

void VirtualUserTable::AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) {
  StepSlot<VirtualUserTable>::Run(ref, reason);
}

void VirtualUserTable::SetAfterSaveStep(AfterSaveStep step) {
  StepSlot<VirtualUserTable>::Install(step);
}

AliasTable::AliasTable() {
  auto rules = std::make_shared<pnl_token::Params>();
  rules->Add(pnl_token::CharToken(":\t ", 1));
  rules->Add(pnl_token::CharToken("\n", 6));
  rules->Add(pnl_token::Comment("#", "\n", false));
  // sendmail's reader: an entry goes on over the lines that start with a
  // blank or a tab and over a backslash before a line end, and it takes no
  // entry longer than its buffer.
  rules->Add(pnl_token::Continuation(" \t", true));
  rules->Add(pnl_token::LongestLine(kLongestAliasesEntry));
  AddView<Aliases>(RegisterTable(this, rules, kAliasesFirst), Name());
}

void AliasTable::AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) {
  StepSlot<AliasTable>::Run(ref, reason);
}

void AliasTable::SetAfterSaveStep(AfterSaveStep step) {
  StepSlot<AliasTable>::Install(step);
}

AccessDb::AccessDb() {
  auto rules = std::make_shared<pnl_token::Params>();
  rules->Add(pnl_token::CharToken("\t ", 1));
  rules->Add(pnl_token::CharToken("\n", 6));
  rules->Add(pnl_token::Comment("#", "\n", false));
  AddView<SourceTarget>(RegisterTable(this, rules, kAccess), Name());
}

void AccessDb::AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) {
  StepSlot<AccessDb>::Run(ref, reason);
}

void AccessDb::SetAfterSaveStep(AfterSaveStep step) {
  StepSlot<AccessDb>::Install(step);
}

}  // namespace email
