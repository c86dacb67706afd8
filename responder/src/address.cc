// Mail addresses of header fields and of the envelope.
#include "zelresponder/address.h"

#include "zelapi/str.h"

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

bool No(std::string* why, const std::string& reason) {
  if (why) *why = reason;
  return false;
}

// The characters a local part may hold in an address answered: the atom
// characters that neither sendmail (routing "%", "!", files "/", programs
// "|", its operators "^") nor a shell or header reading them would take for
// anything but themselves.
bool IsLocalChar(char c) {
  if (IsAlnum(c)) return true;
  for (char s : std::string_view("._+-=&'"))
    if (c == s) return true;
  return false;
}

// A host name of two or more labels of letters, digits and "-" (1 to 63
// each, "-" neither first nor last), the last not all digits.
bool IsHostName(std::string_view text) {
  if (text.empty() || text.size() > 253) return false;
  size_t labels = 0;
  size_t start = 0;
  bool all_digits = true;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '.') {
      const size_t n = i - start;
      if (n == 0 || n > 63 || text[start] == '-' || text[i - 1] == '-') return false;
      ++labels;
      if (i == text.size()) break;
      start = i + 1;
      all_digits = true;
    } else if (IsAlnum(text[i]) || text[i] == '-') {
      if (text[i] < '0' || text[i] > '9') all_digits = false;
    } else {
      return false;
    }
  }
  return labels >= 2 && !all_digits;
}

bool HasControl(std::string_view text) {
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if ((u < 32 && c != '\t') || u == 127) return true;
  }
  return false;
}

// A display name: words of atom characters, ".", 8-bit bytes (names written
// without encoding) and quoted strings, separated by blanks. What matters is
// that nothing in it can be read as an address or a separator.
bool IsDisplayName(std::string_view text, std::string* why) {
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const unsigned char u = static_cast<unsigned char>(c);
    if (quoted) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        quoted = false;
      }
      continue;
    }
    if (c == '"') {
      quoted = true;
    } else if (c == '@') {
      return No(why, "it has an \"@\" outside the angle brackets");
    } else if (!(IsAtext(c) || c == '.' || c == ' ' || c == '\t' || u >= 128)) {
      return No(why, std::string("its display name holds \"") + c + "\" outside quotes");
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

bool IsReplyAddress(std::string_view address, std::string* why) {
  if (address.empty()) return No(why, "it is empty");
  if (address.size() > 254) return No(why, "it is longer than 254 characters");
  for (char c : address) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u <= 32 || u >= 127)
      return No(why, "it holds a blank, a control character or a non-ASCII byte");
  }
  const size_t at = address.find('@');
  if (at == std::string_view::npos) return No(why, "it has no \"@\" and a domain");
  if (address.find('@', at + 1) != std::string_view::npos)
    return No(why, "it holds more than one \"@\"");
  const std::string_view local = address.substr(0, at);
  const std::string_view domain = address.substr(at + 1);
  if (local.empty()) return No(why, "it has no local part");
  if (local.size() > 64) return No(why, "its local part is longer than 64 characters");
  if (local.front() == '-')
    return No(why, "its local part starts with \"-\", which a command line takes as an option");
  if (local.front() == '.' || local.back() == '.' || local.find("..") != std::string_view::npos)
    return No(why, "its local part has a dot at its start or end, or two dots in a row");
  for (char c : local)
    if (!IsLocalChar(c))
      return No(why, std::string("its local part holds \"") + c +
                         "\" (answers go to letters, digits and ._+-=&' only)");
  if (!IsHostName(domain))
    return No(why,
              "its domain is no host name (two or more labels of letters, digits and \"-\")");
  return true;
}

bool OneMailbox(std::string_view value, std::string& address, std::string* why) {
  value = str::TrimView(value);
  if (value.empty()) return No(why, "it is empty");
  if (HasControl(value)) return No(why, "it holds a control character");
  size_t lt = std::string_view::npos, gt = std::string_view::npos;
  bool quoted = false;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (quoted) {
      if (c == '\\') {
        if (++i == value.size()) break;
      } else if (c == '"') {
        quoted = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        if (lt != std::string_view::npos && gt == std::string_view::npos)
          return No(why, "its address in angle brackets holds a quote");
        quoted = true;
        break;
      case '(':
      case ')':
        return No(why, "it holds a comment");
      case ',':
        return No(why, "it holds several addresses");
      case ';':
      case ':':
        return No(why, "it is a group or holds a source route");
      case '\\':
        return No(why, "it holds a backslash outside quotes");
      case '[':
      case ']':
        return No(why, "it holds a square bracket");
      case '<':
        if (lt != std::string_view::npos) return No(why, "it holds more than one \"<\"");
        lt = i;
        break;
      case '>':
        if (gt != std::string_view::npos || lt == std::string_view::npos)
          return No(why, "its angle brackets do not pair");
        gt = i;
        break;
      default:
        break;
    }
  }
  if (quoted) return No(why, "it has an unterminated quoted string");
  if (lt == std::string_view::npos) {
    if (gt != std::string_view::npos) return No(why, "its angle brackets do not pair");
    for (char c : value)
      if (c == ' ' || c == '\t' || c == '"')
        return No(why, "it holds words or quotes besides one address");
    address.assign(value);
    return true;
  }
  if (gt == std::string_view::npos) return No(why, "its angle brackets do not pair");
  if (!str::TrimView(value.substr(gt + 1)).empty())
    return No(why, "it has text after the address in angle brackets");
  if (!IsDisplayName(value.substr(0, lt), why)) return false;
  const std::string_view inner = value.substr(lt + 1, gt - lt - 1);
  for (char c : inner)
    if (c == ' ' || c == '\t') return No(why, "its address in angle brackets holds a blank");
  if (!inner.empty() && inner.front() == '@') return No(why, "it holds a source route");
  address.assign(inner);
  return true;
}

bool OnePath(std::string_view value, std::string& address, std::string* why) {
  value = str::TrimView(value);
  if (HasControl(value)) return No(why, "it holds a control character");
  if (value.size() >= 2 && value.front() == '<' && value.back() == '>')
    value = value.substr(1, value.size() - 2);
  for (char c : value)
    if (c == '<' || c == '>' || c == ' ' || c == '\t' || c == ',' || c == '(' || c == ')' ||
        c == '"' || c == ':' || c == ';')
      return No(why, std::string("it is not one address in angle brackets (it holds \"") + c +
                         "\")");
  address.assign(value);
  return true;
}

}  // namespace zelresponder
