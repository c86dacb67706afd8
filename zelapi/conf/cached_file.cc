#include "cached_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "line_writer.h"
#include "zelapi/err.h"

namespace zel_conf {

namespace {

using Guard = std::lock_guard<std::recursive_mutex>;

bool HasLineEnd(const std::string& text) {
  return std::memchr(text.data(), '\n', text.size()) != nullptr ||
         std::memchr(text.data(), '\r', text.size()) != nullptr;
}

void ClearFields(dd::Record& fields) {
  for (std::size_t i = 0; i < fields.FieldCount(); ++i) fields.FieldAt(i).Erase();
}

// Content versions are drawn from one counter of the process, so a copy
// dropped from the cache and read again never repeats an earlier number.
std::uint64_t NextVersion() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

}  // namespace

CachedFile::CachedFile(ConfCache& engine, std::string path, std::string table)
    : engine_(engine), path_(std::move(path)), table_(std::move(table)) {}

CachedFile::~CachedFile() = default;

[[noreturn]] void CachedFile::Refuse(const std::string& why) const {
  throw pnl_err::Error(pnl_err::Kind::kConf, path_, why);
}

[[noreturn]] void CachedFile::Lost(const CursorPosition& at) const {
  Refuse("record '" + at.lost_key +
         "' was changed or removed on disk by someone else since it was read; read it again");
}

// ------------------------------------------------------------ identity

void CachedFile::Load() {
  std::shared_ptr<const TableDef> def = engine_.impl_->Table(table_);
  DiskText disk = ReadDisk(path_);
  Install(std::move(disk.data), disk.id, std::move(def));
}

void CachedFile::Install(std::string data, const pnl_file::FileId& id,
                         std::shared_ptr<const TableDef> def) {
  ViewParsers views(*def);
  Store fresh = BuildStore(std::move(data), *def, views);
  if (loaded_) Relocate(fresh, *def);
  store_ = std::move(fresh);
  views_ = std::move(views);
  def_ = std::move(def);
  id_ = id;
  version_ = NextVersion();
  loaded_ = true;
  stale_ = false;
}

void CachedFile::Relocate(const Store& fresh, const TableDef& def) {
  for (CursorPosition* c : cursors_) {
    const int view = def.ViewIndex(def_->views[static_cast<std::size_t>(c->view)].rname);
    if (c->state == CursorPosition::kOnRecord) {
      const std::string key(store_.Key(c->record));
      const std::int32_t r = fresh.FindNth(view, key, store_.Occurrence(c->record));
      if (r >= 0) {
        c->record = r;
      } else {
        c->state = CursorPosition::kLost;
        c->lost_key = key;
      }
    } else if (c->state == CursorPosition::kAfterDelete && c->next_line >= 0) {
      const std::int32_t old = store_.RecordFrom(c->view, c->next_line);
      if (old < 0) {
        c->next_line = -1;
      } else {
        const std::string key(store_.Key(old));
        const std::int32_t r = fresh.FindNth(view, key, store_.Occurrence(old));
        if (r >= 0) {
          c->next_line = fresh.record(r).line;
        } else {
          c->state = CursorPosition::kLost;
          c->lost_key = key;
        }
      }
    }
    c->view = view;
  }
}

void CachedFile::Check(const pnl_file::FileId* now) {
  // The table's definition is looked at only when some registration changed
  // since it was last found current.
  const std::uint64_t versions = engine_.impl_->versions.load();
  bool current = loaded_ && !stale_;
  if (current && versions != seen_versions_) {
    current = engine_.impl_->Table(table_)->version == def_->version;
    if (current) seen_versions_ = versions;
  }
  if (current && (now != nullptr ? *now : pnl_file::StatFile(path_)).SameContent(id_)) return;
  if (dirty_)
    Refuse("changed on disk while it has unsaved deferred changes; "
           "not read again (flush or discard the deferred changes)");
  Load();
  // Load took the definition after the count was read: it is at least that new.
  seen_versions_ = versions;
}

void CachedFile::Open(pnl_file::safe::Folder& folder, bool create) {
  const pnl_file::FileId now = pnl_file::StatFile(path_);
  if (now.exists) {
    Check(&now);
    return;
  }
  if (!create) Refuse("no such file");
  if (dirty_) Refuse("was removed while it has unsaved deferred changes");
  std::shared_ptr<const TableDef> def = engine_.impl_->Table(table_);
  const pnl_file::FileId id = pnl_file::safe::WriteFile(folder, path_, "", nullptr);
  Install(std::string(), id, std::move(def));
  RunHook(ConfCache::kSaveCreated, {}, {});
}

// ------------------------------------------------------------ cursors

SmartPtr<HeadDataSet> CachedFile::NewCursor(const std::string& rname) {
  int view = def_ ? def_->ViewIndex(rname) : -1;
  if (view < 0) {
    // Maybe the view was added after the file was read.
    if (engine_.impl_->Table(table_)->ViewIndex(rname) >= 0) {
      stale_ = true;
      Check();
      view = def_->ViewIndex(rname);
    }
    if (view < 0) throw pnl_err::Error(pnl_err::Kind::kConf, rname, "is not a record view of table " + table_);
  }
  SmartPtr<HeadDataSet> head(def_->views[static_cast<std::size_t>(view)].factory());
  const dd::Record& record = *head;
  if (record.FieldCount() != views_.Parser(view).FieldCount())
    throw pnl_err::Error(pnl_err::Kind::kConf, rname, "made a view with another number of fields");
  auto at = std::make_unique<CursorPosition>();
  at->view = view;
  at->loaded.assign(record.FieldCount(), std::string());
  cursors_.push_back(at.get());
  CursorBinding::Bind(*head, shared_from_this(), *head, std::move(at));
  return head;
}

void CachedFile::Unbind(CursorPosition& at) noexcept {
  try {
    Guard guard(mu_);
    auto it = std::find(cursors_.begin(), cursors_.end(), &at);
    if (it != cursors_.end()) cursors_.erase(it);
  } catch (...) {
    // Locking can only fail on a broken mutex; the cursor goes away anyway.
  }
}

void CachedFile::MoveTo(CursorPosition& at, dd::Record& fields, std::int32_t record) {
  at.state = CursorPosition::kOnRecord;
  at.record = record;
  at.from_create = false;
  const std::size_t n = fields.FieldCount();
  at.loaded.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    const std::string_view stored = store_.Value(record, i);
    fields.FieldAt(i).Load(stored);
    at.loaded[i].assign(stored.data(), stored.size());
  }
  at.loaded_raw = true;
}

