// The root class CObject, string and memory helpers, hashes, array search and sort, and the
// system's own containers.
#pragma once

#include <stddef.h>

#include "memalloc.h"
#include "twvmerr.h"
#include "types.h"

class CFile;

// ---------------------------------------------------------------------------------------------
// CObject: root of the class tree. Objects are allocated through MemNewObject and released
// through MemDelete, so they count against the object limit and appear in the leak report.

class CObject {
 public:
  CObject() {}
  virtual DWORD GetClassId();
  virtual const char* GetClassName();
  // The object if dwId is its class's identifier (or a base class's), else null.
  virtual CObject* Cast(DWORD dwId);
  // Prints "[ClassName]" through DebugPrintf.
  virtual void Dump();
  virtual ~CObject() {}

  // Non-throwing: a null result makes `new` yield null without running the constructor.
  static void* operator new(size_t nSize) noexcept;
  static void operator delete(void* p);

 private:
  CObject(const CObject&) = delete;
  CObject& operator=(const CObject&) = delete;
};

// Declares the three identity operations of a class derived from CObject.
#define DECLARE_CLASS()                \
 public:                               \
  DWORD GetClassId() override;         \
  const char* GetClassName() override; \
  CObject* Cast(DWORD dwId) override;

// Defines them: cls is the class, id its identifier, base its direct base class.
#define IMPLEMENT_CLASS(cls, id, base)             \
  DWORD cls::GetClassId() { return (id); }         \
  const char* cls::GetClassName() { return #cls; } \
  CObject* cls::Cast(DWORD dwId) { return dwId == (id) ? this : base::Cast(dwId); }

// ---------------------------------------------------------------------------------------------
// Callbacks shared by the search, sort and container code.

// Orders two items: negative, 0 or positive. Only the 16 bits of the result count.
typedef SHORT (*PFN_COMPARE)(const void* pData1, const void* pData2);
// Releases an item of a container; pUserData is the container's m_pUserData.
typedef void (*PFN_DELETE)(void* pItem, void* pUserData);
// Maps a key to a bucket in 0..dwMax-1.
typedef DWORD (*PFN_HASHKEY)(const void* pKey, DWORD dwMax);

// The element compare function while CList::Sort runs; null otherwise. A list sort started
// while it is set is refused (the sort is not reentrant).
extern PFN_COMPARE g_tmpCompareFunc;

// Ready-made compares of one value of each width: -1, 0 or 1.
SHORT CompareDword(const void* pData1, const void* pData2);
SHORT CompareLong(const void* pData1, const void* pData2);
SHORT CompareWord(const void* pData1, const void* pData2);
SHORT CompareShort(const void* pData1, const void* pData2);

// ---------------------------------------------------------------------------------------------
// Memory and text helpers; they work on single bytes and never on more than they are told.

void* MemSet(void* p, int c, DWORD n);
// Forward copy; the ranges must not overlap. Returns dst.
void* MemCopy(void* dst, const void* src, DWORD n);
// Overlap-safe copy; does nothing when n is 0 or the pointers are equal. Returns dst.
void* MemMove(void* dst, const void* src, DWORD n);
// Unsigned byte compare: -1, 0 or 1.
SHORT MemCmp(const void* a, const void* b, DWORD n);
// As MemCmp after lower-casing A..Z in both.
SHORT MemICmp(const void* a, const void* b, DWORD n);
// Address of the first byte c in p[0..n-1], or 0.
void* MemChr(const void* p, int c, DWORD n);
// Address of the first (last) c in s, or 0. The terminating zero is part of the text, so
// c == 0 gives the address of the terminator.
char* StrChr(const char* s, int c);
char* StrRChr(const char* s, int c);
DWORD StrLen(const char* s);
// Both return dst.
char* StrCpy(char* dst, const char* src);
char* StrCat(char* dst, const char* src);
// Bytes compared as signed chars: -1, 0 or 1.
SHORT StrCmp(const char* a, const char* b);
// Bytes compared unsigned, only A..Z folded (by OR 0x20): -1, 0 or 1.
SHORT StrICmp(const char* a, const char* b);
// At most n bytes, A..Z lower-cased, compared as signed chars: -1, 0 or 1.
SHORT StrNICmp(const char* a, const char* b, DWORD n);
// Copies at most n bytes and always adds a zero after them: dst needs n + 1 bytes. Returns dst.
char* StrNCpy(char* dst, const char* src, DWORD n);
// In place, ASCII letters only. Return s.
char* StrUpr(char* s);
char* StrLwr(char* s);
// Exchanges n bytes; asserts "p1 && p2" and then does nothing.
void SwapMem(void* p1, void* p2, DWORD n);

// ---------------------------------------------------------------------------------------------
// Hashes: key and bucket count in, bucket out. A bucket count of 0 gives bucket 0.

// *(DWORD*)pKey % dwMax; asserts "dwMax".
DWORD HashDword(const void* pKey, DWORD dwMax);
// On zero-terminated texts, with each byte taken as a signed char.
DWORD HashSum(const void* pKey, DWORD dwMax);
DWORD Hash31(const void* pKey, DWORD dwMax);
DWORD HashRotate(const void* pKey, DWORD dwMax);

// ---------------------------------------------------------------------------------------------
// Search and sort on raw arrays of dwCount items of dwItemSize bytes.

// compare(item, key) from the first item on; the index of the first match, or dwCount.
DWORD LinearFind(const void* pBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                 PFN_COMPARE funcCompare);
// compare(key, item) on a sorted array: the index of a match, or the index at which the key
// would be inserted (0..dwCount).
DWORD BinaryFind(const void* pBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                 PFN_COMPARE funcCompare);
// 1 if no neighbouring pair is out of order, else 0. A count of 0 or 1 is sorted.
BOOL IsSorted(const void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare);
// Passes over a shrinking range swapping neighbours with compare > 0 until a pass swaps none.
void BubbleSort(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare);
// The sort the whole system uses: partitions around the middle item while 8 or more items
// remain, recursing on the smaller part; BubbleSort finishes. Not stable.
void QuickSort(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare);

// The same four on records of a file, starting at dwBase, read and written with ReadAt and
// WriteAt. pBuf (pBuf1, pBuf2) are buffers of dwItemSize bytes, or null to have them
// allocated. Results up to dwCount are indices or truth values; 0x30000001 means a buffer
// could not be had, and any other value above dwCount is the error of a failed read or write.
// Asserts "pFile".
DWORD FileLinearFind(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                     PFN_COMPARE funcCompare, void* pBuf);
DWORD FileBinaryFind(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                     PFN_COMPARE funcCompare, void* pBuf);
// A caller's pBuf2 takes the place of the first buffer rather than filling the second, which
// leaves no second buffer and gives 0x30000001: pass pBuf2 as null.
DWORD FileIsSorted(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare,
                   void* pBuf1, void* pBuf2);
// 0 when sorted; (ERR)-1 for a count of 0; 0x30000001 or the file's error otherwise. The same
// rule for pBuf2 as FileIsSorted.
ERR FileBubbleSort(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare,
                   void* pBuf1, void* pBuf2);

// A record of a keyword table: up to 3 characters and a zero, then the value.
struct TTableEntry {
  char szKey[4];
  DWORD dwValue;
};
static_assert(sizeof(TTableEntry) == 8, "table records are 8 bytes");

// The value of the record whose text equals pKey (StrCmp). When none does, the value of
// pTable[dwCount]: a table ends with one more record holding the default. The binary search
// needs the dwCount records sorted by StrCmp.
DWORD TableFindLinear(const char* pKey, const TTableEntry* pTable, DWORD dwCount);
DWORD TableFindBinary(const char* pKey, const TTableEntry* pTable, DWORD dwCount);

// ---------------------------------------------------------------------------------------------
// CList: singly linked intrusive list. Each item holds the address of the next item at offset
// m_dwNextOfs. The list never allocates; m_funcDelete (if set) releases removed items.

class CList {
 public:
  CList(PFN_DELETE funcDelete, DWORD dwNextOfs);
  // Releases every item through m_funcDelete when it is set. Not virtual.
  ~CList();

  // Links pItem after pAfter (0: at the end). Asserts "pItem". 0, or 0xFF23 for no item.
  virtual ERR InsertAfter(void* pItem, void* pAfter);
  // Links pItem before pBefore (0: at the head), finding the predecessor by a scan. 0xFF23 if
  // pBefore isn't in the list; pItem's own link is then already set, nothing else changed.
  virtual ERR InsertBefore(void* pItem, void* pBefore);
  // pItem 0: unlinks and releases the first item. pItem set: releases the item after it but
  // leaves pItem linked to it. The count falls by one in both cases; m_pLast is never
  // updated. Asserts "m_pFirst"; 0xFF23 on an empty list.
  virtual ERR RemoveNext(void* pItem);
  // The item before pItem by a scan: 0 for the first item or one not in the list; for 0, the
  // last item of the chain.
  virtual void* GetPrev(void* pItem);
  // The item after pItem; for 0, the first item.
  virtual void* GetNext(void* pItem);
  // Sorts the items by funcCompare (which receives item addresses) with QuickSort and relinks
  // them. m_pLast is left as it was. 0xFF01 out of memory, 0xFF24 if the chain doesn't hold
  // m_dwCount items, 0xFF23 after a failed assertion.
  virtual ERR Sort(PFN_COMPARE funcCompare);

  DWORD m_dwCount;
  void* m_pFirst;
  void* m_pLast;
  PFN_DELETE m_funcDelete;
  DWORD m_dwNextOfs;
  void* m_pUserData;

 protected:
  void*& Next(void* pItem) { return *reinterpret_cast<void**>(static_cast<BYTE*>(pItem) + m_dwNextOfs); }
  void Release(void* pItem) {
    if (m_funcDelete) m_funcDelete(pItem, m_pUserData);
  }

 private:
  CList(const CList&) = delete;
  CList& operator=(const CList&) = delete;
};

// CDList: CList with a second link (to the previous item) at m_dwPrevOfs.
class CDList : public CList {
 public:
  CDList(PFN_DELETE funcDelete, DWORD dwNextOfs, DWORD dwPrevOfs);

  // As in CList with both links and no scan: an item of another list isn't detected.
  ERR InsertAfter(void* pItem, void* pAfter) override;
  ERR InsertBefore(void* pItem, void* pBefore) override;
  // The previous item; for 0, the last item.
  void* GetPrev(void* pItem) override;
  // CList::Sort, then the previous links and m_pLast are set again.
  ERR Sort(PFN_COMPARE funcCompare) override;

  // Unlinks and releases pItem. Asserts "pItem&&m_pFirst"; 0xFF23 then.
  ERR Remove(void* pItem);
  // Exchanges the places of two items of the list. Asserts "m_pFirst&&pItem1&&pItem2".
  ERR Swap(void* pItem1, void* pItem2);

  DWORD m_dwPrevOfs;

 protected:
  void*& Prev(void* pItem) { return *reinterpret_cast<void**>(static_cast<BYTE*>(pItem) + m_dwPrevOfs); }
  // Links pItem between pPrev and pNext (either 0 at an end of the list) and counts it.
  void Link(void* pItem, void* pPrev, void* pNext);
};

// ---------------------------------------------------------------------------------------------
// CArray: a block of m_dwCount items of m_dwItemSize bytes.

class CArray {
 public:
  CArray();
  // Calls Free while the block is held.
  ~CArray();

  // Frees the old block, then allocates dwCount zeroed items. 0xFF01 out of memory or for a
  // count or size of 0.
  ERR Create(DWORD dwCount, DWORD dwItemSize, PFN_DELETE funcDelete);
  // Changes the count by lDelta. 0xFFFE with no block, 0xFF23 when no item would remain,
  // 0xFF03 when the block can't be resized (the array is then unchanged). New items are
  // cleared only when the block grew where it was: clearing happens at the old address, so
  // after a move the new items are left as the allocator gives them.
  ERR Grow(LONG lDelta);
  // Address of item dwIndex, or 0 out of range or without a block.
  void* GetItem(DWORD dwIndex);
  // Calls m_funcDelete(item, m_pUserData) per item when set (asserts "m_dwItemSize"), frees
  // the block. m_pData keeps its old value but is no longer used.
  void Free();
  // Assert "funcCompare". The finds return m_dwCount when there is no block.
  void Sort(PFN_COMPARE funcCompare);
  DWORD FindLinear(const void* pKey, PFN_COMPARE funcCompare);
  DWORD FindBinary(const void* pKey, PFN_COMPARE funcCompare);

  DWORD m_dwItemSize;
  DWORD m_dwCount;
  void* m_pData;
  PFN_DELETE m_funcDelete;
  void* m_pUserData;

 private:
  BOOL HasData() { return m_pData && !m_bFreed; }
  BOOL m_bFreed;  // set by Free: m_pData then names a released block

  CArray(const CArray&) = delete;
  CArray& operator=(const CArray&) = delete;
};

// ---------------------------------------------------------------------------------------------
// CHashTable: chained, intrusive hash table. An item's key is at pItem + m_dwKeyOfs, its chain
// link at pItem + m_dwNextOfs. The table never allocates items.

class CHashTable {
 public:
  // Asserts "funcHashKey && funcCompareKey". Without memory for the dwSize bucket heads the
  // table has no m_pTable and every operation fails with 0xFFFE or 0.
  CHashTable(DWORD dwSize, PFN_HASHKEY funcHashKey, PFN_COMPARE funcCompareKey, PFN_DELETE funcDelete,
             DWORD dwNextOfs, DWORD dwKeyOfs);
  // Clears and frees the bucket array. Not virtual.
  ~CHashTable();

  // Pushes pItem at the head of its bucket; duplicates are kept, the newest found first.
  // Asserts "pItem". 0, 0xFFFE without a table, 0xFF23 for no item.
  virtual ERR Insert(void* pItem);
  // The item whose key matches (funcCompareKey(pKey, item key) == 0), or 0. ppLink (may be
  // null) receives the address of the link that points at the item, or of the last link
  // walked (the bucket head for an empty bucket). Asserts "pKey".
  virtual void* Find(const void* pKey, void*** ppLink);
  // Unlinks the item of pKey and hands it to the caller through ppItem (may be null) without
  // releasing it. 0, 0xFF25 if not found, 0xFFFE without a table.
  virtual ERR Detach(const void* pKey, void** ppItem);
  // Unlinks and releases the item of pKey. Codes as Detach.
  virtual ERR Delete(const void* pKey);

  // Releases every item and empties the buckets.
  void Clear();

  void** m_pTable;
  DWORD m_dwSize;
  PFN_HASHKEY funcHashKey;
  PFN_COMPARE funcCompareKey;
  PFN_DELETE m_funcDelete;
  DWORD m_dwNextOfs;
  DWORD m_dwKeyOfs;
  DWORD m_dwHashes;    // hashes computed
  DWORD m_dwCompares;  // keys compared, plus one per Find
  void* m_pUserData;

 protected:
  void*& Next(void* pItem) { return *reinterpret_cast<void**>(static_cast<BYTE*>(pItem) + m_dwNextOfs); }
  const void* Key(void* pItem) { return static_cast<BYTE*>(pItem) + m_dwKeyOfs; }
  DWORD Bucket(const void* pKey);

 private:
  CHashTable(const CHashTable&) = delete;
  CHashTable& operator=(const CHashTable&) = delete;
};

// ---------------------------------------------------------------------------------------------
// CGrowBuffer: a block whose capacity is m_dwSize rounded up to a multiple of m_dwGran.

class CGrowBuffer {
 public:
  // Asserts "dwGran"; a granule of 0 is taken as 1.
  explicit CGrowBuffer(DWORD dwGran);
  ~CGrowBuffer();

  // Sets the size. Within the same rounded capacity only m_dwSize changes; 0 frees the block.
  // 0xFF01 when the first allocation fails, 0xFF03 when a resize fails (old block kept).
  ERR SetSize(DWORD dwSize);

  void* m_pData;
  DWORD m_dwSize;
  DWORD m_dwGran;

 private:
  CGrowBuffer(const CGrowBuffer&) = delete;
  CGrowBuffer& operator=(const CGrowBuffer&) = delete;
};

// ---------------------------------------------------------------------------------------------
// CChunkAlloc: hands out unaligned pieces of large chunks; pieces are never released one by
// one, only all together.

// At the start of every chunk; the data follows it.
struct TChunkAllocHdr {
  DWORD dwSize;  // capacity of the data
  DWORD dwUsed;  // bytes handed out
  TChunkAllocHdr* pNext;
};
static_assert(sizeof(void*) != 4 || sizeof(TChunkAllocHdr) == 12, "12-byte chunk header on 32-bit builds");

class CChunkAlloc {
 public:
  // dwGran: bytes of a chunk, header included. Asserts "dwGran > sizeof(TChunkAllocHdr)".
  CChunkAlloc(BOOL bNoSearch, DWORD dwGran);
  ~CChunkAlloc();

  // dwSize bytes, or 0 when a chunk can't be allocated. A request larger than a chunk gets a
  // chunk of its own. With m_bNoSearch only the last chunk is tried before a new one.
  void* Alloc(DWORD dwSize);
  void FreeAll();
  // Takes *pdwOfs as an offset into the used bytes of all chunks in order; sets *pdwOfs to the
  // offset within its chunk, *ppData to that chunk's data, *pdwSize to its capacity. 0xFF24
  // past the end.
  ERR Locate(DWORD* pdwOfs, void** ppData, DWORD* pdwSize);
  // The inverse: the offset of p in that stream. 0xFF25 if p is in no chunk's used bytes.
  ERR GetOffset(const void* p, DWORD* pdwOfs);

  DWORD m_dwChunkSize;
  TChunkAllocHdr* m_pFirst;
  TChunkAllocHdr* m_pLast;
  BOOL m_bNoSearch;

 private:
  TChunkAllocHdr* AddChunk(DWORD dwSize);
  static BYTE* Data(TChunkAllocHdr* pHdr) { return reinterpret_cast<BYTE*>(pHdr + 1); }

  CChunkAlloc(const CChunkAlloc&) = delete;
  CChunkAlloc& operator=(const CChunkAlloc&) = delete;
};
