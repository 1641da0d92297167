// Abstract file and volume, the volume table that maps path prefixes to volumes, and the free
// functions through which every file of the system is opened.
#pragma once

#include "base/tools.h"

// Open mode bits; the native volume gives them their effect.
#define FILE_READ 0x01
#define FILE_WRITE 0x02
#define FILE_CREATENEW 0x04  // alone: create, failing if the file exists
#define FILE_REPLACE 0x08    // with FILE_CREATENEW: create, replacing an existing file
#define FILE_SEQUENTIAL 0x10
#define FILE_RANDOM 0x20
#define FILE_OTHERS_READ 0x40
#define FILE_OTHERS_WRITE 0x80

// The modes used in the system.
#define FILE_MODE_READ 0x01       // read an existing file
#define FILE_MODE_READWRITE 0x03  // read and write an existing file
#define FILE_MODE_CREATE 0x0F     // read and write a new or truncated file
#define FILE_MODE_WRITESEQ 0x1E   // write a new file, sequentially

// Seek origins.
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2

// Attribute bits of TFindInfo::dwAttr.
#define FILE_ATTR_READONLY 0x01
#define FILE_ATTR_HIDDEN 0x02
#define FILE_ATTR_SYSTEM 0x04
#define FILE_ATTR_DIRECTORY 0x10
#define FILE_ATTR_ARCHIVE 0x20
#define FILE_ATTR_NORMAL 0x80
#define FILE_ATTR_TEMPORARY 0x100
#define FILE_ATTR_COMPRESSED 0x800

// Drive flags of TDriveInfo and TVolInfo.
#define DRIVE_FLAG_REMOVABLE 0x02
#define DRIVE_FLAG_FIXED 0x04
#define DRIVE_FLAG_REMOTE 0x08
#define DRIVE_FLAG_CDROM 0x10
#define DRIVE_FLAG_RAMDISK 0x20
#define DRIVE_FLAG_EXE 0x80
#define DRIVE_FLAG_SYSTEM 0x100
#define DRIVE_FLAG_CURRENT 0x200

#define MAX_DRIVES 20

struct TDriveInfo {
  DWORD dwLetter;  // upper case
  WORD wFlags;
  WORD wReserved;
  char szRoot[8];  // such as "C:\"
};

struct TVolInfo {
  DWORD dwLetter;  // first character of the path
  WORD wFlags;
  WORD wReserved;
  char szPath[128];  // with a trailing backslash
};

class CFS;

// State of a directory listing; owned by the caller.
struct TFindInfo {
  CFS* pFS;           // the volume that began it
  DWORD_PTR dwParam;  // the volume's own search handle
  void* pData;        // the volume's own search record
  DWORD dwAttr;       // attributes of the current item
  char* pchName;      // name of the current item, inside pData
};

// An open stream with random access. Deleting it closes it.
class CFile : public CObject {
  DECLARE_CLASS()
 public:
  // pMedia: the file underneath for files that wrap another; bOwnMedia: delete it with this.
  CFile(CFile* pMedia = 0, BOOL bOwnMedia = 0);
  ~CFile() override;  // asserts "!m_nMemImages"

  // A null count pointer is allowed everywhere.
  virtual ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead);
  virtual ERR ReadAt(void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwRead);
  virtual ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten);
  virtual ERR WriteAt(const void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwWritten);
  virtual ERR Seek(LONG lOfs, SHORT wOrigin);
  virtual DWORD GetSize();
  virtual DWORD GetPos();
  virtual ERR Flush();
  // Ends the file at the current position.
  virtual ERR Truncate();
  // Copies dwCount bytes from dwSrc to dwDest inside the file, safe for overlap, in chunks of
  // dwBufSize through pBuf (allocated when null). Always 0 but for ERR_FILE_NOMEM.
  virtual ERR Move(DWORD dwDest, DWORD dwSrc, DWORD dwCount, DWORD dwBufSize, void* pBuf);
  // A range of the file as memory; release with FreeImage. The base class copies.
  virtual ERR LoadImage(DWORD dwOfs, DWORD dwSize, void** ppImage);
  virtual ERR FreeImage(void* pImage);
  virtual DWORD_PTR GetBase();
  virtual DWORD Reserved();
  virtual ERR GetProperty(DWORD dwPID, void* pValue, DWORD dwSize);
  virtual ERR SetProperty(DWORD dwPID, void* pValue, DWORD dwSize);

  WORD GetMode() { return m_wMode; }
  BOOL IsValid() { return m_bValid; }

 protected:
  WORD m_wMode;
  DWORD m_bValid;
  SHORT m_nMemImages;
  CFile* m_pMedia;
  DWORD m_bOwnMedia;
};

