#include "zelapi/cf.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include "zelapi/err.h"

namespace {

namespace fs = std::filesystem;

class CfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pnl_cf::Clear();
    dir_ = fs::path(ZEL_TEST_SCRATCH) / "cf" /
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { pnl_cf::Clear(); }

  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = (dir_ / name).string();
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  // The error Load throws for the text, which must be rejected.
  pnl_err::Error LoadError(const std::string& text) {
    const std::string path = Write("zelpnl.conf", text);
    try {
      pnl_cf::Load(path);
    } catch (const pnl_err::Error& e) {
      return e;
    }
    ADD_FAILURE() << "accepted: " << text;
    return pnl_err::Error(pnl_err::Kind::kInternal, "", "");
  }

  fs::path dir_;
};

TEST_F(CfTest, LoadReadsParamsAndPathsFromTheirSections) {
  pnl_cf::Load(Write("zelpnl.conf",
                     "# panel settings\n"
                     "[params]\n"
                     "MTA = sendmail\n"
                     "log_file = /var/log/zelpnl.log\n"
                     "\n"
                     "[paths]\n"
                     "sendmail-aliases = /etc/mail/aliases\n"
                     "sendmail-newaliases = /usr/bin/newaliases\n"));
  EXPECT_EQ(pnl_cf::GetParam("MTA"), "sendmail");
  EXPECT_EQ(pnl_cf::GetParam("log_file"), "/var/log/zelpnl.log");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-aliases"), "/etc/mail/aliases");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-newaliases"), "/usr/bin/newaliases");
  // A parameter is not a path key and the other way round.
  EXPECT_EQ(pnl_cf::GetParam("sendmail-aliases"), "");
  EXPECT_FALSE(pnl_cf::HasPath("MTA"));
}

TEST_F(CfTest, ValueIsEverythingAfterTheFirstEqualsSignTrimmed) {
  pnl_cf::LoadText(
      "[params]\n"
      "  spaced \t=\t  a value with  inner  blanks \t \n"
      "equation = a = b\n"
      "hash = x # not a comment\n"
      "tight=v\n"
      "[paths]\n"
      "restart = make -C /etc/mail restart\n",
      "text");
  EXPECT_EQ(pnl_cf::GetParam("spaced"), "a value with  inner  blanks");
  EXPECT_EQ(pnl_cf::GetParam("equation"), "a = b");
  EXPECT_EQ(pnl_cf::GetParam("hash"), "x # not a comment");
  EXPECT_EQ(pnl_cf::GetParam("tight"), "v");
  EXPECT_EQ(pnl_cf::GetPath("restart"), "make -C /etc/mail restart");
}

TEST_F(CfTest, EmptyConfiguredPathWinsOverDefault) {
  pnl_cf::SetPathDefault("sendmail-newaliases", "/usr/bin/newaliases");
  pnl_cf::LoadText("[paths]\nsendmail-newaliases =\n", "text");
  EXPECT_TRUE(pnl_cf::HasPath("sendmail-newaliases"));
  EXPECT_EQ(pnl_cf::GetPath("sendmail-newaliases"), "");
}

TEST_F(CfTest, CommentsBlankLinesAndCrLfAreAccepted) {
  pnl_cf::LoadText(
      "\r\n"
      "   # indented comment = not a setting\r\n"
      "\t\r\n"
      " [ params ] \r\n"
      "MTA = sendmail\r\n"
      "#[paths]\r\n"
      "other = 1",
      "text");
  EXPECT_EQ(pnl_cf::GetParam("MTA"), "sendmail");
  EXPECT_EQ(pnl_cf::GetParam("other"), "1");
  EXPECT_TRUE(pnl_cf::EffectivePaths().empty());
}

TEST_F(CfTest, LaterLineWinsWhenANameIsRepeated) {
  pnl_cf::LoadText("[params]\nMTA = other-mta\n[paths]\nx = 1\n[params]\nMTA = sendmail\n",
                   "text");
  EXPECT_EQ(pnl_cf::GetParam("MTA"), "sendmail");
  EXPECT_EQ(pnl_cf::GetPath("x"), "1");
}

TEST_F(CfTest, ConfiguredValueWinsOverDefaultInstalledLater) {
  pnl_cf::LoadText("[paths]\nsendmail-aliases = /srv/mail/aliases\n", "text");
  pnl_cf::SetPathDefault("sendmail-aliases", "/etc/mail/aliases");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-aliases"), "/srv/mail/aliases");
}

