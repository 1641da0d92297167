// The resource cache and the global locator.
#include "files/rlcache.h"

#include <stddef.h>

#include "graphics/font.h"
#include "graphics/graphics.h"

IMPLEMENT_CLASS(CResCache, 0x3000903, CResLocator)

CResLocator* g_pResLocator = 0;

// The locator beneath g_pResLocator, made and deleted with it.
static CDefResLocator* s_pDefResLocator = 0;

// Items per chunk of the item pool.
#define RESCACHE_ITEMS_PER_CHUNK 50

// ---------------------------------------------------------------------------------------------
// Policy

BOOL ResCachePolicy(DWORD dwType, void* pObject, DWORD* pdwSize, WORD* pwFlags) {
  switch (dwType) {
    case 1:
    case 6:
      *pdwSize = 1;
      *pwFlags = RESITEM_LOCONLY;
      return TRUE;
    case RES_TYPE_BITMAP: {
      // The pixel block and the bitmap object itself.
      CBitmap* pBitmap = static_cast<CBitmap*>(pObject);
      *pdwSize = (pBitmap ? pBitmap->m_dwSize : 0) + 26;
      *pwFlags = 0;
      return TRUE;
    }
    case RES_TYPE_FONT: {
      // The glyph strip (one byte a pixel) and the font object with its measures.
      CFont* pFont = static_cast<CFont*>(pObject);
      unsigned long long qwCost = 0;
      if (pFont) {
        const TFontHeader& h = pFont->m_Header;
        const long long w = h.nMaxWidth > 0 ? h.nMaxWidth : 0;
        const long long ht = h.nHeight > 0 ? h.nHeight : 0;
        const long long g = h.nGlyphs > 0 ? h.nGlyphs : 0;
        qwCost = (unsigned long long)(w * ht * g);
      }
      qwCost += 566;
      *pdwSize = qwCost > 0xFFFFFFFFull ? 0xFFFFFFFFu : (DWORD)qwCost;
      *pwFlags = 0;
      return TRUE;
    }
    default:
      return FALSE;
  }
}

// ---------------------------------------------------------------------------------------------
// The two tables. An item's key is the item itself: the location table reads its type and
// location, the object table its type and object.

static DWORD AddMod(DWORD_PTR a, DWORD_PTR b, DWORD dwMax) {
  if (!dwMax) return 0;
  return (DWORD)(((unsigned long long)(a % dwMax) + (unsigned long long)(b % dwMax)) % dwMax);
}

static DWORD LocHash(const void* pKey, DWORD dwMax) {
  const TResItem* p = static_cast<const TResItem*>(pKey);
  return AddMod(Hash31(p->szLocation, dwMax), p->dwType, dwMax);
}

static SHORT LocCompare(const void* pKey, const void* pItemKey) {
  const TResItem* a = static_cast<const TResItem*>(pKey);
  const TResItem* b = static_cast<const TResItem*>(pItemKey);
  if (a->dwType != b->dwType) return a->dwType < b->dwType ? -1 : 1;
  return StrCmp(a->szLocation, b->szLocation);
}

static DWORD DataHash(const void* pKey, DWORD dwMax) {
  const TResItem* p = static_cast<const TResItem*>(pKey);
  return AddMod(p->dwType, p->dwData, dwMax);
}

static SHORT DataCompare(const void* pKey, const void* pItemKey) {
  const TResItem* a = static_cast<const TResItem*>(pKey);
  const TResItem* b = static_cast<const TResItem*>(pItemKey);
  if (a->dwType != b->dwType) return a->dwType < b->dwType ? -1 : 1;
  if (a->dwData != b->dwData) return a->dwData < b->dwData ? -1 : 1;
  return 0;
}

CResTable::CResTable(DWORD dwSize, PFN_HASHKEY funcHashKey, PFN_COMPARE funcCompareKey, DWORD dwNextOfs)
    : CHashTable(dwSize, funcHashKey, funcCompareKey, 0, dwNextOfs, 0), m_dwCount(0) {}

ERR CResTable::Insert(void* pItem) {
  ERR err = CHashTable::Insert(pItem);
  if (!err) m_dwCount++;
  return err;
}

