// Block pools: allocators that hand out pointers (CBlockAlloc family) and stores that hand out
// 32-bit block identifiers to be locked before use (CBlockStore family).
#include "pool.h"

#include <string.h>

IMPLEMENT_CLASS(CBlockAlloc, 0x5060100, CObject)
IMPLEMENT_CLASS(CPtrAlloc, 0x5060101, CBlockAlloc)
IMPLEMENT_CLASS(CSizeCache, 0x5060102, CBlockAlloc)
IMPLEMENT_CLASS(CFixedPool, 0x5060103, CBlockAlloc)
IMPLEMENT_CLASS(CBlockStore, 0x5060200, CObject)
IMPLEMENT_CLASS(CHandleStore, 0x5060201, CBlockStore)
IMPLEMENT_CLASS(CLockStore, 0x5060202, CBlockStore)

// Free-list links live inside released blocks, which need not be aligned for a pointer.
static inline void* GetLink(const void* p) {
  void* pLink;
  memcpy(&pLink, p, sizeof(pLink));
  return pLink;
}
static inline void SetLink(void* p, const void* pLink) { memcpy(p, &pLink, sizeof(pLink)); }

// ---------------------------------------------------------------------------------------------
// CBlockAlloc

void* CBlockAlloc::Alloc(DWORD dwSize) { return 0; }
void* CBlockAlloc::ReAlloc(void* p, DWORD dwSize) { return 0; }
void CBlockAlloc::Free(void* p) {}
DWORD CBlockAlloc::GetSize(void* p) { return 0; }
ERR CBlockAlloc::GetError() { return m_dwError; }
ERR CBlockAlloc::CompactStep(PFN_POOLMOVE pfnMove, void* pUser) { return ERR_POOL_NOMORE; }

// ---------------------------------------------------------------------------------------------
// CPtrAlloc

void* CPtrAlloc::Alloc(DWORD dwSize) {
  if (!dwSize) {
    m_dwError = ERR_POOL_ZEROSIZE;
    return 0;
  }
  BYTE* pBlock = dwSize <= 0xFFFFFFFFu - 4 ? static_cast<BYTE*>(MEM_ALLOC(dwSize + 4)) : 0;
  if (!pBlock) {
    m_dwError = ERR_POOL_NOMEM;
    return 0;
  }
  PutLE32(pBlock, dwSize);
  m_dwError = 0;
  return pBlock + 4;
}

void* CPtrAlloc::ReAlloc(void* p, DWORD dwSize) {
  if (!dwSize) {
    m_dwError = ERR_POOL_ZEROSIZE;
    return 0;
  }
  if (!p) {
    m_dwError = ERR_POOL_NULLBLOCK;
    return 0;
  }
  BYTE* pBlock =
      dwSize <= 0xFFFFFFFFu - 4 ? static_cast<BYTE*>(MEM_REALLOC(static_cast<BYTE*>(p) - 4, dwSize + 4)) : 0;
  if (!pBlock) {
    m_dwError = ERR_POOL_NOMEM;
    return 0;
  }
  PutLE32(pBlock, dwSize);
  m_dwError = 0;
  return pBlock + 4;
}

void CPtrAlloc::Free(void* p) {
  if (!p) m_dwError = ERR_POOL_NULLBLOCK;
  m_dwError = 0;
  // Computed as a number: for a null p the tracked layer finds no block there and refuses it.
  MEM_FREE(reinterpret_cast<void*>(reinterpret_cast<DWORD_PTR>(p) - 4));
}

DWORD CPtrAlloc::GetSize(void* p) {
  if (!p) {
    m_dwError = ERR_POOL_NULLBLOCK;
    return 0;
  }
  m_dwError = 0;
  return GetLE32(static_cast<BYTE*>(p) - 4);
}

// ---------------------------------------------------------------------------------------------
// CSizeCache

