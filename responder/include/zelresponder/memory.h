// zelresponder::Memory: the responder's own memory of the senders it
// answered, so that each sender is answered once per period.
//
// One SQLite file (path key "responder-memory", default
// /var/lib/zelpnl/responder-memory/sent.db) that belongs to the user the
// program runs as, sendmail's default user, in a folder of that user's: it
// is the only thing the program writes besides its log, and nothing the
// panel reads. The file is made with mode 0600 (pnl_db). A record is kept per
// mailbox (its address) and sender (AddressKey), with the stamp of the
// mailbox's settings when it was answered and the time; a record of another
// stamp counts as none (the responder was switched off and on since, or the
// mailbox suspended and resumed), and is dropped.
//
// Concurrent runs of the program share the file: each Claim and Release is
// one write transaction (BEGIN IMMEDIATE, up to 30 s of waiting). A Memory
// is used by one thread at a time; it owns its connection.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace pnl_db {
class Cache;
}

namespace zelresponder {

inline constexpr char kMemoryPathKey[] = "responder-memory";
inline constexpr char kDefaultMemory[] = "/var/lib/zelpnl/responder-memory/sent.db";

class Memory {
 public:
  // What was remembered of a sender.
  struct Record {
    bool found = false;
    int64_t sent_at = 0;
  };

  // Opens the file, making it (and its one table) when missing. Throws
  // pnl_err::Error (type "db", object the file) when it cannot.
  explicit Memory(const std::string& file);
  ~Memory();
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  // In one transaction: drops the mailbox's records of other stamps and,
  // for a period, those older than it; reads the sender's record into
  // *previous; and when the sender may be answered now (no record, period
  // 0, or a record period_days or more old) records now and returns true.
  // Periods over 1,000,000 days count as that. Throws pnl_err::Error on a
  // database error.
  bool Claim(const std::string& mailbox, const std::string& stamp, const std::string& sender,
             int64_t period_days, std::time_t now, Record* previous);

  // Puts previous back for the sender (removes the record when there was
  // none): the answer Claim allowed was not sent. Throws as Claim.
  void Release(const std::string& mailbox, const std::string& stamp, const std::string& sender,
               const Record& previous);

  // The connection, for tests.
  pnl_db::Cache& Db() { return *db_; }

 private:
  std::unique_ptr<pnl_db::Cache> db_;
};

}  // namespace zelresponder
