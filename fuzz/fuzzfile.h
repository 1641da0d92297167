// A file over a byte vector for the fuzz targets: reads past the end are short without an
// error, writes replace what they cover and grow the vector up to a limit.
#pragma once

#include <string.h>

#include <vector>

#include "files/file.h"

class CFuzzFile : public CFile {
 public:
  // pData stays the caller's; a write that would take it past nLimit bytes fails as a full disk.
  explicit CFuzzFile(std::vector<BYTE>* pData, size_t nLimit = 1 << 20) : m_pData(pData), m_nLimit(nLimit) {
    m_bValid = 1;
  }
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override {
    size_t nSize = m_pData->size();
    size_t n = m_nPos >= nSize ? 0 : (dwCount < nSize - m_nPos ? dwCount : nSize - m_nPos);
    if (n) memcpy(pBuf, m_pData->data() + m_nPos, n);
    m_nPos += n;
    if (pdwRead) *pdwRead = (DWORD)n;
    return 0;
  }
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override {
    if (pdwWritten) *pdwWritten = 0;
    if (m_nPos + dwCount > m_nLimit) return ERR_FILE_DISKFULL;
    if (m_nPos + dwCount > m_pData->size()) m_pData->resize(m_nPos + dwCount);
    if (dwCount) memcpy(m_pData->data() + m_nPos, pBuf, dwCount);
    m_nPos += dwCount;
    if (pdwWritten) *pdwWritten = dwCount;
    return 0;
  }
  ERR Seek(LONG lOfs, SHORT wOrigin) override {
    long long base = wOrigin == FILE_BEGIN     ? 0
                     : wOrigin == FILE_CURRENT ? (long long)m_nPos
                                               : (long long)m_pData->size();
    long long pos = base + lOfs;
    if (pos < 0) return ERR_FILE_SEEK;
    m_nPos = (size_t)pos;
    return 0;
  }
  DWORD GetSize() override { return (DWORD)m_pData->size(); }
  DWORD GetPos() override { return (DWORD)m_nPos; }
  ERR Truncate() override {
    if (m_nPos < m_pData->size()) m_pData->resize(m_nPos);
    return 0;
  }

 private:
  std::vector<BYTE>* m_pData;
  size_t m_nLimit;
  size_t m_nPos = 0;
};
