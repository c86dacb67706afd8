// zelresponder::Message: the header of one incoming message, as sendmail
// pipes it to the responder program, read without ever failing.
//
// sendmail's program mailer writes its envelope line ("From SENDER DATE",
// the UnixFromLine option "From $g $d") before the header; when the text
// starts with that line, its SENDER is the message's envelope sender. The
// header runs to the first empty line. A line that is neither a field
// ("Name: value", the name printable ASCII without ":") nor the continuation
// of one (starting with a blank) ends the header too: what follows is taken
// as body, as a broken header cannot be trusted further. Continuation lines
// are joined to their field (the line end removed, the blanks kept); a final
// CR of each line is dropped.
//
// A Message owns copies of its fields; it is a value (copying is
// intentional). Const methods may be called from several threads.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelresponder {

// The most bytes of its input the program reads into a Message: the header
// is looked for in them, the rest of the input is read and dropped.
inline constexpr size_t kMaxMessageBytes = 1 << 20;

// One header field: its name as written and its value with the blanks after
// the colon and at the end removed and continuation lines joined.
struct HeaderField {
  std::string name;
  std::string value;
};

class Message {
 public:
  // Reads the envelope line and the header of text (a whole message or its
  // first bytes). Never throws but std::bad_alloc; any text gives a Message,
  // at worst one without fields.
  static Message Parse(std::string_view text);

  // The envelope sender of sendmail's leading "From " line, angle brackets
  // removed ("" for "<>"); nullopt when the text has no such line.
  const std::optional<std::string>& Envelope() const { return envelope_; }

  // Every field, in order. References are valid while the Message lives.
  const std::vector<HeaderField>& Fields() const { return fields_; }
  // The first field named name (compared without regard to ASCII case), or
  // nullptr when there is none.
  const HeaderField* Find(std::string_view name) const;
  // Every field named name, in order.
  std::vector<const HeaderField*> FindAll(std::string_view name) const;

  // True when the header ended at a line that was no field.
  bool Broken() const { return broken_; }
  // True when the text ended inside the header (no empty line was seen).
  bool Cut() const { return cut_; }

 private:
  std::optional<std::string> envelope_;
  std::vector<HeaderField> fields_;
  bool broken_ = false;
  bool cut_ = false;
};

// ASCII-case-insensitive comparison of two texts.
bool SameText(std::string_view a, std::string_view b);

}  // namespace zelresponder
