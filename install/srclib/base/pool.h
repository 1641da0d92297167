// Block pools: allocators that hand out pointers (CBlockAlloc family) and stores that hand out
// 32-bit block identifiers to be locked before use (CBlockStore family).
#pragma once

#include "tools.h"

// Pool errors, module 0x0506. Every pool keeps the last one in m_dwError, read with GetError;
// a later successful operation clears it again, so read it at once.
#define ERR_POOL_MODULE 0x0506u
#define ERR_POOL_NOMORE 0x5060001u     // nothing further to compact: the end of a run, not a failure
#define ERR_POOL_TOOBIG 0x5060002u     // size above the item size, or offset outside the block
#define ERR_POOL_NOTOPEN 0x5060003u    // store has no file
#define ERR_POOL_BADFORMAT 0x5060004u  // bad magic in a pool file
#define ERR_POOL_ZEROSIZE 0x5060005u   // size 0
#define ERR_POOL_NOMEM 0x5060006u      // out of memory
#define ERR_POOL_NULLBLOCK 0x5060007u  // null block
#define ERR_POOL_BADSIZE 0x5060008u    // size outside the pool's range

// Called by an allocator's compaction to move one item from pItem to pDest: it copies the
// item and fixes the client's references to it. Returns 0 on success; anything else stops the
// compaction step, and the item stays where it was.
typedef ERR (*PFN_POOLMOVE)(void* pItem, void* pDest, void* pUser);

// ---------------------------------------------------------------------------------------------
// Pointer allocators. The base class allocates nothing; clients are handed one of the derived
// allocators and don't care which.

class CBlockAlloc : public CObject {
  DECLARE_CLASS()
 public:
  CBlockAlloc() : m_dwError(0) {}
  ~CBlockAlloc() override {}
  // The block, or 0 with the reason in m_dwError. Release it with Free of the same allocator.
  virtual void* Alloc(DWORD dwSize);
  // The block resized (possibly moved), or 0 with the old block left as it was.
  virtual void* ReAlloc(void* p, DWORD dwSize);
  virtual void Free(void* p);
  // The size the block was asked for (or the pool's item size), 0 on failure.
  virtual DWORD GetSize(void* p);
  virtual ERR GetError();
  // One unit of compaction work; 0 means call again, ERR_POOL_NOMORE means finished.
  virtual ERR CompactStep(PFN_POOLMOVE pfnMove, void* pUser);

 protected:
  ERR m_dwError;
};

// The plain allocator: each block is a tracked pointer block of size + 4 whose first dword
// holds the requested size; the caller gets the address past it.
class CPtrAlloc : public CBlockAlloc {
  DECLARE_CLASS()
 public:
  CPtrAlloc() {}
  ~CPtrAlloc() override {}
  void* Alloc(DWORD dwSize) override;
  void* ReAlloc(void* p, DWORD dwSize) override;
  // A null pointer reports ERR_POOL_NULLBLOCK, and the release below it still goes ahead (the
  // tracked layer then refuses the address).
  void Free(void* p) override;
  DWORD GetSize(void* p) override;
};

// Keeps released blocks on one free list per exact size, in front of another allocator, so
// that allocation of a recently released size is a pop from a list.
class CSizeCache : public CBlockAlloc {
  DECLARE_CLASS()
 public:
  // pBase serves the blocks (and the array of list heads); bOwnBase: delete it with this.
  // Sizes from dwMinSize (at least 4) to dwMaxSize are cached, at most dwMaxFree blocks and
  // dwMaxFreeBytes bytes in all.
  CSizeCache(CBlockAlloc* pBase, BOOL bOwnBase, DWORD dwMinSize, DWORD dwMaxSize, DWORD dwMaxFree,
             DWORD dwMaxFreeBytes);
  ~CSizeCache() override;
  void* Alloc(DWORD dwSize) override;
  void* ReAlloc(void* p, DWORD dwSize) override;
  void Free(void* p) override;
  DWORD GetSize(void* p) override;
  // Releases the cached blocks of one size to the base allocator; (DWORD)-1 means every size.
  // The free counters are not lowered.
  virtual void Purge(DWORD dwSize);

