// Tests of the memory and text helpers, hashes, array search and sort, the lists, the array,
// the hash table, the growing buffer, the chunk allocator and the file-based array routines.
#include <gtest/gtest.h>
#include <stddef.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "base/tools.h"
#include "files/file.h"
#include "testfile.h"
#include "testutil.h"

namespace {

// Every comparison of DWORDs made (the first 1000 kept): the places compared and their values.
struct TCall {
  const void *p1, *p2;
  DWORD dw1, dw2;
};
long g_nCalls = 0;
std::vector<TCall> g_calls;
SHORT RecordingCompare(const void* a, const void* b) {
  if (g_nCalls++ < 1000)
    g_calls.push_back({a, b, *static_cast<const DWORD*>(a), *static_cast<const DWORD*>(b)});
  return CompareDword(a, b);
}

// Sorts v with a fresh record of the comparisons; returns their number.
long SortCounted(void (*pfnSort)(void*, DWORD, DWORD, PFN_COMPARE), std::vector<DWORD>& v) {
  g_nCalls = 0;
  g_calls.clear();
  pfnSort(v.data(), 4, (DWORD)v.size(), RecordingCompare);
  return g_nCalls;
}

// A 12-byte record sorted by its key; the tag shows which record went where.
struct TRec {
  DWORD dwKey;
  DWORD dwTag;
  DWORD dwPad;
};
SHORT CompareRec(const void* a, const void* b) {
  return CompareDword(&static_cast<const TRec*>(a)->dwKey, &static_cast<const TRec*>(b)->dwKey);
}

// v must be ref's records (whole, each tag once, with its own key) in key order.
void ExpectSortedPermutation(const std::vector<TRec>& ref, const std::vector<TRec>& v) {
  ASSERT_EQ(ref.size(), v.size());
  std::vector<bool> seen(v.size());
  for (size_t i = 0; i < v.size(); i++) {
    ASSERT_LT(v[i].dwTag, v.size());
    EXPECT_FALSE(seen[v[i].dwTag]);
    seen[v[i].dwTag] = true;
    EXPECT_EQ(ref[v[i].dwTag].dwKey, v[i].dwKey);
    EXPECT_EQ(0xABCDEF01u, v[i].dwPad);
    EXPECT_LE(v[i ? i - 1 : 0].dwKey, v[i].dwKey);
  }
}

// ---------------------------------------------------------------------------------------------
// Compares, memory and text helpers

TEST(ToolsCompare, WidthAndSignedness) {
  DWORD d0 = 0, dMax = 0xFFFFFFFFu;
  EXPECT_EQ(-1, CompareDword(&d0, &dMax));
  EXPECT_EQ(1, CompareDword(&dMax, &d0));
  EXPECT_EQ(0, CompareDword(&dMax, &dMax));
  LONG l0 = 0, lNeg = -1;
  EXPECT_EQ(1, CompareLong(&l0, &lNeg));
  EXPECT_EQ(-1, CompareLong(&lNeg, &l0));
  WORD w0 = 0, wMax = 0xFFFF;
  EXPECT_EQ(-1, CompareWord(&w0, &wMax));
  SHORT s0 = 0, sNeg = -1;
  EXPECT_EQ(1, CompareShort(&s0, &sNeg));
  // Large differences still give -1/1 (a subtraction would overflow 16 bits).
  DWORD dA = 0x10000, dB = 0;
  EXPECT_EQ(1, CompareDword(&dA, &dB));
  LONG lA = 0x7FFFFFFF, lB = -0x7FFFFFFF;
  EXPECT_EQ(1, CompareLong(&lA, &lB));
}

TEST(ToolsMem, MoveSetChrAndCompare) {
  for (int nShift : {-5, -1, 0, 1, 7}) {
    BYTE buf[32], ref[32];
    for (int i = 0; i < 32; i++) buf[i] = ref[i] = (BYTE)(i * 7 + 1);
    memmove(ref + 10 + nShift, ref + 10, 12);
    EXPECT_EQ(buf + 10 + nShift, MemMove(buf + 10 + nShift, buf + 10, 12));
    MemMove(buf, buf + 1, 0);
    EXPECT_EQ(0, memcmp(buf, ref, 32)) << "shift " << nShift;
  }
  BYTE buf[8];
  MemSet(buf, 0x1AB, 8);  // only the low byte of c
  MemCopy(buf + 2, "xyz", 3);
  EXPECT_EQ(0, memcmp(buf, "\xAB\xABxyz\xAB\xAB\xAB", 8));
  EXPECT_EQ(buf + 3, MemChr(buf, 'y', 8));
  EXPECT_EQ(nullptr, MemChr(buf, 'y', 3));  // only n bytes are searched
  EXPECT_EQ(buf, MemChr(buf, 0xAB, 8));
  EXPECT_EQ(1, MemCmp("\x80", "\x7F", 1));  // unsigned bytes
  EXPECT_EQ(-1, MemCmp("ab", "ac", 2));
  EXPECT_EQ(0, MemCmp("abX", "abY", 2));
  EXPECT_EQ(0, MemICmp("HeLLo", "hEllO", 5));
  EXPECT_EQ(-1, MemICmp("A", "b", 1));
  EXPECT_EQ(1, MemICmp("\xC0", "a", 1));  // not a letter, not folded, unsigned
}

TEST(ToolsMem, SwapMemEveryLengthAndAsserts) {
  // Against a plain exchange: the word-wise part and the tail, unaligned on purpose.
  for (DWORD n = 0; n <= 21; n++) {
    BYTE x[24], y[24], rx[24], ry[24];
    for (int i = 0; i < 24; i++) {
      x[i] = rx[i] = (BYTE)i;
      y[i] = ry[i] = (BYTE)(100 + i);
    }
    std::swap_ranges(rx + 1, rx + 1 + n, ry + 2);
    SwapMem(x + 1, y + 2, n);
    EXPECT_EQ(0, memcmp(x, rx, 24)) << n;
    EXPECT_EQ(0, memcmp(y, ry, 24)) << n;
  }
  BYTE a[4] = {9, 8, 7, 6};
  AssertCatcher catcher;
  SwapMem(a, nullptr, 4);
  EXPECT_TRUE(catcher.Fired("p1 && p2"));
  EXPECT_EQ(9, a[0]);  // untouched
}

TEST(ToolsStr, CompareSignedness) {
  // StrCmp: signed chars, so a byte above 0x7F sorts before ASCII.
  EXPECT_EQ(-1, StrCmp("\xE9", "a"));
  EXPECT_EQ(-1, StrCmp("ab", "abc"));
  EXPECT_EQ(1, StrCmp("abc", "ab"));
  EXPECT_EQ(0, StrCmp("", ""));
  // StrICmp: unsigned bytes, A..Z folded only.
  EXPECT_EQ(1, StrICmp("\xE9", "a"));
  EXPECT_EQ(0, StrICmp("Setup.INI", "setup.ini"));
  EXPECT_EQ(-1, StrICmp("@", "`"));  // '@' | 0x20 is '`', but '@' is no letter
  EXPECT_EQ(-1, StrICmp("[", "{"));
  EXPECT_EQ(-1, StrICmp("_", "A"));  // 'A' folds to 'a' (0x61), above '_' (0x5F)
  EXPECT_EQ(1, StrCmp("_", "A"));
  // StrNICmp: at most n, folded, signed.
  EXPECT_EQ(0, StrNICmp("ABCx", "abcy", 3));
  EXPECT_EQ(-1, StrNICmp("ABCx", "abcy", 4));
  EXPECT_EQ(-1, StrNICmp("\xE9", "a", 1));
  EXPECT_EQ(0, StrNICmp("ab", "AB", 10));  // stops at the terminator
  EXPECT_EQ(1, StrNICmp("abc", "AB", 10));
}

TEST(ToolsStr, CopyCaseAndSearch) {
  char buf[32];
  EXPECT_EQ(buf, StrCpy(buf, "Disc"));
  EXPECT_EQ(buf, StrCat(buf, " one"));
  EXPECT_EQ(8u, StrLen(buf));
  EXPECT_EQ(0u, StrLen(""));
  EXPECT_STREQ("DISC ONE", StrUpr(buf));
  StrCpy(buf, "Az[`@{}-\xE9");
  StrLwr(buf);
  EXPECT_STREQ("az[`@{}-\xE9", buf);
  StrUpr(buf);
  EXPECT_STREQ("AZ[`@{}-\xE9", buf);
  // StrNCpy: n bytes, the zero at [n], nothing beyond; a short source stops at its zero.
  memset(buf, 'Q', 8);
  EXPECT_EQ(buf, StrNCpy(buf, "abcdefgh", 4));
  EXPECT_EQ(0, memcmp(buf, "abcd\0QQQ", 8));
  memset(buf, 'Q', 8);
  StrNCpy(buf, "ab", 4);
  EXPECT_EQ(0, memcmp(buf, "ab\0QQQQQ", 8));
  StrNCpy(buf, "xyz", 0);
  EXPECT_EQ(0, buf[0]);
  const char* s = "a\\b\\c";
  EXPECT_EQ(s + 1, StrChr(s, '\\'));
  EXPECT_EQ(s + 3, StrRChr(s, '\\'));
  EXPECT_EQ(nullptr, StrChr(s, 'z'));
  EXPECT_EQ(nullptr, StrRChr(s, 'z'));
  EXPECT_EQ(s + 5, StrChr(s, 0));
  EXPECT_EQ(s + 5, StrRChr(s, 0));
  EXPECT_EQ(s, StrRChr(s, 'a'));
}

TEST(ToolsHash, RulesOnSmallTexts) {
  // Worked by hand from the rules.
  EXPECT_EQ(195u, HashSum("ab", 1000));     // 97 + 98
  EXPECT_EQ(3105u, Hash31("ab", 1000000));  // 97 * 31 + 98
  EXPECT_EQ(194u, HashRotate("a", 1000));   // (97 << 1) | 0
  EXPECT_EQ(487u, HashRotate("ab", 1000));  // 196 + 194 + ror(194) = 196 + 194 + 97
  EXPECT_EQ(0u, HashSum("", 7));
  // Signed bytes: 0xFF is -1, so the sum wraps to 0xFFFFFFFF.
  EXPECT_EQ(4294967295u % 1000, HashSum("\xFF", 1000));
  EXPECT_EQ(4294967168u % 1000, Hash31("\x80", 1000));  // -128
  // A negative byte mixes in as all ones.
  EXPECT_EQ(4294967295u % 1000, HashRotate("\x80", 1000));
  // After "a" (h = 194): all ones + 194 + ror(194) wraps to 194 + 97 - 1.
  EXPECT_EQ((194u + 97u - 1u) % 101u, HashRotate("a\x90", 101));
  // The low bit rotates to the top: 2, then 2 + 2 + ror(2) = 5, then 2 + 5 + ror(5).
  EXPECT_EQ((2u + 5u + 0x80000002u) % 0xFFFFFFF1u, HashRotate("\x01\x01\x01", 0xFFFFFFF1u));
  DWORD dw = 1234567;
  EXPECT_EQ(1234567u % 97u, HashDword(&dw, 97));
  AssertCatcher catcher;
  EXPECT_EQ(0u, HashDword(&dw, 0));
  EXPECT_TRUE(catcher.Fired("dwMax"));
  EXPECT_EQ(0u, Hash31("abc", 0));
}

// ---------------------------------------------------------------------------------------------
// Array search and sort

TEST(ToolsArray, LinearFindAndIsSorted) {
  DWORD a[] = {5, 3, 9, 3, 1};
  EXPECT_EQ(1u, LinearFind(a, 4, 5, &a[3], CompareDword));  // the first match
  DWORD k = 42;
  EXPECT_EQ(5u, LinearFind(a, 4, 5, &k, CompareDword));
  EXPECT_EQ(0u, LinearFind(a, 4, 0, &k, CompareDword));
  DWORD b[] = {1, 2, 2, 5, 4};
  EXPECT_TRUE(IsSorted(b, 4, 1, CompareDword));
  EXPECT_TRUE(IsSorted(b, 4, 4, CompareDword));
  EXPECT_FALSE(IsSorted(b, 4, 5, CompareDword));  // only the last pair is out of order
  EXPECT_TRUE(IsSorted(b, 4, 0, CompareDword));
}

TEST(ToolsArray, BinaryFindRandomAgainstBounds) {
  std::mt19937 rng(7);
  for (int nRound = 0; nRound < 300; nRound++) {
    std::vector<DWORD> v(rng() % 40);
    for (DWORD& x : v) x = rng() % 30;
    std::sort(v.begin(), v.end());
    for (DWORD key = 0; key < 32; key++) {
      DWORD r = BinaryFind(v.data(), 4, (DWORD)v.size(), &key, CompareDword);
      auto lo = std::lower_bound(v.begin(), v.end(), key) - v.begin();
      auto hi = std::upper_bound(v.begin(), v.end(), key) - v.begin();
      if (lo == hi)
        EXPECT_EQ((DWORD)lo, r);  // the only insertion point
      else
        EXPECT_TRUE(r >= lo && r < hi && v[r] == key);
    }
  }
}

TEST(ToolsSort, BubbleCountsAndSevenItemQuickSortIsBubble) {
  std::vector<DWORD> v = {1, 2, 3, 4, 5, 6}, r = {6, 5, 4, 3, 2, 1};
  EXPECT_EQ(5, SortCounted(BubbleSort, v));                  // one quiet pass over 5 pairs stops it
  EXPECT_EQ(5 + 4 + 3 + 2 + 1, SortCounted(BubbleSort, r));  // the range shrinks each pass
  EXPECT_EQ(v, r);
  std::vector<DWORD> a = {7, 3, 3, 9, 1, 0, 5}, b = a;
  long nBubble = SortCounted(BubbleSort, b);
  EXPECT_EQ(nBubble, SortCounted(QuickSort, a));
  EXPECT_EQ(a.data(), g_calls[0].p1);
  EXPECT_EQ(a.data() + 1, g_calls[0].p2);
  EXPECT_EQ(b, a);
}

// One partition of 8 distinct items compares every other item with the key (the value at
// index 4), and only then sorts the two parts without it: the comparisons that involve the
// key form a prefix of at least 7 calls, the first being the first item against the key in
// place (not a copy of it).
TEST(ToolsSort, QuickSortPartitionComparesWithKeyFirst) {
  std::vector<DWORD> a = {80, 10, 70, 20, 45, 30, 50, 40};
  SortCounted(QuickSort, a);
  EXPECT_EQ((std::vector<DWORD>{10, 20, 30, 40, 45, 50, 70, 80}), a);
  EXPECT_EQ(a.data(), g_calls[0].p1);
  EXPECT_EQ(a.data() + 4, g_calls[0].p2);
  size_t nPrefix = 0;
  while (nPrefix < g_calls.size() && (g_calls[nPrefix].dw1 == 45 || g_calls[nPrefix].dw2 == 45)) nPrefix++;
  EXPECT_GE(nPrefix, 7u);
  std::vector<DWORD> seen;
  for (size_t i = 0; i < nPrefix; i++) seen.push_back(g_calls[i].dw1 == 45 ? g_calls[i].dw2 : g_calls[i].dw1);
  std::sort(seen.begin(), seen.end());
  seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
  EXPECT_EQ((std::vector<DWORD>{10, 20, 30, 40, 50, 70, 80}), seen);
  for (size_t i = nPrefix; i < g_calls.size(); i++) EXPECT_TRUE(g_calls[i].dw1 != 45 && g_calls[i].dw2 != 45);
}

// Only the low 16 bits of a compare result count: a function whose int result is cut to
// SHORT still sorts when it returns the sign in those bits.
SHORT CompareByteDesc(const void* a, const void* b) {
  return (SHORT)((int)*static_cast<const BYTE*>(b) - (int)*static_cast<const BYTE*>(a));
}

TEST(ToolsSort, QuickSortRandomRecordsAndBytes) {
  std::mt19937 rng(12345);
  for (size_t n : {0u, 1u, 2u, 7u, 8u, 9u, 16u, 17u, 100u, 257u, 5000u}) {
    for (DWORD dwRange : {1u, 5u, 1000000u}) {
      std::vector<TRec> ref(n);
      for (size_t i = 0; i < n; i++) ref[i] = TRec{(DWORD)(rng() % dwRange), (DWORD)i, 0xABCDEF01u};
      std::vector<TRec> v = ref;
      QuickSort(v.data(), sizeof(TRec), (DWORD)v.size(), CompareRec);
      ExpectSortedPermutation(ref, v);
    }
  }
  std::vector<BYTE> bytes(300);
  for (BYTE& b : bytes) b = (BYTE)rng();
  std::vector<BYTE> expect = bytes;
  std::sort(expect.begin(), expect.end(), std::greater<BYTE>());
  QuickSort(bytes.data(), 1, (DWORD)bytes.size(), CompareByteDesc);
  EXPECT_EQ(expect, bytes);
}

TEST(ToolsSort, QuickSortPatterns) {
  const DWORD n = 20000;
  for (int k = 0; k < 4; k++) {
    std::vector<DWORD> v(n);
    for (DWORD i = 0; i < n; i++)  // sorted, reversed, all equal, organ pipe
      v[i] = k == 0 ? i : k == 1 ? n - i : k == 2 ? 17 : (i < n / 2 ? i : n - i);
    std::vector<DWORD> expect = v;
    std::sort(expect.begin(), expect.end());
    long nCalls = SortCounted(QuickSort, v);
    EXPECT_EQ(expect, v) << k;
    // The middle key halves sorted, reversed and constant inputs: far below the quadratic
    // count. (The organ pipe is a bad case of a middle key and costs about 150 n.)
    EXPECT_TRUE(k == 3 || nCalls < 40L * (long)n) << k << ": " << nCalls;
  }
}

TEST(ToolsTable, FindReturnsValueOrDefault) {
  const TTableEntry table[] = {{"ABC", 1}, {"DEF", 2}, {"X", 3}, {"Z", 4}, {"", 99}};
  for (auto fn : {TableFindLinear, TableFindBinary}) {
    EXPECT_EQ(1u, fn("ABC", table, 4));
    EXPECT_EQ(2u, fn("DEF", table, 4));
    EXPECT_EQ(3u, fn("X", table, 4));
    EXPECT_EQ(4u, fn("Z", table, 4));
    EXPECT_EQ(99u, fn("AB", table, 4));  // a prefix is no match
    EXPECT_EQ(99u, fn("ABCD", table, 4));
    EXPECT_EQ(99u, fn("", table, 4));
    EXPECT_EQ(99u, fn("zzz", table, 4));
    EXPECT_EQ(1u, fn("Q", table, 0));  // no records: the first is the default
  }
  // The linear search needs no order and takes the first match.
  const TTableEntry unsorted[] = {{"Z", 1}, {"A", 2}, {"A", 3}, {"", 0}};
  EXPECT_EQ(2u, TableFindLinear("A", unsorted, 3));
  // A text filling all four bytes ends there; the value bytes are not part of it.
  const TTableEntry full[] = {{{'W', 'A', 'V', 'E'}, 0x41414141u}, {"", 7}};
  EXPECT_EQ(0x41414141u, TableFindLinear("WAVE", full, 1));
  EXPECT_EQ(7u, TableFindLinear("WAVEAAAA", full, 1));
  EXPECT_EQ(0x41414141u, TableFindBinary("WAVE", full, 1));
}

// ---------------------------------------------------------------------------------------------
// CList and CDList

struct TItem {
  int nValue;
  TItem* pNext;
  TItem* pPrev;
};

std::vector<int> g_released;
void ReleaseItem(void* pItem, void* pUserData) {
  g_released.push_back(static_cast<TItem*>(pItem)->nValue);
  if (pUserData) ++*static_cast<int*>(pUserData);
}

SHORT CompareItem(const void* a, const void* b) {
  int x = static_cast<const TItem*>(a)->nValue, y = static_cast<const TItem*>(b)->nValue;
  return x < y ? -1 : (x > y ? 1 : 0);
}

std::vector<int> Forward(CList& list) {
  std::vector<int> v;
  DWORD n = 0;
  for (void* p = list.m_pFirst; p && n < 1000; p = static_cast<TItem*>(p)->pNext, n++)
    v.push_back(static_cast<TItem*>(p)->nValue);
  return v;
}

TEST(ToolsList, InsertFindNeighboursAndForeignItem) {
  TItem it[5] = {{0, 0, 0}, {1, reinterpret_cast<TItem*>(0x1234), 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}};
  CList list(nullptr, offsetof(TItem, pNext));
  EXPECT_EQ(0u, list.InsertAfter(&it[1], nullptr));
  // The first item is both ends, and its stale link is cleared.
  EXPECT_EQ(&it[1], list.m_pFirst);
  EXPECT_EQ(&it[1], list.m_pLast);
  EXPECT_EQ(nullptr, it[1].pNext);
  list.InsertAfter(&it[3], nullptr);   // end
  list.InsertAfter(&it[2], &it[1]);    // middle
  list.InsertBefore(&it[0], nullptr);  // head
  list.InsertBefore(&it[4], nullptr);  // head again
  EXPECT_EQ((std::vector<int>{4, 0, 1, 2, 3}), Forward(list));
  EXPECT_EQ(&it[3], list.m_pLast);
  EXPECT_EQ(5u, list.m_dwCount);
  EXPECT_EQ(nullptr, list.GetPrev(&it[4]));
  EXPECT_EQ(&it[1], list.GetPrev(&it[2]));
  EXPECT_EQ(&it[3], list.GetPrev(nullptr));
  EXPECT_EQ(&it[4], list.GetNext(nullptr));
  EXPECT_EQ(&it[3], list.GetNext(&it[2]));
  EXPECT_EQ(nullptr, list.GetNext(&it[3]));
  // Before an inner item: the scan finds its predecessor.
  TItem x = {9, 0, 0}, y = {8, 0, 0}, foreign = {7, 0, 0}, z = {6, 0, 0};
  EXPECT_EQ(0u, list.InsertBefore(&x, &it[2]));
  EXPECT_EQ((std::vector<int>{4, 0, 1, 9, 2, 3}), Forward(list));
  // After the last item by name moves m_pLast.
  list.InsertAfter(&y, &it[3]);
  EXPECT_EQ(&y, list.m_pLast);
  EXPECT_EQ(7u, list.m_dwCount);
  EXPECT_EQ(nullptr, list.GetPrev(&foreign));
  EXPECT_EQ((ERR)ERR_BADPARAM, list.InsertBefore(&z, &foreign));
  EXPECT_EQ(&foreign, z.pNext);  // its own link was set before the scan failed
  EXPECT_EQ(7u, list.m_dwCount);
  EXPECT_EQ((std::vector<int>{4, 0, 1, 9, 2, 3, 8}), Forward(list));
  CList empty(nullptr, offsetof(TItem, pNext));
  EXPECT_EQ((ERR)ERR_BADPARAM, empty.InsertBefore(&z, &foreign));
  EXPECT_EQ(nullptr, empty.m_pFirst);
}

TEST(ToolsList, RemoveNextAndDestructorRelease) {
  TItem it[3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
  int nCalls = 0;
  g_released.clear();
  CList list(ReleaseItem, offsetof(TItem, pNext));
  list.m_pUserData = &nCalls;
  for (TItem& t : it) list.InsertAfter(&t, nullptr);
  EXPECT_EQ(0u, list.RemoveNext(nullptr));
  EXPECT_EQ((std::vector<int>{0}), g_released);
  EXPECT_EQ(1, nCalls);
  EXPECT_EQ(&it[1], list.m_pFirst);
  EXPECT_EQ(2u, list.m_dwCount);
  // Removing down to nothing leaves m_pLast where it was.
  list.RemoveNext(nullptr);
  list.RemoveNext(nullptr);
  EXPECT_EQ(nullptr, list.m_pFirst);
  EXPECT_EQ(&it[2], list.m_pLast);
  EXPECT_EQ(0u, list.m_dwCount);
  {
    AssertCatcher catcher;
    EXPECT_NE(0u, list.RemoveNext(nullptr));
    EXPECT_TRUE(catcher.Fired("m_pFirst"));
    EXPECT_EQ(0u, list.m_dwCount);
  }
  // An insert at the end of the now empty list starts it afresh.
  TItem z = {7, 0, 0};
  list.InsertAfter(&z, nullptr);
  EXPECT_EQ(&z, list.m_pFirst);
  EXPECT_EQ(&z, list.m_pLast);
  EXPECT_EQ(nullptr, it[2].pNext);
  list.m_funcDelete = nullptr;
  // After an inner item: the last item is released but stays linked.
  g_released.clear();
  CList inner(ReleaseItem, offsetof(TItem, pNext));
  for (TItem& t : it) inner.InsertAfter(&t, nullptr);
  EXPECT_EQ(0u, inner.RemoveNext(&it[1]));
  EXPECT_EQ((std::vector<int>{2}), g_released);
  EXPECT_EQ(&it[2], it[1].pNext);
  EXPECT_EQ(&it[2], inner.m_pLast);
  EXPECT_EQ(2u, inner.m_dwCount);
  inner.RemoveNext(&it[2]);  // no next item: nothing happens
  EXPECT_EQ(1u, g_released.size());
  inner.m_funcDelete = nullptr;
  g_released.clear();
  {
    CList owner(ReleaseItem, offsetof(TItem, pNext));
    for (TItem& t : it) owner.InsertAfter(&t, nullptr);
  }
  EXPECT_EQ((std::vector<int>{0, 1, 2}), g_released);  // the destructor releases all
  // Emptied the same way, the list is started afresh by an insert at its head too: the left-over
  // m_pLast gives way to the new item.
  TItem h[2] = {{0, 0, 0}, {1, 0, 0}};
  CList head(nullptr, offsetof(TItem, pNext));
  head.InsertAfter(&h[0], nullptr);
  head.RemoveNext(nullptr);
  EXPECT_EQ(&h[0], head.m_pLast);
  EXPECT_EQ(0u, head.InsertBefore(&h[1], nullptr));
  EXPECT_EQ(&h[1], head.m_pFirst);
  EXPECT_EQ(&h[1], head.m_pLast);
  EXPECT_EQ(nullptr, h[1].pNext);
}

TEST(ToolsList, SortLeavesLastStaleAndChecksCount) {
  CList list(nullptr, offsetof(TItem, pNext));
  EXPECT_EQ(0u, list.Sort(CompareItem));  // nothing, no assertion
  std::mt19937 rng(99);
  std::vector<TItem> items(50);
  for (size_t i = 0; i < items.size(); i++) {
    items[i].nValue = (int)(rng() % 20) - 10;
    list.InsertAfter(&items[i], nullptr);
  }
  std::vector<int> expect;
  for (TItem& t : items) expect.push_back(t.nValue);
  std::sort(expect.begin(), expect.end());
  void* pOldLast = list.m_pLast;
  EXPECT_EQ(0u, list.Sort(CompareItem));
  EXPECT_EQ(expect, Forward(list));
  EXPECT_EQ(50u, list.m_dwCount);
  EXPECT_EQ(pOldLast, list.m_pLast);
  EXPECT_EQ(nullptr, g_tmpCompareFunc);
  // The real tail is the item whose link is null.
  EXPECT_EQ(expect.back(), static_cast<TItem*>(list.GetPrev(nullptr))->nValue);
  std::vector<int> before = Forward(list);
  for (DWORD dwCount : {49u, 51u}) {  // chain longer, then shorter than the count
    list.m_dwCount = dwCount;
    EXPECT_EQ((ERR)ERR_OUTOFRANGE, list.Sort(CompareItem));
    EXPECT_EQ(before, Forward(list));
    EXPECT_EQ(nullptr, g_tmpCompareFunc);
  }
}

CList* g_pInnerList = nullptr;
ERR g_errInner = 0;
SHORT CompareItemAndSortInner(const void* a, const void* b) {
  if (g_pInnerList) {
    g_errInner = g_pInnerList->Sort(CompareItem);
    g_pInnerList = nullptr;
  }
  return CompareItem(a, b);
}

TEST(ToolsList, SortIsNotReentrant) {
  TItem outer[3] = {{3, 0, 0}, {1, 0, 0}, {2, 0, 0}};
  TItem inner[2] = {{5, 0, 0}, {4, 0, 0}};
  CList listOuter(nullptr, offsetof(TItem, pNext));
  CList listInner(nullptr, offsetof(TItem, pNext));
  for (TItem& t : outer) listOuter.InsertAfter(&t, nullptr);
  for (TItem& t : inner) listInner.InsertAfter(&t, nullptr);
  g_pInnerList = &listInner;
  AssertCatcher catcher;
  EXPECT_EQ(0u, listOuter.Sort(CompareItemAndSortInner));
  EXPECT_TRUE(catcher.Fired("m_pFirst && m_dwCount && funcCompare && !g_tmpCompareFunc"));
  EXPECT_NE(0u, g_errInner);
  EXPECT_EQ((std::vector<int>{1, 2, 3}), Forward(listOuter));
  EXPECT_EQ((std::vector<int>{5, 4}), Forward(listInner));  // untouched
  EXPECT_EQ(nullptr, g_tmpCompareFunc);
}

// Both directions give expect, the ends have null outer links and the count matches.
void ExpectConsistent(CDList& list, const std::vector<int>& expect) {
  std::vector<int> back;
  DWORD n = 0;
  for (void* p = list.m_pLast; p && n < 1000; p = static_cast<TItem*>(p)->pPrev, n++)
    back.insert(back.begin(), static_cast<TItem*>(p)->nValue);
  EXPECT_EQ(expect, Forward(list));
  EXPECT_EQ(expect, back);
  EXPECT_EQ(expect.size(), (size_t)list.m_dwCount);
  EXPECT_EQ(nullptr, list.m_pFirst ? static_cast<TItem*>(list.m_pFirst)->pPrev : nullptr);
  EXPECT_EQ(nullptr, list.m_pLast ? static_cast<TItem*>(list.m_pLast)->pNext : nullptr);
}

TEST(ToolsDList, InsertAndRemoveKeepBothLinks) {
  TItem it[5] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}};
  TItem x = {9, 0, 0}, y = {8, 0, 0};
  g_released.clear();
  CDList list(ReleaseItem, offsetof(TItem, pNext), offsetof(TItem, pPrev));
  list.InsertAfter(&it[2], nullptr);
  ExpectConsistent(list, {2});
  list.InsertBefore(&it[0], nullptr);
  list.InsertAfter(&it[4], nullptr);
  list.InsertAfter(&it[1], &it[0]);
  list.InsertBefore(&it[3], &it[4]);
  ExpectConsistent(list, {0, 1, 2, 3, 4});
  EXPECT_EQ(&it[3], list.GetPrev(&it[4]));
  EXPECT_EQ(&it[4], list.GetPrev(nullptr));
  list.InsertBefore(&x, &it[0]);
  list.InsertAfter(&y, &it[4]);
  ExpectConsistent(list, {9, 0, 1, 2, 3, 4, 8});
  EXPECT_EQ(0u, list.Remove(&x));
  list.Remove(&y);
  list.Remove(&it[2]);
  ExpectConsistent(list, {0, 1, 3, 4});
  for (int i : {0, 1, 3, 4}) list.Remove(&it[i]);
  ExpectConsistent(list, {});
  EXPECT_EQ(nullptr, list.m_pFirst);
  EXPECT_EQ(nullptr, list.m_pLast);
  EXPECT_EQ((std::vector<int>{9, 8, 2, 0, 1, 3, 4}), g_released);
  AssertCatcher catcher;
  EXPECT_NE(0u, list.Remove(&it[0]));
  EXPECT_TRUE(catcher.Fired("pItem&&m_pFirst"));
  EXPECT_EQ(7u, g_released.size());
}

