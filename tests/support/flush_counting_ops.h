// File operations that count the flushes to disk and do them all the same:
// for tests that a save flushes once, or not at all until asked.
#pragma once

#include "zelapi/file.h"

namespace zeltest {

class FlushCountingOps : public pnl_file::Ops {
 public:
  int fsyncs = 0;
  int syncfs = 0;
  int Fsync(int fd) override {
    ++fsyncs;
    return pnl_file::Ops::Fsync(fd);
  }
  int SyncFileSystem(int fd) override {
    ++syncfs;
    return pnl_file::Ops::SyncFileSystem(fd);
  }
};

}  // namespace zeltest
