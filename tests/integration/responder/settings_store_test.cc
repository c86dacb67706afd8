// The responder's settings files as the panel writes them: one file per
// mailbox that answers, kept in agreement with the rows by the request
// hook (only the mailboxes a request changed) and by the full sync, with
// the owner, group and modes the responder's user can read and not write.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>

#include "flush_counting_ops.h"
#include "responder_fixture.h"
#include "zelapi/cf.h"
#include "zelapi/err.h"
#include "zelapi/file.h"
#include "zelapi/mail/tables.h"

using email::ResponderSettings;
using zeltest::ResponderTest;

namespace {

struct Stat {
  bool exists = false;
  unsigned mode = 0;
  unsigned uid = 0;
  unsigned gid = 0;
  ino_t ino = 0;
};

Stat StatOf(const std::string& path) {
  Stat s;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return s;
  s.exists = true;
  s.mode = st.st_mode & 07777;
  s.uid = st.st_uid;
  s.gid = st.st_gid;
  s.ino = st.st_ino;
  return s;
}

class SettingsStoreTest : public ResponderTest {
 protected:
  // Runs change in a request watched as the panel's are: the files follow
  // when it commits.
  void Change(const std::function<void()>& change) {
    pnl_db::Request request(Db());
    email::WatchResponderSettings(Db());
    change();
    request.End();
  }
  void Sql(const std::string& sql) {
    Change([&] { Db().Query(sql); });
  }
  std::string File(const std::string& relative) { return SettingsDir() + "/" + relative; }
  bool Has(const std::string& relative) { return std::filesystem::exists(File(relative)); }
  std::string Stamp(const std::string& address = "l@d.example") {
    const auto s = Settings(address);
    return s ? s->stamp : std::string();
  }
};

}  // namespace

TEST_F(SettingsStoreTest, TheFileHoldsWhatTheResponderNeedsAndNothingElse) {
  const auto s = Settings();
  ASSERT_TRUE(s.has_value());
  EXPECT_EQ(zeltest::ReadFile(File("d.example/l")),
            "zelpnl responder settings 1\n"
            "address 11\nl@d.example\n"
            "stamp 32\n" +
                s->stamp +
                "\n"
                "period_days 1\n7\n"
                "subject 0\n\n"
                "text 56\n" +
                std::string(zeltest::kText) +
                "\n"
                "name 11\nl@d.example\n"
                "name 17\ncontact@d.example\n"
                "end\n");
}

TEST_F(SettingsStoreTest, FilesAndFoldersAreTheCallersWithTheGroupReadOnly) {
  const Stat file = StatOf(File("d.example/l"));
  ASSERT_TRUE(file.exists);
  EXPECT_EQ(file.mode, 0640u);
  EXPECT_EQ(file.uid, ::geteuid());
  for (const std::string& folder : {SettingsDir(), SettingsDir() + "/d.example"}) {
    const Stat dir = StatOf(folder);
    EXPECT_EQ(dir.mode, 0750u) << folder;
    EXPECT_EQ(dir.uid, ::geteuid()) << folder;
    EXPECT_EQ(dir.gid, file.gid) << folder;
  }
  EXPECT_EQ(zeltest::SettingsGroup(), std::string(::getgrgid(file.gid)->gr_name));
}

TEST_F(SettingsStoreTest, FormatAndParseAreExactInverses) {
  ResponderSettings s;
  s.address = "l@d.example";
  s.names = {"l@d.example", "\xc3\xa4@d.example", ""};
  s.subject = "Away\nend\n";
  s.text = std::string("line\r\n\0binary\xff", 15);
  s.period_days = 1000000;
  s.stamp = std::string(32, 'a');
  ResponderSettings back;
  std::string why;
  ASSERT_TRUE(email::ParseResponderSettings(email::FormatResponderSettings(s), back, &why)) << why;
  EXPECT_EQ(back, s);
}

