#include "zelapi/err.h"

#include <utility>

namespace pnl_err {

Error::Error(std::string type, std::string object, std::string detail)
    : type_(std::move(type)), object_(std::move(object)), detail_(std::move(detail)) {
  if (object_.empty())
    message_ = detail_;
  else if (detail_.empty())
    message_ = object_;
  else
    message_ = object_ + ": " + detail_;
  if (message_.empty()) message_ = type_;
}

Error& Error::set_report() noexcept {
  report_ = true;
  return *this;
}

}  // namespace pnl_err
