// Reading incoming messages and the addresses in them.
#include <gtest/gtest.h>

#include "zelresponder/address.h"
#include "zelresponder/message.h"

using zelresponder::AddressKey;
using zelresponder::AddressList;
using zelresponder::IsReplyAddress;
using zelresponder::LocalKey;
using zelresponder::Message;
using zelresponder::PathAddress;

namespace {

std::vector<std::string> Names(const Message& m) {
  std::vector<std::string> names;
  for (const auto& f : m.Fields()) names.push_back(f.name);
  return names;
}

}  // namespace

TEST(MessageTest, SendmailsEnvelopeLineGivesTheSender) {
  const Message m = Message::Parse(
      "From ann@x.example Mon Mar  3 09:15:02 2025\nFrom: Ann <ann@x.example>\n\nbody\n");
  ASSERT_TRUE(m.Envelope().has_value());
  EXPECT_EQ(*m.Envelope(), "ann@x.example");
  EXPECT_EQ(Names(m), std::vector<std::string>{"From"});
  EXPECT_FALSE(m.Broken());
  EXPECT_FALSE(m.Cut());
}

TEST(MessageTest, EnvelopeSenderWithAQuotedLocalPartKeepsItsBlanks) {
  const Message m = Message::Parse("From \"a b\"@x.example Mon Mar  3 09:15:02 2025\n\n");
  EXPECT_EQ(*m.Envelope(), "\"a b\"@x.example");
}

TEST(MessageTest, NullEnvelopeSenderIsEmpty) {
  EXPECT_EQ(*Message::Parse("From <> Mon Mar  3 09:15:02 2025\n\n").Envelope(), "");
  EXPECT_EQ(*Message::Parse("From MAILER-DAEMON Mon Mar  3 09:15:02 2025\n\n").Envelope(),
            "MAILER-DAEMON");
}

TEST(MessageTest, AFromFieldIsNoEnvelopeLine) {
  const Message m = Message::Parse("From: ann@x.example\n\n");
  EXPECT_FALSE(m.Envelope().has_value());
  ASSERT_NE(m.Find("from"), nullptr);
  EXPECT_EQ(m.Find("FROM")->value, "ann@x.example");
}

TEST(MessageTest, AnEnvelopeLineAfterTheFirstLineEndsTheHeader) {
  const Message m = Message::Parse("To: l@d.example\nFrom ann@x.example Mon\nSubject: x\n\n");
  EXPECT_FALSE(m.Envelope().has_value());
  EXPECT_EQ(Names(m), std::vector<std::string>{"To"});
  EXPECT_TRUE(m.Broken());
}

TEST(MessageTest, ContinuationLinesAreJoinedAndBlanksTrimmed) {
  const Message m = Message::Parse("Subject:   one\n two\r\n\tthree  \nTo: x@y.example\n\n");
  EXPECT_EQ(m.Find("Subject")->value, "one two\tthree");
  EXPECT_EQ(m.Find("To")->value, "x@y.example");
}

TEST(MessageTest, CarriageReturnsBeforeLineEndsAreDropped) {
  const Message m = Message::Parse("From a@b.example Mon\r\nSubject: s\r\n\r\nTo: not@header\r\n");
  EXPECT_EQ(*m.Envelope(), "a@b.example");
  EXPECT_EQ(Names(m), std::vector<std::string>{"Subject"});
  EXPECT_EQ(m.Find("Subject")->value, "s");
}

TEST(MessageTest, TheHeaderEndsAtTheFirstEmptyLine) {
  const Message m = Message::Parse("Subject: s\n\nPrecedence: bulk\n");
  EXPECT_EQ(m.Find("Precedence"), nullptr);
}

TEST(MessageTest, ALineThatIsNoFieldEndsTheHeaderAsBroken) {
  const Message m =
      Message::Parse("Subject: s\nthis is no field\nPrecedence: bulk\n\n");
  EXPECT_TRUE(m.Broken());
  EXPECT_EQ(Names(m), std::vector<std::string>{"Subject"});
  EXPECT_TRUE(Message::Parse("Subject: s\n: empty name\n\n").Broken());
  EXPECT_TRUE(Message::Parse("Sub\x01ject: control in the name\n\n").Broken());
}

TEST(MessageTest, BlanksBeforeTheColonAreTheObsoleteSyntaxStillRead) {
  const Message m = Message::Parse("Subject : old style\n\n");
  ASSERT_NE(m.Find("Subject"), nullptr);
  EXPECT_EQ(m.Find("Subject")->value, "old style");
}

TEST(MessageTest, AContinuationLineBeforeAnyFieldIsIgnored) {
  const Message m = Message::Parse("From a@b.example Mon\n  stray\nTo: l@d.example\n\n");
  EXPECT_EQ(Names(m), std::vector<std::string>{"To"});
  EXPECT_FALSE(m.Broken());
}

