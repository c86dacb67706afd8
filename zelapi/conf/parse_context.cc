#include "zelapi/conf/parse_context.h"

#include <cstring>

#include "zelapi/conf/dataset.h"
#include "zelapi/conf/field.h"
#include "zelapi/err.h"

namespace {

bool HasLineEnd(std::string_view text) {
  return !text.empty() && (std::memchr(text.data(), '\n', text.size()) != nullptr ||
                           std::memchr(text.data(), '\r', text.size()) != nullptr);
}

[[noreturn]] void Refuse(const std::string& why) { throw pnl_err::Error(pnl_err::Kind::kConf, "parse", why); }

bool AtLineEnd(pnl_token::Token::Type type) {
  return type == pnl_token::Token::LineEnd || type == pnl_token::Token::End;
}

}  // namespace

Cf::Cf(std::string_view text, const pnl_token::Params& rules)
    : text_(text), tokenizer_(rules, text) {
  comments_.byte = rules.CommentByte();
}

std::size_t Cf::NextByte(ByteScan& scan, std::size_t from) {
  if (scan.valid && scan.from <= from && from <= scan.at) return scan.at;
  std::size_t at = text_.size();
  if (from < text_.size()) {
    const void* p = std::memchr(text_.data() + from, scan.byte, text_.size() - from);
    if (p != nullptr) at = static_cast<std::size_t>(static_cast<const char*>(p) - text_.data());
  }
  scan.valid = true;
  scan.from = from;
  scan.at = at;
  return at;
}

bool Cf::MayHoldComment(std::size_t from, std::size_t to) {
  if (from >= to || comments_.byte == -1) return false;
  if (comments_.byte >= 0) return NextByte(comments_, from) < to;
  return tokenizer_.rules().MayHoldComment(Text(from, to));
}

std::size_t Cf::PhysicalLineEnd(std::size_t from) const {
  const void* nl = std::memchr(text_.data() + from, '\n', text_.size() - from);
  return nl ? static_cast<std::size_t>(static_cast<const char*>(nl) - text_.data()) + 1 : text_.size();
}

pnl_token::Token Cf::Next(std::size_t& pos, bool with_separators) const {
  pnl_token::Token t = tokenizer_.Next(pos, with_separators);
  // A line end inside the logical line only separates words.
  while (joined_ && t.type == pnl_token::Token::LineEnd && t.start < content_end_) {
    if (with_separators) return pnl_token::Token{pnl_token::Token::Separator, t.start, t.end};
    t = tokenizer_.Next(pos, with_separators);
  }
  return t;
}

std::string Cf::Joined(std::size_t start, std::size_t end) const {
  const bool backslash = tokenizer_.rules().BackslashJoins();
  std::string out;
  out.reserve(end - start);
  for (std::size_t p = start; p < end; ++p) {
    if (text_[p] != '\n') {
      out += text_[p];
      continue;
    }
    if (backslash && p > start && text_[p - 1] == '\\' && !out.empty()) out.pop_back();
  }
  return out;
}

bool Cf::NextLine() {
  line_start_ = started_ ? line_end_ : 0;
  started_ = true;
  open_ = false;
  done_ = false;
  if (line_start_ >= text_.size()) {
    line_start_ = line_end_ = content_end_ = text_.size();
    joined_ = false;
    Load(pnl_token::Token{pnl_token::Token::End, line_start_, line_start_});
    return false;
  }
  line_end_ = PhysicalLineEnd(line_start_);
  joined_ = false;
  const pnl_token::Params& rules = tokenizer_.rules();
  if (rules.HasContinuation()) {
    // The lines that continue this one join it: a line ending in a
    // backslash takes in the next one, a line starting with a blank
    // continues the one above.
    while (line_end_ < text_.size()) {
      const bool backslash = rules.BackslashJoins() && line_end_ - line_start_ >= 2 &&
                             text_[line_end_ - 2] == '\\';
      if (!backslash && !rules.Continues(static_cast<unsigned char>(text_[line_end_]))) break;
      line_end_ = PhysicalLineEnd(line_end_);
      joined_ = true;
    }
  }
  content_end_ = line_end_;
  if (content_end_ > line_start_ && text_[content_end_ - 1] == '\n') --content_end_;
  next_ = line_start_;
  first_ = Next(next_, false);
  first_next_ = next_;
  Load(first_);
  return true;
}