CSizeCache::CSizeCache(CBlockAlloc* pBase, BOOL bOwnBase, DWORD dwMinSize, DWORD dwMaxSize, DWORD dwMaxFree,
                       DWORD dwMaxFreeBytes)
    : m_bOwnBase(bOwnBase),
      m_pBase(pBase),
      m_ppLists(0),
      m_dwMinSize(dwMinSize < 4 ? 4 : dwMinSize),
      m_dwMaxSize(dwMaxSize),
      m_dwHits(0),
      m_dwMisses(0),
      m_dwMaxFree(dwMaxFree),
      m_dwFree(0),
      m_dwMaxFreeBytes(dwMaxFreeBytes),
      m_dwFreeBytes(0) {
  // An empty range, or no base, keeps no lists: every request is then out of range.
  if (!m_pBase || m_dwMaxSize < m_dwMinSize) return;
  DWORD dwCount = m_dwMaxSize - m_dwMinSize + 1;
  if (dwCount > 0xFFFFFFFFu / sizeof(void*)) {
    m_dwError = ERR_POOL_NOMEM;
    return;
  }
  m_ppLists = static_cast<BYTE*>(m_pBase->Alloc(dwCount * (DWORD)sizeof(void*)));
  if (!m_ppLists) {
    m_dwError = m_pBase->GetError();
    return;
  }
  memset(m_ppLists, 0, dwCount * sizeof(void*));
}

void* CSizeCache::ListHead(DWORD dwSize) {
  return GetLink(m_ppLists + (dwSize - m_dwMinSize) * sizeof(void*));
}

void CSizeCache::SetListHead(DWORD dwSize, void* p) {
  SetLink(m_ppLists + (dwSize - m_dwMinSize) * sizeof(void*), p);
}

CSizeCache::~CSizeCache() {
  Purge((DWORD)-1);
  if (m_pBase) {
    if (m_ppLists) m_pBase->Free(m_ppLists);
    if (m_bOwnBase) delete m_pBase;
  }
}

void* CSizeCache::Alloc(DWORD dwSize) {
  if (!m_ppLists || dwSize < m_dwMinSize || dwSize > m_dwMaxSize) {
    m_dwError = ERR_POOL_BADSIZE;
    return 0;
  }
  if (void* p = ListHead(dwSize)) {
    SetListHead(dwSize, GetLink(p));
    m_dwFree--;
    m_dwFreeBytes -= m_pBase->GetSize(p);
    m_dwHits++;
    m_dwError = 0;
    return p;
  }
  void* p = m_pBase->Alloc(dwSize);
  m_dwMisses++;
  m_dwError = p ? 0 : m_pBase->GetError();
  return p;
}

void* CSizeCache::ReAlloc(void* p, DWORD dwSize) {
  if (!p) {
    m_dwError = ERR_POOL_NULLBLOCK;
    return 0;
  }
  DWORD dwOld = m_pBase ? m_pBase->GetSize(p) : 0;
  if (!m_ppLists || dwOld < m_dwMinSize || dwOld > m_dwMaxSize) {
    m_dwError = ERR_POOL_BADSIZE;
    return 0;
  }
  if (dwOld == dwSize) {
    m_dwHits++;
    m_dwError = 0;
    return p;
  }
  void* pNew = Alloc(dwSize);
  if (!pNew) return 0;
  memcpy(pNew, p, dwOld < dwSize ? dwOld : dwSize);
  Free(p);
  m_dwError = 0;
  return pNew;
}

void CSizeCache::Free(void* p) {
  if (!m_pBase) {
    m_dwError = ERR_POOL_NULLBLOCK;
    return;
  }
  DWORD dwSize = m_pBase->GetSize(p);
  if (!dwSize) {
    m_dwError = m_pBase->GetError();
    return;
  }
  if (!m_ppLists || dwSize < m_dwMinSize || dwSize > m_dwMaxSize) {
    m_dwError = ERR_POOL_BADSIZE;
    return;
  }
  m_dwError = 0;
  // A block too small for a pointer link (possible only where pointers are wider than 4 bytes)
  // cannot be kept on a list and goes straight back.
  if (m_dwFree < m_dwMaxFree && m_dwFreeBytes < m_dwMaxFreeBytes && dwSize >= sizeof(void*)) {
    SetLink(p, ListHead(dwSize));
    SetListHead(dwSize, p);
    m_dwFree++;
    m_dwFreeBytes += dwSize;
  } else {
    m_pBase->Free(p);
  }
}

