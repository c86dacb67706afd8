// Internationalised domain names through libidn2 (IDNA2008 with the UTS #46
// mapping). Labels that are already ASCII are copied as they are, so a name
// that needs no conversion is never rewritten (its letter case included).
#include <idn2.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "zelapi/str.h"

namespace str {
namespace {

struct IdnFree {
  void operator()(void* p) const { idn2_free(p); }
};
using IdnString = std::unique_ptr<char, IdnFree>;

bool IsAscii(const std::string& text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

// One non-ASCII label to its A-label. Non-transitional processing keeps
// characters such as "ß" as they are; the transitional mapping is the
// fallback for the few names that only it accepts.
bool LabelToAscii(const std::string& label, std::string& out) {
  if (label.find('\0') != std::string::npos) return false;
  for (int mode : {IDN2_NONTRANSITIONAL, IDN2_TRANSITIONAL}) {
    uint8_t* result = nullptr;
    const int rc = idn2_lookup_u8(reinterpret_cast<const uint8_t*>(label.c_str()), &result,
                                  mode | IDN2_NFC_INPUT);
    IdnString owned(reinterpret_cast<char*>(result));
    if (rc == IDN2_OK && owned) {
      out = owned.get();
      return true;
    }
  }
  return false;
}

bool HasALabel(const std::string& domain) {
  size_t start = 0;
  for (;;) {
    if (domain.size() - start >= 4) {
      const std::string prefix = domain.substr(start, 4);
      if ((prefix[0] == 'x' || prefix[0] == 'X') && (prefix[1] == 'n' || prefix[1] == 'N') &&
          prefix[2] == '-' && prefix[3] == '-')
        return true;
    }
    const size_t dot = domain.find('.', start);
    if (dot == std::string::npos) return false;
    start = dot + 1;
  }
}

}  // namespace

bool IdnToAscii(const std::string& domain, std::string& out) {
  if (IsAscii(domain)) {
    out = domain;
    return true;
  }
  std::string result;
  size_t start = 0;
  for (;;) {
    const size_t dot = domain.find('.', start);
    const std::string label =
        domain.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    if (IsAscii(label)) {
      result += label;
    } else {
      std::string converted;
      if (!LabelToAscii(label, converted)) return false;
      result += converted;
    }
    if (dot == std::string::npos) break;
    result += '.';
    start = dot + 1;
  }
  out = result;
  return true;
}

bool IdnALabelsValid(const std::string& domain) {
  size_t start = 0;
  for (;;) {
    const size_t dot = domain.find('.', start);
    const std::string label =
        domain.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    const bool a_label = label.size() >= 4 && (label[0] == 'x' || label[0] == 'X') &&
                         (label[1] == 'n' || label[1] == 'N') && label[2] == '-' &&
                         label[3] == '-';
    if (a_label) {
      // Decoded, the label must be one that the Unicode form's own checks
      // take, and encode back to itself: the same rules for both spellings.
      char* decoded = nullptr;
      const int rc = idn2_to_unicode_8z8z(label.c_str(), &decoded, 0);
      IdnString owned(decoded);
      if (rc != IDN2_OK || !owned) return false;
      std::string unicode = owned.get();
      for (unsigned char c : unicode)
        if (c < 0x20 || c == 0x7f) return false;
      std::string back;
      if (IsAscii(unicode) || !LabelToAscii(unicode, back)) return false;
      std::string lower = label;
      for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      if (back != lower) return false;
    }
    if (dot == std::string::npos) return true;
    start = dot + 1;
  }
}

std::string IdnToUnicode(const std::string& domain) {
  if (!HasALabel(domain)) return domain;
  char* result = nullptr;
  const int rc = idn2_to_unicode_8z8z(domain.c_str(), &result, 0);
  IdnString owned(result);
  if (rc != IDN2_OK || !owned) return domain;
  return owned.get();
}

}  // namespace str
