// The configuration-file engine at hosting scale, on generated files shaped
// like the panel's own: a virtual user table (catch-all lines of domains,
// mailbox lines, alias lines, suspended mailboxes) and an aliases file
// (local deliveries, forwards, quoted responder pipes), read through the
// real record views of email_mta (no after-save step is installed, so no
// map is rebuilt: these are the engine's own costs).
//
//   BM_Load*          read, parse and index a file into a fresh engine;
//                     MB_per_s is decimal megabytes of file per second.
//   BM_Reload         the same file read again through the process engine
//                     after it changed on disk (the old copy is dropped).
//   BM_Find, BM_Assert, BM_Create*, BM_Delete*, BM_Add*: one operation by
//                     key on a file of 1,000 or 1,000,000 lines; the
//                     deferred ones (batch work) change only the cached copy.
//                     stats_per_op counts the disk checks.
//   BM_Post           one changed record saved: the whole file written to a
//                     temporary file, flushed, renamed, folder flushed.
//   BM_PostAfterLoad  the same, as the first change to a freshly read copy
//                     (one command of the panel's host program); BM_Post's
//                     copy collects all the rounds' edited lines instead.
//   BM_RewriteFloor   the same bytes written the same way without the engine.
//   BM_PeakMemory     a fresh process loads the file; peak_ratio is its peak
//                     resident memory above what it had before, divided by
//                     the file's size (held_ratio: what stays after loading).
//
// Build and run (release flavour):
//   cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_BENCH=ON
//   make -C build-bench engine_bench && build-bench/bin/engine_bench
// On a busy machine the CPU column is the engine's own work; the Time
// column adds whatever waiting the machine imposed (and, for saves, the disk).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "email/file_views.h"
#include "email/tables.h"
#include "zelapi/conf/conf.h"
#include "zelapi/file.h"

