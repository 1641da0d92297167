// Pack files: one read-only file holding many named files whole, mounted as a volume under a
// prefix such as "pak:\" so that packed files open by path like any other.
#include "files/packfile.h"

#include <string.h>

IMPLEMENT_CLASS(CPackFile, 0x3000602, CFile)
IMPLEMENT_CLASS(CPackFS, 0x3000601, CFS)

namespace {

// Copies pchName into a mount name of szName's size, ending it with a backslash.
void MakeMountName(char* pchOut, size_t nSize, const char* pchName) {
  size_t n = pchName ? strlen(pchName) : 0;
  if (n > nSize - 2) n = nSize - 2;
  memcpy(pchOut, pchName ? pchName : "", n);
  if (!n || pchOut[n - 1] != '\\') pchOut[n++] = '\\';
  pchOut[n] = 0;
}

// Upper-cases a path (which has lost its prefix) into a key buffer of DICT_WORD_BUF bytes.
// 0 for a null path or one too long to be a stored name.
BOOL MakeLookupName(char* pchOut, const char* pchPath) {
  if (!pchPath) return 0;
  size_t n = strlen(pchPath);
  if (n > PACK_MAX_NAME) return 0;
  for (size_t i = 0; i <= n; i++) {
    char ch = pchPath[i];
    pchOut[i] = ch >= 'a' && ch <= 'z' ? (char)(ch - 'a' + 'A') : ch;
  }
  return 1;
}

// Checks a directory before a dictionary is made over it: whole entries that fill it exactly,
// dwCount of them, upper-case names without 0 bytes that ascend strictly by byte with the shared
// count the front coding needs, and contents that lie inside the pack. Lookups depend on all of it.
BOOL DirectoryIsSound(const BYTE* pDir, DWORD dwDirSize, DWORD dwCount, DWORD dwPackSize) {
  BYTE abPrev[DICT_WORD_BUF];
  BYTE abWord[DICT_WORD_BUF];
  DWORD dwPrevLen = 0;
  DWORD dwOfs = 0;
  DWORD dwEntries = 0;
  while (dwOfs < dwDirSize) {
    if (dwDirSize - dwOfs < 2) return 0;
    DWORD dwLen = pDir[dwOfs];
    DWORD dwShared = pDir[dwOfs + 1];
    if (!dwLen || dwLen > PACK_MAX_NAME || dwShared > dwLen || dwShared > dwPrevLen) return 0;
    DWORD dwSize = 2 + (dwLen - dwShared) + PACK_USER_DATA;
    if (dwSize > dwDirSize - dwOfs) return 0;
    memcpy(abWord, abPrev, dwShared);
    memcpy(abWord + dwShared, pDir + dwOfs + 2, dwLen - dwShared);
    // Lookups are in upper case and by C string: a lower-case letter or a 0 byte makes a name
    // that can never be found.
    for (DWORD i = dwShared; i < dwLen; i++)
      if (!abWord[i] || (abWord[i] >= 'a' && abWord[i] <= 'z')) return 0;
    if (dwEntries) {
      // The shared count must be exactly the common start, and the name must sort after the last.
      DWORD dwMin = dwLen < dwPrevLen ? dwLen : dwPrevLen;
      DWORD i = 0;
      while (i < dwMin && abWord[i] == abPrev[i]) i++;
      if (i != dwShared) return 0;
      if (i == dwMin ? dwLen <= dwPrevLen : abWord[i] < abPrev[i]) return 0;
    }
    const BYTE* pUser = pDir + dwOfs + 2 + (dwLen - dwShared);
    uint64_t qEnd = (uint64_t)GetLE32(pUser) + GetLE32(pUser + 4);
    if (qEnd > dwPackSize) return 0;
    memcpy(abPrev, abWord, dwLen);
    dwPrevLen = dwLen;
    dwOfs += dwSize;
    dwEntries++;
  }
  return dwEntries == dwCount;
}

// Seeks a file to an offset that may be above the largest LONG.
ERR SeekFar(CFile* pFile, DWORD dwOfs) {
  if (dwOfs <= 0x7FFFFFFFu) return pFile->Seek((LONG)dwOfs, FILE_BEGIN);
  ERR err = pFile->Seek(0x7FFFFFFF, FILE_BEGIN);
  if (err) return err;
  return pFile->Seek((LONG)(dwOfs - 0x7FFFFFFFu), FILE_CURRENT);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// CPackFile

CPackFile::CPackFile(CFile* pPack, DWORD dwBase, DWORD dwSize)
    : CFile(0, 0), m_pPack(pPack), m_dwBase(dwBase), m_dwSize(dwSize), m_dwPos(0) {}

ERR CPackFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  // The count is stored only after a good read: a failing seek or read leaves it as it was.
  DWORD dwLeft = m_dwPos < m_dwSize ? m_dwSize - m_dwPos : 0;
  DWORD dwWant = dwCount < dwLeft ? dwCount : dwLeft;
  BOOL bShort = dwWant < dwCount;
  DWORD dwDone = 0;
  // A position past the last byte (a seek on an empty file) has nothing to seek to.
  if (dwLeft) {
    ERR err = SeekFar(m_pPack, m_dwBase + m_dwPos);
    if (err) {
      ASSERT_TEXT(err == ERR_NOERR, "err==ERR_NOERR");
      return err;
    }
    if (dwWant) {
      err = m_pPack->Read(pBuf, dwWant, &dwDone);
      if (err) {
        ASSERT_TEXT(err == ERR_NOERR, "err==ERR_NOERR");
        return err;
      }
    }
  }
  m_dwPos += dwDone;
  if (pdwRead) *pdwRead = dwDone;
  if (bShort && !pdwRead) return ERR_FILE_EOF;
  return ERR_NOERR;
}

ERR CPackFile::Write(const void*, DWORD, DWORD*) {
  // Nothing is written and no count is stored.
  ASSERT(FALSE);
  return ERR_NOERR;
}

ERR CPackFile::Seek(LONG lOfs, SHORT wOrigin) {
  DWORD dwLast = m_dwSize - 1;
  switch (wOrigin) {
    case FILE_BEGIN:
      m_dwPos = (DWORD)lOfs < m_dwSize ? (DWORD)lOfs : dwLast;
      break;
    case FILE_CURRENT:
      m_dwPos = m_dwPos + (DWORD)lOfs < m_dwSize ? m_dwPos + (DWORD)lOfs : dwLast;
      break;
    case FILE_END:
      m_dwPos = lOfs < 0 ? dwLast + (DWORD)lOfs : dwLast;
      break;
    default:
      break;
  }
  return ERR_NOERR;
}

DWORD CPackFile::GetSize() { return m_dwSize; }

DWORD CPackFile::GetPos() { return m_dwPos; }

ERR CPackFile::Flush() {
  ERR err = m_pPack ? m_pPack->Flush() : ERR_NOERR;
  ASSERT_TEXT(err == ERR_NOERR, "err==ERR_NOERR");
  return ERR_NOERR;
}

ERR CPackFile::Truncate() {
  ASSERT(FALSE);
  return ERR_NOERR;
}

// ---------------------------------------------------------------------------------------------
// CPackFS

CPackFS::CPackFS(CFile* pFile) : m_pFile(pFile), m_pDict(0) { m_szName[0] = 0; }

CPackFS::~CPackFS() {
  if (m_pDict) delete m_pDict;
  m_pDict = 0;
  if (m_pFile) delete m_pFile;
  m_pFile = 0;
}

ERR CPackFS::Load(const char* pchName, BOOL* pbAbandon) {
  *pbAbandon = 0;
  MakeMountName(m_szName, sizeof(m_szName), pchName);
  BYTE abHeader[PACK_HEADER_SIZE];
  DWORD dwRead = 0;
  ERR err = m_pFile->Seek(0, FILE_BEGIN);
  if (!err) err = m_pFile->Read(abHeader, PACK_HEADER_SIZE, &dwRead);
  if (err || dwRead < PACK_HEADER_SIZE) {
    ASSERT(FALSE);
    return ERR_PACK_READ;
  }
  if (memcmp(abHeader, PACK_MAGIC, PACK_MAGIC_SIZE) != 0) {
    ASSERT(FALSE);
    return ERR_PACK_BADPACK;
  }
  DWORD dwCount = GetLE32(abHeader + PACK_COUNT_OFS);
  DWORD dwDirSize = GetLE32(abHeader + PACK_DIRSIZE_OFS);
  if (!dwDirSize || !dwCount) {
    *pbAbandon = 1;
    return ERR_PACK_BADPACK;
  }
  // A directory that runs past the file can't be read: find out before asking for its memory.
  DWORD dwPackSize = m_pFile->GetSize();
  if (dwPackSize < PACK_HEADER_SIZE || dwDirSize > dwPackSize - PACK_HEADER_SIZE) {
    ASSERT(FALSE);
    return ERR_PACK_READ;
  }
  DWORD hDir = HANDLE_ALLOC(dwDirSize);
  if (!hDir) {
    ASSERT(FALSE);
    return ERR_PACK_NOMEM;
  }
  // A lock that fails counts as a failed read of the directory.
  BYTE* pDir = static_cast<BYTE*>(HANDLE_LOCK(hDir));
  if (!pDir) {
    ASSERT(FALSE);
    HANDLE_FREE(hDir);
    return ERR_PACK_READ;
  }
  dwRead = 0;
  err = m_pFile->Read(pDir, dwDirSize, &dwRead);
  if (err || dwRead < dwDirSize) {
    ASSERT(FALSE);
    HANDLE_UNLOCK(hDir);
    HANDLE_FREE(hDir);
    return ERR_PACK_READ;
  }
  if (!DirectoryIsSound(pDir, dwDirSize, dwCount, dwPackSize)) {
    ASSERT(FALSE);
    HANDLE_UNLOCK(hDir);
    HANDLE_FREE(hDir);
    return ERR_PACK_BADPACK;
  }
  m_pDict = new CDictionary(PACK_USER_DATA, 4, hDir, dwDirSize, dwCount, 0, 0, PACK_INDEX_STEP);
  if (!m_pDict) {
    ASSERT(FALSE);
    HANDLE_UNLOCK(hDir);
    HANDLE_FREE(hDir);
    return ERR_PACK_READ;
  }
  // The dictionary owns the block from here on.
  HANDLE_UNLOCK(hDir);
  return ERR_NOERR;
}

CFile* CPackFS::Open(const char* pchPath, WORD wMode, ERR* pErr) {
  if (pErr) *pErr = ERR_NOERR;
  if (wMode != 0 && wMode != 1) {
    ASSERT(FALSE);
    if (pErr) *pErr = ERR_PACK_BADMODE;
    return 0;
  }
  char szName[DICT_WORD_BUF];
  BYTE abData[PACK_USER_DATA];
  if (!MakeLookupName(szName, pchPath) || !m_pDict || !m_pDict->GetData(szName, abData)) {
    if (pErr) *pErr = ERR_FILE_NOTFOUND;
    return 0;
  }
  if (!m_pFile) {
    if (pErr) *pErr = ERR_FILE_NOMEM;
    return 0;
  }
  CPackFile* pFile = new CPackFile(m_pFile, GetLE32(abData), GetLE32(abData + 4));
  if (!pFile && pErr) *pErr = ERR_FILE_NOMEM;
  return pFile;
}

DWORD CPackFS::GetFileOffset(const char* pchPath, ERR* pErr) {
  if (pErr) *pErr = ERR_NOERR;
  char szName[DICT_WORD_BUF];
  BYTE abData[PACK_USER_DATA];
  if (!MakeLookupName(szName, pchPath) || !m_pDict || !m_pDict->GetData(szName, abData)) {
    if (pErr) *pErr = ERR_FILE_NOTFOUND;
    return 0;
  }
  return GetLE32(abData);
}

// ---------------------------------------------------------------------------------------------
// Mounting

ERR PackMount(CFile* pFile, const char* pchName) {
  if (!pFile || !pFile->IsValid()) {
    if (pFile) delete pFile;
    return ERR_PACK_BADPACK;
  }
  CPackFS* pVol = new CPackFS(pFile);
  if (!pVol) return ERR_PACK_NOMEM;
  BOOL bAbandon;
  ERR err = pVol->Load(pchName, &bAbandon);
  if (err) {
    if (!bAbandon) delete pVol;
    return err;
  }
  // A full table refuses the volume (with an assertion) and the mount still reports success:
  // later opens under the name find nothing. The refused volume is deleted, file and all, rather
  // than left allocated with no owner.
  WORD wBefore = g_wCount;
  FSAdd(pVol->GetName(), pVol, 0);
  if (g_wCount == wBefore) delete pVol;
  return ERR_NOERR;
}

void PackUnmount(const char* pchName) {
  char szName[150];
  MakeMountName(szName, sizeof(szName), pchName);
  CFS* pVol = FSRemove(szName);
  if (pVol) delete pVol;
}

CPackFS* PackOpen(CFile* pFile, const char* pchName) {
  if (!pFile || !pFile->IsValid()) {
    if (pFile) delete pFile;
    return 0;
  }
  CPackFS* pVol = new CPackFS(pFile);
  if (!pVol) return 0;
  BOOL bAbandon;
  if (pVol->Load(pchName, &bAbandon)) {
    if (!bAbandon) delete pVol;
    return 0;
  }
  return pVol;
}
