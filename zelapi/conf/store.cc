#include "store.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "zelapi/conf/parse_context.h"
#include "zelapi/err.h"
#include "zelapi/hash.h"

namespace zel_conf {

namespace {

constexpr std::int32_t kDeadLine = -2;

std::uint32_t Narrow(std::size_t v, const char* what) {
  if (v >= FieldSlot::kNoSpan) throw pnl_err::Error(pnl_err::Kind::kConf, what, "line too long");
  return static_cast<std::uint32_t>(v);
}

}  // namespace

void TakeParsed(const Cf& cf, std::size_t line_start, int view, ParsedRecord& out) {
  out.view = view;
  const std::size_t n = cf.stored_count();
  out.slots.assign(n, FieldSlot());
  out.values.clear();
  for (std::size_t i = 0; i < n; ++i) {
    const Cf::Cached& c = cf.stored_field(i);
    FieldSlot& s = out.slots[i];
    if (c.has_span) {
      s.start = Narrow(c.start - line_start, "field");
      s.size = Narrow(c.size, "field");
    }
    if (c.own) {
      s.value = static_cast<std::int32_t>(out.values.size());
      out.values.push_back(c.value);
    }
  }
}

// ---------------------------------------------------------------- KeyIndex

void KeyIndex::Clear() {
  slots_.clear();
  used_ = live_ = 0;
}

void KeyIndex::Reserve(std::size_t records) {
  std::size_t capacity = 16;
  while (capacity < records * 2) capacity *= 2;
  if (capacity > slots_.size()) Grow(capacity);
}

void KeyIndex::Grow(std::size_t capacity) {
  std::vector<Entry> old(capacity, Entry{0, kEmpty});
  old.swap(slots_);
  used_ = live_ = 0;
  const std::size_t mask = capacity - 1;
  for (const Entry& e : old) {
    if (e.record < 0) continue;
    std::size_t i = e.hash & mask;
    while (slots_[i].record != kEmpty) i = (i + 1) & mask;
    slots_[i] = e;
    ++used_;
    ++live_;
  }
}

void KeyIndex::Insert(std::uint32_t hash, std::int32_t record) {
  if ((used_ + 1) * 2 > slots_.size()) {
    // Rehash (dropping tombstones) to a load of at most a quarter.
    std::size_t capacity = slots_.empty() ? 16 : slots_.size();
    while ((live_ + 1) * 4 > capacity) capacity *= 2;
    Grow(capacity);
  }
  const std::size_t mask = slots_.size() - 1;
  std::size_t i = hash & mask;
  while (slots_[i].record >= 0) i = (i + 1) & mask;
  if (slots_[i].record == kEmpty) ++used_;
  slots_[i] = Entry{hash, record};
  ++live_;
}

void KeyIndex::Erase(std::uint32_t hash, std::int32_t record) {
  if (slots_.empty()) return;
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    if (slots_[i].record == kEmpty) return;
    if (slots_[i].record == record) {
      slots_[i].record = kGone;
      --live_;
      return;
    }
  }
}

// ------------------------------------------------------------------- Store