  DWORD GetHits() { return m_dwHits; }
  DWORD GetMisses() { return m_dwMisses; }
  DWORD GetFreeCount() { return m_dwFree; }
  DWORD GetFreeBytes() { return m_dwFreeBytes; }
  DWORD GetMinSize() { return m_dwMinSize; }
  DWORD GetMaxSize() { return m_dwMaxSize; }

 protected:
  BOOL m_bOwnBase;
  CBlockAlloc* m_pBase;
  // One list head per size from m_dwMinSize; the link is the block's first word. The array
  // comes from the base allocator, whose blocks need not be aligned for a pointer, so it is
  // kept as bytes and each head is read and written through ListHead/SetListHead.
  BYTE* m_ppLists;
  void* ListHead(DWORD dwSize);
  void SetListHead(DWORD dwSize, void* p);
  DWORD m_dwMinSize;
  DWORD m_dwMaxSize;
  DWORD m_dwHits;
  DWORD m_dwMisses;
  DWORD m_dwMaxFree;
  DWORD m_dwFree;
  DWORD m_dwMaxFreeBytes;
  DWORD m_dwFreeBytes;
};

// Items of one size, cut from chunks; allocation and release are a pop and a push on one free
// list. Compaction empties the first chunk by moving its items into free places elsewhere.
class CFixedPool : public CBlockAlloc {
  DECLARE_CLASS()
 public:
  CFixedPool();
  ~CFixedPool() override;
  // dwSize (DWORD)-1 means the item size. The first item of a new chunk comes first.
  void* Alloc(DWORD dwSize) override;
  // p itself if dwSize fits the item size, else 0 with ERR_POOL_TOOBIG.
  void* ReAlloc(void* p, DWORD dwSize) override;
  // Puts p back on the free list (a null p is refused) and re-arms compaction.
  void Free(void* p) override;
  DWORD GetSize(void* p) override;
  ERR CompactStep(PFN_POOLMOVE pfnMove, void* pUser) override;
  // Sets the item size (at least 4) and the items per chunk (at least 16). Called once, before
  // the first Alloc.
  virtual void Init(DWORD dwItemSize, DWORD dwItemsPerChunk);
  // Runs CompactStep until it has nothing more to do; 0 then.
  virtual ERR Compact(PFN_POOLMOVE pfnMove, void* pUser);

  // 1 when p is the address of an item in a chunk and isn't on the free list.
  BOOL IsAllocated(void* p);

  DWORD GetChunkCount() { return m_dwChunks; }
  DWORD GetItemsPerChunk() { return m_dwItemsPerChunk; }
  // Number of items on the free list.
  DWORD GetFreeCount();

 protected:
  BOOL AddChunk();
  // Distance between items in a chunk: the item size, but never less than the free-list link.
  DWORD Stride();

  BYTE** m_ppChunks;
  DWORD m_dwChunks;
  DWORD m_dwChunkSlots;
  DWORD m_dwItemSize;
  DWORD m_dwItemsPerChunk;
  BYTE* m_pFree;  // the link of a free item is its first pointer-sized word
  DWORD m_dwCompactChunk;
  DWORD m_dwCompactPass;
};

// ---------------------------------------------------------------------------------------------
// Block stores: blocks are 32-bit identifiers, reached between Lock and Unlock, so a block can
// live in a handle or in a file. The base class stores nothing.

