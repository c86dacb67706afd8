// zelpnl words: a batch line split into the words of a command, the way a
// POSIX shell splits a simple command, without expansions. Pure functions,
// thread-safe.
//
//   blanks (space, tab) separate words;
//   '...'    holds everything literally up to the next single quote;
//   "..."    holds everything but \" \\ \$ \` (the backslash is dropped
//            before those four), up to the next unescaped double quote;
//   $'...'   holds text with the escapes \n \t \r \\ \' \" (line ends and
//            tabs inside one argument, e.g. a responder's text);
//   \c       outside quotes stands for c itself;
//   quoted and unquoted pieces that touch make one word ("" is an empty
//   word). A line whose first non-blank character is "#" holds no word.
#pragma once

#include <string>
#include <vector>

namespace zelpnl {

// The words of line (one line, no line end). Throws Invalid (kind
// "quoting", value the line from the faulty character on) for an
// unterminated quote, a backslash at the end of the line, or an unknown
// escape inside $'...'; the detail says which and where (column, counted
// from 1).
std::vector<std::string> SplitWords(const std::string& line);

}  // namespace zelpnl
