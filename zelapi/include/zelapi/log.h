// pnl_log: the platform's logger.
//
// Messages go to stderr (from the stderr threshold up) and, once a log file
// is configured, appended to that file (from the file threshold up), one line
// each, written with a single write:
//
//   2024-05-01 12:00:00.123 info zelpnl/email: the message
//
// (local time with milliseconds, level, "panel/channel:", message). Line ends
// and other control characters inside a message are written as "\n", "\r",
// "\xNN"; a final line end is dropped. Until Configure is called there is no
// file and stderr shows warnings and errors. A module opens its channel with
// a static pnl_log::Module object. All functions are thread-safe; each line
// is written whole.
#pragma once

#include <string>

namespace pnl_log {

enum class Level { kDebug = 0, kInfo = 1, kWarning = 2, kError = 3, kOff = 4 };

// Parses "debug", "info", "warning", "error" or "off"; throws pnl_err::Error
// (type "conf") for anything else.
Level ParseLevel(const std::string& name);

// Sets the log file ("" for none) and the two thresholds; the file is created
// (mode 0640) when missing and always appended to. Throws pnl_err::Error
// (type "log", object the file) when it cannot be opened for appending; the
// previous settings then stay in force.
void Configure(const std::string& file, Level file_level, Level stderr_level);

// Writes one message on a channel (level kOff: nothing).
void Write(const std::string& panel, const std::string& channel, Level level,
           const std::string& message);

// A named log channel of one panel component. Cheap to copy.
class Module {
 public:
  Module(const std::string& channel, const std::string& panel);

  const std::string& channel() const { return channel_; }
  const std::string& panel() const { return panel_; }

  void Debug(const std::string& message) const;
  void Info(const std::string& message) const;
  void Warning(const std::string& message) const;
  void Error(const std::string& message) const;

 private:
  std::string channel_;
  std::string panel_;
};

// The platform's own channel ("platform" of panel "zelpnl").
const Module& Platform();

}  // namespace pnl_log
