// Word dictionary: a sorted list of words with fixed-size user data, kept in one front-coded byte
// stream (the directory format of pack files), with an optional sparse index for fast lookup.
#include "base/diction.h"

#include <string.h>

IMPLEMENT_CLASS(CDictionary, 0x4000501, CObject)

namespace {

// The key being looked up and the entry being added, both in entry form: length, prefix,
// characters, then (for the entry) user data.
BYTE s_abKey[256];
BYTE s_abAdd[256];

// Size of a live handle's block, or 0 for a number that isn't one.
DWORD HandleBlockSize(DWORD h) {
  if (!h || h > g_dwHandleInfoCount || !g_pHandleInfo[h - 1].dwSysBlock) return 0;
  return g_pHandleInfo[h - 1].dwSize;
}

// Characters shared at the start of a and b.
DWORD Shared(const BYTE* a, DWORD dwLenA, const BYTE* b, DWORD dwLenB) {
  DWORD n = dwLenA < dwLenB ? dwLenA : dwLenB;
  DWORD i = 0;
  while (i < n && a[i] == b[i]) i++;
  return i;
}

// The characters an entry can take from the word before it. Only a damaged stream, or one left by
// Remove's shortcut (see the header), claims more than that word has: the claim is cut to its
// length, so an expanded word never reads stale or foreign characters.
DWORD ClampPrefix(BYTE btPrefix, DWORD dwPrevLen) { return btPrefix < dwPrevLen ? btPrefix : dwPrevLen; }

// Order of a against b by unsigned bytes over the shorter length, then by length; dwShared is
// what Shared gave for them.
int CompareAt(const BYTE* a, DWORD dwLenA, const BYTE* b, DWORD dwLenB, DWORD dwShared) {
  if (dwShared < dwLenA && dwShared < dwLenB) return a[dwShared] < b[dwShared] ? -1 : 1;
  return dwLenA < dwLenB ? -1 : dwLenA > dwLenB ? 1 : 0;
}

}  // namespace

CDictionary::CDictionary(WORD wSzUserData, BYTE btArrItemSize, DWORD hData, DWORD dwDataSize, DWORD dwWords,
                         DWORD hIndex, DWORD dwIndexSize, WORD wIndexStep)
    : m_hData(hData),
      m_dwWords(dwWords),
      m_dwAlloced(dwDataSize),
      m_dwUsed(dwDataSize),
      wSzUserData(wSzUserData),
      btArrItemSize(btArrItemSize),
      m_bOwnData(1),
      m_hIndex(0),
      wIndexStep(wIndexStep),
      m_dwIndexCount(0),
      m_dwIndexLoaded(0),
      m_pData(0),
      m_dwRefCount(0) {
  ASSERT(btArrItemSize == 1 || btArrItemSize == 2 || btArrItemSize == 4);
  ASSERT_TEXT(btArrItemSize && wSzUserData % btArrItemSize == 0, "wSzUserData % btArrItemSize == 0");
  if (!hData) {
    m_dwAlloced = m_dwUsed = 0;
    m_dwWords = 0;
  } else {
    // The stream can't claim more than its block holds.
    DWORD dwReal = HandleBlockSize(hData);
    if (dwReal < m_dwAlloced) m_dwAlloced = m_dwUsed = dwReal;
    if (!m_dwWords) m_dwWords = CountWords();
  }
  if (hIndex) LoadIndex(hIndex, dwIndexSize);
  // A step of 0 is refused there with an assertion; the words stay unindexed.
  if (!m_dwIndexCount && hData) BuildIndex(wIndexStep);
}

CDictionary::~CDictionary() {
  FreeIndex();
  // A handle number left by the shrink in Remove may not be this dictionary's block any more.
  if (m_bOwnData && m_hData && HandleBlockSize(m_hData) >= m_dwAlloced) HANDLE_FREE(m_hData);
}

