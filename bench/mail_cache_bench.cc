// Cache passes and mailbox creation at hosting scale: a virtual user table of
// 100,000 mailbox lines in 10,000 domains, on real files, a real SQLite
// database and the real makemap and newaliases.
//
//   BM_CacheDomains, BM_CacheEmails: one whole pass each, the file reported
//     changed every time.
//   BM_CreateEmail: one mailbox into the full table; the counters split the
//     time into the operation's own work and the rebuild commands it ran.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "email_sendmail/sendmail_interface.h"
#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/mail/tables.h"
#include "zelapi/proc.h"

namespace {

constexpr int kDomains = 10000;
constexpr int kMailboxesPerDomain = 10;

// Runs every command for real and adds up the time spent in commands.
class TimingRunner : public pnl_proc::Runner {
 public:
  TimingRunner() : real_(pnl_proc::CurrentRunner()) { pnl_proc::SetRunner(this); }
  ~TimingRunner() override { pnl_proc::SetRunner(nullptr); }
  pnl_proc::RunResult Run(const std::string& command, int mode) override {
    const auto start = std::chrono::steady_clock::now();
    pnl_proc::RunResult result = real_.Run(command, mode);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
  }
  double seconds = 0;

 private:
  pnl_proc::Runner& real_;
};

std::string DomainName(int d) { return "d" + std::to_string(d) + ".example"; }

// The sandbox: files written directly, maps built once, panel rows inserted.
class Sandbox {
 public:
  Sandbox() : dir_(std::string(ZEL_BENCH_SCRATCH) + "/mail-cache") {
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    {
      std::ofstream vut(dir_ + "/virtusertable"), lhn(dir_ + "/local-host-names"),
          aliases(dir_ + "/aliases"), access(dir_ + "/access");
      aliases << "devnull:\t\"/dev/null\"\n";
      for (int d = 0; d < kDomains; ++d) {
        const std::string domain = DomainName(d);
        vut << "@" << domain << "\terror:nouser No such user here\n";
        lhn << domain << "\n";
        for (int m = 0; m < kMailboxesPerDomain; ++m) {
          const std::string local = "user" + std::to_string(m);
          vut << local << "@" << domain << "\t" << local << "+" << domain << "\n";
          aliases << local << "+" << domain << ":\t" << local << "\\@" << domain << "\n";
        }
      }
    }
    pnl_cf::Clear();
    pnl_cf::SetPath("sendmail-virtusertable", dir_ + "/virtusertable");
    pnl_cf::SetPath("sendmail-localhostnames", dir_ + "/local-host-names");
    pnl_cf::SetPath("sendmail-accessdb", dir_ + "/access");
    pnl_cf::SetPath("sendmail-aliases", dir_ + "/aliases");
    pnl_cf::SetPath("sendmail-newaliases", "/usr/sbin/sendmail -bi -oA" + dir_ + "/aliases");
    pnl_cf::SetPath("sendmail-restart", "true");
    pnl_proc::Execute("/usr/sbin/makemap hash " + dir_ + "/virtusertable < " + dir_ + "/virtusertable", 0);
    pnl_proc::Execute(pnl_cf::GetPath("sendmail-newaliases"), 0);

    zel_db::OpenCache(dir_ + "/panel.db");
    pnl_db::Cache* db = zel_db::GetCache();
    db->BeginRequest();
    db->Query("INSERT INTO users(name) VALUES('admin')");
    for (int d = 0; d < kDomains; ++d)
      db->Query("INSERT INTO domain(name, users) VALUES('" + DomainName(d) + "', 1)");
    db->EndRequest();
    mta_ = std::make_unique<zelpriv_email_sendmail::SendmailInterface>();
  }
  ~Sandbox() {
    mta_.reset();
    zel_db::CloseCache();
    std::filesystem::remove_all(dir_);
  }

  zelpriv_email_sendmail::SendmailInterface& mta() { return *mta_; }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
  std::unique_ptr<zelpriv_email_sendmail::SendmailInterface> mta_;
};

Sandbox& Box() {
  static Sandbox box;
  return box;
}

// One cache pass in a request of its own, the file reported changed.
template <class Pass>
void RunPass(benchmark::State& state, Pass pass) {
  Sandbox& box = Box();
  for (auto _ : state) {
    state.PauseTiming();
    zel_db::ForgetFileState(box.dir() + "/virtusertable");
    state.ResumeTiming();
    pnl_db::Cache* db = zel_db::GetCache();
    db->BeginRequest();
    pass(box.mta());
    db->EndRequest();
  }
}

void BM_CacheDomains(benchmark::State& state) {
  RunPass(state, [](auto& mta) { mta.CacheDomains(); });
  state.counters["domains"] = kDomains;
}

void BM_CacheEmails(benchmark::State& state) {
  // The domain rows must exist for mailboxes to be cached.
  zel_db::GetCache()->BeginRequest();
  Box().mta().CacheDomains();
  zel_db::GetCache()->EndRequest();
  RunPass(state, [](auto& mta) { mta.CacheEmails(); });
  state.counters["mailboxes"] = kDomains * kMailboxesPerDomain;
}

void BM_CreateEmail(benchmark::State& state) {
  Sandbox& box = Box();
  pnl_db::Cache* db = zel_db::GetCache();
  db->BeginRequest();
  box.mta().CacheDomains();
  db->EndRequest();
  auto domains = db->Get<zel_db::EmailDomainTable>();
  int n = 0;
  double total = 0, commands = 0;
  for (auto _ : state) {
    db->BeginRequest();
    domains->name.Lookup(DomainName(n % kDomains));
    auto email = db->Get<zel_db::EmailTable>();
    email->New();
    email->name = "new" + std::to_string(n++);
    email->domain = domains->id;
    email->Post();
    TimingRunner runner;
    const auto start = std::chrono::steady_clock::now();
    box.mta().CreateEmail(email);
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    commands += runner.seconds;
    db->EndRequest();
  }
  state.counters["own_ms"] = benchmark::Counter(1000 * (total - commands) / n);
  state.counters["commands_ms"] = benchmark::Counter(1000 * commands / n);
  state.counters["own_share_pct"] = benchmark::Counter(100 * (total - commands) / commands);
}

}  // namespace

BENCHMARK(BM_CacheDomains)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CacheEmails)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CreateEmail)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK_MAIN();
