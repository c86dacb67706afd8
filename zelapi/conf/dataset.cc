#include "zelapi/conf/dataset.h"

#include <mutex>

#include "cached_file.h"
#include "zelapi/err.h"

using Guard = std::lock_guard<std::recursive_mutex>;

ConfDataSet::ConfDataSet() = default;

ConfDataSet::~ConfDataSet() { Release(); }

void ConfDataSet::Release() noexcept {
  if (!file_) return;
  try {
    Guard guard(file_->mutex());
    file_->Unbind(*this);
  } catch (...) {
    // Locking can only fail on a broken mutex; the cursor goes away anyway.
  }
  file_.reset();
  state_ = kNone;
  record_ = -1;
}

zel_conf::CachedFile& ConfDataSet::Open() const {
  if (!file_) throw pnl_err::Error("conf", "cursor", "the cursor is not open on a file");
  return *file_;
}

void ConfDataSet::ClearFields() {
  for (std::size_t i = 0; i < FieldCount(); ++i) FieldAt(i).Erase();
}

const std::string& ConfDataSet::FileName() const {
  static const std::string none;
  return file_ ? file_->path() : none;
}

bool ConfDataSet::Find(const std::string& key) {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  return f.Find(*this, key);
}

std::uint64_t ConfDataSet::ContentVersion() {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  return f.Version();
}

void ConfDataSet::First() {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  f.First(*this);
}

void ConfDataSet::Next() {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  f.Next(*this);
}

bool ConfDataSet::Eof() const {
  // Another cursor's re-read may move this one: read the state under the lock.
  if (!file_) return state_ == kNone || state_ == kEof;
  Guard guard(file_->mutex());
  return state_ == kNone || state_ == kEof;
}

bool ConfDataSet::IsNew() const {
  if (!file_) return state_ == kNew;
  Guard guard(file_->mutex());
  return state_ == kNew;
}

void ConfDataSet::New() {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  f.New(*this);
}

void ConfDataSet::Create(const std::string& key) {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  f.Create(*this, key);
}

void ConfDataSet::Assert(const std::string& key) {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  if (!f.Find(*this, key))
    throw pnl_err::Error("conf", f.path(), "no record with key '" + key + "'");
}

void ConfDataSet::Post(const std::string& note) {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  f.Post(*this, note, nullptr);
}

void ConfDataSet::Post(ConfDataSet& other) {
  zel_conf::CachedFile& f = Open();
  if (!SameFile(other))
    throw pnl_err::Error("conf", f.path(), "Post after a cursor of another file");
  Guard guard(f.mutex());
  f.Post(*this, std::string(), &other);
}

void ConfDataSet::Delete() { _Delete(true); }

bool ConfDataSet::_Delete(bool must_exist) {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  return f.Delete(*this, must_exist);
}

bool ConfDataSet::Delete(const std::string& key) {
  zel_conf::CachedFile& f = Open();
  Guard guard(f.mutex());
  if (!f.Find(*this, key)) return false;
  return f.Delete(*this, true, /*checked=*/true);
}

HeadDataSet::HeadDataSet() = default;
HeadDataSet::~HeadDataSet() = default;

void HeadDataSet::Drop() { Release(); }

HeadDataSet* HeadDataSet::Base() { return this; }