TEST_F(SettingsStoreTest, ParseRefusesAnythingFormatDoesNotWrite) {
  const std::string good = zeltest::ReadFile(File("d.example/l"));
  ResponderSettings out;
  std::string why;
  ASSERT_TRUE(email::ParseResponderSettings(good, out, &why));
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"", "it does not start with \"zelpnl responder settings 1\""},
      {good.substr(0, good.size() - 1), "it does not end with the line \"end\""},
      {good + "x", "it does not end with the line \"end\""},
      {zeltest::Lines(good)[0], "no address field"},
      {std::string(good).replace(good.find("address 11"), 10, "address 99"), "no address field"},
      {std::string(good).replace(good.find("address 11"), 10, "address 011"), "no address field"},
      {std::string(good).replace(good.find("stamp 32\n") + 9, 1, "X"),
       "no stamp field of 32 hexadecimal digits"},
      {std::string(good).replace(good.find("period_days 1\n7"), 15, "period_days 1\n-"),
       "period_days is not a number"},
  };
  for (const auto& [text, reason] : bad) {
    EXPECT_FALSE(email::ParseResponderSettings(text, out, &why)) << text;
    EXPECT_EQ(why, reason) << text;
  }
}

TEST_F(SettingsStoreTest, AMalformedOrForeignFileIsAnErrorNotAnAnswer) {
  zeltest::WriteFile(File("d.example/l"), "zelpnl responder settings 1\ngarbage\n");
  try {
    Settings();
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.object(), File("d.example/l"));
    EXPECT_EQ(e.detail(), "the responder settings file is malformed: no address field");
  }
  // A file of another address put in this one's place.
  Publish();
  ResponderSettings other = *Settings();
  other.address = "m@d.example";
  zeltest::WriteFile(File("d.example/l"), email::FormatResponderSettings(other));
  EXPECT_THROW(Settings(), pnl_err::Error);
}

TEST_F(SettingsStoreTest, LocalPartsBecomeSafeFileNames) {
  EXPECT_EQ(email::ResponderSettingsPath("/s", "l@d.example"), "/s/d.example/l");
  EXPECT_EQ(email::ResponderSettingsPath("/s", "L@D.Example"), "/s/d.example/l");
  EXPECT_EQ(email::ResponderSettingsPath("/s", "a/b@d.example"), "/s/d.example/a%2Fb");
  EXPECT_EQ(email::ResponderSettingsPath("/s", "..@d.example"), "/s/d.example/%2E.");
  EXPECT_EQ(email::ResponderSettingsPath("/s", "a%2Fb@d.example"), "/s/d.example/a%252fb");
  EXPECT_EQ(email::ResponderSettingsPath("/s", "a.b+c=d_e-f@d.example"),
            "/s/d.example/a.b+c=d_e-f");
  for (const char* bad :
       {"l@../etc", "l@.d.example", "l@d/e.example", "l@", "@d.example", "nobody", "l@-d.example"})
    EXPECT_THROW(email::ResponderSettingsPath("/s", bad), pnl_err::Error) << bad;
  EXPECT_THROW(email::ResponderSettingsPath("/s", std::string(65, 'a') + "@d.example"),
               pnl_err::Error);
}

TEST_F(SettingsStoreTest, AMailboxThatDoesNotAnswerHasNoFile) {
  const std::vector<std::pair<std::string, std::string>> steps = {
      {"UPDATE email_responder SET enabled = 0", "UPDATE email_responder SET enabled = 1"},
      {"UPDATE email_responder SET text = ''", "UPDATE email_responder SET text = 'back'"},
      {"UPDATE email SET enabled = 0", "UPDATE email SET enabled = 1"},
      {"UPDATE email_domain SET enabled = 0", "UPDATE email_domain SET enabled = 1"},
  };
  for (const auto& [off, on] : steps) {
    Sql(off);
    EXPECT_FALSE(Has("d.example/l")) << off;
    EXPECT_FALSE(Has("d.example")) << off;
    Sql(on);
    EXPECT_TRUE(Has("d.example/l")) << on;
  }
  Sql("DELETE FROM email_responder");
  EXPECT_FALSE(Has("d.example/l"));
}

TEST_F(SettingsStoreTest, DeletingTheMailboxOrItsDomainRemovesTheFiles) {
  Sql("DELETE FROM email WHERE name = 'l'");
  EXPECT_FALSE(Has("d.example/l"));
  Sql("INSERT INTO email (id, name, domain) VALUES (7, 'm', 1)");
  Sql("INSERT INTO email_responder (email, enabled, text) VALUES (7, 1, 'away')");
  EXPECT_TRUE(Has("d.example/m"));
  Sql("DELETE FROM email_domain");
  EXPECT_FALSE(Has("d.example"));
  EXPECT_TRUE(std::filesystem::is_empty(SettingsDir()));
}

