// Tests of the resource cache: sharing, keeping and evicting released objects, orphans left by
// a Save, the policy, and the global locator over real files.
#include <gtest/gtest.h>
#include <string.h>

#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "files/rlcache.h"
#include "files/winfile.h"
#include "graphics/bmpfile.h"
#include "graphics/gfxtest.h"
#include "graphics/sfont.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

// ---------------------------------------------------------------------------------------------
// A lower locator that makes plain records and logs every call, with a policy that reads the
// cost and flags from the record.

#define FAKE_TYPE 20      // cached by the fake policy
#define FAKE_UNCACHED 21  // refused by the fake policy

struct FakeObj {
  std::string name;
  DWORD dwSize;
  WORD wFlags;
  int nReleased = 0;
};

BOOL FakePolicy(DWORD dwType, void* pObject, DWORD* pdwSize, WORD* pwFlags) {
  if (dwType != FAKE_TYPE) return FALSE;
  const FakeObj* p = static_cast<const FakeObj*>(pObject);
  *pdwSize = p->dwSize;
  *pwFlags = p->wFlags;
  return TRUE;
}

class CFakeLocator : public CResLocator {
 public:
  // The next object made for pchLocation costs dwSize and has wFlags.
  void Cost(const std::string& location, DWORD dwSize, WORD wFlags = 0) {
    m_costs.push_back({location, dwSize, wFlags});
  }
  ERR Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override {
    log.push_back(std::string("Load ") + pLocation);
    if (failWith) return failWith;
    DWORD dwSize = 10;
    WORD wFlags = 0;
    for (auto& c : m_costs)
      if (c.location == pLocation) dwSize = c.dwSize, wFlags = c.wFlags;
    objs.push_back(FakeObj{std::string(pLocation) + "#" + std::to_string(objs.size()), dwSize, wFlags});
    *static_cast<void**>(pBuf) = &objs.back();
    return 0;
  }
  ERR Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override {
    log.push_back(std::string("Save ") + pLocation);
    return 0;
  }
  ERR Release(DWORD dwType, void* pBuf) override {
    void** pp = static_cast<void**>(pBuf);
    FakeObj* p = static_cast<FakeObj*>(*pp);
    log.push_back("Release " + (p ? p->name : std::string("null")));
    if (p) p->nReleased++;
    *pp = nullptr;
    return 0;
  }
  // The released objects, in order.
  std::vector<std::string> Released() const {
    std::vector<std::string> v;
    for (auto& s : log)
      if (s.rfind("Release ", 0) == 0) v.push_back(s.substr(8));
    return v;
  }
  int Loads() const {
    int n = 0;
    for (auto& s : log) n += s.rfind("Load ", 0) == 0;
    return n;
  }

  std::vector<std::string> log;
  std::deque<FakeObj> objs;  // addresses stay put
  ERR failWith = 0;

 private:
  struct CostEntry {
    std::string location;
    DWORD dwSize;
    WORD wFlags;
  };
  std::vector<CostEntry> m_costs;
};

FakeObj* Obj(void* p) { return static_cast<FakeObj*>(p); }

// The locations of the unused items, oldest first.
std::vector<std::string> FreeList(CResCache& cache) {
  std::vector<std::string> v;
  for (void* p = cache.m_FreeList.GetNext(nullptr); p; p = cache.m_FreeList.GetNext(p))
    v.push_back(static_cast<TResItem*>(p)->szLocation);
  return v;
}

using Strings = std::vector<std::string>;

// Loads through the cache and returns the object (null on failure, which the check reports).
void* Get(CResLocator& cache, const char* pchLocation, DWORD dwType = FAKE_TYPE) {
  void* p = nullptr;
  EXPECT_EQ(0u, cache.Load(dwType, pchLocation, &p, 0)) << pchLocation;
  return p;
}

// Releases through the cache. The caller's pointer is cleared at the last release only.
void Drop(CResLocator& cache, void** pp, DWORD dwType = FAKE_TYPE) {
  EXPECT_EQ(0u, cache.Release(dwType, pp));
}

