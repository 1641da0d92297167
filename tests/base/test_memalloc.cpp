// Tracked memory: guards and fill bytes, counters and limits, handles, reports.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#if defined(_WIN32) || defined(__GLIBC__)
#include <malloc.h>
#endif

#include "base/memalloc.h"
#include "base/tools.h"
#include "testutil.h"

namespace {

// Restores a limit when the test ends, whatever happens.
class LimitGuard {
 public:
  explicit LimitGuard(DWORD* pdwLimit) : m_pdwLimit(pdwLimit), m_dwOld(*pdwLimit) {}
  ~LimitGuard() { *m_pdwLimit = m_dwOld; }

 private:
  DWORD* m_pdwLimit;
  DWORD m_dwOld;
};

class CLeakProbe : public CObject {
  DECLARE_CLASS()
 public:
  int m_nValue = 7;
};
IMPLEMENT_CLASS(CLeakProbe, 0x7E57AB1E, CObject)

// The asserted expressions, in order: what follows the last ": " of each text.
std::vector<std::string> AssertedExprs(const AssertCatcher& catcher) {
  std::vector<std::string> v;
  for (const std::string& s : catcher.Texts()) {
    size_t n = s.rfind(": ");
    v.push_back(n == std::string::npos ? s : s.substr(n + 2, s.size() - n - 2 - (s.back() == '\n')));
  }
  return v;
}

bool AllBytes(const void* p, BYTE bt, size_t n) {
  const BYTE* pb = static_cast<const BYTE*>(p);
  for (size_t i = 0; i < n; i++)
    if (pb[i] != bt) return false;
  return true;
}

}  // namespace

TEST(TrackedMemory, FreshMemoryIsFilledAndGuardedAndZeroSizeFails) {
  BYTE* p = static_cast<BYTE*>(MEM_ALLOC(10));
  ASSERT_NE(p, nullptr);
  EXPECT_TRUE(AllBytes(p, 0xCD, 10));
  EXPECT_TRUE(AllBytes(p - 4, 0xFD, 4));
  EXPECT_TRUE(AllBytes(p + 10, 0xFD, 4));
  EXPECT_TRUE(MemIsPtr(p, 10));
  EXPECT_TRUE(MemIsPtr(p, 0));
  EXPECT_FALSE(MemIsPtr(p, 11));
  EXPECT_TRUE(MemIsRange(p + 2, 8));
  EXPECT_FALSE(MemIsRange(p + 2, 9));
  MEM_FREE(p);
  EXPECT_FALSE(MemIsPtr(p, 0));
  AssertCatcher catcher;
  EXPECT_EQ(MEM_ALLOC(0), nullptr);
  EXPECT_TRUE(catcher.Fired("dwSize"));
  EXPECT_EQ(HANDLE_ALLOC(0), 0u);
}

TEST(TrackedMemory, CountersFollowEveryKind) {
  DWORD dwPtr = g_dwPtrMemUsed, dwNew = g_dwNewMemUsed, dwHandle = g_dwHandleMemUsed;
  void* p = MEM_ALLOC(100);
  void* pn = MemNew(50);
  DWORD h = HANDLE_ALLOC(30);
  EXPECT_EQ(g_dwPtrMemUsed, dwPtr + 100);
  EXPECT_EQ(g_dwNewMemUsed, dwNew + 50);
  EXPECT_EQ(g_dwHandleMemUsed, dwHandle + 30);
  EXPECT_EQ(g_dwMemUsed, g_dwPtrMemUsed + g_dwNewMemUsed + g_dwHandleMemUsed);
  EXPECT_GE(g_dwMaxMemUsed, g_dwMemUsed);
  p = MEM_REALLOC(p, 150);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(g_dwPtrMemUsed, dwPtr + 150);
  EXPECT_GE(g_dwMaxPtrMemUsed, dwPtr + 150);
  MEM_FREE(p);
  MemDelete(pn);
  HANDLE_FREE(h);
  EXPECT_EQ(g_dwPtrMemUsed, dwPtr);
  EXPECT_EQ(g_dwNewMemUsed, dwNew);
  EXPECT_EQ(g_dwHandleMemUsed, dwHandle);
}

