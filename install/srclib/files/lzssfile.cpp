// Compressed file and the "LZSS:" volume.
//
// Layout: an 18-byte header, a table of absolute stream offsets (one per page, 0 past the last),
// then the page streams back to back. A page's stream ends where the next one starts; the last
// one ends at the end of the media.
#include "files/lzssfile.h"

#include <string.h>

#include "files/lzssfunc.h"

IMPLEMENT_CLASS(CLZSSFile, 0x3000802, CFile)
IMPLEMENT_CLASS(CLZSSFS, 0x3000801, CFS)

#define LZ_CACHE_MISS 0xFFFFFFFFu

// ---------------------------------------------------------------------------------------------
// Construction and header

CLZSSFile::CLZSSFile(CFile* pMedia, BOOL bOwnMedia, WORD wMode, ERR* pErr, DWORD dwCachePages,
                     DWORD dwPageSize, DWORD dwMaxPages, BYTE btBitLengths)
    : CFile(pMedia, bOwnMedia) {
  ASSERT(pMedia);
  ASSERT(dwPageSize);
  ASSERT(dwMaxPages);
  m_wMode = wMode;
  m_hCache = 0;
  m_nCacheLocks = 0;
  m_pPageTable = 0;
  m_dwCachePages = 0;
  m_pCacheEntries = 0;
  m_pCacheData = 0;
  ClearState();
  m_dwPageSize = m_dwMaxPages = 0;
  m_btBitLengths = 0;
  m_dwDataStart = 0;
  m_bDirty = 0;
  ERR err;
  if (!pMedia) {
    err = ERR_LZSSFILE_NOTVALID;
  } else if (pMedia->GetSize() == 0) {
    // Zero sizes would leave nothing to divide by; they are refused, not trusted.
    err = dwPageSize && dwMaxPages ? Create(dwCachePages, dwPageSize, dwMaxPages, btBitLengths)
                                   : ERR_LZSSFILE_NOTVALID;
  } else {
    err = Attach(dwCachePages);
  }
  if (pErr) *pErr = err;
  if (!err) m_bValid = 1;
}

CLZSSFile::~CLZSSFile() {
  if (m_bDirty) Flush();
  if (m_dwCachePages) SetCachePages(0);
  if (m_pPageTable) MEM_FREE(m_pPageTable);
  m_pPageTable = 0;
  if (m_bOwnMedia && m_pMedia) delete m_pMedia;
  m_pMedia = 0;
  FreeCache();
}

void CLZSSFile::ClearState() {
  m_dwPos = 0;
  m_dwFileSize = 0;
  m_dwPages = 0;
  m_dwCurPage = 0;
}

ERR CLZSSFile::CheckWritable() {
  if (!m_bValid) return ERR_LZSSFILE_NOTVALID;
  if (m_wMode == FILE_MODE_READ) return ERR_LZSSFILE_READONLY;
  return 0;
}

// Work buffer of a page's stream: twice the page, at least the page plus 200 bytes.
DWORD CLZSSFile::WorkSize() {
  DWORD dw = 2 * m_dwPageSize;
  if (dw < m_dwPageSize + 200) dw = m_dwPageSize + 200;
  return dw;
}

ERR CLZSSFile::ReadHeader() {
  ASSERT(m_pMedia);
  if (!m_pMedia) return ERR_LZSSFILE_NOTVALID;
  BYTE hdr[LZSS_HEADER_SIZE];
  DWORD dwRead = 0;
  ERR err = m_pMedia->Seek(0, FILE_BEGIN);
  if (!err) err = m_pMedia->Read(hdr, LZSS_HEADER_SIZE, &dwRead);
  if (err) return err;
  if (dwRead < LZSS_HEADER_SIZE) return ERR_FILE_EOF;
  if (memcmp(hdr, "LZSS", 4) != 0) return ERR_LZSSFILE_BADMAGIC;
  DWORD dwSize = GetLE32(hdr + 4), dwPageSize = GetLE32(hdr + 8), dwMaxPages = GetLE32(hdr + 12);
  // Fields no writer makes: a damaged header, refused before anything is sized by it.
  DWORD dwMedia = m_pMedia->GetSize();
  if (dwPageSize == 0 || dwPageSize > LZSS_MAX_PAGESIZE || dwMaxPages == 0 ||
      dwMaxPages > (dwMedia - LZSS_HEADER_SIZE) / 4)
    return ERR_FILE_BADFORMAT;
  m_dwFileSize = dwSize;
  m_dwPageSize = dwPageSize;
  m_dwMaxPages = dwMaxPages;
  m_btBitLengths = hdr[16];
  m_dwDataStart = LZSS_HEADER_SIZE + 4 * m_dwMaxPages;
  if (m_pPageTable) MEM_FREE(m_pPageTable);
  m_pPageTable = (DWORD*)MEM_ALLOC(4 * m_dwMaxPages);
  if (!m_pPageTable) return ERR_FILE_NOMEM;
  BYTE* pRaw = (BYTE*)m_pPageTable;
  err = m_pMedia->Seek(LZSS_HEADER_SIZE, FILE_BEGIN);
  if (!err) err = m_pMedia->Read(pRaw, 4 * m_dwMaxPages, &dwRead);
  if (!err && dwRead < 4 * m_dwMaxPages) err = ERR_FILE_EOF;
  if (err) {
    memset(m_pPageTable, 0, 4 * m_dwMaxPages);
    return err;
  }
  // The table is little-endian on the media; turn it around in place.
  for (DWORD i = 0; i < m_dwMaxPages; i++) m_pPageTable[i] = GetLE32(pRaw + 4 * i);
  return 0;
}

