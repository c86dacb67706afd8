// zelpnl output: what a command prints on standard output, as text for a
// person or, with --json, as one JSON document for a program.
//
// A command hands its result once to Print: the JSON document and the text
// rendering of the same data. Text is quiet by default: a command that only
// changes something passes an empty text. Errors never go through here (the
// host writes them to standard error). One Output per run; not thread-safe.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace zelpnl {

class Output {
 public:
  explicit Output(bool json) : json_(json) {}

  bool json() const { return json_; }

  // JSON mode: writes data, pretty-printed, with a final line end (bytes that
  // are not UTF-8 are replaced). Text mode: writes text as it is.
  void Print(const nlohmann::ordered_json& data, const std::string& text) const;

  // For a command that printed its result and still failed (a sync that
  // could not read everything, an address sendmail cannot deliver): it has
  // written its "error: " lines itself (PrintError) and the run exits 1.
  void SetFailed() const { failed_ = true; }
  bool failed() const { return failed_; }

 private:
  bool json_;
  mutable bool failed_ = false;
};

// Writes "error: <object>: <detail>" (the detail's further lines below it)
// on stderr.
void PrintError(const std::string& object, const std::string& detail);

// A table for a person: the header and the rows in columns separated by two
// blanks, each line ending in a line end; columns padded to the widest cell
// (counted in characters, not bytes). No rows: the header alone.
std::string Table(const std::vector<std::string>& header,
                  const std::vector<std::vector<std::string>>& rows);

// "name: value" lines with the names padded to one width.
std::string Fields(const std::vector<std::pair<std::string, std::string>>& fields);

// "yes" or "no".
inline const char* YesNo(bool value) { return value ? "yes" : "no"; }

// Lists joined by ", " ("-" when empty), for one cell or field.
std::string JoinOrDash(const std::vector<std::string>& items);

}  // namespace zelpnl
