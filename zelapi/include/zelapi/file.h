// pnl_file: the one door through which the platform touches the file system.
//
// Every read, stat, temporary file, write, sync, rename, unlink and
// ownership change of the configuration engine goes through the installed
// pnl_file::Ops object. The default one calls POSIX directly; a test installs
// a subclass that fails on purpose (a short write, ENOSPC, a failing rename)
// to prove that a failed save leaves the original file intact and no
// temporary file behind. Installing Ops is thread-safe; an operation that is
// under way keeps the Ops it started with.
//
// Errors are thrown as pnl_err::Error with type "file", the path as object
// and the failed step plus the system's message as detail, for example
// "/etc/mail/access: cannot write temporary file: No space left on device".
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pnl_file {

// What stat says about a file: enough to notice that someone else changed
// it (device, inode, size, modification time in nanoseconds) and to give a
// replacement the same mode and owner.
struct FileId {
  bool exists = false;
  std::uint64_t dev = 0;
  std::uint64_t ino = 0;
  std::uint64_t size = 0;
  std::int64_t mtime_ns = 0;
  unsigned mode = 0;  // permission bits only (07777)
  unsigned uid = 0;
  unsigned gid = 0;

  // True when both describe the same content as far as stat can tell:
  // both missing, or same device, inode, size and modification time.
  bool SameContent(const FileId& other) const;
};

// The primitive calls. Each returns 0 on success or an errno value; none
// throws. Subclass and override single calls to inject faults.
class Ops {
 public:
  virtual ~Ops();

  virtual int Stat(const std::string& path, FileId& id);
  // open(2); fd receives the descriptor.
  virtual int Open(const std::string& path, int flags, unsigned mode, int& fd);
  virtual int Fstat(int fd, FileId& id);
  // One read(2); got = 0 at the end of the file. EINTR is retried.
  virtual int Read(int fd, char* buffer, std::size_t size, std::size_t& got);
  // One write(2); written may be short. EINTR is retried.
  virtual int Write(int fd, const char* data, std::size_t size, std::size_t& written);
  virtual int Fsync(int fd);
  virtual int Fchmod(int fd, unsigned mode);
  virtual int Fchown(int fd, unsigned uid, unsigned gid);
  virtual int Close(int fd);
  virtual int Rename(const std::string& from, const std::string& to);
  virtual int Unlink(const std::string& path);
  // mkstemp(3): path holds a template ending in "XXXXXX" and receives the
  // name that was created (mode 0600).
  virtual int MakeTemp(std::string& path, int& fd);
  // realpath(3): resolved receives path with every symbolic link resolved.
  virtual int RealPath(const std::string& path, std::string& resolved);
  // mkdir(2) with mode (the umask applies) and rmdir(2).
  virtual int MakeDir(const std::string& path, unsigned mode);
  virtual int RemoveDir(const std::string& path);
  // syncfs(2): everything written to the file system of fd reaches the disk.
  virtual int SyncFileSystem(int fd);
};

// The Ops in use (never null).
std::shared_ptr<Ops> CurrentOps();
// Installs ops (null: the default POSIX Ops) and returns the previous one.
std::shared_ptr<Ops> SetOps(std::shared_ptr<Ops> ops);

// Installs an Ops for its own lifetime and puts the previous one back.
class ScopedOps {
 public:
  explicit ScopedOps(std::shared_ptr<Ops> ops) : previous_(SetOps(std::move(ops))) {}
  ~ScopedOps() { SetOps(std::move(previous_)); }
  ScopedOps(const ScopedOps&) = delete;
  ScopedOps& operator=(const ScopedOps&) = delete;

 private:
  std::shared_ptr<Ops> previous_;
};

// The identity of path; exists is false when there is no such file.
// Throws pnl_err::Error(pnl_err::Kind::kFile) on any other failure (EACCES, ENOTDIR...).
FileId StatFile(const std::string& path);

// Reads the whole file into data and its identity (taken from the open
// descriptor, so it describes exactly the bytes read). Returns false when
// the file does not exist; throws pnl_err::Error(pnl_err::Kind::kFile) naming the path
// when it cannot be opened or read.
bool ReadFile(const std::string& path, std::string& data, FileId& id);

// When path is a file of the calling user that others (neither its owner nor
// its group) may read, write or run, takes their access away (chmod o-rwx),
// sets *old_mode to the mode it had and returns true. Returns false, changing
// nothing, for a missing file, a file of another user, or one closed to
// others already. A symbolic link is followed. Never throws; a file that
// cannot be opened or changed counts as unchanged.
bool CloseToOthers(const std::string& path, unsigned* old_mode = nullptr);

// Makes the file path, which must not exist yet (a symbolic link in its
// place counts as existing), with exactly mode (the umask aside) and
// content data. For set-ups that make files anew: nothing there is ever
// overwritten or followed. Throws pnl_err::Error(pnl_err::Kind::kFile) naming path; a
// file made but not fully written is removed again.
void WriteNewFile(const std::string& path, std::string_view data, unsigned mode);

// Gives path (a file or folder a set-up just made) the owner uid and group
// gid when this process runs as root (another user cannot give files away,
// and keeps them), then exactly mode. Throws pnl_err::Error(kFile) naming
// path.
void GiveTo(const std::string& path, unsigned uid, unsigned gid, unsigned mode);

// The folder part of path ("." for a bare name), and the last component.
std::string FolderOf(const std::string& path);
std::string BaseName(const std::string& path);

namespace safe {

// An open folder: the descriptor of the folder that holds a file being
// saved, kept so the folder itself can be flushed to disk after the rename
// that replaces the file (otherwise a crash could lose the rename). Empty
// until Open; closes its descriptor when destroyed. Move-only. One thread
// at a time.
class Folder {
 public:
  Folder() = default;
  // Opens the folder at path; throws pnl_err::Error(pnl_err::Kind::kFile) if it cannot.
  explicit Folder(const std::string& path);
  ~Folder();
  Folder(Folder&& other) noexcept;
  Folder& operator=(Folder&& other) noexcept;
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  const std::string& Path() const { return path_; }
  // Opens path (closing any folder held before); throws pnl_err::Error.
  void Open(const std::string& path);
  // fsync(2) of the folder; throws pnl_err::Error(pnl_err::Kind::kFile) on failure.
  // Precondition: IsOpen().
  void Sync();
  void Close() noexcept;

 private:
  int fd_ = -1;
  std::string path_;
};

// A temporary file made beside a file that is to be replaced: a new name
// ".NAME.XXXXXX" in the same folder (mode 0600), made through an Ops, so that
// the finished file can be renamed over the old one. Unless committed, the
// file is closed and removed when the object goes, together with any name
// given to AlsoRemove (the files a library made from its name by adding a
// suffix). WriteFile below writes through it; a caller whose file is written
// by someone else (a database library, a program) closes it and passes the
// name on. Costs one mkstemp; the Ops must outlive the object. One thread at
// a time; neither copied nor moved.
class TempFile {
 public:
  explicit TempFile(Ops& ops) : ops_(ops) {}
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // Makes ".name.XXXXXX" in folder ("/" and other folders alike). Returns 0,
  // or the error number of Ops::MakeTemp (nothing was made). Call once.
  int Make(const std::string& folder, const std::string& name);
  const std::string& path() const { return path_; }
  int fd() const { return fd_; }
  // Closes the descriptor (the name stays); returns Ops::Close's result.
  int Close();
  // Removes path too when the object goes uncommitted.
  void AlsoRemove(std::string path) { also_.push_back(std::move(path)); }
  // The file was renamed into place (or taken over): nothing is removed.
  void Commit() { committed_ = true; }

 private:
  Ops& ops_;
  std::string path_;
  int fd_ = -1;
  std::vector<std::string> also_;
  bool committed_ = false;
};

// Replaces the file at path with data, atomically: a temporary file beside
// it (".<name>.XXXXXX"), write, mode and owner of original (or 0644 and the
// caller's owner when original is null or does not exist), fsync, rename
// over path, fsync of the folder. When path is a symbolic link, the file it
// points to is replaced and the link stays (a hard link, by nature of the
// rename, does not stay shared). folder is (re)opened on the folder of the
// file replaced. Returns the identity of the new file. On failure
// throws pnl_err::Error(pnl_err::Kind::kFile) and path is left as it was, with no
// temporary file left behind (unless only the final folder sync failed:
// the new content is then in place and the error says so). A save killed
// before its rename leaves its temporary file; a later save of the same file
// removes such files once they are ten seconds old and no live save holds
// them (each save keeps its temporary file locked with flock).
// How a save reaches the disk: kNow flushes the new file and its folder
// before WriteFile returns (as described above); kLater leaves both to a
// later FlushFileSystem, for many small files saved at once, where one flush
// of the file system costs what one file's would. The replacement is atomic
// either way; only its durability waits.
enum class Flush { kNow, kLater };

FileId WriteFile(Folder& folder, const std::string& path, std::string_view data,
                 const FileId* original, Flush flush = Flush::kNow);

// As above, with the file's bytes given as pieces written one after the
// other (a file kept as stretches of several buffers is saved without being
// joined first). Large pieces are written from where they lie; short ones
// are gathered into writes of a few hundred kilobytes, so each byte is
// copied at most once on its way to the file. The pieces must stay valid
// until the call returns.
FileId WriteFile(Folder& folder, const std::string& path, const std::vector<std::string_view>& pieces,
                 const FileId* original, Flush flush = Flush::kNow);

// Flushes everything written to the file system that holds path (syncfs):
// what saves with Flush::kLater left. Throws pnl_err::Error(pnl_err::Kind::kFile) naming
// path when it cannot.
void FlushFileSystem(const std::string& path);

}  // namespace safe

}  // namespace pnl_file
