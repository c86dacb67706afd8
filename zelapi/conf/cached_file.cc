#include "cached_file.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "zelapi/conf/parse_context.h"
#include "zelapi/err.h"

namespace zel_conf {

namespace {

bool HasLineEnd(const std::string& text) {
  return std::memchr(text.data(), '\n', text.size()) != nullptr ||
         std::memchr(text.data(), '\r', text.size()) != nullptr;
}

// Lines of text, the last one counted also without its line end.
std::size_t CountLines(std::string_view text) {
  std::size_t lines = 1;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p < end) {
    const void* nl = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
    if (nl == nullptr) break;
    ++lines;
    p = static_cast<const char*>(nl) + 1;
  }
  return lines;
}

// The bytes of a logical line as its lines joined: without its line ends
// and, where a backslash joins lines, the backslash before a joined one.
std::size_t JoinedSize(std::string_view text, bool backslash) {
  std::size_t size = text.size();
  for (std::size_t p = 0; p < text.size(); ++p) {
    if (text[p] != '\n') continue;
    --size;
    if (backslash && p > 0 && p + 1 < text.size() && text[p - 1] == '\\') --size;
  }
  return size;
}

// Whether a logical line takes in the line after it: it ends in a backslash
// (before its line end, or before the end of the file).
bool JoinsNext(std::string_view text, const pnl_token::Params& rules) {
  if (!rules.BackslashJoins()) return false;
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  return !text.empty() && text.back() == '\\';
}

std::string Shown(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

CachedFile::CachedFile(ConfCache& engine, std::string path, std::string table)
    : engine_(engine), path_(std::move(path)), table_(std::move(table)) {}

CachedFile::~CachedFile() = default;

[[noreturn]] void CachedFile::Refuse(const std::string& why) const {
  throw pnl_err::Error("conf", path_, why);
}

[[noreturn]] void CachedFile::Lost(const ConfDataSet& c) const {
  Refuse("record '" + c.lost_key_ +
         "' was changed or removed on disk by someone else since it was read; read it again");
}

// ------------------------------------------------------------ loading

CachedFile::Parsers CachedFile::MakeParsers(const TableDef& def) {
  Parsers parsers;
  for (const TableDef::View& view : def.views) {
    parsers.emplace_back(view.factory());
    const dd::Record& record = *parsers.back();
    if (record.FieldCount() == 0)
      throw pnl_err::Error("conf", view.label, "a record view needs at least its key field");
  }
  return parsers;
}

int CachedFile::Claim(Cf& cf, const Parsers& parsers) {
  const pnl_token::Token::Type first = cf.token_type();
  if (first == pnl_token::Token::LineEnd || first == pnl_token::Token::End) return -1;
  for (std::size_t v = 0; v < parsers.size(); ++v) {
    cf.Rewind();
    cf.Offer(parsers[v].get());
    bool claimed;
    try {
      claimed = parsers[v]->Parse(cf);
    } catch (const std::exception&) {
      claimed = false;
    }
    if (claimed) return static_cast<int>(v);
  }
  cf.Rewind();
  return -1;
}

void CachedFile::Load() {
  std::shared_ptr<const TableDef> def = engine_.impl_->Table(table_);
  std::string data;
  pnl_file::FileId id;
  if (!pnl_file::ReadFile(path_, data, id)) {
    data.clear();
    id = pnl_file::FileId();
  }
  Install(std::move(data), id, std::move(def));
}

namespace {

// Content versions are drawn from one counter of the process, so a copy
// dropped from the cache and read again never repeats an earlier number.
std::uint64_t NextVersion() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

}  // namespace

void CachedFile::Install(std::string data, const pnl_file::FileId& id,
                         std::shared_ptr<const TableDef> def) {
  Parsers parsers = MakeParsers(*def);
  std::vector<std::size_t> counts;
  for (const auto& p : parsers) {
    const dd::Record& record = *p;
    counts.push_back(record.FieldCount());
  }
  Store fresh;
  fresh.Reset(std::move(data), counts, def->fold_keys);
  const std::string& text = fresh.base();
  fresh.ReserveLines(CountLines(text));
  Cf cf(text, *def->rules);
  while (cf.NextLine()) {
    const std::int32_t line = fresh.AppendLine(cf.line_offset(), cf.line_end() - cf.line_offset());
    const int view = Claim(cf, parsers);
    if (view >= 0 && cf.stored()) fresh.AddRecord(line, cf.line_offset(), cf, view);
  }
  fresh.IndexAll();
  if (loaded_) Relocate(fresh, *def);
  store_ = std::move(fresh);
  parsers_ = std::move(parsers);
  def_ = std::move(def);
  id_ = id;
  version_ = NextVersion();
  loaded_ = true;
  stale_ = false;
}

void CachedFile::Relocate(const Store& fresh, const TableDef& def) {
  for (ConfDataSet* c : cursors_) {
    const int view = def.ViewIndex(def_->views[static_cast<std::size_t>(c->view_)].rname);
    if (c->state_ == ConfDataSet::kOnRecord) {
      const std::string key(store_.Key(c->record_));
      const std::int32_t r = fresh.FindNth(view, key, store_.Occurrence(c->record_));
      if (r >= 0) {
        c->record_ = r;
      } else {
        c->state_ = ConfDataSet::kLost;
        c->lost_key_ = key;
      }
    } else if (c->state_ == ConfDataSet::kAfterDelete && c->next_line_ >= 0) {
      const std::int32_t old = store_.RecordFrom(c->view_, c->next_line_);
      if (old < 0) {
        c->next_line_ = -1;
      } else {
        const std::string key(store_.Key(old));
        const std::int32_t r = fresh.FindNth(view, key, store_.Occurrence(old));
        if (r >= 0) {
          c->next_line_ = fresh.record(r).line;
        } else {
          c->state_ = ConfDataSet::kLost;
          c->lost_key_ = key;
        }
      }
    }
    c->view_ = view;
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
    if (view < 0) throw pnl_err::Error("conf", rname, "is not a record view of table " + table_);
  }
  SmartPtr<HeadDataSet> head(def_->views[static_cast<std::size_t>(view)].factory());
  ConfDataSet& c = *head;
  const dd::Record& record = *head;
  const dd::Record& parser = *parsers_[static_cast<std::size_t>(view)];
  if (record.FieldCount() != parser.FieldCount())
    throw pnl_err::Error("conf", rname, "made a view with another number of fields");
  c.file_ = shared_from_this();
  c.head_ = head.get();
  c.view_ = view;
  c.state_ = ConfDataSet::kNone;
  c.loaded_.assign(record.FieldCount(), std::string());
  c.loaded_raw_ = false;
  cursors_.push_back(&c);
  return head;
}

void CachedFile::Unbind(ConfDataSet& cursor) noexcept {
  auto it = std::find(cursors_.begin(), cursors_.end(), &cursor);
  if (it != cursors_.end()) cursors_.erase(it);
}

void CachedFile::Position(ConfDataSet& c, std::int32_t record) {
  c.state_ = ConfDataSet::kOnRecord;
  c.record_ = record;
  c.from_create_ = false;
  const std::size_t n = c.FieldCount();
  c.loaded_.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    const std::string_view stored = store_.Value(record, i);
    c.FieldAt(i).Load(stored);
    c.loaded_[i].assign(stored.data(), stored.size());
  }
  c.loaded_raw_ = true;
}

bool CachedFile::Find(ConfDataSet& c, const std::string& key) {
  Check();
  const std::int32_t r = store_.Find(c.view_, key);
  if (r < 0) {
    c.state_ = ConfDataSet::kNone;
    c.ClearFields();
    return false;
  }
  Position(c, r);
  return true;
}

void CachedFile::First(ConfDataSet& c) {
  Check();
  const std::int32_t r = store_.RecordFrom(c.view_, store_.head());
  if (r < 0)
    c.state_ = ConfDataSet::kEof;
  else
    Position(c, r);
}

void CachedFile::Next(ConfDataSet& c) {
  std::int32_t r = -1;
  switch (c.state_) {
    case ConfDataSet::kOnRecord:
      r = store_.RecordFrom(c.view_, store_.line(store_.record(c.record_).line).next);
      break;
    case ConfDataSet::kAfterDelete:
      r = store_.RecordFrom(c.view_, c.next_line_);
      break;
    case ConfDataSet::kEof:
      return;
    case ConfDataSet::kLost:
      Lost(c);
    default:
      Refuse("Next without a current record");
  }
  if (r < 0)
    c.state_ = ConfDataSet::kEof;
  else
    Position(c, r);
}

void CachedFile::New(ConfDataSet& c) {
  Check();
  c.ClearFields();
  c.state_ = ConfDataSet::kNew;
  c.from_create_ = false;
  c.loaded_.assign(c.FieldCount(), std::string());
  c.loaded_raw_ = false;
}

void CachedFile::Create(ConfDataSet& c, const std::string& key) {
  if (HasLineEnd(key)) Refuse("a key cannot hold a line end");
  Check();
  const std::int32_t r = store_.Find(c.view_, key);
  if (r >= 0) {
    Position(c, r);
    return;
  }
  c.ClearFields();
  c.loaded_.assign(c.FieldCount(), std::string());
  c.loaded_raw_ = false;
  c.state_ = ConfDataSet::kNone;
  dd::Field& key_field = c.FieldAt(0);
  key_field.Set(key);
  c.loaded_[0] = key_field.Str();
  c.state_ = ConfDataSet::kNew;
  c.from_create_ = true;
}

void CachedFile::Post(ConfDataSet& c, const std::string& note, ConfDataSet* other) {
  switch (c.state_) {
    case ConfDataSet::kOnRecord:
      Check();
      if (c.state_ == ConfDataSet::kLost) Lost(c);
      Update(c, note);
      return;
    case ConfDataSet::kNew: {
      Check();
      if (c.from_create_) {
        // Created while the key was missing: if someone added it since,
        // this post changes that record instead of adding a second one.
        const std::int32_t r = store_.Find(c.view_, c.FieldAt(0).Str());
        if (r >= 0) {
          c.state_ = ConfDataSet::kOnRecord;
          c.record_ = r;
          Update(c, note);
          return;
        }
      }
      std::int32_t after = -1;
      if (other != nullptr && other->state_ == ConfDataSet::kOnRecord) {
        const std::int32_t line = store_.record(other->record_).line;
        after = line;
        for (std::int32_t k = store_.BlockSize(line); k > 1; --k) after = store_.line(after).next;
      }
      Insert(c, note, after);
      return;
    }
    case ConfDataSet::kLost:
      Lost(c);
    default:
      Refuse("no current record to post");
  }
}

bool CachedFile::Delete(ConfDataSet& c, bool must_exist, bool checked) {
  if (c.state_ == ConfDataSet::kLost) Lost(c);
  if (c.state_ != ConfDataSet::kOnRecord) {
    if (must_exist) Refuse("no current record to delete");
    return false;
  }
  if (!checked) Check();
  if (c.state_ == ConfDataSet::kLost) Lost(c);
  const std::int32_t line = store_.record(c.record_).line;
  Store::Edit edit;
  edit.kind = Store::Edit::kRemove;
  edit.line = line;
  edit.count = store_.BlockSize(line);
  Commit(edit, std::string(), {std::string(store_.Key(c.record_))}, [&] {
    const std::int32_t next = store_.RemoveLines(edit.line, edit.count);
    for (ConfDataSet* x : cursors_) {
      if (x->state_ == ConfDataSet::kOnRecord && !store_.record(x->record_).alive) {
        x->state_ = ConfDataSet::kAfterDelete;
        x->next_line_ = next;
      } else if (x->state_ == ConfDataSet::kAfterDelete && x->next_line_ >= 0 &&
                 !store_.LineAlive(x->next_line_)) {
        x->next_line_ = next;
      }
    }
  });
  return true;
}

// ------------------------------------------------------------ writing

bool CachedFile::SpanEdit(const ConfDataSet& c, const std::vector<bool>& changed,
                          std::string& text) const {
  struct Piece {
    std::uint32_t start, size;
    std::size_t field;
  };
  std::vector<Piece> pieces;
  for (std::size_t i = 0; i < changed.size(); ++i) {
    if (!changed[i]) continue;
    const FieldSlot& s = store_.Slot(c.record_, i);
    if (s.start == FieldSlot::kNoSpan || s.size == 0) return false;
    pieces.push_back(Piece{s.start, s.size, i});
  }
  std::sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) { return a.start < b.start; });
  const std::string_view line = store_.LineText(store_.record(c.record_).line);
  text.clear();
  std::size_t at = 0;
  for (const Piece& p : pieces) {
    if (p.start < at || p.start + p.size > line.size()) return false;  // overlapping spans
    text.append(line.substr(at, p.start - at));
    text.append(c.FieldAt(p.field).Str());
    at = p.start + p.size;
  }
  text.append(line.substr(at));
  return true;
}