ERR CLZSSFile::WriteHeader() {
  ASSERT(m_pMedia);
  if (!m_pMedia) return ERR_LZSSFILE_NOTVALID;
  if (m_wMode == FILE_MODE_READ) return ERR_LZSSFILE_READONLY;
  BYTE hdr[LZSS_HEADER_SIZE];
  memcpy(hdr, "LZSS", 4);
  PutLE32(hdr + 4, m_dwFileSize);
  PutLE32(hdr + 8, m_dwPageSize);
  PutLE32(hdr + 12, m_dwMaxPages);
  hdr[16] = m_btBitLengths;
  hdr[17] = 0;
  ERR err = m_pMedia->Seek(0, FILE_BEGIN);
  if (!err) err = m_pMedia->Write(hdr, LZSS_HEADER_SIZE, 0);
  if (err) return err;
  BYTE* pRaw = (BYTE*)MEM_ALLOC(4 * m_dwMaxPages);
  if (!pRaw) return ERR_FILE_NOMEM;
  for (DWORD i = 0; i < m_dwMaxPages; i++) PutLE32(pRaw + 4 * i, m_pPageTable ? m_pPageTable[i] : 0);
  err = m_pMedia->Write(pRaw, 4 * m_dwMaxPages, 0);
  MEM_FREE(pRaw);
  return err;
}

ERR CLZSSFile::Create(DWORD dwCachePages, DWORD dwPageSize, DWORD dwMaxPages, BYTE btBitLengths) {
  ClearState();
  m_dwPageSize = dwPageSize;
  m_dwMaxPages = dwMaxPages;
  m_btBitLengths = btBitLengths;
  m_dwDataStart = LZSS_HEADER_SIZE + 4 * dwMaxPages;
  ERR err = SetCachePages(dwCachePages);
  if (err) return err;
  if (m_pPageTable) MEM_FREE(m_pPageTable);
  m_pPageTable = (DWORD*)MEM_ALLOC(4 * dwMaxPages);
  if (!m_pPageTable) return ERR_FILE_NOMEM;
  memset(m_pPageTable, 0, 4 * dwMaxPages);
  return WriteHeader();
}

ERR CLZSSFile::Attach(DWORD dwCachePages) {
  ERR err = ReadHeader();
  if (err) return err;
  m_dwPos = 0;
  m_dwCurPage = 0;
  m_dwPages = 0;
  while (m_dwPages < m_dwMaxPages && m_pPageTable[m_dwPages]) m_dwPages++;
  return SetCachePages(dwCachePages);
}

ERR CLZSSFile::ResizeTable(DWORD dwNewMax) {
  ERR err = CheckWritable();
  if (err) return err;
  if (dwNewMax < m_dwPages) return ERR_LZSSFILE_RANGE;
  if (dwNewMax == m_dwMaxPages) return 0;
  if (dwNewMax > (0xFFFFFFFFu - LZSS_HEADER_SIZE) / 4) return ERR_LZSSFILE_RANGE;
  err = Flush();
  if (err) return err;
  DWORD* pNew = (DWORD*)MEM_ALLOC(4 * dwNewMax);
  if (!pNew) return ERR_FILE_NOMEM;
  memset(pNew, 0, 4 * dwNewMax);
  memcpy(pNew, m_pPageTable, 4 * m_dwPages);
  DWORD dwNewStart = LZSS_HEADER_SIZE + 4 * dwNewMax;
  DWORD dwMedia = m_pMedia->GetSize();
  DWORD dwData = dwMedia > m_dwDataStart ? dwMedia - m_dwDataStart : 0;
  err = m_pMedia->Move(dwNewStart, m_dwDataStart, dwData, LZSS_MOVE_CHUNK, 0);
  if (err) {
    MEM_FREE(pNew);
    return err;
  }
  // Unsigned arithmetic wraps the same way for a table that shrinks.
  DWORD dwShift = dwNewStart - m_dwDataStart;
  for (DWORD i = 0; i < m_dwPages; i++) pNew[i] += dwShift;
  MEM_FREE(m_pPageTable);
  m_pPageTable = pNew;
  m_dwMaxPages = dwNewMax;
  m_dwDataStart = dwNewStart;
  err = m_pMedia->Seek((LONG)(dwNewStart + dwData), FILE_BEGIN);
  if (!err) err = m_pMedia->Truncate();
  if (err) return err;
  return WriteHeader();
}

