#include "email/mta_interface.h"

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

}  // namespace email
