#include "zelapi/password.h"

#include <sodium.h>

#include "zelapi/err.h"

namespace pnl_password {

namespace {

constexpr std::string_view kScheme = "{ARGON2ID}";
constexpr std::string_view kArgon2id = "$argon2id$";
constexpr std::size_t kShortest = 8;
constexpr std::size_t kLongest = 1024;

void Ready() {
  // sodium_init is idempotent and thread-safe; below zero: no randomness.
  if (sodium_init() < 0)
    throw pnl_err::Error(pnl_err::Kind::kRandom, "password",
                         "the system's random source cannot be used");
}

}  // namespace

std::string Problem(std::string_view password) {
  if (password.size() < kShortest)
    return "is shorter than " + std::to_string(kShortest) + " characters";
  if (password.size() > kLongest)
    return "is longer than " + std::to_string(kLongest) + " bytes";
  for (const char c : password) {
    const auto u = static_cast<unsigned char>(c);
    if (u == '\n' || u == '\r') return "holds a line end";
    if (u < 0x20 && u != '\t') return "holds a control character";
    if (u == 0x7f) return "holds a control character";
  }
  return "";
}

std::string Hash(std::string_view password) {
  if (const std::string problem = Problem(password); !problem.empty())
    throw pnl_err::Error(pnl_err::Kind::kUsage, "password", problem);
  Ready();
  char out[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str(out, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0)
    throw pnl_err::Error(pnl_err::Kind::kRandom, "password",
                         "cannot be hashed: the system gave too little memory");
  return std::string(kScheme) + out;
}

bool LooksLikeHash(std::string_view text) {
  if (text.substr(0, kScheme.size()) != kScheme) return false;
  const std::string_view rest = text.substr(kScheme.size());
  if (rest.substr(0, kArgon2id.size()) != kArgon2id || rest.size() >= crypto_pwhash_STRBYTES)
    return false;
  for (const char c : rest) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '$' || c == '=' || c == ',' || c == '+' || c == '/';
    if (!ok) return false;
  }
  return true;
}

bool Verify(std::string_view hash, std::string_view password) {
  if (!LooksLikeHash(hash) || sodium_init() < 0) return false;
  const std::string str(hash.substr(kScheme.size()));
  return crypto_pwhash_str_verify(str.c_str(), password.data(), password.size()) == 0;
}

}  // namespace pnl_password
