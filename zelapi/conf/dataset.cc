#include "zelapi/conf/dataset.h"

#include <utility>

#include "cached_file.h"
#include "cursor_position.h"
#include "zelapi/err.h"

// The cursor keeps its file and its position and hands the position back
// with each operation; the file reads and moves it under its own lock.

namespace zel_conf {

void CursorBinding::Bind(ConfDataSet& cursor, std::shared_ptr<CachedFile> file, HeadDataSet& head,
                         std::unique_ptr<CursorPosition> at) {
  cursor.file_ = std::move(file);
  cursor.head_ = &head;
  cursor.at_ = std::move(at);
}

}  // namespace zel_conf

ConfDataSet::ConfDataSet() = default;

ConfDataSet::~ConfDataSet() { Release(); }

void ConfDataSet::Release() noexcept {
  if (!file_) return;
  file_->Unbind(*at_);
  file_.reset();
  at_.reset();
}

zel_conf::CachedFile& ConfDataSet::Open() const {
  if (!file_) throw pnl_err::Error(pnl_err::Kind::kConf, "cursor", "the cursor is not open on a file");
  return *file_;
}

const std::string& ConfDataSet::FileName() const {
  static const std::string none;
  return file_ ? file_->path() : none;
}

bool ConfDataSet::Find(const std::string& key) { return Open().Find(*at_, *this, key); }

void ConfDataSet::Assert(const std::string& key) { Open().Assert(*at_, *this, key); }

std::uint64_t ConfDataSet::ContentVersion() { return Open().Version(); }

void ConfDataSet::First() { Open().First(*at_, *this); }

void ConfDataSet::Next() { Open().Next(*at_, *this); }

// Without a file the cursor stands nowhere: at the end, on no new record.
bool ConfDataSet::Eof() const { return file_ ? file_->AtEnd(*at_) : true; }

bool ConfDataSet::IsNew() const { return file_ ? file_->OnNew(*at_) : false; }

void ConfDataSet::New() { Open().New(*at_, *this); }

void ConfDataSet::Create(const std::string& key) { Open().Create(*at_, *this, key); }

void ConfDataSet::Post(const std::string& note) { Open().Post(*at_, *head_, note, nullptr); }

void ConfDataSet::Post(ConfDataSet& other) {
  zel_conf::CachedFile& f = Open();
  if (!SameFile(other))
    throw pnl_err::Error(pnl_err::Kind::kConf, f.path(), "Post after a cursor of another file");
  f.Post(*at_, *head_, std::string(), other.at_.get());
}

void ConfDataSet::Delete() { _Delete(true); }

bool ConfDataSet::_Delete(bool must_exist) { return Open().Delete(*at_, must_exist); }

bool ConfDataSet::Delete(const std::string& key) { return Open().DeleteKey(*at_, *this, key); }

HeadDataSet::HeadDataSet() = default;
HeadDataSet::~HeadDataSet() = default;

void HeadDataSet::Drop() { Release(); }

HeadDataSet* HeadDataSet::Base() { return this; }
