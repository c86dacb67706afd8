// The rules that decide whether a message gets an automatic answer.
#include "zelresponder/rules.h"

#include "zelresponder/address.h"

namespace zelresponder {

namespace {

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool EndsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// The first word of a structured field value, in lower case: comments
// removed, up to the first ";" (parameters) or blank.
std::string Keyword(std::string_view value) {
  std::string word;
  int depth = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (c == '\\' && depth > 0) {
      ++i;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')') {
      if (depth > 0) --depth;
    } else if (depth == 0) {
      if (c == ';') break;
      if (c == ' ' || c == '\t') {
        if (!word.empty()) break;
        continue;
      }
      word += c;
    }
  }
  return Lower(word);
}

// Why a sender's local part marks a mail system, or "" when it does not.
std::string MailSystem(const std::string& local) {
  for (const char* name : {"mailer-daemon", "postmaster", "mailer"})
    if (local == name) return "is a mail system (" + local + ")";
  for (const char* name : {"noreply", "no-reply", "donotreply", "do-not-reply"})
    if (local == name) return "takes no replies (" + local + ")";
  // List software often adds a tag after a "+" (users-bounces+l=d.example).
  const std::string base = local.substr(0, local.find('+'));
  if (StartsWith(base, "owner-") || EndsWith(base, "-owner") || EndsWith(base, "-request") ||
      EndsWith(base, "-bounces"))
    return "is a mailing list's address (" + local + ")";
  return std::string();
}

Decision No(Decision d, const std::string& reason) {
  d.reply = false;
  d.reason = reason;
  return d;
}

// The sender of the message and where it was found. A field that is not
// exactly one address gives no sender: *why says what is wrong with it (and
// the recipient holds the field's text, for the log).
void FindSender(const Message& message, Decision& d, std::string& why) {
  if (message.Envelope()) {
    d.recipient = *message.Envelope();
    d.source = "envelope";
    return;
  }
  if (const HeaderField* path = message.Find("Return-Path")) {
    d.source = "Return-Path";
    if (!OnePath(path->value, d.recipient, &why)) d.recipient = path->value;
    return;
  }
  for (const char* name : {"Sender", "From"}) {
    if (const HeaderField* field = message.Find(name)) {
      d.source = name;
      if (!OneMailbox(field->value, d.recipient, &why)) d.recipient = field->value;
      return;
    }
  }
}

bool NamesSelf(const std::string& address, const Identity& self) {
  const std::string key = AddressKey(address);
  for (const std::string& name : self.names)
    if (AddressKey(name) == key) return true;
  return false;
}

}  // namespace

Decision Decide(const Message& message, const Identity& self) {
  Decision d;
  std::string why;
  FindSender(message, d, why);
  if (d.source.empty()) return No(d, "the message names no sender");
  if (!why.empty())
    return No(d, "the sender's " + d.source + " field is not one address: " + why);
  if (d.recipient.empty())
    return No(d, "the sender is empty (" + d.source + " <>): a bounce is never answered");

  const std::string local = LocalKey(d.recipient);
  const std::string system = MailSystem(local.empty() ? Lower(d.recipient) : local);
  if (!system.empty()) return No(d, "the sender " + system);
  if (!IsReplyAddress(d.recipient, &why))
    return No(d, "the sender is no address an answer may go to: " + why);
  if (NamesSelf(d.recipient, self)) return No(d, "the sender is the mailbox itself");

  for (const HeaderField* field : message.FindAll("Auto-Submitted")) {
    const std::string keyword = Keyword(field->value);
    if (keyword != "no") return No(d, "the message is automatic (Auto-Submitted: " + keyword + ")");
  }
  for (const HeaderField* field : message.FindAll("X-Auto-Response-Suppress")) {
    std::string rest = Lower(field->value);
    size_t start = 0;
    while (start <= rest.size()) {
      size_t end = rest.find(',', start);
      if (end == std::string::npos) end = rest.size();
      const std::string item = Keyword(rest.substr(start, end - start));
      if (item == "all" || item == "oof" || item == "autoreply")
        return No(d, "the message asks for no automatic answer (X-Auto-Response-Suppress: " +
                         item + ")");
      start = end + 1;
    }
  }
  for (const char* name : {"X-Autoreply", "X-Autorespond"})
    if (message.Find(name))
      return No(d, std::string("the message is an automatic answer (") + name + ")");

  for (const HeaderField* field : message.FindAll("Precedence")) {
    const std::string keyword = Keyword(field->value);
    if (keyword == "bulk" || keyword == "junk" || keyword == "list" || keyword == "auto_reply")
      return No(d, "the message is bulk mail (Precedence: " + keyword + ")");
  }
  for (const char* name : {"List-Id", "List-Unsubscribe", "List-Subscribe", "List-Post",
                           "List-Help", "List-Owner", "List-Archive"})
    if (message.Find(name)) return No(d, std::string("the message is list mail (") + name + ")");

  if (const HeaderField* type = message.Find("Content-Type"))
    if (Keyword(type->value) == "multipart/report")
      return No(d, "the message is a delivery or disposition report (multipart/report)");

  bool named = false;
  for (const char* name : {"To", "Cc", "Bcc", "Resent-To", "Resent-Cc", "Resent-Bcc"})
    for (const HeaderField* field : message.FindAll(name))
      for (const std::string& address : AddressList(field->value))
        if (NamesSelf(address, self)) named = true;
  if (!named) return No(d, "the message does not name the mailbox in To or Cc");

  d.reply = true;
  return d;
}

}  // namespace zelresponder
