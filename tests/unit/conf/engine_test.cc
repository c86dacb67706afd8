// The engine on real files: sample files in tests/data/conf, each edit case
// compared byte for byte with its golden output.
#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <sys/stat.h>

#include "test_tables.h"
#include "zelapi/file.h"

using conftest::DomainView;
using conftest::Journal;
using conftest::ListTable;
using conftest::ListView;
using conftest::MailView;
using conftest::NamesTable;
using conftest::NameView;
using conftest::Sample;
using conftest::Slurp;
using conftest::Spill;
using conftest::VirtTable;

namespace {

class EngineTest : public conftest::ScratchTest {};

// A view that caches a record and then changes its mind: it returns false
// on "refuse" lines and throws on "throw" lines.
class FickleView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override {
    if (!conftest::AtLineStart(cf)) return false;
    cf.CacheStart(*this, true);
    cf.CacheField(key);
    cf.GetUntilToken("\n", false, true);
    cf.CacheField(rest);
    cf.CacheDone(*this, false);
    if (cf.stored_value(0) == "throw") throw std::out_of_range("fickle");
    return cf.stored_value(0) != "refuse";
  }
  std::string NewRecordTemplate() override { return key.Str() + " " + rest.Str() + "\n"; }

  dd::Field key{this, "key"};
  dd::Field rest{this, "rest"};
};

// Claims whatever the first view left.
class CatchAllView : public HeadDataSet {
 public:
  bool Parse(Cf& cf) override {
    if (!conftest::AtLineStart(cf)) return false;
    cf.CacheStart(*this, true);
    cf.CacheField(word);
    cf.CacheDone(*this, false);
    return true;
  }
  std::string NewRecordTemplate() override { return word.Str() + "\n"; }

  dd::Field word{this, "word"};
};

class FickleTable : public PnlCachedConfig<FickleTable> {
 public:
  FickleTable() {
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken(" ", 1));
    rules->Add(pnl_token::CharToken("\n", 6));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    conftest::AddView<FickleView>(e, name_);
    conftest::AddView<CatchAllView>(e, name_);
  }
};

}  // namespace

// ------------------------------------------------------------ reading

TEST_F(EngineTest, ViewsClaimTheirLinesAndLeaveTheRest) {
  const std::string path = Copy("virt.txt");
  auto domains = VirtTable::Get<DomainView>(path, false);
  std::vector<std::string> seen;
  for (domains->First(); !domains->Eof(); domains->Next()) seen.push_back(domains->name.Str() + "=" + domains->target.Str());
  EXPECT_EQ(seen, (std::vector<std::string>{"example.com=error:nouser No such user here", "other.org=devnull",
                                            "empty.org="}));
  auto mails = VirtTable::Get<MailView>(path, false);
  seen.clear();
  for (mails->First(); !mails->Eof(); mails->Next()) seen.push_back(mails->name.Str() + "=" + mails->target.Str());
  EXPECT_EQ(seen, (std::vector<std::string>{"info@example.com=info+example.com",
                                            "sales@example.com=sales+example.com",
                                            "bob@other.org=bob+other.org bob@elsewhere.net",
                                            "tab@other.org=tab+other.org", "last@other.org=last+other.org"}));
}

TEST_F(EngineTest, CommentAnywhereTableKeepsBlankBeforeRemark) {
  const std::string path = Copy("names.txt");
  auto names = NamesTable::Get<NameView>(path, false);
  std::vector<std::string> seen;
  for (names->First(); !names->Eof(); names->Next()) seen.push_back(names->name.Str());
  EXPECT_EQ(seen, (std::vector<std::string>{"example.com", "other.org ", "mail example.net"}));
  EXPECT_TRUE(names->Find("other.org "));
  EXPECT_FALSE(names->Find("other.org"));
}

TEST_F(EngineTest, ListFieldSplitsOutsideQuotes) {
  const std::string path = Copy("list.txt");
  auto lists = ListTable::Get<ListView>(path, false);
  ASSERT_TRUE(lists->Find("prog"));
  ASSERT_EQ(lists->items.Size(), 2u);
  EXPECT_EQ(lists->items[0], "\"|/usr/bin/filter a,b\"");
  EXPECT_EQ(lists->items[1], "x\\@example.com");
  ASSERT_TRUE(lists->Find("info"));
  EXPECT_EQ(lists->items.Str(), "a@example.com, b@example.com");
}

TEST_F(EngineTest, UnchangedFilesRoundTripByteForByte) {
  // Change one record and change it back: every save writes the whole file
  // from the cached copy, so the result shows what the copy keeps.
  const std::string virt = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(virt, false);
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->target = "changed";
  mails->Post("");
  EXPECT_NE(Slurp(virt), Sample("virt.txt"));
  mails->target = "info+example.com";
  mails->Post("");
  EXPECT_EQ(Slurp(virt), Sample("virt.txt"));

  const std::string names = Copy("names.txt");
  auto name = NamesTable::Get<NameView>(names, false);
  ASSERT_TRUE(name->Find("example.com"));
  name->name.Set("changed.example");
  name->Post("");
  name->name.Set("example.com");
  name->Post("");
  EXPECT_EQ(Slurp(names), Sample("names.txt"));

  const std::string list = Copy("list.txt");
  auto items = ListTable::Get<ListView>(list, false);
  ASSERT_TRUE(items->Find("postmaster"));
  items->items = "admin";
  items->Post("");
  items->items = "root";
  items->Post("");
  EXPECT_EQ(Slurp(list), Sample("list.txt"));
}

// ------------------------------------------------------------ changing

TEST_F(EngineTest, ChangedFieldReplacesOnlyItsSpanKeepingSpacingAndRemark) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Find("sales@example.com"));
  mails->target = "sales+new.example";
  mails->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt_change_span.golden"));
}

TEST_F(EngineTest, ChangedLastLineStaysWithoutLineEnd) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Find("last@other.org"));
  mails->target = "last+new.example";
  mails->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt_change_last.golden"));
}

TEST_F(EngineTest, FieldWithoutSpanIsWrittenThroughTheTemplate) {
  const std::string path = Copy("virt.txt");
  auto domains = VirtTable::Get<DomainView>(path, false);
  ASSERT_TRUE(domains->Find("empty.org"));
  domains->target.Set("devnull");
  domains->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt_template_fallback.golden"));
}

