// pnl_err: the one exception type of the platform, and the closed set of
// failure kinds it carries.
//
// Every failure of the platform and of the modules it hosts is thrown as a
// pnl_err::Error (or a subclass). An error carries data, not only text: a
// Kind the host acts on (exit status, what a client may retry), the object
// that failed (a file, a key, a command) and the detail (the cause, or a
// failed command's own output). The host maps errors to exit codes and
// messages in one place. Errors are values: copying is intentional and cheap
// enough for exception paths. Thread-safe as any immutable value.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace pnl_err {

// What went wrong, as a closed set: a new kind is added here, with its name,
// or not at all. The names are what reports and JSON show as "type".
enum class Kind {
  // The request itself: the caller can mend it.
  kUsage,         // "usage": a value or argument refused before anything opened
  kInvalid,       // "invalid": a request that contradicts the object's state
  kUnknown,       // "unknown": the named object does not exist
  kExists,        // "exists": the object to make exists already
  kConflict,      // "conflict": another object holds the name or value
  kInUse,         // "in_use": other objects still depend on the object
  kLimit,         // "limit": a size or count the files cannot take
  kNotSupported,  // "not_supported": the back-end cannot do this
  kUnsafe,        // "unsafe": a folder or file others could tamper with
  kMissing,       // "missing": a file the work depends on has vanished
  // The system: the administrator must look.
  kConf,          // "conf": a configuration or managed file cannot be read or kept
  kFile,          // "file": a file system call failed
  kDb,            // "db": the database refused or failed
  kRow,           // "row": a database row holds a value no file may take
  kModule,        // "module": a module cannot be found, loaded or registered
  kEmail,         // "email": the mail back-end failed (its command's output)
  kAliasDb,       // "aliasdb": the alias database cannot be built
  kProc,          // "proc": a process cannot be started or waited for
  kInit,          // "init": a set-up step failed
  kBatch,         // "batch": a batch cannot run as asked
  kLog,           // "log": the log cannot be written
  kRandom,        // "random": the system's random source failed
  kFailed,        // "failed": the work ran and its output tells what failed
  kInternal,      // "internal": a failure that is not a pnl_err::Error
};

// The kind's name as reports show it: "usage", "conf", ...
std::string_view KindName(Kind kind) noexcept;

class Error : public std::exception {
 public:
  // object: what failed; detail: why. what() is "object: detail" (or just
  // the one that is set).
  Error(Kind kind, std::string object, std::string detail);

  const char* what() const noexcept override { return message_.c_str(); }

  Kind kind() const noexcept { return kind_; }
  std::string_view type() const noexcept { return KindName(kind_); }
  const std::string& object() const noexcept { return object_; }
  const std::string& detail() const noexcept { return detail_; }

  // Marks the error as one the host must report to the administrator (log it
  // at error level and show it), rather than only turning it into a result
  // code. Returns *this so it can be chained before a throw.
  Error& set_report() noexcept;
  bool reported() const noexcept { return report_; }

 private:
  Kind kind_;
  std::string object_;
  std::string detail_;
  std::string message_;
  bool report_ = false;
};

}  // namespace pnl_err