std::string CachedFile::Template(ConfDataSet& c, bool keep_missing_line_end) const {
  std::string text = c.head_->NewRecordTemplate();
  if (text.empty() || text.back() != '\n') text += '\n';
  if (keep_missing_line_end) text.pop_back();
  return text;
}

bool CachedFile::ReadBack(int view, const std::string& text, const std::vector<std::string>& want,
                          ParsedRecord& parsed, std::string& why) const {
  const pnl_token::Params& rules = *def_->rules;
  // Where lines continue each other, a line that continues nothing is put
  // after the text: a text ending in a backslash would take it in, as it
  // would take in the line that follows it in the file.
  std::string probe = text;
  const bool followed = rules.HasContinuation() && !text.empty() && text.back() == '\n';
  if (followed) probe += "-\n";
  Cf cf(probe, rules);
  if (!cf.NextLine() || cf.line_end() != text.size()) {
    why = followed && cf.line_end() > text.size() ? "the record would take in the line after it"
                                                   : "the record would not be one line";
    return false;
  }
  if (rules.LongestLineBytes() > 0) {
    const std::size_t bytes = JoinedSize(text, rules.BackslashJoins());
    if (bytes > rules.LongestLineBytes()) {
      why = "the line would be " + std::to_string(bytes) + " bytes, over the longest the file takes (" +
            std::to_string(rules.LongestLineBytes()) + " bytes)";
      return false;
    }
  }
  const int claimed = Claim(cf, parsers_);
  if (claimed != view || !cf.stored()) {
    why = "the line '" + Shown(text) + "' would not read back as a record of " +
          def_->views[static_cast<std::size_t>(view)].label;
    return false;
  }
  const dd::Record& parser = *parsers_[static_cast<std::size_t>(view)];
  for (std::size_t i = 0; i < want.size(); ++i) {
    const dd::Field& f = parser.FieldAt(i);
    const std::string back = f.Canonical(cf.stored_value(i));
    if (back != want[i]) {
      why = "field " + f.Name() + " '" + want[i] + "' would read back as '" + back + "'";
      return false;
    }
  }
  TakeParsed(cf, 0, view, parsed);
  return true;
}

