// The record views of the four sendmail-family files, read from and written
// to real files through the engine. No after-save step is installed here, so
// saves run no command.
#include "email/file_views.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "email/tables.h"
#include "sandbox.h"
#include "zelapi/err.h"

using email::AccessDb;
using email::Aliases;
using email::AliasTable;
using email::HostNames;
using email::LocalHostNames;
using email::SourceTarget;
using email::VirtualDomains;
using email::VirtualEmails;
using email::VirtualUserTable;
using zeltest::Sandbox;

namespace {

std::string TestName() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->name();
}

}  // namespace

TEST(HostNamesTest, CommentAfterDomainIsDroppedAndTrailingBlankKept) {
  Sandbox box(TestName());
  box.Write("lhn", "example.com #remark\n");
  auto hosts = LocalHostNames::Get<HostNames>(box.Path("lhn"), true);
  hosts->First();
  ASSERT_FALSE(hosts->Eof());
  EXPECT_EQ(hosts->name.Str(), "example.com ");
  hosts->Next();
  EXPECT_TRUE(hosts->Eof());
}

TEST(HostNamesTest, LineWithInnerBlankIsOneRecord) {
  Sandbox box(TestName());
  box.Write("lhn", "mail example.com\n");
  auto hosts = LocalHostNames::Get<HostNames>(box.Path("lhn"), true);
  hosts->First();
  ASSERT_FALSE(hosts->Eof());
  EXPECT_EQ(hosts->name.Str(), "mail example.com");
  hosts->Next();
  EXPECT_TRUE(hosts->Eof());
}

TEST(HostNamesTest, CommentLineIsNoRecord) {
  Sandbox box(TestName());
  box.Write("lhn", "# local names\n\n");
  auto hosts = LocalHostNames::Get<HostNames>(box.Path("lhn"), true);
  hosts->First();
  EXPECT_TRUE(hosts->Eof());
}

TEST(HostNamesTest, NewDomainAppendsNameAndLineEndOnly) {
  Sandbox box(TestName());
  box.Write("lhn", "# local names\na.example\n");
  auto hosts = LocalHostNames::Get<HostNames>(box.Path("lhn"), true);
  hosts->Create("b.example");
  hosts->Post("");
  EXPECT_EQ(box.Read("lhn"), "# local names\na.example\nb.example\n");
}

TEST(VirtualUserTableTest, CatchAllLineIsAVirtualDomainsRecord) {
  Sandbox box(TestName());
  box.Write("vut", "@a.example\terror:nouser No such user here\n");
  auto domains = VirtualUserTable::Get<VirtualDomains>(box.Path("vut"), true);
  ASSERT_TRUE(domains->Find("a.example"));
  EXPECT_EQ(domains->target.Str(), "error:nouser No such user here");
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  emails->First();
  EXPECT_TRUE(emails->Eof());
}

TEST(VirtualUserTableTest, AddressLineIsAVirtualEmailsRecord) {
  Sandbox box(TestName());
  box.Write("vut", "info@a.example\tinfo+a.example\n");
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  ASSERT_TRUE(emails->Find("info@a.example"));
  ASSERT_EQ(emails->target.Size(), 1u);
  EXPECT_EQ(emails->target[0], "info+a.example");
  auto domains = VirtualUserTable::Get<VirtualDomains>(box.Path("vut"), true);
  domains->First();
  EXPECT_TRUE(domains->Eof());
}

TEST(VirtualUserTableTest, TwoWordsWithoutAtAreClaimedByNeitherViewAndKept) {
  Sandbox box(TestName());
  const std::string text = "plain words\n@a.example\tdevnull\n";
  box.Write("vut", text);
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  emails->First();
  EXPECT_TRUE(emails->Eof());
  auto domains = VirtualUserTable::Get<VirtualDomains>(box.Path("vut"), true);
  domains->First();
  ASSERT_FALSE(domains->Eof());
  EXPECT_EQ(domains->name.Str(), "a.example");
  domains->Next();
  EXPECT_TRUE(domains->Eof());
  domains->Create("b.example");
  domains->target.Set("devnull");
  domains->Post("");
  EXPECT_EQ(box.Read("vut"), text + "@b.example\tdevnull\n");
}

TEST(VirtualUserTableTest, CommentLineIsNoRecord) {
  Sandbox box(TestName());
  box.Write("vut", "# @a.example\tdevnull\n#x@a.example\ty\n");
  auto domains = VirtualUserTable::Get<VirtualDomains>(box.Path("vut"), true);
  domains->First();
  EXPECT_TRUE(domains->Eof());
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  emails->First();
  EXPECT_TRUE(emails->Eof());
}

TEST(VirtualUserTableTest, SpacesSeparateLikeTabsAndTargetWordsAreKept) {
  Sandbox box(TestName());
  box.Write("vut", "x@a.example   error:nouser Account temporary disabled\n");
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  ASSERT_TRUE(emails->Find("x@a.example"));
  EXPECT_EQ(emails->target.Str(), "error:nouser Account temporary disabled");
  EXPECT_EQ(emails->target.Size(), 4u);
}

