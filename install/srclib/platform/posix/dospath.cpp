// Windows paths on POSIX: prefix, drive links, resolution both ways, errno translation.
#include "platform/posix/dospath.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

inline BOOL IsSep(char ch) { return ch == '\\' || ch == '/'; }

inline BOOL IsLetter(char ch) { return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z'); }

// Appends pchText to the NUL-terminated pchBuf; FALSE (and pchBuf unchanged) when it won't fit.
BOOL Append(char* pchBuf, size_t nSize, const char* pchText, size_t nText) {
  size_t nLen = strlen(pchBuf);
  if (nLen + nText + 1 > nSize) return FALSE;
  memcpy(pchBuf + nLen, pchText, nText);
  pchBuf[nLen + nText] = 0;
  return TRUE;
}

BOOL Append(char* pchBuf, size_t nSize, const char* pchText) {
  return Append(pchBuf, nSize, pchText, strlen(pchText));
}

// pchA followed by pchB into pchBuf; FALSE when it won't fit.
BOOL Concat(char* pchBuf, size_t nSize, const char* pchA, const char* pchB) {
  pchBuf[0] = 0;
  return Append(pchBuf, nSize, pchA) && Append(pchBuf, nSize, pchB);
}

// mkdir that is content with a directory already there.
BOOL MakeDir(const char* pchPath) {
  if (mkdir(pchPath, 0777) == 0) return TRUE;
  struct stat st;
  return errno == EEXIST && stat(pchPath, &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir -p of an absolute or relative host path.
BOOL MakeDirs(const char* pchPath) {
  char szPath[DOS_MAX_PATH];
  size_t nLen = strlen(pchPath);
  if (nLen == 0 || nLen >= sizeof(szPath)) return FALSE;
  memcpy(szPath, pchPath, nLen + 1);
  for (size_t i = 1; i < nLen; i++) {
    if (szPath[i] != '/') continue;
    szPath[i] = 0;
    BOOL bMade = MakeDir(szPath);
    szPath[i] = '/';
    if (!bMade) return FALSE;
  }
  return MakeDir(szPath);
}

// Finds in host directory pchDir an entry whose name equals pchName without regard to case;
// of several, the first in byte order. FALSE when there is none.
BOOL FindNoCase(const char* pchDir, const char* pchName, char* pchFound, size_t nSize) {
  DIR* pDir = opendir(*pchDir ? pchDir : "/");
  if (!pDir) return FALSE;
  BOOL bFound = FALSE;
  while (struct dirent* pEnt = readdir(pDir)) {
    if (strcasecmp(pEnt->d_name, pchName) != 0) continue;
    if (strlen(pEnt->d_name) >= nSize) continue;
    if (bFound && strcmp(pEnt->d_name, pchFound) >= 0) continue;
    strcpy(pchFound, pEnt->d_name);
    bFound = TRUE;
  }
  closedir(pDir);
  return bFound;
}

// Adds one component of a path to the normalised list in pchList (components joined by '/',
// no leading one). ".." takes the last one out, "." and "" are dropped.
BOOL PushComponent(char* pchList, size_t nSize, const char* pchComp, size_t nComp) {
  if (nComp == 0 || (nComp == 1 && pchComp[0] == '.')) return TRUE;
  if (nComp == 2 && pchComp[0] == '.' && pchComp[1] == '.') {
    char* pchLast = strrchr(pchList, '/');
    if (pchLast)
      *pchLast = 0;
    else
      pchList[0] = 0;
    return TRUE;
  }
  if (*pchList && !Append(pchList, nSize, "/", 1)) return FALSE;
  return Append(pchList, nSize, pchComp, nComp);
}

BOOL PushPath(char* pchList, size_t nSize, const char* pchPath) {
  while (*pchPath) {
    while (IsSep(*pchPath)) pchPath++;
    const char* pchStart = pchPath;
    while (*pchPath && !IsSep(*pchPath)) pchPath++;
    if (!PushComponent(pchList, nSize, pchStart, (size_t)(pchPath - pchStart))) return FALSE;
  }
  return TRUE;
}

}  // namespace

BOOL DosGetPrefix(char* pchBuf, size_t nSize) {
  const char* pchPrefix = getenv("SETUP_PREFIX");
  if (!pchPrefix || !*pchPrefix) pchPrefix = getenv("WINEPREFIX");
  pchBuf[0] = 0;
  if (pchPrefix && *pchPrefix) {
    if (!Append(pchBuf, nSize, pchPrefix)) return FALSE;
  } else {
    const char* pchHome = getenv("HOME");
    if (!pchHome || !*pchHome) return FALSE;
    if (!Append(pchBuf, nSize, pchHome) || !Append(pchBuf, nSize, "/.wine")) return FALSE;
  }
  size_t nLen = strlen(pchBuf);
  while (nLen > 1 && pchBuf[nLen - 1] == '/') pchBuf[--nLen] = 0;
  return TRUE;
}

BOOL DosDriveDir(char chLetter, char* pchBuf, size_t nSize) {
  if (!IsLetter(chLetter)) return FALSE;
  char szPrefix[DOS_MAX_PATH];
  if (!DosGetPrefix(szPrefix, sizeof(szPrefix))) return FALSE;
  // Links are kept in lower case; an upper-case one is taken when that is all there is.
  char achTry[2] = {(char)(chLetter | 0x20), (char)(chLetter & ~0x20)};
  for (char ch : achTry) {
    char szLink[16];
    snprintf(szLink, sizeof(szLink), "/dosdevices/%c:", ch);
    pchBuf[0] = 0;
    if (!Append(pchBuf, nSize, szPrefix) || !Append(pchBuf, nSize, szLink)) return FALSE;
    struct stat st;
    if (lstat(pchBuf, &st) == 0) return TRUE;
  }
  pchBuf[0] = 0;
  return FALSE;
}

BOOL DosEnsurePrefix() {
  char szPrefix[DOS_MAX_PATH];
  if (!DosGetPrefix(szPrefix, sizeof(szPrefix))) return FALSE;
  char szPath[DOS_MAX_PATH];
  if (!Concat(szPath, sizeof(szPath), szPrefix, "/dosdevices") || !MakeDirs(szPath)) return FALSE;
  char szDrive[DOS_MAX_PATH];
  if (!DosDriveDir('c', szDrive, sizeof(szDrive))) {
    if (!Concat(szPath, sizeof(szPath), szPrefix, "/drive_c") || !MakeDir(szPath)) return FALSE;
    if (!Concat(szPath, sizeof(szPath), szPrefix, "/dosdevices/c:")) return FALSE;
    if (symlink("../drive_c", szPath) != 0 && errno != EEXIST) return FALSE;
  }
  // Resolved through the drive, so an existing "Windows" of another spelling is used as is.
  if (DosToHost("C:\\windows", szPath, sizeof(szPath)) != 0 || !MakeDir(szPath)) return FALSE;
  if (DosToHost("C:\\windows\\system32", szPath, sizeof(szPath)) != 0 || !MakeDir(szPath)) return FALSE;
  return TRUE;
}

const char* DosWindowsDirectory() { return "C:\\windows"; }

DWORD DosToHost(const char* pchPath, char* pchBuf, size_t nSize) {
  if (nSize == 0) return DOS_ERROR_FILENAME_EXCED_RANGE;
  pchBuf[0] = 0;
  if (!pchPath) pchPath = "";

  // The root the walk starts from (never taken apart) and the normalised components below it.
  char szRoot[DOS_MAX_PATH];
  char szList[DOS_MAX_PATH];
  szRoot[0] = 0;
  szList[0] = 0;
  if (IsLetter(pchPath[0]) && pchPath[1] == ':') {
    if (!DosDriveDir(pchPath[0], szRoot, sizeof(szRoot))) return 3;
    pchPath += 2;
  } else if (!IsSep(pchPath[0])) {
    char szCwd[DOS_MAX_PATH];
    if (!getcwd(szCwd, sizeof(szCwd))) return DosErrorFromErrno(errno, 0);
    if (!PushPath(szList, sizeof(szList), szCwd)) return DOS_ERROR_FILENAME_EXCED_RANGE;
  }
  if (!PushPath(szList, sizeof(szList), pchPath)) return DOS_ERROR_FILENAME_EXCED_RANGE;

  // Walk down from the root, taking each component as spelled when it exists, else its match
  // without regard to case. After the first component that doesn't exist, all is as spelled.
  char szOut[DOS_MAX_PATH];
  strcpy(szOut, szRoot);
  BOOL bMissing = FALSE;
  const char* pch = szList;
  while (*pch) {
    const char* pchEnd = strchr(pch, '/');
    size_t nComp = pchEnd ? (size_t)(pchEnd - pch) : strlen(pch);
    char szComp[NAME_MAX + 1];
    if (nComp > NAME_MAX) {
      bMissing = TRUE;  // no such name can exist; the OS will say so
      if (!Append(szOut, sizeof(szOut), "/") || !Append(szOut, sizeof(szOut), pch, nComp))
        return DOS_ERROR_FILENAME_EXCED_RANGE;
    } else {
      memcpy(szComp, pch, nComp);
      szComp[nComp] = 0;
      size_t nDir = strlen(szOut);
      if (!Append(szOut, sizeof(szOut), "/") || !Append(szOut, sizeof(szOut), szComp))
        return DOS_ERROR_FILENAME_EXCED_RANGE;
      struct stat st;
      if (!bMissing && lstat(szOut, &st) != 0) {
        szOut[nDir] = 0;
        char szFound[NAME_MAX + 1];
        if (FindNoCase(szOut, szComp, szFound, sizeof(szFound)))
          strcpy(szComp, szFound);
        else
          bMissing = TRUE;
        Append(szOut, sizeof(szOut), "/");
        Append(szOut, sizeof(szOut), szComp);  // same length as before: fits
      }
    }
    pch += nComp;
    if (*pch == '/') pch++;
  }
  if (!szOut[0]) strcpy(szOut, "/");
  if (strlen(szOut) + 1 > nSize) return DOS_ERROR_FILENAME_EXCED_RANGE;
  strcpy(pchBuf, szOut);
  return 0;
}

BOOL DosFromHost(const char* pchHost, char* pchBuf, size_t nSize) {
  if (nSize == 0) return FALSE;
  pchBuf[0] = 0;
  // Absolute, with links resolved where the path exists.
  char szAbs[DOS_MAX_PATH];
  char szReal[PATH_MAX];
  if (realpath(pchHost, szReal)) {
    if (strlen(szReal) >= sizeof(szAbs)) return FALSE;
    strcpy(szAbs, szReal);
  } else {
    szAbs[0] = 0;
    if (pchHost[0] != '/') {
      if (!getcwd(szAbs, sizeof(szAbs))) return FALSE;
      if (!Append(szAbs, sizeof(szAbs), "/")) return FALSE;
    }
    if (!Append(szAbs, sizeof(szAbs), pchHost)) return FALSE;
  }

  // The drive whose target is the longest leading part of the path.
  char chBest = 0;
  size_t nBest = 0;
  for (char ch = 'a'; ch <= 'z'; ch++) {
    char szDrive[DOS_MAX_PATH];
    if (!DosDriveDir(ch, szDrive, sizeof(szDrive)) || !realpath(szDrive, szReal)) continue;
    size_t nLen = strlen(szReal);
    if (nLen == 1) nLen = 0;  // a drive on the host root leads every path
    if (strncmp(szAbs, szReal, nLen) != 0 || (szAbs[nLen] != '/' && szAbs[nLen] != 0)) continue;
    if (!chBest || nLen > nBest) {
      chBest = ch;
      nBest = nLen;
    }
  }

  char szOut[DOS_MAX_PATH];
  const char* pchRest = szAbs;
  szOut[0] = 0;
  if (chBest) {
    char szDrive[3] = {(char)(chBest & ~0x20), ':', 0};
    strcpy(szOut, szDrive);
    pchRest = szAbs + nBest;
    if (!*pchRest) pchRest = "/";
  }
  if (!Append(szOut, sizeof(szOut), pchRest)) return FALSE;
  for (char* pch = szOut; *pch; pch++)
    if (*pch == '/') *pch = '\\';
  if (strlen(szOut) + 1 > nSize) return FALSE;
  strcpy(pchBuf, szOut);
  return TRUE;
}

DWORD DosErrorFromErrno(int nErrno, const char* pchHost) {
  switch (nErrno) {
    case 0:
      return 0;
    case ENOENT:
      if (pchHost) {
        // A missing parent is a missing path, as the Windows calls report it.
        char szParent[DOS_MAX_PATH];
        size_t nLen = strlen(pchHost);
        if (nLen < sizeof(szParent)) {
          strcpy(szParent, pchHost);
          while (nLen > 1 && szParent[nLen - 1] == '/') szParent[--nLen] = 0;
          char* pchLast = strrchr(szParent, '/');
          if (pchLast) {
            if (pchLast == szParent)
              pchLast[1] = 0;
            else
              *pchLast = 0;
            struct stat st;
            if (stat(szParent, &st) != 0 || !S_ISDIR(st.st_mode)) return 3;
          }
        }
      }
      return 2;
    case ENOTDIR:
    case ELOOP:
      return 3;
    case EMFILE:
    case ENFILE:
      return 4;
    case EACCES:
    case EPERM:
    case EISDIR:
      return 5;
    case EBADF:
      return DOS_ERROR_INVALID_HANDLE;
    case ENXIO:
    case ENODEV:
      return 15;
    case EROFS:
      return 19;
#ifdef ENOMEDIUM
    case ENOMEDIUM:
      return 21;
#endif
#ifdef EMEDIUMTYPE
    case EMEDIUMTYPE:
      return 26;
#endif
    case EBUSY:
    case ETXTBSY:
      return 32;
    case EEXIST:
      return 80;
    case ENOSPC:
#ifdef EDQUOT
    case EDQUOT:
#endif
    case EFBIG:
      return 112;
    case EXDEV:
      return DOS_ERROR_NOT_SAME_DEVICE;
    case EINVAL:
      return DOS_ERROR_INVALID_PARAMETER;
    case ENOTEMPTY:
      return DOS_ERROR_DIR_NOT_EMPTY;
    case ENAMETOOLONG:
      return DOS_ERROR_FILENAME_EXCED_RANGE;
    case EIO:
      return DOS_ERROR_IO_DEVICE;
    default:
      return 0xFFFFFFFFu;  // in no table: every operation's own default
  }
}