// ---------------------------------------------------------------------------------------------
// Pages

DWORD CLZSSFile::GetCurPage() { return m_dwCurPage; }

ERR CLZSSFile::SeekPage(LONG lOfs, SHORT wOrigin) {
  int64_t nBase;
  switch (wOrigin) {
    case FILE_BEGIN:
      nBase = 0;
      break;
    case FILE_CURRENT:
      nBase = m_dwCurPage;
      break;
    case FILE_END:
      nBase = m_dwPages;
      break;
    default:
      return ERR_LZSSFILE_BADORIGIN;
  }
  int64_t nNew = nBase + lOfs;
  if (nNew < 0 || nNew > (int64_t)m_dwPages) return ERR_LZSSFILE_PAGESEEK;
  m_dwCurPage = (DWORD)nNew;
  return 0;
}

ERR CLZSSFile::ReadPage(void* pBuf, DWORD* pdwSize) {
  ASSERT(m_pMedia);
  if (!m_pMedia || !m_bValid) return ERR_LZSSFILE_NOTVALID;
  if (m_dwCurPage == m_dwPages) return ERR_LZSSFILE_EOF;
  if (m_dwCurPage > m_dwPages) return ERR_LZSSFILE_RANGE;
  DWORD dwRoom = *pdwSize;
  DWORD dwStart = m_pPageTable[m_dwCurPage];
  DWORD dwMedia = m_pMedia->GetSize();
  DWORD dwEnd = m_dwCurPage + 1 < m_dwPages ? m_pPageTable[m_dwCurPage + 1] : dwMedia;
  DWORD dwWork = WorkSize();
  // A table that points outside the media, backwards, or at a stream no page could make.
  if (dwStart < m_dwDataStart || dwEnd < dwStart || dwEnd > dwMedia || dwEnd - dwStart > dwWork)
    return ERR_FILE_BADFORMAT;
  BYTE* pWork = (BYTE*)MEM_ALLOC(dwWork);
  if (!pWork) return ERR_FILE_NOMEM;
  DWORD dwLen = dwEnd - dwStart, dwRead = 0;
  ERR err = m_pMedia->Seek((LONG)dwStart, FILE_BEGIN);
  if (!err) err = m_pMedia->Read(pWork, dwLen, &dwRead);
  if (!err && dwRead < dwLen) err = ERR_FILE_EOF;
  DWORD dwOut = dwRoom;
  if (!err) err = Decompress(pWork, pBuf, dwLen, &dwOut);
  MEM_FREE(pWork);
  *pdwSize = err ? 0 : (dwLen ? dwOut : 0);
  if (!err) m_dwCurPage++;
  return err;
}

ERR CLZSSFile::WritePage(const void* pBuf, DWORD dwSize) {
  ASSERT(m_pMedia);
  if (!m_pMedia) return ERR_LZSSFILE_NOTVALID;
  ERR err = CheckWritable();
  if (err) return err;
  if (m_dwCurPage > m_dwPages) return ERR_LZSSFILE_RANGE;

  DWORD dwWork = WorkSize();
  BYTE* pWork = (BYTE*)MEM_ALLOC(dwWork);
  if (!pWork) return ERR_FILE_NOMEM;
  DWORD dwLen = dwWork;
  err = Compress(pBuf, pWork, dwSize, &dwLen);
  if (err) {
    MEM_FREE(pWork);
    return err;
  }

  DWORD dwMedia = m_pMedia->GetSize();
  DWORD dwOfs;
  LONG lChange = 0;
  if (m_dwCurPage == m_dwPages) {
    // Appended: after the last stream; nothing moves.
    dwOfs = m_dwPages ? dwMedia : m_dwDataStart;
  } else if (m_pPageTable[m_dwCurPage] < m_dwDataStart) {
    // A page counted but never stored (a cached page past the end): it goes after the streams
    // rather than over the header.
    dwOfs = dwMedia > m_dwDataStart ? dwMedia : m_dwDataStart;
  } else {
    dwOfs = m_pPageTable[m_dwCurPage];
    if (m_dwCurPage + 1 < m_dwPages) {
      DWORD dwNext = m_pPageTable[m_dwCurPage + 1];
      lChange = (LONG)(dwLen - (dwNext - dwOfs));
      if (lChange != 0) {
        // Everything behind the page moves by the change in its length.
        DWORD dwBehind = dwMedia > dwNext ? dwMedia - dwNext : 0;
        err = m_pMedia->Move(dwNext + (DWORD)lChange, dwNext, dwBehind, LZSS_MOVE_CHUNK, 0);
        if (!err && lChange < 0) {
          err = m_pMedia->Seek(lChange, FILE_END);
          if (!err) err = m_pMedia->Truncate();
        }
        if (err) {
          MEM_FREE(pWork);
          return err;
        }
      }
    }
  }
  err = m_pMedia->Seek((LONG)dwOfs, FILE_BEGIN);
  if (!err) err = m_pMedia->Write(pWork, dwLen, 0);
  MEM_FREE(pWork);
  if (err) return err;

  m_pPageTable[m_dwCurPage] = dwOfs;
  for (DWORD i = m_dwCurPage + 1; i < m_dwPages; i++) m_pPageTable[i] += (DWORD)lChange;
  m_dwCurPage++;
  if (m_dwCurPage > m_dwPages) return GrowPages();
  return 0;
}

