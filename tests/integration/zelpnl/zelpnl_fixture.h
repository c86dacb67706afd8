// Runs the built zelpnl on a sandbox that "zelpnl init" made in a scratch
// folder, and reads what it left: its output and exit status, the sendmail
// files, the rows of the panel database.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox.h"

namespace zeltest {

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs a program with exactly these arguments (no shell) and the process's
// environment, less ZELPNL_CONF, plus env ("NAME=value" items). With
// terminal, standard error is a pseudo-terminal (its output lands in err).
// Standard input is input (at most 64 KiB), or /dev/null when it is empty.
Result RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               bool terminal = false, const std::string& input = "");

// One of our programs as zelpnl init finds it: the built one, else the
// installed one.
std::string OurProgram(const std::string& name);

class ZelpnlTest : public ::testing::Test {
 protected:
  void SetUp() override;

  std::string Dir() const { return box_.Path("sb"); }
  std::string Path(const std::string& file) const { return Dir() + "/" + file; }
  std::string Config() const { return Path("zelpnl.conf"); }

  // zelpnl --config <sandbox config> args... (input: standard input)
  Result Zel(const std::vector<std::string>& args, const std::string& input = "");
  // The same with --json; expects status 0 and parses standard output.
  nlohmann::ordered_json Json(const std::vector<std::string>& args);
  // Expects status 0 and empty standard error.
  void Ok(const std::vector<std::string>& args);

  // Replaces the value of a key the configuration file sets.
  void SetConfig(const std::string& key, const std::string& value) const;

  std::string File(const std::string& name) const;
  void WriteFile(const std::string& name, const std::string& text) const;

  // Rows of a query on the sandbox's database, each row's columns joined by
  // ":", rows joined by "|".
  std::string Rows(const std::string& sql) const;
  int Count(const std::string& table) const;

  // The four sendmail files' bytes and every panel table's rows.
  std::map<std::string, std::string> State() const;

  // A web domain and mail domain d.example of admin, with mailbox l@d.example.
  void MakeDomainWithMailbox();

  Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
};

inline const char kDevnull[] = "devnull:\t\"/dev/null\"\n";
inline const char kCatchAll[] = "@d.example\terror:nouser No such user here\n";

}  // namespace zeltest
