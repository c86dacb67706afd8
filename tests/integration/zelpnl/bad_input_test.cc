// Bad input of each kind is refused at the command line with a message that
// names the value and what is wrong, and leaves every file and every row as
// it was.
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

namespace {

struct Case {
  std::vector<std::string> args;
  int status;
  std::string err;  // the whole of standard error
};

class ZelpnlBadInputTest : public ZelpnlTest {
 protected:
  void SetUp() override {
    ZelpnlTest::SetUp();
    MakeDomainWithMailbox();
    Ok({"mail", "box", "set", "l@d.example", "--alias", "a", "--forward", "f@x.example"});
    Ok({"mail", "whitelist", "add", "192.0.2.1"});
    Ok({"webdomain", "add", "e.example", "--owner", "admin"});
  }

  void ExpectRefused(const std::vector<Case>& cases) {
    const auto before = State();
    for (const Case& c : cases) {
      std::string line;
      for (const auto& a : c.args) line += a + " ";
      const zeltest::Result run = Zel(c.args);
      EXPECT_EQ(run.status, c.status) << line;
      EXPECT_EQ(run.err, c.err) << line;
      EXPECT_EQ(run.out, "") << line;
      EXPECT_EQ(State(), before) << line;
    }
  }
};

const std::string kBadDomain =
    "is not a valid domain name (two or more labels of letters, digits and \"-\", at most 63 "
    "characters each, the last not all digits)";

}  // namespace

TEST_F(ZelpnlBadInputTest, DomainNames) {
  ExpectRefused({
      {{"mail", "domain", "add", "exa_mple.example"}, 2,
       "error: domain name \"exa_mple.example\": " + kBadDomain + "\n"},
      {{"mail", "domain", "add", "nodot"}, 2, "error: domain name \"nodot\": " + kBadDomain + "\n"},
      {{"mail", "domain", "add", "e.example."}, 2,
       "error: domain name \"e.example.\": ends in a dot; give the name without it\n"},
      {{"mail", "domain", "add", "e.example\n"}, 2,
       "error: domain name \"e.example\\n\": contains a line end\n"},
      {{"mail", "domain", "add", "e\t.example"}, 2,
       "error: domain name \"e\\t.example\": contains a tab, which separates the fields of a "
       "line\n"},
      {{"mail", "domain", "add", "e,f.example"}, 2,
       "error: domain name \"e,f.example\": contains a comma, which separates the targets of an "
       "aliases line\n"},
      {{"mail", "domain", "add", "e:f.example"}, 2,
       "error: domain name \"e:f.example\": contains a colon, which ends the name of an aliases "
       "line\n"},
      {{"mail", "domain", "add", "#e.example"}, 2,
       "error: domain name \"#e.example\": contains \"#\", which starts a comment in the mail "
       "files\n"},
      {{"webdomain", "add", "e-.example", "--owner", "admin"}, 2,
       "error: domain name \"e-.example\": " + kBadDomain + "\n"},
      {{"mail", "domain", "add", "unknown.example"}, 1,
       "error: web domain \"unknown.example\": does not exist; a mail domain must be a web "
       "domain of the panel first (zelpnl webdomain add unknown.example --owner USER)\n"},
      {{"mail", "domain", "suspend", "unknown.example"}, 1,
       "error: mail domain \"unknown.example\": does not exist\n"},
      {{"mail", "domain", "add", "d.example"}, 1,
       "error: mail domain \"d.example\": already exists\n"},
  });
}