TEST(MessageTest, TextEndingInsideTheHeaderIsCutAndItsLastPartialLineDropped) {
  const Message m = Message::Parse("To: l@d.example\nSubject: half a li");
  EXPECT_TRUE(m.Cut());
  EXPECT_EQ(Names(m), std::vector<std::string>{"To"});
}

TEST(MessageTest, EmptyAndBinaryTextGiveNoFields) {
  EXPECT_TRUE(Message::Parse("").Fields().empty());
  EXPECT_FALSE(Message::Parse("").Envelope().has_value());
  const std::string binary("\0\xff\xfe:\n\0\n", 7);
  EXPECT_TRUE(Message::Parse(binary).Fields().empty());
}

TEST(MessageTest, FindAllKeepsTheOrder) {
  const Message m = Message::Parse("Received: one\nX: y\nreceived: two\n\n");
  const auto all = m.FindAll("Received");
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0]->value, "one");
  EXPECT_EQ(all[1]->value, "two");
}

TEST(AddressTest, AddressListDropsNamesCommentsAndGroups) {
  EXPECT_EQ(AddressList("Lou <l@d.example>, \"Smith, Ann\" <ann@x.example> (work), b@y.example"),
            (std::vector<std::string>{"l@d.example", "ann@x.example", "b@y.example"}));
  EXPECT_EQ(AddressList("team: a@x.example, b@x.example;, c@y.example"),
            (std::vector<std::string>{"a@x.example", "b@x.example", "c@y.example"}));
  EXPECT_EQ(AddressList("undisclosed-recipients:;"), std::vector<std::string>{});
  EXPECT_EQ(AddressList("\"Lou <not the address>, the one\" <l@d.example>"),
            std::vector<std::string>{"l@d.example"});
  EXPECT_EQ(AddressList("<@relay.example,@other.example:l@d.example>"),
            std::vector<std::string>{"l@d.example"});
  EXPECT_EQ(AddressList("l (comment (nested)) @ d.example"), std::vector<std::string>{"l@d.example"});
  EXPECT_EQ(AddressList("\"a b\"@x.example"), std::vector<std::string>{"\"a b\"@x.example"});
  EXPECT_EQ(AddressList("u@[192.0.2.1]"), std::vector<std::string>{"u@[192.0.2.1]"});
  EXPECT_EQ(AddressList(""), std::vector<std::string>{});
  EXPECT_EQ(AddressList(",,<>,"), std::vector<std::string>{});
}

TEST(AddressTest, UnterminatedQuotesAndCommentsEndTheValue) {
  EXPECT_EQ(AddressList("a@x.example, \"open"), (std::vector<std::string>{"a@x.example", "\"open"}));
  EXPECT_EQ(AddressList("a@x.example (open"), std::vector<std::string>{"a@x.example"});
  EXPECT_EQ(AddressList("<a@x.example"), std::vector<std::string>{"a@x.example"});
}

TEST(AddressTest, PathAddressTakesTheBracketsOff) {
  EXPECT_EQ(PathAddress("<ann@x.example>"), "ann@x.example");
  EXPECT_EQ(PathAddress(" <> "), "");
  EXPECT_EQ(PathAddress("<>"), "");
  EXPECT_EQ(PathAddress("MAILER-DAEMON"), "MAILER-DAEMON");
  EXPECT_EQ(PathAddress("ann@x.example (comment)"), "ann@x.example");
}

TEST(AddressTest, KeysCompareWithoutCaseAndQuotes) {
  EXPECT_EQ(AddressKey("Ann@X.Example."), "ann@x.example");
  EXPECT_EQ(AddressKey("\"Ann\"@x.example"), "ann@x.example");
  EXPECT_EQ(AddressKey("\"a@b\"@x.example"), "a@b@x.example");
  EXPECT_EQ(AddressKey("MAILER-DAEMON"), "mailer-daemon");
  EXPECT_EQ(LocalKey("Owner-List@x.example"), "owner-list");
  EXPECT_EQ(LocalKey("no-domain"), "");
}

TEST(AddressTest, ReplyAddressesAreOneWellFormedAddress) {
  for (const char* good : {"ann@x.example", "a.b+tag@x.example", "\"a b\"@x.example",
                           "u@[192.0.2.1]", "o'brien@x.example", "x@localhost", "a@x.example."})
    EXPECT_TRUE(IsReplyAddress(good)) << good;
  for (const char* bad :
       {"", "ann", "@x.example", "ann@", "a@b@x.example", "a b@x.example", "a@x.example, b@y.example",
        "a@x.example\nBcc: b@y.example", "a..b@x.example", ".a@x.example", "a@-x.example",
        "a@x_y.example", "a@x..example", "\"a\nb\"@x.example", "|cmd@x.example",
        "\"/etc/passwd\"@x.example", "a\xc3\xa4@x.example", "<a@x.example>"})
    EXPECT_FALSE(IsReplyAddress(bad)) << bad;
  EXPECT_FALSE(IsReplyAddress(std::string(250, 'a') + "@x.example"));
}
