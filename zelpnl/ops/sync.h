// zelpnl sync: reads the mail files back into the panel's tables (the files
// are the truth) and tells what changed, table by table. In order: the mail
// domains and the mailboxes (one save of the files they touch), each
// mailbox's aliases, forwards and forward-only flag, each responder's state,
// the whitelist and the blacklist; then the responder's settings files are
// made to agree with the rows. What could not be read back is a failure of
// its own; the others still run.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "request.h"

namespace zelpnl {

// Told how far the sync is: Begin once the number of steps is known, Step
// after each (naming it), Done at the end.
class SyncProgress {
 public:
  virtual ~SyncProgress() = default;
  virtual void Begin(size_t steps) = 0;
  virtual void Step(const std::string& what) = 0;
  virtual void Done() = 0;
};

// One mail table before and after: its rows as one line of text each.
struct SyncTableChange {
  std::string table;  // the SQL table
  std::string label;  // for people: "mail domains", ...
  size_t before = 0;
  size_t after = 0;
  std::vector<std::string> added;    // sorted
  std::vector<std::string> removed;  // sorted
};

struct SyncReport {
  std::vector<SyncTableChange> tables;
  std::vector<std::pair<std::string, std::string>> failures;  // object, cause
};

SyncReport SyncMail(const Request& request, SyncProgress& progress);

}  // namespace zelpnl
