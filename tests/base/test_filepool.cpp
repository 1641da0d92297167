// Tests of the file pool: the file format, the free list, allocation and resizing, locking,
// and stepwise compaction with a client that keeps its references.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "base/filepool.h"
#include "testfile.h"
#include "testutil.h"

namespace {

// The pool's file: a read past the end is short without an error, so what rejects a cut file
// is the pool's own check of the sizes it read.
class CPoolFile : public CTestFile {
 public:
  explicit CPoolFile(std::vector<BYTE>* pData, bool* pbDeleted = nullptr) : CTestFile(pData, pbDeleted) {
    m_bEofOnShort = false;
  }
};

// Every open goes to one byte vector while alive.
std::vector<BYTE> g_file;
std::vector<WORD> g_modes;

CFile* OpenTestFile(const char* pchPath, WORD wMode, ERR* pErr) {
  g_modes.push_back(wMode);
  if (wMode == FILE_MODE_CREATE || wMode == FILE_MODE_WRITESEQ) g_file.clear();
  if (pErr) *pErr = 0;
  return new CPoolFile(&g_file);
}

struct FileHook {
  FileHook() : m_pfnOld(g_pfnFileOpen) {
    g_pfnFileOpen = OpenTestFile;
    g_file.clear();
    g_modes.clear();
  }
  ~FileHook() { g_pfnFileOpen = m_pfnOld; }
  PFN_FILEOPEN m_pfnOld;
};

DWORD At(const std::vector<BYTE>& v, DWORD dwPos) { return GetLE32(v.data() + dwPos); }

// The dwords of v from dwPos to its end.
std::vector<DWORD> DwordsFrom(const std::vector<BYTE>& v, DWORD dwPos) {
  std::vector<DWORD> out;
  for (; dwPos + 4 <= v.size(); dwPos += 4) out.push_back(At(v, dwPos));
  return out;
}

typedef std::pair<DWORD, DWORD> TEntry;

// Free list entry i as (position, size).
TEntry Entry(CFilePool& pool, DWORD i) {
  return TEntry(pool.GetFreeList()[i].dwPos, pool.GetFreeList()[i].dwSize);
}

// The client of a pool: its blocks' identifiers in file order, and their expected contents.
struct TClient {
  std::vector<DWORD> ids;
  int nMoves = 0;
  int nRefused = 0;
  bool bRefuse = false;  // refuse every move
};

ERR ClientMove(DWORD dwOld, DWORD dwNew, void* pData) {
  TClient* pClient = static_cast<TClient*>(pData);
  if (pClient->bRefuse) return ERR_GENERAL;
  for (DWORD& id : pClient->ids)
    if (id == dwOld) {
      id = dwNew;
      pClient->nMoves++;
      return 0;
    }
  pClient->nRefused++;
  return ERR_NOTFOUND;  // not one of ours: refuse
}

DWORD ClientGetBlock(DWORD dwIndex, void* pData) {
  TClient* pClient = static_cast<TClient*>(pData);
  return dwIndex < pClient->ids.size() ? pClient->ids[dwIndex] : 0;
}

std::vector<BYTE> Pattern(DWORD dwSize, DWORD dwSeed) {
  std::vector<BYTE> v(dwSize);
  for (DWORD i = 0; i < dwSize; i++) v[i] = (BYTE)(dwSeed * 31 + i * 7 + (i >> 8));
  return v;
}

// A new pool in g_file with granularity 4 and default size 64.
void NewPool(CFilePool& pool, TClient* pClient = nullptr) {
  ASSERT_EQ(pool.Create("pool.dat", ClientMove, ClientGetBlock, 4, 64), 0u);
  pool.SetCallbackData(pClient);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Format

TEST(FilePoolFormat, NewPoolHoldsOnlyTheOpenEndAndCloseWritesListAt24) {
  FileHook hook;
  {
    CFilePool pool;
    NewPool(pool);
    EXPECT_EQ(g_modes, (std::vector<WORD>{FILE_MODE_CREATE}));
    ASSERT_EQ(pool.GetFreeCount(), 1u);
    EXPECT_EQ(Entry(pool, 0), TEntry(0x24u, 0xFFFFFFFFu));
    EXPECT_EQ(pool.GetBlockCount(), 0u);
    EXPECT_EQ(pool.GetCompactPos(), 0x24u);
    pool.SetUserValue(0xABCD1234);
    g_file.assign(0x80, 0xEE);  // stale bytes that the cut must remove
    EXPECT_EQ(pool.Close(), 0u);
  }
  ASSERT_EQ(g_file.size(), 0x2Cu);
  EXPECT_EQ(std::string(g_file.begin(), g_file.begin() + 4), "POOL");
  // List position, entry count, block count, compaction block (none), compaction position,
  // default size, granularity, user value, then the list itself.
  EXPECT_EQ(DwordsFrom(g_file, 4),
            (std::vector<DWORD>{0x24, 1, 0, 0xFFFFFFFF, 0x24, 64, 4, 0xABCD1234, 0x24, 0xFFFFFFFF}));
}

TEST(FilePoolFormat, RoundSizeAndAllocFromOpenEnd) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  // The size dword counts.
  for (DWORD s : {0u, 1u, 4u, 13u, 1000u}) EXPECT_EQ(pool.RoundSize(s), (s + 4 + 3) / 4 * 4) << s;
  CPoolFile* pFile = static_cast<CPoolFile*>(pool.GetFile());
  DWORD h = pool.Alloc(10);
  EXPECT_EQ(h, 0x28u);
  EXPECT_EQ(g_file.size(), 0x24u + 16);
  EXPECT_EQ(pFile->m_nWrites, 2) << "the end byte and the size dword";
  EXPECT_EQ(At(g_file, 0x24), 10u);
  EXPECT_EQ(Entry(pool, 0), TEntry(0x34u, 0xFFFFFFFFu));
  EXPECT_EQ(pool.Alloc((DWORD)-1), 0x38u) << "-1 means the default size";
  EXPECT_EQ(pool.GetSize(0x38), 64u);
  EXPECT_EQ(pool.GetBlockCount(), 2u);
  ASSERT_EQ(pool.Create("p", nullptr, nullptr, 16, 0), 0u);
  EXPECT_EQ(pool.RoundSize(12), 16u);
  EXPECT_EQ(pool.RoundSize(13), 32u);
}

TEST(FilePoolFormat, ReopenRestoresBlocksListAndValues) {
  FileHook hook;
  DWORD a, b, c;
  std::vector<BYTE> pa = Pattern(100, 1), pc = Pattern(300, 3);
  {
    CFilePool pool;
    NewPool(pool);
    a = pool.Alloc(100);
    b = pool.Alloc(200);
    c = pool.Alloc(300);
    EXPECT_EQ(pool.Write(a, pa.data(), 0, 100), 0u);
    EXPECT_EQ(pool.Write(c, pc.data(), 0, 300), 0u);
    pool.Free(b);
    pool.SetUserValue(77);
  }
  // The list went into the freed middle block, so the file ends behind the last block.
  EXPECT_EQ(At(g_file, 0x04), b - 4);
  EXPECT_EQ(g_file.size(), c - 4 + 304u);
  std::vector<BYTE> copy = g_file;
  CFilePool pool;
  ASSERT_EQ(pool.Open(new CPoolFile(&copy), ClientMove, ClientGetBlock, 1), 0u);
  EXPECT_EQ(pool.GetUserValue(), 77u);
  EXPECT_EQ(pool.GetBlockCount(), 2u);
  ASSERT_EQ(pool.GetFreeCount(), 2u);
  EXPECT_EQ(Entry(pool, 0), TEntry(b - 4, 204u));
  EXPECT_EQ(pool.GetFreeList()[1].dwSize, 0xFFFFFFFFu);
  std::vector<BYTE> buf(300);
  EXPECT_EQ(pool.Read(a, buf.data(), 0, (DWORD)-1), 0u);
  EXPECT_TRUE(std::equal(pa.begin(), pa.end(), buf.begin()));
  EXPECT_EQ(pool.Read(c, buf.data(), 0, 300), 0u);
  EXPECT_EQ(buf, pc);
  // Read-only: nothing is allocated or written.
  EXPECT_EQ(pool.Alloc(8), 0u);
  EXPECT_EQ(pool.Write(a, "x", 0, 1), ERR_FILE_WRITEPROTECT);
  // A free while read-only is counted in memory; the file stays as it was.
  const std::vector<BYTE> before = copy;
  pool.Free(c);
  EXPECT_EQ(pool.GetBlockCount(), 1u);
  ASSERT_EQ(pool.GetFreeCount(), 3u);
  EXPECT_EQ(Entry(pool, 1), TEntry(c - 4, 304u));
  EXPECT_EQ(pool.Close(), 0u);
  EXPECT_EQ(copy, before);
}

TEST(FilePoolFormat, OpenRejectsDamagedHeadersAndDeletesTheFile) {
  FileHook hook;
  {
    CFilePool pool;
    NewPool(pool);
    pool.Alloc(20);
  }
  std::vector<BYTE> magic = g_file;
  memcpy(magic.data(), "LOOP", 4);
  bool bDeleted = false;
  CFilePool pool;
  EXPECT_EQ(pool.Open(new CPoolFile(&magic, &bDeleted), nullptr, nullptr, 0), ERR_POOL_BADFORMAT);
  EXPECT_TRUE(bDeleted);
  EXPECT_EQ(pool.GetFile(), nullptr);
  EXPECT_EQ(pool.Open(nullptr, nullptr, nullptr, 0), ERR_UNKNOWN);
  std::vector<BYTE> bad = g_file;
  PutLE32(bad.data() + At(bad, 4) + 4, 100);  // the last entry is no open end
  bDeleted = false;
  {
    AssertCatcher catcher;
    EXPECT_EQ(pool.Open(new CPoolFile(&bad, &bDeleted), nullptr, nullptr, 0), ERR_POOL_BADFORMAT);
    EXPECT_TRUE(catcher.Fired("((TFreeBlock *)m_pFreeBlocks)[m_dwFreeBlocks-1].dwSize == (DWORD)-1"));
  }
  EXPECT_TRUE(bDeleted);
  std::vector<BYTE> far = g_file;
  PutLE32(far.data() + 8, 0x10000000);  // more entries than the file holds
  EXPECT_EQ(pool.Open(new CPoolFile(&far), nullptr, nullptr, 0), ERR_POOL_BADFORMAT);
  std::vector<BYTE> shortFile(g_file.begin(), g_file.begin() + 0x20);
  EXPECT_EQ(pool.Open(new CPoolFile(&shortFile), nullptr, nullptr, 0), ERR_POOL_BADFORMAT);
  // By path: read-only or read-write.
  g_modes.clear();
  EXPECT_EQ(pool.OpenPath("pool.dat", nullptr, nullptr, 1), 0u);
  EXPECT_EQ(pool.OpenPath("pool.dat", nullptr, nullptr, 0), 0u);
  EXPECT_EQ(g_modes, (std::vector<WORD>{FILE_MODE_READ, FILE_MODE_READWRITE}));
}

// ---------------------------------------------------------------------------------------------
// Free list

TEST(FilePoolFree, BlocksBesideLastTouchedEntryMergeWithoutSorting) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  DWORD a = pool.Alloc(12), b = pool.Alloc(12), c = pool.Alloc(12);
  pool.Free(b);
  EXPECT_EQ(pool.GetFreeCount(), 2u);
  EXPECT_FALSE(pool.IsFreeSorted());
  pool.Free(a);
  ASSERT_EQ(pool.GetFreeCount(), 2u) << "merged into the entry of b";
  EXPECT_EQ(Entry(pool, 0), TEntry(a - 4, 32u));
  // The freed region is reused first fit.
  EXPECT_EQ(pool.Alloc(28), a);
  EXPECT_EQ(pool.GetFreeCount(), 1u);
  // A block right after the last touched entry grows it.
  pool.Free(a);  // a new entry: it becomes the last touched
  pool.Free(c);  // c starts where that entry ends
  ASSERT_EQ(pool.GetFreeCount(), 2u);
  EXPECT_EQ(pool.GetFreeList()[0].dwSize, 48u);
  // Closing sorts and joins the run up to the open end: the file is cut to the list.
  EXPECT_EQ(pool.Close(), 0u);
  EXPECT_EQ(g_file.size(), 0x24u + 8);
}

