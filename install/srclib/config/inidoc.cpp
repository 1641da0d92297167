// The parsed INI document: a file read once into section and entry records found through two
// hash tables, and written back whole from the records.
#include "config/inidoc.h"

#include <stdio.h>
#include <string.h>

#include <new>

IMPLEMENT_CLASS(CIniDoc, CLASSID_CINIDOC, CObject)

// The entry table's key: the section record and the key text, laid out as the pOwner and
// pchName fields of an entry record, so a record serves as its own key.
struct TIniEntryKey {
  TIniItem* pSection;
  const char* pchName;
};

static_assert(offsetof(TIniItem, pchName) - offsetof(TIniItem, pOwner) ==
                  offsetof(TIniEntryKey, pchName) - offsetof(TIniEntryKey, pSection),
              "an entry record's owner and name form its key");

static inline char FoldUpper(char c) { return (c >= 'a' && c <= 'z') ? (char)(c - 'a' + 'A') : c; }

DWORD IniDocNameHash(const char* pchName) {
  DWORD dwAcc = 0, dwSum = 0;
  for (const char* p = pchName; *p; p++) {
    dwAcc = dwAcc * 256 + (DWORD)(LONG)(signed char)FoldUpper(*p);
    dwSum += dwAcc;
  }
  while (dwAcc) {
    dwAcc *= 256;
    dwSum += dwAcc;
  }
  return dwSum;
}

// Equality of names under folding of a to z; only equality matters to the tables.
static BOOL NamesEqual(const char* a, const char* b) {
  for (;; a++, b++) {
    if (FoldUpper(*a) != FoldUpper(*b)) return 0;
    if (!*a) return 1;
  }
}

static DWORD HashSectionKey(const void* pKey, DWORD dwMax) {
  return IniDocNameHash(*static_cast<const char* const*>(pKey)) % dwMax;
}

static SHORT CompareSectionKey(const void* pKey, const void* pItemKey) {
  return NamesEqual(*static_cast<const char* const*>(pKey), *static_cast<const char* const*>(pItemKey)) ? 0
                                                                                                        : 1;
}

static DWORD HashEntryKey(const void* pKey, DWORD dwMax) {
  const TIniEntryKey* pk = static_cast<const TIniEntryKey*>(pKey);
  return (IniDocNameHash(pk->pSection->pchName) + IniDocNameHash(pk->pchName)) % dwMax;
}

static SHORT CompareEntryKey(const void* pKey, const void* pItemKey) {
  const TIniEntryKey* a = static_cast<const TIniEntryKey*>(pKey);
  const TIniEntryKey* b = static_cast<const TIniEntryKey*>(pItemKey);
  return a->pSection == b->pSection && NamesEqual(a->pchName, b->pchName) ? 0 : 1;
}

// Records come from the document's allocator, whose blocks need not be aligned for a pointer (a
// CPtrAlloc block sits 4 bytes into its memory). Where the record header needs more than 4-byte
// alignment (64-bit builds) each block has RECORD_SLACK spare bytes: the record starts at the
// first aligned address past the block's first byte, and the byte just in front of the record
// holds its distance from the block's start. Where 4 bytes suffice (32-bit builds) the record is
// the block itself.
static const size_t RECORD_SLACK = alignof(TIniItem) > 4 ? alignof(TIniItem) : 0;

static TIniItem* RecordInBlock(void* pBlock) {
  if (!RECORD_SLACK) return static_cast<TIniItem*>(pBlock);
  BYTE* p = static_cast<BYTE*>(pBlock);
  size_t nPad = RECORD_SLACK - (reinterpret_cast<uintptr_t>(p) & (RECORD_SLACK - 1));  // 1 to RECORD_SLACK
  p[nPad - 1] = (BYTE)nPad;
  return reinterpret_cast<TIniItem*>(p + nPad);
}

static void* BlockOfRecord(TIniItem* pItem) {
  if (!RECORD_SLACK) return pItem;
  BYTE* p = reinterpret_cast<BYTE*>(pItem);
  return p - p[-1];
}

static void DeleteRecord(void* pItem, void* pUserData) {
  static_cast<CBlockAlloc*>(pUserData)->Free(BlockOfRecord(static_cast<TIniItem*>(pItem)));
}