// One more page in use; a full table grows by a step.
ERR CLZSSFile::GrowPages() {
  m_dwPages++;
  if (m_dwPages >= m_dwMaxPages) return ResizeTable(m_dwMaxPages + LZSS_TABLE_STEP);
  return 0;
}

ERR CLZSSFile::ReadPages(void* pBuf, DWORD dwFirst, DWORD dwCount, DWORD* pdwBytes) {
  BYTE* p = (BYTE*)pBuf;
  DWORD dwTotal = 0;
  ERR err = 0;
  for (DWORD i = 0; i < dwCount; i++) {
    DWORD dwSize = m_dwPageSize;
    err = ReadCached(dwFirst + i, p + (size_t)i * m_dwPageSize, &dwSize);
    if (err) break;
    dwTotal += dwSize;
  }
  if (pdwBytes) *pdwBytes = dwTotal;
  return err;
}

ERR CLZSSFile::WritePages(const void* pBuf, DWORD dwFirst, DWORD dwCount, DWORD* pdwPages) {
  const BYTE* p = (const BYTE*)pBuf;
  DWORD i = 0;
  ERR err = 0;
  for (; i < dwCount; i++) {
    err = WriteCached(dwFirst + i, p + (size_t)i * m_dwPageSize, m_dwPageSize);
    if (err) break;
  }
  if (pdwPages) *pdwPages = i;
  return err;
}

ERR CLZSSFile::Compress(const void* pSrc, void* pDest, DWORD dwSrcLen, DWORD* pdwDestLen) {
  return LZSSCompress((const BYTE*)pSrc, dwSrcLen, (BYTE*)pDest, pdwDestLen, m_btBitLengths, 0);
}

ERR CLZSSFile::Decompress(const void* pSrc, void* pDest, DWORD dwSrcLen, DWORD* pdwDestLen) {
  return LZSSDecompress((const BYTE*)pSrc, dwSrcLen, (BYTE*)pDest, pdwDestLen, m_btBitLengths);
}

// ---------------------------------------------------------------------------------------------
// Cache

ERR CLZSSFile::SetCachePages(DWORD dwPages) {
  if (m_nCacheLocks) return ERR_LZSSFILE_CACHELOCKED;
  ERR err = FlushCache();
  if (err) return err;
  if (dwPages == 0) return FreeCache();
  if ((uint64_t)dwPages * m_dwPageSize > 0x7FFFFFFFu) return ERR_FILE_NOMEM;
  DWORD dwBytes = dwPages * m_dwPageSize;
  if (m_hCache) {
    if (!HANDLE_REALLOC(m_hCache, dwBytes)) return ERR_FILE_NOMEM;
  } else {
    m_hCache = HANDLE_ALLOC(dwBytes);
    if (!m_hCache) return ERR_FILE_NOMEM;
  }
  if (m_pCacheEntries) MEM_FREE(m_pCacheEntries);
  m_pCacheEntries = (TCachePage*)MEM_ALLOC(dwPages * sizeof(TCachePage));
  if (!m_pCacheEntries) {
    FreeCache();
    return ERR_FILE_NOMEM;
  }
  memset(m_pCacheEntries, 0, dwPages * sizeof(TCachePage));
  m_dwCachePages = dwPages;
  return 0;
}

ERR CLZSSFile::FreeCache() {
  while (m_nCacheLocks) UnlockCache();
  if (m_hCache) HANDLE_FREE(m_hCache);
  m_hCache = 0;
  if (m_pCacheEntries) MEM_FREE(m_pCacheEntries);
  m_pCacheEntries = 0;
  m_dwCachePages = 0;
  return 0;
}

ERR CLZSSFile::LockCache() {
  if (m_nCacheLocks == 0) m_pCacheData = m_hCache ? (BYTE*)HANDLE_LOCK(m_hCache) : 0;
  m_nCacheLocks++;
  return m_pCacheData ? 0 : ERR_LZSSFILE_CACHELOCK;
}

ERR CLZSSFile::UnlockCache() {
  if (m_nCacheLocks == 0) return 0;
  if (--m_nCacheLocks == 0) {
    if (m_pCacheData) HANDLE_UNLOCK(m_hCache);
    m_pCacheData = 0;
  }
  return 0;
}

