// Tests of the word dictionary: the front-coded stream, lookups with and without the sparse index,
// insertion and removal against a reference set, and the saved index.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/diction.h"
#include "base/memalloc.h"
#include "testutil.h"

namespace {

typedef std::map<std::string, DWORD> WordMap;

// User data of a word in these tests: 8 bytes, a number and its complement.
std::vector<BYTE> UserData(DWORD dw) {
  std::vector<BYTE> v(8);
  PutLE32(v.data(), dw);
  PutLE32(v.data() + 4, ~dw);
  return v;
}

// Appends one stream entry: length, characters shared with the word before, the rest, the data.
void PutEntry(std::vector<BYTE>& out, size_t len, size_t pre, const char* pchRest, DWORD dwData) {
  out.push_back(static_cast<BYTE>(len));
  out.push_back(static_cast<BYTE>(pre));
  out.insert(out.end(), pchRest, pchRest + (len - pre));
  std::vector<BYTE> d = UserData(dwData);
  out.insert(out.end(), d.begin(), d.end());
}

// Front-codes sorted words with 8 bytes of user data each, straight from the stream layout.
std::vector<BYTE> Encode(const WordMap& words) {
  std::vector<BYTE> out;
  std::string prev;
  for (const auto& kv : words) {
    const std::string& w = kv.first;
    size_t shared = 0;
    while (shared < w.size() && shared < prev.size() && w[shared] == prev[shared]) shared++;
    PutEntry(out, w.size(), shared, w.c_str() + shared, kv.second);
    prev = w;
  }
  return out;
}

// A movable block holding the bytes (0 for none); the caller frees it or hands it on.
DWORD HandleOf(const std::vector<BYTE>& bytes) {
  if (bytes.empty()) return 0;
  DWORD h = HANDLE_ALLOC(bytes.size());
  memcpy(HANDLE_LOCK(h), bytes.data(), bytes.size());
  HANDLE_UNLOCK(h);
  return h;
}

// The first dwSize bytes of a block.
std::vector<BYTE> BytesOf(DWORD h, DWORD dwSize) {
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  std::vector<BYTE> v(p, p + dwSize);
  HANDLE_UNLOCK(h);
  return v;
}

// The saved index of a dictionary, the image's block freed.
std::vector<BYTE> SavedIndex(CDictionary* pDict) {
  DWORD dwSize = 0;
  DWORD h = pDict->SaveIndex(&dwSize);
  EXPECT_NE(h, 0u);
  if (!h) return std::vector<BYTE>();
  std::vector<BYTE> v = BytesOf(h, dwSize);
  HANDLE_FREE(h);
  return v;
}

// An index image by its layout: the count, then every step-th word (length, characters, offset).
std::vector<BYTE> IndexImage(const std::vector<std::string>& words, const std::vector<size_t>& ofs,
                             size_t step) {
  std::vector<BYTE> img(4);
  PutLE32(img.data(), static_cast<DWORD>(words.size() / step));
  for (size_t k = 0; k + step <= words.size(); k += step) {
    img.push_back(static_cast<BYTE>(words[k].size()));
    img.insert(img.end(), words[k].begin(), words[k].end());
    BYTE o[4];
    PutLE32(o, static_cast<DWORD>(ofs[k]));
    img.insert(img.end(), o, o + 4);
  }
  return img;
}

// A dictionary over the given stream bytes, with the given index step (0: no index; building
// one with that step asserts "wIndexStep", caught here).
CDictionary* MakeDictOf(const std::vector<BYTE>& bytes, WORD wStep) {
  AssertCatcher catcher;
  CDictionary* pDict =
      new CDictionary(8, 4, HandleOf(bytes), static_cast<DWORD>(bytes.size()), 0, 0, 0, wStep);
  EXPECT_EQ(catcher.Fired("wIndexStep"), wStep == 0);
  return pDict;
}

CDictionary* MakeDict(const WordMap& words, WORD wStep) { return MakeDictOf(Encode(words), wStep); }

// File-like names with long shared starts, in random order of creation.
WordMap PathWords(int n, unsigned seed) {
  std::mt19937 rng(seed);
  WordMap words;
  const char* dirs[] = {"DATA\\", "DATA\\BMP\\", "DATA\\SND\\", "FONTS\\", "A", "ZZ\\"};
  while (static_cast<int>(words.size()) < n) {
    std::string w = dirs[rng() % 6];
    int len = 1 + rng() % 12;
    for (int i = 0; i < len; i++) w += static_cast<char>('0' + rng() % 43);
    words[w] = static_cast<DWORD>(rng());
  }
  return words;
}

// The word at an index; none when GetWord fails.
std::optional<std::string> WordAt(CDictionary* pDict, DWORD dwIndex) {
  char out[DICT_WORD_BUF];
  if (!pDict->GetWord(dwIndex, out)) return std::nullopt;
  return std::string(out);
}

// The number stored with a word, checked against its complement; none when the word is missing.
std::optional<DWORD> Lookup(CDictionary* pDict, const std::string& w) {
  BYTE buf[8] = {};
  if (!pDict->GetData(w.c_str(), buf)) return std::nullopt;
  EXPECT_EQ(GetLE32(buf + 4), ~GetLE32(buf)) << w;
  return GetLE32(buf);
}

// Offsets of the entries of a stream with 8 bytes of user data, in order.
std::vector<size_t> EntryOffsets(const std::vector<BYTE>& s) {
  std::vector<size_t> ofs;
  for (size_t o = 0; o + 2 <= s.size(); o += 2 + (s[o] - s[o + 1]) + 8) ofs.push_back(o);
  return ofs;
}

// The words a stream spells when a shared count longer than the word before is cut to that word's
// length and the stored characters follow straight on.
std::vector<std::string> ClampedWords(const std::vector<BYTE>& s) {
  std::vector<std::string> words;
  std::string prev;
  for (size_t o : EntryOffsets(s)) {
    size_t len = s[o], pre = s[o + 1];
    std::string w = prev.substr(0, std::min(pre, prev.size()));
    w.append(reinterpret_cast<const char*>(s.data() + o + 2), len - pre);
    words.push_back(w);
    prev = w;
  }
  return words;
}

std::vector<BYTE> StreamOf(CDictionary* pDict) {
  if (!pDict->GetUsed()) return std::vector<BYTE>();
  BYTE* p = pDict->LockData();
  if (!p) return std::vector<BYTE>();
  std::vector<BYTE> v(p, p + pDict->GetUsed());
  pDict->UnlockData();
  return v;
}

size_t Shared(const std::string& a, const std::string& b) {
  size_t n = 0;
  while (n < a.size() && n < b.size() && a[n] == b[n]) n++;
  return n;
}

// How removing a word changes the stream, by its prefix e, its successor's prefix n and its
// length: the last word goes; with a prefix and n below the length the successor moves down
// as it is (which is right only when n <= e); otherwise the successor takes over e's header.
enum RemoveKind { kLast, kFirstWord, kMoveDown, kMoveDownWrong, kTakesAllOfE };

RemoveKind KindOf(const WordMap& words, const std::string& w) {
  auto it = words.find(w);
  auto next = std::next(it);
  if (next == words.end()) return kLast;
  size_t e = it == words.begin() ? 0 : Shared(std::prev(it)->first, w);
  size_t n = Shared(w, next->first);
  if (!e) return kFirstWord;
  if (n < w.size()) return n <= e ? kMoveDown : kMoveDownWrong;
  return kTakesAllOfE;
}

}  // namespace

