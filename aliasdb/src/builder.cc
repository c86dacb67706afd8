#include "zelaliasdb/builder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>

#include "zelaliasdb/aliases_file.h"
#include "zelaliasdb/hash_map.h"
#include "zelaliasdb/sendmail_oracle.h"
#include "zelapi/err.h"
#include "zelapi/fd.h"
#include "zelapi/file.h"
#include "zelapi/hash.h"

namespace zel_aliasdb {

namespace {

pnl_err::Error Fail(const std::string& object, const std::string& what, int err) {
  return pnl_err::Error(pnl_err::Kind::kAliasDb, object, what + ": " + std::strerror(err));
}

using pnl_file::Fd;
using pnl_file::FolderOf;

std::string ReadAll(pnl_file::Ops& ops, int fd, const std::string& path) {
  pnl_file::FileId id;
  int err = ops.Fstat(fd, id);
  if (err != 0) throw Fail(path, "cannot read", err);
  // One byte more than the file holds, so the end shows without growing
  // (and copying) the buffer; a file that grew meanwhile still reads whole.
  std::string text;
  text.resize(static_cast<std::size_t>(id.size) + 1);
  std::size_t done = 0;
  for (;;) {
    if (done == text.size()) text.resize(text.size() * 2);
    std::size_t got = 0;
    if ((err = ops.Read(fd, text.data() + done, text.size() - done, got)) != 0)
      throw Fail(path, "cannot read", err);
    if (got == 0) break;
    done += got;
  }
  text.resize(done);
  return text;
}

// The temporary names of a map being built, beside the target (the name
// reserved, and the one makemap makes of it): removed unless committed.
class TempMap {
 public:
  TempMap(pnl_file::Ops& ops, const std::string& target) : temp_(ops) {
    const int err = temp_.Make(FolderOf(target), pnl_file::BaseName(target));
    if (err != 0) throw Fail(target, "cannot make a temporary file beside it", err);
    // The map library and makemap open the file by its name.
    temp_.Close();
    temp_.AlsoRemove(temp_.path() + ".db");
  }

  const std::string& reserved() const { return temp_.path(); }
  void Commit() { temp_.Commit(); }

 private:
  pnl_file::safe::TempFile temp_;
};

// Gives the new map the mode and owner of the one it replaces.
void TakeOver(pnl_file::Ops& ops, const std::string& map, const std::string& target) {
  pnl_file::FileId old;
  const bool had = ops.Stat(target, old) == 0;
  const unsigned mode = had ? old.mode : 0640;
  int fd = -1;
  int err = ops.Open(map, O_RDONLY, 0, fd);
  if (err != 0) throw Fail(map, "cannot set its mode", err);
  Fd file(fd, ops);
  if ((err = ops.Fchmod(fd, mode)) != 0) throw Fail(map, "cannot set its mode", err);
  if (had && (err = ops.Fchown(fd, old.uid, old.gid)) != 0 && err != EPERM)
    throw Fail(map, "cannot set its owner", err);
}

void SyncFolder(pnl_file::Ops& ops, const std::string& folder) {
  int fd = -1;
  int err = ops.Open(folder, O_RDONLY | O_DIRECTORY, 0, fd);
  if (err != 0) throw Fail(folder, "cannot open the folder to flush it", err);
  Fd dir(fd, ops);
  if ((err = ops.Fsync(fd)) != 0) throw Fail(folder, "cannot flush the folder", err);
}

// Keys seen so far, for sendmail's duplicate warning: an open-addressing
// table of entry numbers (4 bytes a slot), the keys themselves kept by the
// caller. Not the engine's KeyIndex (zelapi/conf/store.h): that one keeps
// each key's hash beside it and removes entries, which a set that only
// grows does not need, at twice the memory for a file of a million names.
class SeenKeys {
 public:
  SeenKeys(std::size_t expected, std::function<std::string_view(std::uint32_t)> key_of)
      : key_of_(std::move(key_of)) {
    std::size_t cap = 16;
    while (cap < expected * 2) cap <<= 1;
    slots_.assign(cap, 0);
  }
  // Adds the key of entry id; returns false when that key was there before.
  bool Insert(std::string_view key, std::uint32_t id) {
    if ((count_ + 1) * 2 > slots_.size()) Grow();
    std::size_t i = pnl_hash::Hash64(key) & (slots_.size() - 1);
    while (slots_[i] != 0) {
      if (key_of_(slots_[i] - 1) == key) return false;
      i = (i + 1) & (slots_.size() - 1);
    }
    slots_[i] = id + 1;
    ++count_;
    return true;
  }

 private:
  void Grow() {
    std::vector<std::uint32_t> old;
    old.swap(slots_);
    slots_.assign(old.size() * 2, 0);
    for (std::uint32_t s : old) {
      if (s == 0) continue;
      std::size_t i = pnl_hash::Hash64(key_of_(s - 1)) & (slots_.size() - 1);
      while (slots_[i] != 0) i = (i + 1) & (slots_.size() - 1);
      slots_[i] = s;
    }
  }

  std::function<std::string_view(std::uint32_t)> key_of_;
  std::vector<std::uint32_t> slots_;
  std::size_t count_ = 0;
};

void SplitOutput(const std::string& output, std::vector<std::string>& lines) {
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t nl = output.find('\n', start);
    if (nl == std::string::npos) nl = output.size();
    lines.push_back(output.substr(start, nl - start));
    start = nl + 1;
  }
}

}  // namespace

