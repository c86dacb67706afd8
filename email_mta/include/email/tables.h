// The four sendmail-family files as tables of the configuration engine. Each
// table registers its token rules, its after-save hook and its record views
// once, when the engine first needs it (under the engine's init lock). Keys
// of all four compare without ASCII letter case (ConfCache::FoldKeys), as
// sendmail compares them.
//
// What runs after a save depends on the MTA (which map compiler, which
// aliases command), so each table runs an after-save step that the MTA's
// back-end installs; with no step installed a save runs nothing. Installing a
// step is thread-safe; a step runs on the thread that saved, and what it
// throws reaches the Post or Delete that caused the save.
#pragma once

#include <string>

#include "zelapi/conf/conf.h"

namespace email {

// A plain function: a step may live in a module that is unloaded before the
// tables are destroyed, so the tables keep nothing that must be destroyed.
using AfterSaveStep = void (*)(ConfRef& ref, ConfCache::SaveReason& reason);

class LocalHostNames : public PnlCachedConfig<LocalHostNames> {
 public:
  LocalHostNames();
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override;
  static void SetAfterSaveStep(AfterSaveStep step);
};

class VirtualUserTable : public PnlCachedConfig<VirtualUserTable> {
 public:
  VirtualUserTable();
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override;
  static void SetAfterSaveStep(AfterSaveStep step);
};

class AliasTable : public PnlCachedConfig<AliasTable> {
 public:
  AliasTable();
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override;
  static void SetAfterSaveStep(AfterSaveStep step);
};

class AccessDb : public PnlCachedConfig<AccessDb> {
 public:
  AccessDb();
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override;
  static void SetAfterSaveStep(AfterSaveStep step);
};

}  // namespace email
