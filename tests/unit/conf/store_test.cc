// The line store and its key index (engine internals).
#include "../../../zelapi/conf/store.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using zel_conf::FieldSlot;
using zel_conf::ParsedRecord;
using zel_conf::Store;

// A record of one key field whose text is the whole line but its "\n".
ParsedRecord KeyRecord(std::size_t size) {
  ParsedRecord p;
  p.view = 0;
  p.slots.assign(1, FieldSlot());
  p.slots[0].start = 0;
  p.slots[0].size = static_cast<std::uint32_t>(size);
  return p;
}

// A store of lines "k0\n" .. "k<n-1>\n", each a record keyed by its text.
void Fill(Store& store, std::size_t n) {
  std::string text;
  for (std::size_t i = 0; i < n; ++i) text += "k" + std::to_string(i) + "\n";
  store.Reset(text, {1});
  store.ReserveLines(n);
  std::size_t off = 0;
  const std::string& base = store.base();
  while (off < base.size()) {
    const std::size_t end = base.find('\n', off) + 1;
    const std::int32_t line = store.AppendLine(off, end - off);
    store.AddRecord(line, KeyRecord(end - off - 1));
    off = end;
  }
}

std::uint64_t ComparesToFind(const Store& store, const std::string& key) {
  const std::uint64_t before = store.key_compares();
  EXPECT_GE(store.Find(0, key), 0) << key;
  return store.key_compares() - before;
}

}  // namespace

TEST(StoreTest, FindComparesAsFewKeysInAMillionLinesAsInAThousand) {
  Store small, big;
  Fill(small, 1000);
  Fill(big, 1000000);
  EXPECT_LE(ComparesToFind(small, "k999"), 2u);
  EXPECT_LE(ComparesToFind(big, "k999999"), 2u);
  EXPECT_LE(ComparesToFind(big, "k0"), 2u);
  const std::int32_t r = big.Find(0, "k500000");
  ASSERT_GE(r, 0);
  EXPECT_EQ(big.Key(r), "k500000");
  EXPECT_EQ(big.Find(0, "k1000000"), -1);
}

TEST(StoreTest, UnchangedStoreGivesBackItsBytes) {
  Store store;
  Fill(store, 50);
  EXPECT_EQ(store.Text(), store.base());
}

TEST(StoreTest, EditsAreShownBeforeTheyAreMadeExactlyAsAfter) {
  Store store;
  Fill(store, 5);
  // Update k1.
  Store::Edit update;
  update.kind = Store::Edit::kUpdate;
  update.line = store.record(store.Find(0, "k1")).line;
  update.text = "k1x\n";
  const std::string predicted_update = store.Text(&update);
  store.UpdateRecord(store.Find(0, "k1"), update.text, KeyRecord(3));
  EXPECT_EQ(store.Text(), predicted_update);
  EXPECT_EQ(store.Text(), "k0\nk1x\nk2\nk3\nk4\n");
  EXPECT_EQ(store.Find(0, "k1"), -1);
  EXPECT_GE(store.Find(0, "k1x"), 0);
  // Insert after k2.
  Store::Edit insert;
  insert.kind = Store::Edit::kInsert;
  insert.line = store.record(store.Find(0, "k2")).line;
  insert.text = "n\n";
  const std::string predicted_insert = store.Text(&insert);
  store.InsertRecord(insert.line, insert.text, KeyRecord(1));
  EXPECT_EQ(store.Text(), predicted_insert);
  EXPECT_EQ(store.Text(), "k0\nk1x\nk2\nn\nk3\nk4\n");
  // Remove two lines from k3.
  Store::Edit remove;
  remove.kind = Store::Edit::kRemove;
  remove.line = store.record(store.Find(0, "k3")).line;
  remove.count = 2;
  const std::string predicted_remove = store.Text(&remove);
  EXPECT_EQ(store.RemoveLines(remove.line, remove.count), -1);
  EXPECT_EQ(store.Text(), predicted_remove);
  EXPECT_EQ(store.Text(), "k0\nk1x\nk2\nn\n");
  EXPECT_EQ(store.Find(0, "k4"), -1);
}

