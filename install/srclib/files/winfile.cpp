// The native volume's logic that is the same on every platform: the error table, the decoding
// of open modes and seek origins, path joining and parameter checks, registration, and the
// drive table. The calls into the operating system live in platform/<os>/winfile.cpp.
#include "files/winfile.h"

#include <stdio.h>
#include <string.h>

#include "platform/winfileos.h"

IMPLEMENT_CLASS(CWinFile, 0x3010A00, CFile)
IMPLEMENT_CLASS(CWinFS, 0x3020A00, CFS)

// Windows error numbers used here.
#define OS_ERROR_FILENAME_EXCED_RANGE 206

// Room for the longest path any backend takes.
#define WINFILE_PATH_ROOM 4096

ERR ErrFromOS(DWORD dwOSError, ERR errDefault) {
  switch (dwOSError) {
    case 0:
      return ERR_NOERR;
    case 2:
      return ERR_FILE_NOTFOUND;
    case 3:
      return ERR_FILE_PATHNOTFOUND;
    case 4:
      return ERR_FILE_TOOMANY;
    case 5:
      return ERR_FILE_ACCESS;
    case 15:
      return ERR_FILE_NOVOLUME;
    case 18:
      return ERR_FILE_NOMOREFILES;
    case 19:
      return ERR_FILE_WRITEPROTECT;
    case 21:
      return ERR_FILE_NOTREADY;
    case 26:
      return ERR_FILE_BADVOLUME;
    case 32:
      return ERR_FILE_SHARING;
    case 80:
      return ERR_FILE_EXIST;
    case 112:
      return ERR_FILE_DISKFULL;
    case 131:
      return ERR_FILE_SEEK;
    case 183:
      return ERR_FILE_ALREADYEXISTS;
    default:
      return errDefault;
  }
}

namespace {

// The buffer size to join into: the OS's limit, never more than the buffer.
size_t PathLimit() {
  size_t nMax = WinOSMaxPath();
  return nMax < WINFILE_PATH_ROOM ? nMax : WINFILE_PATH_ROOM;
}

// pPath, a backslash when it is not empty and lacks one, then pName; FALSE when it won't fit.
BOOL JoinPath(char* pchBuf, size_t nSize, const char* pPath, const char* pName) {
  size_t nPath = strlen(pPath);
  BOOL bSep = nPath && pPath[nPath - 1] != '\\';
  size_t nName = strlen(pName);
  if (nPath + (bSep ? 1 : 0) + nName + 1 > nSize) return FALSE;
  memcpy(pchBuf, pPath, nPath);
  if (bSep) pchBuf[nPath++] = '\\';
  memcpy(pchBuf + nPath, pName, nName + 1);
  return TRUE;
}

// The full path of one directory level for CreateDir and RemoveDir, or an error code.
ERR DirLevelPath(char* pchBuf, size_t nSize, const char* pPath, const char* pDirName) {
  ASSERT(pPath && pDirName);
  if (!pPath || !pDirName) return ERR_BADPARAM;
  if (strchr(pDirName, '\\') || strchr(pDirName, ':')) return ERR_BADPARAM;
  if (!JoinPath(pchBuf, nSize, pPath, pDirName))
    return ErrFromOS(OS_ERROR_FILENAME_EXCED_RANGE, ERR_FILE_GENERAL);
  return ERR_NOERR;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// CWinFile

CWinFile::CWinFile(DWORD_PTR hFile, WORD wMode) : CFile(0, 1), m_hFile(hFile) {
  m_bValid = 1;
  m_wMode = wMode;
}

CWinFile::~CWinFile() { WinOSClose(m_hFile); }

ERR CWinFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  DWORD dwLocal;
  if (!pdwRead) pdwRead = &dwLocal;
  *pdwRead = 0;
  DWORD dwError = WinOSRead(m_hFile, m_wMode, pBuf, dwCount, pdwRead);
  if (dwError) return ErrFromOS(dwError, ERR_FILE_READ);
  return *pdwRead < dwCount ? ERR_FILE_EOF : ERR_NOERR;
}

ERR CWinFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) {
  DWORD dwLocal;
  if (!pdwWritten) pdwWritten = &dwLocal;
  *pdwWritten = 0;
  DWORD dwError = WinOSWrite(m_hFile, m_wMode, pBuf, dwCount, pdwWritten);
  if (dwError) return ErrFromOS(dwError, ERR_FILE_WRITE);
  return ERR_NOERR;
}

ERR CWinFile::Seek(LONG lOfs, SHORT wOrigin) {
  int nOrigin;
  switch (wOrigin) {
    case FILE_BEGIN:
      nOrigin = WINOS_SEEK_BEGIN;
      break;
    case FILE_CURRENT:
      nOrigin = WINOS_SEEK_CURRENT;
      break;
    case FILE_END:
      nOrigin = WINOS_SEEK_END;
      break;
    default:
      return ERR_FILE_SEEK;
  }
  DWORD dwError = WinOSSeek(m_hFile, lOfs, nOrigin);
  if (dwError) return ErrFromOS(dwError, ERR_FILE_SEEK);
  return ERR_NOERR;
}

