// The configuration-file cache: tables, their registration, and the one
// cached copy of each file.
//
// A table is a file format: token rules (PnlConfCache::Register), record
// views that claim its lines (ConfCache::Add), and a hook run after every
// save (ConfCache::_AfterSave). A table class T derives from
// PnlCachedConfig<T>; its constructor registers all three under its name,
// and CachedConfig<T, C>::Get<R>(path, create) opens a cursor of view R on
// a file of that table.
//
// The cache keeps one copy of each file per process (by absolute path),
// shared by every ConfRef and cursor on it. Copies that nothing refers to
// stay cached too, up to the capacity given to the constructor; beyond it
// the least recently used unreferenced copy is dropped (at the next
// Config). A copy that a ConfRef or cursor holds, or that has unsaved
// deferred changes, is never dropped.
//
// Save reasons handed to AfterSave:
//   kSavePosted   (0) a record was posted (changed or not) or deleted and
//                     the file was written at once;
//   kSaveCreated  (1) a missing file was created empty because the create
//                     flag was set (no record changed);
//   kSaveDeferred (2) a deferred save wrote several changes at once
//                     (FlushDeferred).
// The hook runs on the thread that saved, with the file's lock held, after
// the file is in place; what it throws reaches the caller of the Post,
// Delete, Config or FlushDeferred that saved.
//
// All members are thread-safe. The process-wide engine is
// BaseCachedConfig<PnlConfCache>::Instance(), built once as
// PnlConfCache(20), that is keeping up to 20 unreferenced files, and never
// destroyed.
#pragma once

#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "zelapi/conf/dataset.h"
#include "zelapi/conf/token.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/smart_ptr.h"
#include "zelapi/thread.h"

class BaseCachedConfigEvent;
class ConfCache;

// A handle on one cached file of one table. Holding it keeps the copy in
// the cache. Copies share the handle. Thread-safe as a shared_ptr.
class ConfRef {
 public:
  ConfRef();
  ~ConfRef();
  ConfRef(const ConfRef&);
  ConfRef& operator=(const ConfRef&);

  // The file's absolute path ("" for an empty handle).
  const std::string& FileName() const;
  // A new cursor of the view registered as rname (its type name) on this
  // file. Throws pnl_err::Error(pnl_err::Kind::kConf) for an empty handle or a name the
  // table does not have.
  SmartPtr<HeadDataSet> _Get(const std::string& rname);
  // Inside AfterSave: the notes given to the posts that this save wrote
  // (empty notes left out). Empty elsewhere.
  const std::vector<std::string>& Notes() const;
  // Inside AfterSave: the keys of the records this save wrote, each once,
  // in the order first written: added, changed (the key before and, when
  // the post changed it, after), posted unchanged, or removed; a deferred
  // save hands all its changes' keys. Keys are the views' key fields as
  // written (a step that compares them as its tool does, for example
  // without letter case, does so itself). Empty elsewhere (a file created
  // empty, an AfterSave called outside a save).
  const std::vector<std::string>& ChangedKeys() const;

 private:
  friend class ConfCache;
  friend class zel_conf::CachedFile;
  explicit ConfRef(std::shared_ptr<zel_conf::CachedFile> file);

  std::shared_ptr<zel_conf::CachedFile> file_;
  const std::vector<std::string>* notes_ = nullptr;
  const std::vector<std::string>* changed_keys_ = nullptr;
};

class ConfCache {
 public:
  using SaveReason = int;
  static constexpr SaveReason kSavePosted = 0;
  static constexpr SaveReason kSaveCreated = 1;
  static constexpr SaveReason kSaveDeferred = 2;
  using Hook = void (BaseCachedConfigEvent::*)(ConfRef&, SaveReason&);
  using Factory = HeadDataSet* (*)();

  // capacity: how many unreferenced cached files are kept (at least 0).
  explicit ConfCache(int capacity);
  virtual ~ConfCache();
  ConfCache(const ConfCache&) = delete;
  ConfCache& operator=(const ConfCache&) = delete;

  // After every save of a file of table name, calls (object->*member)(ref,
  // reason). A later call replaces the hook; a null object removes it.
  void _AfterSave(const std::string& name, BaseCachedConfigEvent* object, Hook member);
  // Adds view rname (the key _Get looks it up by; rname_cstr names it in
  // messages) to table name, offered lines after the views added before.
  // Throws pnl_err::Error(pnl_err::Kind::kConf) if the table already has rname.
  // Files of the table already cached are read again at their next use.
  void Add(const std::string& name, const std::string& rname, const char* rname_cstr,
           Factory factory);
  // With fold set, keys of table name compare without ASCII letter case,
  // as a map that folds its keys to lower case looks them up: Find, Create,
  // Assert, Delete(key) and the post of a created record take a record whose
  // key differs from the one asked only in the case of ASCII letters (the
  // first such record in file order). A look-up never changes a line's text;
  // a new record's key is written as given. Default: exact keys. Files of
  // the table already cached are read again at their next use.
  void FoldKeys(const std::string& name, bool fold);
  // A new R as a HeadDataSet (what Add's factory is); a throwing
  // constructor's exception passes, the memory is freed.
  template <class R>
  static HeadDataSet* Create() {
    return new R();
  }

