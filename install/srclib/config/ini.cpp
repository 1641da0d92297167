// The text INI store: walks, splices and sizing of the text block, the typed value readers,
// the merge of an update, and the language tables.
#include "config/ini.h"

#include <stdio.h>
#include <string.h>

IMPLEMENT_CLASS(CIni, CLASSID_CINI, CObject)

// ---------------------------------------------------------------------------------------------
// The walk. Every primitive works on a locked text and stops at its terminating 0, which is the
// only bound the text has.

static inline bool IsEol(char c) { return c == '\r' || c == '\n'; }
static inline bool IsBlank(char c) { return c == '\t' || c == ' '; }
static inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }

static const char* SkipBlanks(const char* p) {
  while (IsBlank(*p)) p++;
  return p;
}

// To the first non-blank character after the current line and any run of line ends.
static const char* NextLine(const char* p) {
  while (*p && !IsEol(*p)) p++;
  while (IsEol(*p)) p++;
  return SkipBlanks(p);
}

// To the first non-blank character of the next line that is neither a comment nor blank, or to
// the end of the text. The current line is never looked at.
static const char* NextEntryLine(const char* p) {
  do {
    p = NextLine(p);
  } while (*p == ';' || IsEol(*p));
  return p;
}

// To the next "[" that starts a line's content, or to the end of the text. A "[" under the
// current position counts as a header.
static const char* NextSection(const char* p) {
  p = SkipBlanks(p);
  while (*p && *p != '[') p = NextEntryLine(p);
  return p;
}

// The "[" of the first header named pchSection, or null. A failed comparison goes on from the
// character where it stopped, so "[ab[ab]" answers to "ab" at its second "[".
static const char* FindSection(const char* pText, const char* pchSection) {
  const char* p = pText;
  for (;;) {
    p = NextSection(p);
    if (!*p) return 0;
    const char* pHeader = p;
    const char* pName = pchSection;
    p++;
    while (*pName && *p && *p != ']' && !IsEol(*p) && *pName == *p) {
      pName++;
      p++;
    }
    if (!*pName && *p == ']') return pHeader;
  }
}

// One entry line, split into key and value; both without surrounding blanks.
struct TIniEntry {
  const char* pKey;
  DWORD dwKeyLen;
  const char* pValue;
  DWORD dwValueLen;
};

// p is the first non-blank character of an entry line.
static void ParseEntry(const char* p, TIniEntry* pEntry) {
  const char* pEnd = p;
  while (*pEnd && *pEnd != '=' && !IsEol(*pEnd)) pEnd++;
  const char* pKeyEnd = pEnd;
  while (pKeyEnd > p && IsBlank(pKeyEnd[-1])) pKeyEnd--;
  pEntry->pKey = p;
  pEntry->dwKeyLen = (DWORD)(pKeyEnd - p);
  if (*pEnd == '=') {
    const char* pValue = SkipBlanks(pEnd + 1);
    const char* pValueEnd = pValue;
    while (*pValueEnd && !IsEol(*pValueEnd)) pValueEnd++;
    while (pValueEnd > pValue && IsBlank(pValueEnd[-1])) pValueEnd--;
    pEntry->pValue = pValue;
    pEntry->dwValueLen = (DWORD)(pValueEnd - pValue);
  } else {
    // A line without "=" is a key with an empty value that ends where the key ends.
    pEntry->pValue = pKeyEnd;
    pEntry->dwValueLen = 0;
  }
}

static bool KeyIs(const TIniEntry* pEntry, const char* pchKey, DWORD dwKeyLen) {
  return pEntry->dwKeyLen == dwKeyLen && memcmp(pEntry->pKey, pchKey, dwKeyLen) == 0;
}

// Walks the entry lines of the section whose "[" is at pSection. Returns the first entry line,
// or the end of the section (0 or "[").
static inline const char* FirstEntry(const char* pSection) { return NextEntryLine(pSection); }
static inline bool InSection(const char* p) { return *p && *p != '['; }

// Appends a name and its 0 to a multi-string under construction. *pdwLeft is the room left
// without the closing 0. When the name does not fit, what fits of it is stored, the list is
// closed and false is returned.
static bool AppendName(char** ppOut, DWORD* pdwLeft, const char* pName, DWORD dwLen) {
  char* pOut = *ppOut;
  if (dwLen + 1 > *pdwLeft) {
    if (*pdwLeft) {
      memcpy(pOut, pName, *pdwLeft - 1);
      pOut += *pdwLeft - 1;
      *pOut++ = 0;
    }
    *pOut = 0;
    return false;
  }
  memcpy(pOut, pName, dwLen);
  pOut[dwLen] = 0;
  *ppOut = pOut + dwLen + 1;
  *pdwLeft -= dwLen + 1;
  return true;
}

