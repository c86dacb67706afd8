// Cf: the parse context a record view reads one line through.
//
// The engine's loader makes one Cf per file it reads and walks it line by
// line. For each line that holds a token other than its line end, it
// offers the line to the table's views in registration order (each one
// starting again from the line's first token) until one's Parse returns
// true. A view claims the line by caching one record: CacheStart, one
// CacheField per field it read, CacheDone. A Parse that returns false, or
// throws any std::exception, claims nothing and leaves nothing stored,
// whatever it cached before. A Parse that returns true without CacheDone
// claims the line without making it a record (it is kept as it is).
//
// A line here is a logical line: in a table with a continuation rule
// (pnl_token::Continuation) it is a line of the text together with the
// lines that continue it, and a record read from it spans them all. Inside
// a logical line its line ends separate words like blanks; a field's value
// is its text with those line ends left out (and, where a backslash joins
// lines, the backslash before each), as sendmail joins them. Without the
// rule every line of the text is a line here.
//
// Offsets (pos, line_offset, spans) count bytes from the start of the text
// the context was made for. A record never reaches past its line: no
// operation here moves beyond the current line's end.
//
// Tests may make a Cf over any text to drive a view's Parse directly and
// look at what it stored (stored...). One thread at a time; the text and
// the rules must outlive the context.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "zelapi/conf/token.h"

class HeadDataSet;
namespace dd {
class Field;
}

class Cf {
 public:
  // What a view cached for one field.
  struct Cached {
    bool set = false;        // CacheField was called for this field
    bool has_span = false;   // the field's text is the span [start, start + size)
    std::size_t start = 0;
    std::size_t size = 0;
    bool own = false;        // the value differs from the span (or there is none)
    std::string value;       // the value when own
  };

  Cf(std::string_view text, const pnl_token::Params& rules);
  Cf(const Cf&) = delete;
  Cf& operator=(const Cf&) = delete;

  // --- walking lines (the loader; tests) ---

  // Moves to the next line and onto its first token; false when the text
  // has no further line. Drops whatever the previous line cached.
  bool NextLine();
  // Back to the first token of the current line; drops what was cached.
  void Rewind();
  // Offset just past the current (logical) line, past its last "\n" when
  // it has one.
  std::size_t line_end() const { return line_end_; }
  // Only ds may cache records until the next Offer (null: any view).
  void Offer(const HeadDataSet* ds) { offered_ = ds; }

  // --- what views call ---

  // Offset of the current token's first byte.
  std::size_t pos() const { return start_; }
  // Offset of the current line's first byte. Equal to pos() only when the
  // current token is the first thing on the line (no blank before it).
  std::size_t line_offset() const { return line_start_; }
  // The current token's text: "\n" for the line end, empty at the end of
  // the text. Valid until the context moves.
  const std::string& token() const;
  pnl_token::Token::Type token_type() const { return type_; }

  // Moves to the next token of the line. with_separators = true also
  // returns runs of separator characters as tokens. At the line end (or
  // the end of the text) the context stays where it is.
  void GetToken(bool with_separators = false);
  // Appends the next token of the line to the current one ("user" + "@").
  // At the line end nothing is appended. The joined token has a byte span
  // only when the two were adjacent in the line.
  void AddToken();
  // The current token becomes the text after it up to the next token equal
  // to end (or the line end, or the end of the text), excluding end unless
  // include_end. With skip_blanks the separators right after the current
  // token are not part of it. The rest is taken as it stands, separators
  // right before end included ("REJECT \n" gives "REJECT "), except that a
  // comment, and the separators before it, are never part of it. The
  // context then stands on end (past it with include_end).
  void GetUntilToken(const std::string& end, bool include_end = false, bool skip_blanks = true);

