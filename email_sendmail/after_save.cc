#include "email_sendmail/after_save.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <set>
#include <string_view>
#include <vector>

#include "email/fail.h"
#include "email/tables.h"
#include "zelaliasdb/aliases_file.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/file.h"
#include "zelapi/proc.h"
#include "zelapi/str.h"
#include "zelapi/warn.h"

namespace zelpriv_email_sendmail {

namespace {

// Codes 0 (records posted or deleted) and 2 (a deferred save of several
// changes); the test is that the code with bit 1 cleared is zero.
bool RebuildsMaps(ConfCache::SaveReason reason) { return (reason & ~2) == 0; }

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    lines.push_back(text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
  }
  return lines;
}

// "line N: REST" at the start of text: N and REST; false when text is not so.
bool LineMessage(std::string_view text, std::size_t& number, std::string_view& rest) {
  if (text.substr(0, 5) != "line ") return false;
  std::size_t i = 5;
  number = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i < 15)
    number = number * 10 + static_cast<std::size_t>(text[i++] - '0');
  if (i == 5 || text.substr(i, 2) != ": ") return false;
  rest = text.substr(i + 2);
  return true;
}

// A tool's words, cut for a warning.
std::string Cut(std::string_view text) {
  constexpr std::size_t kMost = 160;
  if (text.size() <= kMost) return std::string(text);
  return std::string(text.substr(0, kMost)) + "...";
}

// One entry a failed rebuild left out, as read from the tool's report.
struct Left {
  std::string key;                // as the tool keys it (lower case); "" when the line has none
  std::string shown;              // how a warning names it
  std::vector<std::string> said;  // the tool's lines about it ("line N: ...")
};

// A failed rebuild's report, read: which entries it left out. read is false
// when some line of it could not be read (then nothing is concluded).
struct Report {
  bool read = false;
  std::vector<Left> left;
};

// Collects what the report says per entry, in file order.
class Collector {
 public:
  void Add(std::size_t where, const std::string& key, const std::string& shown, std::string said) {
    auto [it, fresh] = by_place_.try_emplace(where);
    if (fresh) {
      it->second.key = key;
      it->second.shown = shown;
    }
    it->second.said.push_back(std::move(said));
  }
  // An entry the tool names by its key, wherever it is.
  void Named(const std::string& key, std::string said) {
    Add(kNamed + named_++, key, key, std::move(said));
  }
  std::vector<Left> Take() {
    std::vector<Left> out;
    for (auto& [where, left] : by_place_) out.push_back(std::move(left));
    return out;
  }

 private:
  static constexpr std::size_t kNamed = static_cast<std::size_t>(1) << 40;
  std::map<std::size_t, Left> by_place_;
  std::size_t named_ = 0;
};

// The text of the saved file, or false when it cannot be read.
bool SavedText(const std::string& path, std::string& text) {
  try {
    pnl_file::FileId id;
    return pnl_file::ReadFile(path, text, id);
  } catch (const std::exception&) {
    return false;
  }
}