// The tables are plain objects: they live in tracked memory like everything else.
static CHashTable* NewTable(DWORD dwSize, PFN_HASHKEY pfnHash, PFN_COMPARE pfnCompare, DWORD dwKeyOfs,
                            CBlockAlloc* pAlloc) {
  void* pMem = MEM_ALLOC(sizeof(CHashTable));
  if (!pMem) return 0;
  CHashTable* pTable = new (pMem) CHashTable(dwSize ? dwSize : 1, pfnHash, pfnCompare, DeleteRecord,
                                             (DWORD)offsetof(TIniItem, pLink), dwKeyOfs);
  pTable->m_pUserData = pAlloc;
  return pTable;
}

static void DeleteTable(CHashTable* pTable) {
  if (!pTable) return;
  pTable->CHashTable::~CHashTable();
  MEM_FREE(pTable);
}

// ---------------------------------------------------------------------------------------------
// Construction

CIniDoc::CIniDoc(DWORD dwSections, DWORD dwEntries, CBlockAlloc* pAlloc, BOOL bOwnAlloc)
    : m_pSections(0),
      m_pEntries(0),
      m_pFirst(0),
      m_pAlloc(pAlloc),
      m_bOwnAlloc(bOwnAlloc),
      m_pReadBuf(0),
      m_dwReadCount(0),
      m_dwReadPos(0),
      m_pReadFile(0) {
  if (!m_pAlloc) {
    m_pAlloc = new CPtrAlloc;
    m_bOwnAlloc = 1;
  }
  if (!m_pAlloc) return;
  m_pSections =
      NewTable(dwSections, HashSectionKey, CompareSectionKey, (DWORD)offsetof(TIniItem, pchName), m_pAlloc);
  m_pEntries =
      NewTable(dwEntries, HashEntryKey, CompareEntryKey, (DWORD)offsetof(TIniItem, pOwner), m_pAlloc);
}

CIniDoc::~CIniDoc() {
  Clear();
  DeleteTable(m_pSections);
  DeleteTable(m_pEntries);
  if (m_bOwnAlloc) delete m_pAlloc;
}

// ---------------------------------------------------------------------------------------------
// Records

TIniItem* CIniDoc::NewItem(const char* pchName, const char* pchValue, const char* pchComment, BOOL bEntry) {
  if (!m_pAlloc) return 0;
  size_t nName = strlen(pchName), nValue = bEntry ? strlen(pchValue) : 0, nComment = strlen(pchComment);
  size_t nSize = RECORD_SLACK + sizeof(TIniItem) + nName + 1 + (bEntry ? nValue + 1 : 0) + nComment + 1;
  if (nSize > 0x7FFFFFFF) return 0;
  void* pBlock = m_pAlloc->Alloc((DWORD)nSize);
  if (!pBlock) return 0;
  TIniItem* pItem = RecordInBlock(pBlock);
  memset(pItem, 0, sizeof(TIniItem));
  char* p = reinterpret_cast<char*>(pItem + 1);
  pItem->pchName = p;
  memcpy(p, pchName, nName + 1);
  p += nName + 1;
  if (bEntry) {
    memcpy(p, pchValue, nValue + 1);
    p += nValue + 1;
  }
  memcpy(p, pchComment, nComment + 1);
  return pItem;
}

void CIniDoc::FreeItem(TIniItem* pItem) { m_pAlloc->Free(BlockOfRecord(pItem)); }

const char* CIniDoc::EntryValue(TIniItem* pItem) {
  return pItem ? pItem->pchName + strlen(pItem->pchName) + 1 : 0;
}

const char* CIniDoc::EntryComment(TIniItem* pItem) {
  if (!pItem) return 0;
  const char* pchValue = EntryValue(pItem);
  return pchValue + strlen(pchValue) + 1;
}

const char* CIniDoc::SectionComment(TIniItem* pItem) {
  return pItem ? pItem->pchName + strlen(pItem->pchName) + 1 : 0;
}

void CIniDoc::UnhashEntry(TIniItem* pItem) {
  if (!m_pEntries || !m_pEntries->m_pTable || !pItem->pchName[0]) return;
  // The exact record is taken out: a lookup by key could meet a namesake first.
  DWORD h = HashEntryKey(&pItem->pOwner, m_pEntries->m_dwSize);
  TIniItem** ppLink = reinterpret_cast<TIniItem**>(&m_pEntries->m_pTable[h]);
  while (*ppLink && *ppLink != pItem) ppLink = &(*ppLink)->pLink;
  if (*ppLink) *ppLink = pItem->pLink;
}