BYTE* CDictionary::LockData() {
  if (!m_dwRefCount) {
    m_pData = 0;
    if (m_hData && HandleBlockSize(m_hData) >= m_dwAlloced)
      m_pData = static_cast<BYTE*>(HANDLE_LOCK(m_hData));
  }
  ASSERT(m_pData);
  if (!m_pData) return 0;
  m_dwRefCount++;
  return m_pData;
}

void CDictionary::UnlockData() {
  ASSERT(m_dwRefCount);
  if (!m_dwRefCount) return;
  if (--m_dwRefCount == 0) {
    HANDLE_UNLOCK(m_hData);
    m_pData = 0;
  }
}

// Reads the header of the entry at dwOfs, with the data locked. 0 when no whole entry is there:
// the stream ends at the first one that doesn't fit.
BOOL CDictionary::ParseEntry(DWORD dwOfs, TEntry* pEntry) {
  if (!m_pData || dwOfs >= m_dwUsed || m_dwUsed - dwOfs < 2) return 0;
  BYTE btLen = m_pData[dwOfs];
  BYTE btPrefix = m_pData[dwOfs + 1];
  if (!btLen || btLen > DICT_MAX_WORD || btPrefix > btLen) return 0;
  DWORD dwSize = 2u + (DWORD)(btLen - btPrefix) + wSzUserData;
  if (dwSize > m_dwUsed - dwOfs) return 0;
  pEntry->dwOfs = dwOfs;
  pEntry->btLen = btLen;
  pEntry->btPrefix = btPrefix;
  pEntry->pSuffix = m_pData + dwOfs + 2;
  pEntry->dwNext = dwOfs + dwSize;
  return 1;
}

// Copies up to 255 bytes of the entry at dwOfs into pBuf. *pdwNext is the following entry, or
// dwOfs itself for the last one. 0 past the end, for an entry of length 0, or one that doesn't fit.
BOOL CDictionary::ReadEntry(DWORD dwOfs, BYTE* pBuf, DWORD* pdwNext) {
  if (!m_hData || dwOfs >= m_dwUsed) return 0;
  BYTE* pDictData = LockData();
  ASSERT(pDictData);
  if (!pDictData) return 0;
  DWORD dwCopy = m_dwUsed - dwOfs < 255 ? m_dwUsed - dwOfs : 255;
  memcpy(pBuf, pDictData + dwOfs, dwCopy);
  const BYTE* pcNewWord = pBuf;
  ASSERT(pcNewWord[0]);
  TEntry e;
  BOOL bOk = pcNewWord[0] && ParseEntry(dwOfs, &e);
  UnlockData();
  if (!bOk) return 0;
  *pdwNext = e.dwNext < m_dwUsed ? e.dwNext : dwOfs;
  return 1;
}

// Turns an entry read by ReadEntry into its full word: the suffix moves up by btPrefix and the
// first btPrefix characters of pchPrev (dwPrevLen long) go in front. A prefix longer than the
// previous word is cut to its length, and the suffix follows straight on. Returns the length.
DWORD CDictionary::Expand(BYTE* pEntry, const BYTE* pchPrev, DWORD dwPrevLen) {
  DWORD dwPrefix = ClampPrefix(pEntry[1], dwPrevLen);
  DWORD dwSuffix = (DWORD)(pEntry[0] - pEntry[1]);
  memmove(pEntry + 2 + dwPrefix, pEntry + 2, dwSuffix);
  memcpy(pEntry + 2, pchPrev, dwPrefix);
  return dwPrefix + dwSuffix;
}

// Rebuilds the word of a parsed entry in place over the previous word, which fills pchWord for
// dwPrevLen characters. The buffer needs DICT_MAX_WORD bytes. Returns the new word's length.
DWORD CDictionary::ExpandOver(char* pchWord, DWORD dwPrevLen, const TEntry* pEntry) {
  DWORD dwPrefix = ClampPrefix(pEntry->btPrefix, dwPrevLen);
  DWORD dwSuffix = (DWORD)(pEntry->btLen - pEntry->btPrefix);
  memcpy(pchWord + dwPrefix, pEntry->pSuffix, dwSuffix);
  return dwPrefix + dwSuffix;
}