// ---------------------------------------------------------------------------------------------
// CIni

CIni::CIni() : m_hData(0), m_dwDataSize(0) {}

CIni::~CIni() {
  if (m_hData) HANDLE_FREE(m_hData);
}

ERR CIni::Resize(DWORD dwSize) {
  if (!dwSize) {
    if (m_hData) HANDLE_FREE(m_hData);
    m_hData = 0;
    m_dwDataSize = 0;
    return 0;
  }
  if (dwSize > 0xFFFFFFFFu - INI_BLOCK_STEP) return m_hData ? ERR_REALLOCFAIL : ERR_ALLOCFAIL;
  DWORD dwOldBlock = m_dwDataSize ? IniBlockSize(m_dwDataSize) : 0;
  DWORD dwNewBlock = IniBlockSize(dwSize);
  if (dwOldBlock != dwNewBlock || !m_hData) {
    if (!m_hData) {
      DWORD h = HANDLE_ALLOC(dwNewBlock);
      if (!h) return ERR_ALLOCFAIL;
      m_hData = h;
    } else if (!HANDLE_REALLOC(m_hData, dwNewBlock)) {
      return ERR_REALLOCFAIL;
    }
  }
  m_dwDataSize = dwSize;
  // Keep the walk bounded even when a caller grows the text and fills it later.
  char* pText = static_cast<char*>(HANDLE_LOCK(m_hData));
  if (pText) {
    pText[dwSize] = 0;
    HANDLE_UNLOCK(m_hData);
  }
  return 0;
}

ERR CIni::Load(CFile* pFile) {
  ASSERT(pFile);
  Resize(0);
  if (!pFile) return ERR_BADPARAM;
  DWORD dwSize = pFile->GetSize();
  ERR err = Resize(dwSize);
  if (err || !dwSize) return err;
  char* pText = static_cast<char*>(HANDLE_LOCK(m_hData));
  if (!pText) {
    Resize(0);
    return ERR_LOCKFAIL;
  }
  pText[dwSize] = 0;
  DWORD dwRead = 0;
  err = pFile->ReadAt(pText, 0, dwSize, &dwRead);
  HANDLE_UNLOCK(m_hData);
  // A short read without an error would leave unread bytes in the text: treat it as a failure.
  if (!err && dwRead != dwSize) err = ERR_FILE_READ;
  if (err) Resize(0);
  return err;
}

ERR CIni::Save(CFile* pFile) {
  if (!m_dwDataSize) {
    ASSERT(!m_hData);
    return 0;
  }
  ASSERT(pFile);
  if (!pFile) return ERR_BADPARAM;
  char* pText = static_cast<char*>(HANDLE_LOCK(m_hData));
  if (!pText) return ERR_LOCKFAIL;
  ERR err = pFile->WriteAt(pText, 0, m_dwDataSize, 0);
  HANDLE_UNLOCK(m_hData);
  if (err) return err;
  err = pFile->Seek((LONG)m_dwDataSize, FILE_BEGIN);
  // Truncating after a failed seek could cut the text just written.
  if (err) return err;
  return pFile->Truncate();
}

ERR CIni::GetString(const char* pchSection, const char* pchEntry, char* pchBuf, DWORD dwSize) {
  ASSERT(pchSection);
  ASSERT(pchEntry);
  ASSERT(pchBuf);
  ASSERT(dwSize);
  if (!pchSection || !pchEntry || !pchBuf || !dwSize) return ERR_BADPARAM;
  if (!m_hData) return ERR_NOTFOUND;
  const char* pText = static_cast<const char*>(HANDLE_LOCK(m_hData));
  if (!pText) return ERR_LOCKFAIL;
  ERR err = ERR_NOTFOUND;
  const char* pSection = FindSection(pText, pchSection);
  if (pSection) {
    DWORD dwKeyLen = (DWORD)strlen(pchEntry);
    for (const char* p = FirstEntry(pSection); InSection(p); p = NextEntryLine(p)) {
      TIniEntry entry;
      ParseEntry(p, &entry);
      if (!KeyIs(&entry, pchEntry, dwKeyLen)) continue;
      DWORD dwCopy = entry.dwValueLen;
      err = 0;
      if (dwCopy + 1 > dwSize) {
        dwCopy = dwSize - 1;
        err = ERR_BUFSMALL;
      }
      memcpy(pchBuf, entry.pValue, dwCopy);
      pchBuf[dwCopy] = 0;
      break;
    }
  }
  HANDLE_UNLOCK(m_hData);
  return err;
}