namespace {

enum class Kind { kVirtusertable, kAliases };

const char* const kLocals[] = {"info",   "sales",     "support", "office", "j.smith",
                               "anna.k", "webmaster", "billing", "hr",     "noreply"};
const char* const kTlds[] = {".example", ".example.net", ".shop.example", ".co.example"};

std::string Scratch() {
  const std::string dir = std::string(ZEL_BENCH_SCRATCH) + "/engine";
  std::filesystem::create_directories(dir);
  return dir;
}

std::string Domain(int d) { return "host-" + std::to_string(d) + kTlds[d % 4]; }

// A generated file: its path, size and the keys of its records (the view
// the key benchmarks use: mailbox addresses, alias names).
struct DataFile {
  std::string path;
  std::size_t bytes = 0;
  std::vector<std::string> keys;
};

// Exactly `lines` lines. Virtual user table: per domain its catch-all line,
// ten mailboxes (every 40th suspended) and an alias line for every third.
// Aliases: the devnull entry, then one entry per mailbox: the local delivery,
// a forward before it for every 7th, a quoted responder pipe for every 23rd,
// two forwards and no local delivery for every 50th.
std::string Generate(Kind kind, int lines, std::vector<std::string>& keys) {
  std::string out;
  out.reserve(static_cast<std::size_t>(lines) * 48);
  int written = 0;
  auto line = [&](const std::string& text) {
    if (written < lines) {
      out += text;
      out += '\n';
      ++written;
    }
  };
  line("# generated for the engine benchmark");
  if (kind == Kind::kAliases) line("devnull:\t\"/dev/null\"");
  for (int d = 0; written < lines; ++d) {
    const std::string domain = Domain(d);
    if (kind == Kind::kVirtusertable)
      line("@" + domain + "\t" + (d % 5 == 4 ? "devnull" : "error:nouser No such user here"));
    for (int m = 0; m < 10 && written < lines; ++m) {
      const std::string local = kLocals[m];
      const std::string address = local + "@" + domain;
      const std::string box = local + "+" + domain;
      const int n = d * 10 + m;
      if (kind == Kind::kVirtusertable) {
        keys.push_back(address);
        line(address + "\t" + (n % 40 == 39 ? "error:nouser Account temporary disabled" : box));
        if (m % 3 == 0 && written < lines) {
          keys.push_back("contact" + std::to_string(m) + "@" + domain);
          line(keys.back() + "\t" + address);
        }
      } else {
        keys.push_back(box);
        const std::string local_delivery = local + "\\@" + domain;
        std::string targets = local_delivery;
        if (n % 50 == 49)
          targets = "owner" + std::to_string(n) + "@mail.example, desk@" + domain;
        else if (n % 23 == 22)
          targets = "\"|/usr/lib/zelpnl/zelpnl-responder " + address + "\", " + local_delivery;
        else if (n % 7 == 6)
          targets = "user" + std::to_string(n) + "@forward.example, " + local_delivery;
        line(box + ":\t" + targets);
      }
    }
  }
  return out;
}

const DataFile& File(Kind kind, int lines) {
  static std::map<std::pair<int, int>, DataFile> files;
  DataFile& f = files[{static_cast<int>(kind), lines}];
  if (f.path.empty()) {
    f.path = Scratch() + (kind == Kind::kVirtusertable ? "/virtusertable-" : "/aliases-") +
             std::to_string(lines);
    const std::string text = Generate(kind, lines, f.keys);
    std::ofstream out(f.path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + f.path);
    f.bytes = text.size();
    // Keys in random order, their texts allocated in that order: walking
    // the list costs no cache misses of its own.
    std::shuffle(f.keys.begin(), f.keys.end(), std::mt19937(42));
    std::vector<std::string> keys;
    keys.reserve(f.keys.size());
    for (const std::string& key : f.keys) keys.push_back(key);
    f.keys.swap(keys);
  }
  return f;
}

// A new modification time, so that the engine sees a changed file.
void Touch(const std::string& path) {
  static long tick = 0;
  struct timespec times[2];
  times[0].tv_sec = times[1].tv_sec = 1700000000 + ++tick;
  times[0].tv_nsec = times[1].tv_nsec = 0;
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throw std::runtime_error("cannot touch " + path);
}

// Counts the disk checks (stat by path) the engine makes.
class CountingOps : public pnl_file::Ops {
 public:
  int Stat(const std::string& path, pnl_file::FileId& id) override {
    ++stats;
    return pnl_file::Ops::Stat(path, id);
  }
  long stats = 0;
};

// --------------------------------------------------------------- loading

// The token rules of email_mta's VirtualUserTable and AliasTable, for an
// engine of the benchmark's own.
std::shared_ptr<pnl_token::Params> Rules(Kind kind) {
  auto rules = std::make_shared<pnl_token::Params>();
  if (kind == Kind::kVirtusertable) {
    rules->Add(pnl_token::CharToken("@", 2));
    rules->Add(pnl_token::CharToken("\t ", 1));
  } else {
    rules->Add(pnl_token::CharToken(":\t ", 1));
  }
  rules->Add(pnl_token::CharToken("\n", 6));
  rules->Add(pnl_token::Comment("#", "\n", false));
  return rules;
}

template <class R>
void AddView(PnlConfCache& engine, const std::string& table) {
  engine.Add(table, typeid(R).name(), typeid(R).name(), &ConfCache::Create<R>);
}

const char* TableName(Kind kind) { return kind == Kind::kVirtusertable ? "virt" : "aliases"; }

// An engine of the benchmark's own that knows the one table of kind (and
// runs nothing after saves).
std::unique_ptr<PnlConfCache> FreshEngine(Kind kind) {
  auto engine = std::make_unique<PnlConfCache>(0);
  const std::string table = TableName(kind);
  engine->Register(table, Rules(kind));
  if (kind == Kind::kVirtusertable) {
    AddView<email::VirtualDomains>(*engine, table);
    AddView<email::VirtualEmails>(*engine, table);
  } else {
    AddView<email::Aliases>(*engine, table);
  }
  return engine;
}

// A first load: each round reads the file into an engine that has never
// seen it (the engine, and with it the copy, is destroyed untimed).
void Load(benchmark::State& state, Kind kind) {
  const DataFile& f = File(kind, static_cast<int>(state.range(0)));
  const std::string table = TableName(kind);
  for (auto _ : state) {
    state.PauseTiming();
    auto engine = FreshEngine(kind);
    state.ResumeTiming();
    {
      pnl_file::safe::Folder folder;
      ConfRef ref = engine->Config(table, folder, f.path, false);
      benchmark::DoNotOptimize(ref.FileName());
    }
    state.PauseTiming();
    engine.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.bytes));
  state.counters["MB_per_s"] =
      benchmark::Counter(static_cast<double>(f.bytes) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["file_MB"] = static_cast<double>(f.bytes) / 1e6;
}

void BM_LoadVirtusertable(benchmark::State& state) { Load(state, Kind::kVirtusertable); }
void BM_LoadAliases(benchmark::State& state) { Load(state, Kind::kAliases); }

// Reading again through the process engine after a change on disk.
void BM_Reload(benchmark::State& state) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  auto cursor = CachedConfig<email::VirtualUserTable, PnlConfCache>::Get<email::VirtualEmails>(f.path, false);
  for (auto _ : state) {
    state.PauseTiming();
    Touch(f.path);
    state.ResumeTiming();
    cursor->First();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.bytes));
  state.counters["MB_per_s"] =
      benchmark::Counter(static_cast<double>(f.bytes) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

// ------------------------------------------------------- key operations

using VirtCursor = Cursor<email::VirtualEmails>;

VirtCursor OpenVirt(const DataFile& f) {
  return CachedConfig<email::VirtualUserTable, PnlConfCache>::Get<email::VirtualEmails>(f.path, false);
}

// Runs op(cursor, key) over the file's keys in random order and reports
// the disk checks per operation.
template <class Op>
void KeyOp(benchmark::State& state, Op op) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  VirtCursor cursor = OpenVirt(f);
  cursor->First();
  auto ops = std::make_shared<CountingOps>();
  pnl_file::ScopedOps scoped(ops);
  std::size_t i = 0;
  for (auto _ : state) {
    op(*cursor, f.keys[i]);
    if (++i == f.keys.size()) i = 0;
  }
  state.counters["stats_per_op"] =
      benchmark::Counter(static_cast<double>(ops->stats), benchmark::Counter::kAvgIterations);
}