DWORD CDictionary::CountWords() {
  if (!m_dwUsed || !LockData()) return 0;
  DWORD n = 0;
  TEntry e;
  for (DWORD dwOfs = 0; ParseEntry(dwOfs, &e); dwOfs = e.dwNext) n++;
  UnlockData();
  return n;
}

// Binary search on the index for the last indexed word not above the key (entry 0 when all are
// above it). Gives its offset, its text (DICT_WORD_BUF bytes) and its entry number.
BOOL CDictionary::IndexFind(const BYTE* pKey, DWORD dwKeyLen, DWORD* pdwOfs, char* pchWord, DWORD* pdwIndex) {
  if (!m_hIndex || !m_dwIndexCount) return 0;
  TDictIndex* pIndex = static_cast<TDictIndex*>(HANDLE_LOCK(m_hIndex));
  if (!pIndex) return 0;
  DWORD dwLow = 0, dwHigh = m_dwIndexCount;
  while (dwHigh - dwLow > 1) {
    DWORD dwMid = (dwLow + dwHigh) / 2;
    const BYTE* pWord = reinterpret_cast<const BYTE*>(pIndex[dwMid].pchWord);
    DWORD dwLen = (DWORD)strlen(pIndex[dwMid].pchWord);
    int nCmp = CompareAt(pKey, dwKeyLen, pWord, dwLen, Shared(pKey, dwKeyLen, pWord, dwLen));
    if (nCmp == 0) {
      dwLow = dwMid;
      dwHigh = dwMid + 1;
    } else if (nCmp < 0) {
      dwHigh = dwMid;
    } else {
      dwLow = dwMid;
    }
  }
  *pdwOfs = pIndex[dwLow].dwOffset;
  strcpy(pchWord, pIndex[dwLow].pchWord);
  *pdwIndex = dwLow;
  HANDLE_UNLOCK(m_hIndex);
  return 1;
}

// The sequential scan. p counts the key's characters known to equal the word before the current
// entry, so only an entry whose btPrefix equals p needs its characters compared: a smaller
// btPrefix means the entry already sorts after the key, a larger one that it still sorts before.
// Result: 1 for an exact match at *pdwOfs; otherwise *pdwOfs is where the key would go.
// With bInsert the index is dropped, the entry at the place found is recompressed against the
// key, the key is front-coded against its new predecessor, and the result says whether the
// place lies inside the stream.
BOOL CDictionary::Search(BYTE* pKey, DWORD* pdwOfs, BOOL bInsert, DWORD* pdwIndex) {
  *pdwOfs = 0;
  if (pdwIndex) *pdwIndex = 0;
  if (!m_dwUsed) return 0;
  if (bInsert) FreeIndex();
  if (!LockData()) return 0;
  const BYTE* pk = pKey + 2;
  DWORD dwKeyLen = pKey[0];
  DWORD dwOfs = 0, dwPos = 0, p = 0;
  BOOL bFound = 0, bDone = 0;
  char szWord[256];
  DWORD dwEntry;
  if (IndexFind(pk, dwKeyLen, &dwOfs, szWord, &dwEntry)) {
    dwPos = dwEntry * wIndexStep;
    DWORD dwLen = (DWORD)strlen(szWord);
    DWORD m = Shared(pk, dwKeyLen, reinterpret_cast<BYTE*>(szWord), dwLen);
    int nCmp = CompareAt(pk, dwKeyLen, reinterpret_cast<BYTE*>(szWord), dwLen, m);
    if (nCmp <= 0) {
      // Equal, or below every indexed word: this is the place.
      bFound = nCmp == 0;
      bDone = 1;
    } else {
      TEntry e;
      p = m;
      if (ParseEntry(dwOfs, &e)) {
        dwOfs = e.dwNext;
        dwPos++;
      } else {
        bDone = 1;
      }
    }
  }
  while (!bDone) {
    TEntry e;
    if (!ParseEntry(dwOfs, &e)) break;  // the end of the stream
    if (e.btPrefix < p) break;          // passed the key's place
    if (e.btPrefix == p) {
      DWORD dwSufLen = (DWORD)(e.btLen - e.btPrefix);
      DWORD m = Shared(pk + p, dwKeyLen - p, e.pSuffix, dwSufLen);
      int nCmp = CompareAt(pk + p, dwKeyLen - p, e.pSuffix, dwSufLen, m);
      if (nCmp == 0) {
        bFound = 1;
        break;
      }
      if (nCmp < 0) break;
      p += m;
    }
    dwOfs = e.dwNext;
    dwPos++;
  }
  UnlockData();
  *pdwOfs = dwOfs;
  if (pdwIndex) *pdwIndex = dwPos;
  if (!bInsert) return bFound;
  BOOL bInside = dwOfs < m_dwUsed;
  if (bInside) Recompress(pKey, dwOfs);
  if (p && dwOfs) {
    pKey[1] = (BYTE)p;
    memmove(pKey + 2, pKey + 2 + p, (size_t)(dwKeyLen - p) + wSzUserData);
  }
  return bInside;
}

