// The file pool: a heap inside a "POOL" file, with variable-size blocks addressed by file
// offset, a free list kept in memory and stored in the file on close, and stepwise compaction
// that slides blocks toward the start while the client fixes its references.
#pragma once

#include "base/pool.h"
#include "files/file.h"

#define FILEPOOL_MAGIC 0x4C4F4F50u  // "POOL"
#define FILEPOOL_HEADER 0x24u       // header size, and where the data starts

// Called before a block moves from dwOld to dwNew (identifiers), so the client can change its
// references; 0 to agree. Undoing a move calls it with the two exchanged.
typedef ERR (*PFN_POOLMOVEBLOCK)(DWORD dwOld, DWORD dwNew, void* pData);
// The identifier of the client's block number dwIndex in file order, or 0 past the end. The
// pool keeps no list of its blocks: only the client does.
typedef DWORD (*PFN_POOLGETBLOCK)(DWORD dwIndex, void* pData);

// A free region; also its stored form in the file (two little-endian dwords). The last entry
// of the list is the open end of the file, with dwSize 0xFFFFFFFF.
struct TFreeBlock {
  DWORD dwPos;
  DWORD dwSize;
};

// A locked block: its memory copy, lock count and size.
struct TLockedBlock {
  DWORD dwBlock;
  BYTE* pCopy;
  DWORD dwCount;
  DWORD dwSize;
};

// Blocks are a size dword and the data, padded to RoundSize(size) bytes; a block's identifier
// is its file position + 4. A dwSize of (DWORD)-1 means the pool's default size.
class CFilePool : public CBlockStore {
  DECLARE_CLASS()
 public:
  CFilePool();
  // Closes (writing the list back), frees the list and deletes the file. Locked blocks assert
  // "0" and their copies are freed.
  ~CFilePool() override;

  // Deletes any old file at pchPath and makes a new empty pool there. 0xFF01 without memory
  // for the list; the open's error if that fails; ERR_BADPARAM for a granularity of 0.
  ERR Create(const char* pchPath, PFN_POOLMOVEBLOCK pfnMove, PFN_POOLGETBLOCK pfnGetBlock, DWORD dwGran,
             DWORD dwDefSize);
  // Opens a pool file, taking ownership of pFile (deleted here on any failure). 0xFFFE for
  // null; ERR_POOL_BADFORMAT for a wrong magic or a header or list that cannot be right.
  ERR Open(CFile* pFile, PFN_POOLMOVEBLOCK pfnMove, PFN_POOLGETBLOCK pfnGetBlock, BOOL bReadOnly);
  // Opens pchPath in mode 1 when read-only, else 3, and calls Open.
  ERR OpenPath(const char* pchPath, PFN_POOLMOVEBLOCK pfnMove, PFN_POOLGETBLOCK pfnGetBlock, BOOL bReadOnly);
  // Writes the header and the free list into the file and cuts it behind the last block or
  // the list. Nothing when read-only. The pool stays usable.
  ERR Close();

  DWORD Alloc(DWORD dwSize) override;
  DWORD ReAlloc(DWORD dwBlock, DWORD dwSize) override;
  void Free(DWORD dwBlock) override;
  void* Lock(DWORD dwBlock) override;
  void Unlock(DWORD dwBlock) override;
  void* GetLocked(DWORD dwBlock) override;
  DWORD GetBlock(void* pData) override;
  DWORD GetSize(DWORD dwBlock) override;
  // 0xFF24 for an offset past the block, and for a range that runs past its end (cut, and the
  // data still copied).
  ERR Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) override;
  // As Read; 0x30000014 when read-only. To an unlocked block the whole range is written even
  // when it runs past the block.
  ERR Write(DWORD dwBlock, const void* pData, DWORD dwOffset, DWORD dwSize) override;
  // One unit of compaction: 0 means call again, ERR_POOL_NOMORE means finished; any other
  // result is an error, after which blocks and references are still consistent.
  ERR CompactStep() override;
  void SetUserValue(DWORD dwValue) override { m_dwUserValue = dwValue; }
  DWORD GetUserValue() override { return m_dwUserValue; }

  // The value both callbacks receive; set by whoever builds the pool.
  void SetCallbackData(void* pData) { m_pCallbackData = pData; }

  // Size a block of dwSize occupies in the file, its size dword included.
  DWORD RoundSize(DWORD dwSize);

  // Inspection.
  DWORD GetFreeCount() { return m_dwFreeBlocks; }
  const TFreeBlock* GetFreeList() { return m_pFreeBlocks; }
  DWORD GetBlockCount() { return m_dwBlocks; }
  DWORD GetCompactPos() { return m_dwCompactPos; }
  BOOL IsFreeSorted() { return m_bFreeSorted; }
  CFile* GetFile() { return m_pFile; }

 protected:
  ERR ReadDword(DWORD dwPos, DWORD* pdw);
  ERR WriteDword(DWORD dwPos, DWORD dw);
  // Makes room for dwCount entries in the list memory; 0 on failure.
  BOOL EnsureRoom(DWORD dwCount);
  void AddFree(DWORD dwPos, DWORD dwSize);
  void InsertFree(DWORD dwPos, DWORD dwSize, DWORD dwIndex);
  void SortFree();
  // Index of the first entry at least dwSize long; (DWORD)-1 when none is.
  DWORD FindFit(DWORD dwSize);
  void RemoveFree(DWORD dwIndex);
  ERR FindCompactStart(void* pData);
  ERR ShiftBlocks(DWORD dwNeeded, void* pData);
  TLockedBlock* FindLocked(DWORD dwBlock);
  BOOL IsOpenEnd(DWORD dwIndex) { return dwIndex + 1 == m_dwFreeBlocks; }
  void Release();

  void* m_pCallbackData;
  DWORD m_dwDefSize;
  PFN_POOLMOVEBLOCK m_pMoveFunc;
  PFN_POOLGETBLOCK m_pGetBlockFunc;
  CFile* m_pFile;
  BOOL m_bReadOnly;
  TFreeBlock* m_pFreeBlocks;
  DWORD m_dwAllocedFreeBlocks;
  DWORD m_dwFreeBlocks;
  DWORD m_pLastFree;  // index of the last free entry touched, (DWORD)-1 for none
  DWORD m_dwDataStart;
  DWORD m_dwGran;
  BOOL m_bFreeSorted;
  DWORD m_dwBlocks;
  DWORD m_dwUserValue;
  DWORD m_dwCompactBlock;
  DWORD m_dwCompactNext;
  DWORD m_dwCompactPos;
  DWORD m_dwLocked;
  DWORD m_dwAllocedLocked;
  TLockedBlock* m_pLocked;
  DWORD m_dwFreeRoom;  // entries the list memory really holds (the capacity above may differ)
};
