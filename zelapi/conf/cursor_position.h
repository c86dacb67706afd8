// Where one cursor stands in its cached file, and what it read there.
//
// A cursor (ConfDataSet) owns its position but never looks inside it: the
// public header only forward-declares CursorPosition. The cached file
// makes a position when it binds a cursor (CursorBinding, the one way in to
// a cursor's private state), and moves and reads it in every cursor
// operation, with the file's lock held; a re-read moves the positions of
// every cursor bound to the file. Internal to the engine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class ConfDataSet;
class HeadDataSet;

namespace zel_conf {

class CachedFile;

struct CursorPosition {
  enum State { kNone, kOnRecord, kNew, kAfterDelete, kEof, kLost };

  int view = -1;                 // index of the cursor's view in the table
  State state = kNone;
  std::int32_t record = -1;      // kOnRecord
  std::int32_t next_line = -1;   // kAfterDelete: the line to continue from
  bool from_create = false;      // kNew made by Create
  std::string lost_key;          // kLost: the key that vanished
  std::vector<std::string> loaded;  // field values as read (Str form)
  // loaded holds the texts as stored instead, made Str form (Field::Canonical)
  // only when a post needs them: moving onto a record costs no joining.
  bool loaded_raw = false;
};

// Binds a new cursor to the file that made its position: what the file
// hands over and the cursor keeps until it is released.
class CursorBinding {
 public:
  static void Bind(ConfDataSet& cursor, std::shared_ptr<CachedFile> file, HeadDataSet& head,
                   std::unique_ptr<CursorPosition> at);
};

}  // namespace zel_conf
