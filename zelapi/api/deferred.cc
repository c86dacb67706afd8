// The request's deferred commands.
#include <algorithm>
#include <exception>
#include <mutex>

#include "zelapi/api.h"
#include "zelapi/log.h"
#include "zelapi/proc.h"

namespace zel_api {
namespace {

struct Queue {
  std::mutex mutex;
  std::vector<std::string> commands;  // distinct, in first-queued order
};

Queue& GetQueue() {
  static Queue* queue = new Queue;
  return *queue;
}

std::vector<std::string> TakeAll() {
  Queue& queue = GetQueue();
  std::lock_guard lock(queue.mutex);
  std::vector<std::string> commands;
  commands.swap(queue.commands);
  return commands;
}

}  // namespace

void ExecuteLater(const std::string& command) {
  Queue& queue = GetQueue();
  std::lock_guard lock(queue.mutex);
  if (std::find(queue.commands.begin(), queue.commands.end(), command) == queue.commands.end())
    queue.commands.push_back(command);
}

std::vector<std::string> PendingCommands() {
  Queue& queue = GetQueue();
  std::lock_guard lock(queue.mutex);
  return queue.commands;
}

int RunDeferred() {
  int failed = 0;
  for (const std::string& command : TakeAll()) {
    try {
      pnl_proc::Execute run(command, 2);
      if (run.Result() != 0) {
        ++failed;
        pnl_log::Platform().Error("deferred command \"" + command + "\" failed with status " +
                                  std::to_string(run.Result()) + ": " + run.Str());
      }
    } catch (const std::exception& e) {
      ++failed;
      pnl_log::Platform().Error("deferred command \"" + command + "\" could not run: " + e.what());
    }
  }
  return failed;
}

void DiscardDeferred() { TakeAll(); }

}  // namespace zel_api