TEST(ToolsDList, SwapAgainstModel) {
  std::mt19937 rng(5);
  for (int nRound = 0; nRound < 200; nRound++) {
    int n = 1 + (int)(rng() % 7);
    std::vector<TItem> items(n);
    std::vector<int> model;
    CDList list(nullptr, offsetof(TItem, pNext), offsetof(TItem, pPrev));
    for (int i = 0; i < n; i++) {
      items[i].nValue = i;
      list.InsertAfter(&items[i], nullptr);
      model.push_back(i);
    }
    for (int k = 0; k < 6; k++) {
      int a = (int)(rng() % n), b = (int)(rng() % n);
      EXPECT_EQ(0u, list.Swap(&items[a], &items[b]));
      std::iter_swap(std::find(model.begin(), model.end(), a), std::find(model.begin(), model.end(), b));
      ExpectConsistent(list, model);
    }
  }
  TItem t = {0, 0, 0};
  CDList list(nullptr, offsetof(TItem, pNext), offsetof(TItem, pPrev));
  list.InsertAfter(&t, nullptr);
  AssertCatcher catcher;
  EXPECT_NE(0u, list.Swap(&t, nullptr));
  EXPECT_TRUE(catcher.Fired("m_pFirst&&pItem1&&pItem2"));
}