namespace {

inline unsigned char LowerByte(unsigned char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

}  // namespace

// The low bits are the ones the index uses; the platform's hash spreads
// every input bit over them.
std::uint32_t Store::Hash(std::string_view key) {
  return static_cast<std::uint32_t>(pnl_hash::Hash64(key));
}

std::uint32_t Store::FoldedHash(std::string_view key) {
  return static_cast<std::uint32_t>(pnl_hash::Hash64Folded(key));
}

bool Store::FoldedEqual(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  if (a == b) return true;  // the usual case: the same spelling
  const char* p = a.data();
  const char* q = b.data();
  std::size_t n = a.size();
  for (; n >= 8; p += 8, q += 8, n -= 8) {
    std::uint64_t x, y;
    std::memcpy(&x, p, 8);
    std::memcpy(&y, q, 8);
    if (x != y && pnl_hash::LowerWord(x) != pnl_hash::LowerWord(y)) return false;
  }
  for (std::size_t i = 0; i < n; ++i)
    if (LowerByte(static_cast<unsigned char>(p[i])) != LowerByte(static_cast<unsigned char>(q[i])))
      return false;
  return true;
}

void Store::Reset(std::string base, const std::vector<std::size_t>& view_fields, bool fold_keys) {
  fold_ = fold_keys;
  base_ = std::move(base);
  edits_.clear();
  lines_.clear();
  head_ = tail_ = -1;
  records_.clear();
  slots_.clear();
  values_.clear();
  view_fields_ = view_fields;
  index_.assign(view_fields.size(), KeyIndex());
}

void Store::ReserveLines(std::size_t lines) {
  lines_.reserve(lines);
  records_.reserve(lines);
  std::size_t most = 0;
  for (std::size_t n : view_fields_) most = std::max(most, n);
  slots_.reserve(lines * most);
}

std::int32_t Store::AppendLine(std::size_t off, std::size_t size) {
  const std::int32_t id = static_cast<std::int32_t>(lines_.size());
  Line l;
  l.order = (tail_ < 0 ? 0 : line(tail_).order) + kGap;
  l.off = off;
  l.size = Narrow(size, "line");
  l.prev = tail_;
  l.next = -1;
  l.record = -1;
  lines_.push_back(l);
  if (tail_ >= 0)
    lines_[static_cast<std::size_t>(tail_)].next = id;
  else
    head_ = id;
  tail_ = id;
  return id;
}

void Store::StoreFields(std::uint32_t slot, const ParsedRecord& parsed) {
  for (std::size_t i = 0; i < parsed.slots.size(); ++i) {
    FieldSlot s = parsed.slots[i];
    if (s.value >= 0) {
      values_.push_back(parsed.values[static_cast<std::size_t>(s.value)]);
      s.value = static_cast<std::int32_t>(values_.size() - 1);
    }
    slots_[slot + i] = s;
  }
}

void Store::AddRecord(std::int32_t line_id, const ParsedRecord& parsed, bool index) {
  const std::size_t n = view_fields_[static_cast<std::size_t>(parsed.view)];
  RecordInfo r;
  r.line = line_id;
  r.view = static_cast<std::uint16_t>(parsed.view);
  r.alive = true;
  r.slot = static_cast<std::uint32_t>(slots_.size());
  slots_.resize(slots_.size() + n);
  StoreFields(r.slot, parsed);
  const std::int32_t id = static_cast<std::int32_t>(records_.size());
  records_.push_back(r);
  lines_[static_cast<std::size_t>(line_id)].record = id;
  RecordInfo& stored = records_.back();
  stored.hash = KeyHash(n > 0 ? Key(id) : std::string_view());
  if (index) index_[stored.view].Insert(stored.hash, id);
}

void Store::AddRecord(std::int32_t line_id, std::size_t line_start, const Cf& cf, int view) {
  const std::size_t n = view_fields_[static_cast<std::size_t>(view)];
  const std::size_t stored = std::min(n, cf.stored_count());
  RecordInfo r;
  r.line = line_id;
  r.view = static_cast<std::uint16_t>(view);
  r.alive = true;
  r.slot = static_cast<std::uint32_t>(slots_.size());
  slots_.resize(slots_.size() + n);
  for (std::size_t i = 0; i < stored; ++i) {
    const Cf::Cached& c = cf.stored_field(i);
    FieldSlot& s = slots_[r.slot + i];
    if (c.has_span) {
      s.start = Narrow(c.start - line_start, "field");
      s.size = Narrow(c.size, "field");
    }
    if (c.own) {
      s.value = static_cast<std::int32_t>(values_.size());
      values_.push_back(c.value);
    }
  }
  const std::int32_t id = static_cast<std::int32_t>(records_.size());
  records_.push_back(r);
  lines_[static_cast<std::size_t>(line_id)].record = id;
  records_.back().hash = KeyHash(n > 0 ? Key(id) : std::string_view());
}

void Store::IndexAll() {
  std::vector<std::size_t> counts(index_.size(), 0);
  for (const RecordInfo& r : records_)
    if (r.alive) ++counts[r.view];
  for (std::size_t v = 0; v < index_.size(); ++v) {
    index_[v].Clear();
    index_[v].Reserve(counts[v]);
  }
  // The slots a record lands in are scattered over the index: ask for the
  // slot of a record some way ahead while inserting this one.
  constexpr std::size_t kAhead = 16;
  const std::size_t n = records_.size();
  for (std::size_t id = 0; id < n; ++id) {
    if (id + kAhead < n) {
      const RecordInfo& ahead = records_[id + kAhead];
      index_[ahead.view].Prefetch(ahead.hash);
    }
    const RecordInfo& r = records_[id];
    if (r.alive) index_[r.view].Insert(r.hash, static_cast<std::int32_t>(id));
  }
}

std::string_view Store::LineText(std::int32_t id) const {
  const Line& l = line(id);
  if (l.off & kEdited) return std::string_view(edits_).substr(l.off & ~kEdited, l.size);
  return std::string_view(base_).substr(l.off, l.size);
}

bool Store::LineAlive(std::int32_t id) const { return id >= 0 && line(id).record != kDeadLine; }

std::string_view Store::Value(std::int32_t record_id, std::size_t field) const {
  const RecordInfo& r = record(record_id);
  const FieldSlot& s = slots_[r.slot + field];
  if (s.value >= 0) return values_[static_cast<std::size_t>(s.value)];
  if (s.start == FieldSlot::kNoSpan) return std::string_view();
  return LineText(r.line).substr(s.start, s.size);
}

std::int32_t Store::Find(int view, std::string_view key) const {
  std::int32_t best = -1;
  index_[static_cast<std::size_t>(view)].ForEach(KeyHash(key), [&](std::int32_t r) {
    ++key_compares_;
    if (!SameKey(Key(r), key)) return;
    if (best < 0 || Before(record(r).line, record(best).line)) best = r;
  });
  return best;
}

std::size_t Store::Occurrence(std::int32_t record_id) const {
  const RecordInfo& me = record(record_id);
  const std::string_view key = Key(record_id);
  std::size_t n = 0;
  index_[me.view].ForEach(me.hash, [&](std::int32_t r) {
    ++key_compares_;
    if (r != record_id && SameKey(Key(r), key) && Before(record(r).line, me.line)) ++n;
  });
  return n;
}

std::int32_t Store::FindNth(int view, std::string_view key, std::size_t n) const {
  std::vector<std::int32_t> found;
  index_[static_cast<std::size_t>(view)].ForEach(KeyHash(key), [&](std::int32_t r) {
    ++key_compares_;
    if (SameKey(Key(r), key)) found.push_back(r);
  });
  if (n >= found.size()) return -1;
  std::sort(found.begin(), found.end(),
            [&](std::int32_t a, std::int32_t b) { return Before(record(a).line, record(b).line); });
  return found[n];
}

std::int32_t Store::RecordFrom(int view, std::int32_t l) const {
  for (; l >= 0; l = line(l).next) {
    const std::int32_t r = line(l).record;
    if (r >= 0 && record(r).view == view) return r;
  }
  return -1;
}

std::int32_t Store::BlockSize(std::int32_t first) const {
  std::int32_t count = 1;
  for (std::int32_t l = line(first).next; l >= 0; l = line(l).next) {
    if (line(l).record != -1) break;
    std::string_view text = LineText(l);
    if (text.empty() || (text[0] != ' ' && text[0] != '\t')) break;
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) break;  // a blank line
    ++count;
  }
  return count;
}

