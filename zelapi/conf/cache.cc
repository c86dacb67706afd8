#include "zelapi/conf/cache.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

#include "cached_file.h"
#include "cache_registry.h"

// ------------------------------------------------------------ registry

namespace zel_conf {

int TableDef::ViewIndex(const std::string& rname) const {
  for (std::size_t i = 0; i < views.size(); ++i)
    if (views[i].rname == rname) return static_cast<int>(i);
  return -1;
}

}  // namespace zel_conf

std::shared_ptr<const zel_conf::TableDef> ConfCache::Impl::Table(const std::string& name) const {
  std::lock_guard<std::mutex> guard(mu);
  auto it = tables.find(name);
  if (it == tables.end()) throw pnl_err::Error(pnl_err::Kind::kConf, name, "no such configuration table");
  if (!it->second->rules) throw pnl_err::Error(pnl_err::Kind::kConf, name, "the table has no token rules");
  if (it->second->views.empty()) throw pnl_err::Error(pnl_err::Kind::kConf, name, "the table has no record views");
  return it->second;
}

zel_conf::HookSlot ConfCache::Impl::Hook(const std::string& name) const {
  std::lock_guard<std::mutex> guard(mu);
  auto it = hooks.find(name);
  return it == hooks.end() ? zel_conf::HookSlot() : it->second;
}

void ConfCache::Impl::EvictLocked() {
  std::vector<std::map<std::string, std::shared_ptr<zel_conf::CachedFile>>::iterator> idle;
  for (auto it = files.begin(); it != files.end(); ++it)
    if (it->second.use_count() == 1 && !it->second->dirty()) idle.push_back(it);
  if (idle.size() <= static_cast<std::size_t>(capacity)) return;
  std::sort(idle.begin(), idle.end(),
            [](const auto& a, const auto& b) { return a->second->last_use < b->second->last_use; });
  const std::size_t drop = idle.size() - static_cast<std::size_t>(capacity);
  for (std::size_t i = 0; i < drop; ++i) files.erase(idle[i]);
}

// ------------------------------------------------------------ ConfRef

ConfRef::ConfRef() = default;
ConfRef::~ConfRef() = default;
ConfRef::ConfRef(const ConfRef&) = default;
ConfRef& ConfRef::operator=(const ConfRef&) = default;
ConfRef::ConfRef(std::shared_ptr<zel_conf::CachedFile> file) : file_(std::move(file)) {}

const std::string& ConfRef::FileName() const {
  static const std::string none;
  return file_ ? file_->path() : none;
}

SmartPtr<HeadDataSet> ConfRef::_Get(const std::string& rname) {
  if (!file_) throw pnl_err::Error(pnl_err::Kind::kConf, rname, "no file to open a cursor on");
  std::lock_guard<std::recursive_mutex> guard(file_->mutex());
  return file_->NewCursor(rname);
}

const std::vector<std::string>& ConfRef::Notes() const {
  static const std::vector<std::string> none;
  return notes_ ? *notes_ : none;
}

const std::vector<std::string>& ConfRef::ChangedKeys() const {
  static const std::vector<std::string> none;
  return changed_keys_ ? *changed_keys_ : none;
}

// ------------------------------------------------------------ ConfCache

ConfCache::ConfCache(int capacity) : impl_(std::make_unique<Impl>(capacity)) {}

ConfCache::~ConfCache() = default;

void ConfCache::_AfterSave(const std::string& name, BaseCachedConfigEvent* object, Hook member) {
  std::lock_guard<std::mutex> guard(impl_->mu);
  if (object == nullptr || member == nullptr)
    impl_->hooks.erase(name);
  else
    impl_->hooks[name] = zel_conf::HookSlot{object, member};
}

void ConfCache::Add(const std::string& name, const std::string& rname, const char* rname_cstr,
                    Factory factory) {
  if (factory == nullptr) throw pnl_err::Error(pnl_err::Kind::kConf, rname, "no factory for the record view");
  std::lock_guard<std::mutex> guard(impl_->mu);
  auto& slot = impl_->tables[name];
  auto def = slot ? std::make_shared<zel_conf::TableDef>(*slot) : std::make_shared<zel_conf::TableDef>();
  def->name = name;
  if (def->ViewIndex(rname) >= 0)
    throw pnl_err::Error(pnl_err::Kind::kConf, name, "already has the record view " + rname);
  def->views.push_back(zel_conf::TableDef::View{rname, rname_cstr ? rname_cstr : rname, factory});
  def->version = ++impl_->versions;
  slot = std::move(def);
}

void ConfCache::FoldKeys(const std::string& name, bool fold) {
  std::lock_guard<std::mutex> guard(impl_->mu);
  auto& slot = impl_->tables[name];
  auto def = slot ? std::make_shared<zel_conf::TableDef>(*slot) : std::make_shared<zel_conf::TableDef>();
  def->name = name;
  def->fold_keys = fold;
  def->version = ++impl_->versions;
  slot = std::move(def);
}

