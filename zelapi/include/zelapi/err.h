// pnl_err: the one exception type of the platform.
//
// Every failure of the platform and of the modules it hosts is thrown as a
// pnl_err::Error (or a subclass). An error carries data, not only text: a
// type code the host can act on ("not_supported", "conf", "db", "email", ...),
// the object that failed (a file, a key, a command) and the detail (the cause,
// or a failed command's own output). The host maps errors to exit codes and
// messages in one place. Errors are values: copying is intentional and cheap
// enough for exception paths. Thread-safe as any immutable value.
#pragma once

#include <exception>
#include <string>

namespace pnl_err {

class Error : public std::exception {
 public:
  // type: a short code such as "not_supported"; object: what failed;
  // detail: why. what() is "object: detail" (or just the one that is set).
  Error(std::string type, std::string object, std::string detail);

  const char* what() const noexcept override { return message_.c_str(); }

  const std::string& type() const noexcept { return type_; }
  const std::string& object() const noexcept { return object_; }
  const std::string& detail() const noexcept { return detail_; }

  // Marks the error as one the host must report to the administrator (log it
  // at error level and show it), rather than only turning it into a result
  // code. Returns *this so it can be chained before a throw.
  Error& set_report() noexcept;
  bool reported() const noexcept { return report_; }

 private:
  std::string type_;
  std::string object_;
  std::string detail_;
  std::string message_;
  bool report_ = false;
};

}  // namespace pnl_err
