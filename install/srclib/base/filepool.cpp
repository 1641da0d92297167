// The file pool: a heap inside a "POOL" file, with variable-size blocks addressed by file
// offset, a free list kept in memory and stored in the file on close, and stepwise compaction
// that slides blocks toward the start while the client fixes its references.
#include "base/filepool.h"

#include <string.h>

IMPLEMENT_CLASS(CFilePool, 0x5060203, CBlockStore)

#define FREE_STEP 0x20u       // growth of the free list and of the locked table
#define MOVE_BUFFER 0x8000u   // buffer of CFile::Move
#define GROUP_LIMIT 0x400u    // bytes moved together in one step
#define SHIFT_MAX 64u         // blocks shifted together
#define OPEN_END 0xFFFFFFFFu  // size of the last free entry

CFilePool::CFilePool()
    : m_pCallbackData(0),
      m_dwDefSize(0),
      m_pMoveFunc(0),
      m_pGetBlockFunc(0),
      m_pFile(0),
      m_bReadOnly(1),
      m_pFreeBlocks(0),
      m_dwAllocedFreeBlocks(0),
      m_dwFreeBlocks(0),
      m_pLastFree((DWORD)-1),
      m_dwDataStart(FILEPOOL_HEADER),
      m_dwGran(4),
      m_bFreeSorted(1),
      m_dwBlocks(0),
      m_dwUserValue(0),
      m_dwCompactBlock((DWORD)-1),
      m_dwCompactNext(0),
      m_dwCompactPos(FILEPOOL_HEADER),
      m_dwLocked(0),
      m_dwAllocedLocked(0),
      m_pLocked(0),
      m_dwFreeRoom(0) {}

CFilePool::~CFilePool() { Release(); }

// Everything the pool holds, after writing the list back.
void CFilePool::Release() {
  if (m_pFile) Close();
  if (m_dwLocked) ASSERT(0);
  for (DWORD i = 0; i < m_dwLocked; i++) MEM_FREE(m_pLocked[i].pCopy);
  if (m_pLocked) MEM_FREE(m_pLocked);
  m_pLocked = 0;
  m_dwLocked = m_dwAllocedLocked = 0;
  if (m_pFreeBlocks) MEM_FREE(m_pFreeBlocks);
  m_pFreeBlocks = 0;
  m_dwFreeBlocks = m_dwAllocedFreeBlocks = m_dwFreeRoom = 0;
  delete m_pFile;
  m_pFile = 0;
  m_bReadOnly = 1;
}

DWORD CFilePool::RoundSize(DWORD dwSize) {
  DWORD dwGran = m_dwGran ? m_dwGran : 1;
  unsigned long long q = ((unsigned long long)dwSize + 3 + dwGran) / dwGran * dwGran;
  // A size near 4 GiB has no place in a 32-bit file: it saturates and then finds no room.
  return q > 0xFFFFFFF0ull ? 0xFFFFFFF0u : (DWORD)q;
}

ERR CFilePool::ReadDword(DWORD dwPos, DWORD* pdw) {
  BYTE ab[4];
  DWORD dwRead = 0;
  ERR err = m_pFile->ReadAt(ab, dwPos, 4, &dwRead);
  if (!err && dwRead != 4) err = ERR_FILE_EOF;
  *pdw = err ? 0 : GetLE32(ab);
  return err;
}

ERR CFilePool::WriteDword(DWORD dwPos, DWORD dw) {
  BYTE ab[4];
  PutLE32(ab, dw);
  return m_pFile->WriteAt(ab, dwPos, 4, 0);
}

// ---------------------------------------------------------------------------------------------
// Opening and closing

ERR CFilePool::Create(const char* pchPath, PFN_POOLMOVEBLOCK pfnMove, PFN_POOLGETBLOCK pfnGetBlock,
                      DWORD dwGran, DWORD dwDefSize) {
  Release();
  if (!dwGran) return ERR_BADPARAM;
  FileDelete(pchPath);
  ERR err = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, FILE_MODE_CREATE, &err) : 0;
  if (!pFile) return err ? err : ERR_FILE_OPEN;
  m_pFreeBlocks = static_cast<TFreeBlock*>(MEM_ALLOC(FREE_STEP * sizeof(TFreeBlock)));
  if (!m_pFreeBlocks) {
    delete pFile;
    return ERR_ALLOCFAIL;
  }
  m_pFile = pFile;
  m_pMoveFunc = pfnMove;
  m_pGetBlockFunc = pfnGetBlock;
  m_dwGran = dwGran;
  m_dwDefSize = dwDefSize;
  m_dwAllocedFreeBlocks = m_dwFreeRoom = FREE_STEP;
  m_dwFreeBlocks = 1;
  m_pFreeBlocks[0].dwPos = FILEPOOL_HEADER;
  m_pFreeBlocks[0].dwSize = OPEN_END;
  m_pLastFree = (DWORD)-1;
  m_bReadOnly = 0;
  m_bFreeSorted = 1;
  m_dwBlocks = 0;
  m_dwUserValue = 0;
  m_dwCompactBlock = (DWORD)-1;
  m_dwCompactPos = FILEPOOL_HEADER;
  m_dwDataStart = FILEPOOL_HEADER;
  return 0;
}