TEST(TrackedMemory, NewLimitStopsNewAndObjectsWhilePointersGoOn) {
  LimitGuard guard(&g_dwNewMemLimit);
  g_dwNewMemLimit = g_dwNewMemUsed + 0x1F400;
  EXPECT_EQ(MemNew(128001), nullptr);
  void* pObj = MemNewObject(128000);  // exactly the budget
  EXPECT_NE(pObj, nullptr);
  EXPECT_EQ(MemNew(1), nullptr);
  void* pBig = MEM_ALLOC(1000000);  // plain pointer blocks are not limited by it
  EXPECT_NE(pBig, nullptr);
  MEM_FREE(pBig);
  MemDelete(pObj);
  void* pAgain = MemNew(128000);
  EXPECT_NE(pAgain, nullptr);
  MemDelete(pAgain);
  // Objects come from the same budget.
  g_dwNewMemLimit = g_dwNewMemUsed + sizeof(CLeakProbe) - 1;
  CLeakProbe* pNone = new CLeakProbe;
  EXPECT_EQ(pNone, nullptr);  // the constructor does not run on a null allocation
  g_dwNewMemLimit = g_dwNewMemUsed + sizeof(CLeakProbe);
  CLeakProbe* pProbe = new CLeakProbe;
  ASSERT_NE(pProbe, nullptr);
  EXPECT_EQ(pProbe->m_nValue, 7);
  EXPECT_EQ(pProbe->Cast(0x7E57AB1E), pProbe);
  EXPECT_EQ(pProbe->Cast(0), pProbe);
  EXPECT_EQ(pProbe->Cast(1), nullptr);
  delete pProbe;
}

// A block manager sees the handle's memory at the moment it is released.
static bool s_bFreedFilled = false;
static DWORD_PTR InspectingManager(int nOp, TBlockInfo* pInfo, DWORD) {
  BYTE* pSys = reinterpret_cast<BYTE*>(pInfo->dwSysBlock);
  if (nOp == 0) return reinterpret_cast<DWORD_PTR>(pSys);
  if (nOp == 2) {
    s_bFreedFilled = AllBytes(pSys + 4, 0xDD, pInfo->dwSize);
    SysFree(pSys - MEM_SYS_PAD);
  }
  return 0;
}

TEST(TrackedMemory, FreedMemoryReadsDD) {
  DWORD h = HANDLE_ALLOC(8);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  memset(p, 0x11, 8);
  HANDLE_UNLOCK(h);
  g_pHandleInfo[h - 1].pfnManager = &InspectingManager;
  s_bFreedFilled = false;
  HANDLE_FREE(h);
  EXPECT_TRUE(s_bFreedFilled);
  EXPECT_FALSE(MemIsHandle(h, 0));
}

TEST(TrackedMemory, DamageCaughtAtFreeReallocLockAndUnlock) {
  AssertCatcher catcher;
  BYTE* p = static_cast<BYTE*>(MEM_ALLOC(16));
  p[16] = 0;  // one byte past the block
  EXPECT_FALSE(MemCheckAll());
  EXPECT_EQ(catcher.Count(), 0u);
  MEM_FREE(p);
  EXPECT_TRUE(catcher.Fired("!IsDamaged(p, dwSize)"));
  EXPECT_TRUE(MemCheckAll());
  catcher.Clear();
  p = static_cast<BYTE*>(MEM_ALLOC(16));
  p[-1] = 0;  // the leading guard
  p = static_cast<BYTE*>(MEM_REALLOC(p, 32));
  EXPECT_TRUE(catcher.Fired("!IsDamaged(p, dwSize)"));
  ASSERT_NE(p, nullptr);
  p[-1] = 0xFD;
  catcher.Clear();
  MEM_FREE(p);
  EXPECT_EQ(catcher.Count(), 0u);
  DWORD h = HANDLE_ALLOC(8);
  p = static_cast<BYTE*>(HANDLE_LOCK(h));
  EXPECT_EQ(catcher.Count(), 0u);
  p[8] = 1;
  HANDLE_UNLOCK(h);
  EXPECT_EQ(catcher.Count(), 1u);
  p = static_cast<BYTE*>(HANDLE_LOCK(h));
  EXPECT_EQ(catcher.Count(), 2u);
  p[8] = 0xFD;
  HANDLE_UNLOCK(h);
  EXPECT_EQ(catcher.Count(), 2u);
  HANDLE_FREE(h);
}

