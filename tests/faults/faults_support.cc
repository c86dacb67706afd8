#include "faults_support.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "zelapi/str.h"

extern char** environ;

namespace zelfaults {

namespace {

// The environment for child programs: ours, less ZELPNL_CONF (every run
// names its configuration).
std::vector<std::string> ChildEnvironment() {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "ZELPNL_CONF=", 12) != 0) env.emplace_back(*e);
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& items) {
  std::vector<char*> out;
  for (auto& s : items) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// fork + execve with the given descriptors as standard output and error.
pid_t Start(const std::vector<std::string>& argv, int out_fd, int err_fd,
            const std::vector<int>& close_in_child) {
  std::vector<std::string> args = argv;
  std::vector<std::string> env = ChildEnvironment();
  std::vector<char*> arg_ptrs = Pointers(args);
  std::vector<char*> env_ptrs = Pointers(env);
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 0);
    ::dup2(out_fd >= 0 ? out_fd : null, 1);
    ::dup2(err_fd >= 0 ? err_fd : null, 2);
    for (int fd : close_in_child) ::close(fd);
    ::execve(arg_ptrs[0], arg_ptrs.data(), env_ptrs.data());
    ::_exit(127);
  }
  return pid;
}

// A read-only connection to a panel database.
class Db {
 public:
  explicit Db(const std::string& file) {
    if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK)
      throw std::runtime_error("cannot open " + file + ": " + sqlite3_errmsg(db_));
    sqlite3_busy_timeout(db_, 60000);
  }
  ~Db() { sqlite3_close(db_); }
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  std::string Rows(const std::string& sql) const {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
      throw std::runtime_error(sql + ": " + sqlite3_errmsg(db_));
    std::string out;
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
        if (c) out += ":";
        const unsigned char* text = sqlite3_column_text(stmt, c);
        out += text ? std::string(reinterpret_cast<const char*>(text),
                                  static_cast<size_t>(sqlite3_column_bytes(stmt, c)))
                    : "NULL";
      }
      out += "\n";
    }
    sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE) throw std::runtime_error(sql + ": " + sqlite3_errmsg(db_));
    return out;
  }

 private:
  sqlite3* db_ = nullptr;
};

// Every table of the panel, in a fixed order.
const char* const kTables[] = {"users",         "domain",          "email_domain",
                               "email",         "email_alias",     "email_forward",
                               "email_responder", "email_responder_sent", "email_whitelist",
                               "email_blacklist", "file_state"};

}  // namespace

const char* const kMailFiles[4] = {"local-host-names", "virtusertable", "aliases", "access"};

bool LongRun() {
  const char* flag = std::getenv("ZEL_LONG_TESTS");
  return flag != nullptr && std::string(flag) == "1";
}

int Scaled(int ci, int long_run) { return LongRun() ? long_run : ci; }

std::string ZelpnlProgram() { return BinProgram("zelpnl"); }

std::string BinProgram(const std::string& name) { return std::string(ZEL_BIN_DIR) + "/" + name; }

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

