// Abstract file and volume, the volume table that maps path prefixes to volumes, and the free
// functions through which every file of the system is opened.
#include "files/file.h"

#include <string.h>

IMPLEMENT_CLASS(CFile, 0x3010000, CObject)
IMPLEMENT_CLASS(CFS, 0x3020000, CObject)

TFSEntry* g_pFS = 0;
WORD g_wCount = 0;
WORD g_wMaxFS = 0;

TDriveInfo g_DriveInfo[MAX_DRIVES];
BYTE g_btVNum = 0;
TVolInfo* g_pSysVol = 0;
TVolInfo* g_pCurVol = 0;
TVolInfo* g_pExeVol = 0;

PFN_FILEOPEN g_pfnFileOpen = FileOpen;

// ---------------------------------------------------------------------------------------------
// Prefix comparison: only A to Z are folded, so names compare the same on every code page.

static int FoldChar(char ch) {
  unsigned char c = static_cast<unsigned char>(ch);
  if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c - 'A' + 'a');
  return c;
}

// Compares at most nLen characters of the two strings, folding A to Z; stops at a terminator.
static int FoldCompareN(const char* pchA, const char* pchB, size_t nLen) {
  for (size_t i = 0; i < nLen; i++) {
    int a = FoldChar(pchA[i]);
    int b = FoldChar(pchB[i]);
    if (a != b) return a - b;
    if (!a) break;
  }
  return 0;
}

static int FoldCompare(const char* pchA, const char* pchB) {
  return FoldCompareN(pchA, pchB, static_cast<size_t>(-1));
}

// ---------------------------------------------------------------------------------------------
// CFile: the base class does nothing and reports success, so a derived file overrides only
// what it supports.

CFile::CFile(CFile* pMedia, BOOL bOwnMedia)
    : m_wMode(0),
      m_bValid(0),
      m_nMemImages(0),
      m_pMedia(pMedia),
      m_bOwnMedia(static_cast<DWORD>(bOwnMedia)) {}

// The media is deleted by the derived class that wraps it, which knows when it may go.
CFile::~CFile() { ASSERT(!m_nMemImages); }

ERR CFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) { return 0; }

ERR CFile::ReadAt(void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwRead) {
  ERR err = Seek(static_cast<LONG>(dwOfs), FILE_BEGIN);
  if (err) return err;
  return Read(pBuf, dwCount, pdwRead);
}

ERR CFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) { return 0; }

ERR CFile::WriteAt(const void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwWritten) {
  ERR err = Seek(static_cast<LONG>(dwOfs), FILE_BEGIN);
  if (err) return err;
  return Write(pBuf, dwCount, pdwWritten);
}

ERR CFile::Seek(LONG lOfs, SHORT wOrigin) { return 0; }
DWORD CFile::GetSize() { return 0; }
DWORD CFile::GetPos() { return 0; }
ERR CFile::Flush() { return 0; }
ERR CFile::Truncate() { return 0; }

ERR CFile::Move(DWORD dwDest, DWORD dwSrc, DWORD dwCount, DWORD dwBufSize, void* pBuf) {
  DWORD dwSize = GetSize();
  if (dwSrc > dwSize) return 0;
  // Written so that dwSrc + dwCount cannot wrap around.
  if (dwCount > dwSize - dwSrc) dwCount = dwSize - dwSrc;
  if (!dwCount) return 0;

  void* pAlloc = 0;
  if (!pBuf) {
    pAlloc = MEM_ALLOC(dwBufSize);
    if (!pAlloc) return ERR_FILE_NOMEM;
    pBuf = pAlloc;
  }

  // A buffer of no size would never make progress.
  if (dwBufSize) {
    if (dwSrc < dwDest) {
      // The destination lies above the source: copy from the end down, so no byte is
      // overwritten before it has been read.
      dwSrc += dwCount;
      dwDest += dwCount;
      while (dwCount) {
        DWORD dwChunk = dwCount < dwBufSize ? dwCount : dwBufSize;
        dwSrc -= dwChunk;
        dwDest -= dwChunk;
        if (ReadAt(pBuf, dwSrc, dwChunk, 0)) break;
        if (WriteAt(pBuf, dwDest, dwChunk, 0)) break;
        dwCount -= dwChunk;
      }
    } else {
      while (dwCount) {
        DWORD dwChunk = dwCount < dwBufSize ? dwCount : dwBufSize;
        if (ReadAt(pBuf, dwSrc, dwChunk, 0)) break;
        if (WriteAt(pBuf, dwDest, dwChunk, 0)) break;
        dwSrc += dwChunk;
        dwDest += dwChunk;
        dwCount -= dwChunk;
      }
    }
  }

  if (pAlloc) MEM_FREE(pAlloc);
  // A failed chunk is not reported: callers treat a move as done.
  return 0;
}

