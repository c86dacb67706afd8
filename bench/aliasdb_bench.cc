// aliasdb_bench: `sendmail -bi` and zelpnl-newaliases side by side on
// generated aliases files of the panel's kind, in one run: the median wall
// time of each tool per size, its peak memory against the file's size, and
// a check that both built the same map.
//
//   aliasdb_bench [--sizes 10000,100000,300000,1000000] [--runs 3]
//                 [--sendmail-runs-above-200k 1] [--sendmail-limit 1800]
//
// sendmail's rebuild grows faster than the file, so above 200,000 aliases
// it runs --sendmail-runs-above-200k times (default 1), and a sendmail run
// longer than --sendmail-limit seconds is stopped: its row then shows the
// limit as a lower bound (">"), and the maps of that size are compared
// between the two writers only. Everything else runs --runs times.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <malloc.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "zelaliasdb/hash_map.h"

#ifndef ZEL_BENCH_SCRATCH
#error "ZEL_BENCH_SCRATCH must name the scratch folder"
#endif
#ifndef ZEL_BIN_DIR
#error "ZEL_BIN_DIR must name the folder of zelpnl-newaliases"
#endif

namespace fs = std::filesystem;

namespace {

struct Sample {
  double seconds = 0;
  long max_rss_kb = 0;
  int status = 0;
  bool stopped = false;  // ran out of time and was killed
};

// Runs argv, returns its wall time, peak resident memory and exit status;
// a run longer than limit seconds (0: no limit) is killed.
Sample Measure(const std::vector<std::string>& argv, double limit) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::fflush(stdout);  // else the child would print our buffer again
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    std::exit(1);
  }
  if (pid == 0) {
    std::freopen("/dev/null", "w", stdout);
    execv(args[0], args.data());
    std::perror(args[0]);
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  Sample s;
  for (;;) {
    const pid_t done = wait4(pid, &status, limit > 0 ? WNOHANG : 0, &usage);
    if (done == pid) break;
    if (limit > 0 && std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > limit &&
        !s.stopped) {
      kill(pid, SIGKILL);
      s.stopped = true;
    }
    if (done == 0) usleep(20000);
  }
  s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  s.max_rss_kb = usage.ru_maxrss;
  s.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return s;
}

// An aliases file as the panel writes it: one entry per mailbox (local
// delivery, forwards, responder pipes), ten mailboxes a domain.
std::string Generate(std::size_t n) {
  std::mt19937 random(static_cast<unsigned>(n));
  std::ostringstream out;
  out << "# generated: " << n << " mailboxes\n"
      << "devnull:\t\"/dev/null\"\nMAILER-DAEMON:\tpostmaster\npostmaster:\troot\n";
  for (std::size_t i = 0; i < n; ++i) {
    const std::string d = "dom" + std::to_string(i / 10) + ".example";
    const std::string l = "user" + std::to_string(i);
    const unsigned r = random() % 10;
    out << l << '+' << d << ":\t";
    if (r < 7)
      out << l << "\\@" << d;
    else if (r < 9)
      out << "fwd" << i << "@other.example," << l << "\\@" << d;
    else
      out << "\"|/usr/lib/zelpnl/zelpnl-responder " << l << '@' << d << "\"," << l << "\\@" << d;
    out << '\n';
  }
  return out.str();
}

double Median(std::vector<Sample> samples, long* rss) {
  std::sort(samples.begin(), samples.end(), [](const Sample& a, const Sample& b) { return a.seconds < b.seconds; });
  *rss = 0;
  for (const Sample& s : samples) *rss = std::max(*rss, s.max_rss_kb);
  return samples[samples.size() / 2].seconds;
}

// A digest of the map's entries, in key order. The entries are freed and
// the heap handed back to the system before the next run: a child starts
// with the pages of this process counted in its peak memory.
std::uint64_t DigestOf(const std::string& db) {
  std::uint64_t digest = 0;
  {
    auto entries = zel_aliasdb::ReadHashMap(db);
    std::sort(entries.begin(), entries.end());
    std::uint64_t h = 1469598103934665603ull;
    for (const auto& [k, v] : entries)
      for (const std::string* s : {&k, &v}) {
        for (unsigned char c : *s) h = (h ^ c) * 1099511628211ull;
        h = (h ^ 0xff) * 1099511628211ull;
      }
    digest = h;
  }
  malloc_trim(0);
  return digest;
}

