#include "sandbox.h"

#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace zeltest