  // Opens a record of view ds at the current line. key_required: CacheDone
  // refuses a record whose key field (index 0) was not cached or is empty.
  void CacheStart(HeadDataSet& ds, bool key_required);
  // Caches field index: raw is its text in the file, value its value. pos
  // -1: raw is the current token (so its byte span is known when the token
  // is one stretch of the line); otherwise pos is raw's offset in the text.
  // The last two arguments are reserved and must be 0. Throws
  // pnl_err::Error(pnl_err::Kind::kConf) without a CacheStart, for an index out of range,
  // for a line end ("\n" or "\r") in value, for a "\r" in raw or a "\n"
  // in raw other than one inside the logical line at a known span, or when
  // raw is not at pos. (So a line ending in "\r\n" is claimed by no view
  // that reads up to the line end, and stays as it is.)
  void CacheField(int index, const std::string& raw, const std::string& value, int pos = -1,
                  int reserved1 = 0, int reserved2 = 0);
  // CacheField(field's index, token(), token()); a token that runs over
  // the line ends inside the logical line gets its joined text as value.
  void CacheField(const dd::Field& field);
  // Closes the record. to_line_end: the rest of the line after the current
  // token must be empty (blanks and a comment aside), else the record is
  // refused. Refusals throw pnl_err::Error(pnl_err::Kind::kConf) and store nothing.
  void CacheDone(HeadDataSet& ds, bool to_line_end);

  // --- what was stored on the current line (the loader; tests) ---

  bool stored() const { return done_; }
  const HeadDataSet* stored_view() const { return done_ ? view_ : nullptr; }
  std::size_t stored_count() const { return done_ ? fields_.size() : 0; }
  // Precondition: index < stored_count().
  const Cached& stored_field(std::size_t index) const { return fields_[index]; }
  // The value of a stored field (empty if it was not cached).
  std::string stored_value(std::size_t index) const;

 private:
  void Load(const pnl_token::Token& t);
  // Offset just past the physical line that starts at from.
  std::size_t PhysicalLineEnd(std::size_t from) const;
  // The tokenizer's next token, a line end inside the logical line taken as
  // a separator.
  pnl_token::Token Next(std::size_t& pos, bool with_separators) const;
  // The text of [start, end) with the line ends in it left out (and the
  // backslash before each, where a backslash joins lines).
  std::string Joined(std::size_t start, std::size_t end) const;
  std::string_view Text(std::size_t start, std::size_t end) const {
    return text_.substr(start, end - start);
  }
  void CheckOpen(const char* what) const;
  // Where the next byte `byte` of the text lies at or after `from` (the
  // text's size when there is none). The last answer is kept: asking again
  // anywhere between its start and the byte found costs nothing, so the
  // lines of a text are searched in one pass.
  struct ByteScan {
    int byte;
    bool valid = false;
    std::size_t from = 0;
    std::size_t at = 0;
  };
  std::size_t NextByte(ByteScan& scan, std::size_t from);
  // Whether [from, to) holds a byte that may open a comment.
  bool MayHoldComment(std::size_t from, std::size_t to);
  // Whether a comment lies between the token boundaries from and to.
  bool HasComment(std::size_t from, std::size_t to) const;

  std::string_view text_;
  pnl_token::Tokenizer tokenizer_;

  std::size_t line_start_ = 0;
  std::size_t line_end_ = 0;
  std::size_t content_end_ = 0;  // line_end_ less the line's last "\n"
  bool joined_ = false;          // the line is several lines of the text
  bool started_ = false;
  pnl_token::Token first_;       // first token of the line
  std::size_t first_next_ = 0;   // tokenizer position after it

  // Current token: the span [start_, end_) and, when not contiguous, its
  // text in joined_.
  pnl_token::Token::Type type_ = pnl_token::Token::End;
  std::size_t start_ = 0;
  std::size_t end_ = 0;
  std::size_t next_ = 0;  // tokenizer position
  bool contiguous_ = true;
  mutable bool token_valid_ = false;
  mutable std::string token_;

  const HeadDataSet* offered_ = nullptr;
  const HeadDataSet* view_ = nullptr;
  bool open_ = false;
  bool done_ = false;
  bool key_required_ = false;
  std::vector<Cached> fields_;

  ByteScan carriage_returns_{'\r'};
  ByteScan comments_{-1};
};