DWORD CSizeCache::GetSize(void* p) {
  if (!m_pBase) {
    m_dwError = ERR_POOL_NULLBLOCK;
    return 0;
  }
  DWORD dwSize = m_pBase->GetSize(p);
  m_dwError = m_pBase->GetError();
  return dwSize;
}

void CSizeCache::Purge(DWORD dwSize) {
  if (!m_ppLists) return;
  DWORD dwFirst, dwLast;
  if (dwSize == (DWORD)-1) {
    dwFirst = m_dwMinSize;
    dwLast = m_dwMaxSize;
  } else {
    if (dwSize < m_dwMinSize || dwSize > m_dwMaxSize) return;
    dwFirst = dwLast = dwSize;
  }
  for (DWORD dw = dwFirst;; dw++) {
    while (void* p = ListHead(dw)) {
      SetListHead(dw, GetLink(p));
      m_pBase->Free(p);
    }
    if (dw == dwLast) break;
  }
}

// ---------------------------------------------------------------------------------------------
// CFixedPool

CFixedPool::CFixedPool()
    : m_ppChunks(0),
      m_dwChunks(0),
      m_dwChunkSlots(0),
      m_dwItemSize(0),
      m_dwItemsPerChunk(0),
      m_pFree(0),
      m_dwCompactChunk(0),
      m_dwCompactPass((DWORD)-1) {}

CFixedPool::~CFixedPool() {
  for (DWORD dw = 0; dw < m_dwChunks; dw++) MEM_FREE(m_ppChunks[dw]);
  if (m_ppChunks) MEM_FREE(m_ppChunks);
}

DWORD CFixedPool::Stride() { return m_dwItemSize < sizeof(void*) ? (DWORD)sizeof(void*) : m_dwItemSize; }

void CFixedPool::Init(DWORD dwItemSize, DWORD dwItemsPerChunk) {
  if (m_dwChunks) {
    // The chunks already cut keep their layout: changing it now would misplace every item.
    m_dwError = ERR_POOL_BADSIZE;
    return;
  }
  m_dwItemSize = dwItemSize < 4 ? 4 : dwItemSize;
  m_dwItemsPerChunk = dwItemsPerChunk < 16 ? 16 : dwItemsPerChunk;
  m_dwError = 0;
}

BOOL CFixedPool::AddChunk() {
  if (!m_dwItemSize || !m_dwItemsPerChunk) {
    m_dwError = ERR_POOL_ZEROSIZE;  // Init was never called
    return 0;
  }
  if (m_dwChunks >= m_dwChunkSlots) {
    m_dwChunkSlots += 16;
    BYTE** ppNew = m_ppChunks ? static_cast<BYTE**>(MEM_REALLOC(m_ppChunks, m_dwChunkSlots * sizeof(BYTE*)))
                              : static_cast<BYTE**>(MEM_ALLOC(m_dwChunkSlots * sizeof(BYTE*)));
    if (!ppNew) {
      m_dwError = ERR_ALLOCFAIL;
      m_dwChunkSlots -= 16;
      return 0;
    }
    m_ppChunks = ppNew;
  }
  DWORD dwStride = Stride();
  if ((unsigned long long)dwStride * m_dwItemsPerChunk > 0xFFFFFFF0ull) {
    m_dwError = ERR_ALLOCFAIL;
    return 0;
  }
  BYTE* pChunk = static_cast<BYTE*>(MEM_ALLOC(dwStride * m_dwItemsPerChunk));
  if (!pChunk) {
    m_dwError = ERR_ALLOCFAIL;
    return 0;
  }
  m_ppChunks[m_dwChunks++] = pChunk;
  // Chain the items in address order in front of the old free list.
  for (DWORD dw = 0; dw + 1 < m_dwItemsPerChunk; dw++)
    SetLink(pChunk + dw * dwStride, pChunk + (dw + 1) * dwStride);
  SetLink(pChunk + (m_dwItemsPerChunk - 1) * dwStride, m_pFree);
  m_pFree = pChunk;
  return 1;
}

