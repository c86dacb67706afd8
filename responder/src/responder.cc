// One run of the autoresponder: the mailbox, its responder, the rules, the
// memory of senders answered, and the answer.
#include "zelresponder/responder.h"

#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdlib>
#include <memory>

#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"
#include "zelresponder/address.h"
#include "zelresponder/reply.h"
#include "zelresponder/rules.h"
#include "zelresponder/send.h"

namespace zelresponder {

namespace {

constexpr std::time_t kDay = 24 * 60 * 60;
// Periods beyond this many days (about 27 centuries) are taken as this one,
// so that the period in seconds cannot overflow.
constexpr int64_t kMaxPeriodDays = 1000000;

Outcome NoAnswer(const std::string& reason, const std::string& recipient = std::string()) {
  Outcome outcome;
  outcome.recipient = recipient;
  outcome.reason = reason;
  return outcome;
}

// The mailbox's own address and every address that names it.
Identity MailboxIdentity(pnl_db::Cache& db, zel_db::EmailTable& mailbox,
                         zel_db::EmailDomainTable& domain) {
  Identity self;
  const std::string ascii = domain.name.Str();
  const std::string unicode = domain.name.Unicode();
  self.address = mailbox.name.Str() + "@" + ascii;
  std::vector<std::string> locals = {mailbox.name.Str()};
  std::shared_ptr<zel_db::EmailAliasTable> aliases = db.Get<zel_db::EmailAliasTable>();
  for (bool found = aliases->DbFind("email = " + mailbox.id.Str()); found && !aliases->Eof();
       aliases->Next())
    locals.push_back(aliases->name.Str());
  for (const std::string& local : locals) {
    self.names.push_back(local + "@" + ascii);
    if (unicode != ascii) self.names.push_back(local + "@" + unicode);
  }
  return self;
}

std::string OneLine(const std::string& text) {
  std::string line;
  for (char c : text) line += (c == '\n' || c == '\r') ? ' ' : c;
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

}  // namespace

const pnl_log::Module& ResponderLog() {
  static const pnl_log::Module log("responder", "zelpnl");
  return log;
}

Outcome Respond(pnl_db::Cache& db, const std::string& address, const Message& message,
                std::time_t now) {
  Identity self;
  std::string domain_name, subject, text, key;
  int64_t responder_id = 0;
  bool had_record = false;
  int64_t old_sent_at = 0;
  std::string recipient;
  {
    pnl_db::Request request(db);
    std::shared_ptr<zel_db::EmailTable> mailbox = db.Get<zel_db::EmailTable>();
    std::shared_ptr<zel_db::EmailDomainTable> domain = db.Get<zel_db::EmailDomainTable>();
    if (!email::FindByEmailName(address, mailbox, domain))
      return NoAnswer("there is no mailbox " + address);
    std::shared_ptr<zel_db::EmailResponderTable> responder =
        db.Get<zel_db::EmailResponderTable>();
    if (!responder->email.Lookup(mailbox->id.Str())) return NoAnswer("the mailbox has no responder");
    if (!responder->enabled.Value()) return NoAnswer("the responder is off");
    if (responder->text.Value().empty()) return NoAnswer("the responder has no text");
    if (!mailbox->enabled.Value()) return NoAnswer("the mailbox is suspended");
    if (!domain->enabled.Value()) return NoAnswer("the mail domain is suspended");

    self = MailboxIdentity(db, *mailbox, *domain);
    const Decision decision = Decide(message, self);
    if (!decision.reply) return NoAnswer(decision.reason, decision.recipient);
    recipient = decision.recipient;

    responder_id = responder->id.Value();
    key = AddressKey(recipient);
    const int64_t period = std::min(responder->period_days.Value(), kMaxPeriodDays);
    std::shared_ptr<zel_db::EmailResponderSentTable> sent =
        db.Get<zel_db::EmailResponderSentTable>();
    had_record = sent->Lookup({{sent->responder, std::to_string(responder_id)}, {sent->sender, key}});
    if (had_record) {
      old_sent_at = sent->sent_at.Value();
      if (period > 0 && old_sent_at > static_cast<int64_t>(now) - period * kDay)
        return NoAnswer("the sender was answered on " + FormatDate(old_sent_at) +
                            ", less than " + std::to_string(period) + " days ago",
                        recipient);
    } else {
      sent->New();
      sent->responder = responder_id;
      sent->sender = key;
    }
    sent->sent_at = static_cast<int64_t>(now);
    sent->Post();
    domain_name = domain->name.Str();
    subject = responder->subject.Value();
    text = responder->text.Value();
    request.End();
  }

  ReplyParts parts;
  parts.from = self.address;
  parts.to = recipient;
  parts.subject = subject;
  parts.text = text;
  parts.date = FormatDate(now);
  parts.message_id = NewMessageId(now, domain_name);
  const std::string command = pnl_cf::GetPath(kSendPathKey) + kNullSenderOption;
  const SendResult sent = SendThroughCommand(command, BuildReply(message, parts));
  if (sent.status == 0 && sent.took_all) {
    Outcome outcome;
    outcome.replied = true;
    outcome.recipient = recipient;
    return outcome;
  }

  // Not sent: the sender is to be answered next time.
  {
    pnl_db::Request request(db);
    std::shared_ptr<zel_db::EmailResponderSentTable> record =
        db.Get<zel_db::EmailResponderSentTable>();
    if (record->Lookup({{record->responder, std::to_string(responder_id)}, {record->sender, key}})) {
      if (had_record) {
        record->sent_at = old_sent_at;
        record->Post();
      } else {
        record->Delete();
      }
    }
    request.End();
  }
  Outcome outcome = NoAnswer(
      "the send command \"" + command + "\" " +
          (sent.status != 0 ? "failed with status " + std::to_string(sent.status)
                            : std::string("did not take the whole answer")) +
          (sent.output.empty() ? "" : ": " + OneLine(sent.output)),
      recipient);
  outcome.failed = true;
  return outcome;
}

std::string ReadInput(int fd, size_t keep) {
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (text.size() < keep)
      text.append(buffer, std::min(static_cast<size_t>(n), keep - text.size()));
  }
  return text;
}

int Main(int argc, char** argv, int input) {
  // The message is taken whole first: sendmail is done writing before
  // anything here can fail.
  const std::string raw = ReadInput(input, kMaxMessageBytes);
  std::string config;
  std::string address;
  int i = 1;
  if (i + 1 < argc && std::string(argv[i]) == "--config") {
    config = argv[i + 1];
    i += 2;
  }
  if (i + 1 != argc || std::string(argv[i]).empty() || argv[i][0] == '-') {
    ResponderLog().Error(
        "usage: zelpnl-responder [--config FILE] ADDRESS (the message on standard input); "
        "no answer sent");
    return 0;
  }
  address = argv[i];
  try {
    if (config.empty()) {
      const char* env = std::getenv("ZELPNL_CONF");
      config = (env && *env) ? env : kDefaultConfig;
    }
    pnl_cf::Load(config);
    pnl_cf::SetPathDefault(kSendPathKey, kDefaultSendCommand);
    const std::string level = pnl_cf::GetParam("log_level");
    try {
      pnl_log::Configure(pnl_cf::GetParam("log_file"),
                         pnl_log::ParseLevel(level.empty() ? "info" : level),
                         pnl_log::Level::kWarning);
    } catch (const std::exception& e) {
      ResponderLog().Warning(std::string("log file not used: ") + e.what());
    }
    const std::string database = pnl_cf::GetParam("database");
    if (database.empty())
      throw pnl_err::Error("conf", config, "sets no \"database\" parameter");
    zel_db::OpenCache(database);
    const Outcome outcome =
        Respond(*zel_db::GetCache(), address, Message::Parse(raw), std::time(nullptr));
    if (outcome.replied) {
      ResponderLog().Info("answered " + outcome.recipient + " for " + address);
    } else {
      const std::string line = "no answer for " + address +
                               (outcome.recipient.empty() ? "" : " to " + outcome.recipient) +
                               ": " + outcome.reason;
      if (outcome.failed) {
        ResponderLog().Error(line);
      } else {
        ResponderLog().Info(line);
      }
    }
  } catch (const std::exception& e) {
    ResponderLog().Error("no answer for " + address + ": " + e.what());
  } catch (...) {
    ResponderLog().Error("no answer for " + address + ": unknown failure");
  }
  zel_db::CloseCache();
  return 0;
}

}  // namespace zelresponder
