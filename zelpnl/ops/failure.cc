#include "failure.h"

#include <exception>

#include "zelapi/err.h"

namespace zelpnl {

Failure CurrentFailure() {
  try {
    throw;
  } catch (const pnl_err::Error& e) {
    return {e.kind(), e.object(), e.detail(), e.kind() == pnl_err::Kind::kUsage ? 2 : 1};
  } catch (const std::exception& e) {
    return {pnl_err::Kind::kInternal, "", e.what(), 1};
  } catch (...) {
    return {pnl_err::Kind::kInternal, "", "unknown failure", 1};
  }
}

}  // namespace zelpnl
