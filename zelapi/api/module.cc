#include <dlfcn.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "zelapi/api.h"
#include "zelapi/err.h"
#include "zelapi/log.h"

namespace zel_api {
namespace {

struct Entry {
  const BaseRegisterModule* owner;
  Registration registration;
};

struct Registry {
  std::mutex mutex;
  std::vector<Entry> entries;  // registration order
};

// Never destroyed: registration objects of modules linked into the host are
// destroyed at exit, possibly after this library's statics.
Registry& GetRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

bool SameRegistration(const Registration& a, const Registration& b) {
  return a.name == b.name && a.factory == b.factory;
}

}  // namespace

Module::Module(const char* name) : name_(name == nullptr ? "" : name) {}

Module::~Module() = default;

BaseRegisterModule::~BaseRegisterModule() {
  Registry& registry = GetRegistry();
  std::lock_guard lock(registry.mutex);
  std::erase_if(registry.entries, [this](const Entry& entry) { return entry.owner == this; });
}

void BaseRegisterModule::Register(const std::string& name, ModuleFactory factory) {
  Registry& registry = GetRegistry();
  std::lock_guard lock(registry.mutex);
  for (Entry& entry : registry.entries) {
    if (entry.owner == this) {
      entry.registration = Registration{name, factory};
      return;
    }
  }
  registry.entries.push_back(Entry{this, Registration{name, factory}});
}

std::vector<Registration> RegisteredModules() {
  Registry& registry = GetRegistry();
  std::lock_guard lock(registry.mutex);
  std::vector<Registration> registrations;
  registrations.reserve(registry.entries.size());
  for (const Entry& entry : registry.entries) registrations.push_back(entry.registration);
  return registrations;
}

struct ModuleLoader::Impl {
  std::vector<void*> handles;                // loading order
  std::vector<std::unique_ptr<Module>> modules;  // construction order
  std::vector<Registration> tried;
};

ModuleLoader::ModuleLoader() : impl_(std::make_unique<Impl>()) {}

ModuleLoader::~ModuleLoader() {
  while (!impl_->modules.empty()) impl_->modules.pop_back();
  for (auto it = impl_->handles.rbegin(); it != impl_->handles.rend(); ++it) {
    if (::dlclose(*it) != 0) {
      const char* error = ::dlerror();
      pnl_log::Platform().Warning(std::string("cannot unload a module: ") +
                                  (error != nullptr ? error : "unknown error"));
    }
  }
}

void ModuleLoader::Load(const std::string& path) {
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* error = ::dlerror();
    throw pnl_err::Error(pnl_err::Kind::kModule, path, error != nullptr ? error : "cannot load");
  }
  impl_->handles.push_back(handle);
  pnl_log::Platform().Debug("loaded module " + path);
}

void ModuleLoader::LoadFolder(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::directory_iterator it(folder, error);
  if (error) throw pnl_err::Error(pnl_err::Kind::kModule, folder, "cannot list: " + error.message());
  std::vector<std::string> paths;
  for (const fs::directory_entry& entry : it) {
    const std::string name = entry.path().filename().string();
    if (name.size() > 3 && name.ends_with(".so") && entry.is_regular_file(error))
      paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) Load(path);
}

void ModuleLoader::ConstructAll() {
  for (const Registration& registration : RegisteredModules()) {
    const bool tried =
        std::any_of(impl_->tried.begin(), impl_->tried.end(), [&](const Registration& r) {
          return SameRegistration(r, registration);
        });
    if (tried) continue;
    impl_->tried.push_back(registration);
    std::unique_ptr<Module> module(registration.factory());
    if (module == nullptr) continue;
    pnl_log::Platform().Debug("constructed module " + module->Name() + " (" +
                              registration.name + ")");
    impl_->modules.push_back(std::move(module));
  }
}

std::vector<Module*> ModuleLoader::Modules() const {
  std::vector<Module*> modules;
  modules.reserve(impl_->modules.size());
  for (const auto& module : impl_->modules) modules.push_back(module.get());
  return modules;
}

}  // namespace zel_api