DWORD CWinFile::GetSize() {
  DWORD dwSize = WinOSGetSize(m_hFile);
  ASSERT_TEXT(dwSize != 0xFFFFFFFF, "dwSize!=0xFFFFFFFF");
  return dwSize;
}

DWORD CWinFile::GetPos() {
  DWORD dwPos = WinOSGetPos(m_hFile);
  ASSERT_TEXT(dwPos != 0xFFFFFFFF, "dwPos!=0xFFFFFFFF");
  return dwPos;
}

ERR CWinFile::Flush() {
  DWORD dwError = WinOSFlush(m_hFile, m_wMode);
  if (dwError) return ErrFromOS(dwError, ERR_FILE_FLUSH);
  return ERR_NOERR;
}

ERR CWinFile::Truncate() {
  DWORD dwError = WinOSTruncate(m_hFile, m_wMode);
  if (dwError) return ErrFromOS(dwError, ERR_FILE_TRUNCATE);
  return ERR_NOERR;
}

ERR CWinFile::GetProperty(DWORD dwPID, void* pValue, DWORD dwSize) {
  if (dwPID != PID_OSHANDLE) return CFile::GetProperty(dwPID, pValue, dwSize);
  if (!pValue || dwSize < sizeof(DWORD_PTR)) return ERR_BADPARAM;
  *(DWORD_PTR*)pValue = m_hFile;
  return ERR_NOERR;
}

// ---------------------------------------------------------------------------------------------
// CWinFS

CFile* CWinFS::Open(const char* pchPath, WORD wMode, ERR* pErr) {
  if (pErr) *pErr = ERR_NOERR;
  TWinOSOpen mode;
  mode.bRead = (wMode & FILE_READ) != 0;
  mode.bWrite = (wMode & FILE_WRITE) != 0;
  mode.bCreate = (wMode & FILE_CREATENEW) != 0;
  mode.bReplace = mode.bCreate && (wMode & FILE_REPLACE) != 0;
  mode.bSequential = (wMode & FILE_SEQUENTIAL) != 0;
  mode.bRandom = (wMode & FILE_RANDOM) != 0;
  mode.bShareRead = (wMode & FILE_OTHERS_READ) != 0;
  mode.bShareWrite = (wMode & FILE_OTHERS_WRITE) != 0;

  DWORD_PTR hFile = 0;
  DWORD dwError = 0;
  if (!WinOSOpen(pchPath, &mode, &hFile, &dwError)) {
    if (pErr) *pErr = ErrFromOS(dwError, ERR_FILE_OPEN);
    return 0;
  }
  CWinFile* pFile = new CWinFile(hFile, wMode);
  if (!pFile) {
    WinOSClose(hFile);
    if (pErr) *pErr = ERR_FILE_NOMEM;
  }
  return pFile;
}

BOOL CWinFS::Exists(const char* pchPath) { return WinOSExists(pchPath); }

ERR CWinFS::Delete(const char* pchPath) { return ErrFromOS(WinOSDelete(pchPath), ERR_FILE_GENERAL); }

ERR CWinFS::Rename(const char* pchOld, const char* pchNew) {
  return ErrFromOS(WinOSRename(pchOld, pchNew), ERR_FILE_GENERAL);
}

ERR CWinFS::CreateDir(const char* pPath, const char* pDirName) {
  char szPath[WINFILE_PATH_ROOM];
  ERR err = DirLevelPath(szPath, PathLimit(), pPath, pDirName);
  if (err) return err;
  return ErrFromOS(WinOSMakeDir(szPath), ERR_FILE_GENERAL);
}

ERR CWinFS::RemoveDir(const char* pPath, const char* pDirName) {
  char szPath[WINFILE_PATH_ROOM];
  ERR err = DirLevelPath(szPath, PathLimit(), pPath, pDirName);
  if (err) return err;
  return ErrFromOS(WinOSRemoveDir(szPath), ERR_FILE_GENERAL);
}

ERR CWinFS::FindFirst(TFindInfo* pInfo, const char* pPath) {
  ASSERT(pPath);
  if (!pPath || !pInfo) return ERR_BADPARAM;
  memset(pInfo, 0, sizeof(*pInfo));
  char szPattern[WINFILE_PATH_ROOM];
  if (!JoinPath(szPattern, PathLimit(), pPath, "*.*"))
    return ErrFromOS(OS_ERROR_FILENAME_EXCED_RANGE, ERR_FILE_GENERAL);
  ERR err = WinOSFindFirst(szPattern, pInfo);
  if (err) return err;
  pInfo->pFS = this;
  return ERR_NOERR;
}

ERR CWinFS::FindNext(TFindInfo* pInfo) {
  TFindInfo& fi = *pInfo;
  ASSERT(fi.pData);
  if (!fi.pData) return ERR_BADPARAM;
  ASSERT(fi.dwParam);
  return ErrFromOS(WinOSFindNext(pInfo), ERR_FILE_GENERAL);
}