ERR CFilePool::Open(CFile* pFile, PFN_POOLMOVEBLOCK pfnMove, PFN_POOLGETBLOCK pfnGetBlock, BOOL bReadOnly) {
  Release();
  if (!pFile) return ERR_UNKNOWN;
  m_pFile = pFile;
  BYTE abHeader[FILEPOOL_HEADER];
  DWORD dwRead = 0;
  ERR err = pFile->ReadAt(abHeader, 0, FILEPOOL_HEADER, &dwRead);
  if (!err && dwRead != FILEPOOL_HEADER) err = ERR_POOL_BADFORMAT;
  DWORD dwListPos = GetLE32(abHeader + 0x04);
  DWORD dwCount = GetLE32(abHeader + 0x08);
  DWORD dwGran = GetLE32(abHeader + 0x1C);
  DWORD dwFileSize = pFile->GetSize();
  if (!err && GetLE32(abHeader) != FILEPOOL_MAGIC) err = ERR_POOL_BADFORMAT;
  // The list must lie inside the file, and a granularity of 0 has no meaning.
  if (!err && (!dwCount || !dwGran || dwListPos > dwFileSize || dwCount > (dwFileSize - dwListPos) / 8))
    err = ERR_POOL_BADFORMAT;
  DWORD dwCapacity = 0;
  if (!err) {
    unsigned long long q = ((unsigned long long)dwCount + dwGran - 1) / dwGran * dwGran;
    dwCapacity = q > 0x0FFFFFFF ? 0x0FFFFFFF : (DWORD)q;
    // A large granularity gives a large capacity; memory is taken for what the list can use.
    DWORD dwRoom = dwCapacity < dwCount + FREE_STEP ? dwCapacity : dwCount + FREE_STEP;
    m_dwFreeRoom = dwRoom;
    m_pFreeBlocks = static_cast<TFreeBlock*>(MEM_ALLOC(dwRoom * sizeof(TFreeBlock)));
    if (!m_pFreeBlocks) err = ERR_ALLOCFAIL;
  }
  BYTE* pRaw = 0;
  if (!err) {
    pRaw = static_cast<BYTE*>(MEM_ALLOC(dwCount * 8));
    if (!pRaw) err = ERR_ALLOCFAIL;
  }
  if (!err) {
    err = pFile->ReadAt(pRaw, dwListPos, dwCount * 8, &dwRead);
    if (!err && dwRead != dwCount * 8) err = ERR_POOL_BADFORMAT;
  }
  if (!err) {
    for (DWORD i = 0; i < dwCount; i++) {
      m_pFreeBlocks[i].dwPos = GetLE32(pRaw + i * 8);
      m_pFreeBlocks[i].dwSize = GetLE32(pRaw + i * 8 + 4);
    }
    m_dwFreeBlocks = dwCount;
    ASSERT_TEXT(((TFreeBlock*)m_pFreeBlocks)[m_dwFreeBlocks - 1].dwSize == (DWORD)-1,
                "((TFreeBlock *)m_pFreeBlocks)[m_dwFreeBlocks-1].dwSize == (DWORD)-1");
    // Without the open end at the end, a first-fit search could find nothing.
    if (m_pFreeBlocks[dwCount - 1].dwSize != OPEN_END) err = ERR_POOL_BADFORMAT;
  }
  if (pRaw) MEM_FREE(pRaw);
  if (err) {
    if (m_pFreeBlocks) MEM_FREE(m_pFreeBlocks);
    m_pFreeBlocks = 0;
    m_dwFreeBlocks = m_dwFreeRoom = 0;
    delete m_pFile;
    m_pFile = 0;
    return err;
  }
  m_pMoveFunc = pfnMove;
  m_pGetBlockFunc = pfnGetBlock;
  m_bReadOnly = bReadOnly;
  m_dwAllocedFreeBlocks = dwCapacity;
  m_dwBlocks = GetLE32(abHeader + 0x0C);
  m_dwCompactBlock = GetLE32(abHeader + 0x10);
  m_dwCompactPos = GetLE32(abHeader + 0x14);
  m_dwDefSize = GetLE32(abHeader + 0x18);
  m_dwGran = dwGran;
  m_dwUserValue = GetLE32(abHeader + 0x20);
  m_dwDataStart = FILEPOOL_HEADER;
  m_bFreeSorted = 0;
  m_pLastFree = (DWORD)-1;
  return 0;
}

ERR CFilePool::OpenPath(const char* pchPath, PFN_POOLMOVEBLOCK pfnMove, PFN_POOLGETBLOCK pfnGetBlock,
                        BOOL bReadOnly) {
  ERR err = 0;
  CFile* pFile =
      g_pfnFileOpen ? g_pfnFileOpen(pchPath, bReadOnly ? FILE_MODE_READ : FILE_MODE_READWRITE, &err) : 0;
  if (!pFile) {
    Release();
    return err ? err : ERR_FILE_OPEN;
  }
  return Open(pFile, pfnMove, pfnGetBlock, bReadOnly);
}