ERR CResTable::Unlink(void* pItem) {
  if (!m_pTable) return ERR_UNKNOWN;
  if (!pItem) return ERR_NOTFOUND;
  void** pLink = &m_pTable[Bucket(Key(pItem))];
  while (*pLink && *pLink != pItem) pLink = &Next(*pLink);
  if (!*pLink) return ERR_NOTFOUND;
  *pLink = Next(pItem);
  Next(pItem) = 0;
  m_dwCount--;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// CResCache

CResCache::CResCache(CResLocator* pLocator, DWORD dwBuckets, DWORD dwMaxMem, PFN_RESPOLICY pfnPolicy)
    : CResLocator(pLocator),
      m_pLocator(pLocator),
      m_FreeList(0, offsetof(TResItem, pNext), offsetof(TResItem, pPrev)),
      m_LocTable(dwBuckets, LocHash, LocCompare, offsetof(TResItem, pLocLink)),
      m_DataTable(dwBuckets, DataHash, DataCompare, offsetof(TResItem, pDataLink)),
      m_dwMem(0),
      m_dwMaxMem(dwMaxMem),
      m_pfnPolicy(pfnPolicy) {
  ASSERT(pLocator);
  m_Pool.Init(sizeof(TResItem), RESCACHE_ITEMS_PER_CHUNK);
}

CResCache::~CResCache() {
  while (m_FreeList.m_pFirst) EvictFirst();
  ASSERT(m_LocTable.m_dwCount == m_DataTable.m_dwCount);
}

TResItem* CResCache::Find(DWORD dwType, DWORD_PTR dwData) {
  TResItem probe;
  probe.dwType = dwType;
  probe.dwData = dwData;
  return static_cast<TResItem*>(m_DataTable.Find(&probe, 0));
}

TResItem* CResCache::FindLocation(DWORD dwType, const char* pLocation) {
  if (!pLocation || StrLen(pLocation) >= RESITEM_LOCATION) return 0;
  TResItem probe;
  probe.dwType = dwType;
  StrCpy(probe.szLocation, pLocation);
  return static_cast<TResItem*>(m_LocTable.Find(&probe, 0));
}

void CResCache::EvictFirst() {
  TResItem* p = static_cast<TResItem*>(m_FreeList.m_pFirst);
  if (!p) return;
  ASSERT(m_dwMem >= p->dwSize);
  m_dwMem = m_dwMem >= p->dwSize ? m_dwMem - p->dwSize : 0;
  ERR err = m_LocTable.Unlink(p);
  ASSERT(!err);
  if (!(p->wFlags & RESITEM_LOCONLY)) {
    err = m_DataTable.Unlink(p);
    ASSERT(!err);
  }
  err = m_FreeList.Remove(p);
  ASSERT(!err);
  void* pObject = reinterpret_cast<void*>(p->dwData);
  err = m_pLocator ? m_pLocator->Release(p->dwType, &pObject) : ERR_NOTIMPL;
  ASSERT(!err);
  m_Pool.Free(p);
}

void CResCache::Trim(DWORD dwMem) {
  while (m_dwMem > dwMem && m_FreeList.m_pFirst) EvictFirst();
  ASSERT(m_dwMem <= dwMem);
}

ERR CResCache::Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) {
  ASSERT(pLocation);
  if (!pLocation || !pBuf) return ERR_BADPARAM;
  if (!m_pLocator) return ERR_NOTIMPL;
  void** ppObject = static_cast<void**>(pBuf);

  TResItem* p = FindLocation(dwType, pLocation);
  if (p) {
    if (!(p->wFlags & RESITEM_LOCONLY) && !p->wLockCount) {
      m_FreeList.Remove(p);
      m_dwMem = m_dwMem >= p->dwSize ? m_dwMem - p->dwSize : 0;
    }
    *ppObject = reinterpret_cast<void*>(p->dwData);
    p->wLockCount++;
    return 0;
  }

  ERR err = m_pLocator->Load(dwType, pLocation, pBuf, dwParam);
  if (err) return err;
  void* pObject = *ppObject;
  ASSERT_TEXT(!Find(dwType, reinterpret_cast<DWORD_PTR>(pObject)), "!Find(dwType, *(DWORD *) pBuf)");
  DWORD dwSize = 0;
  WORD wFlags = 0;
  if (!pObject || !m_pfnPolicy || !m_pfnPolicy(dwType, pObject, &dwSize, &wFlags)) return 0;
  // From here on a failure to record the object leaves it to the caller, uncached.
  if (StrLen(pLocation) >= RESITEM_LOCATION) return 0;
  p = static_cast<TResItem*>(m_Pool.Alloc(sizeof(TResItem)));
  if (!p) return 0;
  MemSet(p, 0, sizeof(TResItem));
  p->dwType = dwType;
  p->dwSize = dwSize ? dwSize : 1;
  p->wFlags = wFlags;
  StrCpy(p->szLocation, pLocation);
  p->dwData = reinterpret_cast<DWORD_PTR>(pObject);

  if (wFlags & RESITEM_LOCONLY) {
    p->wLockCount = 0;
    Trim(m_dwMaxMem > p->dwSize ? m_dwMaxMem - p->dwSize : 0);
    m_FreeList.InsertAfter(p, 0);
    m_dwMem += p->dwSize;
  } else {
    p->wLockCount = 1;
  }
  if (m_LocTable.Insert(p)) {
    if (!p->wLockCount) {
      m_FreeList.Remove(p);
      m_dwMem -= p->dwSize;
    }
    m_Pool.Free(p);
    return 0;
  }
  if (p->wLockCount && m_DataTable.Insert(p)) {
    m_LocTable.Unlink(p);
    m_Pool.Free(p);
  }
  return 0;
}

