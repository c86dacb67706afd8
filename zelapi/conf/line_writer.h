// Writing one record's line: the new text of a changed record (only the
// changed fields' byte spans replaced, or the view's template), the text of
// a new record and where it goes, and the read-back check every written
// line passes before it reaches the copy or the disk.
//
// A LineWriter owns nothing: it reads the copy, the table and the views'
// parsers it is made with, which must outlive it (it is made for one
// operation). Not thread-safe: the owning CachedFile holds its lock.
// Internal to the engine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cache_registry.h"
#include "loader.h"
#include "store.h"

class HeadDataSet;

namespace zel_conf {

class LineWriter {
 public:
  LineWriter(const Store& store, const TableDef& def, const ViewParsers& views)
      : store_(store), def_(def), views_(views) {}

  // The new text of record's line, a record of view whose values become
  // want (changed: which of them differ from the copy's). A one-line record
  // keeps its line with the changed fields' spans replaced (spacing and a
  // trailing comment survive) when every span is known and the result
  // reads back; otherwise the line is head's template (without a line end
  // when the old line had none). False, with why, when that does not read
  // back either. parsed: the fields of the new line.
  bool Rewrite(std::int32_t record, int view, HeadDataSet& head, const std::vector<bool>& changed,
               const std::vector<std::string>& want, std::string& text, ParsedRecord& parsed,
               std::string& why) const;
  // The text of a new record of view with values want: head's template,
  // with its line end. False, with why, when it would not read back.
  bool NewLine(int view, HeadDataSet& head, const std::vector<std::string>& want, std::string& text,
               ParsedRecord& parsed, std::string& why) const;
  // Where a new line asked for after line after (-1: at the end) goes: a
  // line that ends in a backslash would take the new line in, so it goes
  // before such a line (Store::kAtStart when that is the first line).
  std::int32_t InsertPoint(std::int32_t after) const;

 private:
  // The old line of record with the changed fields' spans replaced; false
  // when a span is unknown or spans overlap.
  bool SpanEdit(std::int32_t record, const std::vector<bool>& changed,
                const std::vector<std::string>& want, std::string& text) const;
  static std::string Template(HeadDataSet& head, bool keep_missing_line_end);
  // Parses text as one line: true when view claims it with exactly the
  // values want; otherwise why holds the reason.
  bool ReadBack(int view, const std::string& text, const std::vector<std::string>& want,
                ParsedRecord& parsed, std::string& why) const;

  const Store& store_;
  const TableDef& def_;
  const ViewParsers& views_;
};

}  // namespace zel_conf