void BM_Find(benchmark::State& state) {
  KeyOp(state, [](email::VirtualEmails& c, const std::string& key) {
    if (!c.Find(key)) throw std::runtime_error("missing key " + key);
  });
}

void BM_Assert(benchmark::State& state) {
  KeyOp(state, [](email::VirtualEmails& c, const std::string& key) { c.Assert(key); });
}

void BM_CreateExisting(benchmark::State& state) {
  KeyOp(state, [](email::VirtualEmails& c, const std::string& key) { c.Create(key); });
}

void BM_CreateMissing(benchmark::State& state) {
  KeyOp(state, [](email::VirtualEmails& c, const std::string& key) { c.Create("new." + key); });
}

void BM_FindMissing(benchmark::State& state) {
  KeyOp(state, [](email::VirtualEmails& c, const std::string& key) {
    if (c.Find("gone." + key)) throw std::runtime_error("unexpected key");
  });
}

// Deferred (batch) work: deletes by key change only the cached copy. When
// the keys run out, the changes are discarded and the file read again,
// untimed.
void BM_DeleteDeferred(benchmark::State& state) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  PnlConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  VirtCursor cursor = OpenVirt(f);
  cursor->First();
  auto ops = std::make_shared<CountingOps>();
  pnl_file::ScopedOps scoped(ops);
  engine->BeginDeferred();
  std::size_t i = 0;
  for (auto _ : state) {
    if (!cursor->Delete(f.keys[i])) throw std::runtime_error("missing key " + f.keys[i]);
    if (++i == f.keys.size()) {
      state.PauseTiming();
      engine->DiscardDeferred();
      engine->BeginDeferred();
      cursor->First();
      ops->stats -= 1;
      i = 0;
      state.ResumeTiming();
    }
  }
  engine->DiscardDeferred();
  state.counters["stats_per_op"] =
      benchmark::Counter(static_cast<double>(ops->stats), benchmark::Counter::kAvgIterations);
}

