// The resource cache: one object shared by all users of a location, and released objects kept
// up to a memory limit in front of another locator; the system's global locator.
#pragma once

#include "base/pool.h"
#include "files/defrl.h"

// Bits of TResItem::wFlags.
#define RESITEM_LOCONLY 0x0001  // held by location only: never in the object table
#define RESITEM_DROPPED 0x0002  // location dropped by a Save while in use (an orphan)
#define RESITEM_NOKEEP 0x0004   // not kept after the last release

// Length of the location text an item holds, terminator included. Longer locations are
// loaded all the same but not cached.
#define RESITEM_LOCATION 256

// One cached object: 288 bytes on the 32-bit build.
struct TResItem {
  DWORD dwType;
  DWORD dwSize;  // cost in bytes, at least 1
  WORD wFlags;
  WORD wLockCount;  // users
  char szLocation[RESITEM_LOCATION];
  DWORD_PTR dwData;  // the object
  TResItem* pNext;   // list of unused items
  TResItem* pPrev;
  TResItem* pLocLink;   // chain of the location table
  TResItem* pDataLink;  // chain of the object table
};
static_assert(sizeof(void*) != 4 || sizeof(TResItem) == 288, "288-byte items on 32-bit builds");

// Decides whether objects of a type are cached, and at what cost: FALSE leaves the object to
// its caller. Otherwise *pdwSize is its cost in bytes and *pwFlags its RESITEM_* bits.
typedef BOOL (*PFN_RESPOLICY)(DWORD dwType, void* pObject, DWORD* pdwSize, WORD* pwFlags);

// The system's policy: types 1 and 6 cost 1 with RESITEM_LOCONLY; a bitmap its pixel block
// plus 26; a font its widest glyph x its height x its glyph count, plus 566; type 7 and any
// other type are not cached.
BOOL ResCachePolicy(DWORD dwType, void* pObject, DWORD* pdwSize, WORD* pwFlags);

// A chained table that counts its items. Items are taken out by address, so that an item is
// never confused with another of the same key.
class CResTable : public CHashTable {
 public:
  CResTable(DWORD dwSize, PFN_HASHKEY funcHashKey, PFN_COMPARE funcCompareKey, DWORD dwNextOfs);
  ERR Insert(void* pItem) override;
  // Unlinks pItem; ERR_NOTFOUND when it isn't in the table, ERR_UNKNOWN without buckets.
  ERR Unlink(void* pItem);

  DWORD m_dwCount;
};

// A locator in front of pLocator. Loads of one location share one object; the last release
// keeps the object on a list of unused items (oldest first) while the bytes on the list stay
// within m_dwMaxMem, evicting the least recently released first. An object whose cost is at or
// above the limit is given back to the lower locator at its last release. A Save to a location
// drops the cached copy: unused, it is released at once; in use, its item becomes an orphan
// that the users keep (its cost is added to m_dwMem at its last release, and the object stays
// alive until the end of the run).
class CResCache : public CResLocator {
  DECLARE_CLASS()
 public:
  // pLocator is not owned. dwBuckets: size of each of the two tables. pfnPolicy may be null
  // (nothing is cached then).
  CResCache(CResLocator* pLocator, DWORD dwBuckets, DWORD dwMaxMem, PFN_RESPOLICY pfnPolicy);
  // Releases every unused item through the lower locator. Objects still in use stay their
  // users'; the lower locator is not deleted.
  ~CResCache() override;

  // The shared object of (dwType, pLocation), or a new one from the lower locator: its error
  // as it is, ERR_BADPARAM for a null pBuf or location. An object the policy doesn't cache (or
  // that can't be recorded) is the caller's, released through this cache all the same.
  ERR Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override;
  // Drops the cached object of the location (see above), then the lower Save.
  ERR Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override;
  // One user less; objects the cache doesn't know go to the lower Release. *pBuf is cleared
  // at the last release only: while other users remain it is left as it was. 0, or
  // ERR_BADPARAM for an object that has no user.
  ERR Release(DWORD dwType, void* pBuf) override;

  // The item of an object (RESITEM_LOCONLY items are never found), or null.
  TResItem* Find(DWORD dwType, DWORD_PTR dwData);
  // The item of a location, or null.
  TResItem* FindLocation(DWORD dwType, const char* pLocation);

  CResLocator* m_pLocator;  // not owned
  CFixedPool m_Pool;
  CDList m_FreeList;  // unused items, oldest first
  CResTable m_LocTable;
  CResTable m_DataTable;
  DWORD m_dwMem;  // bytes of the items on m_FreeList (and of orphans, see above)
  DWORD m_dwMaxMem;
  PFN_RESPOLICY m_pfnPolicy;

 protected:
  // Releases unused items, oldest first, until m_dwMem is at most dwMem or the list is empty.
  void Trim(DWORD dwMem);
  // Takes the oldest unused item out of everything and gives its object back.
  void EvictFirst();
};

// The global locator, a CResCache over a CDefResLocator; null outside ResCacheInit/ResCacheDone.
extern CResLocator* g_pResLocator;

// Start-up: creates the default locator (no successor) and g_pResLocator over it, with 256
// buckets, a limit of 0x19000 bytes and ResCachePolicy. 0, or ERR_ALLOCFAIL (nothing made).
ERR ResCacheInit();
// Teardown: deletes g_pResLocator (releasing what it keeps), nulls it, then deletes the default
// locator beneath it.
void ResCacheDone();
