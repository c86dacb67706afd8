// pnl_warn: the warnings of the current request.
//
// A step that does its work but wants the administrator to know of
// something (a map rebuilt without lines someone else wrote badly) adds a
// warning here instead of failing. The host takes the warnings after the
// command, prints each on standard error as "warning: TEXT", adds them to
// its JSON output and logs them; a host that never takes them leaves them
// for the next Take. A warning is one line of text: line ends inside it
// become "; ", trailing ones are dropped, an empty text is ignored, and a
// text already pending is not added twice. All functions are thread-safe.
#pragma once

#include <string>
#include <vector>

namespace pnl_warn {

// Adds text to the pending warnings (see above).
void Add(const std::string& text);
// The pending warnings, in the order added; they stay pending.
std::vector<std::string> Pending();
// The pending warnings, in the order added; none are pending after.
std::vector<std::string> Take();

}  // namespace pnl_warn
