// zelresponder reply: the text of an automatic answer, ready for
// "sendmail -t" (recipients read from its To field, lines ended by LF).
//
// An answer carries, in this order: From (the mailbox), To (the sender),
// Subject, Date, Message-ID, In-Reply-To and References (when the message
// answered has a Message-ID), Auto-Submitted: auto-replied, MIME-Version and
// Content-Type text/plain in UTF-8 with a transfer encoding that fits the
// text (7bit, 8bit, or quoted-printable for lines longer than 998 bytes),
// then an empty line and the responder's text. Pure functions; thread-safe.
#pragma once

#include <ctime>
#include <string>

#include "zelresponder/message.h"

namespace zelresponder {

struct ReplyParts {
  std::string from;        // the mailbox's address
  std::string to;          // the recipient (a valid reply address)
  std::string subject;     // the responder's own subject; "" for "Re: " + the original's
  std::string text;        // the responder's text (UTF-8; CR LF or LF line ends)
  std::string date;        // the Date value (FormatDate)
  std::string message_id;  // the Message-ID value, angle brackets included (NewMessageId)
};

// The whole answer to original. Never throws but std::bad_alloc.
std::string BuildReply(const Message& original, const ReplyParts& parts);

// The Subject value: own when it is not empty, else "Re: " and the
// original's subject (unfolded, control characters removed; kept whole when
// it already starts with "Re:"; "(no subject)" when it has none; cut after
// the last whole word within 200 bytes). Non-ASCII text is written as
// RFC 2047 encoded words (UTF-8, base64), folded.
std::string ReplySubject(const Message& original, const std::string& own);

// The original's Message-ID ("<id>") when it has a well-formed one, else "".
std::string OriginalId(const Message& original);

// The References value of the answer: the original's References (or, when
// it has none, its In-Reply-To holding one identifier), then its Message-ID;
// when there are more than 20, the first and the last 19. "" when the
// original has no Message-ID.
std::string ReplyReferences(const Message& original);

// t as an RFC 5322 date in local time: "Sat, 21 Nov 2026 11:34:04 +0000".
std::string FormatDate(std::time_t t);

// A new Message-ID "<YYYYMMDDhhmmss.RANDOM.responder@domain>" (UTC time,
// 16 random hexadecimal digits). Throws pnl_err::Error (type "random") when
// the system's random source fails.
std::string NewMessageId(std::time_t t, const std::string& domain);

}  // namespace zelresponder