TEST(FilePoolFree, ManyFreedBlocksGrowTheList) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  std::vector<DWORD> ids;
  for (int i = 0; i < 100; i++) ids.push_back(pool.Alloc(8));
  for (int i = 0; i < 100; i += 2) pool.Free(ids[i]);
  EXPECT_EQ(pool.GetFreeCount(), 51u);
  EXPECT_EQ(pool.GetBlockCount(), 50u);
  EXPECT_EQ(pool.Close(), 0u);
  std::vector<BYTE> copy = g_file;
  CFilePool again;
  ASSERT_EQ(again.Open(new CPoolFile(&copy), nullptr, nullptr, 1), 0u);
  EXPECT_EQ(again.GetFreeCount(), 51u);
  for (DWORD i = 0; i < 50; i++) EXPECT_EQ(again.GetFreeList()[i].dwPos, ids[2 * i] - 4);
}

// ---------------------------------------------------------------------------------------------
// Resizing

TEST(FilePoolReAlloc, GrowsAndShrinksInPlace) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  DWORD a = pool.Alloc(12), b = pool.Alloc(40), c = pool.Alloc(4);
  pool.Free(b);
  EXPECT_EQ(pool.ReAlloc(a, 30), a);
  EXPECT_EQ(pool.GetSize(a), 30u);
  ASSERT_EQ(pool.GetFreeCount(), 2u);
  EXPECT_EQ(Entry(pool, 0), TEntry(a - 4 + 36, 44u - 20));
  // Using the rest exactly removes the entry.
  EXPECT_EQ(pool.ReAlloc(a, 56), a);
  EXPECT_EQ(pool.GetFreeCount(), 1u);
  // The last block grows into the open end, and the file with it.
  EXPECT_EQ(pool.ReAlloc(c, 100), c);
  EXPECT_EQ(g_file.size(), c - 4 + 104u);
  // Shrinking frees the tail; the same size changes nothing.
  EXPECT_EQ(pool.ReAlloc(a, 56), a);
  EXPECT_EQ(pool.GetFreeCount(), 1u);
  EXPECT_EQ(pool.ReAlloc(a, 20), a);
  EXPECT_EQ(pool.GetSize(a), 20u);
  ASSERT_EQ(pool.GetFreeCount(), 2u);
  EXPECT_EQ(Entry(pool, 0), TEntry(a - 4 + 24, 36u));
}