void CIniDoc::Clear() {
  // Comment lines alone are outside the tables; the tables free the other records.
  for (TIniItem* pSection = m_pFirst; pSection; pSection = pSection->pNext) {
    TIniItem* pEntry = pSection->pOwner;
    while (pEntry) {
      TIniItem* pNext = pEntry->pNext;
      if (!pEntry->pchName[0]) FreeItem(pEntry);
      pEntry = pNext;
    }
  }
  if (m_pEntries) m_pEntries->Clear();
  if (m_pSections) m_pSections->Clear();
  m_pFirst = 0;
}

TIniItem* CIniDoc::FindSection(const char* pchSection) {
  if (!pchSection || !m_pSections) return 0;
  return static_cast<TIniItem*>(m_pSections->Find(&pchSection, 0));
}

TIniItem* CIniDoc::FindEntry(const char* pchSection, const char* pchEntry) {
  if (!pchEntry || !m_pEntries) return 0;
  TIniItem* pSection = FindSection(pchSection);
  if (!pSection) return 0;
  TIniEntryKey key = {pSection, pchEntry};
  return static_cast<TIniItem*>(m_pEntries->Find(&key, 0));
}

TIniItem* CIniDoc::AddSection(const char* pchSection) {
  if (!pchSection || !m_pSections) return 0;
  TIniItem* pItem = NewItem(pchSection, 0, "", 0);
  if (!pItem) return 0;
  pItem->pNext = m_pFirst;
  if (m_pFirst) m_pFirst->pPrev = pItem;
  m_pFirst = pItem;
  m_pSections->Insert(pItem);
  return pItem;
}

TIniItem* CIniDoc::AddEntry(const char* pchSection, const char* pchEntry, const char* pchValue,
                            const char* pchComment) {
  if (!pchEntry || !pchValue) return 0;
  TIniItem* pSection = FindSection(pchSection);
  if (!pSection) pSection = AddSection(pchSection);
  if (!pSection) return 0;
  TIniItem* pItem = NewItem(pchEntry, pchValue, pchComment ? pchComment : "", 1);
  if (!pItem) return 0;
  pItem->pOwner = pSection;
  pItem->pNext = pSection->pOwner;
  if (pSection->pOwner) pSection->pOwner->pPrev = pItem;
  pSection->pOwner = pItem;
  if (pItem->pchName[0] && m_pEntries) m_pEntries->Insert(pItem);
  return pItem;
}

void CIniDoc::DeleteEntry(TIniItem* pItem) {
  if (!pItem || !pItem->pOwner) return;
  if (pItem->pPrev)
    pItem->pPrev->pNext = pItem->pNext;
  else
    pItem->pOwner->pOwner = pItem->pNext;
  if (pItem->pNext) pItem->pNext->pPrev = pItem->pPrev;
  UnhashEntry(pItem);
  FreeItem(pItem);
}

