// zelpnl user and webdomain: the panel's own tables.
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

TEST_F(ZelpnlTest, UserAddListDelete) {
  auto added = Json({"user", "add", "bob"});
  EXPECT_EQ(added["user"]["name"], "bob");
  Ok({"webdomain", "add", "b.example", "--owner", "bob"});
  auto list = Json({"user", "list"});
  ASSERT_EQ(list["users"].size(), 2u);
  EXPECT_EQ(list["users"][0]["name"], "admin");
  EXPECT_EQ(list["users"][1]["name"], "bob");
  EXPECT_EQ(list["users"][1]["web_domains"], nlohmann::ordered_json::array({"b.example"}));
  EXPECT_EQ(Zel({"user", "list"}).out,
            "USER   WEB DOMAINS  MAIL DOMAINS\n"
            "admin  0            0\n"
            "bob    1            0\n");
  Ok({"user", "add", "carol"});
  auto deleted = Json({"user", "delete", "carol"});
  EXPECT_EQ(deleted["deleted"]["user"], "carol");
  EXPECT_EQ(Rows("SELECT name FROM users ORDER BY name"), "admin|bob");
}

TEST_F(ZelpnlTest, UserWhoOwnsDomainsIsNotDeleted) {
  Ok({"user", "add", "bob"});
  Ok({"webdomain", "add", "b.example", "--owner", "bob"});
  const auto before = State();
  const zeltest::Result run = Zel({"user", "delete", "bob"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: user \"bob\": owns web domains b.example; delete them first\n");
  EXPECT_EQ(State(), before);
}

TEST_F(ZelpnlTest, DuplicateAndUnknownUsersAreRefused) {
  const auto before = State();
  zeltest::Result run = Zel({"user", "add", "admin"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: user \"admin\": already exists\n");
  run = Zel({"user", "delete", "nobody"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: user \"nobody\": does not exist\n");
  run = Zel({"user", "add", "Bad Name"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "error: user name \"Bad Name\": contains a blank\n");
  EXPECT_EQ(State(), before);
}

TEST_F(ZelpnlTest, WebDomainAddListDeleteWithUnicodeNames) {
  auto added = Json({"webdomain", "add", "Bücher.example", "--owner", "admin"});
  EXPECT_EQ(added["webdomain"]["name"], "xn--bcher-kva.example");
  EXPECT_EQ(added["webdomain"]["unicode"], "bücher.example");
  EXPECT_EQ(added["webdomain"]["owner"], "admin");
  Ok({"webdomain", "add", "a.example", "--owner", "admin"});
  EXPECT_EQ(Zel({"webdomain", "list"}).out,
            "DOMAIN          OWNER  MAIL\n"
            "a.example       admin  no\n"
            "bücher.example  admin  no\n");
  Ok({"webdomain", "delete", "bücher.example"});
  EXPECT_EQ(Rows("SELECT name FROM domain"), "a.example");
}

TEST_F(ZelpnlTest, WebDomainOfUnknownOwnerOrTwiceIsRefused) {
  Ok({"webdomain", "add", "a.example", "--owner", "admin"});
  const auto before = State();
  zeltest::Result run = Zel({"webdomain", "add", "b.example", "--owner", "nobody"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: user \"nobody\": does not exist\n");
  run = Zel({"webdomain", "add", "A.example", "--owner", "admin"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: web domain \"a.example\": already exists\n");
  run = Zel({"webdomain", "add", "b.example"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(State(), before);
}

TEST_F(ZelpnlTest, WebDomainThatIsAMailDomainIsNotDeleted) {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "d.example"});
  const auto before = State();
  const zeltest::Result run = Zel({"webdomain", "delete", "d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: web domain \"d.example\": is a mail domain; delete the mail domain first "
            "(zelpnl mail domain delete d.example)\n");
  EXPECT_EQ(State(), before);
}
