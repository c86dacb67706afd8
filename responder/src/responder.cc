// One run of the autoresponder: the mailbox's settings, the rules, the
// memory of senders answered, and the answer.
#include "zelresponder/responder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelresponder/address.h"
#include "zelresponder/reply.h"
#include "zelresponder/rules.h"
#include "zelresponder/send.h"

namespace zelresponder {

namespace {

// A sender text longer than this is cut in the log.
constexpr size_t kMaxLoggedSender = 200;

Outcome NoAnswer(const std::string& reason, const std::string& recipient = std::string()) {
  Outcome outcome;
  outcome.recipient = recipient;
  outcome.reason = reason;
  return outcome;
}

std::string OneLine(const std::string& text) {
  std::string line;
  for (char c : text) line += (c == '\n' || c == '\r') ? ' ' : c;
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

std::string Logged(const std::string& sender) {
  if (sender.size() <= kMaxLoggedSender) return sender;
  return sender.substr(0, kMaxLoggedSender) + "... (" + std::to_string(sender.size()) + " bytes)";
}

}  // namespace

const pnl_log::Module& ResponderLog() {
  static const pnl_log::Module log("responder", "zelpnl");
  return log;
}

std::vector<std::string> SendArguments(const std::string& recipient) {
  // "--": sendmail takes every later word as an address, never an option.
  return {"-f", "<>", "--", recipient};
}

Outcome Respond(const email::ResponderSettings& settings, Memory& memory, const Message& message,
                std::time_t now) {
  Identity self;
  self.address = settings.address;
  self.names = settings.names;
  const Decision decision = Decide(message, self);
  if (!decision.reply) return NoAnswer(decision.reason, decision.recipient);
  const std::string recipient = decision.recipient;

  const std::string command = pnl_cf::GetPath(kSendPathKey);
  const std::string problem = SendCommandProblem(command);
  if (!problem.empty()) {
    Outcome outcome = NoAnswer(problem, recipient);
    outcome.failed = true;
    return outcome;
  }

  const std::string key = AddressKey(recipient);
  Memory::Record previous;
  if (!memory.Claim(settings.address, settings.stamp, key, settings.period_days, now, &previous)) {
    const int64_t period = std::min<int64_t>(settings.period_days, 1000000);
    return NoAnswer("the sender was answered on " + FormatDate(previous.sent_at) + ", less than " +
                        std::to_string(period) + " days ago",
                    recipient);
  }

  ReplyParts parts;
  parts.from = settings.address;
  parts.to = recipient;
  parts.subject = settings.subject;
  parts.text = settings.text;
  parts.date = FormatDate(now);
  parts.message_id = NewMessageId(now, settings.address.substr(settings.address.rfind('@') + 1));
  const std::vector<std::string> args = SendArguments(recipient);
  const SendResult sent = SendThroughCommand(command, BuildReply(message, parts), args);
  if (sent.status == 0 && sent.took_all) {
    Outcome outcome;
    outcome.replied = true;
    outcome.recipient = recipient;
    return outcome;
  }

  // Not sent: the sender is to be answered next time.
  memory.Release(settings.address, settings.stamp, key, previous);
  Outcome outcome = NoAnswer(
      "the send command \"" + CommandLine(command, args) + "\" " +
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
  if (::geteuid() == 0) {
    // Nothing is opened as root: the log file and the memory belong to the
    // default user, who could have put a link to any file in their place.
    std::fputs("zelpnl-responder: error: refusing to run as root (set sendmail's DefaultUser to "
               "an unprivileged user, such as mail); no answer sent\n",
               stderr);
    return 0;
  }
  // What the program makes (its memory, its log) is for its own user.
  ::umask(027);
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
      const char* env = std::getenv("ZELPNL_RESPONDER_CONF");
      config = (env && *env) ? env : kDefaultConfig;
    }
    pnl_cf::Load(config);
    pnl_cf::SetPathDefault(kSendPathKey, kDefaultSendCommand);
    pnl_cf::SetPathDefault(email::kResponderSettingsKey, email::kDefaultResponderSettings);
    pnl_cf::SetPathDefault(kMemoryPathKey, kDefaultMemory);
    const std::string level = pnl_cf::GetParam("log_level");
    try {
      pnl_log::Configure(pnl_cf::GetParam("log_file"),
                         pnl_log::ParseLevel(level.empty() ? "info" : level),
                         pnl_log::Level::kWarning);
    } catch (const std::exception& e) {
      ResponderLog().Warning(std::string("log file not used: ") + e.what());
    }
    const std::optional<email::ResponderSettings> settings =
        email::ReadResponderSettings(pnl_cf::GetPath(email::kResponderSettingsKey), address);
    Outcome outcome;
    if (!settings) {
      outcome = NoAnswer("the mailbox does not answer (no responder settings: its responder is "
                         "off, or it or its domain is suspended or gone)");
    } else {
      Memory memory(pnl_cf::GetPath(kMemoryPathKey));
      outcome = Respond(*settings, memory, Message::Parse(raw), std::time(nullptr));
    }
    const std::string to = outcome.recipient.empty() ? "" : " to " + Logged(outcome.recipient);
    if (outcome.replied) {
      ResponderLog().Info("answered " + outcome.recipient + " for " + address);
    } else if (outcome.failed) {
      ResponderLog().Error("no answer for " + address + to + ": " + outcome.reason);
    } else {
      ResponderLog().Info("no answer for " + address + to + ": " + outcome.reason);
    }
  } catch (const std::exception& e) {
    ResponderLog().Error("no answer for " + address + ": " + e.what());
  } catch (...) {
    ResponderLog().Error("no answer for " + address + ": unknown failure");
  }
  return 0;
}

}  // namespace zelresponder
