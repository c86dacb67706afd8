#include "zelapi/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace pnl_proc {

namespace {

class SpawnActions {
 public:
  SpawnActions() { ::posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

  // Puts fd (or /dev/null, or nothing) at target in the child.
  void Wire(int fd, int target) {
    if (fd == SpawnOptions::kOurs) return;
    if (fd == SpawnOptions::kDevNull)
      ::posix_spawn_file_actions_addopen(&actions_, target, "/dev/null",
                                         target == STDIN_FILENO ? O_RDONLY : O_WRONLY, 0);
    else
      ::posix_spawn_file_actions_adddup2(&actions_, fd, target);
  }

 private:
  posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
 public:
  SpawnAttributes() { ::posix_spawnattr_init(&attributes_); }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

}  // namespace

int Spawn(const std::string& program, const std::vector<std::string>& argv,
          const SpawnOptions& options, pid_t& pid) {
  SpawnActions actions;
  actions.Wire(options.in, STDIN_FILENO);
  actions.Wire(options.out, STDOUT_FILENO);
  actions.Wire(options.err, STDERR_FILENO);
  if (options.close_others) ::posix_spawn_file_actions_addclosefrom_np(actions.get(), 3);

  SpawnAttributes attributes;
  if (options.signals != SpawnOptions::Signals::kAsOurs) {
    // Whatever the caller blocks or ignores for itself (SIGPIPE while it
    // writes, SIGCHLD) is not the child's business.
    sigset_t none;
    sigemptyset(&none);
    ::posix_spawnattr_setsigmask(attributes.get(), &none);
    short flags = POSIX_SPAWN_SETSIGMASK;
    if (options.signals == SpawnOptions::Signals::kNoneBlockedAllDefault) {
      sigset_t all;
      sigfillset(&all);
      sigdelset(&all, SIGKILL);
      sigdelset(&all, SIGSTOP);
      ::posix_spawnattr_setsigdefault(attributes.get(), &all);
      flags |= POSIX_SPAWN_SETSIGDEF;
    }
    ::posix_spawnattr_setflags(attributes.get(), flags);
  }

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t child = -1;
  const int rc = ::posix_spawn(&child, program.c_str(), actions.get(),
                               options.signals == SpawnOptions::Signals::kAsOurs ? nullptr
                                                                                 : attributes.get(),
                               args.data(), environ);
  if (rc == 0) pid = child;
  return rc;
}

int ExitStatus(int wait_status) {
  if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
  if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
  return 127;
}

}  // namespace pnl_proc
