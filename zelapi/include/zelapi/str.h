// str: string helpers of the platform. Pure functions, thread-safe.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace str {

// Returns the text before the first delimiter and removes it, with the
// delimiter, from text. Without a delimiter: returns the whole text and
// leaves text empty.
std::string GetWord(std::string& text, char delimiter);

// n bytes from the operating system's random source (getrandom). Throws
// pnl_err::Error (type "random") if the source fails.
std::string Random(size_t n);

// For tests: makes Random(n) return source(n) instead, so that a value drawn
// from it (a cache pass's tag) can be pinned; nullptr goes back to the
// operating system. Returns the source it replaces. Set it while no other
// thread draws.
using RandomSource = std::string (*)(size_t n);
RandomSource SetRandomSource(RandomSource source);

// sizeof(T) random bytes read as one T in the machine's byte order.
template <class T>
T Random() {
  const std::string bytes = Random(sizeof(T));
  T value;
  std::memcpy(&value, bytes.data(), sizeof(T));
  return value;
}

// text with the ASCII letters A-Z in lower case, other bytes as they are:
// how sendmail compares the keys of its maps and the names of its classes.
std::string Lower(std::string text);

// Decimal text of a number, with a minus sign when negative.
std::string Str(long value);

// Every occurrence of from in text replaced by to (from must not be empty;
// an empty from returns text unchanged).
std::string Replace(const std::string& text, const std::string& from, const std::string& to);

// The items with separator between each two ("" for none).
std::string Join(const std::vector<std::string>& items, const std::string& separator);

// Blanks (space, tab) removed at both ends.
std::string Trim(const std::string& text);

// The part of text left when every character of chars is taken off both
// ends (by default the blanks, space and tab, as Trim): a view into text,
// valid as long as text is, made without a copy.
std::string_view TrimView(std::string_view text, std::string_view chars = " \t");

// text as one /bin/sh word: unchanged when it is not empty and every
// character is one /bin/sh reads as itself in any word (letters, digits and
// "@._+=:/-,"), else in single quotes (a single quote inside written
// as '\''). The result, put on a command line, gives the shell text exactly.
std::string ShellWord(const std::string& text);

// The ASCII (A-label) form of a domain name given in Unicode or ASCII, lower
// case untouched for ASCII labels: they are copied as given, and each other
// label is converted on its own (IDNA2008 non-transitional with NFC input,
// transitional as the fallback). Returns false (out unchanged) when the name
// cannot be converted (invalid UTF-8, disallowed code points).
bool IdnToAscii(const std::string& domain, std::string& out);

// The Unicode form of an ASCII domain name for display; the input unchanged
// when it holds no A-label or cannot be decoded.
std::string IdnToUnicode(const std::string& domain);

// Whether every A-label ("xn--...") of the domain is the ASCII form of a
// label that IdnToAscii takes from Unicode, and encodes back to itself: a
// name given in its ASCII form passes the same checks (IDNA2008, the
// bidirectional rule, no control characters) as its Unicode form. A name
// without A-labels is valid here.
bool IdnALabelsValid(const std::string& domain);

}  // namespace str
