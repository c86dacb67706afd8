// Fuzz target for the validators test::Email, Domain, Ip and Ip6: an
// accepted value is accepted again unchanged (its canonical form is
// stable), holds nothing that would break a line of the mail files, a
// domain is ASCII letters, digits, "-" and ".", and an IPv6 address is an
// IP address.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zelapi/test.h"

namespace {

template <bool (*F)(std::string&)>
bool Stable(const std::string& input) {
  std::string value = input;
  if (!F(value)) return false;
  std::string again = value;
  if (!F(again) || again != value) abort();
  for (unsigned char c : value)
    if (c <= ' ' || c == 0x7f || c == ',' || c == '"' || c == '\\') abort();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  if (Stable<&test::Domain>(input)) {
    std::string value = input;
    test::Domain(value);
    for (unsigned char c : value)
      if (!(isalnum(c) || c == '-' || c == '.') || c > 0x7e) abort();
  }
  Stable<&test::Email>(input);
  const bool ip = Stable<&test::Ip>(input);
  if (Stable<&test::Ip6>(input) && !ip) abort();
  return 0;
}