void* CFixedPool::Alloc(DWORD dwSize) {
  if (dwSize == (DWORD)-1) dwSize = m_dwItemSize;
  ASSERT(dwSize <= m_dwItemSize);
  if (dwSize > m_dwItemSize) {
    // Handing out a smaller item than asked for would let the caller write past it.
    m_dwError = ERR_POOL_TOOBIG;
    return 0;
  }
  if (!m_pFree && !AddChunk()) return 0;
  BYTE* p = m_pFree;
  m_pFree = static_cast<BYTE*>(GetLink(p));
  m_dwError = 0;
  return p;
}

void* CFixedPool::ReAlloc(void* p, DWORD dwSize) {
  if (dwSize == (DWORD)-1) dwSize = m_dwItemSize;
  if (dwSize > m_dwItemSize) {
    m_dwError = ERR_POOL_TOOBIG;
    return 0;
  }
  m_dwError = 0;
  return p;
}

void CFixedPool::Free(void* p) {
  if (!p) {
    // A null item would end the free list early.
    m_dwError = ERR_POOL_NULLBLOCK;
    return;
  }
  SetLink(p, m_pFree);
  m_pFree = static_cast<BYTE*>(p);
  m_dwCompactPass = 0;
  m_dwError = 0;
}

DWORD CFixedPool::GetSize(void* p) { return m_dwItemSize; }

DWORD CFixedPool::GetFreeCount() {
  DWORD dwCount = 0;
  for (BYTE* p = m_pFree; p; p = static_cast<BYTE*>(GetLink(p))) dwCount++;
  return dwCount;
}

BOOL CFixedPool::IsAllocated(void* p) {
  BYTE* pb = static_cast<BYTE*>(p);
  DWORD dwStride = Stride();
  DWORD dwBytes = dwStride * m_dwItemsPerChunk;
  BOOL bInChunk = 0;
  for (DWORD dw = 0; dw < m_dwChunks && !bInChunk; dw++) {
    BYTE* pChunk = m_ppChunks[dw];
    if (pb >= pChunk && pb < pChunk + dwBytes && (DWORD)(pb - pChunk) % dwStride == 0) bInChunk = 1;
  }
  if (!bInChunk) return 0;
  for (BYTE* pf = m_pFree; pf; pf = static_cast<BYTE*>(GetLink(pf)))
    if (pf == pb) return 0;
  return 1;
}

ERR CFixedPool::CompactStep(PFN_POOLMOVE pfnMove, void* pUser) {
  if (m_dwCompactPass >= m_dwChunks) {
    m_dwCompactPass = (DWORD)-1;
    return ERR_POOL_NOMORE;
  }
  m_dwCompactPass++;
  if (m_dwChunks < 2 || !m_pFree) return 0;

  DWORD dwStride = Stride();
  DWORD dwBytes = dwStride * m_dwItemsPerChunk;
  BYTE* pChunk = m_ppChunks[m_dwCompactChunk];

  // Split the free list, keeping order, into the items inside the chunk and those outside.
  BYTE *pInHead = 0, *pInTail = 0, *pOutHead = 0, *pOutTail = 0;
  DWORD dwIn = 0, dwOut = 0;
  for (BYTE* p = m_pFree; p;) {
    BYTE* pNext = static_cast<BYTE*>(GetLink(p));
    BOOL bInside = p >= pChunk && p < pChunk + dwBytes;
    BYTE** ppHead = bInside ? &pInHead : &pOutHead;
    BYTE** ppTail = bInside ? &pInTail : &pOutTail;
    if (*ppTail)
      SetLink(*ppTail, p);
    else
      *ppHead = p;
    *ppTail = p;
    SetLink(p, 0);
    if (bInside)
      dwIn++;
    else
      dwOut++;
    p = pNext;
  }
  // The inside chain goes behind the outside chain.
  if (pOutTail) SetLink(pOutTail, pInHead);

  BOOL bRelease = dwIn == m_dwItemsPerChunk;
  if (!bRelease) {
    DWORD dwUsed = m_dwItemsPerChunk - dwIn;
    if (pfnMove && dwUsed <= dwOut &&
        dwUsed <= (m_dwChunks * m_dwItemsPerChunk - dwOut) / m_dwItemsPerChunk) {
      BYTE* pMap = static_cast<BYTE*>(MEM_ALLOC(m_dwItemsPerChunk));
      if (pMap) {
        memset(pMap, 1, m_dwItemsPerChunk);
        for (BYTE* p = pInHead; p; p = static_cast<BYTE*>(GetLink(p))) pMap[(p - pChunk) / dwStride] = 0;
        DWORD dwMoved = 0;
        for (DWORD dw = 0; dw < m_dwItemsPerChunk; dw++) {
          if (!pMap[dw]) continue;
          BYTE* pItem = pChunk + dw * dwStride;
          BYTE* pDest = pOutHead;
          pOutHead = static_cast<BYTE*>(GetLink(pDest));
          if (!pOutHead) pOutTail = 0;
          if (pfnMove(pItem, pDest, pUser)) {
            // Put the destination back and stop.
            SetLink(pDest, pOutHead ? pOutHead : pInHead);
            if (!pOutHead) pOutTail = pDest;
            pOutHead = pDest;
            break;
          }
          // The old place becomes free behind the inside chain's tail; the tail stays where it
          // is, so each later move replaces this link.
          if (pInTail)
            SetLink(pInTail, pItem);
          else if (pOutTail)
            SetLink(pOutTail, pItem);
          SetLink(pItem, 0);
          dwMoved++;
        }
        MEM_FREE(pMap);
        bRelease = dwMoved == dwUsed;
      }
    }
  }
  if (bRelease) {
    MEM_FREE(pChunk);
    m_ppChunks[m_dwCompactChunk] = m_ppChunks[m_dwChunks - 1];
    m_dwChunks--;
    if (pOutTail) SetLink(pOutTail, 0);
    m_pFree = pOutHead;
    return 0;
  }
  m_pFree = pOutHead ? pOutHead : pInHead;
  return 0;
}

