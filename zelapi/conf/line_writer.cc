#include "line_writer.h"

#include <algorithm>
#include <string_view>

#include "zelapi/conf/dataset.h"
#include "zelapi/conf/parse_context.h"

namespace zel_conf {

namespace {

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

bool LineWriter::Rewrite(std::int32_t record, int view, HeadDataSet& head,
                         const std::vector<bool>& changed, const std::vector<std::string>& want,
                         std::string& text, ParsedRecord& parsed, std::string& why) const {
  const std::string_view old_text = store_.LineText(store_.record(record).line);
  const bool no_line_end = old_text.empty() || old_text.back() != '\n';
  // A record over several lines is written anew as one line: what a span
  // edit kept of its continuation lines would join the new text.
  const bool one_line = old_text.find('\n') >= old_text.size() - (no_line_end ? 0 : 1);
  if (one_line && SpanEdit(record, changed, want, text) && ReadBack(view, text, want, parsed, why))
    return true;
  text = Template(head, no_line_end);
  return ReadBack(view, text, want, parsed, why);
}

bool LineWriter::NewLine(int view, HeadDataSet& head, const std::vector<std::string>& want,
                         std::string& text, ParsedRecord& parsed, std::string& why) const {
  text = Template(head, false);
  return ReadBack(view, text, want, parsed, why);
}

std::int32_t LineWriter::InsertPoint(std::int32_t after) const {
  // The line before the one that joins cannot end in a backslash itself,
  // or the two would be one line.
  const std::int32_t before = after < 0 ? store_.tail() : after;
  if (before >= 0 && JoinsNext(store_.LineText(before), *def_.rules)) {
    const std::int32_t prev = store_.line(before).prev;
    return prev >= 0 ? prev : Store::kAtStart;
  }
  return after;
}

bool LineWriter::SpanEdit(std::int32_t record, const std::vector<bool>& changed,
                          const std::vector<std::string>& want, std::string& text) const {
  struct Piece {
    std::uint32_t start, size;
    std::size_t field;
  };
  std::vector<Piece> pieces;
  for (std::size_t i = 0; i < changed.size(); ++i) {
    if (!changed[i]) continue;
    const FieldSlot& s = store_.Slot(record, i);
    if (s.start == FieldSlot::kNoSpan || s.size == 0) return false;
    pieces.push_back(Piece{s.start, s.size, i});
  }
  std::sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) { return a.start < b.start; });
  const std::string_view line = store_.LineText(store_.record(record).line);
  text.clear();
  std::size_t at = 0;
  for (const Piece& p : pieces) {
    if (p.start < at || p.start + p.size > line.size()) return false;  // overlapping spans
    text.append(line.substr(at, p.start - at));
    text.append(want[p.field]);
    at = p.start + p.size;
  }
  text.append(line.substr(at));
  return true;
}

std::string LineWriter::Template(HeadDataSet& head, bool keep_missing_line_end) {
  std::string text = head.NewRecordTemplate();
  if (text.empty() || text.back() != '\n') text += '\n';
  if (keep_missing_line_end) text.pop_back();
  return text;
}

bool LineWriter::ReadBack(int view, const std::string& text, const std::vector<std::string>& want,
                          ParsedRecord& parsed, std::string& why) const {
  const pnl_token::Params& rules = *def_.rules;
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
  const int claimed = views_.Claim(cf);
  if (claimed != view || !cf.stored()) {
    why = "the line '" + Shown(text) + "' would not read back as a record of " +
          def_.views[static_cast<std::size_t>(view)].label;
    return false;
  }
  const dd::Record& parser = views_.Parser(view);
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

}  // namespace zel_conf
