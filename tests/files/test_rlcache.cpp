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

class ResCacheMem : public MemBalance {};

// ---------------------------------------------------------------------------------------------

TEST_F(ResCacheMem, TwoLoadsShareOneObjectAndTheLastReleaseKeepsIt) {
  CFakeLocator lower;
  lower.Cost("a", 100);
  {
    CResCache cache(&lower, 16, 1000, FakePolicy);
    void *p1 = nullptr, *p2 = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p1, 0));
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p2, 0));
    EXPECT_EQ(p1, p2);
    EXPECT_EQ(1, lower.Loads());
    TResItem* pItem = cache.FindLocation(FAKE_TYPE, "a");
    ASSERT_NE(nullptr, pItem);
    EXPECT_EQ(2, pItem->wLockCount);
    EXPECT_EQ(pItem, cache.Find(FAKE_TYPE, reinterpret_cast<DWORD_PTR>(p1)));
    EXPECT_EQ(nullptr, cache.Find(FAKE_TYPE + 1, reinterpret_cast<DWORD_PTR>(p1)));
    EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE + 1, "a"));

    // One release: still in use, not on the list, not counted.
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p2));
    EXPECT_EQ(1, pItem->wLockCount);
    EXPECT_EQ(0u, cache.m_dwMem);
    EXPECT_TRUE(FreeList(cache).empty());

    // The last release keeps it.
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p1));
    EXPECT_EQ(nullptr, p1);
    EXPECT_EQ(0, pItem->wLockCount);
    EXPECT_EQ(100u, cache.m_dwMem);
    EXPECT_EQ(Strings{"a"}, FreeList(cache));
    EXPECT_TRUE(lower.Released().empty());

    // A new load gets the same object and takes it off the list.
    void* p3 = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p3, 0));
    EXPECT_EQ(&lower.objs[0], p3);
    EXPECT_EQ(1, lower.Loads());
    EXPECT_EQ(0u, cache.m_dwMem);
    EXPECT_TRUE(FreeList(cache).empty());
    EXPECT_EQ(1, pItem->wLockCount);
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p3));
  }
  // The destructor gives back what the list held.
  EXPECT_EQ(Strings{"a#0"}, lower.Released());
}

TEST(ResCache, LocationsAreExactTextsPerType) {
  CFakeLocator lower;
  CResCache cache(&lower, 7, 1000, FakePolicy);
  void *pa = nullptr, *pA = nullptr, *pa2 = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "dir/a.bmp", &pa, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "dir/A.bmp", &pA, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "dir/a.bmp#1", &pa2, 0));
  EXPECT_NE(pa, pA);
  EXPECT_NE(pa, pa2);
  EXPECT_EQ(3, lower.Loads());
  EXPECT_EQ(3u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(3u, cache.m_DataTable.m_dwCount);
  for (void** pp : {&pa, &pA, &pa2}) EXPECT_EQ(0u, cache.Release(FAKE_TYPE, pp));
}

TEST(ResCache, EvictsLeastRecentlyReleasedFirst) {
  CFakeLocator lower;
  for (const char* n : {"a", "b", "c", "d"}) lower.Cost(n, 400);
  lower.Cost("e", 700);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *pa = nullptr, *pb = nullptr, *pc = nullptr, *pd = nullptr, *pe = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &pa, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "b", &pb, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "c", &pc, 0));

  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pa));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pc));
  EXPECT_EQ(800u, cache.m_dwMem);
  EXPECT_TRUE(lower.Released().empty());
  // b would pass the limit: the oldest unused one, a, goes.
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pb));
  EXPECT_EQ(Strings{"a#0"}, lower.Released());
  EXPECT_EQ((Strings{"c", "b"}), FreeList(cache));
  EXPECT_EQ(800u, cache.m_dwMem);
  EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "a"));

  // Using c again moves it to the end when it comes back, so b is now the oldest.
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "c", &pc, 0));
  EXPECT_EQ(400u, cache.m_dwMem);
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "d", &pd, 0));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pd));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pc));
  EXPECT_EQ((Strings{"a#0", "b#1"}), lower.Released());
  EXPECT_EQ((Strings{"d", "c"}), FreeList(cache));

  // A large one clears as many as it needs, oldest first.
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "e", &pe, 0));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pe));
  EXPECT_EQ((Strings{"a#0", "b#1", "d#3", "c#2"}), lower.Released());
  EXPECT_EQ(Strings{"e"}, FreeList(cache));
  EXPECT_EQ(700u, cache.m_dwMem);
  EXPECT_EQ(1u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(1u, cache.m_DataTable.m_dwCount);

  // An evicted location loads anew.
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &pa, 0));
  EXPECT_EQ("a#5", Obj(pa)->name);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pa));
}

