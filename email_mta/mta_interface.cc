#include "email/mta_interface.h"

#include "zelapi/err.h"

namespace email {

MtaInterface::~MtaInterface() = default;

bool MtaInterface::CanBindToIp() { return true; }
bool MtaInterface::CanDNSBL() { return false; }
void MtaInterface::AddDNSBL(const std::string&) {}
void MtaInterface::DeleteDNSBL(const std::string&) {}
void MtaInterface::GetDNSBLs(std::vector<std::string>&) {}
std::string MtaInterface::ServerNameReason(const std::string&) { return ""; }
bool MtaInterface::PostHeldRemovals() { return false; }
void MtaInterface::DropHeldRemovals() noexcept {}
void MtaInterface::BeginSaves() {}
bool MtaInterface::LocalNamesChanged() const { return false; }
void MtaInterface::RestartLater() {}
void MtaInterface::RestartNow() {}
void MtaInterface::RebuildStaleMaps() noexcept {}
MtaInterface::MailboxLeftover MtaInterface::FindMailboxLeftover(const std::string&,
                                                                const std::string&) {
  return {};
}
bool MtaInterface::HasDomainLeftover(const std::string&) { return false; }
std::optional<AccessEntry> MtaInterface::FindAccessEntry(const std::vector<std::string>&) {
  return std::nullopt;
}
std::optional<AccessEntry> MtaInterface::FindSenderEntry(const std::string&) {
  return std::nullopt;
}
MtaInterface::AddressCheck MtaInterface::CheckAddress(const std::string& address) {
  throw pnl_err::Error(pnl_err::Kind::kNotSupported, address,
                       "this mail back-end cannot be asked how it would deliver mail");
}

}  // namespace email
