// Fuzz target for the access-map keys of sender-list entries
// (SendmailInterface::ToListVal and FromListVal): any text is taken without
// harm, and an entry the panel accepts (an address, a domain, an IPv4 or
// IPv6 address) comes back from its key as it went in.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "email_sendmail/sendmail_interface.h"
#include "zelapi/cf.h"
#include "zelapi/test.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static zelpriv_email_sendmail::SendmailInterface* const mta = [] {
    for (const char* key : {"sendmail-virtusertable", "sendmail-localhostnames",
                            "sendmail-accessdb", "sendmail-aliases"})
      pnl_cf::SetPath(key, std::string("/nonexistent/") + key);
    pnl_cf::SetPath("sendmail-newaliases", "true");
    pnl_cf::SetPath("sendmail-restart", "true");
    return new zelpriv_email_sendmail::SendmailInterface();
  }();
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string key = mta->ToListVal(input);
  const std::string back = mta->FromListVal(key);
  (void)mta->FromListVal(input);
  const bool ip = test::Const<&test::Ip>(input);
  if (ip && key.rfind(test::Const<&test::Ip6>(input) ? "Connect:IPv6:" : "Connect:", 0) != 0)
    abort();
  if ((ip || test::Const<&test::Email>(input) || test::Const<&test::Domain>(input)) &&
      back != input)
    abort();
  return 0;
}