BYTE* CLZSSFile::GetCacheSlot(DWORD dwSlot) {
  if (!m_pCacheData || dwSlot >= m_dwCachePages) return 0;
  return m_pCacheData + (size_t)dwSlot * m_dwPageSize;
}

ERR CLZSSFile::FlushCachePage(DWORD dwSlot) {
  if (m_wMode == FILE_MODE_READ) return ERR_LZSSFILE_READONLY;
  if (dwSlot >= m_dwCachePages) return ERR_LZSSFILE_RANGE;
  TCachePage* pEntry = &m_pCacheEntries[dwSlot];
  if (pEntry->btState != LZSS_CACHE_DIRTY) return 0;
  ERR err = LockCache();
  if (!err) err = SeekPage((LONG)pEntry->dwPage, FILE_BEGIN);
  if (!err) err = WritePage(GetCacheSlot(dwSlot), pEntry->dwSize);
  // The table may have grown meanwhile and the entries with it; look the slot up again.
  if (!err && dwSlot < m_dwCachePages) m_pCacheEntries[dwSlot].btState = LZSS_CACHE_VALID;
  UnlockCache();
  return err;
}

ERR CLZSSFile::FlushCache() {
  for (DWORD i = 0; i < m_dwCachePages; i++) {
    ERR err = FlushCachePage(i);
    if (err) return err;
  }
  return 0;
}

// The walk shared by both cache directions. A valid slot holding dwPage is a hit (with
// bSkipInvalidHit a slot holding dwPage but not valid is passed over). Otherwise the victim is
// the first empty slot, or else the one with the fewest hits; slots passed on the way age by a
// tenth plus one.
DWORD CLZSSFile::WalkCache(DWORD dwPage, BOOL bSkipInvalidHit, DWORD* pdwVictim) {
  DWORD dwCand = 0;
  for (DWORD i = 0; i < m_dwCachePages; i++) {
    TCachePage* e = &m_pCacheEntries[i];
    if (e->dwPage == dwPage) {
      if (e->btState & LZSS_CACHE_VALID) return i;
      if (bSkipInvalidHit) continue;
    }
    TCachePage* c = &m_pCacheEntries[dwCand];
    if ((c->btState & LZSS_CACHE_VALID) && (!(e->btState & LZSS_CACHE_VALID) || e->wHits < c->wHits))
      dwCand = i;
    if ((e->btState & LZSS_CACHE_VALID) && e->wHits > 1) e->wHits -= e->wHits / 10 + 1;
  }
  *pdwVictim = dwCand;
  return LZ_CACHE_MISS;
}

ERR CLZSSFile::ReadCached(DWORD dwPage, void* pBuf, DWORD* pdwSize) {
  if (dwPage > 0x7FFFFFFFu) return ERR_LZSSFILE_PAGESEEK;
  ERR err = SeekPage((LONG)dwPage, FILE_BEGIN);
  if (err) return err;
  if (!m_dwCachePages) return ReadPage(pBuf, pdwSize);
  if (m_dwCurPage == m_dwPages) return ERR_LZSSFILE_EOF;
  if (m_dwCurPage > m_dwPages) return ERR_LZSSFILE_RANGE;
  err = LockCache();
  if (err) {
    UnlockCache();
    return err;
  }
  DWORD dwRoom = *pdwSize;
  DWORD dwVictim = 0;
  DWORD dwHit = WalkCache(dwPage, TRUE, &dwVictim);
  if (dwHit != LZ_CACHE_MISS) {
    TCachePage* e = &m_pCacheEntries[dwHit];
    DWORD n = e->dwSize < dwRoom ? e->dwSize : dwRoom;
    memcpy(pBuf, GetCacheSlot(dwHit), n);
    *pdwSize = n;
    if (e->wHits != 0xFFFF) e->wHits++;
    m_dwCurPage++;
    UnlockCache();
    return 0;
  }
  err = FlushCachePage(dwVictim);
  if (err == 0 || err == ERR_LZSSFILE_READONLY) {
    err = SeekPage((LONG)dwPage, FILE_BEGIN);
    DWORD dwSize = m_dwPageSize;
    if (!err) err = ReadPage(GetCacheSlot(dwVictim), &dwSize);
    if (err) dwSize = 0;
    TCachePage* e = &m_pCacheEntries[dwVictim];
    DWORD n = dwSize < dwRoom ? dwSize : dwRoom;
    memcpy(pBuf, GetCacheSlot(dwVictim), n);
    *pdwSize = n;
    e->dwPage = dwPage;
    e->dwSize = dwSize;
    e->wHits = 1;
    e->btState = err ? LZSS_CACHE_FAILED : LZSS_CACHE_VALID;
  }
  UnlockCache();
  return err;
}