void CachedFile::Update(ConfDataSet& c, const std::string& note) {
  const std::size_t n = c.FieldCount();
  if (c.loaded_raw_) {
    for (std::size_t i = 0; i < n; ++i) c.loaded_[i] = c.FieldAt(i).Canonical(c.loaded_[i]);
    c.loaded_raw_ = false;
  }
  std::vector<bool> changed(n);
  bool any = false;
  for (std::size_t i = 0; i < n; ++i) {
    changed[i] = c.FieldAt(i).Str() != c.loaded_[i];
    any = any || changed[i];
  }
  if (!any) {
    // Posting an unchanged record still saves the file as it is (and runs
    // the after-save step): callers post to have the table brought up to date.
    Store::Edit edit;
    edit.kind = Store::Edit::kUpdate;
    edit.line = store_.record(c.record_).line;
    edit.text = std::string(store_.LineText(edit.line));
    Commit(edit, note, {std::string(store_.Key(c.record_))}, [] {});
    return;
  }
  // What the cursor did not change is taken from the copy, which may be
  // newer than what the cursor read.
  for (std::size_t i = 0; i < n; ++i)
    if (!changed[i]) c.FieldAt(i).Load(store_.Value(c.record_, i));
  std::vector<std::string> want(n);
  for (std::size_t i = 0; i < n; ++i) want[i] = c.FieldAt(i).Str();

  const std::int32_t line = store_.record(c.record_).line;
  const std::string_view old_text = store_.LineText(line);
  const bool no_line_end = old_text.empty() || old_text.back() != '\n';
  // A record over several lines is written anew as one line: what a span
  // edit kept of its continuation lines would join the new text.
  const bool one_line = old_text.find('\n') >= old_text.size() - (no_line_end ? 0 : 1);
  std::string text;
  ParsedRecord parsed;
  std::string why;
  bool ok = one_line && SpanEdit(c, changed, text) && ReadBack(c.view_, text, want, parsed, why);
  if (!ok) {
    text = Template(c, no_line_end);
    ok = ReadBack(c.view_, text, want, parsed, why);
  }
  if (!ok) Refuse("record '" + std::string(store_.Key(c.record_)) + "': " + why);

  Store::Edit edit;
  edit.kind = Store::Edit::kUpdate;
  edit.line = line;
  edit.text = text;
  const std::int32_t record = c.record_;
  std::vector<std::string> keys{std::string(store_.Key(record))};
  if (keys[0] != want[0]) keys.push_back(want[0]);
  Commit(edit, note, keys, [&] { store_.UpdateRecord(record, edit.text, parsed); });
  c.loaded_ = std::move(want);
  c.loaded_raw_ = false;
}

