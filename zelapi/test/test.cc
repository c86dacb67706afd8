#include "zelapi/test.h"

#include <arpa/inet.h>

#include <cstring>

#include "zelapi/str.h"

namespace test {
namespace {

constexpr size_t kMaxDomain = 253;
constexpr size_t kMaxLabel = 63;
constexpr size_t kMaxLocal = 64;
constexpr size_t kMaxEmail = 254;

bool IsAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsAtext(char c) {
  return IsAlnum(c) || (c != '\0' && std::strchr("!#$%&'*+-/=?^_`{|}~", c) != nullptr);
}

bool HasNonAscii(const std::string& text) {
  for (unsigned char c : text)
    if (c >= 0x80) return true;
  return false;
}

// The grammar of an ASCII host name: letters, digits and hyphens.
bool AsciiDomain(const std::string& name) {
  if (name.empty() || name.size() > kMaxDomain) return false;
  size_t labels = 0;
  size_t start = 0;
  bool last_all_digits = false;
  for (;;) {
    size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    const size_t length = dot - start;
    if (length == 0 || length > kMaxLabel) return false;
    if (name[start] == '-' || name[dot - 1] == '-') return false;
    last_all_digits = true;
    for (size_t i = start; i < dot; ++i) {
      if (!IsAlnum(name[i]) && name[i] != '-') return false;
      if (!IsDigit(name[i])) last_all_digits = false;
    }
    ++labels;
    if (dot == name.size()) break;
    start = dot + 1;
  }
  return labels >= 2 && !last_all_digits;
}

// The domain in its ASCII form if it is a valid one.
bool CanonicalDomain(const std::string& name, std::string& ascii) {
  std::string converted = name;
  if (HasNonAscii(name) && !str::IdnToAscii(name, converted)) return false;
  if (!AsciiDomain(converted)) return false;
  if (!str::IdnALabelsValid(converted)) return false;
  ascii = converted;
  return true;
}

bool DotAtom(const std::string& local) {
  if (local.empty() || local.size() > kMaxLocal) return false;
  if (local.front() == '.' || local.back() == '.') return false;
  char previous = '\0';
  for (char c : local) {
    if (c == '.') {
      if (previous == '.') return false;
    } else if (!IsAtext(c)) {
      return false;
    }
    previous = c;
  }
  return true;
}

}  // namespace

bool Domain(std::string& text) {
  std::string ascii;
  if (!CanonicalDomain(text, ascii)) return false;
  text = ascii;
  return true;
}

bool Email(std::string& text) {
  const size_t at = text.rfind('@');
  if (at == std::string::npos) return false;
  const std::string local = text.substr(0, at);
  if (!DotAtom(local)) return false;
  std::string domain;
  if (!CanonicalDomain(text.substr(at + 1), domain)) return false;
  std::string address = local + "@" + domain;
  if (address.size() > kMaxEmail) return false;
  text = address;
  return true;
}

bool Ip(std::string& text) {
  unsigned char address[sizeof(struct in6_addr)];
  if (text.find('\0') != std::string::npos) return false;
  return ::inet_pton(AF_INET, text.c_str(), address) == 1 ||
         ::inet_pton(AF_INET6, text.c_str(), address) == 1;
}

bool Ip6(std::string& text) {
  unsigned char address[sizeof(struct in6_addr)];
  if (text.find('\0') != std::string::npos) return false;
  return ::inet_pton(AF_INET6, text.c_str(), address) == 1;
}

}  // namespace test