ERR CResCache::Release(DWORD dwType, void* pBuf) {
  void** ppObject = static_cast<void**>(pBuf);
  TResItem* p = ppObject && *ppObject ? Find(dwType, reinterpret_cast<DWORD_PTR>(*ppObject)) : 0;
  if (!p) return m_pLocator ? m_pLocator->Release(dwType, pBuf) : ERR_NOTIMPL;

  ASSERT(p->wLockCount);
  if (!p->wLockCount) return ERR_BADPARAM;
  p->wLockCount--;
  if (p->wLockCount) return 0;

  if (p->dwSize >= m_dwMaxMem || (p->wFlags & RESITEM_NOKEEP)) {
    if (!(p->wFlags & RESITEM_DROPPED)) m_LocTable.Unlink(p);
    m_DataTable.Unlink(p);
    m_Pool.Free(p);
    return m_pLocator->Release(dwType, pBuf);
  }

  Trim(m_dwMaxMem - p->dwSize);
  // An orphan has no location to be found by again: it stays off the list, yet its cost is
  // counted all the same.
  if (!(p->wFlags & RESITEM_DROPPED)) m_FreeList.InsertAfter(p, 0);
  m_dwMem += p->dwSize;
  *ppObject = 0;
  return 0;
}

ERR CResCache::Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) {
  if (!m_pLocator) return ERR_NOTIMPL;
  TResItem* p = FindLocation(dwType, pLocation);
  if (p && !p->wLockCount) {
    // Unused: the stale object goes now. Its cost stays in m_dwMem, as an orphan's does.
    void* pObject = reinterpret_cast<void*>(p->dwData);
    ERR err = m_pLocator->Release(p->dwType, &pObject);
    ASSERT(!err);
    err = m_LocTable.Unlink(p);
    ASSERT(!err);
    if (!(p->wFlags & RESITEM_LOCONLY)) {
      err = m_DataTable.Unlink(p);
      ASSERT(!err);
    }
    err = m_FreeList.Remove(p);
    ASSERT(!err);
    m_Pool.Free(p);
  } else if (p) {
    // In use: later loads make a new object, and the users keep the old one.
    p->wFlags |= RESITEM_DROPPED;
    m_LocTable.Unlink(p);
  }
  return m_pLocator->Save(dwType, pLocation, pBuf, dwParam);
}

// ---------------------------------------------------------------------------------------------
// The global locator

ERR ResCacheInit() {
  ASSERT(!g_pResLocator);
  if (g_pResLocator) return 0;
  CDefResLocator* pDef = new CDefResLocator(0);
  if (!pDef) return ERR_ALLOCFAIL;
  CResCache* pCache = new CResCache(pDef, 256, 0x19000, ResCachePolicy);
  if (!pCache) {
    delete pDef;
    return ERR_ALLOCFAIL;
  }
  s_pDefResLocator = pDef;
  g_pResLocator = pCache;
  return 0;
}

void ResCacheDone() {
  delete g_pResLocator;
  g_pResLocator = 0;
  delete s_pDefResLocator;
  s_pDefResLocator = 0;
}
