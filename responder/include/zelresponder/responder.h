// zelresponder: the panel's autoresponder, the program zelpnl-responder that
// a mailbox's responder action in the aliases file pipes each incoming
// message to ("|PROGRAM [--config FILE] L@D", see email::GetResponderAction).
//
// One run answers one message for one mailbox: it reads the message, looks
// up the mailbox and its responder in the panel database, applies the rules
// of rules.h and the once-per-period rule, and hands the answer to the send
// command (path key "responder-sendmail", default "/usr/sbin/sendmail -t
// -oi") with " -f '<>'" appended: answers go out with the null envelope
// sender, so that an answer that cannot be delivered bounces to nobody and
// cannot start a loop. The program always exits 0, so that sendmail never
// bounces the message it delivered; why it did not answer goes to the log.
//
// Threads: Respond uses the Cache it is given as pnl_db allows (one request
// at a time); Main configures the process (pnl_cf, pnl_log, zel_db) and is
// meant to run once, from main().
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

#include "zelapi/db.h"
#include "zelapi/log.h"
#include "zelresponder/message.h"

namespace zelresponder {

// The path key of the send command, and its default.
inline constexpr char kSendPathKey[] = "responder-sendmail";
inline constexpr char kDefaultSendCommand[] = "/usr/sbin/sendmail -t -oi";
// What is appended to the send command: the answer's null envelope sender.
inline constexpr char kNullSenderOption[] = " -f '<>'";
// The configuration file used when neither --config nor $ZELPNL_CONF names one.
inline constexpr char kDefaultConfig[] = "/etc/zelpnl/zelpnl.conf";

// The log channel of the responder ("zelpnl/responder").
const pnl_log::Module& ResponderLog();

// What answering one message came to.
struct Outcome {
  // True when the answer was handed to the send command and it took it.
  bool replied = false;
  // True when there is no answer because something failed (the send
  // command), not because a rule said no.
  bool failed = false;
  // The sender answered, or found and not answered ("" when none).
  std::string recipient;
  // Why there is no answer; empty when replied.
  std::string reason;
};

// Answers message for the mailbox at address (L@D as the responder action
// names it), at time now, on db. In one request: finds the mailbox, its
// domain and its responder (no answer when one is missing, the responder is
// off or has no text, the mailbox or its domain is suspended), applies
// Decide (rules.h) with the mailbox's address and its aliases, and then the
// once-per-period rule: a sender answered less than period_days days ago
// (compared as an AddressKey in email_responder_sent) gets no answer;
// period_days 0 answers every message. An answer is remembered (sent_at =
// now) before the request commits; then the answer is sent outside the
// request. When the send command fails or does not take the whole answer,
// the sender's previous record is put back (removed when there was none) in
// a second request and the outcome is failed. Periods longer than 1,000,000
// days count as that long. The calling thread must have no request open on
// db. Throws pnl_err::Error on database errors, and as NewMessageId and
// SendThroughCommand.
Outcome Respond(pnl_db::Cache& db, const std::string& address, const Message& message,
                std::time_t now);

// Reads fd to its end (retrying interrupted reads) and returns its first
// keep bytes; the rest is read and dropped. Stops at a read error.
std::string ReadInput(int fd, size_t keep);

// The program. argv: [--config FILE] ADDRESS. Reads the whole message from
// input first, then loads the configuration (FILE, else $ZELPNL_CONF, else
// kDefaultConfig), configures the log from its "log_file" and "log_level"
// (stderr shows warnings and errors), opens the database of its "database"
// parameter and calls Respond. Logs the outcome at info level (a failure at
// error level) as "answered S for L@D" or "no answer for L@D [to S]:
// REASON". Returns 0 in every case, bad usage included.
int Main(int argc, char** argv, int input);

}  // namespace zelresponder
