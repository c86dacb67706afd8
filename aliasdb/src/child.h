// A program run by the alias database builder (makemap, sendmail): started
// with posix_spawn, its standard output and error collected in an unlinked
// temporary file (so a talkative child never blocks on a full pipe while we
// write to it), its standard input a pipe or /dev/null. Owns the process and
// the descriptors: a child still running when the object goes is ended and
// waited for. One thread at a time.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace zel_aliasdb {

class Child {
 public:
  // Starts argv[0] (a path, not searched) with argv; with_input gives it a
  // pipe to write to, else /dev/null. scratch_dir holds the output file.
  // Throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming the program when it cannot start.
  Child(const std::vector<std::string>& argv, bool with_input, const std::string& scratch_dir);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Writes all of data to the child's input. Throws pnl_err::Error on a
  // failed write (the child ended early: its output is in the message).
  void Write(std::string_view data);
  // Closes the input, waits for the end and returns the exit status (128 +
  // signal number when killed); later calls return it again. output() then
  // holds what it printed.
  int Wait();
  const std::string& output() const { return output_; }

 private:
  void ReadOutput();

  std::string program_;
  pid_t pid_ = -1;
  int status_ = 0;
  int input_ = -1;
  int output_fd_ = -1;
  std::string output_;
};

}  // namespace zel_aliasdb
