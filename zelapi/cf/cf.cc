#include "zelapi/cf.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <sstream>

#include "zelapi/err.h"
#include "zelapi/str.h"

namespace pnl_cf {
namespace {

struct Settings {
  std::map<std::string, std::string> params;
  std::map<std::string, std::string> paths;  // configured values
};

struct State {
  std::shared_mutex mutex;
  Settings settings;
  std::map<std::string, std::string> path_defaults;
  std::string loaded_file;
};

// Never destroyed: modules may read the configuration from their own static
// destructors, which can run after this library's.
State& GetState() {
  static State* state = new State;
  return *state;
}

pnl_err::Error LineError(const std::string& origin, int line, const std::string& what) {
  return pnl_err::Error(pnl_err::Kind::kConf, origin, "line " + std::to_string(line) + ": " + what);
}

Settings Parse(const std::string& text, const std::string& origin) {
  Settings settings;
  std::map<std::string, std::string>* section = nullptr;
  std::istringstream in(text);
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::string trimmed = str::Trim(line);
    if (trimmed.empty() || trimmed[0] == '#') continue;
    if (trimmed[0] == '[') {
      if (trimmed.back() != ']')
        throw LineError(origin, number, "section header without \"]\": " + trimmed);
      const std::string name = str::Trim(trimmed.substr(1, trimmed.size() - 2));
      if (name == "params")
        section = &settings.params;
      else if (name == "paths")
        section = &settings.paths;
      else
        throw LineError(origin, number, "unknown section [" + name + "]");
      continue;
    }
    const size_t eq = trimmed.find('=');
    if (eq == std::string::npos)
      throw LineError(origin, number, "expected \"name = value\": " + trimmed);
    const std::string name = str::Trim(trimmed.substr(0, eq));
    if (name.empty()) throw LineError(origin, number, "setting without a name: " + trimmed);
    if (section == nullptr)
      throw LineError(origin, number, "setting \"" + name + "\" before any section");
    (*section)[name] = str::Trim(trimmed.substr(eq + 1));
  }
  return settings;
}

pnl_err::Error ReadError(const std::string& file) {
  return pnl_err::Error(pnl_err::Kind::kConf, file, std::string("cannot read: ") + std::strerror(errno));
}

std::string ReadFile(const std::string& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw ReadError(file);
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      pnl_err::Error error = ReadError(file);
      ::close(fd);
      throw error;
    }
  }
  ::close(fd);
  return text;
}

void Install(Settings settings, const std::string& file) {
  State& state = GetState();
  std::unique_lock lock(state.mutex);
  state.settings = std::move(settings);
  state.loaded_file = file;
}

}  // namespace

void Load(const std::string& file) {
  Install(Parse(ReadFile(file), file), file);
}

void LoadText(const std::string& text, const std::string& origin) {
  Install(Parse(text, origin), "");
}

void Clear() {
  State& state = GetState();
  std::unique_lock lock(state.mutex);
  state.settings = Settings();
  state.path_defaults.clear();
  state.loaded_file.clear();
}

std::string GetParam(const std::string& name) {
  State& state = GetState();
  std::shared_lock lock(state.mutex);
  auto it = state.settings.params.find(name);
  return it == state.settings.params.end() ? std::string() : it->second;
}

void SetParam(const std::string& name, const std::string& value) {
  State& state = GetState();
  std::unique_lock lock(state.mutex);
  state.settings.params[name] = value;
}

std::string GetPath(const std::string& key) {
  State& state = GetState();
  std::shared_lock lock(state.mutex);
  auto it = state.settings.paths.find(key);
  if (it != state.settings.paths.end()) return it->second;
  it = state.path_defaults.find(key);
  if (it != state.path_defaults.end()) return it->second;
  throw pnl_err::Error(pnl_err::Kind::kConf, key, "path key is not configured and has no default");
}

bool HasPath(const std::string& key) {
  State& state = GetState();
  std::shared_lock lock(state.mutex);
  return state.settings.paths.count(key) != 0 || state.path_defaults.count(key) != 0;
}

void SetPathDefault(const std::string& key, const std::string& value) {
  State& state = GetState();
  std::unique_lock lock(state.mutex);
  state.path_defaults[key] = value;
}

void SetPath(const std::string& key, const std::string& value) {
  State& state = GetState();
  std::unique_lock lock(state.mutex);
  state.settings.paths[key] = value;
}

std::map<std::string, std::string> EffectivePaths() {
  State& state = GetState();
  std::shared_lock lock(state.mutex);
  std::map<std::string, std::string> paths = state.path_defaults;
  for (const auto& [key, value] : state.settings.paths) paths[key] = value;
  return paths;
}

std::string LoadedFile() {
  State& state = GetState();
  std::shared_lock lock(state.mutex);
  return state.loaded_file;
}

}  // namespace pnl_cf
