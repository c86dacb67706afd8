// Mail addresses of header fields and of the envelope.
#include "zelresponder/address.h"

namespace zelresponder {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string LowerText(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = Lower(c);
  return out;
}

bool IsAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// The characters of an atom (RFC 5322 atext).
bool IsAtext(char c) {
  if (IsAlnum(c)) return true;
  for (char s : std::string_view("!#$%&'*+-/=?^_`{|}~"))
    if (c == s) return true;
  return false;
}

// Copies the quoted string or domain literal that starts at text[i] (its
// opening character) into out, with its delimiters and escapes, and returns
// the position of its closing character (text.size() when it is missing).
size_t CopyDelimited(std::string_view text, size_t i, char close, std::string& out) {
  out += text[i];
  size_t j = i + 1;
  for (; j < text.size(); ++j) {
    const char c = text[j];
    if (c == '\\' && j + 1 < text.size()) {
      out += c;
      out += text[++j];
      continue;
    }
    if (c == close) {
      out += c;
      return j;
    }
    if (c == '\r' || c == '\n') continue;
    out += c;
  }
  return j;
}

// Skips the comment that starts at text[i] ("("), nested comments and
// escapes included; returns the position of its closing ")" (text.size()
// when it is missing).
size_t SkipComment(std::string_view text, size_t i) {
  int depth = 0;
  for (size_t j = i; j < text.size(); ++j) {
    const char c = text[j];
    if (c == '\\') {
      ++j;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')') {
      if (--depth == 0) return j;
    }
  }
  return text.size();
}

// The text with quotes and escapes removed.
std::string Unquote(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      out += text[++i];
    } else if (text[i] != '"') {
      out += text[i];
    }
  }
  return out;
}

bool IsDotAtom(std::string_view text) {
  if (text.empty() || text.front() == '.' || text.back() == '.') return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '.') {
      if (text[i + 1] == '.') return false;
    } else if (!IsAtext(text[i])) {
      return false;
    }
  }
  return true;
}

bool IsQuotedLocal(std::string_view text) {
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
  for (size_t i = 1; i + 1 < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 32 || c > 126) return false;
    if (c == '"') return false;
    if (c == '\\') {
      if (i + 2 >= text.size()) return false;  // would escape the closing quote
      ++i;
      const unsigned char e = static_cast<unsigned char>(text[i]);
      if (e < 32 || e > 126) return false;
    }
  }
  return true;
}

bool IsDomain(std::string_view text) {
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    for (size_t i = 1; i + 1 < text.size(); ++i) {
      const unsigned char c = static_cast<unsigned char>(text[i]);
      if (c < 33 || c > 126 || c == '[' || c == ']' || c == '\\') return false;
    }
    return true;
  }
  if (!text.empty() && text.back() == '.') text.remove_suffix(1);
  if (text.empty()) return false;
  size_t label = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '.') {
      if (label == 0 || label > 63) return false;
      if (text[i - 1] == '-' || text[i - label] == '-') return false;
      label = 0;
    } else if (IsAlnum(text[i]) || text[i] == '-') {
      ++label;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

std::vector<std::string> AddressList(std::string_view value) {
  std::vector<std::string> addresses;
  std::string plain;  // the text outside angle brackets, blanks removed
  std::string angle;  // the text inside the last angle brackets
  bool in_angle = false;
  bool saw_angle = false;
  auto finish = [&] {
    std::string address = saw_angle ? angle : plain;
    // A source route "@a,@b:" before the address is dropped.
    if (!address.empty() && address.front() == '@') {
      const size_t colon = address.find(':');
      address = colon == std::string::npos ? std::string() : address.substr(colon + 1);
    }
    if (!address.empty()) addresses.push_back(std::move(address));
    plain.clear();
    angle.clear();
    in_angle = false;
    saw_angle = false;
  };
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    std::string& text = in_angle ? angle : plain;
    if (c == '"') {
      i = CopyDelimited(value, i, '"', text);
    } else if (c == '[') {
      i = CopyDelimited(value, i, ']', text);
    } else if (c == '(') {
      i = SkipComment(value, i);
    } else if (c == '<') {
      in_angle = true;
      saw_angle = true;
      angle.clear();
    } else if (c == '>') {
      in_angle = false;
    } else if (IsBlank(c)) {
      // Blanks are dropped: an address holds none outside quoted strings.
    } else if (in_angle) {
      angle += c;
    } else if (c == ',' || c == ';') {
      // The end of a member, or of a group.
      finish();
    } else if (c == ':') {
      // What came before was a group's name.
      plain.clear();
    } else {
      plain += c;
    }
  }
  finish();
  return addresses;
}

std::string PathAddress(std::string_view value) {
  const std::vector<std::string> list = AddressList(value);
  return list.empty() ? std::string() : list.front();
}

bool SplitAddress(std::string_view address, std::string& local, std::string& domain) {
  size_t at = std::string_view::npos;
  bool quoted = false;
  for (size_t i = 0; i < address.size(); ++i) {
    const char c = address[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == '@' && !quoted) {
      at = i;
    }
  }
  if (at == std::string_view::npos || at == 0 || at + 1 == address.size()) return false;
  local = std::string(address.substr(0, at));
  domain = std::string(address.substr(at + 1));
  return true;
}

std::string AddressKey(std::string_view address) {
  std::string local, domain;
  if (!SplitAddress(address, local, domain)) return LowerText(Unquote(address));
  if (domain.back() == '.') domain.pop_back();
  return LowerText(Unquote(local)) + "@" + LowerText(domain);
}

std::string LocalKey(std::string_view address) {
  std::string local, domain;
  if (!SplitAddress(address, local, domain)) return std::string();
  return LowerText(Unquote(local));
}

bool IsReplyAddress(std::string_view address) {
  if (address.empty() || address.size() > 254) return false;
  std::string local, domain;
  if (!SplitAddress(address, local, domain)) return false;
  if (!IsDotAtom(local) && !IsQuotedLocal(local)) return false;
  // Targets the aliases file would take as a program or a file.
  const std::string bare = Unquote(local);
  if (bare.empty() || bare.front() == '|' || bare.front() == '/') return false;
  return IsDomain(domain);
}

}  // namespace zelresponder
