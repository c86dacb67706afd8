// The sender lists proven on a running sendmail: a daemon on a copy of the
// sandbox's sendmail.cf that listens on 127.0.0.1 and on ::1 (free ports,
// nothing else; the sandbox's own configuration stays as it is) answers SMTP
// clients that connect from loopback addresses, and its answer to MAIL says
// whether the access map lets the client in. A blacklisted client gets
// "550 5.7.1 Access denied", any other one "250".
//
// The daemon runs in the foreground (-bD, no queue runner) in a mount
// namespace of its own whose /etc/nsswitch.conf reads host names from the
// hosts file only, with ident look-ups off: it asks no DNS and no client.
// It is started in SetUp and stopped by its pid (with the process group its
// connection children share) in TearDown, also when the test failed. Every
// wait is bounded in tries and time. Needs root (the daemon and the mount
// namespace) and the IPv6 loopback address; without them the tests fail,
// saying which, never skip.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "proof_fixture.h"

namespace {

const char kUnshare[] = "/usr/bin/unshare";
const char kMount[] = "/usr/bin/mount";
const char kSendmail[] = "/usr/sbin/sendmail";

// sendmail's answers to "MAIL FROM:<>".
const char kAccepted[] = "250 2.1.0 <>... Sender ok";
const char kRefused[] = "550 5.7.1 Access denied";

constexpr int kReplySeconds = 10;   // for each SMTP reply
constexpr int kStartTries = 300;    // 100 ms apart: the daemon has 30 s to listen
constexpr int kStopTries = 100;     // 100 ms apart after SIGTERM, then SIGKILL

// An address of family with port set (text as inet_pton takes it).
struct Endpoint {
  sockaddr_storage addr{};
  socklen_t size = 0;
};

Endpoint MakeEndpoint(const std::string& text, int port) {
  Endpoint e;
  if (text.find(':') != std::string::npos) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&e.addr);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET6, text.c_str(), &a->sin6_addr) != 1)
      throw std::runtime_error("bad address " + text);
    e.size = sizeof(sockaddr_in6);
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&e.addr);
    a->sin_family = AF_INET;
    a->sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, text.c_str(), &a->sin_addr) != 1)
      throw std::runtime_error("bad address " + text);
    e.size = sizeof(sockaddr_in);
  }
  return e;
}

