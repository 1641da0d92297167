// Tests of the block pools: pointer allocators, the size cache, the fixed-size pool and its
// compaction, and the handle and lock stores.
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <vector>

#include "base/pool.h"
#include "testutil.h"

namespace {

// Live tracked pointer blocks (the table has holes where blocks were released).
DWORD LivePtrs() {
  DWORD n = 0;
  for (DWORD i = 0; i < g_dwPtrInfoCount; i++) n += g_pPtrInfo[i].dwSysBlock != 0;
  return n;
}

DWORD LiveHandles() {
  DWORD n = 0;
  for (DWORD i = 0; i < g_dwHandleInfoCount; i++) n += g_pHandleInfo[i].dwSysBlock != 0;
  return n;
}

// Live tracked blocks at construction must be live blocks again at destruction.
class LeakCheck {
 public:
  LeakCheck() : m_dwPtrs(LivePtrs()), m_dwHandles(LiveHandles()) {}
  ~LeakCheck() {
    EXPECT_EQ(m_dwPtrs, LivePtrs()) << "pointer blocks leaked";
    EXPECT_EQ(m_dwHandles, LiveHandles()) << "handles leaked";
  }

 private:
  DWORD m_dwPtrs, m_dwHandles;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// CPtrAlloc

TEST(PtrAlloc, SizeInFrontOfBlockAndErrors) {
  {
    LeakCheck leaks;
    CPtrAlloc alloc;
    BYTE* p = static_cast<BYTE*>(alloc.Alloc(8));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(alloc.GetError(), 0u);
    EXPECT_EQ(alloc.GetSize(p), 8u);
    EXPECT_EQ(GetLE32(p - 4), 8u);
    // The tracked block is exactly 4 bytes larger than the request.
    EXPECT_TRUE(MemIsPtr(p - 4, 12));
    for (int i = 0; i < 8; i++) p[i] = (BYTE)(i * 7 + 1);
    BYTE* q = static_cast<BYTE*>(alloc.ReAlloc(p, 4000));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(alloc.GetSize(q), 4000u);
    for (int i = 0; i < 8; i++) EXPECT_EQ(q[i], (BYTE)(i * 7 + 1));
    EXPECT_EQ(alloc.Alloc(0), nullptr);
    EXPECT_EQ(alloc.GetError(), ERR_POOL_ZEROSIZE);
    EXPECT_EQ(alloc.GetSize(nullptr), 0u);
    EXPECT_EQ(alloc.GetError(), ERR_POOL_NULLBLOCK);
    EXPECT_EQ(alloc.ReAlloc(nullptr, 8), nullptr);
    EXPECT_EQ(alloc.GetError(), ERR_POOL_NULLBLOCK);
    EXPECT_EQ(alloc.ReAlloc(q, 0), nullptr);
    EXPECT_EQ(alloc.GetError(), ERR_POOL_ZEROSIZE);
    // A later success clears the error.
    EXPECT_EQ(alloc.GetSize(q), 4000u);
    EXPECT_EQ(alloc.GetError(), 0u);
    alloc.Free(q);
    EXPECT_EQ(alloc.GetError(), 0u);
  }
  CPtrAlloc alloc;
  AssertCatcher catcher;
  alloc.Free(nullptr);
  // The error set for the null block is overwritten, and the release is attempted anyway: the
  // tracked layer refuses an address that isn't one of its blocks.
  EXPECT_EQ(alloc.GetError(), 0u);
  EXPECT_TRUE(catcher.Fired("lPos != -1"));
}

// ---------------------------------------------------------------------------------------------
// CSizeCache

TEST(SizeCache, RaisesMinimumToFourAndRejectsSizesOutOfRange) {
  LeakCheck leaks;
  CSizeCache cache(new CPtrAlloc, 1, 1, 32, 10, 1000);
  EXPECT_EQ(cache.GetMinSize(), 4u);
  EXPECT_EQ(cache.Alloc(3), nullptr);
  EXPECT_EQ(cache.GetError(), ERR_POOL_BADSIZE);
  EXPECT_EQ(cache.Alloc(33), nullptr);
  EXPECT_EQ(cache.GetError(), ERR_POOL_BADSIZE);
  void* p = cache.Alloc(4);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(cache.GetSize(p), 4u);
  cache.Free(p);
  // A free of a block of a size outside the range is refused.
  CPtrAlloc base;
  CSizeCache narrow(&base, 0, 8, 16, 10, 1000);
  p = base.Alloc(100);
  DWORD dwLive = LivePtrs();
  narrow.Free(p);
  EXPECT_EQ(narrow.GetError(), ERR_POOL_BADSIZE);
  EXPECT_EQ(LivePtrs(), dwLive);
  EXPECT_EQ(narrow.GetFreeCount(), 0u);
  base.Free(p);
  // A null block: the base's error is passed on.
  narrow.Free(nullptr);
  EXPECT_EQ(narrow.GetError(), ERR_POOL_NULLBLOCK);
}

TEST(SizeCache, ReleasedBlockComesBackForItsSizeOnly) {
  LeakCheck leaks;
  CSizeCache cache(new CPtrAlloc, 1, 8, 64, 10, 1000);
  void* a = cache.Alloc(16);
  void* b = cache.Alloc(24);
  EXPECT_EQ(cache.GetMisses(), 2u);
  EXPECT_EQ(cache.GetHits(), 0u);
  cache.Free(a);
  EXPECT_EQ(cache.GetFreeCount(), 1u);
  EXPECT_EQ(cache.GetFreeBytes(), 16u);
  // Another size misses; the same size gets the cached block.
  void* c = cache.Alloc(20);
  EXPECT_NE(c, a);
  EXPECT_EQ(cache.GetMisses(), 3u);
  void* d = cache.Alloc(16);
  EXPECT_EQ(d, a);
  EXPECT_EQ(cache.GetHits(), 1u);
  EXPECT_EQ(cache.GetFreeCount(), 0u);
  EXPECT_EQ(cache.GetFreeBytes(), 0u);
  cache.Free(b);
  cache.Free(c);
  cache.Free(d);
}

TEST(SizeCache, CountAndByteLimitsStopCaching) {
  LeakCheck leaks;
  // At two blocks the third goes to the base; below 40 bytes a block is cached (0, then 32),
  // at 64 the third is released.
  for (DWORD dwLimits : {0u, 1u}) {
    CSizeCache cache(new CPtrAlloc, 1, 8, 64, dwLimits ? 100 : 2, dwLimits ? 40 : 1000);
    void* p[3];
    for (int i = 0; i < 3; i++) p[i] = cache.Alloc(32);
    DWORD dwLive = LivePtrs();
    cache.Free(p[0]);
    cache.Free(p[1]);
    EXPECT_EQ(LivePtrs(), dwLive) << "the first two stay cached";
    cache.Free(p[2]);
    EXPECT_EQ(cache.GetFreeCount(), 2u);
    EXPECT_EQ(cache.GetFreeBytes(), 64u);
    EXPECT_EQ(LivePtrs(), dwLive - 1);
  }
}

TEST(SizeCache, PurgeReleasesWithoutLoweringCounters) {
  LeakCheck leaks;
  CSizeCache cache(new CPtrAlloc, 1, 8, 64, 10, 1000);
  void* a = cache.Alloc(16);
  void* b = cache.Alloc(40);
  DWORD dwLive = LivePtrs();
  cache.Free(a);
  cache.Free(b);
  cache.Purge(16);
  EXPECT_EQ(LivePtrs(), dwLive - 1);
  cache.Purge(100);  // outside the range: nothing
  EXPECT_EQ(LivePtrs(), dwLive - 1);
  cache.Purge((DWORD)-1);
  EXPECT_EQ(LivePtrs(), dwLive - 2);
  EXPECT_EQ(cache.GetFreeCount(), 2u);
  EXPECT_EQ(cache.GetFreeBytes(), 56u);
  // The purged block is not handed out again.
  void* c = cache.Alloc(16);
  EXPECT_EQ(cache.GetHits(), 0u);
  cache.Free(c);
}

TEST(SizeCache, ReAllocSameSizeIsAHitOtherSizeCopies) {
  LeakCheck leaks;
  CSizeCache cache(new CPtrAlloc, 1, 8, 64, 10, 1000);
  BYTE* p = static_cast<BYTE*>(cache.Alloc(12));
  for (int i = 0; i < 12; i++) p[i] = (BYTE)(0x30 + i);
  EXPECT_EQ(cache.ReAlloc(p, 12), p);
  EXPECT_EQ(cache.GetHits(), 1u);
  BYTE* q = static_cast<BYTE*>(cache.ReAlloc(p, 40));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(cache.GetSize(q), 40u);
  for (int i = 0; i < 12; i++) EXPECT_EQ(q[i], (BYTE)(0x30 + i));
  EXPECT_EQ(cache.GetFreeCount(), 1u) << "the old block is cached";
  BYTE* r = static_cast<BYTE*>(cache.ReAlloc(q, 10));
  for (int i = 0; i < 10; i++) EXPECT_EQ(r[i], (BYTE)(0x30 + i));
  EXPECT_EQ(cache.ReAlloc(nullptr, 10), nullptr);
  EXPECT_EQ(cache.GetError(), ERR_POOL_NULLBLOCK);
  cache.Free(r);
}

// ---------------------------------------------------------------------------------------------
// CFixedPool

TEST(FixedPool, InitRaisesToFourBytesAndSixteenItems) {
  LeakCheck leaks;
  CFixedPool pool;
  EXPECT_EQ(pool.Alloc(0), nullptr);  // before Init
  EXPECT_EQ(pool.GetChunkCount(), 0u);
  pool.Init(1, 1);
  EXPECT_EQ(pool.GetSize(nullptr), 4u);
  EXPECT_EQ(pool.GetItemsPerChunk(), 16u);
  std::vector<void*> items;
  for (int i = 0; i < 16; i++) items.push_back(pool.Alloc(4));
  EXPECT_EQ(pool.GetChunkCount(), 1u);
  items.push_back(pool.Alloc((DWORD)-1));
  EXPECT_EQ(pool.GetChunkCount(), 2u);
  for (void* p : items) EXPECT_TRUE(pool.IsAllocated(p));
}

TEST(FixedPool, AddressOrderAndItemSizeLimit) {
  LeakCheck leaks;
  CFixedPool pool;
  pool.Init(24, 16);
  {
    AssertCatcher catcher;
    EXPECT_EQ(pool.Alloc(25), nullptr);
    EXPECT_TRUE(catcher.Fired("dwSize <= m_dwItemSize"));
    EXPECT_EQ(pool.GetError(), ERR_POOL_TOOBIG);
    EXPECT_EQ(pool.GetChunkCount(), 0u);
  }
  BYTE* first = static_cast<BYTE*>(pool.Alloc(24));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(pool.GetChunkCount(), 1u);
  // The chunk is one tracked block that starts at the first item.
  EXPECT_TRUE(MemIsPtr(first, 24 * 16));
  for (int i = 1; i < 16; i++) EXPECT_EQ(pool.Alloc(24), first + 24 * i);
  // A released item is the next one handed out.
  pool.Free(first + 48);
  EXPECT_EQ(pool.Alloc(10), first + 48);
  EXPECT_EQ(pool.ReAlloc(first, 24), first);
  EXPECT_EQ(pool.ReAlloc(first, (DWORD)-1), first);
  EXPECT_EQ(pool.ReAlloc(first, 25), nullptr);
  EXPECT_EQ(pool.GetError(), ERR_POOL_TOOBIG);
}

TEST(FixedPool, IsAllocatedRejectsFreeBetweenAndOutside) {
  LeakCheck leaks;
  CFixedPool pool;
  pool.Init(16, 16);
  BYTE* a = static_cast<BYTE*>(pool.Alloc(16));
  BYTE* b = static_cast<BYTE*>(pool.Alloc(16));
  EXPECT_TRUE(pool.IsAllocated(a));
  EXPECT_TRUE(pool.IsAllocated(b));
  EXPECT_FALSE(pool.IsAllocated(a + 1));
  EXPECT_FALSE(pool.IsAllocated(a + 16 * 2)) << "never handed out: on the free list";
  EXPECT_FALSE(pool.IsAllocated(a + 16 * 16)) << "just past the chunk";
  int nOutside = 0;
  EXPECT_FALSE(pool.IsAllocated(&nOutside));
  pool.Free(b);
  EXPECT_FALSE(pool.IsAllocated(b));
}

TEST(FixedPool, UseBeforeInitFails) {
  CFixedPool pool;
  EXPECT_EQ(pool.Alloc(0), nullptr);
  EXPECT_EQ(pool.GetChunkCount(), 0u);
}

TEST(FixedPoolCompact, EndsAtOnceUntilAFree) {
  LeakCheck leaks;
  CFixedPool pool;
  pool.Init(8, 16);
  EXPECT_EQ(pool.CompactStep(nullptr, nullptr), ERR_POOL_NOMORE);
  void* p = pool.Alloc(8);
  EXPECT_EQ(pool.CompactStep(nullptr, nullptr), ERR_POOL_NOMORE);
  pool.Free(p);
  // One chunk: a step that changes nothing, then the pass count ends the run.
  EXPECT_EQ(pool.CompactStep(nullptr, nullptr), 0u);
  EXPECT_EQ(pool.GetChunkCount(), 1u);
  EXPECT_EQ(pool.GetFreeCount(), 16u);
  EXPECT_EQ(pool.CompactStep(nullptr, nullptr), ERR_POOL_NOMORE);
  EXPECT_EQ(pool.CompactStep(nullptr, nullptr), ERR_POOL_NOMORE);
}

namespace {

// A client of a fixed pool: it holds references to its items in a table and fixes them when
// the pool moves an item. Each item holds its own slot number and a pattern derived from it.
struct TClient {
  std::vector<BYTE*> refs;
  int nMoves = 0;
  int nFailAt = -1;  // the move with this number (from 0) is refused
};

const DWORD kItemSize = 32;

void FillItem(BYTE* p, DWORD dwSlot) {
  PutLE32(p, dwSlot);
  for (DWORD i = 4; i < kItemSize; i++) p[i] = (BYTE)(dwSlot * 13 + i);
}

bool ItemIntact(const BYTE* p, DWORD dwSlot) {
  if (GetLE32(p) != dwSlot) return false;
  for (DWORD i = 4; i < kItemSize; i++)
    if (p[i] != (BYTE)(dwSlot * 13 + i)) return false;
  return true;
}

ERR MoveItem(void* pItem, void* pDest, void* pUser) {
  TClient* pClient = static_cast<TClient*>(pUser);
  if (pClient->nMoves++ == pClient->nFailAt) return ERR_GENERAL;
  DWORD dwSlot = GetLE32(pItem);
  if (dwSlot >= pClient->refs.size() || pClient->refs[dwSlot] != pItem) return ERR_GENERAL;
  memcpy(pDest, pItem, kItemSize);
  pClient->refs[dwSlot] = static_cast<BYTE*>(pDest);
  return 0;
}

// Allocates dwChunks full chunks, numbering the items in allocation order.
void FillPool(CFixedPool& pool, TClient& client, DWORD dwChunks) {
  pool.Init(kItemSize, 16);
  for (DWORD i = 0; i < dwChunks * 16; i++) {
    BYTE* p = static_cast<BYTE*>(pool.Alloc(kItemSize));
    ASSERT_NE(p, nullptr);
    FillItem(p, (DWORD)client.refs.size());
    client.refs.push_back(p);
  }
}

void Release(CFixedPool& pool, TClient& client, DWORD dwSlot) {
  pool.Free(client.refs[dwSlot]);
  client.refs[dwSlot] = nullptr;
}

void ExpectClientIntact(CFixedPool& pool, TClient& client) {
  for (DWORD i = 0; i < client.refs.size(); i++) {
    if (!client.refs[i]) continue;
    EXPECT_TRUE(pool.IsAllocated(client.refs[i])) << "slot " << i;
    EXPECT_TRUE(ItemIntact(client.refs[i], i)) << "slot " << i;
  }
}

}  // namespace

TEST(FixedPoolCompact, ReleasesAnEmptyFirstChunkWithoutMoving) {
  LeakCheck leaks;
  CFixedPool pool;
  TClient client;
  FillPool(pool, client, 3);
  for (DWORD i = 0; i < 16; i++) Release(pool, client, i);  // the whole first chunk
  Release(pool, client, 40);
  EXPECT_EQ(pool.CompactStep(MoveItem, &client), 0u);
  EXPECT_EQ(pool.GetChunkCount(), 2u);
  EXPECT_EQ(client.nMoves, 0);
  EXPECT_EQ(pool.GetFreeCount(), 1u) << "only the outside item stays on the list";
  ExpectClientIntact(pool, client);
  EXPECT_EQ(pool.Alloc(kItemSize), client.refs[41] - kItemSize);
}

TEST(FixedPoolCompact, MovesLastItemsOutAndReleasesChunk) {
  LeakCheck leaks;
  CFixedPool pool;
  TClient client;
  FillPool(pool, client, 2);
  // First chunk: one item stays in use. Second chunk: four free places.
  for (DWORD i = 0; i < 16; i++)
    if (i != 5) Release(pool, client, i);
  for (DWORD i : {17u, 20u, 25u, 31u}) Release(pool, client, i);
  BYTE* pOld = client.refs[5];
  EXPECT_EQ(pool.Compact(MoveItem, &client), 0u);
  EXPECT_EQ(client.nMoves, 1);
  EXPECT_EQ(pool.GetChunkCount(), 1u);
  EXPECT_NE(client.refs[5], pOld);
  ExpectClientIntact(pool, client);
  EXPECT_EQ(pool.GetFreeCount(), 3u);
  // Every remaining item lives in the one chunk: 16 used or free places in all.
  int nUsed = 0;
  for (BYTE* p : client.refs) nUsed += p != nullptr;
  EXPECT_EQ(nUsed + 3, 16);
}

TEST(FixedPoolCompact, TooManyUsedItemsForTheRatioOrNoMoveFunctionStayPut) {
  LeakCheck leaks;
  CFixedPool pool;
  TClient client;
  FillPool(pool, client, 2);
  // Three used items in the first chunk, ten free places outside: 3 > (32 - 10) / 16.
  for (DWORD i = 3; i < 16; i++) Release(pool, client, i);
  for (DWORD i = 16; i < 26; i++) Release(pool, client, i);
  EXPECT_EQ(pool.Compact(MoveItem, &client), 0u);
  EXPECT_EQ(client.nMoves, 0);
  EXPECT_EQ(pool.GetChunkCount(), 2u);
  EXPECT_EQ(pool.GetFreeCount(), 23u);
  ExpectClientIntact(pool, client);
  // Without a move function nothing moves either, though the ratio would allow it.
  for (DWORD i = 1; i < 3; i++) Release(pool, client, i);
  EXPECT_EQ(pool.Compact(nullptr, nullptr), 0u);
  EXPECT_EQ(pool.GetChunkCount(), 2u);
  EXPECT_EQ(pool.GetFreeCount(), 25u);
  ExpectClientIntact(pool, client);
}

TEST(FixedPoolCompact, RefusedMoveStopsAndLosesEarlierFreedPlace) {
  LeakCheck leaks;
  CFixedPool pool;
  TClient client;
  FillPool(pool, client, 4);
  // First chunk: items 0, 1, 2 used. Five free places in the second chunk: 3 <= (64 - 5) / 16.
  for (DWORD i = 3; i < 16; i++) Release(pool, client, i);
  for (DWORD i = 16; i < 21; i++) Release(pool, client, i);
  client.nFailAt = 2;
  BYTE* pOld0 = client.refs[0];
  BYTE* pOld1 = client.refs[1];
  BYTE* pOld2 = client.refs[2];
  EXPECT_EQ(pool.CompactStep(MoveItem, &client), 0u);
  EXPECT_EQ(client.nMoves, 3);
  EXPECT_EQ(pool.GetChunkCount(), 4u);
  EXPECT_NE(client.refs[0], pOld0);
  EXPECT_NE(client.refs[1], pOld1);
  EXPECT_EQ(client.refs[2], pOld2);
  ExpectClientIntact(pool, client);
  // Each moved item's old place is linked behind the same tail: the second replaces the first,
  // so the first old place is on no list any more.
  EXPECT_EQ(pool.GetFreeCount(), 17u);
  EXPECT_TRUE(pool.IsAllocated(pOld0));
  EXPECT_FALSE(pool.IsAllocated(pOld1));
}

TEST(FixedPoolCompact, RepeatedStepsShrinkToTheItemsInUse) {
  LeakCheck leaks;
  CFixedPool pool;
  TClient client;
  FillPool(pool, client, 6);
  // Keep one item in each chunk but the last, which stays full.
  for (DWORD i = 0; i < 80; i++)
    if (i % 16 != 7) Release(pool, client, i);
  EXPECT_EQ(pool.Compact(MoveItem, &client), 0u);
  EXPECT_LT(pool.GetChunkCount(), 6u);
  ExpectClientIntact(pool, client);
  int nUsed = 0;
  for (BYTE* p : client.refs) nUsed += p != nullptr;
  EXPECT_EQ(nUsed, 5 + 16);
  EXPECT_EQ(pool.GetFreeCount() + nUsed, pool.GetChunkCount() * 16);
}

// ---------------------------------------------------------------------------------------------
// CHandleStore

TEST(HandleStore, BlockCarriesItsSizeAndRoundTrips) {
  LeakCheck leaks;
  CHandleStore store(8);
  DWORD h = store.Alloc((DWORD)-1);
  ASSERT_NE(h, 0u);
  EXPECT_EQ(store.GetSize(h), 8u);
  BYTE* p = static_cast<BYTE*>(store.Lock(h));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(GetLE32(p - 4), 8u);
  EXPECT_EQ(HandleGetLockCount(h), 1);
  store.Unlock(h);
  EXPECT_EQ(HandleGetLockCount(h), 0);
  store.Free(h);
  h = store.Alloc(16);
  const char text[] = "0123456789abcdef";
  EXPECT_EQ(store.Write(h, text, 0, 16), 0u);
  char buf[17] = {0};
  EXPECT_EQ(store.Read(h, buf, 4, 6), 0u);
  EXPECT_STREQ(buf, "456789");
  EXPECT_EQ(store.ReAlloc(h, 32), h);
  EXPECT_EQ(store.GetSize(h), 32u);
  memset(buf, 0, sizeof(buf));
  EXPECT_EQ(store.Read(h, buf, 0, (DWORD)-1), 0u) << "-1 reads the default size";
  EXPECT_STREQ(buf, "01234567");
  EXPECT_EQ(store.Read(h, buf, 0, 0), 0u);
  store.Free(h);
}

TEST(HandleStore, OutOfRangeAssertsAndClamps) {
  LeakCheck leaks;
  CHandleStore store;
  DWORD h = store.Alloc(8);
  store.Write(h, "ABCDEFGH", 0, 8);
  char buf[16];
  memset(buf, '.', sizeof(buf));
  AssertCatcher catcher;
  EXPECT_EQ(store.Read(h, buf, 6, 10), 0u);
  EXPECT_TRUE(catcher.Fired("dwOffset < dwBlockSize && dwSize <= dwBlockSize - dwOffset"));
  EXPECT_EQ(std::string(buf, 4), "GH..");
  catcher.Clear();
  memset(buf, '.', sizeof(buf));
  store.Write(h, "xyz", 20, 3);
  EXPECT_EQ(catcher.Count(), 1u);
  store.Read(h, buf, 0, 8);
  EXPECT_EQ(std::string(buf, 8), "ABCDEFGH") << "a write past the end changes nothing";
  store.Free(h);
}

// ---------------------------------------------------------------------------------------------
// CLockStore

namespace {

// A store whose blocks live in a map, reached only through Read and Write with an offset.
class CMapStore : public CLockStore {
 public:
  CMapStore() : CLockStore(nullptr, 0) {}
  DWORD Alloc(DWORD dwSize) override {
    m_blocks[++m_dwNext].assign(dwSize, 0);
    return m_dwNext;
  }
  DWORD GetSize(DWORD dwBlock) override {
    auto it = m_blocks.find(dwBlock);
    return it == m_blocks.end() ? 0 : (DWORD)it->second.size();
  }
  ERR Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) override {
    auto it = m_blocks.find(dwBlock);
    if (it == m_blocks.end()) return ERR_NOTFOUND;
    if (dwSize == (DWORD)-1) dwSize = (DWORD)it->second.size() - dwOffset;
    memcpy(pBuf, it->second.data() + dwOffset, dwSize);
    m_nReads++;
    return 0;
  }
  ERR Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize) override {
    if (m_bFailWrites) return ERR_FILE_WRITE;
    auto it = m_blocks.find(dwBlock);
    if (dwSize == (DWORD)-1) dwSize = (DWORD)it->second.size() - dwOffset;
    memcpy(it->second.data() + dwOffset, pBuf, dwSize);
    m_nWrites++;
    return 0;
  }
  // The copy-based access of the lock store itself.
  ERR CopyRead(DWORD b, void* p, DWORD o, DWORD n) { return CLockStore::Read(b, p, o, n); }
  ERR CopyWrite(DWORD b, const void* p, DWORD o, DWORD n) { return CLockStore::Write(b, p, o, n); }