// The entry at dwOfs now follows the key instead of its old predecessor: every further leading
// character it shares with the key leaves its suffix and joins its prefix.
void CDictionary::Recompress(const BYTE* pKey, DWORD dwOfs) {
  if (!LockData()) return;
  TEntry e;
  if (ParseEntry(dwOfs, &e)) {
    DWORD dwKeyLen = pKey[0];
    DWORD dwSufLen = (DWORD)(e.btLen - e.btPrefix);
    DWORD n = 0;
    while (n < dwSufLen && e.btPrefix + n < dwKeyLen && e.pSuffix[n] == pKey[2 + e.btPrefix + n]) n++;
    if (n) {
      memmove(m_pData + dwOfs + 2, m_pData + dwOfs + 2 + n, m_dwUsed - (dwOfs + 2 + n));
      m_pData[dwOfs + 1] = (BYTE)(e.btPrefix + n);
      m_dwUsed -= n;
    }
  }
  UnlockData();
}

// Puts pchWord into the key buffer. 0 for a null, empty or too long word.
BOOL CDictionary::MakeKey(const char* pchWord) {
  if (!pchWord) return 0;
  size_t n = strlen(pchWord);
  if (!n || n > DICT_MAX_WORD) return 0;
  s_abKey[0] = (BYTE)n;
  s_abKey[1] = 0;
  memcpy(s_abKey + 2, pchWord, n);
  return 1;
}

BOOL CDictionary::GetData(const char* pchWord, void* pData) {
  ASSERT(pData);
  if (!pData || !m_dwUsed || !MakeKey(pchWord)) return 0;
  DWORD dwOfs;
  if (!Search(s_abKey, &dwOfs, 0, 0)) return 0;
  if (!LockData()) return 0;
  TEntry e;
  BOOL bOk = ParseEntry(dwOfs, &e);
  if (bOk) memcpy(pData, e.pSuffix + (e.btLen - e.btPrefix), wSzUserData);
  UnlockData();
  return bOk;
}

BOOL CDictionary::SetData(const char* pchWord, const void* pData) {
  ASSERT(pData);
  if (!pData || !m_dwUsed || !MakeKey(pchWord)) return 0;
  DWORD dwOfs;
  if (!Search(s_abKey, &dwOfs, 0, 0)) return 0;
  if (!LockData()) return 0;
  TEntry e;
  BOOL bOk = ParseEntry(dwOfs, &e);
  if (bOk) memcpy(m_pData + dwOfs + 2 + (e.btLen - e.btPrefix), pData, wSzUserData);
  UnlockData();
  return bOk;
}