TEST(ToolsDList, SortRepairsLastAndPrev) {
  std::mt19937 rng(17);
  std::vector<TItem> items(40);
  CDList list(nullptr, offsetof(TItem, pNext), offsetof(TItem, pPrev));
  std::vector<int> expect;
  for (TItem& t : items) {
    t.nValue = (int)(rng() % 15);
    list.InsertBefore(&t, nullptr);
    expect.push_back(t.nValue);
  }
  std::sort(expect.begin(), expect.end());
  EXPECT_EQ(0u, list.Sort(CompareItem));
  ExpectConsistent(list, expect);
  // Appending after the sort lands at the true end.
  TItem z = {100, 0, 0};
  list.InsertAfter(&z, nullptr);
  expect.push_back(100);
  ExpectConsistent(list, expect);
}

// ---------------------------------------------------------------------------------------------
// CArray

TEST(ToolsCArray, CreateGrowAndShrink) {
  CArray arr;
  EXPECT_EQ(nullptr, arr.m_pData);
  EXPECT_EQ((ERR)ERR_UNKNOWN, arr.Grow(1));
  EXPECT_EQ(0u, arr.Create(10, 6, nullptr));
  EXPECT_EQ(10u, arr.m_dwCount);
  for (DWORD i = 0; i < 60; i++) EXPECT_EQ(0, static_cast<BYTE*>(arr.m_pData)[i]);
  EXPECT_EQ(static_cast<BYTE*>(arr.m_pData) + 54, arr.GetItem(9));
  EXPECT_EQ(nullptr, arr.GetItem(10));
  EXPECT_EQ((ERR)ERR_ALLOCFAIL, arr.Create(0, 4, nullptr));  // and no assertion
  EXPECT_EQ(nullptr, arr.GetItem(0));
  ASSERT_EQ(0u, arr.Create(4, 4, nullptr));
  for (DWORD i = 0; i < 4; i++) *static_cast<DWORD*>(arr.GetItem(i)) = 100 + i;
  EXPECT_EQ((ERR)ERR_BADPARAM, arr.Grow(-4));
  EXPECT_EQ((ERR)ERR_BADPARAM, arr.Grow(-5));
  EXPECT_EQ(0u, arr.Grow(-2));
  EXPECT_EQ(2u, arr.m_dwCount);
  EXPECT_EQ(nullptr, arr.GetItem(2));
  void* pBefore = arr.m_pData;
  EXPECT_EQ(0u, arr.Grow(2));
  EXPECT_EQ(4u, arr.m_dwCount);
  EXPECT_EQ(100u, *static_cast<DWORD*>(arr.GetItem(0)));
  EXPECT_EQ(101u, *static_cast<DWORD*>(arr.GetItem(1)));
  if (arr.m_pData == pBefore) {
    // Grown where it was: the new items were cleared.
    EXPECT_EQ(0u, *static_cast<DWORD*>(arr.GetItem(2)));
    EXPECT_EQ(0u, *static_cast<DWORD*>(arr.GetItem(3)));
  }
  // A large growth moves the block: old items come along, the old block isn't written to
  // (the sanitizer build would report a write to the released block).
  EXPECT_EQ(0u, arr.Grow(300000));
  EXPECT_EQ(300004u, arr.m_dwCount);
  EXPECT_EQ(101u, *static_cast<DWORD*>(arr.GetItem(1)));
  EXPECT_TRUE(MemIsPtr(arr.m_pData, 300004u * 4));
}