// makemap's report: "makemap: FILE: line N: MESSAGE", N counting the pieces
// makemap reads (a line longer than its buffer, "line too long (M bytes
// max)", is read as several), and "key K: duplicate key" naming the key of
// a line it refused as a repeat. The key of a line is its first word, in
// lower case (makemap's keys).
Report ReadMakemapReport(const std::string& file, const std::string& output) {
  Report report;
  std::string text;
  if (!SavedText(file, text)) return report;
  const std::vector<std::string_view> lines = SplitLines(text);
  const std::string prefix = "makemap: " + file + ": ";

  struct Said {
    std::size_t number;
    std::string_view rest;
  };
  std::vector<Said> said;
  std::size_t buffer = 0;  // makemap's line buffer, when it said so
  for (std::string_view out : SplitLines(output)) {
    if (out.empty()) continue;
    if (out.substr(0, prefix.size()) != prefix) return report;
    Said s{};
    if (!LineMessage(out.substr(prefix.size()), s.number, s.rest)) return report;
    const std::string_view too_long = "line too long (";
    if (s.rest.substr(0, too_long.size()) == too_long) {
      std::size_t most = 0;
      std::size_t i = too_long.size();
      while (i < s.rest.size() && s.rest[i] >= '0' && s.rest[i] <= '9' && i < too_long.size() + 9)
        most = most * 10 + static_cast<std::size_t>(s.rest[i++] - '0');
      if (most < 2 || s.rest.substr(i) != " bytes max)" || (buffer != 0 && buffer != most)) return report;
      buffer = most;
    }
    said.push_back(s);
  }
  if (said.empty()) return report;

  // The first piece number of each line of the file: a line of L bytes
  // with its line end is ceil(L / (buffer - 1)) pieces.
  std::vector<std::size_t> first_piece(lines.size() + 1);
  std::size_t piece = 1;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    first_piece[i] = piece;
    const std::size_t bytes = lines[i].size() + (i + 1 < lines.size() || text.back() == '\n' ? 1 : 0);
    piece += buffer == 0 ? 1 : std::max<std::size_t>(1, (bytes + buffer - 2) / (buffer - 1));
  }
  first_piece[lines.size()] = piece;

  Collector collector;
  for (const Said& s : said) {
    const std::string message = "line " + std::to_string(s.number) + ": " + Cut(s.rest);
    const std::string_view key_prefix = "key ";
    const std::string_view duplicate = ": duplicate key";
    if (s.rest.substr(0, key_prefix.size()) == key_prefix && s.rest.size() > key_prefix.size() + duplicate.size() &&
        s.rest.substr(s.rest.size() - duplicate.size()) == duplicate) {
      const std::string_view key =
          s.rest.substr(key_prefix.size(), s.rest.size() - key_prefix.size() - duplicate.size());
      collector.Named(Lower(key), message);
      continue;
    }
    const auto after = std::upper_bound(first_piece.begin(), first_piece.end(), s.number);
    if (s.number == 0 || after == first_piece.begin() || after == first_piece.end()) return report;
    const std::size_t index = static_cast<std::size_t>(after - first_piece.begin()) - 1;
    const std::string_view line = lines[index];
    const std::size_t end = line.find_first_of(" \t");
    const std::string key = Lower(line.substr(0, end));
    collector.Add(index, key, key.empty() ? Cut(line.substr(0, 40)) : std::string(line.substr(0, end)), message);
  }
  report.left = collector.Take();
  report.read = true;
  return report;
}

// Whether path names a file other than the one whose identity is saved:
// an absolute path to a file that exists and is not that one. (A name that
// cannot be told apart is not taken for another file.)
bool OtherFile(std::string_view path, const pnl_file::FileId& saved) {
  if (path.empty() || path[0] != '/' || !saved.exists) return false;
  try {
    const pnl_file::FileId id = pnl_file::StatFile(std::string(path));
    return id.exists && (id.dev != saved.dev || id.ino != saved.ino);
  } catch (const std::exception&) {
    return false;
  }
}

// The aliases rebuild's report (sendmail -bi, or zelpnl-newaliases, which
// prints the same): "FILE: line N: MESSAGE" with N as sendmail counts lines,
// FILE shortened when long, and the summary "FILE: N aliases, longest ...".
// A duplicate ("NAME... Warning: duplicate alias name KEY") names its key;
// any other message is about the entry at line N. Messages about another
// aliases file (a rebuild of all the files of the configuration) are about
// entries this save did not write.
Report ReadAliasesReport(const std::string& file, const std::string& output) {
  Report report;
  std::string text;
  if (!SavedText(file, text)) return report;
  const pnl_file::FileId saved = pnl_file::StatFile(file);
  // Each logical line of the file by the range of line numbers sendmail gives it.
  struct Entry {
    std::size_t first, last;
    std::string key, shown;
  };
  std::vector<Entry> entries;
  zel_aliasdb::AliasesFile parsed(text);
  parsed.Cut([&](const zel_aliasdb::Line& line) {
    Entry e{line.first_line, line.line, std::string(line.key), ""};
    if (line.kind == zel_aliasdb::Line::Kind::kOdd) {
      const std::size_t colon = line.text.find(':');
      if (colon != std::string_view::npos) e.key = zel_aliasdb::KeyOf(line.text.substr(0, colon));
    }
    e.shown = e.key;
    entries.push_back(std::move(e));
  });

  const std::string names[] = {file + ": ", zel_aliasdb::ShortFileName(file) + ": "};
  Collector collector;
  bool any = false;
  std::size_t other = 0;
  for (std::string_view out : SplitLines(output)) {
    if (out.empty()) continue;
    std::string_view rest;
    std::size_t number = 0;
    bool ours = false;
    for (const std::string& name : names)
      ours = ours || (out.substr(0, name.size()) == name && LineMessage(out.substr(name.size()), number, rest));
    if (!ours) {
      const std::size_t at = out.find(": line ");
      if (at != std::string_view::npos && LineMessage(out.substr(at + 2), number, rest) &&
          OtherFile(out.substr(0, at), saved)) {
        any = true;
        collector.Add((static_cast<std::size_t>(1) << 41) + other++, "", "",
                      std::string(out.substr(0, at)) + ": line " + std::to_string(number) + ": " + Cut(rest));
        continue;
      }
      // The summary of a file ("FILE: 3 aliases, longest ..."), or unknown.
      if (out.find(" aliases, longest ") != std::string_view::npos && out.find(" bytes total") != std::string_view::npos)
        continue;
      return report;
    }
    any = true;
    const std::string message = "line " + std::to_string(number) + ": " + Cut(rest);
    const std::string_view duplicate = " duplicate alias name ";
    const std::size_t dup = rest.rfind(duplicate);
    if (dup != std::string_view::npos && rest.find("... Warning:") != std::string_view::npos) {
      collector.Named(Lower(rest.substr(dup + duplicate.size())), message);
      continue;
    }
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& e) { return e.first <= number && number <= e.last; });
    if (found == entries.end()) return report;
    collector.Add(static_cast<std::size_t>(found - entries.begin()), found->key, found->shown, message);
  }
  if (!any) return report;
  report.left = collector.Take();
  report.read = true;
  return report;
}

