#include "zelapi/log.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "zelapi/err.h"

namespace pnl_log {
namespace {

struct State {
  std::mutex mutex;
  int fd = -1;
  std::string file;
  Level file_level = Level::kInfo;
  Level stderr_level = Level::kWarning;
};

// Never destroyed: static channels of modules may log from their own
// destructors, after this library's statics would be gone.
State& GetState() {
  static State* state = new State;
  return *state;
}

const char* LevelName(Level level) {
  switch (level) {
    case Level::kDebug: return "debug";
    case Level::kInfo: return "info";
    case Level::kWarning: return "warning";
    case Level::kError: return "error";
    case Level::kOff: break;
  }
  return "off";
}

std::string Timestamp() {
  struct timeval now;
  ::gettimeofday(&now, nullptr);
  struct tm local;
  ::localtime_r(&now.tv_sec, &local);
  char text[64];
  const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + n, sizeof text - n, ".%03ld", static_cast<long>(now.tv_usec / 1000));
  return text;
}

// A message is one line: line ends and other control characters inside it
// are written as escapes, a final line end is dropped.
std::string OneLine(const std::string& message) {
  std::string line;
  line.reserve(message.size());
  size_t end = message.size();
  while (end > 0 && (message[end - 1] == '\n' || message[end - 1] == '\r')) --end;
  for (size_t i = 0; i < end; ++i) {
    const unsigned char c = static_cast<unsigned char>(message[i]);
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else if (c < 0x20 && c != '\t') {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", c);
      line += escape;
    } else {
      line += static_cast<char>(c);
    }
  }
  return line;
}

// One write per line, so that lines of concurrent writers (other processes
// appending to the same file included) never interleave.
void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // a logger has nowhere to report its own failure
    }
    done += static_cast<size_t>(n);
  }
}

}  // namespace

Level ParseLevel(const std::string& name) {
  if (name == "debug") return Level::kDebug;
  if (name == "info") return Level::kInfo;
  if (name == "warning") return Level::kWarning;
  if (name == "error") return Level::kError;
  if (name == "off") return Level::kOff;
  throw pnl_err::Error(pnl_err::Kind::kConf, name,
                       "unknown log level (expected debug, info, warning, error or off)");
}

void Configure(const std::string& file, Level file_level, Level stderr_level) {
  int fd = -1;
  if (!file.empty()) {
    fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0)
      throw pnl_err::Error(pnl_err::Kind::kLog, file, std::string("cannot open for appending: ") +
                                            std::strerror(errno));
  }
  State& state = GetState();
  std::lock_guard lock(state.mutex);
  if (state.fd >= 0) ::close(state.fd);
  state.fd = fd;
  state.file = file;
  state.file_level = file_level;
  state.stderr_level = stderr_level;
}

void Write(const std::string& panel, const std::string& channel, Level level,
           const std::string& message) {
  if (level == Level::kOff) return;
  State& state = GetState();
  std::lock_guard lock(state.mutex);
  const bool to_file = state.fd >= 0 && level >= state.file_level;
  const bool to_stderr = level >= state.stderr_level;
  if (!to_file && !to_stderr) return;
  const std::string line = Timestamp() + " " + LevelName(level) + " " + panel + "/" + channel +
                           ": " + OneLine(message) + "\n";
  if (to_file) WriteAll(state.fd, line);
  if (to_stderr) WriteAll(STDERR_FILENO, line);
}

Module::Module(const std::string& channel, const std::string& panel)
    : channel_(channel), panel_(panel) {}

void Module::Debug(const std::string& message) const {
  Write(panel_, channel_, Level::kDebug, message);
}
void Module::Info(const std::string& message) const {
  Write(panel_, channel_, Level::kInfo, message);
}
void Module::Warning(const std::string& message) const {
  Write(panel_, channel_, Level::kWarning, message);
}
void Module::Error(const std::string& message) const {
  Write(panel_, channel_, Level::kError, message);
}

const Module& Platform() {
  static const Module* platform = new Module("platform", "zelpnl");
  return *platform;
}

}  // namespace pnl_log
