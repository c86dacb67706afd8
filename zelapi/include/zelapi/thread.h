// pnl_thread: the platform's locks. A Lock is a recursive mutex (a thread that
// holds it may enter it again); a SafeSection holds a Lock for its own
// lifetime. Neither can be copied.
#pragma once

#include <mutex>

namespace pnl_thread {

class Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

class SafeSection {
 public:
  explicit SafeSection(Lock& lock) : lock_(lock) { lock_.lock(); }
  ~SafeSection() { lock_.unlock(); }
  SafeSection(const SafeSection&) = delete;
  SafeSection& operator=(const SafeSection&) = delete;

 private:
  Lock& lock_;
};

}  // namespace pnl_thread