std::vector<std::size_t> ParseSizes(const std::string& text) {
  std::vector<std::size_t> sizes;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) sizes.push_back(std::stoul(item));
  return sizes;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::size_t> sizes{10000, 100000, 300000, 1000000};
  int runs = 3;
  int big_sendmail_runs = 1;
  double sendmail_limit = 1800;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string opt = argv[i];
    if (opt == "--sizes") {
      sizes = ParseSizes(argv[i + 1]);
    } else if (opt == "--runs") {
      runs = std::max(1, std::atoi(argv[i + 1]));
    } else if (opt == "--sendmail-runs-above-200k") {
      big_sendmail_runs = std::max(1, std::atoi(argv[i + 1]));
    } else if (opt == "--sendmail-limit") {
      sendmail_limit = std::atof(argv[i + 1]);
    } else {
      std::cerr << "usage: aliasdb_bench [--sizes N,N,...] [--runs N] [--sendmail-runs-above-200k N]"
                   " [--sendmail-limit SECONDS]\n";
      return 2;
    }
  }
  const std::string ours = std::string(ZEL_BIN_DIR) + "/zelpnl-newaliases";
  const std::string dir = std::string(ZEL_BENCH_SCRATCH) + "/aliasdb";
  fs::create_directories(dir);
  fs::permissions(dir, fs::perms(0755));

  std::printf("%-9s %11s  %-28s %4s %10s %10s %9s %9s\n", "aliases", "file bytes", "tool", "runs", "median s",
              "peak MiB", "mem/file", "speed-up");
  bool all_same = true;
  for (std::size_t n : sizes) {
    const std::string file = dir + "/aliases-" + std::to_string(n);
    std::size_t file_size = 0;
    {
      const std::string text = Generate(n);
      file_size = text.size();
      std::ofstream(file, std::ios::binary) << text;
    }
    malloc_trim(0);
    struct Tool {
      std::string name;
      std::vector<std::string> argv;
      int runs;
    };
    const std::vector<Tool> tools = {
        {"sendmail -bi", {"/usr/sbin/sendmail", "-bi", "-oA" + file}, n > 200000 ? big_sendmail_runs : runs},
        {"zelpnl-newaliases (db)", {ours, "--writer=db", file}, runs},
        {"zelpnl-newaliases (makemap)", {ours, "--writer=makemap", file}, runs},
    };
    double base = 0;
    bool base_stopped = false;
    std::uint64_t reference = 0;
    bool have_reference = false;
    for (const Tool& tool : tools) {
      const bool is_sendmail = tool.name == "sendmail -bi";
      std::vector<Sample> samples;
      bool stopped = false;
      for (int r = 0; r < tool.runs && !stopped; ++r) {
        samples.push_back(Measure(tool.argv, is_sendmail ? sendmail_limit : 0));
        stopped = samples.back().stopped;
      }
      long rss = 0;
      const double median = stopped ? samples.back().seconds : Median(samples, &rss);
      if (stopped) rss = samples.back().max_rss_kb;
      if (is_sendmail) {
        base = median;
        base_stopped = stopped;
        if (stopped) {
          fs::remove(file + ".db");  // half built
        } else {
          reference = DigestOf(file + ".db");
          have_reference = true;
        }
      } else if (!have_reference) {
        reference = DigestOf(file + ".db");  // sendmail stopped: the first writer's map is the reference
        have_reference = true;
      } else if (DigestOf(file + ".db") != reference) {
        all_same = false;
        std::printf("  %s built a map that differs\n", tool.name.c_str());
      }
      char time_text[32];
      std::snprintf(time_text, sizeof time_text, "%s%.3f", stopped ? ">" : "", median);
      char speed_text[32];
      if (is_sendmail)
        std::snprintf(speed_text, sizeof speed_text, "1.0x");
      else
        std::snprintf(speed_text, sizeof speed_text, "%s%.1fx", base_stopped ? ">" : "", base / median);
      std::printf("%-9zu %11zu  %-28s %4d %10s %10.1f %8.2fx %9s\n", n, file_size, tool.name.c_str(),
                  static_cast<int>(samples.size()), time_text, rss / 1024.0,
                  rss * 1024.0 / static_cast<double>(file_size), speed_text);
      if (stopped) std::printf("  (stopped after %.0f s, the limit)\n", sendmail_limit);
      else if (samples.front().status != 0) std::printf("  (exit status %d)\n", samples.front().status);
      std::fflush(stdout);
    }
    fs::remove(file);
    fs::remove(file + ".db");
  }
  std::printf(all_same ? "maps: identical at every size (to sendmail's where it finished)\n" : "maps: DIFFERENT\n");
  return all_same ? 0 : 1;
}