TEST(ResCache, ObjectsInUseAreNeitherCountedNorEvicted) {
  CFakeLocator lower;
  lower.Cost("big", 900);
  lower.Cost("x", 400);
  lower.Cost("y", 700);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *pBig = nullptr, *px = nullptr, *py = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "big", &pBig, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "x", &px, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "y", &py, 0));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &px));
  EXPECT_EQ(400u, cache.m_dwMem);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &py));
  EXPECT_EQ(Strings{"x#1"}, lower.Released());
  EXPECT_EQ(700u, cache.m_dwMem);
  EXPECT_EQ(1, cache.FindLocation(FAKE_TYPE, "big")->wLockCount);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pBig));
  // 900 + 700 passes the limit: y goes, being older.
  EXPECT_EQ((Strings{"x#1", "y#2"}), lower.Released());
  EXPECT_EQ(900u, cache.m_dwMem);
}

TEST(ResCache, ObjectAtOrAboveTheLimitIsFreedAtOnce) {
  CFakeLocator lower;
  lower.Cost("at", 1000);
  lower.Cost("below", 999);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "at", &p1, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "at", &p2, 0));
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p2));
  EXPECT_TRUE(lower.Released().empty());
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p1));
  EXPECT_EQ(Strings{"at#0"}, lower.Released());
  EXPECT_EQ(nullptr, p1);
  EXPECT_EQ(0u, cache.m_dwMem);
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);

  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "below", &p1, 0));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p1));
  EXPECT_EQ(999u, cache.m_dwMem);
  EXPECT_EQ(Strings{"at#0"}, lower.Released());
}

TEST(ResCache, NoKeepFlagFreesAtTheLastRelease) {
  CFakeLocator lower;
  lower.Cost("n", 5, RESITEM_NOKEEP);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "n", &p1, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "n", &p2, 0));
  EXPECT_EQ(1, lower.Loads());
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p1));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p2));
  EXPECT_EQ(Strings{"n#0"}, lower.Released());
  EXPECT_EQ(0u, cache.m_dwMem);
  EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "n"));
}

TEST(ResCache, ZeroCostCountsAsOne) {
  CFakeLocator lower;
  lower.Cost("z", 0);
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void* p = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "z", &p, 0));
  EXPECT_EQ(1u, cache.FindLocation(FAKE_TYPE, "z")->dwSize);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
  EXPECT_EQ(1u, cache.m_dwMem);
}

TEST(ResCache, LocationOnlyItemGoesOnTheListAtOnce) {
  CFakeLocator lower;
  lower.Cost("loc", 30, RESITEM_LOCONLY);
  {
    CResCache cache(&lower, 16, 1000, FakePolicy);
    void* p = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "loc", &p, 0));
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