using ReportReader = Report (*)(const std::string& file, const std::string& output);

// Runs a rebuild command and waits. A failure carries the command's own
// output, unless its report shows that every entry it left out is one this
// save did not write (compared without letter case, as the maps key): then
// the change stands, and a warning names those entries.
void RunRebuild(const std::string& command, const std::string& name, ConfRef& ref, ReportReader read) {
  pnl_proc::Execute run(command, 2);
  if (run.Result() == 0) return;
  const std::string output = run.Str();
  const Report report = read(ref.FileName(), output);
  if (!report.read || report.left.empty()) throw email::Fail(name, output);
  std::set<std::string> mine;
  for (const std::string& key : ref.ChangedKeys()) {
    mine.insert(Lower(key));
    // A catch-all line of the virtual user table is keyed by its domain in
    // the engine, by "@domain" in the map.
    mine.insert("@" + Lower(key));
  }
  std::string entries;
  for (const Left& left : report.left) {
    if (!left.key.empty() && mine.count(left.key) > 0) throw email::Fail(name, output);
    std::string said;
    for (const std::string& s : left.said) said += (said.empty() ? "" : "; ") + s;
    entries += entries.empty() ? "" : ", ";
    entries += left.shown.empty() ? said : "\"" + left.shown + "\" (" + said + ")";
  }
  pnl_warn::Add(ref.FileName() + ": " + name + " refused entries this command did not write (the rest is built): " +
                entries);
}

}  // namespace

void RebuildHashedMap(ConfRef& ref, ConfCache::SaveReason& reason) {
  if (!RebuildsMaps(reason)) return;
  // A path a shell would split or expand goes in quotes.
  const std::string file = str::ShellWord(ref.FileName());
  RunRebuild("/usr/sbin/makemap hash " + file + " < " + file, "makemap", ref, &ReadMakemapReport);
}

void RebuildAliases(ConfRef& ref, ConfCache::SaveReason& reason) {
  if (!RebuildsMaps(reason)) return;
  RunRebuild(pnl_cf::GetPath("sendmail-newaliases"), "newaliases", ref, &ReadAliasesReport);
}

void QueueRestart(ConfRef&, ConfCache::SaveReason& reason) {
  if (reason != 0) return;
  zel_api::ExecuteLater(pnl_cf::GetPath("sendmail-restart"));
}

void InstallAfterSaveSteps() {
  email::LocalHostNames::SetAfterSaveStep(&QueueRestart);
  email::VirtualUserTable::SetAfterSaveStep(&RebuildHashedMap);
  email::AliasTable::SetAfterSaveStep(&RebuildAliases);
  email::AccessDb::SetAfterSaveStep(&RebuildHashedMap);
}

}  // namespace zelpriv_email_sendmail