BuildReport Build(const BuildOptions& options) {
  const std::string& file = options.alias_file;
  const std::string target = file + ".db";
  const std::string folder = FolderOf(file);
  BuildReport report;

  // Every file-system call below goes through the platform's seam, so that
  // a test can make any of them fail.
  const std::shared_ptr<pnl_file::Ops> ops = pnl_file::CurrentOps();
  int source_fd = -1;
  if (const int err = ops->Open(file, O_RDONLY, 0, source_fd); err != 0) {
    if (err == ENOENT) {
      report.output.push_back("newaliases: cannot open " + file + ": " + std::strerror(err));
      return report;
    }
    throw Fail(file, "cannot open", err);
  }
  Fd source(source_fd, *ops);
  int rc;
  while ((rc = ::flock(source.get(), LOCK_EX)) != 0 && errno == EINTR) {
  }
  if (rc != 0) throw Fail(file, "cannot lock", errno);
  AliasesFile parsed(ReadAll(*ops, source.get(), file));
  // sendmail works in its queue folder: its temporary files need a full path.
  const SendmailOracle oracle(options.sendmail, options.config, std::filesystem::absolute(folder).string());

  if (parsed.has_nul()) {
    // sendmail takes the same lock: let it go first.
    source.Close();
    std::string output;
    report.exit_code = oracle.RebuildWhole(file, output);
    SplitOutput(output, report.output);
    report.whole_file_by_sendmail = true;
    report.built = true;
    return report;
  }

  // Entries are written as the file is cut; the keys stay for sendmail's
  // duplicate warning (views into the text, or kept here for the lines
  // sendmail decided).
  const std::size_t expected = parsed.PhysicalLines();
  TempMap temp(*ops, target);
  std::string map_path;
  std::unique_ptr<MapWriter> writer;
  if (options.writer == Writer::kMakemap) {
    writer = MakeMakemapWriter(options.makemap, temp.reserved());
    map_path = temp.reserved() + ".db";
  } else {
    writer = MakeHashWriter(temp.reserved(), expected + 1);
    map_path = temp.reserved();
  }

  std::vector<std::string_view> keys;
  std::deque<std::string> odd_keys;
  SeenKeys seen(expected, [&](std::uint32_t i) { return keys[i]; });
  const std::string prefix = ShortFileName(file) + ": ";
  auto fail_with = [&](int code) {
    if (report.exit_code == 0) report.exit_code = code;
  };
  auto store = [&](std::uint32_t line_no, std::string_view shown, std::string_view key, std::string_view value) {
    const auto id = static_cast<std::uint32_t>(keys.size());
    keys.push_back(key);
    if (!seen.Insert(key, id))
      report.output.push_back(prefix + "line " + std::to_string(line_no) + ": " + std::string(shown) +
                              "... Warning: duplicate alias name " + std::string(key));
    writer->Put(key, value);
    ++report.aliases;
    report.total += key.size() + value.size();
    if (value.size() > report.longest) report.longest = value.size();
  };

  parsed.Cut([&](const Line& line) {
    switch (line.kind) {
      case Line::Kind::kError:
        report.output.push_back(prefix + "line " + std::to_string(line.line) + ": " + std::string(line.text));
        fail_with(kExitFileError);
        break;
      case Line::Kind::kEntry:
        store(line.line, line.text, line.key, line.value);
        break;
      case Line::Kind::kOdd: {
        ++report.odd_lines;
        const Verdict v = oracle.Decide(line.text, line.first_line);
        for (const std::string& m : v.notes) report.output.push_back(m);
        for (const std::string& m : v.messages) report.output.push_back(prefix + m);
        if (v.exit_code != 0) fail_with(v.exit_code);
        if (v.stored) {
          odd_keys.push_back(v.key);
          store(line.line, v.shown, odd_keys.back(), v.value);
        }
        break;
      }
    }
  });
  writer->Put("@", "@");
  writer->Finish();
  writer.reset();

  TakeOver(*ops, map_path, target);
  if (const int err = ops->Rename(map_path, target); err != 0)
    throw Fail(target, "cannot rename the new map into place", err);
  temp.Commit();
  if (options.writer == Writer::kMakemap) ops->Unlink(temp.reserved());
  SyncFolder(*ops, folder);
  report.built = true;
  report.output.push_back(file + ": " + std::to_string(report.aliases) + " aliases, longest " +
                          std::to_string(report.longest) + " bytes, " + std::to_string(report.total) +
                          " bytes total");
  return report;
}

std::vector<std::string> AliasFilesOf(const std::string& config) {
  std::ifstream in(config);
  if (!in) throw pnl_err::Error(pnl_err::Kind::kAliasDb, config, "cannot read the sendmail configuration");
  std::vector<std::string> files;
  std::string line;
  const std::string option = "O AliasFile=";
  while (std::getline(in, line)) {
    if (line.compare(0, option.size(), option) != 0) continue;
    std::string list = line.substr(option.size());
    std::size_t start = 0;
    while (start <= list.size()) {
      std::size_t comma = list.find(',', start);
      if (comma == std::string::npos) comma = list.size();
      std::string entry_text = list.substr(start, comma - start);
      start = comma + 1;
      const std::size_t b = entry_text.find_first_not_of(" \t");
      if (b == std::string::npos) continue;
      entry_text = entry_text.substr(b, entry_text.find_last_not_of(" \t") - b + 1);
      if (entry_text.compare(0, 5, "hash:") == 0) entry_text = entry_text.substr(5);
      if (entry_text.empty() || entry_text[0] != '/')
        throw pnl_err::Error(pnl_err::Kind::kAliasDb, config,
                             "alias file \"" + entry_text + "\" is not a hash map of a file; it cannot be rebuilt here");
      files.push_back(entry_text);
    }
  }
  if (files.empty()) throw pnl_err::Error(pnl_err::Kind::kAliasDb, config, "names no alias file (O AliasFile=)");
  return files;
}

}  // namespace zel_aliasdb
