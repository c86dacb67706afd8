// pnl_hash: the platform's one 64-bit hash of bytes.
//
// Used where a value must tell texts apart quickly: the key indexes of the
// configuration engine (their low 32 bits), the content check of the files
// the panel caches (kept in its database, so its values must never change:
// a change would make every cached file look rewritten once), and the
// alias builder's duplicate check. Not a defence against chosen collisions
// nor a checksum against tampering.
//
// Costs one multiply per eight bytes and three more at the end: about a
// nanosecond per eight bytes. Pure functions; thread-safe. The value does
// not depend on the machine's byte order.
#pragma once

#include <cstdint>
#include <string_view>

namespace pnl_hash {

// The hash of data.
std::uint64_t Hash64(std::string_view data);

// Hash64 of data with its ASCII capitals made small, without a copy: keys
// that compare without letter case hash alike. Bytes of 0x80 and above stay.
std::uint64_t Hash64Folded(std::string_view data);

// The eight bytes of w with each ASCII capital made small and every other
// byte as it is, all at once: the low seven bits of each byte are compared
// with 'A' and 'Z' by additions that cannot carry into the next byte.
inline std::uint64_t LowerWord(std::uint64_t w) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ull;
  constexpr std::uint64_t kHigh = 0x8080808080808080ull;
  const std::uint64_t low = w & ~kHigh;
  const std::uint64_t from_a = low + (0x80 - 'A') * kOnes;      // high bit: at least 'A'
  const std::uint64_t past_z = low + (0x80 - 'Z' - 1) * kOnes;  // high bit: beyond 'Z'
  const std::uint64_t upper = from_a & ~past_z & ~w & kHigh;
  return w | (upper >> 2);  // 0x80 >> 2 is the 0x20 between 'A' and 'a'
}

}  // namespace pnl_hash