// Reads an integer: optional "-" or "+", then "0x" and hexadecimal digits of either case, or
// decimal digits. The first other character ends it with ERR_BADFORMAT.
static ERR ParseInt(const char* p, LONG* plValue) {
  DWORD dwValue = 0;
  bool bNegative = false;
  ERR err = 0;
  if (*p == '-') {
    bNegative = true;
    p++;
  } else if (*p == '+') {
    p++;
  }
  DWORD dwBase = 10;
  if (p[0] == '0' && p[1] == 'x') {
    dwBase = 16;
    p += 2;
  }
  for (; *p; p++) {
    DWORD dwDigit;
    if (*p >= '0' && *p <= '9')
      dwDigit = (DWORD)(*p - '0');
    else if (dwBase == 16 && *p >= 'a' && *p <= 'f')
      dwDigit = (DWORD)(*p - 'a' + 10);
    else if (dwBase == 16 && *p >= 'A' && *p <= 'F')
      dwDigit = (DWORD)(*p - 'A' + 10);
    else {
      err = ERR_BADFORMAT;
      break;
    }
    dwValue = dwValue * dwBase + dwDigit;
  }
  *plValue = (LONG)(bNegative ? 0u - dwValue : dwValue);
  return err;
}

ERR CIni::GetInt(const char* pchSection, const char* pchEntry, LONG* plValue) {
  ASSERT(plValue);
  if (!plValue) return ERR_BADPARAM;
  char szValue[256];
  ERR err = GetString(pchSection, pchEntry, szValue, sizeof(szValue));
  if (err) return err;
  return ParseInt(szValue, plValue);
}

// Writes the line "entry = value\r\n" at q; returns the end of it.
static char* PutEntryLine(char* q, const char* pchEntry, DWORD dwEntryLen, const char* pchValue,
                          DWORD dwLen) {
  memcpy(q, pchEntry, dwEntryLen);
  q += dwEntryLen;
  memcpy(q, " = ", 3);
  q += 3;
  memcpy(q, pchValue, dwLen);
  q += dwLen;
  memcpy(q, "\r\n", 2);
  return q + 2;
}

