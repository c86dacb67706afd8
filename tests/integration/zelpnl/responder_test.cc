// zelpnl mail responder: the row and the mailbox's aliases entry.
#include "zelpnl_fixture.h"

using zeltest::kDevnull;
using zeltest::ZelpnlTest;

namespace {

class ZelpnlResponderTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    MakeDomainWithMailbox();
  }
  std::string Action() const {
    return "\"|" + zeltest::OurProgram("zelpnl-responder") + " --config " + Path("responder.conf") +
           " l@d.example\"";
  }
};

}  // namespace

TEST_F(ZelpnlResponderTest, OnPutsTheResponderIntoTheEntryAndOffTakesItOut) {
  auto doc = Json({"mail", "responder", "l@d.example", "on", "--subject", "Away",
                   "--text", "Back on Monday.\nRegards"});
  EXPECT_EQ(doc["responder"],
            nlohmann::ordered_json({{"address", "l@d.example"},
                                    {"exists", true},
                                    {"enabled", true},
                                    {"subject", "Away"},
                                    {"text", "Back on Monday.\nRegards"},
                                    {"period_days", 7}}));
  EXPECT_EQ(File("aliases"),
            std::string(kDevnull) + "l+d.example:\tl\\@d.example, " + Action() + "\n");
  EXPECT_EQ(Zel({"mail", "responder", "l@d.example", "show"}).out,
            "address:   l@d.example\n"
            "responder: on\n"
            "subject:   Away\n"
            "text:\n"
            "  Back on Monday.\n"
            "  Regards\n");
  Ok({"mail", "responder", "l@d.example", "off"});
  EXPECT_EQ(File("aliases"), std::string(kDevnull) + "l+d.example:\tl\\@d.example\n");
  EXPECT_EQ(Rows("SELECT enabled, subject, text FROM email_responder"),
            "0:Away:Back on Monday.\nRegards");
  // Switching on again keeps the stored text.
  Ok({"mail", "responder", "l@d.example", "on"});
  EXPECT_EQ(Count("email_responder"), 1);
  EXPECT_EQ(Rows("SELECT enabled FROM email_responder"), "1");
}

TEST_F(ZelpnlResponderTest, ResponderSurvivesARewriteOfTheAliases) {
  Ok({"mail", "responder", "l@d.example", "on", "--text", "away"});
  Ok({"mail", "box", "set", "l@d.example", "--forward", "f@x.example"});
  EXPECT_EQ(File("aliases"), std::string(kDevnull) + "l+d.example:\tf@x.example, l\\@d.example, " +
                                 Action() + "\n");
  EXPECT_EQ(Zel({"mail", "box", "list"}).out.find("on\n") != std::string::npos, true);
}

TEST_F(ZelpnlResponderTest, ShowOfAMailboxWithoutResponder) {
  auto doc = Json({"mail", "responder", "l@d.example", "show"});
  EXPECT_EQ(doc["responder"]["exists"], false);
  EXPECT_EQ(doc["responder"]["enabled"], false);
}

TEST_F(ZelpnlResponderTest, BadResponderInputIsRefused) {
  const auto before = State();
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"l@d.example", "on"}, 1,
       "error: responder of \"l@d.example\": has no text to answer with; give --text\n"},
      {{"l@d.example", "on", "--text", "x", "--subject", "two\nlines"}, 2,
       "error: responder subject \"two\\nlines\": is not one line (contains a control "
       "character)\n"},
      {{"l@d.example", "show", "--text", "x"}, 2,
       "error: responder action \"show\": takes no --subject or --text\n"},
      {{"zz@d.example", "on", "--text", "x"}, 1, "error: mailbox \"zz@d.example\": does not exist\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"mail", "responder"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const zeltest::Result run = Zel(args);
    EXPECT_EQ(run.status, c.status) << c.err;
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(State(), before) << c.err;
  }
  EXPECT_EQ(Zel({"mail", "responder", "l@d.example", "maybe"}).status, 2);
}
