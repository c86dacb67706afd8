// An in-memory file system behind pnl_file::Ops, so that the fuzz targets
// run the configuration engine's reads and saves without touching the disk.
// Every file written gets a new inode number, so the engine sees each new
// content as a change. One thread.
#pragma once

#include <map>
#include <string>

#include "zelapi/file.h"

namespace zelfuzz {

class MemoryFiles : public pnl_file::Ops {
 public:
  // The content of path ("" and false when there is none).
  bool Get(const std::string& path, std::string& data) const;
  // Replaces path's content (a new inode).
  void Put(const std::string& path, const std::string& data);

  int Stat(const std::string& path, pnl_file::FileId& id) override;
  int Open(const std::string& path, int flags, unsigned mode, int& fd) override;
  int Fstat(int fd, pnl_file::FileId& id) override;
  int Read(int fd, char* buffer, std::size_t size, std::size_t& got) override;
  int Write(int fd, const char* data, std::size_t size, std::size_t& written) override;
  int Fsync(int fd) override;
  int Fchmod(int fd, unsigned mode) override;
  int Fchown(int fd, unsigned uid, unsigned gid) override;
  int Close(int fd) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Unlink(const std::string& path) override;
  int MakeTemp(std::string& path, int& fd) override;
  int RealPath(const std::string& path, std::string& resolved) override;

 private:
  struct File {
    std::string data;
    std::uint64_t ino = 0;
    std::int64_t mtime = 0;
  };
  struct Open_ {
    std::string path;
    std::size_t pos = 0;
    bool folder = false;
  };
  std::map<std::string, File> files_;
  std::map<int, Open_> open_;
  int next_fd_ = 100;
  std::uint64_t next_ino_ = 1;
  int temp_ = 0;
};

}  // namespace zelfuzz
