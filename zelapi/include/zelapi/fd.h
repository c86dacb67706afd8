// pnl_file::Fd: one open file descriptor and the duty to close it.
//
// The descriptor is closed when the Fd is destroyed, reset or moved onto.
// A descriptor that came from the file seam (pnl_file::Ops::Open, MakeTemp)
// is given back to the same Ops, so that a test's Ops sees every descriptor
// it handed out come back; any other is closed with close(2). The Ops must
// outlive the Fd. Closing in the destructor drops close's error: by then the
// data was flushed or the descriptor was only read; call Close() where the
// result matters.
//
// Costs an int and a pointer; each close is one system call. Move-only. One
// thread at a time.
#pragma once

namespace pnl_file {

class Ops;

class Fd {
 public:
  Fd() = default;
  // Takes fd (-1: none), to be closed with close(2).
  explicit Fd(int fd) : fd_(fd) {}
  // Takes fd, to be closed through ops.
  Fd(int fd, Ops& ops) : fd_(fd), ops_(&ops) {}
  ~Fd() { Close(); }
  Fd(Fd&& other) noexcept;
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return fd_; }
  bool open() const { return fd_ >= 0; }
  // Closes the descriptor now; returns 0 or close's error number (0 when
  // none was open). The Fd holds none afterwards, even on error.
  int Close() noexcept;
  // Closes the descriptor held and takes fd, closed the same way.
  void Reset(int fd) noexcept;
  // Gives the descriptor up without closing it; the caller closes it.
  int Release() noexcept;

 private:
  int fd_ = -1;
  Ops* ops_ = nullptr;  // null: close(2)
};

}  // namespace pnl_file
