#include "zelpnl_fixture.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/mail/tables.h"

extern char** environ;

namespace zeltest {

namespace {

const char kZelpnl[] = ZEL_BIN_DIR "/zelpnl";

}  // namespace

Result RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env,
               bool terminal, const std::string& input) {
  if (input.size() > 65536) throw std::runtime_error("input larger than a pipe holds");
  std::vector<std::string> environment;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "ZELPNL_CONF=", 12) != 0) environment.emplace_back(*e);
  for (const auto& item : env) environment.push_back(item);
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  int out_pipe[2], err_pipe[2], in_pipe[2] = {-1, -1};
  int master = -1, slave = -1;
  if (::pipe(out_pipe) != 0) throw std::runtime_error("pipe failed");
  if (!input.empty()) {
    // The whole input fits in the pipe: written before the child runs.
    if (::pipe(in_pipe) != 0) throw std::runtime_error("pipe failed");
    if (::write(in_pipe[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
      throw std::runtime_error("write to the input pipe failed");
    ::close(in_pipe[1]);
  }
  if (terminal) {
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
      throw std::runtime_error("openpty failed");
    err_pipe[0] = master;
    err_pipe[1] = slave;
  } else if (::pipe(err_pipe) != 0) {
    throw std::runtime_error("pipe failed");
  }
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    const int null = ::open("/dev/null", O_RDONLY);
    ::dup2(in_pipe[0] >= 0 ? in_pipe[0] : null, 0);
    ::dup2(out_pipe[1], 1);
    ::dup2(err_pipe[1], 2);
    ::close(out_pipe[0]);
    ::close(err_pipe[0]);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  if (in_pipe[0] >= 0) ::close(in_pipe[0]);
  Result run;
  Drain(out_pipe[0], err_pipe[0], run.out, run.err);
  ::close(out_pipe[0]);
  ::close(err_pipe[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

std::string OurProgram(const std::string& name) {
  const std::string built = ZEL_BIN_DIR "/" + name;
  return ::access(built.c_str(), F_OK) == 0 ? built : "/usr/lib/zelpnl/" + name;
}

void ZelpnlTest::SetUp() {
  const Result init = RunProgram({kZelpnl, "init", "--sandbox", Dir()});
  ASSERT_EQ(init.status, 0) << init.out << init.err;
}

Result ZelpnlTest::Zel(const std::vector<std::string>& args, const std::string& input) {
  std::vector<std::string> argv = {kZelpnl, "--config", Config()};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, {}, false, input);
}

nlohmann::ordered_json ZelpnlTest::Json(const std::vector<std::string>& args) {
  std::vector<std::string> with = args;
  with.push_back("--json");
  const Result run = Zel(with);
  EXPECT_EQ(run.status, 0) << run.err;
  try {
    return nlohmann::ordered_json::parse(run.out);
  } catch (const std::exception& e) {
    ADD_FAILURE() << "not JSON: " << run.out << " (" << e.what() << ")";
    return nullptr;
  }
}

void ZelpnlTest::Ok(const std::vector<std::string>& args) {
  const Result run = Zel(args);
  std::string line;
  for (const auto& a : args) line += a + " ";
  EXPECT_EQ(run.status, 0) << line << "\n" << run.err;
  EXPECT_EQ(run.err, "") << line;
}

void ZelpnlTest::SetConfig(const std::string& key, const std::string& value) const {
  std::string conf = File("zelpnl.conf");
  const size_t at = conf.find("\n" + key + " = ");
  if (at == std::string::npos) throw std::runtime_error("no key " + key);
  const size_t end = conf.find('\n', at + 1);
  conf.replace(at + 1, end - at - 1, key + " = " + value);
  WriteFile("zelpnl.conf", conf);
}

std::string ZelpnlTest::File(const std::string& name) const { return ReadFile(Path(name)); }

void ZelpnlTest::WriteFile(const std::string& name, const std::string& text) const {
  zeltest::WriteFile(Path(name), text);
}

std::string ZelpnlTest::Rows(const std::string& sql) const {
  auto db = pnl_db::Cache::Open(Path("panel.db"), zel_db::PanelSchema());
  std::string out;
  for (pnl_db::Query q = db->Query(sql); !q.Eof(); q.Next()) {
    if (!out.empty()) out += "|";
    for (int c = 0; c < q.Columns(); ++c) out += (c ? ":" : "") + q.Str(c);
  }
  return out;
}

int ZelpnlTest::Count(const std::string& table) const {
  return std::stoi(Rows("SELECT count(*) FROM " + table));
}

std::map<std::string, std::string> ZelpnlTest::State() const {
  std::map<std::string, std::string> state;
  for (const char* file : {"local-host-names", "virtusertable", "aliases", "access"})
    state[file] = File(file);
  for (const char* table : {"users", "domain", "email_domain", "email", "email_alias",
                            "email_forward", "email_responder", "email_whitelist",
                            "email_blacklist"})
    state[std::string("table ") + table] =
        std::to_string(Count(table)) + " rows: " + Rows(std::string("SELECT * FROM ") + table +
                                                        " ORDER BY id");
  return state;
}

void ZelpnlTest::MakeDomainWithMailbox() {
  Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  Ok({"mail", "domain", "add", "d.example"});
  Ok({"mail", "box", "add", "l@d.example"});
}

}  // namespace zeltest
