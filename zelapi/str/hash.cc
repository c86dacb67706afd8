#include "zelapi/hash.h"

#include <bit>
#include <cstring>

namespace pnl_hash {

namespace {

// Eight bytes read as one little-endian word, whatever the machine.
inline std::uint64_t Word(const char* p) {
  std::uint64_t w;
  std::memcpy(&w, p, 8);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
  return w;
}

// Each word (the last, short one with its missing bytes zero, even when it
// is empty) is passed through fold, then mixed in by a multiply and a
// shift; the end spreads every input bit over every output bit, so that the
// low bits an index uses are as good as the rest.
template <class Fold>
std::uint64_t HashWith(std::string_view data, Fold fold) {
  constexpr std::uint64_t kMul = 0x9E3779B97F4A7C15ull;
  std::uint64_t h = 0x243F6A8885A308D3ull ^ data.size();
  const char* p = data.data();
  std::size_t n = data.size();
  for (; n >= 8; p += 8, n -= 8) {
    h = (h ^ fold(Word(p))) * kMul;
    h ^= h >> 29;
  }
  std::uint64_t tail = 0;
  for (std::size_t i = 0; i < n; ++i)
    tail |= static_cast<std::uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
  h = (h ^ fold(tail)) * kMul;
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ull;
  h ^= h >> 33;
  return h;
}

}  // namespace

std::uint64_t Hash64(std::string_view data) {
  return HashWith(data, [](std::uint64_t w) { return w; });
}

std::uint64_t Hash64Folded(std::string_view data) { return HashWith(data, LowerWord); }

}  // namespace pnl_hash
