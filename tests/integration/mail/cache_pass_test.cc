// The mailboxes' read-back over a large virtual user table: one pass adds a
// row per address line of a panel domain, a pass over the same file adds
// none, and a pass over a file that lost lines sweeps their rows.
#include <gtest/gtest.h>

#include <string>

#include "mail_fixture.h"

using zeltest::MailTest;

namespace {

constexpr int kDomains = 10;
constexpr int kLines = 20000;

// A virtual user table of count mailbox lines spread over the domains
// dom0..dom9.example (every skip_every-th left out when skip_every > 0), with
// lines of an unknown domain and catch-alls among them.
std::string Table(int count, int skip_every) {
  std::string text;
  for (int d = 0; d < kDomains; ++d)
    text += "@dom" + std::to_string(d) + ".example\terror:nouser No such user here\n";
  for (int i = 0; i < count; ++i) {
    if (skip_every > 0 && i % skip_every == 0) continue;
    const std::string local = "user" + std::to_string(i);
    const std::string domain = "dom" + std::to_string(i % kDomains) + ".example";
    text += local + "@" + domain + "\t" + local + "+" + domain + "\n";
    if (i % 1000 == 0) text += local + "@unknown.example\t" + local + "+unknown.example\n";
  }
  return text;
}

}  // namespace

class CachePassTest : public MailTest {
 protected:
  int64_t Count(const std::string& where = "1") {
    return Db()->Query("SELECT count(*) FROM email WHERE " + where).Int();
  }
};

TEST_F(CachePassTest, APassOverManyLinesAddsTagsAndSweepsMailboxes) {
  for (int d = 0; d < kDomains; ++d) NewDomain("dom" + std::to_string(d) + ".example");

  box_.Write("virtusertable", Table(kLines, 0));
  PinPassTag(-1234);
  mta_->CacheEmails();
  EXPECT_EQ(Count(), kLines);
  EXPECT_EQ(Count("tag = -1234"), kLines);
  EXPECT_EQ(Count("enabled = 1"), kLines);
  NextRequest();

  // The same lines again, in a file that changed: every mailbox is found and
  // tagged anew, none added.
  box_.Write("virtusertable", Table(kLines, 0) + "# touched\n");
  PinPassTag(77);
  mta_->CacheEmails();
  EXPECT_EQ(Count(), kLines);
  EXPECT_EQ(Count("tag = 77"), kLines);
  NextRequest();

  // Without every seventh line: those mailboxes are swept, the others kept.
  box_.Write("virtusertable", Table(kLines, 7));
  PinPassTag(-78);
  mta_->CacheEmails();
  EXPECT_EQ(Count(), kLines - (kLines + 6) / 7);
  EXPECT_EQ(Count("name = 'user7'"), 0);
  EXPECT_EQ(Count("name = 'user8'"), 1);
  EXPECT_EQ(Count("tag != -78"), 0);
}