TEST_F(EngineTest, AppendedListElementRewritesTheListSpan) {
  const std::string path = Copy("list.txt");
  auto lists = ListTable::Get<ListView>(path, false);
  ASSERT_TRUE(lists->Find("prog"));
  lists->items.Append("y@example.com");
  lists->Post("");
  EXPECT_EQ(Slurp(path), Sample("list_append_item.golden"));
}

TEST_F(EngineTest, PostWithoutChangeRewritesTheFileByteForByte) {
  for (const char* sample : {"virt.txt", "names.txt", "list.txt"}) {
    const std::string path = Copy(sample);
    struct stat old_st;
    ASSERT_EQ(::stat(path.c_str(), &old_st), 0);
    const ino_t before = old_st.st_ino;
    SmartPtr<HeadDataSet> cursor;
    if (std::string(sample) == "virt.txt") {
      auto mails = VirtTable::Get<MailView>(path, false);
      ASSERT_TRUE(mails->Find("bob@other.org"));
      mails->target.Set("bob+other.org    bob@elsewhere.net");  // the same list
      cursor = mails;
    } else if (std::string(sample) == "names.txt") {
      auto names = NamesTable::Get<NameView>(path, false);
      ASSERT_TRUE(names->Find("other.org "));
      cursor = names;
    } else {
      auto lists = ListTable::Get<ListView>(path, false);
      ASSERT_TRUE(lists->Find("info"));
      cursor = lists;
    }
    cursor->Post("");
    EXPECT_EQ(Slurp(path), Sample(sample)) << sample;
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_NE(st.st_ino, before) << sample << " was not written again";
  }
  auto saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 3u);
  for (const auto& save : saves) EXPECT_EQ(save.reason, ConfCache::kSavePosted);
}

TEST_F(EngineTest, DeletedRecordRemovesOnlyItsLine) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  EXPECT_TRUE(mails->Delete("info@example.com"));
  EXPECT_EQ(Slurp(path), Sample("virt_delete.golden"));
  EXPECT_FALSE(mails->Find("info@example.com"));
}

TEST_F(EngineTest, DeletedRecordTakesItsContinuationLines) {
  const std::string virt = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(virt, false);
  ASSERT_TRUE(mails->Find("sales@example.com"));
  mails->Delete();
  EXPECT_EQ(Slurp(virt), Sample("virt_delete_with_continuation.golden"));

  const std::string list = Copy("list.txt");
  auto lists = ListTable::Get<ListView>(list, false);
  ASSERT_TRUE(lists->Find("info"));
  EXPECT_TRUE(lists->_Delete(true));
  EXPECT_EQ(Slurp(list), Sample("list_delete.golden"));
}

TEST_F(EngineTest, DeletingMissingKeyLeavesFileUnchanged) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  EXPECT_FALSE(mails->Delete("nobody@example.com"));
  EXPECT_FALSE(mails->_Delete(false));
  EXPECT_THROW(mails->Delete(), pnl_err::Error);
  EXPECT_EQ(Slurp(path), Sample("virt.txt"));
  EXPECT_TRUE(Journal::Get().saves().empty());
}

TEST_F(EngineTest, NewRecordIsAppendedAndLastLineGetsItsLineEnd) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  mails->New();
  EXPECT_TRUE(mails->IsNew());
  EXPECT_EQ(mails->name.Str(), "");
  mails->name.Set("new@other.org");
  mails->target = "new+other.org";
  mails->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt_append.golden"));
  EXPECT_FALSE(mails->IsNew());
  ASSERT_TRUE(mails->Find("new@other.org"));
  EXPECT_EQ(mails->target.Str(), "new+other.org");
}

TEST_F(EngineTest, PostAfterOtherViewPlacesTheLineRightAfterItsRecord) {
  const std::string path = Copy("virt.txt");
  auto domains = VirtTable::Get<DomainView>(path, false);
  auto mails = VirtTable::Get<MailView>(path, false);
  EXPECT_TRUE(mails->SameFile(*domains));
  ASSERT_TRUE(domains->Find("example.com"));
  mails->New();
  mails->name.Set("x@example.com");
  mails->target = "x+example.com";
  mails->Post(*domains);
  EXPECT_EQ(Slurp(path), Sample("virt_post_after.golden"));
}

TEST_F(EngineTest, PostAfterRecordWithContinuationGoesAfterTheContinuation) {
  const std::string path = Copy("virt.txt");
  auto anchor = VirtTable::Get<MailView>(path, false);
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(anchor->Find("sales@example.com"));
  mails->New();
  mails->name.Set("y@example.com");
  mails->target = "y+example.com";
  mails->Post(*anchor);
  EXPECT_EQ(Slurp(path), Sample("virt_post_after_continuation.golden"));
}

TEST_F(EngineTest, PostAfterUnpositionedCursorAppends) {
  const std::string path = Copy("virt.txt");
  auto domains = VirtTable::Get<DomainView>(path, false);
  auto mails = VirtTable::Get<MailView>(path, false);
  EXPECT_FALSE(domains->Find("missing.example"));
  mails->New();
  mails->name.Set("new@other.org");
  mails->target = "new+other.org";
  mails->Post(*domains);
  EXPECT_EQ(Slurp(path), Sample("virt_append.golden"));
}

TEST_F(EngineTest, PostAfterCursorOfAnotherFileIsRefused) {
  const std::string path = Copy("virt.txt");
  Spill(Path("other.txt"), "@a.example\tdevnull\n");
  auto domains = VirtTable::Get<DomainView>(Path("other.txt"), false);
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(domains->Find("a.example"));
  mails->New();
  mails->name.Set("x@a.example");
  EXPECT_THROW(mails->Post(*domains), pnl_err::Error);
  EXPECT_EQ(Slurp(path), Sample("virt.txt"));
}

TEST_F(EngineTest, WalkDeleteNextVisitsEveryRecordOnce) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  std::vector<std::string> visited;
  for (mails->First(); !mails->Eof(); mails->Next()) {
    visited.push_back(mails->name.Str());
    if (mails->name.Str() != "bob@other.org") mails->Delete();
  }
  EXPECT_EQ(visited, (std::vector<std::string>{"info@example.com", "sales@example.com", "bob@other.org",
                                               "tab@other.org", "last@other.org"}));
  mails->First();
  ASSERT_FALSE(mails->Eof());
  EXPECT_EQ(mails->name.Str(), "bob@other.org");
  mails->Next();
  EXPECT_TRUE(mails->Eof());
}

