// ConfDataSet and HeadDataSet: a cursor on the records of one view of one
// cached configuration file.
//
// A record view derives from HeadDataSet, declares its fields (dd::Field,
// dd::ArrayField) and overrides Parse and NewRecordTemplate. The engine
// makes one view object per cursor (ConfRef::_Get) and binds it to the
// cached file; the cursor then finds, walks, creates, posts and deletes
// records of its view. All cursors of one file, of any view, share the one
// cached copy of that file in the process.
//
// The disk: Find, First, New, Create and Assert, and every write, first
// check whether the file changed on disk (inode, size or modification time)
// and read it again if so; a cursor on a record is then moved to the same
// record (same key, same occurrence) in the new copy, or loses it (a later
// Post, Delete or Next throws). A hand edit is never overwritten from a
// stale copy. The check is one stat of the path per operation (Delete(key)
// included); Next makes none.
//
// Keys: Find, Create, Assert and Delete(key) compare the key field
// exactly, or without ASCII letter case in a table registered so
// (ConfCache::FoldKeys).
//
// Cost: keys are found through a hash index per view, so Find, Create,
// Assert and Delete(key) take the same time in a file of a million lines
// as in one of a thousand; a save writes the whole file once, from the
// cached copy's buffers.
//
// Writing: each Post, and each Delete of a record, saves the file at once
// (atomically) and then calls the table's AfterSave with reason 0; while
// the engine is in deferred mode (ConfCache::BeginDeferred) they only
// change the cached copy. A Post that changes nothing still saves the file
// as it is (and so runs AfterSave): posting is how a caller asks for the
// table's after-save step. A changed record rewrites only its own line, and
// on it only the byte spans of the changed fields when they are known
// (spacing and a trailing comment survive); otherwise, and always for a
// record over several lines of a table whose lines continue each other
// (pnl_token::Continuation), the line becomes NewRecordTemplate(). Before
// anything is written, the new line is parsed back: a value that would not
// read back as written (it holds a comment start, leading blanks, a word
// that turns the line into another view's line, a trailing backslash that
// would take in the next line...) or a line longer than the table's
// pnl_token::LongestLine is refused with pnl_err::Error(pnl_err::Kind::kConf) and nothing
// changes.
//
// Threads: one cursor belongs to one thread at a time; cursors on the same
// file may be used from different threads, each operation holding the
// file's lock. Errors are pnl_err::Error of type "conf" (records) or "file"
// (the file system), naming the file and the key.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zelapi/conf/field.h"
#include "zelapi/smart_ptr.h"

class Cf;
class HeadDataSet;
namespace zel_conf {
class CachedFile;
class CursorBinding;
struct CursorPosition;
}

class ConfDataSet : public virtual dd::Record {
 public:
  ~ConfDataSet() override;

  // dd::Record. Each throws pnl_err::Error(pnl_err::Kind::kConf) when the cursor is not
  // open on a file (see HeadDataSet::Drop), and errors of the re-read.
  bool Find(const std::string& key) override;   // false: no record; fields emptied
  void First() override;                        // Eof() if the view has no record
  void Next() override;                         // no disk check; throws without a position
  bool Eof() const override;                    // true also before any positioning
  void New() override;
  void Create(const std::string& key) override;  // throws for a key with a line end
  void Assert(const std::string& key) override;  // "<file>: no record with key '<key>'"

  // Writes the current record: an existing one in place (only what changed
  // since it was read, merged over a newer copy from disk), a new one as
  // NewRecordTemplate() appended at the end of the file (or, when the last
  // line ends in a backslash that joins lines, right before it). note is not written
  // into the file: the save hands it to AfterSave (ConfRef::Notes). After a
  // Post the cursor stands on the record. Throws without a current or new
  // record, when the record changed on disk and cannot be found again, and
  // when the new line would not read back as written.
  void Post(const std::string& note);
  // Posts a new record placed right after other's current record (and the
  // continuation lines, lines starting with a blank, that follow it); at
  // the end when other stands on no record. An existing record is posted in
  // place. other must be a cursor on the same file (any view). (Where lines
  // continue each other, a record includes its continuation lines.)
  void Post(ConfDataSet& other);
  // Removes the current record's line, and the continuation lines that
  // follow it (unclaimed lines starting with a blank, which would
  // otherwise join the record before). Next() then moves to the record
  // that followed. Throws when the cursor stands on no record.
  void Delete();
  // As Delete(); without a current record returns false if !must_exist
  // (throws otherwise). True when a record was deleted.
  bool _Delete(bool must_exist);
  // Find(key), and Delete() if found; returns whether it was found.
  bool Delete(const std::string& key);

  // The cached file's path ("" when not open).
  const std::string& FileName() const;
  // A number that changes whenever the copy's content may have changed
  // (read again because the file changed on disk, or edited through any
  // cursor, saved or deferred) and never repeats within the process: what
  // a caller derived from the file stays valid while this stays the same.
  // Makes the disk check First makes.
  std::uint64_t ContentVersion();
  bool IsOpen() const { return file_ != nullptr; }
  // True on a new record that is not posted yet (New, or Create of a
  // missing key).
  bool IsNew() const;
  // True when both cursors are open on the one cached copy of a file.
  bool SameFile(const ConfDataSet& other) const { return file_ && file_ == other.file_; }

 protected:
  ConfDataSet();
  // Releases the file and the position (HeadDataSet::Drop).
  void Release() noexcept;

 private:
  // The engine binds a new cursor to its file through this one accessor.
  friend class zel_conf::CursorBinding;

  zel_conf::CachedFile& Open() const;

  std::shared_ptr<zel_conf::CachedFile> file_;
  HeadDataSet* head_ = nullptr;
  // Where the cursor stands, as the file made it: the cursor keeps it and
  // hands it back with each operation; only the file reads it.
  std::unique_ptr<zel_conf::CursorPosition> at_;
};

// The base of every record view.
class HeadDataSet : public virtual ConfDataSet, public virtual dd::Record {
 public:
  ~HeadDataSet() override;

  // Lets go of the file and the position: the cached file may then be
  // dropped from memory; any navigation afterwards throws.
  virtual void Drop();
  // The view at the head of the cursor: this object.
  virtual HeadDataSet* Base();
  // Claims and reads the current line of cf; see Cf.
  virtual bool Parse(Cf& cf) = 0;
  // The text of a new line for the current field values, "\n" included.
  virtual std::string NewRecordTemplate() = 0;

 protected:
  HeadDataSet();
};

// A shared cursor of view R.
template <class R>
using Cursor = SmartPtr<R>;
