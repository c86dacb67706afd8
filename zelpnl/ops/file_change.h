// zelpnl file change: a request's changes of the mail files, saved together.
//
// A command makes its back-end calls that write the mail files through
// Change, with the engine deferring saves, so that each file the command
// changed is saved once and its map rebuilt once, however many records the
// calls posted. A batch (BeginBatch .. EndBatch) stretches that over all its
// lines: the files are saved once, at its end.
//
// Around the saves it asks the back-end for what they need: the removals a
// delete held back until the lines pointing at them were saved (posted and
// saved again), and the restart the MTA's changed local names need (queued
// for after the request; run at once when held removals wait on it).
//
// A FileChange belongs to one request and its thread. Changes a request
// never saved (it failed, or ended without EndBatch) are dropped when the
// FileChange goes, not written later.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "failure.h"

namespace email {
class MtaInterface;
}

namespace zelpnl {

class RunLog;

class FileChange {
 public:
  // mta: the back-end, or nullptr for requests without one (a batch of users
  // and web domains writes no mail file). Both must outlive the object.
  FileChange(email::MtaInterface* mta, const RunLog& log) : mta_(mta), log_(log) {}
  ~FileChange();
  FileChange(const FileChange&) = delete;
  FileChange& operator=(const FileChange&) = delete;

  // Runs change, back-end calls that write the mail files, and sees the
  // files take it. undo (may be empty) sets the database back the way the
  // command's rule says when the files did not take it (a new row deleted
  // again, an earlier state restored); it must capture keys, not cursors.
  // On its own: the calls post into the cached copies only; then each
  // changed file is saved once and rebuilt (also after change threw: what
  // was posted before a failure is written, as a direct post would have
  // been). When change throws or a save or rebuild fails, undo runs and the
  // error passes (change's own error first). In a batch: the files are
  // saved at EndBatch; undo runs at once when change throws, else it is
  // kept for EndBatch. Throws what change and the engine throw.
  void Change(const std::function<void()>& change, const std::function<void()>& undo = nullptr);

  // Batch: from BeginBatch to EndBatch the engine defers every save, and
  // Change keeps each undo with the line set by BatchLine. Throws
  // pnl_err::Error when a batch is open already.
  void BeginBatch();
  bool InBatch() const { return batch_; }
  void BatchLine(int line) { batch_line_ = line; }
  // Saves each file the batch changed once and rebuilds it; when that
  // fails, drops what could not be saved, runs every kept undo (latest
  // first), fills *failure and returns the lines that changed files (they
  // failed with it); else returns no line. Then runs the AtBatchEnd steps.
  // Ends the batch in every case. Never throws.
  std::set<int> EndBatch(Failure* failure) noexcept;
  // A step for the end of the batch (after the saves, whether they
  // succeeded or not), run once however many lines ask for it under key:
  // for work a single command does after each change but a batch needs
  // once (reading a whole list back from the files). Outside a batch the
  // step runs now. Errors of a step at the batch's end are logged.
  void AtBatchEnd(const std::string& key, std::function<void()> step);
  // A step for once the files have taken a change (the mail of a deleted
  // mailbox moved away only when its lines are gone): outside a batch it
  // runs now (call it after Change); in a batch, at its end when the saves
  // succeeded, and never when they failed. A step's failure is a warning:
  // the change stands.
  void AfterSaved(const std::string& what, std::function<void()> step);

 private:
  void RunAfterSaved(const std::string& what, const std::function<void()>& step) const noexcept;

  void BeginDeferred();
  // Saves the files changed since the engine began deferring (it stops
  // deferring in every case), then what the back-end held back, and queues
  // the restart the MTA's changed local names need. Throws the first error
  // of the saves.
  void SaveDeferred();
  bool NamesChanged() const;
  void QueueRestartIfNamesChanged();
  // Runs the kept undos, latest first, then undo; forgets them.
  void UndoAll(const std::function<void()>& undo) noexcept;
  void RunUndo(const std::function<void()>& undo) const noexcept;

  struct Kept {
    int line;
    std::function<void()> undo;
  };
  email::MtaInterface* const mta_;
  const RunLog& log_;
  bool deferring_ = false;  // the engine defers saves for us
  bool batch_ = false;
  int batch_line_ = 0;
  std::vector<Kept> kept_;  // undos of the batch's lines, in order
  std::vector<std::pair<std::string, std::function<void()>>> at_end_;  // AtBatchEnd steps
  std::vector<std::pair<std::string, std::function<void()>>> after_saved_;  // in a batch
};

}  // namespace zelpnl