bool CachedFile::FindLocked(CursorPosition& at, dd::Record& fields, const std::string& key) {
  Check();
  const std::int32_t r = store_.Find(at.view, key);
  if (r < 0) {
    at.state = CursorPosition::kNone;
    ClearFields(fields);
    return false;
  }
  MoveTo(at, fields, r);
  return true;
}

bool CachedFile::Find(CursorPosition& at, dd::Record& fields, const std::string& key) {
  Guard guard(mu_);
  return FindLocked(at, fields, key);
}

void CachedFile::Assert(CursorPosition& at, dd::Record& fields, const std::string& key) {
  Guard guard(mu_);
  if (!FindLocked(at, fields, key)) Refuse("no record with key '" + key + "'");
}

std::uint64_t CachedFile::Version() {
  Guard guard(mu_);
  Check();
  return version_;
}

void CachedFile::First(CursorPosition& at, dd::Record& fields) {
  Guard guard(mu_);
  Check();
  const std::int32_t r = store_.RecordFrom(at.view, store_.head());
  if (r < 0)
    at.state = CursorPosition::kEof;
  else
    MoveTo(at, fields, r);
}

void CachedFile::Next(CursorPosition& at, dd::Record& fields) {
  Guard guard(mu_);
  std::int32_t r = -1;
  switch (at.state) {
    case CursorPosition::kOnRecord:
      r = store_.RecordFrom(at.view, store_.line(store_.record(at.record).line).next);
      break;
    case CursorPosition::kAfterDelete:
      r = store_.RecordFrom(at.view, at.next_line);
      break;
    case CursorPosition::kEof:
      return;
    case CursorPosition::kLost:
      Lost(at);
    default:
      Refuse("Next without a current record");
  }
  if (r < 0)
    at.state = CursorPosition::kEof;
  else
    MoveTo(at, fields, r);
}