class ResCacheMem : public MemBalance {};

// ---------------------------------------------------------------------------------------------

TEST_F(ResCacheMem, TwoLoadsShareOneObjectAndTheLastReleaseKeepsIt) {
  CFakeLocator lower;
  lower.Cost("a", 100);
  {
    CResCache cache(&lower, 16, 1000, FakePolicy);
    void *p1 = Get(cache, "a"), *p2 = Get(cache, "a");
    EXPECT_EQ(p1, p2);
    EXPECT_EQ(1, lower.Loads());
    TResItem* pItem = cache.FindLocation(FAKE_TYPE, "a");
    ASSERT_NE(nullptr, pItem);
    EXPECT_EQ(2, pItem->wLockCount);
    EXPECT_EQ(pItem, cache.Find(FAKE_TYPE, reinterpret_cast<DWORD_PTR>(p1)));
    EXPECT_EQ(nullptr, cache.Find(FAKE_TYPE + 1, reinterpret_cast<DWORD_PTR>(p1)));
    EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE + 1, "a"));

    // One release: still in use, not on the list, not counted.
    Drop(cache, &p2);
    EXPECT_EQ(p1, p2);  // left as it was while a user remains
    EXPECT_EQ(1, pItem->wLockCount);
    EXPECT_EQ(0u, cache.m_dwMem);
    EXPECT_TRUE(FreeList(cache).empty());

    // The last release keeps it.
    Drop(cache, &p1);
    EXPECT_EQ(nullptr, p1);
    EXPECT_EQ(0, pItem->wLockCount);
    EXPECT_EQ(100u, cache.m_dwMem);
    EXPECT_EQ(Strings{"a"}, FreeList(cache));
    EXPECT_TRUE(lower.Released().empty());

    // A new load gets the same object and takes it off the list.
    void* p3 = Get(cache, "a");
    EXPECT_EQ(&lower.objs[0], p3);
    EXPECT_EQ(1, lower.Loads());
    EXPECT_EQ(0u, cache.m_dwMem);
    EXPECT_TRUE(FreeList(cache).empty());
    EXPECT_EQ(1, pItem->wLockCount);
    Drop(cache, &p3);
  }
  // The destructor gives back what the list held.
  EXPECT_EQ(Strings{"a#0"}, lower.Released());
}

TEST(ResCache, LocationsAreExactTextsPerTypeAndLongOnesAreNotCached) {
  CFakeLocator lower;
  CResCache cache(&lower, 7, 1000, FakePolicy);
  void *pa = Get(cache, "dir/a.bmp"), *pA = Get(cache, "dir/A.bmp"), *pa2 = Get(cache, "dir/a.bmp#1");
  EXPECT_NE(pa, pA);
  EXPECT_NE(pa, pa2);
  EXPECT_EQ(3u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(3u, cache.m_DataTable.m_dwCount);
  // A location one character too long for the item is loaded anew each time.
  const std::string exact(RESITEM_LOCATION - 1, 'k'), longer(RESITEM_LOCATION, 'k');
  void *p1 = Get(cache, exact.c_str()), *p2 = Get(cache, exact.c_str());
  void *p3 = Get(cache, longer.c_str()), *p4 = Get(cache, longer.c_str());
  EXPECT_EQ(p1, p2);
  EXPECT_NE(p3, p4);
  EXPECT_EQ(6, lower.Loads());
  Drop(cache, &p3);
  Drop(cache, &p4);
  EXPECT_EQ(2u, lower.Released().size());
  for (void** pp : {&pa, &pA, &pa2, &p1, &p2}) Drop(cache, pp);
}

TEST(ResCache, EvictsLeastRecentlyReleasedFirst) {
  CFakeLocator lower;
  for (const char* n : {"a", "b", "c", "d"}) lower.Cost(n, 400);
  lower.Cost("e", 700);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *pa = Get(cache, "a"), *pb = Get(cache, "b"), *pc = Get(cache, "c");
  Drop(cache, &pa);
  Drop(cache, &pc);
  EXPECT_EQ(800u, cache.m_dwMem);
  EXPECT_TRUE(lower.Released().empty());
  // b would pass the limit: the oldest unused one, a, goes.
  Drop(cache, &pb);
  EXPECT_EQ(Strings{"a#0"}, lower.Released());
  EXPECT_EQ((Strings{"c", "b"}), FreeList(cache));
  EXPECT_EQ(800u, cache.m_dwMem);
  EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "a"));

  // Using c again moves it to the end when it comes back, so b is now the oldest.
  pc = Get(cache, "c");
  EXPECT_EQ(400u, cache.m_dwMem);
  void* pd = Get(cache, "d");
  Drop(cache, &pd);
  Drop(cache, &pc);
  EXPECT_EQ((Strings{"a#0", "b#1"}), lower.Released());
  EXPECT_EQ((Strings{"d", "c"}), FreeList(cache));

  // A large one clears as many as it needs, oldest first.
  void* pe = Get(cache, "e");
  Drop(cache, &pe);
  EXPECT_EQ((Strings{"a#0", "b#1", "d#3", "c#2"}), lower.Released());
  EXPECT_EQ(Strings{"e"}, FreeList(cache));
  EXPECT_EQ(700u, cache.m_dwMem);
  EXPECT_EQ(1u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(1u, cache.m_DataTable.m_dwCount);

  // An evicted location loads anew.
  pa = Get(cache, "a");
  EXPECT_EQ("a#5", Obj(pa)->name);
  Drop(cache, &pa);
}