std::uint64_t Store::PutText(std::string_view text) {
  const std::uint64_t off = edits_.size();
  edits_.append(text);
  return off | kEdited;
}

void Store::UpdateRecord(std::int32_t record_id, std::string_view text, const ParsedRecord& parsed) {
  RecordInfo& r = records_[static_cast<std::size_t>(record_id)];
  Line& l = lines_[static_cast<std::size_t>(r.line)];
  l.off = PutText(text);
  l.size = Narrow(text.size(), "line");
  StoreFields(r.slot, parsed);
  const std::uint32_t hash = KeyHash(Key(record_id));
  if (hash != r.hash) {
    index_[r.view].Erase(r.hash, record_id);
    r.hash = hash;
    index_[r.view].Insert(hash, record_id);
  }
}

void Store::Relabel() {
  std::uint64_t order = 0;
  for (std::int32_t l = head_; l >= 0; l = line(l).next) {
    order += kGap;
    lines_[static_cast<std::size_t>(l)].order = order;
  }
}

std::int32_t Store::InsertRecord(std::int32_t after, std::string_view text, const ParsedRecord& parsed) {
  if (after == kAtStart)
    after = -1;
  else if (after < 0)
    after = tail_;
  if (after >= 0 && after == tail_) {
    // The last line may lack its line end: it gets one before a line follows.
    std::string_view last = LineText(after);
    if (!last.empty() && last.back() != '\n') {
      std::string fixed(last);
      fixed += '\n';
      Line& l = lines_[static_cast<std::size_t>(after)];
      l.off = PutText(fixed);
      l.size = Narrow(fixed.size(), "line");
    }
  }
  const std::int32_t id = static_cast<std::int32_t>(lines_.size());
  Line l;
  l.off = PutText(text);
  l.size = Narrow(text.size(), "line");
  l.record = -1;
  l.prev = after;
  l.next = after >= 0 ? line(after).next : head_;
  lines_.push_back(l);
  if (l.prev >= 0)
    lines_[static_cast<std::size_t>(l.prev)].next = id;
  else
    head_ = id;
  if (l.next >= 0)
    lines_[static_cast<std::size_t>(l.next)].prev = id;
  else
    tail_ = id;
  // An order label between the neighbours; relabel all when there is no room.
  const std::uint64_t low = l.prev >= 0 ? line(l.prev).order : 0;
  if (l.next < 0) {
    lines_.back().order = low + kGap;
  } else {
    const std::uint64_t high = line(l.next).order;
    if (high - low < 2)
      Relabel();
    else
      lines_.back().order = low + (high - low) / 2;
  }
  AddRecord(id, parsed);
  return lines_[static_cast<std::size_t>(id)].record;
}