TEST(TrackedMemory, MisusedPointerBlocksAssertAndGoOn) {
  AssertCatcher catcher;
  void* p = MemNew(8);
  MemFree(p);  // a `new` block released as a plain one
  EXPECT_TRUE(catcher.Fired("bIsObject == g_bDeleting"));
  EXPECT_FALSE(MemIsPtr(p, 0));  // and still freed
  catcher.Clear();
  void* q = MEM_ALLOC(8);
  MemDelete(q);
  EXPECT_TRUE(catcher.Fired("bIsObject == g_bDeleting"));
  EXPECT_FALSE(g_bDeleting);
  // Only plain blocks reallocate.
  p = MemNew(8);
  EXPECT_EQ(MEM_REALLOC(p, 16), nullptr);
  EXPECT_TRUE(catcher.Fired("StrCmp(bi.pchAllocFile, \"new\") && StrCmp(bi.pchAllocFile, \"obj\")"));
  MemDelete(p);
  // An unknown pointer is left alone.
  static BYTE s_abBlock[16];
  MemFree(s_abBlock + 4);
  EXPECT_TRUE(catcher.Fired("lPos != -1"));
  catcher.Clear();
  MemFree(nullptr);
  EXPECT_TRUE(catcher.Fired("p"));
}

TEST(Handles, ValuesStartAtOneAndHighestFreeShrinks) {
  // Fill any holes earlier tests left, so that new handles are appended.
  DWORD ahFill[1000];
  int nFill = 0;
  DWORD dwCount = g_dwHandleInfoCount;
  while (nFill < 1000) {
    ahFill[nFill++] = HANDLE_ALLOC(1);
    if (g_dwHandleInfoCount != dwCount) break;
  }
  dwCount = g_dwHandleInfoCount;
  DWORD h1 = HANDLE_ALLOC(4);
  DWORD h2 = HANDLE_ALLOC(4);
  DWORD h3 = HANDLE_ALLOC(4);
  EXPECT_GE(h1, 1u);
  EXPECT_EQ(h2, h1 + 1);
  EXPECT_EQ(h3, h2 + 1);
  EXPECT_EQ(g_dwHandleInfoCount, dwCount + 3);
  HANDLE_FREE(h2);  // a hole below the highest
  EXPECT_EQ(g_dwHandleInfoCount, dwCount + 3);
  HANDLE_FREE(h3);  // the highest: the count shrinks by one, the hole stays
  EXPECT_EQ(g_dwHandleInfoCount, dwCount + 2);
  DWORD h4 = HANDLE_ALLOC(4);
  EXPECT_EQ(h4, h2);  // the hole is reused, so handle values come back
  HANDLE_FREE(h4);
  HANDLE_FREE(h1);
  while (nFill > 0) HANDLE_FREE(ahFill[--nFill]);
}

TEST(Handles, LockCountingLockedMemoryAndItsLimit) {
  DWORD h = HANDLE_ALLOC(40);
  DWORD dwLocked = g_dwHLockedMem;
  EXPECT_EQ(HandleGetData(h), nullptr);
  BYTE* p1 = static_cast<BYTE*>(HANDLE_LOCK(h));
  BYTE* p2 = static_cast<BYTE*>(HANDLE_LOCK(h));
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(HandleGetLockCount(h), 2);
  EXPECT_EQ(g_dwHLockedMem, dwLocked + 40);  // counted once
  EXPECT_EQ(static_cast<BYTE*>(HandleGetData(h)), p1 - 4);
  EXPECT_TRUE(MemIsRange(p1, 40));
  HANDLE_UNLOCK(h);
  EXPECT_EQ(HandleGetLockCount(h), 1);
  EXPECT_EQ(g_dwHLockedMem, dwLocked + 40);
  HANDLE_UNLOCK(h);
  EXPECT_EQ(HandleGetLockCount(h), 0);
  EXPECT_EQ(g_dwHLockedMem, dwLocked);
  EXPECT_EQ(HandleGetData(h), nullptr);
  EXPECT_FALSE(MemIsRange(p1, 40));  // unlocked handle memory is not a valid range
  // The locked-memory limit refuses the first lock.
  LimitGuard guard(&g_dwHLockedLimit);
  g_dwHLockedLimit = g_dwHLockedMem + 39;
  EXPECT_EQ(HANDLE_LOCK(h), nullptr);
  g_dwHLockedLimit = g_dwHLockedMem + 40;
  EXPECT_NE(HANDLE_LOCK(h), nullptr);
  HANDLE_UNLOCK(h);
  HANDLE_FREE(h);
}

