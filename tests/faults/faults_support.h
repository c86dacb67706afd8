// What the fault tests share: running the built zelpnl (in the foreground or
// as a process to kill), a panel made by "zelpnl init" in a scratch folder
// with its four sendmail files and its database read back in two forms
// (every row as stored, and what the rows mean without keys and pass tags),
// and the size of the runs (short in CI, long with ZEL_LONG_TESTS=1).
//
// Nothing here is thread-safe unless said: one test thread drives a Panel;
// RunProgram, Spawn and WaitFor may be called from several threads at once.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "sandbox.h"

namespace zelfaults {

// True when ZEL_LONG_TESTS=1: the long versions of the runs.
bool LongRun();
// ci in CI, long_run with ZEL_LONG_TESTS=1.
int Scaled(int ci, int long_run);

// The built programs.
std::string ZelpnlProgram();
std::string BinProgram(const std::string& name);

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs argv (no shell) with standard input from /dev/null, the process's
// environment less ZELPNL_CONF, and waits. Thread-safe.
Result RunProgram(const std::vector<std::string>& argv);

// Starts argv with its output thrown away and returns its process id at
// once. Thread-safe.
pid_t Spawn(const std::vector<std::string>& argv);
// Waits for pid; its exit status, or 128 + the signal that ended it.
int WaitFor(pid_t pid);

// Monotonic clock in seconds.
double Now();

// The panel's four sendmail files, by name.
extern const char* const kMailFiles[4];

// A sandbox made by "zelpnl init --sandbox" under the test scratch folder,
// removed with the object.
class Panel {
 public:
  // label names the folder (unique per process); init must succeed or the
  // constructor throws std::runtime_error with its output.
  explicit Panel(const std::string& label);

  const std::string& Dir() const { return dir_; }
  std::string Path(const std::string& file) const { return dir_ + "/" + file; }
  std::string Config() const { return Path("zelpnl.conf"); }

  // zelpnl --config <this panel> args...
  std::vector<std::string> Argv(const std::vector<std::string>& args) const;
  Result Zel(const std::vector<std::string>& args) const;
  // Zel, and a std::runtime_error with the command and its output unless it
  // exits 0 with nothing on standard error.
  void Ok(const std::vector<std::string>& args) const;

  std::string Read(const std::string& file) const;
  void Write(const std::string& file, const std::string& text) const;
  // The four files' bytes ("<missing>" for one that is not there).
  std::map<std::string, std::string> Files() const;
  // Every row of every table exactly as stored, keys and tags included.
  std::string Rows() const;
  // What the rows mean: users, web domains, mail domains, mailboxes,
  // aliases, forwards, responders and sender lists, by name, sorted, without
  // row keys and pass tags; equal for two panels that hold the same objects.
  std::string Meaning() const;
  // Rows of a query on the database, columns joined by ":", rows by "\n".
  std::string Query(const std::string& sql) const;
  // Files in the panel's folder whose names start with "." (temporary
  // files of interrupted saves).
  std::vector<std::string> HiddenFiles() const;
  // The keys and values of a hashed map as makemap reads it back
  // ("key\tvalue" lines, sorted).
  std::string MapDump(const std::string& file) const;

  // Runs "zelpnl mail sync --json"; returns the tables that changed
  // ("" when none did, which is what a panel whose database agrees with
  // its files reports) and puts the exit status in status.
  std::string SyncChanges(int& status) const;

 private:
  zeltest::Sandbox box_;
  std::string dir_;
};

// The lines that differ between before and after, found by longest common
// subsequence: removed holds lines of before that are not in the common
// part, added those of after.
struct LineDiff {
  std::vector<std::string> removed;
  std::vector<std::string> added;
};
LineDiff DiffLines(const std::string& before, const std::string& after);

// A readable form of bytes for messages: control bytes and bytes above 0x7e
// as \xNN, "\n" as \n.
std::string Show(const std::string& text);

}  // namespace zelfaults
