// The request's warnings.
#include "zelapi/warn.h"

#include <algorithm>
#include <mutex>

namespace pnl_warn {
namespace {

struct Pile {
  std::mutex mutex;
  std::vector<std::string> texts;  // distinct, in the order added
};

// Never destroyed: a warning may be added while static objects go away.
Pile& GetPile() {
  static Pile* pile = new Pile;
  return *pile;
}

std::string OneLine(const std::string& text) {
  std::string line;
  line.reserve(text.size());
  for (char c : text) {
    if (c == '\r') continue;
    if (c == '\n')
      line += "; ";
    else
      line += c;
  }
  while (line.size() >= 2 && line.compare(line.size() - 2, 2, "; ") == 0) line.resize(line.size() - 2);
  return line;
}

}  // namespace

void Add(const std::string& text) {
  std::string line = OneLine(text);
  if (line.empty()) return;
  Pile& pile = GetPile();
  std::lock_guard lock(pile.mutex);
  if (std::find(pile.texts.begin(), pile.texts.end(), line) == pile.texts.end())
    pile.texts.push_back(std::move(line));
}

std::vector<std::string> Pending() {
  Pile& pile = GetPile();
  std::lock_guard lock(pile.mutex);
  return pile.texts;
}

std::vector<std::string> Take() {
  Pile& pile = GetPile();
  std::lock_guard lock(pile.mutex);
  std::vector<std::string> texts;
  texts.swap(pile.texts);
  return texts;
}

}  // namespace pnl_warn