TEST(ToolsCArray, FailuresOnLimit) {
  CArray arr;
  DWORD dwOld = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed + 16;
  EXPECT_EQ((ERR)ERR_ALLOCFAIL, arr.Create(100, 4, nullptr));
  g_dwPtrMemLimit = dwOld;
  EXPECT_EQ(nullptr, arr.GetItem(0));
  // A failed growth keeps the array as it was.
  ASSERT_EQ(0u, arr.Create(4, 4, nullptr));
  void* p = arr.m_pData;
  g_dwPtrMemLimit = g_dwPtrMemUsed;
  EXPECT_EQ((ERR)ERR_REALLOCFAIL, arr.Grow(100));
  g_dwPtrMemLimit = dwOld;
  EXPECT_EQ(p, arr.m_pData);
  EXPECT_EQ(4u, arr.m_dwCount);
}

TEST(ToolsCArray, CreateAndFreeReleaseItemsOnce) {
  int nCalls = 0;
  {
    CArray arr;
    ASSERT_EQ(0u, arr.Create(2, sizeof(TItem), ReleaseItem));
    static_cast<TItem*>(arr.GetItem(0))->nValue = 5;
    static_cast<TItem*>(arr.GetItem(1))->nValue = 6;
    g_released.clear();
    ASSERT_EQ(0u, arr.Create(3, sizeof(TItem), ReleaseItem));
    EXPECT_EQ((std::vector<int>{5, 6}), g_released);
    arr.m_pUserData = &nCalls;
    for (DWORD i = 0; i < 3; i++) static_cast<TItem*>(arr.GetItem(i))->nValue = (int)i + 1;
    g_released.clear();
    void* p = arr.m_pData;
    arr.Free();
    EXPECT_EQ((std::vector<int>{1, 2, 3}), g_released);
    EXPECT_EQ(3, nCalls);
    EXPECT_EQ(p, arr.m_pData);  // left as it was
    EXPECT_FALSE(MemIsPtr(p, 0));
    EXPECT_EQ(nullptr, arr.GetItem(0));
    // The destructor must not release anything a second time (a second MemFree would
    // assert, which fails the test).
  }
  EXPECT_EQ(3, nCalls);
}