TEST(ResCache, ObjectsInUseAreNeitherCountedNorEvicted) {
  CFakeLocator lower;
  lower.Cost("big", 900);
  lower.Cost("x", 400);
  lower.Cost("y", 700);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *pBig = Get(cache, "big"), *px = Get(cache, "x"), *py = Get(cache, "y");
  Drop(cache, &px);
  EXPECT_EQ(400u, cache.m_dwMem);
  Drop(cache, &py);
  EXPECT_EQ(Strings{"x#1"}, lower.Released());
  EXPECT_EQ(700u, cache.m_dwMem);
  Drop(cache, &pBig);
  // 900 + 700 passes the limit: y goes, being older.
  EXPECT_EQ((Strings{"x#1", "y#2"}), lower.Released());
  EXPECT_EQ(900u, cache.m_dwMem);
}

TEST(ResCache, CostAndFlagsDecideWhatIsKept) {
  CFakeLocator lower;
  lower.Cost("at", 1000);
  lower.Cost("below", 999);
  lower.Cost("n", 5, RESITEM_NOKEEP);
  lower.Cost("z", 0);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  // At the limit: freed at the last release, not before.
  void *p1 = Get(cache, "at"), *p2 = Get(cache, "at");
  EXPECT_EQ(p1, p2);
  Drop(cache, &p2);
  EXPECT_TRUE(lower.Released().empty());
  Drop(cache, &p1);
  EXPECT_EQ(nullptr, p1);
  EXPECT_EQ(Strings{"at#0"}, lower.Released());
  EXPECT_EQ(0u, cache.m_dwMem);
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
  // No-keep: shared while in use, freed at the last release.
  p1 = Get(cache, "n");
  p2 = Get(cache, "n");
  EXPECT_EQ(2, lower.Loads());
  Drop(cache, &p1);
  Drop(cache, &p2);
  EXPECT_EQ((Strings{"at#0", "n#1"}), lower.Released());
  EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "n"));
  EXPECT_EQ(0u, cache.m_dwMem);
  // A cost of nothing counts as one; one below the limit is kept.
  p1 = Get(cache, "z");
  EXPECT_EQ(1u, cache.FindLocation(FAKE_TYPE, "z")->dwSize);
  Drop(cache, &p1);
  EXPECT_EQ(1u, cache.m_dwMem);
  p1 = Get(cache, "below");
  Drop(cache, &p1);
  EXPECT_EQ(2u, lower.Released().size());
}

