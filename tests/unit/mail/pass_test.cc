// The shape of a mail module's cache pass over a large file: one
// FindByEmailName and one post per line in one request, then a sweep of the
// rows the pass did not tag.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mail_fixture.h"
#include "zelapi/db.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"

using mailtest::MailTest;

namespace {

constexpr int kDomains = 10;
constexpr int kLines = 20000;

// The lines of a virtual user table: mailbox addresses, a few of unknown
// domains and catch-alls among them.
std::vector<std::string> Lines(int count, int skip_every) {
  std::vector<std::string> lines;
  for (int i = 0; i < count; ++i) {
    if (skip_every > 0 && i % skip_every == 0) continue;
    lines.push_back("user" + std::to_string(i) + "@dom" + std::to_string(i % kDomains) +
                    ".example");
    if (i % 1000 == 0) lines.push_back("user" + std::to_string(i) + "@unknown.example");
    if (i % 5000 == 0) lines.push_back("@dom" + std::to_string(i % kDomains) + ".example");
  }
  return lines;
}

}  // namespace

class PassTest : public MailTest {
 protected:
  // Runs one pass over lines; returns the number of mailboxes it added.
  int Pass(const std::vector<std::string>& lines, int tag) {
    pnl_db::Request request(*cache_);
    auto emails = cache_->Get<zel_db::EmailTable>();
    auto domains = cache_->Get<zel_db::EmailDomainTable>();
    int added = 0;
    for (const std::string& line : lines) {
      const bool found = email::FindByEmailName(line, emails, domains);
      if (!found && domains->Eof()) continue;
      if (!found) {
        emails->New();
        emails->name = line.substr(0, line.find('@'));
        emails->domain = domains->id;
        ++added;
      }
      emails->enabled = true;
      emails->tag = tag;
      emails->Post();
    }
    emails->DbDelete("tag != " + std::to_string(tag));
    request.End();
    return added;
  }
};

TEST_F(PassTest, APassOverManyLinesAddsTagsAndSweepsMailboxes) {
  for (int d = 0; d < kDomains; ++d) AddMailDomain("dom" + std::to_string(d) + ".example");

  EXPECT_EQ(Pass(Lines(kLines, 0), -1234), kLines);
  EXPECT_EQ(Count("email"), kLines);
  EXPECT_EQ(cache_->Query("SELECT count(*) FROM email WHERE tag = -1234").Int(), kLines);

  // The same file again: every mailbox is found, none added.
  EXPECT_EQ(Pass(Lines(kLines, 0), 77), 0);
  EXPECT_EQ(Count("email"), kLines);

  // A file without every seventh line: those mailboxes are swept.
  const std::vector<std::string> fewer = Lines(kLines, 7);
  EXPECT_EQ(Pass(fewer, 78), 0);
  const int64_t expected = kLines - (kLines + 6) / 7;
  EXPECT_EQ(Count("email"), expected);
  EXPECT_EQ(cache_->Query("SELECT count(*) FROM email WHERE name = 'user7'").Int(), 0);
  EXPECT_EQ(cache_->Query("SELECT count(*) FROM email WHERE name = 'user8'").Int(), 1);
}
