// A file whose bytes live in one movable memory block: a cached copy of another file that can be
// written back, or a stand-alone file on a block of its own with a size limit.
#pragma once

#include "files/file.h"

class CMemFile : public CFile {
  DECLARE_CLASS()
 public:
  // Media form: loads all of pMedia into a block of its own. The mode is the media's. With
  // bWriteBack, changed ranges go back to the media on Flush (and on destruction). IsValid() is
  // false when the block could not be had or the media could not be read.
  CMemFile(CFile* pMedia, BOOL bOwnMedia, BOOL bWriteBack, DWORD dwGrowStep);
  // Stand-alone form, mode 3 (read and write), never larger than dwMaxSize. With hMem 0 a new
  // block is made and the file starts empty (dwMemSize is a size hint); otherwise the file is
  // the first dwMemSize bytes of hMem. bOwnBlock: the destructor frees the block.
  CMemFile(DWORD hMem, DWORD dwMemSize, DWORD dwMaxSize, DWORD dwGrowStep, BOOL bOwnBlock);
  ~CMemFile() override;

  // A short read delivers what is there and returns ERR_FILE_EOF with it.
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override;
  ERR ReadAt(void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwRead) override;
  // Grows the block as needed: ERR_MEMFILE_MAXSIZE past the limit, ERR_REALLOCFAIL when the
  // block can't grow (also while an image holds it locked); nothing changes on failure.
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override;
  ERR WriteAt(const void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwWritten) override;
  // Past the end is allowed; a negative result is ERR_FILE_SEEK.
  ERR Seek(LONG lOfs, SHORT wOrigin) override;
  DWORD GetSize() override;
  DWORD GetPos() override;
  // Write-back form: writes the changed range to the media and cuts the media to the file's size.
  ERR Flush() override;
  ERR Truncate() override;
  // Copies dwCount bytes from dwSrc to dwDest (overlap allowed), growing the file when the target
  // runs past its end; the last two arguments are ignored.
  ERR Move(DWORD dwDest, DWORD dwSrc, DWORD dwCount, DWORD dwBufSize, void* pBuf) override;
  // Stores a pointer straight into the block (a live view, kept locked until FreeImage) and
  // returns the number of bytes available there, or ERR_LOCKFAIL. Not an error code on success.
  ERR LoadImage(DWORD dwOfs, DWORD dwSize, void** ppImage) override;
  // Unlocks the block; returns 0 whatever pointer it is given.
  ERR FreeImage(void* pImage) override;
  DWORD_PTR GetBase() override;

  DWORD GetHandle() { return m_hData; }
  DWORD GetAllocedSize() { return m_dwAllocedFileSize; }

 private:
  DWORD BlockFor(DWORD dwSize);
  BOOL Resize(DWORD dwSize);
  ERR GrowTo(DWORD dwNewSize);

  DWORD m_hData;
  DWORD m_dwPos;
  DWORD m_dwFileSize;
  DWORD m_dwMaxSize;
  DWORD m_dwAllocedFileSize;
  DWORD m_dwGrowStep;
  DWORD m_bWriteBack;
  DWORD m_bDirty;
  DWORD m_dwDirtyStart;
  DWORD m_dwDirtyEnd;
  DWORD m_bOwnBlock;
};
