// zelpnl failure: what a failed command reports, taken from the exception
// in flight.
#pragma once

#include <string>

#include "zelapi/err.h"

namespace zelpnl {

// The error's kind, object and detail, and the exit status it calls for
// (2 for a value refused before anything opened, else 1).
struct Failure {
  pnl_err::Kind kind = pnl_err::Kind::kInternal;
  std::string object;
  std::string detail;
  int status = 1;
};

// The failure of the exception in flight: call from a catch block. Never
// throws.
Failure CurrentFailure();

}  // namespace zelpnl