TEST_F(EngineTest, FindGivesTheFirstOfTwoEqualKeys) {
  Spill(Path("dup.txt"), "a@x.example\tfirst\nb@x.example\tother\na@x.example\tsecond\n");
  auto mails = VirtTable::Get<MailView>(Path("dup.txt"), false);
  ASSERT_TRUE(mails->Find("a@x.example"));
  EXPECT_EQ(mails->target.Str(), "first");
  EXPECT_TRUE(mails->Delete("a@x.example"));
  EXPECT_EQ(Slurp(Path("dup.txt")), "b@x.example\tother\na@x.example\tsecond\n");
  ASSERT_TRUE(mails->Find("a@x.example"));
  EXPECT_EQ(mails->target.Str(), "second");
}

TEST_F(EngineTest, CreateOfExistingKeyNeverAddsASecondLine) {
  const std::string path = Copy("names.txt");
  auto names = NamesTable::Get<NameView>(path, false);
  names->Create("example.com");
  EXPECT_FALSE(names->IsNew());
  names->Post("");
  EXPECT_EQ(Slurp(path), Sample("names.txt"));
  names->Create("new.example");
  EXPECT_TRUE(names->IsNew());
  names->Post("");
  EXPECT_EQ(Slurp(path), Sample("names_append.golden"));
}

TEST_F(EngineTest, CreateOfKeyAddedMeanwhileChangesThatRecord) {
  const std::string path = Copy("virt.txt");
  auto first = VirtTable::Get<DomainView>(path, false);
  auto second = VirtTable::Get<DomainView>(path, false);
  first->Create("new.example");
  first->target.Set("devnull");
  second->Create("new.example");
  second->target.Set("error:nouser here");
  second->Post("");
  first->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt.txt") + "\n@new.example\tdevnull\n");
}

TEST_F(EngineTest, AssertOfMissingKeyNamesFileAndKey) {
  const std::string path = Copy("virt.txt");
  auto domains = VirtTable::Get<DomainView>(path, false);
  EXPECT_NO_THROW(domains->Assert("other.org"));
  EXPECT_EQ(domains->target.Str(), "devnull");
  try {
    domains->Assert("missing.example");
    FAIL() << "Assert of a missing key did not throw";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kConf);
    EXPECT_EQ(std::string(e.what()), path + ": no record with key 'missing.example'");
  }
}

TEST_F(EngineTest, ValuesWithLineEndsAreRefusedBeforeAnythingIsWritten) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Find("info@example.com"));
  EXPECT_THROW(mails->target.Append("x\nevil@example.com\ty"), pnl_err::Error);
  EXPECT_THROW(mails->target = "x\ry", pnl_err::Error);
  EXPECT_THROW(mails->target.Set("a\nb"), pnl_err::Error);
  EXPECT_THROW(mails->name.Set("a\n"), pnl_err::Error);
  EXPECT_THROW(mails->Create("evil@example.com\nroot@example.com"), pnl_err::Error);
  EXPECT_EQ(mails->target.Str(), "info+example.com");
  mails->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt.txt"));
}

TEST_F(EngineTest, ValueThatWouldNotReadBackIsRefused) {
  const std::string path = Copy("virt.txt");
  auto domains = VirtTable::Get<DomainView>(path, false);
  ASSERT_TRUE(domains->Find("other.org"));
  domains->target.Set("devnull # not a remark");
  try {
    domains->Post("");
    FAIL() << "a value with a comment start was written";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(std::string(e.what()),
              path + ": record 'other.org': field target 'devnull # not a remark' would read back as 'devnull'");
  }
  auto mails = VirtTable::Get<MailView>(path, false);
  mails->New();
  mails->name.Set("two words@x.example");
  EXPECT_THROW(mails->Post(""), pnl_err::Error);
  EXPECT_EQ(Slurp(path), Sample("virt.txt"));
  EXPECT_TRUE(Journal::Get().saves().empty());
}

TEST_F(EngineTest, ParseThatRefusesOrThrowsAfterCachingStoresNothing) {
  Spill(Path("f.txt"), "keep one\nrefuse two\nthrow three\n");
  auto fickle = FickleTable::Get<FickleView>(Path("f.txt"), false);
  std::vector<std::string> keys;
  for (fickle->First(); !fickle->Eof(); fickle->Next()) keys.push_back(fickle->key.Str());
  EXPECT_EQ(keys, (std::vector<std::string>{"keep"}));
  EXPECT_FALSE(fickle->Find("refuse"));
  EXPECT_FALSE(fickle->Find("throw"));
  auto rest = FickleTable::Get<CatchAllView>(Path("f.txt"), false);
  keys.clear();
  for (rest->First(); !rest->Eof(); rest->Next()) keys.push_back(rest->word.Str());
  EXPECT_EQ(keys, (std::vector<std::string>{"refuse", "throw"}));
}

TEST_F(EngineTest, PostWithoutRecordIsRefused) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  EXPECT_THROW(mails->Post(""), pnl_err::Error);
  EXPECT_FALSE(mails->Find("nobody@example.com"));
  EXPECT_THROW(mails->Post(""), pnl_err::Error);
  EXPECT_THROW(mails->Next(), pnl_err::Error);
}

// ------------------------------------------------------------ files

TEST_F(EngineTest, MissingFileWithoutCreateIsAnErrorNamingIt) {
  try {
    VirtTable::Get<DomainView>(Path("absent"), false);
    FAIL() << "no error for a missing file";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(std::string(e.what()), Path("absent") + ": no such file");
  }
  EXPECT_FALSE(std::filesystem::exists(Path("absent")));
}

