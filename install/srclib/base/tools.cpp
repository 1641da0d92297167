// The root class CObject, string and memory helpers, hashes, array search and sort, and the
// system's own containers.
#include "tools.h"

#include <string.h>

#include "files/file.h"

// ---------------------------------------------------------------------------------------------
// CObject

DWORD CObject::GetClassId() { return 0; }
const char* CObject::GetClassName() { return "CObject"; }
CObject* CObject::Cast(DWORD dwId) { return dwId == 0 ? this : 0; }
void CObject::Dump() { DebugPrintf("[%s]", GetClassName()); }

// ---------------------------------------------------------------------------------------------
// Compares

PFN_COMPARE g_tmpCompareFunc = 0;

// Values are loaded byte-wise: keys inside packed records need not be aligned.
template <typename T>
static inline T Load(const void* p) {
  T v;
  memcpy(&v, p, sizeof(T));
  return v;
}

SHORT CompareDword(const void* pData1, const void* pData2) {
  DWORD a = Load<DWORD>(pData1), b = Load<DWORD>(pData2);
  return a < b ? -1 : (a > b ? 1 : 0);
}

SHORT CompareLong(const void* pData1, const void* pData2) {
  LONG a = Load<LONG>(pData1), b = Load<LONG>(pData2);
  return a < b ? -1 : (a > b ? 1 : 0);
}

SHORT CompareWord(const void* pData1, const void* pData2) {
  WORD a = Load<WORD>(pData1), b = Load<WORD>(pData2);
  return a < b ? -1 : (a > b ? 1 : 0);
}

SHORT CompareShort(const void* pData1, const void* pData2) {
  SHORT a = Load<SHORT>(pData1), b = Load<SHORT>(pData2);
  return a < b ? -1 : (a > b ? 1 : 0);
}

// ---------------------------------------------------------------------------------------------
// Memory and text helpers

static inline BYTE LowerByte(BYTE c) { return (c >= 'A' && c <= 'Z') ? (BYTE)(c | 0x20) : c; }
static inline BYTE UpperByte(BYTE c) { return (c >= 'a' && c <= 'z') ? (BYTE)(c & ~0x20) : c; }

void* MemSet(void* p, int c, DWORD n) {
  BYTE* pb = static_cast<BYTE*>(p);
  while (n--) *pb++ = (BYTE)c;
  return p;
}

void* MemCopy(void* dst, const void* src, DWORD n) {
  BYTE* d = static_cast<BYTE*>(dst);
  const BYTE* s = static_cast<const BYTE*>(src);
  while (n--) *d++ = *s++;
  return dst;
}

void* MemMove(void* dst, const void* src, DWORD n) {
  if (!n || dst == src) return dst;
  BYTE* d = static_cast<BYTE*>(dst);
  const BYTE* s = static_cast<const BYTE*>(src);
  // Copy backwards when the target starts inside the source.
  if ((DWORD_PTR)d > (DWORD_PTR)s && (DWORD_PTR)d < (DWORD_PTR)s + n) {
    d += n;
    s += n;
    while (n--) *--d = *--s;
  } else {
    while (n--) *d++ = *s++;
  }
  return dst;
}

SHORT MemCmp(const void* a, const void* b, DWORD n) {
  const BYTE* pa = static_cast<const BYTE*>(a);
  const BYTE* pb = static_cast<const BYTE*>(b);
  for (DWORD i = 0; i < n; i++)
    if (pa[i] != pb[i]) return pa[i] < pb[i] ? -1 : 1;
  return 0;
}