TEST(ResCache, LocationOnlyItemGoesOnTheListAtOnce) {
  CFakeLocator lower;
  lower.Cost("loc", 30, RESITEM_LOCONLY);
  {
    CResCache cache(&lower, 16, 1000, FakePolicy);
    void* p = Get(cache, "loc");
    ASSERT_NE(nullptr, p);
    TResItem* pItem = cache.FindLocation(FAKE_TYPE, "loc");
    ASSERT_NE(nullptr, pItem);
    EXPECT_EQ(0, pItem->wLockCount);
    EXPECT_EQ(30u, cache.m_dwMem);
    EXPECT_EQ(Strings{"loc"}, FreeList(cache));
    // Never in the object table.
    EXPECT_EQ(nullptr, cache.Find(FAKE_TYPE, reinterpret_cast<DWORD_PTR>(p)));
    EXPECT_EQ(1u, cache.m_LocTable.m_dwCount);
    EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
  }
  EXPECT_EQ(Strings{"loc#0"}, lower.Released());
}

TEST(ResCache, WhatTheCacheDoesNotHoldPassesThrough) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  // A type the policy refuses.
  void *p1 = Get(cache, "u", FAKE_UNCACHED), *p2 = Get(cache, "u", FAKE_UNCACHED);
  EXPECT_NE(p1, p2);
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  Drop(cache, &p1, FAKE_UNCACHED);
  Drop(cache, &p2, FAKE_UNCACHED);
  EXPECT_EQ(nullptr, p1);
  EXPECT_EQ((Strings{"u#0", "u#1"}), lower.Released());
  // An object of a cached type that the cache never made.
  FakeObj stranger{"stranger", 1, 0};
  void* p = &stranger;
  Drop(cache, &p);
  EXPECT_EQ(1, stranger.nReleased);
  // Without a policy nothing is cached.
  CResCache bare(&lower, 16, 1000, nullptr);
  p = Get(bare, "a");
  EXPECT_EQ(0u, bare.m_LocTable.m_dwCount);
  Drop(bare, &p);
  EXPECT_EQ((Strings{"u#0", "u#1", "stranger", "a#2"}), lower.Released());
  // A failure below is returned and nothing is recorded.
  lower.failWith = 0x30000008;
  EXPECT_EQ(0x30000008u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
}

TEST(ResCache, BadArguments) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  EXPECT_EQ(ERR_BADPARAM, cache.Load(FAKE_TYPE, "a", nullptr, 0));  // without an assertion
  AssertCatcher catcher;
  void* p = nullptr;
  EXPECT_EQ(ERR_BADPARAM, cache.Load(FAKE_TYPE, nullptr, &p, 0));
  EXPECT_TRUE(catcher.Fired("pLocation"));
  EXPECT_EQ(0, lower.Loads());
  // Releasing an object nobody uses any more.
  p = Get(cache, "a");
  void* pCopy = p;
  Drop(cache, &p);
  catcher.Clear();
  EXPECT_EQ(ERR_BADPARAM, cache.Release(FAKE_TYPE, &pCopy));
  EXPECT_TRUE(catcher.Fired("p->wLockCount"));
  EXPECT_EQ(0, cache.FindLocation(FAKE_TYPE, "a")->wLockCount);
  EXPECT_EQ(10u, cache.m_dwMem);
  EXPECT_TRUE(lower.Released().empty());
}

TEST(ResCache, DestructorReleasesTheListOldestFirstAndKeepsTheLowerLocator) {
  CFakeLocator lower;
  {
    CResCache cache(&lower, 3, 1000, FakePolicy);
    void *pa = Get(cache, "a"), *pb = Get(cache, "b"), *pc = Get(cache, "c");
    Drop(cache, &pb);
    Drop(cache, &pa);
    Drop(cache, &pc);
    EXPECT_TRUE(lower.Released().empty());
  }
  EXPECT_EQ((Strings{"b#1", "a#0", "c#2"}), lower.Released());
  // The lower locator is alive and usable.
  void* p = nullptr;
  EXPECT_EQ(0u, lower.Load(FAKE_TYPE, "d", &p, 0));
}

