#include "memory_files.h"

#include <cerrno>
#include <fcntl.h>

namespace zelfuzz {

bool MemoryFiles::Get(const std::string& path, std::string& data) const {
  auto it = files_.find(path);
  data = it == files_.end() ? std::string() : it->second.data;
  return it != files_.end();
}

void MemoryFiles::Put(const std::string& path, const std::string& data) {
  File& f = files_[path];
  f.data = data;
  f.ino = next_ino_++;
  f.mtime = static_cast<std::int64_t>(f.ino);
}

int MemoryFiles::Stat(const std::string& path, pnl_file::FileId& id) {
  auto it = files_.find(path);
  if (it == files_.end()) return ENOENT;
  id = pnl_file::FileId();
  id.exists = true;
  id.dev = 1;
  id.ino = it->second.ino;
  id.size = it->second.data.size();
  id.mtime_ns = it->second.mtime;
  id.mode = 0644;
  return 0;
}

int MemoryFiles::Open(const std::string& path, int flags, unsigned, int& fd) {
  const bool folder = (flags & O_DIRECTORY) != 0;
  if (!folder && files_.find(path) == files_.end()) {
    if (!(flags & O_CREAT)) return ENOENT;
    Put(path, "");
  }
  if (!folder && (flags & O_TRUNC)) Put(path, "");
  fd = next_fd_++;
  open_[fd] = {path, 0, folder};
  return 0;
}

int MemoryFiles::Fstat(int fd, pnl_file::FileId& id) {
  auto it = open_.find(fd);
  if (it == open_.end()) return EBADF;
  return Stat(it->second.path, id);
}

int MemoryFiles::Read(int fd, char* buffer, std::size_t size, std::size_t& got) {
  auto it = open_.find(fd);
  if (it == open_.end()) return EBADF;
  const std::string& data = files_[it->second.path].data;
  got = it->second.pos < data.size() ? std::min(size, data.size() - it->second.pos) : 0;
  data.copy(buffer, got, it->second.pos);
  it->second.pos += got;
  return 0;
}

int MemoryFiles::Write(int fd, const char* data, std::size_t size, std::size_t& written) {
  auto it = open_.find(fd);
  if (it == open_.end()) return EBADF;
  files_[it->second.path].data.append(data, size);
  written = size;
  return 0;
}

int MemoryFiles::Fsync(int fd) { return open_.count(fd) ? 0 : EBADF; }
int MemoryFiles::Fchmod(int fd, unsigned) { return open_.count(fd) ? 0 : EBADF; }
int MemoryFiles::Fchown(int fd, unsigned, unsigned) { return open_.count(fd) ? 0 : EBADF; }

int MemoryFiles::Close(int fd) { return open_.erase(fd) ? 0 : EBADF; }

int MemoryFiles::Rename(const std::string& from, const std::string& to) {
  auto it = files_.find(from);
  if (it == files_.end()) return ENOENT;
  File moved = it->second;
  files_.erase(it);
  moved.ino = next_ino_++;
  moved.mtime = static_cast<std::int64_t>(moved.ino);
  files_[to] = moved;
  return 0;
}

int MemoryFiles::Unlink(const std::string& path) { return files_.erase(path) ? 0 : ENOENT; }

int MemoryFiles::MakeTemp(std::string& path, int& fd) {
  path.replace(path.size() - 6, 6, "t" + std::to_string(100000 + temp_++ % 100000));
  return Open(path, O_CREAT | O_RDWR, 0600, fd);
}

int MemoryFiles::RealPath(const std::string& path, std::string& resolved) {
  if (files_.find(path) == files_.end()) return ENOENT;
  resolved = path;
  return 0;
}

}  // namespace zelfuzz
