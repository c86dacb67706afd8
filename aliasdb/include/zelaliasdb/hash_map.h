// zel_aliasdb map files: writing and reading the hash database sendmail
// looks aliases up in.
//
// sendmail's alias map is a Berkeley DB hash file ("FILE.db") whose keys and
// values each end with one NUL byte, and which holds the entry "@" -> "@"
// once it is complete (sendmail waits for that entry before it uses a map).
// Two writers make it: HashWriter with the Berkeley DB library, and
// MakemapWriter, which feeds the entries to sendmail's makemap. Both write
// to a path the caller chooses (the builder gives them a temporary name
// beside the target and renames the finished file into place).
//
// A writer owns its open database (or its makemap process) and lets it go
// in Finish() or, if Finish() never ran, in its destructor, which discards
// what was written (the file stays for the caller to remove). One thread at
// a time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zel_aliasdb {

class MapWriter {
 public:
  virtual ~MapWriter();
  // Stores key -> value (each written with a trailing NUL); a key already
  // stored is replaced. Throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming the map on
  // a failed write.
  virtual void Put(std::string_view key, std::string_view value) = 0;
  // Flushes the map to its file, including to disk, and closes it. Throws
  // pnl_err::Error(pnl_err::Kind::kAliasDb) on failure. Put must not be called after.
  virtual void Finish() = 0;
};

// Writes path directly with Berkeley DB. expected_entries sizes the table
// (a hint: more entries still fit). path may exist (an empty file made to
// reserve the name): it is truncated. Throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming
// path when the database cannot be created.
std::unique_ptr<MapWriter> MakeHashWriter(const std::string& path, std::size_t expected_entries);

// Runs `makemap -N -f -r -e -t TAB hash BASE` (makemap adds ".db" to BASE)
// and writes "key<TAB>value" lines to it. makemap reads one line per entry,
// skips lines that start with '#', and splits at the first tab, so a key
// that starts with '#' or holds a tab or a line end, or a value that holds a
// line end, cannot be passed: Put throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming the
// key. Finish waits for makemap and throws with its output when it fails.
std::unique_ptr<MapWriter> MakeMakemapWriter(const std::string& makemap, const std::string& base);

// Every key and value of the hash map at path, in the map's own order,
// byte for byte as stored (sendmail's entries end with a NUL byte). Throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming path when it
// cannot be opened or read.
std::vector<std::pair<std::string, std::string>> ReadHashMap(const std::string& path);

}  // namespace zel_aliasdb
