#include "proof_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace proof {

namespace {

const char kZelpnl[] = ZEL_BIN_DIR "/zelpnl";
const char kSendmail[] = "/usr/sbin/sendmail";
const char kCfMacros[] = "/usr/share/sendmail/cf/m4/cf.m4";
const char kM4[] = "/usr/bin/m4";

void SetNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// "> " prompts of address test mode stand before the first line of an answer.
std::string WithoutPrompts(std::string line) {
  while (line.compare(0, 2, "> ") == 0) line.erase(0, 2);
  return line;
}

std::string Joined(const std::vector<std::string>& args) {
  std::string line;
  for (const auto& a : args) line += (line.empty() ? "" : " ") + a;
  return line;
}

}  // namespace

ProgramRun RunProgram(const std::vector<std::string>& argv, const std::string& input, int seconds) {
  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "ZELPNL_CONF=", 12) != 0) environment.emplace_back(*e);
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (::pipe2(in_pipe, O_CLOEXEC) != 0 || ::pipe2(out_pipe, O_CLOEXEC) != 0 ||
      ::pipe2(err_pipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed: " + std::string(std::strerror(errno)));
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed: " + std::string(std::strerror(errno)));
  if (pid == 0) {
    ::setpgid(0, 0);  // its own group, so that the deadline ends any child too
    ::dup2(in_pipe[0], 0);
    ::dup2(out_pipe[1], 1);
    ::dup2(err_pipe[1], 2);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  SetNonBlocking(in_pipe[1]);

  ProgramRun run;
  size_t written = 0;
  struct pollfd fds[3] = {
      {out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}, {in_pipe[1], POLLOUT, 0}};
  if (input.empty()) {
    ::close(in_pipe[1]);
    fds[2].fd = -1;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  char buffer[4096];
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 && !run.timed_out) {
      run.timed_out = true;
      ::kill(-pid, SIGKILL);
      ::kill(pid, SIGKILL);
    }
    const int ready = ::poll(fds, 3, run.timed_out ? 1000 : static_cast<int>(left.count()) + 1);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
      }
    }
    if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      // MSG_NOSIGNAL does not exist for pipes: a reader gone early makes
      // EPIPE here only because SIGPIPE is ignored (see SetUp).
      const ssize_t n = ::write(fds[2].fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if (n < 0 && errno != EAGAIN && errno != EINTR) written = input.size();
      if (written == input.size()) {
        ::close(fds[2].fd);
        fds[2].fd = -1;
      }
    }
  }
  for (const auto& fd : fds)
    if (fd.fd >= 0) ::close(fd.fd);
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

std::string LocalDelivery(const std::string& user) {
  return user + "... deliverable: mailer local, user " + user;
}

std::string Relayed(const std::string& target, const std::string& shown) {
  return (shown.empty() ? target : shown) +
         "... deliverable: mailer relay, host [127.0.0.1], user " + target;
}

std::string Unjudged(const std::string& address) {
  const std::string::size_type at = address.find('@');
  std::string domain;
  for (char c : address.substr(at + 1)) domain += c == '.' ? std::string(" . ") : std::string(1, c);
  return "@ " + address.substr(0, at) + " < @ " + domain + " >";
}

std::string Refused(const std::string& address, const std::string& text) {
  return address + "... " + text;
}

std::string Program(const std::string& command) {
  const std::string quoted = "\"" + command + "\"";
  return quoted + "... deliverable: mailer prog, user " +
         (command.find(' ') == std::string::npos ? command : quoted);
}

std::string FileTarget(const std::string& path) {
  return "\"" + path + "\"... deliverable: mailer *file*, user " + path;
}

void SendmailProofTest::SetUp() {
  ::signal(SIGPIPE, SIG_IGN);
  for (const auto& [path, package] :
       {std::pair<const char*, const char*>{kSendmail, "sendmail-bin"},
        {kCfMacros, "sendmail-cf"},
        {kM4, "m4"}})
    ASSERT_EQ(::access(path, F_OK), 0)
        << path << " is missing: this suite needs Debian's " << package
        << " (scripts/setup installs it); without sendmail nothing here can be proven";
  ASSERT_EQ(::access(kZelpnl, X_OK), 0) << kZelpnl << " is not built";
  const ProgramRun init = RunProgram({kZelpnl, "init", "--sandbox", Dir()}, "", kDeadlineSeconds);
  ASSERT_EQ(init.status, 0) << init.out << init.err;
  ASSERT_EQ(::access(Path("sendmail.cf").c_str(), R_OK), 0)
      << "zelpnl init made no sendmail.cf in " << Dir() << ":\n"
      << init.out;
}

std::string SendmailProofTest::File(const std::string& name) const {
  return zeltest::ReadFile(Path(name));
}