TEST(Handles, ReallocKeepsTheOldPartAndGuardsTheNewEnd) {
  DWORD h = HANDLE_ALLOC(4);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  memcpy(p, "abcd", 4);
  HANDLE_UNLOCK(h);
  EXPECT_TRUE(HANDLE_REALLOC(h, 4000));
  p = static_cast<BYTE*>(HANDLE_LOCK(h));
  EXPECT_EQ(memcmp(p, "abcd", 4), 0);
  EXPECT_TRUE(AllBytes(p + 4000, 0xFD, 4));
  HANDLE_UNLOCK(h);
  EXPECT_TRUE(MemIsHandle(h, 4000));
  HANDLE_FREE(h);
}

TEST(TrackedMemory, ReallocToZeroAssertsAndLeavesAnEmptyGuardedBlock) {
  // A size of 0 is asserted, but the block is still resized: it keeps its two guards around no
  // data, is counted as 0 bytes, and is released without a further assertion.
  AssertCatcher catcher;
  BYTE* p = static_cast<BYTE*>(MEM_ALLOC(12));
  DWORD h = HANDLE_ALLOC(12);
  ASSERT_TRUE(p && h);
  const DWORD dwPtrUsed = g_dwPtrMemUsed, dwHandleUsed = g_dwHandleMemUsed;
  BYTE* q = static_cast<BYTE*>(MEM_REALLOC(p, 0));
  ASSERT_NE(q, nullptr);
  EXPECT_TRUE(AllBytes(q - 4, 0xFD, 8));
  EXPECT_EQ(g_dwPtrMemUsed, dwPtrUsed - 12);
  EXPECT_TRUE(HANDLE_REALLOC(h, 0));
  EXPECT_EQ(g_dwHandleMemUsed, dwHandleUsed - 12);
  EXPECT_EQ(AssertedExprs(catcher), std::vector<std::string>({"dwSize", "dwNewSize"}));
  catcher.Clear();
  BYTE* pLocked = static_cast<BYTE*>(HANDLE_LOCK(h));
  ASSERT_NE(pLocked, nullptr);
  EXPECT_TRUE(AllBytes(pLocked - 4, 0xFD, 8));
  HANDLE_UNLOCK(h);
  EXPECT_TRUE(MemCheckAll());
  MEM_FREE(q);
  HANDLE_FREE(h);
  EXPECT_EQ(catcher.Count(), 0u);
  EXPECT_EQ(g_dwPtrMemUsed, dwPtrUsed - 12);
  EXPECT_EQ(g_dwHandleMemUsed, dwHandleUsed - 12);
}

TEST(LeakReport, PointerBlockLineAndBytes) {
  DebugCapture capture;
  EXPECT_FALSE(MemReportLeaks());  // nothing alive between tests
  EXPECT_TRUE(capture.Text().empty());
  char* p = static_cast<char*>(MemAlloc(20, "leaky.cpp", 42));
  memcpy(p, "LEAK\x01\x7F\x80 z", 9);
  EXPECT_TRUE(MemReportLeaks());
  EXPECT_EQ(capture.Text(),
            "Detected memory leaks! Dumping objects:\n"
            "-> Pointer, Size: 20, Allocated: leaky.cpp(42)\n"
            "  4C 45 41 4B 01 7F 80 20 7A CD CD CD CD CD CD CD LEAK.\x7F. z.......\n");
  MEM_FREE(p);
}

TEST(LeakReport, ReallocatedLockedHandleAndDamage) {
  DebugCapture capture;
  DWORD h = HandleAlloc(3, "h.cpp", 5);
  EXPECT_TRUE(HandleReAlloc(h, 2, "r.cpp", 6));
  BYTE* p = static_cast<BYTE*>(HandleLock(h, "l.cpp", 7));
  p[0] = 'A';
  p[1] = 'B';
  EXPECT_TRUE(MemReportLeaks());
  EXPECT_EQ(
      capture.Text(),
      "Detected memory leaks! Dumping objects:\n"
      "-> Handle, Size: 2, Allocated: h.cpp(5), Reallocated: r.cpp(6), Locked: l.cpp(7), Lock count: 1\n"
      "  41 42 AB\n");
  HANDLE_UNLOCK(h);
  HANDLE_FREE(h);

  capture.Clear();
  char* q = static_cast<char*>(MemAlloc(1, "d.cpp", 9));
  q[1] = 0;  // damages the trailing guard
  EXPECT_FALSE(MemCheckAll());
  EXPECT_EQ(capture.Text(),
            "Detected memory damage! Dumping objects:\n"
            "-> DAMAGED Pointer, Size: 1, Allocated: d.cpp(9)\n"
            "  CD .\n");
  q[1] = (char)0xFD;
  MEM_FREE(q);
}

