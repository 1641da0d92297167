// The native volume on Windows: CreateFileA and the rest of the KERNEL32 file, directory and
// drive functions.
#include "files/winfile.h"

#include <stdio.h>
#include <string.h>

// The open-mode bits under names of their own, next to windows.h's FILE_SHARE_READ and the
// rest, which mean other things.
enum : WORD {
  MODE_READ = FILE_READ,
  MODE_WRITE = FILE_WRITE,
  MODE_CREATE = FILE_CREATENEW,
  MODE_REPLACE = FILE_REPLACE,
  MODE_SEQUENTIAL = FILE_SEQUENTIAL,
  MODE_RANDOM = FILE_RANDOM,
  MODE_SHARE_READ = FILE_OTHERS_READ,
  MODE_SHARE_WRITE = FILE_OTHERS_WRITE,
  ORIGIN_BEGIN = FILE_BEGIN,
  ORIGIN_CURRENT = FILE_CURRENT,
  ORIGIN_END = FILE_END,
};

#include "platform/win32/winsys.h"


IMPLEMENT_CLASS(CWinFile, 0x3010A00, CFile)
IMPLEMENT_CLASS(CWinFS, 0x3020A00, CFS)

// Attribute bits that TFindInfo::dwAttr passes on.
#define FIND_ATTR_MASK                                                                                  \
  (FILE_ATTR_READONLY | FILE_ATTR_HIDDEN | FILE_ATTR_SYSTEM | FILE_ATTR_DIRECTORY | FILE_ATTR_ARCHIVE | \
   FILE_ATTR_NORMAL | FILE_ATTR_TEMPORARY | FILE_ATTR_COMPRESSED)

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

// ---------------------------------------------------------------------------------------------
// CWinFile

CWinFile::CWinFile(DWORD_PTR hFile, WORD wMode) : CFile(0, 1), m_hFile(hFile) {
  m_bValid = 1;
  m_wMode = wMode;
}

CWinFile::~CWinFile() { CloseHandle((HANDLE)m_hFile); }

ERR CWinFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  DWORD dwLocal;
  if (!pdwRead) pdwRead = &dwLocal;
  *pdwRead = 0;
  if (!ReadFile((HANDLE)m_hFile, pBuf, dwCount, pdwRead, 0)) return ErrFromOS(GetLastError(), ERR_FILE_READ);
  return *pdwRead < dwCount ? ERR_FILE_EOF : ERR_NOERR;
}

ERR CWinFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) {
  DWORD dwLocal;
  if (!pdwWritten) pdwWritten = &dwLocal;
  *pdwWritten = 0;
  if (!WriteFile((HANDLE)m_hFile, pBuf, dwCount, pdwWritten, 0))
    return ErrFromOS(GetLastError(), ERR_FILE_WRITE);
  return ERR_NOERR;
}

ERR CWinFile::Seek(LONG lOfs, SHORT wOrigin) {
  DWORD dwMethod;
  switch (wOrigin) {
    case ORIGIN_BEGIN:
      dwMethod = FILE_BEGIN;
      break;
    case ORIGIN_CURRENT:
      dwMethod = FILE_CURRENT;
      break;
    case ORIGIN_END:
      dwMethod = FILE_END;
      break;
    default:
      return ERR_FILE_SEEK;
  }
  if (SetFilePointer((HANDLE)m_hFile, lOfs, 0, dwMethod) == 0xFFFFFFFF)
    return ErrFromOS(GetLastError(), ERR_FILE_SEEK);
  return ERR_NOERR;
}

DWORD CWinFile::GetSize() {
  DWORD dwSize = GetFileSize((HANDLE)m_hFile, 0);
  ASSERT(dwSize != 0xFFFFFFFF);
  return dwSize;
}

DWORD CWinFile::GetPos() {
  DWORD dwPos = SetFilePointer((HANDLE)m_hFile, 0, 0, FILE_CURRENT);
  ASSERT(dwPos != 0xFFFFFFFF);
  return dwPos;
}

