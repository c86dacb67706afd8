// zelpnl batch [FILE|-]: many commands, one a line, in one request.
//
// The lines are read and checked when the command line is parsed, every one
// before anything is opened: when a line would be refused on the command
// line (bad usage, a value the checks refuse, a command that cannot be a
// batch line), nothing runs, every such line is named and the exit status is
// 2. Then the lines run in order, in one request (one database
// transaction), with the engine deferring every save (FileChange::BeginBatch):
// each changed file is saved once and rebuilt once, at the end. A line that
// fails is reported (its number, its text, the error) and the batch goes on,
// or stops with --stop-on-error. A failed line does not undo the lines
// before it, and leaves what its command leaves when it fails on its own
// (its new row deleted again, ...). When the files cannot be saved or
// rebuilt at the end, the lines that changed them fail with that error and
// are set back as their commands are when the back-end fails (the undo
// steps FileChange::Change kept).
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

#include "commands.h"
#include "validation.h"
#include "words.h"
#include "zelapi/err.h"
#include "zelapi/log.h"
#include "zelapi/str.h"

namespace zelpnl {

namespace {

constexpr char kBatchHelp[] =
    "Runs many commands, one a line, as one request: one database transaction, and each "
    "sendmail file the lines change saved and rebuilt once, at the end (one makemap or "
    "newaliases per file however many lines changed it).\n\n"
    "A line is a command as on the command line, without the leading \"zelpnl\" and without "
    "--config or --json (those are the batch's). Blank lines and lines starting with \"#\" are "
    "skipped. Words are split as a shell splits them: '...' and \"...\" quote blanks, $'...' "
    "takes \\n and \\t (a responder text over several lines), a backslash quotes one "
    "character. init, batch and mail check cannot be batch lines.\n\n"
    "Every line is checked first: when one is malformed or has a value the checks refuse, "
    "nothing runs and the exit status is 2. Then the lines run in order. A line that fails "
    "(an unknown mailbox, a duplicate, ...) is reported on standard error with its number, "
    "its text and the error, and the batch goes on with the next line (or stops there with "
    "--stop-on-error); it does not undo the lines before it. When the files cannot be saved "
    "or rebuilt at the end, the lines that changed them fail too and are set back as a "
    "single command is when its rebuild fails: their new rows are deleted again and their "
    "state changes not stored. Exit status 1 when any line failed.\n\n"
    "Each line's text output goes to standard output as the line runs; with --json, one "
    "report: every line with its status (done, failed, refused, not_run) and its command's "
    "JSON output or its error. A progress bar goes to standard error when it is a terminal.";

const pnl_log::Module& Log() {
  static const pnl_log::Module log("batch", "zelpnl");
  return log;
}

struct Line {
  int number = 0;     // in the file, from 1
  std::string text;   // as written, without the surrounding blanks
  Command command;    // to run; no run when refused
  Failure refused{pnl_err::Kind::kInternal, "", "", 0};  // status 0 unless refused
};

struct Plan {
  std::string source;  // the file, or "-" for standard input
  bool stop_on_error = false;
  std::vector<Line> lines;
  size_t refused = 0;
};

std::string ReadInput(const std::string& source) {
  if (source == "-") {
    std::ostringstream text;
    text << std::cin.rdbuf();
    return text.str();
  }
  std::error_code ec;
  if (std::filesystem::is_directory(source, ec))
    throw Invalid("batch file", source, "is a folder");
  std::ifstream in(source, std::ios::binary);
  if (!in) throw Invalid("batch file", source, std::string("cannot be read: ") + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw Invalid("batch file", source, "cannot be read");
  return text.str();
}

// The command of one line's words. Throws Invalid, or CLI::ParseError for
// what the command line's parser refuses.
Command ParseLine(std::vector<std::string> words) {
  // The first word that is no option names the command.
  for (const std::string& word : words) {
    if (!word.empty() && word[0] == '-') continue;
    if (word == "batch")
      throw Invalid("command", word, "cannot be a batch line: a batch cannot run another batch");
    break;
  }
  CLI::App app{"", "zelpnl"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_help_flag();
  bool json = false;
  std::string config;
  app.add_flag("--json", json);
  app.add_option("--config", config);
  Command command;
  AddCommandsFor(app, &command, words);
  std::reverse(words.begin(), words.end());
  app.parse(words);
  if (json) throw Invalid("option", "--json", "is an option of the batch, not of its lines");
  if (!config.empty())
    throw Invalid("option", "--config", "is an option of the batch, not of its lines");
  if (!command.run) throw Invalid("command", "", "no command given");
  if (!command.not_in_batch.empty()) {
    std::string name;
    for (const CLI::App* sub = app.get_subcommands().empty() ? nullptr : app.get_subcommands()[0];
         sub; sub = sub->get_subcommands().empty() ? nullptr : sub->get_subcommands()[0])
      name += (name.empty() ? "" : " ") + sub->get_name();
    throw Invalid("command", name, "cannot be a batch line: it " + command.not_in_batch);
  }
  return command;
}

Plan Read(const std::string& source, bool stop_on_error) {
  Plan plan;
  plan.source = source;
  plan.stop_on_error = stop_on_error;
  const std::string text = ReadInput(source);
  size_t start = 0;
  int number = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string raw = text.substr(start, end - start);
    start = end + 1;
    ++number;
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();
    Line line;
    line.number = number;
    line.text = str::Trim(raw);
    try {
      if (raw.find('\0') != std::string::npos)
        throw Invalid("batch line", line.text, "holds a NUL byte");
      std::vector<std::string> words = SplitWords(raw);
      if (words.empty()) continue;  // blank, or a comment
      line.command = ParseLine(std::move(words));
    } catch (const CLI::ParseError& e) {
      line.refused = {pnl_err::Kind::kUsage, "", e.what(), 2};
    } catch (...) {
      line.refused = CurrentFailure();
      line.refused.status = 2;
    }
    if (line.refused.status != 0) ++plan.refused;
    plan.lines.push_back(std::move(line));
  }
  return plan;
}

std::string LineObject(const Line& line) {
  return "line " + std::to_string(line.number) + " " + Quote(line.text);
}

// "error: line N "TEXT": OBJECT: DETAIL" on standard error.
void PrintLineError(const Line& line, const Failure& f) {
  PrintError(LineObject(line), (f.object.empty() ? "" : f.object + ": ") + f.detail);
}

nlohmann::ordered_json ErrorJson(const Failure& f) {
  std::string detail = f.detail;
  while (!detail.empty() && (detail.back() == '\n' || detail.back() == '\r')) detail.pop_back();
  return {{"type", pnl_err::KindName(f.kind)}, {"object", f.object}, {"detail", detail}, {"status", f.status}};
}

// At most ten line numbers, "1, 2, 3 and 7 more".
std::string SomeLines(const std::vector<int>& numbers) {
  std::string out;
  const size_t shown = std::min<size_t>(numbers.size(), 10);
  for (size_t i = 0; i < shown; ++i) out += (i ? ", " : "") + std::to_string(numbers[i]);
  if (numbers.size() > shown) out += " and " + std::to_string(numbers.size() - shown) + " more";
  return out;
}

enum class Status { kNotRun, kDone, kFailed, kRefused };

const char* StatusName(Status s) {
  switch (s) {
    case Status::kDone: return "done";
    case Status::kFailed: return "failed";
    case Status::kRefused: return "refused";
    case Status::kNotRun: break;
  }
  return "not_run";
}

struct Result {
  Status status = Status::kNotRun;
  nlohmann::ordered_json output;  // the command's JSON output (--json only)
  Failure error;
};

// Ends the batch on every way out of Run: the changes made so far are saved
// (or set back), never left unsaved under a committed transaction.
class BatchGuard {
 public:
  explicit BatchGuard(Host& host) : host_(host) { host_.Files().BeginBatch(); }
  ~BatchGuard() { End(); }
  BatchGuard(const BatchGuard&) = delete;
  BatchGuard& operator=(const BatchGuard&) = delete;
  std::set<int> End() {
    if (!open_) return {};
    open_ = false;
    return host_.Files().EndBatch(&failure);
  }
  Failure failure{pnl_err::Kind::kInternal, "", "", 0};  // status 0 unless the saves failed

 private:
  Host& host_;
  bool open_ = true;
};

void Report(const Output& out, const Plan& plan, const std::vector<Result>& results,
            const Failure* save_failure) {
  if (!out.json()) return;
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  size_t counts[4] = {0, 0, 0, 0};
  for (size_t i = 0; i < plan.lines.size(); ++i) {
    const Line& line = plan.lines[i];
    const Result& r = results[i];
    ++counts[static_cast<int>(r.status)];
    nlohmann::ordered_json item = {
        {"line", line.number}, {"command", line.text}, {"status", StatusName(r.status)}};
    if (r.status == Status::kDone) item["output"] = r.output;
    if (r.status == Status::kFailed || r.status == Status::kRefused) item["error"] = ErrorJson(r.error);
    list.push_back(std::move(item));
  }
  out.Print({{"batch",
              {{"file", plan.source},
               {"lines", plan.lines.size()},
               {"done", counts[static_cast<int>(Status::kDone)]},
               {"failed", counts[static_cast<int>(Status::kFailed)]},
               {"refused", counts[static_cast<int>(Status::kRefused)]},
               {"not_run", counts[static_cast<int>(Status::kNotRun)]},
               {"save_error", save_failure ? ErrorJson(*save_failure) : nlohmann::ordered_json()},
               {"results", std::move(list)}}}},
            "");
}

void Refuse(const Output& out, const Plan& plan) {
  std::vector<Result> results(plan.lines.size());
  for (size_t i = 0; i < plan.lines.size(); ++i) {
    const Line& line = plan.lines[i];
    if (line.refused.status == 0) continue;
    results[i].status = Status::kRefused;
    results[i].error = line.refused;
    PrintLineError(line, line.refused);
  }
  PrintError("batch", std::to_string(plan.refused) + " of " + std::to_string(plan.lines.size()) +
                          " lines refused; nothing was run");
  Report(out, plan, results, nullptr);
  out.SetFailed(2);
}

void Run(Host& host, const Output& out, const Plan& plan) {
  if (plan.refused > 0) return Refuse(out, plan);
  std::vector<Result> results(plan.lines.size());
  if (plan.lines.empty()) return Report(out, plan, results, nullptr);

  Progress bar("batch", plan.lines.size(), StderrIsTerminal());
  BatchGuard batch(host);
  std::vector<int> failed;
  size_t stopped_after = plan.lines.size();
  for (size_t i = 0; i < plan.lines.size(); ++i) {
    const Line& line = plan.lines[i];
    Result& r = results[i];
    host.Files().BatchLine(line.number);
    bar.Step(line.text);
    const Output line_out(out.json(), &r.output);
    try {
      line.command.run(host, line_out);
      r.status = line_out.failed() ? Status::kFailed : Status::kDone;
      if (line_out.failed())
        r.error = {pnl_err::Kind::kFailed, "", "the command reported failures (see its output)", 1};
    } catch (...) {
      r.status = Status::kFailed;
      r.error = CurrentFailure();
      bar.Done();
      PrintLineError(line, r.error);
    }
    if (r.status == Status::kFailed) {
      failed.push_back(line.number);
      Log().Error("failed: " + LineObject(line) + ": " +
                  (r.error.object.empty() ? "" : r.error.object + ": ") + r.error.detail);
      if (plan.stop_on_error) {
        stopped_after = i;
        break;
      }
    }
  }
  bar.Done();

  const std::set<int> set_back = batch.End();
  const Failure* save_failure = nullptr;
  if (!set_back.empty() || batch.failure.status != 0) {
    save_failure = &batch.failure;
    PrintError(batch.failure.object, batch.failure.detail);
    std::vector<int> numbers;
    for (size_t i = 0; i < plan.lines.size(); ++i) {
      if (!set_back.count(plan.lines[i].number)) continue;
      numbers.push_back(plan.lines[i].number);
      if (results[i].status != Status::kDone) continue;
      results[i].status = Status::kFailed;
      results[i].error = batch.failure;
      failed.push_back(plan.lines[i].number);
    }
    PrintError("batch", "the files could not be saved and rebuilt at its end; the " +
                            std::to_string(numbers.size()) + " line" +
                            (numbers.size() == 1 ? "" : "s") + " that changed them (" +
                            SomeLines(numbers) +
                            ") failed with it: new rows were deleted again, state changes not "
                            "stored");
    Log().Error("failed: saving the files at the end of the batch: " + batch.failure.object +
                ": " + batch.failure.detail);
  }
  if (!failed.empty()) {
    std::sort(failed.begin(), failed.end());
    failed.erase(std::unique(failed.begin(), failed.end()), failed.end());
    std::string summary = std::to_string(failed.size()) + " of " +
                          std::to_string(plan.lines.size()) + " lines failed";
    if (stopped_after < plan.lines.size()) {
      const size_t skipped = plan.lines.size() - stopped_after - 1;
      summary += "; stopped at line " + std::to_string(plan.lines[stopped_after].number) +
                 (skipped ? ", the " + std::to_string(skipped) + " after it were not run" : "");
    } else {
      summary += "; the others were applied";
    }
    PrintError("batch", summary);
    Log().Error("batch " + plan.source + ": " + summary);
    out.SetFailed(1);
  } else if (save_failure) {
    out.SetFailed(1);
  }
  Report(out, plan, results, save_failure);
}

}  // namespace

void AddBatchCommand(CLI::App& app, Command* out) {
  CLI::App* batch = app.add_subcommand(
      "batch", "Run many commands, one a line, as one request; each changed file saved and "
               "rebuilt once, at the end");
  batch->footer(kBatchHelp);
  auto file = std::make_shared<std::string>("-");
  auto stop = std::make_shared<bool>(false);
  batch->add_option("FILE", *file, "The commands; \"-\" or none: standard input")
      ->option_text("FILE|-");
  batch->add_flag("--stop-on-error", *stop,
                  "Stop at the first line that fails (the lines before it stay applied)");
  batch->callback([=] {
    auto plan = std::make_shared<const Plan>(Read(*file, *stop));
    Needs needs = Needs::kNothing;
    if (plan->refused == 0)
      for (const Line& line : plan->lines) needs = std::max(needs, line.command.needs);
    if (needs != Needs::kNothing) needs = std::max(needs, Needs::kDatabase);
    *out = {needs, [plan](Host& h, const Output& o) { Run(h, o, *plan); },
            "a batch cannot run another batch"};
  });
}

}  // namespace zelpnl