TEST(LeakReport, NewBlocksAndObjects) {
  DebugCapture capture;
  void* pNew = MemNew(3);
  memcpy(pNew, "xyz", 3);
  CLeakProbe* pObj = new CLeakProbe;
  ASSERT_NE(pObj, nullptr);
  EXPECT_TRUE(MemReportLeaks());
  std::string expected = std::string(
                             "Detected memory leaks! Dumping objects:\n"
                             "-> Pointer allocated with new, Size: 3\n"
                             "  78 79 7A xyz\n"
                             "-> CObject, Size: ") +
                         std::to_string(sizeof(CLeakProbe)) + "\n[CLeakProbe]\n";
  EXPECT_EQ(capture.Text(), expected);
  MemDelete(pNew);
  delete pObj;
}

TEST(BreakFlags, SetOnLiveBlocksAssertOnOthers) {
  AssertCatcher catcher;
  void* p = MEM_ALLOC(4);
  MemSetBreak(p, 0);  // no flag: nothing traps
  EXPECT_EQ(catcher.Count(), 0u);
  static BYTE s_ab[8];
  MemSetBreak(s_ab + 4, MEM_BREAK_FREE);
  EXPECT_TRUE(catcher.Fired("lNo != -1"));
  catcher.Clear();
  HandleSetBreak(g_dwHandleInfoCount + 5, MEM_BREAK_LOCK);
  EXPECT_TRUE(catcher.Fired("dwNo < g_dwHandleInfoCount"));
  MEM_FREE(p);
}

#if !defined(_WIN32)
TEST(BreakFlagsDeath, FreeFlagTraps) {
  EXPECT_DEATH(
      {
        void* p = MEM_ALLOC(4);
        MemSetBreak(p, MEM_BREAK_FREE);
        MEM_FREE(p);
      },
      "");
}
#endif

// ---------------------------------------------------------------------------------------------
// Counter arithmetic, table sizes, handle misuse and raw handles.

// Bytes the runtime's allocator holds for a block: exact on Windows and under the address
// sanitizer, rounded up by at most a few bytes by glibc.
#if defined(_WIN32)
static size_t BlockBytes(void* p) { return _msize(p); }
#define SETUP_HAVE_BLOCK_BYTES 1
#elif defined(__GLIBC__)
static size_t BlockBytes(void* p) { return malloc_usable_size(p); }
#define SETUP_HAVE_BLOCK_BYTES 1
#endif

namespace {

// True when no tracked or raw block is alive, so that every record of both tables is a hole.
bool TablesAreAllHoles() {
  for (DWORD i = 0; i < g_dwPtrInfoCount; i++)
    if (g_pPtrInfo[i].dwSysBlock) return false;
  for (DWORD i = 0; i < g_dwHandleInfoCount; i++)
    if (g_pHandleInfo[i].dwSysBlock) return false;
  return true;
}

}  // namespace

TEST(TrackedMemory, RecordIs44BytesOnThe32BitBuild) {
  // Six pointer-sized fields, four 32-bit ones and four bytes, with no gaps.
  EXPECT_EQ(sizeof(TBlockInfo), 6 * sizeof(void*) + 4 * 4 + 4);
  if (sizeof(void*) == 4) {
    EXPECT_EQ(sizeof(TBlockInfo), 44u);
  }
}