TEST(VirtualUserTableTest, NewLinesAreWrittenWithOneTab) {
  Sandbox box(TestName());
  auto domains = VirtualUserTable::Get<VirtualDomains>(box.Path("vut"), true);
  domains->New();
  domains->name.Set("a.example");
  domains->target.Set("error:nouser No such user here");
  domains->Post("");
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  emails->New();
  emails->name.Set("x@a.example");
  emails->target = "x+a.example";
  emails->Post("");
  EXPECT_EQ(box.Read("vut"),
            "@a.example\terror:nouser No such user here\n"
            "x@a.example\tx+a.example\n");
}

TEST(VirtualUserTableTest, TwoViewsShareOneCachedFile) {
  Sandbox box(TestName());
  box.Write("vut", "@a.example\tdevnull\n@b.example\tdevnull\n");
  auto domains = VirtualUserTable::Get<VirtualDomains>(box.Path("vut"), true);
  auto emails = VirtualUserTable::Get<VirtualEmails>(box.Path("vut"), true);
  ASSERT_TRUE(domains->Find("a.example"));
  emails->New();
  emails->name.Set("x@a.example");
  emails->target = "x+a.example";
  emails->Post(*domains);  // placed right after the other view's record
  EXPECT_EQ(box.Read("vut"), "@a.example\tdevnull\nx@a.example\tx+a.example\n@b.example\tdevnull\n");
  // The domain view sees the file as the email view left it.
  domains->Create("c.example");
  domains->target.Set("devnull");
  domains->Post("");
  EXPECT_EQ(box.Read("vut"),
            "@a.example\tdevnull\nx@a.example\tx+a.example\n@b.example\tdevnull\n@c.example\tdevnull\n");
}

TEST(AliasesTest, NameColonBlankAndTwoTargets) {
  Sandbox box(TestName());
  box.Write("aliases", "info: a@x.example, b@y.example\n");
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("info"));
  ASSERT_EQ(aliases->alias.Size(), 2u);
  EXPECT_EQ(aliases->alias[0], "a@x.example");
  EXPECT_EQ(aliases->alias[1], "b@y.example");
}

TEST(AliasesTest, NameDirectlyFollowedByColonAndOneTarget) {
  Sandbox box(TestName());
  box.Write("aliases", "info:root\n");
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("info"));
  ASSERT_EQ(aliases->alias.Size(), 1u);
  EXPECT_EQ(aliases->alias[0], "root");
}

TEST(AliasesTest, CommentLineIsNoRecord) {
  Sandbox box(TestName());
  box.Write("aliases", "# info: root\n");
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  aliases->First();
  EXPECT_TRUE(aliases->Eof());
  EXPECT_FALSE(aliases->Find("info"));
}

TEST(AliasesTest, QuotedTargetKeepsItsQuotesAndCommas) {
  Sandbox box(TestName());
  box.Write("aliases", "prog:\t\"|/usr/bin/filter a,b\", x\\@a.example\n");
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("prog"));
  ASSERT_EQ(aliases->alias.Size(), 2u);
  EXPECT_EQ(aliases->alias[0], "\"|/usr/bin/filter a,b\"");
  EXPECT_EQ(aliases->alias[1], "x\\@a.example");
}

TEST(AliasesTest, NewRecordIsNameColonTabTargets) {
  Sandbox box(TestName());
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  aliases->New();
  aliases->name.Set("devnull");
  aliases->alias = "\"/dev/null\"";
  aliases->Post("");
  EXPECT_EQ(box.Read("aliases"), "devnull:\t\"/dev/null\"\n");
}

TEST(AliasesTest, ValueWithLineEndIsRefusedAndNothingWritten) {
  Sandbox box(TestName());
  box.Write("aliases", "a:\tb\n");
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("a"));
  EXPECT_THROW(aliases->alias.Append("c\nevil: |/bin/sh"), pnl_err::Error);
  EXPECT_EQ(box.Read("aliases"), "a:\tb\n");
}

TEST(SourceTargetTest, ConnectKeyWithTabAndOk) {
  Sandbox box(TestName());
  box.Write("access", "Connect:192.0.2.1\tOK\n");
  auto access = AccessDb::Get<SourceTarget>(box.Path("access"), true);
  access->First();
  ASSERT_FALSE(access->Eof());
  EXPECT_EQ(access->source.Str(), "Connect:192.0.2.1");
  EXPECT_EQ(access->target.Str(), "OK");
}

TEST(SourceTargetTest, SpacesSeparateLikeATab) {
  Sandbox box(TestName());
  box.Write("access", "spam@x.example   REJECT\n");
  auto access = AccessDb::Get<SourceTarget>(box.Path("access"), true);
  ASSERT_TRUE(access->Find("spam@x.example"));
  EXPECT_EQ(access->target.Str(), "REJECT");
}

TEST(SourceTargetTest, TargetWithInnerSpacesIsReadWhole) {
  Sandbox box(TestName());
  box.Write("access", "x@a.example\t550 Account disabled\n");
  auto access = AccessDb::Get<SourceTarget>(box.Path("access"), true);
  ASSERT_TRUE(access->Find("x@a.example"));
  EXPECT_EQ(access->target.Str(), "550 Account disabled");
}

