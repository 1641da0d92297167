// A file whose bytes live in one movable memory block: a cached copy of another file that can be
// written back, or a stand-alone file on a block of its own with a size limit.
#include "files/memfile.h"

#include <string.h>

IMPLEMENT_CLASS(CMemFile, 0x3000501, CFile)

namespace {

// Size of a live handle's block, or 0 for a handle that isn't one.
DWORD HandleBlockSize(DWORD h) {
  if (!h || h > g_dwHandleInfoCount || !g_pHandleInfo[h - 1].dwSysBlock) return 0;
  return g_pHandleInfo[h - 1].dwSize;
}

// Block size for n bytes: whole grow steps with at least one step of margin, as a 64-bit value so
// that a size near 4 GiB can't wrap round to a small block.
uint64_t BlockRule(DWORD dwStep, DWORD n) { return (uint64_t)dwStep * ((uint64_t)(n / dwStep) + 1); }

}  // namespace

CMemFile::CMemFile(CFile* pMedia, BOOL bOwnMedia, BOOL bWriteBack, DWORD dwGrowStep)
    : CFile(pMedia, bOwnMedia),
      m_hData(0),
      m_dwPos(0),
      m_dwFileSize(0),
      m_dwMaxSize(0xFFFFFFFFu),
      m_dwAllocedFileSize(0),
      m_dwGrowStep(dwGrowStep ? dwGrowStep : 1),
      m_bWriteBack(bWriteBack ? 1 : 0),
      m_bDirty(0),
      m_dwDirtyStart(0xFFFFFFFFu),
      m_dwDirtyEnd(0),
      m_bOwnBlock(1) {
  ASSERT(pMedia);
  m_bValid = 0;
  if (!pMedia) return;
  m_wMode = pMedia->GetMode();
  m_dwFileSize = pMedia->GetSize();
  m_dwAllocedFileSize = BlockFor(m_dwFileSize);
  ASSERT(m_dwAllocedFileSize);
  m_hData = m_dwAllocedFileSize ? HANDLE_ALLOC(m_dwAllocedFileSize) : 0;
  if (!m_hData) {
    if (!m_dwFileSize) return;
    m_dwAllocedFileSize = m_dwFileSize;
    m_hData = HANDLE_ALLOC(m_dwAllocedFileSize);
    if (!m_hData) {
      m_dwAllocedFileSize = 0;
      return;
    }
  }
  void* p = HANDLE_LOCK(m_hData);
  if (!p) return;
  ERR err = m_pMedia->ReadAt(p, 0, m_dwFileSize, 0);
  HANDLE_UNLOCK(m_hData);
  m_bValid = err == ERR_NOERR;
}

CMemFile::CMemFile(DWORD hMem, DWORD dwMemSize, DWORD dwMaxSize, DWORD dwGrowStep, BOOL bOwnBlock)
    : CFile(0, 0),
      m_hData(0),
      m_dwPos(0),
      m_dwFileSize(0),
      m_dwMaxSize(dwMaxSize),
      m_dwAllocedFileSize(0),
      m_dwGrowStep(dwGrowStep ? dwGrowStep : 1),
      m_bWriteBack(0),
      m_bDirty(0),
      m_dwDirtyStart(0xFFFFFFFFu),
      m_dwDirtyEnd(0),
      m_bOwnBlock(bOwnBlock ? 1 : 0) {
  ASSERT(dwMaxSize);
  ASSERT(dwMaxSize >= dwMemSize);
  if (!ErrGetModule(0x05010000u)) {
    ErrAddModule(ERR_MEMFILE_MODULE, "Memory file");
    ErrAddText(ERR_MEMFILE_MAXSIZE, "Exceeded given maximum size of the file");
  }
  m_wMode = FILE_MODE_READWRITE;
  m_bValid = 0;
  if (!hMem) {
    DWORD dwBlock = BlockFor(dwMemSize);
    if (dwBlock > dwMaxSize || !dwBlock) dwBlock = dwMaxSize;
    m_hData = dwBlock ? HANDLE_ALLOC(dwBlock) : 0;
    if (!m_hData && dwMemSize) {
      dwBlock = dwMemSize;
      m_hData = HANDLE_ALLOC(dwBlock);
    }
    if (!m_hData) return;
    m_dwAllocedFileSize = dwBlock;
  } else {
    // The file can't claim more than the block really has.
    DWORD dwReal = HandleBlockSize(hMem);
    ASSERT(dwReal >= dwMemSize);
    if (dwReal < dwMemSize) dwMemSize = dwReal;
    m_hData = hMem;
    m_dwAllocedFileSize = dwMemSize;
    m_dwFileSize = dwMemSize;
  }
  m_bValid = 1;
}

CMemFile::~CMemFile() {
  if (m_bWriteBack && m_bDirty) Flush();
  if (m_bOwnBlock && m_hData) HANDLE_FREE(m_hData);
  m_hData = 0;
  if (m_bOwnMedia && m_pMedia) delete m_pMedia;
  m_pMedia = 0;
}

