// zelpnl stack: the sandbox's mail stack (the mail store and the MTA's
// daemon) started, stopped, reloaded and looked at. What runs is what the
// configuration describes (stack_services, and for each service NAME:
// stack_NAME_start, _pid, _listen, _log, _hup, optionally _queue and
// _rundir, a folder it makes while it runs and stop removes), as the
// sandbox's set-up wrote it; the host knows no server by name.
//
// Every server binds only the loopback addresses of its _listen setting.
// Waits are bounded: a server that has not started (or stopped) within ten
// seconds is an error naming it, with the end of its log. A process is
// taken for a service's only when its pid file names it and it runs the
// service's program, so a recycled pid is never signalled.
#pragma once

#include <string>
#include <vector>

namespace zelpnl {

struct ListenState {
  std::string address;  // host:port, IPv6 hosts in brackets
  bool accepting = false;
};

struct ServiceState {
  std::string name;
  int pid = 0;  // 0: not running
  std::vector<ListenState> listen;
  std::string log;
};

struct StackState {
  std::vector<ServiceState> services;
  // What the MTA's queue holds now, as it says so ("" when not asked).
  std::string queue;
  int queued = -1;  // messages in the queue; -1: unknown
};

// Whether the configuration describes a stack at all.
bool HasStack();

// Starts the services not running, in order; a failure stops what this
// call started. Throws pnl_err::Error (kConflict for a port another
// program holds, kProc for a server that does not come up).
StackState StartStack();
// Stops the running services, in reverse order. Never leaves one running
// without saying so (throws kProc naming it).
StackState StopStack();
// Makes the running services read their configuration and tables anew and
// waits until they accept connections again; a service not running is left
// alone. only: one service by name ("" for all).
StackState ReloadStack(const std::string& only);
StackState StackStatus();

}  // namespace zelpnl
