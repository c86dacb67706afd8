#include "email/fail.h"

namespace email {

Fail::Fail(const std::string& object, const std::string& detail)
    : pnl_err::Error(pnl_err::Kind::kEmail, object, detail) {
  set_report();
}

}  // namespace email