// The block size for dwSize bytes by the grow rule, or 0 when that doesn't fit in 32 bits.
DWORD CMemFile::BlockFor(DWORD dwSize) {
  uint64_t q = BlockRule(m_dwGrowStep, dwSize);
  return q > 0xFFFFFFFFu ? 0 : (DWORD)q;
}

// Gives the block exactly dwSize bytes (making it if there is none). 1 on success.
BOOL CMemFile::Resize(DWORD dwSize) {
  if (!dwSize) return 0;
  if (!m_hData) {
    m_hData = HANDLE_ALLOC(dwSize);
    if (m_hData) m_bOwnBlock = 1;
    return m_hData != 0;
  }
  return HANDLE_REALLOC(m_hData, dwSize);
}

// Moves the block to the grow rule's size for dwNewSize bytes, held to the limit, with a second
// try at exactly dwNewSize. Nothing changes on failure.
ERR CMemFile::GrowTo(DWORD dwNewSize) {
  uint64_t qBlock = BlockRule(m_dwGrowStep, dwNewSize);
  if (qBlock > m_dwMaxSize) {
    if (dwNewSize > m_dwMaxSize) return ERR_MEMFILE_MAXSIZE;
    qBlock = m_dwMaxSize;
  }
  DWORD dwBlock = (DWORD)qBlock;
  // A locked block can't move: an image is out.
  if (m_hData && HandleGetLockCount(m_hData)) return ERR_REALLOCFAIL;
  if (!Resize(dwBlock)) {
    if (!Resize(dwNewSize)) return ERR_REALLOCFAIL;
    dwBlock = dwNewSize;
  }
  m_dwAllocedFileSize = dwBlock;
  return ERR_NOERR;
}

ERR CMemFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  ASSERT(pBuf);
  // A count of 0 and a read at the end store 0; a failed lock stores nothing.
  if (!dwCount) {
    if (pdwRead) *pdwRead = 0;
    return ERR_NOERR;
  }
  if (!pBuf) {
    if (pdwRead) *pdwRead = 0;
    return ERR_BADPARAM;
  }
  ERR errResult = ERR_NOERR;
  if (m_dwPos >= m_dwFileSize) {
    if (pdwRead) *pdwRead = 0;
    return ERR_FILE_EOF;
  }
  if (dwCount > m_dwFileSize - m_dwPos) {
    dwCount = m_dwFileSize - m_dwPos;
    errResult = ERR_FILE_EOF;
  }
  BYTE* p = m_hData ? static_cast<BYTE*>(HANDLE_LOCK(m_hData)) : 0;
  if (!p) return ERR_LOCKFAIL;
  memcpy(pBuf, p + m_dwPos, dwCount);
  HANDLE_UNLOCK(m_hData);
  m_dwPos += dwCount;
  if (pdwRead) *pdwRead = dwCount;
  return errResult;
}

ERR CMemFile::ReadAt(void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwRead) {
  m_dwPos = dwOfs;
  return Read(pBuf, dwCount, pdwRead);
}

ERR CMemFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) {
  ASSERT(pBuf);
  if (pdwWritten) *pdwWritten = 0;
  if (!pBuf) return ERR_BADPARAM;
  // The limit is consulted only when the block has to grow (in GrowTo): a write inside a block
  // that Move made larger than the limit goes through. An end past 32 bits is past any limit.
  uint64_t qEnd = (uint64_t)m_dwPos + dwCount;
  if (qEnd > 0xFFFFFFFFu) return ERR_MEMFILE_MAXSIZE;
  DWORD dwEnd = (DWORD)qEnd;
  DWORD dwNewSize = m_dwFileSize;
  if (dwEnd > m_dwFileSize) {
    dwNewSize = dwEnd;
    if (dwEnd > m_dwAllocedFileSize) {
      ERR err = GrowTo(dwEnd);
      if (err) return err;
    }
  }
  if (dwCount) {
    BYTE* p = m_hData ? static_cast<BYTE*>(HANDLE_LOCK(m_hData)) : 0;
    if (!p) return ERR_LOCKFAIL;
    memcpy(p + m_dwPos, pBuf, dwCount);
    HANDLE_UNLOCK(m_hData);
  }
  if (m_bWriteBack) {
    m_bDirty = 1;
    if (m_dwPos < m_dwDirtyStart) m_dwDirtyStart = m_dwPos;
    if (dwEnd > m_dwDirtyEnd) m_dwDirtyEnd = dwEnd;
  }
  m_dwFileSize = dwNewSize;
  m_dwPos = dwEnd;
  if (pdwWritten) *pdwWritten = dwCount;
  return ERR_NOERR;
}

ERR CMemFile::WriteAt(const void* pBuf, DWORD dwOfs, DWORD dwCount, DWORD* pdwWritten) {
  m_dwPos = dwOfs;
  return Write(pBuf, dwCount, pdwWritten);
}