  // The cached file at path for table name, read (or read again when it
  // changed on disk) as needed. A missing file is created empty (mode
  // 0644, AfterSave with kSaveCreated) when create is set, else it is an
  // error. folder: used to create a missing file (opened on the file's
  // folder if it is not open yet, flushed after the creation). Throws
  // pnl_err::Error: "conf" for an unknown table, a missing file or a path
  // cached for another table; "file" when the file cannot be read or
  // created. The path is the cache key as given (made absolute, "." and
  // ".." removed); FileName() returns that form.
  ConfRef Config(const std::string& name, pnl_file::safe::Folder& folder, const std::string& path,
                 bool create);

  // Deferred mode, for batch work: until FlushDeferred, posts and deletes
  // only change the cached copies and mark them dirty. Throws if already
  // deferred. A dirty copy refuses to be read again: when its file changes
  // on disk meanwhile, the next access throws rather than lose either side.
  void BeginDeferred();
  // Saves each dirty file once (AfterSave with kSaveDeferred) and leaves
  // deferred mode: the files of tables of lower save rank first (see
  // SetSaveRank), files of equal rank in path order. Stops at the first file
  // that fails, its write or its AfterSave, and throws that error: the files
  // after it are not saved and keep their changes (dirty) for the caller to
  // drop (DiscardDeferred) or flush later. A file that changed on disk
  // meanwhile is not overwritten: that is such a failure.
  void FlushDeferred();
  // The order of a deferred save: files of table name are saved after those
  // of tables of lower rank (default 0). For files that point into each
  // other: the one pointed at is saved first, so that a reader never finds
  // a pointer before its target, and a failure stops what would point at it.
  void SetSaveRank(const std::string& name, int rank);
  // Drops every unsaved change (those files are read again at their next
  // use) and leaves deferred mode. Never throws.
  void DiscardDeferred() noexcept;
  bool Deferred() const;

  int Capacity() const;
  // How many files are cached now (referenced or not).
  std::size_t CachedFiles() const;
  // Bytes of text the cached copies hold (a copy that collected more
  // edited lines than 1 MiB, or than the file's size when it was read if
  // that is more, is rebuilt from its current text).
  std::size_t CachedBytes() const;

 protected:
  // Sets the token rules of table name (a copy is kept).
  void SetRules(const std::string& name, const pnl_token::Params& rules);

 private:
  friend class zel_conf::CachedFile;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The panel's engine: a ConfCache whose tables are tokenised by
// pnl_token rules.
class PnlConfCache : public ConfCache {
 public:
  explicit PnlConfCache(int capacity) : ConfCache(capacity) {}
  // The files of table name are tokenised by rules (copied). Throws
  // pnl_err::Error(pnl_err::Kind::kConf) for null rules.
  void Register(const std::string& name, std::shared_ptr<pnl_token::Params> rules);
};

// What the engine calls after a save of one of a table's files.
class BaseCachedConfigEvent {
 public:
  virtual ~BaseCachedConfigEvent();
  // Calls AfterSave; the member the table registers as its hook.
  void _AfterSave(ConfRef& ref, ConfCache::SaveReason& reason) { AfterSave(ref, reason); }
  // Runs after each save; ref.FileName() is the saved file. Default: nothing.
  virtual void AfterSave(ConfRef& ref, ConfCache::SaveReason& reason);
  // The lock held while table instances are created (recursive).
  static pnl_thread::Lock& GetInitLock();
};

// The process-wide engine of type C.
template <class C>
class BaseCachedConfig : public virtual BaseCachedConfigEvent {
 public:
  // Built on first use as C(20), thread-safe, never destroyed.
  static C* Instance() {
    static C* const instance = new C(20);
    return instance;
  }
};

// The panel's engine is built in the library, so that every module shares it.
template <>
PnlConfCache* BaseCachedConfig<PnlConfCache>::Instance();

// Table T of engine C: one instance per process, created on first use.
// The engine base is not public; the event interface is (the engine calls
// it through the hook T registers).
template <class T, class C>
class CachedConfig : protected BaseCachedConfig<C>, public virtual BaseCachedConfigEvent {
 public:
  ~CachedConfig() override {
    // The engine outlives the table: make sure it calls it no more.
    try {
      BaseCachedConfig<C>::Instance()->_AfterSave(name_, nullptr, nullptr);
    } catch (...) {
    }
  }

  // A cursor of view R on the file at path (see ConfCache::Config for
  // create and the errors). Creates the table instance on first use.
  template <class R>
  static Cursor<R> Get(const std::string& path, bool create) {
    SmartPtr<HeadDataSet> head;
    {
      pnl_file::safe::Folder folder;
      const std::string& name = Table().name_;
      C* engine = BaseCachedConfig<C>::Instance();
      ConfRef ref = engine->Config(name, folder, path, create);
      folder.Close();
      head = ref._Get(typeid(R).name());
    }
    Cursor<R> cursor = std::dynamic_pointer_cast<R>(head);
    if (!cursor)
      throw pnl_err::Error(pnl_err::Kind::kConf, path, std::string("view ") + typeid(R).name() +
                                             " is registered with another type");
    return cursor;
  }

  // The table instance, created (under the init lock) if it does not exist
  // yet, destroyed at exit in reverse order of creation.
  static T& Table() {
    pnl_thread::SafeSection section(BaseCachedConfigEvent::GetInitLock());
    static T instance;
    return instance;
  }

  // The table's registered name.
  const std::string& Name() const { return name_; }

 protected:
  CachedConfig() {
    const char* type = typeid(T).name();
    name_ = type[0] == '*' ? type + 1 : type;
  }

  // The run-time type name of T, without a leading '*'.
  std::string name_;

};

template <class T>
class PnlCachedConfig : public CachedConfig<T, PnlConfCache> {};
