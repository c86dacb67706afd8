// The engine across threads: one table instance, serialised file access,
// and the cache's capacity.
#include <atomic>
#include <barrier>
#include <chrono>
#include <thread>

#include "test_tables.h"

using conftest::DomainView;
using conftest::MailView;
using conftest::Slurp;
using conftest::Spill;
using conftest::VirtTable;

namespace {

std::atomic<int> g_built{0};

// A table that is slow to build, so that two first uses overlap.
class SlowTable : public PnlCachedConfig<SlowTable> {
 public:
  SlowTable() {
    ++g_built;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken("@", 2));
    rules->Add(pnl_token::CharToken("\t ", 1));
    rules->Add(pnl_token::CharToken("\n", 6));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    conftest::AddView<DomainView>(e, name_);
  }
};

class ThreadsTest : public conftest::ScratchTest {};

}  // namespace

TEST_F(ThreadsTest, TwoFirstUsesAtOnceBuildOneTableInstance) {
  Spill(Path("slow.txt"), "@a.example\tdevnull\n");
  std::barrier start(2);
  std::atomic<int> found{0};
  auto use = [&] {
    start.arrive_and_wait();
    auto domains = SlowTable::Get<DomainView>(Path("slow.txt"), false);
    if (domains->Find("a.example")) ++found;
  };
  std::thread a(use), b(use);
  a.join();
  b.join();
  EXPECT_EQ(g_built.load(), 1);
  EXPECT_EQ(found.load(), 2);
  EXPECT_EQ(&SlowTable::Table(), &SlowTable::Table());
  EXPECT_EQ(SlowTable::Table().Name(), typeid(SlowTable).name());
}

TEST_F(ThreadsTest, PostsFromManyThreadsOnOneFileAllLand) {
  Spill(Path("v.txt"), "# mailboxes\n");
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto mails = VirtTable::Get<MailView>(Path("v.txt"), false);
      start.arrive_and_wait();
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "u" + std::to_string(t) + "-" + std::to_string(i) + "@x.example";
        mails->Create(name);
        mails->target = "box" + std::to_string(t);
        mails->Post("");
      }
    });
  }
  for (auto& th : threads) th.join();
  auto mails = VirtTable::Get<MailView>(Path("v.txt"), false);
  int count = 0;
  for (mails->First(); !mails->Eof(); mails->Next()) ++count;
  EXPECT_EQ(count, kThreads * kEach);
  const std::string text = Slurp(Path("v.txt"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kThreads * kEach + 1);
  EXPECT_EQ(conftest::Journal::Get().saves().size(), static_cast<std::size_t>(kThreads * kEach));
}

TEST_F(ThreadsTest, CacheKeepsAtMostItsCapacityOfUnreferencedFiles) {
  PnlConfCache engine(2);
  auto rules = std::make_shared<pnl_token::Params>();
  rules->Add(pnl_token::CharToken("\t ", 1));
  rules->Add(pnl_token::CharToken("\n", 6));
  engine.Register("names", rules);
  conftest::AddView<conftest::NameView>(&engine, "names");
  pnl_file::safe::Folder folder;
  for (int i = 0; i < 5; ++i) Spill(Path("f" + std::to_string(i)), "n" + std::to_string(i) + "\n");

  ConfRef held = engine.Config("names", folder, Path("f0"), false);
  for (int i = 1; i < 5; ++i) engine.Config("names", folder, Path("f" + std::to_string(i)), false);
  // f0 is held. Of the others, two (the capacity) are kept besides the one
  // used last, which became unreferenced only when its Config returned.
  EXPECT_EQ(engine.CachedFiles(), 4u);
  // A file with an open cursor is never dropped: it stays the one copy.
  SmartPtr<HeadDataSet> cursor = held._Get(typeid(conftest::NameView).name());
  held = ConfRef();
  for (int round = 0; round < 3; ++round)
    for (int i = 1; i < 5; ++i) engine.Config("names", folder, Path("f" + std::to_string(i)), false);
  EXPECT_EQ(engine.CachedFiles(), 4u);
  ConfRef again = engine.Config("names", folder, Path("f0"), false);
  SmartPtr<HeadDataSet> second = again._Get(typeid(conftest::NameView).name());
  EXPECT_TRUE(cursor->SameFile(*second));
}
