// Tables and record views the engine tests run on, shaped like real
// configuration files:
//   VirtTable: "@domain target" lines (DomainView) and "user@domain target
//              words" lines (MailView), blanks separate, "#" comments at
//              word starts;
//   NamesTable: one name a line (NameView), no separators, "#" comments
//              anywhere;
//   ListTable: "name: a, b" lines (ListView) with a comma list.
// Every save is written to a journal the tests read (and may be told to
// throw from AfterSave).
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "zelapi/conf/conf.h"
#include "zelapi/err.h"

namespace conftest {

struct Save {
  std::string table;
  std::string file;
  int reason;
  std::vector<std::string> notes;
  std::vector<std::string> changed_keys;
};

// What AfterSave saw, and what it should do next.
class Journal {
 public:
  static Journal& Get() {
    static Journal journal;
    return journal;
  }
  void Clear() {
    std::lock_guard<std::mutex> guard(mu_);
    saves_.clear();
    throw_on_save_ = false;
  }
  void ThrowOnSave(bool on) {
    std::lock_guard<std::mutex> guard(mu_);
    throw_on_save_ = on;
  }
  std::vector<Save> saves() const {
    std::lock_guard<std::mutex> guard(mu_);
    return saves_;
  }
  void Record(const std::string& table, ConfRef& ref, int reason) {
    bool fail;
    {
      std::lock_guard<std::mutex> guard(mu_);
      saves_.push_back(Save{table, ref.FileName(), reason, ref.Notes(), ref.ChangedKeys()});
      fail = throw_on_save_;
    }
    if (fail) throw pnl_err::Error(pnl_err::Kind::kInternal, "after-save", "map rebuild failed for " + ref.FileName());
  }

 private:
  mutable std::mutex mu_;
  std::vector<Save> saves_;
  bool throw_on_save_ = false;
};

inline bool AtLineStart(Cf& cf) { return cf.pos() == cf.line_offset(); }

// "@domain<TAB>target"
class DomainView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override {
    if (!AtLineStart(cf)) return false;
    cf.CacheStart(*this, true);
    if (cf.token() != "@") return false;
    cf.GetToken(false);
    cf.CacheField(name);
    cf.GetUntilToken("\n", false, true);
    cf.CacheField(target);
    cf.CacheDone(*this, false);
    return true;
  }
  std::string NewRecordTemplate() override { return "@" + name.Str() + "\t" + target.Str() + "\n"; }

  dd::Field name{this, "name"};
  dd::Field target{this, "target"};
};

// "user@domain<TAB>target words"
class MailView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override {
    if (!AtLineStart(cf)) return false;
    cf.CacheStart(*this, true);
    if (cf.token() == "@") return false;
    cf.AddToken();
    if (cf.token().at(cf.token().size() - 1) != '@') return false;
    cf.AddToken();
    cf.CacheField(name);
    cf.GetUntilToken("\n", false, true);
    cf.CacheField(target);
    cf.CacheDone(*this, false);
    return true;
  }
  std::string NewRecordTemplate() override { return name.Str() + "\t" + target.Str() + "\n"; }

  dd::Field name{this, "name"};
  dd::ArrayField target{this, "target", ' '};
};

// One name a line.
class NameView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override {
    if (!AtLineStart(cf)) return false;
    cf.CacheStart(*this, true);
    cf.CacheField(name);
    cf.CacheDone(*this, true);
    return true;
  }
  std::string NewRecordTemplate() override { return name.Str() + "\n"; }

  dd::Field name{this, "name"};
};

// "name:<TAB>a, b"
class ListView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override {
    if (!AtLineStart(cf)) return false;
    cf.CacheStart(*this, true);
    cf.CacheField(name);
    cf.GetUntilToken("\n", false, true);
    cf.CacheField(items);
    cf.CacheDone(*this, false);
    return true;
  }
  std::string NewRecordTemplate() override { return name.Str() + ":\t" + items.Str() + "\n"; }

  dd::Field name{this, "name"};
  dd::ArrayField items{this, "items", ','};
};

template <class R>
void AddView(PnlConfCache* engine, const std::string& table) {
  engine->Add(table, typeid(R).name(), typeid(R).name(), &ConfCache::Create<R>);
}

class VirtTable : public PnlCachedConfig<VirtTable> {
 public:
  VirtTable() {
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken("@", 2));
    rules->Add(pnl_token::CharToken("\t ", 1));
    rules->Add(pnl_token::CharToken("\n", 6));
    rules->Add(pnl_token::Comment("#", "\n", false));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    e->_AfterSave(name_, this, &BaseCachedConfigEvent::_AfterSave);
    AddView<DomainView>(e, name_);
    AddView<MailView>(e, name_);
  }
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override {
    Journal::Get().Record("virt", ref, reason);
  }
};

class NamesTable : public PnlCachedConfig<NamesTable> {
 public:
  NamesTable() {
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken("\n", 6));
    rules->Add(pnl_token::Comment("#", "\n", true));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    e->_AfterSave(name_, this, &BaseCachedConfigEvent::_AfterSave);
    AddView<NameView>(e, name_);
  }
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override {
    Journal::Get().Record("names", ref, reason);
  }
};

class ListTable : public PnlCachedConfig<ListTable> {
 public:
  ListTable() {
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken(":\t ", 1));
    rules->Add(pnl_token::CharToken("\n", 6));
    rules->Add(pnl_token::Comment("#", "\n", false));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    e->_AfterSave(name_, this, &BaseCachedConfigEvent::_AfterSave);
    AddView<ListView>(e, name_);
  }
  void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) override {
    Journal::Get().Record("list", ref, reason);
  }
};

// --- files ---

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline void Spill(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

inline std::string Sample(const std::string& name) { return Slurp(std::string(ZEL_TEST_DATA) + "/conf/" + name); }

// A fresh folder per test under the build's scratch folder.
class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::string(ZEL_TEST_SCRATCH) + "/conf/" + info->test_suite_name() + "." + info->name();
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    Journal::Get().Clear();
  }
  void TearDown() override {
    BaseCachedConfig<PnlConfCache>::Instance()->DiscardDeferred();
    Journal::Get().Clear();
  }

  std::string Path(const std::string& file) const { return dir_ + "/" + file; }
  // Copies sample name into the folder and returns its path there.
  std::string Copy(const std::string& name) {
    Spill(Path(name), Sample(name));
    return Path(name);
  }
  std::vector<std::string> Entries() const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir_)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string dir_;
};

}  // namespace conftest
