// Loading a cached file: reading its bytes from disk, offering each line to
// the table's record views, and building the indexed copy (Store) of what
// they claim.
//
// The loader owns nothing that outlives a load except the views' parser
// objects (ViewParsers), which the file object keeps to check written lines
// with (LineWriter). Not thread-safe: the owning CachedFile holds its lock.
// Internal to the engine.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "cache_registry.h"
#include "store.h"
#include "zelapi/file.h"

class Cf;
class HeadDataSet;
namespace dd {
class Record;
}

namespace zel_conf {

// One parser object per view of a table, offered each line in the order the
// views were registered. The objects are scratch space for Parse: offering
// a line changes their fields, never the table.
class ViewParsers {
 public:
  ViewParsers() = default;
  // Makes one object per view of def. Throws pnl_err::Error(pnl_err::Kind::kConf) for a
  // view without fields (it would have no key).
  explicit ViewParsers(const TableDef& def);
  ~ViewParsers();
  ViewParsers(ViewParsers&&) noexcept;
  ViewParsers& operator=(ViewParsers&&) noexcept;

  // The view that claims cf's current line, or -1 (a line of only its line
  // end, or one no view claims; cf is then rewound). See Cf.
  int Claim(Cf& cf) const;
  // Precondition: 0 <= view < the number of views. Valid as this object.
  const dd::Record& Parser(int view) const;

 private:
  std::vector<std::unique_ptr<HeadDataSet>> parsers_;
};

// The file at path as it is on disk now: its bytes and their identity. A
// file that cannot be read is read as empty with no identity (the next
// check sees it changed).
struct DiskText {
  std::string data;
  pnl_file::FileId id;
};
DiskText ReadDisk(const std::string& path);

// The copy of text as views reads it: every line, every record a view
// claims, one key index per view. Time in proportion to the text's size.
Store BuildStore(std::string text, const TableDef& def, const ViewParsers& views);

}  // namespace zel_conf