TEST_F(CfTest, ConfiguredValueWinsOverDefaultInstalledEarlier) {
  pnl_cf::SetPathDefault("sendmail-aliases", "/etc/mail/aliases");
  pnl_cf::LoadText("[paths]\nsendmail-aliases = /srv/mail/aliases\n", "text");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-aliases"), "/srv/mail/aliases");
  pnl_cf::SetPathDefault("sendmail-aliases", "/opt/aliases");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-aliases"), "/srv/mail/aliases");
}

TEST_F(CfTest, HostOverrideWinsOverDefaultInEitherOrder) {
  pnl_cf::SetPath("a", "configured");
  pnl_cf::SetPathDefault("a", "default");
  pnl_cf::SetPathDefault("b", "default");
  pnl_cf::SetPath("b", "configured");
  EXPECT_EQ(pnl_cf::GetPath("a"), "configured");
  EXPECT_EQ(pnl_cf::GetPath("b"), "configured");
}

TEST_F(CfTest, DefaultServesAnUnconfiguredKeyAndCanBeReplaced) {
  pnl_cf::SetPathDefault("sendmail-mc", "/etc/mail/sendmail.mc");
  EXPECT_TRUE(pnl_cf::HasPath("sendmail-mc"));
  EXPECT_EQ(pnl_cf::GetPath("sendmail-mc"), "/etc/mail/sendmail.mc");
  pnl_cf::SetPathDefault("sendmail-mc", "/srv/sendmail.mc");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-mc"), "/srv/sendmail.mc");
}

TEST_F(CfTest, GetPathOfAKeyWithNeitherValueNorDefaultThrows) {
  EXPECT_FALSE(pnl_cf::HasPath("sendmail-newaliases"));
  try {
    pnl_cf::GetPath("sendmail-newaliases");
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kConf);
    EXPECT_EQ(e.object(), "sendmail-newaliases");
    EXPECT_EQ(e.detail(), "path key is not configured and has no default");
    EXPECT_STREQ(e.what(),
                 "sendmail-newaliases: path key is not configured and has no default");
  }
}

TEST_F(CfTest, UnsetParameterIsEmpty) {
  EXPECT_EQ(pnl_cf::GetParam("MTA"), "");
  pnl_cf::SetParam("MTA", "sendmail");
  EXPECT_EQ(pnl_cf::GetParam("MTA"), "sendmail");
}

TEST_F(CfTest, LineWithoutEqualsSignIsRejectedNamingFileAndLine) {
  const pnl_err::Error e = LoadError("[params]\nMTA = sendmail\n\nsendmail\n");
  const std::string file = (dir_ / "zelpnl.conf").string();
  EXPECT_EQ(e.kind(), pnl_err::Kind::kConf);
  EXPECT_EQ(e.object(), file);
  EXPECT_EQ(e.detail(), "line 4: expected \"name = value\": sendmail");
  EXPECT_EQ(std::string(e.what()), file + ": line 4: expected \"name = value\": sendmail");
}

TEST_F(CfTest, UnknownSectionIsRejected) {
  EXPECT_EQ(LoadError("# x\n[params]\na = 1\n[files]\n").detail(), "line 4: unknown section [files]");
}

TEST_F(CfTest, SettingBeforeAnySectionIsRejected) {
  EXPECT_EQ(LoadError("MTA = sendmail\n[params]\n").detail(),
            "line 1: setting \"MTA\" before any section");
}

TEST_F(CfTest, UnclosedSectionHeaderIsRejected) {
  EXPECT_EQ(LoadError("[params\n").detail(), "line 1: section header without \"]\": [params");
}

TEST_F(CfTest, SettingWithoutNameIsRejected) {
  EXPECT_EQ(LoadError("[paths]\n = /etc/mail/aliases\n").detail(),
            "line 2: setting without a name: = /etc/mail/aliases");
}

TEST_F(CfTest, LoadTextNamesItsOriginInErrors) {
  try {
    pnl_cf::LoadText("[params]\nbroken\n", "host overrides");
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_STREQ(e.what(), "host overrides: line 2: expected \"name = value\": broken");
  }
}