Result RunProgram(const std::vector<std::string>& argv) {
  int out_pipe[2], err_pipe[2];
  if (::pipe2(out_pipe, O_CLOEXEC) != 0 || ::pipe2(err_pipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  const pid_t pid = Start(argv, out_pipe[1], err_pipe[1], {});
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  Result run;
  zeltest::Drain(out_pipe[0], err_pipe[0], run.out, run.err);
  ::close(out_pipe[0]);
  ::close(err_pipe[0]);
  run.status = WaitFor(pid);
  return run;
}

pid_t Spawn(const std::vector<std::string>& argv) { return Start(argv, -1, -1, {}); }

int WaitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("waitpid failed");
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Panel::Panel(const std::string& label) : box_(label), dir_(box_.Path("sb")) {
  const Result init = RunProgram({ZelpnlProgram(), "init", "--sandbox", dir_});
  if (init.status != 0)
    throw std::runtime_error("zelpnl init failed: " + init.out + init.err);
}

std::vector<std::string> Panel::Argv(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {ZelpnlProgram(), "--config", Config()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

Result Panel::Zel(const std::vector<std::string>& args) const { return RunProgram(Argv(args)); }

void Panel::Ok(const std::vector<std::string>& args) const {
  const Result run = Zel(args);
  if (run.status != 0 || !run.err.empty()) {
    std::string line;
    for (const auto& a : args) line += " " + a;
    throw std::runtime_error("zelpnl" + line + ": exit " + std::to_string(run.status) + ": " +
                             run.err);
  }
}

std::string Panel::Read(const std::string& file) const { return zeltest::ReadFile(Path(file)); }

void Panel::Write(const std::string& file, const std::string& text) const {
  zeltest::WriteFile(Path(file), text);
}

std::map<std::string, std::string> Panel::Files() const {
  std::map<std::string, std::string> files;
  for (const char* name : kMailFiles) {
    std::error_code ec;
    files[name] = std::filesystem::is_regular_file(Path(name), ec) ? Read(name) : "<missing>";
  }
  return files;
}

std::string Panel::Rows() const {
  Db db(Path("panel.db"));
  std::string out;
  for (const char* table : kTables)
    out += std::string("[") + table + "]\n" +
           db.Rows(std::string("SELECT * FROM ") + table + " ORDER BY id");
  return out;
}

std::string Panel::Meaning() const {
  Db db(Path("panel.db"));
  const std::string address =
      "(SELECT e.name || '@' || d.name FROM email e JOIN email_domain d ON d.id = e.domain "
      "WHERE e.id = t.email)";
  const std::pair<const char*, std::string> parts[] = {
      {"users", "SELECT name FROM users t ORDER BY 1"},
      {"web domains",
       "SELECT t.name, (SELECT name FROM users WHERE id = t.users) FROM domain t ORDER BY 1"},
      {"mail domains",
       "SELECT t.name, t.enabled, (SELECT name FROM users WHERE id = t.users), t.def_action, "
       "t.redirect FROM email_domain t ORDER BY 1"},
      {"mailboxes",
       "SELECT e.name || '@' || d.name, e.enabled, e.forward_only FROM email e JOIN "
       "email_domain d ON d.id = e.domain ORDER BY 1"},
      {"aliases", "SELECT " + address + ", t.name FROM email_alias t ORDER BY 1, 2"},
      {"forwards", "SELECT " + address + ", t.name FROM email_forward t ORDER BY 1, 2"},
      {"responders",
       "SELECT " + address +
           ", t.enabled, t.subject, t.text, t.period_days FROM email_responder t ORDER BY 1"},
      {"whitelist", "SELECT sender FROM email_whitelist ORDER BY 1"},
      {"blacklist", "SELECT sender FROM email_blacklist ORDER BY 1"},
  };
  std::string out;
  for (const auto& [label, sql] : parts) out += std::string("[") + label + "]\n" + db.Rows(sql);
  return out;
}

std::string Panel::Query(const std::string& sql) const {
  Db db(Path("panel.db"));
  return db.Rows(sql);
}

std::vector<std::string> Panel::HiddenFiles() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
    const std::string name = entry.path().filename().string();
    if (!name.empty() && name[0] == '.') names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string Panel::MapDump(const std::string& file) const {
  std::string out;
  const int status =
      zeltest::RunShell("/usr/sbin/makemap -u hash " + str::ShellWord(Path(file)) + " | sort", &out);
  if (status != 0) throw std::runtime_error("makemap -u " + file + ": " + out);
  return out;
}

std::string Panel::SyncChanges(int& status) const {
  const Result run = Zel({"mail", "sync", "--json"});
  status = run.status;
  nlohmann::json doc;
  try {
    doc = nlohmann::json::parse(run.out);
  } catch (const std::exception& e) {
    return "sync printed no JSON: " + run.out + run.err;
  }
  std::string changes;
  for (const auto& [table, t] : doc["sync"]["tables"].items()) {
    for (const auto& row : t["added"]) changes += "+ " + table + " " + row.dump() + "\n";
    for (const auto& row : t["removed"]) changes += "- " + table + " " + row.dump() + "\n";
  }
  for (const auto& failure : doc["sync"]["failures"]) changes += "! " + failure.dump() + "\n";
  if (!run.err.empty()) changes += "stderr: " + run.err;
  return changes;
}

LineDiff DiffLines(const std::string& before, const std::string& after) {
  const std::vector<std::string> a = zeltest::Lines(before), b = zeltest::Lines(after);
  // Common head and tail first: a command changes a few lines of a long file.
  const auto [head, tail] = zeltest::FindCommonEnds(a, b);
  const size_t n = a.size() - head - tail, m = b.size() - head - tail;
  std::vector<std::vector<int>> lcs(n + 1, std::vector<int>(m + 1, 0));
  for (size_t i = n; i-- > 0;)
    for (size_t j = m; j-- > 0;)
      lcs[i][j] = a[head + i] == b[head + j] ? lcs[i + 1][j + 1] + 1
                                             : std::max(lcs[i + 1][j], lcs[i][j + 1]);
  LineDiff diff;
  size_t i = 0, j = 0;
  while (i < n || j < m) {
    if (i < n && j < m && a[head + i] == b[head + j]) {
      ++i;
      ++j;
    } else if (j < m && (i == n || lcs[i][j + 1] >= lcs[i + 1][j])) {
      diff.added.push_back(b[head + j++]);
    } else {
      diff.removed.push_back(a[head + i++]);
    }
  }
  return diff;
}

std::string Show(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c > 0x7e) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace zelfaults
