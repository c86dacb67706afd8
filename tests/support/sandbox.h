// A scratch folder for one test, under the build folder (sendmail refuses
// files below a world-writable folder chain, so never under /tmp). Made empty
// at construction, removed with everything in it at destruction.
#pragma once

#include <string>
#include <vector>

namespace zeltest {

class Sandbox {
 public:
  // name: a label, usually the test's name; the folder is unique per process.
  explicit Sandbox(const std::string& name);
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& dir() const { return dir_; }
  std::string Path(const std::string& file) const { return dir_ + "/" + file; }

  void Write(const std::string& file, const std::string& text) const;
  std::string Read(const std::string& file) const;
  bool Exists(const std::string& file) const;

 private:
  std::string dir_;
};

// The whole content of a file; throws std::runtime_error when unreadable.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);

// Runs a shell command, returns its exit status and fills output (stdout and
// stderr together).
int RunShell(const std::string& command, std::string* output = nullptr);

// The names in a folder, sorted (no "." or ".."); throws what
// std::filesystem throws when it cannot be read.
std::vector<std::string> FolderListing(const std::string& dir);

// The lines of text, each with its "\n" (a last line without one as it is).
std::vector<std::string> Lines(const std::string& text);

// How many lines two texts share at their start (head) and, of the rest, at
// their end (tail); what lies between differs.
struct CommonEnds {
  size_t head = 0;
  size_t tail = 0;
};
CommonEnds FindCommonEnds(const std::vector<std::string>& a, const std::vector<std::string>& b);

// Reads two descriptors (a child's standard output and error) to their end,
// appending to out and err. A descriptor that fails (a pseudo-terminal says
// EIO once the child closed it) counts as ended. Throws std::runtime_error
// when poll fails.
void Drain(int out_fd, int err_fd, std::string& out, std::string& err);

}  // namespace zeltest