TEST(ToolsCArray, SortAndFind) {
  CArray arr;
  ASSERT_EQ(0u, arr.Create(6, 4, nullptr));
  DWORD vals[] = {50, 10, 40, 10, 30, 20};
  for (DWORD i = 0; i < 6; i++) *static_cast<DWORD*>(arr.GetItem(i)) = vals[i];
  DWORD k = 40;
  EXPECT_EQ(2u, arr.FindLinear(&k, CompareDword));
  arr.Sort(CompareDword);
  EXPECT_EQ(4u, arr.FindBinary(&k, CompareDword));
  k = 35;
  EXPECT_EQ(4u, arr.FindBinary(&k, CompareDword));  // insertion point
  EXPECT_EQ(6u, arr.FindLinear(&k, CompareDword));
  AssertCatcher catcher;
  EXPECT_EQ(6u, arr.FindLinear(&k, nullptr));
  EXPECT_TRUE(catcher.Fired("funcCompare"));
  CArray empty;
  EXPECT_EQ(0u, empty.FindBinary(&k, CompareDword));
}

// ---------------------------------------------------------------------------------------------
// CHashTable

struct THashItem {
  THashItem* pNext;
  char szKey[12];
};

SHORT CompareText(const void* a, const void* b) {
  return StrCmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

std::vector<std::string> g_releasedKeys;
void ReleaseHashItem(void* pItem, void*) { g_releasedKeys.push_back(static_cast<THashItem*>(pItem)->szKey); }

TEST(ToolsHashTable, FindCountsAndLinks) {
  CHashTable empty(13, Hash31, CompareText, nullptr, offsetof(THashItem, pNext), offsetof(THashItem, szKey));
  ASSERT_NE(nullptr, empty.m_pTable);
  void** pLink = nullptr;
  EXPECT_EQ(nullptr, empty.Find("nothing", &pLink));
  EXPECT_EQ(&empty.m_pTable[Hash31("nothing", 13)], pLink);
  EXPECT_EQ(1u, empty.m_dwHashes);
  EXPECT_EQ(1u, empty.m_dwCompares);  // no comparison, one at the end
  // One bucket: every item chains, so the order and the counters are fully determined.
  THashItem a = {nullptr, "alpha"}, b = {nullptr, "beta"}, c = {nullptr, "gamma"};
  CHashTable table(1, HashSum, CompareText, nullptr, offsetof(THashItem, pNext), offsetof(THashItem, szKey));
  EXPECT_EQ(0u, table.Insert(&a));
  EXPECT_EQ(0u, table.Insert(&b));
  EXPECT_EQ(0u, table.Insert(&c));
  EXPECT_EQ(3u, table.m_dwHashes);
  EXPECT_EQ(&c, table.m_pTable[0]);  // pushed at the head
  table.m_dwHashes = table.m_dwCompares = 0;
  EXPECT_EQ(&a, table.Find("alpha", &pLink));
  EXPECT_EQ(&b.pNext, reinterpret_cast<THashItem**>(pLink));
  EXPECT_EQ(1u, table.m_dwHashes);
  EXPECT_EQ(4u, table.m_dwCompares);  // gamma, beta, alpha, plus one
  EXPECT_EQ(nullptr, table.Find("delta", &pLink));
  EXPECT_EQ(&a.pNext, reinterpret_cast<THashItem**>(pLink));  // the last link
  EXPECT_EQ(8u, table.m_dwCompares);
}

TEST(ToolsHashTable, DuplicatesDeleteDetachClear) {
  std::vector<THashItem> items(30);
  g_releasedKeys.clear();
  CHashTable table(5, HashRotate, CompareText, ReleaseHashItem, offsetof(THashItem, pNext),
                   offsetof(THashItem, szKey));
  for (size_t i = 0; i < items.size(); i++) {
    StrCpy(items[i].szKey, ("k" + std::to_string(i)).c_str());
    EXPECT_EQ(0u, table.Insert(&items[i]));
  }
  THashItem newer = {nullptr, "k3"};
  table.Insert(&newer);
  EXPECT_EQ(&newer, table.Find("k3", nullptr));  // the newest duplicate first
  EXPECT_EQ(0u, table.Delete("k3"));
  EXPECT_EQ(&items[3], table.Find("k3", nullptr));
  EXPECT_EQ(0u, table.Delete("k7"));
  EXPECT_EQ((std::vector<std::string>{"k3", "k7"}), g_releasedKeys);
  EXPECT_EQ(nullptr, table.Find("k7", nullptr));
  EXPECT_EQ((ERR)ERR_NOTFOUND, table.Delete("k7"));
  void* pItem = nullptr;
  EXPECT_EQ(0u, table.Detach("k12", &pItem));
  EXPECT_EQ(&items[12], pItem);
  EXPECT_EQ(2u, g_releasedKeys.size());  // detached, not released
  EXPECT_EQ((ERR)ERR_NOTFOUND, table.Detach("k12", &pItem));
  EXPECT_EQ(nullptr, pItem);
  for (size_t i = 0; i < items.size(); i++)
    EXPECT_EQ(i == 7 || i == 12 ? nullptr : &items[i], table.Find(items[i].szKey, nullptr)) << i;
  table.Clear();  // releases the 28 left and empties every bucket
  EXPECT_EQ(30u, g_releasedKeys.size());
  std::sort(g_releasedKeys.begin(), g_releasedKeys.end());
  EXPECT_TRUE(std::binary_search(g_releasedKeys.begin(), g_releasedKeys.end(), "k29"));
  EXPECT_FALSE(std::binary_search(g_releasedKeys.begin(), g_releasedKeys.end(), "k12"));
  for (DWORD i = 0; i < 5; i++) EXPECT_EQ(nullptr, table.m_pTable[i]);
}

TEST(ToolsHashTable, NoFunctionsNoTable) {
  AssertCatcher catcher;
  CHashTable table(8, nullptr, CompareText, nullptr, 0, 8);
  EXPECT_TRUE(catcher.Fired("funcHashKey && funcCompareKey"));
  THashItem a = {nullptr, "x"};
  EXPECT_EQ((ERR)ERR_UNKNOWN, table.Insert(&a));
  EXPECT_EQ(nullptr, table.Find("x", nullptr));
  EXPECT_EQ((ERR)ERR_UNKNOWN, table.Delete("x"));
}

// ---------------------------------------------------------------------------------------------
// CGrowBuffer and CChunkAlloc

// The tracked record of a pointer block, to see whether it was reallocated.
const TBlockInfo* BlockOf(const void* p) {
  for (DWORD i = 0; i < g_dwPtrInfoCount; i++)
    if (g_pPtrInfo[i].dwSysBlock && g_pPtrInfo[i].dwSysBlock + 4 == (DWORD_PTR)p) return &g_pPtrInfo[i];
  return nullptr;
}

TEST(ToolsGrowBuffer, GranulesGrowShrinkAndFree) {
  CGrowBuffer buf(16);
  EXPECT_EQ(0u, buf.SetSize(10));
  ASSERT_NE(nullptr, buf.m_pData);
  EXPECT_TRUE(MemIsPtr(buf.m_pData, 16));  // rounded up
  memset(buf.m_pData, 0x5A, 16);
  void* p = buf.m_pData;
  // Within the same granule the block is not touched.
  EXPECT_EQ(0u, buf.SetSize(16));
  EXPECT_EQ(0u, buf.SetSize(1));
  EXPECT_EQ(1u, buf.m_dwSize);
  EXPECT_EQ(p, buf.m_pData);
  const TBlockInfo* pInfo = BlockOf(p);
  ASSERT_NE(nullptr, pInfo);
  // The record is packed: copy its fields before comparing.
  const char* pchReallocFile = pInfo->pchReallocFile;
  DWORD dwBlockSize = pInfo->dwSize;
  EXPECT_EQ(nullptr, pchReallocFile);  // never reallocated
  EXPECT_EQ(16u, dwBlockSize);
  for (int i = 0; i < 16; i++) EXPECT_EQ(0x5A, static_cast<BYTE*>(p)[i]);
  EXPECT_EQ(0u, buf.SetSize(450));
  EXPECT_TRUE(MemIsPtr(buf.m_pData, 464));
  EXPECT_EQ(0x5A, static_cast<BYTE*>(buf.m_pData)[15]);
  EXPECT_EQ(0u, buf.SetSize(30));
  EXPECT_TRUE(MemIsPtr(buf.m_pData, 32));  // shrunk to its rounded size, no further
  EXPECT_EQ(0x5A, static_cast<BYTE*>(buf.m_pData)[0]);
  EXPECT_EQ(0u, buf.SetSize(0));
  EXPECT_EQ(nullptr, buf.m_pData);
  EXPECT_EQ(0u, buf.m_dwSize);
  EXPECT_EQ(0u, buf.SetSize(0));
}

TEST(ToolsGrowBuffer, FailuresKeepStateAndZeroGranule) {
  CGrowBuffer buf(64);
  DWORD dwOld = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed + 32;
  EXPECT_EQ((ERR)ERR_ALLOCFAIL, buf.SetSize(10));
  EXPECT_EQ(0u, buf.m_dwSize);
  g_dwPtrMemLimit = dwOld;
  ASSERT_EQ(0u, buf.SetSize(10));
  void* p = buf.m_pData;
  g_dwPtrMemLimit = g_dwPtrMemUsed;
  EXPECT_EQ((ERR)ERR_REALLOCFAIL, buf.SetSize(1000));
  g_dwPtrMemLimit = dwOld;
  EXPECT_EQ(p, buf.m_pData);
  EXPECT_EQ(10u, buf.m_dwSize);
  AssertCatcher catcher;
  CGrowBuffer zero(0);
  EXPECT_TRUE(catcher.Fired("dwGran"));
  EXPECT_EQ(0u, zero.SetSize(3));
  EXPECT_TRUE(MemIsPtr(zero.m_pData, 3));
}

const DWORD kHdr = (DWORD)sizeof(TChunkAllocHdr);

TEST(ToolsChunkAlloc, PiecesFollowEachOtherAndSearchTakesFirstWithRoom) {
  CChunkAlloc ca(0, 16 + kHdr);
  EXPECT_EQ(16u, ca.m_dwChunkSize);
  BYTE* p1 = static_cast<BYTE*>(ca.Alloc(5));
  ASSERT_NE(nullptr, p1);
  EXPECT_EQ(reinterpret_cast<BYTE*>(ca.m_pFirst) + kHdr, p1);
  EXPECT_EQ(p1 + 5, ca.Alloc(3));  // unaligned, back to back
  EXPECT_EQ(p1 + 8, ca.Alloc(2));
  EXPECT_EQ(10u, ca.m_pFirst->dwUsed);          // chunk 1: 6 left
  ca.Alloc(12);                                 // chunk 2: 4 left
  BYTE* p3 = static_cast<BYTE*>(ca.Alloc(14));  // chunk 3 (last): 2 left
  EXPECT_EQ(reinterpret_cast<BYTE*>(ca.m_pLast) + kHdr, p3);
  BYTE* p = static_cast<BYTE*>(ca.Alloc(4));  // fits chunk 1 and 2: the first is taken
  EXPECT_EQ(p1 + 10, p);
  p = static_cast<BYTE*>(ca.Alloc(4));  // now only chunk 2
  EXPECT_EQ(reinterpret_cast<BYTE*>(ca.m_pFirst->pNext) + kHdr + 12, p);
  p = static_cast<BYTE*>(ca.Alloc(2));  // the last chunk has room: taken before searching
  EXPECT_EQ(p3 + 14, p);
  EXPECT_EQ(ca.m_dwChunkSize, ca.m_pLast->dwUsed);  // exactly full
}

TEST(ToolsChunkAlloc, OversizeGetsOwnChunkAndSearchModeDecidesWhereNextGoes) {
  CChunkAlloc ca(0, 32 + kHdr);
  void* pSmall = ca.Alloc(10);
  BYTE* pBig = static_cast<BYTE*>(ca.Alloc(100));
  ASSERT_NE(nullptr, pBig);
  EXPECT_NE(ca.m_pFirst, ca.m_pLast);
  EXPECT_EQ(100u, ca.m_pLast->dwSize);
  EXPECT_EQ(100u, ca.m_pLast->dwUsed);
  EXPECT_EQ(reinterpret_cast<BYTE*>(ca.m_pLast) + kHdr, pBig);
  // The next small piece: the big chunk is full, the search finds room in the first.
  BYTE* pNext = static_cast<BYTE*>(ca.Alloc(8));
  EXPECT_EQ(static_cast<BYTE*>(pSmall) + 10, pNext);
  EXPECT_EQ(18u, ca.m_pFirst->dwUsed);
  // Without the search only the last chunk is tried: a third chunk, at its start.
  CChunkAlloc noSearch(1, 32 + kHdr);
  noSearch.Alloc(10);
  noSearch.Alloc(100);
  pNext = static_cast<BYTE*>(noSearch.Alloc(8));
  EXPECT_EQ(reinterpret_cast<BYTE*>(noSearch.m_pLast) + kHdr, pNext);
  EXPECT_EQ(10u, noSearch.m_pFirst->dwUsed);
  EXPECT_EQ(noSearch.m_pLast, noSearch.m_pFirst->pNext->pNext);
  EXPECT_EQ(nullptr, noSearch.m_pLast->pNext);
}

TEST(ToolsChunkAlloc, LocateAndGetOffsetAreInverse) {
  CChunkAlloc ca(0, 40 + kHdr);
  std::mt19937 rng(1);
  std::vector<std::pair<BYTE*, DWORD>> pieces;
  for (int i = 0; i < 60; i++) {
    DWORD n = 1 + rng() % 50;
    BYTE* p = static_cast<BYTE*>(ca.Alloc(n));
    ASSERT_NE(nullptr, p);
    pieces.push_back({p, n});
  }
  DWORD dwTotal = 0;
  for (TChunkAllocHdr* h = ca.m_pFirst; h; h = h->pNext) dwTotal += h->dwUsed;
  for (auto& pc : pieces) {
    for (DWORD k : {(DWORD)0, pc.second - 1}) {
      DWORD dwOfs = 0;
      ASSERT_EQ(0u, ca.GetOffset(pc.first + k, &dwOfs));
      EXPECT_LT(dwOfs, dwTotal);
      DWORD dwIn = dwOfs, dwSize = 0;
      void* pData = nullptr;
      ASSERT_EQ(0u, ca.Locate(&dwIn, &pData, &dwSize));
      EXPECT_EQ(pc.first + k, static_cast<BYTE*>(pData) + dwIn);
      EXPECT_GE(dwSize, dwIn + 1);
    }
  }
  DWORD dwPast = dwTotal, dwSize = 0;
  void* pData = nullptr;
  EXPECT_EQ((ERR)ERR_OUTOFRANGE, ca.Locate(&dwPast, &pData, &dwSize));
  int nLocal = 0;
  DWORD dwOfs = 0;
  EXPECT_EQ((ERR)ERR_NOTFOUND, ca.GetOffset(&nLocal, &dwOfs));
  // The unused tail of the first chunk is in no used range... when there is one.
  TChunkAllocHdr* h = ca.m_pFirst;
  if (h->dwUsed < h->dwSize) {
    EXPECT_EQ((ERR)ERR_NOTFOUND, ca.GetOffset(reinterpret_cast<BYTE*>(h) + kHdr + h->dwUsed, &dwOfs));
  }
}

TEST(ToolsChunkAlloc, FailureFreeAllAndTooSmallGranule) {
  CChunkAlloc ca(0, 64 + kHdr);
  ASSERT_NE(nullptr, ca.Alloc(4));
  DWORD dwUsedBefore = g_dwPtrMemUsed;
  DWORD dwOld = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed;
  EXPECT_NE(nullptr, ca.Alloc(60));   // still fits the chunk
  EXPECT_EQ(nullptr, ca.Alloc(10));   // needs a new chunk
  EXPECT_EQ(nullptr, ca.Alloc(100));  // oversize
  g_dwPtrMemLimit = dwOld;
  EXPECT_EQ(dwUsedBefore, g_dwPtrMemUsed);
  ca.FreeAll();
  EXPECT_EQ(nullptr, ca.m_pFirst);
  EXPECT_EQ(nullptr, ca.m_pLast);
  EXPECT_LT(g_dwPtrMemUsed, dwUsedBefore);
  EXPECT_NE(nullptr, ca.Alloc(4));  // usable again
  AssertCatcher catcher;
  CChunkAlloc tiny(0, kHdr);
  EXPECT_TRUE(catcher.Fired("dwGran > sizeof(TChunkAllocHdr)"));
  EXPECT_EQ(0u, tiny.m_dwChunkSize);
  void* p1 = tiny.Alloc(3);
  void* p2 = tiny.Alloc(3);
  ASSERT_NE(nullptr, p1);
  EXPECT_NE(static_cast<BYTE*>(p1) + 3, p2);  // each in a chunk of its own
}

// ---------------------------------------------------------------------------------------------
// The file-based routines, on a file over a byte vector

// A file of a 7-byte header and then records of 6 bytes: a DWORD key and a WORD tag.
const DWORD kBase = 7, kRecSize = 6;
void PutRecords(CTestFile& f, const std::vector<DWORD>& keys) {
  f.m_data.assign(kBase, 0xEE);
  for (size_t i = 0; i < keys.size(); i++) {
    BYTE rec[kRecSize];
    memcpy(rec, &keys[i], 4);
    WORD w = (WORD)i;
    memcpy(rec + 4, &w, 2);
    f.m_data.insert(f.m_data.end(), rec, rec + kRecSize);
  }
}
std::vector<DWORD> GetKeys(const CTestFile& f) {
  std::vector<DWORD> v;
  for (size_t o = kBase; o + kRecSize <= f.m_data.size(); o += kRecSize) {
    DWORD k;
    memcpy(&k, f.m_data.data() + o, 4);
    v.push_back(k);
  }
  return v;
}

// Search and sort in the file must match the array routines on the same records.
TEST(ToolsFileArray, MatchesArrayRoutines) {
  std::mt19937 rng(21);
  for (int nRound = 0; nRound < 40; nRound++) {
    std::vector<DWORD> keys(1 + rng() % 30);
    for (DWORD& k : keys) k = rng() % 25;
    if (nRound % 2) std::sort(keys.begin(), keys.end());
    DWORD n = (DWORD)keys.size();
    CTestFile f;
    PutRecords(f, keys);
    std::vector<BYTE> mem(f.m_data.begin() + kBase, f.m_data.end());
    for (DWORD key = 0; key < 27; key++) {
      EXPECT_EQ(LinearFind(mem.data(), kRecSize, n, &key, CompareDword),
                FileLinearFind(&f, kBase, kRecSize, n, &key, CompareDword, nullptr));
      BYTE buf[kRecSize];
      if (nRound % 2) {
        EXPECT_EQ(BinaryFind(mem.data(), kRecSize, n, &key, CompareDword),
                  FileBinaryFind(&f, kBase, kRecSize, n, &key, CompareDword, buf));
      }
    }
    EXPECT_EQ(IsSorted(mem.data(), kRecSize, n, CompareDword) ? 1u : 0u,
              FileIsSorted(&f, kBase, kRecSize, n, CompareDword, nullptr, nullptr));
    BubbleSort(mem.data(), kRecSize, n, CompareDword);
    EXPECT_EQ(0u, FileBubbleSort(&f, kBase, kRecSize, n, CompareDword, nullptr, nullptr));
    // Same bytes (same algorithm, whole records with their tags), the header untouched.
    EXPECT_EQ(mem, std::vector<BYTE>(f.m_data.begin() + kBase, f.m_data.end()));
    EXPECT_EQ(std::vector<BYTE>(kBase, 0xEE), std::vector<BYTE>(f.m_data.begin(), f.m_data.begin() + kBase));
    EXPECT_EQ(1u, FileIsSorted(&f, kBase, kRecSize, n, CompareDword, nullptr, nullptr));
  }
}

TEST(ToolsFileArray, BuffersCountZeroAndErrors) {
  CTestFile f;
  PutRecords(f, {3, 2, 1});
  BYTE b1[kRecSize], b2[kRecSize];
  EXPECT_EQ(0u, FileIsSorted(&f, kBase, kRecSize, 3, CompareDword, b1, nullptr));  // one buffer
  // A second buffer of the caller's leaves the routine none to allocate.
  DWORD dwUsed = g_dwPtrMemUsed;
  EXPECT_EQ((DWORD)ERR_FILE_NOMEM, FileIsSorted(&f, kBase, kRecSize, 3, CompareDword, b1, b2));
  EXPECT_EQ((DWORD)ERR_FILE_NOMEM, FileIsSorted(&f, kBase, kRecSize, 3, CompareDword, nullptr, b2));
  EXPECT_EQ((ERR)ERR_FILE_NOMEM, FileBubbleSort(&f, kBase, kRecSize, 3, CompareDword, b1, b2));
  EXPECT_EQ(dwUsed, g_dwPtrMemUsed);  // nothing leaked on the way out
  EXPECT_EQ((std::vector<DWORD>{3, 2, 1}), GetKeys(f));
  EXPECT_EQ(0u, FileBubbleSort(&f, kBase, kRecSize, 3, CompareDword, b1, nullptr));
  EXPECT_EQ((std::vector<DWORD>{1, 2, 3}), GetKeys(f));
  EXPECT_EQ((ERR)-1, FileBubbleSort(&f, kBase, kRecSize, 0, CompareDword, nullptr, nullptr));
  DWORD key = 99;
  // Records past the end: the read error comes back.
  EXPECT_EQ((DWORD)ERR_FILE_EOF, FileLinearFind(&f, kBase, kRecSize, 5, &key, CompareDword, nullptr));
  EXPECT_EQ((DWORD)ERR_FILE_EOF, FileIsSorted(&f, kBase, kRecSize, 4, CompareDword, nullptr, nullptr));
  EXPECT_EQ((ERR)ERR_FILE_EOF, FileBubbleSort(&f, kBase, kRecSize, 4, CompareDword, nullptr, nullptr));
  DWORD dwOld = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed;
  EXPECT_EQ((DWORD)ERR_FILE_NOMEM, FileLinearFind(&f, kBase, kRecSize, 2, &key, CompareDword, nullptr));
  EXPECT_EQ((DWORD)ERR_FILE_NOMEM, FileBinaryFind(&f, kBase, kRecSize, 2, &key, CompareDword, nullptr));
  g_dwPtrMemLimit = dwOld;
  AssertCatcher catcher;
  EXPECT_NE(0u, FileLinearFind(nullptr, 0, kRecSize, 2, &key, CompareDword, nullptr));
  EXPECT_TRUE(catcher.Fired("pFile"));
}

// Every container gives back all it took from the tracked memory.
TEST(ToolsMemory, ContainersGiveBackTheirMemory) {
  DWORD dwUsed = g_dwPtrMemUsed;
  {
    CArray arr;
    arr.Create(100, 8, nullptr);
    arr.Grow(50);
    CGrowBuffer buf(32);
    buf.SetSize(1000);
    buf.SetSize(40);
    CChunkAlloc ca(0, 128);
    for (int i = 0; i < 50; i++) ca.Alloc(30 + i);
    // The item outlives the table, whose destructor walks its buckets.
    THashItem item = {nullptr, "x"};
    CHashTable table(31, Hash31, CompareText, nullptr, offsetof(THashItem, pNext),
                     offsetof(THashItem, szKey));
    table.Insert(&item);
    TItem it[10];
    CList list(nullptr, offsetof(TItem, pNext));
    for (int i = 0; i < 10; i++) {
      it[i].nValue = 10 - i;
      list.InsertAfter(&it[i], nullptr);
    }
    list.Sort(CompareItem);
    EXPECT_GT(g_dwPtrMemUsed, dwUsed);
  }
  EXPECT_EQ(dwUsed, g_dwPtrMemUsed);
}

TEST(ToolsObject, IdentityAndDump) {
  class CPlain : public CObject {};
  CPlain* p = new CPlain;
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0u, p->GetClassId());
  EXPECT_STREQ("CObject", p->GetClassName());
  EXPECT_EQ(p, p->Cast(0));
  EXPECT_EQ(nullptr, p->Cast(5));
  DebugCapture cap;
  p->Dump();
  EXPECT_NE(std::string::npos, cap.Text().find("[CObject]"));
  delete p;
}

}  // namespace