std::int32_t Store::RemoveLines(std::int32_t first, std::int32_t count) {
  std::int32_t l = first;
  const std::int32_t before = line(first).prev;
  for (std::int32_t k = 0; k < count && l >= 0; ++k) {
    Line& dead = lines_[static_cast<std::size_t>(l)];
    if (dead.record >= 0) {
      RecordInfo& r = records_[static_cast<std::size_t>(dead.record)];
      r.alive = false;
      index_[r.view].Erase(r.hash, dead.record);
    }
    dead.record = kDeadLine;
    l = dead.next;
  }
  const std::int32_t after = l;
  if (before >= 0)
    lines_[static_cast<std::size_t>(before)].next = after;
  else
    head_ = after;
  if (after >= 0)
    lines_[static_cast<std::size_t>(after)].prev = before;
  else
    tail_ = before;
  return after;
}

void Store::Pieces(const Edit* edit, std::vector<std::string_view>& out) const {
  static const char kLineEnd = '\n';
  out.clear();
  // The stretch being gathered: lines that follow each other in a buffer.
  const char* run = nullptr;
  std::size_t run_size = 0;
  auto add = [&](std::string_view piece) {
    if (piece.empty()) return;
    if (run != nullptr && run + run_size == piece.data()) {
      run_size += piece.size();
      return;
    }
    if (run_size > 0) out.emplace_back(run, run_size);
    run = piece.data();
    run_size = piece.size();
  };
  auto last_byte = [&]() { return run_size > 0 ? run[run_size - 1] : '\n'; };
  const bool insert = edit && edit->kind == Edit::kInsert;
  const std::int32_t insert_after =
      !insert ? -1 : edit->line == kAtStart ? -1 : edit->line < 0 ? tail_ : edit->line;
  if (insert && insert_after < 0) add(edit->text);  // at the start, or into an empty file
  // The one line where the edit shows; every other line is its own text.
  const std::int32_t special = !edit ? -1 : insert ? insert_after : edit->line;
  const char* const base = base_.data();
  const char* const edits = edits_.data();
  for (std::int32_t l = head_; l >= 0;) {
    const Line& ln = lines_[static_cast<std::size_t>(l)];
    if (l != special) {
      const char* text = (ln.off & kEdited) ? edits + (ln.off & ~kEdited) : base + ln.off;
      if (run != nullptr && run + run_size == text) {
        run_size += ln.size;
      } else {
        add(std::string_view(text, ln.size));
      }
      l = ln.next;
      continue;
    }
    if (edit->kind == Edit::kRemove) {
      for (std::int32_t k = 0; k < edit->count && l >= 0; ++k) l = line(l).next;
      continue;
    }
    if (edit->kind == Edit::kUpdate) {
      add(edit->text);
    } else {
      add(LineText(l));
      if (last_byte() != '\n') add(std::string_view(&kLineEnd, 1));
      add(edit->text);
    }
    l = ln.next;
  }
  if (run_size > 0) out.emplace_back(run, run_size);
}

std::string Store::Text(const Edit* edit) const {
  std::vector<std::string_view> pieces;
  Pieces(edit, pieces);
  std::size_t total = 0;
  for (std::string_view piece : pieces) total += piece.size();
  std::string out;
  out.reserve(total);
  for (std::string_view piece : pieces) out.append(piece);
  return out;
}

}  // namespace zel_conf