ERR CFilePool::Close() {
  if (!m_pFile || m_bReadOnly || !m_dwFreeBlocks) return 0;
  if (!m_bFreeSorted) SortFree();
  DWORD dwListSize = m_dwFreeBlocks * 8;
  DWORD dwFit = FindFit(dwListSize);
  DWORD dwListPos;
  BOOL bOpenEnd;
  if (dwFit == (DWORD)-1) {
    // A list without room anywhere (only after a damaged list): it goes behind the file.
    dwListPos = m_pFile->GetSize();
    bOpenEnd = 1;
  } else {
    dwListPos = m_pFreeBlocks[dwFit].dwPos;
    bOpenEnd = IsOpenEnd(dwFit);
  }
  BYTE abHeader[FILEPOOL_HEADER];
  PutLE32(abHeader + 0x00, FILEPOOL_MAGIC);
  PutLE32(abHeader + 0x04, dwListPos);
  PutLE32(abHeader + 0x08, m_dwFreeBlocks);
  PutLE32(abHeader + 0x0C, m_dwBlocks);
  PutLE32(abHeader + 0x10, m_dwCompactBlock);
  PutLE32(abHeader + 0x14, m_dwCompactPos);
  PutLE32(abHeader + 0x18, m_dwDefSize);
  PutLE32(abHeader + 0x1C, m_dwGran);
  PutLE32(abHeader + 0x20, m_dwUserValue);
  ERR err = m_pFile->WriteAt(abHeader, 0, FILEPOOL_HEADER, 0);
  BYTE* pRaw = static_cast<BYTE*>(MEM_ALLOC(dwListSize));
  if (!pRaw) return m_dwError = ERR_ALLOCFAIL;
  for (DWORD i = 0; i < m_dwFreeBlocks; i++) {
    PutLE32(pRaw + i * 8, m_pFreeBlocks[i].dwPos);
    PutLE32(pRaw + i * 8 + 4, m_pFreeBlocks[i].dwSize);
  }
  if (!err) err = m_pFile->WriteAt(pRaw, dwListPos, dwListSize, 0);
  MEM_FREE(pRaw);
  if (!err) {
    DWORD dwEnd = bOpenEnd ? dwListPos + dwListSize : m_pFreeBlocks[m_dwFreeBlocks - 1].dwPos;
    err = m_pFile->Seek((LONG)dwEnd, FILE_BEGIN);
    if (!err) err = m_pFile->Truncate();
  }
  return m_dwError = err;
}

// ---------------------------------------------------------------------------------------------
// The free list

BOOL CFilePool::EnsureRoom(DWORD dwCount) {
  if (dwCount <= m_dwFreeRoom) return 1;
  if (dwCount > 0x0FFFFFFF) return 0;
  TFreeBlock* pNew =
      static_cast<TFreeBlock*>(m_pFreeBlocks ? MEM_REALLOC(m_pFreeBlocks, dwCount * sizeof(TFreeBlock))
                                             : MEM_ALLOC(dwCount * sizeof(TFreeBlock)));
  if (!pNew) return 0;
  m_pFreeBlocks = pNew;
  m_dwFreeRoom = dwCount;
  return 1;
}

static SHORT CompareFreePos(const void* a, const void* b) {
  DWORD pa = static_cast<const TFreeBlock*>(a)->dwPos, pb = static_cast<const TFreeBlock*>(b)->dwPos;
  return pa < pb ? -1 : pa > pb ? 1 : 0;
}

void CFilePool::SortFree() {
  ASSERT(m_dwFreeBlocks <= m_dwAllocedFreeBlocks);
  m_pLastFree = (DWORD)-1;
  if (m_dwFreeBlocks > 1) {
    QuickSort(m_pFreeBlocks, sizeof(TFreeBlock), m_dwFreeBlocks, CompareFreePos);
    // One pass joins runs of touching entries; the run that reaches the last entry is the
    // open end.
    DWORD dwOut = 0;
    for (DWORD i = 0; i < m_dwFreeBlocks;) {
      TFreeBlock run = m_pFreeBlocks[i++];
      while (i < m_dwFreeBlocks && run.dwSize != OPEN_END &&
             run.dwPos + run.dwSize == m_pFreeBlocks[i].dwPos) {
        DWORD dwNext = m_pFreeBlocks[i].dwSize;
        run.dwSize = dwNext == OPEN_END ? OPEN_END : run.dwSize + dwNext;
        i++;
      }
      if (i == m_dwFreeBlocks) run.dwSize = OPEN_END;
      m_pFreeBlocks[dwOut++] = run;
    }
    m_dwFreeBlocks = dwOut;
  } else if (m_dwFreeBlocks == 1) {
    m_pFreeBlocks[0].dwSize = OPEN_END;
  }
  if (m_dwAllocedFreeBlocks >= m_dwFreeBlocks + 0x40) {
    DWORD dwNew = (m_dwFreeBlocks + 0x20) & ~0x1Fu;
    TFreeBlock* pNew = static_cast<TFreeBlock*>(MEM_REALLOC(m_pFreeBlocks, dwNew * sizeof(TFreeBlock)));
    if (pNew) {
      m_pFreeBlocks = pNew;
      m_dwAllocedFreeBlocks = m_dwFreeRoom = dwNew;
    }
  }
  m_bFreeSorted = 1;
}

DWORD CFilePool::FindFit(DWORD dwSize) {
  for (DWORD i = 0; i < m_dwFreeBlocks; i++)
    if (m_pFreeBlocks[i].dwSize >= dwSize) return i;
  return (DWORD)-1;
}

