// zelpnl failure: what a failed command reports, taken from the exception
// in flight.
#pragma once

#include <string>

namespace zelpnl {

// The error's type, object and detail, and the exit status it calls for
// (1, or 2 for a value the validation refused).
struct Failure {
  std::string type;
  std::string object;
  std::string detail;
  int status = 1;
};

// The failure of the exception in flight: call from a catch block. Never
// throws.
Failure CurrentFailure();

}  // namespace zelpnl
