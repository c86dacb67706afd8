#include "stack.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "validation.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelapi/fd.h"
#include "zelapi/net.h"
#include "zelapi/proc.h"
#include "zelapi/spawn.h"
#include "zelapi/str.h"

namespace fs = std::filesystem;

namespace zelpnl {

namespace {

constexpr auto kWait = std::chrono::seconds(10);
constexpr auto kStep = std::chrono::milliseconds(50);

struct Service {
  std::string name;
  std::string start;     // the command, run through the shell
  std::string program;   // its first word, the program every process of it runs
  std::string pid_file;
  std::vector<std::string> listen;
  std::string log;
  bool hup_restarts = false;  // SIGHUP runs it anew under a new pid
  std::string queue;          // lists its queue ("" for none)
  std::string run_dir;        // made by it while it runs, removed once it stopped ("" for none)
};

std::string Param(const std::string& service, const std::string& key, bool required) {
  const std::string name = "stack_" + service + "_" + key;
  std::string value = pnl_cf::GetParam(name);
  if (value.empty() && required)
    throw pnl_err::Error(pnl_err::Kind::kConf, "stack", "the parameter \"" + name + "\" is not set");
  return value;
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

std::vector<Service> Services() {
  std::vector<Service> services;
  for (const std::string& name : Words(pnl_cf::GetParam("stack_services"))) {
    Service s;
    s.name = name;
    s.start = Param(name, "start", true);
    s.program = Words(s.start).front();
    s.pid_file = Param(name, "pid", true);
    s.listen = Words(Param(name, "listen", true));
    s.log = Param(name, "log", true);
    s.hup_restarts = Param(name, "hup", false) == "restarts";
    s.queue = Param(name, "queue", false);
    s.run_dir = Param(name, "rundir", false);
    if (!s.run_dir.empty() && (s.run_dir[0] != '/' || fs::path(s.run_dir).lexically_normal() !=
                                                          fs::path(s.run_dir) ||
                               std::count(s.run_dir.begin(), s.run_dir.end(), '/') < 2))
      throw pnl_err::Error(pnl_err::Kind::kConf, "stack",
                           "\"stack_" + name + "_rundir\" must be an absolute folder below "
                           "another one, written plainly: " + s.run_dir);
    services.push_back(std::move(s));
  }
  if (services.empty())
    throw pnl_err::Error(pnl_err::Kind::kNotSupported, "stack",
                         "this set-up runs no mail stack (no \"stack_services\"; a sandbox made "
                         "without sendmail-cf and m4 has none)");
  return services;
}

// host and port of "127.0.0.1:25" or "[::1]:25".
std::pair<std::string, int> HostPort(const std::string& address) {
  const std::string::size_type colon = address.rfind(':');
  std::string host = address.substr(0, colon);
  if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
  return {host, std::stoi(address.substr(colon + 1))};
}

bool Accepting(const std::string& address) {
  const auto [host, port] = HostPort(address);
  return pnl_net::Accepts(host, port, 200);
}

// Whether pid runs. A process that has ended but was not reaped yet (its
// parent is init, and not every init reaps at once) counts as ended.
bool Alive(int pid) {
  if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const std::string::size_type end = text.rfind(')');
  return end == std::string::npos || end + 2 >= text.size() || text[end + 2] != 'Z';
}

// The pid the service's pid file names when that process runs the
// service's program; 0 otherwise.
int RunningPid(const Service& s) {
  std::ifstream in(s.pid_file);
  long pid = 0;
  if (!(in >> pid) || pid <= 1) return 0;
  if (!Alive(static_cast<int>(pid))) return 0;
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
  if (ec) return 0;
  const fs::path program = fs::canonical(s.program, ec);
  if (ec || fs::canonical(exe, ec) != program) return 0;
  return static_cast<int>(pid);
}


std::string LogTail(const Service& s) {
  std::ifstream in(s.log, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (text.size() > 2000) text = "..." + text.substr(text.size() - 2000);
  return text.empty() ? "its log " + s.log + " is empty" : "the end of " + s.log + ":\n" + text;
}

ServiceState StateOf(const Service& s) {
  ServiceState state;
  state.name = s.name;
  state.pid = RunningPid(s);
  state.log = s.log;
  for (const std::string& address : s.listen)
    state.listen.push_back({address, state.pid != 0 && Accepting(address)});
  return state;
}

// Waits until ready() holds, for at most kWait.
template <typename Ready>
bool WaitFor(Ready ready) {
  const auto until = std::chrono::steady_clock::now() + kWait;
  while (!ready()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(kStep);
  }
  return true;
}

bool Up(const Service& s, int not_pid = 0) {
  const int pid = RunningPid(s);
  if (pid == 0 || pid == not_pid) return false;
  for (const std::string& address : s.listen)
    if (!Accepting(address)) return false;
  return true;
}

void Start(const Service& s) {
  for (const std::string& address : s.listen)
    if (Accepting(address))
      throw pnl_err::Error(pnl_err::Kind::kConflict, s.name,
                           "another program listens on " + address +
                               " already; stop it, or make a new sandbox (it gets free ports)");
  // The daemon leaves the shell at once. Its output goes to its log, and
  // it keeps no descriptor of ours: a pipe our caller reads would stay open
  // for as long as the daemon runs.
  pnl_file::Fd log(::open(s.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
  if (!log.open())
    throw pnl_err::Error(pnl_err::Kind::kFile, s.log, std::string("cannot open: ") + std::strerror(errno));
  pnl_proc::SpawnOptions options;
  options.out = log.get();
  options.err = log.get();
  options.close_others = true;
  options.signals = pnl_proc::SpawnOptions::Signals::kNoneBlockedAllDefault;
  pid_t shell = 0;
  if (const int error = pnl_proc::Spawn("/bin/sh", {"sh", "-c", s.start}, options, shell); error != 0)
    throw pnl_err::Error(pnl_err::Kind::kProc, s.name, "cannot start \"" + s.start + "\": " +
                                                       std::strerror(error));
  int wait_status = 0;
  while (::waitpid(shell, &wait_status, 0) < 0 && errno == EINTR) {
  }
  if (const int status = pnl_proc::ExitStatus(wait_status); status != 0)
    throw pnl_err::Error(pnl_err::Kind::kProc, s.name,
                         "\"" + s.start + "\" failed with status " + std::to_string(status) + "; " +
                             LogTail(s));
  if (!WaitFor([&] { return Up(s); }))
    throw pnl_err::Error(pnl_err::Kind::kProc, s.name,
                         "did not come up within " + std::to_string(kWait.count()) +
                             " seconds (\"" + s.start + "\"); " + LogTail(s));
}

// The folder a stopped service ran in (its sockets): nothing keeps it.
void RemoveRunDir(const Service& s) {
  if (s.run_dir.empty()) return;
  std::error_code ec;
  fs::remove_all(s.run_dir, ec);
}

void Stop(const Service& s) {
  const int pid = RunningPid(s);
  if (pid == 0) return RemoveRunDir(s);
  ::kill(pid, SIGTERM);
  if (!WaitFor([&] { return !Alive(pid); })) {
    ::kill(pid, SIGKILL);
    if (!WaitFor([&] { return !Alive(pid); }))
      throw pnl_err::Error(pnl_err::Kind::kProc, s.name,
                           "process " + std::to_string(pid) + " does not stop, even when killed");
  }
  RemoveRunDir(s);
}

void Reload(const Service& s) {
  const int pid = RunningPid(s);
  if (pid == 0) return;
  ::kill(pid, SIGHUP);
  const bool up = s.hup_restarts ? WaitFor([&] { return Up(s, pid); }) : WaitFor([&] { return Up(s); });
  if (!up)
    throw pnl_err::Error(pnl_err::Kind::kProc, s.name,
                         "did not come back within " + std::to_string(kWait.count()) +
                             " seconds of its reload; " + LogTail(s));
}

StackState State(const std::vector<Service>& services, bool with_queue) {
  StackState state;
  for (const Service& s : services) {
    state.services.push_back(StateOf(s));
    if (!with_queue || s.queue.empty()) continue;
    pnl_proc::Execute run(s.queue, 2);
    state.queue = run.Str();
    if (run.Result() != 0) continue;
    if (state.queue.find("is empty") != std::string::npos) {
      state.queued = 0;
    } else if (const auto at = state.queue.find("Total requests: "); at != std::string::npos) {
      state.queued = std::atoi(state.queue.c_str() + at + 16);
    }
  }
  return state;
}

void RequireRoot() {
  if (::geteuid() != 0)
    throw pnl_err::Error(pnl_err::Kind::kNotSupported, "stack",
                         "the mail stack's servers start as root (they bind, deliver and change "
                         "users as the mail system does)");
}

}  // namespace

bool HasStack() { return !pnl_cf::GetParam("stack_services").empty(); }

StackState StartStack() {
  const std::vector<Service> services = Services();
  RequireRoot();
  std::vector<const Service*> started;
  try {
    for (const Service& s : services) {
      if (RunningPid(s) != 0) continue;
      Start(s);
      started.push_back(&s);
    }
  } catch (...) {
    for (auto it = started.rbegin(); it != started.rend(); ++it) {
      try {
        Stop(**it);
      } catch (...) {
        // The start's failure is the one told.
      }
    }
    throw;
  }
  return State(services, false);
}

StackState StopStack() {
  const std::vector<Service> services = Services();
  for (auto it = services.rbegin(); it != services.rend(); ++it) Stop(*it);
  return State(services, true);
}

StackState ReloadStack(const std::string& only) {
  const std::vector<Service> services = Services();
  bool found = only.empty();
  for (const Service& s : services) {
    if (!only.empty() && s.name != only) continue;
    found = true;
    Reload(s);
  }
  if (!found)
    throw Invalid("service", only, "is not one of the stack's (" + pnl_cf::GetParam("stack_services") + ")");
  return State(services, false);
}

StackState StackStatus() { return State(Services(), true); }

}  // namespace zelpnl