SHORT MemICmp(const void* a, const void* b, DWORD n) {
  const BYTE* pa = static_cast<const BYTE*>(a);
  const BYTE* pb = static_cast<const BYTE*>(b);
  for (DWORD i = 0; i < n; i++) {
    BYTE ca = LowerByte(pa[i]), cb = LowerByte(pb[i]);
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  return 0;
}

void* MemChr(const void* p, int c, DWORD n) {
  const BYTE* pb = static_cast<const BYTE*>(p);
  for (DWORD i = 0; i < n; i++)
    if (pb[i] == (BYTE)c) return const_cast<BYTE*>(pb + i);
  return 0;
}

char* StrChr(const char* s, int c) {
  for (;; s++) {
    if (*s == (char)c) return const_cast<char*>(s);
    if (!*s) return 0;
  }
}

char* StrRChr(const char* s, int c) {
  const char* pFound = 0;
  for (;; s++) {
    if (*s == (char)c) pFound = s;
    if (!*s) return const_cast<char*>(pFound);
  }
}

DWORD StrLen(const char* s) {
  const char* p = s;
  while (*p) p++;
  return (DWORD)(p - s);
}

char* StrCpy(char* dst, const char* src) {
  char* d = dst;
  while ((*d++ = *src++) != 0) {
  }
  return dst;
}

char* StrCat(char* dst, const char* src) {
  StrCpy(dst + StrLen(dst), src);
  return dst;
}

SHORT StrCmp(const char* a, const char* b) {
  for (;; a++, b++) {
    signed char ca = (signed char)*a, cb = (signed char)*b;
    if (ca != cb) return ca < cb ? -1 : 1;
    if (!ca) return 0;
  }
}

SHORT StrICmp(const char* a, const char* b) {
  for (;; a++, b++) {
    BYTE ca = (BYTE)*a, cb = (BYTE)*b;
    if (ca >= 'A' && ca <= 'Z') ca |= 0x20;
    if (cb >= 'A' && cb <= 'Z') cb |= 0x20;
    if (ca != cb) return ca < cb ? -1 : 1;
    if (!ca) return 0;
  }
}

SHORT StrNICmp(const char* a, const char* b, DWORD n) {
  for (DWORD i = 0; i < n; i++) {
    signed char ca = (signed char)LowerByte((BYTE)a[i]), cb = (signed char)LowerByte((BYTE)b[i]);
    if (ca != cb) return ca < cb ? -1 : 1;
    if (!ca) return 0;
  }
  return 0;
}

char* StrNCpy(char* dst, const char* src, DWORD n) {
  DWORD i = 0;
  for (; i < n && src[i]; i++) dst[i] = src[i];
  dst[i] = 0;
  return dst;
}

char* StrUpr(char* s) {
  for (char* p = s; *p; p++) *p = (char)UpperByte((BYTE)*p);
  return s;
}

char* StrLwr(char* s) {
  for (char* p = s; *p; p++) *p = (char)LowerByte((BYTE)*p);
  return s;
}

void SwapMem(void* p1, void* p2, DWORD n) {
  ASSERT(p1 && p2);
  if (!p1 || !p2) return;
  BYTE* a = static_cast<BYTE*>(p1);
  BYTE* b = static_cast<BYTE*>(p2);
  // Eight bytes at a time while they last (the sorts swap small records all the time); the
  // result is the same as a byte-by-byte exchange.
  for (; n >= 8; n -= 8, a += 8, b += 8) {
    uint64_t qa, qb;
    memcpy(&qa, a, 8);
    memcpy(&qb, b, 8);
    memcpy(a, &qb, 8);
    memcpy(b, &qa, 8);
  }
  if (n >= 4) {
    DWORD da, db;
    memcpy(&da, a, 4);
    memcpy(&db, b, 4);
    memcpy(a, &db, 4);
    memcpy(b, &da, 4);
    n -= 4;
    a += 4;
    b += 4;
  }
  while (n--) {
    BYTE t = *a;
    *a++ = *b;
    *b++ = t;
  }
}

// ---------------------------------------------------------------------------------------------
// Hashes

DWORD HashDword(const void* pKey, DWORD dwMax) {
  ASSERT(dwMax);
  if (!dwMax) return 0;
  return Load<DWORD>(pKey) % dwMax;
}

DWORD HashSum(const void* pKey, DWORD dwMax) {
  DWORD h = 0;
  for (const char* s = static_cast<const char*>(pKey); *s; s++) h += (DWORD)(LONG)(signed char)*s;
  return dwMax ? h % dwMax : 0;
}

DWORD Hash31(const void* pKey, DWORD dwMax) {
  DWORD h = 0;
  for (const char* s = static_cast<const char*>(pKey); *s; s++) h = h * 31 + (DWORD)(LONG)(signed char)*s;
  return dwMax ? h % dwMax : 0;
}

DWORD HashRotate(const void* pKey, DWORD dwMax) {
  DWORD h = 0;
  for (const char* s = static_cast<const char*>(pKey); *s; s++) {
    LONG c = (signed char)*s;
    // (c << 1) | (c >> 7) on a signed byte: the shift right brings in the sign, so a negative
    // byte gives all ones.
    DWORD dwMix = c < 0 ? 0xFFFFFFFFu : ((DWORD)c << 1);
    h = dwMix + h + ((h >> 1) | (h << 31));
  }
  return dwMax ? h % dwMax : 0;
}

// ---------------------------------------------------------------------------------------------
// Array search and sort

static inline const BYTE* Item(const void* pBase, DWORD dwItemSize, DWORD dwIndex) {
  return static_cast<const BYTE*>(pBase) + (size_t)dwIndex * dwItemSize;
}

DWORD LinearFind(const void* pBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                 PFN_COMPARE funcCompare) {
  for (DWORD i = 0; i < dwCount; i++)
    if (funcCompare(Item(pBase, dwItemSize, i), pKey) == 0) return i;
  return dwCount;
}

DWORD BinaryFind(const void* pBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                 PFN_COMPARE funcCompare) {
  // Signed bounds (64-bit, so every 32-bit count fits): r runs to -1 below the first item.
  long long l = 0, r = (long long)dwCount - 1;
  while (l <= r) {
    long long m = (l + r) / 2;
    SHORT n = funcCompare(pKey, Item(pBase, dwItemSize, (DWORD)m));
    if (n == 0) return (DWORD)m;
    if (n < 0)
      r = m - 1;
    else
      l = m + 1;
  }
  ASSERT(l == r + 1);
  return (DWORD)l;
}

BOOL IsSorted(const void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare) {
  for (DWORD i = 1; i < dwCount; i++)
    if (funcCompare(Item(pBase, dwItemSize, i - 1), Item(pBase, dwItemSize, i)) > 0) return 0;
  return 1;
}

void BubbleSort(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare) {
  if (dwCount <= 1) return;
  BYTE* pb = static_cast<BYTE*>(pBase);
  // Each pass carries the largest item of the range to its end, so the range shrinks by one.
  for (DWORD dwLast = dwCount - 1; dwLast > 0; dwLast--) {
    BOOL bSwapped = 0;
    BYTE* p = pb;
    for (DWORD i = 0; i < dwLast; i++, p += dwItemSize) {
      if (funcCompare(p, p + dwItemSize) > 0) {
        SwapMem(p, p + dwItemSize, dwItemSize);
        bSwapped = 1;
      }
    }
    if (!bSwapped) break;
  }
}

void QuickSort(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare) {
  BYTE* pb = static_cast<BYTE*>(pBase);
  while (dwCount >= 8) {
    BYTE* pLeft = pb;
    BYTE* pRight = pb + (size_t)(dwCount - 1) * dwItemSize;
    BYTE* pKey = pb + (size_t)(dwCount >> 1) * dwItemSize;
    // The scans stop at the key at the latest, so they never leave the range whatever the
    // compare answers; the key's item follows every swap that moves it.
    while (pLeft < pRight) {
      while (pLeft != pKey && funcCompare(pLeft, pKey) <= 0) pLeft += dwItemSize;
      while (pRight != pKey && funcCompare(pKey, pRight) <= 0) pRight -= dwItemSize;
      if (pLeft < pRight) {
        if (pKey == pLeft)
          pKey = pRight;
        else if (pKey == pRight)
          pKey = pLeft;
        SwapMem(pLeft, pRight, dwItemSize);
      }
    }
    ASSERT(pKey == pLeft && pKey == pRight);
    LONG lLeftCount = (LONG)((DWORD)(pKey - pb) / dwItemSize);
    LONG lRightCount = (LONG)(dwCount - (DWORD)lLeftCount - 1);
    ASSERT(lLeftCount >= 0);
    ASSERT(lRightCount >= 0);
    if (lLeftCount < 0 || lRightCount < 0) return;
    if (lRightCount < lLeftCount) {
      QuickSort(pKey + dwItemSize, dwItemSize, (DWORD)lRightCount, funcCompare);
      dwCount = (DWORD)lLeftCount;
    } else {
      QuickSort(pb, dwItemSize, (DWORD)lLeftCount, funcCompare);
      pb = pKey + dwItemSize;
      dwCount = (DWORD)lRightCount;
    }
  }
  BubbleSort(pb, dwItemSize, dwCount, funcCompare);
}

// ---------------------------------------------------------------------------------------------
// The same on records of a file

// Reads record dwIndex; 0 or the file's error (a short read counts as one).
static ERR ReadRecord(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwIndex, void* pBuf) {
  DWORD dwRead = 0;
  ERR err = pFile->ReadAt(pBuf, dwBase + dwIndex * dwItemSize, dwItemSize, &dwRead);
  if (!err && dwRead != dwItemSize) err = ERR_FILE_EOF;
  return err;
}

static ERR WriteRecord(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwIndex, const void* pBuf) {
  DWORD dwWritten = 0;
  ERR err = pFile->WriteAt(pBuf, dwBase + dwIndex * dwItemSize, dwItemSize, &dwWritten);
  if (!err && dwWritten != dwItemSize) err = ERR_FILE_WRITE;
  return err;
}

// Two record buffers from the caller or allocated. A caller's second buffer is stored over the
// first and the second stays empty, so it leads to ERR_FILE_NOMEM.
struct TFileBuffers {
  void* p1;
  void* p2;
  void* pOwn1;
  void* pOwn2;

  ERR Get(DWORD dwItemSize, void* pBuf1, void* pBuf2) {
    p1 = pBuf1;
    p2 = 0;
    pOwn1 = pOwn2 = 0;
    if (!p1 && dwItemSize) p1 = pOwn1 = MEM_ALLOC(dwItemSize);
    if (pBuf2)
      p1 = pBuf2;
    else if (dwItemSize)
      p2 = pOwn2 = MEM_ALLOC(dwItemSize);
    return (p1 && p2) ? 0 : ERR_FILE_NOMEM;
  }
  void Release() {
    if (pOwn1) MEM_FREE(pOwn1);
    if (pOwn2) MEM_FREE(pOwn2);
    pOwn1 = pOwn2 = 0;
  }
};

DWORD FileLinearFind(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                     PFN_COMPARE funcCompare, void* pBuf) {
  ASSERT(pFile);
  if (!pFile) return ERR_FILE_GENERAL;
  void* pOwn = 0;
  if (!pBuf) {
    if (dwItemSize) pBuf = pOwn = MEM_ALLOC(dwItemSize);
    if (!pBuf) return ERR_FILE_NOMEM;
  }
  DWORD dwResult = dwCount;
  for (DWORD i = 0; i < dwCount; i++) {
    ERR err = ReadRecord(pFile, dwBase, dwItemSize, i, pBuf);
    if (err) {
      dwResult = err;
      break;
    }
    if (funcCompare(pBuf, pKey) == 0) {
      dwResult = i;
      break;
    }
  }
  if (pOwn) MEM_FREE(pOwn);
  return dwResult;
}

DWORD FileBinaryFind(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, const void* pKey,
                     PFN_COMPARE funcCompare, void* pBuf) {
  ASSERT(pFile);
  if (!pFile) return ERR_FILE_GENERAL;
  void* pOwn = 0;
  if (!pBuf) {
    if (dwItemSize) pBuf = pOwn = MEM_ALLOC(dwItemSize);
    if (!pBuf) return ERR_FILE_NOMEM;
  }
  long long l = 0, r = (long long)dwCount - 1;
  DWORD dwResult = 0xFFFFFFFFu;
  while (l <= r) {
    long long m = (l + r) / 2;
    ERR err = ReadRecord(pFile, dwBase, dwItemSize, (DWORD)m, pBuf);
    if (err) {
      dwResult = err;
      break;
    }
    SHORT n = funcCompare(pKey, pBuf);
    if (n == 0) {
      dwResult = (DWORD)m;
      break;
    }
    if (n < 0)
      r = m - 1;
    else
      l = m + 1;
  }
  if (dwResult == 0xFFFFFFFFu) {
    ASSERT(l == r + 1);
    dwResult = (DWORD)l;
  }
  if (pOwn) MEM_FREE(pOwn);
  return dwResult;
}

DWORD FileIsSorted(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare,
                   void* pBuf1, void* pBuf2) {
  ASSERT(pFile);
  if (!pFile) return ERR_FILE_GENERAL;
  TFileBuffers bufs;
  ERR err = bufs.Get(dwItemSize, pBuf1, pBuf2);
  DWORD dwResult = 1;
  if (err) {
    dwResult = err;
  } else if (dwCount > 1) {
    err = ReadRecord(pFile, dwBase, dwItemSize, 0, bufs.p1);
    // The two buffers take turns holding the earlier record of the pair.
    void* pPrev = bufs.p1;
    void* pCur = bufs.p2;
    for (DWORD i = 1; !err && i < dwCount; i++) {
      err = ReadRecord(pFile, dwBase, dwItemSize, i, pCur);
      if (err) break;
      if (funcCompare(pPrev, pCur) > 0) {
        dwResult = 0;
        break;
      }
      void* t = pPrev;
      pPrev = pCur;
      pCur = t;
    }
    if (err) dwResult = err;
  }
  bufs.Release();
  return dwResult;
}

ERR FileBubbleSort(CFile* pFile, DWORD dwBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare,
                   void* pBuf1, void* pBuf2) {
  ASSERT(pFile);
  if (!pFile) return ERR_FILE_GENERAL;
  if (!dwCount) return (ERR)-1;
  TFileBuffers bufs;
  ERR err = bufs.Get(dwItemSize, pBuf1, pBuf2);
  if (err) return err;
  // As BubbleSort; the earlier record of each pair is in pA, and after a swap the larger
  // one, which moves on, is already in memory.
  for (DWORD dwLast = dwCount - 1; !err && dwLast > 0; dwLast--) {
    BOOL bSwapped = 0;
    void* pA = bufs.p1;
    void* pB = bufs.p2;
    err = ReadRecord(pFile, dwBase, dwItemSize, 0, pA);
    for (DWORD i = 0; !err && i < dwLast; i++) {
      err = ReadRecord(pFile, dwBase, dwItemSize, i + 1, pB);
      if (err) break;
      if (funcCompare(pA, pB) > 0) {
        err = WriteRecord(pFile, dwBase, dwItemSize, i, pB);
        if (!err) err = WriteRecord(pFile, dwBase, dwItemSize, i + 1, pA);
        bSwapped = 1;
      } else {
        void* t = pA;
        pA = pB;
        pB = t;
      }
    }
    if (!bSwapped) break;
  }
  bufs.Release();
  return err;
}

// ---------------------------------------------------------------------------------------------
// Keyword tables

// StrCmp of a key against a record's text, which ends at its zero or after its 4 bytes.
static SHORT TableCompare(const char* pKey, const TTableEntry* pEntry) {
  for (DWORD i = 0;; i++) {
    signed char ca = (signed char)pKey[i];
    signed char cb = i < sizeof(pEntry->szKey) ? (signed char)pEntry->szKey[i] : 0;
    if (ca != cb) return ca < cb ? -1 : 1;
    if (!ca) return 0;
  }
}

DWORD TableFindLinear(const char* pKey, const TTableEntry* pTable, DWORD dwCount) {
  DWORD i = 0;
  while (i < dwCount && TableCompare(pKey, &pTable[i]) != 0) i++;
  return pTable[i].dwValue;
}

DWORD TableFindBinary(const char* pKey, const TTableEntry* pTable, DWORD dwCount) {
  long long l = 0, r = (long long)dwCount - 1;
  while (l <= r) {
    long long m = (l + r) / 2;
    SHORT n = TableCompare(pKey, &pTable[m]);
    if (n == 0) return pTable[m].dwValue;
    if (n < 0)
      r = m - 1;
    else
      l = m + 1;
  }
  return pTable[dwCount].dwValue;
}

// ---------------------------------------------------------------------------------------------
// CList

CList::CList(PFN_DELETE funcDelete, DWORD dwNextOfs)
    : m_dwCount(0),
      m_pFirst(0),
      m_pLast(0),
      m_funcDelete(funcDelete),
      m_dwNextOfs(dwNextOfs),
      m_pUserData(0) {}

CList::~CList() {
  if (!m_funcDelete) return;
  // At most m_dwCount items: after RemoveNext on an inner item the chain still reaches a
  // released item, which must not be read.
  void* p = m_pFirst;
  for (DWORD i = 0; p && i < m_dwCount; i++) {
    void* pNext = Next(p);
    Release(p);
    p = pNext;
  }
}

ERR CList::InsertAfter(void* pItem, void* pAfter) {
  ASSERT(pItem);
  if (!pItem) return ERR_BADPARAM;
  if (!pAfter) pAfter = m_pFirst ? m_pLast : 0;
  if (!pAfter) {
    // Empty list (an m_pLast left over from removed items is not used).
    Next(pItem) = 0;
    m_pFirst = m_pLast = pItem;
  } else {
    Next(pItem) = Next(pAfter);
    Next(pAfter) = pItem;
    if (pAfter == m_pLast) m_pLast = pItem;
  }
  m_dwCount++;
  return 0;
}

ERR CList::InsertBefore(void* pItem, void* pBefore) {
  ASSERT(pItem);
  if (!pItem) return ERR_BADPARAM;
  if (!pBefore) pBefore = m_pFirst;
  Next(pItem) = pBefore;
  if (pBefore == m_pFirst) {
    // Into an empty list the item is also the last, as with InsertAfter (an m_pLast left over
    // from removed items is not kept).
    if (!m_pFirst) m_pLast = pItem;
    m_pFirst = pItem;
  } else {
    void* p = m_pFirst;
    while (p && Next(p) != pBefore) p = Next(p);
    if (!p) return ERR_BADPARAM;
    Next(p) = pItem;
  }
  m_dwCount++;
  return 0;
}

ERR CList::RemoveNext(void* pItem) {
  ASSERT(m_pFirst);
  if (!m_pFirst) return ERR_BADPARAM;
  if (!pItem) {
    void* p = m_pFirst;
    m_pFirst = Next(p);
    Release(p);
    m_dwCount--;
  } else {
    void* p = Next(pItem);
    if (p) {
      // The link of pItem keeps pointing at the released item.
      Release(p);
      m_dwCount--;
    }
  }
  return 0;
}

void* CList::GetPrev(void* pItem) {
  void* p = m_pFirst;
  if (!p || p == pItem) return 0;
  while (p) {
    void* pNext = Next(p);
    if (pNext == pItem) return p;
    p = pNext;
  }
  return 0;
}

void* CList::GetNext(void* pItem) { return pItem ? Next(pItem) : m_pFirst; }

// Compares two slots of the pointer array through the element compare of the running sort.
static SHORT ListCompare(const void* p1, const void* p2) {
  const void* pData1 = *static_cast<void* const*>(p1);
  const void* pData2 = *static_cast<void* const*>(p2);
  ASSERT_TEXT(pData1 && pData2 && g_tmpCompareFunc, "pData1&&pData2&&g_tmpCompareFunc");
  if (!pData1 || !pData2 || !g_tmpCompareFunc) return 0;
  return g_tmpCompareFunc(pData1, pData2);
}

ERR CList::Sort(PFN_COMPARE funcCompare) {
  if (!m_pFirst && !m_dwCount) return 0;
  ASSERT(m_pFirst && m_dwCount && funcCompare && !g_tmpCompareFunc);
  if (!(m_pFirst && m_dwCount && funcCompare && !g_tmpCompareFunc)) return ERR_BADPARAM;
  void** ppItems = static_cast<void**>(MEM_ALLOC((size_t)m_dwCount * sizeof(void*)));
  if (!ppItems) return ERR_ALLOCFAIL;
  DWORD i = 0;
  for (void* p = m_pFirst; p; p = Next(p)) {
    if (i == m_dwCount) {
      i++;  // longer than the count
      break;
    }
    ppItems[i++] = p;
  }
  if (i != m_dwCount) {
    MEM_FREE(ppItems);
    return ERR_OUTOFRANGE;
  }
  g_tmpCompareFunc = funcCompare;
  QuickSort(ppItems, sizeof(void*), m_dwCount, ListCompare);
  g_tmpCompareFunc = 0;
  for (i = 0; i + 1 < m_dwCount; i++) Next(ppItems[i]) = ppItems[i + 1];
  Next(ppItems[m_dwCount - 1]) = 0;
  m_pFirst = ppItems[0];
  MEM_FREE(ppItems);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// CDList

CDList::CDList(PFN_DELETE funcDelete, DWORD dwNextOfs, DWORD dwPrevOfs)
    : CList(funcDelete, dwNextOfs), m_dwPrevOfs(dwPrevOfs) {}

void CDList::Link(void* pItem, void* pPrev, void* pNext) {
  Prev(pItem) = pPrev;
  Next(pItem) = pNext;
  if (pPrev)
    Next(pPrev) = pItem;
  else
    m_pFirst = pItem;
  if (pNext)
    Prev(pNext) = pItem;
  else
    m_pLast = pItem;
  m_dwCount++;
}

ERR CDList::InsertAfter(void* pItem, void* pAfter) {
  ASSERT(pItem);
  if (!pItem) return ERR_BADPARAM;
  if (!pAfter) pAfter = m_pFirst ? m_pLast : 0;
  Link(pItem, pAfter, pAfter ? Next(pAfter) : 0);
  return 0;
}

ERR CDList::InsertBefore(void* pItem, void* pBefore) {
  ASSERT(pItem);
  if (!pItem) return ERR_BADPARAM;
  if (!pBefore) pBefore = m_pFirst;
  Link(pItem, pBefore ? Prev(pBefore) : 0, pBefore);
  return 0;
}

void* CDList::GetPrev(void* pItem) { return pItem ? Prev(pItem) : m_pLast; }

ERR CDList::Sort(PFN_COMPARE funcCompare) {
  ERR err = CList::Sort(funcCompare);
  if (err || !m_pFirst) return err;
  void* pPrev = 0;
  for (void* p = m_pFirst; p; p = Next(p)) {
    Prev(p) = pPrev;
    pPrev = p;
  }
  m_pLast = pPrev;
  return 0;
}

ERR CDList::Remove(void* pItem) {
  ASSERT_TEXT(pItem && m_pFirst, "pItem&&m_pFirst");
  if (!pItem || !m_pFirst) return ERR_BADPARAM;
  void* pPrev = Prev(pItem);
  void* pNext = Next(pItem);
  if (pPrev)
    Next(pPrev) = pNext;
  else
    m_pFirst = pNext;
  if (pNext)
    Prev(pNext) = pPrev;
  else
    m_pLast = pPrev;
  Release(pItem);
  m_dwCount--;
  return 0;
}

ERR CDList::Swap(void* pItem1, void* pItem2) {
  ASSERT_TEXT(m_pFirst && pItem1 && pItem2, "m_pFirst&&pItem1&&pItem2");
  if (!m_pFirst || !pItem1 || !pItem2) return ERR_BADPARAM;
  if (pItem1 == pItem2) return 0;
  // Neighbours: make pItem1 the earlier one and move it behind pItem2.
  if (Next(pItem2) == pItem1) {
    void* t = pItem1;
    pItem1 = pItem2;
    pItem2 = t;
  }
  if (Next(pItem1) == pItem2) {
    void* pBefore = Prev(pItem1);
    void* pAfter = Next(pItem2);
    if (pBefore)
      Next(pBefore) = pItem2;
    else
      m_pFirst = pItem2;
    if (pAfter)
      Prev(pAfter) = pItem1;
    else
      m_pLast = pItem1;
    Prev(pItem2) = pBefore;
    Next(pItem2) = pItem1;
    Prev(pItem1) = pItem2;
    Next(pItem1) = pAfter;
    return 0;
  }
  // Apart: exchange both links of the two, then point the neighbours at their new items.
  void* pPrev1 = Prev(pItem1);
  void* pNext1 = Next(pItem1);
  void* pPrev2 = Prev(pItem2);
  void* pNext2 = Next(pItem2);
  Prev(pItem1) = pPrev2;
  Next(pItem1) = pNext2;
  Prev(pItem2) = pPrev1;
  Next(pItem2) = pNext1;
  if (pPrev1)
    Next(pPrev1) = pItem2;
  else
    m_pFirst = pItem2;
  if (pNext1)
    Prev(pNext1) = pItem2;
  else
    m_pLast = pItem2;
  if (pPrev2)
    Next(pPrev2) = pItem1;
  else
    m_pFirst = pItem1;
  if (pNext2)
    Prev(pNext2) = pItem1;
  else
    m_pLast = pItem1;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// CArray

CArray::CArray() : m_dwItemSize(0), m_dwCount(0), m_pData(0), m_funcDelete(0), m_pUserData(0), m_bFreed(0) {}

CArray::~CArray() {
  if (HasData()) Free();
}

ERR CArray::Create(DWORD dwCount, DWORD dwItemSize, PFN_DELETE funcDelete) {
  if (HasData()) Free();
  m_pData = 0;
  m_bFreed = 0;
  m_dwCount = 0;
  m_dwItemSize = dwItemSize;
  m_funcDelete = funcDelete;
  // Nothing to allocate counts as a failed allocation (without asking the allocator, which
  // would assert on a size of 0).
  if (!dwCount || !dwItemSize) return ERR_ALLOCFAIL;
  unsigned long long qwBytes = (unsigned long long)dwCount * dwItemSize;
  if (qwBytes > 0xFFFFFFF0u) return ERR_ALLOCFAIL;
  void* p = MEM_ALLOC((DWORD)qwBytes);
  if (!p) return ERR_ALLOCFAIL;
  MemSet(p, 0, (DWORD)qwBytes);
  m_pData = p;
  m_dwCount = dwCount;
  return 0;
}

ERR CArray::Grow(LONG lDelta) {
  if (!HasData()) return ERR_UNKNOWN;
  long long llNew = (long long)m_dwCount + lDelta;
  if (llNew <= 0) return ERR_BADPARAM;
  unsigned long long qwBytes = (unsigned long long)llNew * m_dwItemSize;
  if (qwBytes > 0xFFFFFFF0u || !qwBytes) return ERR_REALLOCFAIL;
  void* pOld = m_pData;
  void* pNew = MEM_REALLOC(pOld, (DWORD)qwBytes);
  if (!pNew) return ERR_REALLOCFAIL;
  if (llNew > (long long)m_dwCount) {
    // The new items are cleared at the old address; a block that moved has been released
    // there, so the clearing is skipped and the new items keep what the allocator left.
    if (pNew == pOld)
      MemSet(static_cast<BYTE*>(pOld) + (size_t)m_dwCount * m_dwItemSize, 0,
             (DWORD)((DWORD)llNew - m_dwCount) * m_dwItemSize);
  }
  m_pData = pNew;
  m_dwCount = (DWORD)llNew;
  return 0;
}

void* CArray::GetItem(DWORD dwIndex) {
  if (!HasData() || dwIndex >= m_dwCount) return 0;
  return static_cast<BYTE*>(m_pData) + (size_t)dwIndex * m_dwItemSize;
}

void CArray::Free() {
  if (!HasData()) return;
  if (m_funcDelete) {
    ASSERT(m_dwItemSize);
    if (m_dwItemSize)
      for (DWORD i = 0; i < m_dwCount; i++)
        m_funcDelete(static_cast<BYTE*>(m_pData) + (size_t)i * m_dwItemSize, m_pUserData);
  }
  MEM_FREE(m_pData);
  m_bFreed = 1;
}

void CArray::Sort(PFN_COMPARE funcCompare) {
  ASSERT(funcCompare);
  if (!funcCompare || !HasData()) return;
  QuickSort(m_pData, m_dwItemSize, m_dwCount, funcCompare);
}

DWORD CArray::FindLinear(const void* pKey, PFN_COMPARE funcCompare) {
  ASSERT(funcCompare);
  if (!funcCompare || !HasData()) return m_dwCount;
  return LinearFind(m_pData, m_dwItemSize, m_dwCount, pKey, funcCompare);
}

DWORD CArray::FindBinary(const void* pKey, PFN_COMPARE funcCompare) {
  ASSERT(funcCompare);
  if (!funcCompare || !HasData()) return m_dwCount;
  return BinaryFind(m_pData, m_dwItemSize, m_dwCount, pKey, funcCompare);
}

// ---------------------------------------------------------------------------------------------
// CHashTable

CHashTable::CHashTable(DWORD dwSize, PFN_HASHKEY funcHashKey, PFN_COMPARE funcCompareKey,
                       PFN_DELETE funcDelete, DWORD dwNextOfs, DWORD dwKeyOfs)
    : m_pTable(0),
      m_dwSize(dwSize),
      funcHashKey(funcHashKey),
      funcCompareKey(funcCompareKey),
      m_funcDelete(funcDelete),
      m_dwNextOfs(dwNextOfs),
      m_dwKeyOfs(dwKeyOfs),
      m_dwHashes(0),
      m_dwCompares(0),
      m_pUserData(0) {
  ASSERT(funcHashKey && funcCompareKey);
  // Without both functions, or buckets, the table stays without m_pTable and refuses all.
  if (!funcHashKey || !funcCompareKey || !dwSize) return;
  if ((unsigned long long)dwSize * sizeof(void*) > 0xFFFFFFF0u) return;
  m_pTable = static_cast<void**>(MEM_ALLOC((size_t)dwSize * sizeof(void*)));
  if (m_pTable) MemSet(m_pTable, 0, (DWORD)(dwSize * sizeof(void*)));
}

CHashTable::~CHashTable() {
  Clear();
  if (m_pTable) MEM_FREE(m_pTable);
  m_pTable = 0;
}

DWORD CHashTable::Bucket(const void* pKey) {
  m_dwHashes++;
  DWORD h = funcHashKey(pKey, m_dwSize);
  // A hash function that answers out of range must not take us outside the table.
  return h < m_dwSize ? h : h % m_dwSize;
}

ERR CHashTable::Insert(void* pItem) {
  ASSERT(pItem);
  if (!pItem) return ERR_BADPARAM;
  if (!m_pTable) return ERR_UNKNOWN;
  DWORD h = Bucket(Key(pItem));
  Next(pItem) = m_pTable[h];
  m_pTable[h] = pItem;
  return 0;
}

void* CHashTable::Find(const void* pKey, void*** ppLink) {
  ASSERT(pKey);
  if (ppLink) *ppLink = 0;
  if (!pKey || !m_pTable) return 0;
  void** pLink = &m_pTable[Bucket(pKey)];
  while (*pLink) {
    m_dwCompares++;
    if (funcCompareKey(pKey, Key(*pLink)) == 0) break;
    pLink = &Next(*pLink);
  }
  m_dwCompares++;
  if (ppLink) *ppLink = pLink;
  return *pLink;
}

ERR CHashTable::Detach(const void* pKey, void** ppItem) {
  if (ppItem) *ppItem = 0;
  if (!m_pTable) return ERR_UNKNOWN;
  void** pLink = 0;
  void* pItem = Find(pKey, &pLink);
  if (!pItem) return ERR_NOTFOUND;
  *pLink = Next(pItem);
  if (ppItem) *ppItem = pItem;
  return 0;
}

ERR CHashTable::Delete(const void* pKey) {
  void* pItem = 0;
  ERR err = Detach(pKey, &pItem);
  if (err) return err;
  if (m_funcDelete) m_funcDelete(pItem, m_pUserData);
  return 0;
}

void CHashTable::Clear() {
  if (!m_pTable) return;
  for (DWORD i = 0; i < m_dwSize; i++) {
    void* p = m_pTable[i];
    m_pTable[i] = 0;
    while (p) {
      void* pNext = Next(p);
      if (m_funcDelete) m_funcDelete(p, m_pUserData);
      p = pNext;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// CGrowBuffer

CGrowBuffer::CGrowBuffer(DWORD dwGran) : m_pData(0), m_dwSize(0), m_dwGran(dwGran) {
  ASSERT(dwGran);
  if (!m_dwGran) m_dwGran = 1;
}

CGrowBuffer::~CGrowBuffer() {
  if (m_pData) MEM_FREE(m_pData);
  m_pData = 0;
}

// dwSize rounded up to a multiple of dwGran; 64 bits, so nothing wraps.
static unsigned long long RoundUp(DWORD dwSize, DWORD dwGran) {
  return ((unsigned long long)dwSize + dwGran - 1) / dwGran * dwGran;
}

ERR CGrowBuffer::SetSize(DWORD dwSize) {
  if (dwSize == m_dwSize) return 0;
  unsigned long long qwOld = RoundUp(m_dwSize, m_dwGran);
  unsigned long long qwNew = RoundUp(dwSize, m_dwGran);
  if (qwOld == qwNew) {
    m_dwSize = dwSize;
    return 0;
  }
  if (!dwSize) {
    if (m_pData) MEM_FREE(m_pData);
    m_pData = 0;
    m_dwSize = 0;
    return 0;
  }
  if (!m_pData) {
    if (qwNew > 0xFFFFFFF0u) return ERR_ALLOCFAIL;
    void* p = MEM_ALLOC((DWORD)qwNew);
    if (!p) return ERR_ALLOCFAIL;
    m_pData = p;
  } else {
    if (qwNew > 0xFFFFFFF0u) return ERR_REALLOCFAIL;
    void* p = MEM_REALLOC(m_pData, (DWORD)qwNew);
    if (!p) return ERR_REALLOCFAIL;
    m_pData = p;
  }
  m_dwSize = dwSize;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// CChunkAlloc

CChunkAlloc::CChunkAlloc(BOOL bNoSearch, DWORD dwGran)
    : m_dwChunkSize(0), m_pFirst(0), m_pLast(0), m_bNoSearch(bNoSearch) {
  ASSERT(dwGran > sizeof(TChunkAllocHdr));
  // A granule without room for data leaves chunks of 0 bytes: every request gets its own.
  if (dwGran > sizeof(TChunkAllocHdr)) m_dwChunkSize = dwGran - (DWORD)sizeof(TChunkAllocHdr);
}

CChunkAlloc::~CChunkAlloc() { FreeAll(); }

TChunkAllocHdr* CChunkAlloc::AddChunk(DWORD dwSize) {
  if (dwSize > 0xFFFFFFF0u - sizeof(TChunkAllocHdr)) return 0;
  TChunkAllocHdr* pHdr = static_cast<TChunkAllocHdr*>(MEM_ALLOC(sizeof(TChunkAllocHdr) + dwSize));
  if (!pHdr) return 0;
  pHdr->dwSize = dwSize;
  pHdr->dwUsed = 0;
  pHdr->pNext = 0;
  if (m_pLast)
    m_pLast->pNext = pHdr;
  else
    m_pFirst = pHdr;
  m_pLast = pHdr;
  return pHdr;
}

void* CChunkAlloc::Alloc(DWORD dwSize) {
  TChunkAllocHdr* pHdr = 0;
  if (dwSize > m_dwChunkSize) {
    pHdr = AddChunk(dwSize);
  } else {
    if (!m_pFirst && !AddChunk(m_dwChunkSize)) return 0;
    if (m_pLast->dwSize - m_pLast->dwUsed >= dwSize) {
      pHdr = m_pLast;
    } else if (!m_bNoSearch) {
      for (TChunkAllocHdr* p = m_pFirst; p && p != m_pLast; p = p->pNext) {
        if (p->dwSize - p->dwUsed >= dwSize) {
          pHdr = p;
          break;
        }
      }
    }
    if (!pHdr) pHdr = AddChunk(m_dwChunkSize);
  }
  if (!pHdr) return 0;
  BYTE* pResult = Data(pHdr) + pHdr->dwUsed;
  pHdr->dwUsed += dwSize;
  return pResult;
}

void CChunkAlloc::FreeAll() {
  TChunkAllocHdr* p = m_pFirst;
  while (p) {
    TChunkAllocHdr* pNext = p->pNext;
    MEM_FREE(p);
    p = pNext;
  }
  m_pFirst = m_pLast = 0;
}

ERR CChunkAlloc::Locate(DWORD* pdwOfs, void** ppData, DWORD* pdwSize) {
  DWORD dwOfs = *pdwOfs;
  for (TChunkAllocHdr* p = m_pFirst; p; p = p->pNext) {
    if (dwOfs < p->dwUsed) {
      *pdwOfs = dwOfs;
      *ppData = Data(p);
      *pdwSize = p->dwSize;
      return 0;
    }
    dwOfs -= p->dwUsed;
  }
  return ERR_OUTOFRANGE;
}

ERR CChunkAlloc::GetOffset(const void* p, DWORD* pdwOfs) {
  DWORD_PTR dwAddr = (DWORD_PTR)p;
  DWORD dwBase = 0;
  for (TChunkAllocHdr* pHdr = m_pFirst; pHdr; pHdr = pHdr->pNext) {
    DWORD_PTR dwData = (DWORD_PTR)Data(pHdr);
    if (dwAddr >= dwData && dwAddr < dwData + pHdr->dwUsed) {
      *pdwOfs = dwBase + (DWORD)(dwAddr - dwData);
      return 0;
    }
    dwBase += pHdr->dwUsed;
  }
  return ERR_NOTFOUND;
}