class CBlockStore : public CObject {
  DECLARE_CLASS()
 public:
  CBlockStore() : m_dwError(0) {}
  ~CBlockStore() override {}
  // The new block's identifier, or 0.
  virtual DWORD Alloc(DWORD dwSize);
  // The block's identifier after resizing, or 0.
  virtual DWORD ReAlloc(DWORD dwBlock, DWORD dwSize);
  virtual void Free(DWORD dwBlock);
  // Address of the block's data until the matching Unlock, or 0.
  virtual void* Lock(DWORD dwBlock);
  virtual void Unlock(DWORD dwBlock);
  // Address of a block that is locked now, or 0.
  virtual void* GetLocked(DWORD dwBlock);
  // The block whose locked data is at pData, or 0.
  virtual DWORD GetBlock(void* pData);
  virtual DWORD GetSize(DWORD dwBlock);
  // Copy between a block and pBuf; the result is an error code, 0 on success.
  virtual ERR Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize);
  virtual ERR Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize);
  virtual ERR GetError();
  virtual ERR CompactStep();
  virtual void SetUserValue(DWORD dwValue);
  virtual DWORD GetUserValue();

 protected:
  ERR m_dwError;
};

// A block is a tracked handle whose data starts with a dword holding the block's size.
// A dwSize of (DWORD)-1 stands for the default size in Alloc, ReAlloc, Read and Write.
class CHandleStore : public CBlockStore {
  DECLARE_CLASS()
 public:
  explicit CHandleStore(DWORD dwDefSize = 0) : m_dwDefSize(dwDefSize) {}
  ~CHandleStore() override {}
  DWORD Alloc(DWORD dwSize) override;
  DWORD ReAlloc(DWORD dwBlock, DWORD dwSize) override;
  void Free(DWORD dwBlock) override;
  void* Lock(DWORD dwBlock) override;
  void Unlock(DWORD dwBlock) override;
  DWORD GetSize(DWORD dwBlock) override;
  ERR Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) override;
  ERR Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize) override;

 protected:
  DWORD m_dwDefSize;
};

// Keeps locked copies of blocks in memory, for a store whose blocks aren't addressable. A
// derived store supplies GetSize and the Read and Write of its medium; Lock fills a copy with
// Read(dwBlock, data, 0, -1), and the last Unlock writes it back with Write(dwBlock, data, 0, -1).
class CLockStore : public CBlockStore {
  DECLARE_CLASS()
 public:
  // pAlloc serves the copies; null makes a CPtrAlloc owned by the store.
  CLockStore(CBlockAlloc* pAlloc, BOOL bOwnAlloc);
  ~CLockStore() override;  // asserts "!m_pLockedChain"
  void* Lock(DWORD dwBlock) override;
  // At the last unlock the copy is written back; if that fails the block stays locked once.
  void Unlock(DWORD dwBlock) override;
  void* GetLocked(DWORD dwBlock) override;
  DWORD GetBlock(void* pData) override;
  // On locked copies only: 0xFF04 for a block that isn't locked.
  ERR Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) override;
  ERR Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize) override;

  // Lock count of a block, 0 when it isn't locked.
  DWORD GetLockCount(DWORD dwBlock);

 protected:
  // A locked copy is one block of m_pAlloc: this header (12 bytes on 32-bit builds), then the
  // block's data. The allocator's blocks need not be aligned for a pointer (a CPtrAlloc block
  // sits 4 bytes into its memory), so nodes are handled as bytes and the header is copied in
  // and out whole with LoadNode/StoreNode.
  struct TLockNode {
    DWORD dwBlock;
    DWORD dwCount;
    BYTE* pNext;
  };
  static TLockNode LoadNode(const BYTE* pNode);
  static void StoreNode(BYTE* pNode, const TLockNode& node);
  static BYTE* NodeData(BYTE* pNode) { return pNode + sizeof(TLockNode); }
  BYTE* FindNode(DWORD dwBlock);
  // Size of the data behind a node.
  DWORD NodeSize(BYTE* pNode);

  BOOL m_bOwnAlloc;
  CBlockAlloc* m_pAlloc;
  BYTE* m_pLockedChain;
};
