// email::Fail: a mail back-end's failed external command (makemap, the
// aliases rebuild). object is the command's name, detail its own output. The
// error is marked for reporting, so the host shows it to the administrator.
#pragma once

#include <string>

#include "zelapi/err.h"

namespace email {

class Fail : public pnl_err::Error {
 public:
  Fail(const std::string& object, const std::string& detail);
};

}  // namespace email
