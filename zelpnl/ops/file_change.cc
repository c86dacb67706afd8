#include "file_change.h"

#include "email/mta_interface.h"
#include "run_log.h"
#include "zelapi/conf/cache.h"
#include "zelapi/err.h"
#include "zelapi/warn.h"

namespace zelpnl {

namespace {

PnlConfCache& Engine() { return *BaseCachedConfig<PnlConfCache>::Instance(); }

}  // namespace

FileChange::~FileChange() {
  if (deferring_) Engine().DiscardDeferred();
}

void FileChange::RunUndo(const std::function<void()>& undo) const noexcept {
  if (!undo) return;
  // The error that made the undo run is the one told; the undo's own failure
  // goes to the log.
  try {
    undo();
  } catch (const std::exception& e) {
    try {
      log_.Error(std::string("setting the database back after a failure: ") + e.what());
    } catch (...) {
    }
  }
}

void FileChange::UndoAll(const std::function<void()>& undo) noexcept {
  for (auto it = kept_.rbegin(); it != kept_.rend(); ++it) RunUndo(it->undo);
  kept_.clear();
  RunUndo(undo);
}

void FileChange::BeginDeferred() {
  if (mta_) mta_->BeginSaves();
  Engine().BeginDeferred();
  deferring_ = true;
}

void FileChange::SaveDeferred() {
  deferring_ = false;
  try {
    Engine().FlushDeferred();
  } catch (...) {
    // A file that could not be written (or whose rebuild failed) and the
    // files after it keep their changes only in memory: they are dropped,
    // and read again at their next use. What waited on them goes too.
    Engine().DiscardDeferred();
    if (mta_) mta_->DropHeldRemovals();
    QueueRestartIfNamesChanged();
    throw;
  }
  // The removals that waited on this save: the lines that pointed at what
  // they remove are gone from the maps now.
  bool held = false;
  if (mta_) {
    Engine().BeginDeferred();
    try {
      held = mta_->PostHeldRemovals();
    } catch (const std::exception& e) {
      Engine().DiscardDeferred();
      pnl_warn::Add(std::string("removing what deleted objects left in the files: ") + e.what());
    }
  }
  // A domain the local names no longer list keeps its catch-all line until
  // the MTA has read its local names again: restart it now, before the
  // catch-all goes, instead of after the request.
  if (held && NamesChanged()) {
    mta_->RestartNow();
  } else {
    QueueRestartIfNamesChanged();
  }
  if (Engine().Deferred()) {
    try {
      Engine().FlushDeferred();
    } catch (const std::exception& e) {
      Engine().DiscardDeferred();
      pnl_warn::Add(std::string("removing what deleted objects left in the files: ") + e.what());
    }
  }
}

bool FileChange::NamesChanged() const { return mta_ && mta_->LocalNamesChanged(); }

void FileChange::QueueRestartIfNamesChanged() {
  // The local names' file asks for its restart only after a direct save;
  // after a deferred one it is queued here.
  try {
    if (NamesChanged()) mta_->RestartLater();
  } catch (const std::exception& e) {
    log_.Error(std::string("queueing the restart: ") + e.what());
  }
}

void FileChange::Change(const std::function<void()>& change, const std::function<void()>& undo) {
  if (deferring_) {
    // In a batch (or inside another Change): saved at its end.
    try {
      change();
    } catch (...) {
      RunUndo(undo);
      throw;
    }
    kept_.push_back({batch_line_, undo});
    return;
  }
  BeginDeferred();
  try {
    change();
  } catch (...) {
    try {
      SaveDeferred();
    } catch (const std::exception& e) {
      log_.Error(std::string("saving the files after a failure: ") + e.what());
    }
    UndoAll(undo);
    throw;
  }
  try {
    SaveDeferred();
  } catch (...) {
    UndoAll(undo);
    throw;
  }
  kept_.clear();
}

void FileChange::BeginBatch() {
  if (batch_ || deferring_) throw pnl_err::Error(pnl_err::Kind::kBatch, "batch", "a batch is open already");
  BeginDeferred();
  batch_ = true;
  batch_line_ = 0;
  kept_.clear();
}

std::set<int> FileChange::EndBatch(Failure* failure) noexcept {
  std::set<int> failed;
  if (!batch_) return failed;
  batch_ = false;
  std::vector<std::pair<std::string, std::function<void()>>> after_saved = std::move(after_saved_);
  after_saved_.clear();
  try {
    SaveDeferred();
    for (const auto& step : after_saved) RunAfterSaved(step.first, step.second);
  } catch (...) {
    if (failure) *failure = CurrentFailure();
    for (const Kept& kept : kept_) failed.insert(kept.line);
    UndoAll(nullptr);
  }
  kept_.clear();
  batch_line_ = 0;
  std::vector<std::pair<std::string, std::function<void()>>> steps = std::move(at_end_);
  at_end_.clear();
  for (const auto& step : steps) {
    try {
      step.second();
    } catch (const std::exception& e) {
      log_.Error("at the end of the batch, " + step.first + ": " + e.what());
    }
  }
  return failed;
}

void FileChange::RunAfterSaved(const std::string& what,
                               const std::function<void()>& step) const noexcept {
  try {
    step();
  } catch (const std::exception& e) {
    try {
      pnl_warn::Add(what + ": " + e.what());
    } catch (...) {
    }
  }
}

void FileChange::AfterSaved(const std::string& what, std::function<void()> step) {
  if (!batch_) {
    RunAfterSaved(what, step);
    return;
  }
  after_saved_.emplace_back(what, std::move(step));
}

void FileChange::AtBatchEnd(const std::string& key, std::function<void()> step) {
  if (!batch_) {
    step();
    return;
  }
  for (const auto& kept : at_end_)
    if (kept.first == key) return;
  at_end_.emplace_back(key, std::move(step));
}

}  // namespace zelpnl