// ---------------------------------------------------------------------------------------------
// Save drops the cached copy.

TEST(ResCacheSave, UnusedCopyIsReleasedBeforeTheSave) {
  CFakeLocator lower;
  lower.Cost("a", 100);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void* p = Get(cache, "a");
  Drop(cache, &p);
  FakeObj data{"data", 0, 0};
  EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "a", &data, 0));
  EXPECT_EQ((Strings{"Load a", "Release a#0", "Save a"}), lower.log);
  EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "a"));
  EXPECT_TRUE(FreeList(cache).empty());
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
  // The cost of the dropped copy stays counted.
  EXPECT_EQ(100u, cache.m_dwMem);
  p = Get(cache, "a");
  EXPECT_EQ("a#1", Obj(p)->name);
  Drop(cache, &p);
  // A location the cache doesn't hold just saves.
  lower.log.clear();
  EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "new", &data, 0));
  EXPECT_EQ(Strings{"Save new"}, lower.log);
}

TEST(ResCacheSave, CopyInUseBecomesAnOrphanWithAKeptSize) {
  CFakeLocator lower;
  lower.Cost("a", 100);
  lower.Cost("c", 200);
  AssertCatcher catcher;
  {
    CResCache cache(&lower, 16, 250, FakePolicy);
    void* pOld = Get(cache, "a");
    TResItem* pItem = cache.FindLocation(FAKE_TYPE, "a");
    FakeObj data{"data", 0, 0};
    EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "a", &data, 0));
    EXPECT_EQ((Strings{"Load a", "Save a"}), lower.log);
    EXPECT_EQ(RESITEM_DROPPED, pItem->wFlags & RESITEM_DROPPED);
    EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "a"));

    // A later load makes a new object; the old one is still its user's.
    void* pNew = Get(cache, "a");
    EXPECT_EQ("a#1", Obj(pNew)->name);
    EXPECT_EQ(0, Obj(pOld)->nReleased);

    // The orphan's last release: not on the list, not released, but its cost is counted.
    void* pCopy = pOld;
    Drop(cache, &pOld);
    EXPECT_EQ(nullptr, pOld);
    EXPECT_EQ(100u, cache.m_dwMem);
    EXPECT_TRUE(FreeList(cache).empty());
    EXPECT_EQ(0, Obj(pCopy)->nReleased);
    EXPECT_EQ(pItem, cache.Find(FAKE_TYPE, reinterpret_cast<DWORD_PTR>(pCopy)));

    Drop(cache, &pNew);
    EXPECT_EQ(200u, cache.m_dwMem);
    EXPECT_EQ(Strings{"a"}, FreeList(cache));
    EXPECT_EQ(0u, catcher.Count());

    // The kept 100 can't be trimmed away: c empties the list and the count stays too high.
    void* pc = Get(cache, "c");
    Drop(cache, &pc);
    EXPECT_TRUE(catcher.Fired("m_dwMem <= dwMem"));
    EXPECT_EQ(300u, cache.m_dwMem);
    EXPECT_EQ(Strings{"c"}, FreeList(cache));
    EXPECT_EQ((Strings{"a#1"}), lower.Released());
    catcher.Clear();
  }
  // The orphan stays in the object table to the end, so the counts differ.
  EXPECT_TRUE(catcher.Fired("m_LocTable.m_dwCount == m_DataTable.m_dwCount"));
  EXPECT_EQ((Strings{"a#1", "c#2"}), lower.Released());
  EXPECT_EQ(0, lower.objs[0].nReleased);
}

TEST(ResCacheSave, OrphanAtTheLimitIsReleasedAtOnce) {
  CFakeLocator lower;
  lower.Cost("a", 5000);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void* p = Get(cache, "a");
  EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "a", p, 0));
  Drop(cache, &p);
  EXPECT_EQ(Strings{"a#0"}, lower.Released());
  EXPECT_EQ(0u, cache.m_dwMem);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
}