ERR CIni::SetString(const char* pchSection, const char* pchEntry, const char* pchBuf, DWORD dwLen) {
  ASSERT(pchSection);
  ASSERT(pchEntry);
  ASSERT(pchBuf);
  if (!pchSection || !pchEntry || !pchBuf) return ERR_BADPARAM;
  if (dwLen == INI_NOLIMIT) dwLen = (DWORD)strlen(pchBuf);
  DWORD dwSectionLen = (DWORD)strlen(pchSection);
  DWORD dwEntryLen = (DWORD)strlen(pchEntry);
  DWORD dwOldSize = m_dwDataSize;

  // Find where the change goes while the text is locked; offsets survive the reallocation.
  bool bFound = false, bReplace = false;
  DWORD dwSpot = 0, dwCutEnd = 0, dwKeep = 0;
  if (m_hData) {
    const char* pText = static_cast<const char*>(HANDLE_LOCK(m_hData));
    if (!pText) return ERR_LOCKFAIL;
    const char* pSection = FindSection(pText, pchSection);
    if (pSection) {
      bFound = true;
      // Without a matching key the new line follows the header, or the last entry's value.
      const char* pSpot = pSection;
      while (*pSpot && !IsEol(*pSpot)) pSpot++;
      for (const char* p = FirstEntry(pSection); InSection(p); p = NextEntryLine(p)) {
        TIniEntry entry;
        ParseEntry(p, &entry);
        if (KeyIs(&entry, pchEntry, dwEntryLen)) {
          pSpot = p;
          bReplace = true;
          break;
        }
        pSpot = entry.pValue + entry.dwValueLen;
      }
      // The cut runs to and includes one line end; CR LF and LF CR are one.
      const char* pCut = pSpot;
      while (*pCut && !IsEol(*pCut)) pCut++;
      if (IsEol(*pCut)) pCut += (pCut[0] + pCut[1] == '\r' + '\n') ? 2 : 1;
      dwSpot = (DWORD)(pSpot - pText);
      dwCutEnd = (DWORD)(pCut - pText);
    } else {
      // A new section goes after the text, less its trailing blanks and line ends.
      dwKeep = m_dwDataSize;
      while (dwKeep && (IsBlank(pText[dwKeep - 1]) || IsEol(pText[dwKeep - 1]))) dwKeep--;
    }
    HANDLE_UNLOCK(m_hData);
  }

  if (!bFound) {
    unsigned long long qwNew =
        (unsigned long long)dwKeep + dwSectionLen + dwEntryLen + dwLen + 9 + (dwKeep ? 4 : 0);
    if (qwNew > 0xFFFFFFFFull) return m_hData ? ERR_REALLOCFAIL : ERR_ALLOCFAIL;
    DWORD dwNewSize = (DWORD)qwNew;
    ERR err = Resize(dwNewSize);
    if (err) return err;
    char* pText = static_cast<char*>(HANDLE_LOCK(m_hData));
    if (!pText) {
      // The old bytes are still in the (larger) block; take back the old length.
      m_dwDataSize = dwOldSize;
      return ERR_LOCKFAIL;
    }
    char* q = pText + dwKeep;
    if (dwKeep) {
      memcpy(q, "\r\n\r\n", 4);
      q += 4;
    }
    *q++ = '[';
    memcpy(q, pchSection, dwSectionLen);
    q += dwSectionLen;
    memcpy(q, "]\r\n", 3);
    q += 3;
    q = PutEntryLine(q, pchEntry, dwEntryLen, pchBuf, dwLen);
    *q = 0;
    HANDLE_UNLOCK(m_hData);
    return 0;
  }

  // The splice: [dwSpot, dwCutEnd) gives way to the new line.
  unsigned long long qwInsert = (unsigned long long)dwEntryLen + 5 + dwLen + (bReplace ? 0 : 2);
  unsigned long long qwNew = (unsigned long long)dwOldSize - (dwCutEnd - dwSpot) + qwInsert;
  ASSERT_TEXT(qwNew >= 6, "lDelta + m_dwDataSize >= 6");
  if (qwNew > 0xFFFFFFFFull - INI_BLOCK_STEP) return ERR_REALLOCFAIL;
  DWORD dwInsert = (DWORD)qwInsert;
  DWORD dwNewSize = (DWORD)qwNew;
  DWORD dwTail = dwOldSize - dwCutEnd + 1;  // with the terminator
  bool bGrow = dwNewSize >= dwOldSize;
  // Growing: make room first. Shrinking: move the tail down first, so that a smaller block
  // never cuts off bytes that have yet to move.
  if (bGrow) {
    ERR err = Resize(dwNewSize);
    if (err) return err;
  }
  char* pText = static_cast<char*>(HANDLE_LOCK(m_hData));
  if (!pText) {
    m_dwDataSize = dwOldSize;
    return ERR_LOCKFAIL;
  }
  memmove(pText + dwSpot + dwInsert, pText + dwCutEnd, dwTail);
  char* q = pText + dwSpot;
  if (!bReplace) {
    memcpy(q, "\r\n", 2);
    q += 2;
  }
  PutEntryLine(q, pchEntry, dwEntryLen, pchBuf, dwLen);
  HANDLE_UNLOCK(m_hData);
  if (!bGrow && Resize(dwNewSize)) {
    // The block could not shrink; it is larger than needed, which is harmless.
    m_dwDataSize = dwNewSize;
  }
  return 0;
}

ERR CIni::SetInt(const char* pchSection, const char* pchEntry, LONG lValue) {
  char szValue[16];
  snprintf(szValue, sizeof(szValue), "%ld", (long)lValue);
  return SetString(pchSection, pchEntry, szValue, (DWORD)strlen(szValue));
}

ERR CIni::GetSectionNames(char* pchBuf, DWORD dwSize) {
  ASSERT(pchBuf);
  ASSERT(dwSize >= 2);
  if (!pchBuf || !dwSize) return ERR_BADPARAM;
  *pchBuf = 0;
  if (!m_hData) return 0;
  const char* pText = static_cast<const char*>(HANDLE_LOCK(m_hData));
  if (!pText) return ERR_LOCKFAIL;
  char* pOut = pchBuf;
  DWORD dwLeft = dwSize - 1;
  ERR err = 0;
  const char* p = NextSection(pText);
  while (*p) {
    const char* pName = p + 1;
    const char* pEnd = pName;
    while (*pEnd && *pEnd != ']' && !IsEol(*pEnd)) pEnd++;
    if (*pEnd == ']' && pEnd > pName && !AppendName(&pOut, &dwLeft, pName, (DWORD)(pEnd - pName))) {
      err = ERR_BUFSMALL;
      break;
    }
    p = NextSection(pEnd);
  }
  if (!err) *pOut = 0;
  HANDLE_UNLOCK(m_hData);
  return err;
}

