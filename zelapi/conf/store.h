// The in-memory copy of one configuration file: its lines in file order,
// the records that views found on them, and one key index per view.
//
// Lines are kept compactly: the file's bytes as read stay in one buffer and
// a line is an offset and a length into it (or into the buffer of edited
// texts). Lines form a doubly linked list over a vector, so a line's id is
// stable while lines are inserted and removed; an order label per line
// compares file positions in O(1). Records keep their fields as byte spans
// of their line, with a separate text only when the value differs from it.
// Keys are found through an open-addressing hash index per view; a store
// made with fold_keys compares keys without ASCII letter case (the index
// holds the hashes of the folded keys; the lines keep their text).
//
// Not thread-safe: the owning CachedFile holds its lock around every use.
// Internal to the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class Cf;

namespace zel_conf {

// Where a field's value is: a span of its line and/or its own text.
struct FieldSlot {
  static constexpr std::uint32_t kNoSpan = 0xffffffffu;
  std::uint32_t start = kNoSpan;  // offset in the line
  std::uint32_t size = 0;
  std::int32_t value = -1;        // index into the value texts, -1: the span
};

// The fields of one record as parsed from one line (offsets from the line's
// first byte), ready to be stored.
struct ParsedRecord {
  int view = -1;
  std::vector<FieldSlot> slots;
  std::vector<std::string> values;  // the texts slots[i].value refers to
};

// Turns what a Cf stored for the line starting at line_start into a
// ParsedRecord for view.
void TakeParsed(const Cf& cf, std::size_t line_start, int view, ParsedRecord& out);

class Store;

// Hash index from key to records of one view; several records may share a
// key.
class KeyIndex {
 public:
  void Clear();
  void Reserve(std::size_t records);
  void Insert(std::uint32_t hash, std::int32_t record);
  void Erase(std::uint32_t hash, std::int32_t record);
  // A hint that hash is looked up or inserted soon.
  void Prefetch(std::uint32_t hash) const {
    if (!slots_.empty()) __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
  }
  // Calls fn(record) for every record whose hash is hash (callers compare
  // the key).
  template <class Fn>
  void ForEach(std::uint32_t hash, Fn&& fn) const {
    if (slots_.empty()) return;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      const Entry& e = slots_[i];
      if (e.record == kEmpty) return;
      if (e.record != kGone && e.hash == hash) fn(e.record);
    }
  }

 private:
  static constexpr std::int32_t kEmpty = -1;
  static constexpr std::int32_t kGone = -2;
  void Grow(std::size_t capacity);

  // Hash and record side by side: a probe touches one cache line.
  struct Entry {
    std::uint32_t hash;
    std::int32_t record;
  };
  std::vector<Entry> slots_;
  std::size_t used_ = 0;  // live entries and tombstones
  std::size_t live_ = 0;
};

class Store {
 public:
  struct Line {
    std::uint64_t order;  // file order label
    std::uint64_t off;    // kEdited set: offset into edits_
    std::uint32_t size;   // bytes, "\n" included when the line has one
    std::int32_t prev;
    std::int32_t next;
    std::int32_t record;  // -1: no record on this line
  };
  struct RecordInfo {
    std::int32_t line;
    std::uint16_t view;
    bool alive;
    std::uint32_t slot;  // first of the view's field slots
    std::uint32_t hash;  // of the key
  };

  static std::uint32_t Hash(std::string_view key);
  // Hash of key with its ASCII letters in lower case (no copy is made).
  static std::uint32_t FoldedHash(std::string_view key);
  // Whether a and b are equal once their ASCII letters are in lower case.
  static bool FoldedEqual(std::string_view a, std::string_view b);

  // Starts over with the bytes of a file and the field count of each view;
  // with fold_keys, keys compare without ASCII letter case.
  void Reset(std::string base, const std::vector<std::size_t>& view_fields,
             bool fold_keys = false);
  bool fold_keys() const { return fold_; }
  const std::string& base() const { return base_; }
  // Bytes of edited line texts collected since the copy was built.
  std::size_t edited_bytes() const { return edits_.size(); }

  // --- loading (in file order) ---
  void ReserveLines(std::size_t lines);
  std::int32_t AppendLine(std::size_t off, std::size_t size);  // into base()
  // index = false leaves the record out of the key index until IndexAll.
  void AddRecord(std::int32_t line, const ParsedRecord& parsed, bool index = true);
  // The record that cf stored on line (whose text starts at line_start in
  // cf's text) as a record of view, without an index entry until IndexAll.
  void AddRecord(std::int32_t line, std::size_t line_start, const Cf& cf, int view);
  // Builds the key indexes of all records at once (after loading).
  void IndexAll();

