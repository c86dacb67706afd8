#include "zelaliasdb/aliases_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zel_aliasdb {

namespace {

// Characters that end or change an address in sendmail's parser; a name
// holding any of them is left to sendmail.
constexpr std::string_view kSpecials = "!\"%(),;<>@\\:";

struct PlainTable {
  bool plain[256] = {};
  constexpr PlainTable() {
    for (int c = 0x21; c <= 0x7e; ++c) plain[c] = true;
    for (char c : kSpecials) plain[static_cast<unsigned char>(c)] = false;
  }
};
constexpr PlainTable kPlain;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// What sendmail skips before a value: C's isspace in the C locale.
bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

bool IsPlainNameByte(unsigned char c) { return kPlain.plain[c]; }

std::string KeyOf(std::string_view name) {
  std::size_t b = 0;
  std::size_t e = name.size();
  while (b < e && IsBlank(name[b])) ++b;
  while (e > b && IsBlank(name[e - 1])) --e;
  std::string key(name.substr(b, e - b));
  for (char& c : key)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return key;
}

std::string ShortFileName(const std::string& path) {
  if (path.size() <= 82) return path;
  return path.substr(0, 40) + "..." + path.substr(path.size() - 40);
}

AliasesFile::AliasesFile(std::string text) : text_(std::move(text)) {
  has_nul_ = std::memchr(text_.data(), '\0', text_.size()) != nullptr;
}

std::size_t AliasesFile::PhysicalLines() const {
  std::size_t n = 0;
  const char* p = text_.data();
  const char* const end = p + text_.size();
  while ((p = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)))) != nullptr) {
    ++n;
    ++p;
  }
  return n + 1;
}

std::vector<Line> AliasesFile::Lines() {
  std::vector<Line> lines;
  Cut([&](const Line& line) { lines.push_back(line); });
  return lines;
}