ERR CIniDoc::DeleteEntryByName(const char* pchSection, const char* pchEntry) {
  TIniItem* pItem = FindEntry(pchSection, pchEntry);
  if (!pItem) return ERR_NOTFOUND;
  DeleteEntry(pItem);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Values

const char* CIniDoc::GetValue(const char* pchSection, const char* pchEntry) {
  return EntryValue(FindEntry(pchSection, pchEntry));
}

ERR CIniDoc::GetString(const char* pchSection, const char* pchEntry, char* pchBuf, DWORD dwSize) {
  const char* pchValue = GetValue(pchSection, pchEntry);
  if (!pchValue) return ERR_NOTFOUND;
  if (dwSize == (DWORD)-1)
    strcpy(pchBuf, pchValue);
  else
    strncpy(pchBuf, pchValue, dwSize);
  return 0;
}

// Reads a whole value as a number: sign, then "0x" and hexadecimal digits, or decimal digits.
static ERR ParseInt(const char* p, LONG* plValue) {
  DWORD dwSign = 1, dwValue = 0;
  ERR err = 0;
  if (*p == '-') {
    dwSign = (DWORD)-1;
    p++;
  } else if (*p == '+') {
    p++;
  }
  if (p[0] == '0' && p[1] == 'x') {
    for (p += 2; *p; p++) {
      DWORD d;
      if (*p >= '0' && *p <= '9')
        d = (DWORD)(*p - '0');
      else if (*p >= 'a' && *p <= 'f')
        d = (DWORD)(*p - 'a' + 10);
      else if (*p >= 'A' && *p <= 'F')
        d = (DWORD)(*p - 'A' + 10);
      else {
        err = ERR_BADFORMAT;
        break;
      }
      dwValue = dwValue * 16 + d;
    }
  } else {
    for (; *p; p++) {
      if (*p < '0' || *p > '9') {
        err = ERR_BADFORMAT;
        break;
      }
      dwValue = dwValue * 10 + (DWORD)(*p - '0');
    }
  }
  *plValue = (LONG)(dwValue * dwSign);
  return err;
}

ERR CIniDoc::GetInt(const char* pchSection, const char* pchEntry, LONG* plValue) {
  const char* pchValue = GetValue(pchSection, pchEntry);
  if (!pchValue) return ERR_NOTFOUND;
  return ParseInt(pchValue, plValue);
}

ERR CIniDoc::SetString(const char* pchSection, const char* pchEntry, const char* pchValue) {
  TIniItem* pOld = FindEntry(pchSection, pchEntry);
  if (!pOld) {
    AddEntry(pchSection, pchEntry, pchValue, 0);
    return 0;
  }
  char szComment[512];
  strncpy(szComment, EntryComment(pOld), sizeof(szComment) - 1);
  szComment[sizeof(szComment) - 1] = 0;
  // The new record is made before the old one goes, so a value taken from the old record
  // is still there to be copied.
  AddEntry(pchSection, pchEntry, pchValue, szComment);
  DeleteEntry(pOld);
  return 0;
}

ERR CIniDoc::SetInt(const char* pchSection, const char* pchEntry, LONG lValue) {
  char szValue[16];
  snprintf(szValue, sizeof(szValue), "%ld", (long)lValue);
  return SetString(pchSection, pchEntry, szValue);
}

// ---------------------------------------------------------------------------------------------
// Loading

int CIniDoc::ReadChar() {
  if (m_dwReadPos >= m_dwReadCount) {
    DWORD dwRead = 0;
    m_pReadFile->Read(m_pReadBuf, INIDOC_READBUF, &dwRead);
    m_dwReadCount = dwRead <= INIDOC_READBUF ? dwRead : INIDOC_READBUF;
    m_dwReadPos = 0;
    if (!m_dwReadCount) return -1;
  }
  return m_pReadBuf[m_dwReadPos++];
}

static inline BOOL IsBlank(char c) { return c == ' ' || c == '\t'; }

// Trims spaces and tabs at both ends of [pchStart, pchEnd) in place; returns the start.
static char* Trim(char* pchStart, char* pchEnd) {
  while (pchStart < pchEnd && IsBlank(*pchStart)) pchStart++;
  while (pchEnd > pchStart && IsBlank(pchEnd[-1])) pchEnd--;
  *pchEnd = 0;
  return pchStart;
}

BOOL CIniDoc::ReadLine(char* pchLine, char** ppKey, char** ppValue, char** ppComment) {
  int c;
  do c = m_pReadFile && m_pReadBuf ? ReadChar() : -1;
  while (c == '\r' || c == '\n');
  if (c < 0) {
    pchLine[0] = 0;
    *ppKey = *ppValue = *ppComment = pchLine;
    return 0;
  }
  BOOL bMore = 1;
  DWORD i = 0;
  for (;;) {
    pchLine[i] = (char)c;
    if (i == INIDOC_MAXLINE) break;  // the character stored here gives way to the terminator
    i++;
    c = ReadChar();
    if (c < 0) {
      bMore = 0;
      break;
    }
    if (c == '\n' || c == '\r') break;
  }
  pchLine[i] = 0;

  char* pchEnd = pchLine + i;
  char* pchSemi = strchr(pchLine, ';');
  char* pchText = pchSemi ? pchSemi : pchEnd;  // end of key and value
  *ppComment = pchSemi ? pchSemi + 1 : pchEnd;
  *pchText = 0;
  char* pchEq = static_cast<char*>(memchr(pchLine, '=', (size_t)(pchText - pchLine)));
  if (pchEq) {
    *ppKey = Trim(pchLine, pchEq);
    *ppValue = Trim(pchEq + 1, pchText);
  } else {
    *ppKey = Trim(pchLine, pchText);
    *ppValue = pchText;  // empty: the terminator at the ';' or the line's end
  }
  return bMore;
}

// A key that is a section header: "[" first and "]" last.
static BOOL IsHeader(const char* pchKey) {
  size_t n = strlen(pchKey);
  return n >= 2 && pchKey[0] == '[' && pchKey[n - 1] == ']';
}

void CIniDoc::LinkSectionAtEnd(TIniItem* pSection, TIniItem** ppLast) {
  pSection->pPrev = *ppLast;
  if (*ppLast)
    (*ppLast)->pNext = pSection;
  else
    m_pFirst = pSection;
  *ppLast = pSection;
  m_pSections->Insert(pSection);
}

void CIniDoc::LinkEntryAtEnd(TIniItem* pSection, TIniItem* pEntry, TIniItem** ppLast) {
  pEntry->pOwner = pSection;
  pEntry->pPrev = *ppLast;
  if (*ppLast)
    (*ppLast)->pNext = pEntry;
  else
    pSection->pOwner = pEntry;
  *ppLast = pEntry;
  if (pEntry->pchName[0]) m_pEntries->Insert(pEntry);
}

ERR CIniDoc::Load(CFile* pFile) {
  if (!pFile) return ERR_BADPARAM;
  Clear();
  if (!m_pAlloc || !m_pSections || !m_pEntries) return 0;
  m_pReadBuf = static_cast<BYTE*>(m_pAlloc->Alloc(INIDOC_READBUF));
  if (!m_pReadBuf) return 0;
  m_pReadFile = pFile;
  m_dwReadCount = m_dwReadPos = 0;

  char szLine[INIDOC_MAXLINE + 1];
  char *pchKey, *pchValue, *pchComment;
  BOOL bMore;
  do bMore = ReadLine(szLine, &pchKey, &pchValue, &pchComment);
  while (bMore && !IsHeader(pchKey));

  TIniItem* pLastSection = 0;
  TIniItem* pSection = 0;
  TIniItem* pLastEntry = 0;
  if (bMore) {
    for (;;) {
      if (IsHeader(pchKey)) {
        pchKey[strlen(pchKey) - 1] = 0;
        TIniItem* pNew = NewItem(pchKey + 1, 0, pchComment, 0);
        if (pNew) {
          LinkSectionAtEnd(pNew, &pLastSection);
          pSection = pNew;
          pLastEntry = 0;
        }
      } else if ((pchKey[0] || pchComment[0]) && pSection) {
        TIniItem* pEntry = NewItem(pchKey, pchValue, pchComment, 1);
        if (pEntry) LinkEntryAtEnd(pSection, pEntry, &pLastEntry);
      }
      if (!bMore) break;
      bMore = ReadLine(szLine, &pchKey, &pchValue, &pchComment);
    }
  }
  m_pAlloc->Free(m_pReadBuf);
  m_pReadBuf = 0;
  m_pReadFile = 0;
  m_dwReadCount = m_dwReadPos = 0;
  return 0;
}

ERR CIniDoc::LoadFile(const char* pchPath) {
  ERR err = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, FILE_MODE_READ, &err) : 0;
  if (!pFile) return err ? err : ERR_FILE_OPEN;
  err = Load(pFile);
  delete pFile;
  return err;
}

