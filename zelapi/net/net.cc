#include "zelapi/net.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace pnl_net {

namespace {

const char kNotIpv4[] =
    "is not an IPv4 address or network (one to four numbers from 0 to 255, joined by dots)";
const char kNotIpv6[] =
    "is not an IPv6 address or network (an address such as 2001:db8::7, or the leading "
    "groups of one such as 2001:db8)";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHex(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool AllOf(const std::string& text, bool (*ok)(char)) {
  for (char c : text)
    if (!ok(c)) return false;
  return true;
}

bool Ipv4Char(char c) { return IsDigit(c) || c == '.' || c == '/'; }
bool Ipv6Char(char c) { return IsHex(c) || c == ':' || c == '.' || c == '/'; }

bool StartsWithTag(const std::string& text) {
  static const char kTag[] = "ipv6:";
  if (text.size() < 5) return false;
  for (size_t i = 0; i < 5; ++i) {
    char c = text[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != kTag[i]) return false;
  }
  return true;
}

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(sep, start);
    parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

// A decimal number of 1 to max_digits digits without leading zeros; -1 if not.
int Number(const std::string& text, size_t max_digits) {
  if (text.empty() || text.size() > max_digits || !AllOf(text, IsDigit)) return -1;
  if (text.size() > 1 && text[0] == '0') return -1;
  int n = 0;
  for (char c : text) n = n * 10 + (c - '0');
  return n;
}

std::string Ipv4Text(const unsigned char* bytes, int octets) {
  std::string out;
  for (int i = 0; i < octets; ++i) {
    if (i) out += '.';
    out += std::to_string(bytes[i]);
  }
  return out;
}

std::string Ipv6Text(const unsigned char* bytes, int groups) {
  std::string out;
  char group[8];
  for (int i = 0; i < groups; ++i) {
    std::snprintf(group, sizeof(group), "%x", (bytes[2 * i] << 8) | bytes[2 * i + 1]);
    if (i) out += ':';
    out += group;
  }
  return out;
}

bool Ipv4Mapped(const unsigned char* bytes) {
  for (int i = 0; i < 10; ++i)
    if (bytes[i] != 0) return false;
  return bytes[10] == 0xff && bytes[11] == 0xff;
}

// Whether every bit of bytes[0..size) from bit `bits` on is zero.
bool ZeroBeyond(const unsigned char* bytes, size_t size, int bits) {
  for (size_t i = static_cast<size_t>(bits / 8); i < size; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

std::string NotOnBoundary(const std::string& length, bool ipv6) {
  return "is a /" + length + " network, which does not end on a whole " +
         (ipv6 ? "group (/16, /32, /48, /64, /80, /96, /112 or /128)"
               : "octet (/8, /16, /24 or /32)");
}

Parsed Fail(std::string* why, const std::string& text) {
  if (why) *why = text;
  return Parsed::kInvalid;
}

Parsed Done(Network* out, Family family, bool prefix, std::string address) {
  if (out) {
    out->family = family;
    out->prefix = prefix;
    out->address = std::move(address);
  }
  return Parsed::kOk;
}

Parsed FullIpv6(const unsigned char* bytes, Network* out) {
  if (Ipv4Mapped(bytes)) return Done(out, Family::kIpv4, false, Ipv4Text(bytes + 12, 4));
  return Done(out, Family::kIpv6, false, Ipv6Text(bytes, 8));
}

Parsed ParseIpv4(const std::string& text, Network* out, std::string* why) {
  const size_t slash = text.find('/');
  if (slash != std::string::npos) {
    const std::string address = text.substr(0, slash);
    const std::string length = text.substr(slash + 1);
    unsigned char bytes[4];
    const int bits = Number(length, 2);
    if (::inet_pton(AF_INET, address.c_str(), bytes) != 1 || bits < 0 || bits > 32)
      return Fail(why, kNotIpv4);
    if (bits % 8 != 0 || bits == 0) return Fail(why, NotOnBoundary(length, false));
    if (!ZeroBeyond(bytes, 4, bits))
      return Fail(why, "has bits set beyond its /" + length + " prefix");
    return Done(out, Family::kIpv4, bits < 32, Ipv4Text(bytes, bits / 8));
  }
  const std::vector<std::string> parts = Split(text, '.');
  if (parts.size() > 4) return Fail(why, kNotIpv4);
  unsigned char bytes[4];
  for (size_t i = 0; i < parts.size(); ++i) {
    const int n = Number(parts[i], 3);
    if (n < 0 || n > 255) return Fail(why, kNotIpv4);
    bytes[i] = static_cast<unsigned char>(n);
  }
  const int octets = static_cast<int>(parts.size());
  return Done(out, Family::kIpv4, octets < 4, Ipv4Text(bytes, octets));
}

Parsed ParseIpv6(const std::string& text, Network* out, std::string* why) {
  if (!AllOf(text, Ipv6Char) || text.empty()) return Fail(why, kNotIpv6);
  unsigned char bytes[16];
  const size_t slash = text.find('/');
  if (slash != std::string::npos) {
    const std::string address = text.substr(0, slash);
    const std::string length = text.substr(slash + 1);
    const int bits = Number(length, 3);
    if (::inet_pton(AF_INET6, address.c_str(), bytes) != 1 || bits < 0 || bits > 128)
      return Fail(why, kNotIpv6);
    if (bits % 16 != 0 || bits == 0) return Fail(why, NotOnBoundary(length, true));
    if (!ZeroBeyond(bytes, 16, bits))
      return Fail(why, "has bits set beyond its /" + length + " prefix");
    if (bits == 128) return FullIpv6(bytes, out);
    return Done(out, Family::kIpv6, true, Ipv6Text(bytes, bits / 16));
  }
  // "::", eight groups or an IPv4 tail: an address; anything else is the
  // leading groups of one.
  const std::vector<std::string> groups = Split(text, ':');
  if (text.find("::") != std::string::npos || groups.size() >= 8 ||
      text.find('.') != std::string::npos) {
    if (::inet_pton(AF_INET6, text.c_str(), bytes) != 1) return Fail(why, kNotIpv6);
    return FullIpv6(bytes, out);
  }
  std::memset(bytes, 0, sizeof(bytes));
  for (size_t i = 0; i < groups.size(); ++i) {
    const std::string& g = groups[i];
    if (g.empty() || g.size() > 4 || !AllOf(g, IsHex)) return Fail(why, kNotIpv6);
    const unsigned long value = std::stoul(g, nullptr, 16);
    bytes[2 * i] = static_cast<unsigned char>(value >> 8);
    bytes[2 * i + 1] = static_cast<unsigned char>(value & 0xff);
  }
  return Done(out, Family::kIpv6, true, Ipv6Text(bytes, static_cast<int>(groups.size())));
}

}  // namespace

std::string Network::Text() const {
  if (family == Family::kIpv6 && prefix && address.find(':') == std::string::npos)
    return "IPv6:" + address;
  return address;
}

Parsed Parse(const std::string& text, Network* out, std::string* why) {
  if (text.empty() || text.find('\0') != std::string::npos) return Parsed::kNotAnAddress;
  if (StartsWithTag(text)) return ParseIpv6(text.substr(5), out, why);
  if (text.find(':') != std::string::npos) {
    if (!AllOf(text, Ipv6Char)) return Parsed::kNotAnAddress;
    return ParseIpv6(text, out, why);
  }
  if (!AllOf(text, Ipv4Char) || !IsDigit(text[0])) return Parsed::kNotAnAddress;
  return ParseIpv4(text, out, why);
}

std::string CompressedIpv6(const std::string& text) {
  unsigned char bytes[16];
  char out[INET6_ADDRSTRLEN];
  if (text.find('\0') != std::string::npos ||
      ::inet_pton(AF_INET6, text.c_str(), bytes) != 1 ||
      ::inet_ntop(AF_INET6, bytes, out, sizeof(out)) == nullptr)
    return "";
  return out;
}

}  // namespace pnl_net