TEST(StoreTest, AppendingAfterALastLineWithoutLineEndAddsOne) {
  Store store;
  store.Reset("a\nb", {1});
  store.AddRecord(store.AppendLine(0, 2), KeyRecord(1));
  store.AddRecord(store.AppendLine(2, 1), KeyRecord(1));
  Store::Edit insert;
  insert.kind = Store::Edit::kInsert;
  insert.text = "c\n";
  EXPECT_EQ(store.Text(&insert), "a\nb\nc\n");
  store.InsertRecord(-1, insert.text, KeyRecord(1));
  EXPECT_EQ(store.Text(), "a\nb\nc\n");
  EXPECT_EQ(store.Key(store.Find(0, "b")), "b");
}

TEST(StoreTest, DuplicatesAreFoundInFileOrderAlsoAfterInsertions) {
  Store store;
  store.Reset("d\nx\nd\n", {1});
  std::int32_t lines[3];
  for (int i = 0; i < 3; ++i) {
    lines[i] = store.AppendLine(static_cast<std::size_t>(i) * 2, 2);
    store.AddRecord(lines[i], KeyRecord(1));
  }
  const std::int32_t first = store.Find(0, "d");
  EXPECT_EQ(store.record(first).line, lines[0]);
  const std::int32_t appended = store.InsertRecord(-1, "d\n", KeyRecord(1));
  EXPECT_EQ(store.Find(0, "d"), first);
  EXPECT_EQ(store.Occurrence(appended), 2u);
  EXPECT_EQ(store.FindNth(0, "d", 2), appended);
  EXPECT_EQ(store.FindNth(0, "d", 3), -1);
  // Inserting again and again at one place uses up the room between two
  // order labels; the order stays right.
  std::int32_t last = -1;
  for (int i = 0; i < 100; ++i) last = store.InsertRecord(lines[0], "m\n", KeyRecord(1));
  EXPECT_EQ(store.Find(0, "m"), last);  // each one went right after lines[0]
  EXPECT_EQ(store.Occurrence(last), 0u);
  EXPECT_EQ(store.record(store.FindNth(0, "d", 1)).line, lines[2]);
  EXPECT_TRUE(store.Before(lines[0], store.record(last).line));
  EXPECT_TRUE(store.Before(store.record(last).line, lines[1]));
}

TEST(StoreTest, ContinuationLinesBelongToTheRecordBeforeThem) {
  Store store;
  store.Reset("a\n  more\n\tand more\n\nb\n", {1});
  const std::int32_t a = store.AppendLine(0, 2);
  store.AddRecord(a, KeyRecord(1));
  store.AppendLine(2, 7);
  store.AppendLine(9, 10);
  store.AppendLine(19, 1);
  store.AddRecord(store.AppendLine(20, 2), KeyRecord(1));
  EXPECT_EQ(store.BlockSize(a), 3);
}

namespace {

std::string Join(const std::vector<std::string_view>& pieces) {
  std::string out;
  for (std::string_view piece : pieces) out.append(piece);
  return out;
}

}  // namespace

TEST(StoreTest, UnchangedStoreIsOnePieceOfItsBuffer) {
  Store store;
  Fill(store, 50);
  std::vector<std::string_view> pieces;
  store.Pieces(nullptr, pieces);
  ASSERT_EQ(pieces.size(), 1u);
  EXPECT_EQ(pieces[0].data(), store.base().data());
  EXPECT_EQ(pieces[0].size(), store.base().size());
}

TEST(StoreTest, PiecesOfAnEditAreTheNewTextBetweenTheUntouchedStretches) {
  Store store;
  Fill(store, 5);
  std::vector<std::string_view> pieces;
  Store::Edit update;
  update.kind = Store::Edit::kUpdate;
  update.line = store.record(store.Find(0, "k2")).line;
  update.text = "k2x\n";
  store.Pieces(&update, pieces);
  EXPECT_EQ(pieces, (std::vector<std::string_view>{"k0\nk1\n", "k2x\n", "k3\nk4\n"}));
  EXPECT_EQ(pieces[1].data(), update.text.data());
  EXPECT_EQ(pieces[0].data(), store.base().data());

  Store::Edit remove;
  remove.kind = Store::Edit::kRemove;
  remove.line = store.record(store.Find(0, "k1")).line;
  remove.count = 2;
  store.Pieces(&remove, pieces);
  EXPECT_EQ(pieces, (std::vector<std::string_view>{"k0\n", "k3\nk4\n"}));

  Store::Edit insert;
  insert.kind = Store::Edit::kInsert;
  insert.line = -1;
  insert.text = "n\n";
  store.Pieces(&insert, pieces);
  EXPECT_EQ(Join(pieces), "k0\nk1\nk2\nk3\nk4\nn\n");
  EXPECT_EQ(Join(pieces), store.Text(&insert));

  // Made, the update is a line of the edited texts: three pieces still.
  store.UpdateRecord(store.Find(0, "k2"), update.text, KeyRecord(3));
  store.Pieces(nullptr, pieces);
  EXPECT_EQ(pieces.size(), 3u);
  EXPECT_EQ(Join(pieces), "k0\nk1\nk2x\nk3\nk4\n");
}

