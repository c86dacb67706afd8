#include "zelapi/conf/token.h"

#include <cstring>
#include <utility>

#include "zelapi/err.h"

namespace pnl_token {

namespace {

[[noreturn]] void Refuse(const std::string& what, const std::string& why) {
  throw pnl_err::Error(pnl_err::Kind::kConf, "token rule " + what, why);
}

std::string Show(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else
      out += c;
  }
  return out + "\"";
}

}  // namespace

CharToken::CharToken(std::string chars, int type) : chars_(std::move(chars)), type_(type) {}

Comment::Comment(std::string start, std::string end, bool anywhere)
    : start_(std::move(start)), end_(std::move(end)), anywhere_(anywhere) {}

Continuation::Continuation(std::string starts, bool backslash)
    : starts_(std::move(starts)), backslash_(backslash) {}

Params::Params() {
  std::memset(class_, Token::Word, sizeof class_);
  std::memset(comment_first_, 0, sizeof comment_first_);
  std::memset(continues_, 0, sizeof continues_);
  class_[static_cast<unsigned char>('\n')] = Token::LineEnd;
}

void Params::Add(const CharToken& rule) {
  const std::string what = Show(rule.chars());
  if (rule.chars().empty()) Refuse(what, "no characters");
  const int type = rule.type();
  if (type != Token::Separator && type != Token::Char && type != Token::LineEnd)
    Refuse(what, "unknown token type " + std::to_string(type));
  for (char ch : rule.chars()) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c == '\n') {
      if (type != Token::LineEnd) Refuse(what, "\"\\n\" can only end a line");
      continue;
    }
    if (type == Token::LineEnd) Refuse(what, "only \"\\n\" can end a line");
    if (class_[c] != Token::Word && class_[c] != kWordComment)
      Refuse(what, std::string("character '") + ch + "' already has a type");
    if (comment_first_[c]) Refuse(what, std::string("character '") + ch + "' opens a comment");
    class_[c] = static_cast<std::uint8_t>(type);
  }
}

void Params::Add(const Comment& rule) {
  const std::string what = Show(rule.start());
  if (rule.start().empty() || rule.end().empty()) Refuse(what, "empty comment start or end");
  const unsigned char first = static_cast<unsigned char>(rule.start()[0]);
  if (class_[first] != Token::Word && class_[first] != kWordComment)
    Refuse(what, "a comment must start with word text");
  comment_first_[first] = 1;
  if (rule.anywhere()) class_[first] = kWordComment;
  comments_.push_back(rule);
  if (comment_byte_ == -1)
    comment_byte_ = first;
  else if (comment_byte_ != first)
    comment_byte_ = -2;
}

void Params::Add(const Continuation& rule) {
  const std::string what = "continuation " + Show(rule.starts());
  for (char ch : rule.starts()) {
    const unsigned char c = static_cast<unsigned char>(ch);
    // Inside a logical line a line end and the blanks after it only
    // separate words; a start of any other class would glue words.
    if (class_[c] != Token::Separator)
      Refuse(what, std::string("character '") + ch + "' is not a separator");
    continues_[c] = 1;
  }
  if (rule.starts().empty() && !rule.backslash()) Refuse(what, "continues nothing");
  has_continuation_ = true;
  backslash_joins_ = backslash_joins_ || rule.backslash();
}

void Params::Add(const LongestLine& rule) {
  if (rule.bytes() == 0) Refuse("longest line", "a limit of 0 bytes");
  longest_line_ = rule.bytes();
}

bool Params::MayHoldComment(std::string_view text) const {
  if (comment_byte_ == -1 || text.empty()) return false;
  if (comment_byte_ >= 0) return std::memchr(text.data(), comment_byte_, text.size()) != nullptr;
  for (char c : text)
    if (comment_first_[static_cast<unsigned char>(c)]) return true;
  return false;
}

bool Tokenizer::MatchComment(std::size_t pos, bool anywhere_only, std::size_t& after) const {
  const std::size_t size = text_.size();
  for (const Comment& comment : rules_->comments()) {
    if (anywhere_only && !comment.anywhere()) continue;
    const std::string& start = comment.start();
    if (text_.compare(pos, start.size(), start) != 0) continue;
    // The comment runs to its end text or to the line end, whichever comes
    // first; neither belongs to it.
    std::size_t from = pos + start.size();
    const void* nl = from < size ? std::memchr(text_.data() + from, '\n', size - from) : nullptr;
    std::size_t line_end = nl ? static_cast<std::size_t>(static_cast<const char*>(nl) - text_.data()) : size;
    std::size_t stop = text_.substr(0, line_end).find(comment.end(), from);
    after = stop == std::string_view::npos ? line_end : stop;
    return true;
  }
  return false;
}

Token Tokenizer::Next(std::size_t& pos, bool with_separators) const {
  const char* data = text_.data();
  const std::size_t size = text_.size();
  const Params& rules = *rules_;
  for (;;) {
    if (pos >= size) {
      pos = size;
      return Token{Token::End, size, size};
    }
    const unsigned char c = static_cast<unsigned char>(data[pos]);
    if (rules.MayOpenComment(c)) {
      std::size_t after;
      if (MatchComment(pos, false, after)) {
        pos = after;
        continue;
      }
    }
    switch (rules.Class(c)) {
      case Token::Separator: {
        const std::size_t start = pos;
        do {
          ++pos;
        } while (pos < size && rules.Class(static_cast<unsigned char>(data[pos])) == Token::Separator);
        if (with_separators) return Token{Token::Separator, start, pos};
        continue;
      }
      case Token::LineEnd:
        ++pos;
        return Token{Token::LineEnd, pos - 1, pos};
      case Token::Char:
        ++pos;
        return Token{Token::Char, pos - 1, pos};
      default: {
        const std::size_t start = pos++;
        while (pos < size) {
          const std::uint8_t k = rules.Class(static_cast<unsigned char>(data[pos]));
          if (k == Token::Word) {
            ++pos;
            continue;
          }
          std::size_t after;
          if (k == Params::kWordComment && !MatchComment(pos, true, after)) {
            ++pos;
            continue;
          }
          break;
        }
        return Token{Token::Word, start, pos};
      }
    }
  }
}

}  // namespace pnl_token