ERR CIni::GetEntryNames(const char* pchSection, char* pchBuf, DWORD dwSize) {
  ASSERT(pchSection);
  ASSERT(pchBuf);
  ASSERT(dwSize >= 2);
  if (!pchSection || !pchBuf || !dwSize) return ERR_BADPARAM;
  *pchBuf = 0;
  if (!m_hData) return 0;
  const char* pText = static_cast<const char*>(HANDLE_LOCK(m_hData));
  if (!pText) return ERR_LOCKFAIL;
  ERR err = 0;
  const char* pSection = FindSection(pText, pchSection);
  if (!pSection) {
    err = ERR_NOTFOUND;
  } else {
    char* pOut = pchBuf;
    DWORD dwLeft = dwSize - 1;
    for (const char* p = FirstEntry(pSection); InSection(p); p = NextEntryLine(p)) {
      TIniEntry entry;
      ParseEntry(p, &entry);
      if (entry.dwKeyLen && !AppendName(&pOut, &dwLeft, entry.pKey, entry.dwKeyLen)) {
        err = ERR_BUFSMALL;
        break;
      }
    }
    if (!err) *pOut = 0;
  }
  HANDLE_UNLOCK(m_hData);
  return err;
}

ERR CIni::GetEntryName(const char* pchSection, WORD wIndex, char* pchBuf, DWORD dwSize) {
  ASSERT_TEXT(pchSection && pchBuf && dwSize >= 2, "pchSection&&pchBuf&&dwSize>=2");
  if (!pchSection || !pchBuf || !dwSize) return ERR_BADPARAM;
  if (!m_hData) {
    *pchBuf = 0;
    return 0;
  }
  const char* pText = static_cast<const char*>(HANDLE_LOCK(m_hData));
  if (!pText) return ERR_LOCKFAIL;
  ERR err = ERR_NOTFOUND;
  const char* pSection = FindSection(pText, pchSection);
  // A missing section gives an empty name; an index past the last entry line leaves the
  // buffer as it was.
  if (!pSection) {
    *pchBuf = 0;
  } else {
    const char* p = FirstEntry(pSection);
    for (WORD w = 0; w < wIndex && InSection(p); w++) p = NextEntryLine(p);
    if (InSection(p)) {
      TIniEntry entry;
      ParseEntry(p, &entry);
      DWORD dwCopy = entry.dwKeyLen;
      err = 0;
      // The key is cut to the buffer rather than written past it.
      if (dwCopy > dwSize - 1) {
        dwCopy = dwSize - 1;
        err = ERR_BUFSMALL;
      }
      memcpy(pchBuf, entry.pKey, dwCopy);
      pchBuf[dwCopy] = 0;
    }
  }
  HANDLE_UNLOCK(m_hData);
  return err;
}

ERR CIni::ReservedSectionOp(const char* pchSection) { return ERR_NOTIMPL; }

ERR CIni::ReservedEntryOp(const char* pchSection, const char* pchEntry) { return ERR_NOTIMPL; }

// ---------------------------------------------------------------------------------------------
// Typed readers.

#define INI_VALUE_MAX 128

// The value into a 128-byte buffer; a longer value is refused with ERR_BUFSMALL rather than
// written past the buffer.
static ERR ReadValue(CIni* pIni, const char* pchSection, const char* pchEntry, char* pchBuf) {
  ASSERT(pIni);
  if (!pIni) return ERR_BADPARAM;
  return pIni->GetString(pchSection, pchEntry, pchBuf, INI_VALUE_MAX);
}

// Optional blanks, an optional sign, decimal digits up to the first other character; no digits
// give 0. Wraps at 32 bits.
static LONG ParseNumber(const char* p) {
  p = SkipBlanks(p);
  bool bNegative = false;
  if (*p == '-' || *p == '+') bNegative = *p++ == '-';
  DWORD dwValue = 0;
  for (; IsDigit(*p); p++) dwValue = dwValue * 10 + (DWORD)(*p - '0');
  return (LONG)(bNegative ? 0u - dwValue : dwValue);
}

static const char* SkipDigits(const char* p) {
  while (IsDigit(*p)) p++;
  return p;
}

