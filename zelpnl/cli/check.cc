// zelpnl mail check ADDRESS: asks the mail system how it would deliver mail
// to an address now and prints its answer.
#include "commands.h"
#include "email/mta_interface.h"
#include "validation.h"

namespace zelpnl {

namespace {

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

void Check(Host& host, const Output& out, const std::string& address) {
  const email::MtaInterface::AddressCheck check = host.Mta().CheckAddress(address);
  out.Print({{"check",
              {{"address", address},
               {"command", check.command},
               {"status", check.status},
               {"deliverable", check.deliverable},
               {"answer", Lines(check.answer)}}}},
            check.answer);
  if (!check.deliverable) {
    PrintError(address, "sendmail cannot deliver it (sendmail -bv exit status " +
                            std::to_string(check.status) + ")");
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
    *out = {Needs::kMail, [=](Host& h, const Output& o) { Check(h, o, value); },
            "asks sendmail about the files, which a batch writes only at its end; run it "
            "after the batch"};
  });
}

}  // namespace zelpnl
