// pnl_db schema: the migrations that bring a database file to the version
// the code expects, and the one registered schema Cache::Open applies.
//
// Owns nothing but the registered copy. Registration is cheap (a copy of the
// scripts); the scripts run only when a Cache opens a file that is behind.
// RegisterSchema and RegisteredSchema are thread-safe.
#pragma once

#include <string>
#include <vector>

namespace pnl_db {

// One step of a schema: the SQL script that brings a database from
// version - 1 to version. Steps are listed in increasing version order,
// starting at 1; a database records the version it is at (PRAGMA user_version).
struct Migration {
  int version;
  std::string sql;
};
using Schema = std::vector<Migration>;

// Installs the schema that Cache::Open(file) applies (the panel's own tables
// register theirs when the library loads). Replaces an earlier registration.
void RegisterSchema(const Schema& schema);
// The registered schema (empty when none was registered).
Schema RegisteredSchema();

}  // namespace pnl_db