void CFilePool::RemoveFree(DWORD dwIndex) {
  ASSERT(m_dwFreeBlocks > 1);
  if (m_dwFreeBlocks <= 1 || dwIndex + 1 >= m_dwFreeBlocks) return;
  m_dwFreeBlocks--;
  DWORD dwLastReal = m_dwFreeBlocks - 1;  // the entry before the open end, before it moves
  if (dwIndex != dwLastReal)
    m_pFreeBlocks[dwIndex] = m_pFreeBlocks[dwLastReal];
  else
    m_bFreeSorted = 0;
  m_pFreeBlocks[m_dwFreeBlocks - 1] = m_pFreeBlocks[m_dwFreeBlocks];
  m_pLastFree = (DWORD)-1;
}

void CFilePool::AddFree(DWORD dwPos, DWORD dwSize) {
  if (dwPos < m_dwCompactPos) m_dwCompactPos = dwPos;
  if (m_pLastFree < m_dwFreeBlocks) {
    TFreeBlock* pLast = &m_pFreeBlocks[m_pLastFree];
    if (dwPos + dwSize == pLast->dwPos) {
      pLast->dwPos = dwPos;
      if (pLast->dwSize != OPEN_END) pLast->dwSize += dwSize;
      return;
    }
    if (pLast->dwSize != OPEN_END && pLast->dwPos + pLast->dwSize == dwPos) {
      pLast->dwSize += dwSize;
      return;
    }
  }
  if (m_dwFreeBlocks >= m_dwAllocedFreeBlocks) {
    m_dwAllocedFreeBlocks += FREE_STEP;
    if (!EnsureRoom(m_dwAllocedFreeBlocks)) {
      m_dwAllocedFreeBlocks -= FREE_STEP;
      if (!m_bFreeSorted) SortFree();
      if (m_dwFreeBlocks >= m_dwAllocedFreeBlocks || !EnsureRoom(m_dwFreeBlocks + 1)) {
        m_dwError = ERR_ALLOCFAIL;  // the region is lost to the list
        return;
      }
    }
  }
  if (!EnsureRoom(m_dwFreeBlocks + 1)) {
    m_dwError = ERR_ALLOCFAIL;
    return;
  }
  // The new entry goes before the open end, which moves up.
  m_pFreeBlocks[m_dwFreeBlocks] = m_pFreeBlocks[m_dwFreeBlocks - 1];
  m_pFreeBlocks[m_dwFreeBlocks - 1].dwPos = dwPos;
  m_pFreeBlocks[m_dwFreeBlocks - 1].dwSize = dwSize;
  m_pLastFree = m_dwFreeBlocks - 1;
  m_dwFreeBlocks++;
  m_bFreeSorted = 0;
}

void CFilePool::InsertFree(DWORD dwPos, DWORD dwSize, DWORD dwIndex) {
  if (dwPos < m_dwCompactPos) m_dwCompactPos = dwPos;
  if (!m_bFreeSorted) SortFree();
  if (m_dwFreeBlocks >= m_dwAllocedFreeBlocks) {
    // This path grows by the block count, not the capacity; the memory below always has room
    // for the entry all the same. The block count comes from the file, so a damaged header
    // could name hundreds of millions of blocks: the memory follows it only up to twice what
    // the list needs, which still leaves room to spare for the entries that follow.
    m_dwBlocks += FREE_STEP;
    DWORD dwNeed = m_dwFreeBlocks + 1;
    DWORD dwMost = dwNeed <= 0x07FFFFFF - FREE_STEP ? 2 * (dwNeed + FREE_STEP) : 0x0FFFFFFF;
    DWORD dwRoom = m_dwBlocks < dwNeed ? dwNeed : m_dwBlocks > dwMost ? dwMost : m_dwBlocks;
    if (!EnsureRoom(dwRoom)) {
      m_dwError = ERR_ALLOCFAIL;
      return;
    }
  } else if (!EnsureRoom(m_dwFreeBlocks + 1)) {
    m_dwError = ERR_ALLOCFAIL;
    return;
  }
  if (dwIndex >= m_dwFreeBlocks) dwIndex = m_dwFreeBlocks - 1;
  memmove(&m_pFreeBlocks[dwIndex + 1], &m_pFreeBlocks[dwIndex],
          (m_dwFreeBlocks - dwIndex) * sizeof(TFreeBlock));
  m_pFreeBlocks[dwIndex].dwPos = dwPos;
  m_pFreeBlocks[dwIndex].dwSize = dwSize;
  m_dwFreeBlocks++;
  m_pLastFree = (DWORD)-1;
}

// ---------------------------------------------------------------------------------------------
// Blocks

DWORD CFilePool::Alloc(DWORD dwSize) {
  if (!m_pFile) {
    ASSERT(0);
    m_dwError = ERR_POOL_NOTOPEN;
    return 0;
  }
  if (m_bReadOnly) return 0;
  if (dwSize == (DWORD)-1) dwSize = m_dwDefSize;
  DWORD r = RoundSize(dwSize);
  DWORD e = FindFit(r);
  if (e == (DWORD)-1) {
    m_dwError = ERR_POOL_NOMEM;
    return 0;
  }
  DWORD dwPos = m_pFreeBlocks[e].dwPos;
  if (dwPos > 0xFFFFFFFFu - r) {
    m_dwError = ERR_POOL_NOMEM;  // past what a 32-bit offset reaches
    return 0;
  }
  ERR err = 0;
  if (IsOpenEnd(e)) {
    BYTE bt = 0;
    err = m_pFile->WriteAt(&bt, dwPos + r - 1, 1, 0);
  }
  if (!err) err = WriteDword(dwPos, dwSize);
  if (err) {
    m_dwError = err;
    return 0;
  }
  if (r < m_pFreeBlocks[e].dwSize) {
    m_pFreeBlocks[e].dwPos += r;
    if (!IsOpenEnd(e)) m_pFreeBlocks[e].dwSize -= r;
  } else {
    RemoveFree(e);
  }
  m_dwBlocks++;
  m_dwError = 0;
  return dwPos + 4;
}