  std::map<DWORD, std::vector<BYTE>> m_blocks;
  DWORD m_dwNext = 0;
  bool m_bFailWrites = false;
  int m_nReads = 0, m_nWrites = 0;
};

}  // namespace

TEST(LockStore, LockCopiesAndLastUnlockWritesBack) {
  LeakCheck leaks;
  CMapStore store;
  DWORD b = store.Alloc(6);
  memcpy(store.m_blocks[b].data(), "abcdef", 6);
  char* p = static_cast<char*>(store.Lock(b));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p, 6), "abcdef");
  EXPECT_EQ(store.Lock(b), p) << "a second lock shares the copy";
  EXPECT_EQ(store.m_nReads, 1);
  EXPECT_EQ(store.GetLockCount(b), 2u);
  EXPECT_EQ(store.GetLocked(b), p);
  EXPECT_EQ(store.GetBlock(p), b);
  p[0] = 'X';
  store.Unlock(b);
  EXPECT_EQ(store.m_nWrites, 0);
  EXPECT_EQ(store.m_blocks[b][0], 'a');
  store.Unlock(b);
  EXPECT_EQ(store.m_nWrites, 1);
  EXPECT_EQ(store.m_blocks[b][0], 'X');
  EXPECT_EQ(store.GetLocked(b), nullptr);
  EXPECT_EQ(store.GetBlock(p), 0u);
}