// A volume: opens files and knows directories.
class CFS : public CObject {
  DECLARE_CLASS()
 public:
  ~CFS() override {}
  // The file, or null with the reason through pErr (which may be null).
  virtual CFile* Open(const char* pchPath, WORD wMode, ERR* pErr);
  virtual BOOL Exists(const char* pchPath);
  virtual ERR Delete(const char* pchPath);
  virtual ERR Rename(const char* pchOld, const char* pchNew);
  virtual ERR CreateDir(const char* pPath, const char* pDirName);
  virtual ERR RemoveDir(const char* pPath, const char* pDirName);
  virtual ERR FindFirst(TFindInfo* pInfo, const char* pPath);
  virtual ERR FindNext(TFindInfo* pInfo);
  virtual ERR FindClose(TFindInfo* pInfo);
  virtual ERR ReservedOp1(const char* pPath, DWORD x, DWORD y);
  virtual ERR ReservedOp2(const char* pPath, DWORD x, DWORD y);
  // Offset of a file within the volume's container; 0 (and 0 through pErr) here.
  virtual DWORD GetFileOffset(const char* pchPath, ERR* pErr);
};

// One record of the volume table.
struct TFSEntry {
  DWORD dwFlags;
  const char* pchName;  // the prefix; not copied
  CFS* pVol;
};

extern TFSEntry* g_pFS;
extern WORD g_wCount;
extern WORD g_wMaxFS;

extern TDriveInfo g_DriveInfo[MAX_DRIVES];
extern BYTE g_btVNum;
extern TVolInfo* g_pSysVol;  // the Windows directory
extern TVolInfo* g_pCurVol;  // the current directory
extern TVolInfo* g_pExeVol;  // the directory of the program (or the command line's)

// Volume table. FSInit allocates a table of wMaxFS records (the start-up passes 5), clears the
// drive table and the three directory records, and registers the file error texts; returns 0.
ERR FSInit(WORD wMaxFS);
// Frees the directory records, deletes every volume still registered, frees the table.
ERR FSDone();
// Registers pVol under the prefix pchName (kept by pointer, not copied: it must outlive the
// record). From FSDone on the table owns the volume. A full table asserts and refuses the
// volume, which then stays the caller's: ERR_OUTOFRANGE. dwFlags is stored and never read.
ERR FSAdd(const char* pchName, CFS* pVol, DWORD dwFlags);
// The volume taken out, or null; the caller deletes it.
CFS* FSRemove(const char* pchName);
// The volume whose prefix is the longest match of *ppchPath, compared without regard to the
// case of A to Z, or null. On input *pwMaxLen is the longest prefix allowed (0xFFFF: no limit)
// and *pwIndex the record to begin at (0); on success *ppchPath moves past the prefix,
// *pwMaxLen receives its length and *pwIndex the record's index.
CFS* FSFind(const char** ppchPath, WORD* pwMaxLen, WORD* pwIndex);
// Copies drive record btNum (asserts "btNum<g_btVNum"); returns 0.
ERR VolGetInfo(BYTE btNum, TDriveInfo* pInfo);

// Free functions: each selects the volume by the path and passes the rest of it on. With no
// volume: FileOpen gives null (pErr untouched), FileExists 0, FileRename ERR_NOTIMPL, the rest
// ERR_FILE_GENERAL. FileRename needs both paths on one volume, else ERR_NOTIMPL.
CFile* FileOpen(const char* pchPath, WORD wMode, ERR* pErr);
BOOL FileExists(const char* pchPath);
ERR FileDelete(const char* pchPath);
ERR FileRename(const char* pchOld, const char* pchNew);
ERR DirCreate(const char* pPath, const char* pDirName);
ERR DirRemove(const char* pPath, const char* pDirName);
ERR FileFindFirst(TFindInfo* pInfo, const char* pPath);
ERR FileFindNext(TFindInfo* pInfo);
ERR FileFindClose(TFindInfo* pInfo);

// Every open in the system goes through this pointer; it holds FileOpen.
typedef CFile* (*PFN_FILEOPEN)(const char* pchPath, WORD wMode, ERR* pErr);
extern PFN_FILEOPEN g_pfnFileOpen;