ERR CWinFile::Flush() {
  if (!FlushFileBuffers((HANDLE)m_hFile)) return ErrFromOS(GetLastError(), ERR_FILE_FLUSH);
  return ERR_NOERR;
}

ERR CWinFile::Truncate() {
  if (!SetEndOfFile((HANDLE)m_hFile)) return ErrFromOS(GetLastError(), ERR_FILE_TRUNCATE);
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
  DWORD dwAccess = 0;
  if (wMode & MODE_READ) dwAccess |= GENERIC_READ;
  if (wMode & MODE_WRITE) dwAccess |= GENERIC_WRITE;
  DWORD dwCreation = OPEN_EXISTING;
  if (wMode & MODE_CREATE) dwCreation = (wMode & MODE_REPLACE) ? CREATE_ALWAYS : CREATE_NEW;
  DWORD dwFlags = FILE_ATTRIBUTE_NORMAL;
  if (wMode & MODE_RANDOM) dwFlags = FILE_FLAG_RANDOM_ACCESS;
  if (wMode & MODE_SEQUENTIAL) dwFlags = FILE_FLAG_SEQUENTIAL_SCAN;
  DWORD dwShare = 0;  // exclusive
  if (wMode & MODE_SHARE_READ) dwShare |= FILE_SHARE_READ;
  if (wMode & MODE_SHARE_WRITE) dwShare |= FILE_SHARE_WRITE;

  HANDLE h = CreateFileA(pchPath, dwAccess, dwShare, 0, dwCreation, dwFlags, 0);
  DWORD dwError = GetLastError();
  if (h == INVALID_HANDLE_VALUE) {
    if (pErr) *pErr = ErrFromOS(dwError, ERR_FILE_OPEN);
    return 0;
  }
  CWinFile* pFile = new CWinFile((DWORD_PTR)h, wMode);
  if (!pFile) {
    CloseHandle(h);
    if (pErr) *pErr = ERR_FILE_NOMEM;
  }
  return pFile;
}

BOOL CWinFS::Exists(const char* pchPath) {
  OFSTRUCT of;
  return OpenFile(pchPath, &of, OF_EXIST) != HFILE_ERROR;
}

ERR CWinFS::Delete(const char* pchPath) {
  if (!DeleteFileA(pchPath)) return ErrFromOS(GetLastError(), ERR_FILE_GENERAL);
  return ERR_NOERR;
}

ERR CWinFS::Rename(const char* pchOld, const char* pchNew) {
  if (!MoveFileA(pchOld, pchNew)) return ErrFromOS(GetLastError(), ERR_FILE_GENERAL);
  return ERR_NOERR;
}

// pPath, a backslash when it is not empty and lacks one, then pName; false when it won't fit.
static BOOL JoinPath(char* pchBuf, size_t nSize, const char* pPath, const char* pName) {
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
static ERR DirLevelPath(char* pchBuf, size_t nSize, const char* pPath, const char* pDirName) {
  ASSERT(pPath && pDirName);
  if (!pPath || !pDirName) return ERR_BADPARAM;
  if (strchr(pDirName, '\\') || strchr(pDirName, ':')) return ERR_BADPARAM;
  if (!JoinPath(pchBuf, nSize, pPath, pDirName))
    return ErrFromOS(ERROR_FILENAME_EXCED_RANGE, ERR_FILE_GENERAL);
  return ERR_NOERR;
}

ERR CWinFS::CreateDir(const char* pPath, const char* pDirName) {
  char szPath[MAX_PATH];
  ERR err = DirLevelPath(szPath, sizeof(szPath), pPath, pDirName);
  if (err) return err;
  if (!CreateDirectoryA(szPath, 0)) return ErrFromOS(GetLastError(), ERR_FILE_GENERAL);
  return ERR_NOERR;
}

ERR CWinFS::RemoveDir(const char* pPath, const char* pDirName) {
  char szPath[MAX_PATH];
  ERR err = DirLevelPath(szPath, sizeof(szPath), pPath, pDirName);
  if (err) return err;
  if (!RemoveDirectoryA(szPath)) return ErrFromOS(GetLastError(), ERR_FILE_GENERAL);
  return ERR_NOERR;
}

ERR CWinFS::FindFirst(TFindInfo* pInfo, const char* pPath) {
  ASSERT(pPath);
  if (!pPath || !pInfo) return ERR_BADPARAM;
  memset(pInfo, 0, sizeof(*pInfo));
  char szPattern[MAX_PATH];
  if (!JoinPath(szPattern, sizeof(szPattern), pPath, "*.*"))
    return ErrFromOS(ERROR_FILENAME_EXCED_RANGE, ERR_FILE_GENERAL);

  WIN32_FIND_DATAA* pData = (WIN32_FIND_DATAA*)MEM_ALLOC(sizeof(WIN32_FIND_DATAA));
  if (!pData) return ERR_FILE_NOMEM;
  HANDLE h = FindFirstFileA(szPattern, pData);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD dwError = GetLastError();
    MEM_FREE(pData);
    return ErrFromOS(dwError, ERR_FILE_GENERAL);
  }
  pInfo->pFS = this;
  pInfo->pData = pData;
  pInfo->dwParam = (DWORD_PTR)h;
  pInfo->pchName = pData->cFileName;
  pInfo->dwAttr = pData->dwFileAttributes & FIND_ATTR_MASK;
  return ERR_NOERR;
}

