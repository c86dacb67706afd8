// The file object: one cached configuration file of one table. It owns the
// file's identity (path, table, the bytes on disk its copy matches), the
// copy itself (Store, built by the loader), the unsaved changes of deferred
// mode, the save of a change and the after-save step, and the positions of
// the cursors bound to it. Loading is loader.h's job; the text of a written
// line is line_writer.h's.
//
// Locking: the file has one recursive mutex (an after-save step may open
// cursors on the same file). The cursor operations take it themselves;
// every other member below the lock is used with mutex() held. Internal to
// the engine.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "cache_registry.h"
#include "cursor_position.h"
#include "loader.h"
#include "store.h"
#include "zelapi/conf/cache.h"
#include "zelapi/file.h"

namespace zel_conf {

class CachedFile : public std::enable_shared_from_this<CachedFile> {
 public:
  CachedFile(ConfCache& engine, std::string path, std::string table);
  ~CachedFile();
  CachedFile(const CachedFile&) = delete;
  CachedFile& operator=(const CachedFile&) = delete;

  const std::string& path() const { return path_; }
  const std::string& table() const { return table_; }
  std::recursive_mutex& mutex() { return mu_; }
  bool dirty() const { return dirty_; }

  // The engine's bookkeeping (its own lock held).
  std::uint64_t last_use = 0;

  // --- cursor operations, for ConfDataSet (each takes the lock) ---
  // at is the position this file made for the cursor (NewCursor); fields
  // and head are the cursor's own view. See ConfDataSet for the contracts.

  bool Find(CursorPosition& at, dd::Record& fields, const std::string& key);
  void Assert(CursorPosition& at, dd::Record& fields, const std::string& key);
  void First(CursorPosition& at, dd::Record& fields);
  void Next(CursorPosition& at, dd::Record& fields);
  bool AtEnd(const CursorPosition& at);
  bool OnNew(const CursorPosition& at);
  void New(CursorPosition& at, dd::Record& fields);
  void Create(CursorPosition& at, dd::Record& fields, const std::string& key);
  // other: a position on this file, or null.
  void Post(CursorPosition& at, HeadDataSet& head, const std::string& note,
            const CursorPosition* other);
  bool Delete(CursorPosition& at, bool must_exist);
  bool DeleteKey(CursorPosition& at, dd::Record& fields, const std::string& key);
  // See ConfDataSet::ContentVersion (makes the disk check).
  std::uint64_t Version();
  // Forgets a cursor's position: the file moves it no more. Never throws.
  void Unbind(CursorPosition& at) noexcept;

  // --- with mutex() held ---

  // For ConfCache::Config: creates a missing file when create is set,
  // otherwise reads it (again) as needed.
  void Open(pnl_file::safe::Folder& folder, bool create);
  // A new cursor of view rname bound to this file (ConfRef::_Get).
  SmartPtr<HeadDataSet> NewCursor(const std::string& rname);
  // Deferred mode: saves the unsaved changes (reason 2).
  void Flush();
  // Drops unsaved changes; the file is read again at its next use.
  void Discard() noexcept;

  const Store& store() const { return store_; }
  // Memory held by the copy's texts.
  std::size_t bytes() const { return store_.base().size() + store_.edited_bytes(); }

  // How much edited text a copy collects before it is rebuilt: kCompactAt,
  // or as much as the file had when it was read if that is more. The
  // rebuild reads the whole text again, so its cost stays in proportion to
  // the edits that led to it, whatever the size of the file.
  static constexpr std::size_t kCompactAt = 1 << 20;
  bool NeedsCompact() const {
    return store_.edited_bytes() > std::max(kCompactAt, store_.base().size());
  }

 private:
  // Reads the file again when it changed on disk or the table changed:
  // one stat of the path (none when now, a stat just made, is given).
  void Check(const pnl_file::FileId* now = nullptr);
  // Reads the file and replaces the copy, moving cursors to their records.
  void Load();
  void Install(std::string data, const pnl_file::FileId& id, std::shared_ptr<const TableDef> def);
  // Moves every bound position from the copy to fresh, made with def.
  void Relocate(const Store& fresh, const TableDef& def);

  // Puts at on record and loads the record's values into fields.
  void MoveTo(CursorPosition& at, dd::Record& fields, std::int32_t record);
  bool FindLocked(CursorPosition& at, dd::Record& fields, const std::string& key);
  bool DeleteLocked(CursorPosition& at, bool must_exist, bool checked);
  void Update(CursorPosition& at, HeadDataSet& head, const std::string& note);
  void Insert(CursorPosition& at, HeadDataSet& head, const std::string& note, std::int32_t after);

  // Saves now (or only marks dirty in deferred mode) the copy with edit
  // applied; apply() makes the edit in the copy once it is safe to.
  // keys: the keys of the records the edit writes or removes, handed to
  // the after-save step of the save that writes it (ConfRef::ChangedKeys).
  template <class Apply>
  void Commit(const Store::Edit& edit, const std::string& note, const std::vector<std::string>& keys,
              Apply&& apply);
  void NoteKeys(const std::vector<std::string>& keys);
  std::vector<std::string> TakeChangedKeys();
  void RunHook(ConfCache::SaveReason reason, const std::vector<std::string>& notes,
               const std::vector<std::string>& changed);
  // Edits pile up texts in the copy; past a limit the copy is rebuilt from
  // text (the file as it is now, saved or not).
  void Compact(std::string text);

  [[noreturn]] void Lost(const CursorPosition& at) const;
  [[noreturn]] void Refuse(const std::string& why) const;

  ConfCache& engine_;
  const std::string path_;
  const std::string table_;
  std::recursive_mutex mu_;

  std::shared_ptr<const TableDef> def_;
  ViewParsers views_;
  Store store_;
  bool loaded_ = false;
  bool stale_ = false;
  pnl_file::FileId id_;
  std::uint64_t seen_versions_ = 0;  // the engine's registration count def_ is current for
  std::uint64_t version_ = 0;        // changes with every content the copy holds
  std::atomic<bool> dirty_{false};
  std::vector<std::string> notes_;
  // Keys of the records changed since the last save, in the order first
  // changed, each once.
  std::vector<std::string> changed_;
  std::unordered_set<std::string> changed_seen_;
  std::vector<CursorPosition*> cursors_;  // the positions of the bound cursors
};

}  // namespace zel_conf