TEST_F(SettingsStoreTest, ARenamedMailboxOrDomainLeavesNothingUnderItsOldName) {
  Sql("UPDATE email SET name = 'n'");
  EXPECT_FALSE(Has("d.example/l"));
  EXPECT_TRUE(Has("d.example/n"));
  EXPECT_EQ(Settings("n@d.example")->names,
            (std::vector<std::string>{"n@d.example", "contact@d.example"}));
  Sql("UPDATE email_domain SET name = 'e.example'");
  EXPECT_FALSE(Has("d.example"));
  EXPECT_TRUE(Has("e.example/n"));
}

TEST_F(SettingsStoreTest, NewAliasesAreNamesOfTheMailboxAndTheStampStays) {
  const std::string stamp = Stamp();
  Change([&] {
    auto alias = Db().Get<zel_db::EmailAliasTable>();
    alias->New();
    alias->email = mailbox_id_;
    alias->name = "info";
    alias->Post();
  });
  EXPECT_EQ(Settings()->names,
            (std::vector<std::string>{"l@d.example", "contact@d.example", "info@d.example"}));
  EXPECT_EQ(Stamp(), stamp);
  Sql("DELETE FROM email_alias WHERE name = 'contact'");
  EXPECT_EQ(Settings()->names, (std::vector<std::string>{"l@d.example", "info@d.example"}));
  EXPECT_EQ(Stamp(), stamp);
}

// The stamp tells the responder to forget whom it answered: new when the
// mailbox starts to answer again, the same while it keeps answering.
TEST_F(SettingsStoreTest, TheStampIsNewWhenTheMailboxStartsToAnswerAgain) {
  const std::string first = Stamp();
  Sql("UPDATE email_responder SET subject = 'Away', period_days = 3");
  EXPECT_EQ(Stamp(), first);
  EXPECT_EQ(Settings()->subject, "Away");
  EXPECT_EQ(Settings()->period_days, 3);
  Sql("UPDATE email SET enabled = 0");
  Sql("UPDATE email SET enabled = 1");
  const std::string second = Stamp();
  EXPECT_NE(second, first);
  // Off and on within one request: it never stopped answering.
  Change([&] {
    Db().Query("UPDATE email_responder SET enabled = 0");
    Db().Query("UPDATE email_responder SET enabled = 1");
  });
  EXPECT_EQ(Stamp(), second);
}

// The cost of a request grows with what it changed: with many answering
// mailboxes, a change of one rewrites one file.
TEST_F(SettingsStoreTest, ARequestRewritesOnlyTheFilesOfTheMailboxesItChanged) {
  Change([&] {
    for (int i = 0; i < 300; ++i) {
      Db().Query("INSERT INTO email (id, name, domain) VALUES (?, ?, 1)",
                 {100 + i, "m" + std::to_string(i)});
      Db().Query("INSERT INTO email_responder (email, enabled, text) VALUES (?, 1, 'away')",
                 {100 + i});
    }
  });
  std::map<std::string, ino_t> before;
  for (const auto& entry : std::filesystem::directory_iterator(File("d.example")))
    before[entry.path().string()] = StatOf(entry.path().string()).ino;
  ASSERT_EQ(before.size(), 301u);
  Sql("UPDATE email_responder SET text = 'back soon' WHERE email = 150");
  Sql("UPDATE email SET tag = 5");  // mail sync's mark: no change of the settings
  size_t rewritten = 0;
  for (const auto& [path, ino] : before)
    if (StatOf(path).ino != ino) ++rewritten;
  EXPECT_EQ(rewritten, 1u);
  EXPECT_EQ(Settings("m50@d.example")->text, "back soon");
}