TEST(DictionaryStream, RandomAddsMatchReference) {
  WordMap words = PathWords(700, 11);
  std::vector<std::pair<std::string, DWORD>> order(words.begin(), words.end());
  std::shuffle(order.begin(), order.end(), std::mt19937(5));
  CDictionary* pDict = new CDictionary(8, 4, 0, 0, 0, 0, 0, 100);
  ASSERT_NE(pDict, nullptr);
  for (const auto& kv : order) ASSERT_TRUE(pDict->Add(kv.first.c_str(), UserData(kv.second).data()));
  std::vector<BYTE> expected = Encode(words);
  ASSERT_EQ(pDict->GetUsed(), expected.size());
  BYTE* p = pDict->LockData();
  EXPECT_EQ(std::vector<BYTE>(p, p + expected.size()), expected);
  pDict->UnlockData();
  EXPECT_EQ(pDict->GetWords(), 700u);
  delete pDict;
}

TEST(DictionaryStream, EmptyLengthLimitAndDuplicateInFront) {
  CDictionary* pDict = new CDictionary(8, 4, 0, 0, 0, 0, 0, 100);
  ASSERT_NE(pDict, nullptr);
  BYTE buf[8];
  char out[DICT_WORD_BUF];
  DWORD dwIndex = 0;
  EXPECT_FALSE(pDict->GetData("A", buf));
  EXPECT_FALSE(pDict->Find("A", &dwIndex));
  EXPECT_EQ(WordAt(pDict, 0), std::nullopt);
  EXPECT_FALSE(pDict->GetNext(nullptr, out));
  EXPECT_FALSE(pDict->Remove("A"));
  EXPECT_EQ(pDict->GetWords(), 0u);
  EXPECT_EQ(pDict->GetIndexCount(), 0u);
  std::string w127(127, 'Q'), w128(128, 'Q');
  EXPECT_TRUE(pDict->Add(w127.c_str(), UserData(1).data()));
  EXPECT_FALSE(pDict->Add(w128.c_str(), UserData(2).data()));
  EXPECT_FALSE(pDict->Add("", UserData(3).data()));
  ASSERT_TRUE(pDict->Add("A", UserData(4).data()));
  ASSERT_TRUE(pDict->Add("SAME", UserData(5).data()));
  ASSERT_TRUE(pDict->Add("SAME", UserData(6).data()));
  EXPECT_EQ(pDict->GetWords(), 4u);
  // The newer copy goes in front; the older one shares all four characters with it.
  std::vector<BYTE> expected;
  PutEntry(expected, 1, 0, "A", 4);
  PutEntry(expected, 127, 0, w127.c_str(), 1);
  PutEntry(expected, 4, 0, "SAME", 6);
  PutEntry(expected, 4, 4, "", 5);
  EXPECT_EQ(StreamOf(pDict), expected);
  EXPECT_EQ(Lookup(pDict, "SAME"), 6u);
  delete pDict;
}

