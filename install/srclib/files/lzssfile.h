// Compressed file: a CFile whose bytes live LZSS-compressed, page by page, inside another CFile,
// and the "LZSS:" volume that opens such files (or the plain file when it is not one).
#pragma once

#include "files/file.h"

// Errors of the compressed file.
#define ERR_LZSSFILE_NOTVALID 0x08010001u
#define ERR_LZSSFILE_READONLY 0x08010002u
#define ERR_LZSSFILE_PAGESEEK 0x08010003u
#define ERR_LZSSFILE_CACHELOCK 0x08010006u
#define ERR_LZSSFILE_CACHELOCKED 0x08010007u
#define ERR_LZSSFILE_BADORIGIN 0x0801FF23u
#define ERR_LZSSFILE_RANGE 0x0801FF24u
#define ERR_LZSSFILE_SHORTREAD 0x38010003u
#define ERR_LZSSFILE_SHORTWRITE 0x38010004u
#define ERR_LZSSFILE_EOF 0x38010005u
#define ERR_LZSSFILE_SEEKNEG 0x38010007u
#define ERR_LZSSFILE_BADMAGIC 0x38010009u

// Header: magic "LZSS", logical size, page size, table entries, codec parameter, one spare byte.
#define LZSS_HEADER_SIZE 18
#define LZSS_DEFAULT_PAGESIZE 0x8000
#define LZSS_DEFAULT_MAXPAGES 0x80
#define LZSS_TABLE_STEP 0x80
#define LZSS_MOVE_CHUNK 0x8000
// Largest page size taken from a header; a larger one marks a damaged file.
#define LZSS_MAX_PAGESIZE 0x1000000

// One slot of the page cache.
struct TCachePage {
  DWORD dwPage;  // page held
  DWORD dwSize;  // logical bytes in it
  WORD wHits;    // priority: the slot with the fewest is reused first
  BYTE btState;  // 0 empty, 1 valid, 3 valid and changed, 4 read failed; bit 0 is "valid"
};

#define LZSS_CACHE_EMPTY 0
#define LZSS_CACHE_VALID 1
#define LZSS_CACHE_DIRTY 3
#define LZSS_CACHE_FAILED 4

class CLZSSFile : public CFile {
  DECLARE_CLASS()
 public:
  // Wraps pMedia. An empty media gets a new header made from the last three arguments (which
  // needs a writable mode); otherwise the media's header rules. The result goes through pErr
  // (may be null); IsValid() tells whether the file can be used. The system passes
  // (media, 1, mode, &err, 0, 0x8000, 0x80, 0xC4).
  CLZSSFile(CFile* pMedia, BOOL bOwnMedia, WORD wMode, ERR* pErr, DWORD dwCachePages, DWORD dwPageSize,
            DWORD dwMaxPages, BYTE btBitLengths);
  // Flushes when changed, drops the cache, and deletes the media if it owns it.
  ~CLZSSFile() override;

  // Logical access. A read that runs past the end of a short last page returns what there is.
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override;
  // A write must start at or before the end (no gaps); see the .cpp for the page rules.
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override;
  // Past the end is allowed; before the start is ERR_LZSSFILE_SEEKNEG.
  ERR Seek(LONG lOfs, SHORT wOrigin) override;
  DWORD GetSize() override;
  DWORD GetPos() override;
  // Writes the cache, the header and the table, and flushes the media.
  ERR Flush() override;
  // Ends the logical file at the position (or fills a gap up to it with zeros).
  ERR Truncate() override;

