// The registry behind ConfCache: tables as registered, their after-save
// hooks, the cached files by path, and the deferred flag. Table
// definitions are immutable snapshots; every registration change makes a
// new one with a new version, so a cached file notices that it was read
// with an older definition and reads itself again. Internal to the engine.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zelapi/conf/cache.h"

namespace zel_conf {

class CachedFile;

struct TableDef {
  struct View {
    std::string rname;  // what _Get looks it up by
    std::string label;  // what messages call it
    ConfCache::Factory factory;
  };
  std::string name;
  std::shared_ptr<const pnl_token::Params> rules;
  std::vector<View> views;
  bool fold_keys = false;  // keys compare without ASCII letter case
  std::uint64_t version = 0;

  // Index of view rname, or -1.
  int ViewIndex(const std::string& rname) const;
};

struct HookSlot {
  BaseCachedConfigEvent* object = nullptr;
  ConfCache::Hook member = nullptr;
};

}  // namespace zel_conf

struct ConfCache::Impl {
  explicit Impl(int cap) : capacity(cap < 0 ? 0 : cap) {}

  // The table as registered now; throws pnl_err::Error(pnl_err::Kind::kConf) when it is
  // unknown or not usable yet (no rules or no views).
  std::shared_ptr<const zel_conf::TableDef> Table(const std::string& name) const;
  zel_conf::HookSlot Hook(const std::string& name) const;
  // Drops unreferenced clean files beyond the capacity (mu held).
  void EvictLocked();

  const int capacity;
  mutable std::mutex mu;
  std::map<std::string, std::shared_ptr<const zel_conf::TableDef>> tables;
  std::map<std::string, zel_conf::HookSlot> hooks;
  std::map<std::string, int> ranks;  // SetSaveRank, by table name
  std::map<std::string, std::shared_ptr<zel_conf::CachedFile>> files;
  // Bumped (under mu) by every registration change; a cached file that saw
  // the same count needs no look at its table's definition.
  std::atomic<std::uint64_t> versions{0};
  std::uint64_t tick = 0;
  std::atomic<bool> deferred{false};
};
