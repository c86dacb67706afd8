// The responder's memory of the senders it answered.
#include "zelresponder/memory.h"

#include <algorithm>

#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/db/schema.h"

namespace zelresponder {

namespace {

constexpr int64_t kDay = 24 * 60 * 60;
// Periods beyond this many days (about 27 centuries) are taken as this one,
// so that the period in seconds cannot overflow.
constexpr int64_t kMaxPeriodDays = 1000000;

const pnl_db::Schema& MemorySchema() {
  static const pnl_db::Schema schema = {
      {1, R"sql(
CREATE TABLE sent (
  mailbox TEXT NOT NULL,
  sender TEXT NOT NULL,
  stamp TEXT NOT NULL,
  sent_at INTEGER NOT NULL,
  PRIMARY KEY (mailbox, sender)
) STRICT, WITHOUT ROWID;
)sql"},
  };
  return schema;
}

}  // namespace

Memory::Memory(const std::string& file) : db_(pnl_db::Cache::Open(file, MemorySchema())) {}

Memory::~Memory() = default;

bool Memory::Claim(const std::string& mailbox, const std::string& stamp, const std::string& sender,
                   int64_t period_days, std::time_t now, Record* previous) {
  const int64_t period = std::clamp<int64_t>(period_days, 0, kMaxPeriodDays);
  const long long at = static_cast<long long>(now);
  pnl_db::Request request(*db_);
  db_->Query("DELETE FROM sent WHERE mailbox = ? AND stamp != ?", {mailbox, stamp});
  // Records past their period allow an answer anyway; the sender's own is
  // kept, so that a failed send can put it back as it was.
  if (period > 0)
    db_->Query("DELETE FROM sent WHERE mailbox = ? AND sent_at <= ? AND sender != ?",
               {mailbox, static_cast<long long>(at - period * kDay), sender});
  Record record;
  {
    pnl_db::Query found =
        db_->Query("SELECT sent_at FROM sent WHERE mailbox = ? AND sender = ?", {mailbox, sender});
    if (!found.Eof()) {
      record.found = true;
      record.sent_at = found.Int(0);
    }
  }
  if (previous) *previous = record;
  if (record.found && period > 0 && record.sent_at > at - period * kDay) {
    request.End();
    return false;
  }
  db_->Query(
      "INSERT INTO sent (mailbox, sender, stamp, sent_at) VALUES (?, ?, ?, ?) "
      "ON CONFLICT (mailbox, sender) DO UPDATE SET stamp = excluded.stamp, sent_at = "
      "excluded.sent_at",
      {mailbox, sender, stamp, at});
  request.End();
  return true;
}

void Memory::Release(const std::string& mailbox, const std::string& stamp,
                     const std::string& sender, const Record& previous) {
  pnl_db::Request request(*db_);
  if (previous.found) {
    db_->Query("UPDATE sent SET sent_at = ? WHERE mailbox = ? AND sender = ? AND stamp = ?",
               {static_cast<long long>(previous.sent_at), mailbox, sender, stamp});
  } else {
    db_->Query("DELETE FROM sent WHERE mailbox = ? AND sender = ?", {mailbox, sender});
  }
  request.End();
}

}  // namespace zelresponder