// Deferred (batch) work: a new mailbox line, Create + Post, appended to the
// cached copy. Every 100,000 additions (and at the end) the additions are
// discarded, untimed, so the file keeps its size class.
void BM_AddDeferred(benchmark::State& state) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  PnlConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  VirtCursor cursor = OpenVirt(f);
  cursor->First();
  auto ops = std::make_shared<CountingOps>();
  pnl_file::ScopedOps scoped(ops);
  engine->BeginDeferred();
  long n = 0;
  std::size_t i = 0;
  for (auto _ : state) {
    const std::string& key = f.keys[i];
    cursor->Create("new" + std::to_string(n) + "." + key);
    cursor->target = "new" + std::to_string(n) + "+box.example";
    cursor->Post("");
    if (++i == f.keys.size()) i = 0;
    if (++n % 100000 == 0) {
      state.PauseTiming();
      engine->DiscardDeferred();
      engine->BeginDeferred();
      cursor->First();
      ops->stats -= 1;
      state.ResumeTiming();
    }
  }
  engine->DiscardDeferred();
  state.counters["stats_per_op"] =
      benchmark::Counter(static_cast<double>(ops->stats), benchmark::Counter::kAvgIterations);
}

// ----------------------------------------------------------------- saving

// A copy of a generated file that saves may change.
std::string WorkCopy(const DataFile& f, const std::string& name) {
  const std::string path = Scratch() + "/" + name;
  std::filesystem::copy_file(f.path, path, std::filesystem::copy_options::overwrite_existing);
  return path;
}

// One mailbox line changed and posted: the whole save.
void BM_Post(benchmark::State& state) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  const std::string path = WorkCopy(f, "post-" + std::to_string(state.range(0)));
  auto cursor = CachedConfig<email::VirtualUserTable, PnlConfCache>::Get<email::VirtualEmails>(path, false);
  std::size_t i = 0;
  long n = 0;
  for (auto _ : state) {
    const std::string& key = f.keys[i];
    cursor->Assert(key);
    cursor->target = "moved" + std::to_string(n++) + "+box.example";
    cursor->Post("");
    if (++i == f.keys.size()) i = 0;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.bytes));
  state.counters["file_MB"] = static_cast<double>(f.bytes) / 1e6;
}

// The same save as the first change after the file was read, as in a
// program that runs one command: each round reads the file (untimed) into
// an engine of its own, whose copy holds no edited line yet.
void BM_PostAfterLoad(benchmark::State& state) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  const std::string path = WorkCopy(f, "post-after-load-" + std::to_string(state.range(0)));
  std::size_t i = 0;
  long n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto engine = FreshEngine(Kind::kVirtusertable);
    VirtCursor cursor;
    {
      pnl_file::safe::Folder folder;
      ConfRef ref = engine->Config(TableName(Kind::kVirtusertable), folder, path, false);
      cursor = std::dynamic_pointer_cast<email::VirtualEmails>(ref._Get(typeid(email::VirtualEmails).name()));
    }
    state.ResumeTiming();
    const std::string& key = f.keys[i];
    cursor->Assert(key);
    cursor->target = "moved" + std::to_string(n++) + "+box.example";
    cursor->Post("");
    state.PauseTiming();
    cursor.reset();
    engine.reset();
    state.ResumeTiming();
    if (++i == f.keys.size()) i = 0;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.bytes));
  state.counters["file_MB"] = static_cast<double>(f.bytes) / 1e6;
}