ERR CWinFS::FindClose(TFindInfo* pInfo) {
  TFindInfo& fi = *pInfo;
  ASSERT(fi.pData);
  if (!fi.pData) return ERR_BADPARAM;
  ASSERT(fi.dwParam);
  ERR err = ErrFromOS(WinOSFindClose(pInfo), ERR_FILE_GENERAL);
  memset(pInfo, 0, sizeof(*pInfo));
  return err;
}

// ---------------------------------------------------------------------------------------------
// Registration and drives

ERR WinFSInit() {
  WinOSStart();
  CWinFS* pVol = new CWinFS;
  // A full table refuses the volume, which is then still ours to delete.
  if (pVol && FSAdd("", pVol, 0)) delete pVol;
  return ERR_NOERR;
}

ERR WinFSDone() {
  CFS* pVol = FSRemove("");
  delete pVol;
  return ERR_NOERR;
}

namespace {

// Adds a backslash to a directory record's path, as long as it fits.
void AddBackslash(TVolInfo* pVol) {
  size_t nLen = strlen(pVol->szPath);
  if (nLen + 1 < sizeof(pVol->szPath)) {
    pVol->szPath[nLen] = '\\';
    pVol->szPath[nLen + 1] = 0;
  }
}

}  // namespace

DWORD VolEnumerate() {
  memset(g_DriveInfo, 0, sizeof(g_DriveInfo));
  g_btVNum = 0;
  if (!g_pSysVol || !g_pCurVol || !g_pExeVol) return 0;
  memset(g_pSysVol, 0, sizeof(TVolInfo));
  memset(g_pCurVol, 0, sizeof(TVolInfo));
  memset(g_pExeVol, 0, sizeof(TVolInfo));

  WinOSReadDirectories(g_pSysVol, g_pCurVol, g_pExeVol);
  // Without looking: a root directory that already ends in '\' gets a second one.
  AddBackslash(g_pSysVol);
  AddBackslash(g_pCurVol);
  g_pSysVol->dwLetter = (BYTE)g_pSysVol->szPath[0];
  g_pCurVol->dwLetter = (BYTE)g_pCurVol->szPath[0];
  g_pExeVol->dwLetter = (BYTE)g_pExeVol->szPath[0];

  static const WORD s_awTypeFlags[7] = {
      0, 0, DRIVE_FLAG_REMOVABLE, DRIVE_FLAG_FIXED, DRIVE_FLAG_REMOTE, DRIVE_FLAG_CDROM, DRIVE_FLAG_RAMDISK};
  BYTE btCount = 0;
  for (char chLetter = 'A'; chLetter <= 'Z'; chLetter++) {
    UINT uType = WinOSDriveType(chLetter);
    if (uType < 2 || uType > 6) continue;
    if (btCount >= MAX_DRIVES) break;  // the table is full
    TDriveInfo* pDrive = &g_DriveInfo[btCount++];
    pDrive->dwLetter = (BYTE)chLetter;
    pDrive->wFlags = s_awTypeFlags[uType];
    char szRoot[4] = {chLetter, ':', '\\', 0};
    strcpy(pDrive->szRoot, szRoot);

    WORD wFlags = pDrive->wFlags;
    if ((DWORD)(BYTE)chLetter == g_pExeVol->dwLetter) wFlags |= DRIVE_FLAG_EXE;
    if ((DWORD)(BYTE)chLetter == g_pSysVol->dwLetter) wFlags |= DRIVE_FLAG_SYSTEM;
    if ((DWORD)(BYTE)chLetter == g_pCurVol->dwLetter) wFlags |= DRIVE_FLAG_CURRENT;
    if (wFlags != pDrive->wFlags) {
      pDrive->wFlags = wFlags;
      if (wFlags & DRIVE_FLAG_EXE) g_pExeVol->wFlags = wFlags;
      if (wFlags & DRIVE_FLAG_SYSTEM) g_pSysVol->wFlags = wFlags;
      if (wFlags & DRIVE_FLAG_CURRENT) g_pCurVol->wFlags = wFlags;
    }
  }
  g_btVNum = btCount;
  return btCount;
}

ERR VolGetSpace(BYTE btNum, DWORD* pdwTotalKB, DWORD* pdwFreeKB, DWORD* pdwClusterSize,
                DWORD* pdwFreeClusters) {
  if (btNum >= MAX_DRIVES) return ERR_UNKNOWN;
  char szRoot[8];
  snprintf(szRoot, sizeof(szRoot), "%c:\\", g_DriveInfo[btNum].szRoot[0]);
  return WinOSGetSpace(szRoot, pdwTotalKB, pdwFreeKB, pdwClusterSize, pdwFreeClusters);
}

ERR VolCopyRoot(const TDriveInfo* pInfo, char* pchBuf) {
  if (!pchBuf) return ERR_BADPARAM;
  if (!pInfo) {
    pchBuf[0] = 0;
    return ERR_BADPARAM;
  }
  memcpy(pchBuf, pInfo->szRoot, sizeof(pInfo->szRoot));
  pchBuf[sizeof(pInfo->szRoot) - 1] = 0;
  return ERR_NOERR;
}

ERR VolGetRoot(BYTE btNum, char* pchBuf) {
  return VolCopyRoot(btNum < MAX_DRIVES ? &g_DriveInfo[btNum] : 0, pchBuf);
}
