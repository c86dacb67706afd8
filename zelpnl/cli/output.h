// zelpnl output: what a command prints on standard output, as text for a
// person or, with --json, as one JSON document for a program.
//
// A command hands its result once to Print: the JSON document and the text
// rendering of the same data. Text is quiet by default: a command that only
// changes something passes an empty text. Errors never go through here (the
// host writes them to standard error). One Output per run (in a batch, one
// per line, whose JSON documents are captured for the batch's report); not
// thread-safe.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace zelpnl {

class Output {
 public:
  // capture (JSON mode only; may be null): Print stores its document there,
  // replacing what it held, instead of writing it. The caller keeps it alive
  // while the Output is used.
  explicit Output(bool json, nlohmann::ordered_json* capture = nullptr)
      : json_(json), capture_(json ? capture : nullptr) {}

  bool json() const { return json_; }

  // JSON mode: writes data, pretty-printed, with a final line end (bytes that
  // are not UTF-8 are replaced; control characters escaped, all non-ASCII
  // ones too when the document holds a C1 or bidirectional control), or
  // captures it; a written object also gets the request's warnings so far
  // (pnl_warn) as "warnings" when there are any. Text mode: writes
  // Printable(text).
  void Print(const nlohmann::ordered_json& data, const std::string& text) const;

  // For a command that printed its result and still failed (a sync that
  // could not read everything, an address sendmail cannot deliver, a batch
  // with a failed line): it has written its "error: " lines itself
  // (PrintError) and the run exits with status (1, or 2 for bad usage).
  void SetFailed(int status = 1) const { status_ = status; }
  bool failed() const { return status_ != 0; }
  // The exit status the command asked for: 0 unless SetFailed was called.
  int status() const { return status_; }

 private:
  bool json_;
  nlohmann::ordered_json* capture_;
  mutable int status_ = 0;
};

// Writes "error: <object>: <detail>" (the detail's further lines below it)
// on stderr.
void PrintError(const std::string& object, const std::string& detail);
// Writes "warning: <message>" (its further lines below it) on stderr.
void PrintWarning(const std::string& message);

// text as a terminal may show it: line ends and tabs stay, every other
// control character (C0, DEL, C1) and the Unicode controls that reorder or
// hide text (bidirectional embeddings, overrides and isolates, the
// invisible marks) are written as \xNN or \u{NNNN}. Names and lines read
// back from hand-edited files reach the output through here.
std::string Printable(const std::string& text);

// A table for a person: the header and the rows in columns separated by two
// blanks, each line ending in a line end; columns padded to the widest cell
// (counted in characters, not bytes). No rows: the header alone.
std::string Table(const std::vector<std::string>& header,
                  const std::vector<std::vector<std::string>>& rows);

// "name: value" lines with the names padded to one width.
std::string Fields(const std::vector<std::pair<std::string, std::string>>& fields);

// A progress bar on standard error, drawn only when draw is set (the host
// passes whether standard error is a terminal): "\r<label> [####....] done/
// total <what>", redrawn at most every 50 ms and at the last step, wiped by
// Done and by the destructor. Not thread-safe.
class Progress {
 public:
  Progress(std::string label, size_t total, bool draw);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // One more step done; what names it (cut to 40 bytes).
  void Step(const std::string& what);
  // Wipes the bar (it is drawn again by the next Step).
  void Done();

 private:
  std::string label_;
  size_t total_;
  size_t done_ = 0;
  bool draw_;
  bool drawn_ = false;
  long long last_ms_ = -1;
};

// True when standard error is a terminal (where progress bars are drawn).
bool StderrIsTerminal();

// "yes" or "no".
inline const char* YesNo(bool value) { return value ? "yes" : "no"; }

// Lists joined by ", " ("-" when empty), for one cell or field.
std::string JoinOrDash(const std::vector<std::string>& items);

}  // namespace zelpnl