TEST(ResCache, UncachedTypesAndUnknownObjectsPassThrough) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_UNCACHED, "u", &p1, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_UNCACHED, "u", &p2, 0));
  EXPECT_NE(p1, p2);
  EXPECT_EQ(2, lower.Loads());
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.Release(FAKE_UNCACHED, &p1));
  EXPECT_EQ(0u, cache.Release(FAKE_UNCACHED, &p2));
  EXPECT_EQ((Strings{"u#0", "u#1"}), lower.Released());
  EXPECT_EQ(nullptr, p1);

  // An object of a cached type that the cache never made goes down as well.
  FakeObj stranger{"stranger", 1, 0};
  void* p = &stranger;
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
  EXPECT_EQ(1, stranger.nReleased);
}

TEST(ResCache, NullPolicyCachesNothing) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, nullptr);
  void* p = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
  EXPECT_EQ(Strings{"a#0"}, lower.Released());
}

TEST(ResCache, LowerFailureIsReturnedAndNothingIsRecorded) {
  CFakeLocator lower;
  lower.failWith = 0x30000008;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void* p = nullptr;
  EXPECT_EQ(0x30000008u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
  lower.failWith = 0;
  EXPECT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ(2, lower.Loads());
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
}

TEST(ResCache, BadArguments) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  EXPECT_EQ(ERR_BADPARAM, cache.Load(FAKE_TYPE, "a", nullptr, 0));
  {
    AssertCatcher catcher;
    void* p = nullptr;
    EXPECT_EQ(ERR_BADPARAM, cache.Load(FAKE_TYPE, nullptr, &p, 0));
    EXPECT_TRUE(catcher.Fired("pLocation"));
  }
  EXPECT_EQ(0, lower.Loads());
}

TEST(ResCache, ReleaseOfAnUnusedObjectAsserts) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  void* p = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p, 0));
  void* pCopy = p;
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
  AssertCatcher catcher;
  EXPECT_EQ(ERR_BADPARAM, cache.Release(FAKE_TYPE, &pCopy));
  EXPECT_TRUE(catcher.Fired("p->wLockCount"));
  EXPECT_EQ(0, cache.FindLocation(FAKE_TYPE, "a")->wLockCount);
  EXPECT_EQ(10u, cache.m_dwMem);
  EXPECT_TRUE(lower.Released().empty());
}

TEST(ResCache, LongLocationIsLoadedButNotCached) {
  CFakeLocator lower;
  CResCache cache(&lower, 16, 1000, FakePolicy);
  const std::string exact(RESITEM_LOCATION - 1, 'k');
  const std::string longer(RESITEM_LOCATION, 'k');
  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, exact.c_str(), &p1, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, exact.c_str(), &p2, 0));
  EXPECT_EQ(p1, p2);
  void *p3 = nullptr, *p4 = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, longer.c_str(), &p3, 0));
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, longer.c_str(), &p4, 0));
  EXPECT_NE(p3, p4);
  EXPECT_EQ(3, lower.Loads());
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p3));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p4));
  EXPECT_EQ(2u, lower.Released().size());
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p1));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p2));
}

