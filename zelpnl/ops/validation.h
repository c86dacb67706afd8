// zelpnl validation: the checks every value passes at the command line,
// before anything is opened or written.
//
// Each function takes a value as the administrator typed it and returns its
// canonical form (domain names in ASCII and lower case, local parts in lower
// case, IP addresses and networks as sendmail matches them), or throws
// Invalid naming the value and what is wrong with it. They look at the text only: whether a user,
// a domain or a mailbox exists is the command's business. Pure functions,
// thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "zelapi/err.h"

namespace zelpnl {

// A value the command line refuses: error type "usage", object the kind of
// value and the value itself in double quotes (control characters written as
// \n, \t, \xNN), detail what is wrong. The host exits with status 2.
class Invalid : public pnl_err::Error {
 public:
  Invalid(const std::string& kind, const std::string& value, const std::string& detail);
};

// The value in double quotes, control characters and backslashes escaped, so
// that a message shows exactly what was given.
std::string Quote(const std::string& value);

// A panel user name: 1 to 32 lower-case letters, digits, ".", "_", "-",
// starting with a letter or digit.
std::string UserName(const std::string& text);

// A domain name (the validator's grammar); Unicode names become their ASCII
// form, letters become lower case. kind names the value in messages.
std::string DomainName(const std::string& text, const std::string& kind = "domain name");

// The local part of a mailbox or alias address: a dot-atom of at most 64
// characters, in lower case, without "#" or "|" (which the files would read as
// a comment or a program), without "+" (sendmail's user+detail: a mailbox's
// local name L+D would reach the system user L whenever its aliases entry is
// missing), and not starting with "/" (a file target) or "-" (an option).
std::string LocalPart(const std::string& text, const std::string& kind = "local part");

// A local name as sendmail takes it (a system user, an aliases entry, a
// mailbox's local name L+D): as LocalPart, with "+" taken.
std::string LocalName(const std::string& text, const std::string& kind = "local name");

struct Address {
  std::string local;   // canonical local part
  std::string domain;  // ASCII domain name
  std::string Text() const { return local + "@" + domain; }
};

// A mailbox address L@D: LocalPart and DomainName, split at the last "@".
Address MailAddress(const std::string& text, const std::string& kind = "address");

// An address naming a mailbox the panel may hold already: as MailAddress, but
// a "+" in the local part is taken (rows older than that rule stay
// reachable by show, suspend, resume and delete).
Address KnownAddress(const std::string& text, const std::string& kind = "address");

// An address outside the panel's own names (a forward target, a redirect, a
// sender, an address sendmail is asked about): as MailAddress, "+" taken.
Address RemoteAddress(const std::string& text, const std::string& kind = "address");

// An alias of a mailbox in domain: a local part, or a complete address in
// that same domain. Returns the local part.
std::string AliasName(const std::string& text, const std::string& domain);

// A forward target as the aliases file holds it: an e-mail address (domain in
// ASCII lower case, local part as given); with allow_programs, also a pipe to
// a program ("|command") or a file ("/path"), returned in double quotes.
std::string ForwardTarget(const std::string& text, bool allow_programs);

// A sender-list entry: an e-mail address or a domain (in lower case), or a
// connecting client: an IPv4 or IPv6 address or network in the spelling
// sendmail's access map matches (pnl_net::Parse: "192.0.2.7", "192.0.2",
// "2001:db8:0:0:0:0:0:7", "2001:db8"; CIDR that ends on a whole octet or
// group, "192.0.2.0/24" becoming "192.0.2"; the tag "IPv6:" taken). One
// canonical form per entry, so that every spelling of it finds it. kind_out
// receives "address", "domain", "ipv4", "ipv4-network", "ipv6" or
// "ipv6-network".
std::string Sender(const std::string& text, std::string* kind_out = nullptr);

// A domain's default action and its redirect: "error" and "ignore" take no
// redirect, "redir_email" needs an address and "redir_domain" a domain other
// than the domain itself. Returns the canonical redirect ("" when none).
std::string Redirect(const std::string& action, const std::string& redirect,
                     const std::string& domain);

// Responder texts: a subject is one line of at most 255 characters without
// control characters; a text at most 65536 bytes, any lines, no NUL byte and
// no control character but line ends and tabs.
std::string ResponderSubject(const std::string& text);
std::string ResponderText(const std::string& text);

// A quota: a number of bytes, or with the suffix K, M, G or T (powers of
// 1024), "0" for none (a mailbox's: its domain's). At most 2^50 bytes.
int64_t QuotaBytes(const std::string& text);

// A quota as the panel shows it: "0" for none, else the largest unit that
// divides it ("512M", "3G", "1000").
std::string QuotaText(int64_t bytes);

}  // namespace zelpnl