TEST(FilePoolReAlloc, MovesWhenBlockedUnlessTheClientRefuses) {
  FileHook hook;
  TClient client;
  CFilePool pool;
  NewPool(pool, &client);
  DWORD a = pool.Alloc(20);
  DWORD b = pool.Alloc(20);
  client.ids = {a, b};
  std::vector<BYTE> pa = Pattern(20, 9);
  pool.Write(a, pa.data(), 0, 20);
  DWORD n = pool.ReAlloc(a, 200);
  ASSERT_NE(n, 0u);
  EXPECT_NE(n, a);
  EXPECT_EQ(client.ids[0], n);
  EXPECT_EQ(client.nMoves, 1);
  EXPECT_EQ(pool.GetSize(n), 200u);
  std::vector<BYTE> buf(20);
  pool.Read(n, buf.data(), 0, 20);
  EXPECT_EQ(buf, pa);
  EXPECT_EQ(pool.GetBlockCount(), 2u);
  EXPECT_EQ(pool.GetFreeList()[0].dwPos, a - 4) << "the old place is free";
  // A refused move keeps the old block.
  client.bRefuse = true;
  EXPECT_EQ(pool.ReAlloc(b, 400), 0u);
  EXPECT_EQ(pool.GetSize(b), 20u);
  EXPECT_EQ(pool.GetBlockCount(), 2u);
  // A move the client refused is not taken back: it hears of it once.
  client.bRefuse = false;
  client.ids = {n};  // b is not the client's, so its move is refused
  EXPECT_EQ(pool.ReAlloc(b, 400), 0u);
  EXPECT_EQ(client.nRefused, 1);
  EXPECT_EQ(client.ids, std::vector<DWORD>{n});
  EXPECT_EQ(pool.GetSize(b), 20u);
}