TEST_F(EngineTest, MissingFileWithCreateIsMadeEmptyWithReasonOne) {
  auto domains = VirtTable::Get<DomainView>(Path("fresh"), true);
  ASSERT_TRUE(std::filesystem::exists(Path("fresh")));
  EXPECT_EQ(Slurp(Path("fresh")), "");
  struct stat st;
  ASSERT_EQ(::stat(Path("fresh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  auto saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 1u);
  EXPECT_EQ(saves[0].reason, ConfCache::kSaveCreated);
  EXPECT_EQ(saves[0].file, Path("fresh"));
  domains->First();
  EXPECT_TRUE(domains->Eof());
}

TEST_F(EngineTest, UnreadableFileIsAnErrorNamingIt) {
  struct Refusing : pnl_file::Ops {
    int Open(const std::string& path, int flags, unsigned mode, int& fd) override {
      if (path.find("locked") != std::string::npos) return EACCES;
      return pnl_file::Ops::Open(path, flags, mode, fd);
    }
  };
  Spill(Path("locked"), "@a.example\tdevnull\n");
  pnl_file::ScopedOps ops(std::make_shared<Refusing>());
  try {
    VirtTable::Get<DomainView>(Path("locked"), true);
    FAIL() << "no error for an unreadable file";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kFile);
    EXPECT_EQ(std::string(e.what()), Path("locked") + ": cannot open for reading: Permission denied");
  }
}

TEST_F(EngineTest, SaveKeepsModeOfTheOriginal) {
  const std::string path = Copy("virt.txt");
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Delete("info@example.com"));
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(EngineTest, AllCursorsOfAPathShareOneCachedCopy) {
  const std::string path = Copy("virt.txt");
  auto a = VirtTable::Get<MailView>(path, false);
  auto b = VirtTable::Get<MailView>(dir_ + "/./virt.txt", false);
  auto c = VirtTable::Get<DomainView>(path, false);
  EXPECT_TRUE(a->SameFile(*b));
  EXPECT_TRUE(a->SameFile(*c));
  EXPECT_EQ(b->FileName(), path);
}

// ------------------------------------------------------------ after save

TEST_F(EngineTest, EachWriteRunsAfterSaveWithReasonZeroAndTheNote) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->target = "info+new.example";
  mails->Post("moved to the new domain");
  mails->Delete();
  auto saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 2u);
  EXPECT_EQ(saves[0].table, "virt");
  EXPECT_EQ(saves[0].file, path);
  EXPECT_EQ(saves[0].reason, ConfCache::kSavePosted);
  EXPECT_EQ(saves[0].notes, (std::vector<std::string>{"moved to the new domain"}));
  EXPECT_EQ(saves[1].reason, ConfCache::kSavePosted);
  EXPECT_TRUE(saves[1].notes.empty());
  EXPECT_EQ(Slurp(path).find("moved to"), std::string::npos);
}

using Keys = std::vector<std::string>;

TEST_F(EngineTest, EachSaveHandsAfterSaveTheKeysItWrote) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  auto domains = VirtTable::Get<DomainView>(path, false);
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->target = "info+new.example";
  mails->Post("");  // changed
  ASSERT_TRUE(mails->Find("sales@example.com"));
  mails->name.Set("Sales@new.example");
  mails->Post("");  // renamed: the key before and after
  ASSERT_TRUE(domains->Find("other.org"));
  domains->Post("");  // posted unchanged
  mails->New();
  mails->name.Set("new@example.com");
  mails->target = "new+example.com";
  mails->Post("");  // added
  ASSERT_TRUE(mails->Find("bob@other.org"));
  mails->Delete();  // removed
  auto saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 5u);
  EXPECT_EQ(saves[0].changed_keys, Keys({"info@example.com"}));
  EXPECT_EQ(saves[1].changed_keys, Keys({"sales@example.com", "Sales@new.example"}));
  EXPECT_EQ(saves[2].changed_keys, Keys({"other.org"}));
  EXPECT_EQ(saves[3].changed_keys, Keys({"new@example.com"}));
  EXPECT_EQ(saves[4].changed_keys, Keys({"bob@other.org"}));
}

TEST_F(EngineTest, DeferredSaveHandsEveryChangedKeyOnceAndADiscardForgetsThem) {
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  engine->BeginDeferred();
  mails->New();
  mails->name.Set("temp@example.com");
  mails->Post("");
  engine->DiscardDeferred();
  engine->BeginDeferred();
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->target = "info+one.example";
  mails->Post("");
  ASSERT_TRUE(mails->Find("last@other.org"));
  mails->Delete();
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->target = "info+two.example";
  mails->Post("");
  engine->FlushDeferred();
  auto saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 1u);
  EXPECT_EQ(saves[0].reason, ConfCache::kSaveDeferred);
  EXPECT_EQ(saves[0].changed_keys, Keys({"info@example.com", "last@other.org"}));
  // The next save starts afresh.
  ASSERT_TRUE(mails->Find("tab@other.org"));
  mails->Delete();
  saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 2u);
  EXPECT_EQ(saves[1].changed_keys, Keys({"tab@other.org"}));
}

TEST_F(EngineTest, AfterSaveErrorReachesPostAndTheFileIsSaved) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Find("sales@example.com"));
  mails->target = "sales+new.example";
  Journal::Get().ThrowOnSave(true);
  try {
    mails->Post("");
    FAIL() << "the after-save error did not reach Post";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(std::string(e.what()), "after-save: map rebuild failed for " + path);
  }
  EXPECT_EQ(Slurp(path), Sample("virt_change_span.golden"));
  // The copy matches the disk: the next post builds on it.
  Journal::Get().ThrowOnSave(false);
  mails->Delete();
  EXPECT_EQ(Slurp(path).find("sales@"), std::string::npos);
}

// ------------------------------------------------------------ other writers

TEST_F(EngineTest, HandEditBetweenTwoPostsSurvives) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->target = "info+one.example";
  mails->Post("");
  // Someone edits the file by hand.
  std::string edited = Slurp(path);
  edited.insert(0, "hand@example.com\thand+example.com\n");
  Spill(path, edited);
  ASSERT_TRUE(mails->Find("bob@other.org"));
  mails->target = "bob+two.example";
  mails->Post("");
  const std::string now = Slurp(path);
  EXPECT_EQ(now.find("hand@example.com\thand+example.com\n"), 0u);
  EXPECT_NE(now.find("info@example.com\tinfo+one.example\n"), std::string::npos);
  EXPECT_NE(now.find("bob@other.org\tbob+two.example\n"), std::string::npos);
}

TEST_F(EngineTest, HandEditOfTheSameRecordKeepsTheFieldsThePostDidNotChange) {
  Spill(Path("l.txt"), "a:\tone\n");
  auto lists = ListTable::Get<ListView>(Path("l.txt"), false);
  ASSERT_TRUE(lists->Find("a"));
  lists->name.Set("b");  // rename only
  Spill(Path("l.txt"), "# added by hand\na:\tone, two\n");
  lists->Post("");
  EXPECT_EQ(Slurp(Path("l.txt")), "# added by hand\nb:\tone, two\n");
}

