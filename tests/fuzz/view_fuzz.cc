// Fuzz target for one record view (chosen at build time by ZEL_FUZZ_VIEW):
// the input is a whole file. Read through the engine and the view (in
// memory), walked record by record; saved unchanged it must come back byte
// for byte; one record changed, only that record's line may differ.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "email/file_views.h"
#include "email/tables.h"
#include "memory_files.h"
#include "sandbox.h"
#include "zelapi/err.h"

namespace {

#if ZEL_FUZZ_VIEW == 0
using Table = email::LocalHostNames;
using View = email::HostNames;
dd::Field& Changed(View& v) { return v.name; }
const char kValue[] = "fuzz.example";
#elif ZEL_FUZZ_VIEW == 1
using Table = email::VirtualUserTable;
using View = email::VirtualDomains;
dd::Field& Changed(View& v) { return v.target; }
const char kValue[] = "error:nouser fuzz";
#elif ZEL_FUZZ_VIEW == 2
using Table = email::VirtualUserTable;
using View = email::VirtualEmails;
dd::Field& Changed(View& v) { return v.target; }
const char kValue[] = "fuzz+d.example";
#elif ZEL_FUZZ_VIEW == 3
using Table = email::AliasTable;
using View = email::Aliases;
dd::Field& Changed(View& v) { return v.alias; }
const char kValue[] = "fuzz\\@d.example";
#else
using Table = email::AccessDb;
using View = email::SourceTarget;
dd::Field& Changed(View& v) { return v.target; }
const char kValue[] = "FUZZ";
#endif

const char kPath[] = "/fuzz/file";

[[noreturn]] void Broken(const char* what) {
  fprintf(stderr, "view fuzz: %s\n", what);
  abort();
}

// Whether line continues the line before it: it starts with a blank, or,
// in the aliases file, the line before ends in a backslash.
bool Continues(const std::string& before, const std::string& line) {
  if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) return true;
#if ZEL_FUZZ_VIEW == 3
  return before.size() >= 2 && before.compare(before.size() - 2, 2, "\\\n") == 0;
#else
  (void)before;
  return false;
#endif
}

// The lines a[h, a.size() - t) were replaced by b[h, b.size() - t): what is
// wrong with that as the change of one record (one line of the old text
// with the continuation lines after it, against new lines that hold the new
// value), or "" when nothing is.
const char* OneRecordProblem(const std::vector<std::string>& a, const std::vector<std::string>& b,
                             size_t h, size_t t) {
  const size_t old_lines = a.size() - h - t, new_lines = b.size() - h - t;
  if (new_lines == 0) return "a change removed lines and wrote none";
  for (size_t i = 1; i < old_lines; ++i)
    if (!Continues(a[h + i - 1], a[h + i])) return "a change touched more than one record's lines";
  std::string written;
  for (size_t i = 0; i < new_lines; ++i) written += b[h + i];
  if (written.find(kValue) == std::string::npos) return "the changed lines lack the new value";
  return "";
}

// Only one stretch of lines differs, and it is one record's. Where the new
// lines equal lines next to them (the text held the new value already), the
// common ends can be drawn in more than one place: the change passes when
// one of them shows it as one record's.
void CheckOneRecordChanged(const std::string& before, const std::string& after) {
  const std::vector<std::string> a = zeltest::Lines(before), b = zeltest::Lines(after);
  const zeltest::CommonEnds ends = zeltest::FindCommonEnds(a, b);
  if (ends.head + ends.tail == a.size() && ends.head + ends.tail == b.size()) return;  // the value was there already
  const char* problem = OneRecordProblem(a, b, ends.head, ends.tail);
  for (size_t h = ends.head + 1; h-- > 0 && *problem;)
    for (size_t t = ends.tail + 1; t-- > 0 && *problem;)
      if (h + t <= a.size() && h + t <= b.size() && *OneRecordProblem(a, b, h, t) == '\0')
        problem = "";
  if (*problem) Broken(problem);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::shared_ptr<zelfuzz::MemoryFiles> files = [] {
    auto f = std::make_shared<zelfuzz::MemoryFiles>();
    pnl_file::SetOps(f);
    return f;
  }();
  const std::string text(reinterpret_cast<const char*>(data), size);
  files->Put(kPath, text);
  std::string now;
  try {
    Cursor<View> cursor = Table::Get<View>(kPath, true);
    size_t records = 0;
    for (cursor->First(); !cursor->Eof(); cursor->Next()) {
      ++records;
      for (size_t i = 0; i < cursor->FieldCount(); ++i) (void)cursor->FieldAt(i).Str();
    }
    if (records == 0) return 0;

    cursor->First();
    cursor->Post("");
    files->Get(kPath, now);
    if (now != text) Broken("saved unchanged, the file is not the same bytes");

    // One record, picked by the input, gets a new value.
    size_t pick = 0;
    for (uint8_t c : text) pick = pick * 31 + c;
    pick %= records;
    cursor->First();
    for (size_t i = 0; i < pick; ++i) cursor->Next();
    Changed(*cursor) = std::string(kValue);
    try {
      cursor->Post("");
    } catch (const pnl_err::Error&) {
      // Refused (the line would not read back as written): nothing changed.
      files->Get(kPath, now);
      if (now != text) Broken("a refused change changed the file");
      return 0;
    }
    files->Get(kPath, now);
    CheckOneRecordChanged(text, now);
  } catch (const pnl_err::Error& e) {
    fprintf(stderr, "view fuzz: %s\n", e.what());
    abort();
  }
  return 0;
}