// ---------------------------------------------------------------------------------------------
// Locking and access

TEST(FilePoolLock, CopyIsWrittenBackAtLastUnlock) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  DWORD h = pool.Alloc(8);
  pool.Write(h, "abcdefgh", 0, 8);
  char* p = static_cast<char*>(pool.Lock(h));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p, 8), "abcdefgh");
  EXPECT_EQ(pool.Lock(h), p);
  EXPECT_EQ(pool.GetLocked(h), p);
  EXPECT_EQ(pool.GetBlock(p), h);
  p[0] = 'X';
  EXPECT_EQ(pool.Write(h, "YZ", 6, 2), 0u) << "writes go to the copy while locked";
  pool.Unlock(h);
  EXPECT_EQ(g_file[h], 'a');
  pool.Unlock(h);
  EXPECT_EQ(std::string(g_file.begin() + h, g_file.begin() + h + 8), "XbcdefYZ");
  EXPECT_EQ(pool.GetLocked(h), nullptr);
  AssertCatcher catcher;
  pool.Unlock(h);
  EXPECT_TRUE(catcher.Fired("0"));
  EXPECT_EQ(pool.GetError(), ERR_NOTFOUND);
}

TEST(FilePoolLock, ManyLocksGrowAndShrinkTheTableAndLastLockAsserts) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  std::vector<DWORD> ids;
  for (int i = 0; i < 100; i++) {
    ids.push_back(pool.Alloc(4));
    ASSERT_NE(pool.Lock(ids.back()), nullptr);
    PutLE32(pool.GetLocked(ids.back()), (DWORD)i * 3);
  }
  for (DWORD h : ids) pool.Unlock(h);
  for (int i = 0; i < 100; i++) EXPECT_EQ(At(g_file, ids[i]), (DWORD)i * 3);
  AssertCatcher catcher;
  {
    CFilePool locked;
    NewPool(locked);
    locked.Lock(locked.Alloc(4));
  }
  EXPECT_TRUE(catcher.Fired("0"));  // destroyed with a block locked
}

TEST(FilePoolAccess, RangesAreCutAndReported) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  DWORD a = pool.Alloc(8);
  DWORD b = pool.Alloc(8);
  pool.Write(b, "BBBBBBBB", 0, 8);
  EXPECT_EQ(pool.Write(a, "01234567", 0, (DWORD)-1), 0u);
  char buf[16];
  memset(buf, '.', sizeof(buf));
  EXPECT_EQ(pool.Read(a, buf, 9, 1), ERR_OUTOFRANGE);
  EXPECT_EQ(pool.Read(a, buf, 6, 5), ERR_OUTOFRANGE);
  EXPECT_EQ(std::string(buf, 4), "67..") << "the cut range is still copied";
  EXPECT_EQ(pool.Read(a, buf, 8, (DWORD)-1), 0u) << "an offset at the end is allowed";
  // To the file, a write past the end is written whole and reported.
  EXPECT_EQ(pool.Write(a, "xyzw", 6, 4), ERR_OUTOFRANGE);
  EXPECT_EQ(std::string(g_file.begin() + a + 6, g_file.begin() + a + 10), "xyzw");
  // Locked, the same write is cut to the block.
  pool.Lock(a);
  EXPECT_EQ(pool.Write(a, "abcd", 6, 4), ERR_OUTOFRANGE);
  EXPECT_EQ(std::string(static_cast<char*>(pool.GetLocked(a)) + 6, 2), "ab");
  pool.Unlock(a);
}