void CFilePool::Free(DWORD dwBlock) {
  if (!m_pFile) {
    ASSERT(0);
    m_dwError = ERR_POOL_NOTOPEN;
    return;
  }
  // Read-only too: the list lives in memory, and Close writes nothing back.
  if (dwBlock < m_dwDataStart + 4) return;
  DWORD dwSize;
  ERR err = ReadDword(dwBlock - 4, &dwSize);
  if (err) {
    m_dwError = err;
    return;
  }
  m_dwBlocks--;
  AddFree(dwBlock - 4, RoundSize(dwSize));
}

DWORD CFilePool::ReAlloc(DWORD dwBlock, DWORD dwSize) {
  if (!m_pFile || m_bReadOnly || dwBlock < m_dwDataStart + 4) return 0;
  if (dwSize == (DWORD)-1) dwSize = m_dwDefSize;
  DWORD dwOldSize;
  ERR err = ReadDword(dwBlock - 4, &dwOldSize);
  if (err) {
    m_dwError = err;
    return 0;
  }
  if (dwOldSize == dwSize) return dwBlock;
  DWORD dwPos = dwBlock - 4;
  DWORD dwOld = RoundSize(dwOldSize), dwNew = RoundSize(dwSize);
  if (dwNew <= dwOld) {
    err = WriteDword(dwPos, dwSize);
    if (err) {
      m_dwError = err;
      return 0;
    }
    if (dwNew < dwOld) AddFree(dwPos + dwNew, dwOld - dwNew);
    return dwBlock;
  }
  if (!m_bFreeSorted) SortFree();
  // A free entry that starts right at the block's end, found by binary search.
  DWORD dwEnd = dwPos + dwOld, dwGrow = dwNew - dwOld;
  DWORD l = 0, h = m_dwFreeBlocks;
  while (l < h) {
    DWORD m = (l + h) / 2;
    if (m_pFreeBlocks[m].dwPos < dwEnd)
      l = m + 1;
    else
      h = m;
  }
  if (l < m_dwFreeBlocks && m_pFreeBlocks[l].dwPos == dwEnd &&
      (IsOpenEnd(l) || m_pFreeBlocks[l].dwSize >= dwGrow)) {
    if (IsOpenEnd(l)) {
      // The file grows to hold the block, as an allocation from the open end does.
      BYTE bt = 0;
      err = m_pFile->WriteAt(&bt, dwPos + dwNew - 1, 1, 0);
    }
    if (!err) err = WriteDword(dwPos, dwSize);
    if (err) {
      m_dwError = err;
      return 0;
    }
    if (!IsOpenEnd(l) && m_pFreeBlocks[l].dwSize == dwGrow) {
      RemoveFree(l);
    } else {
      m_pFreeBlocks[l].dwPos += dwGrow;
      if (!IsOpenEnd(l)) m_pFreeBlocks[l].dwSize -= dwGrow;
    }
    m_dwError = 0;
    return dwBlock;
  }
  // Move: a new block, the client told, the bytes moved, the old block freed.
  DWORD dwNewBlock = Alloc(dwSize);
  if (!dwNewBlock) return 0;
  if (m_pMoveFunc) err = m_pMoveFunc(dwBlock, dwNewBlock, m_pCallbackData);
  BOOL bAgreed = !err;
  if (!err) err = m_pFile->Move(dwNewBlock, dwBlock, dwOld - 4, MOVE_BUFFER, 0);
  if (err) {
    // Only a move the client agreed to is taken back; a refused one never happened for it.
    if (m_pMoveFunc && bAgreed) m_pMoveFunc(dwNewBlock, dwBlock, m_pCallbackData);
    Free(dwNewBlock);
    m_dwError = err;
    return 0;
  }
  // The new block's size dword was written by Alloc; the move brought the old data behind it.
  Free(dwBlock);
  m_dwError = 0;
  return dwNewBlock;
}

TLockedBlock* CFilePool::FindLocked(DWORD dwBlock) {
  for (DWORD i = 0; i < m_dwLocked; i++)
    if (m_pLocked[i].dwBlock == dwBlock) return &m_pLocked[i];
  return 0;
}

