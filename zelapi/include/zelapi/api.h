// zel_api: module hosting and the request's deferred commands.
//
// A module is a shared object. Loading it runs its static initialisers, which
// register module factories with a BaseRegisterModule object; the host then
// constructs the registered modules. The host owns every module object it
// constructed and destroys them before it unloads the shared objects.
//
// Deferred commands: ExecuteLater queues a command line to run after the
// current request (for example a service restart after several saves). The
// host runs the queue once the request's database work is committed; a
// command queued several times in one request runs once.
//
// Registration and the queue are thread-safe; a ModuleLoader is used from one
// thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace zel_api {

// Base of every module object. Not copyable. Name() is valid as long as the
// module object lives.
class Module {
 public:
  explicit Module(const char* name);
  virtual ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  const std::string& Name() const { return name_; }

 private:
  std::string name_;
};

using ModuleFactory = Module* (*)();

// A registration of one module factory, usually a static object of a module.
// Its destructor (at unload) withdraws the registration. The object must
// outlive nothing it registered: a factory is only called while registered.
class BaseRegisterModule {
 public:
  BaseRegisterModule() = default;
  ~BaseRegisterModule();
  BaseRegisterModule(const BaseRegisterModule&) = delete;
  BaseRegisterModule& operator=(const BaseRegisterModule&) = delete;

  // Registers factory under name. Registering again replaces this object's
  // earlier registration (which keeps its place in the registration order).
  void Register(const std::string& name, ModuleFactory factory);
};

// The factory of module type M: allocates and constructs one M. If the
// constructor throws, the memory is freed (a new-expression releases it
// before the exception leaves) and the exception propagates. The caller owns
// the result.
template <class M>
struct RegisterModule {
  static Module* Constructor() { return new M(); }
};

struct Registration {
  std::string name;
  ModuleFactory factory;
};

// The factories registered now, in registration order.
std::vector<Registration> RegisteredModules();

// Loads module shared objects and constructs their modules. Destroying the
// loader destroys the module objects (in reverse order of construction), then
// unloads the shared objects (in reverse order of loading). The loader owns
// both; a module pointer stays valid until the loader is destroyed.
//
// Shared objects are opened with RTLD_NOW | RTLD_LOCAL: an unresolved symbol
// fails the load at once, with the dynamic linker's message, instead of
// killing the host at first use; and modules never bind to each other's
// symbols by accident (what they share comes from libraries they link).
class ModuleLoader {
 public:
  ModuleLoader();
  ~ModuleLoader();
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;

  // dlopens one shared object; its static objects register their factories.
  // Throws pnl_err::Error (type "module", object the path, detail dlerror()).
  // Static initialisers of a module must not throw.
  void Load(const std::string& path);

  // Loads every file whose name ends in ".so" of a folder, in name order
  // (byte order). Throws as Load; a missing folder is an error too (object
  // the folder). The objects loaded before a failure stay loaded.
  void LoadFolder(const std::string& folder);

  // Constructs every registered factory not yet tried by this loader, in
  // registration order. An exception from a module's constructor propagates;
  // the modules constructed before it stay, and the factory that threw is not
  // tried again, so a second call goes on with the ones after it.
  void ConstructAll();

  // Module objects constructed so far, in construction order.
  std::vector<Module*> Modules() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Queues a command line for the end of the current request; a command that
// is queued already is not queued again.
void ExecuteLater(const std::string& command);

// The queue as it stands (identical commands appear once, in first-queued order).
std::vector<std::string> PendingCommands();

// Runs and empties the queue: each distinct command once, in the order first
// queued, through pnl_proc with mode 2. A failure (non-zero status, or the
// runner throwing) is logged at error level on the platform channel as
// 'deferred command "<command>" failed with status N: <output>' and does not
// stop the others. Commands queued while it runs wait for the next call.
// Returns the number of commands that failed.
int RunDeferred();

// Empties the queue without running it (a request abandoned before its end).
void DiscardDeferred();

}  // namespace zel_api

namespace apistat {

// Records that the interface (e.g. "mail") is served by the implementation
// (e.g. "sendmail"). A later call for the same interface replaces it.
void ModuleInterface(const std::string& interface, const std::string& implementation);

// The implementation recorded for an interface, or "".
std::string InterfaceImplementation(const std::string& interface);

// Forgets every record (tests, host restart).
void Clear();

}  // namespace apistat