bool CachedFile::AtEnd(const CursorPosition& at) {
  // Another cursor's re-read may move this one: read the state under the lock.
  Guard guard(mu_);
  return at.state == CursorPosition::kNone || at.state == CursorPosition::kEof;
}

bool CachedFile::OnNew(const CursorPosition& at) {
  Guard guard(mu_);
  return at.state == CursorPosition::kNew;
}

void CachedFile::New(CursorPosition& at, dd::Record& fields) {
  Guard guard(mu_);
  Check();
  ClearFields(fields);
  at.state = CursorPosition::kNew;
  at.from_create = false;
  at.loaded.assign(fields.FieldCount(), std::string());
  at.loaded_raw = false;
}

void CachedFile::Create(CursorPosition& at, dd::Record& fields, const std::string& key) {
  if (HasLineEnd(key)) Refuse("a key cannot hold a line end");
  Guard guard(mu_);
  Check();
  const std::int32_t r = store_.Find(at.view, key);
  if (r >= 0) {
    MoveTo(at, fields, r);
    return;
  }
  ClearFields(fields);
  at.loaded.assign(fields.FieldCount(), std::string());
  at.loaded_raw = false;
  at.state = CursorPosition::kNone;
  dd::Field& key_field = fields.FieldAt(0);
  key_field.Set(key);
  at.loaded[0] = key_field.Str();
  at.state = CursorPosition::kNew;
  at.from_create = true;
}

void CachedFile::Post(CursorPosition& at, HeadDataSet& head, const std::string& note,
                      const CursorPosition* other) {
  Guard guard(mu_);
  switch (at.state) {
    case CursorPosition::kOnRecord:
      Check();
      if (at.state == CursorPosition::kLost) Lost(at);
      Update(at, head, note);
      return;
    case CursorPosition::kNew: {
      Check();
      if (at.from_create) {
        // Created while the key was missing: if someone added it since,
        // this post changes that record instead of adding a second one.
        const dd::Record& fields = head;
        const std::int32_t r = store_.Find(at.view, fields.FieldAt(0).Str());
        if (r >= 0) {
          at.state = CursorPosition::kOnRecord;
          at.record = r;
          Update(at, head, note);
          return;
        }
      }
      std::int32_t after = -1;
      if (other != nullptr && other->state == CursorPosition::kOnRecord) {
        const std::int32_t line = store_.record(other->record).line;
        after = line;
        for (std::int32_t k = store_.BlockSize(line); k > 1; --k) after = store_.line(after).next;
      }
      Insert(at, head, note, after);
      return;
    }
    case CursorPosition::kLost:
      Lost(at);
    default:
      Refuse("no current record to post");
  }
}

bool CachedFile::Delete(CursorPosition& at, bool must_exist) {
  Guard guard(mu_);
  return DeleteLocked(at, must_exist, false);
}

bool CachedFile::DeleteKey(CursorPosition& at, dd::Record& fields, const std::string& key) {
  Guard guard(mu_);
  if (!FindLocked(at, fields, key)) return false;
  // Find has just made the disk check.
  return DeleteLocked(at, true, true);
}