BOOL CDictionary::GetWord(DWORD dwIndex, char* pchOut) {
  if (!pchOut || dwIndex >= m_dwWords || !m_dwUsed) return 0;
  char szWord[256];
  memset(szWord, 0, sizeof(szWord));
  DWORD dwOfs = 0, dwPos = 0, dwLen = 0;
  BOOL bIndexed = 0;
  if (m_hIndex && m_dwIndexCount && wIndexStep) {
    DWORD dwEntry = dwIndex / wIndexStep;
    if (dwEntry >= m_dwIndexCount) dwEntry = m_dwIndexCount - 1;
    TDictIndex* pIndex = static_cast<TDictIndex*>(HANDLE_LOCK(m_hIndex));
    if (!pIndex) return 0;
    dwOfs = pIndex[dwEntry].dwOffset;
    strcpy(szWord, pIndex[dwEntry].pchWord);
    dwLen = (DWORD)strlen(szWord);
    HANDLE_UNLOCK(m_hIndex);
    dwPos = dwEntry * wIndexStep;
    bIndexed = 1;
  }
  if (!LockData()) return 0;
  BOOL bOk = 0;
  TEntry e;
  while (ParseEntry(dwOfs, &e)) {
    // The index holds the first entry's whole word: expanding that entry again over its own word
    // would not give it back where its prefix had to be cut.
    if (!bIndexed) dwLen = ExpandOver(szWord, dwLen, &e);
    bIndexed = 0;
    if (dwPos == dwIndex) {
      szWord[dwLen] = 0;
      bOk = 1;
      break;
    }
    dwOfs = e.dwNext;
    dwPos++;
  }
  UnlockData();
  if (bOk) strcpy(pchOut, szWord);
  return bOk;
}

BOOL CDictionary::GetNext(const char* pchWord, char* pchOut) {
  if (!pchOut) return 0;
  if (!pchWord) return GetWord(0, pchOut);
  if (!m_dwUsed || !MakeKey(pchWord)) return 0;
  DWORD dwOfs;
  if (!Search(s_abKey, &dwOfs, 0, 0)) return 0;
  BYTE abEntry[256];
  DWORD dwNext;
  if (!ReadEntry(dwOfs, abEntry, &dwNext) || dwNext == dwOfs) return 0;
  if (!ReadEntry(dwNext, abEntry, &dwNext)) return 0;
  // The stored word is the key itself, so it supplies the shared characters.
  DWORD dwLen = Expand(abEntry, s_abKey + 2, s_abKey[0]);
  memcpy(pchOut, abEntry + 2, dwLen);
  pchOut[dwLen] = 0;
  return 1;
}

BOOL CDictionary::Find(const char* pchWord, DWORD* pdwIndex) {
  if (!pchWord || !m_dwUsed) return 0;
  size_t nKey = strlen(pchWord);
  if (nKey > DICT_MAX_WORD) return 0;
  const BYTE* pk = reinterpret_cast<const BYTE*>(pchWord);
  DWORD dwKeyLen = (DWORD)nKey;
  if (!LockData()) return 0;
  DWORD dwOfs = 0, dwPos = 0, c = 0;
  BOOL bFound = 0, bDone = 0;
  char szWord[256];
  DWORD dwEntry;
  TEntry e;
  if (IndexFind(pk, dwKeyLen, &dwOfs, szWord, &dwEntry)) {
    dwPos = dwEntry * wIndexStep;
    DWORD dwLen = (DWORD)strlen(szWord);
    c = Shared(pk, dwKeyLen, reinterpret_cast<BYTE*>(szWord), dwLen);
    if (c == dwKeyLen) {
      bFound = bDone = 1;
    } else if (c < dwLen && pk[c] < (BYTE)szWord[c]) {
      bDone = 1;  // below every word
    } else if (ParseEntry(dwOfs, &e)) {
      dwOfs = e.dwNext;
      dwPos++;
    } else {
      bDone = 1;
    }
  }
  while (!bDone && !bFound && ParseEntry(dwOfs, &e)) {
    if (e.btPrefix < c) break;
    if (e.btPrefix == c) {
      // Match key characters against this word's in step with its prefix.
      while (c < dwKeyLen && c < e.btLen && pk[c] == e.pSuffix[c - e.btPrefix]) c++;
      if (c == dwKeyLen) {
        bFound = 1;
        break;
      }
      if (c < e.btLen && pk[c] < e.pSuffix[c - e.btPrefix]) break;
    }
    dwOfs = e.dwNext;
    dwPos++;
  }
  UnlockData();
  if (bFound && pdwIndex) *pdwIndex = dwPos;
  return bFound;
}