void* CFilePool::Lock(DWORD dwBlock) {
  if (!m_pFile) return 0;
  TLockedBlock* pEntry = FindLocked(dwBlock);
  if (pEntry) {
    pEntry->dwCount++;
    return pEntry->pCopy;
  }
  DWORD dwSize;
  ERR err = dwBlock >= 4 ? ReadDword(dwBlock - 4, &dwSize) : ERR_BADPARAM;
  if (err) {
    m_dwError = err;
    return 0;
  }
  if (m_dwLocked >= m_dwAllocedLocked) {
    DWORD dwNew = m_dwAllocedLocked + FREE_STEP;
    TLockedBlock* pNew =
        static_cast<TLockedBlock*>(m_pLocked ? MEM_REALLOC(m_pLocked, dwNew * sizeof(TLockedBlock))
                                             : MEM_ALLOC(dwNew * sizeof(TLockedBlock)));
    if (!pNew) {
      m_dwError = ERR_ALLOCFAIL;
      return 0;
    }
    m_pLocked = pNew;
    m_dwAllocedLocked = dwNew;
  }
  // A size dword that claims more than the file holds (a damaged file) cannot be read whole:
  // refused before any memory is taken for it.
  DWORD dwFileSize = m_pFile->GetSize();
  if (dwBlock > dwFileSize || dwSize > dwFileSize - dwBlock) {
    m_dwError = ERR_FILE_EOF;
    return 0;
  }
  BYTE* pCopy = dwSize < 0x7FFFFFF0u ? static_cast<BYTE*>(MEM_ALLOC(dwSize ? dwSize : 1)) : 0;
  if (!pCopy) {
    m_dwError = ERR_ALLOCFAIL;
    return 0;
  }
  DWORD dwRead = 0;
  err = dwSize ? m_pFile->ReadAt(pCopy, dwBlock, dwSize, &dwRead) : 0;
  if (!err && dwRead != dwSize) err = ERR_FILE_EOF;
  if (err) {
    MEM_FREE(pCopy);
    m_dwError = err;
    return 0;
  }
  pEntry = &m_pLocked[m_dwLocked++];
  pEntry->dwBlock = dwBlock;
  pEntry->pCopy = pCopy;
  pEntry->dwCount = 1;
  pEntry->dwSize = dwSize;
  m_dwError = 0;
  return pCopy;
}

void CFilePool::Unlock(DWORD dwBlock) {
  TLockedBlock* pEntry = FindLocked(dwBlock);
  if (!pEntry) {
    ASSERT(0);
    m_dwError = ERR_NOTFOUND;
    return;
  }
  if (--pEntry->dwCount) return;
  if (!m_bReadOnly && m_pFile && pEntry->dwSize)
    m_dwError = m_pFile->WriteAt(pEntry->pCopy, dwBlock, pEntry->dwSize, 0);
  MEM_FREE(pEntry->pCopy);
  *pEntry = m_pLocked[--m_dwLocked];
  if (m_dwAllocedLocked >= m_dwLocked + 0x40) {
    DWORD dwNew = (m_dwLocked + 0x20) & ~0x1Fu;
    TLockedBlock* pNew = static_cast<TLockedBlock*>(MEM_REALLOC(m_pLocked, dwNew * sizeof(TLockedBlock)));
    if (pNew) {
      m_pLocked = pNew;
      m_dwAllocedLocked = dwNew;
    }
  }
}

void* CFilePool::GetLocked(DWORD dwBlock) {
  TLockedBlock* pEntry = FindLocked(dwBlock);
  return pEntry ? pEntry->pCopy : 0;
}

DWORD CFilePool::GetBlock(void* pData) {
  for (DWORD i = 0; i < m_dwLocked; i++)
    if (m_pLocked[i].pCopy == pData) return m_pLocked[i].dwBlock;
  return 0;
}

DWORD CFilePool::GetSize(DWORD dwBlock) {
  TLockedBlock* pEntry = FindLocked(dwBlock);
  if (pEntry) return pEntry->dwSize;
  if (!m_pFile || dwBlock < 4) return 0;
  DWORD dwSize;
  m_dwError = ReadDword(dwBlock - 4, &dwSize);
  return dwSize;
}

ERR CFilePool::Read(DWORD dwBlock, void* pBuf, DWORD dwOffset, DWORD dwSize) {
  if (!m_pFile) return m_dwError = ERR_POOL_NOTOPEN;
  TLockedBlock* pEntry = FindLocked(dwBlock);
  DWORD dwBlockSize = pEntry ? pEntry->dwSize : GetSize(dwBlock);
  if (!pEntry && m_dwError) return m_dwError;
  if (dwOffset > dwBlockSize) return m_dwError = ERR_OUTOFRANGE;
  ERR err = 0;
  if (dwSize == (DWORD)-1) dwSize = dwBlockSize - dwOffset;
  if (dwSize > dwBlockSize - dwOffset) {
    dwSize = dwBlockSize - dwOffset;
    err = ERR_OUTOFRANGE;
  }
  if (pEntry) {
    memcpy(pBuf, pEntry->pCopy + dwOffset, dwSize);
  } else if (dwSize) {
    DWORD dwRead = 0;
    ERR errRead = m_pFile->ReadAt(pBuf, dwBlock + dwOffset, dwSize, &dwRead);
    if (!errRead && dwRead != dwSize) errRead = ERR_FILE_EOF;
    if (errRead) err = errRead;
  }
  return m_dwError = err;
}