ERR CFixedPool::Compact(PFN_POOLMOVE pfnMove, void* pUser) {
  ERR err;
  while ((err = CompactStep(pfnMove, pUser)) == 0) {
  }
  return err == ERR_POOL_NOMORE ? 0 : err;
}

// ---------------------------------------------------------------------------------------------
// CBlockStore

DWORD CBlockStore::Alloc(DWORD dwSize) { return 0; }
DWORD CBlockStore::ReAlloc(DWORD dwBlock, DWORD dwSize) { return 0; }
void CBlockStore::Free(DWORD dwBlock) {}
void* CBlockStore::Lock(DWORD dwBlock) { return 0; }
void CBlockStore::Unlock(DWORD dwBlock) {}
void* CBlockStore::GetLocked(DWORD dwBlock) { return 0; }
DWORD CBlockStore::GetBlock(void* pData) { return 0; }
DWORD CBlockStore::GetSize(DWORD dwBlock) { return 0; }
ERR CBlockStore::Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) { return 0; }
ERR CBlockStore::Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize) { return 0; }
ERR CBlockStore::GetError() { return m_dwError; }
ERR CBlockStore::CompactStep() { return ERR_POOL_NOMORE; }
void CBlockStore::SetUserValue(DWORD dwValue) {}
DWORD CBlockStore::GetUserValue() { return 0; }

// ---------------------------------------------------------------------------------------------
// CHandleStore

DWORD CHandleStore::Alloc(DWORD dwSize) {
  if (dwSize == (DWORD)-1) dwSize = m_dwDefSize;
  DWORD h = dwSize <= 0xFFFFFFFFu - 4 ? HANDLE_ALLOC(dwSize + 4) : 0;
  if (!h) {
    m_dwError = ERR_ALLOCFAIL;
    return 0;
  }
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  if (!p) {
    HANDLE_FREE(h);
    m_dwError = ERR_LOCKFAIL;
    return 0;
  }
  PutLE32(p, dwSize);
  HANDLE_UNLOCK(h);
  m_dwError = 0;
  return h;
}

DWORD CHandleStore::ReAlloc(DWORD dwBlock, DWORD dwSize) {
  if (dwSize == (DWORD)-1) dwSize = m_dwDefSize;
  if (dwSize > 0xFFFFFFFFu - 4 || !HANDLE_REALLOC(dwBlock, dwSize + 4)) {
    m_dwError = ERR_REALLOCFAIL;
    return 0;
  }
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(dwBlock));
  if (!p) {
    m_dwError = ERR_LOCKFAIL;
    return 0;
  }
  PutLE32(p, dwSize);
  HANDLE_UNLOCK(dwBlock);
  m_dwError = 0;
  return dwBlock;
}

