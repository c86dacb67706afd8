// pnl_cf: the panel configuration, one per process.
//
// The configuration file is text, one setting a line, in two sections:
//
//   # a comment; blank lines are ignored
//   [params]
//   MTA = sendmail
//   log_file = /var/log/zelpnl.log
//   [paths]
//   sendmail-aliases = /etc/mail/aliases
//   sendmail-newaliases = /usr/bin/newaliases
//
// Parameters are plain values; path keys name files and command lines. A
// name is the text before the first "=", a value everything after it, both
// with blanks (spaces, tabs) trimmed at both ends; a value may be empty. A
// section header is "[params]" or "[paths]"; any other section, a setting
// before the first header and a line without "=" are errors. When the file
// sets a name twice, the later line wins. A line may end in CR LF.
// A path key's effective value is the configured one if the file sets it,
// else the default a module installed with SetPathDefault. Asking for a path
// key that has neither is an error (see GetPath): a command line or a file
// path is never guessed.
//
// All functions are thread-safe; readers do not block each other.
#pragma once

#include <map>
#include <string>

namespace pnl_cf {

// Replaces the whole configuration (parameters and configured paths, the
// host's overrides included) with the file's content; path defaults stay.
// Throws pnl_err::Error (type "conf", object the file, detail "line N: ...",
// or "cannot read: <cause>") when the file cannot be read or a line is
// neither a comment, a section header nor "name = value"; the previous
// configuration then stays in force.
void Load(const std::string& file);

// Same as Load, from text already in memory; origin names it in errors.
void LoadText(const std::string& text, const std::string& origin);

// Forgets every parameter, path key and path default (tests, host restart).
void Clear();

// The parameter's value, or "" when it is not set.
std::string GetParam(const std::string& name);
void SetParam(const std::string& name, const std::string& value);

// The effective value of a path key: configured value, else default.
// Throws pnl_err::Error (type "conf", object the key, detail "path key is not
// configured and has no default") for a key that has neither.
std::string GetPath(const std::string& key);

// True when GetPath(key) would return a value.
bool HasPath(const std::string& key);

// Installs a default for a path key. A configured value always wins over a
// default, whenever either was set. Setting a default again replaces it.
void SetPathDefault(const std::string& key, const std::string& value);

// Sets a configured value (as if the file said so): the host's overrides.
void SetPath(const std::string& key, const std::string& value);

// Every path key with its effective value, sorted by key.
std::map<std::string, std::string> EffectivePaths();

// The file last loaded, or "" when the configuration came from elsewhere.
std::string LoadedFile();

}  // namespace pnl_cf