TEST(StoreTest, PiecesGiveALastLineWithoutLineEndOneBeforeAnAppendedLine) {
  Store store;
  store.Reset("a\nb", {1});
  store.AddRecord(store.AppendLine(0, 2), KeyRecord(1));
  store.AddRecord(store.AppendLine(2, 1), KeyRecord(1));
  Store::Edit insert;
  insert.kind = Store::Edit::kInsert;
  insert.text = "c\n";
  std::vector<std::string_view> pieces;
  store.Pieces(&insert, pieces);
  EXPECT_EQ(Join(pieces), "a\nb\nc\n");
}

// ------------------------------------------------------------ keys without letter case

namespace {

std::string LowerAscii(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

bool IsUpper(unsigned char c) { return c >= 'A' && c <= 'Z'; }

}  // namespace

// Every byte value at every place of a word and of the tail: the folded
// hash is the hash of the key in lower case, and only A-Z meet their
// lower-case letters (not "@" and "`", "[" and "{", nor bytes above 127
// that differ by the same bit).
TEST(StoreTest, FoldedKeysMeetOnlyWhereAsciiLettersDifferInCase) {
  for (std::size_t size : {1u, 7u, 8u, 9u, 16u, 17u}) {
    for (std::size_t at = 0; at < size; ++at) {
      for (int c = 0; c < 256; ++c) {
        std::string key(size, 'k');
        key[at] = static_cast<char>(c);
        EXPECT_EQ(Store::FoldedHash(key), Store::Hash(LowerAscii(key)))
            << size << " " << at << " " << c;
        EXPECT_TRUE(Store::FoldedEqual(key, LowerAscii(key))) << size << " " << at << " " << c;
        std::string flipped = key;
        flipped[at] = static_cast<char>(c ^ 0x20);
        const bool letters = IsUpper(static_cast<unsigned char>(c)) ||
                             IsUpper(static_cast<unsigned char>(c ^ 0x20));
        EXPECT_EQ(Store::FoldedEqual(key, flipped), letters) << size << " " << at << " " << c;
      }
    }
  }
  EXPECT_FALSE(Store::FoldedEqual("abc", "abcd"));
}

TEST(StoreTest, AFoldingStoreFindsEveryCaseOfAKeyAndKeepsItsText) {
  Store store;
  store.Reset("Spam.EXAMPLE\nother\nspam.example\n", {1}, true);
  std::int32_t lines[3];
  std::size_t off = 0;
  for (int i = 0; i < 3; ++i) {
    const std::size_t end = store.base().find('\n', off) + 1;
    lines[i] = store.AppendLine(off, end - off);
    store.AddRecord(lines[i], KeyRecord(end - off - 1));
    off = end;
  }
  const std::int32_t first = store.Find(0, "spam.example");
  ASSERT_GE(first, 0);
  EXPECT_EQ(store.record(first).line, lines[0]);
  EXPECT_EQ(store.Key(first), "Spam.EXAMPLE");
  EXPECT_EQ(store.Find(0, "SPAM.example"), first);
  EXPECT_EQ(store.Occurrence(store.Find(0, "other")), 0u);
  EXPECT_EQ(store.record(store.FindNth(0, "SPAM.EXAMPLE", 1)).line, lines[2]);
  EXPECT_EQ(store.Text(), "Spam.EXAMPLE\nother\nspam.example\n");

  Store exact;
  exact.Reset("Spam.EXAMPLE\n", {1});
  exact.AddRecord(exact.AppendLine(0, 13), KeyRecord(12));
  EXPECT_EQ(exact.Find(0, "spam.example"), -1);
  EXPECT_GE(exact.Find(0, "Spam.EXAMPLE"), 0);
}