TEST_F(EngineTest, RecordRemovedOnDiskMakesThePostFailClearly) {
  Spill(Path("v.txt"), "a@x.example\tone\nb@x.example\ttwo\n");
  auto mails = VirtTable::Get<MailView>(Path("v.txt"), false);
  ASSERT_TRUE(mails->Find("a@x.example"));
  mails->target = "changed";
  Spill(Path("v.txt"), "b@x.example\ttwo\n");
  try {
    mails->Post("");
    FAIL() << "a record removed on disk was written back";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(std::string(e.what()), Path("v.txt") +
                                         ": record 'a@x.example' was changed or removed on disk by someone "
                                         "else since it was read; read it again");
  }
  EXPECT_EQ(Slurp(Path("v.txt")), "b@x.example\ttwo\n");
}

TEST_F(EngineTest, WalkContinuesAfterTheFileWasReadAgain) {
  Spill(Path("v.txt"), "a@x.example\tone\nb@x.example\ttwo\nc@x.example\tthree\n");
  auto walk = VirtTable::Get<MailView>(Path("v.txt"), false);
  auto other = VirtTable::Get<MailView>(Path("v.txt"), false);
  walk->First();
  ASSERT_EQ(walk->name.Str(), "a@x.example");
  Spill(Path("v.txt"), "# new first line\na@x.example\tone\nb@x.example\ttwo\nc@x.example\tthree\n");
  ASSERT_TRUE(other->Find("c@x.example"));  // reads the file again
  walk->Next();
  EXPECT_EQ(walk->name.Str(), "b@x.example");
  walk->Delete();
  walk->Next();
  EXPECT_EQ(walk->name.Str(), "c@x.example");
  EXPECT_EQ(Slurp(Path("v.txt")), "# new first line\na@x.example\tone\nc@x.example\tthree\n");
}

TEST_F(EngineTest, ContentVersionChangesWithEveryEditAndReadAndOnlyThen) {
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  auto other = VirtTable::Get<DomainView>(path, false);
  const std::uint64_t first = mails->ContentVersion();
  EXPECT_EQ(other->ContentVersion(), first) << "one copy, one version";
  ASSERT_TRUE(mails->Find("sales@example.com"));
  EXPECT_EQ(mails->ContentVersion(), first) << "looking changes nothing";

  mails->target = "sales+new.example";
  mails->Post("");
  const std::uint64_t posted = other->ContentVersion();
  EXPECT_NE(posted, first) << "a post through another cursor";

  engine->BeginDeferred();
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->Delete();
  const std::uint64_t deferred = mails->ContentVersion();
  EXPECT_NE(deferred, posted) << "a deferred edit, not saved yet";
  engine->FlushDeferred();

  Spill(path, Slurp(path) + "hand@example.com\thand+example.com\n");
  const std::uint64_t reread = mails->ContentVersion();
  EXPECT_NE(reread, deferred) << "changed on disk: read again";
  EXPECT_EQ(mails->ContentVersion(), reread);
}

// ------------------------------------------------------------ deferred

TEST_F(EngineTest, DeferredPostsAreSavedOnceWithReasonTwo) {
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  engine->BeginDeferred();
  EXPECT_THROW(engine->BeginDeferred(), pnl_err::Error);
  ASSERT_TRUE(mails->Find("sales@example.com"));
  mails->target = "sales+new.example";
  mails->Post("first");
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->Delete();
  EXPECT_EQ(Slurp(path), Sample("virt.txt"));
  EXPECT_TRUE(Journal::Get().saves().empty());
  engine->FlushDeferred();
  EXPECT_FALSE(engine->Deferred());
  std::string expected = Sample("virt_change_span.golden");
  expected.erase(expected.find("info@example.com\tinfo+example.com\n"), 34);
  EXPECT_EQ(Slurp(path), expected);
  auto saves = Journal::Get().saves();
  ASSERT_EQ(saves.size(), 1u);
  EXPECT_EQ(saves[0].reason, ConfCache::kSaveDeferred);
  EXPECT_EQ(saves[0].notes, (std::vector<std::string>{"first"}));
}

TEST_F(EngineTest, DeferredFlushRefusesToOverwriteAHandEdit) {
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  engine->BeginDeferred();
  ASSERT_TRUE(mails->Find("info@example.com"));
  mails->Delete();
  Spill(path, "hand@example.com\thand\n");
  EXPECT_THROW(engine->FlushDeferred(), pnl_err::Error);
  EXPECT_EQ(Slurp(path), "hand@example.com\thand\n");
  EXPECT_THROW(mails->Find("hand@example.com"), pnl_err::Error);  // still dirty: not read again
  engine->DiscardDeferred();
  ASSERT_TRUE(mails->Find("hand@example.com"));
  EXPECT_FALSE(mails->Find("info@example.com"));
  EXPECT_TRUE(Journal::Get().saves().empty());
}

TEST_F(EngineTest, DiscardedDeferredChangesAreForgotten) {
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  engine->BeginDeferred();
  mails->New();
  mails->name.Set("temp@example.com");
  mails->Post("");
  ASSERT_TRUE(mails->Find("temp@example.com"));
  engine->DiscardDeferred();
  EXPECT_FALSE(mails->Find("temp@example.com"));
  engine->FlushDeferred();
  EXPECT_EQ(Slurp(path), Sample("virt.txt"));
}

// Three files changed in one deferred save: saved in the order of their
// tables' ranks, whatever their paths.
class SaveOrderTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
    engine->SetSaveRank(ListTable::Table().Name(), 0);
    engine->SetSaveRank(NamesTable::Table().Name(), 1);
    engine->SetSaveRank(VirtTable::Table().Name(), 2);
    virt_ = CopyAs("virt.txt", "a-virt.txt");
    names_ = CopyAs("names.txt", "b-names.txt");
    list_ = CopyAs("list.txt", "c-list.txt");
  }
  void TearDown() override {
    ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
    for (const std::string& name :
         {VirtTable::Table().Name(), NamesTable::Table().Name(), ListTable::Table().Name()})
      engine->SetSaveRank(name, 0);
    EngineTest::TearDown();
  }
  // A change to each of the three files, deferred; their paths sort the
  // other way round from their ranks.
  void ChangeAll() {
    BaseCachedConfig<PnlConfCache>::Instance()->BeginDeferred();
    auto mails = VirtTable::Get<MailView>(virt_, false);
    ASSERT_TRUE(mails->Find("info@example.com"));
    mails->Delete();
    auto names = NamesTable::Get<NameView>(names_, false);
    names->New();
    names->name.Set("added.example");
    names->Post("");
    auto list = ListTable::Get<ListView>(list_, false);
    list->New();
    list->name.Set("added");
    list->Post("");
  }
  std::string virt_, names_, list_;

 private:
  std::string CopyAs(const std::string& sample, const std::string& name) {
    Spill(Path(name), Sample(sample));
    return Path(name);
  }
};