// ---------------------------------------------------------------------------------------------
// Saving

static void WriteText(CFile* pFile, const char* pch) { pFile->Write(pch, (DWORD)strlen(pch), 0); }

ERR CIniDoc::Save(CFile* pFile) {
  if (!pFile) return ERR_BADPARAM;
  // Written piece by piece: the same bytes as the formats "[%s]\r\n", "[%s] ;%s\r\n", ";%s\r\n",
  // "%s=%s\r\n" and "%s=%s ;%s\r\n", with no limit on the length of a line.
  for (TIniItem* pSection = m_pFirst; pSection; pSection = pSection->pNext) {
    const char* pchComment = SectionComment(pSection);
    WriteText(pFile, "[");
    WriteText(pFile, pSection->pchName);
    if (pchComment[0]) {
      WriteText(pFile, "] ;");
      WriteText(pFile, pchComment);
      WriteText(pFile, "\r\n");
    } else {
      WriteText(pFile, "]\r\n");
    }
    for (TIniItem* pEntry = pSection->pOwner; pEntry; pEntry = pEntry->pNext) {
      pchComment = EntryComment(pEntry);
      if (!pEntry->pchName[0]) {
        WriteText(pFile, ";");
        WriteText(pFile, pchComment);
      } else {
        WriteText(pFile, pEntry->pchName);
        WriteText(pFile, "=");
        WriteText(pFile, EntryValue(pEntry));
        if (pchComment[0]) {
          WriteText(pFile, " ;");
          WriteText(pFile, pchComment);
        }
      }
      WriteText(pFile, "\r\n");
    }
    WriteText(pFile, "\r\n");
  }
  return 0;
}