TEST(FilePoolAccess, WithoutFileAllocAsserts) {
  CFilePool pool;
  AssertCatcher catcher;
  EXPECT_EQ(pool.Alloc(4), 0u);
  EXPECT_EQ(pool.GetError(), ERR_POOL_NOTOPEN);
  pool.Free(0x28);
  EXPECT_EQ(catcher.Count(), 2u);
  EXPECT_EQ(pool.CompactStep(), ERR_POOL_NOTOPEN);
}

// ---------------------------------------------------------------------------------------------
// Compaction

TEST(FilePoolCompact, SingleBlockInPlaceAndNoMoveFunction) {
  FileHook hook;
  TClient client;
  CFilePool pool;
  NewPool(pool, &client);
  EXPECT_EQ(pool.CompactStep(), ERR_POOL_NOMORE) << "no blocks";
  client.ids = {pool.Alloc(10)};
  EXPECT_EQ(pool.CompactStep(), 0u);
  // In place: the position moves to the block's end.
  EXPECT_EQ(pool.GetCompactPos(), 0x24u + 16);
  EXPECT_EQ(pool.CompactStep(), ERR_POOL_NOMORE);
  EXPECT_EQ(client.nMoves, 0);
  // Without a move function nothing moves.
  ASSERT_EQ(pool.Create("p", nullptr, nullptr, 4, 0), 0u);
  DWORD a = pool.Alloc(10);
  pool.Alloc(10);
  pool.Free(a);
  EXPECT_EQ(pool.CompactStep(), 0u);
  EXPECT_EQ(pool.GetFreeList()[0].dwPos, 0x24u);
}

namespace {

// The block at h holds want, with its size dword before it, in the file's own bytes.
void ExpectFileBlock(DWORD h, const std::vector<BYTE>& want) {
  ASSERT_LE(h + want.size(), g_file.size()) << "block at " << h;
  EXPECT_EQ(At(g_file, h - 4), (DWORD)want.size()) << "size dword of block at " << h;
  EXPECT_TRUE(std::equal(want.begin(), want.end(), g_file.begin() + h)) << "content of block at " << h;
}

// Checks every client block against its expected content.
void ExpectBlocks(const TClient& client, const std::vector<std::vector<BYTE>>& contents) {
  for (size_t i = 0; i < client.ids.size(); i++) ExpectFileBlock(client.ids[i], contents[i]);
}

std::vector<BYTE> RandomBytes(std::mt19937& rng, DWORD dwSize) {
  std::vector<BYTE> v(dwSize);
  for (BYTE& b : v) b = (BYTE)rng();
  return v;
}

}  // namespace

TEST(FilePoolCompact, MovesBlocksDownAndClientFollows) {
  FileHook hook;
  TClient client;
  CFilePool pool;
  NewPool(pool, &client);
  // A small hole at the start, so the next block overlaps its target; then a larger hole.
  DWORD sizes[] = {0x400, 0x800, 0x500, 0xC00, 0x600};
  std::vector<DWORD> ids;
  std::vector<std::vector<BYTE>> all;
  for (DWORD i = 0; i < 5; i++) {
    ids.push_back(pool.Alloc(sizes[i]));
    all.push_back(Pattern(sizes[i], i));
    ASSERT_EQ(pool.Write(ids[i], all[i].data(), 0, sizes[i]), 0u);
  }
  pool.Free(ids[0]);
  pool.Free(ids[3]);
  client.ids = {ids[1], ids[2], ids[4]};
  std::vector<std::vector<BYTE>> kept = {all[1], all[2], all[4]};

  int nSteps = 0;
  ERR err;
  while ((err = pool.CompactStep()) == 0 && nSteps < 100) nSteps++;
  EXPECT_EQ(err, ERR_POOL_NOMORE);
  EXPECT_EQ(client.nRefused, 0);
  EXPECT_EQ(client.nMoves, 3);
  // Packed from the start, in file order, each with its size dword.
  DWORD dwPos = 0x24;
  for (size_t i = 0; i < client.ids.size(); i++) {
    EXPECT_EQ(client.ids[i], dwPos + 4) << i;
    dwPos += pool.RoundSize((DWORD)kept[i].size());
  }
  ExpectBlocks(client, kept);
  // Closing cuts the file behind the last block and its stored list.
  EXPECT_EQ(pool.Close(), 0u);
  EXPECT_EQ(At(g_file, 0x04), dwPos);
  EXPECT_EQ(g_file.size(), dwPos + 8u);
}

