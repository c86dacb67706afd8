// pnl_password: mailbox passwords, kept only as hashes the mail server
// verifies itself.
//
// A hash is an Argon2id string (the memory-hard scheme the password hashing
// competition chose) with its scheme prefix: "{ARGON2ID}$argon2id$v=19$...".
// Salt and cost travel inside the string, so a later change of cost leaves
// older hashes valid. Hashing costs about 64 MiB of memory and a tenth of a
// second on purpose: that is what makes a stolen database slow to attack.
// Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace pnl_password {

// The password as a hash to store. The password must be acceptable
// (Problem returns ""); throws pnl_err::Error(kUsage) when it is not, and
// pnl_err::Error(kRandom) when the system cannot give memory or randomness.
std::string Hash(std::string_view password);

// Whether password matches hash (a string Hash made). False for any other
// string. Never throws.
bool Verify(std::string_view hash, std::string_view password);

// What is wrong with password as a mailbox's password, "" when nothing is:
// 8 to 1024 bytes, no NUL, no line end (a line of input carries none), no
// other control character.
std::string Problem(std::string_view password);

// Whether text has the form Hash gives (scheme prefix and Argon2id string),
// for values read back from the database. Never throws.
bool LooksLikeHash(std::string_view text);

}  // namespace pnl_password
