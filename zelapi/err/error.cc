#include "zelapi/err.h"

#include <utility>

namespace pnl_err {

std::string_view KindName(Kind kind) noexcept {
  switch (kind) {
    case Kind::kUsage: return "usage";
    case Kind::kInvalid: return "invalid";
    case Kind::kUnknown: return "unknown";
    case Kind::kExists: return "exists";
    case Kind::kConflict: return "conflict";
    case Kind::kInUse: return "in_use";
    case Kind::kLimit: return "limit";
    case Kind::kNotSupported: return "not_supported";
    case Kind::kUnsafe: return "unsafe";
    case Kind::kMissing: return "missing";
    case Kind::kConf: return "conf";
    case Kind::kFile: return "file";
    case Kind::kDb: return "db";
    case Kind::kRow: return "row";
    case Kind::kModule: return "module";
    case Kind::kEmail: return "email";
    case Kind::kAliasDb: return "aliasdb";
    case Kind::kProc: return "proc";
    case Kind::kInit: return "init";
    case Kind::kBatch: return "batch";
    case Kind::kLog: return "log";
    case Kind::kRandom: return "random";
    case Kind::kFailed: return "failed";
    case Kind::kInternal: return "internal";
  }
  return "internal";  // not reached: the switch names every kind
}

Error::Error(Kind kind, std::string object, std::string detail)
    : kind_(kind), object_(std::move(object)), detail_(std::move(detail)) {
  if (object_.empty())
    message_ = detail_;
  else if (detail_.empty())
    message_ = object_;
  else
    message_ = object_ + ": " + detail_;
  if (message_.empty()) message_ = std::string(KindName(kind_));
}

Error& Error::set_report() noexcept {
  report_ = true;
  return *this;
}

}  // namespace pnl_err
