// pnl_net: IP addresses and networks written as text, in one canonical
// spelling each, for tables keyed by text (a mail server's access map) that
// match a client by its address and then by the address cut short at a dot
// (IPv4) or a colon (IPv6). Pure functions, thread-safe.
//
// What Parse reads (leading and trailing blanks are not accepted):
//   IPv4 address   "192.0.2.7": a dotted quad as inet_pton takes it.
//   IPv4 network   "192.0.2", "192.0", "192": its first 1 to 3 octets, each
//                  0 to 255 in decimal without leading zeros.
//   IPv6 address   any form inet_pton takes ("2001:db8::7", "::1",
//                  "::ffff:192.0.2.7", upper-case hex, leading zeros).
//   IPv6 network   "2001:db8": its first 1 to 7 groups of 1 to 4 hex digits,
//                  no "::". A single group needs the tag ("IPv6:2001"), as
//                  a bare number reads as an IPv4 network.
//   CIDR           "192.0.2.0/24", "2001:db8::/32": an address and a prefix
//                  length that ends on a whole octet (/8, /16, /24, /32) or
//                  a whole group (/16 to /112 by 16, /128); the address must
//                  have no bit set beyond the prefix. /32 and /128 are the
//                  address itself.
// IPv6 forms may carry the tag "IPv6:" (any letter case), as SMTP address
// literals do.
//
// The canonical spelling (Network::address): IPv4 as decimal octets; IPv6 as
// lower-case hex groups without leading zeros and without "::" compression
// (all eight groups of an address: "2001:db8:0:0:0:0:0:7"). An IPv4-mapped
// IPv6 address (::ffff:a.b.c.d) is the IPv4 address a.b.c.d: a dual-stack
// server reports such a client by its IPv4 address.
#pragma once

#include <string>

namespace pnl_net {

enum class Family { kIpv4, kIpv6 };

struct Network {
  Family family = Family::kIpv4;
  bool prefix = false;  // a network: the leading octets or groups only
  std::string address;  // the canonical spelling (see above), without tag

  // How to write it for people: address, except a one-group IPv6 network,
  // which gets its tag ("IPv6:2001") so that it reads back as IPv6.
  std::string Text() const;
  bool operator==(const Network& other) const {
    return family == other.family && prefix == other.prefix && address == other.address;
  }
};

enum class Parsed {
  kNotAnAddress,  // text holds characters no address or network is made of
  kOk,            // *out holds the canonical form
  kInvalid,       // it looks like an address or a network but is not one; *why says why
};

// Reads an address or a network of either family: IPv6 when text holds a
// ":" (or has the tag), IPv4 otherwise. *out and *why are written only for
// kOk and kInvalid respectively. why is a phrase that follows the value:
// "has a part above 255", "is a /20 network, which does not end on a whole
// octet (/8, /16, /24 or /32)".
Parsed Parse(const std::string& text, Network* out, std::string* why);

// The spelling inet_ntop gives an IPv6 address ("2001:db8::7"), or "" when
// text is not an IPv6 address: how such an address is commonly written.
std::string CompressedIpv6(const std::string& text);

// Loopback ports for servers a sandbox runs. FreeLoopbackPort asks the
// kernel for a port free on 127.0.0.1 (and on ::1 too when both) now; it
// may be taken again before it is used, so a server that cannot bind it
// must say so. Throws pnl_err::Error(kFile) when no socket can be made.
int FreeLoopbackPort(bool both);
// Whether ::1 can be bound on this machine.
bool HasIpv6Loopback();
// Whether something accepts TCP connections at host:port now (host an IPv4
// or IPv6 literal), waiting at most timeout_ms for the connection.
bool Accepts(const std::string& host, int port, int timeout_ms);

}  // namespace pnl_net
