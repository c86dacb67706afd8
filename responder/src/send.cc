// Handing a message to the send command on its standard input.
#include "zelresponder/send.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "zelapi/err.h"
#include "zelapi/fd.h"
#include "zelapi/spawn.h"
#include "zelapi/str.h"
#include "zelresponder/responder.h"

namespace zelresponder {

namespace {

using pnl_file::Fd;

void MakePipe(const std::string& command, Fd& read_end, Fd& write_end) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0)
    throw pnl_err::Error(pnl_err::Kind::kProc, command, std::string("cannot make a pipe: ") + std::strerror(errno));
  read_end.Reset(fds[0]);
  write_end.Reset(fds[1]);
}

void NonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// SIGPIPE blocked in this thread for the object's life; a SIGPIPE that
// became pending meanwhile is taken back before the old mask returns.
class PipeSignalBlock {
 public:
  PipeSignalBlock() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &set_, &old_);
  }
  ~PipeSignalBlock() {
    sigset_t pending;
    sigpending(&pending);
    if (!was_pending_ && sigismember(&pending, SIGPIPE) == 1) {
      const struct timespec zero = {0, 0};
      while (sigtimedwait(&set_, nullptr, &zero) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  PipeSignalBlock(const PipeSignalBlock&) = delete;
  PipeSignalBlock& operator=(const PipeSignalBlock&) = delete;

 private:
  sigset_t set_;
  sigset_t old_;
  bool was_pending_ = false;
};

std::string Escaped(const std::string& command) {
  std::string out;
  for (char c : command) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

}  // namespace

SendResult SendThroughCommand(const std::string& command, const std::string& text,
                              const std::vector<std::string>& args) {
  SendResult result;
  Fd in_read, in_write, out_read, out_write;
  MakePipe(command, in_read, in_write);
  MakePipe(command, out_read, out_write);

  pnl_proc::SpawnOptions options;
  options.in = in_read.get();
  options.out = out_write.get();
  options.err = out_write.get();
  // "$@" gives the shell's positional parameters, each as one word, with no
  // splitting or expansion: the arguments never pass through its parser.
  std::vector<std::string> argv = {"/bin/sh", "-c", command + " \"$@\"", "zelpnl-responder"};
  argv.insert(argv.end(), args.begin(), args.end());
  pid_t pid = -1;
  const int spawned = pnl_proc::Spawn("/bin/sh", argv, options, pid);
  in_read.Close();
  out_write.Close();
  if (spawned != 0) {
    result.status = 127;
    result.output = std::string("cannot start /bin/sh: ") + std::strerror(spawned);
    return result;
  }

  PipeSignalBlock block;
  NonBlocking(in_write.get());
  NonBlocking(out_read.get());
  size_t written = 0;
  bool broken = false;  // the command closed its input early
  if (text.empty()) in_write.Close();
  bool exited = false;
  int status = 0;
  while (in_write.open() || out_read.open()) {
    struct pollfd fds[2];
    nfds_t n = 0;
    int write_slot = -1, read_slot = -1;
    if (in_write.open()) {
      fds[n] = {in_write.get(), POLLOUT, 0};
      write_slot = static_cast<int>(n++);
    }
    if (out_read.open()) {
      fds[n] = {out_read.get(), POLLIN, 0};
      read_slot = static_cast<int>(n++);
    }
    // Once the command has exited, only what is ready now is taken.
    const int ready = ::poll(fds, n, exited ? 0 : 100);
    if (ready < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (ready == 0 && exited) break;
    if (write_slot >= 0 && fds[write_slot].revents != 0) {
      const size_t chunk = std::min<size_t>(text.size() - written, 65536);
      const ssize_t w = ::write(in_write.get(), text.data() + written, chunk);
      if (w > 0) {
        written += static_cast<size_t>(w);
        if (written == text.size()) in_write.Close();
      } else if (w < 0 && errno != EAGAIN && errno != EINTR) {
        broken = true;
        in_write.Close();
      }
    }
    if (read_slot >= 0 && fds[read_slot].revents != 0) {
      char buffer[8192];
      const ssize_t r = ::read(out_read.get(), buffer, sizeof buffer);
      if (r > 0) {
        result.output.append(buffer, static_cast<size_t>(r));
      } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
        out_read.Close();
      }
    }
    if (!exited) {
      const pid_t done = ::waitpid(pid, &status, WNOHANG);
      if (done == pid) exited = true;
    }
  }
  bool lost = false;  // the status could not be read (SIGCHLD ignored)
  while (!exited) {
    const pid_t done = ::waitpid(pid, &status, 0);
    if (done == pid) {
      exited = true;
    } else if (done < 0 && errno != EINTR) {
      lost = true;
      break;
    }
  }
  result.status = lost ? 127 : pnl_proc::ExitStatus(status);
  result.took_all = !broken && written == text.size();
  ResponderLog().Debug("ran \"" + Escaped(CommandLine(command, args)) +
                       "\" status=" + std::to_string(result.status));
  return result;
}

std::string CommandLine(const std::string& command, const std::vector<std::string>& args) {
  std::string line = command;
  for (const std::string& arg : args) line += " " + str::ShellWord(arg);
  return line;
}

std::string SendCommandProblem(const std::string& command) {
  // sendmail's flags that take no value: a cluster of them may end in one
  // that does, whose value is the rest of the word.
  static const std::string kBareFlags = "cGIimnsTtUv";
  size_t i = 0;
  while (i < command.size()) {
    while (i < command.size() && (command[i] == ' ' || command[i] == '\t')) ++i;
    size_t end = i;
    while (end < command.size() && command[end] != ' ' && command[end] != '\t') ++end;
    const std::string word = command.substr(i, end - i);
    i = end;
    if (word == "--") break;
    if (word.size() < 2 || word[0] != '-' || word[1] == '-') continue;
    for (size_t k = 1; k < word.size() && kBareFlags.find(word[k]) != std::string::npos; ++k)
      if (word[k] == 't')
        return "the send command \"" + command + "\" reads recipients from the header (\"" +
               word +
               "\"); remove -t: the answer goes to the one recipient on its command line";
  }
  return std::string();
}

}  // namespace zelresponder