ERR CFilePool::Write(DWORD dwBlock, const void* pData, DWORD dwOffset, DWORD dwSize) {
  if (!m_pFile) return m_dwError = ERR_POOL_NOTOPEN;
  if (m_bReadOnly) return m_dwError = ERR_FILE_WRITEPROTECT;
  ASSERT(pData);
  if (!pData) return m_dwError = ERR_BADPARAM;
  TLockedBlock* pEntry = FindLocked(dwBlock);
  DWORD dwBlockSize = pEntry ? pEntry->dwSize : GetSize(dwBlock);
  if (!pEntry && m_dwError) return m_dwError;
  if (dwOffset > dwBlockSize) return m_dwError = ERR_OUTOFRANGE;
  ERR err = 0;
  DWORD dwWrite = dwSize == (DWORD)-1 ? dwBlockSize - dwOffset : dwSize;
  DWORD dwCut = dwWrite;
  if (dwCut > dwBlockSize - dwOffset) {
    dwCut = dwBlockSize - dwOffset;
    err = ERR_OUTOFRANGE;
  }
  if (pEntry) {
    memcpy(pEntry->pCopy + dwOffset, pData, dwCut);
  } else if (dwWrite) {
    ERR errWrite = m_pFile->WriteAt(pData, dwBlock + dwOffset, dwWrite, 0);
    if (errWrite) err = errWrite;
  }
  return m_dwError = err;
}

// ---------------------------------------------------------------------------------------------
// Compaction

ERR CFilePool::FindCompactStart(void* pData) {
  if (m_dwCompactBlock == (DWORD)-1) {
    m_dwCompactNext = 0;
    m_dwCompactPos = m_dwDataStart;
    return 0;
  }
  if (!m_pGetBlockFunc) return ERR_UNKNOWN;
  DWORD b = m_pGetBlockFunc(m_dwCompactBlock, pData);
  if (!b) return ERR_UNKNOWN;
  if (b < m_dwCompactPos) {
    m_dwCompactNext = m_dwCompactBlock + 1;
    return 0;
  }
  DWORD dwPrev = 0;
  for (DWORD i = 0; i < m_dwBlocks; i++) {
    DWORD h = m_pGetBlockFunc(i, pData);
    if (!h) break;
    if (h > m_dwCompactPos) {
      m_dwCompactNext = i;
      if (i == 0) {
        m_dwCompactPos = m_dwDataStart;
      } else {
        DWORD dwSize;
        ERR err = ReadDword(dwPrev - 4, &dwSize);
        if (err) return err;
        m_dwCompactPos = dwPrev - 4 + RoundSize(dwSize);
      }
      return 0;
    }
    dwPrev = h;
  }
  return ERR_UNKNOWN;
}

ERR CFilePool::ShiftBlocks(DWORD dwNeeded, void* pData) {
  ASSERT(m_pMoveFunc);
  if (!m_pMoveFunc || m_dwFreeBlocks < 2) return ERR_UNKNOWN;
  if (m_pFreeBlocks[0].dwSize >= dwNeeded) return 0;
  DWORD dwOfs = m_pFreeBlocks[0].dwPos + m_pFreeBlocks[0].dwSize;
  DWORD dwEndPos = m_pFreeBlocks[1].dwPos;
  DWORD adwPos[SHIFT_MAX];
  DWORD dwCount = 0, dwMoveSize = 0;
  // The group is the blocks lying from ofs on, each with the length read at its own start. When
  // the first entry already reaches the second there is nothing between them: the group stays
  // empty and the two entries are joined below.
  ERR err = 0;
  while (dwCount < SHIFT_MAX && dwOfs + dwMoveSize < dwEndPos) {
    if (m_pFreeBlocks[0].dwSize + dwMoveSize >= dwNeeded) break;
    DWORD dwStored;
    err = ReadDword(dwOfs + dwMoveSize, &dwStored);
    if (err) return m_dwError = err;
    DWORD dwLen = RoundSize(dwStored);
    if (dwCount && dwMoveSize + dwLen > GROUP_LIMIT) break;
    adwPos[dwCount++] = dwOfs + dwMoveSize;
    dwMoveSize += dwLen;
  }
  ASSERT(dwOfs + dwMoveSize <= dwEndPos);
  // A group that runs into the next free region would carry bytes that belong to nobody.
  if (dwOfs + dwMoveSize > dwEndPos || dwOfs + dwMoveSize < dwOfs) return ERR_UNKNOWN;
  DWORD t = 1;
  while (t < m_dwFreeBlocks && m_pFreeBlocks[t].dwSize < dwMoveSize) t++;
  if (t >= m_dwFreeBlocks) return ERR_UNKNOWN;
  DWORD dwTarget = m_pFreeBlocks[t].dwPos;
  DWORD dwDelta = dwTarget - dwOfs;
  DWORD i;
  for (i = 0; i < dwCount; i++) {
    err = m_pMoveFunc(adwPos[i] + 4, adwPos[i] + 4 + dwDelta, pData);
    if (err) break;
  }
  if (!err) err = m_pFile->Move(dwTarget, dwOfs, dwMoveSize, MOVE_BUFFER, 0);
  if (err) {
    while (i--) m_pMoveFunc(adwPos[i] + 4 + dwDelta, adwPos[i] + 4, pData);
    return m_dwError = err;
  }
  m_pFreeBlocks[t].dwPos += dwMoveSize;
  if (!IsOpenEnd(t)) m_pFreeBlocks[t].dwSize -= dwMoveSize;
  m_pFreeBlocks[0].dwSize += dwMoveSize;
  if (m_pFreeBlocks[0].dwPos + m_pFreeBlocks[0].dwSize >= m_pFreeBlocks[1].dwPos) {
    // Joined with the open end, the first entry becomes the open end.
    m_pFreeBlocks[0].dwSize = IsOpenEnd(1) ? OPEN_END : m_pFreeBlocks[0].dwSize + m_pFreeBlocks[1].dwSize;
    // The list closes by whole entries: moving fewer bytes would leave a torn entry behind and
    // lose the open end, and the space the list then hands out would overlap live blocks.
    MemMove(&m_pFreeBlocks[1], &m_pFreeBlocks[2], (m_dwFreeBlocks - 2) * sizeof(TFreeBlock));
    m_dwFreeBlocks--;
    m_pLastFree = (DWORD)-1;
  }
  return 0;
}

