// zelpnl stack: the sandbox's servers started, looked at, reloaded and
// stopped, on loopback ports only, with nothing left running.
#include <signal.h>
#include <sys/socket.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "mailstore/dovecot_sandbox.h"
#include "zelapi/net.h"
#include "zelpnl_fixture.h"

using zeltest::ZelpnlTest;

namespace {

class ZelpnlStackTest : public ZelpnlTest {
 protected:
  void TearDown() override {
    // Whatever a test did, its servers go.
    Zel({"stack", "stop"});
  }
  nlohmann::ordered_json Status() { return Json({"stack", "status"})["stack"]; }
  // Running: neither gone nor ended and waiting to be reaped.
  static bool Alive(int pid) {
    if (::kill(pid, 0) != 0 && errno != EPERM) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    return text.find(") Z ") == std::string::npos;
  }
  // The port of a service's first address.
  int Port(const nlohmann::ordered_json& service) {
    const std::string address = service["listen"][0]["address"];
    return std::stoi(address.substr(address.rfind(':') + 1));
  }
};

}  // namespace

TEST_F(ZelpnlStackTest, StartRunsBothServersOnLoopbackAndStopLeavesNothingRunning) {
  const auto started = Json({"stack", "start"})["stack"]["services"];
  ASSERT_EQ(started.size(), 2u);
  EXPECT_EQ(started[0]["name"], "dovecot");
  EXPECT_EQ(started[1]["name"], "sendmail");
  std::vector<int> pids;
  for (const auto& service : started) {
    EXPECT_EQ(service["running"], true) << service;
    pids.push_back(service["pid"]);
    for (const auto& listen : service["listen"]) {
      const std::string address = listen["address"];
      EXPECT_TRUE(address.rfind("127.0.0.1:", 0) == 0 || address.rfind("[::1]:", 0) == 0)
          << address;
      EXPECT_EQ(listen["accepting"], true) << address;
    }
  }
  EXPECT_EQ(Status()["queued"], 0);
  // Started twice: nothing more runs.
  const auto again = Json({"stack", "start"})["stack"]["services"];
  EXPECT_EQ(again[0]["pid"], pids[0]);
  EXPECT_EQ(again[1]["pid"], pids[1]);

  const auto stopped = Json({"stack", "stop"})["stack"]["services"];
  for (const auto& service : stopped) EXPECT_EQ(service["running"], false) << service;
  for (int pid : pids) EXPECT_FALSE(Alive(pid)) << pid;
  for (const auto& service : started)
    EXPECT_FALSE(pnl_net::Accepts("127.0.0.1", Port(service), 200)) << service;
  // The mail store's socket folder goes with it.
  const std::string run_dir = mailstore::DovecotRunDir(Dir());
  EXPECT_FALSE(std::filesystem::exists(run_dir)) << run_dir;
}

TEST_F(ZelpnlStackTest, ANewDomainReloadsTheRunningDaemonAndItListensAgainAtOnce) {
  const auto started = Json({"stack", "start"})["stack"]["services"];
  const int sendmail_pid = started[1]["pid"];
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "d.example"});
  const auto after = Status()["services"];
  EXPECT_NE(after[1]["pid"], sendmail_pid);
  EXPECT_EQ(after[1]["running"], true);
  EXPECT_EQ(after[1]["listen"][0]["accepting"], true);
  EXPECT_EQ(after[0]["pid"], started[0]["pid"]);
  EXPECT_FALSE(Alive(sendmail_pid));
}

TEST_F(ZelpnlStackTest, AReloadOfAStoppedStackDoesNothingAndSucceeds) {
  const zeltest::Result run = Zel({"stack", "reload"});
  EXPECT_EQ(run.status, 0) << run.err;
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "d.example"});
  EXPECT_EQ(Status()["services"][1]["running"], false);
}

TEST_F(ZelpnlStackTest, APortAnotherProgramHoldsStopsTheStartAndNothingIsLeftRunning) {
  const int port = Port(Status()["services"][1]);
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(::listen(fd, 1), 0);
  const zeltest::Result run = Zel({"stack", "start"});
  ::close(fd);
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("error: sendmail: another program listens on 127.0.0.1:" +
                         std::to_string(port)),
            std::string::npos)
      << run.err;
  // Dovecot, started first, was stopped again.
  const auto services = Status()["services"];
  for (const auto& service : services) EXPECT_EQ(service["running"], false) << service;
}

TEST_F(ZelpnlStackTest, AnUnknownServiceIsRefused) {
  const zeltest::Result run = Zel({"stack", "reload", "postfix"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "error: service \"postfix\": is not one of the stack's (dovecot sendmail)\n");
}

TEST_F(ZelpnlStackTest, ASetUpWithoutAStackSaysSo) {
  SetConfig("stack_services", "");
  const zeltest::Result run = Zel({"stack", "start"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("runs no mail stack"), std::string::npos) << run.err;
}

TEST_F(ZelpnlStackTest, TheStackIsNoBatchLine) {
  const zeltest::Result run = Zel({"batch", "-"}, "stack start\n");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(Status()["services"][0]["running"], false);
}

TEST_F(ZelpnlStackTest, ARunFolderThatIsNoPlainFolderBelowAnotherIsRefusedNotRemoved) {
  for (const char* bad : {"/", "/run", "run/zelpnl/x", "/run/zelpnl/../.."}) {
    SetConfig("stack_dovecot_rundir", bad);
    const zeltest::Result run = Zel({"stack", "stop"});
    EXPECT_EQ(run.status, 1) << bad;
    EXPECT_NE(run.err.find("\"stack_dovecot_rundir\" must be an absolute folder below another one"),
              std::string::npos)
        << run.err;
  }
  EXPECT_TRUE(std::filesystem::is_directory("/run"));
}
