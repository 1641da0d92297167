// The native volume's calls into POSIX: Windows paths through the prefix's drive links, file
// descriptors as handles, share modes kept between processes by advisory locks, drive types
// from the file system of each drive, free space from statvfs.
#include "files/winfile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/posix/dospath.h"
#include "platform/winfileos.h"

#ifndef F_OFD_SETLK
#error "share modes need open file description locks (F_OFD_SETLK)"
#endif

// Windows error numbers used below.
#define OS_ERROR_FILE_NOT_FOUND 2
#define OS_ERROR_PATH_NOT_FOUND 3
#define OS_ERROR_ACCESS_DENIED 5
#define OS_ERROR_NO_MORE_FILES 18
#define OS_ERROR_SHARING_VIOLATION 32
#define OS_ERROR_NEGATIVE_SEEK 131
#define OS_ERROR_ALREADY_EXISTS 183

namespace {

// ---------------------------------------------------------------------------------------------
// Share modes. Every handle with read or write access holds shared advisory locks, one byte
// each, far beyond any data: one byte says "a handle reads", one "a handle writes", one "a
// handle lets nobody else read", one "a handle lets nobody else write". The locks belong to
// the open file description, so two handles of one process meet each other as handles of two
// processes do, and closing the descriptor drops them.
//
// A new handle takes its locks first and then looks for the locks of others that conflict.
// Two opens racing for a file may thus both fail, never both succeed.

enum { SLOT_READS, SLOT_WRITES, SLOT_DENIES_READ, SLOT_DENIES_WRITE, SLOT_COUNT };

off_t SlotOffset(int nSlot) {
  // The top of the offset range, where no file has data.
  const off_t ofsTop = (off_t)((((unsigned long long)1) << (sizeof(off_t) * 8 - 1)) - 1);
  return ofsTop - SLOT_COUNT + nSlot;
}

// A lock request of type nType over nCount slots from nSlot.
struct flock SlotRequest(short nType, int nSlot, int nCount) {
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = nType;
  fl.l_whence = SEEK_SET;
  fl.l_start = SlotOffset(nSlot);
  fl.l_len = nCount;
  return fl;
}

// True when a handle other than fd holds the slot. A file system without locks holds nothing.
BOOL SlotHeldByOther(int fd, int nSlot) {
  struct flock fl = SlotRequest(F_WRLCK, nSlot, 1);
  if (fcntl(fd, F_OFD_GETLK, &fl) != 0) return FALSE;
  return fl.l_type != F_UNLCK;
}

BOOL SlotTake(int fd, int nSlot) {
  struct flock fl = SlotRequest(F_RDLCK, nSlot, 1);
  return fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

void SlotsRelease(int fd) {
  struct flock fl = SlotRequest(F_UNLCK, 0, SLOT_COUNT);
  fcntl(fd, F_OFD_SETLK, &fl);
}

// Enters a new handle with its access and sharing. 0, or the sharing violation (the handle's
// locks are then gone again). bCanLock: fd was opened for reading, which shared locks need;
// without it the handle still respects the others but can't announce itself.
DWORD ShareEnter(int fd, BOOL bRead, BOOL bWrite, BOOL bShareRead, BOOL bShareWrite, BOOL bCanLock) {
  if (!bRead && !bWrite) return 0;  // no data access: sharing doesn't apply
  if (bCanLock) {
    if (bRead) SlotTake(fd, SLOT_READS);
    if (bWrite) SlotTake(fd, SLOT_WRITES);
    if (!bShareRead) SlotTake(fd, SLOT_DENIES_READ);
    if (!bShareWrite) SlotTake(fd, SLOT_DENIES_WRITE);
  }
  BOOL bConflict = (bRead && SlotHeldByOther(fd, SLOT_DENIES_READ)) ||
                   (bWrite && SlotHeldByOther(fd, SLOT_DENIES_WRITE)) ||
                   (!bShareRead && SlotHeldByOther(fd, SLOT_READS)) ||
                   (!bShareWrite && SlotHeldByOther(fd, SLOT_WRITES));
  if (!bConflict) return 0;
  if (bCanLock) SlotsRelease(fd);
  return OS_ERROR_SHARING_VIOLATION;
}

// Looks at the handles open on a host file from outside: bAnyAccess asks whether any handle
// reads or writes it, else whether one denies reading. A file that can't be opened for the
// look counts as free.
BOOL FileHeld(const char* pchHost, BOOL bAnyAccess) {
  int fd = open(pchHost, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return FALSE;
  BOOL bHeld = bAnyAccess ? (SlotHeldByOther(fd, SLOT_READS) || SlotHeldByOther(fd, SLOT_WRITES))
                          : SlotHeldByOther(fd, SLOT_DENIES_READ);
  close(fd);
  return bHeld;
}

// systems, which a rename can't do. Returns a Windows error number.
DWORD MoveAcross(const char* pchFrom, const char* pchTo) {
  int fdIn = open(pchFrom, O_RDONLY | O_CLOEXEC);
  if (fdIn < 0) return DosErrorFromErrno(errno, pchFrom);
  struct stat st;
  if (fstat(fdIn, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fdIn);
    return DOS_ERROR_NOT_SAME_DEVICE;
  }
  int fdOut = open(pchTo, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777);
  if (fdOut < 0) {
    DWORD dwError = DosErrorFromErrno(errno, pchTo);
    close(fdIn);
    return dwError == 80 ? OS_ERROR_ALREADY_EXISTS : dwError;
  }
  char abBuf[0x8000];
  DWORD dwError = 0;
  for (;;) {
    ssize_t nRead = read(fdIn, abBuf, sizeof(abBuf));
    if (nRead < 0 && errno == EINTR) continue;
    if (nRead <= 0) {
      if (nRead < 0) dwError = DosErrorFromErrno(errno, 0);
      break;
    }
    for (ssize_t nDone = 0; nDone < nRead && !dwError;) {
      ssize_t nWritten = write(fdOut, abBuf + nDone, (size_t)(nRead - nDone));
      if (nWritten < 0 && errno == EINTR) continue;
      if (nWritten <= 0)
        dwError = DosErrorFromErrno(nWritten < 0 ? errno : ENOSPC, 0);
      else
        nDone += nWritten;
    }
    if (dwError) break;
  }
  close(fdIn);
  if (close(fdOut) != 0 && !dwError) dwError = DosErrorFromErrno(errno, 0);
  if (dwError) {
    unlink(pchTo);
    return dwError;
  }
  if (unlink(pchFrom) != 0) return DosErrorFromErrno(errno, pchFrom);
  return 0;
}

// The last component of a Windows path as written.
const char* LastComponent(const char* pchPath) {
  const char* pchName = pchPath;
  for (const char* pch = pchPath; *pch; pch++)
    if (*pch == '\\' || *pch == '/' || (pch == pchPath + 1 && *pch == ':')) pchName = pch + 1;
  return pchName;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Files

size_t WinOSMaxPath() { return DOS_MAX_PATH; }

BOOL WinOSOpen(const char* pchPath, const TWinOSOpen* pMode, DWORD_PTR* phFile, DWORD* pdwError) {
  char szHost[DOS_MAX_PATH];
  DWORD dwError = DosToHost(pchPath, szHost, sizeof(szHost));
  if (dwError) {
    *pdwError = dwError;
    return FALSE;
  }
  BOOL bRead = pMode->bRead;
  BOOL bWrite = pMode->bWrite;
  BOOL bReplace = pMode->bReplace;

  // A writer is opened for reading too where it may be, so it can hold its share locks.
  // Replacing truncates only once the sharing is known to allow it.
  int nFlags = O_CLOEXEC | O_NOCTTY;
  if (pMode->bCreate) nFlags |= bReplace ? O_CREAT : (O_CREAT | O_EXCL);
  int fd = open(szHost, nFlags | (bWrite ? O_RDWR : O_RDONLY), 0666);
  BOOL bCanLock = TRUE;
  if (fd < 0 && bWrite && !bRead && errno == EACCES) {
    fd = open(szHost, nFlags | O_WRONLY, 0666);
    bCanLock = FALSE;
  }
  if (fd < 0) {
    *pdwError = DosErrorFromErrno(errno, szHost);
    return FALSE;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    // A directory is no file to open.
    close(fd);
    *pdwError = OS_ERROR_ACCESS_DENIED;
    return FALSE;
  }
  dwError = ShareEnter(fd, bRead, bWrite, pMode->bShareRead, pMode->bShareWrite, bCanLock);
  if (!dwError && bReplace && ftruncate(fd, 0) != 0) dwError = DosErrorFromErrno(errno, 0);
  if (dwError) {
    close(fd);
    *pdwError = dwError;
    return FALSE;
  }
#ifdef POSIX_FADV_SEQUENTIAL
  if (pMode->bSequential)
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  else if (pMode->bRandom)
    posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
#endif
  *phFile = (DWORD_PTR)fd;
  return TRUE;
}

void WinOSClose(DWORD_PTR hFile) { close((int)hFile); }

DWORD WinOSRead(DWORD_PTR hFile, WORD wMode, void* pBuf, DWORD dwCount, DWORD* pdwDone) {
  // The descriptor may allow more than the handle was opened for.
  if (!(wMode & FILE_READ)) return OS_ERROR_ACCESS_DENIED;
  BYTE* pb = (BYTE*)pBuf;
  while (*pdwDone < dwCount) {
    ssize_t nRead = read((int)hFile, pb + *pdwDone, dwCount - *pdwDone);
    if (nRead < 0) {
      if (errno == EINTR) continue;
      return DosErrorFromErrno(errno, 0);
    }
    if (nRead == 0) break;
    *pdwDone += (DWORD)nRead;
  }
  return 0;
}

DWORD WinOSWrite(DWORD_PTR hFile, WORD wMode, const void* pBuf, DWORD dwCount, DWORD* pdwDone) {
  if (!(wMode & FILE_WRITE)) return OS_ERROR_ACCESS_DENIED;
  const BYTE* pb = (const BYTE*)pBuf;
  while (*pdwDone < dwCount) {
    ssize_t nWritten = write((int)hFile, pb + *pdwDone, dwCount - *pdwDone);
    if (nWritten < 0) {
      if (errno == EINTR) continue;
      return DosErrorFromErrno(errno, 0);
    }
    if (nWritten == 0) return DosErrorFromErrno(ENOSPC, 0);
    *pdwDone += (DWORD)nWritten;
  }
  return 0;
}

DWORD WinOSSeek(DWORD_PTR hFile, LONG lOfs, int nOrigin) {
  int nWhence = nOrigin == WINOS_SEEK_END ? SEEK_END : nOrigin == WINOS_SEEK_CURRENT ? SEEK_CUR : SEEK_SET;
  if (lseek((int)hFile, (off_t)lOfs, nWhence) < 0) {
    // A position before the start is the negative seek of the Windows call.
    int nErrno = errno;
    return nErrno == EINVAL ? OS_ERROR_NEGATIVE_SEEK : DosErrorFromErrno(nErrno, 0);
  }
  return 0;
}

DWORD WinOSGetSize(DWORD_PTR hFile) {
  struct stat st;
  return fstat((int)hFile, &st) == 0 ? (DWORD)st.st_size : 0xFFFFFFFF;
}

DWORD WinOSGetPos(DWORD_PTR hFile) {
  off_t ofs = lseek((int)hFile, 0, SEEK_CUR);
  return ofs < 0 ? 0xFFFFFFFF : (DWORD)ofs;
}

DWORD WinOSFlush(DWORD_PTR hFile, WORD wMode) {
  // Flushing needs write access, as on Windows.
  if (!(wMode & FILE_WRITE)) return OS_ERROR_ACCESS_DENIED;
  if (fsync((int)hFile) != 0 && errno != EINVAL) return DosErrorFromErrno(errno, 0);
  return 0;
}

DWORD WinOSTruncate(DWORD_PTR hFile, WORD wMode) {
  if (!(wMode & FILE_WRITE)) return OS_ERROR_ACCESS_DENIED;
  off_t ofs = lseek((int)hFile, 0, SEEK_CUR);
  if (ofs < 0 || ftruncate((int)hFile, ofs) != 0) return DosErrorFromErrno(errno, 0);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Names

BOOL WinOSExists(const char* pchPath) {
  // True when the file could be opened for reading, sharing with everyone: not for a
  // directory, nor for a file another handle holds without letting others read.
  char szHost[DOS_MAX_PATH];
  if (DosToHost(pchPath, szHost, sizeof(szHost)) != 0) return FALSE;
  struct stat st;
  if (stat(szHost, &st) != 0 || S_ISDIR(st.st_mode)) return FALSE;
  int fd = open(szHost, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return FALSE;
  BOOL bDenied = SlotHeldByOther(fd, SLOT_DENIES_READ);
  close(fd);
  return !bDenied;
}

DWORD WinOSDelete(const char* pchPath) {
  char szHost[DOS_MAX_PATH];
  DWORD dwError = DosToHost(pchPath, szHost, sizeof(szHost));
  if (dwError) return dwError;
  struct stat st;
  if (lstat(szHost, &st) != 0) return DosErrorFromErrno(errno, szHost);
  // Directories, read-only files and files in use stay, as they do on Windows.
  if (S_ISDIR(st.st_mode)) return OS_ERROR_ACCESS_DENIED;
  if (S_ISREG(st.st_mode)) {
    if (!(st.st_mode & S_IWUSR)) return OS_ERROR_ACCESS_DENIED;
    if (FileHeld(szHost, TRUE)) return OS_ERROR_SHARING_VIOLATION;
  }
  if (unlink(szHost) != 0) return DosErrorFromErrno(errno, szHost);
  return 0;
}

DWORD WinOSRename(const char* pchOld, const char* pchNew) {
  char szOld[DOS_MAX_PATH];
  char szNew[DOS_MAX_PATH];
  DWORD dwError = DosToHost(pchOld, szOld, sizeof(szOld));
  if (!dwError) dwError = DosToHost(pchNew, szNew, sizeof(szNew));
  if (dwError) return dwError;
  struct stat stOld;
  if (lstat(szOld, &stOld) != 0) return DosErrorFromErrno(errno, szOld);
  if (S_ISREG(stOld.st_mode) && FileHeld(szOld, TRUE)) return OS_ERROR_SHARING_VIOLATION;

  struct stat stNew;
  if (lstat(szNew, &stNew) == 0) {
    // The new name exists. It is the same entry only when the rename changes the case of the
    // name; then the new spelling is taken as written. Anything else is left alone.
    if (stNew.st_dev != stOld.st_dev || stNew.st_ino != stOld.st_ino) return OS_ERROR_ALREADY_EXISTS;
    char* pchSlash = strrchr(szNew, '/');
    const char* pchName = LastComponent(pchNew);
    if (!pchSlash || !*pchName) return 0;
    pchSlash[1] = 0;
    if (strlen(szNew) + strlen(pchName) + 1 > sizeof(szNew)) return DOS_ERROR_FILENAME_EXCED_RANGE;
    strcat(szNew, pchName);
  }
  if (rename(szOld, szNew) == 0) return 0;
  int nErrno = errno;
  if (nErrno == EXDEV && S_ISREG(stOld.st_mode)) return MoveAcross(szOld, szNew);
  return DosErrorFromErrno(nErrno, szNew);
}

DWORD WinOSMakeDir(const char* pchPath) {
  char szHost[DOS_MAX_PATH];
  DWORD dwError = DosToHost(pchPath, szHost, sizeof(szHost));
  if (dwError) return dwError;
  if (mkdir(szHost, 0777) != 0) {
    int nErrno = errno;
    return nErrno == EEXIST ? OS_ERROR_ALREADY_EXISTS : DosErrorFromErrno(nErrno, szHost);
  }
  return 0;
}

DWORD WinOSRemoveDir(const char* pchPath) {
  char szHost[DOS_MAX_PATH];
  DWORD dwError = DosToHost(pchPath, szHost, sizeof(szHost));
  if (dwError) return dwError;
  if (rmdir(szHost) != 0) {
    int nErrno = errno;
    struct stat st;
    // Naming a file is not a missing path but "not a directory".
    if (nErrno == ENOTDIR && lstat(szHost, &st) == 0) return DOS_ERROR_DIRECTORY;
    return DosErrorFromErrno(nErrno, szHost);
  }
  return 0;
}
// ---------------------------------------------------------------------------------------------
// Listing. The whole directory is read at FindFirst and sorted as Windows lists a directory:
// "." and ".." first, then by name without regard to case.

namespace {

struct TPosixFind {
  DWORD dwCount;  // names in apchNames
  DWORD dwNext;   // index of the next name to deliver
  char** apchNames;
  char* pchNames;  // all names, each with its NUL
  char szDir[DOS_MAX_PATH];
  char szName[NAME_MAX + 1];  // the current item; TFindInfo::pchName points here
};

inline char FoldCase(char ch) { return (ch >= 'A' && ch <= 'Z') ? (char)(ch | 0x20) : ch; }

// Windows wildcards without regard to case: '*' any run, '?' any one character.
BOOL MatchMask(const char* pchMask, const char* pchName) {
  if (strcmp(pchMask, "*.*") == 0 || strcmp(pchMask, "*") == 0) return TRUE;  // everything
  const char* pchStar = 0;
  const char* pchResume = 0;
  while (*pchName) {
    if (*pchMask == '*') {
      pchStar = pchMask++;
      pchResume = pchName;
    } else if (*pchMask == '?' || FoldCase(*pchMask) == FoldCase(*pchName)) {
      pchMask++;
      pchName++;
    } else if (pchStar) {
      pchMask = pchStar + 1;
      pchName = ++pchResume;
    } else {
      return FALSE;
    }
  }
  while (*pchMask == '*') pchMask++;
  return *pchMask == 0;
}

int DotRank(const char* pch) {
  if (strcmp(pch, ".") == 0) return 0;
  if (strcmp(pch, "..") == 0) return 1;
  return 2;
}

int CompareNames(const void* pA, const void* pB) {
  const char* pchA = *(char* const*)pA;
  const char* pchB = *(char* const*)pB;
  int nRankA = DotRank(pchA), nRankB = DotRank(pchB);
  if (nRankA != nRankB) return nRankA - nRankB;
  int n = strcasecmp(pchA, pchB);
  return n ? n : strcmp(pchA, pchB);
}

void FreeFind(TPosixFind* pFind) {
  if (!pFind) return;
  if (pFind->apchNames) MEM_FREE(pFind->apchNames);
  if (pFind->pchNames) MEM_FREE(pFind->pchNames);
  MEM_FREE(pFind);
}

// Attributes of the entry pchName of the listing's directory.
DWORD FindAttributes(TPosixFind* pFind, const char* pchName) {
  char szPath[DOS_MAX_PATH];
  if ((size_t)snprintf(szPath, sizeof(szPath), "%s/%s", pFind->szDir, pchName) >= sizeof(szPath))
    return FILE_ATTR_NORMAL;
  struct stat st;
  if (stat(szPath, &st) != 0 && lstat(szPath, &st) != 0) return FILE_ATTR_NORMAL;
  DWORD dwAttr = 0;
  if (S_ISDIR(st.st_mode))
    dwAttr |= FILE_ATTR_DIRECTORY;
  else {
    dwAttr |= FILE_ATTR_ARCHIVE;
    if (!(st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH))) dwAttr |= FILE_ATTR_READONLY;
  }
  // Dot files are the hidden files of this side.
  if (pchName[0] == '.' && DotRank(pchName) == 2) dwAttr |= FILE_ATTR_HIDDEN;
  return dwAttr ? dwAttr : FILE_ATTR_NORMAL;
}

// Moves the listing to its next name; FALSE at the end.
BOOL FindStep(TFindInfo* pInfo) {
  TPosixFind* pFind = (TPosixFind*)pInfo->pData;
  if (pFind->dwNext >= pFind->dwCount) return FALSE;
  const char* pchName = pFind->apchNames[pFind->dwNext++];
  strncpy(pFind->szName, pchName, sizeof(pFind->szName) - 1);
  pFind->szName[sizeof(pFind->szName) - 1] = 0;
  pInfo->dwAttr = FindAttributes(pFind, pFind->szName);
  return TRUE;
}

}  // namespace

ERR WinOSFindFirst(const char* pchPattern, TFindInfo* pInfo) {
  // Directory and mask. "X:mask" lists the root of the drive.
  const char* pchMask = LastComponent(pchPattern);
  char szDir[DOS_MAX_PATH];
  size_t nDir = (size_t)(pchMask - pchPattern);
  if (nDir >= sizeof(szDir)) return ErrFromOS(DOS_ERROR_FILENAME_EXCED_RANGE, ERR_FILE_GENERAL);
  memcpy(szDir, pchPattern, nDir);
  szDir[nDir] = 0;
  BOOL bDriveRoot = FALSE;
  if (nDir >= 2 && szDir[1] == ':' && ((szDir[0] | 0x20) >= 'a' && (szDir[0] | 0x20) <= 'z')) {
    const char* pch = szDir + 2;
    while (*pch == '\\' || *pch == '/') pch++;
    bDriveRoot = *pch == 0;
  }

  TPosixFind* pFind = (TPosixFind*)MEM_ALLOC(sizeof(TPosixFind));
  if (!pFind) return ERR_FILE_NOMEM;
  memset(pFind, 0, sizeof(*pFind));
  DWORD dwError = DosToHost(szDir, pFind->szDir, sizeof(pFind->szDir));
  DIR* pDir = dwError ? 0 : opendir(pFind->szDir);
  if (!pDir) {
    if (!dwError) {
      dwError = DosErrorFromErrno(errno, pFind->szDir);
      if (dwError == OS_ERROR_FILE_NOT_FOUND) dwError = OS_ERROR_PATH_NOT_FOUND;
    }
    FreeFind(pFind);
    return ErrFromOS(dwError, ERR_FILE_GENERAL);
  }

  // Collect the matching names. The root of a drive has no "." and "..".
  size_t nUsed = 0, nRoom = 0;
  ERR err = ERR_NOERR;
  while (struct dirent* pEnt = readdir(pDir)) {
    if (bDriveRoot && DotRank(pEnt->d_name) < 2) continue;
    if (!MatchMask(pchMask, pEnt->d_name)) continue;
    size_t nLen = strlen(pEnt->d_name) + 1;
    if (nUsed + nLen > nRoom) {
      size_t nNewRoom = nRoom ? nRoom * 2 : 1024;
      while (nNewRoom < nUsed + nLen) nNewRoom *= 2;
      char* pchNew = (char*)(pFind->pchNames ? MEM_REALLOC(pFind->pchNames, nNewRoom) : MEM_ALLOC(nNewRoom));
      if (!pchNew) {
        err = ERR_FILE_NOMEM;
        break;
      }
      pFind->pchNames = pchNew;
      nRoom = nNewRoom;
    }
    memcpy(pFind->pchNames + nUsed, pEnt->d_name, nLen);
    nUsed += nLen;
    pFind->dwCount++;
  }
  closedir(pDir);
  if (!err && pFind->dwCount == 0) err = ErrFromOS(OS_ERROR_FILE_NOT_FOUND, ERR_FILE_GENERAL);
  if (!err) {
    pFind->apchNames = (char**)MEM_ALLOC(pFind->dwCount * sizeof(char*));
    if (!pFind->apchNames) err = ERR_FILE_NOMEM;
  }
  if (err) {
    FreeFind(pFind);
    return err;
  }
  char* pch = pFind->pchNames;
  for (DWORD i = 0; i < pFind->dwCount; i++) {
    pFind->apchNames[i] = pch;
    pch += strlen(pch) + 1;
  }
  qsort(pFind->apchNames, pFind->dwCount, sizeof(char*), CompareNames);

  pInfo->pData = pFind;
  pInfo->dwParam = (DWORD_PTR)pFind;
  pInfo->pchName = pFind->szName;
  FindStep(pInfo);
  return ERR_NOERR;
}

DWORD WinOSFindNext(TFindInfo* pInfo) { return FindStep(pInfo) ? 0 : OS_ERROR_NO_MORE_FILES; }

DWORD WinOSFindClose(TFindInfo* pInfo) {
  FreeFind((TPosixFind*)pInfo->pData);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Drives and directories

void WinOSStart() {
  // Descriptors are not scarce here; what the system needs is the prefix with drive C:.
  DosEnsurePrefix();
}

namespace {

// Drive types as the Windows call numbers them: 1 no such root, 2 removable, 3 fixed,
// 4 remote, 5 CD-ROM, 6 RAM disk. The file system under the drive's link decides.
UINT DriveTypeOf(char chLetter) {
  char szDir[DOS_MAX_PATH];
  if (!DosDriveDir(chLetter, szDir, sizeof(szDir))) return 1;
  struct statfs sfs;
  if (statfs(szDir, &sfs) != 0) return 1;
  switch ((unsigned long)sfs.f_type) {
    case 0x9660:      // ISO 9660
    case 0x15013346:  // UDF
      return 5;
    case 0x6969:      // NFS
    case 0x517B:      // SMB
    case 0xFF534D42:  // CIFS
    case 0xFE534D42:  // SMB2
    case 0x564C:      // NCP
    case 0x5346414F:  // AFS
    case 0x73757245:  // Coda
    case 0x01021997:  // 9P
    case 0x6B414653:  // AFS (kernel client)
    case 0x47504653:  // GPFS
    case 0x0BD00BD0:  // Lustre
    case 0x00C36400:  // Ceph
      return 4;
    case 0x01021994:  // tmpfs
    case 0x858458F6:  // ramfs
      return 6;
    default:
      return 3;
  }
}

// Copies a Windows path into a directory record's 128 bytes, terminator included; a longer
// path leaves the record empty, as the Windows calls do.
void SetVolPath(TVolInfo* pVol, const char* pchPath) {
  if (strlen(pchPath) < sizeof(pVol->szPath)) strcpy(pVol->szPath, pchPath);
}

}  // namespace

UINT WinOSDriveType(char chLetter) { return DriveTypeOf(chLetter); }

void WinOSReadDirectories(TVolInfo* pSys, TVolInfo* pCur, TVolInfo* pExe) {
  DosEnsurePrefix();
  char szHost[DOS_MAX_PATH];
  char szPath[DOS_MAX_PATH];
  SetVolPath(pSys, DosWindowsDirectory());
  if (getcwd(szHost, sizeof(szHost)) && DosFromHost(szHost, szPath, sizeof(szPath))) SetVolPath(pCur, szPath);
  ssize_t nLen = readlink("/proc/self/exe", szHost, sizeof(szHost) - 1);
  if (nLen > 0) {
    szHost[nLen] = 0;
    if (DosFromHost(szHost, szPath, sizeof(szPath))) {
      // The program's name is cut off below, so a long path may lose only that.
      char* pchLast = strrchr(szPath, '\\');
      if (pchLast) pchLast[1] = 0;
      SetVolPath(pExe, szPath);
    }
  }
}

ERR WinOSGetSpace(const char* pchRoot, DWORD* pdwTotalKB, DWORD* pdwFreeKB, DWORD* pdwClusterSize,
                  DWORD* pdwFreeClusters) {
  char chLetter = pchRoot[0];
  if (!((chLetter >= 'A' && chLetter <= 'Z') || (chLetter >= 'a' && chLetter <= 'z'))) return ERR_UNKNOWN;
  char szHost[DOS_MAX_PATH];
  if (DosToHost(pchRoot, szHost, sizeof(szHost)) != 0) return ERR_UNKNOWN;
  struct statvfs svfs;
  if (statvfs(szHost, &svfs) != 0) return ERR_UNKNOWN;

  // A cluster is the file system's fragment; counts are those open to the caller, held to
  // 32 bits as the Windows call gives them.
  unsigned long long qwCluster = svfs.f_frsize ? svfs.f_frsize : svfs.f_bsize;
  DWORD dwClusterSize = qwCluster > 0xFFFFFFFFull ? 0xFFFFFFFF : (DWORD)qwCluster;
  unsigned long long qwFree = svfs.f_bavail, qwTotal = svfs.f_blocks;
  DWORD dwFreeClusters = qwFree > 0xFFFFFFFFull ? 0xFFFFFFFF : (DWORD)qwFree;
  DWORD dwTotalClusters = qwTotal > 0xFFFFFFFFull ? 0xFFFFFFFF : (DWORD)qwTotal;
  if (pdwClusterSize) *pdwClusterSize = dwClusterSize;
  if (pdwFreeClusters) *pdwFreeClusters = dwFreeClusters;
  if (pdwFreeKB) *pdwFreeKB = (DWORD)(((unsigned long long)dwClusterSize * dwFreeClusters) >> 10);
  if (pdwTotalKB) *pdwTotalKB = (DWORD)(((unsigned long long)dwClusterSize * dwTotalClusters) >> 10);
  return ERR_NOERR;
}