TEST_F(SaveOrderTest, ADeferredSaveWritesTheFilesInTheOrderOfTheirTablesRanks) {
  ChangeAll();
  BaseCachedConfig<PnlConfCache>::Instance()->FlushDeferred();
  std::vector<std::string> order;
  for (const auto& save : Journal::Get().saves()) order.push_back(save.table);
  EXPECT_EQ(order, (std::vector<std::string>{"list", "names", "virt"}));
}

TEST_F(SaveOrderTest, ADeferredSaveStopsAtTheFirstFileThatFailsAndWritesNoneAfterIt) {
  ChangeAll();
  Journal::Get().ThrowOnSave(true);
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  EXPECT_THROW(engine->FlushDeferred(), pnl_err::Error);
  ASSERT_EQ(Journal::Get().saves().size(), 1u);
  EXPECT_EQ(Journal::Get().saves()[0].table, "list");
  EXPECT_NE(Slurp(list_), Sample("list.txt")) << "the first file is in place (its step failed)";
  EXPECT_EQ(Slurp(names_), Sample("names.txt"));
  EXPECT_EQ(Slurp(virt_), Sample("virt.txt"));
  // What was not saved is dropped; the files are read again as they are.
  engine->DiscardDeferred();
  Journal::Get().ThrowOnSave(false);
  auto names = NamesTable::Get<NameView>(names_, false);
  EXPECT_FALSE(names->Find("added.example"));
}

// ------------------------------------------------------------ faults

namespace {

// A file system that fails one step of saves into a given folder.
class FailingOps : public pnl_file::Ops {
 public:
  enum Step { kWrite, kRename, kFsync };
  FailingOps(Step step, int err) : step_(step), err_(err) {}
  int Write(int fd, const char* data, std::size_t size, std::size_t& written) override {
    if (step_ == kWrite) {
      // Half the data goes out, then the disk is full.
      if (size > 1 && !half_) {
        half_ = true;
        return pnl_file::Ops::Write(fd, data, size / 2, written);
      }
      return err_;
    }
    return pnl_file::Ops::Write(fd, data, size, written);
  }
  int Rename(const std::string& from, const std::string& to) override {
    return step_ == kRename ? err_ : pnl_file::Ops::Rename(from, to);
  }
  int Fsync(int fd) override { return step_ == kFsync ? err_ : pnl_file::Ops::Fsync(fd); }

 private:
  Step step_;
  int err_;
  bool half_ = false;
};

}  // namespace

TEST_F(EngineTest, FailedSavesLeaveTheOriginalAndNoTemporaryFile) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  const struct {
    FailingOps::Step step;
    int err;
    const char* message;
  } cases[] = {
      {FailingOps::kWrite, ENOSPC, "No space left on device"},
      {FailingOps::kRename, EXDEV, "Invalid cross-device link"},
      {FailingOps::kFsync, EIO, "Input/output error"},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(mails->Find("sales@example.com"));
    mails->target = "sales+new.example";
    {
      pnl_file::ScopedOps ops(std::make_shared<FailingOps>(c.step, c.err));
      try {
        mails->Post("");
        ADD_FAILURE() << "the save did not fail: " << c.message;
      } catch (const pnl_err::Error& e) {
        EXPECT_EQ(e.kind(), pnl_err::Kind::kFile);
        EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        EXPECT_EQ(std::string(e.what()).rfind(path + ": ", 0), 0u) << e.what();
      }
    }
    EXPECT_EQ(Slurp(path), Sample("virt.txt")) << c.message;
    EXPECT_EQ(Entries(), (std::vector<std::string>{"virt.txt"})) << c.message;
    EXPECT_TRUE(Journal::Get().saves().empty());
  }
  // The cached copy was left as the disk is: the next save writes only
  // what it should.
  ASSERT_TRUE(mails->Find("sales@example.com"));
  EXPECT_EQ(mails->target.Str(), "sales+example.com");
  mails->target = "sales+new.example";
  mails->Post("");
  EXPECT_EQ(Slurp(path), Sample("virt_change_span.golden"));
}

// ------------------------------------------------------------ cursors

TEST_F(EngineTest, DroppedCursorRefusesNavigation) {
  const std::string path = Copy("virt.txt");
  auto mails = VirtTable::Get<MailView>(path, false);
  EXPECT_EQ(mails->Base(), mails.get());
  mails->First();
  mails->Drop();
  EXPECT_FALSE(mails->IsOpen());
  EXPECT_EQ(mails->FileName(), "");
  EXPECT_THROW(mails->First(), pnl_err::Error);
  EXPECT_THROW(mails->Post(""), pnl_err::Error);
}

TEST_F(EngineTest, UnknownViewOrTableIsRefused) {
  const std::string path = Copy("virt.txt");
  pnl_file::safe::Folder folder;
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  VirtTable::Get<MailView>(path, false);
  ConfRef ref = engine->Config(VirtTable::Table().Name(), folder, path, false);
  EXPECT_EQ(ref.FileName(), path);
  EXPECT_THROW(ref._Get(typeid(NameView).name()), pnl_err::Error);
  EXPECT_THROW(engine->Config("no-such-table", folder, path, false), pnl_err::Error);
  NamesTable::Table();
  EXPECT_THROW(engine->Config(NamesTable::Table().Name(), folder, path, false), pnl_err::Error);
}

TEST_F(EngineTest, ManyEditsDoNotPileUpInMemory) {
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  Spill(Path("v.txt"), "# busy\na@x.example\tstart\nb@x.example\tother\n");
  auto mails = VirtTable::Get<MailView>(Path("v.txt"), false);
  auto walker = VirtTable::Get<MailView>(Path("v.txt"), false);
  walker->First();
  engine->BeginDeferred();
  ASSERT_TRUE(mails->Find("a@x.example"));
  const std::size_t before = engine->CachedBytes();
  // Each post keeps a new line text until the copy is rebuilt: 60000 posts
  // of about 30 bytes would hold some 1.8 MB.
  for (int i = 0; i < 60000; ++i) {
    mails->target = "target-number-" + std::to_string(i);
    mails->Post("");
  }
  EXPECT_LT(engine->CachedBytes() - before, (std::size_t{1} << 20) + 4096);
  // Cursors kept their places through the rebuilds.
  EXPECT_EQ(mails->target.Str(), "target-number-59999");
  mails->target = "last";
  mails->Post("");
  walker->Next();
  EXPECT_EQ(walker->name.Str(), "b@x.example");
  engine->FlushDeferred();
  EXPECT_EQ(Slurp(Path("v.txt")), "# busy\na@x.example\tlast\nb@x.example\tother\n");
}

