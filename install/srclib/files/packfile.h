// Pack files: one read-only file holding many named files whole, mounted as a volume under a
// prefix such as "pak:\" so that packed files open by path like any other.
#pragma once

#include "base/diction.h"
#include "files/file.h"

// Layout of a pack, little-endian:
//   0   18 bytes  PACK_MAGIC and a 0 byte
//   18  14 bytes  not read (writers leave them 0)
//   32  4 bytes   number of files
//   36  4 bytes   size of the directory in bytes
//   40            the directory: a word dictionary stream (base/diction.h) of the upper-case
//                 names, `\` as separator, in byte order, each with 8 bytes of user data: the
//                 file's offset from the start of the pack and its size
//   elsewhere     the files' bytes, at the offsets the directory gives, unchanged
#define PACK_MAGIC "TWKSYS PackFile\n\x1a"
#define PACK_MAGIC_SIZE 18  // with its terminating 0
#define PACK_HEADER_SIZE 40
#define PACK_COUNT_OFS 32
#define PACK_DIRSIZE_OFS 36
#define PACK_USER_DATA 8
#define PACK_INDEX_STEP 100
// Longest name a pack holds (a dictionary word).
#define PACK_MAX_NAME DICT_MAX_WORD

// Mount results, which have no registered text.
#define ERR_PACK_BADMODE 0x1F41u  // Open with a mode other than 0 or 1
#define ERR_PACK_READ 0x1F44u     // the header or directory could not be read, or no dictionary
#define ERR_PACK_BADPACK 0x1F45u  // not a usable pack
#define ERR_PACK_NOMEM 0x1F46u    // out of memory

// One packed file. It reads through the pack's file, which all files of the pack share and which
// it doesn't own, seeking before every read. IsValid() is false on these, so a pack inside a pack
// can't be mounted.
class CPackFile : public CFile {
  DECLARE_CLASS()
 public:
  CPackFile(CFile* pPack, DWORD dwBase, DWORD dwSize);
  ~CPackFile() override {}

  // A read across the end delivers what is left: with pdwRead it returns 0 and the short count,
  // without it ERR_FILE_EOF. A failing pack read asserts and returns that error.
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override;
  // Asserts "FALSE" and returns 0, storing no count: packs are read-only.
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override;
  // Never fails, and clamps at the last byte, not at the end: Seek(0, FILE_END) stands on the
  // last byte, so measure a packed file with GetSize, not by seeking.
  ERR Seek(LONG lOfs, SHORT wOrigin) override;
  DWORD GetSize() override;
  DWORD GetPos() override;
  ERR Flush() override;
  ERR Truncate() override;

 private:
  CFile* m_pPack;
  DWORD m_dwBase;
  DWORD m_dwSize;
  DWORD m_dwPos;
};

// A mounted pack: opens its files by name, without regard to case.
class CPackFS : public CFS {
  DECLARE_CLASS()
 public:
  // Takes over pFile.
  explicit CPackFS(CFile* pFile);
  // Deletes the dictionary and the pack's file: every CPackFile of it must be gone first.
  ~CPackFS() override;

  // Modes 0 and 1 only (else an assertion and ERR_PACK_BADMODE). The path has lost its prefix and
  // is looked up in upper case; ERR_FILE_NOTFOUND when absent. The caller deletes the file.
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override;
  // The file's offset within the pack, or 0 with ERR_FILE_NOTFOUND.
  DWORD GetFileOffset(const char* pchPath, ERR* pErr) override;

  const char* GetName() { return m_szName; }
  CDictionary* GetDictionary() { return m_pDict; }

  // The mount's work after the volume object exists: takes the name, reads and checks the header
  // and the directory, and makes the dictionary. Returns 0 or an ERR_PACK_ code; *pbAbandon says
  // the caller must neither delete nor register the volume (a header with no files).
  ERR Load(const char* pchName, BOOL* pbAbandon);

 private:
  CFile* m_pFile;
  CDictionary* m_pDict;
  char m_szName[150];
};

// Mounts the pack in pFile under pchName ("pak:" and "pak:\" alike) and registers the volume.
// Returns 0 or one of the ERR_PACK_ codes. The pack takes over pFile in every case but two: when
// the volume object can't be made (ERR_PACK_NOMEM), pFile stays the caller's; and a header that
// gives 0 files or a 0-byte directory returns ERR_PACK_BADPACK with the volume and its file left
// allocated and unregistered. When the volume table is full its assertion fires, the volume is
// deleted, file and all, and the result is still 0.
ERR PackMount(CFile* pFile, const char* pchName);
// Removes the volume mounted under pchName (with or without the trailing backslash) and deletes
// it, with its file. Open packed files of it must be gone first.
void PackUnmount(const char* pchName);
// As PackMount without registering: the volume, which the caller deletes, or null on any failure.
CPackFS* PackOpen(CFile* pFile, const char* pchName);
