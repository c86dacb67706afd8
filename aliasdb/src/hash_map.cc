#include "zelaliasdb/hash_map.h"

#include <db.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "child.h"
#include "zelapi/err.h"
#include "zelapi/file.h"

namespace zel_aliasdb {

namespace {

pnl_err::Error Fail(const std::string& object, const std::string& detail) {
  return pnl_err::Error(pnl_err::Kind::kAliasDb, object, detail);
}

std::string DbMessage(int rc) { return db_strerror(rc); }

// A DB handle that is closed when it goes out of scope.
struct DbHandle {
  DB* db = nullptr;
  DbHandle() = default;
  DbHandle(const DbHandle&) = delete;
  DbHandle& operator=(const DbHandle&) = delete;
  ~DbHandle() {
    if (db) db->close(db, DB_NOSYNC);
  }
  // Closes and reports the result; the handle is gone either way.
  int Close(u_int32_t flags) {
    DB* d = db;
    db = nullptr;
    return d->close(d, flags);
  }
};

class HashWriter : public MapWriter {
 public:
  HashWriter(const std::string& path, std::size_t expected) : path_(path) {
    int rc = db_create(&handle_.db, nullptr, 0);
    if (rc != 0) throw Fail(path, "cannot create a database handle: " + DbMessage(rc));
    DB* db = handle_.db;
    // Most of the table in the cache, so that pages are written about once,
    // when the database is closed, instead of going back and forth to the
    // file: 96 bytes an entry (the panel's lines take 100 to 160 in the
    // map). Measured at 1,000,000 entries: 48 bytes an entry takes three
    // times as long, 32 bytes six times. The cache does not grow by itself.
    const std::size_t n = std::max<std::size_t>(expected, 1);
    const std::size_t cache =
        std::clamp<std::size_t>(n * 96, std::size_t(4) << 20, std::size_t(1) << 30);
    if ((rc = db->set_cachesize(db, 0, static_cast<u_int32_t>(cache), 1)) != 0 ||
        (rc = db->set_h_nelem(db, static_cast<u_int32_t>(std::min<std::size_t>(n, 0xffffffffu)))) != 0)
      throw Fail(path, "cannot set up the hash table: " + DbMessage(rc));
    rc = db->open(db, nullptr, path.c_str(), nullptr, DB_HASH, DB_CREATE | DB_TRUNCATE, 0600);
    if (rc != 0) throw Fail(path, "cannot create the database: " + DbMessage(rc));
  }

  void Put(std::string_view key, std::string_view value) override {
    key_.assign(key);
    key_.push_back('\0');
    value_.assign(value);
    value_.push_back('\0');
    DBT k{};
    DBT v{};
    k.data = key_.data();
    k.size = static_cast<u_int32_t>(key_.size());
    v.data = value_.data();
    v.size = static_cast<u_int32_t>(value_.size());
    const int rc = handle_.db->put(handle_.db, nullptr, &k, &v, 0);
    if (rc != 0) throw Fail(path_, "cannot store \"" + std::string(key) + "\": " + DbMessage(rc));
  }

  void Finish() override {
    // Closing without DB_NOSYNC writes every cached page and flushes the
    // file to disk.
    const int rc = handle_.Close(0);
    if (rc != 0) throw Fail(path_, "cannot write the database: " + DbMessage(rc));
  }

 private:
  std::string path_;
  DbHandle handle_;
  std::string key_;
  std::string value_;
};

class MakemapWriter : public MapWriter {
 public:
  MakemapWriter(const std::string& makemap, const std::string& base)
      : base_(base),
        makemap_(makemap),
        child_({makemap, "-N", "-f", "-r", "-e", "-t", "\t", "hash", base}, true, pnl_file::FolderOf(base)) {
    buffer_.reserve(kFlushAt + 8192);
  }

  void Put(std::string_view key, std::string_view value) override {
    if (key.empty() || key.front() == '#' || key.find_first_of("\t\n") != std::string_view::npos ||
        value.find('\n') != std::string_view::npos)
      throw Fail(base_, "makemap cannot take the entry \"" + std::string(key) + "\"");
    buffer_.append(key);
    buffer_.push_back('\t');
    buffer_.append(value);
    buffer_.push_back('\n');
    if (buffer_.size() >= kFlushAt) {
      child_.Write(buffer_);
      buffer_.clear();
    }
  }

  void Finish() override {
    child_.Write(buffer_);
    buffer_.clear();
    const int status = child_.Wait();
    if (status != 0 || !child_.output().empty())
      throw Fail(base_ + ".db", makemap_ + " failed (exit status " + std::to_string(status) + ")" +
                                    (child_.output().empty() ? std::string() : ":\n" + child_.output()));
    // makemap closes its map with Berkeley DB, which flushes it to disk.
  }

 private:
  static constexpr std::size_t kFlushAt = 1 << 16;

  std::string base_;
  std::string makemap_;
  Child child_;
  std::string buffer_;
};

}  // namespace

MapWriter::~MapWriter() = default;

std::unique_ptr<MapWriter> MakeHashWriter(const std::string& path, std::size_t expected_entries) {
  return std::make_unique<HashWriter>(path, expected_entries);
}

std::unique_ptr<MapWriter> MakeMakemapWriter(const std::string& makemap, const std::string& base) {
  return std::make_unique<MakemapWriter>(makemap, base);
}

std::vector<std::pair<std::string, std::string>> ReadHashMap(const std::string& path) {
  DbHandle handle;
  int rc = db_create(&handle.db, nullptr, 0);
  if (rc != 0) throw Fail(path, "cannot create a database handle: " + DbMessage(rc));
  rc = handle.db->open(handle.db, nullptr, path.c_str(), nullptr, DB_HASH, DB_RDONLY, 0);
  if (rc != 0) throw Fail(path, "cannot open the database: " + DbMessage(rc));
  DBC* cursor = nullptr;
  rc = handle.db->cursor(handle.db, nullptr, &cursor, 0);
  if (rc != 0) throw Fail(path, "cannot read the database: " + DbMessage(rc));
  std::vector<std::pair<std::string, std::string>> entries;
  DBT k{};
  DBT v{};
  while ((rc = cursor->get(cursor, &k, &v, DB_NEXT)) == 0)
    entries.emplace_back(std::string(static_cast<const char*>(k.data), k.size),
                         std::string(static_cast<const char*>(v.data), v.size));
  cursor->close(cursor);
  if (rc != DB_NOTFOUND) throw Fail(path, "cannot read the database: " + DbMessage(rc));
  return entries;
}

}  // namespace zel_aliasdb