// ------------------------------------------------------------ the disk check

namespace {

// Counts the stats by path: the engine's look at the disk.
class StatCountingOps : public pnl_file::Ops {
 public:
  int Stat(const std::string& path, pnl_file::FileId& id) override {
    ++stats;
    return pnl_file::Ops::Stat(path, id);
  }
  int stats = 0;
};

}  // namespace

TEST_F(EngineTest, EachCursorOperationLooksAtTheDiskOnceAndNextNotAtAll) {
  const std::string path = Copy("virt.txt");
  VirtTable::Get<MailView>(path, false);  // read once, so no operation below reads it
  auto ops = std::make_shared<StatCountingOps>();
  pnl_file::ScopedOps scoped(ops);
  auto count = [&](const char* what, auto&& op) {
    const int before = ops->stats;
    op();
    EXPECT_EQ(ops->stats - before, 1) << what;
  };
  Cursor<MailView> mails;
  count("Get", [&] { mails = VirtTable::Get<MailView>(path, false); });
  count("First", [&] { mails->First(); });
  const int before_next = ops->stats;
  mails->Next();
  mails->Next();
  EXPECT_EQ(ops->stats, before_next) << "Next";
  count("Find", [&] { ASSERT_TRUE(mails->Find("info@example.com")); });
  count("Assert", [&] { mails->Assert("sales@example.com"); });
  count("Create", [&] { mails->Create("new@example.com"); });
  count("New", [&] { mails->New(); });
  count("Delete(key)", [&] { ASSERT_TRUE(mails->Delete("info@example.com")); });
  ASSERT_TRUE(mails->Find("bob@other.org"));
  mails->target = "bob+other.org";
  count("Post", [&] { mails->Post(""); });
}

TEST_F(EngineTest, HandEditIsSeenByTheOneCheckOfDeleteByKey) {
  Spill(Path("v.txt"), "a@x.example\tone\nb@x.example\ttwo\n");
  auto mails = VirtTable::Get<MailView>(Path("v.txt"), false);
  mails->First();
  Spill(Path("v.txt"), "a@x.example\tone\nb@x.example\ttwo\nc@x.example\tthree by hand\n");
  ASSERT_TRUE(mails->Delete("c@x.example"));
  EXPECT_EQ(Slurp(Path("v.txt")), "a@x.example\tone\nb@x.example\ttwo\n");
}

// ------------------------------------------------------------ rebuilding the copy

TEST_F(EngineTest, LargeFileCollectsEditsUpToItsOwnSizeBeforeTheCopyIsRebuilt) {
  // A 3 MiB file: rebuilding its copy after each MiB of edits would read
  // the whole file again every few thousand posts.
  std::string text;
  for (int i = 0; text.size() < (std::size_t{3} << 20); ++i)
    text += "user" + std::to_string(i) + "@x.example\tuser" + std::to_string(i) + "+x.example\n";
  Spill(Path("big.txt"), text);
  ConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  auto mails = VirtTable::Get<MailView>(Path("big.txt"), false);
  ASSERT_TRUE(mails->Find("user7@x.example"));
  const std::size_t before = engine->CachedBytes();
  engine->BeginDeferred();
  auto post = [&](int n) {
    mails->target = "changed-target-number-" + std::to_string(n);
    mails->Post("");
  };
  // The edited lines pile up (past 1 MiB) until they outweigh the file;
  // then the copy is rebuilt and holds about the file's size again.
  int i = 0;
  std::size_t most = 0;
  bool rebuilt = false;
  for (; i < 200000; ++i) {
    post(i);
    const std::size_t now = engine->CachedBytes();
    const std::size_t held = now > before ? now - before : 0;
    if (held < most) {
      rebuilt = true;
      break;
    }
    most = held;
  }
  EXPECT_TRUE(rebuilt);
  EXPECT_GT(most, std::size_t{2} << 20);
  EXPECT_LE(most, text.size() + 4096);
  EXPECT_EQ(mails->target.Str(), "changed-target-number-" + std::to_string(i));
  engine->FlushDeferred();
  ASSERT_TRUE(mails->Find("user7@x.example"));
  EXPECT_EQ(mails->target.Str(), "changed-target-number-" + std::to_string(i));
}

// ------------------------------------------------------------ keys without letter case

namespace {

// VirtTable's format, with keys that compare without ASCII letter case.
class FoldedVirtTable : public PnlCachedConfig<FoldedVirtTable> {
 public:
  FoldedVirtTable() {
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken("@", 2));
    rules->Add(pnl_token::CharToken("\t ", 1));
    rules->Add(pnl_token::CharToken("\n", 6));
    rules->Add(pnl_token::Comment("#", "\n", false));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    e->FoldKeys(name_, true);
    conftest::AddView<DomainView>(e, name_);
    conftest::AddView<MailView>(e, name_);
  }
};

// NamesTable's format; the tests turn folding on and off.
class SwitchedNamesTable : public PnlCachedConfig<SwitchedNamesTable> {
 public:
  SwitchedNamesTable() {
    auto rules = std::make_shared<pnl_token::Params>();
    rules->Add(pnl_token::CharToken("\n", 6));
    auto* e = BaseCachedConfig<PnlConfCache>::Instance();
    e->Register(name_, rules);
    conftest::AddView<NameView>(e, name_);
  }
};

const char kMixedCase[] =
    "@Example.COM\tdevnull\n"
    "Info@Example.com\tinfo+example.com\n"
    "# a remark\n"
    "Sales@EXAMPLE.com\tsales+example.com\n";

}  // namespace