  virtual ERR ReadHeader();
  virtual ERR WriteHeader();
  // Starts an empty file: clears the state, takes the parameters and writes the header.
  virtual ERR Create(DWORD dwCachePages, DWORD dwPageSize, DWORD dwMaxPages, BYTE btBitLengths);
  // Takes over an existing file: reads the header and table and counts the pages.
  virtual ERR Attach(DWORD dwCachePages);
  // Gives the page table dwNewMax entries, moving all streams behind it.
  virtual ERR ResizeTable(DWORD dwNewMax);
  virtual DWORD GetCurPage();
  // Moves the page cursor within 0..pages in use; ERR_LZSSFILE_PAGESEEK outside.
  virtual ERR SeekPage(LONG lOfs, SHORT wOrigin);
  // Decodes the page at the cursor into pBuf. *pdwSize: on entry the room in pBuf, on return
  // the bytes decoded. Moves the cursor on by 1 on success.
  virtual ERR ReadPage(void* pBuf, DWORD* pdwSize);
  // Compresses dwSize bytes as the page at the cursor (replacing it or appending it), moving the
  // streams behind it as needed. Moves the cursor on by 1.
  virtual ERR WritePage(const void* pBuf, DWORD dwSize);
  // Reads dwCount whole pages from dwFirst into successive page-sized parts of pBuf.
  virtual ERR ReadPages(void* pBuf, DWORD dwFirst, DWORD dwCount, DWORD* pdwBytes);
  // Writes dwCount full pages from dwFirst; *pdwPages receives the number written.
  virtual ERR WritePages(const void* pBuf, DWORD dwFirst, DWORD dwCount, DWORD* pdwPages);
  // The codec with this file's parameter. *pdwDestLen: capacity in, bytes out.
  virtual ERR Compress(const void* pSrc, void* pDest, DWORD dwSrcLen, DWORD* pdwDestLen);
  virtual ERR Decompress(const void* pSrc, void* pDest, DWORD dwSrcLen, DWORD* pdwDestLen);
  // Gives the cache dwPages slots of one page each (0: no cache). Refused while locked.
  virtual ERR SetCachePages(DWORD dwPages);
  // As ReadPage/WritePage for page dwPage, through the cache when there is one.
  virtual ERR ReadCached(DWORD dwPage, void* pBuf, DWORD* pdwSize);
  virtual ERR WriteCached(DWORD dwPage, const void* pBuf, DWORD dwSize);
  virtual ERR FlushCachePage(DWORD dwSlot);
  virtual ERR FlushCache();
  virtual ERR FreeCache();
  virtual ERR LockCache();
  virtual ERR UnlockCache();
  // Bytes of slot dwSlot while the cache is locked, else null.
  virtual BYTE* GetCacheSlot(DWORD dwSlot);

  void SetOwnMedia(BOOL bOwn) { m_bOwnMedia = bOwn ? 1 : 0; }

  // For tests and tools: the table entry of page i (0 past the table), and the page count.
  DWORD GetPageOffset(DWORD i) { return m_pPageTable && i < m_dwMaxPages ? m_pPageTable[i] : 0; }
  DWORD GetPageCount() { return m_dwPages; }
  DWORD GetPageSize() { return m_dwPageSize; }
  DWORD GetMaxPages() { return m_dwMaxPages; }
  BYTE GetBitLengths() { return m_btBitLengths; }
  DWORD GetCachePages() { return m_dwCachePages; }
  const TCachePage* GetCacheEntry(DWORD i) {
    return m_pCacheEntries && i < m_dwCachePages ? &m_pCacheEntries[i] : 0;
  }

 private:
  ERR CheckWritable();
  DWORD WorkSize();
  void ClearState();
  // Finds the slot for dwPage: the hit (or LZ_CACHE_MISS and the victim through *pdwVictim).
  DWORD WalkCache(DWORD dwPage, BOOL bSkipInvalidHit, DWORD* pdwVictim);
  ERR GrowPages();

  DWORD m_hCache;
  DWORD m_nCacheLocks;
  DWORD m_dwPos;
  DWORD m_dwFileSize;
  DWORD m_dwPageSize;
  DWORD m_dwMaxPages;
  DWORD m_dwPages;
  BYTE m_btBitLengths;
  DWORD m_dwCurPage;
  DWORD m_dwDataStart;
  DWORD m_bDirty;
  DWORD* m_pPageTable;
  DWORD m_dwCachePages;
  TCachePage* m_pCacheEntries;
  BYTE* m_pCacheData;
};

// The volume under "LZSS:": opens the rest of the path through g_pfnFileOpen and wraps it.
class CLZSSFS : public CFS {
  DECLARE_CLASS()
 public:
  // The compressed file; or the plain file, sought to 0, when it is not one (then *pErr holds
  // why the wrap failed, so a good file may come back with an error); or null when the plain
  // open failed.
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override;
};

// Registers a CLZSSFS under "LZSS:"; after FSInit. Returns FSAdd's result or ERR_FILE_NOMEM.
ERR LZSSFSInit();
// Takes the volume out of the table and deletes it. Returns 0.
ERR LZSSFSDone();