TEST(FilePoolCompact, RefusedMoveLeavesBlocksWhereTheyWere) {
  FileHook hook;
  TClient client;
  CFilePool pool;
  NewPool(pool, &client);
  DWORD a = pool.Alloc(0x500), b = pool.Alloc(0x500);
  std::vector<BYTE> pb = Pattern(0x500, 5);
  pool.Write(b, pb.data(), 0, 0x500);
  pool.Free(a);
  client.ids = {b};
  client.bRefuse = true;
  EXPECT_EQ(pool.CompactStep(), ERR_GENERAL);
  EXPECT_EQ(client.ids[0], b);
  ExpectBlocks(client, {pb});
  client.bRefuse = false;
  // Agreed the next time, the same step moves it.
  EXPECT_EQ(pool.CompactStep(), 0u);
  EXPECT_EQ(client.ids[0], 0x28u);
  ExpectBlocks(client, {pb});
}

namespace {

// A client that keeps its blocks sorted by identifier, so its block number n is the n-th block
// in file order whatever the pool moved, and knows every block's expected content.
struct TSortedClient {
  std::vector<std::pair<DWORD, size_t>> blocks;  // identifier, index into contents
  std::vector<std::vector<BYTE>> contents;
  int nMoves = 0;
  int nRefused = 0;
  void Sort() { std::sort(blocks.begin(), blocks.end()); }
};

ERR SortedClientMove(DWORD dwOld, DWORD dwNew, void* pData) {
  TSortedClient* pClient = static_cast<TSortedClient*>(pData);
  auto itOld = pClient->blocks.end();
  for (auto it = pClient->blocks.begin(); it != pClient->blocks.end(); ++it) {
    if (it->first == dwNew) {
      pClient->nRefused++;  // two blocks at one place: refuse
      return ERR_GENERAL;
    }
    if (it->first == dwOld) itOld = it;
  }
  if (itOld == pClient->blocks.end()) {
    pClient->nRefused++;
    return ERR_NOTFOUND;
  }
  itOld->first = dwNew;
  pClient->nMoves++;
  pClient->Sort();
  return 0;
}

DWORD SortedClientGetBlock(DWORD dwIndex, void* pData) {
  TSortedClient* pClient = static_cast<TSortedClient*>(pData);
  return dwIndex < pClient->blocks.size() ? pClient->blocks[dwIndex].first : 0;
}

// Every block of the client, read through the pool, holds its content.
void ExpectSortedClientBlocks(CFilePool& pool, const TSortedClient& client, const char* pchWhen) {
  for (const auto& b : client.blocks) {
    const std::vector<BYTE>& want = client.contents[b.second];
    ASSERT_EQ(pool.GetSize(b.first), (DWORD)want.size()) << pchWhen << ": size of block at " << b.first;
    std::vector<BYTE> buf(want.size() + 1);
    ASSERT_EQ(pool.Read(b.first, buf.data(), 0, (DWORD)want.size()), 0u)
        << pchWhen << ": block at " << b.first;
    buf.pop_back();
    ASSERT_TRUE(buf == want) << pchWhen << ": content of block at " << b.first << ", size " << want.size();
  }
  // No two blocks share a byte.
  for (size_t i = 1; i < client.blocks.size(); i++) {
    DWORD dwPrev = client.blocks[i - 1].first;
    ASSERT_LE(dwPrev - 4 + pool.RoundSize((DWORD)client.contents[client.blocks[i - 1].second].size()),
              client.blocks[i].first - 4)
        << pchWhen << ": blocks at " << dwPrev << " and " << client.blocks[i].first << " overlap";
  }
}

// Blocks of mixed sizes, random frees, then compaction step by step with every block checked
// after every step; then the file is closed, reopened and read back, and new blocks written
// into it must not touch the old ones.
void RunRandomCompaction(DWORD dwSeed, DWORD dwGran) {
  FileHook hook;
  std::mt19937 rng(dwSeed);
  TSortedClient client;
  DWORD dwTotal = 0;
  {
    CFilePool pool;
    ASSERT_EQ(pool.Create("pool.dat", SortedClientMove, SortedClientGetBlock, dwGran, 64), 0u);
    pool.SetCallbackData(&client);
    std::vector<std::pair<DWORD, std::vector<BYTE>>> all;
    DWORD dwCount = 60 + rng() % 140;
    for (DWORD i = 0; i < dwCount; i++) {
      // Below the granularity, around it, around 0x400, a few KiB, small to middling.
      const DWORD adwBase[6] = {1, 1, 0x3F0, 0x400, 1, 1};
      const DWORD adwSpan[6] = {8, 2 * dwGran + 8, 0x20, 0x1000, 0x200, 0x200};
      DWORD k = rng() % 6;
      DWORD dwSize = adwBase[k] + rng() % adwSpan[k];
      DWORD h = pool.Alloc(dwSize);
      ASSERT_NE(h, 0u);
      std::vector<BYTE> v = RandomBytes(rng, dwSize);
      ASSERT_EQ(pool.Write(h, v.data(), 0, dwSize), 0u);
      all.push_back({h, v});
    }
    // Some runs free the first block, some keep it in place; frees in random order.
    std::vector<size_t> order(all.size());
    for (size_t i = 0; i < order.size(); i++) order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    DWORD dwFreeShare = 2 + rng() % 4;
    std::vector<bool> freed(all.size());
    for (size_t i : order)
      if (rng() % dwFreeShare == 0) {
        pool.Free(all[i].first);
        freed[i] = true;
      }
    // Some freed places are taken again by blocks of the same size, which use a free entry up
    // exactly and take it out of the list.
    for (size_t i : order)
      if (freed[i] && rng() % 3 == 0) {
        DWORD dwSize = (DWORD)all[i].second.size();
        DWORD h = pool.Alloc(dwSize);
        ASSERT_NE(h, 0u);
        std::vector<BYTE> v = RandomBytes(rng, dwSize);
        ASSERT_EQ(pool.Write(h, v.data(), 0, dwSize), 0u);
        all.push_back({h, v});
        freed.push_back(false);
      }
    for (size_t i = 0; i < all.size(); i++)
      if (!freed[i]) {
        client.blocks.push_back({all[i].first, client.contents.size()});
        client.contents.push_back(all[i].second);
        dwTotal += pool.RoundSize((DWORD)all[i].second.size());
      }
    client.Sort();
    ASSERT_EQ(pool.GetBlockCount(), client.blocks.size());
    ExpectSortedClientBlocks(pool, client, "before compaction");

    ERR err = 0;
    int nSteps = 0;
    while (nSteps < 20000 && (err = pool.CompactStep()) == 0) {
      nSteps++;
      ExpectSortedClientBlocks(pool, client, "after a step");
      if (::testing::Test::HasFatalFailure()) return;
    }
    EXPECT_EQ(err, ERR_POOL_NOMORE) << "after " << nSteps << " steps";
    EXPECT_EQ(client.nRefused, 0);
    // Finished, the blocks are packed from the start with no gap between them.
    DWORD dwPos = FILEPOOL_HEADER;
    for (const auto& b : client.blocks) {
      EXPECT_EQ(b.first, dwPos + 4);
      dwPos += pool.RoundSize((DWORD)client.contents[b.second].size());
    }
    EXPECT_EQ(dwPos, FILEPOOL_HEADER + dwTotal);
    EXPECT_EQ(pool.Close(), 0u);
  }
  // The file's own bytes: every block's size dword and content where the client has it.
  for (const auto& b : client.blocks) ExpectFileBlock(b.first, client.contents[b.second]);
  // Reopened for writing: read back, then new blocks must land outside the old ones.
  std::vector<BYTE> copy = g_file;
  CFilePool pool;
  ASSERT_EQ(pool.Open(new CPoolFile(&copy), SortedClientMove, SortedClientGetBlock, 0), 0u);
  pool.SetCallbackData(&client);
  EXPECT_EQ(pool.GetBlockCount(), client.blocks.size());
  ExpectSortedClientBlocks(pool, client, "reopened");
  for (int i = 0; i < 20; i++) {
    DWORD dwSize = 1 + rng() % 0x300;
    DWORD h = pool.Alloc(dwSize);
    ASSERT_NE(h, 0u);
    std::vector<BYTE> v = RandomBytes(rng, dwSize);
    ASSERT_EQ(pool.Write(h, v.data(), 0, dwSize), 0u);
    client.blocks.push_back({h, client.contents.size()});
    client.contents.push_back(v);
    client.Sort();
  }
  ExpectSortedClientBlocks(pool, client, "after new blocks");
}

}  // namespace