void CachedFile::Insert(ConfDataSet& c, const std::string& note, std::int32_t after) {
  const std::size_t n = c.FieldCount();
  std::vector<std::string> want(n);
  for (std::size_t i = 0; i < n; ++i) want[i] = c.FieldAt(i).Str();
  // A line that ends in a backslash would take the new line in: the new
  // line goes before it instead (the line before that one cannot end in a
  // backslash, or the two would be one line).
  const std::int32_t before = after < 0 ? store_.tail() : after;
  if (before >= 0 && JoinsNext(store_.LineText(before), *def_->rules)) {
    const std::int32_t prev = store_.line(before).prev;
    after = prev >= 0 ? prev : Store::kAtStart;
  }
  Store::Edit edit;
  edit.kind = Store::Edit::kInsert;
  edit.line = after;
  edit.text = Template(c, false);
  ParsedRecord parsed;
  std::string why;
  if (!ReadBack(c.view_, edit.text, want, parsed, why))
    Refuse("new record '" + want[0] + "': " + why);
  Commit(edit, note, {want[0]}, [&] {
    // The cursor moves onto the new record as part of the change, so that a
    // rebuilt copy carries it along.
    c.record_ = store_.InsertRecord(edit.line, edit.text, parsed);
    c.state_ = ConfDataSet::kOnRecord;
    c.from_create_ = false;
  });
  c.loaded_ = std::move(want);
  c.loaded_raw_ = false;
}

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
