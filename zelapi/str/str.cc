#include "zelapi/str.h"

#include <sys/random.h>

#include <cctype>
#include <cerrno>

#include "zelapi/err.h"

namespace str {

std::string GetWord(std::string& text, char delimiter) {
  const size_t at = text.find(delimiter);
  std::string word;
  if (at == std::string::npos) {
    word.swap(text);
  } else {
    word = text.substr(0, at);
    text.erase(0, at + 1);
  }
  return word;
}

namespace {
RandomSource random_source = nullptr;
}  // namespace

RandomSource SetRandomSource(RandomSource source) {
  const RandomSource previous = random_source;
  random_source = source;
  return previous;
}

std::string Random(size_t n) {
  if (random_source) return random_source(n);
  std::string bytes(n, '\0');
  size_t filled = 0;
  while (filled < n) {
    const ssize_t got = ::getrandom(bytes.data() + filled, n - filled, 0);
    if (got > 0) {
      filled += static_cast<size_t>(got);
    } else if (got < 0 && errno != EINTR) {
      throw pnl_err::Error(pnl_err::Kind::kRandom, "getrandom", std::strerror(errno));
    }
  }
  return bytes;
}

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

std::string Str(long value) { return std::to_string(value); }

std::string Replace(const std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  std::string result;
  size_t start = 0;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, start)) {
    result.append(text, start, at - start);
    result += to;
    start = at + from.size();
  }
  result.append(text, start, std::string::npos);
  return result;
}

std::string Join(const std::vector<std::string>& items, const std::string& separator) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += separator;
    out += items[i];
  }
  return out;
}

std::string Trim(const std::string& text) { return std::string(TrimView(text)); }

std::string_view TrimView(std::string_view text, std::string_view chars) {
  const size_t first = text.find_first_not_of(chars);
  if (first == std::string_view::npos) return std::string_view();
  const size_t last = text.find_last_not_of(chars);
  return text.substr(first, last - first + 1);
}

namespace {

bool PlainForShell(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '@' || c == '.' || c == '_' ||
         c == '+' || c == '=' || c == ':' || c == '/' || c == '-' || c == ',';
}

}  // namespace

std::string ShellWord(const std::string& text) {
  bool plain = !text.empty();
  for (char c : text)
    if (!PlainForShell(c)) plain = false;
  if (plain) return text;
  std::string word = "'";
  for (char c : text) {
    if (c == '\'')
      word += "'\\''";
    else
      word += c;
  }
  return word + "'";
}

}  // namespace str
