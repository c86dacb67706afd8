// zelpnl mail domain: the rows and the exact bytes of the sendmail files
// after each command.
#include <filesystem>

#include "zelpnl_fixture.h"

using zeltest::kCatchAll;
using zeltest::kDevnull;
using zeltest::ZelpnlTest;

namespace {

class ZelpnlMailDomainTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    Ok({"user", "add", "bob"});
    Ok({"webdomain", "add", "d.example", "--owner", "bob"});
  }
  void ExpectFiles(const std::string& vut, const std::string& lhn, const std::string& aliases,
                   const std::string& access) {
    EXPECT_EQ(File("virtusertable"), vut);
    EXPECT_EQ(File("local-host-names"), lhn);
    EXPECT_EQ(File("aliases"), aliases);
    EXPECT_EQ(File("access"), access);
  }
};

}  // namespace

TEST_F(ZelpnlMailDomainTest, AddWritesTheCatchAllAndTheLocalHostName) {
  auto doc = Json({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(doc["domain"],
            nlohmann::ordered_json({{"name", "d.example"},
                                    {"unicode", "d.example"},
                                    {"owner", "bob"},
                                    {"enabled", true},
                                    {"default_action", "error"},
                                    {"redirect", ""},
                                    {"quota", 0},
                                    {"mailboxes", 0}}));
  ExpectFiles(kCatchAll, "d.example\n", kDevnull, "");
  EXPECT_EQ(Rows("SELECT name, enabled, def_action FROM email_domain"), "d.example:1:error");
}

TEST_F(ZelpnlMailDomainTest, AddTakesTheWebDomainsOwnerAndEachDefaultAction) {
  for (const char* name : {"i.example", "e.example", "r.example"})
    Ok({"webdomain", "add", name, "--owner", "admin"});
  const auto before = State();
  const zeltest::Result other = Zel({"mail", "domain", "add", "d.example", "--owner", "admin"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.err,
            "error: mail domain \"d.example\": belongs to the owner of its web domain (bob), not "
            "to admin\n");
  EXPECT_EQ(State(), before);
  Ok({"mail", "domain", "add", "d.example", "--owner", "bob"});
  Ok({"mail", "domain", "add", "i.example", "--default-action", "ignore"});
  Ok({"mail", "domain", "add", "e.example", "--default-action", "redir_email", "--redirect",
      "all@Elsewhere.example"});
  Ok({"mail", "domain", "add", "r.example", "--default-action", "redir_domain", "--redirect",
      "elsewhere.example"});
  EXPECT_EQ(File("virtusertable"),
            "@d.example\terror:nouser No such user here\n"
            "@i.example\tdevnull\n"
            "@e.example\tall@elsewhere.example\n"
            "@r.example\t%1@elsewhere.example\n");
  EXPECT_EQ(File("local-host-names"), "d.example\ni.example\ne.example\nr.example\n");
  EXPECT_EQ(Rows("SELECT d.name, u.name FROM email_domain d JOIN users u ON u.id = d.users "
                 "ORDER BY d.id"),
            "d.example:bob|i.example:admin|e.example:admin|r.example:admin");
}

TEST_F(ZelpnlMailDomainTest, AddOfAUnicodeNameStoresTheAsciiFormAndShowsTheUnicodeOne) {
  Ok({"webdomain", "add", "bücher.example", "--owner", "bob"});
  auto doc = Json({"mail", "domain", "add", "bücher.example"});
  EXPECT_EQ(doc["domain"]["name"], "xn--bcher-kva.example");
  EXPECT_EQ(doc["domain"]["unicode"], "bücher.example");
  EXPECT_EQ(File("virtusertable"), "@xn--bcher-kva.example\terror:nouser No such user here\n");
  EXPECT_EQ(Zel({"mail", "domain", "list"}).out,
            "DOMAIN          OWNER  STATE   DEFAULT ACTION  MAILBOXES\n"
            "bücher.example  bob    active  error           0\n");
}

TEST_F(ZelpnlMailDomainTest, AddRefusesAnUnknownWebDomainAnExistingMailDomainAndAnUnknownOwner) {
  Ok({"mail", "domain", "add", "d.example"});
  const auto before = State();
  zeltest::Result run = Zel({"mail", "domain", "add", "x.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "error: web domain \"x.example\": does not exist; a mail domain must be a web domain "
            "of the panel first (zelpnl webdomain add x.example --owner USER)\n");
  run = Zel({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: mail domain \"d.example\": already exists\n");
  Ok({"webdomain", "add", "e.example", "--owner", "bob"});
  const auto with_web = State();
  run = Zel({"mail", "domain", "add", "e.example", "--owner", "nobody"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: user \"nobody\": does not exist\n");
  EXPECT_EQ(State(), with_web);
  EXPECT_EQ(before.at("virtusertable"), with_web.at("virtusertable"));
}

TEST_F(ZelpnlMailDomainTest, ListAndShow) {
  Ok({"mail", "domain", "add", "d.example", "--default-action", "redir_domain", "--redirect",
      "e.example"});
  Ok({"mail", "box", "add", "l@d.example"});
  auto list = Json({"mail", "domain", "list"});
  ASSERT_EQ(list["domains"].size(), 1u);
  EXPECT_EQ(list["domains"][0]["redirect"], "e.example");
  EXPECT_EQ(list["domains"][0]["mailboxes"], 1);
  EXPECT_EQ(Zel({"mail", "domain", "show", "d.example"}).out,
            "domain:         d.example\n"
            "ascii:          d.example\n"
            "owner:          bob\n"
            "state:          active\n"
            "default action: redir_domain e.example\n"
            "quota:          none\n"
            "mailboxes:      l@d.example\n");
  auto show = Json({"mail", "domain", "show", "d.example"});
  EXPECT_EQ(show["domain"]["mailbox_list"], nlohmann::ordered_json::array({"l@d.example"}));
  const zeltest::Result missing = Zel({"mail", "domain", "show", "x.example"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "error: mail domain \"x.example\": does not exist\n");
}

TEST_F(ZelpnlMailDomainTest, SuspendAndResume) {
  Ok({"mail", "domain", "add", "d.example", "--default-action", "ignore"});
  auto doc = Json({"mail", "domain", "suspend", "d.example"});
  EXPECT_EQ(doc["domain"]["enabled"], false);
  ExpectFiles("@d.example\terror:nouser Account temporary disabled\n", "d.example\n", kDevnull,
              "d.example\t550 Account disabled\n");
  EXPECT_EQ(Rows("SELECT enabled FROM email_domain"), "0");
  doc = Json({"mail", "domain", "resume", "d.example"});
  EXPECT_EQ(doc["domain"]["enabled"], true);
  ExpectFiles("@d.example\tdevnull\n", "d.example\n", kDevnull, "");
  EXPECT_EQ(Rows("SELECT enabled FROM email_domain"), "1");
}

TEST_F(ZelpnlMailDomainTest, SetChangesTheDefaultActionAndASuspendedDomainGetsItOnResume) {
  Ok({"mail", "domain", "add", "d.example"});
  auto doc = Json({"mail", "domain", "set", "d.example", "--default-action", "redir_email",
                   "--redirect", "all@e.example"});
  EXPECT_EQ(doc["domain"]["default_action"], "redir_email");
  EXPECT_EQ(File("virtusertable"), "@d.example\tall@e.example\n");
  Ok({"mail", "domain", "suspend", "d.example"});
  Ok({"mail", "domain", "set", "d.example", "--default-action", "ignore"});
  EXPECT_EQ(File("virtusertable"), "@d.example\terror:nouser Account temporary disabled\n");
  EXPECT_EQ(Rows("SELECT def_action, redirect, enabled FROM email_domain"), "ignore::0");
  Ok({"mail", "domain", "resume", "d.example"});
  EXPECT_EQ(File("virtusertable"), "@d.example\tdevnull\n");
}

TEST_F(ZelpnlMailDomainTest, UpdateWritesTheRowsStateAgain) {
  Ok({"mail", "domain", "add", "d.example", "--default-action", "ignore"});
  WriteFile("virtusertable", "@d.example\terror:nouser No such user here\n");
  Ok({"mail", "domain", "update", "d.example"});
  EXPECT_EQ(File("virtusertable"), "@d.example\tdevnull\n");
}

TEST_F(ZelpnlMailDomainTest, DeleteRemovesTheMailboxesAndTheDomainFromFilesAndRows) {
  Ok({"mail", "domain", "add", "d.example"});
  Ok({"mail", "box", "add", "l@d.example"});
  Ok({"mail", "box", "add", "m@d.example", "--alias", "a", "--forward", "f@x.example"});
  Ok({"mail", "responder", "l@d.example", "on", "--text", "away"});
  auto doc = Json({"mail", "domain", "delete", "d.example"});
  EXPECT_EQ(doc["deleted"]["domain"], "d.example");
  EXPECT_EQ(doc["deleted"]["mailboxes"],
            nlohmann::ordered_json::array({"l@d.example", "m@d.example"}));
  ExpectFiles("", "", kDevnull, "");
  for (const char* table : {"email_domain", "email", "email_alias", "email_forward",
                            "email_responder"})
    EXPECT_EQ(Count(table), 0) << table;
  EXPECT_EQ(Count("domain"), 1) << "the web domain stays";
}

TEST_F(ZelpnlMailDomainTest, BadActionsAndRedirectsAreRefusedBeforeAnythingIsWritten) {
  Ok({"mail", "domain", "add", "d.example"});
  const auto before = State();
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"--default-action", "redir_email"},
       "error: default action \"redir_email\": needs --redirect with an e-mail address\n"},
      {{"--default-action", "redir_domain", "--redirect", "d.example"},
       "error: redirect \"d.example\": is the domain itself; mail would loop\n"},
      {{"--default-action", "error", "--redirect", "x@e.example"},
       "error: redirect \"x@e.example\": is only taken with the default actions redir_email "
       "and redir_domain, not error\n"},
      {{"--default-action", "redir_email", "--redirect", "not-an-address"},
       "error: redirect \"not-an-address\": has no \"@\"\n"},
      {{"--default-action", "redir_domain", "--redirect", "bad_domain.example"},
       "error: redirect \"bad_domain.example\": is not a valid domain name (two or more labels "
       "of letters, digits and \"-\", at most 63 characters each, the last not all digits)\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"mail", "domain", "set", "d.example"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, 2) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
}

TEST_F(ZelpnlMailDomainTest, FailedMapRebuildDeletesTheNewRowAndReportsMakemapsOutput) {
  std::filesystem::remove(Path("virtusertable.db"));
  std::filesystem::create_directory(Path("virtusertable.db"));
  const zeltest::Result run = Zel({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "error: makemap: makemap: error opening type hash map " +
                         Path("virtusertable") + ": Regular files only\n");
  EXPECT_EQ(Count("email_domain"), 0) << "no row the files do not back";
  EXPECT_EQ(File("virtusertable"), kCatchAll) << "the text took the line before the rebuild";
}

// A deleted domain's catch-all line stays until sendmail has read
// local-host-names without the domain: the restart runs first, then the
// line goes.
TEST_F(ZelpnlMailDomainTest, ADeleteRestartsSendmailBeforeTheCatchAllGoes) {
  Ok({"mail", "domain", "add", "d.example"});
  Ok({"mail", "box", "add", "l@d.example"});
  SetConfig("sendmail-restart", "cat " + Path("virtusertable") + " " + Path("local-host-names") +
                                    " > " + Path("at-restart"));
  Ok({"mail", "domain", "delete", "d.example"});
  EXPECT_EQ(File("at-restart"), kCatchAll) << "the catch-all stood, the domain was no longer local";
  EXPECT_EQ(File("virtusertable"), "");
  EXPECT_EQ(File("local-host-names"), "");
  EXPECT_EQ(File("aliases"), kDevnull);
}