TEST(LockStore, FailedWriteBackKeepsBlockLockedOnce) {
  LeakCheck leaks;
  CMapStore store;
  DWORD b = store.Alloc(4);
  char* p = static_cast<char*>(store.Lock(b));
  memcpy(p, "WXYZ", 4);
  store.m_bFailWrites = true;
  store.Unlock(b);
  EXPECT_EQ(store.GetError(), ERR_FILE_WRITE);
  EXPECT_EQ(store.GetLockCount(b), 1u);
  EXPECT_EQ(store.GetLocked(b), p);
  EXPECT_EQ(std::string(p, 4), "WXYZ");
  store.m_bFailWrites = false;
  store.Unlock(b);
  EXPECT_EQ(store.GetLockCount(b), 0u);
  EXPECT_EQ(std::string(store.m_blocks[b].begin(), store.m_blocks[b].end()), "WXYZ");
}

TEST(LockStore, LockOfUnknownBlockFailsAndCopyAccessNeedsALockAndStaysInside) {
  LeakCheck leaks;
  CMapStore store;
  EXPECT_EQ(store.Lock(99), nullptr);
  store.Unlock(99);
  EXPECT_EQ(store.GetError(), ERR_NOTLOCKED);
  DWORD b = store.Alloc(8);
  char buf[8];
  EXPECT_EQ(store.CopyRead(b, buf, 0, 4), ERR_NOTLOCKED);
  EXPECT_EQ(store.GetError(), ERR_NOTLOCKED);
  char* p = static_cast<char*>(store.Lock(b));
  EXPECT_EQ(store.CopyWrite(b, "12345678", 0, (DWORD)-1), 0u);
  EXPECT_EQ(std::string(p, 8), "12345678");
  EXPECT_EQ(store.CopyWrite(b, "abcdef", 5, 6), 0u) << "cut at the block's end";
  EXPECT_EQ(std::string(p, 8), "12345abc");
  EXPECT_EQ(store.CopyRead(b, buf, 8, 1), ERR_POOL_TOOBIG);
  memset(buf, 0, sizeof(buf));
  EXPECT_EQ(store.CopyRead(b, buf, 6, (DWORD)-1), 0u);
  EXPECT_EQ(std::string(buf, 3), std::string("bc\0", 3));
  store.Unlock(b);
}

TEST(LockStore, DestructorWithLockedBlockAsserts) {
  LeakCheck leaks;
  AssertCatcher catcher;
  {
    CMapStore store;
    DWORD b = store.Alloc(4);
    EXPECT_NE(store.Lock(b), nullptr);
  }
  EXPECT_TRUE(catcher.Fired("!m_pLockedChain"));
}