ERR CLZSSFile::WriteCached(DWORD dwPage, const void* pBuf, DWORD dwSize) {
  if (dwPage > 0x7FFFFFFFu) return ERR_LZSSFILE_PAGESEEK;
  ERR err = SeekPage((LONG)dwPage, FILE_BEGIN);
  if (err) return err;
  if (!m_dwCachePages) return WritePage(pBuf, dwSize);
  err = CheckWritable();
  if (err) return err;
  if (m_dwCurPage > m_dwPages) return ERR_LZSSFILE_RANGE;
  // A slot holds one page at most.
  if (dwSize > m_dwPageSize) dwSize = m_dwPageSize;
  err = LockCache();
  if (err) {
    UnlockCache();
    return err;
  }
  DWORD dwVictim = 0;
  DWORD dwHit = WalkCache(dwPage, FALSE, &dwVictim);
  if (dwHit != LZ_CACHE_MISS) {
    TCachePage* e = &m_pCacheEntries[dwHit];
    memcpy(GetCacheSlot(dwHit), pBuf, dwSize);
    e->dwSize = dwSize;
    e->btState = LZSS_CACHE_DIRTY;
    BOOL bAtEnd = m_dwCurPage == m_dwPages;
    m_dwCurPage++;
    if (bAtEnd) err = GrowPages();
    UnlockCache();
    return err;
  }
  err = FlushCachePage(dwVictim);
  if (err == 0 || err == ERR_LZSSFILE_READONLY) {
    TCachePage* e = &m_pCacheEntries[dwVictim];
    memcpy(GetCacheSlot(dwVictim), pBuf, dwSize);
    e->dwPage = dwPage;
    e->dwSize = dwSize;
    e->btState = LZSS_CACHE_DIRTY;
    e->wHits = 1;
    if (dwPage == m_dwPages) {
      // A new page goes to the media at once, so the table knows it.
      err = SeekPage((LONG)dwPage, FILE_BEGIN);
      if (!err) err = WritePage(GetCacheSlot(dwVictim), dwSize);
    } else {
      m_dwCurPage = dwPage + 1;
      err = 0;
    }
  }
  UnlockCache();
  return err;
}

// ---------------------------------------------------------------------------------------------
// Logical access

ERR CLZSSFile::Seek(LONG lOfs, SHORT wOrigin) {
  if (!m_bValid) return ERR_LZSSFILE_NOTVALID;
  int64_t nBase;
  switch (wOrigin) {
    case FILE_BEGIN:
      nBase = 0;
      break;
    case FILE_CURRENT:
      nBase = m_dwPos;
      break;
    case FILE_END:
      nBase = m_dwFileSize;
      break;
    default:
      return ERR_LZSSFILE_BADORIGIN;
  }
  int64_t nNew = nBase + lOfs;
  if (nNew < 0) return ERR_LZSSFILE_SEEKNEG;
  if (nNew > 0xFFFFFFFFll) return ERR_LZSSFILE_RANGE;
  m_dwPos = (DWORD)nNew;
  return 0;
}

DWORD CLZSSFile::GetSize() { return m_dwFileSize; }
DWORD CLZSSFile::GetPos() { return m_dwPos; }

ERR CLZSSFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  ASSERT(m_pMedia);
  ASSERT(pBuf);
  if (pdwRead) *pdwRead = 0;
  if (!m_bValid || !pBuf) return ERR_LZSSFILE_NOTVALID;
  if (dwCount == 0) return 0;
  if (m_dwPos > m_dwFileSize) return ERR_LZSSFILE_RANGE;
  if (m_dwPos == m_dwFileSize) return ERR_LZSSFILE_EOF;

  BYTE* pOut = (BYTE*)pBuf;
  const DWORD P = m_dwPageSize;
  DWORD dwPage = m_dwPos / P;
  DWORD dwHead = m_dwPos % P;
  DWORD dwWhole = (uint64_t)dwHead + dwCount < P ? 0 : (dwCount - (dwHead ? P - dwHead : 0)) / P;
  DWORD dwTail = (DWORD)(((uint64_t)dwHead + dwCount) % P);
  DWORD dwDone = 0;
  ERR err = 0;
  BYTE* pPage = 0;
  DWORD dwPageRoom = P + P / 10;
  if (dwHead || dwTail) {
    pPage = (BYTE*)MEM_ALLOC(dwPageRoom);
    if (!pPage) return ERR_FILE_NOMEM;
  }

  if (dwHead) {
    DWORD dwSize = dwPageRoom;
    err = ReadCached(dwPage, pPage, &dwSize);
    DWORD n = 0;
    if (!err && dwSize > dwHead) {
      n = dwSize - dwHead;
      if (n > dwCount) n = dwCount;
      memcpy(pOut, pPage + dwHead, n);
    }
    dwDone = n;
    m_dwPos += n;
    if (err || (uint64_t)dwHead + dwCount <= P || dwSize < P) {
      if (pdwRead) *pdwRead = dwDone;
      MEM_FREE(pPage);
      return err;
    }
    dwPage++;
  }

  BOOL bWholeFull = TRUE;
  if (dwWhole) {
    DWORD dwBytes = 0;
    err = ReadPages(pOut + dwDone, dwPage, dwWhole, &dwBytes);
    dwDone += dwBytes;
    m_dwPos += dwBytes;
    if (err) {
      // The position has moved over the pages that came in, but the caller's count stays as
      // cleared: only the partial first page and the end of the read store it.
      if (pPage) MEM_FREE(pPage);
      return err;
    }
    bWholeFull = dwBytes == dwWhole * P;
    dwPage += dwWhole;
  }

  if (dwDone < dwCount && bWholeFull && dwTail) {
    DWORD dwSize = dwPageRoom;
    err = ReadCached(dwPage, pPage, &dwSize);
    DWORD n = 0;
    if (!err) {
      n = dwSize < dwTail ? dwSize : dwTail;
      if (n > dwCount - dwDone) n = dwCount - dwDone;
      memcpy(pOut + dwDone, pPage, n);
    }
    dwDone += n;
    m_dwPos += n;
  }

  if (pdwRead) *pdwRead = dwDone;
  if (pPage) MEM_FREE(pPage);
  if (err) return err;
  return dwDone == dwCount ? 0 : ERR_LZSSFILE_SHORTREAD;
}

