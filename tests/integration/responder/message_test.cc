// Reading incoming messages and the addresses in them.
#include <gtest/gtest.h>

#include "zelresponder/address.h"
#include "zelresponder/message.h"

using zelresponder::AddressKey;
using zelresponder::AddressList;
using zelresponder::IsReplyAddress;
using zelresponder::LocalKey;
using zelresponder::Message;
using zelresponder::OneMailbox;
using zelresponder::OnePath;
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

TEST(AddressTest, ReplyAddressesAreOnePlainAddress) {
  for (const char* good : {"ann@x.example", "a.b+tag@x.example", "o'brien@x.example",
                           "SRS0=HHH=TT=y.example=ann@x.example", "j&j@x-y.example",
                           "Ann@X.Example", "a@b.c.example"})
    EXPECT_TRUE(IsReplyAddress(good)) << good;
  EXPECT_TRUE(IsReplyAddress(std::string(64, 'a') + "@" + std::string(63, 'b') + ".example"));
  const std::string no_host =
      "its domain is no host name (two or more labels of letters, digits and \"-\")";
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"", "it is empty"},
      {"ann", "it has no \"@\" and a domain"},
      {"@x.example", "it has no local part"},
      {"ann@", no_host},
      {"a@b@x.example", "it holds more than one \"@\""},
      {"a b@x.example", "it holds a blank, a control character or a non-ASCII byte"},
      {"a@x.example, b@y.example", "it holds a blank, a control character or a non-ASCII byte"},
      {"a@x.example,b@y.example", "it holds more than one \"@\""},
      {"a,b@x.example", "its local part holds \",\" (answers go to letters, digits and ._+-=&' "
                        "only)"},
      {"a@x.example\nBcc: b@y.example",
       "it holds a blank, a control character or a non-ASCII byte"},
      {"a..b@x.example", "its local part has a dot at its start or end, or two dots in a row"},
      {".a@x.example", "its local part has a dot at its start or end, or two dots in a row"},
      {"-f@x.example", "its local part starts with \"-\", which a command line takes as an option"},
      {"\"a\"@x.example", "its local part holds \"\"\" (answers go to letters, digits and "
                          "._+-=&' only)"},
      {"<a@x.example>", "its local part holds \"<\" (answers go to letters, digits and ._+-=&' "
                        "only)"},
      {"a(c)@x.example", "its local part holds \"(\" (answers go to letters, digits and ._+-=&' "
                         "only)"},
      {"a%b@x.example", "its local part holds \"%\" (answers go to letters, digits and ._+-=&' "
                        "only)"},
      {"a!b@x.example", "its local part holds \"!\" (answers go to letters, digits and ._+-=&' "
                        "only)"},
      {"|cmd@x.example", "its local part holds \"|\" (answers go to letters, digits and ._+-=&' "
                         "only)"},
      {"/etc/passwd@x.example", "its local part holds \"/\" (answers go to letters, digits and "
                                "._+-=&' only)"},
      {"a\xc3\xa4@x.example", "it holds a blank, a control character or a non-ASCII byte"},
      {"a@-x.example", no_host},
      {"a@x_y.example", no_host},
      {"a@x..example", no_host},
      {"a@x.example.", no_host},
      {"x@localhost", no_host},
      {"u@[192.0.2.1]", no_host},
      {"u@192.0.2.1", no_host},
      {std::string(65, 'a') + "@x.example", "its local part is longer than 64 characters"},
      {std::string(250, 'a') + "@x.example", "it is longer than 254 characters"},
  };
  for (const auto& [address, reason] : bad) {
    std::string why;
    EXPECT_FALSE(IsReplyAddress(address, &why)) << address;
    EXPECT_EQ(why, reason) << address;
  }
}

