#include "sandbox.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#ifndef ZEL_TEST_SCRATCH
#error "ZEL_TEST_SCRATCH must name the scratch folder"
#endif

namespace zeltest {

Sandbox::Sandbox(const std::string& name) {
  std::string label = name;
  for (char& c : label)
    if (c == '/' || c == ' ') c = '_';
  dir_ = std::string(ZEL_TEST_SCRATCH) + "/" + label + "-" + std::to_string(getpid());
  std::filesystem::remove_all(dir_);
  std::filesystem::create_directories(dir_);
  std::filesystem::permissions(dir_, std::filesystem::perms(0755));
}

Sandbox::~Sandbox() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

void Sandbox::Write(const std::string& file, const std::string& text) const {
  WriteFile(Path(file), text);
}

std::string Sandbox::Read(const std::string& file) const { return ReadFile(Path(file)); }

bool Sandbox::Exists(const std::string& file) const {
  return std::filesystem::exists(Path(file));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << text;
}

int RunShell(const std::string& command, std::string* output) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run " + command);
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
  const int status = pclose(pipe);
  if (output) *output = text;
  return WEXITSTATUS(status);
}

std::vector<std::string> FolderListing(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    lines.push_back(text.substr(start, end - start));
    start = end;
  }
  return lines;
}

CommonEnds FindCommonEnds(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  CommonEnds ends;
  size_t& head = ends.head;
  while (head < a.size() && head < b.size() && a[head] == b[head]) ++head;
  size_t& tail = ends.tail;
  while (tail < a.size() - head && tail < b.size() - head &&
         a[a.size() - 1 - tail] == b[b.size() - 1 - tail])
    ++tail;
  return ends;
}

void Drain(int out_fd, int err_fd, std::string& out, std::string& err) {
  struct pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  int open = 2;
  char buffer[8192];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error("poll failed");
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        (i == 0 ? out : err).append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        fds[i].fd = -1;
        --open;
      }
    }
  }
}

}  // namespace zeltest