TEST(TrackedMemory, SizesOfTwoGigabytesAreMeasuredAgainstTheLimit) {
  AssertCatcher catcher;
  const DWORD dwUsed = g_dwNewMemUsed, dwMax = g_dwMaxNewMemUsed, dwTotal = g_dwMemUsed;
  const DWORD dwMaxTotal = g_dwMaxMemUsed;
  DWORD dwLimit = g_dwNewMemUsed + 0x1F400;
  // 0x80000000 bytes arrive as a negative change; summed as 32-bit numbers they still pass
  // a budget of 128,000 bytes by far.
  BOOL bMoved = UpdateUsed(&g_dwNewMemUsed, &g_dwMaxNewMemUsed, &dwLimit, (LONG)0x80000000u);
  EXPECT_FALSE(bMoved);
  EXPECT_TRUE(catcher.Fired("(LONG) dwUsed + lChange >= 0"));
  EXPECT_EQ(g_dwNewMemUsed, dwUsed);
  EXPECT_EQ(g_dwMemUsed, dwTotal);
  if (bMoved) {
    // Put the counters back so the rest of the suite still runs on sane numbers.
    g_dwNewMemUsed = dwUsed;
    g_dwMemUsed = dwTotal;
    g_dwMaxNewMemUsed = dwMax;
    g_dwMaxMemUsed = dwMaxTotal;
    return;  // the allocation below would really ask for 2 GiB
  }
  LimitGuard guard(&g_dwNewMemLimit);
  g_dwNewMemLimit = dwLimit;
  EXPECT_EQ(MemNew(0x80000000u), nullptr);
  EXPECT_EQ(g_dwNewMemUsed, dwUsed);
  EXPECT_EQ(g_dwMaxNewMemUsed, dwMax);
}

// A shrink below zero is refused under a limit; use past 2 GiB wraps in the signed checks.
TEST(TrackedMemory, CounterChecksWrapAt32Bits) {
  AssertCatcher catcher;
  DWORD dwUsed = 10, dwMax = 10, dwLimit = 1000;
  const DWORD dwTotal = g_dwMemUsed;
  // 10 - 20 wraps to nearly 4 GiB, which passes the limit: refused, nothing moves.
  EXPECT_FALSE(UpdateUsed(&dwUsed, &dwMax, &dwLimit, -20));
  EXPECT_TRUE(catcher.Fired("(LONG) dwUsed + lChange >= 0"));
  EXPECT_EQ(dwUsed, 10u);
  EXPECT_EQ(g_dwMemUsed, dwTotal);
  catcher.Clear();
  const DWORD dwMaxTotal = g_dwMaxMemUsed;
  dwUsed = dwMax = 0x7FFFFFF0;
  dwLimit = 0xFFFFFFFF;
  // Allowed by the limit; the signed view of the new total is negative, so it asserts.
  EXPECT_TRUE(UpdateUsed(&dwUsed, &dwMax, &dwLimit, 0x20));
  EXPECT_EQ(dwUsed, 0x80000010u);
  EXPECT_EQ(dwMax, 0x80000010u);
  EXPECT_TRUE(catcher.Fired("(LONG) dwUsed + lChange >= 0"));
  EXPECT_FALSE(catcher.Fired("(LONG) g_dwMemUsed + lChange >= 0"));
  // The overall count moved with it; put it back so the sum over the kinds holds again.
  EXPECT_EQ(g_dwMemUsed, dwTotal + 0x20);
  g_dwMemUsed = dwTotal;
  g_dwMaxMemUsed = dwMaxTotal;
}

TEST(TrackedMemory, TableGrowsByTheSizeRuleAndIsFreedWhenEmpty) {
  ASSERT_TRUE(TablesAreAllHoles());
  // Fill every hole, then go on until the count is one short of a whole step.
  std::vector<void*> blocks;
  DWORD dwTarget = (g_dwPtrInfoCount / 100 + 1) * 100 - 1;
  while (g_dwPtrInfoCount < dwTarget || blocks.size() < g_dwPtrInfoCount) {
    blocks.push_back(MEM_ALLOC(1));
    ASSERT_NE(blocks.back(), nullptr);
  }
  ASSERT_EQ(g_dwPtrInfoCount, dwTarget);
  // Each block took the first hole, so block i sits in record i.
  for (size_t i = 0; i < blocks.size(); i++) {
    ASSERT_EQ(g_pPtrInfo[i].dwSysBlock + 4, reinterpret_cast<DWORD_PTR>(blocks[i]));
  }
#if defined(SETUP_HAVE_BLOCK_BYTES)
  // n records take ((n / 100) + 1) * 100 records' worth of bytes: 99 fit in 100, 100 need 200.
  auto expectTableFor = [](DWORD n) {
    const size_t nWant = (n / 100 + 1) * 100 * sizeof(TBlockInfo), nBytes = BlockBytes(g_pPtrInfo);
    EXPECT_TRUE(nBytes >= nWant && nBytes < nWant + 64) << nBytes << " bytes for " << n << " records";
  };
  expectTableFor(dwTarget);
  blocks.push_back(MEM_ALLOC(1));
  ASSERT_EQ(g_dwPtrInfoCount, dwTarget + 1);
  expectTableFor(dwTarget + 1);
  // Freeing the last record shrinks by the same rule.
  MEM_FREE(blocks.back());
  blocks.pop_back();
  expectTableFor(dwTarget);
#endif
  // A hole below the last record keeps the count, and the next block takes it.
  const DWORD dwFull = g_dwPtrInfoCount;
  MEM_FREE(blocks[1]);
  EXPECT_EQ(g_dwPtrInfoCount, dwFull);
  blocks[1] = MEM_ALLOC(4);
  EXPECT_EQ(g_pPtrInfo[1].dwSysBlock + 4, reinterpret_cast<DWORD_PTR>(blocks[1]));
  EXPECT_EQ(g_dwPtrInfoCount, dwFull);
  // Released from the top down, every free is of the last record: the count falls by one
  // each time and the table goes away with the last record.
  while (!blocks.empty()) {
    DWORD dwCount = g_dwPtrInfoCount;
    MEM_FREE(blocks.back());
    blocks.pop_back();
    ASSERT_EQ(g_dwPtrInfoCount, dwCount - 1);
  }
  EXPECT_EQ(g_dwPtrInfoCount, 0u);
  EXPECT_EQ(g_pPtrInfo, nullptr);
}