void ConfCache::SetRules(const std::string& name, const pnl_token::Params& rules) {
  auto copy = std::make_shared<const pnl_token::Params>(rules);
  std::lock_guard<std::mutex> guard(impl_->mu);
  auto& slot = impl_->tables[name];
  auto def = slot ? std::make_shared<zel_conf::TableDef>(*slot) : std::make_shared<zel_conf::TableDef>();
  def->name = name;
  def->rules = std::move(copy);
  def->version = ++impl_->versions;
  slot = std::move(def);
}

ConfRef ConfCache::Config(const std::string& name, pnl_file::safe::Folder& folder,
                          const std::string& path, bool create) {
  impl_->Table(name);  // throws for an unknown table
  if (path.empty()) throw pnl_err::Error(pnl_err::Kind::kConf, name, "no file path given");
  std::string key;
  try {
    key = std::filesystem::absolute(path).lexically_normal().string();
  } catch (const std::exception& e) {
    throw pnl_err::Error(pnl_err::Kind::kFile, path, e.what());
  }
  std::shared_ptr<zel_conf::CachedFile> file;
  {
    std::lock_guard<std::mutex> guard(impl_->mu);
    auto& slot = impl_->files[key];
    if (!slot) slot = std::make_shared<zel_conf::CachedFile>(*this, key, name);
    if (slot->table() != name)
      throw pnl_err::Error(pnl_err::Kind::kConf, key, "is open as a file of table " + slot->table() + ", not " + name);
    file = slot;
    file->last_use = ++impl_->tick;
    impl_->EvictLocked();
  }
  {
    std::lock_guard<std::recursive_mutex> guard(file->mutex());
    file->Open(folder, create);
  }
  return ConfRef(std::move(file));
}

void ConfCache::BeginDeferred() {
  bool expected = false;
  if (!impl_->deferred.compare_exchange_strong(expected, true))
    throw pnl_err::Error(pnl_err::Kind::kConf, "deferred saves", "already deferred");
}

void ConfCache::SetSaveRank(const std::string& name, int rank) {
  std::lock_guard<std::mutex> guard(impl_->mu);
  impl_->ranks[name] = rank;
}

void ConfCache::FlushDeferred() {
  struct Dirty {
    int rank;
    std::shared_ptr<zel_conf::CachedFile> file;
  };
  std::vector<Dirty> dirty;
  {
    std::lock_guard<std::mutex> guard(impl_->mu);
    impl_->deferred = false;
    for (auto& entry : impl_->files) {
      if (!entry.second->dirty()) continue;
      const auto rank = impl_->ranks.find(entry.second->table());
      dirty.push_back({rank == impl_->ranks.end() ? 0 : rank->second, entry.second});
    }
  }
  // Files are kept by path, so equal ranks stay in path order.
  std::stable_sort(dirty.begin(), dirty.end(),
                   [](const Dirty& a, const Dirty& b) { return a.rank < b.rank; });
  for (auto& entry : dirty) {
    std::lock_guard<std::recursive_mutex> guard(entry.file->mutex());
    entry.file->Flush();
  }
}

void ConfCache::DiscardDeferred() noexcept {
  std::vector<std::shared_ptr<zel_conf::CachedFile>> dirty;
  try {
    std::lock_guard<std::mutex> guard(impl_->mu);
    impl_->deferred = false;
    for (auto& entry : impl_->files)
      if (entry.second->dirty()) dirty.push_back(entry.second);
  } catch (...) {
    return;
  }
  for (auto& file : dirty) {
    try {
      std::lock_guard<std::recursive_mutex> guard(file->mutex());
      file->Discard();
    } catch (...) {
    }
  }
}

bool ConfCache::Deferred() const { return impl_->deferred; }

int ConfCache::Capacity() const { return impl_->capacity; }

std::size_t ConfCache::CachedFiles() const {
  std::lock_guard<std::mutex> guard(impl_->mu);
  return impl_->files.size();
}

std::size_t ConfCache::CachedBytes() const {
  std::vector<std::shared_ptr<zel_conf::CachedFile>> files;
  {
    std::lock_guard<std::mutex> guard(impl_->mu);
    for (auto& entry : impl_->files) files.push_back(entry.second);
  }
  std::size_t total = 0;
  for (auto& file : files) {
    std::lock_guard<std::recursive_mutex> guard(file->mutex());
    total += file->bytes();
  }
  return total;
}

void PnlConfCache::Register(const std::string& name, std::shared_ptr<pnl_token::Params> rules) {
  if (!rules) throw pnl_err::Error(pnl_err::Kind::kConf, name, "no token rules given");
  SetRules(name, *rules);
}

// ------------------------------------------------------------ tables

BaseCachedConfigEvent::~BaseCachedConfigEvent() = default;

void BaseCachedConfigEvent::AfterSave(ConfRef&, ConfCache::SaveReason&) {}

pnl_thread::Lock& BaseCachedConfigEvent::GetInitLock() {
  static pnl_thread::Lock* const lock = new pnl_thread::Lock();
  return *lock;
}

template <>
PnlConfCache* BaseCachedConfig<PnlConfCache>::Instance() {
  static PnlConfCache* const instance = new PnlConfCache(20);
  return instance;
}
