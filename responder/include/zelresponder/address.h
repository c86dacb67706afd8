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

// Whether address may be the recipient of an answer: exactly one address
// local@domain, where the local part is a dot-atom of letters, digits and
// "._+-=&'" (at most 64 bytes, not starting with "-") and the domain a host
// name of two or more labels of letters, digits and "-" (no final dot, no
// address literal); at most 254 bytes. Everything else is refused, however
// valid in mail: a quoted local part, a comment, an angle bracket, a comma or
// a blank (sendmail splits a recipient argument at commas and blanks, and
// reads quotes), "%", "!", "/" and "|" (routing, files and programs to
// sendmail), a leading "-" (an option to a command line), control characters
// and 8-bit bytes (a header line). When refused, *why (if given) says why.
bool IsReplyAddress(std::string_view address, std::string* why = nullptr);

// The address of a From or Sender field value that is exactly one mailbox:
// an address alone, or a display name (words and quoted strings) and one
// address in angle brackets, with nothing after it. Returns false, with the
// reason in *why, for anything else: several addresses or a group (",", ";",
// ":" outside quotes), a comment, more than one angle bracket, an "@" or a
// backslash outside quotes and brackets, a source route, an unterminated
// quoted string, control characters. The address found is not checked
// further (see IsReplyAddress).
bool OneMailbox(std::string_view value, std::string& address, std::string* why);

// The address of a Return-Path field value that is exactly one path: "<>"
// (address ""), "<address>" or an address alone, blanks around it allowed.
// Returns false, with the reason in *why, for anything else.
bool OnePath(std::string_view value, std::string& address, std::string* why);

}  // namespace zelresponder