TEST(DictionaryStream, BadConstructionAsserts) {
  AssertCatcher catcher;
  CDictionary* pDict = new CDictionary(6, 4, 0, 0, 0, 0, 0, 100);
  ASSERT_NE(pDict, nullptr);
  EXPECT_TRUE(catcher.Fired("wSzUserData % btArrItemSize == 0"));
  delete pDict;
  catcher.Clear();
  pDict = new CDictionary(8, 3, 0, 0, 0, 0, 0, 100);
  ASSERT_NE(pDict, nullptr);
  EXPECT_TRUE(catcher.Fired("btArrItemSize == 1 || btArrItemSize == 2 || btArrItemSize == 4"));
  delete pDict;
  // Over data with no index given, the constructor builds one with the step it was given: a step
  // of 0 asserts there and leaves the words unindexed but readable.
  catcher.Clear();
  WordMap words = PathWords(30, 3);
  std::vector<BYTE> stream = Encode(words);
  pDict = new CDictionary(8, 4, HandleOf(stream), static_cast<DWORD>(stream.size()), 0, 0, 0, 0);
  ASSERT_NE(pDict, nullptr);
  EXPECT_EQ(catcher.Count(), 1u);
  EXPECT_TRUE(catcher.Fired("wIndexStep"));
  EXPECT_EQ(pDict->GetIndexCount(), 0u);
  EXPECT_EQ(Lookup(pDict, words.rbegin()->first), words.rbegin()->second);
  delete pDict;
}

TEST(DictionaryLookup, EveryWordAndNearMissesWithAndWithoutIndex) {
  WordMap words = PathWords(1000, 21);
  for (WORD wStep : {0, 100, 7, 1}) {
    CDictionary* pDict = MakeDict(words, wStep);
    ASSERT_NE(pDict, nullptr);
    // The constructor counts the words; the index holds whole steps only.
    EXPECT_EQ(pDict->GetWords(), 1000u);
    EXPECT_EQ(pDict->GetIndexCount(), wStep ? 1000u / wStep : 0u) << wStep;
    EXPECT_EQ(pDict->GetIndexMemSize(), pDict->GetIndexCount() * sizeof(TDictIndex));
    DWORD i = 0;
    for (const auto& kv : words) {
      EXPECT_EQ(Lookup(pDict, kv.first), kv.second) << kv.first;
      EXPECT_EQ(WordAt(pDict, i++), kv.first);
      // Variants that aren't stored: one character more, one less (a proper prefix is no
      // word), the last one changed.
      for (std::string miss : {kv.first + "!", kv.first.substr(0, kv.first.size() - 1),
                               kv.first.substr(0, kv.first.size() - 1) + "\x7f"}) {
        EXPECT_EQ(Lookup(pDict, miss).has_value(), words.count(miss) != 0) << miss;
      }
    }
    EXPECT_EQ(WordAt(pDict, 1000), std::nullopt);
    // Below the first and above the last.
    EXPECT_EQ(Lookup(pDict, "!"), std::nullopt);
    EXPECT_EQ(Lookup(pDict, words.rbegin()->first + "~"), std::nullopt);
    DWORD dwIndex = 99;
    EXPECT_FALSE(pDict->Find("!", &dwIndex));
    EXPECT_TRUE(pDict->Find("", &dwIndex));
    EXPECT_EQ(dwIndex, 0u);
    delete pDict;
  }
}

