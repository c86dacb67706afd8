// Concurrent requests: eight zelpnl processes at once add and delete
// mailboxes, aliases, forwards and sender-list entries in the same two
// domains. Each zelpnl run is one request in one SQLite BEGIN IMMEDIATE
// transaction, so the runs are serialised by the database's write lock;
// a run that finds the lock taken waits for it. Afterwards every expected
// line is in the files exactly once, nothing deleted is left, the hashed
// maps hold what the text files hold, the database agrees with the files
// (mail sync changes nothing) and no run failed.
//
// CI: 8 processes x 2 rounds (80 runs); ZEL_LONG_TESTS=1: 8 x 20 (800 runs).
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include "faults_support.h"

using zelfaults::Panel;

namespace {

struct Failure {
  std::string command;
  zelfaults::Result result;
};

int Occurrences(const std::string& text, const std::string& line) {
  int n = 0;
  for (const std::string& l : zeltest::Lines(text))
    if (l == line) ++n;
  return n;
}

bool Mentions(const std::string& text, const std::string& word) {
  return text.find(word) != std::string::npos;
}

// A map file's lines as makemap reads them: "key<TAB>value", keys in lower
// case, comments and blank lines left out, sorted.
std::string TextAsMap(const std::string& text) {
  std::vector<std::string> entries;
  for (std::string line : zeltest::Lines(text)) {
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    const size_t blank = line.find_first_of(" \t");
    std::string key = line.substr(0, blank);
    std::transform(key.begin(), key.end(), key.begin(), ::tolower);
    const size_t value = line.find_first_not_of(" \t", blank);
    entries.push_back(key + "\t" + (value == std::string::npos ? "" : line.substr(value)) + "\n");
  }
  std::sort(entries.begin(), entries.end());
  std::string out;
  for (const auto& e : entries) out += e;
  return out;
}

}  // namespace

TEST(ConcurrencyTest, EightProcessesChangingTheSameDomainsLoseNothingAndDuplicateNothing) {
  Panel panel("EightProcesses");
  const std::string domains[2] = {"c1.example", "c2.example"};
  for (const std::string& d : domains) {
    panel.Ok({"webdomain", "add", d, "--owner", "admin"});
    panel.Ok({"mail", "domain", "add", d});
  }

  const int workers = 8;
  const int rounds = zelfaults::Scaled(2, 20);
  std::mutex mutex;
  std::vector<Failure> failures;
  double slowest = 0;
  int runs = 0;
  auto worker = [&](int w) {
    auto run = [&](const std::vector<std::string>& args) {
      const double start = zelfaults::Now();
      zelfaults::Result r = panel.Zel(args);
      const double took = zelfaults::Now() - start;
      std::lock_guard<std::mutex> lock(mutex);
      ++runs;
      slowest = std::max(slowest, took);
      if (r.status != 0 || !r.err.empty()) {
        std::string line;
        for (const auto& a : args) line += " " + a;
        failures.push_back({line, r});
      }
    };
    for (int k = 0; k < rounds; ++k) {
      const std::string id = "w" + std::to_string(w) + "k" + std::to_string(k);
      const std::string address = id + "@" + domains[k % 2];
      run({"mail", "box", "add", address});
      run({"mail", "box", "set", address, "--alias", "x" + id, "--forward", "f" + id + "@x.example"});
      run({"mail", "whitelist", "add", id + ".example"});
      run({"mail", "blacklist", "add", "2001:db8::" + std::to_string(w + 1) + ":" + std::to_string(k + 1)});
      if (k % 2 == 1) {
        const std::string before = "w" + std::to_string(w) + "k" + std::to_string(k - 1);
        run({"mail", "box", "delete", before + "@" + domains[(k - 1) % 2]});
        run({"mail", "whitelist", "delete", before + ".example"});
      }
    }
  };
  std::vector<std::thread> threads;
  for (int w = 0; w < workers; ++w) threads.emplace_back(worker, w);
  for (auto& t : threads) t.join();

  for (const Failure& f : failures)
    ADD_FAILURE() << "zelpnl" << f.command << ": exit " << f.result.status << ": " << f.result.err;
  std::cout << "[ figures  ] " << runs << " zelpnl runs by " << workers
            << " processes at once; the slowest took " << slowest << " s\n";

  const std::string vut = panel.Read("virtusertable");
  const std::string aliases = panel.Read("aliases");
  const std::string access = panel.Read("access");
  int mailboxes = 0;
  for (int w = 0; w < workers; ++w) {
    for (int k = 0; k < rounds; ++k) {
      const std::string id = "w" + std::to_string(w) + "k" + std::to_string(k);
      const std::string& domain = domains[k % 2];
      const std::string address = id + "@" + domain;
      const std::string local_name = id + "+" + domain;
      // The key is the address as sendmail presents a client: uncompressed.
      const std::string ip6 =
          "2001:db8:0:0:0:0:" + std::to_string(w + 1) + ":" + std::to_string(k + 1);
      EXPECT_EQ(Occurrences(access, "Connect:IPv6:" + ip6 + "\tREJECT\n"), 1) << ip6;
      const bool deleted = k % 2 == 0 && k + 1 < rounds;
      if (deleted) {
        EXPECT_FALSE(Mentions(vut, id + "@")) << address << " was deleted";
        EXPECT_FALSE(Mentions(aliases, id)) << address << " was deleted";
        EXPECT_FALSE(Mentions(access, id + ".example")) << id << ".example was deleted";
        continue;
      }
      ++mailboxes;
      EXPECT_EQ(Occurrences(vut, address + "\t" + local_name + "\n"), 1) << address;
      EXPECT_EQ(Occurrences(vut, "x" + address + "\t" + address + "\n"), 1) << "x" << address;
      EXPECT_EQ(Occurrences(aliases,
                            local_name + ":\tf" + id + "@x.example, " + id + "\\@" + domain + "\n"),
                1)
          << local_name;
      EXPECT_EQ(Occurrences(access, id + ".example\tOK\n"), 1) << id;
    }
  }
  EXPECT_EQ(panel.Query("SELECT count(*) FROM email"), std::to_string(mailboxes) + "\n");
  EXPECT_EQ(panel.Query("SELECT count(*) FROM email_alias"), std::to_string(mailboxes) + "\n");
  EXPECT_EQ(panel.Query("SELECT count(*) FROM email_blacklist"),
            std::to_string(workers * rounds) + "\n");
  EXPECT_EQ(panel.MapDump("virtusertable"), TextAsMap(vut));
  EXPECT_EQ(panel.MapDump("access"), TextAsMap(access));
  int status = -1;
  EXPECT_EQ(panel.SyncChanges(status), "");
  EXPECT_EQ(status, 0);
}