TEST(ResCache, DestructorReleasesTheListOldestFirstAndKeepsTheLowerLocator) {
  CFakeLocator lower;
  {
    CResCache cache(&lower, 3, 1000, FakePolicy);
    void *pa = nullptr, *pb = nullptr, *pc = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &pa, 0));
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "b", &pb, 0));
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "c", &pc, 0));
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pb));
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pa));
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pc));
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
  void* p = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
  FakeObj data{"data", 0, 0};
  EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "a", &data, 0));
  EXPECT_EQ((Strings{"Load a", "Release a#0", "Save a"}), lower.log);
  EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "a"));
  EXPECT_TRUE(FreeList(cache).empty());
  EXPECT_EQ(0u, cache.m_LocTable.m_dwCount);
  EXPECT_EQ(0u, cache.m_DataTable.m_dwCount);
  // The cost of the dropped copy stays counted.
  EXPECT_EQ(100u, cache.m_dwMem);
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ("a#1", Obj(p)->name);
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
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
    void* pOld = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &pOld, 0));
    TResItem* pItem = cache.FindLocation(FAKE_TYPE, "a");
    FakeObj data{"data", 0, 0};
    EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "a", &data, 0));
    EXPECT_EQ((Strings{"Load a", "Save a"}), lower.log);
    EXPECT_EQ(RESITEM_DROPPED, pItem->wFlags & RESITEM_DROPPED);
    EXPECT_EQ(nullptr, cache.FindLocation(FAKE_TYPE, "a"));

    // A later load makes a new object; the old one is still its user's.
    void* pNew = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &pNew, 0));
    EXPECT_EQ("a#1", Obj(pNew)->name);
    EXPECT_EQ(0, Obj(pOld)->nReleased);

    // The orphan's last release: not on the list, not released, but its cost is counted.
    void* pCopy = pOld;
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pOld));
    EXPECT_EQ(nullptr, pOld);
    EXPECT_EQ(100u, cache.m_dwMem);
    EXPECT_TRUE(FreeList(cache).empty());
    EXPECT_EQ(0, Obj(pCopy)->nReleased);
    EXPECT_EQ(pItem, cache.Find(FAKE_TYPE, reinterpret_cast<DWORD_PTR>(pCopy)));

    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pNew));
    EXPECT_EQ(200u, cache.m_dwMem);
    EXPECT_EQ(Strings{"a"}, FreeList(cache));
    EXPECT_EQ(0u, catcher.Count());

    // The kept 100 can't be trimmed away: c empties the list and the count stays too high.
    void* pc = nullptr;
    ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "c", &pc, 0));
    EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &pc));
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
  void* p = nullptr;
  ASSERT_EQ(0u, cache.Load(FAKE_TYPE, "a", &p, 0));
  EXPECT_EQ(0u, cache.Save(FAKE_TYPE, "a", p, 0));
  EXPECT_EQ(0u, cache.Release(FAKE_TYPE, &p));
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

TEST_F(GlobalCache, SmallBitmapIsSharedAndKept) {
  PutBitmap("s.bmp", 10, 10, 4);
  const DWORD dwHandles = g_dwHandleMemUsed;
  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path("s.bmp").c_str(), &p1, 0));
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path("s.bmp").c_str(), &p2, 0));
  EXPECT_EQ(p1, p2);
  const DWORD dwLoaded = g_dwHandleMemUsed;
  EXPECT_GT(dwLoaded, dwHandles);
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &p1));
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &p2));
  EXPECT_EQ(nullptr, p2);
  // Kept: the pixels are still allocated, and the cost is the block plus 26.
  EXPECT_EQ(dwLoaded, g_dwHandleMemUsed);
  EXPECT_EQ(12u * 10u + 26u, m_pCache->m_dwMem);
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path("s.bmp").c_str(), &p1, 0));
  EXPECT_EQ(4u, static_cast<CBitmap*>(p1)->GetPixel(9, 9));
  EXPECT_EQ(0u, m_pCache->m_dwMem);
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &p1));
}

TEST_F(GlobalCache, BitmapOverTheLimitIsFreedAtOnce) {
  PutBitmap("big.bmp", 500, 400, 7);  // 200000 bytes of pixels
  const DWORD dwHandles = g_dwHandleMemUsed, dwNew = g_dwNewMemUsed;
  void* p = nullptr;
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path("big.bmp").c_str(), &p, 0));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(200000u, static_cast<CBitmap*>(p)->m_dwSize);
  EXPECT_EQ(200000u + 26u, m_pCache->FindLocation(RES_TYPE_BITMAP, Path("big.bmp").c_str())->dwSize);
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &p));
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(dwHandles, g_dwHandleMemUsed);
  EXPECT_EQ(dwNew, g_dwNewMemUsed);
  EXPECT_EQ(0u, m_pCache->m_dwMem);
  EXPECT_EQ(nullptr, m_pCache->FindLocation(RES_TYPE_BITMAP, Path("big.bmp").c_str()));
}

