#include "validation.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "zelapi/net.h"
#include "zelapi/str.h"
#include "zelapi/test.h"

namespace zelpnl {

namespace {

constexpr size_t kMaxLocal = 64;
constexpr size_t kMaxProgramTarget = 512;
constexpr size_t kMaxUser = 32;
constexpr size_t kMaxSubject = 255;
constexpr size_t kMaxText = 65536;

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

// The characters that break a line of the mail files, with the reason, in
// the order they are looked for. Empty when there is none.
std::string LineBreaker(const std::string& text, const std::string& separators) {
  for (unsigned char c : text) {
    if (c == '\n' || c == '\r') return "contains a line end";
    if (c == '\t') return "contains a tab, which separates the fields of a line";
  }
  for (char c : separators) {
    if (text.find(c) == std::string::npos) continue;
    switch (c) {
      case ',':
        return "contains a comma, which separates the targets of an aliases line";
      case ':':
        return "contains a colon, which ends the name of an aliases line";
      case '#':
        return "contains \"#\", which starts a comment in the mail files";
      case '|':
        return "contains \"|\", which the aliases file reads as a pipe to a program";
      case ' ':
        return "contains a blank";
      case '"':
        return "contains a double quote";
      case '\\':
        return "contains a backslash";
      default:
        return std::string("contains \"") + c + "\"";
    }
  }
  for (unsigned char c : text)
    if (IsControl(c)) return "contains a control character";
  return "";
}

void RefuseBreakers(const std::string& kind, const std::string& text,
                    const std::string& separators) {
  const std::string why = LineBreaker(text, separators);
  if (!why.empty()) throw Invalid(kind, text, why);
}

bool HasNonAscii(const std::string& text) {
  for (unsigned char c : text)
    if (c >= 0x80) return true;
  return false;
}

}  // namespace

Invalid::Invalid(const std::string& kind, const std::string& value, const std::string& detail)
    : pnl_err::Error(pnl_err::Kind::kUsage, kind + " " + Quote(value), detail) {}

std::string Quote(const std::string& value) {
  std::string out = "\"";
  for (unsigned char c : value) {
    switch (c) {
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      default:
        if (IsControl(c)) {
          char hex[8];
          std::snprintf(hex, sizeof(hex), "\\x%02x", c);
          out += hex;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string UserName(const std::string& text) {
  const std::string kind = "user name";
  if (text.empty()) throw Invalid(kind, text, "is empty");
  if (text.size() > kMaxUser) throw Invalid(kind, text, "is longer than 32 characters");
  RefuseBreakers(kind, text, ",:# ");
  for (char c : text) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
                    c == '-';
    if (!ok)
      throw Invalid(kind, text,
                    "may hold only lower-case letters, digits, \".\", \"_\" and \"-\"");
  }
  if (text[0] == '.' || text[0] == '_' || text[0] == '-')
    throw Invalid(kind, text, "must start with a letter or a digit");
  return text;
}

std::string DomainName(const std::string& text, const std::string& kind) {
  if (text.empty()) throw Invalid(kind, text, "is empty");
  RefuseBreakers(kind, text, ",:#| \"\\@");
  if (text.back() == '.') throw Invalid(kind, text, "ends in a dot; give the name without it");
  std::string name = str::Lower(text);
  if (!test::Domain(name)) {
    if (!HasNonAscii(text) && !str::IdnALabelsValid(name))
      throw Invalid(kind, text,
                    "has an \"xn--\" label that is not the ASCII form of a valid "
                    "international name (checked as its Unicode form would be)");
    if (HasNonAscii(text))
      throw Invalid(kind, text,
                    "is not a valid domain name (cannot be converted to its ASCII form, or a "
                    "label is invalid)");
    throw Invalid(kind, text,
                  "is not a valid domain name (two or more labels of letters, digits and "
                  "\"-\", at most 63 characters each, the last not all digits)");
  }
  return name;
}

namespace {

// A local part: a dot-atom of at most 64 characters, in lower case, with the
// characters the mail files or sendmail would misread refused. plus: whether
// "+" may appear (in addresses elsewhere; a local part of the panel's own
// never holds one).
std::string CheckLocal(const std::string& text, const std::string& kind, bool plus) {
  if (text.empty()) throw Invalid(kind, text, "is empty");
  RefuseBreakers(kind, text, ",:#| \"\\@");
  if (text.size() > kMaxLocal) throw Invalid(kind, text, "is longer than 64 characters");
  if (text[0] == '/')
    throw Invalid(kind, text, "starts with \"/\", which the aliases file reads as a file");
  // A command line would read it as an option (sendmail -bv, the responder).
  if (text[0] == '-') throw Invalid(kind, text, "starts with \"-\", which reads as an option");
  if (text.front() == '.' || text.back() == '.' || text.find("..") != std::string::npos)
    throw Invalid(kind, text, "has a dot at its start or end, or two dots in a row");
  // sendmail reads "%" and "!" as routing through another host (newaliases
  // then refuses the entry as a non-local name), and a single quote cannot
  // be carried in the responder's command line.
  if (text.find_first_of("%!'") != std::string::npos)
    throw Invalid(kind, text,
                  "contains \"%\", \"!\" or \"'\", which sendmail reads as routing or the "
                  "responder's command line cannot carry");
  // A mailbox's local name is L+D; sendmail takes what follows the first "+"
  // of a local name as a detail, and when no aliases entry answers the whole
  // name it delivers to the system user before the "+".
  if (!plus && text.find('+') != std::string::npos)
    throw Invalid(kind, text,
                  "contains \"+\", which sendmail reads as the start of a detail "
                  "(user+detail); the panel's local parts never hold one");
  std::string probe = text + "@example.com";
  if (!test::Email(probe))
    throw Invalid(kind, text,
                  "is not a valid local part (letters, digits and $&*+-/=?^_`{}~, "
                  "dot-separated)");
  return str::Lower(text);
}

Address CheckAddress(const std::string& text, const std::string& kind, bool plus) {
  if (text.empty()) throw Invalid(kind, text, "is empty");
  RefuseBreakers(kind, text, ",:#| \"\\");
  const size_t at = text.rfind('@');
  if (at == std::string::npos) throw Invalid(kind, text, "has no \"@\"");
  if (at == 0) throw Invalid(kind, text, "has no local part before \"@\"");
  if (at + 1 == text.size()) throw Invalid(kind, text, "has no domain after \"@\"");
  Address address;
  try {
    address.local = CheckLocal(text.substr(0, at), "local part", plus);
    address.domain = DomainName(text.substr(at + 1));
  } catch (const Invalid& e) {
    throw Invalid(kind, text, e.detail() + " (" + e.object() + ")");
  }
  if (address.Text().size() > 254)
    throw Invalid(kind, text, "is longer than 254 characters");
  return address;
}

}  // namespace

std::string LocalPart(const std::string& text, const std::string& kind) {
  return CheckLocal(text, kind, false);
}

std::string LocalName(const std::string& text, const std::string& kind) {
  return CheckLocal(text, kind, true);
}

Address MailAddress(const std::string& text, const std::string& kind) {
  return CheckAddress(text, kind, false);
}

Address KnownAddress(const std::string& text, const std::string& kind) {
  return CheckAddress(text, kind, true);
}

Address RemoteAddress(const std::string& text, const std::string& kind) {
  return CheckAddress(text, kind, true);
}

std::string AliasName(const std::string& text, const std::string& domain) {
  const std::string kind = "alias";
  if (text.find('@') == std::string::npos) return LocalPart(text, kind);
  const Address address = MailAddress(text, kind);
  if (address.domain != domain)
    throw Invalid(kind, text, "is not in the mailbox's domain " + domain);
  return address.local;
}

std::string ForwardTarget(const std::string& text, bool allow_programs) {
  const std::string kind = "forward target";
  if (text.empty()) throw Invalid(kind, text, "is empty");
  std::string body = text;
  if (body.size() >= 2 && body.front() == '"' && body.back() == '"')
    body = body.substr(1, body.size() - 2);
  const bool program = !body.empty() && body[0] == '|';
  const bool file = !body.empty() && body[0] == '/';
  if (program || file) {
    const std::string what = program ? "a pipe to a program" : "a file";
    if (!allow_programs)
      throw Invalid(kind, text, "is " + what + ", which needs --allow-program-targets");
    const std::string why = LineBreaker(body, ",\"\\");
    if (!why.empty()) throw Invalid(kind, text, why);
    // newaliases refuses an entry longer than its line buffer; a target
    // this long cannot be a sensible command or path anyway.
    if (body.size() > kMaxProgramTarget)
      throw Invalid(kind, text,
                    "is longer than " + std::to_string(kMaxProgramTarget) + " characters");
    if ((program && body.size() < 2) || (file && body.size() < 2))
      throw Invalid(kind, text, "names no " + std::string(program ? "program" : "file"));
    return "\"" + body + "\"";
  }
  if (text.front() == '"') throw Invalid(kind, text, "contains a double quote");
  if (text.rfind(":include:", 0) == 0)
    throw Invalid(kind, text, "is an include file, which the panel does not write");
  const Address address = RemoteAddress(text, kind);
  // The local part of a remote address keeps its letter case.
  return text.substr(0, text.rfind('@')) + "@" + address.domain;
}

std::string Sender(const std::string& text, std::string* kind_out) {
  const std::string kind = "sender";
  if (text.empty()) throw Invalid(kind, text, "is empty");
  RefuseBreakers(kind, text, ",#| \"\\");
  std::string which;
  std::string value;
  pnl_net::Network net;
  std::string why;
  if (text.find('@') != std::string::npos) {
    which = "address";
    value = RemoteAddress(text, kind).Text();
  } else {
    switch (pnl_net::Parse(text, &net, &why)) {
      case pnl_net::Parsed::kInvalid:
        throw Invalid(kind, text, why);
      case pnl_net::Parsed::kOk:
        which = net.family == pnl_net::Family::kIpv4 ? "ipv4" : "ipv6";
        if (net.prefix) which += "-network";
        value = net.Text();
        break;
      case pnl_net::Parsed::kNotAnAddress:
        if (text.find(':') != std::string::npos) {
          // "Connect:", "From:" and the like are sendmail's tags: the panel
          // chooses a key's tag itself. Anything else with a colon was meant
          // as an IPv6 address.
          const std::string head = text.substr(0, text.find(':'));
          if (head.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            throw Invalid(kind, text,
                          "starts with the tag \"" + head +
                              ":\"; give the sender alone (an address, a domain, an IP "
                              "address or network)");
          throw Invalid(kind, text,
                        "is not an IPv6 address or network (an address such as 2001:db8::7, or "
                        "the leading groups of one such as 2001:db8)");
        }
        try {
          value = DomainName(text);
        } catch (const Invalid&) {
          throw Invalid(kind, text,
                        "is neither an e-mail address, a domain name, nor an IPv4 or IPv6 "
                        "address or network");
        }
        which = "domain";
        break;
    }
  }
  if (kind_out) *kind_out = which;
  return value;
}

std::string Redirect(const std::string& action, const std::string& redirect,
                     const std::string& domain) {
  if (action == "error" || action == "ignore") {
    if (!redirect.empty())
      throw Invalid("redirect", redirect,
                    "is only taken with the default actions redir_email and redir_domain, not " +
                        action);
    return "";
  }
  if (action == "redir_email") {
    if (redirect.empty())
      throw Invalid("default action", action, "needs --redirect with an e-mail address");
    return RemoteAddress(redirect, "redirect").Text();
  }
  if (action == "redir_domain") {
    if (redirect.empty())
      throw Invalid("default action", action, "needs --redirect with a domain name");
    const std::string target = DomainName(redirect, "redirect");
    if (target == domain)
      throw Invalid("redirect", redirect, "is the domain itself; mail would loop");
    return target;
  }
  throw Invalid("default action", action,
                "is not one of error, ignore, redir_email, redir_domain");
}

std::string ResponderSubject(const std::string& text) {
  const std::string kind = "responder subject";
  if (text.size() > kMaxSubject) throw Invalid(kind, text, "is longer than 255 characters");
  for (unsigned char c : text)
    if (IsControl(c)) throw Invalid(kind, text, "is not one line (contains a control character)");
  return text;
}

std::string ResponderText(const std::string& text) {
  const std::string kind = "responder text";
  if (text.size() > kMaxText) throw Invalid(kind, text.substr(0, 40) + "...", "is longer than 65536 bytes");
  for (unsigned char c : text)
    if (IsControl(c) && c != '\n' && c != '\t' && c != '\r')
      throw Invalid(kind, text, "contains a control character other than line ends and tabs");
  return text;
}

int64_t QuotaBytes(const std::string& text) {
  static const char kUnits[] = "KMGT";
  std::string digits = text;
  int shift = 0;
  if (!digits.empty()) {
    const char* unit = std::strchr(kUnits, std::toupper(static_cast<unsigned char>(digits.back())));
    if (unit != nullptr && *unit != '\0') {
      shift = 10 * static_cast<int>(unit - kUnits + 1);
      digits.pop_back();
    }
  }
  if (digits.empty() || digits.size() > 16 ||
      digits.find_first_not_of("0123456789") != std::string::npos)
    throw Invalid("quota", text, "is no size: give bytes, or a number with K, M, G or T");
  const int64_t number = std::stoll(digits);
  constexpr int64_t kMost = int64_t{1} << 50;
  if (number > (kMost >> shift)) throw Invalid("quota", text, "is larger than 1024T");
  return number << shift;
}

std::string QuotaText(int64_t bytes) {
  if (bytes <= 0) return "0";
  static const char kUnits[] = "TGMK";
  for (int i = 0; i < 4; ++i) {
    const int shift = 10 * (4 - i);
    if (bytes % (int64_t{1} << shift) == 0)
      return std::to_string(bytes >> shift) + kUnits[i];
  }
  return std::to_string(bytes);
}

}  // namespace zelpnl