ERR CFile::LoadImage(DWORD dwOfs, DWORD dwSize, void** ppImage) {
  void* pImage = MEM_ALLOC(dwSize);
  *ppImage = pImage;
  if (!pImage) return ERR_FILE_NOMEM;
  ERR err = ReadAt(pImage, dwOfs, dwSize, 0);
  if (err) {
    MEM_FREE(pImage);
    *ppImage = 0;
    return err;
  }
  m_nMemImages++;
  return 0;
}

ERR CFile::FreeImage(void* pImage) {
  ASSERT(pImage);
  ASSERT(m_nMemImages);
  if (pImage) MEM_FREE(pImage);
  // An unbalanced release still counts down, below 0.
  m_nMemImages--;
  return 0;
}

DWORD_PTR CFile::GetBase() { return 0; }
DWORD CFile::Reserved() { return 0; }

ERR CFile::GetProperty(DWORD dwPID, void* pValue, DWORD dwSize) { return ERR_FILE_UNKNOWNPID; }

ERR CFile::SetProperty(DWORD dwPID, void* pValue, DWORD dwSize) { return ERR_FILE_UNKNOWNPID; }

// ---------------------------------------------------------------------------------------------
// CFS: a volume that has nothing and supports nothing.

CFile* CFS::Open(const char* pchPath, WORD wMode, ERR* pErr) { return 0; }
BOOL CFS::Exists(const char* pchPath) { return 0; }
ERR CFS::Delete(const char* pchPath) { return ERR_NOTIMPL; }
ERR CFS::Rename(const char* pchOld, const char* pchNew) { return ERR_NOTIMPL; }
ERR CFS::CreateDir(const char* pPath, const char* pDirName) { return ERR_NOTIMPL; }
ERR CFS::RemoveDir(const char* pPath, const char* pDirName) { return ERR_NOTIMPL; }
ERR CFS::FindFirst(TFindInfo* pInfo, const char* pPath) { return ERR_NOTIMPL; }
ERR CFS::FindNext(TFindInfo* pInfo) { return ERR_NOTIMPL; }
ERR CFS::FindClose(TFindInfo* pInfo) { return ERR_NOTIMPL; }
ERR CFS::ReservedOp1(const char* pPath, DWORD x, DWORD y) { return ERR_NOTIMPL; }
ERR CFS::ReservedOp2(const char* pPath, DWORD x, DWORD y) { return ERR_NOTIMPL; }