// ---------------------------------------------------------------------------------------------
// The system's policy.

TEST(ResCachePolicy, CostsByType) {
  DWORD dwSize = 0;
  WORD wFlags = 0xFFFF;
  CBitmap* pBitmap = MakeBitmap(10, 3, BF_8BIT, BL_FORWARD, 0);
  ASSERT_TRUE(ResCachePolicy(RES_TYPE_BITMAP, pBitmap, &dwSize, &wFlags));
  EXPECT_EQ(12u * 3u + 26u, dwSize);  // rows of 10 bytes padded to 12
  EXPECT_EQ(0, wFlags);
  delete pBitmap;

  CImageFont font;
  font.m_Header.nMaxWidth = 9;
  font.m_Header.nHeight = 14;
  font.m_Header.nGlyphs = 95;
  wFlags = 0xFFFF;
  ASSERT_TRUE(ResCachePolicy(RES_TYPE_FONT, &font, &dwSize, &wFlags));
  EXPECT_EQ(9u * 14u * 95u + 566u, dwSize);
  EXPECT_EQ(0, wFlags);
  font.m_Header.nGlyphs = -3;
  ASSERT_TRUE(ResCachePolicy(RES_TYPE_FONT, &font, &dwSize, &wFlags));
  EXPECT_EQ(566u, dwSize);

  for (DWORD t : {1u, 6u}) {
    dwSize = 0;
    wFlags = 0;
    ASSERT_TRUE(ResCachePolicy(t, nullptr, &dwSize, &wFlags)) << t;
    EXPECT_EQ(1u, dwSize);
    EXPECT_EQ(RESITEM_LOCONLY, wFlags);
  }
  for (DWORD t : {0u, 2u, 7u, 8u, 11u}) EXPECT_FALSE(ResCachePolicy(t, &font, &dwSize, &wFlags)) << t;
}

// ---------------------------------------------------------------------------------------------
// The global locator over real files.