TEST_F(CfTest, MissingFileIsAnErrorNamingTheFile) {
  const std::string path = (dir_ / "absent.conf").string();
  try {
    pnl_cf::Load(path);
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kConf);
    EXPECT_EQ(e.object(), path);
    EXPECT_EQ(e.detail(), "cannot read: No such file or directory");
  }
}

TEST_F(CfTest, FolderInsteadOfFileIsAnError) {
  try {
    pnl_cf::Load(dir_.string());
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.detail(), "cannot read: Is a directory");
  }
}

TEST_F(CfTest, FailedLoadKeepsThePreviousConfiguration) {
  const std::string good = Write("good.conf", "[params]\nMTA = sendmail\n[paths]\nx = /x\n");
  pnl_cf::Load(good);
  const std::string bad = Write("bad.conf", "[params]\nMTA = other-mta\n[paths]\ny\n");
  EXPECT_THROW(pnl_cf::Load(bad), pnl_err::Error);
  EXPECT_EQ(pnl_cf::GetParam("MTA"), "sendmail");
  EXPECT_EQ(pnl_cf::GetPath("x"), "/x");
  EXPECT_EQ(pnl_cf::LoadedFile(), good);
}

TEST_F(CfTest, LoadReplacesSettingsAndOverridesButKeepsDefaults) {
  pnl_cf::SetParam("old", "1");
  pnl_cf::SetPath("override", "/o");
  pnl_cf::SetPathDefault("sendmail-aliases", "/etc/mail/aliases");
  pnl_cf::Load(Write("zelpnl.conf", "[params]\nnew = 2\n"));
  EXPECT_EQ(pnl_cf::GetParam("old"), "");
  EXPECT_EQ(pnl_cf::GetParam("new"), "2");
  EXPECT_FALSE(pnl_cf::HasPath("override"));
  EXPECT_EQ(pnl_cf::GetPath("sendmail-aliases"), "/etc/mail/aliases");
}

TEST_F(CfTest, LoadedFileNamesTheLastFileLoaded) {
  EXPECT_EQ(pnl_cf::LoadedFile(), "");
  const std::string path = Write("zelpnl.conf", "[params]\n");
  pnl_cf::Load(path);
  EXPECT_EQ(pnl_cf::LoadedFile(), path);
  pnl_cf::LoadText("[params]\n", "text");
  EXPECT_EQ(pnl_cf::LoadedFile(), "");
}

TEST_F(CfTest, ClearForgetsParamsPathsAndDefaults) {
  pnl_cf::Load(Write("zelpnl.conf", "[params]\na = 1\n[paths]\nb = /b\n"));
  pnl_cf::SetPathDefault("c", "/c");
  pnl_cf::Clear();
  EXPECT_EQ(pnl_cf::GetParam("a"), "");
  EXPECT_FALSE(pnl_cf::HasPath("b"));
  EXPECT_FALSE(pnl_cf::HasPath("c"));
  EXPECT_EQ(pnl_cf::LoadedFile(), "");
}

TEST_F(CfTest, EffectivePathsMergeDefaultsAndConfiguredValuesSortedByKey) {
  pnl_cf::SetPathDefault("sendmail-virtusertable", "/etc/mail/virtusertable");
  pnl_cf::SetPathDefault("sendmail-aliases", "/etc/mail/aliases");
  pnl_cf::LoadText("[paths]\nsendmail-aliases = /srv/aliases\nsendmail-accessdb = /srv/access\n",
                   "text");
  const std::map<std::string, std::string> expected = {
      {"sendmail-accessdb", "/srv/access"},
      {"sendmail-aliases", "/srv/aliases"},
      {"sendmail-virtusertable", "/etc/mail/virtusertable"}};
  EXPECT_EQ(pnl_cf::EffectivePaths(), expected);
}

TEST_F(CfTest, ConcurrentReadersAlwaysSeeAWholeValue) {
  const std::string first(200, 'a');
  const std::string second(300, 'b');
  pnl_cf::SetPath("key", first);
  std::vector<std::thread> threads;
  std::atomic<int> torn{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        const std::string value = pnl_cf::GetPath("key");
        if (value != first && value != second) ++torn;
        pnl_cf::GetParam("p");
        pnl_cf::EffectivePaths();
      }
    });
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        pnl_cf::SetPath("key", (i + t) % 2 ? first : second);
        pnl_cf::SetParam("p", std::to_string(i));
        pnl_cf::SetPathDefault("d" + std::to_string(i % 10), "x");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn.load(), 0);
}

}  // namespace