BOOL CDictionary::Add(const char* pchWord, const void* pData) {
  if (!pchWord) return 0;
  size_t nLen = strlen(pchWord);
  if (!nLen || nLen > DICT_MAX_WORD || 2 + nLen + wSzUserData > sizeof(s_abAdd)) return 0;
  DWORD dwNeeded = wSzUserData + 2u + (DWORD)nLen;
  if (m_dwAlloced - m_dwUsed < dwNeeded) {
    ASSERT(!m_pData);
    if (m_pData) return 0;
    DWORD dwNew = m_dwAlloced;
    while (dwNew - m_dwUsed < dwNeeded) dwNew += DICT_ALLOC_STEP;
    if (!m_hData) {
      DWORD h = HANDLE_ALLOC(dwNew);
      if (!h) return 0;
      m_hData = h;
    } else if (!HANDLE_REALLOC(m_hData, dwNew)) {
      return 0;
    }
    m_dwAlloced = dwNew;
  }
  s_abAdd[0] = (BYTE)nLen;
  s_abAdd[1] = 0;
  memcpy(s_abAdd + 2, pchWord, nLen);
  if (wSzUserData) {
    if (pData)
      memcpy(s_abAdd + 2 + nLen, pData, wSzUserData);
    else
      memset(s_abAdd + 2 + nLen, 0, wSzUserData);
  }
  DWORD dwOfs;
  BOOL bInside = Search(s_abAdd, &dwOfs, 1, 0);
  DWORD dwSize = wSzUserData + 2u + (DWORD)nLen - s_abAdd[1];
  if (!LockData()) return 0;
  if (bInside) memmove(m_pData + dwOfs + dwSize, m_pData + dwOfs, m_dwUsed - dwOfs);
  memcpy(m_pData + dwOfs, s_abAdd, dwSize);
  UnlockData();
  m_dwWords++;
  m_dwUsed += dwSize;
  return 1;
}

BOOL CDictionary::AddList(const void* pItems, DWORD dwCount) {
  if (!pItems) return 0;
  const BYTE* pItem = static_cast<const BYTE*>(pItems);
  size_t nRecord = sizeof(const char*) + wSzUserData;
  for (DWORD i = 0; i < dwCount; i++, pItem += nRecord) {
    const char* pchWord;
    memcpy(&pchWord, pItem, sizeof(pchWord));
    if (!Add(pchWord, pItem + sizeof(const char*))) return 0;
  }
  return 1;
}

BOOL CDictionary::Remove(const char* pchWord) {
  if (!m_dwUsed || !MakeKey(pchWord)) return 0;
  DWORD dwOfs;
  if (!Search(s_abKey, &dwOfs, 0, 0)) return 0;
  // Offsets after the word move: the index would go stale.
  FreeIndex();
  if (!LockData()) return 0;
  TEntry e, n;
  if (!ParseEntry(dwOfs, &e)) {
    UnlockData();
    return 0;
  }
  if (!ParseEntry(e.dwNext, &n)) {
    // The last word: the stream ends where it began.
    m_dwUsed = dwOfs;
  } else if (e.btPrefix && n.btPrefix < e.btLen) {
    // The stream from the successor on moves down to e's place, the successor's header as it
    // was. Right when the successor shares no more with e than e shares with its predecessor; when
    // it shares more (but not all of e), its prefix now claims characters the predecessor doesn't
    // have, and the word reads differently (see the header).
    memmove(m_pData + dwOfs, m_pData + n.dwOfs, m_dwUsed - n.dwOfs);
    m_dwUsed -= n.dwOfs - dwOfs;
  } else {
    // e is a first word (prefix 0), or the successor holds all of e: e's header stays, and its
    // first (n.btPrefix - e.btPrefix) suffix characters become the start of the successor's
    // suffix, followed by that suffix and the rest of the stream. Only a damaged stream has a
    // successor that claims more characters than e has: what is kept stops at e's suffix, so
    // nothing moves up over data still to be moved.
    DWORD dwKeep = n.btPrefix > e.btPrefix ? (DWORD)(n.btPrefix - e.btPrefix) : 0;
    if (dwKeep > (DWORD)(e.btLen - e.btPrefix)) dwKeep = (DWORD)(e.btLen - e.btPrefix);
    DWORD dwDst = dwOfs + 2 + dwKeep;
    DWORD dwSrc = n.dwOfs + 2;
    memmove(m_pData + dwDst, m_pData + dwSrc, m_dwUsed - dwSrc);
    m_pData[dwOfs] = n.btLen;
    // The used size falls by e's whole entry, although dwKeep of its characters stay: the last
    // dwKeep bytes of the stream drop off its end. Nothing in the installer removes words.
    m_dwUsed -= n.dwOfs - dwOfs;
  }
  UnlockData();
  m_dwWords--;
  if (m_dwAlloced - m_dwUsed > DICT_ALLOC_STEP) {
    m_dwAlloced -= DICT_ALLOC_STEP;
    // The reallocation's 1-or-0 result replaces the handle (see the header).
    m_hData = HANDLE_REALLOC(m_hData, m_dwAlloced);
  }
  return 1;
}