TEST(DictionaryLookup, FindAgainstReference) {
  WordMap words = PathWords(900, 13);
  std::vector<std::string> sorted;
  for (const auto& kv : words) sorted.push_back(kv.first);
  std::mt19937 rng(77);
  for (WORD wStep : {0, 100, 3}) {
    CDictionary* pDict = MakeDict(words, wStep);
    ASSERT_NE(pDict, nullptr);
    for (int t = 0; t < 2000; t++) {
      // Keys cut from stored words, sometimes altered at the end.
      std::string key = sorted[rng() % sorted.size()];
      key = key.substr(0, rng() % (key.size() + 1));
      if (rng() % 3 == 0) key += static_cast<char>('0' + rng() % 45);
      auto it = std::lower_bound(sorted.begin(), sorted.end(), key);
      bool bExpect = it != sorted.end() && it->compare(0, key.size(), key) == 0;
      DWORD dwIndex = 0xFFFFFFFF;
      BOOL bGot = pDict->Find(key.c_str(), &dwIndex);
      ASSERT_EQ(bGot != 0, bExpect) << "step " << wStep << " key " << key;
      if (bExpect) {
        EXPECT_EQ(dwIndex, static_cast<DWORD>(it - sorted.begin())) << key;
      }
    }
    delete pDict;
  }
}

TEST(DictionaryLookup, StepAboveWordCountAndGetNextWalk) {
  WordMap words = PathWords(50, 6);
  CDictionary* pDict = MakeDict(words, 100);
  ASSERT_NE(pDict, nullptr);
  EXPECT_EQ(pDict->GetIndexCount(), 0u);
  // Without an index there is nothing to save, and the caller's size is left as it was.
  DWORD dwSize = 0x1234;
  EXPECT_EQ(pDict->SaveIndex(&dwSize), 0u);
  EXPECT_EQ(dwSize, 0x1234u);
  EXPECT_FALSE(pDict->BuildIndex(51));
  EXPECT_TRUE(pDict->BuildIndex(50));
  EXPECT_EQ(pDict->GetIndexCount(), 1u);
  {
    AssertCatcher catcher;
    EXPECT_FALSE(pDict->BuildIndex(0));
    EXPECT_TRUE(catcher.Fired("wIndexStep"));
  }
  ASSERT_TRUE(pDict->BuildIndex(7));
  char out[DICT_WORD_BUF];
  std::vector<std::string> walked, expected;
  for (BOOL b = pDict->GetNext(nullptr, out); b; b = pDict->GetNext(walked.back().c_str(), out))
    walked.push_back(out);
  for (const auto& kv : words) expected.push_back(kv.first);
  EXPECT_EQ(walked, expected);
  EXPECT_FALSE(pDict->GetNext("NOT THERE", out));
  delete pDict;
}

TEST(DictionaryData, SetDataAndAddList) {
  CDictionary* pDict = new CDictionary(8, 4, 0, 0, 0, 0, 0, 100);
  ASSERT_NE(pDict, nullptr);
  struct Item {
    const char* pchWord;
    BYTE data[8];
  };
  static_assert(sizeof(Item) == sizeof(const char*) + 8, "packed record");
  Item items[3] = {{"ONE", {1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}},
                   {"TWO", {2, 0, 0, 0, 0xFD, 0xFF, 0xFF, 0xFF}},
                   {"THREE", {3, 0, 0, 0, 0xFC, 0xFF, 0xFF, 0xFF}}};
  EXPECT_TRUE(pDict->AddList(items, 3));
  EXPECT_EQ(pDict->GetWords(), 3u);
  EXPECT_EQ(Lookup(pDict, "THREE"), 3u);
  EXPECT_TRUE(pDict->SetData("THREE", UserData(33).data()));
  EXPECT_EQ(Lookup(pDict, "THREE"), 33u);
  EXPECT_EQ(Lookup(pDict, "TWO"), 2u);
  EXPECT_FALSE(pDict->SetData("FOUR", UserData(4).data()));
  // A record with a bad word stops the list there.
  Item more[2] = {{"", {}}, {"FIVE", {}}};
  EXPECT_FALSE(pDict->AddList(more, 2));
  EXPECT_EQ(pDict->GetWords(), 3u);
  delete pDict;
}

TEST(DictionaryRemove, RandomRemovalsKeepTheRest) {
  // File-like names, and some that others extend, so that every kind of removal that keeps the
  // words right comes up.
  WordMap words = PathWords(400, 31);
  std::vector<std::string> order;
  for (const auto& kv : words) order.push_back(kv.first);
  for (size_t i = 0; i < order.size(); i += 9) {
    words[order[i] + "."] = static_cast<DWORD>(i);
    words[order[i] + ".BAK"] = static_cast<DWORD>(i + 1);
  }
  order.clear();
  for (const auto& kv : words) order.push_back(kv.first);
  std::shuffle(order.begin() + 1, order.end() - 1, std::mt19937(2));
  std::swap(order[1], order.back());  // the first and the last word go first
  CDictionary* pDict = MakeDict(words, 100);
  ASSERT_NE(pDict, nullptr);
  DWORD dwStart = pDict->GetUsed();
  int seen[5] = {};
  for (const std::string& w : order) {
    // Stay clear of the shrink, the subject of its own test: one more removal frees at most one
    // entry.
    if (dwStart - pDict->GetUsed() > DICT_ALLOC_STEP - (2 + DICT_MAX_WORD + 8)) break;
    RemoveKind kind = KindOf(words, w);
    // See SuccessorKeepsItsPrefixCount and EachKindFollowsItsSteps: removals that keep some of
    // e's characters drop as many bytes off the end of the stream.
    if (kind == kMoveDownWrong || kind == kFirstWord || kind == kTakesAllOfE) continue;
    ASSERT_TRUE(pDict->Remove(w.c_str())) << w;
    words.erase(w);
    seen[kind]++;
    ASSERT_EQ(StreamOf(pDict), Encode(words)) << "after removing " << w << ", kind " << kind;
    EXPECT_FALSE(pDict->Remove(w.c_str())) << w;
  }
  for (int kind : {kLast, kMoveDown}) EXPECT_GT(seen[kind], 0) << kind;
  EXPECT_EQ(pDict->GetWords(), words.size());
  for (const auto& kv : words) {
    EXPECT_EQ(Lookup(pDict, kv.first), kv.second) << kv.first;
  }
  delete pDict;
}