TEST(SourceTargetTest, NewLineIsWrittenWithOneTab) {
  Sandbox box(TestName());
  box.Write("access", "# access map\n");
  auto access = AccessDb::Get<SourceTarget>(box.Path("access"), true);
  access->New();
  access->source.Set("x@a.example");
  access->target.Set("550 Account disabled");
  access->Post("");
  EXPECT_EQ(box.Read("access"), "# access map\nx@a.example\t550 Account disabled\n");
}

namespace {

// The token rules of the virtual user table, as the table registers them.
pnl_token::Params VirtualUserTableRules() {
  pnl_token::Params rules;
  rules.Add(pnl_token::CharToken("@", 2));
  rules.Add(pnl_token::CharToken("\t ", 1));
  rules.Add(pnl_token::CharToken("\n", 6));
  rules.Add(pnl_token::Comment("#", "\n", false));
  return rules;
}

// Offers a view the line's second token instead of its first.
template <class View>
void ExpectNoClaimAwayFromLineStart(const std::string& line, const pnl_token::Params& rules) {
  Cf cf(line, rules);
  ASSERT_TRUE(cf.NextLine());
  cf.GetToken();
  ASSERT_NE(cf.pos(), cf.line_offset());
  View view;
  cf.Offer(&view);
  EXPECT_FALSE(view.Parse(cf));
  EXPECT_FALSE(cf.stored());
  EXPECT_EQ(cf.stored_count(), 0u);
}

}  // namespace

TEST(ParseTest, ViewsClaimNothingAwayFromTheStartOfALine) {
  const pnl_token::Params vut = VirtualUserTableRules();
  ExpectNoClaimAwayFromLineStart<VirtualEmails>("x@a.example\tx+a.example\n", vut);
  ExpectNoClaimAwayFromLineStart<VirtualDomains>("@a.example\tdevnull\n", vut);
  pnl_token::Params blanks;
  blanks.Add(pnl_token::CharToken(":\t ", 1));
  blanks.Add(pnl_token::CharToken("\n", 6));
  ExpectNoClaimAwayFromLineStart<Aliases>("info: root, admin\n", blanks);
  ExpectNoClaimAwayFromLineStart<SourceTarget>("x@a.example REJECT\n", blanks);
  ExpectNoClaimAwayFromLineStart<HostNames>("a b\n", blanks);
}

// Regression: continuation lines were read as nothing, and a rewrite of the
// entry left them to be glued onto its new text.
TEST(ParseTest, ALineStartingWithABlankContinuesTheAliasesEntryAbove) {
  Sandbox box(TestName());
  box.Write("aliases", "info:\troot,\n\tadmin\n");
  auto aliases = AliasTable::Get<Aliases>(box.Path("aliases"), true);
  ASSERT_TRUE(aliases->Find("info"));
  EXPECT_EQ(aliases->alias.Str(), "root, admin");
  EXPECT_FALSE(aliases->Find("admin"));
}

TEST(ParseTest, ALineStartingWithABlankIsClaimedByNoViewOfTheVirtualUserTable) {
  Sandbox box(TestName());
  box.Write("virtusertable", "a@b.example\tx+b.example\n\tjunk\n");
  auto lines = VirtualUserTable::Get<VirtualEmails>(box.Path("virtusertable"), true);
  ASSERT_TRUE(lines->Find("a@b.example"));
  EXPECT_EQ(lines->target.Str(), "x+b.example");
  EXPECT_FALSE(lines->Find("junk"));
}

TEST(TableTest, FirstUseFromTwoThreadsBuildsOneTableInstance) {
  Sandbox box(TestName());
  box.Write("access", "a@b.example\tOK\n");
  const std::size_t cached_before = BaseCachedConfig<PnlConfCache>::Instance()->CachedFiles();
  std::atomic<int> waiting{2};
  const AccessDb* tables[2] = {nullptr, nullptr};
  Cursor<SourceTarget> cursors[2];
  auto use = [&](int i) {
    waiting.fetch_sub(1);
    while (waiting.load() > 0) {
    }
    tables[i] = &AccessDb::Table();
    cursors[i] = AccessDb::Get<SourceTarget>(box.Path("access"), true);
    cursors[i]->Find("a@b.example");
  };
  std::thread one(use, 0);
  std::thread two(use, 1);
  one.join();
  two.join();
  ASSERT_NE(tables[0], nullptr);
  EXPECT_EQ(tables[0], tables[1]) << "each thread got the one table instance";
  for (const auto& cursor : cursors) {
    ASSERT_TRUE(cursor);
    EXPECT_FALSE(cursor->Eof());
    EXPECT_EQ(cursor->target.Str(), "OK");
  }
  EXPECT_TRUE(cursors[0]->SameFile(*cursors[1])) << "both cursors share one cached file";
  EXPECT_EQ(BaseCachedConfig<PnlConfCache>::Instance()->CachedFiles(), cached_before + 1);
}
