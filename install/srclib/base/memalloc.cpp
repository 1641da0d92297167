// Tracked memory: three kinds of block, guards, fill bytes, counters, limits and reports.
#include "memalloc.h"

#include <stdlib.h>
#include <string.h>

#include "../platform/platform.h"
#include "tools.h"
#include "twvmerr.h"

TBlockInfo* g_pPtrInfo = 0;
DWORD g_dwPtrInfoCount = 0;
TBlockInfo* g_pHandleInfo = 0;
DWORD g_dwHandleInfoCount = 0;

DWORD g_dwMemUsed = 0, g_dwMaxMemUsed = 0, g_dwMemLimit = 0xFFFFFFFFu;
DWORD g_dwPtrMemUsed = 0, g_dwMaxPtrMemUsed = 0, g_dwPtrMemLimit = 0xFFFFFFFFu;
DWORD g_dwNewMemUsed = 0, g_dwMaxNewMemUsed = 0, g_dwNewMemLimit = 0xFFFFFFFFu;
DWORD g_dwHandleMemUsed = 0, g_dwMaxHandleMemUsed = 0, g_dwHandleMemLimit = 0xFFFFFFFFu;
DWORD g_dwHLockedMem = 0, g_dwMaxHLockedMem = 0, g_dwHLockedLimit = 0xFFFFFFFFu;
BOOL g_bDeleting = 0;

static const char s_szNew[] = "new";
static const char s_szObj[] = "obj";

// ---------------------------------------------------------------------------------------------
// System layer.

void* SysAlloc(DWORD dwSize) { return malloc(dwSize ? dwSize : 1); }
void* SysReAlloc(void* p, DWORD dwSize) { return realloc(p, dwSize ? dwSize : 1); }
void SysFree(void* p) { free(p); }
void* SysLock(void* p) { return p; }
void SysUnlock(void*) {}

// ---------------------------------------------------------------------------------------------
// Helpers.