TEST(DictionaryRemove, EachKindFollowsItsSteps) {
  struct Case {
    WordMap words;
    std::string remove;
    RemoveKind kind;
  };
  const Case cases[] = {
      {{{"AB", 1}, {"ABC", 2}, {"B", 3}}, "AB", kFirstWord},
      {{{"X", 1}, {"Y", 2}}, "X", kFirstWord},
      {{{"A", 1}, {"AB", 2}, {"AC", 3}, {"B", 4}}, "AB", kMoveDown},
      {{{"AB", 1}, {"ABC", 2}, {"AD", 3}}, "ABC", kMoveDown},
      {{{"A", 1}, {"AB", 2}, {"ABC", 3}, {"B", 4}}, "AB", kTakesAllOfE},
      {{{"A", 1}, {"AB", 2}, {"B", 3}}, "B", kLast},
      {{{"A", 1}, {"AB", 2}}, "AB", kLast},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(KindOf(c.words, c.remove), c.kind) << c.remove;
    std::vector<BYTE> s = Encode(c.words);
    std::vector<size_t> ofs = EntryOffsets(s);
    size_t i = static_cast<size_t>(std::distance(c.words.begin(), c.words.find(c.remove)));
    size_t e = ofs[i];
    std::vector<BYTE> expected(s.begin(), s.begin() + e);
    size_t nKeep = 0;
    if (c.kind == kMoveDown) {
      // The stream from the successor on moves to e's place.
      expected.insert(expected.end(), s.begin() + ofs[i + 1], s.end());
    } else if (c.kind != kLast) {
      // e's header with the successor's length, e's first (n's prefix - e's prefix) characters,
      // then the stream from the successor's characters on.
      size_t n = ofs[i + 1];
      expected.push_back(s[n]);
      expected.push_back(s[e + 1]);
      expected.insert(expected.end(), s.begin() + e + 2, s.begin() + e + 2 + (s[n + 1] - s[e + 1]));
      expected.insert(expected.end(), s.begin() + n + 2, s.end());
      // The used size falls by e's whole entry all the same: the characters kept from e come
      // off the end of the stream.
      nKeep = s[n + 1] - s[e + 1];
    }
    WordMap rest = c.words;
    rest.erase(c.remove);
    // These steps would keep the words right, were the stream not cut at its end.
    ASSERT_EQ(expected, Encode(rest)) << c.remove;
    expected.resize(expected.size() - nKeep);

    CDictionary* pDict = MakeDict(c.words, 0);
    ASSERT_NE(pDict, nullptr);
    ASSERT_TRUE(pDict->Remove(c.remove.c_str()));
    EXPECT_EQ(StreamOf(pDict), expected) << c.remove;
    EXPECT_EQ(pDict->GetWords(), rest.size());
    if (nKeep == 0) {
      for (const auto& kv : rest) EXPECT_EQ(Lookup(pDict, kv.first), kv.second) << kv.first;
    }
    EXPECT_EQ(Lookup(pDict, c.remove), std::nullopt);
    delete pDict;
  }
}

