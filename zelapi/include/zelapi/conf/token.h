// pnl_token: the token rules of a configuration file format and the
// tokenizer that applies them.
//
// A table describes its line format with a Params set: which characters
// separate words, which stand as tokens by themselves, which end a line, and
// which texts open a comment. Everything else is word text. The tokenizer
// scans one buffer in place (no copies, no allocation per token) and never
// moves past a line end on its own: "\n" always ends a line, whether or not
// a rule names it.
//
// Comments: Comment(start, end, anywhere) makes the text from start up to
// (not including) end a comment that the tokenizer skips; when end does not
// occur on the line the comment runs to the line end. With anywhere = false
// a comment starts only where a word could start (line start, after a
// separator or after a character token), so "a#b" stays one word; with
// anywhere = true it may start inside a word and ends that word there
// ("example.com #x" gives the word "example.com " when blanks separate
// nothing).
//
// A Params set is filled once and then only read; reading from several
// threads is safe. A Tokenizer is a cheap value used by one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pnl_token {

struct Token {
  // Token kinds; the rule codes 1, 2 and 6 are the ones a format names.
  enum Type : int {
    Word = 0,       // text between separators
    Separator = 1,  // a run of separator characters (only returned on request)
    Char = 2,       // a character that is a token by itself
    LineEnd = 6,    // "\n"
    End = 7,        // the end of the text (empty token)
  };
  Type type = End;
  std::size_t start = 0;  // offset of the first byte
  std::size_t end = 0;    // offset just past the last byte
};

// Rule: every character of chars is of the given type: 1 (separator),
// 2 (token by itself) or 6 (line end; only "\n" may be given).
class CharToken {
 public:
  CharToken(std::string chars, int type);
  const std::string& chars() const { return chars_; }
  int type() const { return type_; }

 private:
  std::string chars_;
  int type_;
};

// Rule: a comment from start up to (not including) end; see above for the
// meaning of anywhere.
class Comment {
 public:
  Comment(std::string start, std::string end, bool anywhere);
  const std::string& start() const { return start_; }
  const std::string& end() const { return end_; }
  bool anywhere() const { return anywhere_; }

 private:
  std::string start_;
  std::string end_;
  bool anywhere_;
};

// Rule: lines that continue the line above them. Together they make one
// logical line, which a view reads and the engine keeps, rewrites and
// removes as one (see Cf). A line that starts with one of the characters of
// starts (for example " \t") continues the line above it; with backslash, a
// line whose text ends in a backslash takes in the next line, whatever that
// holds. Without this rule every line stands alone.
class Continuation {
 public:
  Continuation(std::string starts, bool backslash);
  const std::string& starts() const { return starts_; }
  bool backslash() const { return backslash_; }

 private:
  std::string starts_;
  bool backslash_;
};

// Rule: the longest logical line the engine writes, in bytes, counted as
// its lines joined (without their line ends, and without the backslash
// before a joined line end). A post whose line would be longer is refused.
// Lines read from a file are not limited.
class LongestLine {
 public:
  explicit LongestLine(std::size_t bytes) : bytes_(bytes) {}
  std::size_t bytes() const { return bytes_; }

 private:
  std::size_t bytes_;
};

// A set of rules, compiled into per-byte tables as rules are added.
class Params {
 public:
  Params();

  // Throws pnl_err::Error(pnl_err::Kind::kConf) for an unknown type, an empty rule, a
  // character given two types, a line end other than "\n", or a comment
  // that starts with a separator, a character token or the line end.
  void Add(const CharToken& rule);
  void Add(const Comment& rule);
  // Throws pnl_err::Error(pnl_err::Kind::kConf) for a continuation start that is not a
  // separator (it would change the words of the line), and for a limit of 0.
  void Add(const Continuation& rule);
  void Add(const LongestLine& rule);

  // Per-byte class, as used by the Tokenizer: a Token::Type, or kWordComment
  // for a word character that may open an anywhere-comment.
  static constexpr std::uint8_t kWordComment = 8;
  std::uint8_t Class(unsigned char c) const { return class_[c]; }
  bool MayOpenComment(unsigned char c) const { return comment_first_[c] != 0; }
  const std::vector<Comment>& comments() const { return comments_; }
  // Whether text holds a byte that may open a comment (a fast test for
  // stretches of text that cannot hold one).
  bool MayHoldComment(std::string_view text) const;
  // The one byte that opens every comment; -1 without comments, -2 when
  // comments start with different bytes.
  int CommentByte() const { return comment_byte_; }

  // Continuation: whether a line starting with c continues the one above;
  // whether a backslash before a line end joins the next line.
  bool Continues(unsigned char c) const { return continues_[c] != 0; }
  bool HasContinuation() const { return has_continuation_; }
  bool BackslashJoins() const { return backslash_joins_; }
  // The longest line a post may write; 0: no limit.
  std::size_t LongestLineBytes() const { return longest_line_; }

 private:
  std::uint8_t class_[256];
  std::uint8_t comment_first_[256];
  std::vector<Comment> comments_;
  int comment_byte_ = -1;
  std::uint8_t continues_[256];
  bool has_continuation_ = false;
  bool backslash_joins_ = false;
  std::size_t longest_line_ = 0;
};

// Scans text by the rules. The text and the rules must outlive it.
class Tokenizer {
 public:
  Tokenizer(const Params& rules, std::string_view text) : rules_(&rules), text_(text) {}

  std::string_view text() const { return text_; }
  const Params& rules() const { return *rules_; }

  // The token that starts at or after pos, skipping comments (and separator
  // runs unless with_separators); pos moves just past it. At the end of the
  // text returns an End token and leaves pos at the end. pos must stand at a
  // token boundary (a line start or the end of an earlier token).
  Token Next(std::size_t& pos, bool with_separators = false) const;

 private:
  bool MatchComment(std::size_t pos, bool anywhere_only, std::size_t& after) const;

  const Params* rules_;
  std::string_view text_;
};

}  // namespace pnl_token
