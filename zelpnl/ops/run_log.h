// zelpnl run log: the host's channel of the log ("host" of zelpnl) for one
// run. Until the configuration has named the log file (SetReady), messages
// are dropped: the logger would show them on standard error, where the run
// tells its error already. Each message of a run names its command line
// where it says what the run did. Used from the run's thread.
#pragma once

#include <string>

namespace zelpnl {

class RunLog {
 public:
  explicit RunLog(std::string command_line) : command_line_(std::move(command_line)) {}

  void SetReady() { ready_ = true; }
  bool ready() const { return ready_; }
  const std::string& command_line() const { return command_line_; }

  void Debug(const std::string& message) const;
  void Info(const std::string& message) const;
  void Warning(const std::string& message) const;
  void Error(const std::string& message) const;

 private:
  bool ready_ = false;
  std::string command_line_;
};

}  // namespace zelpnl