TEST(Handles, BadValuesAndFreeRecordsAssertApart) {
  AssertCatcher catcher;
  DWORD h1 = HANDLE_ALLOC(4);
  DWORD h2 = HANDLE_ALLOC(4);
  HANDLE_FREE(h1);  // a free record below a live one
  ASSERT_TRUE(MemIsHandle(h2, 4));
  ASSERT_EQ(catcher.Count(), 0u);
  const DWORD dwPast = g_dwHandleInfoCount + 1;
  // Unlock, reallocation and free say "0" for a value outside the table, "pInfo" for a free
  // record; lock and the lock count say "0" for both.
  HANDLE_UNLOCK(dwPast);
  HANDLE_UNLOCK(0);
  HANDLE_UNLOCK(h1);
  EXPECT_FALSE(HANDLE_REALLOC(dwPast, 8));
  EXPECT_FALSE(HANDLE_REALLOC(h1, 8));
  HANDLE_FREE(dwPast);
  HANDLE_FREE(h1);
  EXPECT_EQ(HANDLE_LOCK(0), nullptr);
  EXPECT_EQ(HANDLE_LOCK(dwPast), nullptr);
  EXPECT_EQ(HANDLE_LOCK(h1), nullptr);
  EXPECT_EQ(HandleGetLockCount(h1), 0);
  EXPECT_EQ(AssertedExprs(catcher),
            std::vector<std::string>({"0", "0", "pInfo", "0", "pInfo", "0", "pInfo", "0", "0", "0", "0"}));
  HANDLE_FREE(h2);
}

TEST(Handles, FreeWhileLockedLeavesTheLockedCount) {
  AssertCatcher catcher;
  DWORD h = HANDLE_ALLOC(24);
  const DWORD dwLocked = g_dwHLockedMem;
  ASSERT_NE(HANDLE_LOCK(h), nullptr);
  EXPECT_EQ(g_dwHLockedMem, dwLocked + 24);
  const DWORD dwHandleUsed = g_dwHandleMemUsed;
  HANDLE_FREE(h);
  EXPECT_TRUE(catcher.Fired("!pInfo->btRefCon"));
  EXPECT_FALSE(MemIsHandle(h, 0));
  // The bytes are released, but no unlock took the block off the locked count.
  EXPECT_EQ(g_dwHandleMemUsed, dwHandleUsed - 24);
  EXPECT_EQ(g_dwHLockedMem, dwLocked + 24);
  g_dwHLockedMem = dwLocked;  // keep the counter meaningful for the tests that follow
}