TEST(FilePoolCompact, RandomMixedSizesKeepEveryBlockIntact) {
  DWORD adwGran[] = {4, 8, 16, 64};
  for (DWORD dwSeed = 1; dwSeed <= 12; dwSeed++)
    for (DWORD dwGran : adwGran) {
      SCOPED_TRACE("seed " + std::to_string(dwSeed) + ", granularity " + std::to_string(dwGran));
      RunRandomCompaction(dwSeed, dwGran);
    }
}

namespace {

// Reaches the shift of blocks out of the way directly.
class CShiftPool : public CFilePool {
 public:
  using CFilePool::ShiftBlocks;
};

}  // namespace

TEST(FilePoolCompact, ShiftCarriesBlocksOfDifferentSizesWhole) {
  FileHook hook;
  TSortedClient client;
  CShiftPool pool;
  ASSERT_EQ(pool.Create("pool.dat", SortedClientMove, SortedClientGetBlock, 4, 64), 0u);
  pool.SetCallbackData(&client);
  // A small hole, three blocks of different sizes behind it, then a large hole.
  DWORD sizes[] = {8, 5, 0x30, 0x11, 0x200, 0x40};
  DWORD ids[6];
  for (int i = 0; i < 6; i++) {
    ids[i] = pool.Alloc(sizes[i]);
    std::vector<BYTE> v = Pattern(sizes[i], i + 1);
    ASSERT_EQ(pool.Write(ids[i], v.data(), 0, sizes[i]), 0u);
    if (i != 0 && i != 4) {
      client.blocks.push_back({ids[i], client.contents.size()});
      client.contents.push_back(v);
    }
  }
  pool.Free(ids[0]);
  pool.Free(ids[4]);
  DWORD dwHole = pool.RoundSize(8), dwGroup = pool.RoundSize(5) + pool.RoundSize(0x30) + pool.RoundSize(0x11);
  DWORD dwOfs = 0x24 + dwHole, dwTarget = ids[4] - 4;
  client.Sort();
  ASSERT_EQ(pool.ShiftBlocks(dwHole + dwGroup, &client), 0u);
  EXPECT_EQ(client.nMoves, 3);
  EXPECT_EQ(client.nRefused, 0);
  // The three blocks now lie, in order and whole, where the large hole began.
  EXPECT_EQ(client.blocks[0].first, ids[1] + (dwTarget - dwOfs));
  EXPECT_EQ(client.blocks[1].first, ids[2] + (dwTarget - dwOfs));
  EXPECT_EQ(client.blocks[2].first, ids[3] + (dwTarget - dwOfs));
  ExpectSortedClientBlocks(pool, client, "after the shift");
  // The first hole took their place; the large one gave up their bytes.
  ASSERT_GE(pool.GetFreeCount(), 3u);
  EXPECT_EQ(Entry(pool, 0), TEntry(0x24u, dwHole + dwGroup));
  EXPECT_EQ(Entry(pool, 1), TEntry(dwTarget + dwGroup, pool.RoundSize(0x200) - dwGroup));
}

