#include "loader.h"

#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "zelapi/conf/dataset.h"
#include "zelapi/conf/parse_context.h"
#include "zelapi/err.h"

namespace zel_conf {

namespace {

// Lines of text, the last one counted also without its line end.
std::size_t CountLines(std::string_view text) {
  std::size_t lines = 1;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p < end) {
    const void* nl = std::memchr(p, '\n', static_cast<std::size_t>(end - p));
    if (nl == nullptr) break;
    ++lines;
    p = static_cast<const char*>(nl) + 1;
  }
  return lines;
}

}  // namespace

ViewParsers::ViewParsers(const TableDef& def) {
  for (const TableDef::View& view : def.views) {
    parsers_.emplace_back(view.factory());
    const dd::Record& record = *parsers_.back();
    if (record.FieldCount() == 0)
      throw pnl_err::Error(pnl_err::Kind::kConf, view.label, "a record view needs at least its key field");
  }
}

ViewParsers::~ViewParsers() = default;
ViewParsers::ViewParsers(ViewParsers&&) noexcept = default;
ViewParsers& ViewParsers::operator=(ViewParsers&&) noexcept = default;

int ViewParsers::Claim(Cf& cf) const {
  const pnl_token::Token::Type first = cf.token_type();
  if (first == pnl_token::Token::LineEnd || first == pnl_token::Token::End) return -1;
  for (std::size_t v = 0; v < parsers_.size(); ++v) {
    cf.Rewind();
    cf.Offer(parsers_[v].get());
    bool claimed;
    try {
      claimed = parsers_[v]->Parse(cf);
    } catch (const std::exception&) {
      claimed = false;
    }
    if (claimed) return static_cast<int>(v);
  }
  cf.Rewind();
  return -1;
}

const dd::Record& ViewParsers::Parser(int view) const {
  return *parsers_[static_cast<std::size_t>(view)];
}

DiskText ReadDisk(const std::string& path) {
  DiskText disk;
  if (!pnl_file::ReadFile(path, disk.data, disk.id)) {
    disk.data.clear();
    disk.id = pnl_file::FileId();
  }
  return disk;
}

Store BuildStore(std::string text, const TableDef& def, const ViewParsers& views) {
  std::vector<std::size_t> counts;
  for (std::size_t v = 0; v < def.views.size(); ++v)
    counts.push_back(views.Parser(static_cast<int>(v)).FieldCount());
  Store fresh;
  fresh.Reset(std::move(text), counts, def.fold_keys);
  const std::string& base = fresh.base();
  fresh.ReserveLines(CountLines(base));
  Cf cf(base, *def.rules);
  while (cf.NextLine()) {
    const std::int32_t line = fresh.AppendLine(cf.line_offset(), cf.line_end() - cf.line_offset());
    const int view = views.Claim(cf);
    if (view >= 0 && cf.stored()) fresh.AddRecord(line, cf.line_offset(), cf, view);
  }
  fresh.IndexAll();
  return fresh;
}

}  // namespace zel_conf
