#include "child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zelapi/err.h"
#include "zelapi/spawn.h"

namespace zel_aliasdb {

namespace {

pnl_err::Error Fail(const std::string& program, const std::string& what, int err) {
  return pnl_err::Error(pnl_err::Kind::kAliasDb, program, what + ": " + std::strerror(err));
}

}  // namespace

Child::Child(const std::vector<std::string>& argv, bool with_input, const std::string& scratch_dir)
    : program_(argv.at(0)) {
  std::string name = scratch_dir + "/.zelaliasdb-out.XXXXXX";
  output_fd_ = ::mkostemp(name.data(), O_CLOEXEC);
  if (output_fd_ < 0) throw Fail(program_, "cannot make a file for its output in " + scratch_dir, errno);
  ::unlink(name.c_str());

  int pipe_fds[2] = {-1, -1};
  if (with_input && ::pipe2(pipe_fds, O_CLOEXEC) != 0) {
    const int saved = errno;
    ::close(output_fd_);
    throw Fail(program_, "cannot make a pipe", saved);
  }
  pnl_proc::SpawnOptions options;
  options.in = with_input ? pipe_fds[0] : pnl_proc::SpawnOptions::kDevNull;
  options.out = output_fd_;
  options.err = output_fd_;
  // The child starts with no signal blocked, whatever the builder blocks.
  options.signals = pnl_proc::SpawnOptions::Signals::kNoneBlocked;
  const int rc = pnl_proc::Spawn(program_, argv, options, pid_);
  if (with_input) ::close(pipe_fds[0]);
  if (rc != 0) {
    pid_ = -1;
    if (with_input) ::close(pipe_fds[1]);
    ::close(output_fd_);
    throw Fail(program_, "cannot start", rc);
  }
  input_ = with_input ? pipe_fds[1] : -1;
}

Child::~Child() {
  if (input_ >= 0) ::close(input_);
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (output_fd_ >= 0) ::close(output_fd_);
}

void Child::Write(std::string_view data) {
  // A child that ends early must not kill us with SIGPIPE.
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  std::size_t done = 0;
  int err = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(input_, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      err = errno;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  ::sigaction(SIGPIPE, &previous, nullptr);
  if (err != 0) {
    Wait();
    throw pnl_err::Error(pnl_err::Kind::kAliasDb, program_,
                         std::string("cannot write to it: ") + std::strerror(err) +
                             (output_.empty() ? std::string() : ":\n" + output_));
  }
}

int Child::Wait() {
  if (input_ >= 0) {
    ::close(input_);
    input_ = -1;
  }
  if (pid_ > 0) {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    status_ = pnl_proc::ExitStatus(status);
    ReadOutput();
  }
  return status_;
}

void Child::ReadOutput() {
  output_.clear();
  if (output_fd_ < 0) return;
  char chunk[8192];
  off_t offset = 0;
  for (;;) {
    const ssize_t n = ::pread(output_fd_, chunk, sizeof chunk, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    output_.append(chunk, static_cast<std::size_t>(n));
    offset += n;
  }
}

}  // namespace zel_aliasdb