ERR CIniDoc::SaveFile(const char* pchPath) {
  ERR err = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, FILE_MODE_WRITESEQ, &err) : 0;
  if (!pFile) return err ? err : ERR_FILE_OPEN;
  err = Save(pFile);
  delete pFile;
  return err;
}

// ---------------------------------------------------------------------------------------------
// Typed readers

#define DOC_VALUE_MAX 128

// The value into a 128-byte buffer, blanks at its start skipped.
static ERR DocValue(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, char* pchBuf, char** ppch) {
  if (!pDoc) return ERR_BADPARAM;
  const char* pchValue = pDoc->GetValue(pchSection, pchEntry);
  if (!pchValue) return ERR_NOTFOUND;
  size_t n = strlen(pchValue);
  if (n >= DOC_VALUE_MAX) return ERR_BUFSMALL;
  memcpy(pchBuf, pchValue, n + 1);
  char* p = pchBuf;
  while (IsBlank(*p)) p++;
  *ppch = p;
  return 0;
}

// Optional blanks, an optional sign, decimal digits up to another character; 0 without any.
static LONG ConvertNumber(const char* p) {
  while (IsBlank(*p)) p++;
  DWORD dwSign = 1, dwValue = 0;
  if (*p == '-' || *p == '+') {
    if (*p == '-') dwSign = (DWORD)-1;
    p++;
  }
  while (*p >= '0' && *p <= '9') dwValue = dwValue * 10 + (DWORD)(*p++ - '0');
  return (LONG)(dwValue * dwSign);
}

// Past the digits at p (a sign is not passed over), then on to the character after the next
// ','; null when the text ends first.
static char* NextField(char* p) {
  while (*p >= '0' && *p <= '9') p++;
  while (*p && *p != ',') p++;
  if (!*p) return 0;
  p++;
  while (IsBlank(*p)) p++;
  return p;
}

// Reads dwCount numbers; each is stored before the next is looked for.
static ERR DocNumbers(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, LONG* alValues,
                      DWORD dwCount, void (*pfnStore)(DWORD, LONG, void*), void* pCtx) {
  char szBuf[DOC_VALUE_MAX];
  char* p;
  ERR err = DocValue(pDoc, pchSection, pchEntry, szBuf, &p);
  if (err) return err;
  for (DWORD i = 0; i < dwCount; i++) {
    alValues[i] = ConvertNumber(p);
    pfnStore(i, alValues[i], pCtx);
    if (i + 1 == dwCount) break;
    p = NextField(p);
    if (!p) return ERR_BADFORMAT;
  }
  return 0;
}

static void StoreColor(DWORD i, LONG l, void* pCtx) {
  BYTE* pb = static_cast<BYTE*>(pCtx);
  pb[2 - i] = (BYTE)l;
  if (i == 2) pb[3] = 0;  // cleared once the last field is in, as the store's reader does
}

static void StoreShort(DWORD i, LONG l, void* pCtx) { *static_cast<SHORT**>(pCtx)[i] = (SHORT)l; }

ERR DocGetColor(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, void* pColor) {
  LONG al[3];
  return DocNumbers(pDoc, pchSection, pchEntry, al, 3, StoreColor, pColor);
}

ERR DocGetPoint(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, SHORT* pnX, SHORT* pnY) {
  LONG al[2];
  SHORT* apn[2] = {pnX, pnY};
  return DocNumbers(pDoc, pchSection, pchEntry, al, 2, StoreShort, apn);
}

ERR DocGetRect(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
               SHORT* pnRight, SHORT* pnBottom) {
  LONG al[4];
  SHORT* apn[4] = {pnLeft, pnTop, pnRight, pnBottom};
  return DocNumbers(pDoc, pchSection, pchEntry, al, 4, StoreShort, apn);
}

// Width and height arrive as the third and fourth numbers; they are stored as the right and
// bottom edges, counted from the left and top read before them.
struct TBoxCtx {
  SHORT* apn[4];
  LONG al[2];
};

