// zel_aliasdb::AliasesFile: one aliases file, read and cut into entries the
// way sendmail's alias rebuild reads it.
//
// A logical line is a physical line plus what continues it: while the line
// so far ends with a backslash before a line end, backslash and line end go
// and the next physical line is appended (so a backslash left last after
// an empty line joins again; one on a last line without line end stays);
// then every following physical line that starts with a blank or a tab is
// appended (only its line end removed). sendmail reads a logical line into
// a buffer of kLineBuffer bytes with its line end: a logical line that does
// not fit (longer than kLineBuffer - 1 bytes joined, or kLineBuffer without
// a line end at the end of the file) is the error "alias line too long",
// reported at the physical line that did not fit, whatever the line holds
// (a comment too); the physical lines of it after that one are skipped and
// not counted, so later line numbers are that many lower than the physical
// ones, as sendmail reports them. Each logical line that fits then is one
// of:
//   - nothing: empty, or starting with '#' (a comment swallows its
//     continuation lines too);
//   - an error the file reader reports itself: a line that does not fit
//     (above), a line starting with a blank
//     ("Non-continuation line starts with space"; not reported when the
//     logical line before also started with one, which happens when an
//     empty line joins the indented line after it), a line with no ':'
//     ("missing colon"), a name with nothing but blanks after the colon
//     ("missing value for alias", after the first 40 bytes of the line);
//   - a plain entry: a name of ordinary characters (letters, digits and
//     punctuation other than ! " % ( ) , ; < > @ \ :, not starting with | or
//     /, at most 255 bytes), blanks, ':', then the value. The key is the
//     name in ASCII lower case; the value is the rest of the logical line
//     without its leading white space (C's isspace), kept byte for byte
//     (trailing blanks, carriage returns, quotes and commas included);
//   - a line for sendmail's address parser: any other name (quotes, angle
//     brackets, comments, routing characters, inner blanks, control or 8-bit
//     bytes), or a logical line longer than kMaxPlainLine. Those depend on
//     sendmail's configuration (its rule sets and host names), so they are
//     not decided here: see SendmailOracle.
// Line numbers are those sendmail reports: the last physical line of the
// logical line, less the lines skipped after lines that did not fit.
//
// The object owns the file's text and what it makes while cutting it; the
// lines it hands out point into both. It cuts the text as it goes, handing
// each line to the caller, so a large file is never held twice. One thread
// at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace zel_aliasdb {

// sendmail's line buffer, less its terminating NUL: a logical line and its
// line end must fit in it.
inline constexpr std::size_t kLineBuffer = 8191;
// Longest logical line decided here; longer ones that fit go to sendmail's
// parser.
inline constexpr std::size_t kMaxPlainLine = 8000;
// Longest name decided here (sendmail refuses 256 bytes and more).
inline constexpr std::size_t kMaxPlainName = 255;

// sendmail's exit status for the file errors above (EX_SOFTWARE).
inline constexpr int kExitFileError = 70;

// One logical line that is not nothing. Kept small: a large file has one
// per alias.
struct Line {
  enum class Kind : std::uint8_t {
    kEntry,  // name, key and value
    kError,  // message; the exit status is kExitFileError
    kOdd,    // raw: for sendmail's parser
  };
  Kind kind = Kind::kEntry;
  std::uint32_t first_line = 0;  // first physical line (1-based)
  std::uint32_t line = 0;        // last physical line: the one reported
  // kEntry: the name as written, blanks before the colon included (sendmail
  // shows it so in its duplicate warning). kError: the message, the text
  // after "line N: ". kOdd: the physical lines, line ends included.
  std::string_view text;
  // kEntry: the name in lower case, blanks removed. kError: the same of the
  // text before the first ':' when the error names an entry (a line that
  // does not fit, a missing value), else empty.
  std::string_view key;
  std::string_view value;  // kEntry
};

class AliasesFile {
 public:
  // Takes the file's text; cuts nothing yet.
  explicit AliasesFile(std::string text);
  AliasesFile(const AliasesFile&) = delete;
  AliasesFile& operator=(const AliasesFile&) = delete;

  // Cuts the text (see above) and calls on_line with each logical line that
  // is not nothing, in file order. The line's views stay valid while this
  // object lives. Never throws for content: every logical line becomes an
  // entry, an error or a line for sendmail's parser; what on_line throws
  // goes through. Call once (a second call cuts the text again).
  void Cut(const std::function<void(const Line&)>& on_line);
  // Cut, collecting the lines.
  std::vector<Line> Lines();

  // The number of physical lines: at least the number of entries.
  std::size_t PhysicalLines() const;

  // True when the text holds a NUL byte: sendmail's line reader loses its
  // place on those, so such a file is not decided line by line.
  bool has_nul() const { return has_nul_; }

 private:
  std::string text_;
  // Text made here (joined logical lines, lower-case keys, messages); a
  // deque, so the views into its strings stay valid as it grows.
  std::deque<std::string> made_;
  bool has_nul_ = false;
};

// True when c may appear in a plain name (see above).
bool IsPlainNameByte(unsigned char c);

// A name as a key: blanks around it removed, ASCII letters in lower case.
std::string KeyOf(std::string_view name);

// A file name as sendmail shows it before "line N:" in its messages: names
// longer than 82 bytes become their first 40 bytes, "..." and their last 40.
std::string ShortFileName(const std::string& path);

}  // namespace zel_aliasdb
