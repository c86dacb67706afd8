// The text of an automatic answer.
#include "zelresponder/reply.h"

#include <cstdint>
#include <cstdio>
#include <vector>

#include "zelapi/str.h"

namespace zelresponder {

namespace {

// Lines of header fields are folded to stay within this length where blanks
// allow it.
constexpr size_t kFoldAt = 78;
// The longest line a message may carry (RFC 5322), without its line end.
constexpr size_t kMaxLine = 998;
// The most of the original subject an answer repeats.
constexpr size_t kMaxSubject = 200;
// The most message identifiers a References field of an answer carries.
constexpr size_t kMaxReferences = 20;

bool IsAscii(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

// One line of header text: tabs and line ends become blanks, other control
// characters are dropped.
std::string Clean(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (c == '\t' || c == '\r' || c == '\n') {
      out += ' ';
    } else if (u >= 0x20 && u != 0x7f) {
      out += c;
    }
  }
  return out;
}

// Spaces only: a tab left in a subject stays as written.
std::string TrimSpaces(std::string_view text) { return std::string(str::TrimView(text, " ")); }

// text cut to at most limit bytes: after its last whole word when a blank
// allows it, else at the last character boundary of UTF-8.
std::string CutWords(const std::string& text, size_t limit) {
  if (text.size() <= limit) return text;
  const size_t blank = text.rfind(' ', limit);
  if (blank != std::string::npos && blank > 0) return TrimSpaces(text.substr(0, blank));
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

// Folds an ASCII field value at its blanks: a blank where the line would grow
// past kFoldAt becomes a line end and a blank, which unfolding takes back (a
// word too long for a line of its own stays where it is).
// used is the length of the line before the value ("Subject: ").
std::string FoldWords(const std::string& value, size_t used) {
  std::string out;
  size_t line = used;
  size_t start = 0;
  bool first = true;
  while (start <= value.size()) {
    size_t end = value.find(' ', start);
    if (end == std::string::npos) end = value.size();
    const std::string_view word = std::string_view(value).substr(start, end - start);
    if (first) {
      out += word;
      line += word.size();
      first = false;
    } else if (line + 1 + word.size() > kFoldAt && 1 + word.size() <= kFoldAt) {
      out += "\n ";
      out += word;
      line = 1 + word.size();
    } else {
      out += ' ';
      out += word;
      line += 1 + word.size();
    }
    start = end + 1;
  }
  return out;
}

std::string Base64(std::string_view bytes) {
  static const char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t v = (static_cast<unsigned char>(bytes[i]) << 16) |
                       (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += kDigits[(v >> 18) & 63];
    out += kDigits[(v >> 12) & 63];
    out += kDigits[(v >> 6) & 63];
    out += kDigits[v & 63];
  }
  if (i + 1 == bytes.size()) {
    const uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
    out += kDigits[(v >> 18) & 63];
    out += kDigits[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == bytes.size()) {
    const uint32_t v = (static_cast<unsigned char>(bytes[i]) << 16) |
                       (static_cast<unsigned char>(bytes[i + 1]) << 8);
    out += kDigits[(v >> 18) & 63];
    out += kDigits[(v >> 12) & 63];
    out += kDigits[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

// Header text with bytes beyond ASCII as RFC 2047 encoded words: UTF-8 in
// base64, at most 45 bytes (a 72-character word) each, never splitting a
// character, one word a line.
std::string EncodeWords(const std::string& text) {
  constexpr size_t kChunk = 45;
  std::string out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = std::min(text.size(), start + kChunk);
    while (end < text.size() && end > start + 1 &&
           (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
      --end;
    if (!out.empty()) out += "\n ";
    out += "=?UTF-8?B?" + Base64(std::string_view(text).substr(start, end - start)) + "?=";
    start = end;
  }
  return out;
}

// A message identifier "<...>": printable ASCII without blanks or angle
// brackets between its brackets.
bool IsMessageId(std::string_view id) {
  if (id.size() < 3 || id.size() > kMaxLine - 20 || id.front() != '<' || id.back() != '>')
    return false;
  for (size_t i = 1; i + 1 < id.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(id[i]);
    if (c <= 32 || c >= 127 || c == '<' || c == '>') return false;
  }
  return true;
}

// The well-formed identifiers of a field value, in order; comments skipped.
std::vector<std::string> MessageIds(std::string_view value) {
  std::vector<std::string> ids;
  size_t i = 0;
  int depth = 0;
  while (i < value.size()) {
    const char c = value[i];
    if (c == '(') {
      ++depth;
    } else if (c == ')') {
      if (depth > 0) --depth;
    } else if (c == '\\' && depth > 0) {
      ++i;
    } else if (c == '<' && depth == 0) {
      const size_t close = value.find('>', i);
      if (close == std::string_view::npos) break;
      const std::string_view id = value.substr(i, close - i + 1);
      if (IsMessageId(id)) ids.emplace_back(id);
      i = close;
    }
    ++i;
  }
  return ids;
}

std::string NormalLineEnds(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 1);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r') {
      out += '\n';
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else {
      out += text[i];
    }
  }
  if (!out.empty() && out.back() != '\n') out += '\n';
  return out;
}

bool HasLongLine(const std::string& text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end - start > kMaxLine) return true;
    start = end + 1;
  }
  return false;
}

// Quoted-printable (RFC 2045) of LF-ended text: lines of at most 76
// characters, soft breaks "=" at their end, blanks before a line end encoded.
std::string QuotedPrintable(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  size_t line = 0;
  auto put = [&](const std::string& piece) {
    if (line + piece.size() > 75) {
      out += "=\n";
      line = 0;
    }
    out += piece;
    line += piece.size();
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      out += '\n';
      line = 0;
      continue;
    }
    const bool at_end = i + 1 == text.size() || text[i + 1] == '\n';
    const bool literal = (c >= 33 && c <= 126 && c != '=') || ((c == ' ' || c == '\t') && !at_end);
    if (literal) {
      put(std::string(1, static_cast<char>(c)));
    } else {
      put(std::string{'=', kHex[c >> 4], kHex[c & 15]});
    }
  }
  return out;
}

}  // namespace

std::string ReplySubject(const Message& original, const std::string& own) {
  std::string subject = TrimSpaces(Clean(own));
  if (subject.empty()) {
    const HeaderField* field = original.Find("Subject");
    const std::string theirs = field ? CutWords(TrimSpaces(Clean(field->value)), kMaxSubject) : "";
    if (theirs.empty()) {
      subject = "Re: (no subject)";
    } else if (theirs.size() >= 3 && (theirs[0] == 'R' || theirs[0] == 'r') &&
               (theirs[1] == 'E' || theirs[1] == 'e') && theirs[2] == ':') {
      subject = theirs;
    } else {
      subject = "Re: " + theirs;
    }
  }
  if (IsAscii(subject)) return FoldWords(subject, 9);
  return EncodeWords(subject);
}

std::string OriginalId(const Message& original) {
  const HeaderField* field = original.Find("Message-ID");
  if (!field) return std::string();
  const std::vector<std::string> ids = MessageIds(field->value);
  return ids.empty() ? std::string() : ids.front();
}

std::string ReplyReferences(const Message& original) {
  const std::string id = OriginalId(original);
  if (id.empty()) return std::string();
  std::vector<std::string> ids;
  if (const HeaderField* references = original.Find("References")) {
    ids = MessageIds(references->value);
  } else if (const HeaderField* parent = original.Find("In-Reply-To")) {
    ids = MessageIds(parent->value);
    if (ids.size() != 1) ids.clear();
  }
  ids.push_back(id);
  if (ids.size() > kMaxReferences) {
    std::vector<std::string> kept;
    kept.push_back(ids.front());
    kept.insert(kept.end(), ids.end() - (kMaxReferences - 1), ids.end());
    ids.swap(kept);
  }
  std::string joined;
  for (const std::string& one : ids) {
    if (!joined.empty()) joined += ' ';
    joined += one;
  }
  return FoldWords(joined, 12);
}

std::string BuildReply(const Message& original, const ReplyParts& parts) {
  std::string reply;
  reply += "From: " + parts.from + "\n";
  reply += "To: " + parts.to + "\n";
  reply += "Subject: " + ReplySubject(original, parts.subject) + "\n";
  reply += "Date: " + parts.date + "\n";
  reply += "Message-ID: " + parts.message_id + "\n";
  const std::string id = OriginalId(original);
  if (!id.empty()) {
    reply += "In-Reply-To: " + id + "\n";
    reply += "References: " + ReplyReferences(original) + "\n";
  }
  reply += "Auto-Submitted: auto-replied\n";
  reply += "MIME-Version: 1.0\n";
  reply += "Content-Type: text/plain; charset=UTF-8\n";
  const std::string text = NormalLineEnds(parts.text);
  if (HasLongLine(text)) {
    reply += "Content-Transfer-Encoding: quoted-printable\n\n";
    reply += QuotedPrintable(text);
  } else {
    reply += std::string("Content-Transfer-Encoding: ") + (IsAscii(text) ? "7bit" : "8bit") +
             "\n\n";
    reply += text;
  }
  return reply;
}

std::string FormatDate(std::time_t t) {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  struct tm local;
  ::localtime_r(&t, &local);
  long offset = local.tm_gmtoff / 60;
  const char sign = offset < 0 ? '-' : '+';
  if (offset < 0) offset = -offset;
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d %c%02ld%02ld",
                kDays[local.tm_wday % 7], local.tm_mday, kMonths[local.tm_mon % 12],
                local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec, sign,
                offset / 60, offset % 60);
  return text;
}

std::string NewMessageId(std::time_t t, const std::string& domain) {
  struct tm utc;
  ::gmtime_r(&t, &utc);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%04d%02d%02d%02d%02d%02d", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  char random[24];
  std::snprintf(random, sizeof random, "%016llx",
                static_cast<unsigned long long>(str::Random<uint64_t>()));
  return std::string("<") + stamp + "." + random + ".responder@" + domain + ">";
}

}  // namespace zelresponder