static void StoreBox(DWORD i, LONG l, void* pCtx) {
  TBoxCtx* pBox = static_cast<TBoxCtx*>(pCtx);
  if (i < 2) {
    pBox->al[i] = l;
    *pBox->apn[i] = (SHORT)l;
  } else {
    *pBox->apn[i] = (SHORT)((DWORD)pBox->al[i - 2] + (DWORD)l - 1);  // wraps at 32 bits
  }
}

ERR DocGetBox(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
              SHORT* pnRight, SHORT* pnBottom) {
  LONG al[4];
  TBoxCtx box = {{pnLeft, pnTop, pnRight, pnBottom}, {0, 0}};
  return DocNumbers(pDoc, pchSection, pchEntry, al, 4, StoreBox, &box);
}

// Keywords from p on, ORed into *pdwFlags; ERR_INI_BADKEYWORD for one not in the table.
static ERR ReadKeywords(char* p, const TIniFlag* pTable, DWORD* pdwFlags) {
  for (;;) {
    char* pchEnd = strchr(p, ',');
    const TIniFlag* pFlag = pTable;
    while (pFlag && pFlag->pchName && strncmp(pFlag->pchName, p, strlen(pFlag->pchName)) != 0) pFlag++;
    if (!pFlag || !pFlag->pchName) return ERR_INI_BADKEYWORD;
    *pdwFlags |= pFlag->dwValue;
    if (!pchEnd) return 0;
    p = pchEnd + 1;
    while (IsBlank(*p)) p++;
  }
}

ERR DocGetFlags(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                DWORD* pdwFlags) {
  char szBuf[DOC_VALUE_MAX];
  char* p;
  ERR err = DocValue(pDoc, pchSection, pchEntry, szBuf, &p);
  if (err) return err;
  DWORD dwFlags = 0;
  err = ReadKeywords(p, pTable, &dwFlags);
  if (!err) *pdwFlags = dwFlags;
  return err;
}

ERR DocGetStrNumFlags(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                      char* pchText, SHORT* pnNumber, DWORD* pdwFlags) {
  char szBuf[DOC_VALUE_MAX];
  char* p;
  ERR err = DocValue(pDoc, pchSection, pchEntry, szBuf, &p);
  if (err) return err;
  // As in the store's reader, a value without a comma is copied whole and then refused.
  char* pchComma = strchr(p, ',');
  size_t nText = pchComma ? (size_t)(pchComma - p) : strlen(p);
  memcpy(pchText, p, nText);
  pchText[nText] = 0;
  if (!pchComma) return ERR_BADFORMAT;
  p = pchComma + 1;
  while (IsBlank(*p)) p++;
  *pnNumber = (SHORT)ConvertNumber(p);
  p = NextField(p);
  if (!p) {
    *pdwFlags = 0;
    return 0;
  }
  return ReadKeywords(p, pTable, pdwFlags);
}

ERR DocGetField(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, WORD wIndex, char* pchBuf) {
  char szBuf[DOC_VALUE_MAX];
  char* p;
  ERR err = DocValue(pDoc, pchSection, pchEntry, szBuf, &p);
  if (err) return err;
  for (WORD w = 0; w < wIndex; w++) {
    p = strchr(p, ',');
    if (!p) return ERR_NOTFOUND;
    p++;
    while (IsBlank(*p)) p++;
  }
  size_t n = strcspn(p, ",");
  memcpy(pchBuf, p, n);
  pchBuf[n] = 0;
  return 0;
}

ERR DocGetFieldInt(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, WORD wIndex, LONG* plValue) {
  char szField[DOC_VALUE_MAX];
  ERR err = DocGetField(pDoc, pchSection, pchEntry, wIndex, szField);
  if (err) return err;
  // The number is read from the field's first 63 characters, as the store's reader does.
  szField[63] = 0;
  *plValue = ConvertNumber(szField);
  return 0;
}

ERR DocGetId(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, LONG* plValue) {
  char szBuf[DOC_VALUE_MAX];
  char* p;
  ERR err = DocValue(pDoc, pchSection, pchEntry, szBuf, &p);
  if (err) return err;
  if (szBuf[0] >= '0' && szBuf[0] <= '9') return pDoc->GetInt(pchSection, pchEntry, plValue);
  return pDoc->GetInt(szBuf, "ID", plValue);
}
