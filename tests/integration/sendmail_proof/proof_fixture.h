// The panel judged by sendmail itself: each test makes a sandbox with the
// built zelpnl ("zelpnl init --sandbox" in a scratch folder under the build
// folder), changes it with zelpnl commands, and asks the installed
// /usr/sbin/sendmail, run on the sandbox's own sendmail.cf, what it would do:
// "-bv ADDRESS" for delivery, "-bt" for map look-ups and rulesets.
//
// sendmail (sendmail-bin), its configuration macros (sendmail-cf) and m4 are
// required: where one is missing, every test fails in SetUp with a message
// that says which, never skips. Each sendmail run is killed and reported after
// kDeadlineSeconds, which only happens when the configuration waits on DNS.
// Single-threaded, like every GoogleTest fixture.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sandbox.h"

namespace proof {

inline constexpr int kDeadlineSeconds = 30;

struct ProgramRun {
  int status = -1;  // exit status, 128 + signal when killed
  std::string out;
  std::string err;
  bool timed_out = false;
};

// Runs argv (no shell) with input on its standard input and the process's
// environment less ZELPNL_CONF; kills it after `seconds` (timed_out is then
// set). Throws std::runtime_error when the program cannot be started.
ProgramRun RunProgram(const std::vector<std::string>& argv, const std::string& input, int seconds);

// sendmail -bv's answer for one address: its exit status and its lines, one
// per final recipient, in the order sendmail printed them.
struct Verdict {
  int status = -1;
  std::vector<std::string> lines;
};

// The lines sendmail -bv prints for the final recipients it finds.
// "l\@d.example... deliverable: mailer local, user l\@d.example"
std::string LocalDelivery(const std::string& user);
// "f@x.example... deliverable: mailer relay, host [127.0.0.1], user
// f@x.example": relayed to target, through the sandbox's smart host (it
// sends nothing out by DNS). sendmail names the address it was asked about when the
// virtual user table redirected it, the target itself when the aliases file
// did: shown, when given, is that asked address.
std::string Relayed(const std::string& target, const std::string& shown = "");
// "a@d.example... No such user here" and the like: a refusal with its text.
std::string Refused(const std::string& address, const std::string& text);
// The program mailer for "|command" (sendmail shows the user quoted when the
// command holds a blank) and the file mailer for "/path".
std::string Program(const std::string& command);
std::string FileTarget(const std::string& path);

// check_mail's answer for a sender the access map does not name: it judges
// nothing and passes the address on, canonified ("@ l < @ d . example >").
// The sandbox asks no DNS and takes senders' domains as they are, so only
// the panel's lists decide about a sender.
std::string Unjudged(const std::string& address);
// check_mail's answers for the access map's values.
inline const char kSenderAccepted[] = "$# OK";
inline const char kSenderRejected[] = "$# error $@ 5 . 7 . 1 $: \"550 Access denied\"";
inline const char kSenderDisabled[] = "$# error $: 550 Account disabled";

// sendmail -bv's exit status for an address it cannot deliver (EX_NOUSER).
inline constexpr int kNoUser = 67;

class SendmailProofTest : public ::testing::Test {
 protected:
  // Fails (fatally) when sendmail, sendmail-cf or m4 is missing, when init
  // fails or leaves no sendmail.cf.
  void SetUp() override;

  std::string Dir() const { return box_.Path("sb"); }
  std::string Path(const std::string& file) const { return Dir() + "/" + file; }
  std::string File(const std::string& name) const;

  // The aliases-file target of the responder of address: "|PROGRAM --config
  // CONF address", with the program the sandbox's configuration names and
  // CONF its responder.conf.
  std::string ResponderCommand(const std::string& address) const;

  // zelpnl --config <sandbox> args...: the run as it came.
  ProgramRun Zel(const std::vector<std::string>& args);
  // The same, expected to succeed quietly (status 0, nothing on stderr).
  void Ok(const std::vector<std::string>& args);

  // sendmail -C <sandbox>/sendmail.cf -bv address.
  Verdict Verify(const std::string& address);
  // sendmail -C <sandbox>/sendmail.cf -bt fed these lines; its whole output.
  std::string AddressTest(const std::vector<std::string>& lines);
  // "/map MAP KEY": the value sendmail finds, nullopt for "no match". A map
  // sendmail does not know, or an answer of another shape, fails the test.
  std::optional<std::string> Map(const std::string& map, const std::string& key);
  // "RULESET INPUT", after the given ".D{macro}value" lines: what the
  // outermost call of the ruleset returns, as sendmail prints it (tokens
  // separated by blanks), e.g. "$# error $: 550 Account disabled".
  std::string Ruleset(const std::string& ruleset, const std::string& input,
                      const std::vector<std::string>& macros = {});
  // Class w, the names sendmail takes as this host: "$=w".
  std::set<std::string> LocalHostNames();

  // A web domain and mail domain of admin with the given default action.
  void AddDomain(const std::string& domain, const std::vector<std::string>& options = {});

  zeltest::Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

}  // namespace proof