// Reads up to nCount comma-separated numbers into alValues; returns how many were read. Only
// the digits under the start of a field are skipped before the scan for the comma, so a sign
// or a word is simply passed over.
static int ParseNumberList(const char* p, LONG* alValues, int nCount) {
  p = SkipBlanks(p);
  for (int i = 0; i < nCount; i++) {
    alValues[i] = ParseNumber(p);
    if (i == nCount - 1) break;
    p = SkipDigits(p);
    while (*p && *p != ',') p++;
    if (!*p) return i + 1;
    p = SkipBlanks(p + 1);
  }
  return nCount;
}

ERR IniGetColor(CIni* pIni, const char* pchSection, const char* pchEntry, void* pColor) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  LONG al[3];
  int n = ParseNumberList(szValue, al, 3);
  BYTE* pbt = static_cast<BYTE*>(pColor);
  static const int anByte[3] = {2, 1, 0};
  for (int i = 0; i < n; i++) pbt[anByte[i]] = (BYTE)al[i];
  if (n < 3) return ERR_BADFORMAT;
  pbt[3] = 0;
  return 0;
}

ERR IniGetPoint(CIni* pIni, const char* pchSection, const char* pchEntry, SHORT* pnX, SHORT* pnY) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  LONG al[2];
  int n = ParseNumberList(szValue, al, 2);
  *pnX = (SHORT)al[0];
  if (n < 2) return ERR_BADFORMAT;
  *pnY = (SHORT)al[1];
  return 0;
}

ERR IniGetRect(CIni* pIni, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
               SHORT* pnRight, SHORT* pnBottom) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  LONG al[4];
  int n = ParseNumberList(szValue, al, 4);
  SHORT* apn[4] = {pnLeft, pnTop, pnRight, pnBottom};
  for (int i = 0; i < n; i++) *apn[i] = (SHORT)al[i];
  return n < 4 ? ERR_BADFORMAT : 0;
}

ERR IniGetBox(CIni* pIni, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
              SHORT* pnRight, SHORT* pnBottom) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  LONG al[4];
  int n = ParseNumberList(szValue, al, 4);
  *pnLeft = (SHORT)al[0];
  if (n > 1) *pnTop = (SHORT)al[1];
  // Edges wrap at 32 bits like every number here; only their low 16 bits are kept.
  if (n > 2) *pnRight = (SHORT)((DWORD)al[0] + (DWORD)al[2] - 1);
  if (n > 3) *pnBottom = (SHORT)((DWORD)al[1] + (DWORD)al[3] - 1);
  return n < 4 ? ERR_BADFORMAT : 0;
}

// ORs the keywords of a comma list into *pdwFlags as they are read. Each field is matched by
// the first table name it begins with.
static ERR ParseKeywords(const char* p, const TIniFlag* pTable, DWORD* pdwFlags) {
  ASSERT(pTable);
  if (!pTable) return ERR_BADPARAM;
  for (;;) {
    const char* pEnd = p;
    while (*pEnd && *pEnd != ',') pEnd++;
    const TIniFlag* pFlag = pTable;
    while (pFlag->pchName && strncmp(pFlag->pchName, p, strlen(pFlag->pchName)) != 0) pFlag++;
    if (!pFlag->pchName) return ERR_INI_BADKEYWORD;
    *pdwFlags |= pFlag->dwValue;
    if (!*pEnd) return 0;
    p = SkipBlanks(pEnd + 1);
  }
}

ERR IniGetFlags(CIni* pIni, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                DWORD* pdwFlags) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  DWORD dwFlags = 0;
  err = ParseKeywords(SkipBlanks(szValue), pTable, &dwFlags);
  if (!err) *pdwFlags = dwFlags;
  return err;
}

ERR IniGetStrNumFlags(CIni* pIni, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                      char* pchText, SHORT* pnNumber, DWORD* pdwFlags) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  const char* p = SkipBlanks(szValue);
  // The text is copied before the comma is known to be there: a value without one is stored
  // whole and then refused.
  const char* pComma = strchr(p, ',');
  size_t nText = pComma ? (size_t)(pComma - p) : strlen(p);
  memcpy(pchText, p, nText);
  pchText[nText] = 0;
  if (!pComma) return ERR_BADFORMAT;
  p = SkipBlanks(pComma + 1);
  *pnNumber = (SHORT)ParseNumber(p);
  p = SkipDigits(p);
  while (*p && *p != ',') p++;
  if (!*p) {
    *pdwFlags = 0;
    return 0;
  }
  return ParseKeywords(SkipBlanks(p + 1), pTable, pdwFlags);
}