TEST(Handles, FreeRefusedByALoweredLimitKeepsTheCountWithoutAssertion) {
  // A pointer free whose counter step is refused asserts "0"; a handle free in the same case
  // says nothing. Both release the block and leave the counter where it was.
  AssertCatcher catcher;
  BYTE* p = static_cast<BYTE*>(MEM_ALLOC(100));
  BYTE* pKeep = static_cast<BYTE*>(MEM_ALLOC(100));
  DWORD h = HANDLE_ALLOC(100);
  DWORD hKeep = HANDLE_ALLOC(100);
  ASSERT_TRUE(p && pKeep && h && hKeep);
  const DWORD dwPtrUsed = g_dwPtrMemUsed, dwHandleUsed = g_dwHandleMemUsed;
  {
    LimitGuard ptrLimit(&g_dwPtrMemLimit);
    LimitGuard handleLimit(&g_dwHandleMemLimit);
    g_dwPtrMemLimit = 0;
    g_dwHandleMemLimit = 0;
    MEM_FREE(p);
    EXPECT_EQ(AssertedExprs(catcher), std::vector<std::string>({"0"}));
    catcher.Clear();
    HANDLE_FREE(h);
    EXPECT_EQ(catcher.Count(), 0u);
  }
  EXPECT_FALSE(MemIsPtr(p, 0));
  EXPECT_FALSE(MemIsHandle(h, 0));
  EXPECT_EQ(g_dwPtrMemUsed, dwPtrUsed);
  EXPECT_EQ(g_dwHandleMemUsed, dwHandleUsed);
  MEM_FREE(pKeep);
  HANDLE_FREE(hKeep);
  g_dwPtrMemUsed -= 100;
  g_dwHandleMemUsed -= 100;
  g_dwMemUsed -= 200;
}

TEST(Handles, RawHandlesUncountedAndCrossedWithTrackedStaySafe) {
  // Raw handles are not counted and have no guards. A raw handle released or resized by the tracked calls,
  // and a tracked one released by the raw call: each block goes back to the runtime from where it came,
  // without guard writes past a raw block.
  const DWORD dwUsed = g_dwMemUsed, dwHandleUsed = g_dwHandleMemUsed;
  DWORD hRaw = RawAlloc(6);
  ASSERT_NE(hRaw, 0u);
  EXPECT_EQ(g_dwMemUsed, dwUsed);
  BYTE* p = static_cast<BYTE*>(RawLock(hRaw));
  ASSERT_NE(p, nullptr);
  memset(p, 0x42, 6);
  RawUnlock(hRaw);
  EXPECT_TRUE(RawReAlloc(hRaw, 8));
  p = static_cast<BYTE*>(RawLock(hRaw));
  EXPECT_TRUE(AllBytes(p, 0x42, 6));
  RawUnlock(hRaw);
  EXPECT_EQ(g_dwMemUsed, dwUsed);
  EXPECT_TRUE(HANDLE_REALLOC(hRaw, 10));
  EXPECT_TRUE(MemIsHandle(hRaw, 10));
  HANDLE_FREE(hRaw);
  EXPECT_FALSE(MemIsHandle(hRaw, 0));
  EXPECT_EQ(g_dwHandleMemUsed, dwHandleUsed);

  DWORD h = HANDLE_ALLOC(6);
  EXPECT_FALSE(RawReAlloc(h, 100));  // would cut the trailing guard off
  EXPECT_TRUE(MemIsHandle(h, 6));
  EXPECT_TRUE(MemCheckAll());
  RawFree(h);
  EXPECT_FALSE(MemIsHandle(h, 0));
  // The raw layer counts nothing, so the tracked bytes stay on the counter.
  EXPECT_EQ(g_dwHandleMemUsed, dwHandleUsed + 6);
  g_dwHandleMemUsed -= 6;
  g_dwMemUsed -= 6;
}

TEST(LeakReport, UnlockedAndRawHandles) {
  DebugCapture capture;
  DWORD h = HandleAlloc(5, "u.cpp", 11);
  BYTE* p = static_cast<BYTE*>(HandleLock(h, "k.cpp", 12));
  memcpy(p, "hi\n\x01~", 5);
  HANDLE_UNLOCK(h);
  DWORD hRaw = RawAlloc(3);
  p = static_cast<BYTE*>(RawLock(hRaw));
  memcpy(p, "raw", 3);
  RawUnlock(hRaw);
  EXPECT_TRUE(MemReportLeaks());
  // An unlocked handle is reached by a raw lock and has no lock part; a raw handle has no
  // name, only its bytes.
  EXPECT_EQ(capture.Text(),
            "Detected memory leaks! Dumping objects:\n"
            "-> Handle, Size: 5, Allocated: u.cpp(11)\n"
            "  68 69 0A 01 7E hi..~\n"
            "-> \n"
            "  72 61 77 raw\n");
  EXPECT_EQ(HandleGetLockCount(h), 0);  // the report's raw lock was released
  EXPECT_EQ(HandleGetData(h), nullptr);
  HANDLE_FREE(h);
  RawFree(hRaw);
}
