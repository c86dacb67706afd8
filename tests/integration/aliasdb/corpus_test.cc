// Every file of the corpus (tests/data/aliasdb) built twice, by
// `sendmail -bi` and by zelpnl-newaliases: the same messages, exit status,
// `makemap -u` dump and raw keys (with their NUL bytes), byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "sandbox.h"
#include "zelaliasdb/aliases_file.h"
#include "zelaliasdb/hash_map.h"

using zeltest::RunShell;
using zeltest::Sandbox;

namespace {

const std::string kCorpus = std::string(ZEL_TEST_DATA) + "/aliasdb";
const std::string kOurs = std::string(ZEL_BIN_DIR) + "/zelpnl-newaliases";

std::vector<std::string> CorpusFiles() {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(kCorpus))
    if (e.path().extension() == ".aliases") names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

struct Result {
  int status = 0;
  std::string output;      // with the folder named "DIR"
  std::string dump;        // makemap -u, sorted
  std::set<std::string> raw_keys;
};

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

Result RunBuild(const std::string& command, const std::string& dir) {
  Result r;
  r.status = RunShell(command, &r.output);
  // sendmail shortens long file names before "line N:"; both forms go.
  r.output = Replace(r.output, zel_aliasdb::ShortFileName(dir + "/aliases") + ":", "DIR/aliases:");
  r.output = Replace(r.output, dir + "/", "DIR/");
  if (std::filesystem::exists(dir + "/aliases.db")) {
    RunShell("/usr/sbin/makemap -u hash " + dir + "/aliases.db | LC_ALL=C sort", &r.dump);
    for (auto& [k, v] : zel_aliasdb::ReadHashMap(dir + "/aliases.db")) r.raw_keys.insert(k);
  }
  return r;
}

void ExpectSame(const Result& theirs, const Result& ours) {
  EXPECT_EQ(ours.output, theirs.output);
  EXPECT_EQ(ours.status, theirs.status);
  EXPECT_EQ(ours.dump, theirs.dump);
  EXPECT_EQ(ours.raw_keys, theirs.raw_keys);
}

// Builds file in two folders of box, by sendmail and by ours with extra.
void Compare(Sandbox& box, const std::string& file, const std::string& extra) {
  const std::string text = zeltest::ReadFile(kCorpus + "/" + file);
  for (const char* side : {"sendmail", "ours"}) {
    std::filesystem::create_directory(box.Path(side));
    std::filesystem::permissions(box.Path(side), std::filesystem::perms(0755));
    box.Write(std::string(side) + "/aliases", text);
  }
  const Result theirs = RunBuild("/usr/sbin/sendmail -bi -oA" + box.Path("sendmail/aliases"), box.Path("sendmail"));
  const Result ours = RunBuild(kOurs + " " + extra + " -oA" + box.Path("ours/aliases"), box.Path("ours"));
  ExpectSame(theirs, ours);
}

class CorpusTest : public ::testing::TestWithParam<std::string> {};

std::string ParamName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = info.param.substr(0, info.param.find('.'));
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name;
}

}  // namespace

TEST_P(CorpusTest, BuildsTheSameMapAndMessagesAsSendmail) {
  Sandbox box("corpus-" + ParamName({GetParam(), 0}));
  Compare(box, GetParam(), "");
}

TEST_P(CorpusTest, MakemapWriterBuildsTheSameMapAsSendmail) {
  // makemap cuts input lines at its own buffer size, so the file of very
  // long lines is for the Berkeley DB writer only.
  if (GetParam() == "long-lines.aliases" || GetParam() == "over-long.aliases")
    GTEST_SKIP() << "lines longer than makemap reads";
  Sandbox box("corpus-makemap-" + ParamName({GetParam(), 0}));
  Compare(box, GetParam(), "--writer=makemap");
}

INSTANTIATE_TEST_SUITE_P(AliasesFiles, CorpusTest, ::testing::ValuesIn(CorpusFiles()), ParamName);

TEST(CorpusConfigTest, CorpusHasTheKindsOfFileItPromises) {
  const std::vector<std::string> files = CorpusFiles();
  for (const char* name : {"system.aliases", "panel.aliases", "continuation.aliases", "quoted.aliases",
                           "case-dup.aliases", "rejected.aliases", "odd-names.aliases", "long-lines.aliases",
                           "no-final-newline.aliases", "crlf.aliases", "nul.aliases", "empty.aliases",
                           "over-long.aliases"})
    EXPECT_NE(std::find(files.begin(), files.end(), name), files.end()) << name;
}

// With a sendmail configuration of its own (-C), the alias file comes from
// its AliasFile option, and the names sendmail judges are judged with that
// configuration (its host names, its blank substitute).
TEST(CorpusConfigTest, ConfigurationGivesTheAliasFileAndTheRulesForOddNames) {
  if (!std::filesystem::exists("/usr/share/sendmail/cf/m4/cf.m4") || !std::filesystem::exists("/usr/bin/m4"))
    GTEST_SKIP() << "sendmail-cf and m4 are needed to make a configuration";
  Sandbox box("corpus-config");
  const std::string text = zeltest::ReadFile(kCorpus + "/odd-names.aliases") + "mixed@example.test: local\n";
  std::vector<Result> results;
  for (const char* side : {"sendmail", "ours"}) {
    const std::string d = box.Path(side);
    std::filesystem::create_directory(d);
    std::filesystem::permissions(d, std::filesystem::perms(0755));
    zeltest::WriteFile(d + "/aliases", text);
    zeltest::WriteFile(d + "/local-host-names", "example.test\n");
    zeltest::WriteFile(d + "/sendmail.mc",
                       "include(`/usr/share/sendmail/cf/m4/cf.m4')dnl\n"
                       "OSTYPE(`linux')dnl\n"
                       "define(`confCW_FILE', `" + d + "/local-host-names')dnl\n"
                       "FEATURE(`use_cw_file')dnl\n"
                       "define(`ALIAS_FILE', `" + d + "/aliases')dnl\n"
                       "define(`confBLANK_SUB', `_')dnl\n"
                       "define(`confDONT_PROBE_INTERFACES', `True')dnl\n"
                       "MAILER(`local')dnl\n");
    ASSERT_EQ(RunShell("/usr/bin/m4 " + d + "/sendmail.mc > " + d + "/sendmail.cf"), 0);
    const std::string command = std::string(side) == "sendmail" ? "/usr/sbin/sendmail -C" + d + "/sendmail.cf -bi"
                                                                : kOurs + " -C " + d + "/sendmail.cf -bi";
    results.push_back(RunBuild(command, d));
  }
  ExpectSame(results[0], results[1]);
  // The configuration's own names: a host part it calls local, blanks as "_".
  EXPECT_NE(results[1].dump.find("two_words\te"), std::string::npos) << results[1].dump;
  EXPECT_NE(results[1].dump.find("mixed\tlocal"), std::string::npos) << results[1].dump;
}
