#include "zelapi/file.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <mutex>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zelapi/err.h"
#include "zelapi/fd.h"

namespace pnl_file {

namespace {

FileId FromStat(const struct stat& st) {
  FileId id;
  id.exists = true;
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  id.size = static_cast<std::uint64_t>(st.st_size);
  id.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  id.mode = st.st_mode & 07777;
  id.uid = st.st_uid;
  id.gid = st.st_gid;
  return id;
}

std::mutex& OpsMutex() {
  static std::mutex m;
  return m;
}

// The POSIX Ops, never destroyed.
const std::shared_ptr<Ops>& DefaultOps() {
  static const std::shared_ptr<Ops>* const ops = new std::shared_ptr<Ops>(std::make_shared<Ops>());
  return *ops;
}

std::shared_ptr<Ops>& OpsSlot() {
  static std::shared_ptr<Ops> slot = DefaultOps();
  return slot;
}

// Whether an Ops other than the default one is installed: while none is,
// CurrentOps takes no lock (it runs once per disk check).
std::atomic<bool>& Replaced() {
  static std::atomic<bool> replaced{false};
  return replaced;
}

[[noreturn]] void Fail(const std::string& path, const std::string& step, int err) {
  throw pnl_err::Error(pnl_err::Kind::kFile, path, step + ": " + std::strerror(err));
}

// How old a temporary file without a holder must be before a later save
// takes it for the leftover of a save that was killed.
constexpr std::int64_t kStaleTempSeconds = 10;

bool IsTempName(const std::string& entry, const std::string& prefix) {
  if (entry.size() != prefix.size() + 6 || entry.compare(0, prefix.size(), prefix) != 0)
    return false;
  for (std::size_t i = prefix.size(); i < entry.size(); ++i)
    if (!std::isalnum(static_cast<unsigned char>(entry[i]))) return false;
  return true;
}

// Removes the temporary files ".<name>.XXXXXX" that earlier saves of name
// left behind when they were killed between creating and renaming them. A
// save holds an exclusive lock on its temporary file from its creation on,
// so a file nobody holds that is older than a few seconds belongs to no
// live save. Best effort: what cannot be checked or removed stays.
void RemoveStaleTemps(const std::string& dir, const std::string& name) {
  DIR* folder = ::opendir(dir.c_str());
  if (!folder) return;
  const std::string prefix = "." + name + ".";
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  while (struct dirent* entry = ::readdir(folder)) {
    if (!IsTempName(entry->d_name, prefix)) continue;
    const int fd = ::openat(::dirfd(folder), entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) continue;
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
        now.tv_sec - st.st_mtim.tv_sec >= kStaleTempSeconds && ::flock(fd, LOCK_EX | LOCK_NB) == 0)
      ::unlinkat(::dirfd(folder), entry->d_name, 0);
    ::close(fd);
  }
  ::closedir(folder);
}

}  // namespace

bool FileId::SameContent(const FileId& other) const {
  if (!exists || !other.exists) return exists == other.exists;
  return dev == other.dev && ino == other.ino && size == other.size && mtime_ns == other.mtime_ns;
}

Ops::~Ops() = default;

int Ops::Stat(const std::string& path, FileId& id) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return errno;
  id = FromStat(st);
  return 0;
}

int Ops::Open(const std::string& path, int flags, unsigned mode, int& fd) {
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, static_cast<mode_t>(mode));
  } while (fd < 0 && errno == EINTR);
  return fd < 0 ? errno : 0;
}

int Ops::Fstat(int fd, FileId& id) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return errno;
  id = FromStat(st);
  return 0;
}