TEST(FilePoolCompact, ShiftWithNothingBetweenJoinsTheFirstTwoEntries) {
  FileHook hook;
  TSortedClient client;
  CShiftPool pool;
  ASSERT_EQ(pool.Create("pool.dat", SortedClientMove, SortedClientGetBlock, 4, 64), 0u);
  pool.SetCallbackData(&client);
  DWORD a = pool.Alloc(8), b = pool.Alloc(20), c = pool.Alloc(100), d = pool.Alloc(30);
  pool.Free(a);
  pool.Free(c);
  pool.Free(b);  // c's entry takes it in, and now starts where a's ends: two touching entries
  client.blocks = {{d, 0}};
  client.contents = {Pattern(30, 9)};
  ASSERT_EQ(pool.Write(d, client.contents[0].data(), 0, 30), 0u);
  DWORD dwCount = pool.GetFreeCount();
  ASSERT_EQ(pool.ShiftBlocks(0x1000, &client), 0u);
  EXPECT_EQ(client.nMoves, 0) << "no block lies between the two entries";
  EXPECT_EQ(pool.GetFreeCount(), dwCount - 1);
  EXPECT_EQ(Entry(pool, 0), TEntry(0x24u, d - 4 - 0x24));
  EXPECT_EQ(pool.GetFreeList()[pool.GetFreeCount() - 1].dwSize, 0xFFFFFFFFu);
  ExpectSortedClientBlocks(pool, client, "after the join");
}

TEST(FilePoolLock, SizeBeyondTheFileIsRefusedWithoutTakingMemory) {
  FileHook hook;
  CFilePool pool;
  NewPool(pool);
  DWORD h = pool.Alloc(16);
  ASSERT_NE(h, 0u);
  PutLE32(g_file.data() + h - 4, 0x60000000);  // a damaged size dword
  EXPECT_EQ(pool.Lock(h), nullptr);
  EXPECT_EQ(pool.GetLocked(h), nullptr);
  PutLE32(g_file.data() + h - 4, 16);
  EXPECT_NE(pool.Lock(h), nullptr);
  pool.Unlock(h);
}

TEST(FilePoolCompact, DamagedBlockCountDoesNotSizeTheListMemory) {
  FileHook hook;
  TClient client;
  {
    CFilePool pool;
    ASSERT_EQ(pool.Create("pool.dat", ClientMove, ClientGetBlock, 1, 64), 0u);
    for (int i = 0; i < 3; i++) client.ids.push_back(pool.Alloc(12));
    ASSERT_EQ(pool.Close(), 0u);
  }
  // Granularity 1 leaves the reopened list full with its single entry, and a client that
  // skips the first block makes the compaction insert an entry for the gap it leaves.
  const DWORD dwClaimed = 0x00400000;
  PutLE32(g_file.data() + 0x0C, dwClaimed);
  client.ids.erase(client.ids.begin());
  CFilePool pool;
  pool.SetCallbackData(&client);
  ASSERT_EQ(pool.Open(new CPoolFile(&g_file), ClientMove, ClientGetBlock, 0), 0u);
  ASSERT_EQ(pool.GetFreeCount(), 1u);
  DWORD dwBefore = g_dwPtrMemUsed;
  pool.CompactStep();
  EXPECT_EQ(pool.GetBlockCount(), dwClaimed + 0x20);  // the count still takes its step
  EXPECT_GE(pool.GetFreeCount(), 2u);
  EXPECT_LT(g_dwPtrMemUsed - dwBefore, 0x1000u);  // not 8 bytes for every claimed block
}