namespace {

// The system block of a tracked block of dwSize user bytes: guard, data, guard, placed
// MEM_SYS_PAD bytes into the runtime's block.
BYTE* GuardedAlloc(DWORD dwSize) {
  if (dwSize > 0xFFFFFFFFu - 8 - MEM_SYS_PAD) return 0;
  BYTE* p = static_cast<BYTE*>(SysAlloc((DWORD)(dwSize + 8 + MEM_SYS_PAD)));
  return p ? p + MEM_SYS_PAD : 0;
}

BYTE* GuardedReAlloc(BYTE* pSys, DWORD dwSize) {
  if (dwSize > 0xFFFFFFFFu - 8 - MEM_SYS_PAD) return 0;
  BYTE* p = static_cast<BYTE*>(SysReAlloc(pSys - MEM_SYS_PAD, (DWORD)(dwSize + 8 + MEM_SYS_PAD)));
  return p ? p + MEM_SYS_PAD : 0;
}

void GuardedFree(BYTE* pSys) { SysFree(pSys - MEM_SYS_PAD); }

// "new" or "obj" with its terminating zero, compared without reading past a shorter name.
BOOL IsNewName(const char* pchFile) {
  return pchFile && (strncmp(pchFile, s_szNew, 4) == 0 || strncmp(pchFile, s_szObj, 4) == 0);
}

void Trap(const TBlockInfo* pInfo, BYTE btFlag) {
  if (pInfo->btBreak & btFlag) PlatDebugBreak();
}

BOOL IsDamaged(const BYTE* pSys, DWORD dwSize) {
  for (int i = 0; i < 4; i++)
    if (pSys[i] != MEM_GUARD_BYTE || pSys[4 + dwSize + i] != MEM_GUARD_BYTE) return TRUE;
  return FALSE;
}

void CheckBlock(const BYTE* p, DWORD dwSize) { ASSERT(!IsDamaged(p, dwSize)); }

void FillBlock(BYTE* pSys, DWORD dwSize) {
  memset(pSys, MEM_GUARD_BYTE, 4);
  memset(pSys + 4, MEM_NEW_BYTE, dwSize);
  memset(pSys + 4 + dwSize, MEM_GUARD_BYTE, 4);
}

// Bytes of a table holding n records: whole steps of MEM_TABLE_STEP records.
size_t TableBytes(DWORD n) {
  return ((size_t)(n / MEM_TABLE_STEP) + 1) * MEM_TABLE_STEP * sizeof(TBlockInfo);
}

// Applies the size rule for n records; n = 0 frees the table. FALSE when the system refuses.
BOOL ResizeTable(TBlockInfo** ppTable, DWORD n) {
  if (n == 0) {
    SysFree(*ppTable);
    *ppTable = 0;
    return TRUE;
  }
  void* p = SysReAlloc(*ppTable, (DWORD)TableBytes(n));
  if (!p) return FALSE;
  *ppTable = static_cast<TBlockInfo*>(p);
  return TRUE;
}

// Adds a record: a free record is reused, else the table grows and the record is appended.
// Returns its index, or -1.
LONG AddInfo(TBlockInfo** ppTable, DWORD* pdwCount, const TBlockInfo& bi) {
  if (*pdwCount) {
    for (DWORD i = 0; i < *pdwCount; i++)
      if (!(*ppTable)[i].dwSysBlock) {
        (*ppTable)[i] = bi;
        return (LONG)i;
      }
  }
  if (!ResizeTable(ppTable, *pdwCount + 1)) {
    ASSERT(0);
    return -1;
  }
  (*ppTable)[*pdwCount] = bi;
  return (LONG)(*pdwCount)++;
}

// Removes record i: the last one shrinks the table, any other becomes a hole.
BOOL RemoveInfo(TBlockInfo** ppTable, DWORD* pdwCount, DWORD i) {
  if (i >= *pdwCount) return FALSE;
  if (i + 1 == *pdwCount) {
    (*pdwCount)--;
    (*ppTable)[i].dwSysBlock = 0;
    (*ppTable)[i].pData = 0;
    // A failed shrink leaves the larger table in place, which is harmless.
    ResizeTable(ppTable, *pdwCount);
    return TRUE;
  }
  (*ppTable)[i].dwSysBlock = 0;
  (*ppTable)[i].pData = 0;
  return TRUE;
}

LONG FindPtr(const void* pSys) {
  for (DWORD i = 0; i < g_dwPtrInfoCount; i++)
    if (g_pPtrInfo[i].dwSysBlock && g_pPtrInfo[i].dwSysBlock == (DWORD_PTR)pSys) return (LONG)i;
  return -1;
}

// The record of handle h, or null for 0, a value past the table or a free record.
TBlockInfo* HandleInfo(DWORD h) {
  if (!h || h > g_dwHandleInfoCount) return 0;
  TBlockInfo* pInfo = &g_pHandleInfo[h - 1];
  return pInfo->dwSysBlock ? pInfo : 0;
}

// The record of handle h for unlock, reallocation and free: a value outside the table asserts
// "0", a free record "pInfo"; both give null.
TBlockInfo* CheckedHandleInfo(DWORD h) {
  if (!h || h > g_dwHandleInfoCount) {
    ASSERT(0);
    return 0;
  }
  TBlockInfo* pInfo = HandleInfo(h);
  ASSERT(pInfo);
  return pInfo;
}

// Counters of the kind of a pointer block.
void PtrCounters(const TBlockInfo& bi, DWORD** ppUsed, DWORD** ppMax, DWORD** ppLimit) {
  if (IsNewName(bi.pchAllocFile)) {
    *ppUsed = &g_dwNewMemUsed;
    *ppMax = &g_dwMaxNewMemUsed;
    *ppLimit = &g_dwNewMemLimit;
  } else {
    *ppUsed = &g_dwPtrMemUsed;
    *ppMax = &g_dwMaxPtrMemUsed;
    *ppLimit = &g_dwPtrMemLimit;
  }
}

void DumpBlock(const TBlockInfo* pInfo, BOOL bHandle) {
  ASSERT_TEXT(pInfo->dwSysBlock, "bi.dwSysBlock");
  DebugPrintf("-> ");
  BYTE* pSys = 0;
  BOOL bRawLocked = FALSE;
  DWORD h = bHandle ? (DWORD)(pInfo - g_pHandleInfo) + 1 : 0;
  if (!bHandle) {
    pSys = reinterpret_cast<BYTE*>(pInfo->dwSysBlock);
  } else if (pInfo->btRefCon && pInfo->pData) {
    pSys = pInfo->pData;
  } else {
    pSys = static_cast<BYTE*>(RawLock(h));
    bRawLocked = TRUE;
    ASSERT_TEXT(pSys, "p");
  }
  if (!pSys) {
    DebugPrintf("\n");
    return;
  }
  BOOL bGuarded = !pInfo->btRaw;
  BOOL bDamaged = bGuarded && IsDamaged(pSys, pInfo->dwSize);
  if (bDamaged) DebugPrintf("DAMAGED ");

  BOOL bObject = FALSE;
  if (!bHandle && pInfo->pchAllocFile && strncmp(pInfo->pchAllocFile, s_szNew, 4) == 0) {
    DebugPrintf("Pointer allocated with new, Size: %lu", (unsigned long)pInfo->dwSize);
  } else if (!bHandle && pInfo->pchAllocFile && strncmp(pInfo->pchAllocFile, s_szObj, 4) == 0) {
    DebugPrintf("CObject, Size: %lu", (unsigned long)pInfo->dwSize);
    bObject = TRUE;
  } else if (pInfo->pchAllocFile) {
    DebugPrintf("%s, Size: %lu, Allocated: %s(%lu)", bHandle ? "Handle" : "Pointer",
                (unsigned long)pInfo->dwSize, pInfo->pchAllocFile, (unsigned long)pInfo->dwAllocLine);
    if (pInfo->pchReallocFile)
      DebugPrintf(", Reallocated: %s(%lu)", pInfo->pchReallocFile, (unsigned long)pInfo->dwReallocLine);
    if (pInfo->btRefCon && !bRawLocked)
      DebugPrintf(", Locked: %s(%lu), Lock count: %d", pInfo->pchLockFile ? pInfo->pchLockFile : "",
                  (unsigned long)pInfo->dwLockLine, (int)pInfo->btRefCon);
  }

  const BYTE* pUser = bGuarded ? pSys + 4 : pSys;
  // Only an undamaged object block is trusted to carry a working table of operations.
  if (bObject && !bDamaged && pInfo->dwSize >= sizeof(CObject)) {
    DebugPrintf("\n");
    reinterpret_cast<CObject*>(const_cast<BYTE*>(pUser))->Dump();
  } else {
    DebugPrintf("\n  ");
    DWORD n = pInfo->dwSize < 16 ? pInfo->dwSize : 16;
    for (DWORD i = 0; i < n; i++) DebugPrintf("%02X ", (unsigned)pUser[i]);
    for (DWORD i = 0; i < n; i++)
      DebugPrintf("%c", (pUser[i] < 0x20 || pUser[i] > 0x7F) ? '.' : (char)pUser[i]);
  }
  if (bRawLocked) RawUnlock(h);
  DebugPrintf("\n");
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Counters.

BOOL UpdateUsed(DWORD* pdwUsed, DWORD* pdwMaxUsed, const DWORD* pdwLimit, LONG lChange) {
  ASSERT(g_dwMemUsed == g_dwHandleMemUsed + g_dwPtrMemUsed + g_dwNewMemUsed);
  // The signed sums wrap at 32 bits: past 2 GiB in use they read as negative.
  ASSERT_TEXT((LONG)(*pdwUsed + (DWORD)lChange) >= 0, "(LONG) dwUsed + lChange >= 0");
  ASSERT_TEXT((LONG)(g_dwMemUsed + (DWORD)lChange) >= 0, "(LONG) g_dwMemUsed + lChange >= 0");
  // 32-bit unsigned sums: a size of 2 GiB or more arrives here negative, wraps to its true
  // value and is measured against the limit like any other.
  DWORD dwUsed = *pdwUsed + (DWORD)lChange;
  DWORD dwTotal = g_dwMemUsed + (DWORD)lChange;
  if (dwUsed > *pdwLimit || dwTotal > g_dwMemLimit) return FALSE;
  *pdwUsed = dwUsed;
  g_dwMemUsed = dwTotal;
  if (*pdwUsed > *pdwMaxUsed) *pdwMaxUsed = *pdwUsed;
  if (g_dwMemUsed > g_dwMaxMemUsed) g_dwMaxMemUsed = g_dwMemUsed;
  return TRUE;
}

// ---------------------------------------------------------------------------------------------
// Pointer blocks.

void* MemAlloc(DWORD dwSize, const char* pchFile, DWORD dwLine) {
  if (!dwSize) {
    ASSERT(dwSize);
    return 0;
  }
  BOOL bNew = IsNewName(pchFile);
  if (bNew) {
    if (!UpdateUsed(&g_dwNewMemUsed, &g_dwMaxNewMemUsed, &g_dwNewMemLimit, (LONG)dwSize)) return 0;
  } else {
    if (!UpdateUsed(&g_dwPtrMemUsed, &g_dwMaxPtrMemUsed, &g_dwPtrMemLimit, (LONG)dwSize)) return 0;
  }
  BYTE* pSys = GuardedAlloc(dwSize);
  if (!pSys) return 0;
  FillBlock(pSys, dwSize);
  TBlockInfo bi;
  memset(&bi, 0, sizeof(bi));
  bi.dwSysBlock = (DWORD_PTR)pSys;
  bi.dwSize = dwSize;
  bi.pchAllocFile = pchFile;
  bi.dwAllocLine = dwLine;
  if (AddInfo(&g_pPtrInfo, &g_dwPtrInfoCount, bi) < 0) {
    GuardedFree(pSys);
    return 0;
  }
  return pSys + 4;
}

void* MemNew(DWORD dwSize) { return MemAlloc(dwSize, s_szNew, dwSize); }

void* MemNewObject(DWORD dwSize) { return MemAlloc(dwSize, s_szObj, dwSize); }

void MemDelete(void* p) {
  g_bDeleting = 1;
  MemFree(p);
  g_bDeleting = 0;
}

void MemFree(void* p) {
  if (!p) {
    ASSERT(p);
    return;
  }
  BYTE* pSys = static_cast<BYTE*>(p) - 4;
  LONG lPos = FindPtr(pSys);
  if (lPos == -1) {
    ASSERT(lPos != -1);
    return;  // not a block of ours: releasing it would corrupt the runtime's heap
  }
  TBlockInfo* pInfo = &g_pPtrInfo[lPos];
  BOOL bIsObject = pInfo->pchAllocFile &&
                   (strcmp(pInfo->pchAllocFile, s_szNew) == 0 || strcmp(pInfo->pchAllocFile, s_szObj) == 0);
  ASSERT(bIsObject == g_bDeleting);
  Trap(pInfo, MEM_BREAK_FREE);
  CheckBlock(pSys, pInfo->dwSize);
  memset(pSys + 4, MEM_FREE_BYTE, pInfo->dwSize);
  DWORD *pUsed, *pMax, *pLimit;
  PtrCounters(*pInfo, &pUsed, &pMax, &pLimit);
  if (!UpdateUsed(pUsed, pMax, pLimit, -(LONG)pInfo->dwSize)) ASSERT(0);
  GuardedFree(pSys);
  if (!RemoveInfo(&g_pPtrInfo, &g_dwPtrInfoCount, (DWORD)lPos)) ASSERT(0);
}

void* MemReAlloc(void* p, DWORD dwSize, const char* pchFile, DWORD dwLine) {
  ASSERT(p);
  ASSERT(dwSize);
  if (!p) return 0;  // a size of 0 goes on: the block keeps its guards around no data
  BYTE* pSys = static_cast<BYTE*>(p) - 4;
  LONG lPos = FindPtr(pSys);
  ASSERT(lPos != -1);
  if (lPos == -1) return 0;
  TBlockInfo bi = g_pPtrInfo[lPos];
  ASSERT_TEXT(!IsNewName(bi.pchAllocFile),
              "StrCmp(bi.pchAllocFile, \"new\") && StrCmp(bi.pchAllocFile, \"obj\")");
  if (IsNewName(bi.pchAllocFile)) return 0;  // only plain pointer blocks can grow or shrink
  Trap(&bi, MEM_BREAK_REALLOC);
  CheckBlock(pSys, bi.dwSize);
  if (!UpdateUsed(&g_dwPtrMemUsed, &g_dwMaxPtrMemUsed, &g_dwPtrMemLimit, (LONG)(dwSize - bi.dwSize))) {
    Trap(&bi, MEM_BREAK_FAIL);
    return 0;
  }
  BYTE* pNew = GuardedReAlloc(pSys, dwSize);
  if (!pNew) {
    Trap(&bi, MEM_BREAK_FAIL);
    return 0;
  }
  memset(pNew + 4 + dwSize, MEM_GUARD_BYTE, 4);
  TBlockInfo* pInfo = &g_pPtrInfo[lPos];
  pInfo->dwSysBlock = (DWORD_PTR)pNew;
  pInfo->dwSize = dwSize;
  pInfo->pchReallocFile = pchFile;
  pInfo->dwReallocLine = dwLine;
  return pNew + 4;
}

// ---------------------------------------------------------------------------------------------
// Handles.

DWORD HandleAlloc(DWORD dwSize, const char* pchFile, DWORD dwLine) {
  if (!dwSize) {
    ASSERT(dwSize);
    return 0;
  }
  if (!UpdateUsed(&g_dwHandleMemUsed, &g_dwMaxHandleMemUsed, &g_dwHandleMemLimit, (LONG)dwSize)) return 0;
  BYTE* pSys = GuardedAlloc(dwSize);
  if (!pSys) return 0;
  BYTE* pData = static_cast<BYTE*>(SysLock(pSys));
  ASSERT(pData);
  if (!pData) {
    GuardedFree(pSys);
    return 0;
  }
  FillBlock(pData, dwSize);
  SysUnlock(pSys);
  TBlockInfo bi;
  memset(&bi, 0, sizeof(bi));
  bi.dwSysBlock = (DWORD_PTR)pSys;
  bi.dwSize = dwSize;
  bi.pchAllocFile = pchFile;
  bi.dwAllocLine = dwLine;
  LONG lIndex = AddInfo(&g_pHandleInfo, &g_dwHandleInfoCount, bi);
  if (lIndex < 0) {
    GuardedFree(pSys);
    return 0;
  }
  return (DWORD)lIndex + 1;
}

void* HandleLock(DWORD h, const char* pchFile, DWORD dwLine) {
  TBlockInfo* pInfo = HandleInfo(h);
  if (!pInfo) {
    ASSERT(0);
    return 0;
  }
  Trap(pInfo, MEM_BREAK_LOCK);
  if (pInfo->btRefCon == 0) {
    if ((unsigned long long)g_dwHLockedMem + pInfo->dwSize > g_dwHLockedLimit) {
      Trap(pInfo, MEM_BREAK_FAIL);
      return 0;
    }
    void* pData =
        pInfo->pfnManager ? (void*)pInfo->pfnManager(0, pInfo, 0) : SysLock((void*)pInfo->dwSysBlock);
    if (!pData) {
      Trap(pInfo, MEM_BREAK_FAIL);
      return 0;
    }
    pInfo->pData = static_cast<BYTE*>(pData);
    g_dwHLockedMem += pInfo->dwSize;
    if (g_dwHLockedMem > g_dwMaxHLockedMem) g_dwMaxHLockedMem = g_dwHLockedMem;
  }
  if (!pInfo->pfnManager && !pInfo->btRaw) CheckBlock(pInfo->pData, pInfo->dwSize);
  pInfo->btRefCon++;
  pInfo->pchLockFile = pchFile;
  pInfo->dwLockLine = dwLine;
  return pInfo->pfnManager || pInfo->btRaw ? pInfo->pData : pInfo->pData + 4;
}

void HandleUnlock(DWORD h) {
  TBlockInfo* pInfo = CheckedHandleInfo(h);
  if (!pInfo) return;
  Trap(pInfo, MEM_BREAK_UNLOCK);
  ASSERT(pInfo->pData);
  if (!pInfo->pData) return;
  if (!pInfo->btRaw) CheckBlock(pInfo->pData, pInfo->dwSize);
  pInfo->btRefCon--;
  if (pInfo->btRefCon == 0) {
    ASSERT(g_dwHLockedMem >= pInfo->dwSize);
    g_dwHLockedMem -= pInfo->dwSize < g_dwHLockedMem ? pInfo->dwSize : g_dwHLockedMem;
    if (pInfo->pfnManager)
      pInfo->pfnManager(1, pInfo, 0);
    else
      SysUnlock((void*)pInfo->dwSysBlock);
    pInfo->pData = 0;
  }
}

BOOL HandleReAlloc(DWORD h, DWORD dwNewSize, const char* pchFile, DWORD dwLine) {
  ASSERT(dwNewSize);  // a size of 0 goes on, as for a pointer block
  TBlockInfo* pInfo = CheckedHandleInfo(h);
  if (!pInfo) return 0;
  ASSERT(!pInfo->btRefCon);
  Trap(pInfo, MEM_BREAK_REALLOC);
  // A raw handle has no guards or counters to keep: the runtime's block is resized as it is.
  if (pInfo->btRaw) return RawReAlloc(h, dwNewSize);
  BYTE* pSys = static_cast<BYTE*>(RawLock(h));
  if (pSys && !pInfo->btRaw) CheckBlock(pSys, pInfo->dwSize);
  RawUnlock(h);
  pInfo = HandleInfo(h);
  if (!UpdateUsed(&g_dwHandleMemUsed, &g_dwMaxHandleMemUsed, &g_dwHandleMemLimit,
                  (LONG)(dwNewSize - pInfo->dwSize))) {
    Trap(pInfo, MEM_BREAK_FAIL);
    return 0;
  }
  void* pNew = pInfo->pfnManager ? (void*)pInfo->pfnManager(3, pInfo, dwNewSize)
                                 : GuardedReAlloc((BYTE*)pInfo->dwSysBlock, dwNewSize);
  if (!pNew) {
    Trap(pInfo, MEM_BREAK_FAIL);
    return 0;
  }
  pInfo->dwSysBlock = (DWORD_PTR)pNew;
  if (pInfo->btRefCon) pInfo->pData = static_cast<BYTE*>(pNew);  // locked despite the assertion
  pInfo->dwSize = dwNewSize;
  pInfo->pchReallocFile = pchFile;
  pInfo->dwReallocLine = dwLine;
  BYTE* pData = static_cast<BYTE*>(RawLock(h));
  ASSERT(pData);
  if (pData) memset(pData + 4 + dwNewSize, MEM_GUARD_BYTE, 4);
  RawUnlock(h);
  return 1;
}

void HandleFree(DWORD h) {
  TBlockInfo* pInfo = CheckedHandleInfo(h);
  if (!pInfo) return;
  ASSERT(!pInfo->btRefCon);
  Trap(pInfo, MEM_BREAK_FREE);
  // A raw handle has no guards to check and no bytes counted: it goes back as it came.
  if (pInfo->btRaw) {
    RawFree(h);
    return;
  }
  if (pInfo->btRefCon) {
    // Freed while locked: the record forgets the lock, but the locked counter keeps the
    // block's size, as no unlock ever came for it.
    pInfo->btRefCon = 0;
    pInfo->pData = 0;
  }
  BYTE* pSys = static_cast<BYTE*>(RawLock(h));
  if (pSys) {
    CheckBlock(pSys, pInfo->dwSize);
    memset(pSys + 4, MEM_FREE_BYTE, pInfo->dwSize);
  }
  RawUnlock(h);
  // Unlike a pointer free, a refused counter step passes without an assertion.
  UpdateUsed(&g_dwHandleMemUsed, &g_dwMaxHandleMemUsed, &g_dwHandleMemLimit, -(LONG)pInfo->dwSize);
  if (pInfo->pfnManager)
    pInfo->pfnManager(2, pInfo, 0);
  else
    GuardedFree((BYTE*)pInfo->dwSysBlock);
  RemoveInfo(&g_pHandleInfo, &g_dwHandleInfoCount, h - 1);
}

BYTE HandleGetLockCount(DWORD h) {
  TBlockInfo* pInfo = HandleInfo(h);
  if (!pInfo) {
    ASSERT(0);
    return 0;
  }
  return pInfo->btRefCon;
}

void* HandleGetData(DWORD h) {
  TBlockInfo* pInfo = HandleInfo(h);
  return pInfo ? pInfo->pData : 0;
}

// ---------------------------------------------------------------------------------------------
// Raw handles.

DWORD RawAlloc(DWORD dwSize) {
  void* pSys = SysAlloc(dwSize);
  if (!pSys) return 0;
  TBlockInfo bi;
  memset(&bi, 0, sizeof(bi));
  bi.dwSysBlock = (DWORD_PTR)pSys;
  bi.dwSize = dwSize;
  bi.btRaw = 1;
  LONG lIndex = AddInfo(&g_pHandleInfo, &g_dwHandleInfoCount, bi);
  if (lIndex < 0) {
    SysFree(pSys);
    return 0;
  }
  return (DWORD)lIndex + 1;
}

BOOL RawReAlloc(DWORD h, DWORD dwSize) {
  TBlockInfo* pInfo = HandleInfo(h);
  // A tracked handle's block is refused: resizing it here would cut its trailing guard off.
  if (!pInfo || pInfo->btRefCon || !pInfo->btRaw) return 0;
  void* pNew = SysReAlloc((void*)pInfo->dwSysBlock, dwSize);
  if (!pNew) return 0;
  pInfo->dwSysBlock = (DWORD_PTR)pNew;
  pInfo->dwSize = dwSize;
  return 1;
}

void RawFree(DWORD h) {
  TBlockInfo* pInfo = HandleInfo(h);
  if (!pInfo) return;
  // A tracked handle is released too, from where the runtime placed it; its counters are not
  // touched, as the raw layer has none.
  if (pInfo->btRaw)
    SysFree((void*)pInfo->dwSysBlock);
  else
    GuardedFree((BYTE*)pInfo->dwSysBlock);
  RemoveInfo(&g_pHandleInfo, &g_dwHandleInfoCount, h - 1);
}

void* RawLock(DWORD h) {
  TBlockInfo* pInfo = HandleInfo(h);
  if (!pInfo) return 0;
  if (pInfo->btRefCon == 0) pInfo->pData = static_cast<BYTE*>(SysLock((void*)pInfo->dwSysBlock));
  pInfo->btRefCon++;
  return pInfo->pData;
}

void RawUnlock(DWORD h) {
  TBlockInfo* pInfo = HandleInfo(h);
  if (!pInfo || !pInfo->btRefCon) return;
  pInfo->btRefCon--;
  if (pInfo->btRefCon == 0) {
    SysUnlock((void*)pInfo->dwSysBlock);
    pInfo->pData = 0;
  }
}

// ---------------------------------------------------------------------------------------------
// Diagnostics.

BOOL MemReportLeaks() {
  BOOL bAny = FALSE;
  for (int nTable = 0; nTable < 2; nTable++) {
    BOOL bHandle = nTable == 1;
    for (DWORD i = 0; i < (bHandle ? g_dwHandleInfoCount : g_dwPtrInfoCount); i++) {
      const TBlockInfo* pInfo = bHandle ? &g_pHandleInfo[i] : &g_pPtrInfo[i];
      if (!pInfo->dwSysBlock) continue;
      if (!bAny) DebugPrintf("Detected memory leaks! Dumping objects:\n");
      bAny = TRUE;
      DumpBlock(pInfo, bHandle);
    }
  }
  return bAny;
}

BOOL MemCheckAll() {
  BOOL bDamage = FALSE;
  for (int nTable = 0; nTable < 2; nTable++) {
    BOOL bHandle = nTable == 1;
    for (DWORD i = 0; i < (bHandle ? g_dwHandleInfoCount : g_dwPtrInfoCount); i++) {
      TBlockInfo* pInfo = bHandle ? &g_pHandleInfo[i] : &g_pPtrInfo[i];
      if (!pInfo->dwSysBlock || pInfo->btRaw || pInfo->pfnManager) continue;
      BYTE* pSys = bHandle ? static_cast<BYTE*>(RawLock(i + 1)) : reinterpret_cast<BYTE*>(pInfo->dwSysBlock);
      BOOL bDamaged = pSys && IsDamaged(pSys, pInfo->dwSize);
      if (bHandle) RawUnlock(i + 1);
      if (!bDamaged) continue;
      if (!bDamage) DebugPrintf("Detected memory damage! Dumping objects:\n");
      bDamage = TRUE;
      DumpBlock(pInfo, bHandle);
    }
  }
  return !bDamage;
}

void MemSetBreak(void* p, BYTE bt) {
  ASSERT(p);
  if (!p) return;
  LONG lNo = FindPtr(static_cast<BYTE*>(p) - 4);
  ASSERT(lNo != -1);
  if (lNo == -1) return;
  g_pPtrInfo[lNo].btBreak = bt;
}

void HandleSetBreak(DWORD h, BYTE bt) {
  ASSERT(h);
  if (!h) return;
  DWORD dwNo = h - 1;
  ASSERT(dwNo < g_dwHandleInfoCount);
  if (dwNo >= g_dwHandleInfoCount) return;
  TBlockInfo bi = g_pHandleInfo[dwNo];
  ASSERT(bi.dwSysBlock);
  if (!bi.dwSysBlock) return;
  g_pHandleInfo[dwNo].btBreak = bt;
}

BOOL MemIsPtr(void* p, DWORD dwSize) {
  if (!p) return FALSE;
  LONG lPos = FindPtr(static_cast<BYTE*>(p) - 4);
  if (lPos == -1) return FALSE;
  return dwSize == 0 || g_pPtrInfo[lPos].dwSize == dwSize;
}

BOOL MemIsHandle(DWORD h, DWORD dwSize) {
  TBlockInfo* pInfo = HandleInfo(h);
  if (!pInfo) return FALSE;
  return dwSize == 0 || pInfo->dwSize == dwSize;
}

BOOL MemIsRange(const void* p, DWORD dwSize) {
  DWORD_PTR a = (DWORD_PTR)p;
  for (DWORD i = 0; i < g_dwPtrInfoCount; i++) {
    const TBlockInfo& bi = g_pPtrInfo[i];
    if (!bi.dwSysBlock) continue;
    DWORD_PTR u = bi.dwSysBlock + 4;
    if (a >= u && a + dwSize <= u + bi.dwSize && a + dwSize >= a) return TRUE;
  }
  for (DWORD i = 0; i < g_dwHandleInfoCount; i++) {
    const TBlockInfo& bi = g_pHandleInfo[i];
    if (!bi.dwSysBlock || !bi.pData || !bi.btRefCon) continue;
    DWORD_PTR u = (DWORD_PTR)bi.pData + (bi.btRaw ? 0 : 4);
    if (a >= u && a + dwSize <= u + bi.dwSize && a + dwSize >= a) return TRUE;
  }
  return FALSE;
}

// ---------------------------------------------------------------------------------------------
// CObject allocation lives with the layer that tracks it.

void* CObject::operator new(size_t nSize) noexcept { return MemNewObject((DWORD)nSize); }

void CObject::operator delete(void* p) {
  if (p) MemDelete(p);
}
