// zelresponder address helpers: the mail addresses of header fields and of
// the envelope, read the way RFC 5322 writes them, without ever failing.
// Pure functions of their arguments; thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zelresponder {

// The addresses (addr-specs, "local@domain") of an address-list field value
// such as To or Cc: display names, comments and group names are dropped, an
// address in angle brackets is taken from inside them (a source route
// "@a,@b:" before it removed), blanks outside quoted strings are removed.
// Empty members are skipped. Never throws but std::bad_alloc.
std::vector<std::string> AddressList(std::string_view value);

// The address of a path: a Return-Path value or sendmail's envelope sender,
// with comments and the angle brackets removed: "<a@b.example>" gives
// "a@b.example", "<>" gives "".
std::string PathAddress(std::string_view value);

// Splits an address at its last "@" outside a quoted string. Returns false
// (local and domain untouched) when there is none or either side is empty.
bool SplitAddress(std::string_view address, std::string& local, std::string& domain);

// The form under which two addresses are compared: the local part with its
// quotes and escapes removed, then "@", then the domain without a final dot;
// both in lower case (ASCII), as the panel's maps compare them. An address
// without a domain gives its lower-case text.
std::string AddressKey(std::string_view address);

// The local part of an address with quotes and escapes removed, in lower
// case ("" when the address does not split).
std::string LocalKey(std::string_view address);

// Whether address may be the recipient of a reply: local@domain with a
// dot-atom or quoted-string local part and a domain of letters, digits, "-"
// and "." (or an address literal in brackets), printable ASCII only, at most
// 254 bytes. What it refuses could carry a second recipient or a header
// line into the reply, whose recipients sendmail reads from its To field.
bool IsReplyAddress(std::string_view address);

}  // namespace zelresponder