// A socket descriptor closed when it goes.
class Socket {
 public:
  explicit Socket(int family) : fd_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (fd_ < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  }
  ~Socket() { ::close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// A port of address nobody listens on now (the kernel's choice for port 0);
// throws with the reason when address cannot be bound (no such address).
int FreePort(const std::string& address) {
  const Endpoint e = MakeEndpoint(address, 0);
  Socket s(e.addr.ss_family);
  if (::bind(s.fd(), reinterpret_cast<const sockaddr*>(&e.addr), e.size) != 0)
    throw std::runtime_error("cannot bind " + address + ": " + std::strerror(errno));
  sockaddr_storage bound{};
  socklen_t size = sizeof(bound);
  ::getsockname(s.fd(), reinterpret_cast<sockaddr*>(&bound), &size);
  return ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                           : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

// Connects from `from` (an address of the same family) to to:port; -1 with
// errno set when that fails.
int Connect(const std::string& from, const std::string& to, int port) {
  const Endpoint target = MakeEndpoint(to, port);
  const int fd = ::socket(target.addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const timeval timeout{kReplySeconds, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
  const Endpoint source = MakeEndpoint(from, 0);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&source.addr), source.size) != 0 ||
      ::connect(fd, reinterpret_cast<const sockaddr*>(&target.addr), target.size) != 0) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

// One SMTP reply: its lines up to the last ("NNN text"); returns that last
// line without its line end. Throws when none comes in time.
std::string Reply(int fd, std::string& buffer) {
  for (int reads = 0; reads < 1000; ++reads) {
    for (size_t end; (end = buffer.find("\r\n")) != std::string::npos;) {
      const std::string line = buffer.substr(0, end);
      buffer.erase(0, end + 2);
      if (line.size() >= 4 && line[3] == ' ') return line;
    }
    char chunk[1024];
    const ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
    if (n <= 0)
      throw std::runtime_error(n == 0 ? "the daemon closed the connection"
                                      : std::string("no reply in time: ") + std::strerror(errno));
    buffer.append(chunk, static_cast<size_t>(n));
  }
  throw std::runtime_error("no complete reply");
}

void Say(int fd, const std::string& command) {
  const std::string line = command + "\r\n";
  if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
    throw std::runtime_error("cannot send " + command + ": " + std::strerror(errno));
}

struct Session {
  std::string greeting, helo, mail;
};

Session Talk(const std::string& from, const std::string& to, int port) {
  const int fd = Connect(from, to, port);
  if (fd < 0)
    throw std::runtime_error("cannot connect from " + from + " to " + to + " port " +
                             std::to_string(port) + ": " + std::strerror(errno));
  Session s;
  std::string buffer;
  try {
    s.greeting = Reply(fd, buffer);
    Say(fd, "HELO client.example");
    s.helo = Reply(fd, buffer);
    Say(fd, "MAIL FROM:<>");
    s.mail = Reply(fd, buffer);
    Say(fd, "QUIT");
    Reply(fd, buffer);
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
  return s;
}

class DaemonProofTest : public proof::SendmailProofTest {
 protected:
  void SetUp() override {
    SendmailProofTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(::geteuid(), 0u) << "the daemon test runs sendmail -bD and a mount namespace: "
                                  "run it as root";
    for (const char* tool : {kUnshare, kMount})
      ASSERT_EQ(::access(tool, X_OK), 0) << tool << " is missing (util-linux, mount)";
    try {
      port4_ = FreePort("127.0.0.1");
    } catch (const std::exception& e) {
      FAIL() << "IPv4 loopback: " << e.what();
    }
    try {
      port6_ = FreePort("::1");
    } catch (const std::exception& e) {
      FAIL() << "the IPv6 loopback address ::1 is not available on this machine (" << e.what()
             << "); the daemon test proves IPv6 entries on it and cannot run without it";
    }
    ASSERT_NO_FATAL_FAILURE(Start());
  }

  void TearDown() override { Stop(); }

  // The daemon's configuration: the sandbox's, listening on the two test
  // ports only, without ident look-ups, refusing no connection for load.
  void WriteConfig() {
    std::string cf;
    for (const std::string& line : Lines(File("sendmail.cf")))
      if (line.rfind("O DaemonPortOptions=", 0) != 0) cf += line + "\n";
    cf += "O DaemonPortOptions=Name=ProofV4, Family=inet, Addr=127.0.0.1, Port=" +
          std::to_string(port4_) + "\n";
    cf += "O DaemonPortOptions=Name=ProofV6, Family=inet6, Addr=::1, Port=" +
          std::to_string(port6_) + "\n";
    cf += "O Timeout.ident=0\nO RefuseLA=1000\nO QueueLA=1000\n";
    cf += "O PidFile=" + Path("daemon.pid") + "\n";
    zeltest::WriteFile(Path("daemon.cf"), cf);
    zeltest::WriteFile(Path("nsswitch.conf"), "hosts: files\n");
  }

  void Start() {
    WriteConfig();
    const std::vector<std::string> argv = {
        kUnshare, "--mount", "--", "/bin/sh", "-c",
        std::string(kMount) + " --bind \"$1\" /etc/nsswitch.conf && exec \"$2\" -C \"$3\" -bD",
        "sh", Path("nsswitch.conf"), kSendmail, Path("daemon.cf")};
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const int log =
        ::open(Path("daemon.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(log, 0) << std::strerror(errno);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setpgid(0, 0);  // a group of its own: its connection children are in it too
      ::dup2(log, 1);
      ::dup2(log, 2);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(log);
    ASSERT_GT(pid_, 0) << "fork: " << std::strerror(errno);
    ::setpgid(pid_, pid_);
    for (int i = 0; i < kStartTries; ++i) {
      siginfo_t info{};
      if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
          info.si_pid == pid_)
        FAIL() << "the sendmail daemon ended at its start:\n" << File("daemon.log");
      const int a = Connect("127.0.0.1", "127.0.0.1", port4_);
      const int b = a < 0 ? -1 : Connect("::1", "::1", port6_);
      if (a >= 0) ::close(a);
      if (b >= 0) {
        ::close(b);
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    FAIL() << "the sendmail daemon did not listen on 127.0.0.1:" << port4_ << " and [::1]:"
           << port6_ << " within " << kStartTries / 10 << " s:\n"
           << File("daemon.log");
  }

  // Ends the daemon and its connection children: SIGTERM to its group, at
  // most kStopTries waits, then SIGKILL. The group is signalled before the
  // daemon is reaped, while its pid cannot belong to anyone else.
  void Stop() {
    if (pid_ <= 0) return;
    ::kill(-pid_, SIGTERM);
    for (int i = 0; i < kStopTries; ++i) {
      siginfo_t info{};
      if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
          info.si_pid == pid_)
        break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ::kill(-pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // The daemon's answer to MAIL FROM:<> from a client at `from` (connected
  // to the daemon address of its family); the greeting and HELO must pass.
  std::string MailFrom(const std::string& from) {
    const bool v6 = from.find(':') != std::string::npos;
    try {
      const Session s = Talk(from, v6 ? "::1" : "127.0.0.1", v6 ? port6_ : port4_);
      EXPECT_EQ(s.greeting.substr(0, 4), "220 ") << s.greeting;
      EXPECT_EQ(s.helo.substr(0, 4), "250 ") << s.helo;
      return s.mail;
    } catch (const std::exception& e) {
      ADD_FAILURE() << "SMTP from " << from << ": " << e.what() << "\n" << File("daemon.log");
      return "";
    }
  }

  static std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      lines.push_back(text.substr(start, end - start));
      start = end + 1;
    }
    return lines;
  }

  int port4_ = 0;
  int port6_ = 0;
  pid_t pid_ = -1;
};

}  // namespace

TEST_F(DaemonProofTest, AnIpv4ClientIsRefusedWhenBlacklistedAndAcceptedWhenWhitelisted) {
  EXPECT_EQ(MailFrom("127.0.0.1"), kAccepted);
  Ok({"mail", "blacklist", "add", "127.0.0.1"});
  EXPECT_EQ(MailFrom("127.0.0.1"), kRefused);
  EXPECT_EQ(MailFrom("127.0.0.2"), kAccepted);
  // The client's own entry comes before its network's.
  Ok({"mail", "blacklist", "delete", "127.0.0.1"});
  Ok({"mail", "blacklist", "add", "127.0.0.0/24"});
  Ok({"mail", "whitelist", "add", "127.0.0.1"});
  EXPECT_EQ(MailFrom("127.0.0.1"), kAccepted);
  EXPECT_EQ(MailFrom("127.0.0.2"), kRefused);
}

// sendmail presents ::1 as "IPv6:0:0:0:0:0:0:0:1": the key must be that
// form. A compressed key, as earlier versions wrote, refuses nobody.
TEST_F(DaemonProofTest, AnIpv6ClientIsRefusedWhenBlacklistedAndAcceptedWhenWhitelisted) {
  EXPECT_EQ(MailFrom("::1"), kAccepted);
  Ok({"mail", "blacklist", "add", "::1"});
  EXPECT_EQ(File("access"), "Connect:IPv6:0:0:0:0:0:0:0:1\tREJECT\n");
  EXPECT_EQ(MailFrom("::1"), kRefused);
  EXPECT_EQ(MailFrom("127.0.0.1"), kAccepted);
  Ok({"mail", "blacklist", "delete", "0:0:0:0:0:0:0:1"});
  EXPECT_EQ(MailFrom("::1"), kAccepted);
  Ok({"mail", "blacklist", "add", "::/112"});
  EXPECT_EQ(MailFrom("::1"), kRefused);
  Ok({"mail", "whitelist", "add", "IPv6:::1"});
  EXPECT_EQ(MailFrom("::1"), kAccepted);

  Ok({"mail", "whitelist", "delete", "::1"});
  Ok({"mail", "blacklist", "delete", "::/112"});
  zeltest::WriteFile(Path("access"), "Connect:IPv6:::1\tREJECT\n");
  Ok({"mail", "blacklist", "list"});  // rebuilds the map of the hand-edited file
  EXPECT_EQ(MailFrom("::1"), kAccepted);
}

// A network entry refuses every client whose address begins with it: the
// whole loopback network from any of its addresses, and an IPv6 prefix.
TEST_F(DaemonProofTest, EveryClientOfABlacklistedNetworkIsRefused) {
  Ok({"mail", "blacklist", "add", "127.0.0.0/8"});
  EXPECT_EQ(File("access"), "Connect:127\tREJECT\n");
  for (const char* client : {"127.0.0.1", "127.0.0.2", "127.1.2.3", "127.255.255.254"})
    EXPECT_EQ(MailFrom(client), kRefused) << client;
  EXPECT_EQ(MailFrom("::1"), kAccepted);
  Ok({"mail", "blacklist", "add", "0:0:0:0"});
  EXPECT_EQ(MailFrom("::1"), kRefused);
  Ok({"mail", "blacklist", "delete", "127"});
  EXPECT_EQ(MailFrom("127.1.2.3"), kAccepted);
}
