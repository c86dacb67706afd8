// Reading the envelope line and the header of an incoming message.
#include "zelresponder/message.h"

#include "zelapi/str.h"

namespace zelresponder {

namespace {

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// A field name: one or more printable ASCII characters other than ":".
bool IsFieldName(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 33 || u > 126 || c == ':') return false;
  }
  return true;
}

// The sender of sendmail's envelope line "From SENDER DATE": the first word,
// where a quoted string (a quoted local part may hold blanks) counts as part
// of the word, without the angle brackets around it.
std::string EnvelopeSender(std::string_view rest) {
  size_t i = 0;
  while (i < rest.size() && IsBlank(rest[i])) ++i;
  const size_t begin = i;
  bool quoted = false;
  for (; i < rest.size(); ++i) {
    const char c = rest[i];
    if (quoted && c == '\\' && i + 1 < rest.size()) {
      ++i;
      continue;
    }
    if (c == '"') quoted = !quoted;
    if (!quoted && IsBlank(c)) break;
  }
  std::string_view word = rest.substr(begin, i - begin);
  // "<address>" and "<>" as a path writes them; anything else as it stands,
  // to be judged whole (a lenient reading could pick one address out of
  // several).
  if (word.size() >= 2 && word.front() == '<' && word.back() == '>')
    word = word.substr(1, word.size() - 2);
  return std::string(word);
}

}  // namespace

bool SameText(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower(a[i]) != Lower(b[i])) return false;
  return true;
}

Message Message::Parse(std::string_view text) {
  Message message;
  size_t pos = 0;
  bool first = true;
  bool ended = false;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    const bool whole = end != std::string_view::npos;
    if (!whole) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = whole ? end + 1 : text.size();
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!whole) {
      // A last line without its line end may be cut anywhere: a field cut
      // short is no field.
      break;
    }
    if (first) {
      first = false;
      if (line.substr(0, 5) == "From ") {
        message.envelope_ = EnvelopeSender(line.substr(5));
        continue;
      }
    }
    if (line.empty()) {
      ended = true;
      break;
    }
    if (IsBlank(line.front())) {
      // A continuation line; one before any field belongs to nothing.
      if (!message.fields_.empty()) {
        std::string& value = message.fields_.back().value;
        value += line;
      }
      continue;
    }
    const size_t colon = line.find(':');
    // Blanks before the colon are the obsolete syntax, still read.
    if (colon == std::string_view::npos || !IsFieldName(str::TrimView(line.substr(0, colon)))) {
      message.broken_ = true;
      ended = true;
      break;
    }
    HeaderField field;
    field.name = std::string(str::TrimView(line.substr(0, colon)));
    field.value = std::string(line.substr(colon + 1));
    message.fields_.push_back(std::move(field));
  }
  if (!ended) message.cut_ = true;
  for (HeaderField& field : message.fields_) field.value = std::string(str::TrimView(field.value));
  return message;
}

const HeaderField* Message::Find(std::string_view name) const {
  for (const HeaderField& field : fields_)
    if (SameText(field.name, name)) return &field;
  return nullptr;
}

std::vector<const HeaderField*> Message::FindAll(std::string_view name) const {
  std::vector<const HeaderField*> found;
  for (const HeaderField& field : fields_)
    if (SameText(field.name, name)) found.push_back(&field);
  return found;
}

}  // namespace zelresponder
