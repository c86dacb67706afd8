// zelresponder::Decide: whether a message gets an automatic answer, and to
// which address. The rules keep an autoresponder from answering what no
// person wrote (bounces, other automatic answers, list and bulk mail), from
// answering mail that was not sent to the mailbox by name, and from making
// mail loops; they follow RFC 3834 and long mail practice. The once-per-
// period rule needs the panel database and is applied by Respond
// (responder.h), after these. Pure functions; thread-safe.
#pragma once

#include <string>
#include <vector>

#include "zelresponder/message.h"

namespace zelresponder {

// The mailbox a message is answered for.
struct Identity {
  // Its address L@D (the domain in ASCII form): the From of the answers.
  std::string address;
  // Every address that names it in a recipient field: its own, its aliases'
  // (A@D), each also with the domain's Unicode form when it differs.
  std::vector<std::string> names;
};

struct Decision {
  // True when the message is to be answered.
  bool reply = false;
  // The address the answer goes to; when there is no answer, the sender
  // found ("" when none could be).
  std::string recipient;
  // Where the recipient came from: "envelope" (sendmail's envelope line),
  // "Return-Path", "Sender" or "From" ("" when none).
  std::string source;
  // Why there is no answer (empty when there is one), one line for the log.
  std::string reason;
};

// Applies the rules, in this order; the first that refuses gives the reason:
//  1. The sender: sendmail's envelope sender, else the Return-Path field;
//     only when the message carries neither, the Sender field, else From.
//     A field that is not exactly one address (OnePath, OneMailbox) is not
//     answered: no address is picked out of several. An empty sender ("<>")
//     is a bounce and never answered.
//  2. Senders that are mail systems: MAILER-DAEMON, postmaster, mailer, the
//     list addresses owner-*, *-owner, *-request, *-bounces (also with a
//     tag after "+", as in users-bounces+tag), and addresses
//     that take no replies (noreply, no-reply, donotreply, do-not-reply),
//     local parts compared without regard to case.
//  3. A sender that is no address an answer may go to (IsReplyAddress: one
//     plain address, nothing a command line or header could misread), or
//     that is the mailbox itself (one of self.names).
//  4. Auto-Submitted with any value but "no"; X-Auto-Response-Suppress
//     holding All, OOF or AutoReply; X-Autoreply or X-Autorespond present.
//  5. Precedence bulk, junk, list or auto_reply.
//  6. List fields: List-Id, List-Unsubscribe, List-Subscribe, List-Post,
//     List-Help, List-Owner, List-Archive.
//  7. Delivery and disposition reports (Content-Type multipart/report).
//  8. A message whose To, Cc, Bcc, Resent-To, Resent-Cc and Resent-Bcc
//     fields name none of self.names (this covers a message with no such
//     field at all): absence notices go only to mail sent to the mailbox.
Decision Decide(const Message& message, const Identity& self);

}  // namespace zelresponder