// The start and length of field wIndex of a comma list, or false when there are fewer fields.
static bool FindField(const char* p, WORD wIndex, const char** ppField, DWORD* pdwLen) {
  p = SkipBlanks(p);
  for (WORD w = 0; w < wIndex; w++) {
    p = strchr(p, ',');
    if (!p) return false;
    p = SkipBlanks(p + 1);
  }
  const char* pEnd = p;
  while (*pEnd && *pEnd != ',') pEnd++;
  *ppField = p;
  *pdwLen = (DWORD)(pEnd - p);
  return true;
}

ERR IniGetField(CIni* pIni, const char* pchSection, const char* pchEntry, WORD wIndex, char* pchBuf) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  const char* pField;
  DWORD dwLen;
  if (!FindField(szValue, wIndex, &pField, &dwLen)) return ERR_NOTFOUND;
  memcpy(pchBuf, pField, dwLen);
  pchBuf[dwLen] = 0;
  return 0;
}

ERR IniGetFieldInt(CIni* pIni, const char* pchSection, const char* pchEntry, WORD wIndex, LONG* plValue) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  const char* pField;
  DWORD dwLen;
  if (!FindField(szValue, wIndex, &pField, &dwLen)) return ERR_NOTFOUND;
  // The number is read from a 64-byte copy of the field; a longer field is cut to fit.
  char szField[64];
  if (dwLen > sizeof(szField) - 1) dwLen = sizeof(szField) - 1;
  memcpy(szField, pField, dwLen);
  szField[dwLen] = 0;
  *plValue = ParseNumber(szField);
  return 0;
}

ERR IniGetId(CIni* pIni, const char* pchSection, const char* pchEntry, LONG* plValue) {
  char szValue[INI_VALUE_MAX];
  ERR err = ReadValue(pIni, pchSection, pchEntry, szValue);
  if (err) return err;
  if (IsDigit(szValue[0])) return pIni->GetInt(pchSection, pchEntry, plValue);
  return pIni->GetInt(szValue, "ID", plValue);
}

// ---------------------------------------------------------------------------------------------
// Merge.

#define INI_MERGE_BUF 10240

static bool InMultiString(const char* pList, const char* pchName) {
  for (; *pList; pList += strlen(pList) + 1)
    if (strcmp(pList, pchName) == 0) return true;
  return false;
}

ERR IniMerge(CIni* pNew, CIni* pOld) {
  ASSERT(pNew);
  ASSERT(pOld);
  if (!pNew || !pOld) return ERR_BADPARAM;
  char* pAdded = static_cast<char*>(MEM_ALLOC(INI_MERGE_BUF));
  char* pNewSections = static_cast<char*>(MEM_ALLOC(INI_MERGE_BUF));
  char* pOldSections = static_cast<char*>(MEM_ALLOC(INI_MERGE_BUF));
  char* pEntries = static_cast<char*>(MEM_ALLOC(INI_MERGE_BUF));
  char* pValue = static_cast<char*>(MEM_ALLOC(INI_MERGE_BUF));
  ERR err = 0;
  if (!pAdded || !pNewSections || !pOldSections || !pEntries || !pValue) {
    err = ERR_ALLOCFAIL;
    goto done;
  }
  // The lists are bounded by the buffers: a list that does not fit ends the merge with
  // ERR_BUFSMALL rather than running past them.
  err = pNew->GetSectionNames(pNewSections, INI_MERGE_BUF);
  if (err) goto done;
  if (!InMultiString(pNewSections, "New Sections")) {
    err = ERR_NOTFOUND;
    goto done;
  }
  err = pNew->GetEntryNames("New Sections", pAdded, INI_MERGE_BUF);
  if (err) goto done;
  err = pOld->GetSectionNames(pOldSections, INI_MERGE_BUF);
  if (err) goto done;
  for (const char* pSection = pAdded; *pSection; pSection += strlen(pSection) + 1) {
    if (!InMultiString(pOldSections, pSection)) continue;
    err = pOld->SetString(pSection, "PRB_SNE", "Should not exist");
    if (err) goto done;
  }
  err = pNew->GetSectionNames(pNewSections, INI_MERGE_BUF);
  if (err) goto done;
  for (const char* pSection = pNewSections; *pSection; pSection += strlen(pSection) + 1) {
    if (strcmp(pSection, "New Sections") == 0) continue;
    if (!InMultiString(pAdded, pSection) && !InMultiString(pOldSections, pSection)) {
      err = pOld->SetString(pSection, "PRB_SE", "Should exist");
      if (err) goto done;
    }
    err = pNew->GetEntryNames(pSection, pEntries, INI_MERGE_BUF);
    if (err) goto done;
    for (const char* pEntry = pEntries; *pEntry; pEntry += strlen(pEntry) + 1) {
      err = pNew->GetString(pSection, pEntry, pValue, INI_MERGE_BUF);
      if (err) goto done;
      err = pOld->SetString(pSection, pEntry, pValue);
      if (err) goto done;
    }
  }
done:
  if (pAdded) MEM_FREE(pAdded);
  if (pNewSections) MEM_FREE(pNewSections);
  if (pOldSections) MEM_FREE(pOldSections);
  if (pEntries) MEM_FREE(pEntries);
  if (pValue) MEM_FREE(pValue);
  return err;
}

