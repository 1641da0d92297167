// Windows paths on POSIX: the prefix and its drive links, resolution of Windows paths to host
// paths (either separator, case-insensitive components), the way back from a host path to a
// drive path, and errno as a Windows error number.
#pragma once

#include <stddef.h>

#include "base/types.h"

// Room for any host path this layer builds.
#define DOS_MAX_PATH 4096

// Windows error numbers produced here besides those of ErrFromOS's table.
#define DOS_ERROR_INVALID_HANDLE 6
#define DOS_ERROR_NOT_SAME_DEVICE 17
#define DOS_ERROR_INVALID_PARAMETER 87
#define DOS_ERROR_DIR_NOT_EMPTY 145
#define DOS_ERROR_FILENAME_EXCED_RANGE 206
#define DOS_ERROR_DIRECTORY 267
#define DOS_ERROR_IO_DEVICE 1117

// The prefix directory: SETUP_PREFIX, else WINEPREFIX, else $HOME/.wine (no trailing '/').
// FALSE when none can be named or it does not fit.
BOOL DosGetPrefix(char* pchBuf, size_t nSize);

// Makes what the system needs when missing: the prefix, its dosdevices and drive_c, the link
// "dosdevices/c:" -> "../drive_c", and "windows" and "windows/system32" on drive C:. Called by
// WinFSInit and VolEnumerate. FALSE when the prefix can't be made.
BOOL DosEnsurePrefix();

// Host path of the root of drive chLetter (either case): the link "<prefix>/dosdevices/x:",
// which need not lead anywhere. FALSE when the drive has no link.
BOOL DosDriveDir(char chLetter, char* pchBuf, size_t nSize);

// Resolves a Windows path to a host path in pchBuf. "X:" paths start at the drive's link, a
// path that begins with a separator at the host root, any other path at the current
// directory. '\' and '/' both separate; "." and ".." are taken out by name, never above the
// root of a drive; a component that doesn't exist as spelled is matched without regard to
// case (the first match in byte order), and where nothing matches it and the rest are kept
// as spelled. Returns 0, 3 (path not found) for a drive without a link, or 206 when the
// result does not fit.
DWORD DosToHost(const char* pchPath, char* pchBuf, size_t nSize);

// The Windows form of a host path: "X:\..." when it lies under a drive (the drive whose
// target is the longest leading part wins; a drive's root is "X:\"), else the absolute host
// path with every '/' turned into '\' (such as "\home\user\game"), which DosToHost takes back
// to the same place. Symbolic links are resolved first where the path exists. FALSE when the
// result does not fit.
BOOL DosFromHost(const char* pchHost, char* pchBuf, size_t nSize);

// The Windows error number for errno. ENOENT is 2 (file not found), or 3 (path not found)
// when pchHost is given and its parent directory does not exist.
DWORD DosErrorFromErrno(int nErrno, const char* pchHost);

// The Windows directory, "C:\windows".
const char* DosWindowsDirectory();