DWORD CFS::GetFileOffset(const char* pchPath, ERR* pErr) {
  if (pErr) *pErr = 0;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// The volume table.

// Error texts of the file services. Registered once per run: the registry is never emptied,
// so a second FSInit must not add them again.
static const TErrEntry s_FileTexts[] = {
    {ERR_FILE_GENERAL, "General file service error"},
    {ERR_FILE_NOMEM, "Not enough memory"},
    {ERR_FILE_READ, "Read fail"},
    {ERR_FILE_WRITE, "Write fail"},
    {ERR_FILE_EOF, "End of file"},
    {ERR_FILE_BADMODE, "Bad open mode"},
    {ERR_FILE_SEEK, "Seek fail"},
    {ERR_FILE_NOTFOUND, "File not found"},
    {ERR_FILE_BADFORMAT, "Bad file format"},
    {ERR_FILE_OPEN, "Open file"},
    {ERR_FILE_TRUNCATE, "File truncation fail"},
    {ERR_FILE_FLUSH, "File flush fail"},
    {ERR_FILE_PATHNOTFOUND, "Path not found"},
    {ERR_FILE_ACCESS, "File access denied"},
    {ERR_FILE_EXIST, "File exist"},
    {ERR_FILE_NOMOREFILES, "No more files"},
    {ERR_FILE_NOTREADY, "Drive not ready"},
    {ERR_FILE_NOVOLUME, "Volume not found"},
    {ERR_FILE_TOOMANY, "Too many open files"},
    {ERR_FILE_WRITEPROTECT, "Write protected"},
    {ERR_FILE_BADVOLUME, "Bad volume"},
    {ERR_FILE_DISKFULL, "Disk full"},
    {ERR_FILE_SHARING, "Sharing violation"},
    {ERR_FILE_UNKNOWNPID, "Unknown PID"},
};

static BOOL s_bTextsAdded = FALSE;

static TVolInfo* NewVolInfo() {
  TVolInfo* pInfo = static_cast<TVolInfo*>(MEM_ALLOC(sizeof(TVolInfo)));
  if (pInfo) memset(pInfo, 0, sizeof(TVolInfo));
  return pInfo;
}

static void FreeVolInfo(TVolInfo** ppInfo) {
  if (*ppInfo) MEM_FREE(*ppInfo);
  *ppInfo = 0;
}

ERR FSInit(WORD wMaxFS) {
  g_wMaxFS = wMaxFS;
  g_wCount = 0;
  g_pFS = static_cast<TFSEntry*>(MEM_ALLOC(static_cast<DWORD>(wMaxFS) * sizeof(TFSEntry)));
  if (g_pFS) memset(g_pFS, 0, static_cast<size_t>(wMaxFS) * sizeof(TFSEntry));

  memset(g_DriveInfo, 0, sizeof(g_DriveInfo));
  g_btVNum = 0;
  g_pSysVol = NewVolInfo();
  g_pExeVol = NewVolInfo();
  g_pCurVol = NewVolInfo();

  if (!s_bTextsAdded) {
    s_bTextsAdded = TRUE;
    ErrAddModule(ERR_FILE_MODULE, "FILES");
    for (const TErrEntry& t : s_FileTexts) ErrAddText(t.err, t.pchText);
  }
  return 0;
}

ERR FSDone() {
  FreeVolInfo(&g_pSysVol);
  FreeVolInfo(&g_pExeVol);
  FreeVolInfo(&g_pCurVol);
  if (g_pFS) {
    for (WORD i = 0; i < g_wCount && i < g_wMaxFS; i++) {
      delete g_pFS[i].pVol;
      g_pFS[i].pVol = 0;
    }
    MEM_FREE(g_pFS);
    g_pFS = 0;
  }
  // g_wCount keeps its value; nothing reads it without a table.
  return 0;
}

ERR FSAdd(const char* pchName, CFS* pVol, DWORD dwFlags) {
  ASSERT_TEXT(g_pFS && g_wCount < g_wMaxFS, "g_pFS && g_wCount<g_wMaxFS");
  // A full or missing table refuses the volume instead of writing past its end.
  if (!g_pFS || g_wCount >= g_wMaxFS) return ERR_OUTOFRANGE;
  if (!pchName) pchName = "";

  WORD wAt = g_wCount;
  for (WORD i = 0; i < g_wCount; i++) {
    int n = FoldCompare(pchName, g_pFS[i].pchName);
    // The same prefix twice: the new record goes after the old, which keeps winning.
    ASSERT(n);
    if (n < 0) {
      wAt = i;
      break;
    }
  }
  memmove(&g_pFS[wAt + 1], &g_pFS[wAt], (g_wCount - wAt) * sizeof(TFSEntry));
  g_pFS[wAt].dwFlags = dwFlags;
  g_pFS[wAt].pchName = pchName;
  g_pFS[wAt].pVol = pVol;
  g_wCount++;
  return 0;
}

CFS* FSRemove(const char* pchName) {
  const char* pchRest = pchName ? pchName : "";
  WORD wMaxLen = 0xFFFF;
  WORD wIndex = 0;
  CFS* pVol = FSFind(&pchRest, &wMaxLen, &wIndex);
  // Only a name that is exactly a registered prefix takes a volume out.
  if (!pVol || *pchRest) return 0;
  memmove(&g_pFS[wIndex], &g_pFS[wIndex + 1], (g_wCount - wIndex - 1) * sizeof(TFSEntry));
  g_wCount--;
  memset(&g_pFS[g_wCount], 0, sizeof(TFSEntry));
  return pVol;
}

CFS* FSFind(const char** ppchPath, WORD* pwMaxLen, WORD* pwIndex) {
  if (!g_pFS || !ppchPath) return 0;
  const char* pchPath = *ppchPath;
  WORD wLimit = pwMaxLen ? *pwMaxLen : 0xFFFF;
  WORD wStart = pwIndex ? *pwIndex : 0;
  WORD wCount = g_wCount < g_wMaxFS ? g_wCount : g_wMaxFS;

  long lBest = -1;
  WORD wBest = 0;
  for (WORD i = wStart; i < wCount; i++) {
    const char* pchName = g_pFS[i].pchName ? g_pFS[i].pchName : "";
    size_t nLen = strlen(pchName);
    BOOL bMatch = nLen == 0 || (pchPath && FoldCompareN(pchPath, pchName, nLen) == 0);
    if (!bMatch || static_cast<long>(nLen) <= lBest) continue;
    if (nLen > wLimit) break;
    lBest = static_cast<long>(nLen);
    wBest = i;
  }
  if (lBest < 0) return 0;

  if (pwIndex) *pwIndex = wBest;
  if (pchPath) *ppchPath = pchPath + lBest;
  if (pwMaxLen) *pwMaxLen = static_cast<WORD>(lBest);
  return g_pFS[wBest].pVol;
}

ERR VolGetInfo(BYTE btNum, TDriveInfo* pInfo) {
  ASSERT_TEXT(btNum < g_btVNum, "btNum<g_btVNum");
  // Never read outside the table, whatever the count says.
  if (btNum < MAX_DRIVES && pInfo) *pInfo = g_DriveInfo[btNum];
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Free functions.

// The volume of pchPath, with *ppchRest set to the path without its prefix; null if none.
static CFS* SelectVolume(const char* pchPath, const char** ppchRest) {
  *ppchRest = pchPath;
  WORD wMaxLen = 0xFFFF;
  WORD wIndex = 0;
  return FSFind(ppchRest, &wMaxLen, &wIndex);
}

CFile* FileOpen(const char* pchPath, WORD wMode, ERR* pErr) {
  const char* pchRest;
  CFS* pVol = SelectVolume(pchPath, &pchRest);
  if (!pVol) return 0;
  return pVol->Open(pchRest, wMode, pErr);
}

BOOL FileExists(const char* pchPath) {
  const char* pchRest;
  CFS* pVol = SelectVolume(pchPath, &pchRest);
  if (!pVol) return 0;
  return pVol->Exists(pchRest);
}

ERR FileDelete(const char* pchPath) {
  const char* pchRest;
  CFS* pVol = SelectVolume(pchPath, &pchRest);
  if (!pVol) return ERR_FILE_GENERAL;
  return pVol->Delete(pchRest);
}

ERR FileRename(const char* pchOld, const char* pchNew) {
  const char* pchOldRest;
  const char* pchNewRest;
  CFS* pOld = SelectVolume(pchOld, &pchOldRest);
  CFS* pNew = SelectVolume(pchNew, &pchNewRest);
  // A file cannot move from one volume to another.
  if (!pOld || pOld != pNew) return ERR_NOTIMPL;
  return pOld->Rename(pchOldRest, pchNewRest);
}

ERR DirCreate(const char* pPath, const char* pDirName) {
  const char* pchRest;
  CFS* pVol = SelectVolume(pPath, &pchRest);
  if (!pVol) return ERR_FILE_GENERAL;
  return pVol->CreateDir(pchRest, pDirName);
}

ERR DirRemove(const char* pPath, const char* pDirName) {
  const char* pchRest;
  CFS* pVol = SelectVolume(pPath, &pchRest);
  if (!pVol) return ERR_FILE_GENERAL;
  return pVol->RemoveDir(pchRest, pDirName);
}

ERR FileFindFirst(TFindInfo* pInfo, const char* pPath) {
  const char* pchRest;
  CFS* pVol = SelectVolume(pPath, &pchRest);
  if (!pVol) return ERR_FILE_GENERAL;
  return pVol->FindFirst(pInfo, pchRest);
}

ERR FileFindNext(TFindInfo* pInfo) {
  if (!pInfo || !pInfo->pFS) return ERR_FILE_GENERAL;
  return pInfo->pFS->FindNext(pInfo);
}

ERR FileFindClose(TFindInfo* pInfo) {
  if (!pInfo || !pInfo->pFS) return ERR_FILE_GENERAL;
  return pInfo->pFS->FindClose(pInfo);
}
