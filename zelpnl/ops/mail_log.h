// zelpnl mail log: the log channel of the mail operations ("mail" of zelpnl).
#pragma once

#include "zelapi/log.h"

namespace zelpnl {

inline const pnl_log::Module& MailLog() {
  static const pnl_log::Module log("mail", "zelpnl");
  return log;
}

}  // namespace zelpnl
