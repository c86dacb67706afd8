// Fuzz target for the tokenizer: the first byte picks the rules of one of
// the four sendmail files (or rules read from the next bytes), the rest is
// the text. Tokens come in order, inside the text, never across a line
// end, and the scan ends.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "zelapi/conf/token.h"
#include "zelapi/err.h"

namespace {

pnl_token::Params FileRules(int which) {
  pnl_token::Params rules;
  switch (which) {
    case 0:  // local-host-names
      rules.Add(pnl_token::CharToken("\n", 6));
      rules.Add(pnl_token::Comment("#", "\n", true));
      break;
    case 1:  // virtual user table
      rules.Add(pnl_token::CharToken("@", 2));
      rules.Add(pnl_token::CharToken("\t ", 1));
      rules.Add(pnl_token::CharToken("\n", 6));
      rules.Add(pnl_token::Comment("#", "\n", false));
      break;
    case 2:  // aliases
      rules.Add(pnl_token::CharToken(":\t ", 1));
      rules.Add(pnl_token::CharToken("\n", 6));
      rules.Add(pnl_token::Comment("#", "\n", false));
      break;
    default:  // access map
      rules.Add(pnl_token::CharToken("\t ", 1));
      rules.Add(pnl_token::CharToken("\n", 6));
      rules.Add(pnl_token::Comment("#", "\n", false));
      break;
  }
  return rules;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  pnl_token::Params rules;
  if (data[0] < 200) {
    rules = FileRules(data[0] % 4);
  } else {
    // Rules from the text: "S<chars>\n" separators, "C<chars>\n" character
    // tokens, "#<start>\t<end>\n" comments, up to a line "\n".
    size_t at = 0;
    while (at < text.size() && text[at] != '\n') {
      const size_t end = text.find('\n', at);
      if (end == std::string::npos) break;
      const std::string rule = text.substr(at + 1, end - at - 1);
      try {
        if (text[at] == 'S') rules.Add(pnl_token::CharToken(rule, 1));
        if (text[at] == 'C') rules.Add(pnl_token::CharToken(rule, 2));
        if (text[at] == '#') {
          const size_t tab = rule.find('\t');
          rules.Add(pnl_token::Comment(rule.substr(0, tab),
                                       tab == std::string::npos ? "\n" : rule.substr(tab + 1),
                                       data[0] % 2));
        }
      } catch (const pnl_err::Error&) {
        // A rule the set refuses is left out.
      }
      at = end + 1;
    }
    text.erase(0, at < text.size() ? at + 1 : text.size());
  }
  const pnl_token::Tokenizer tokenizer(rules, text);
  for (bool with_separators : {false, true}) {
    size_t pos = 0, last_end = 0, steps = 0;
    for (;;) {
      const pnl_token::Token t = tokenizer.Next(pos, with_separators);
      if (t.start < last_end || t.end < t.start || t.end > text.size() || pos < t.end) abort();
      if (++steps > text.size() + 2) abort();  // a scan that does not end
      if (t.type == pnl_token::Token::End) {
        if (t.start != text.size()) abort();
        break;
      }
      const std::string_view s(text.data() + t.start, t.end - t.start);
      if (t.type == pnl_token::Token::LineEnd && s != "\n") abort();
      if (t.type != pnl_token::Token::LineEnd && s.find('\n') != std::string_view::npos) abort();
      if (s.empty()) abort();
      last_end = t.end;
    }
  }
  return 0;
}
