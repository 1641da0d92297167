// The native volume's calls into Windows: CreateFileA and the rest of the KERNEL32 file,
// directory and drive functions.
#include "files/winfile.h"

#include <stdio.h>
#include <string.h>

#include "platform/win32/winsys.h"
#include "platform/winfileos.h"

// Attribute bits that TFindInfo::dwAttr passes on.
#define FIND_ATTR_MASK                                                                                  \
  (FILE_ATTR_READONLY | FILE_ATTR_HIDDEN | FILE_ATTR_SYSTEM | FILE_ATTR_DIRECTORY | FILE_ATTR_ARCHIVE | \
   FILE_ATTR_NORMAL | FILE_ATTR_TEMPORARY | FILE_ATTR_COMPRESSED)

// ---------------------------------------------------------------------------------------------
// Files

size_t WinOSMaxPath() { return MAX_PATH; }

BOOL WinOSOpen(const char* pchPath, const TWinOSOpen* pMode, DWORD_PTR* phFile, DWORD* pdwError) {
  DWORD dwAccess = 0;
  if (pMode->bRead) dwAccess |= GENERIC_READ;
  if (pMode->bWrite) dwAccess |= GENERIC_WRITE;
  DWORD dwCreation = OPEN_EXISTING;
  if (pMode->bCreate) dwCreation = pMode->bReplace ? CREATE_ALWAYS : CREATE_NEW;
  DWORD dwFlags = FILE_ATTRIBUTE_NORMAL;
  if (pMode->bRandom) dwFlags = FILE_FLAG_RANDOM_ACCESS;
  if (pMode->bSequential) dwFlags = FILE_FLAG_SEQUENTIAL_SCAN;
  DWORD dwShare = 0;  // exclusive
  if (pMode->bShareRead) dwShare |= FILE_SHARE_READ;
  if (pMode->bShareWrite) dwShare |= FILE_SHARE_WRITE;

  HANDLE h = CreateFileA(pchPath, dwAccess, dwShare, 0, dwCreation, dwFlags, 0);
  DWORD dwError = GetLastError();
  if (h == INVALID_HANDLE_VALUE) {
    *pdwError = dwError;
    return FALSE;
  }
  *phFile = (DWORD_PTR)h;
  return TRUE;
}

void WinOSClose(DWORD_PTR hFile) { CloseHandle((HANDLE)hFile); }

DWORD WinOSRead(DWORD_PTR hFile, WORD, void* pBuf, DWORD dwCount, DWORD* pdwDone) {
  if (!ReadFile((HANDLE)hFile, pBuf, dwCount, pdwDone, 0)) return GetLastError();
  return 0;
}

DWORD WinOSWrite(DWORD_PTR hFile, WORD, const void* pBuf, DWORD dwCount, DWORD* pdwDone) {
  if (!WriteFile((HANDLE)hFile, pBuf, dwCount, pdwDone, 0)) return GetLastError();
  return 0;
}

DWORD WinOSSeek(DWORD_PTR hFile, LONG lOfs, int nOrigin) {
  DWORD dwMethod = nOrigin == WINOS_SEEK_END       ? FILE_END
                   : nOrigin == WINOS_SEEK_CURRENT ? FILE_CURRENT
                                                   : FILE_BEGIN;
  if (SetFilePointer((HANDLE)hFile, lOfs, 0, dwMethod) == 0xFFFFFFFF) return GetLastError();
  return 0;
}

DWORD WinOSGetSize(DWORD_PTR hFile) { return GetFileSize((HANDLE)hFile, 0); }

DWORD WinOSGetPos(DWORD_PTR hFile) { return SetFilePointer((HANDLE)hFile, 0, 0, FILE_CURRENT); }

DWORD WinOSFlush(DWORD_PTR hFile, WORD) {
  if (!FlushFileBuffers((HANDLE)hFile)) return GetLastError();
  return 0;
}

