// Several processes on one database file: they wait for each other's write
// lock instead of failing, and the first open of a new file by two at once
// creates the schema once.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "test_tables.h"
#include "zelapi/db/cache.h"
#include "zelapi/err.h"

namespace {

constexpr int kRequests = 40;
constexpr int kRowsPerRequest = 5;

// Runs body in a child process; returns a handle to wait for. The child
// exits 0 when body returned, 1 when it threw. The parent must hold no
// connection at the fork (a connection is never carried into a child).
pid_t Spawn(const std::function<void()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    int code = 0;
    try {
      body();
    } catch (const std::exception& e) {
      fprintf(stderr, "child failed: %s\n", e.what());
      code = 1;
    }
    _exit(code);
  }
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A pipe both processes read one byte from to start together.
class StartLine {
 public:
  StartLine() { EXPECT_EQ(pipe(fds_), 0); }
  ~StartLine() {
    close(fds_[0]);
    close(fds_[1]);
  }
  void Wait() {
    char c;
    EXPECT_EQ(read(fds_[0], &c, 1), 1);
  }
  void Open(int waiting) {
    for (int i = 0; i < waiting; ++i) EXPECT_EQ(write(fds_[1], "g", 1), 1);
  }

 private:
  int fds_[2] = {-1, -1};
};

void WriteRows(const std::string& file, const std::string& who) {
  auto cache = pnl_db::Cache::Open(file, dbtest::TestSchema());
  for (int r = 0; r < kRequests; ++r) {
    pnl_db::Request request(*cache);
    auto items = cache->Get<dbtest::ItemTable>();
    for (int i = 0; i < kRowsPerRequest; ++i) {
      items->New();
      items->name = who + "-" + std::to_string(r) + "-" + std::to_string(i);
      items->Post();
    }
    // Read what this request wrote, inside the same transaction.
    if (!items->name.Lookup(who + "-" + std::to_string(r) + "-0"))
      throw pnl_err::Error(pnl_err::Kind::kInternal, who, "own row not found");
    request.End();
  }
}

}  // namespace

TEST(ProcessTest, TwoProcessesWritingAtOnceBothSucceed) {
  zeltest::Sandbox sandbox("TwoProcessesWritingAtOnceBothSucceed");
  const std::string file = sandbox.Path("shared.db");
  StartLine start;
  // Both open the new file at once, so the schema is also created under
  // contention.
  const pid_t child = Spawn([&] {
    start.Wait();
    WriteRows(file, "child");
  });
  std::thread parent_side([&] {
    start.Wait();
    try {
      WriteRows(file, "parent");
    } catch (const std::exception& e) {
      ADD_FAILURE() << "parent failed: " << e.what();
    }
  });
  start.Open(2);
  parent_side.join();
  EXPECT_EQ(Wait(child), 0);

  auto cache = pnl_db::Cache::Open(file, dbtest::TestSchema());
  EXPECT_EQ(cache->SchemaVersion(), 2);
  EXPECT_EQ(cache->Query("SELECT count(*) FROM item").Int(), 2 * kRequests * kRowsPerRequest);
  EXPECT_EQ(cache->Query("SELECT count(*) FROM item WHERE name LIKE 'child-%'").Int(),
            kRequests * kRowsPerRequest);
}

TEST(ProcessTest, ARequestWaitsForAnotherProcesssLongRequest) {
  zeltest::Sandbox sandbox("ARequestWaitsForAnotherProcesssLongRequest");
  const std::string file = sandbox.Path("shared.db");
  { pnl_db::Cache::Open(file, dbtest::TestSchema()); }
  StartLine locked;
  int done[2];
  ASSERT_EQ(pipe(done), 0);
  // The child holds the write lock over a long request; the parent's request
  // must wait for it rather than fail with "database is locked".
  const pid_t child = Spawn([&] {
    auto cache = pnl_db::Cache::Open(file, dbtest::TestSchema());
    pnl_db::Request request(*cache);
    cache->Query("INSERT INTO owner (name) VALUES ('child')");
    if (write(done[1], "l", 1) != 1) throw pnl_err::Error(pnl_err::Kind::kInternal, "pipe", "write");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    request.End();
  });
  char c;
  ASSERT_EQ(read(done[0], &c, 1), 1);  // the child holds the lock now
  auto cache = pnl_db::Cache::Open(file, dbtest::TestSchema());
  {
    pnl_db::Request request(*cache);
    EXPECT_EQ(cache->Query("SELECT count(*) FROM owner").Int(), 1);  // after the child's commit
    cache->Query("INSERT INTO owner (name) VALUES ('parent')");
    request.End();
  }
  EXPECT_EQ(Wait(child), 0);
  EXPECT_EQ(cache->Query("SELECT group_concat(name, ',') FROM owner").Str(), "child,parent");
  close(done[0]);
  close(done[1]);
}

TEST(ProcessTest, OpeningWaitsForAWriterOfAFileStillInTheOldJournalMode) {
  zeltest::Sandbox sandbox("OpeningWaitsForAWriterOfAFileStillInTheOldJournalMode");
  const std::string file = sandbox.Path("shared.db");
  // A database in SQLite's default journal mode with a writer inside a
  // transaction (as when another process is switching the same new file to
  // WAL): switching it to WAL has to wait for the writer, where SQLite itself
  // gives up at once.
  sqlite3* writer = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &writer), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(writer, "CREATE TABLE other (x); BEGIN IMMEDIATE; INSERT INTO other VALUES (1);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  std::thread finish([writer] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
  });
  try {
    auto cache = pnl_db::Cache::Open(file, dbtest::TestSchema());
    EXPECT_EQ(cache->Query("PRAGMA journal_mode").Str(), "wal");
    EXPECT_EQ(cache->SchemaVersion(), 2);
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what();
  }
  finish.join();
  sqlite3_close(writer);
}
