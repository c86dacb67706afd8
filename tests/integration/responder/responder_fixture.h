// A panel database with one mailbox whose responder is on, its settings
// written by the panel's own code into a settings folder, a responder
// configuration whose send command is a script that keeps what it is given
// instead of sending it, and helpers to run the built zelpnl-responder on a
// message and read what it sent, remembered and logged.
//
// The program runs as the mail user when the tests run as root (as sendmail
// runs it from a root-owned aliases file): the settings folder belongs to
// root with the mail group, its memory folder, its log and the capture
// folder to the mail user, and it never sees the panel database.
//
// The set-up: mail domain d.example, mailbox l@d.example with the alias
// contact@d.example, its responder on with an empty subject and kText.
// Times are written in UTC (TZ=UTC for this process and for the program).
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/responder_settings.h"
#include "zelresponder/memory.h"

namespace zeltest {

inline const char kText[] = "I am away until Monday.\nYour message will be read then.\n";

// The text of a sample message of tests/data/responder.
std::string Sample(const std::string& name);

// A reply with its Date value and its Message-ID (when they have the forms
// the responder writes) replaced by "DATE" and "<ID>", so that the rest can
// be compared exactly.
std::string Normal(const std::string& reply);

// Whether the tests run as root (and so run the program as the mail user).
bool AsRoot();
// The group that reads the settings: mail as root, else the caller's own.
std::string SettingsGroup();

class ResponderTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::string Config() const { return box_.Path("responder.conf"); }
  std::string LogFile() const { return box_.Path("responder.log"); }
  std::string SettingsDir() const { return box_.Path("settings"); }
  std::string MemoryFile() const { return box_.Path("memory/sent.db"); }
  std::string CaptureCommand() const;
  pnl_db::Cache& Db() { return *db_; }

  // Writes the settings files from the rows, as the panel does at the end
  // of a request (a full sync).
  void Publish();
  // The settings of address as the panel wrote them (nullopt: none).
  std::optional<email::ResponderSettings> Settings(const std::string& address = "l@d.example");

  // Runs the built program: zelpnl-responder --config <Config()> address,
  // with message on its standard input, TZ=UTC, as the mail user when the
  // tests run as root; returns its exit status and fills output (standard
  // output and error).
  int Run(const std::string& message, const std::string& address = "l@d.example",
          std::string* output = nullptr);
  int RunArgs(const std::string& message, const std::string& args, std::string* output = nullptr);
  // The words that put a command under the mail user ("" when not root).
  static std::string AsMailUser();

  // What the capture script was given, in order: the messages, and the
  // arguments of each (one a line).
  std::vector<std::string> Sent() const;
  std::vector<std::string> SentArgs() const;
  // The log's lines (without their time stamps: from the level on).
  std::vector<std::string> Log() const;
  std::string LastLog() const;

  // Rows of a query on the panel database, columns joined by ":", rows by
  // "|".
  std::string Rows(const std::string& sql);
  // The program's memory: "mailbox:sender:sent_at" rows, "" when it has
  // none or there is no memory file yet.
  std::string MemoryRows();
  // Runs sql on the program's memory (when it exists).
  void OnMemory(const std::string& sql);

  // Sets one column of the responder row through its table cursor, as the
  // panel does, and publishes the settings.
  void SetResponderEnabled(bool enabled);
  void SetPeriodDays(int64_t days);

  int64_t mailbox_id_ = 0;
  int64_t responder_id_ = 0;
  Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
  std::unique_ptr<pnl_db::Cache> db_;
};

}  // namespace zeltest
