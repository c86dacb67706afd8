// One cached configuration file: its in-memory copy (Store), the table
// definition it was read with, the identity of the bytes on disk it
// matches, its unsaved (deferred) changes, and the cursors open on it.
//
// Every member below the lock is used with mutex() held (a recursive
// mutex: an after-save hook may open cursors on the same file). The
// cursor operations of ConfDataSet are implemented here. Internal to the
// engine.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "zelapi/conf/cache.h"
#include "cache_registry.h"
#include "store.h"
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

  // --- with mutex() held ---

  // For ConfCache::Config: creates a missing file when create is set,
  // otherwise reads it (again) as needed.
  void Open(pnl_file::safe::Folder& folder, bool create);
  // Reads the file again when it changed on disk or the table changed:
  // one stat of the path (none when now, a stat just made, is given).
  void Check(const pnl_file::FileId* now = nullptr);
  // A new cursor of view rname bound to this file.
  SmartPtr<HeadDataSet> NewCursor(const std::string& rname);
  void Unbind(ConfDataSet& cursor) noexcept;
  // Deferred mode: saves the unsaved changes (reason 2).
  void Flush();
  // Drops unsaved changes; the file is read again at its next use.
  void Discard() noexcept;

  // Cursor operations.
  bool Find(ConfDataSet& c, const std::string& key);
  void First(ConfDataSet& c);
  void Next(ConfDataSet& c);
  void New(ConfDataSet& c);
  void Create(ConfDataSet& c, const std::string& key);
  void Post(ConfDataSet& c, const std::string& note, ConfDataSet* other);
  // checked: the caller has just made the disk check of this operation.
  bool Delete(ConfDataSet& c, bool must_exist, bool checked = false);

  // See ConfDataSet::ContentVersion (makes the disk check).
  std::uint64_t Version() {
    Check();
    return version_;
  }

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
  using Parsers = std::vector<std::unique_ptr<HeadDataSet>>;

  static Parsers MakeParsers(const TableDef& def);
  // The view that claims cf's current line (-1: none); see Cf.
  static int Claim(Cf& cf, const Parsers& parsers);
  // Reads the file and replaces the copy, moving cursors to their records.
  void Load();
  void Install(std::string data, const pnl_file::FileId& id, std::shared_ptr<const TableDef> def);
  void Relocate(const Store& fresh, const TableDef& def);

  void Position(ConfDataSet& c, std::int32_t record);
  void Update(ConfDataSet& c, const std::string& note);
  void Insert(ConfDataSet& c, const std::string& note, std::int32_t after);
  // The new line for c's record by replacing the changed fields' spans;
  // false when a span is unknown.
  bool SpanEdit(const ConfDataSet& c, const std::vector<bool>& changed, std::string& text) const;
  std::string Template(ConfDataSet& c, bool keep_missing_line_end) const;
  // Parses text as one line: true when view claims it with exactly the
  // values want; otherwise why holds the reason.
  bool ReadBack(int view, const std::string& text, const std::vector<std::string>& want,
                ParsedRecord& parsed, std::string& why) const;
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

  [[noreturn]] void Lost(const ConfDataSet& c) const;
  [[noreturn]] void Refuse(const std::string& why) const;

  ConfCache& engine_;
  const std::string path_;
  const std::string table_;
  std::recursive_mutex mu_;

  std::shared_ptr<const TableDef> def_;
  Parsers parsers_;
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
  std::vector<ConfDataSet*> cursors_;
};

}  // namespace zel_conf