TEST_F(SettingsStoreTest, SyncWritesWhatIsMissingAndRemovesWhatIsUnknownButNoForeignFile) {
  const std::string stamp = Stamp();
  std::filesystem::remove(File("d.example/l"));
  // A mailbox that does not answer, with a file left behind.
  Db().Query("INSERT INTO email (id, name, domain) VALUES (9, 'quiet', 1)");
  ResponderSettings quiet;
  quiet.address = "quiet@d.example";
  quiet.stamp = std::string(32, 'b');
  zeltest::WriteFile(File("d.example/quiet"), email::FormatResponderSettings(quiet));
  std::filesystem::create_directory(File("gone.example"));
  ResponderSettings gone = quiet;
  gone.address = "x@gone.example";
  zeltest::WriteFile(File("gone.example/x"), email::FormatResponderSettings(gone));
  // Files that are not settings are never removed.
  zeltest::WriteFile(File("d.example/notes.txt"), "mine\n");
  zeltest::WriteFile(File("README"), "mine\n");

  const email::ResponderSettingsCount n = email::SyncResponderSettings(Db());
  EXPECT_EQ(n.written, 1u);
  EXPECT_EQ(n.removed, 2u);
  EXPECT_TRUE(Has("d.example/l"));
  EXPECT_NE(Stamp(), stamp);
  EXPECT_FALSE(Has("d.example/quiet"));
  EXPECT_FALSE(Has("gone.example"));
  EXPECT_TRUE(Has("d.example/notes.txt"));
  EXPECT_TRUE(Has("README"));
  // In agreement: nothing to do the second time.
  const email::ResponderSettingsCount again = email::SyncResponderSettings(Db());
  EXPECT_EQ(again.written + again.removed, 0u);
  EXPECT_EQ(again.kept, 1u);
}

TEST_F(SettingsStoreTest, SyncGivesAFileTheModesBack) {
  ::chmod(File("d.example/l").c_str(), 0666);
  email::SyncResponderSettings(Db());
  EXPECT_EQ(StatOf(File("d.example/l")).mode, 0640u);
}

TEST_F(SettingsStoreTest, ARowWhoseNameCannotBeAFileNameFailsTheRequestAndWritesNothingOutside) {
  try {
    Sql("UPDATE email_domain SET name = '../escape'");
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.object(), "l@../escape");
    EXPECT_NE(e.detail().find("cannot name a responder settings file"), std::string::npos)
        << e.detail();
  }
  // The commit stands (the error comes after it); the old folder is gone and
  // nothing was written outside the settings folder.
  EXPECT_FALSE(Has("d.example"));
  EXPECT_FALSE(std::filesystem::exists(box_.Path("escape")));
  EXPECT_FALSE(std::filesystem::exists(SettingsDir() + "/../escape"));
}

TEST_F(SettingsStoreTest, AMissingGroupIsNamedInTheError) {
  pnl_cf::SetParam(email::kResponderGroupParam, "no-such-group-zel");
  try {
    Sql("UPDATE email_responder SET subject = 'new'");
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.object(), "responder_group");
    EXPECT_EQ(e.detail(),
              "the group \"no-such-group-zel\" that may read the responder settings does not "
              "exist");
  }
}

TEST_F(SettingsStoreTest, ASettingsFolderWhoseParentIsMissingIsNotMade) {
  pnl_cf::SetPath(email::kResponderSettingsKey, box_.Path("no/such/folder"));
  EXPECT_THROW(Sql("UPDATE email_responder SET subject = 'new'"), pnl_err::Error);
  EXPECT_FALSE(std::filesystem::exists(box_.Path("no")));
}

// A flush to disk costs milliseconds: a request that writes many files
// flushes the file system once instead of each file and folder.
TEST_F(SettingsStoreTest, ManyFilesAtOnceAreFlushedToDiskOnce) {
  auto ops = std::make_shared<zeltest::FlushCountingOps>();
  pnl_file::ScopedOps scoped(ops);
  Sql("UPDATE email_responder SET subject = 'one'");
  EXPECT_EQ(ops->fsyncs, 2);  // the file and its folder
  EXPECT_EQ(ops->syncfs, 0);
  Change([&] {
    for (int i = 0; i < 40; ++i) {
      Db().Query("INSERT INTO email (id, name, domain) VALUES (?, ?, 1)",
                 {100 + i, "m" + std::to_string(i)});
      Db().Query("INSERT INTO email_responder (email, enabled, text) VALUES (?, 1, 'away')",
                 {100 + i});
    }
  });
  EXPECT_EQ(ops->fsyncs, 2);
  EXPECT_EQ(ops->syncfs, 1);
  EXPECT_TRUE(Settings("m39@d.example").has_value());
  std::filesystem::remove_all(File("d.example"));
  EXPECT_EQ(email::SyncResponderSettings(Db()).written, 41u);
  EXPECT_EQ(ops->syncfs, 2);
}