TEST_F(EngineTest, FoldedTableFindsAKeyInAnyLetterCaseAndKeepsTheLinesText) {
  Spill(Path("v.txt"), kMixedCase);
  auto domains = FoldedVirtTable::Get<DomainView>(Path("v.txt"), false);
  ASSERT_TRUE(domains->Find("example.com"));
  EXPECT_EQ(domains->name.Str(), "Example.COM");
  EXPECT_TRUE(domains->Find("EXAMPLE.com"));
  auto mails = FoldedVirtTable::Get<MailView>(Path("v.txt"), false);
  ASSERT_TRUE(mails->Find("info@example.com"));
  EXPECT_EQ(mails->name.Str(), "Info@Example.com");
  EXPECT_NO_THROW(mails->Assert("SALES@example.COM"));
  EXPECT_EQ(mails->target.Str(), "sales+example.com");
  EXPECT_FALSE(mails->Find("info@example.co"));
  EXPECT_EQ(Slurp(Path("v.txt")), kMixedCase);
}

TEST_F(EngineTest, TablesCompareKeysExactlyUnlessTheyFoldThem) {
  Spill(Path("v.txt"), kMixedCase);
  auto mails = VirtTable::Get<MailView>(Path("v.txt"), false);
  EXPECT_FALSE(mails->Find("info@example.com"));
  EXPECT_TRUE(mails->Find("Info@Example.com"));
}

TEST_F(EngineTest, FoldedCreateOfAKeyInAnotherCaseChangesThatLineAndAddsNone) {
  Spill(Path("v.txt"), kMixedCase);
  auto mails = FoldedVirtTable::Get<MailView>(Path("v.txt"), false);
  mails->Create("info@example.com");
  EXPECT_FALSE(mails->IsNew());
  mails->target = "info+example.com info@elsewhere.example";
  mails->Post("");
  EXPECT_EQ(Slurp(Path("v.txt")),
            "@Example.COM\tdevnull\n"
            "Info@Example.com\tinfo+example.com info@elsewhere.example\n"
            "# a remark\n"
            "Sales@EXAMPLE.com\tsales+example.com\n");
}

TEST_F(EngineTest, FoldedDeleteByKeyInAnotherCaseRemovesThatLine) {
  Spill(Path("v.txt"), kMixedCase);
  auto mails = FoldedVirtTable::Get<MailView>(Path("v.txt"), false);
  EXPECT_TRUE(mails->Delete("sales@example.com"));
  EXPECT_FALSE(mails->Delete("sales@example.com"));
  EXPECT_EQ(Slurp(Path("v.txt")),
            "@Example.COM\tdevnull\nInfo@Example.com\tinfo+example.com\n# a remark\n");
}

TEST_F(EngineTest, FoldedNewKeyIsWrittenAsGivenAndFoundInAnyCase) {
  Spill(Path("v.txt"), kMixedCase);
  auto domains = FoldedVirtTable::Get<DomainView>(Path("v.txt"), false);
  domains->Create("New.Example");
  EXPECT_TRUE(domains->IsNew());
  domains->target.Set("devnull");
  domains->Post("");
  EXPECT_EQ(Slurp(Path("v.txt")), std::string(kMixedCase) + "@New.Example\tdevnull\n");
  ASSERT_TRUE(domains->Find("new.example"));
  EXPECT_EQ(domains->name.Str(), "New.Example");
}

TEST_F(EngineTest, FoldedCreateOfAKeyAddedMeanwhileInAnotherCaseChangesThatRecord) {
  Spill(Path("v.txt"), kMixedCase);
  auto first = FoldedVirtTable::Get<DomainView>(Path("v.txt"), false);
  auto second = FoldedVirtTable::Get<DomainView>(Path("v.txt"), false);
  first->Create("new.example");
  first->target.Set("devnull");
  second->Create("NEW.example");
  second->target.Set("error:nouser here");
  second->Post("");
  first->Post("");
  EXPECT_EQ(Slurp(Path("v.txt")), std::string(kMixedCase) + "@NEW.example\tdevnull\n");
}

// The case of non-letters and of bytes above 127 is not folded: "\xc3\x9c"
// and "\xc3\xbc" (U and u with diaeresis in UTF-8) stay different keys, as do
// "[" and "{", which differ by the same bit as "A" and "a".
TEST_F(EngineTest, FoldedKeysFoldOnlyAsciiLetters) {
  Spill(Path("v.txt"), "@B\xc3\x9c" "cher.example\tone\nx[1]@example.com\ttwo\n");
  auto domains = FoldedVirtTable::Get<DomainView>(Path("v.txt"), false);
  EXPECT_TRUE(domains->Find("b\xc3\x9c" "CHER.example"));
  EXPECT_FALSE(domains->Find("b\xc3\xbc" "cher.example"));
  auto mails = FoldedVirtTable::Get<MailView>(Path("v.txt"), false);
  EXPECT_TRUE(mails->Find("X[1]@EXAMPLE.com"));
  EXPECT_FALSE(mails->Find("x{1}@example.com"));
}

// A hand edit that writes a record's key in another case keeps a cursor on
// that record: it is the same key.
TEST_F(EngineTest, FoldedCursorFollowsItsRecordWhenAHandEditChangesTheKeysCase) {
  Spill(Path("v.txt"), kMixedCase);
  auto mails = FoldedVirtTable::Get<MailView>(Path("v.txt"), false);
  auto other = FoldedVirtTable::Get<MailView>(Path("v.txt"), false);
  ASSERT_TRUE(mails->Find("sales@example.com"));
  Spill(Path("v.txt"), "# first\n@Example.COM\tdevnull\nSALES@example.com\tsales+example.com\n");
  EXPECT_FALSE(other->Find("info@example.com"));  // reads the file again
  mails->target = "elsewhere@example.net";
  mails->Post("");
  EXPECT_EQ(Slurp(Path("v.txt")),
            "# first\n@Example.COM\tdevnull\nSALES@example.com\telsewhere@example.net\n");
}

TEST_F(EngineTest, TurningFoldingOnReadsCachedFilesAgainWithTheNewKeys) {
  Spill(Path("n.txt"), "Example.COM\nother.example\n");
  auto names = SwitchedNamesTable::Get<NameView>(Path("n.txt"), false);
  EXPECT_FALSE(names->Find("example.com"));
  PnlConfCache* engine = BaseCachedConfig<PnlConfCache>::Instance();
  engine->FoldKeys(SwitchedNamesTable::Table().Name(), true);
  EXPECT_TRUE(names->Find("example.com"));
  EXPECT_EQ(names->name.Str(), "Example.COM");
  engine->FoldKeys(SwitchedNamesTable::Table().Name(), false);
  EXPECT_FALSE(names->Find("example.com"));
}