ERR CLZSSFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) {
  ASSERT(m_pMedia);
  ASSERT(pBuf);
  ASSERT(dwCount);
  if (pdwWritten) *pdwWritten = 0;
  if (!m_bValid || !pBuf) return ERR_LZSSFILE_NOTVALID;
  if (dwCount == 0) return 0;
  if (m_wMode == FILE_MODE_READ) return ERR_LZSSFILE_READONLY;
  if (m_dwPos > m_dwFileSize) return ERR_LZSSFILE_RANGE;

  const BYTE* pIn = (const BYTE*)pBuf;
  const DWORD P = m_dwPageSize;
  DWORD dwPage = m_dwPos / P;
  DWORD dwHead = m_dwPos % P;
  DWORD dwWhole = (uint64_t)dwHead + dwCount < P ? 0 : (dwCount - (dwHead ? P - dwHead : 0)) / P;
  DWORD dwTail = (DWORD)(((uint64_t)dwHead + dwCount) % P);
  DWORD dwDone = 0;
  // The count the last step returned: a page's length after a partial page, the number of
  // pages after whole pages. The tail is written only when it equals the whole pages asked for.
  DWORD dwLastCount = 0;
  ERR err = 0;
  BYTE* pPage = 0;
  DWORD dwPageRoom = P + P / 10;
  if (dwHead || dwTail) {
    pPage = (BYTE*)MEM_ALLOC(dwPageRoom);
    if (!pPage) return ERR_FILE_NOMEM;
    memset(pPage, 0, dwPageRoom);
  }

  if (dwHead) {
    DWORD dwSize = dwPageRoom;
    err = ReadCached(dwPage, pPage, &dwSize);
    if (err == ERR_LZSSFILE_EOF) {
      dwSize = 0;
      err = 0;
    }
    if (!err && dwSize + 1 < dwHead) err = ERR_LZSSFILE_RANGE;
    if (err) {
      MEM_FREE(pPage);
      return err;
    }
    dwLastCount = dwSize;
    DWORD n = P - dwHead;
    if (n > dwCount) n = dwCount;
    memcpy(pPage + dwHead, pIn, n);
    DWORD dwNewSize = dwHead + n > dwSize ? dwHead + n : dwSize;
    err = WriteCached(dwPage, pPage, dwNewSize);
    if (err) {
      MEM_FREE(pPage);
      return err;
    }
    dwDone = n;
    m_dwPos += n;
    m_bDirty = 1;
    dwPage++;
  }

  if (dwWhole) {
    DWORD dwPages = 0;
    err = WritePages(pIn + dwDone, dwPage, dwWhole, &dwPages);
    if (dwPages) m_bDirty = 1;
    dwDone += dwPages * P;
    m_dwPos += dwPages * P;
    if (m_dwPos > m_dwFileSize) m_dwFileSize = m_dwPos;
    dwLastCount = dwPages;
    if (err) {
      // As in Read: position and size have moved over the pages written, the caller's count
      // stays as cleared.
      if (pPage) MEM_FREE(pPage);
      return err;
    }
    dwPage += dwPages;
  }

  if (dwDone < dwCount && dwLastCount == dwWhole && dwTail) {
    DWORD dwSize = dwPageRoom;
    memset(pPage, 0, dwPageRoom);
    err = ReadCached(dwPage, pPage, &dwSize);
    if (err == ERR_LZSSFILE_EOF) {
      dwSize = 0;
      err = 0;
    }
    if (!err) {
      memcpy(pPage, pIn + dwDone, dwTail);
      err = WriteCached(dwPage, pPage, dwSize > dwTail ? dwSize : dwTail);
    }
    if (!err) {
      dwDone += dwTail;
      m_dwPos += dwTail;
      if (m_dwPos > m_dwFileSize) m_dwFileSize = m_dwPos;
      m_bDirty = 1;
    }
  }

  if (pdwWritten) *pdwWritten = dwDone;
  if (pPage) MEM_FREE(pPage);
  if (err) return err;
  return dwDone == dwCount ? 0 : ERR_LZSSFILE_SHORTWRITE;
}

