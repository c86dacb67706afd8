// zelpnl mail check: what sendmail answers with the sandbox's configuration.
#include <filesystem>

#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

namespace {

class ZelpnlCheckTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/share/sendmail/cf/m4/cf.m4"))
      GTEST_SKIP() << "sendmail-cf is not installed";
    ZelpnlTest::SetUp();
    MakeDomainWithMailbox();
  }
};

}  // namespace

TEST_F(ZelpnlCheckTest, AMailboxIsDeliveredThroughItsAliasesEntry) {
  Ok({"mail", "box", "set", "l@d.example", "--alias", "a", "--forward", "f@x.example"});
  const zeltest::Result run = Zel({"mail", "check", "a@d.example"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "l\\@d.example... deliverable: mailer local, user l\\@d.example\n"
            "f@x.example... deliverable: mailer relay, host [127.0.0.1], user f@x.example\n");
}

TEST_F(ZelpnlCheckTest, AnUnknownAddressAndASuspendedMailboxAreRefused) {
  zeltest::Result run = Zel({"mail", "check", "zz@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "zz@d.example... No such user here\n");
  EXPECT_EQ(run.err,
            "error: zz@d.example: sendmail cannot deliver it (sendmail -bv exit status 67)\n");
  Ok({"mail", "box", "suspend", "l@d.example"});
  run = Zel({"mail", "check", "l@d.example"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "l@d.example... Account temporary disabled\n");
}

TEST_F(ZelpnlCheckTest, JsonCarriesTheAnswer) {
  Ok({"mail", "domain", "set", "d.example", "--default-action", "ignore"});
  const zeltest::Result run = Zel({"mail", "check", "anyone@d.example", "--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  const auto doc = nlohmann::ordered_json::parse(run.out);
  EXPECT_EQ(doc["check"]["address"], "anyone@d.example");
  EXPECT_EQ(doc["check"]["deliverable"], true);
  EXPECT_EQ(doc["check"]["status"], 0);
  EXPECT_EQ(doc["check"]["answer"],
            nlohmann::ordered_json::array(
                {"\"/dev/null\"... deliverable: mailer *file*, user /dev/null"}));
}

TEST_F(ZelpnlCheckTest, AnAddressThatIsNoAddressIsRefusedBeforeSendmailRuns) {
  const zeltest::Result run = Zel({"mail", "check", "a b@d.example"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "error: address \"a b@d.example\": contains a blank\n");
  EXPECT_EQ(run.out, "");
}

// sendmail is given the address after "--": nothing in it is read as an
// option, and a local part with "+" (a detail) is asked about as it is.
TEST_F(ZelpnlCheckTest, TheAddressFollowsTheEndOfSendmailsOptions) {
  const zeltest::Result run = Zel({"mail", "check", "l+tag@d.example", "--json"});
  const auto doc = nlohmann::ordered_json::parse(run.out);
  const std::string command = doc["check"]["command"];
  const std::string tail = " -bv -- l+tag@d.example";
  ASSERT_GT(command.size(), tail.size());
  EXPECT_EQ(command.substr(command.size() - tail.size()), tail);
}