TEST(DictionaryRemove, SuccessorKeepsItsPrefixCount) {
  // "ABC" shares 1 with "A"; "ABD" shares 2 with "ABC". Removing "ABC" moves "ABD"'s entry
  // (length 3, prefix 2, "D") down unchanged behind "A", which has only one character to give:
  // the entry now spells "AD" and lookups of "ABD" miss it. The shortcut is kept on purpose:
  // nothing in the installer removes words.
  WordMap words = {{"A", 1}, {"ABC", 2}, {"ABD", 3}, {"B", 4}};
  ASSERT_EQ(KindOf(words, "ABC"), kMoveDownWrong);
  std::vector<BYTE> s = Encode(words);
  std::vector<size_t> ofs = EntryOffsets(s);
  std::vector<BYTE> expected(s.begin(), s.begin() + ofs[1]);
  expected.insert(expected.end(), s.begin() + ofs[2], s.end());

  CDictionary* pDict = MakeDict(words, 0);
  ASSERT_NE(pDict, nullptr);
  ASSERT_TRUE(pDict->Remove("ABC"));
  EXPECT_EQ(StreamOf(pDict), expected);
  EXPECT_EQ(pDict->GetWords(), 3u);
  std::vector<std::string> spelled = ClampedWords(expected);
  EXPECT_EQ(spelled, (std::vector<std::string>{"A", "AD", "B"}));
  char out[DICT_WORD_BUF];
  for (DWORD i = 0; i < 3; i++) {
    EXPECT_EQ(WordAt(pDict, i), spelled[i]);
  }
  ASSERT_TRUE(pDict->GetNext("A", out));
  EXPECT_EQ(std::string(out), "AD");
  EXPECT_EQ(Lookup(pDict, "ABD"), std::nullopt);
  EXPECT_EQ(Lookup(pDict, "A"), 1u);
  EXPECT_EQ(Lookup(pDict, "B"), 4u);
  delete pDict;
}

TEST(DictionaryRemove, ShortcutStreamsStayReadable) {
  // Every removal of this kind in a file list, each from a fresh dictionary: the stream matches
  // the move, and every reader spells the words with the over-long prefix cut.
  WordMap words = PathWords(300, 33);
  std::vector<BYTE> s = Encode(words);
  std::vector<size_t> ofs = EntryOffsets(s);
  int tried = 0;
  size_t i = 0;
  for (auto it = words.begin(); it != words.end(); ++it, ++i) {
    if (KindOf(words, it->first) != kMoveDownWrong || tried >= 40) continue;
    tried++;
    std::vector<BYTE> expected(s.begin(), s.begin() + ofs[i]);
    expected.insert(expected.end(), s.begin() + ofs[i + 1], s.end());
    std::vector<std::string> spelled = ClampedWords(expected);
    ASSERT_EQ(spelled.size(), words.size() - 1);

    CDictionary* pDict = MakeDict(words, 100);
    ASSERT_NE(pDict, nullptr);
    ASSERT_TRUE(pDict->Remove(it->first.c_str())) << it->first;
    ASSERT_EQ(StreamOf(pDict), expected) << it->first;
    EXPECT_EQ(pDict->GetIndexCount(), 0u);
    char out[DICT_WORD_BUF];
    for (DWORD k = 0; k < spelled.size(); k++) {
      ASSERT_EQ(WordAt(pDict, k), spelled[k]) << it->first << " at " << k;
    }
    // The walk by successors spells the same words; it may stop early, where a spelled word
    // can't be found again, but not before the moved entry.
    std::vector<std::string> walked;
    for (BOOL b = pDict->GetNext(nullptr, out); b && walked.size() <= spelled.size();
         b = pDict->GetNext(walked.back().c_str(), out))
      walked.push_back(out);
    ASSERT_LE(walked.size(), spelled.size());
    EXPECT_GT(walked.size(), i) << it->first;
    EXPECT_TRUE(std::equal(walked.begin(), walked.end(), spelled.begin())) << it->first;
    // An index built now holds the spelled words at their offsets.
    const WORD wStep = 7;
    ASSERT_TRUE(pDict->BuildIndex(wStep));
    EXPECT_EQ(SavedIndex(pDict), IndexImage(spelled, EntryOffsets(expected), wStep)) << it->first;
    // Words read from that index, and from one holding every word, the moved entry included.
    for (WORD wIndexed : {wStep, WORD(1)}) {
      ASSERT_TRUE(pDict->BuildIndex(wIndexed));
      for (DWORD k = 0; k < spelled.size(); k++) {
        EXPECT_EQ(WordAt(pDict, k), spelled[k]) << "indexed by " << wIndexed << ", at " << k;
      }
    }
    DWORD dwIndex;
    for (const std::string& w : spelled) pDict->Find(w.c_str(), &dwIndex);
    // Putting the word back and taking more out of the altered stream: each removal that finds
    // its word takes one word and some bytes away.
    EXPECT_TRUE(pDict->Add(it->first.c_str(), UserData(7).data()));
    EXPECT_EQ(pDict->GetWords(), words.size());
    for (size_t k = 0; k < 10; k++) {
      DWORD dwWords = pDict->GetWords(), dwUsed = pDict->GetUsed();
      if (pDict->Remove(spelled[(k * 31) % spelled.size()].c_str())) {
        EXPECT_EQ(pDict->GetWords(), dwWords - 1);
        EXPECT_LT(pDict->GetUsed(), dwUsed);
      } else {
        EXPECT_EQ(pDict->GetUsed(), dwUsed);
      }
    }
    for (DWORD k = 0; k < pDict->GetWords(); k++) pDict->GetWord(k, out);
    delete pDict;
  }
  EXPECT_EQ(tried, 40);
}