ERR CFilePool::CompactStep() {
  if (!m_pFile) return ERR_POOL_NOTOPEN;
  if (m_bReadOnly) return 0;
  if (!m_dwBlocks) return ERR_POOL_NOMORE;
  if (!m_bFreeSorted) SortFree();
  void* pData = m_pCallbackData;
  ERR err = FindCompactStart(pData);
  if (err) return err;
  if (m_dwCompactNext >= m_dwBlocks) return ERR_POOL_NOMORE;
  if (!m_pMoveFunc) return 0;
  if (!m_pGetBlockFunc) return ERR_UNKNOWN;

  DWORD dwNext = m_dwCompactNext;
  DWORD dwBlock = m_pGetBlockFunc(dwNext, pData);
  if (dwBlock < 4) return ERR_UNKNOWN;
  DWORD dwPos = dwBlock - 4;
  DWORD dwStored;
  err = ReadDword(dwPos, &dwStored);
  if (err) return m_dwError = err;
  DWORD dwSize = RoundSize(dwStored);
  ASSERT(dwBlock >= m_dwCompactPos);

  if (dwPos == m_dwCompactPos) {
    // In place: the position moves to the block's end. Rounding the already rounded size once
    // more would put the position inside the next block, and the next step would then take
    // that block's bytes for free space.
    m_dwCompactPos += dwSize;
    m_dwCompactBlock = dwNext;
    return 0;
  }
  if (!m_dwFreeBlocks || m_pFreeBlocks[0].dwPos != m_dwCompactPos) {
    InsertFree(m_dwCompactPos, 0, 0);
    if (!m_dwFreeBlocks || m_pFreeBlocks[0].dwPos != m_dwCompactPos) return ERR_UNKNOWN;
  }
  DWORD dwGap = dwPos - m_dwCompactPos;
  BOOL bOverlap = dwGap < dwSize;
  DWORD dwMoveSize = bOverlap ? dwGap : dwSize;
  while (m_pFreeBlocks[0].dwSize < dwMoveSize) {
    DWORD dwBefore = m_pFreeBlocks[0].dwSize, dwEntries = m_dwFreeBlocks;
    err = ShiftBlocks(dwMoveSize, pData);
    if (err) return err;
    if (m_pFreeBlocks[0].dwSize <= dwBefore && m_dwFreeBlocks >= dwEntries)
      return ERR_UNKNOWN;  // no progress
  }
  DWORD dwTarget = m_dwCompactPos;
  err = m_pMoveFunc(dwBlock, dwTarget + 4, pData);
  if (err) return err;

  // Followers that start right behind the group join the same move, while it stays small.
  // Each follower's length is read at its own start: the bytes at the target side are free
  // space or the first block's data, and a length taken from them would move a wrong count of
  // bytes, cutting a block in two or carrying a neighbour the client was not told about.
  DWORD adwGroup[GROUP_LIMIT / 4 + 1];
  DWORD n = 1;
  if (dwSize < GROUP_LIMIT) {
    while (dwNext + n < m_dwBlocks && n <= GROUP_LIMIT / 4) {
      DWORD hn = m_pGetBlockFunc(dwNext + n, pData);
      if (!hn || hn - 4 != dwPos + dwSize) break;
      DWORD dwLen;
      if (ReadDword(hn - 4, &dwLen)) break;
      DWORD s = RoundSize(dwLen);
      if (dwSize + s > GROUP_LIMIT) break;
      if (!bOverlap && dwSize + s > m_pFreeBlocks[0].dwSize) break;
      if (m_pMoveFunc(hn, dwTarget + dwSize + 4, pData)) break;
      adwGroup[n] = hn;
      dwSize += s;
      n++;
    }
  }
  err = m_pFile->Move(dwTarget, dwPos, dwSize, MOVE_BUFFER, 0);
  if (err) {
    // Take back what the client was told, last first.
    for (DWORD i = n; i-- > 1;) {
      DWORD dwOld = adwGroup[i];
      m_pMoveFunc(dwTarget + (dwOld - 4 - dwPos) + 4, dwOld, pData);
    }
    m_pMoveFunc(dwTarget + 4, dwBlock, pData);
    return m_dwError = err;
  }
  m_pFreeBlocks[0].dwPos += dwSize;
  if (!bOverlap) {
    m_pFreeBlocks[0].dwSize -= dwSize;
    AddFree(dwPos, dwSize);
  }
  m_dwCompactPos += dwSize;
  m_dwCompactBlock = dwNext + n - 1;
  return 0;
}