BOOL CDictionary::BuildIndex(WORD wStep) {
  ASSERT_TEXT(wStep, "wIndexStep");
  if (!m_dwWords || m_dwWords < wStep || !wStep) return 0;
  FreeIndex();
  DWORD dwEntries = m_dwWords / wStep;
  DWORD h = HANDLE_ALLOC(dwEntries * sizeof(TDictIndex));
  if (!h) return 0;
  TDictIndex* pIndex = static_cast<TDictIndex*>(HANDLE_LOCK(h));
  if (!pIndex) {
    HANDLE_FREE(h);
    return 0;
  }
  memset(pIndex, 0, dwEntries * sizeof(TDictIndex));
  DWORD dwCount = 0;
  BOOL bOk = LockData() != 0;
  if (bOk) {
    char szWord[256];
    memset(szWord, 0, sizeof(szWord));
    DWORD dwOfs = 0, dwPos = 0, dwMark = 0, dwLen = 0;
    TEntry e;
    while (dwCount < dwEntries && ParseEntry(dwOfs, &e)) {
      dwLen = ExpandOver(szWord, dwLen, &e);
      szWord[dwLen] = 0;
      if (dwPos == dwMark) {
        char* pchCopy = static_cast<char*>(MEM_ALLOC(dwLen + 1u));
        if (!pchCopy) {
          bOk = 0;
          break;
        }
        memcpy(pchCopy, szWord, dwLen + 1u);
        pIndex[dwCount].dwOffset = dwOfs;
        pIndex[dwCount].pchWord = pchCopy;
        dwCount++;
        dwMark += wStep;
      }
      dwOfs = e.dwNext;
      dwPos++;
    }
    UnlockData();
  }
  HANDLE_UNLOCK(h);
  m_hIndex = h;
  m_dwIndexCount = dwCount;
  wIndexStep = wStep;
  if (!bOk || !dwCount) {
    FreeIndex();
    return 0;
  }
  return 1;
}

void CDictionary::FreeIndex() {
  if (m_hIndex) {
    TDictIndex* pIndex = static_cast<TDictIndex*>(HANDLE_LOCK(m_hIndex));
    if (pIndex) {
      for (DWORD i = 0; i < m_dwIndexCount; i++)
        if (pIndex[i].pchWord) MEM_FREE(pIndex[i].pchWord);
      HANDLE_UNLOCK(m_hIndex);
    }
    HANDLE_FREE(m_hIndex);
  }
  m_hIndex = 0;
  m_dwIndexCount = 0;
  m_dwIndexLoaded = 0;
}

