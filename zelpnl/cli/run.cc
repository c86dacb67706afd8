#include "run.h"

#include <sys/resource.h>

#include <iostream>

#include "email/mta_interface.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/mail/responder_settings.h"
#include "zelapi/mail/tables.h"
#include "zelapi/warn.h"

namespace zelpnl {

namespace {

std::string TrimLineEnds(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

int Report(bool json, const Failure& f, const RunLog* log) {
  const std::string& object = f.object;
  PrintError(object, f.detail);
  if (f.status == 1 && log)
    log->Error("failed: " + log->command_line() + ": " + (object.empty() ? "" : object + ": ") +
               TrimLineEnds(f.detail));
  if (json) {
    nlohmann::ordered_json doc = {{"error",
                           {{"type", pnl_err::KindName(f.kind)}, {"object", object}, {"detail", TrimLineEnds(f.detail)},
                            {"status", f.status}}}};
    Output(true).Print(doc, "");
  }
  return f.status;
}

// Tells the request's warnings (pnl_warn) when it goes out of scope, after
// the command's output and error: each as "warning: TEXT" on standard
// error, and in the log.
class WarningsAtEnd {
 public:
  explicit WarningsAtEnd(const RunLog& log) : log_(log) {}
  WarningsAtEnd(const WarningsAtEnd&) = delete;
  WarningsAtEnd& operator=(const WarningsAtEnd&) = delete;
  ~WarningsAtEnd() {
    try {
      for (const std::string& warning : pnl_warn::Take()) {
        PrintWarning(warning);
        log_.Warning(log_.command_line() + ": " + warning);
      }
    } catch (...) {
    }
  }

 private:
  const RunLog& log_;
};

// Logs the process's peak memory at debug level when it goes out of scope
// (the commands it ran are not counted): "peak memory N KiB".
class PeakMemoryNote {
 public:
  explicit PeakMemoryNote(const RunLog& log) : log_(log) {}
  PeakMemoryNote(const PeakMemoryNote&) = delete;
  PeakMemoryNote& operator=(const PeakMemoryNote&) = delete;
  ~PeakMemoryNote() {
    if (!log_.ready()) return;
    struct rusage usage {};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return;
    try {
      log_.Debug("peak memory " + std::to_string(usage.ru_maxrss) + " KiB");
    } catch (...) {
    }
  }

 private:
  const RunLog& log_;
};

// Ends the request (commit) and runs the deferred commands; their failures
// are in the log and told as one warning.
void FinishRequest(pnl_db::Cache& db) {
  db.EndRequest();
  const int failed = zel_api::RunDeferred();
  if (failed > 0) {
    const std::string log_file = pnl_cf::GetParam("log_file");
    PrintWarning(std::to_string(failed) + " deferred command" + (failed == 1 ? "" : "s") +
                 " failed" + (log_file.empty() ? "" : " (see " + log_file + ")"));
  }
}

}  // namespace

int ReportCurrentException(bool json, const RunLog* log) {
  return Report(json, CurrentFailure(), log);
}

int Execute(const GlobalOptions& options, const Command& command) {
  const Output out(options.json);
  RunLog log(options.line);
  // Told last, once the host is gone: what the run needed at most.
  const PeakMemoryNote peak(log);
  // The host outlives the report: an error may come from a module's code.
  Host host(options.config, log);
  const WarningsAtEnd warnings(log);
  try {
    host.Open(command.needs);
    if (command.needs < Needs::kDatabase) {
      command.run(host, out);
      if (!out.failed()) log.Info("done: " + log.command_line());
      return out.status();
    }
    pnl_db::Cache& db = host.Db();
    db.BeginRequest();
    // The responder's settings files follow the rows the request changes.
    email::WatchResponderSettings(db);
    if (command.needs == Needs::kMail) host.Mta().RebuildStaleMaps();
    try {
      command.run(host, out);
    } catch (...) {
      // What was posted before the failure stays; the error is told after.
      try {
        FinishRequest(db);
      } catch (const std::exception& e) {
        log.Error(std::string("ending the failed request: ") + e.what());
      }
      throw;
    }
    FinishRequest(db);
    if (!out.failed()) log.Info("done: " + log.command_line());
    return out.status();
  } catch (...) {
    return ReportCurrentException(options.json, &log);
  }
}

}  // namespace zelpnl