std::string SendmailProofTest::ResponderCommand(const std::string& address) const {
  const std::string conf = File("zelpnl.conf");
  const std::string key = "\nzelpnl-responder = ";
  const size_t at = conf.find(key);
  if (at == std::string::npos) throw std::runtime_error("zelpnl.conf names no zelpnl-responder");
  const size_t from = at + key.size();
  const std::string program = conf.substr(from, conf.find('\n', from) - from);
  // The action names the responder's own configuration, never the panel's.
  return "|" + program + " --config " + Path("responder.conf") + " " + address;
}

ProgramRun SendmailProofTest::Zel(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kZelpnl, "--config", Path("zelpnl.conf")};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, "", kDeadlineSeconds);
}

void SendmailProofTest::Ok(const std::vector<std::string>& args) {
  const ProgramRun run = Zel(args);
  EXPECT_EQ(run.status, 0) << "zelpnl " << Joined(args) << "\n" << run.err;
  EXPECT_EQ(run.err, "") << "zelpnl " << Joined(args);
}

namespace {

ProgramRun Sendmail(const std::string& cf, const std::vector<std::string>& args,
                    const std::string& input) {
  std::vector<std::string> argv = {kSendmail, "-C", cf};
  argv.insert(argv.end(), args.begin(), args.end());
  ProgramRun run = RunProgram(argv, input, kDeadlineSeconds);
  if (run.timed_out)
    ADD_FAILURE() << "sendmail " << Joined(args) << " did not answer within " << kDeadlineSeconds
                  << " s: it waits on DNS or the network; the sandbox's sendmail.cf must "
                     "look host names up in files only (service switch) and not canonify";
  return run;
}

}  // namespace

Verdict SendmailProofTest::Verify(const std::string& address) {
  const ProgramRun run = Sendmail(Path("sendmail.cf"), {"-bv", address}, "");
  EXPECT_EQ(run.err, "") << "sendmail -bv " << address;
  return {run.status, Lines(run.out)};
}

std::string SendmailProofTest::AddressTest(const std::vector<std::string>& lines) {
  std::string input;
  for (const auto& line : lines) input += line + "\n";
  const ProgramRun run = Sendmail(Path("sendmail.cf"), {"-bt"}, input);
  EXPECT_EQ(run.status, 0) << "sendmail -bt:\n" << input << run.out << run.err;
  EXPECT_EQ(run.err, "") << "sendmail -bt:\n" << input;
  return run.out;
}

std::optional<std::string> SendmailProofTest::Map(const std::string& map, const std::string& key) {
  const std::string out = AddressTest({"/map " + map + " " + key});
  const std::string head = "map_lookup: " + map + " (" + key + ") ";
  for (const auto& raw : Lines(out)) {
    const std::string line = WithoutPrompts(raw);
    if (line.compare(0, head.size(), head) != 0) continue;
    const std::string rest = line.substr(head.size());
    if (rest.compare(0, 9, "no match ") == 0) return std::nullopt;
    const size_t status = rest.rfind(" (");
    if (rest.compare(0, 8, "returns ") == 0 && status != std::string::npos)
      return rest.substr(8, status - 8);
  }
  ADD_FAILURE() << "no map answer for /map " << map << " " << key << " in:\n" << out;
  return "(no answer)";
}

std::string SendmailProofTest::Ruleset(const std::string& ruleset, const std::string& input,
                                       const std::vector<std::string>& macros) {
  std::vector<std::string> lines = macros;
  lines.push_back(ruleset + " " + input);
  const std::string out = AddressTest(lines);
  // Trace lines read "NAME<blanks>returns: VALUE", the name cut to 16
  // characters; the outermost call returns last.
  const std::string name = ruleset.substr(0, 16);
  std::optional<std::string> result;
  for (const auto& raw : Lines(out)) {
    const std::string line = WithoutPrompts(raw);
    if (line.compare(0, name.size(), name) != 0) continue;
    const size_t at = line.find(" returns: ");
    if (at == std::string::npos || line.find_first_not_of(' ', name.size()) != at + 1) continue;
    result = line.substr(at + 10);
  }
  if (!result) {
    ADD_FAILURE() << "ruleset " << ruleset << " returned nothing for " << input << " in:\n" << out;
    return "(no answer)";
  }
  return *result;
}

std::set<std::string> SendmailProofTest::LocalHostNames() {
  std::set<std::string> names;
  for (const auto& raw : Lines(AddressTest({"$=w"}))) {
    const std::string name = WithoutPrompts(raw);
    if (name.empty() || name.find("ADDRESS TEST MODE") == 0 || name.find("Enter <ruleset>") == 0)
      continue;
    names.insert(name);
  }
  return names;
}

void SendmailProofTest::AddDomain(const std::string& domain,
                                  const std::vector<std::string>& options) {
  Ok({"webdomain", "add", domain, "--owner", "admin"});
  std::vector<std::string> args = {"mail", "domain", "add", domain};
  args.insert(args.end(), options.begin(), options.end());
  Ok(args);
}

}  // namespace proof
