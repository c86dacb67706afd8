// zel_aliasdb::Build: rebuilds the hash database of one aliases file, with
// the verdicts, messages and exit status of sendmail's own rebuild
// (`sendmail -bi`), in a fraction of its time.
//
// The file is read with AliasesFile; the few lines it leaves to sendmail's
// address parser are decided by SendmailOracle (one short sendmail run per
// such line); a file holding a NUL byte is handed to sendmail whole. The
// map is written under a temporary name beside FILE.db, flushed to disk and
// renamed over FILE.db, so sendmail never opens a half-built map; it takes
// the mode and owner of the FILE.db it replaces (0640 and the caller's owner
// when there was none). The aliases file is locked (flock, exclusive) while
// it is read and its map written, so two builds of one file run one after
// the other; sendmail's rebuild takes the same lock (and skips its rebuild
// while ours holds it, saying the file is locked). The report lists the
// messages sendmail would print, in its words, and its summary line.
//
// The builder's own file-system calls (opening and reading the aliases file,
// the temporary name, the mode and owner, the rename, the flush of the
// folder) go through the platform's seam, pnl_file::Ops, as the panel's do,
// so a test can make any of them fail; the map's pages are written by
// Berkeley DB or by makemap, outside it.
//
// Nothing is shared between calls; Build may run on several threads for
// different files.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zel_aliasdb {

enum class Writer {
  kBerkeleyDb,  // writes the hash file with the Berkeley DB library
  kMakemap,     // feeds sendmail's makemap
};

struct BuildOptions {
  std::string alias_file;                 // the aliases file; its map is alias_file + ".db"
  Writer writer = Writer::kBerkeleyDb;
  std::string sendmail = "/usr/sbin/sendmail";  // for the lines left to sendmail
  std::string makemap = "/usr/sbin/makemap";    // for Writer::kMakemap
  std::string config;                     // sendmail.cf passed with -C; empty: sendmail's own
};

struct BuildReport {
  // What sendmail prints for this file, one line each, in order: the
  // messages ("FILE: line 3: missing colon") and last the summary
  // ("FILE: 2 aliases, longest 8 bytes, 20 bytes total").
  std::vector<std::string> output;
  // sendmail's exit status: 0, or the status of the first failing line
  // (70 for the file errors, 64 for some address errors).
  int exit_code = 0;
  std::size_t aliases = 0;   // entries stored, repeated names included
  std::size_t longest = 0;   // longest value, in bytes
  std::size_t total = 0;     // sum of the stored keys' and values' lengths
  std::size_t odd_lines = 0; // lines decided by sendmail's parser
  bool whole_file_by_sendmail = false;  // the file was handed to sendmail
  bool built = false;        // a map was written (false: no such file)
};

// Rebuilds options.alias_file's map. A missing aliases file is reported as
// sendmail does ("newaliases: cannot open FILE: No such file or directory",
// exit status 0, no map written). Throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming
// the file and the cause when the file cannot be read or the map cannot be
// written; FILE.db is then left as it was and no temporary file stays.
BuildReport Build(const BuildOptions& options);

// The alias files a sendmail configuration names in its AliasFile option
// ("O AliasFile=a,b"), in order; a "hash:" prefix is dropped. Throws
// pnl_err::Error(pnl_err::Kind::kAliasDb) naming config when it cannot be read, names no
// alias file, or names one of another map type (those cannot be rebuilt).
std::vector<std::string> AliasFilesOf(const std::string& config);

}  // namespace zel_aliasdb