bool CachedFile::DeleteLocked(CursorPosition& at, bool must_exist, bool checked) {
  if (at.state == CursorPosition::kLost) Lost(at);
  if (at.state != CursorPosition::kOnRecord) {
    if (must_exist) Refuse("no current record to delete");
    return false;
  }
  if (!checked) Check();
  if (at.state == CursorPosition::kLost) Lost(at);
  const std::int32_t line = store_.record(at.record).line;
  Store::Edit edit;
  edit.kind = Store::Edit::kRemove;
  edit.line = line;
  edit.count = store_.BlockSize(line);
  Commit(edit, std::string(), {std::string(store_.Key(at.record))}, [&] {
    const std::int32_t next = store_.RemoveLines(edit.line, edit.count);
    for (CursorPosition* x : cursors_) {
      if (x->state == CursorPosition::kOnRecord && !store_.record(x->record).alive) {
        x->state = CursorPosition::kAfterDelete;
        x->next_line = next;
      } else if (x->state == CursorPosition::kAfterDelete && x->next_line >= 0 &&
                 !store_.LineAlive(x->next_line)) {
        x->next_line = next;
      }
    }
  });
  return true;
}

void CachedFile::Update(CursorPosition& at, HeadDataSet& head, const std::string& note) {
  dd::Record& fields = head;
  const std::size_t n = fields.FieldCount();
  if (at.loaded_raw) {
    for (std::size_t i = 0; i < n; ++i) at.loaded[i] = fields.FieldAt(i).Canonical(at.loaded[i]);
    at.loaded_raw = false;
  }
  std::vector<bool> changed(n);
  bool any = false;
  for (std::size_t i = 0; i < n; ++i) {
    changed[i] = fields.FieldAt(i).Str() != at.loaded[i];
    any = any || changed[i];
  }
  if (!any) {
    // Posting an unchanged record still saves the file as it is (and runs
    // the after-save step): callers post to have the table brought up to date.
    Store::Edit edit;
    edit.kind = Store::Edit::kUpdate;
    edit.line = store_.record(at.record).line;
    edit.text = std::string(store_.LineText(edit.line));
    Commit(edit, note, {std::string(store_.Key(at.record))}, [] {});
    return;
  }
  // What the cursor did not change is taken from the copy, which may be
  // newer than what the cursor read.
  for (std::size_t i = 0; i < n; ++i)
    if (!changed[i]) fields.FieldAt(i).Load(store_.Value(at.record, i));
  std::vector<std::string> want(n);
  for (std::size_t i = 0; i < n; ++i) want[i] = fields.FieldAt(i).Str();

  Store::Edit edit;
  edit.kind = Store::Edit::kUpdate;
  edit.line = store_.record(at.record).line;
  ParsedRecord parsed;
  std::string why;
  const LineWriter writer(store_, *def_, views_);
  if (!writer.Rewrite(at.record, at.view, head, changed, want, edit.text, parsed, why))
    Refuse("record '" + std::string(store_.Key(at.record)) + "': " + why);

  const std::int32_t record = at.record;
  std::vector<std::string> keys{std::string(store_.Key(record))};
  if (keys[0] != want[0]) keys.push_back(want[0]);
  Commit(edit, note, keys, [&] { store_.UpdateRecord(record, edit.text, parsed); });
  at.loaded = std::move(want);
  at.loaded_raw = false;
}

void CachedFile::Insert(CursorPosition& at, HeadDataSet& head, const std::string& note,
                        std::int32_t after) {
  const dd::Record& fields = head;
  const std::size_t n = fields.FieldCount();
  std::vector<std::string> want(n);
  for (std::size_t i = 0; i < n; ++i) want[i] = fields.FieldAt(i).Str();
  const LineWriter writer(store_, *def_, views_);
  Store::Edit edit;
  edit.kind = Store::Edit::kInsert;
  edit.line = writer.InsertPoint(after);
  ParsedRecord parsed;
  std::string why;
  if (!writer.NewLine(at.view, head, want, edit.text, parsed, why))
    Refuse("new record '" + want[0] + "': " + why);
  Commit(edit, note, {want[0]}, [&] {
    // The cursor moves onto the new record as part of the change, so that a
    // rebuilt copy carries it along.
    at.record = store_.InsertRecord(edit.line, edit.text, parsed);
    at.state = CursorPosition::kOnRecord;
    at.from_create = false;
  });
  at.loaded = std::move(want);
  at.loaded_raw = false;
}