void Cf::Rewind() {
  open_ = false;
  done_ = false;
  next_ = first_next_;
  Load(first_);
}

void Cf::Load(const pnl_token::Token& t) {
  type_ = t.type;
  start_ = t.start;
  end_ = t.end;
  contiguous_ = true;
  token_valid_ = false;
}

const std::string& Cf::token() const {
  if (!token_valid_) {
    token_.assign(text_.data() + start_, end_ - start_);
    token_valid_ = true;
  }
  return token_;
}

void Cf::GetToken(bool with_separators) {
  if (AtLineEnd(type_)) return;
  Load(Next(next_, with_separators));
}

void Cf::AddToken() {
  if (AtLineEnd(type_)) return;
  std::size_t p = next_;
  pnl_token::Token t = Next(p, false);
  if (AtLineEnd(t.type)) return;
  if (contiguous_ && t.start == end_) {
    end_ = t.end;
    token_valid_ = false;
  } else {
    if (contiguous_) token();  // materialise the text so far
    token_.append(text_.data() + t.start, t.end - t.start);
    contiguous_ = false;
    token_valid_ = true;
    end_ = t.end;
  }
  next_ = p;
}

void Cf::GetUntilToken(const std::string& end, bool include_end, bool skip_blanks) {
  std::size_t scan = AtLineEnd(type_) ? start_ : end_;
  if (end == "\n" && !include_end) {
    // The rest of the line: when it cannot hold a comment, it is all of it
    // (blanks before the line end included), without a token walk.
    std::size_t stop = line_end_;
    if (stop > line_start_ && text_[stop - 1] == '\n') --stop;
    const pnl_token::Params& rules = tokenizer_.rules();
    if (scan <= stop && !MayHoldComment(scan, stop)) {
      std::size_t value_start = scan;
      // Before stop a line end can only be one inside the logical line.
      if (skip_blanks)
        while (value_start < stop &&
               (text_[value_start] == '\n' ||
                rules.Class(static_cast<unsigned char>(text_[value_start])) == pnl_token::Token::Separator))
          ++value_start;
      type_ = pnl_token::Token::Word;
      start_ = value_start;
      end_ = stop;
      next_ = stop;
      contiguous_ = true;
      token_valid_ = false;
      return;
    }
  }
  std::size_t value_start = scan;
  std::size_t last_end = scan;
  bool first = true;
  for (;;) {
    const std::size_t before = scan;
    pnl_token::Token t = Next(scan, false);
    if (first && skip_blanks) value_start = last_end = t.start;
    first = false;
    const bool is_end = t.type != pnl_token::Token::End && Text(t.start, t.end) == end;
    if (is_end || AtLineEnd(t.type)) {
      // Separators before the end belong to the value; a comment (and the
      // separators before it) does not.
      if (t.start > last_end && !HasComment(last_end, t.start)) last_end = t.start;
      if (is_end && include_end) {
        last_end = t.end;
        next_ = scan;
      } else {
        next_ = before;
      }
      break;
    }
    last_end = t.end;
  }
  type_ = pnl_token::Token::Word;
  start_ = value_start;
  end_ = last_end < value_start ? value_start : last_end;
  contiguous_ = true;
  token_valid_ = false;
}

bool Cf::HasComment(std::size_t from, std::size_t to) const {
  // Between two tokens there are only separators, comments and the line
  // ends inside a logical line.
  const pnl_token::Params& rules = tokenizer_.rules();
  for (std::size_t p = from; p < to; ++p)
    if (text_[p] != '\n' && rules.Class(static_cast<unsigned char>(text_[p])) != pnl_token::Token::Separator)
      return true;
  return false;
}

void Cf::CheckOpen(const char* what) const {
  if (!open_) Refuse(std::string(what) + " without CacheStart");
}

void Cf::CacheStart(HeadDataSet& ds, bool key_required) {
  if (offered_ != nullptr && offered_ != &ds) Refuse("CacheStart for a view that was not offered the line");
  const dd::Record& record = ds;
  view_ = &ds;
  open_ = true;
  done_ = false;
  key_required_ = key_required;
  fields_.resize(record.FieldCount());
  for (Cached& c : fields_) {
    c.set = false;
    c.has_span = false;
    c.own = false;
    c.value.clear();
  }
}

