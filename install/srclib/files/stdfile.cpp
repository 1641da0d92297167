// A native volume and file written on the C runtime's buffered streams; an alternative to the
// operating system's handles that nothing registers by default.
#include "files/stdfile.h"

IMPLEMENT_CLASS(CStdFile, 0x3015D00, CFile)
IMPLEMENT_CLASS(CStdFS, 0x3025D00, CFS)

// ---------------------------------------------------------------------------------------------
// CStdFile

// The mode also goes to the base as the ownership flag; with no media it has no effect.
CStdFile::CStdFile(FILE* pFile, WORD wMode) : CFile(0, wMode), m_pFile(pFile) {
  ASSERT(pFile);
  m_wMode = wMode;
  m_bValid = pFile != 0;
}

CStdFile::~CStdFile() {
  ASSERT(m_pFile);
  if (m_pFile) fclose(m_pFile);
}

ERR CStdFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  ASSERT(m_pFile);
  if (pdwRead) *pdwRead = dwCount;
  if (!m_pFile) {
    if (pdwRead) *pdwRead = 0;
    return ERR_STDFILE_READ;
  }
  BYTE* pb = static_cast<BYTE*>(pBuf);
  DWORD dwLeft = dwCount;
  while (dwLeft) {
    DWORD dwChunk = dwLeft < STDFILE_CHUNK ? dwLeft : STDFILE_CHUNK;
    DWORD dwDone = static_cast<DWORD>(fread(pb, 1, dwChunk, m_pFile));
    dwLeft -= dwDone;
    if (dwDone < dwChunk) {
      // The count is what arrived, over all chunks.
      if (pdwRead) *pdwRead -= dwLeft;
      return feof(m_pFile) ? ERR_FILE_EOF : ERR_STDFILE_READ;
    }
    pb += dwDone;
  }
  return 0;
}

ERR CStdFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) {
  ASSERT(m_pFile);
  if (pdwWritten) *pdwWritten = dwCount;
  if (!m_pFile) {
    if (pdwWritten) *pdwWritten = 0;
    return ERR_STDFILE_WRITE;
  }
  const BYTE* pb = static_cast<const BYTE*>(pBuf);
  DWORD dwLeft = dwCount;
  while (dwLeft) {
    DWORD dwChunk = dwLeft < STDFILE_CHUNK ? dwLeft : STDFILE_CHUNK;
    DWORD dwDone = static_cast<DWORD>(fwrite(pb, 1, dwChunk, m_pFile));
    dwLeft -= dwDone;
    if (dwDone < dwChunk) {
      if (pdwWritten) *pdwWritten -= dwLeft;
      return ERR_STDFILE_WRITE;
    }
    pb += dwDone;
  }
  return 0;
}

ERR CStdFile::Seek(LONG lOfs, SHORT wOrigin) {
  ASSERT(m_pFile);
  int nWhence;
  switch (wOrigin) {
    case FILE_BEGIN:
      nWhence = SEEK_SET;
      break;
    case FILE_CURRENT:
      nWhence = SEEK_CUR;
      break;
    case FILE_END:
      nWhence = SEEK_END;
      break;
    default:
      return ERR_BADPARAM;
  }
  if (m_pFile) fseek(m_pFile, lOfs, nWhence);
  return 0;
}

DWORD CStdFile::GetSize() {
  ASSERT(m_pFile);
  if (!m_pFile) return 0;
  long lPos = ftell(m_pFile);
  fseek(m_pFile, 0, SEEK_END);
  long lSize = ftell(m_pFile);
  fseek(m_pFile, lPos, SEEK_SET);
  return static_cast<DWORD>(lSize);
}

DWORD CStdFile::GetPos() {
  ASSERT(m_pFile);
  if (!m_pFile) return 0;
  return static_cast<DWORD>(ftell(m_pFile));
}

ERR CStdFile::Flush() {
  ASSERT(m_pFile);
  if (m_pFile) fflush(m_pFile);
  return 0;
}

ERR CStdFile::Truncate() {
  ASSERT(m_pFile);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// CStdFS

CFile* CStdFS::Open(const char* pchPath, WORD wMode, ERR* pErr) {
  const char* pchMode;
  switch (wMode) {
    case FILE_MODE_READ:
      pchMode = "rb";
      break;
    case FILE_MODE_READWRITE:
      pchMode = "r+b";
      break;
    case FILE_MODE_CREATE:
      pchMode = "w+b";
      break;
    default:
      if (pErr) *pErr = ERR_STDFILE_BADMODE;
      return 0;
  }
  FILE* pFile = pchPath ? fopen(pchPath, pchMode) : 0;
  if (!pFile) {
    if (pErr) *pErr = ERR_STDFILE_OPEN;
    return 0;
  }
  CStdFile* pStd = new CStdFile(pFile, wMode);
  if (!pStd) {
    fclose(pFile);
    if (pErr) *pErr = ERR_FILE_NOMEM;
    return 0;
  }
  if (pErr) *pErr = 0;
  return pStd;
}

// ---------------------------------------------------------------------------------------------
// Registration.

ERR StdFSInit() {
  CStdFS* pVol = new CStdFS;
  if (!pVol) return ERR_FILE_NOMEM;
  ERR err = FSAdd("", pVol, 0);
  if (err) delete pVol;
  return err;
}

ERR StdFSDone() {
  delete FSRemove("");
  return 0;
}