DWORD WinOSTruncate(DWORD_PTR hFile, WORD) {
  if (!SetEndOfFile((HANDLE)hFile)) return GetLastError();
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Names

BOOL WinOSExists(const char* pchPath) {
  OFSTRUCT of;
  return OpenFile(pchPath, &of, OF_EXIST) != HFILE_ERROR;
}

DWORD WinOSDelete(const char* pchPath) {
  if (!DeleteFileA(pchPath)) return GetLastError();
  return 0;
}

DWORD WinOSRename(const char* pchOld, const char* pchNew) {
  if (!MoveFileA(pchOld, pchNew)) return GetLastError();
  return 0;
}

DWORD WinOSMakeDir(const char* pchPath) {
  if (!CreateDirectoryA(pchPath, 0)) return GetLastError();
  return 0;
}

DWORD WinOSRemoveDir(const char* pchPath) {
  if (!RemoveDirectoryA(pchPath)) return GetLastError();
  return 0;
}

ERR WinOSFindFirst(const char* pchPattern, TFindInfo* pInfo) {
  WIN32_FIND_DATAA* pData = (WIN32_FIND_DATAA*)MEM_ALLOC(sizeof(WIN32_FIND_DATAA));
  if (!pData) return ERR_FILE_NOMEM;
  HANDLE h = FindFirstFileA(pchPattern, pData);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD dwError = GetLastError();
    MEM_FREE(pData);
    return ErrFromOS(dwError, ERR_FILE_GENERAL);
  }
  pInfo->pData = pData;
  pInfo->dwParam = (DWORD_PTR)h;
  pInfo->pchName = pData->cFileName;
  pInfo->dwAttr = pData->dwFileAttributes & FIND_ATTR_MASK;
  return ERR_NOERR;
}

DWORD WinOSFindNext(TFindInfo* pInfo) {
  WIN32_FIND_DATAA* pData = (WIN32_FIND_DATAA*)pInfo->pData;
  if (!FindNextFileA((HANDLE)pInfo->dwParam, pData)) return GetLastError();
  pInfo->dwAttr = pData->dwFileAttributes & FIND_ATTR_MASK;
  return 0;
}

DWORD WinOSFindClose(TFindInfo* pInfo) {
  DWORD dwError = 0;
  if (!::FindClose((HANDLE)pInfo->dwParam)) dwError = GetLastError();
  MEM_FREE(pInfo->pData);
  return dwError;
}

// ---------------------------------------------------------------------------------------------
// Drives and directories

void WinOSStart() { SetHandleCount(64); }

void WinOSReadDirectories(TVolInfo* pSys, TVolInfo* pCur, TVolInfo* pExe) {
  // Each call gets the record's 128 bytes, terminator included. A directory that doesn't fit
  // leaves its buffer as it was (empty); the program's path is cut short, and as older systems
  // then leave it unterminated, the last byte is made the terminator.
  const DWORD dwLimit = sizeof(pSys->szPath);
  GetWindowsDirectoryA(pSys->szPath, dwLimit);
  GetCurrentDirectoryA(dwLimit, pCur->szPath);
  GetModuleFileNameA(0, pExe->szPath, dwLimit);
  pExe->szPath[sizeof(pExe->szPath) - 1] = 0;
  char* pchLast = strrchr(pExe->szPath, '\\');
  if (pchLast) pchLast[1] = 0;
}

UINT WinOSDriveType(char chLetter) {
  char szRoot[4] = {chLetter, ':', '\\', 0};
  return GetDriveTypeA(szRoot);
}

typedef BOOL(WINAPI* PFN_GETDISKFREESPACEEX)(LPCSTR, PULARGE_INTEGER, PULARGE_INTEGER, PULARGE_INTEGER);

ERR WinOSGetSpace(const char* pchRoot, DWORD* pdwTotalKB, DWORD* pdwFreeKB, DWORD* pdwClusterSize,
                  DWORD* pdwFreeClusters) {
  DWORD dwSectors, dwBytes, dwFreeClusters, dwTotalClusters;
  if (!GetDiskFreeSpaceA(pchRoot, &dwSectors, &dwBytes, &dwFreeClusters, &dwTotalClusters))
    return ERR_UNKNOWN;
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
    if (pfnEx && pfnEx(pchRoot, &uFree, &uTotal, &uTotalFree)) {
      FreeLibrary(hKernel);
      if (pdwFreeClusters) *pdwFreeClusters = dwClusterSize ? (DWORD)(uFree.QuadPart / dwClusterSize) : 0;
      if (pdwFreeKB) *pdwFreeKB = (DWORD)(uFree.QuadPart >> 10);
      if (pdwTotalKB) *pdwTotalKB = (DWORD)(uTotal.QuadPart >> 10);
      return ERR_NOERR;
    }
    if (hKernel) FreeLibrary(hKernel);
    return ERR_UNKNOWN;
  }

  if (!GetDiskFreeSpaceA(pchRoot, &dwSectors, &dwBytes, &dwFreeClusters, &dwTotalClusters))
    return ERR_UNKNOWN;
  dwClusterSize = dwSectors * dwBytes;
  if (pdwFreeKB) *pdwFreeKB = (DWORD)(((unsigned long long)dwClusterSize * dwFreeClusters) >> 10);
  if (pdwTotalKB) *pdwTotalKB = (DWORD)(((unsigned long long)dwClusterSize * dwTotalClusters) >> 10);
  return ERR_NOERR;
}