TEST(DictionaryRemove, ShrinkReplacesHandleWithReallocResult) {
  CDictionary* pDict = new CDictionary(8, 4, 0, 0, 0, 0, 0, 0);
  ASSERT_NE(pDict, nullptr);
  WordMap words = PathWords(200, 40);
  for (const auto& kv : words) ASSERT_TRUE(pDict->Add(kv.first.c_str(), UserData(kv.second).data()));
  DWORD h = pDict->GetDataHandle();
  ASSERT_NE(h, 0u);
  // Remove words until more than 0x400 bytes are spare: the next removal shrinks.
  // The block grows in steps of 0x400 from nothing: find its size.
  DWORD dwAlloced = 0;
  for (DWORD s = 0x400; s < 0x100000 && !dwAlloced; s += 0x400)
    if (MemIsHandle(h, s)) dwAlloced = s;
  ASSERT_TRUE(MemIsHandle(h, dwAlloced));
  auto it = words.begin();
  while (dwAlloced - pDict->GetUsed() <= 0x400) {
    ASSERT_NE(it, words.end());
    ASSERT_TRUE(pDict->Remove(it->first.c_str()));
    ++it;
  }
  // The removal that crossed the line reallocated and stored the 1 it returned as the handle.
  EXPECT_EQ(pDict->GetDataHandle(), 1u);
  EXPECT_TRUE(MemIsHandle(h, dwAlloced - 0x400));
  if (h != 1) {
    // The block is orphaned: give it back here, and keep the dictionary off handle 1.
    pDict->SetOwnData(FALSE);
    HANDLE_FREE(h);
  }
  delete pDict;
}

TEST(DictionaryIndex, SaveWritesFormatAndLoadRestores) {
  WordMap words = PathWords(1000, 50);
  CDictionary* pDict = MakeDict(words, 100);
  ASSERT_NE(pDict, nullptr);
  ASSERT_EQ(pDict->GetIndexCount(), 10u);
  DWORD dwSize = 0;
  DWORD hImage = pDict->SaveIndex(&dwSize);
  ASSERT_NE(hImage, 0u);
  std::vector<BYTE> stream = Encode(words);
  std::vector<std::string> sorted;
  for (const auto& kv : words) sorted.push_back(kv.first);
  EXPECT_TRUE(MemIsHandle(hImage, dwSize));
  EXPECT_EQ(BytesOf(hImage, dwSize), IndexImage(sorted, EntryOffsets(stream), 100));
  // A second dictionary over the same stream, given the saved index instead of building one.
  CDictionary* pLoaded = new CDictionary(8, 4, HandleOf(stream), static_cast<DWORD>(stream.size()), 1000,
                                         hImage, pDict->GetIndexMemSize(), 100);
  ASSERT_NE(pLoaded, nullptr);
  EXPECT_EQ(pLoaded->GetIndexCount(), 10u);
  EXPECT_TRUE(MemIsHandle(hImage, dwSize));  // left to the caller, unlocked
  EXPECT_EQ(HandleGetLockCount(hImage), 0);
  EXPECT_EQ(SavedIndex(pLoaded), BytesOf(hImage, dwSize));
  for (size_t i = 0; i < sorted.size(); i++) {
    EXPECT_EQ(Lookup(pLoaded, sorted[i]), words[sorted[i]]);
    EXPECT_EQ(WordAt(pLoaded, static_cast<DWORD>(i)), sorted[i]);
  }
  HANDLE_FREE(hImage);
  delete pLoaded;
  delete pDict;
}

TEST(DictionaryIndex, DamagedImageIsRefused) {
  WordMap words = PathWords(300, 51);
  CDictionary* pDict = MakeDict(words, 100);
  ASSERT_NE(pDict, nullptr);
  DWORD dwMem = pDict->GetIndexMemSize();
  std::vector<BYTE> good = SavedIndex(pDict);
  auto tryImage = [&](std::vector<BYTE> img) {
    DWORD h = HandleOf(img);
    BOOL b = pDict->LoadIndex(h, dwMem);
    HANDLE_FREE(h);
    return b;
  };
  EXPECT_TRUE(tryImage(good));
  EXPECT_EQ(pDict->GetIndexCount(), 3u);
  std::vector<BYTE> more = good;
  PutLE32(more.data(), 4);  // more records than there is room for
  EXPECT_FALSE(tryImage(more));
  EXPECT_EQ(pDict->GetIndexCount(), 0u);
  std::vector<BYTE> cut(good.begin(), good.end() - 2);  // last offset cut short
  EXPECT_FALSE(tryImage(cut));
  std::vector<BYTE> far = good;
  PutLE32(far.data() + far.size() - 4, pDict->GetUsed());  // offset past the stream
  EXPECT_FALSE(tryImage(far));
  EXPECT_FALSE(pDict->LoadIndex(0, dwMem));
  DWORD hGood = HandleOf(good);
  EXPECT_FALSE(pDict->LoadIndex(hGood, 4));
  HANDLE_FREE(hGood);
  // Lookups still work without an index.
  EXPECT_EQ(Lookup(pDict, words.rbegin()->first), words.rbegin()->second);
  delete pDict;
}

