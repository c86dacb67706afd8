// Hand edits: an administrator edits each of the four files between two
// commands (comments, blank lines, lines the panel did not write, lines in
// another order, other spacing, bytes that are not UTF-8, a NUL in a
// comment), and every later command of every kind changes only the lines
// of the object it works on: every other line stays byte for byte and in
// its place, and every hand-made line is still there at the end.
#include <gtest/gtest.h>

#include <algorithm>

#include "faults_support.h"

using zelfaults::Panel;

namespace {

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  if (at == std::string::npos) throw std::runtime_error("no \"" + from + "\" in the file");
  return text.replace(at, from.size(), to);
}

// Swaps two whole lines of text.
std::string Swap(const std::string& text, const std::string& a, const std::string& b) {
  std::string out = Replace(text, a, "\x01");
  out = Replace(out, b, a);
  return Replace(out, "\x01", b);
}

// A line concerns the command when it holds one of the words (a word
// starting with "^" must start the line).
bool Concerns(const std::string& line, const std::vector<std::string>& words) {
  for (const std::string& w : words) {
    if (w[0] == '^' ? line.rfind(w.substr(1), 0) == 0 : line.find(w) != std::string::npos)
      return true;
  }
  return false;
}

// Whether lines appear in text in this order, each as a whole line.
bool InOrder(const std::string& text, const std::vector<std::string>& lines) {
  const std::vector<std::string> all = zeltest::Lines(text);
  size_t i = 0;
  for (const std::string& line : all)
    if (i < lines.size() && line == lines[i]) ++i;
  return i == lines.size();
}

// A comment with bytes that are not UTF-8 and a NUL in it.
const std::string kNulComment("# local host names, kept by hand \xe9t\xe9 \x00 note\n", 44);

struct Step {
  std::vector<std::string> command;
  std::vector<std::string> concerns;  // the only lines it may change
};

class HandEditTest : public ::testing::Test {
 protected:
  void SetUp() override {
    panel_.Ok({"webdomain", "add", "d.example", "--owner", "admin"});
    panel_.Ok({"webdomain", "add", "e.example", "--owner", "admin"});
    panel_.Ok({"webdomain", "add", "f.example", "--owner", "admin"});
    panel_.Ok({"mail", "domain", "add", "d.example"});
    panel_.Ok({"mail", "domain", "add", "e.example"});
    panel_.Ok({"mail", "box", "add", "l@d.example"});
    panel_.Ok({"mail", "box", "add", "m@d.example", "--alias", "a", "--forward", "f@x.example"});
    panel_.Ok({"mail", "box", "add", "p@e.example"});
    panel_.Ok({"mail", "whitelist", "add", "192.0.2.1"});
    panel_.Ok({"mail", "blacklist", "add", "spam.example"});
  }

  // The administrator's first round of edits; the lines made by hand are
  // remembered per file.
  void EditByHand() {
    Edit("local-host-names", [](std::string t) {
      t = kNulComment + Swap(t, "d.example\n", "e.example\n");
      return t + "\nmail.host.example\n";
    }, {kNulComment, "\n",
        "mail.host.example\n"});
    Edit("virtusertable", [](std::string t) {
      t = Replace(t, "m@d.example\tm+d.example\n", "m@d.example    m+d.example   # the second box\n");
      t = Swap(t, "@d.example\terror:nouser No such user here\n", "l@d.example\tl+d.example\n");
      return "# virtual users\n\n" + t + "# end of the panel's lines\n";
    }, {"# virtual users\n", "\n", "m@d.example    m+d.example   # the second box\n",
        "# end of the panel's lines\n"});
    Edit("aliases", [](std::string t) {
      t = Replace(t, "m+d.example:\tf@x.example, m\\@d.example\n",
                  "m+d.example:   f@x.example,   m\\@d.example\n");
      return "# system aliases\nroot:\tadmin@x.example,\n\tops@x.example\npostmaster: root\n\n" + t;
    }, {"# system aliases\n", "root:\tadmin@x.example,\n", "\tops@x.example\n",
        "postmaster: root\n", "\n", "m+d.example:   f@x.example,   m\\@d.example\n"});
    Edit("access", [](std::string t) {
      t = Replace(t, "spam.example\tREJECT\n", "spam.example      REJECT\n");
      return "# access map\nConnect:10.0.0.1\tRELAY\nlocalhost\tRELAY\n" + t;
    }, {"# access map\n", "Connect:10.0.0.1\tRELAY\n", "localhost\tRELAY\n",
        "spam.example      REJECT\n"});
  }

  // A second round, between two later commands: more comments, and lines
  // the panel wrote moved.
  void EditAgain() {
    Edit("virtusertable", [](std::string t) {
      return Swap(t, "p@e.example\tp+e.example\n", "a@d.example\tm@d.example\n") +
             "# edited again\n";
    }, {"# edited again\n"});
    Edit("aliases", [](std::string t) { return t + "# edited again\n"; }, {"# edited again\n"});
    Edit("access", [](std::string t) { return "# edited again\n" + t; }, {"# edited again\n"});
    Edit("local-host-names", [](std::string t) { return t + "# edited again\n"; },
         {"# edited again\n"});
  }

  template <class F>
  void Edit(const std::string& file, F change, const std::vector<std::string>& made) {
    panel_.Write(file, change(panel_.Read(file)));
    std::vector<std::string>& lines = by_hand_[file];
    // Kept in file order: those of a second round are checked on their own.
    for (const auto& l : made) lines.push_back(l);
  }

