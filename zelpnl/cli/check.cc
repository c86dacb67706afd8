// zelpnl mail check ADDRESS: asks sendmail how it would deliver mail to an
// address now ("sendmail -bv", with the set-up's own sendmail.cf when the
// configuration names one) and prints its answer.
#include "commands.h"
#include "panel_rows.h"
#include "validation.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelapi/proc.h"
#include "zelapi/str.h"

namespace zelpnl {

namespace {

constexpr char kSendmail[] = "/usr/sbin/sendmail";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

void Check(Host&, const Output& out, const std::string& address) {
  const std::string cf = pnl_cf::GetParam("sendmail_cf");
  std::string command = kSendmail;
  if (!cf.empty()) command += " -C " + str::ShellWord(cf);
  // "--" ends sendmail's options: the address is never read as one.
  command += " -bv -- " + str::ShellWord(address);
  pnl_proc::Execute run(command, 2);
  const bool deliverable = run.Result() == 0;
  out.Print({{"check",
              {{"address", address},
               {"command", command},
               {"status", run.Result()},
               {"deliverable", deliverable},
               {"answer", Lines(run.Str())}}}},
            run.Str());
  if (!deliverable) {
    PrintError(address, "sendmail cannot deliver it (sendmail -bv exit status " +
                            std::to_string(run.Result()) + ")");
    out.SetFailed();
  }
}

}  // namespace

void AddCheckCommand(CLI::App& mail, Command* out) {
  auto address = std::make_shared<std::string>();
  CLI::App* check = mail.add_subcommand(
      "check", "Ask sendmail how it would deliver mail to an address now (sendmail -bv)");
  check->footer(
      "Runs /usr/sbin/sendmail -bv ADDRESS, with -C and the configuration's \"sendmail_cf\" "
      "when it is set (zelpnl init sets it to the sandbox's sendmail.cf), and prints "
      "sendmail's answer. Exit status 0 when sendmail can deliver, 1 when it cannot.");
  check->add_option("ADDRESS", *address, "An address, or a local user name")->required();
  check->callback([=] {
    const std::string value = address->find('@') == std::string::npos
                                  ? LocalName(*address, "address")
                                  : RemoteAddress(*address).Text();
    *out = {Needs::kConfig, [=](Host& h, const Output& o) { Check(h, o, value); },
            "asks sendmail about the files, which a batch writes only at its end; run it "
            "after the batch"};
  });
}

}  // namespace zelpnl