ERR CLZSSFile::Flush() {
  ERR err = CheckWritable();
  if (err) return err;
  if (m_dwCachePages) {
    err = FlushCache();
    if (err) return err;
  }
  err = WriteHeader();
  if (!err) err = m_pMedia->Flush();
  m_bDirty = 0;
  return err;
}

ERR CLZSSFile::Truncate() {
  ERR err = CheckWritable();
  if (err) return err;
  if (m_dwPos == m_dwFileSize) return 0;
  if (m_dwCachePages) {
    err = FlushCache();
    if (err) return err;
  }
  const DWORD P = m_dwPageSize;

  if (m_dwPos > m_dwFileSize) {
    // A gap: filled with zeros written from the end, a page at a time.
    DWORD dwTarget = m_dwPos;
    BYTE* pZero = (BYTE*)MEM_ALLOC(P);
    if (!pZero) return ERR_FILE_NOMEM;
    memset(pZero, 0, P);
    m_dwPos = m_dwFileSize;
    while (m_dwPos < dwTarget) {
      DWORD n = dwTarget - m_dwPos < P ? dwTarget - m_dwPos : P;
      DWORD dwWritten = 0;
      err = Write(pZero, n, &dwWritten);
      if (err && err != ERR_LZSSFILE_SHORTWRITE) break;
      if (dwWritten == 0) break;
      err = 0;
    }
    MEM_FREE(pZero);
    return err;
  }

  if (m_dwPos == 0) {
    // The arguments stand where they are on purpose: the page size arrives as the slot count
    // and the table size as the page size, so an emptied file has pages of 128 bytes.
    err = Create(m_dwPageSize, m_dwMaxPages, LZSS_TABLE_STEP, LZSS_BITLENGTHS_DEFAULT);
    if (err) return err;
    err = m_pMedia->Seek((LONG)m_dwDataStart, FILE_BEGIN);
    if (!err) err = m_pMedia->Truncate();
    return err;
  }

  DWORD dwLast = (m_dwPos - 1) / P;
  DWORD n = (m_dwPos - 1) % P;
  BYTE* pPage = (BYTE*)MEM_ALLOC(P + P / 10);
  if (!pPage) return ERR_FILE_NOMEM;
  memset(pPage, 0, P + P / 10);
  DWORD dwSize = P + P / 10;
  err = ReadCached(dwLast, pPage, &dwSize);
  if (!err) err = SeekPage((LONG)dwLast, FILE_BEGIN);
  // One byte fewer than the position asks for is what goes back.
  if (!err) err = WritePage(pPage, n);
  MEM_FREE(pPage);
  if (err) return err;
  m_dwFileSize = m_dwPos;
  m_dwCurPage = m_dwPages = dwLast + 1;
  for (DWORD i = m_dwPages; i < m_dwMaxPages; i++) m_pPageTable[i] = 0;
  // The media ends at the stream's offset plus a logical count.
  err = m_pMedia->Seek((LONG)(m_pPageTable[dwLast] + n), FILE_BEGIN);
  if (!err) err = m_pMedia->Truncate();
  if (!err) err = Flush();
  return err;
}

// ---------------------------------------------------------------------------------------------
// The volume

CFile* CLZSSFS::Open(const char* pchPath, WORD wMode, ERR* pErr) {
  CFile* pFile = g_pfnFileOpen(pchPath, wMode, pErr);
  if (!pFile) return 0;
  if (pErr && *pErr) {
    delete pFile;
    return 0;
  }
  CLZSSFile* pLZ = new CLZSSFile(pFile, 1, wMode, pErr, 0, LZSS_DEFAULT_PAGESIZE, LZSS_DEFAULT_MAXPAGES,
                                 LZSS_BITLENGTHS_DEFAULT);
  if (!pLZ) {
    pFile->Seek(0, FILE_BEGIN);
    return pFile;
  }
  if (!pLZ->IsValid()) {
    pLZ->SetOwnMedia(0);
    delete pLZ;
    pFile->Seek(0, FILE_BEGIN);
    return pFile;
  }
  return pLZ;
}

static CLZSSFS* s_pLZSSFS;

ERR LZSSFSInit() {
  if (s_pLZSSFS) return 0;
  s_pLZSSFS = new CLZSSFS;
  if (!s_pLZSSFS) return ERR_FILE_NOMEM;
  ERR err = FSAdd("LZSS:", s_pLZSSFS, 0);
  if (err) {
    delete s_pLZSSFS;
    s_pLZSSFS = 0;
  }
  return err;
}

ERR LZSSFSDone() {
  CFS* pVol = FSRemove("LZSS:");
  if (pVol) delete pVol;
  s_pLZSSFS = 0;
  return 0;
}
