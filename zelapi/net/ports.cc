// Loopback ports: what a sandbox's servers bind, and whether they listen.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zelapi/err.h"
#include "zelapi/fd.h"
#include "zelapi/net.h"

namespace pnl_net {

namespace {

pnl_file::Fd Socket(int family) {
  pnl_file::Fd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.open())
    throw pnl_err::Error(pnl_err::Kind::kFile, "socket", std::strerror(errno));
  return fd;
}

// Binds port (0: any) on the loopback address of family; the port bound, or
// 0 when it cannot be bound.
int BindLoopback(const pnl_file::Fd& fd, int family, int port) {
  if (family == AF_INET) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return 0;
  } else {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(static_cast<uint16_t>(port));
    a.sin6_addr = in6addr_loopback;
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return 0;
  }
  sockaddr_storage got{};
  socklen_t len = sizeof got;
  if (::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&got), &len) != 0) return 0;
  return family == AF_INET ? ntohs(reinterpret_cast<sockaddr_in*>(&got)->sin_port)
                           : ntohs(reinterpret_cast<sockaddr_in6*>(&got)->sin6_port);
}

}  // namespace

bool HasIpv6Loopback() {
  pnl_file::Fd fd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return fd.open() && BindLoopback(fd, AF_INET6, 0) != 0;
}

int FreeLoopbackPort(bool both) {
  // A port the kernel gives out on 127.0.0.1, tried on ::1 as well; a few
  // tries, since ::1's port of the same number may be taken.
  for (int attempt = 0; attempt < 20; ++attempt) {
    const pnl_file::Fd v4 = Socket(AF_INET);
    const int port = BindLoopback(v4, AF_INET, 0);
    if (port == 0) continue;
    if (!both) return port;
    const pnl_file::Fd v6 = Socket(AF_INET6);
    if (BindLoopback(v6, AF_INET6, port) == port) return port;
  }
  throw pnl_err::Error(pnl_err::Kind::kFile, "loopback", "no free port found");
}

bool Accepts(const std::string& host, int port, int timeout_ms) {
  sockaddr_storage to{};
  socklen_t len = 0;
  int family = AF_INET;
  if (auto* a = reinterpret_cast<sockaddr_in*>(&to);
      ::inet_pton(AF_INET, host.c_str(), &a->sin_addr) == 1) {
    a->sin_family = AF_INET;
    a->sin_port = htons(static_cast<uint16_t>(port));
    len = sizeof *a;
  } else if (auto* a6 = reinterpret_cast<sockaddr_in6*>(&to);
             ::inet_pton(AF_INET6, host.c_str(), &a6->sin6_addr) == 1) {
    family = AF_INET6;
    a6->sin6_family = AF_INET6;
    a6->sin6_port = htons(static_cast<uint16_t>(port));
    len = sizeof *a6;
  } else {
    return false;
  }
  pnl_file::Fd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.open()) return false;
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&to), len) == 0) return true;
  if (errno != EINPROGRESS) return false;
  pollfd p{fd.get(), POLLOUT, 0};
  if (::poll(&p, 1, timeout_ms) != 1) return false;
  int error = 0;
  socklen_t error_len = sizeof error;
  return ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &error_len) == 0 && error == 0;
}

}  // namespace pnl_net