// A name given in its ASCII form passes the checks of its Unicode form: an
// "xn--" label that decodes to a bidirectional override, a control
// character or invalid Punycode is refused like the Unicode name would be.
TEST_F(ZelpnlBadInputTest, AsciiFormsOfInternationalNamesPassTheUnicodeFormsChecks) {
  const std::string why =
      "has an \"xn--\" label that is not the ASCII form of a valid international name "
      "(checked as its Unicode form would be)";
  ExpectRefused({
      // "a" U+202E "b": a right-to-left override.
      {{"webdomain", "add", "xn--ab-g4t.example", "--owner", "admin"}, 2,
       "error: domain name \"xn--ab-g4t.example\": " + why + "\n"},
      {{"webdomain", "add", "a\u202eb.example", "--owner", "admin"}, 2,
       "error: domain name \"a\\u{202E}b.example\": is not a valid domain name (cannot be "
       "converted to its ASCII form, or a label is invalid)\n"},
      // Not Punycode at all.
      {{"webdomain", "add", "xn--.example", "--owner", "admin"}, 2,
       "error: domain name \"xn--.example\": " + why + "\n"},
      // Decodes to plain ASCII: never an A-label.
      {{"webdomain", "add", "xn--abc-.example", "--owner", "admin"}, 2,
       "error: domain name \"xn--abc-.example\": " + why + "\n"},
      {{"mail", "box", "add", "l@xn--ab-g4t.example"}, 2,
       "error: address \"l@xn--ab-g4t.example\": " + why +
           " (domain name \"xn--ab-g4t.example\")\n"},
  });
  // The valid ASCII form of a Unicode name is taken, and shown in Unicode.
  Ok({"webdomain", "add", "xn--bcher-kva.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "b\u00fccher.example"});
  EXPECT_EQ(Rows("SELECT name FROM email_domain WHERE name LIKE 'xn--%'"), "xn--bcher-kva.example");
}

// Names sendmail takes as the server's own would hand a customer's mail to
// the system's users.
TEST_F(ZelpnlBadInputTest, TheServersOwnNamesAreNoMailDomains) {
  // This host's qualified name, as sendmail itself has it in class w.
  std::string classw;
  ASSERT_EQ(zeltest::RunShell("echo '$=w' | /usr/sbin/sendmail -C " + Path("sendmail.cf") + " -bt",
                              &classw),
            0);
  std::string host;
  for (std::string line : zeltest::Lines(classw)) {
    while (line.rfind("> ", 0) == 0) line.erase(0, 2);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (line.find('.') != std::string::npos && line[0] != '[' && line.find(' ') == std::string::npos &&
        line.rfind("localhost", 0) != 0)
      host = line;
  }
  ASSERT_NE(host, "") << "the set-up gives the host a qualified name: " << classw;
  WriteFile("local-host-names", File("local-host-names") + "kept.example\n");
  for (const std::string& name : {host, std::string("localhost.localdomain"),
                                  std::string("kept.example")})
    Ok({"webdomain", "add", name, "--owner", "admin"});
  const std::string why_host =
      "is a name of this server (sendmail's class w), whose mail goes to the system's own "
      "users; it cannot be a mail domain of the panel";
  ExpectRefused({
      {{"mail", "domain", "add", host}, 1,
       "error: mail domain \"" + host + "\": " + why_host + "\n"},
      {{"mail", "domain", "add", "localhost.localdomain"}, 1,
       "error: mail domain \"localhost.localdomain\": is a name of the local host itself "
       "(\"localhost\"); it cannot be a mail domain of the panel\n"},
      {{"mail", "domain", "add", "kept.example"}, 1,
       "error: mail domain \"kept.example\": is listed in " + Path("local-host-names") +
           " by a line the panel did not write, so sendmail takes it as one of the server's own "
           "names; remove that line first; it cannot be a mail domain of the panel\n"},
  });
}

TEST_F(ZelpnlBadInputTest, LocalPartsAndAddresses) {
  ExpectRefused({
      {{"mail", "box", "add", "#box@d.example"}, 2,
       "error: address \"#box@d.example\": contains \"#\", which starts a comment in the mail "
       "files\n"},
      {{"mail", "box", "add", "a,b@d.example"}, 2,
       "error: address \"a,b@d.example\": contains a comma, which separates the targets of an "
       "aliases line\n"},
      {{"mail", "box", "add", "a:b@d.example"}, 2,
       "error: address \"a:b@d.example\": contains a colon, which ends the name of an aliases "
       "line\n"},
      {{"mail", "box", "add", "|cmd@d.example"}, 2,
       "error: address \"|cmd@d.example\": contains \"|\", which the aliases file reads as a "
       "pipe to a program\n"},
      {{"mail", "box", "add", "/file@d.example"}, 2,
       "error: address \"/file@d.example\": starts with \"/\", which the aliases file reads as "
       "a file (local part \"/file\")\n"},
      {{"mail", "box", "add", "a\nb@d.example"}, 2,
       "error: address \"a\\nb@d.example\": contains a line end\n"},
      {{"mail", "box", "add", ".a@d.example"}, 2,
       "error: address \".a@d.example\": has a dot at its start or end, or two dots in a row "
       "(local part \".a\")\n"},
      {{"mail", "box", "add", "x@"}, 2, "error: address \"x@\": has no domain after \"@\"\n"},
      {{"mail", "box", "add", "@d.example"}, 2,
       "error: address \"@d.example\": has no local part before \"@\"\n"},
      {{"mail", "box", "add", "noat"}, 2, "error: address \"noat\": has no \"@\"\n"},
      {{"mail", "box", "add", std::string(65, 'x') + "@d.example"}, 2,
       "error: address \"" + std::string(65, 'x') +
           "@d.example\": is longer than 64 characters (local part \"" + std::string(65, 'x') +
           "\")\n"},
      {{"mail", "box", "add", "m@unknown.example"}, 1,
       "error: mail domain \"unknown.example\": does not exist\n"},
      {{"mail", "box", "show", "zz@d.example"}, 1, "error: mailbox \"zz@d.example\": does not exist\n"},
      {{"mail", "box", "add", "l@d.example"}, 1, "error: mailbox \"l@d.example\": already exists\n"},
      {{"mail", "box", "set", "l@d.example", "--alias", "b#c"}, 2,
       "error: alias \"b#c\": contains \"#\", which starts a comment in the mail files\n"},
      // Regression: newaliases refused such entries and every later rebuild failed.
      {{"mail", "box", "add", "a%b@d.example"}, 2,
       "error: address \"a%b@d.example\": contains \"%\", \"!\" or \"'\", which sendmail "
       "reads as routing or the responder's command line cannot carry (local part \"a%b\")\n"},
      {{"mail", "box", "add", "a!b@d.example"}, 2,
       "error: address \"a!b@d.example\": contains \"%\", \"!\" or \"'\", which sendmail "
       "reads as routing or the responder's command line cannot carry (local part \"a!b\")\n"},
      {{"mail", "box", "set", "l@d.example", "--alias", "o'hara"}, 2,
       "error: alias \"o'hara\": contains \"%\", \"!\" or \"'\", which sendmail reads as "
       "routing or the responder's command line cannot carry\n"},
      // A mailbox's local name is L+D: with a "+" in L, sendmail would read
      // the rest as a detail and hand the mail to the system user before it.
      {{"mail", "box", "add", "a+b@d.example"}, 2,
       "error: address \"a+b@d.example\": contains \"+\", which sendmail reads as the start "
       "of a detail (user+detail); the panel's local parts never hold one (local part "
       "\"a+b\")\n"},
      {{"mail", "box", "set", "l@d.example", "--alias", "x+y"}, 2,
       "error: alias \"x+y\": contains \"+\", which sendmail reads as the start of a detail "
       "(user+detail); the panel's local parts never hold one\n"},
      // A leading "-" reads as an option on a command line.
      {{"mail", "box", "add", "--", "-oQ@d.example"}, 2,
       "error: address \"-oQ@d.example\": starts with \"-\", which reads as an option "
       "(local part \"-oQ\")\n"},
      {{"mail", "box", "set", "l@d.example", "--alias=-x"}, 2,
       "error: alias \"-x\": starts with \"-\", which reads as an option\n"},
      {{"mail", "box", "set", "l@d.example", "--forward=-f@x.example"}, 2,
       "error: forward target \"-f@x.example\": starts with \"-\", which reads as an option "
       "(local part \"-f\")\n"},
      {{"mail", "whitelist", "add", "--", "-x@x.example"}, 2,
       "error: sender \"-x@x.example\": starts with \"-\", which reads as an option (local "
       "part \"-x\")\n"},
      {{"mail", "check", "--", "-bd"}, 2, "error: address \"-bd\": starts with \"-\", which reads as "
       "an option\n"},
  });
  // Elsewhere a "+" is an ordinary character of an address.
  Ok({"mail", "box", "set", "l@d.example", "--forward", "me+tag@x.example"});
  Ok({"mail", "whitelist", "add", "list+bounces@x.example"});
}

TEST_F(ZelpnlBadInputTest, ForwardTargets) {
  auto set = [](const std::string& target) {
    return std::vector<std::string>{"mail", "box", "set", "l@d.example", "--forward", target};
  };
  auto allowed = [](const std::string& target) {
    return std::vector<std::string>{"mail", "box",     "set",    "l@d.example",
                                    "--allow-program-targets", "--forward", target};
  };
  ExpectRefused({
      {set("|/usr/local/bin/filter"), 2,
       "error: forward target \"|/usr/local/bin/filter\": is a pipe to a program, which needs "
       "--allow-program-targets\n"},
      {set("/var/mail/copy"), 2,
       "error: forward target \"/var/mail/copy\": is a file, which needs "
       "--allow-program-targets\n"},
      {set("a,b@x.example"), 2,
       "error: forward target \"a,b@x.example\": contains a comma, which separates the targets "
       "of an aliases line\n"},
      {set("g@x.example\n"), 2, "error: forward target \"g@x.example\\n\": contains a line end\n"},
      {set("g@x.example\tx"), 2,
       "error: forward target \"g@x.example\\tx\": contains a tab, which separates the fields of "
       "a line\n"},
      {allowed("|/bin/a,b"), 2,
       "error: forward target \"|/bin/a,b\": contains a comma, which separates the targets of an "
       "aliases line\n"},
      {allowed("|/bin/say \"hi\""), 2,
       "error: forward target \"|/bin/say \\\"hi\\\"\": contains a double quote\n"},
      {allowed("|/bin/" + std::string(600, 'x')), 2,
       "error: forward target \"|/bin/" + std::string(600, 'x') +
           "\": is longer than 512 characters\n"},
      {set(":include:/etc/list"), 2,
       "error: forward target \":include:/etc/list\": is an include file, which the panel does "
       "not write\n"},
      {set("no-address"), 2, "error: forward target \"no-address\": has no \"@\"\n"},
      {set("f@x.example"), 1,
       "error: forward target \"f@x.example\": is already a forward of l@d.example\n"},
  });
}

TEST_F(ZelpnlBadInputTest, SenderEntries) {
  auto add = [](const std::string& sender) {
    return std::vector<std::string>{"mail", "whitelist", "add", sender};
  };
  const std::string neither =
      "is neither an e-mail address, a domain name, nor an IPv4 or IPv6 address or network";
  const std::string not_ipv4 =
      "is not an IPv4 address or network (one to four numbers from 0 to 255, joined by dots)";
  ExpectRefused({
      {add("1.2.3.4.5"), 2, "error: sender \"1.2.3.4.5\": " + not_ipv4 + "\n"},
      {add("300.1.1.1"), 2, "error: sender \"300.1.1.1\": " + not_ipv4 + "\n"},
      {add("2001:db8::zz"), 2,
       "error: sender \"2001:db8::zz\": is not an IPv6 address or network (an address such as "
       "2001:db8::7, or the leading groups of one such as 2001:db8)\n"},
      {add("Connect:192.0.2.5"), 2,
       "error: sender \"Connect:192.0.2.5\": starts with the tag \"Connect:\"; give the sender "
       "alone (an address, a domain, an IP address or network)\n"},
      {{"mail", "blacklist", "delete", "Connect:192.0.2.5"}, 2,
       "error: sender \"Connect:192.0.2.5\": starts with the tag \"Connect:\"; give the sender "
       "alone (an address, a domain, an IP address or network)\n"},
      {add("192.0.2.0/20"), 2,
       "error: sender \"192.0.2.0/20\": is a /20 network, which does not end on a whole octet "
       "(/8, /16, /24 or /32)\n"},
      {add("bad_name.example"), 2, "error: sender \"bad_name.example\": " + neither + "\n"},
      {add("a b.example"), 2, "error: sender \"a b.example\": contains a blank\n"},
      {add("x#y.example"), 2,
       "error: sender \"x#y.example\": contains \"#\", which starts a comment in the mail files\n"},
      {add("spam@x.example\n"), 2, "error: sender \"spam@x.example\\n\": contains a line end\n"},
      {add("192.0.2.1"), 1, "error: sender \"192.0.2.1\": is already on the whitelist\n"},
      {{"mail", "whitelist", "delete", "192.0.2.2"}, 1,
       "error: sender \"192.0.2.2\": is not on the whitelist\n"},
  });
}

TEST_F(ZelpnlBadInputTest, UsersAndDuplicates) {
  ExpectRefused({
      {{"user", "add", "admin"}, 1, "error: user \"admin\": already exists\n"},
      {{"user", "add", "Root"}, 2,
       "error: user name \"Root\": may hold only lower-case letters, digits, \".\", \"_\" and "
       "\"-\"\n"},
      {{"user", "add", "a:b"}, 2,
       "error: user name \"a:b\": contains a colon, which ends the name of an aliases line\n"},
      {{"webdomain", "add", "f.example", "--owner", "nobody"}, 1,
       "error: user \"nobody\": does not exist\n"},
      {{"mail", "domain", "add", "e.example", "--owner", "nobody"}, 1,
       "error: user \"nobody\": does not exist\n"},
      {{"webdomain", "add", "e.example", "--owner", "admin"}, 1,
       "error: web domain \"e.example\": already exists\n"},
      {{"mail", "box", "set", "l@d.example", "--alias", "a"}, 1,
       "error: alias \"a@d.example\": is already an alias of l@d.example\n"},
  });
}

TEST_F(ZelpnlBadInputTest, JsonErrorsAreDocumentsToo) {
  const zeltest::Result run = Zel({"mail", "box", "add", "noat", "--json"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "error: address \"noat\": has no \"@\"\n");
  const auto doc = nlohmann::ordered_json::parse(run.out);
  EXPECT_EQ(doc["error"]["type"], "usage");
  EXPECT_EQ(doc["error"]["object"], "address \"noat\"");
  EXPECT_EQ(doc["error"]["detail"], "has no \"@\"");
  EXPECT_EQ(doc["error"]["status"], 2);
}