DWORD CDictionary::SaveIndex(DWORD* pdwSize) {
  // *pdwSize is written only with a result: a failure leaves it as the caller had it.
  if (!m_hIndex || !m_dwIndexCount) return 0;
  DWORD dwAlloced = DICT_ALLOC_STEP;
  DWORD h = HANDLE_ALLOC(dwAlloced);
  if (!h) return 0;
  TDictIndex* pIndex = static_cast<TDictIndex*>(HANDLE_LOCK(m_hIndex));
  if (!pIndex) {
    HANDLE_FREE(h);
    return 0;
  }
  BYTE* pOut = static_cast<BYTE*>(HANDLE_LOCK(h));
  BOOL bOk = pOut != 0;
  DWORD dwUsed = 4;
  if (bOk) PutLE32(pOut, m_dwIndexCount);
  for (DWORD i = 0; bOk && i < m_dwIndexCount; i++) {
    DWORD dwLen = (DWORD)strlen(pIndex[i].pchWord);
    DWORD dwRecord = 1 + dwLen + 4;
    if (dwAlloced - dwUsed < dwRecord) {
      HANDLE_UNLOCK(h);
      dwAlloced += DICT_ALLOC_STEP;
      bOk = HANDLE_REALLOC(h, dwAlloced);
      pOut = bOk ? static_cast<BYTE*>(HANDLE_LOCK(h)) : 0;
      bOk = pOut != 0;
      if (!bOk) break;
    }
    pOut[dwUsed] = (BYTE)dwLen;
    memcpy(pOut + dwUsed + 1, pIndex[i].pchWord, dwLen);
    PutLE32(pOut + dwUsed + 1 + dwLen, pIndex[i].dwOffset);
    dwUsed += dwRecord;
  }
  if (pOut) HANDLE_UNLOCK(h);
  HANDLE_UNLOCK(m_hIndex);
  if (bOk && dwUsed != dwAlloced) bOk = HANDLE_REALLOC(h, dwUsed);
  if (!bOk) {
    HANDLE_FREE(h);
    return 0;
  }
  if (pdwSize) *pdwSize = dwUsed;
  return h;
}

BOOL CDictionary::LoadIndex(DWORD hImage, DWORD dwIndexMemSize) {
  if (!hImage || !dwIndexMemSize || !wIndexStep || dwIndexMemSize < 8) return 0;
  FreeIndex();
  DWORD dwImage = HandleBlockSize(hImage);
  if (dwImage < 4) return 0;
  const BYTE* pImage = static_cast<const BYTE*>(HANDLE_LOCK(hImage));
  if (!pImage) return 0;
  DWORD dwCount = GetLE32(pImage);
  BOOL bOk = dwCount && dwCount <= dwIndexMemSize / sizeof(TDictIndex);
  DWORD h = bOk ? HANDLE_ALLOC(dwIndexMemSize) : 0;
  TDictIndex* pIndex = h ? static_cast<TDictIndex*>(HANDLE_LOCK(h)) : 0;
  bOk = pIndex != 0;
  DWORD dwRead = 0;
  if (bOk) {
    memset(pIndex, 0, dwIndexMemSize);
    DWORD dwPos = 4;
    for (; dwRead < dwCount; dwRead++) {
      if (dwImage - dwPos < 1) break;
      DWORD dwLen = pImage[dwPos];
      if (!dwLen || dwLen > DICT_MAX_WORD || dwImage - dwPos < 1 + dwLen + 4) break;
      DWORD dwOffset = GetLE32(pImage + dwPos + 1 + dwLen);
      if (dwOffset >= m_dwUsed) break;
      char* pchCopy = static_cast<char*>(MEM_ALLOC(dwLen + 1));
      if (!pchCopy) break;
      memcpy(pchCopy, pImage + dwPos + 1, dwLen);
      pchCopy[dwLen] = 0;
      pIndex[dwRead].dwOffset = dwOffset;
      pIndex[dwRead].pchWord = pchCopy;
      dwPos += 1 + dwLen + 4;
    }
    bOk = dwRead == dwCount;
    HANDLE_UNLOCK(h);
  }
  HANDLE_UNLOCK(hImage);
  if (h) {
    m_hIndex = h;
    m_dwIndexCount = dwRead;
  }
  if (!bOk) {
    FreeIndex();
    return 0;
  }
  m_dwIndexLoaded = m_dwIndexCount;
  return 1;
}