void CHandleStore::Free(DWORD dwBlock) { HANDLE_FREE(dwBlock); }

void* CHandleStore::Lock(DWORD dwBlock) {
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(dwBlock));
  return p ? p + 4 : 0;
}

void CHandleStore::Unlock(DWORD dwBlock) { HANDLE_UNLOCK(dwBlock); }

DWORD CHandleStore::GetSize(DWORD dwBlock) {
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(dwBlock));
  if (!p) {
    m_dwError = ERR_LOCKFAIL;
    return 0;
  }
  DWORD dwSize = GetLE32(p);
  HANDLE_UNLOCK(dwBlock);
  m_dwError = 0;
  return dwSize;
}

ERR CHandleStore::Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) {
  if (dwSize == (DWORD)-1) dwSize = m_dwDefSize;
  if (!dwSize) return 0;
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(dwBlock));
  if (!p) return m_dwError = ERR_LOCKFAIL;
  DWORD dwBlockSize = GetLE32(p);
  ASSERT(dwOffset < dwBlockSize && dwSize <= dwBlockSize - dwOffset);
  if (dwOffset > dwBlockSize) dwOffset = dwBlockSize;
  if (dwSize > dwBlockSize - dwOffset) dwSize = dwBlockSize - dwOffset;
  memcpy(pBuf, p + 4 + dwOffset, dwSize);
  HANDLE_UNLOCK(dwBlock);
  return m_dwError = 0;
}

ERR CHandleStore::Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize) {
  if (dwSize == (DWORD)-1) dwSize = m_dwDefSize;
  if (!dwSize) return 0;
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(dwBlock));
  if (!p) return m_dwError = ERR_LOCKFAIL;
  DWORD dwBlockSize = GetLE32(p);
  ASSERT(dwOffset < dwBlockSize && dwSize <= dwBlockSize - dwOffset);
  if (dwOffset > dwBlockSize) dwOffset = dwBlockSize;
  if (dwSize > dwBlockSize - dwOffset) dwSize = dwBlockSize - dwOffset;
  memcpy(p + 4 + dwOffset, pBuf, dwSize);
  HANDLE_UNLOCK(dwBlock);
  return m_dwError = 0;
}

// ---------------------------------------------------------------------------------------------
// CLockStore

CLockStore::CLockStore(CBlockAlloc* pAlloc, BOOL bOwnAlloc)
    : m_bOwnAlloc(bOwnAlloc), m_pAlloc(pAlloc), m_pLockedChain(0) {
  if (!m_pAlloc) {
    m_pAlloc = new CPtrAlloc;
    m_bOwnAlloc = 1;
    if (!m_pAlloc) m_dwError = ERR_ALLOCFAIL;
  }
}

CLockStore::~CLockStore() {
  ASSERT(!m_pLockedChain);
  while (m_pLockedChain) {
    BYTE* pNode = m_pLockedChain;
    m_pLockedChain = LoadNode(pNode).pNext;
    if (m_pAlloc) m_pAlloc->Free(pNode);
  }
  if (m_bOwnAlloc) delete m_pAlloc;
}

CLockStore::TLockNode CLockStore::LoadNode(const BYTE* pNode) {
  TLockNode node;
  memcpy(&node, pNode, sizeof(node));
  return node;
}

void CLockStore::StoreNode(BYTE* pNode, const TLockNode& node) { memcpy(pNode, &node, sizeof(node)); }

BYTE* CLockStore::FindNode(DWORD dwBlock) {
  for (BYTE* pNode = m_pLockedChain; pNode;) {
    TLockNode node = LoadNode(pNode);
    if (node.dwBlock == dwBlock) return pNode;
    pNode = node.pNext;
  }
  return 0;
}

DWORD CLockStore::NodeSize(BYTE* pNode) {
  DWORD dwSize = m_pAlloc->GetSize(pNode);
  return dwSize > sizeof(TLockNode) ? dwSize - (DWORD)sizeof(TLockNode) : 0;
}

