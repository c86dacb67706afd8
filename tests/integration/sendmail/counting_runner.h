// A process runner for tests that runs every command for real, through the
// platform's default runner, and remembers which commands ran.
#pragma once

#include <string>
#include <vector>

#include "zelapi/proc.h"

namespace zeltest {

class CountingRunner : public pnl_proc::Runner {
 public:
  CountingRunner() : real_(pnl_proc::CurrentRunner()) { pnl_proc::SetRunner(this); }
  ~CountingRunner() override { pnl_proc::SetRunner(nullptr); }

  pnl_proc::RunResult Run(const std::string& command, int mode) override {
    commands_.push_back(command);
    return real_.Run(command, mode);
  }

  const std::vector<std::string>& commands() const { return commands_; }
  int CountContaining(const std::string& part) const {
    int n = 0;
    for (const auto& c : commands_)
      if (c.find(part) != std::string::npos) ++n;
    return n;
  }

 private:
  pnl_proc::Runner& real_;
  std::vector<std::string> commands_;
};

}  // namespace zeltest
