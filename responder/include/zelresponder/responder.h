// zelresponder: the panel's autoresponder, the program zelpnl-responder that
// a mailbox's responder action in the aliases file pipes each incoming
// message to ("|PROGRAM [--config FILE] L@D", see email::GetResponderAction).
//
// The program runs as sendmail's default user and never opens the panel
// database or configuration (root's alone). It reads its own configuration
// (--config FILE, else $ZELPNL_RESPONDER_CONF, else kDefaultConfig), the
// mailbox's settings that the panel writes for it (email::ResponderSettings:
// a mailbox without settings does not answer), and writes only its memory of
// senders answered (Memory) and its own log.
//
// One run answers one message for one mailbox: it applies the rules of
// rules.h and the once-per-period rule, and hands the answer to the send
// command (path key "responder-sendmail", default "/usr/sbin/sendmail -oi")
// with the arguments "-f", "<>", "--" and the one recipient appended as words
// of their own: answers go out with the null envelope sender, so that an
// answer that cannot be delivered bounces to nobody and cannot start a loop,
// and to the recipient on the command line only (never -t, which would read
// recipients from the header). The program always exits 0, so that sendmail
// never bounces the message it delivered; why it did not answer goes to the
// log.
//
// Threads: Respond uses the Memory it is given (one thread at a time); Main
// configures the process (pnl_cf, pnl_log) and is meant to run once, from
// main().
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "zelapi/log.h"
#include "zelapi/mail/responder_settings.h"
#include "zelresponder/memory.h"
#include "zelresponder/message.h"

namespace zelresponder {

// The path key of the send command, and its default.
inline constexpr char kSendPathKey[] = "responder-sendmail";
inline constexpr char kDefaultSendCommand[] = "/usr/sbin/sendmail -oi";
// The configuration file used when neither --config nor
// $ZELPNL_RESPONDER_CONF names one.
inline constexpr char kDefaultConfig[] = "/etc/zelpnl/responder.conf";

// The log channel of the responder ("zelpnl/responder").
const pnl_log::Module& ResponderLog();

// The arguments appended to the send command for an answer to recipient.
std::vector<std::string> SendArguments(const std::string& recipient);

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

// Answers message for the mailbox of settings at time now, remembering in
// memory: applies Decide (rules.h) with the mailbox's address and names,
// then the once-per-period rule (Memory::Claim, the sender as an AddressKey,
// under the settings' stamp). A claimed answer is sent with the send command
// of the configuration (pnl_cf path kSendPathKey); when the command fails or
// does not take the whole answer, the claim is released (Memory::Release)
// and the outcome is failed. A send command that reads recipients from the
// header (SendCommandProblem) fails before anything is claimed. Throws
// pnl_err::Error on memory errors, and as NewMessageId and
// SendThroughCommand.
Outcome Respond(const email::ResponderSettings& settings, Memory& memory, const Message& message,
                std::time_t now);

// Reads fd to its end (retrying interrupted reads) and returns its first
// keep bytes; the rest is read and dropped. Stops at a read error.
std::string ReadInput(int fd, size_t keep);

// The program. argv: [--config FILE] ADDRESS. Reads the whole message from
// input first; refuses to run as root (what sendmail runs as root could
// write the panel's files; nothing is opened then, the refusal goes to
// standard error); loads the configuration; configures the log from its
// "log_file" and "log_level" (stderr shows warnings and errors); reads the
// settings of ADDRESS from the folder of path key "responder-settings"
// (email::kDefaultResponderSettings) and opens the memory of path key
// "responder-memory" (kDefaultMemory); calls Respond. Logs the outcome at
// info level (a failure at error level) as "answered S for L@D" or "no
// answer for L@D [to S]: REASON". Returns 0 in every case, bad usage
// included.
int Main(int argc, char** argv, int input);

}  // namespace zelresponder