  // --- reading ---
  std::int32_t head() const { return head_; }
  std::int32_t tail() const { return tail_; }
  const Line& line(std::int32_t id) const { return lines_[static_cast<std::size_t>(id)]; }
  std::string_view LineText(std::int32_t id) const;
  bool LineAlive(std::int32_t id) const;
  const RecordInfo& record(std::int32_t id) const { return records_[static_cast<std::size_t>(id)]; }
  std::size_t FieldCount(int view) const { return view_fields_[static_cast<std::size_t>(view)]; }
  const FieldSlot& Slot(std::int32_t record, std::size_t field) const {
    return slots_[records_[static_cast<std::size_t>(record)].slot + field];
  }
  std::string_view Value(std::int32_t record, std::size_t field) const;
  std::string_view Key(std::int32_t record) const { return Value(record, 0); }
  bool Before(std::int32_t line_a, std::int32_t line_b) const {
    return line(line_a).order < line(line_b).order;
  }

  // The index's hash of a key, and whether two keys are the same key (both
  // without letter case when the store folds keys).
  std::uint32_t KeyHash(std::string_view key) const { return fold_ ? FoldedHash(key) : Hash(key); }
  bool SameKey(std::string_view a, std::string_view b) const {
    return fold_ ? FoldedEqual(a, b) : a == b;
  }

  // The first record of view (in file order) with key, or -1.
  std::int32_t Find(int view, std::string_view key) const;
  // How many records of the same view and key come before record.
  std::size_t Occurrence(std::int32_t record) const;
  // The n-th record (from 0, in file order) of view with key, or -1.
  std::int32_t FindNth(int view, std::string_view key, std::size_t n) const;
  // The first record of view on line or after it (-1: none). line -1: none.
  std::int32_t RecordFrom(int view, std::int32_t line) const;
  // Key comparisons made by lookups so far (how a test sees the index work).
  std::uint64_t key_compares() const { return key_compares_; }

  // Line `line` and the unclaimed lines starting with a blank right after
  // it: how many lines a record occupies, continuation included.
  std::int32_t BlockSize(std::int32_t line) const;

  // --- changing ---
  // Replaces the text and fields of a record's line.
  void UpdateRecord(std::int32_t record, std::string_view text, const ParsedRecord& parsed);
  // Where InsertRecord and an insert Edit put a line before every other.
  static constexpr std::int32_t kAtStart = -2;
  // Inserts a line with a record after line `after` (-1: at the end;
  // kAtStart: at the start) and returns the new record. A last line without
  // "\n" gets one first when a line follows it.
  std::int32_t InsertRecord(std::int32_t after, std::string_view text, const ParsedRecord& parsed);
  // Unlinks count lines starting at first (their records die). Returns the
  // line that followed them (-1: none).
  std::int32_t RemoveLines(std::int32_t first, std::int32_t count);

  // A change described without making it: what Text(edit) would show.
  struct Edit {
    enum Kind { kUpdate, kInsert, kRemove } kind = kUpdate;
    std::int32_t line = -1;   // kUpdate: the line; kInsert: after it (-1: end, kAtStart); kRemove: first
    std::int32_t count = 0;   // kRemove: lines
    std::string text;         // kUpdate, kInsert: the new line
  };
  // The whole file as it is now, or as it would be after edit (the same
  // bytes that UpdateRecord, InsertRecord or RemoveLines then produce).
  std::string Text(const Edit* edit = nullptr) const;
  // The same bytes as stretches of the copy's buffers (and of edit's text),
  // in file order; neighbouring lines that follow each other in a buffer
  // make one stretch, so an unchanged file is one piece. Valid until the
  // store or edit changes.
  void Pieces(const Edit* edit, std::vector<std::string_view>& out) const;

 private:
  static constexpr std::uint64_t kEdited = 1ull << 63;
  static constexpr std::uint64_t kGap = 1ull << 20;

  std::uint64_t PutText(std::string_view text);  // into edits_, returns off
  void StoreFields(std::uint32_t slot, const ParsedRecord& parsed);
  void Relabel();

  std::string base_;
  std::string edits_;
  std::vector<Line> lines_;
  std::int32_t head_ = -1;
  std::int32_t tail_ = -1;
  std::vector<RecordInfo> records_;
  std::vector<FieldSlot> slots_;
  std::vector<std::string> values_;
  std::vector<std::size_t> view_fields_;
  std::vector<KeyIndex> index_;
  bool fold_ = false;
  mutable std::uint64_t key_compares_ = 0;
};

}  // namespace zel_conf
