// A module shared object for the loader's tests. It is built several times
// under different names (TESTMOD_NAME); each copy registers one module and
// writes what happens to it into the "events" parameter, so that tests can
// see the order of loading, construction, destruction and unloading. The
// TESTMOD_BROKEN copy registers a second module whose constructor throws.
#include <string>

#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"

namespace {

void Record(const std::string& event) {
  const std::string events = pnl_cf::GetParam("events");
  pnl_cf::SetParam("events", events.empty() ? event : events + " " + event);
}

class Recording : public zel_api::Module {
 public:
  Recording() : zel_api::Module("module_" TESTMOD_NAME) { Record("construct:" TESTMOD_NAME); }
  ~Recording() override { Record("destroy:" TESTMOD_NAME); }
};

// Defined first, so destroyed last: after the registration is withdrawn.
struct UnloadRecorder {
  ~UnloadRecorder() { Record("unload:" TESTMOD_NAME); }
} unload_recorder;

zel_api::BaseRegisterModule registration;

struct Registrar {
  Registrar() {
    Record("load:" TESTMOD_NAME);
    registration.Register(TESTMOD_NAME, &zel_api::RegisterModule<Recording>::Constructor);
  }
} registrar;

#ifdef TESTMOD_BROKEN
class Broken : public zel_api::Module {
 public:
  Broken() : zel_api::Module("broken_throws") {
    throw pnl_err::Error(pnl_err::Kind::kModule, "broken_throws", "constructor failed");
  }
};

zel_api::BaseRegisterModule broken_registration;

struct BrokenRegistrar {
  BrokenRegistrar() {
    broken_registration.Register("broken_throws", &zel_api::RegisterModule<Broken>::Constructor);
  }
} broken_registrar;
#endif

}  // namespace
