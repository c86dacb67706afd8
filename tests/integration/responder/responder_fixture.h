// A panel database with one mailbox whose responder is on, a configuration
// whose send command is a script that keeps what it is given instead of
// sending it, and helpers to run the built zelpnl-responder on a message and
// read what it sent and logged.
//
// The set-up: mail domain d.example, mailbox l@d.example with the alias
// contact@d.example, its responder on with an empty subject and kText.
// Times are written in UTC (TZ=UTC for this process and for the program).
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zelapi/db.h"

namespace zeltest {

inline const char kText[] = "I am away until Monday.\nYour message will be read then.\n";

// The text of a sample message of tests/data/responder.
std::string Sample(const std::string& name);

// A reply with its Date value and its Message-ID (when they have the forms
// the responder writes) replaced by "DATE" and "<ID>", so that the rest can
// be compared exactly.
std::string Normal(const std::string& reply);

class ResponderTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::string Config() const { return box_.Path("zelpnl.conf"); }
  std::string LogFile() const { return box_.Path("responder.log"); }
  std::string CaptureCommand() const;
  pnl_db::Cache& Db() { return *db_; }

  // Runs the built program: zelpnl-responder --config <Config()> address,
  // with message on its standard input, TZ=UTC; returns its exit status and
  // fills output (standard output and error).
  int Run(const std::string& message, const std::string& address = "l@d.example",
          std::string* output = nullptr);
  int RunArgs(const std::string& message, const std::string& args, std::string* output = nullptr);

  // What the capture script was given, in order: the messages, and the
  // arguments of each (one a line).
  std::vector<std::string> Sent() const;
  std::vector<std::string> SentArgs() const;
  // The log's lines (without their time stamps: from the level on).
  std::vector<std::string> Log() const;
  std::string LastLog() const;

  // Rows of a query, columns joined by ":", rows by "|".
  std::string Rows(const std::string& sql);
  // Sets one column of the responder row through its table cursor, as the
  // panel does.
  void SetResponderEnabled(bool enabled);
  void SetPeriodDays(int64_t days);
  // Puts a remembered sender in email_responder_sent.
  void Remember(const std::string& sender, int64_t sent_at);

  int64_t mailbox_id_ = 0;
  int64_t responder_id_ = 0;
  Sandbox box_{::testing::UnitTest::GetInstance()->current_test_info()->name()};
  std::unique_ptr<pnl_db::Cache> db_;
};

}  // namespace zeltest
