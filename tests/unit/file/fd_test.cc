// pnl_file::Fd: who closes the descriptor, when, and through which door.
#include "zelapi/fd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "zelapi/file.h"

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

int OpenNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

// Ops that remember the descriptors given back to them.
class ClosingOps : public pnl_file::Ops {
 public:
  int Close(int fd) override {
    closed.push_back(fd);
    return pnl_file::Ops::Close(fd);
  }
  std::vector<int> closed;
};

}  // namespace

TEST(FdTest, DescriptorIsClosedWhenTheFdGoes) {
  const int fd = OpenNull();
  { pnl_file::Fd owned(fd); }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(FdTest, EmptyFdClosesNothing) {
  pnl_file::Fd none;
  EXPECT_FALSE(none.open());
  EXPECT_EQ(none.Close(), 0);
}

TEST(FdTest, DescriptorOfTheSeamGoesBackToItsOps) {
  ClosingOps ops;
  const int fd = OpenNull();
  { pnl_file::Fd owned(fd, ops); }
  EXPECT_EQ(ops.closed, std::vector<int>{fd});
  EXPECT_FALSE(IsOpen(fd));
}

TEST(FdTest, MovedDescriptorIsClosedOnceByItsNewOwner) {
  ClosingOps ops;
  const int fd = OpenNull();
  pnl_file::Fd target;
  {
    pnl_file::Fd first(fd, ops);
    target = std::move(first);
    EXPECT_FALSE(first.open());
  }
  EXPECT_TRUE(IsOpen(fd));
  EXPECT_TRUE(ops.closed.empty());
  target.Close();
  EXPECT_EQ(ops.closed, std::vector<int>{fd});
}

TEST(FdTest, ResetClosesTheOldDescriptorAndKeepsTheNew) {
  const int a = OpenNull();
  const int b = OpenNull();
  pnl_file::Fd owned(a);
  owned.Reset(b);
  EXPECT_FALSE(IsOpen(a));
  EXPECT_EQ(owned.get(), b);
}

TEST(FdTest, ReleasedDescriptorStaysOpen) {
  const int fd = OpenNull();
  {
    pnl_file::Fd owned(fd);
    EXPECT_EQ(owned.Release(), fd);
  }
  EXPECT_TRUE(IsOpen(fd));
  ::close(fd);
}

TEST(FdTest, CloseReportsTheErrorOfClose) {
  // A descriptor closed behind the Fd's back: close(2) says EBADF.
  const int fd = OpenNull();
  pnl_file::Fd owned(fd);
  ::close(fd);
  EXPECT_EQ(owned.Close(), EBADF);
  EXPECT_FALSE(owned.open());
}