// ------------------------------------------------------------ saving

void CachedFile::NoteKeys(const std::vector<std::string>& keys) {
  for (const std::string& key : keys)
    if (changed_seen_.insert(key).second) changed_.push_back(key);
}

template <class Apply>
void CachedFile::Commit(const Store::Edit& edit, const std::string& note,
                        const std::vector<std::string>& keys, Apply&& apply) {
  if (engine_.impl_->deferred) {
    apply();
    version_ = NextVersion();
    dirty_ = true;
    if (!note.empty()) notes_.push_back(note);
    NoteKeys(keys);
    if (NeedsCompact()) Compact(store_.Text());
    return;
  }
  {
    // The file is written from the copy's own buffers, the edit in between:
    // one pass over the bytes, nothing joined first.
    std::vector<std::string_view> pieces;
    store_.Pieces(&edit, pieces);
    pnl_file::safe::Folder folder;
    const pnl_file::FileId id = pnl_file::safe::WriteFile(folder, path_, pieces, id_.exists ? &id_ : nullptr);
    apply();
    version_ = NextVersion();
    id_ = id;
  }
  if (NeedsCompact()) Compact(store_.Text());
  std::vector<std::string> notes = std::move(notes_);
  notes_.clear();
  if (!note.empty()) notes.push_back(note);
  NoteKeys(keys);
  std::vector<std::string> changed = TakeChangedKeys();
  dirty_ = false;
  RunHook(ConfCache::kSavePosted, notes, changed);
}

std::vector<std::string> CachedFile::TakeChangedKeys() {
  std::vector<std::string> changed = std::move(changed_);
  changed_.clear();
  changed_seen_.clear();
  return changed;
}

void CachedFile::Flush() {
  if (!dirty_) return;
  if (!pnl_file::StatFile(path_).SameContent(id_))
    Refuse("changed on disk since the deferred changes were made; not overwritten "
           "(discard the deferred changes to read it again)");
  std::vector<std::string_view> pieces;
  store_.Pieces(nullptr, pieces);
  pnl_file::safe::Folder folder;
  const pnl_file::FileId id = pnl_file::safe::WriteFile(folder, path_, pieces, id_.exists ? &id_ : nullptr);
  id_ = id;
  std::vector<std::string> notes = std::move(notes_);
  notes_.clear();
  std::vector<std::string> changed = TakeChangedKeys();
  dirty_ = false;
  RunHook(ConfCache::kSaveDeferred, notes, changed);
}

void CachedFile::Compact(std::string text) {
  // The identity stays that of the disk file: a dirty copy stays dirty.
  const pnl_file::FileId id = id_;
  Install(std::move(text), id, def_);
}

void CachedFile::Discard() noexcept {
  dirty_ = false;
  notes_.clear();
  changed_.clear();
  changed_seen_.clear();
  stale_ = true;
}

void CachedFile::RunHook(ConfCache::SaveReason reason, const std::vector<std::string>& notes,
                         const std::vector<std::string>& changed) {
  const HookSlot hook = engine_.impl_->Hook(table_);
  if (hook.object == nullptr || hook.member == nullptr) return;
  ConfRef ref(shared_from_this());
  ref.notes_ = &notes;
  ref.changed_keys_ = &changed;
  ConfCache::SaveReason r = reason;
  (hook.object->*hook.member)(ref, r);
}

}  // namespace zel_conf
