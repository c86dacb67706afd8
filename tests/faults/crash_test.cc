// Crash safety: a process that changes the sendmail files is killed with
// SIGKILL at random moments. Afterwards each file holds exactly its old or
// its new content (never a torn or empty file), whatever temporary file the
// killed save left does not disturb later runs, and running the same change
// again completes it.
//
// Two victims: zelfaults-save, which does nothing but engine saves on large
// files (so nearly every kill lands inside a save: writing, flushing or
// renaming), and zelpnl itself, killed anywhere in a request (while it
// saves, rebuilds a map or commits), against a twin panel that ran the same
// command undisturbed.
//
// CI kills 100 + 40 times; ZEL_LONG_TESTS=1 kills 1,000 + 300 times.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <random>
#include <thread>

#include "faults_support.h"

namespace fs = std::filesystem;
using zelfaults::Panel;

namespace {

// A file of n lines of the given shape, with comments, blank lines and
// lines of odd spacing the views keep as they are.
std::string BigFile(const std::string& kind, int n) {
  std::string text = "# " + kind + ", written for the crash tests\n\n";
  for (int i = 0; i < n; ++i) {
    const std::string k = std::to_string(i);
    if (i % 50 == 0) text += "# block " + k + "\n";
    if (kind == "local-host-names") text += "host" + k + ".example\n";
    if (kind == "virtusertable")
      text += "user" + k + "@d.example" + (i % 7 ? "\t" : "   ") + "user" + k + "+d.example\n";
    if (kind == "aliases")
      text += "user" + k + "+d.example:" + (i % 7 ? "\t" : " ") + "user" + k +
              "\\@d.example, fwd" + k + "@x.example\n";
    if (kind == "access") text += "sender" + k + ".example\t" + (i % 2 ? "OK" : "REJECT") + "\n";
  }
  return text;
}

std::map<std::string, std::string> ReadFiles(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const char* name : zelfaults::kMailFiles) {
    std::error_code ec;
    files[name] = fs::is_regular_file(dir + "/" + name, ec)
                      ? zeltest::ReadFile(dir + "/" + name)
                      : std::string("<missing>");
  }
  return files;
}

std::vector<std::string> Hidden(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir))
    if (e.path().filename().string()[0] == '.') names.push_back(e.path().filename().string());
  return names;
}

// A temporary file of an interrupted save: ".<file>.XXXXXX".
bool IsSaveTemporary(const std::string& name) {
  for (const char* file : zelfaults::kMailFiles) {
    const std::string prefix = std::string(".") + file + ".";
    if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0)
      return true;
  }
  return false;
}

void SleepSeconds(double s) {
  if (s > 0) std::this_thread::sleep_for(std::chrono::duration<double>(s));
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

}  // namespace

TEST(CrashTest, KilledEngineSavesLeaveEveryFileOldOrNewAndARerunCompletesThem) {
  zeltest::Sandbox box("KilledEngineSaves");
  const std::string work = box.Path("work"), ref = box.Path("ref");
  fs::create_directories(work);
  fs::create_directories(ref);
  for (const char* name : zelfaults::kMailFiles)
    zeltest::WriteFile(work + "/" + name, BigFile(name, 2000));

  const std::string save = zelfaults::BinProgram("zelfaults-save");
  const int kills = zelfaults::Scaled(100, 1000);
  std::mt19937 random(20240611);
  int landed = 0, between_saves = 0, max_temporaries = 0;
  for (int i = 0; i < kills; ++i) {
    const std::string step = std::to_string(i);
    const auto old_files = ReadFiles(work);
    // The change done undisturbed on a copy: the new content of each file.
    for (const char* name : zelfaults::kMailFiles)
      fs::copy_file(work + "/" + name, ref + "/" + name, fs::copy_options::overwrite_existing);
    const double start = zelfaults::Now();
    const zelfaults::Result reference = zelfaults::RunProgram({save, ref, step});
    const double took = zelfaults::Now() - start;
    ASSERT_EQ(reference.status, 0) << reference.err;
    const auto new_files = ReadFiles(ref);

    const pid_t pid = zelfaults::Spawn({save, work, step});
    SleepSeconds(std::uniform_real_distribution<double>(0, took)(random));
    ::kill(pid, SIGKILL);
    if (zelfaults::WaitFor(pid) == 128 + SIGKILL) ++landed;

    const auto killed = ReadFiles(work);
    int changed = 0;
    for (const char* name : zelfaults::kMailFiles) {
      const std::string& now = killed.at(name);
      ASSERT_TRUE(now == old_files.at(name) || now == new_files.at(name))
          << "kill " << i << ": " << name << " is neither its old nor its new content ("
          << now.size() << " bytes; old " << old_files.at(name).size() << ", new "
          << new_files.at(name).size() << ")";
      if (now != old_files.at(name)) ++changed;
    }
    if (changed > 0 && changed < 4) ++between_saves;
    for (const std::string& name : Hidden(work))
      ASSERT_TRUE(IsSaveTemporary(name)) << "kill " << i << " left " << name;
    max_temporaries = std::max(max_temporaries, static_cast<int>(Hidden(work).size()));

    // The same step again completes the change, temporary files or not.
    const zelfaults::Result rerun = zelfaults::RunProgram({save, work, step});
    ASSERT_EQ(rerun.status, 0) << "kill " << i << ": " << rerun.err;
    ASSERT_EQ(ReadFiles(work), new_files) << "kill " << i;
  }
  std::cout << "[ figures  ] " << kills << " kills, " << landed << " while saving, "
            << between_saves << " between the saves of two files, temporary files left: "
            << Hidden(work).size() << " (at most " << max_temporaries << ")\n";
  // Most kills must have hit a running process, or the test proves little.
  EXPECT_GT(landed, kills / 2);
}