ERR CWinFS::FindNext(TFindInfo* pInfo) {
  TFindInfo& fi = *pInfo;
  ASSERT(fi.pData);
  if (!fi.pData) return ERR_BADPARAM;
  ASSERT(fi.dwParam);
  WIN32_FIND_DATAA* pData = (WIN32_FIND_DATAA*)fi.pData;
  if (!FindNextFileA((HANDLE)fi.dwParam, pData)) return ErrFromOS(GetLastError(), ERR_FILE_GENERAL);
  fi.dwAttr = pData->dwFileAttributes & FIND_ATTR_MASK;
  return ERR_NOERR;
}

ERR CWinFS::FindClose(TFindInfo* pInfo) {
  TFindInfo& fi = *pInfo;
  ASSERT(fi.pData);
  if (!fi.pData) return ERR_BADPARAM;
  ASSERT(fi.dwParam);
  ERR err = ERR_NOERR;
  if (!::FindClose((HANDLE)fi.dwParam)) err = ErrFromOS(GetLastError(), ERR_FILE_GENERAL);
  MEM_FREE(fi.pData);
  memset(pInfo, 0, sizeof(*pInfo));
  return err;
}

// ---------------------------------------------------------------------------------------------
// Registration and drives

ERR WinFSInit() {
  SetHandleCount(64);
  CWinFS* pVol = new CWinFS;
  if (pVol) FSAdd("", pVol, 0);
  return ERR_NOERR;
}

ERR WinFSDone() {
  CFS* pVol = FSRemove("");
  delete pVol;
  return ERR_NOERR;
}

// Adds a backslash to a directory record's path, as long as it fits.
static void AddBackslash(TVolInfo* pVol) {
  size_t nLen = strlen(pVol->szPath);
  if (nLen + 1 < sizeof(pVol->szPath)) {
    pVol->szPath[nLen] = '\\';
    pVol->szPath[nLen + 1] = 0;
  }
}