void Cf::CacheField(int index, const std::string& raw, const std::string& value, int pos,
                    int reserved1, int reserved2) {
  CheckOpen("CacheField");
  if (reserved1 != 0 || reserved2 != 0) Refuse("CacheField: the last two arguments must be 0");
  if (index < 0 || static_cast<std::size_t>(index) >= fields_.size())
    Refuse("CacheField: no field " + std::to_string(index));
  // raw may run over the line ends inside a logical line (its span tells);
  // the value never holds one.
  const bool raw_lines = HasLineEnd(raw);
  if (HasLineEnd(value) || std::memchr(raw.data(), '\r', raw.size()) != nullptr)
    Refuse("CacheField: a value cannot hold a line end");
  Cached& c = fields_[static_cast<std::size_t>(index)];
  c.set = true;
  c.has_span = false;
  if (pos < 0) {
    if (contiguous_ && ((token_valid_ && &raw == &token_) || Text(start_, end_) == raw)) {
      c.has_span = true;
      c.start = start_;
      c.size = end_ - start_;
    }
  } else {
    const std::size_t p = static_cast<std::size_t>(pos);
    if (p < line_start_ || p + raw.size() > line_end_ || Text(p, p + raw.size()) != raw)
      Refuse("CacheField: '" + raw + "' is not at offset " + std::to_string(pos));
    c.has_span = true;
    c.start = p;
    c.size = raw.size();
  }
  if (raw_lines && (!c.has_span || c.start + c.size > content_end_))
    Refuse("CacheField: a value cannot hold a line end");
  c.own = !c.has_span || (&value != &raw && value != raw);
  if (c.own)
    c.value.assign(value);
  else
    c.value.clear();
}

void Cf::CacheField(const dd::Field& field) {
  CheckOpen("CacheField");
  const dd::Record* record = view_;
  if (&field.Owner() != record) Refuse("CacheField: field " + field.Name() + " is not the view's");
  const int index = field.Index();
  if (index < 0 || static_cast<std::size_t>(index) >= fields_.size())
    Refuse("CacheField: no field " + std::to_string(index));
  Cached& c = fields_[static_cast<std::size_t>(index)];
  c.set = true;
  if (contiguous_) {
    // A span lies within its logical line: a "\n" past its content is the
    // line's own end; one before it joins two lines, and the value is the
    // text with it left out.
    if (end_ > content_end_ || NextByte(carriage_returns_, start_) < end_)
      Refuse("CacheField: a value cannot hold a line end");
    c.has_span = true;
    c.start = start_;
    c.size = end_ - start_;
    c.own = joined_ && start_ < end_ && std::memchr(text_.data() + start_, '\n', end_ - start_) != nullptr;
    if (c.own)
      c.value = Joined(start_, end_);
    else
      c.value.clear();
  } else {
    if (HasLineEnd(token_)) Refuse("CacheField: a value cannot hold a line end");
    c.has_span = false;
    c.own = true;
    c.value.assign(token_);
  }
}

void Cf::CacheDone(HeadDataSet& ds, bool to_line_end) {
  CheckOpen("CacheDone");
  if (&ds != view_) Refuse("CacheDone for another view than CacheStart");
  if (key_required_ && (fields_.empty() || !fields_[0].set ||
                        (fields_[0].own ? fields_[0].value.empty() : fields_[0].size == 0))) {
    open_ = false;
    Refuse("record without its key");
  }
  if (to_line_end && !AtLineEnd(type_)) {
    std::size_t p = next_;
    pnl_token::Token t = Next(p, false);
    if (!AtLineEnd(t.type)) {
      open_ = false;
      Refuse("text after the record: '" + std::string(Text(t.start, t.end)) + "'");
    }
  }
  open_ = false;
  done_ = true;
}

std::string Cf::stored_value(std::size_t index) const {
  const Cached& c = fields_[index];
  if (c.own) return c.value;
  if (c.has_span) return std::string(Text(c.start, c.start + c.size));
  return std::string();
}