namespace {

// Commands of a cycle that leaves the panel as it found it; each one, run
// again after it was killed, completes what it started. X is replaced by
// the cycle's number. (A mailbox's aliases and forwards are changed while
// its responder is off: with the responder on, "mail box set" saves the
// aliases file twice, the first time without the responder's action.)
const std::vector<std::vector<std::string>> kCycle = {
    {"mail", "whitelist", "add", "192.0.2.X"},
    {"mail", "box", "suspend", "l@d.example"},
    {"mail", "blacklist", "add", "spamX.example"},
    {"mail", "box", "set", "m@d.example", "--alias", "aX", "--forward", "fX@x.example"},
    {"mail", "domain", "suspend", "e.example"},
    {"mail", "responder", "m@d.example", "on", "--subject", "Away", "--text", "Back soon."},
    {"mail", "box", "resume", "l@d.example"},
    {"mail", "whitelist", "delete", "192.0.2.X"},
    {"mail", "responder", "m@d.example", "off"},
    {"mail", "box", "set", "m@d.example", "--no-alias", "aX", "--no-forward", "fX@x.example"},
    {"mail", "domain", "resume", "e.example"},
    {"mail", "blacklist", "delete", "spamX.example"},
};

void MakePanel(const Panel& p) {
  p.Ok({"webdomain", "add", "d.example", "--owner", "admin"});
  p.Ok({"webdomain", "add", "e.example", "--owner", "admin"});
  p.Ok({"mail", "domain", "add", "d.example"});
  p.Ok({"mail", "domain", "add", "e.example"});
  p.Ok({"mail", "box", "add", "l@d.example"});
  p.Ok({"mail", "box", "add", "m@d.example", "--alias", "postmaster"});
  p.Ok({"mail", "box", "add", "p@e.example"});
}

}  // namespace

TEST(CrashTest, KilledZelpnlRequestsLeaveEveryFileOldOrNewAndARerunCompletesThem) {
  Panel victim("KilledZelpnlVictim"), twin("KilledZelpnlTwin");
  MakePanel(victim);
  MakePanel(twin);
  // The files name their own panel's folder (the responder's command).
  auto as_victims = [&](std::map<std::string, std::string> files) {
    for (auto& [name, text] : files) text = Replace(text, twin.Dir(), victim.Dir());
    return files;
  };
  ASSERT_EQ(victim.Files(), as_victims(twin.Files()));

  const int kills = zelfaults::Scaled(40, 300);
  std::mt19937 random(77);
  int landed = 0, reruns_refused = 0;
  for (int i = 0; i < kills; ++i) {
    std::vector<std::string> command = kCycle[i % kCycle.size()];
    for (auto& arg : command) arg = Replace(arg, "X", std::to_string(i / kCycle.size() + 1));
    std::string line;
    for (const auto& a : command) line += " " + a;

    const auto old_files = victim.Files();
    const double start = zelfaults::Now();
    twin.Ok(command);
    const double took = zelfaults::Now() - start;
    const auto new_files = as_victims(twin.Files());

    const pid_t pid = zelfaults::Spawn(victim.Argv(command));
    SleepSeconds(std::uniform_real_distribution<double>(0, took * 1.2)(random));
    ::kill(pid, SIGKILL);
    if (zelfaults::WaitFor(pid) == 128 + SIGKILL) ++landed;

    const auto killed = victim.Files();
    for (const char* name : zelfaults::kMailFiles)
      ASSERT_TRUE(killed.at(name) == old_files.at(name) || killed.at(name) == new_files.at(name))
          << "kill " << i << " (" << line << "): " << name
          << " is neither its old nor its new content:\n"
          << killed.at(name);
    ASSERT_EQ(victim.Query("PRAGMA integrity_check"), "ok\n");

    const zelfaults::Result rerun = victim.Zel(command);
    if (rerun.status != 0) {
      // The killed run committed: the panel says the change is there.
      ASSERT_EQ(rerun.status, 1) << line << ": " << rerun.err;
      ++reruns_refused;
    }
    ASSERT_EQ(victim.Files(), new_files) << "kill " << i << " (" << line << ")";
    ASSERT_EQ(victim.Meaning(), twin.Meaning()) << "kill " << i << " (" << line << ")";
    int status = -1;
    ASSERT_EQ(victim.SyncChanges(status), "") << "kill " << i << " (" << line << ")";
    ASSERT_EQ(status, 0);
    for (const std::string& name : victim.HiddenFiles())
      ASSERT_TRUE(IsSaveTemporary(name)) << "kill " << i << " left " << name;
  }
  std::cout << "[ figures  ] " << kills << " kills of zelpnl, " << landed
            << " while it ran; reruns refused as already done: " << reruns_refused
            << "; temporary files left: " << victim.HiddenFiles().size() << "\n";
  EXPECT_GT(landed, kills / 2);
}