// ---------------------------------------------------------------------------------------------
// Language tables.

TLangTable g_LangTable;

ERR LangInit(const char* pchLanguage) {
  ASSERT(pchLanguage);
  if (!pchLanguage || strcmp(pchLanguage, "English") != 0) return ERR_NOTFOUND;
  memset(&g_LangTable, 0, sizeof(g_LangTable));
  strncpy(g_LangTable.szName, pchLanguage, sizeof(g_LangTable.szName) - 1);
  for (int i = 0; i < 256; i++) {
    BYTE btClass = 0;
    if (i == '\t' || i == '\n' || i == '\r' || i == ' ') btClass |= LANG_BLANK;
    if (i >= '0' && i <= '9') btClass |= LANG_DIGIT;
    if (i >= 'a' && i <= 'z') btClass |= LANG_LOWER;
    if (i >= 'A' && i <= 'Z') btClass |= LANG_UPPER;
    g_LangTable.abtOrder[i] = (BYTE)i;
    g_LangTable.abtClass[i] = btClass;
    g_LangTable.abtUpper[i] = (BYTE)((btClass & LANG_LOWER) ? i - 32 : i);
    g_LangTable.abtLower[i] = (BYTE)((btClass & LANG_UPPER) ? i + 32 : i);
  }
  return 0;
}

char LangCharUpper(char c) { return (char)g_LangTable.abtUpper[(BYTE)c]; }
char LangCharLower(char c) { return (char)g_LangTable.abtLower[(BYTE)c]; }

void LangStrUpper(char* pch) {
  for (; *pch; pch++) *pch = LangCharUpper(*pch);
}
void LangStrLower(char* pch) {
  for (; *pch; pch++) *pch = LangCharLower(*pch);
}
void LangStrUpperN(char* pch, DWORD dwLen) {
  for (DWORD i = 0; i < dwLen; i++) pch[i] = LangCharUpper(pch[i]);
}
void LangStrLowerN(char* pch, DWORD dwLen) {
  for (DWORD i = 0; i < dwLen; i++) pch[i] = LangCharLower(pch[i]);
}

static int CompareRanks(BYTE a, BYTE b) {
  BYTE ra = g_LangTable.abtOrder[a], rb = g_LangTable.abtOrder[b];
  return ra < rb ? -1 : (ra > rb ? 1 : 0);
}

int LangCharCompare(char a, char b) { return CompareRanks((BYTE)a, (BYTE)b); }
int LangCharCompareNoCase(char a, char b) {
  return CompareRanks((BYTE)LangCharUpper(a), (BYTE)LangCharUpper(b));
}

// Compares at most dwLen characters; a string that ends first sorts first.
static int CompareStrings(const char* a, const char* b, DWORD dwLen, bool bNoCase) {
  for (DWORD i = 0; i < dwLen; i++) {
    if (!a[i] || !b[i]) return a[i] ? 1 : (b[i] ? -1 : 0);
    int n = bNoCase ? LangCharCompareNoCase(a[i], b[i]) : LangCharCompare(a[i], b[i]);
    if (n) return n;
  }
  return 0;
}

int LangStrCompare(const char* a, const char* b) { return CompareStrings(a, b, 0xFFFFFFFFu, false); }
int LangStrCompareNoCase(const char* a, const char* b) { return CompareStrings(a, b, 0xFFFFFFFFu, true); }
int LangStrCompareN(const char* a, const char* b, DWORD dwLen) { return CompareStrings(a, b, dwLen, false); }
int LangStrCompareNoCaseN(const char* a, const char* b, DWORD dwLen) {
  return CompareStrings(a, b, dwLen, true);
}
