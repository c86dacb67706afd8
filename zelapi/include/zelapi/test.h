// test: validators of the platform. Each takes a modifiable string and may
// put it into canonical form when it is valid (a Unicode domain becomes its
// ASCII form); test::Const<&F> runs F on a copy, leaving the caller's text
// alone. Pure functions, thread-safe.
//
// Grammars:
//   Domain: 1 to 253 characters in all, at least two labels separated by ".";
//     each label 1 to 63 letters, digits and "-", not starting or ending with
//     "-"; the last label not all digits; one trailing "." is not accepted.
//     Labels with non-ASCII letters are converted with IDNA2008 (libidn2)
//     first and the name is checked and returned in its ASCII form.
//   Email: local "@" domain, split at the last "@". The local part is a
//     dot-atom: 1 to 64 characters, atoms of letters, digits and
//     !#$%&'*+-/=?^_`{|}~ joined by single dots, no leading or trailing dot.
//     The domain as Domain. At most 254 characters in all (ASCII form).
//   Ip: an IPv4 address in dotted-quad form or an IPv6 address, as inet_pton
//     accepts them.
//   Ip6: an IPv6 address as inet_pton(AF_INET6) accepts it.
#pragma once

#include <string>

namespace test {

bool Domain(std::string& text);
bool Email(std::string& text);
bool Ip(std::string& text);
bool Ip6(std::string& text);

template <bool (*F)(std::string&)>
bool Const(const std::string& text) {
  std::string copy = text;
  return F(copy);
}

}  // namespace test
