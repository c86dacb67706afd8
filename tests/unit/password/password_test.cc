// Mailbox passwords: what is accepted, and hashes the mail server itself
// verifies.
#include "zelapi/password.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "zelapi/err.h"
#include "zelapi/proc.h"
#include "zelapi/str.h"

namespace {

constexpr char kDoveadm[] = "/usr/bin/doveadm";

// Dovecot's own verdict on hash and password ("doveadm pw -t"), with an
// empty configuration so that no installed one is read.
int DovecotVerdict(const std::string& hash, const std::string& password) {
  pnl_proc::Execute run(std::string(kDoveadm) + " -c /dev/null pw -t " + str::ShellWord(hash) +
                            " -p " + str::ShellWord(password),
                        2);
  return run.Result();
}

}  // namespace

TEST(PasswordTest, AHashCarriesItsSchemeAndVerifiesOnlyItsPassword) {
  const std::string hash = pnl_password::Hash("correct horse");
  EXPECT_EQ(hash.rfind("{ARGON2ID}$argon2id$v=19$", 0), 0u) << hash;
  EXPECT_TRUE(pnl_password::LooksLikeHash(hash));
  EXPECT_TRUE(pnl_password::Verify(hash, "correct horse"));
  EXPECT_FALSE(pnl_password::Verify(hash, "correct horsE"));
  EXPECT_FALSE(pnl_password::Verify(hash, ""));
}

TEST(PasswordTest, TwoHashesOfOnePasswordDifferByTheirSalt) {
  EXPECT_NE(pnl_password::Hash("same password"), pnl_password::Hash("same password"));
}

TEST(PasswordTest, TheMailServerVerifiesTheHash) {
  ASSERT_TRUE(std::filesystem::exists(kDoveadm)) << "dovecot-core is not installed";
  const std::string hash = pnl_password::Hash("s3cret-\"quoted' $word");
  EXPECT_EQ(DovecotVerdict(hash, "s3cret-\"quoted' $word"), 0);
  EXPECT_NE(DovecotVerdict(hash, "s3cret-other"), 0);
}

TEST(PasswordTest, UnfitPasswordsAreRefusedWithTheReason) {
  EXPECT_EQ(pnl_password::Problem("abcdefgh"), "");
  EXPECT_EQ(pnl_password::Problem("tab\there ok"), "");
  EXPECT_EQ(pnl_password::Problem("short"), "is shorter than 8 characters");
  EXPECT_EQ(pnl_password::Problem(std::string(1025, 'x')), "is longer than 1024 bytes");
  EXPECT_EQ(pnl_password::Problem("line\nend here"), "holds a line end");
  EXPECT_EQ(pnl_password::Problem("carriage\rreturn"), "holds a line end");
  EXPECT_EQ(pnl_password::Problem(std::string("nul\0inside", 10)), "holds a control character");
  EXPECT_EQ(pnl_password::Problem("escape\x1b[0m"), "holds a control character");
  try {
    pnl_password::Hash("short");
    FAIL() << "hashed";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kUsage);
    EXPECT_EQ(e.object(), "password");
  }
}

TEST(PasswordTest, OnlyTheHashFormCountsAsAHash) {
  EXPECT_FALSE(pnl_password::LooksLikeHash(""));
  EXPECT_FALSE(pnl_password::LooksLikeHash("plain text"));
  EXPECT_FALSE(pnl_password::LooksLikeHash("{PLAIN}secret"));
  EXPECT_FALSE(pnl_password::LooksLikeHash("$argon2id$v=19$m=65536,t=2,p=1$c2FsdA$aGFzaA"));
  EXPECT_FALSE(pnl_password::LooksLikeHash("{ARGON2ID}$argon2id$v=19$m=1\nuser:x"));
  EXPECT_FALSE(pnl_password::Verify("{ARGON2ID}$argon2id$broken", "anything"));
}