ERR CMemFile::Seek(LONG lOfs, SHORT wOrigin) {
  int64_t qBase;
  switch (wOrigin) {
    case FILE_BEGIN:
      qBase = 0;
      break;
    case FILE_CURRENT:
      qBase = m_dwPos;
      break;
    case FILE_END:
      qBase = m_dwFileSize;
      break;
    default:
      return ERR_FILE_SEEK;
  }
  int64_t qPos = qBase + lOfs;
  if (qPos < 0 || qPos > 0xFFFFFFFFll) return ERR_FILE_SEEK;
  m_dwPos = (DWORD)qPos;
  return ERR_NOERR;
}

DWORD CMemFile::GetSize() { return m_dwFileSize; }

DWORD CMemFile::GetPos() { return m_dwPos; }

ERR CMemFile::Flush() {
  if (m_bWriteBack && m_bDirty) {
    ASSERT(m_pMedia);
    if (!m_pMedia) return ERR_FILE_WRITE;
    // Bytes written and then cut off by Truncate are not part of the file any more.
    DWORD dwEnd = m_dwDirtyEnd < m_dwFileSize ? m_dwDirtyEnd : m_dwFileSize;
    if (m_dwDirtyStart < dwEnd) {
      BYTE* p = m_hData ? static_cast<BYTE*>(HANDLE_LOCK(m_hData)) : 0;
      if (!p) return ERR_LOCKFAIL;
      ERR err = m_pMedia->WriteAt(p + m_dwDirtyStart, m_dwDirtyStart, dwEnd - m_dwDirtyStart, 0);
      HANDLE_UNLOCK(m_hData);
      if (err) return err;
    }
    if (m_pMedia->GetSize() > m_dwFileSize) {
      ERR err = m_pMedia->Seek((LONG)m_dwFileSize, FILE_BEGIN);
      if (!err) err = m_pMedia->Truncate();
      if (err) return err;
    }
  }
  if (m_pMedia) {
    ERR err = m_pMedia->Flush();
    if (err) return err;
  }
  m_bDirty = 0;
  return ERR_NOERR;
}

ERR CMemFile::Truncate() {
  if (m_dwPos == m_dwFileSize) return ERR_NOERR;
  m_bDirty = 1;
  DWORD dwBlock = BlockFor(m_dwPos);
  if (dwBlock != m_dwAllocedFileSize) {
    ERR err = GrowTo(m_dwPos);
    if (err) return err;
  }
  m_dwFileSize = m_dwPos;
  return ERR_NOERR;
}

ERR CMemFile::Move(DWORD dwDest, DWORD dwSrc, DWORD dwCount, DWORD, void*) {
  ASSERT(m_dwFileSize > dwSrc);
  if (dwSrc >= m_dwFileSize) return ERR_NOERR;
  if (dwCount > m_dwFileSize - dwSrc) dwCount = m_dwFileSize - dwSrc;
  uint64_t qEnd = (uint64_t)dwDest + dwCount;
  if (qEnd > 0xFFFFFFFFu) return ERR_REALLOCFAIL;
  DWORD dwEnd = (DWORD)qEnd;
  if (dwEnd > m_dwFileSize) {
    if (m_hData && HandleGetLockCount(m_hData)) return ERR_REALLOCFAIL;
    // First to the grow rule's size, then down to exactly the target's end: the block ends up
    // tight. Unlike Write there is no second try when the first step fails, and then the file
    // stays as it was: a larger recorded size would run past the block.
    DWORD dwBlock = BlockFor(dwEnd);
    if (!dwBlock || !Resize(dwBlock)) return ERR_REALLOCFAIL;
    m_dwAllocedFileSize = dwBlock;
    if (!Resize(dwEnd)) return ERR_REALLOCFAIL;
    m_dwAllocedFileSize = dwEnd;
    m_dwFileSize = dwEnd;
  }
  if (!dwCount) return ERR_NOERR;
  BYTE* p = m_hData ? static_cast<BYTE*>(HANDLE_LOCK(m_hData)) : 0;
  if (!p) return ERR_LOCKFAIL;
  memmove(p + dwDest, p + dwSrc, dwCount);
  HANDLE_UNLOCK(m_hData);
  return ERR_NOERR;
}

ERR CMemFile::LoadImage(DWORD dwOfs, DWORD dwSize, void** ppImage) {
  ASSERT(m_dwFileSize > dwOfs);
  // An offset past the end gives an empty view at the end rather than a pointer outside the block.
  if (dwOfs > m_dwFileSize) dwOfs = m_dwFileSize;
  if (dwSize > m_dwFileSize - dwOfs) dwSize = m_dwFileSize - dwOfs;
  BYTE* p = m_hData ? static_cast<BYTE*>(HANDLE_LOCK(m_hData)) : 0;
  if (!p) {
    if (ppImage) *ppImage = 0;
    return ERR_LOCKFAIL;
  }
  if (ppImage) *ppImage = p + dwOfs;
  return dwSize;
}

ERR CMemFile::FreeImage(void*) {
  if (m_hData) HANDLE_UNLOCK(m_hData);
  return ERR_NOERR;
}

DWORD_PTR CMemFile::GetBase() { return m_pMedia ? m_pMedia->GetBase() : 0; }