// The floor of a save: the same bytes to a temporary file, fsync, rename
// over the file, fsync of the folder, with no engine at all.
void BM_RewriteFloor(benchmark::State& state) {
  const DataFile& f = File(Kind::kVirtusertable, static_cast<int>(state.range(0)));
  const std::string path = WorkCopy(f, "floor-" + std::to_string(state.range(0)));
  std::string text;
  {
    std::ifstream in(f.path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    text = all.str();
  }
  const std::string dir = Scratch();
  const std::string temp = path + ".tmp";
  const int dir_fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (dir_fd < 0) throw std::runtime_error("cannot open " + dir);
  for (auto _ : state) {
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + temp);
    std::size_t done = 0;
    while (done < text.size()) {
      const ssize_t w = ::write(fd, text.data() + done, text.size() - done);
      if (w <= 0) throw std::runtime_error("cannot write " + temp);
      done += static_cast<std::size_t>(w);
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temp.c_str(), path.c_str()) != 0 ||
        ::fsync(dir_fd) != 0)
      throw std::runtime_error("cannot replace " + path);
  }
  ::close(dir_fd);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.bytes));
  state.counters["file_MB"] = static_cast<double>(f.bytes) / 1e6;
}

// ----------------------------------------------------------------- memory

long StatusKb(const char* field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::size_t n = std::strlen(field);
  while (std::getline(in, line))
    if (line.compare(0, n, field) == 0) return std::atol(line.c_str() + n + 1);
  return -1;
}

// In the child: loads path as table kind and prints "base peak held" in kB.
int RssChild(const std::string& kind, const std::string& path) {
  const long base = StatusKb("VmRSS");
  {
    // Restart the peak from what the process holds now.
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
  }
  if (kind == "virt") {
    auto c = CachedConfig<email::VirtualUserTable, PnlConfCache>::Get<email::VirtualEmails>(path, false);
    c->First();
  } else {
    auto c = CachedConfig<email::AliasTable, PnlConfCache>::Get<email::Aliases>(path, false);
    c->First();
  }
  std::printf("%ld %ld %ld\n", base, StatusKb("VmHWM"), StatusKb("VmRSS"));
  return 0;
}

void PeakMemory(benchmark::State& state, Kind kind) {
  const DataFile& f = File(kind, static_cast<int>(state.range(0)));
  long base = 0, peak = 0, held = 0;
  for (auto _ : state) {
    const std::string command = "/proc/" + std::to_string(::getpid()) + "/exe --rss-child " +
                                (kind == Kind::kVirtusertable ? "virt " : "aliases ") + f.path;
    FILE* child = ::popen(command.c_str(), "r");
    if (child == nullptr || std::fscanf(child, "%ld %ld %ld", &base, &peak, &held) != 3)
      throw std::runtime_error("the measuring child failed: " + command);
    ::pclose(child);
  }
  const double size = static_cast<double>(f.bytes);
  state.counters["file_MB"] = size / 1e6;
  state.counters["peak_MB"] = static_cast<double>(peak - base) * 1024 / 1e6;
  state.counters["peak_ratio"] = static_cast<double>(peak - base) * 1024 / size;
  state.counters["held_ratio"] = static_cast<double>(held - base) * 1024 / size;
}

void BM_PeakMemoryVirtusertable(benchmark::State& state) { PeakMemory(state, Kind::kVirtusertable); }
void BM_PeakMemoryAliases(benchmark::State& state) { PeakMemory(state, Kind::kAliases); }

}  // namespace

BENCHMARK(BM_LoadVirtusertable)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadAliases)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Reload)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Find)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_FindMissing)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_Assert)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_CreateExisting)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_CreateMissing)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_DeleteDeferred)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_AddDeferred)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_Post)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PostAfterLoad)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RewriteFloor)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeakMemoryVirtusertable)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeakMemoryAliases)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--rss-child") == 0) return RssChild(argv[2], argv[3]);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