class GlobalCache : public MemBalance {
 protected:
  void SetUp() override {
    MemBalance::SetUp();
    const ::testing::TestInfo* pInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    m_dir = fs::temp_directory_path() / (std::string("setup_rlcache_") + pInfo->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    ASSERT_EQ(0u, FSInit(5));
    ASSERT_EQ(0u, WinFSInit());
    ASSERT_EQ(nullptr, g_pResLocator);
    ASSERT_EQ(0u, ResCacheInit());
    ASSERT_NE(nullptr, g_pResLocator);
    m_pCache = static_cast<CResCache*>(g_pResLocator->Cast(0x3000903));
    ASSERT_NE(nullptr, m_pCache);
  }
  void TearDown() override {
    ResCacheDone();
    EXPECT_EQ(nullptr, g_pResLocator);
    WinFSDone();
    FSDone();
    std::error_code ec;
    fs::remove_all(m_dir, ec);
    MemBalance::TearDown();
  }
  std::string Path(const char* pchName) const { return (m_dir / pchName).string(); }
  // Writes an 8-bit w x h bitmap filled with fill.
  void PutBitmap(const char* pchName, int w, int h, BYTE fill) {
    CBitmap* b = MakeBitmap(w, h, BF_8BIT, BL_FORWARD, fill);
    EXPECT_EQ(0u, BmpSave(Path(pchName).c_str(), b, 0));
    delete b;
  }
  CResCache* m_pCache = nullptr;
  fs::path m_dir;
};

TEST_F(GlobalCache, BuiltAsTheStartUpWantsIt) {
  EXPECT_EQ(256u, m_pCache->m_LocTable.m_dwSize);
  EXPECT_EQ(256u, m_pCache->m_DataTable.m_dwSize);
  EXPECT_EQ(0x19000u, m_pCache->m_dwMaxMem);
  EXPECT_EQ(&ResCachePolicy, m_pCache->m_pfnPolicy);
  ASSERT_NE(nullptr, m_pCache->m_pLocator);
  CObject* pDef = m_pCache->m_pLocator->Cast(0x3000902);
  ASSERT_NE(nullptr, pDef);
  EXPECT_EQ(nullptr, static_cast<CDefResLocator*>(pDef)->m_pNext);
  EXPECT_STREQ("CDefResLocator", pDef->GetClassName());
  EXPECT_STREQ("CResCache", g_pResLocator->GetClassName());
  ResCacheDone();
  EXPECT_EQ(nullptr, g_pResLocator);
  ResCacheDone();  // a second call does nothing (and TearDown makes a third)
}

TEST_F(GlobalCache, SmallBitmapsAreSharedAndKeptLargeOnesFreed) {
  PutBitmap("s.bmp", 10, 10, 4);
  const DWORD dwHandles = g_dwHandleMemUsed, dwNew = g_dwNewMemUsed;
  void* p1 = Get(*g_pResLocator, Path("s.bmp").c_str(), RES_TYPE_BITMAP);
  void* p2 = Get(*g_pResLocator, Path("s.bmp").c_str(), RES_TYPE_BITMAP);
  EXPECT_EQ(p1, p2);
  const DWORD dwLoaded = g_dwHandleMemUsed;
  EXPECT_GT(dwLoaded, dwHandles);
  Drop(*g_pResLocator, &p1, RES_TYPE_BITMAP);
  Drop(*g_pResLocator, &p2, RES_TYPE_BITMAP);
  EXPECT_EQ(nullptr, p2);
  // Kept: the pixels are still allocated, and the cost is the block plus 26.
  EXPECT_EQ(dwLoaded, g_dwHandleMemUsed);
  EXPECT_EQ(12u * 10u + 26u, m_pCache->m_dwMem);
  p1 = Get(*g_pResLocator, Path("s.bmp").c_str(), RES_TYPE_BITMAP);
  EXPECT_EQ(4u, static_cast<CBitmap*>(p1)->GetPixel(9, 9));
  EXPECT_EQ(0u, m_pCache->m_dwMem);
  Drop(*g_pResLocator, &p1, RES_TYPE_BITMAP);
  ResCacheDone();
  ASSERT_EQ(0u, ResCacheInit());
  m_pCache = static_cast<CResCache*>(g_pResLocator->Cast(0x3000903));
  ASSERT_NE(nullptr, m_pCache);
  EXPECT_EQ(dwHandles, g_dwHandleMemUsed);

  // 200000 bytes of pixels pass the limit of 0x19000 alone.
  PutBitmap("big.bmp", 500, 400, 7);
  void* p = Get(*g_pResLocator, Path("big.bmp").c_str(), RES_TYPE_BITMAP);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(200000u, static_cast<CBitmap*>(p)->m_dwSize);
  EXPECT_EQ(200000u + 26u, m_pCache->FindLocation(RES_TYPE_BITMAP, Path("big.bmp").c_str())->dwSize);
  Drop(*g_pResLocator, &p, RES_TYPE_BITMAP);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(dwHandles, g_dwHandleMemUsed);
  EXPECT_EQ(dwNew, g_dwNewMemUsed);
  EXPECT_EQ(0u, m_pCache->m_dwMem);
  EXPECT_EQ(nullptr, m_pCache->FindLocation(RES_TYPE_BITMAP, Path("big.bmp").c_str()));
}

TEST_F(GlobalCache, IniDocumentsAreNeverCached) {
  {
    FILE* f = fopen(Path("d.ini").c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fputs("[A]\nk=1\n", f);
    fclose(f);
  }
  void* p1 = Get(*g_pResLocator, Path("d.ini").c_str(), RES_TYPE_INIDOC);
  void* p2 = Get(*g_pResLocator, Path("d.ini").c_str(), RES_TYPE_INIDOC);
  ASSERT_NE(nullptr, p1);
  ASSERT_NE(nullptr, p2);
  EXPECT_NE(p1, p2);
  EXPECT_EQ(0u, m_pCache->m_LocTable.m_dwCount);
  Drop(*g_pResLocator, &p1, RES_TYPE_INIDOC);
  Drop(*g_pResLocator, &p2, RES_TYPE_INIDOC);
  EXPECT_EQ(nullptr, p2);
  EXPECT_EQ(0u, m_pCache->m_dwMem);
}

TEST_F(GlobalCache, FontsAreCachedByTheirCost) {
  // An SFNT file made from a one-glyph image font.
  TFontHeader h;
  memset(&h, 0, sizeof(h));
  h.nHeight = 2;
  h.nMaxWidth = 3;
  h.nGlyphs = 1;
  for (int c = 0; c < 256; c++) h.abtIndex[c] = 0xFF;
  h.abtWidth[(BYTE)'x'] = 3;
  h.abtIndex[(BYTE)'x'] = 0;
  CImageFont src;
  ASSERT_EQ(0u, src.SetImage(MakeBitmap(3, 2, BF_8BIT, BL_FORWARD, 1), &h));
  CSFont runs;
  ASSERT_EQ(1u, ConvertToSFont(&src, &runs));
  EXPECT_EQ(0u, g_pResLocator->Save(RES_TYPE_FONT, Path("f.sfn").c_str(), &runs, 0));

  void* p1 = Get(*g_pResLocator, Path("f.sfn").c_str(), RES_TYPE_FONT);
  void* p2 = Get(*g_pResLocator, Path("f.sfn").c_str(), RES_TYPE_FONT);
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(3, static_cast<CFont*>(p1)->GetCharWidth('x'));
  EXPECT_EQ(3u * 2u * 1u + 566u, m_pCache->FindLocation(RES_TYPE_FONT, Path("f.sfn").c_str())->dwSize);
  Drop(*g_pResLocator, &p1, RES_TYPE_FONT);
  Drop(*g_pResLocator, &p2, RES_TYPE_FONT);
  EXPECT_EQ(3u * 2u * 1u + 566u, m_pCache->m_dwMem);
}

TEST_F(GlobalCache, SaveToALocationInUseLeavesTheOldObjectAlive) {
  PutBitmap("a.bmp", 13, 5, 2);
  void* pOld = Get(*g_pResLocator, Path("a.bmp").c_str(), RES_TYPE_BITMAP);
  CBitmap* pOldBitmap = static_cast<CBitmap*>(pOld);

  CBitmap* pNewPicture = MakeBitmap(7, 3, BF_8BIT, BL_FORWARD, 9);
  EXPECT_EQ(0u, g_pResLocator->Save(RES_TYPE_BITMAP, Path("a.bmp").c_str(), pNewPicture, 0));
  delete pNewPicture;

  // The old object is intact and still its user's.
  EXPECT_EQ(13, pOldBitmap->m_nWidth);
  EXPECT_EQ(2u, pOldBitmap->GetPixel(12, 4));

  // A load afterwards reads the new file.
  void* pNew = Get(*g_pResLocator, Path("a.bmp").c_str(), RES_TYPE_BITMAP);
  ASSERT_NE(pOld, pNew);
  EXPECT_EQ(7, static_cast<CBitmap*>(pNew)->m_nWidth);
  EXPECT_EQ(9u, static_cast<CBitmap*>(pNew)->GetPixel(6, 2));
  Drop(*g_pResLocator, &pNew, RES_TYPE_BITMAP);

  // The orphan's last release keeps its cost and leaves the object alive until the end.
  const DWORD dwMem = m_pCache->m_dwMem;
  Drop(*g_pResLocator, &pOld, RES_TYPE_BITMAP);
  EXPECT_EQ(nullptr, pOld);
  EXPECT_EQ(dwMem + pOldBitmap->m_dwSize + 26u, m_pCache->m_dwMem);
  EXPECT_EQ(2u, pOldBitmap->GetPixel(0, 0));

  AssertCatcher catcher;
  ResCacheDone();
  EXPECT_TRUE(catcher.Fired("m_LocTable.m_dwCount == m_DataTable.m_dwCount"));
  // Nobody frees an orphan: the test does, so the memory balance holds.
  delete pOldBitmap;
}

}  // namespace