void AliasesFile::Cut(const std::function<void(const Line&)>& on_line) {
  const char* const base = text_.data();
  const std::size_t size = text_.size();

  std::size_t pos = 0;
  std::uint32_t line_no = 0;
  // One physical line from pos, without its line end; advances pos past it.
  bool ended = false;  // the line read last had a line end
  auto read_physical = [&]() {
    const char* nl = static_cast<const char*>(std::memchr(base + pos, '\n', size - pos));
    const std::size_t end = nl ? static_cast<std::size_t>(nl - base) : size;
    std::string_view line(base + pos, end - pos);
    pos = nl ? end + 1 : size;
    ended = nl != nullptr;
    ++line_no;
    return line;
  };

  std::string joined;
  bool after_blank_start = false;  // the logical line before started with a blank
  while (pos < size) {
    const std::size_t raw_start = pos;
    const std::uint32_t first = line_no + 1;
    std::string_view segment = read_physical();
    std::string_view logical = segment;
    bool is_joined = false;
    auto start_joining = [&] {
      if (!is_joined) joined.assign(logical);
      is_joined = true;
    };
    // sendmail reads the logical line into its buffer: what did not fit of
    // the physical line read last, when it did not.
    std::size_t held = 0;
    bool over = false;
    std::string_view rest;
    auto fits = [&](std::string_view seg) {
      const std::size_t need = seg.size() + (ended ? 1 : 0);
      if (held + need <= kLineBuffer) {
        held += seg.size();
        return true;
      }
      rest = seg.substr(std::min(seg.size(), kLineBuffer - held));
      over = true;
      return false;
    };
    // A backslash before the line end takes in the next physical line; a
    // following line that starts with a blank or a tab continues this one.
    if (fits(segment)) {
      for (;;) {
        // The line so far, not only the physical line just read: a backslash
        // left over before an empty line joins again.
        const std::string_view so_far = is_joined ? std::string_view(joined) : segment;
        if (ended && !so_far.empty() && so_far.back() == '\\') {
          start_joining();
          joined.pop_back();
          --held;
          if (pos < size) {
            segment = read_physical();
          } else {
            segment = std::string_view();
            ended = false;
          }
          if (!fits(segment)) break;
          joined.append(segment);
          continue;
        }
        if (pos < size && IsBlank(base[pos])) {
          start_joining();
          segment = read_physical();
          if (!fits(segment)) break;
          joined.append(segment);
          continue;
        }
        break;
      }
    }
    if (over) {
      // Reported at the physical line that did not fit; sendmail then skips
      // the rest of the logical line without counting its lines. A skipped
      // line that ends in a backslash takes in the next one, and so does an
      // empty line after such a line.
      Line out;
      out.kind = Line::Kind::kError;
      out.first_line = first;
      out.line = line_no;
      out.text = "alias line too long";
      const std::string_view start = is_joined ? std::string_view(joined) : segment.substr(0, kLineBuffer);
      const std::size_t colon = start.find(':');
      if (colon != std::string_view::npos) {
        made_.push_back(KeyOf(start.substr(0, colon)));
        out.key = made_.back();
      }
      on_line(out);
      bool joins = ended && !rest.empty() && rest.back() == '\\';
      while (pos < size && (joins || IsBlank(base[pos]))) {
        const std::string_view skipped = read_physical();
        --line_no;
        joins = ended && ((!skipped.empty() && skipped.back() == '\\') || (joins && skipped.empty()));
      }
      continue;
    }
    if (is_joined) logical = joined;
    if (logical.empty() || logical.front() == '#') {
      after_blank_start = false;
      continue;
    }

    Line out;
    out.first_line = first;
    out.line = line_no;
    if (is_joined) {
      made_.push_back(joined);
      logical = made_.back();
    }

    if (IsBlank(logical.front())) {
      // sendmail reports one of two such lines in a row (the second can
      // only come after an empty line that joined it).
      if (!after_blank_start) {
        out.kind = Line::Kind::kError;
        out.text = "Non-continuation line starts with space";
        on_line(out);
      }
      after_blank_start = true;
      continue;
    }
    after_blank_start = false;
    if (logical.size() > kMaxPlainLine) {
      out.kind = Line::Kind::kOdd;
      out.text = std::string_view(base + raw_start, pos - raw_start);
      on_line(out);
      continue;
    }
    const std::size_t colon = logical.find(':');
    if (colon == std::string_view::npos) {
      out.kind = Line::Kind::kError;
      out.text = "missing colon";
      on_line(out);
      continue;
    }
    std::string_view name = logical.substr(0, colon);
    std::size_t name_len = name.size();
    while (name_len > 0 && IsBlank(name[name_len - 1])) --name_len;
    bool plain = name_len > 0 && name_len <= kMaxPlainName && name[0] != '|' && name[0] != '/';
    bool upper = false;
    for (std::size_t i = 0; plain && i < name_len; ++i) {
      const unsigned char c = static_cast<unsigned char>(name[i]);
      plain = kPlain.plain[c];
      upper |= c >= 'A' && c <= 'Z';
    }
    if (!plain) {
      out.kind = Line::Kind::kOdd;
      out.text = std::string_view(base + raw_start, pos - raw_start);
      on_line(out);
      continue;
    }
    std::size_t v = colon + 1;
    while (v < logical.size() && IsSpace(logical[v])) ++v;
    if (v == logical.size()) {
      out.kind = Line::Kind::kError;
      made_.push_back(std::string(logical.substr(0, 40)) + "... missing value for alias");
      out.text = made_.back();
      made_.push_back(KeyOf(name));
      out.key = made_.back();
      on_line(out);
      continue;
    }
    out.kind = Line::Kind::kEntry;
    out.text = name;
    out.key = name.substr(0, name_len);
    if (upper) {
      std::string lower(out.key);
      for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      made_.push_back(std::move(lower));
      out.key = made_.back();
    }
    out.value = logical.substr(v);
    on_line(out);
  }
}

}  // namespace zel_aliasdb