void* CLockStore::Lock(DWORD dwBlock) {
  BYTE* pNode = FindNode(dwBlock);
  if (pNode) {
    TLockNode node = LoadNode(pNode);
    node.dwCount++;
    StoreNode(pNode, node);
    return NodeData(pNode);
  }
  DWORD dwSize = GetSize(dwBlock);
  if (!dwSize) return 0;
  pNode = m_pAlloc && dwSize <= 0xFFFFFFFFu - sizeof(TLockNode)
              ? static_cast<BYTE*>(m_pAlloc->Alloc(dwSize + (DWORD)sizeof(TLockNode)))
              : 0;
  if (!pNode) {
    m_dwError = ERR_LOCKFAIL;
    return 0;
  }
  ERR err = Read(dwBlock, NodeData(pNode), 0, (DWORD)-1);
  if (err) {
    m_pAlloc->Free(pNode);
    m_dwError = err;
    return 0;
  }
  TLockNode node;
  node.dwBlock = dwBlock;
  node.dwCount = 1;
  node.pNext = m_pLockedChain;
  StoreNode(pNode, node);
  m_pLockedChain = pNode;
  m_dwError = 0;
  return NodeData(pNode);
}

void CLockStore::Unlock(DWORD dwBlock) {
  BYTE* pPrev = 0;  // the node whose link points at pNode; none for the chain's head
  BYTE* pNode = m_pLockedChain;
  TLockNode node;
  for (; pNode; pPrev = pNode, pNode = node.pNext) {
    node = LoadNode(pNode);
    if (node.dwBlock == dwBlock) break;
  }
  if (!pNode) {
    m_dwError = ERR_NOTLOCKED;
    return;
  }
  node.dwCount--;
  StoreNode(pNode, node);
  if (node.dwCount) return;
  ERR err = Write(dwBlock, NodeData(pNode), 0, (DWORD)-1);
  if (err) {
    // Keep the copy: nothing written is lost, and the block stays locked once.
    node.dwCount = 1;
    StoreNode(pNode, node);
    m_dwError = err;
    return;
  }
  if (pPrev) {
    TLockNode prev = LoadNode(pPrev);
    prev.pNext = node.pNext;
    StoreNode(pPrev, prev);
  } else {
    m_pLockedChain = node.pNext;
  }
  m_pAlloc->Free(pNode);
  m_dwError = 0;
}

void* CLockStore::GetLocked(DWORD dwBlock) {
  BYTE* pNode = FindNode(dwBlock);
  return pNode ? NodeData(pNode) : 0;
}

DWORD CLockStore::GetBlock(void* pData) {
  for (BYTE* pNode = m_pLockedChain; pNode;) {
    TLockNode node = LoadNode(pNode);
    if (NodeData(pNode) == pData) return node.dwBlock;
    pNode = node.pNext;
  }
  return 0;
}

DWORD CLockStore::GetLockCount(DWORD dwBlock) {
  BYTE* pNode = FindNode(dwBlock);
  return pNode ? LoadNode(pNode).dwCount : 0;
}

ERR CLockStore::Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) {
  BYTE* pNode = FindNode(dwBlock);
  if (!pNode) return m_dwError = ERR_NOTLOCKED;
  DWORD dwBlockSize = NodeSize(pNode);
  if (dwOffset >= dwBlockSize) return m_dwError = ERR_POOL_TOOBIG;
  if (dwSize == (DWORD)-1 || dwSize > dwBlockSize - dwOffset) dwSize = dwBlockSize - dwOffset;
  memcpy(pBuf, NodeData(pNode) + dwOffset, dwSize);
  return m_dwError = 0;
}

ERR CLockStore::Write(DWORD dwBlock, const void* pBuf, DWORD dwOffset, DWORD dwSize) {
  BYTE* pNode = FindNode(dwBlock);
  if (!pNode) return m_dwError = ERR_NOTLOCKED;
  DWORD dwBlockSize = NodeSize(pNode);
  if (dwOffset >= dwBlockSize) return m_dwError = ERR_POOL_TOOBIG;
  if (dwSize == (DWORD)-1 || dwSize > dwBlockSize - dwOffset) dwSize = dwBlockSize - dwOffset;
  memcpy(NodeData(pNode) + dwOffset, pBuf, dwSize);
  return m_dwError = 0;
}
