// Fuzz target for the access-map keys of sender-list entries
// (SendmailInterface::ToListVal, FromListVal and ListKeys): any text is
// taken without harm; an address or network becomes its Connect: key, from
// which its canonical form comes back, stable under another round; and
// whatever key FromListVal reads an entry from is one ListKeys gives for
// that entry.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "email_sendmail/sendmail_interface.h"
#include "zelapi/cf.h"
#include "zelapi/net.h"

namespace {

std::string Lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

}  // namespace

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
  pnl_net::Network net;
  if (pnl_net::Parse(input, &net, nullptr) == pnl_net::Parsed::kOk) {
    const char* tag = net.family == pnl_net::Family::kIpv6 ? "Connect:IPv6:" : "Connect:";
    if (key != tag + net.address) abort();
    if (mta->FromListVal(key) != net.Text()) abort();
  }
  const std::string entry = mta->FromListVal(input);
  if (!entry.empty()) {
    bool listed = false;
    for (const std::string& k : mta->ListKeys(entry)) listed = listed || Lower(k) == Lower(input);
    if (!listed) abort();
    if (mta->FromListVal(mta->ToListVal(entry)) != entry) abort();
  }
  return 0;
}