  void Run(const Step& step) {
    std::string line;
    for (const auto& a : step.command) line += " " + a;
    const auto before = panel_.Files();
    panel_.Ok(step.command);
    const auto after = panel_.Files();
    for (const char* name : zelfaults::kMailFiles) {
      const zelfaults::LineDiff diff = zelfaults::DiffLines(before.at(name), after.at(name));
      for (const std::string& l : diff.removed)
        EXPECT_TRUE(Concerns(l, step.concerns))
            << "zelpnl" << line << " changed a line of " << name
            << " it had no business with: " << zelfaults::Show(l);
      for (const std::string& l : diff.added)
        EXPECT_TRUE(Concerns(l, step.concerns))
            << "zelpnl" << line << " wrote a line into " << name
            << " it had no business with: " << zelfaults::Show(l);
    }
  }

  void ExpectHandLinesKept() {
    for (const char* name : zelfaults::kMailFiles) {
      const std::string text = panel_.Read(name);
      for (const std::string& l : by_hand_[name])
        EXPECT_NE(text.find(l), std::string::npos) << name << " lost " << zelfaults::Show(l);
    }
  }

  Panel panel_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
  std::map<std::string, std::vector<std::string>> by_hand_;
};

}  // namespace

TEST_F(HandEditTest, EveryLaterCommandKeepsTheAdministratorsLinesByteForByte) {
  EditByHand();
  std::map<std::string, std::vector<std::string>> first_round = by_hand_;
  const std::vector<Step> steps = {
      {{"mail", "sync"}, {}},
      {{"mail", "box", "add", "o@d.example", "--alias", "oo"}, {"o@d.example", "o+d.example"}},
      {{"mail", "box", "set", "l@d.example", "--alias", "b", "--forward", "g@x.example"},
       {"l+d.example", "b@d.example"}},
      {{"mail", "box", "suspend", "l@d.example"}, {"l@d.example", "l+d.example"}},
      {{"mail", "box", "resume", "l@d.example"}, {"l@d.example", "l+d.example"}},
      {{"mail", "responder", "l@d.example", "on", "--text", "Away."}, {"l+d.example"}},
      {{"mail", "whitelist", "add", "192.0.2.9"}, {"192.0.2.9"}},
      {{"mail", "blacklist", "add", "2001:db8::5"}, {"2001:db8:0:0:0:0:0:5"}},
      // A domain's state goes to its mailboxes' lines and entries too.
      {{"mail", "domain", "suspend", "e.example"}, {"^e.example", "@e.example", "+e.example"}},
      {{"mail", "domain", "resume", "e.example"}, {"^e.example", "@e.example", "+e.example"}},
      {{"mail", "domain", "set", "e.example", "--default-action", "ignore"},
       {"@e.example", "+e.example"}},
      {{"mail", "domain", "add", "f.example"}, {"f.example"}},
      {{"mail", "domain", "update", "d.example"}, {"^d.example", "@d.example", "+d.example"}},
      {{"mail", "sync"}, {}},
      {{"mail", "responder", "l@d.example", "off"}, {"l+d.example"}},
      {{"mail", "whitelist", "delete", "192.0.2.9"}, {"192.0.2.9"}},
      {{"mail", "blacklist", "delete", "2001:db8::5"}, {"2001:db8:0:0:0:0:0:5"}},
      {{"mail", "box", "set", "l@d.example", "--no-alias", "b", "--no-forward", "g@x.example"},
       {"l+d.example", "b@d.example"}},
      {{"mail", "box", "delete", "o@d.example"}, {"o@d.example", "o+d.example"}},
      {{"mail", "domain", "delete", "f.example"}, {"f.example"}},
      // A suspension replaces the mailbox's own entry (it refuses mail while
      // suspended), so the resume writes it back in the panel's spacing.
      {{"mail", "box", "suspend", "m@d.example"}, {"m@d.example", "m+d.example"}},
      {{"mail", "box", "resume", "m@d.example"}, {"m@d.example", "m+d.example"}},
  };
  for (size_t i = 0; i < steps.size(); ++i) {
    if (i == steps.size() / 2) EditAgain();
    Run(steps[i]);
    if (HasFailure()) break;
  }
  const std::string respaced_entry = "m+d.example:   f@x.example,   m\\@d.example\n";
  // Its targets in the panel's form; the blanks after the name stay.
  ASSERT_NE(panel_.Read("aliases").find("m+d.example:   f@x.example, m\\@d.example\n"),
            std::string::npos)
      << "the entry is written back whole after the suspension:\n" << panel_.Read("aliases");
  for (auto* lines : {&by_hand_["aliases"], &first_round["aliases"]})
    lines->erase(std::remove(lines->begin(), lines->end(), respaced_entry), lines->end());
  ExpectHandLinesKept();
  for (const auto& [name, lines] : first_round)
    EXPECT_TRUE(InOrder(panel_.Read(name), lines)) << name << ": the hand-made lines moved";
  int status = -1;
  EXPECT_EQ(panel_.SyncChanges(status), "");
  EXPECT_EQ(status, 0);
}

TEST_F(HandEditTest, AMailboxLineRespacedByHandKeepsItsSpacingAndCommentWhenSuspended) {
  EditByHand();
  panel_.Ok({"mail", "box", "suspend", "m@d.example"});
  EXPECT_NE(panel_.Read("virtusertable")
                .find("m@d.example    error:nouser Account temporary disabled   # the second box\n"),
            std::string::npos)
      << panel_.Read("virtusertable");
  panel_.Ok({"mail", "box", "resume", "m@d.example"});
  EXPECT_NE(panel_.Read("virtusertable").find("m@d.example    m+d.example   # the second box\n"),
            std::string::npos)
      << panel_.Read("virtusertable");
}
