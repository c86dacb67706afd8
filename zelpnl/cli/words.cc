#include "words.h"

#include "validation.h"

namespace zelpnl {

namespace {

// The object named is the line from the faulty character on.
[[noreturn]] void Refuse(const std::string& line, const std::string& what, size_t at) {
  throw Invalid("quoting", line.substr(at), what + " (column " + std::to_string(at + 1) + ")");
}

bool Blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  size_t i = 0;
  const size_t n = line.size();
  while (i < n && Blank(line[i])) ++i;
  if (i < n && line[i] == '#') return words;

  std::string word;
  bool in_word = false;  // a word is open (it may be empty: "")
  while (i < n) {
    const char c = line[i];
    if (Blank(c)) {
      if (in_word) words.push_back(std::move(word));
      word.clear();
      in_word = false;
      ++i;
      continue;
    }
    in_word = true;
    if (c == '\\') {
      if (i + 1 >= n) Refuse(line, "backslash at the end of the line", i);
      word += line[i + 1];
      i += 2;
    } else if (c == '\'') {
      const size_t end = line.find('\'', i + 1);
      if (end == std::string::npos) Refuse(line, "single quote not closed", i);
      word.append(line, i + 1, end - i - 1);
      i = end + 1;
    } else if (c == '"') {
      const size_t start = i;
      ++i;
      for (;;) {
        if (i >= n) Refuse(line, "double quote not closed", start);
        const char q = line[i];
        if (q == '"') break;
        if (q == '\\' && i + 1 < n &&
            (line[i + 1] == '"' || line[i + 1] == '\\' || line[i + 1] == '$' ||
             line[i + 1] == '`')) {
          word += line[i + 1];
          i += 2;
          continue;
        }
        word += q;
        ++i;
      }
      ++i;
    } else if (c == '$' && i + 1 < n && line[i + 1] == '\'') {
      const size_t start = i;
      i += 2;
      for (;;) {
        if (i >= n) Refuse(line, "$' quote not closed", start);
        const char q = line[i];
        if (q == '\'') break;
        if (q != '\\') {
          word += q;
          ++i;
          continue;
        }
        if (i + 1 >= n) Refuse(line, "$' quote not closed", start);
        switch (line[i + 1]) {
          case 'n': word += '\n'; break;
          case 't': word += '\t'; break;
          case 'r': word += '\r'; break;
          case '\\': word += '\\'; break;
          case '\'': word += '\''; break;
          case '"': word += '"'; break;
          default:
            Refuse(line, std::string("unknown escape \\") + line[i + 1] + " in $'...'", i);
        }
        i += 2;
      }
      ++i;
    } else {
      word += c;
      ++i;
    }
  }
  if (in_word) words.push_back(std::move(word));
  return words;
}

}  // namespace zelpnl