DWORD VolEnumerate() {
  memset(g_DriveInfo, 0, sizeof(g_DriveInfo));
  g_btVNum = 0;
  if (!g_pSysVol || !g_pCurVol || !g_pExeVol) return 0;
  memset(g_pSysVol, 0, sizeof(TVolInfo));
  memset(g_pCurVol, 0, sizeof(TVolInfo));
  memset(g_pExeVol, 0, sizeof(TVolInfo));

  // A result that doesn't fit leaves the buffer as it was (empty) or cut short; the last byte
  // is always kept as the terminator.
  const DWORD dwLimit = sizeof(g_pSysVol->szPath) - 1;
  GetWindowsDirectoryA(g_pSysVol->szPath, dwLimit);
  GetCurrentDirectoryA(dwLimit, g_pCurVol->szPath);
  GetModuleFileNameA(0, g_pExeVol->szPath, dwLimit);
  char* pchLast = strrchr(g_pExeVol->szPath, '\\');
  if (pchLast) pchLast[1] = 0;
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
    char szRoot[4] = {chLetter, ':', '\\', 0};
    UINT uType = GetDriveTypeA(szRoot);
    if (uType < 2 || uType > 6) continue;
    if (btCount >= MAX_DRIVES) break;  // the table is full
    TDriveInfo* pDrive = &g_DriveInfo[btCount++];
    pDrive->dwLetter = (BYTE)chLetter;
    pDrive->wFlags = s_awTypeFlags[uType];
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

typedef BOOL(WINAPI* PFN_GETDISKFREESPACEEX)(LPCSTR, PULARGE_INTEGER, PULARGE_INTEGER, PULARGE_INTEGER);

ERR VolGetSpace(BYTE btNum, DWORD* pdwTotalKB, DWORD* pdwFreeKB, DWORD* pdwClusterSize,
                DWORD* pdwFreeClusters) {
  if (btNum >= MAX_DRIVES) return ERR_UNKNOWN;
  char szRoot[8];
  snprintf(szRoot, sizeof(szRoot), "%c:\\", g_DriveInfo[btNum].szRoot[0]);

  DWORD dwSectors, dwBytes, dwFreeClusters, dwTotalClusters;
  if (!GetDiskFreeSpaceA(szRoot, &dwSectors, &dwBytes, &dwFreeClusters, &dwTotalClusters)) return ERR_UNKNOWN;
  DWORD dwClusterSize = dwSectors * dwBytes;
  if (pdwClusterSize) *pdwClusterSize = dwClusterSize;
  if (pdwFreeClusters) *pdwFreeClusters = dwFreeClusters;

  OSVERSIONINFOA vi;
  memset(&vi, 0, sizeof(vi));
  vi.dwOSVersionInfoSize = sizeof(vi);
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
  if (!GetVersionExA(&vi)) return ERR_UNKNOWN;
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

  if (vi.dwPlatformId == VER_PLATFORM_WIN32_WINDOWS && (vi.dwBuildNumber & 0xFFFF) > 1000) {
    // The later releases of the 95 family report large disks only through the Ex call, which
    // the first release lacks: reach it by name.
    HMODULE hKernel = LoadLibraryA("kernel32.dll");
    PFN_GETDISKFREESPACEEX pfnEx =
        hKernel ? (PFN_GETDISKFREESPACEEX)(void*)GetProcAddress(hKernel, "GetDiskFreeSpaceExA") : 0;
    ULARGE_INTEGER uFree, uTotal, uTotalFree;
    if (pfnEx && pfnEx(szRoot, &uFree, &uTotal, &uTotalFree)) {
      FreeLibrary(hKernel);
      if (pdwFreeClusters) *pdwFreeClusters = dwClusterSize ? (DWORD)(uFree.QuadPart / dwClusterSize) : 0;
      if (pdwFreeKB) *pdwFreeKB = (DWORD)(uFree.QuadPart >> 10);
      if (pdwTotalKB) *pdwTotalKB = (DWORD)(uTotal.QuadPart >> 10);
      return ERR_NOERR;
    }
    if (hKernel) FreeLibrary(hKernel);
    return ERR_UNKNOWN;
  }

  if (!GetDiskFreeSpaceA(szRoot, &dwSectors, &dwBytes, &dwFreeClusters, &dwTotalClusters)) return ERR_UNKNOWN;
  dwClusterSize = dwSectors * dwBytes;
  if (pdwFreeKB) *pdwFreeKB = (DWORD)(((unsigned long long)dwClusterSize * dwFreeClusters) >> 10);
  if (pdwTotalKB) *pdwTotalKB = (DWORD)(((unsigned long long)dwClusterSize * dwTotalClusters) >> 10);
  return ERR_NOERR;
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
