#include "run_log.h"

#include "zelapi/log.h"

namespace zelpnl {

namespace {

const pnl_log::Module& Channel() {
  static const pnl_log::Module log("host", "zelpnl");
  return log;
}

}  // namespace

void RunLog::Debug(const std::string& message) const {
  if (ready_) Channel().Debug(message);
}

void RunLog::Info(const std::string& message) const {
  if (ready_) Channel().Info(message);
}

void RunLog::Warning(const std::string& message) const {
  if (ready_) Channel().Warning(message);
}

void RunLog::Error(const std::string& message) const {
  if (ready_) Channel().Error(message);
}

}  // namespace zelpnl
