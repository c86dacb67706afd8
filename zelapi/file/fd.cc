#include "zelapi/fd.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "zelapi/file.h"

namespace pnl_file {

Fd::Fd(Fd&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), ops_(std::exchange(other.ops_, nullptr)) {}

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = std::exchange(other.fd_, -1);
    ops_ = std::exchange(other.ops_, nullptr);
  }
  return *this;
}

int Fd::Close() noexcept {
  if (fd_ < 0) return 0;
  const int fd = std::exchange(fd_, -1);
  if (ops_ != nullptr) return ops_->Close(fd);
  return ::close(fd) == 0 ? 0 : errno;
}

void Fd::Reset(int fd) noexcept {
  Close();
  fd_ = fd;
}

int Fd::Release() noexcept { return std::exchange(fd_, -1); }

}  // namespace pnl_file
