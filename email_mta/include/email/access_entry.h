// email::AccessEntry: one line of the server's access map (the map of
// client, sender and domain policies), and whether the panel wrote it.
#pragma once

#include <string>

namespace email {

struct AccessEntry {
  std::string key;
  std::string value;
  bool panel = false;  // the panel wrote this key with this very value

  // "KEY VALUE", for messages.
  std::string Text() const { return key + " " + value; }
};

}  // namespace email
