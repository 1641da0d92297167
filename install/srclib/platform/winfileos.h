// What the native volume (files/winfile.cpp) asks of the operating system: one set of these
// functions in each platform's winfile.cpp. Only the native volume includes this header.
#pragma once

#include "files/file.h"

// Errors cross this interface as Windows error numbers (0 for success), which ErrFromOS turns
// into the ERR of the operation; on POSIX the backend translates errno first.

// Seek origins as the native volume hands them over.
enum { WINOS_SEEK_BEGIN, WINOS_SEEK_CURRENT, WINOS_SEEK_END };

// The open-mode bits of CWinFS::Open, decoded.
struct TWinOSOpen {
  BOOL bRead;
  BOOL bWrite;
  BOOL bCreate;      // create the file
  BOOL bReplace;     // with bCreate: an existing file is replaced rather than an error
  BOOL bSequential;  // hint; wins over bRandom when both are set
  BOOL bRandom;      // hint
  BOOL bShareRead;   // others may read while this handle is open
  BOOL bShareWrite;  // others may write while this handle is open
};

// The longest Windows path (with its terminator) the OS takes for a directory level or a
// listing pattern; longer joins fail with the "file name too long" error number.
size_t WinOSMaxPath();

// Opens pchPath. TRUE with the handle through phFile, or FALSE with the error number through
// pdwError.
BOOL WinOSOpen(const char* pchPath, const TWinOSOpen* pMode, DWORD_PTR* phFile, DWORD* pdwError);
void WinOSClose(DWORD_PTR hFile);
// Read and write move as many bytes as they can; the count goes through pdwDone even when an
// error number comes back. wMode is the handle's open mode.
DWORD WinOSRead(DWORD_PTR hFile, WORD wMode, void* pBuf, DWORD dwCount, DWORD* pdwDone);
DWORD WinOSWrite(DWORD_PTR hFile, WORD wMode, const void* pBuf, DWORD dwCount, DWORD* pdwDone);
// nOrigin: one of WINOS_SEEK_*.
DWORD WinOSSeek(DWORD_PTR hFile, LONG lOfs, int nOrigin);
// 0xFFFFFFFF when the OS cannot tell.
DWORD WinOSGetSize(DWORD_PTR hFile);
DWORD WinOSGetPos(DWORD_PTR hFile);
DWORD WinOSFlush(DWORD_PTR hFile, WORD wMode);
// Cuts the file at the current position.
DWORD WinOSTruncate(DWORD_PTR hFile, WORD wMode);

BOOL WinOSExists(const char* pchPath);
DWORD WinOSDelete(const char* pchPath);
DWORD WinOSRename(const char* pchOld, const char* pchNew);
// pchPath: the full path of the one directory level.
DWORD WinOSMakeDir(const char* pchPath);
DWORD WinOSRemoveDir(const char* pchPath);

// Starts listing pchPattern ("<dir>\*.*"). Sets pData, dwParam, pchName and dwAttr of pInfo
// for the first item; the caller sets pFS. Returns an ERR (ERR_FILE_NOMEM, or the OS error
// through ErrFromOS) and leaves pInfo untouched on failure.
ERR WinOSFindFirst(const char* pchPattern, TFindInfo* pInfo);
// The next item into pInfo, or an error number (18 at the end of the list).
DWORD WinOSFindNext(TFindInfo* pInfo);
// Frees what WinOSFindFirst made; the caller clears pInfo afterwards. An error number.
DWORD WinOSFindClose(TFindInfo* pInfo);

// What the OS needs before the native volume is registered.
void WinOSStart();
// Fills the paths of the Windows, current and program directory records (cleared on entry):
// the program's directory with its trailing backslash and without the program's name; the
// other two as the OS gives them. A path that does not fit leaves its record empty or cut
// short, never unterminated.
void WinOSReadDirectories(TVolInfo* pSys, TVolInfo* pCur, TVolInfo* pExe);
// The drive type as the Windows call numbers it: 1 no such root, 2 removable, 3 fixed,
// 4 remote, 5 CD-ROM, 6 RAM disk (other numbers count as no drive).
UINT WinOSDriveType(char chLetter);
// Size and free space of the drive with root pchRoot ("X:\"); any pointer may be null.
// ERR_UNKNOWN when the drive does not answer.
ERR WinOSGetSpace(const char* pchRoot, DWORD* pdwTotalKB, DWORD* pdwFreeKB, DWORD* pdwClusterSize,
                  DWORD* pdwFreeClusters);