int Ops::Read(int fd, char* buffer, std::size_t size, std::size_t& got) {
  ssize_t n;
  do {
    n = ::read(fd, buffer, size);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno;
  got = static_cast<std::size_t>(n);
  return 0;
}

int Ops::Write(int fd, const char* data, std::size_t size, std::size_t& written) {
  ssize_t n;
  do {
    n = ::write(fd, data, size);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno;
  written = static_cast<std::size_t>(n);
  return 0;
}

int Ops::Fsync(int fd) { return ::fsync(fd) == 0 ? 0 : errno; }

int Ops::Fchmod(int fd, unsigned mode) {
  return ::fchmod(fd, static_cast<mode_t>(mode)) == 0 ? 0 : errno;
}

int Ops::Fchown(int fd, unsigned uid, unsigned gid) {
  return ::fchown(fd, static_cast<uid_t>(uid), static_cast<gid_t>(gid)) == 0 ? 0 : errno;
}

int Ops::Close(int fd) { return ::close(fd) == 0 ? 0 : errno; }

int Ops::Rename(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int Ops::Unlink(const std::string& path) { return ::unlink(path.c_str()) == 0 ? 0 : errno; }

int Ops::MakeTemp(std::string& path, int& fd) {
  fd = ::mkostemp(path.data(), O_CLOEXEC);
  return fd < 0 ? errno : 0;
}

int Ops::RealPath(const std::string& path, std::string& resolved) {
  char* real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) return errno;
  resolved = real;
  ::free(real);
  return 0;
}

int Ops::MakeDir(const std::string& path, unsigned mode) {
  return ::mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 ? 0 : errno;
}

int Ops::RemoveDir(const std::string& path) { return ::rmdir(path.c_str()) == 0 ? 0 : errno; }

int Ops::SyncFileSystem(int fd) { return ::syncfs(fd) == 0 ? 0 : errno; }

std::shared_ptr<Ops> CurrentOps() {
  if (!Replaced().load(std::memory_order_acquire)) return DefaultOps();
  std::lock_guard<std::mutex> guard(OpsMutex());
  return OpsSlot();
}

std::shared_ptr<Ops> SetOps(std::shared_ptr<Ops> ops) {
  if (!ops) ops = DefaultOps();
  std::lock_guard<std::mutex> guard(OpsMutex());
  std::shared_ptr<Ops> previous = std::move(OpsSlot());
  Replaced().store(ops != DefaultOps(), std::memory_order_release);
  OpsSlot() = std::move(ops);
  return previous;
}

FileId StatFile(const std::string& path) {
  std::shared_ptr<Ops> ops = CurrentOps();
  FileId id;
  int err = ops->Stat(path, id);
  if (err == ENOENT) return FileId();
  if (err != 0) Fail(path, "cannot stat", err);
  return id;
}

bool ReadFile(const std::string& path, std::string& data, FileId& id) {
  std::shared_ptr<Ops> ops = CurrentOps();
  int fd = -1;
  int err = ops->Open(path, O_RDONLY, 0, fd);
  if (err == ENOENT) return false;
  if (err != 0) Fail(path, "cannot open for reading", err);
  Fd guard(fd, *ops);
  if ((err = ops->Fstat(fd, id)) != 0) Fail(path, "cannot stat", err);
  data.clear();
  // One read past the expected size tells the end; a file that grows while
  // it is read is read to its actual end.
  data.resize(static_cast<std::size_t>(id.size) + 1);
  std::size_t used = 0;
  for (;;) {
    if (used == data.size()) data.resize(data.size() * 2);
    std::size_t got = 0;
    if ((err = ops->Read(fd, data.data() + used, data.size() - used, got)) != 0)
      Fail(path, "cannot read", err);
    if (got == 0) break;
    used += got;
  }
  data.resize(used);
  // The identity must describe what was read: take it again at the end.
  if ((err = ops->Fstat(fd, id)) != 0) Fail(path, "cannot stat", err);
  return true;
}

bool CloseToOthers(const std::string& path, unsigned* old_mode) {
  std::shared_ptr<Ops> ops = CurrentOps();
  int fd = -1;
  // O_NONBLOCK: a FIFO put in the file's place must not hold the caller.
  if (ops->Open(path, O_RDONLY | O_NONBLOCK, 0, fd) != 0) return false;
  Fd guard(fd, *ops);
  FileId id;
  if (ops->Fstat(fd, id) != 0) return false;
  if (id.uid != ::geteuid() || (id.mode & 07) == 0) return false;
  if (ops->Fchmod(fd, id.mode & ~07u) != 0) return false;
  if (old_mode != nullptr) *old_mode = id.mode;
  return true;
}

void WriteNewFile(const std::string& path, std::string_view data, unsigned mode) {
  std::shared_ptr<Ops> ops = CurrentOps();
  int fd = -1;
  if (const int err = ops->Open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode, fd); err != 0)
    Fail(path, "cannot make it", err);
  try {
    Fd guard(fd, *ops);
    // The mode as asked, whatever the umask took away.
    if (const int err = ops->Fchmod(fd, mode); err != 0) Fail(path, "cannot set its mode", err);
    std::size_t done = 0;
    while (done < data.size()) {
      std::size_t written = 0;
      if (const int err = ops->Write(fd, data.data() + done, data.size() - done, written); err != 0)
        Fail(path, "cannot write it", err);
      done += written;
    }
    if (const int err = guard.Close(); err != 0) Fail(path, "cannot close it", err);
  } catch (...) {
    ops->Unlink(path);
    throw;
  }
}

void GiveTo(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
  if (::geteuid() == 0 && ::chown(path.c_str(), uid, gid) != 0)
    Fail(path, "cannot change its owner", errno);
  if (::chmod(path.c_str(), mode) != 0) Fail(path, "cannot change its mode", errno);
}

std::string FolderOf(const std::string& path) {
  std::string::size_type slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  std::string::size_type slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

namespace safe {

TempFile::~TempFile() {
  if (fd_ >= 0) ops_.Close(fd_);
  if (committed_ || path_.empty()) return;
  ops_.Unlink(path_);
  for (const std::string& also : also_) ops_.Unlink(also);
}

int TempFile::Make(const std::string& folder, const std::string& name) {
  std::string path = (folder == "/" ? "" : folder) + "/." + name + ".XXXXXX";
  int fd = -1;
  const int err = ops_.MakeTemp(path, fd);
  if (err != 0) return err;
  path_ = std::move(path);
  fd_ = fd;
  return 0;
}

int TempFile::Close() {
  const int fd = fd_;
  fd_ = -1;
  return ops_.Close(fd);
}

Folder::Folder(const std::string& path) { Open(path); }

Folder::~Folder() { Close(); }

Folder::Folder(Folder&& other) noexcept : fd_(other.fd_), path_(std::move(other.path_)) {
  other.fd_ = -1;
}

Folder& Folder::operator=(Folder&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    path_ = std::move(other.path_);
    other.fd_ = -1;
  }
  return *this;
}

void Folder::Open(const std::string& path) {
  Close();
  std::shared_ptr<Ops> ops = CurrentOps();
  int fd = -1;
  int err = ops->Open(path, O_RDONLY | O_DIRECTORY, 0, fd);
  if (err != 0) Fail(path, "cannot open folder", err);
  fd_ = fd;
  path_ = path;
}

void Folder::Sync() {
  std::shared_ptr<Ops> ops = CurrentOps();
  int err = ops->Fsync(fd_);
  if (err != 0) Fail(path_, "cannot flush folder", err);
}

void Folder::Close() noexcept {
  if (fd_ >= 0) {
    CurrentOps()->Close(fd_);
    fd_ = -1;
  }
  path_.clear();
}

FileId WriteFile(Folder& folder, const std::string& path, std::string_view data,
                 const FileId* original, Flush flush) {
  return WriteFile(folder, path, std::vector<std::string_view>{data}, original, flush);
}

FileId WriteFile(Folder& folder, const std::string& path, const std::vector<std::string_view>& pieces,
                 const FileId* original, Flush flush) {
  std::shared_ptr<Ops> ops = CurrentOps();
  // Through a symbolic link the file it points to is replaced, so the link
  // stays a link. A file that does not exist yet is made where path says.
  std::string target = path;
  {
    std::string real;
    const int err = ops->RealPath(path, real);
    if (err == 0)
      target = std::move(real);
    else if (err != ENOENT)
      Fail(path, "cannot resolve the path", err);
  }
  const std::string dir = FolderOf(target);
  if (!folder.IsOpen() || folder.Path() != dir) folder.Open(dir);

  RemoveStaleTemps(dir, BaseName(target));
  TempFile temp(*ops);
  int err = temp.Make(dir, BaseName(target));
  if (err != 0) Fail(path, "cannot create temporary file in " + dir, err);
  const int fd = temp.fd();
  const std::string& temp_path = temp.path();
  // Held until the descriptor is closed: a later save leaves a temporary
  // file alone while its save lives.
  ::flock(fd, LOCK_EX | LOCK_NB);

  auto write_all = [&](const char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
      std::size_t written = 0;
      err = ops->Write(fd, data + done, size - done, written);
      if (err == 0 && written == 0) err = EIO;
      if (err != 0) Fail(path, "cannot write temporary file " + temp_path, err);
      done += written;
    }
  };
  // Pieces of at least kDirect bytes go straight to the file; shorter ones
  // are gathered first, so that many short pieces make few writes.
  constexpr std::size_t kGather = 256 * 1024;
  constexpr std::size_t kDirect = 64 * 1024;
  std::string gathered;
  for (std::string_view piece : pieces) {
    if (piece.size() >= kDirect) {
      if (!gathered.empty()) {
        write_all(gathered.data(), gathered.size());
        gathered.clear();
      }
      write_all(piece.data(), piece.size());
      continue;
    }
    if (gathered.size() + piece.size() > kGather) {
      write_all(gathered.data(), gathered.size());
      gathered.clear();
    }
    gathered.append(piece);
  }
  if (!gathered.empty()) write_all(gathered.data(), gathered.size());

  FileId temp_id;
  if ((err = ops->Fstat(fd, temp_id)) != 0) Fail(path, "cannot stat temporary file", err);
  const bool keep = original != nullptr && original->exists;
  const unsigned mode = keep ? original->mode : 0644;
  if ((err = ops->Fchmod(fd, mode)) != 0) Fail(path, "cannot set mode of temporary file", err);
  if (keep && (temp_id.uid != original->uid || temp_id.gid != original->gid)) {
    if ((err = ops->Fchown(fd, original->uid, original->gid)) != 0)
      Fail(path, "cannot give temporary file the owner of the original", err);
  }
  if (flush == Flush::kNow && (err = ops->Fsync(fd)) != 0)
    Fail(path, "cannot flush temporary file", err);
  FileId id;
  if ((err = ops->Fstat(fd, id)) != 0) Fail(path, "cannot stat temporary file", err);
  if ((err = temp.Close()) != 0) Fail(path, "cannot close temporary file", err);
  if ((err = ops->Rename(temp.path(), target)) != 0)
    Fail(path, "cannot rename " + temp.path() + " over " + target, err);
  temp.Commit();
  if (flush == Flush::kLater) return id;
  try {
    folder.Sync();
  } catch (const pnl_err::Error& e) {
    throw pnl_err::Error(pnl_err::Kind::kFile, path, std::string("saved, but ") + e.detail());
  }
  return id;
}

void FlushFileSystem(const std::string& path) {
  std::shared_ptr<Ops> ops = CurrentOps();
  int fd = -1;
  int err = ops->Open(path, O_RDONLY | O_NONBLOCK, 0, fd);
  if (err != 0) Fail(path, "cannot open to flush its file system", err);
  Fd guard(fd, *ops);
  if ((err = ops->SyncFileSystem(fd)) != 0) Fail(path, "cannot flush its file system", err);
}

}  // namespace safe

}  // namespace pnl_file