TEST(DictionaryDamage, BrokenStreamsStaySafe) {
  WordMap words = PathWords(120, 60);
  std::vector<BYTE> stream = Encode(words);
  std::mt19937 rng(99);
  for (int t = 0; t < 300; t++) {
    std::vector<BYTE> bad = stream;
    int n = 1 + rng() % 6;
    for (int k = 0; k < n; k++) bad[rng() % bad.size()] = static_cast<BYTE>(rng());
    if (t % 3 == 0) bad.resize(rng() % bad.size() + 1);
    AssertCatcher catcher;
    CDictionary* pDict = new CDictionary(8, 4, HandleOf(bad), static_cast<DWORD>(bad.size()), t % 2 ? 120 : 0,
                                         0, 0, static_cast<WORD>(1 + t % 20));
    ASSERT_NE(pDict, nullptr);
    char out[DICT_WORD_BUF];
    BYTE data[8];
    DWORD dwIndex;
    for (const auto& kv : words) {
      pDict->GetData(kv.first.c_str(), data);
      pDict->Find(kv.first.c_str(), &dwIndex);
    }
    for (DWORD i = 0; i < 125; i++) pDict->GetWord(i, out);
    pDict->Add("DATA\\NEW", UserData(1).data());
    pDict->Remove(words.begin()->first.c_str());
    delete pDict;
  }
}

TEST(DictionaryDamage, PrefixBeyondPreviousWordIsCut) {
  // A first entry claiming 2 shared characters with no word before it, and "ABC" stored as
  // length 5, prefix 4, "C" behind the two-character "AB": every reader cuts the claim to what
  // the word before has.
  std::vector<BYTE> s;
  PutEntry(s, 3, 2, "Z", 1);
  PutEntry(s, 2, 0, "AB", 2);
  PutEntry(s, 5, 4, "C", 3);
  std::vector<std::string> spelled = ClampedWords(s);
  ASSERT_EQ(spelled, (std::vector<std::string>{"Z", "AB", "ABC"}));
  CDictionary* pDict = MakeDictOf(s, 0);
  ASSERT_NE(pDict, nullptr);
  EXPECT_EQ(pDict->GetWords(), 3u);
  char out[DICT_WORD_BUF];
  for (DWORD i = 0; i < 3; i++) {
    EXPECT_EQ(WordAt(pDict, i), spelled[i]);
  }
  ASSERT_TRUE(pDict->GetNext("AB", out));
  EXPECT_EQ(std::string(out), "ABC");
  // Indexed words are spelled the same way, and so are words reached from them.
  ASSERT_TRUE(pDict->BuildIndex(1));
  EXPECT_EQ(SavedIndex(pDict), IndexImage(spelled, EntryOffsets(s), 1));
  for (WORD wStep : {1, 2, 3}) {
    ASSERT_TRUE(pDict->BuildIndex(wStep));
    for (DWORD i = 0; i < 3; i++) {
      EXPECT_EQ(WordAt(pDict, i), spelled[i]) << "step " << wStep;
    }
  }
  delete pDict;
}

TEST(DictionaryMemory, EverythingIsGivenBack) {
  DWORD dwPtr = g_dwPtrMemUsed, dwHandle = g_dwHandleMemUsed, dwNew = g_dwNewMemUsed;
  {
    WordMap words = PathWords(600, 70);
    CDictionary* pDict = MakeDict(words, 100);
    ASSERT_NE(pDict, nullptr);
    DWORD dwSize = 0;
    DWORD hImage = pDict->SaveIndex(&dwSize);
    ASSERT_NE(hImage, 0u);
    EXPECT_TRUE(pDict->LoadIndex(hImage, pDict->GetIndexMemSize()));
    EXPECT_TRUE(pDict->Add("DATA\\ZZZ", UserData(5).data()));
    EXPECT_TRUE(pDict->BuildIndex(10));
    EXPECT_TRUE(pDict->Remove("DATA\\ZZZ"));
    HANDLE_FREE(hImage);
    delete pDict;
  }
  EXPECT_EQ(g_dwPtrMemUsed, dwPtr);
  EXPECT_EQ(g_dwHandleMemUsed, dwHandle);
  EXPECT_EQ(g_dwNewMemUsed, dwNew);
}