TEST(AddressTest, OneMailboxTakesTheAddressOfANamedOrBareMailbox) {
  const std::vector<std::pair<std::string, std::string>> good = {
      {"ann@x.example", "ann@x.example"},
      {"  ann@x.example\t", "ann@x.example"},
      {"<ann@x.example>", "ann@x.example"},
      {"Ann Example <ann@x.example>", "ann@x.example"},
      {"\"Example, Ann (work)\" <ann@x.example>", "ann@x.example"},
      {"\"Ann \\\"the\\\" <a@b>\" <ann@x.example>", "ann@x.example"},
      {"Liam's assistant <assistant@q.example>", "assistant@q.example"},
      {"J. R. Doe <jr@x.example>", "jr@x.example"},
      {"=?UTF-8?Q?J=C3=B6rg?= <j@x.example>", "j@x.example"},
      {"J\xc3\xb6rg <j@x.example>", "j@x.example"},
  };
  for (const auto& [value, address] : good) {
    std::string found, why;
    EXPECT_TRUE(OneMailbox(value, found, &why)) << value << ": " << why;
    EXPECT_EQ(found, address) << value;
  }
}

TEST(AddressTest, OneMailboxRefusesListsGroupsCommentsAndBracketTricks) {
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"", "it is empty"},
      {"a@x.example, b@y.example", "it holds several addresses"},
      {"A <a@x.example>, B <b@y.example>", "it holds several addresses"},
      {"team: a@x.example;", "it is a group or holds a source route"},
      {"undisclosed-recipients:;", "it is a group or holds a source route"},
      {"a@x.example (Ann)", "it holds a comment"},
      {"Ann (x) <a@x.example>", "it holds a comment"},
      {"<a@x.example> b@y.example", "it has text after the address in angle brackets"},
      {"<a@x.example>, b@y.example", "it holds several addresses"},
      {"a@x.example <b@y.example>", "it has an \"@\" outside the angle brackets"},
      {"<a@x.example><b@y.example>", "it holds more than one \"<\""},
      {"<a@x.example", "its angle brackets do not pair"},
      {"a@x.example>", "its angle brackets do not pair"},
      {"<\"a b\"@x.example>", "its address in angle brackets holds a quote"},
      {"\"a b\"@x.example", "it holds words or quotes besides one address"},
      {"Ann a@x.example", "it holds words or quotes besides one address"},
      {"<@relay.example:a@x.example>", "it is a group or holds a source route"},
      {"<@relay.example>", "it holds a source route"},
      {"< a@x.example>", "its address in angle brackets holds a blank"},
      {"\"open <a@x.example>", "it has an unterminated quoted string"},
      {"a\\@x.example", "it holds a backslash outside quotes"},
      {"a@[192.0.2.1]", "it holds a square bracket"},
      {"a@x.example\rBcc: b@y.example", "it holds a control character"},
      {"Ann; <a@x.example>", "it is a group or holds a source route"},
      {"A<B <a@x.example>", "it holds more than one \"<\""},
      {"A*B <a@x.example>", ""},
  };
  for (const auto& [value, reason] : bad) {
    std::string found, why;
    const bool ok = OneMailbox(value, found, &why);
    if (reason.empty()) {
      // Atom characters in a display name are words like any other.
      EXPECT_TRUE(ok) << value;
      continue;
    }
    EXPECT_FALSE(ok) << value;
    EXPECT_EQ(why, reason) << value;
  }
}

TEST(AddressTest, OnePathIsOneAddressOrTheNullPath) {
  std::string found, why;
  EXPECT_TRUE(OnePath(" <ann@x.example> ", found, &why));
  EXPECT_EQ(found, "ann@x.example");
  EXPECT_TRUE(OnePath("<>", found, &why));
  EXPECT_EQ(found, "");
  EXPECT_TRUE(OnePath("ann@x.example", found, &why));
  EXPECT_EQ(found, "ann@x.example");
  for (const char* bad : {"<a@x.example>, <b@y.example>", "<a@x.example> (comment)",
                          "a@x.example b@y.example", "<<a@x.example>>", "<g:;>",
                          "<\"a b\"@x.example>", "<a@x.example>\r"})
    EXPECT_FALSE(OnePath(bad, found, &why)) << bad;
}
