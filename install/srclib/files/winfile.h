// The native volume: files and directories of the operating system, the drive table, the
// Windows, current and program directories, and free disk space.
#pragma once

#include "files/file.h"

// GetProperty id that reads the OS handle of a CWinFile into a DWORD_PTR.
#define PID_OSHANDLE 0x10000001u

// Translates a Windows error number into the ERR of the file services. errDefault is the
// result for any number not in the table; 0 gives ERR_NOERR. On POSIX the backend first turns
// errno into the Windows number, so the same ERR comes out on every platform.
ERR ErrFromOS(DWORD dwOSError, ERR errDefault);

// A file of the operating system. Built by CWinFS::Open; deleting it closes the handle.
class CWinFile : public CFile {
  DECLARE_CLASS()
 public:
  // hFile: the OS handle (a HANDLE on Windows, a file descriptor elsewhere), owned from now on.
  CWinFile(DWORD_PTR hFile, WORD wMode);
  ~CWinFile() override;

  // Fewer bytes than asked: ERR_FILE_EOF with the true count through pdwRead.
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override;
  // A short count is not an error; a full disk is ERR_FILE_DISKFULL.
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override;
  ERR Seek(LONG lOfs, SHORT wOrigin) override;
  // Asserts "dwSize!=0xFFFFFFFF" when the OS cannot tell.
  DWORD GetSize() override;
  // Asserts "dwPos!=0xFFFFFFFF" when the OS cannot tell.
  DWORD GetPos() override;
  ERR Flush() override;
  ERR Truncate() override;
  // PID_OSHANDLE stores the handle (dwSize at least sizeof(DWORD_PTR)); others: the base.
  ERR GetProperty(DWORD dwPID, void* pValue, DWORD dwSize) override;

 protected:
  DWORD_PTR m_hFile;
};

// The volume with the empty prefix: every path no other volume claims. Paths are Windows
// paths; elsewhere "X:\" goes through the drive links of the prefix (see docs/porting.md).
class CWinFS : public CFS {
  DECLARE_CLASS()
 public:
  // Mode bits 0x01/0x02 access, 0x04/0x08 creation, 0x10/0x20 hints, 0x40/0x80 sharing.
  // Null with the reason through pErr (may be null); the caller deletes the file.
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override;
  // True for a file that can be opened for reading; false for directories.
  BOOL Exists(const char* pchPath) override;
  ERR Delete(const char* pchPath) override;
  // Fails when pchNew exists.
  ERR Rename(const char* pchOld, const char* pchNew) override;
  // One level: pDirName holding '\' or ':' gives ERR_BADPARAM and nothing is made.
  ERR CreateDir(const char* pPath, const char* pDirName) override;
  ERR RemoveDir(const char* pPath, const char* pDirName) override;
  // Lists "*.*" of pPath ("" is the current directory), "." and ".." included where the OS
  // gives them. pInfo->pchName points into the volume's own record until FindClose.
  ERR FindFirst(TFindInfo* pInfo, const char* pPath) override;
  // ERR_FILE_NOMOREFILES at the end of the list.
  ERR FindNext(TFindInfo* pInfo) override;
  // Frees the record and clears *pInfo, whatever the result.
  ERR FindClose(TFindInfo* pInfo) override;
};

// Registers a CWinFS under the empty prefix. Called once at start-up, after FSInit. Returns 0.
ERR WinFSInit();
// Takes the native volume out of the table and deletes it. Returns 0.
ERR WinFSDone();

// Rebuilds the drive table and the Windows, current and program directory records. May be
// called at any time. Returns the number of drives.
DWORD VolEnumerate();
// Size and free space of drive btNum of the table; any pointer may be null. ERR_UNKNOWN when
// the drive does not answer.
ERR VolGetSpace(BYTE btNum, DWORD* pdwTotalKB, DWORD* pdwFreeKB, DWORD* pdwClusterSize,
                DWORD* pdwFreeClusters);
// Copies the root path of drive btNum (at most 8 bytes with the NUL) to pchBuf. Returns 0, or
// ERR_BADPARAM (and "") for a number beyond the table.
ERR VolGetRoot(BYTE btNum, char* pchBuf);
// The same from a record. ERR_BADPARAM for a null record.
ERR VolCopyRoot(const TDriveInfo* pInfo, char* pchBuf);
