#include "failure.h"

#include <exception>

#include "validation.h"
#include "zelapi/err.h"

namespace zelpnl {

Failure CurrentFailure() {
  try {
    throw;
  } catch (const Invalid& e) {
    return {e.type(), e.object(), e.detail(), 2};
  } catch (const pnl_err::Error& e) {
    return {e.type(), e.object(), e.detail(), 1};
  } catch (const std::exception& e) {
    return {"internal", "", e.what(), 1};
  } catch (...) {
    return {"internal", "", "unknown failure", 1};
  }
}

}  // namespace zelpnl
