#include "zelapi/mta_registry.h"

#include <atomic>

#include "zelapi/err.h"
#include "zelapi/log.h"

namespace email {
namespace {

std::atomic<MtaInterface*> registered{nullptr};

}  // namespace

void RegisterMta(MtaInterface* mta) {
  if (mta == nullptr) throw pnl_err::Error(pnl_err::Kind::kModule, "email::RegisterMta", "null MTA interface");
  registered.store(mta);
  pnl_log::Platform().Debug("mail back-end registered");
}

MtaInterface* GetMta() { return registered.load(); }

void ForgetMta() { registered.store(nullptr); }

}  // namespace email