TEST_F(GlobalCache, EvictionFreesTheOldestBitmap) {
  // 160 x 160 = 25600 bytes each: three fit in 102400, the fourth pushes out the first.
  const char* names[] = {"0.bmp", "1.bmp", "2.bmp", "3.bmp"};
  for (int i = 0; i < 4; i++) PutBitmap(names[i], 160, 160, (BYTE)i);
  for (int i = 0; i < 4; i++) {
    void* p = nullptr;
    ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path(names[i]).c_str(), &p, 0));
    EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &p));
  }
  EXPECT_EQ(3u * (25600u + 26u), m_pCache->m_dwMem);
  EXPECT_EQ(nullptr, m_pCache->FindLocation(RES_TYPE_BITMAP, Path("0.bmp").c_str()));
  for (int i = 1; i < 4; i++)
    EXPECT_NE(nullptr, m_pCache->FindLocation(RES_TYPE_BITMAP, Path(names[i]).c_str()));
}

TEST_F(GlobalCache, IniDocumentsAreNeverCached) {
  const char* pchText = "[A]\nk=1\n";
  {
    FILE* f = fopen(Path("d.ini").c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fwrite(pchText, 1, strlen(pchText), f);
    fclose(f);
  }
  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_INIDOC, Path("d.ini").c_str(), &p1, 0));
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_INIDOC, Path("d.ini").c_str(), &p2, 0));
  ASSERT_NE(nullptr, p1);
  ASSERT_NE(nullptr, p2);
  EXPECT_NE(p1, p2);
  EXPECT_EQ(0u, m_pCache->m_LocTable.m_dwCount);
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_INIDOC, &p1));
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_INIDOC, &p2));
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

  void *p1 = nullptr, *p2 = nullptr;
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_FONT, Path("f.sfn").c_str(), &p1, 0));
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_FONT, Path("f.sfn").c_str(), &p2, 0));
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(3, static_cast<CFont*>(p1)->GetCharWidth('x'));
  EXPECT_EQ(3u * 2u * 1u + 566u, m_pCache->FindLocation(RES_TYPE_FONT, Path("f.sfn").c_str())->dwSize);
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_FONT, &p1));
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_FONT, &p2));
  EXPECT_EQ(3u * 2u * 1u + 566u, m_pCache->m_dwMem);
}

TEST_F(GlobalCache, SaveToALocationInUseLeavesTheOldObjectAlive) {
  PutBitmap("a.bmp", 13, 5, 2);
  void* pOld = nullptr;
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path("a.bmp").c_str(), &pOld, 0));
  CBitmap* pOldBitmap = static_cast<CBitmap*>(pOld);

  CBitmap* pNewPicture = MakeBitmap(7, 3, BF_8BIT, BL_FORWARD, 9);
  EXPECT_EQ(0u, g_pResLocator->Save(RES_TYPE_BITMAP, Path("a.bmp").c_str(), pNewPicture, 0));
  delete pNewPicture;

  // The old object is intact and still its user's.
  EXPECT_EQ(13, pOldBitmap->m_nWidth);
  EXPECT_EQ(2u, pOldBitmap->GetPixel(12, 4));

  // A load afterwards reads the new file.
  void* pNew = nullptr;
  ASSERT_EQ(0u, g_pResLocator->Load(RES_TYPE_BITMAP, Path("a.bmp").c_str(), &pNew, 0));
  ASSERT_NE(pOld, pNew);
  EXPECT_EQ(7, static_cast<CBitmap*>(pNew)->m_nWidth);
  EXPECT_EQ(9u, static_cast<CBitmap*>(pNew)->GetPixel(6, 2));
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &pNew));

  // The orphan's last release keeps its cost and leaves the object alive until the end.
  const DWORD dwMem = m_pCache->m_dwMem;
  EXPECT_EQ(0u, g_pResLocator->Release(RES_TYPE_BITMAP, &pOld));
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
