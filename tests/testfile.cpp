// A file over a byte vector for the tests.
#include "testfile.h"

#include <string.h>

CTestFile::CTestFile() : m_pData(&m_data) { Init(nullptr); }

CTestFile::CTestFile(std::vector<BYTE> data, bool* pbDeleted) : m_data(std::move(data)), m_pData(&m_data) {
  Init(pbDeleted);
}

CTestFile::CTestFile(const std::string& text, bool* pbDeleted)
    : m_data(text.begin(), text.end()), m_pData(&m_data) {
  Init(pbDeleted);
}

CTestFile::CTestFile(std::vector<BYTE>* pData, bool* pbDeleted) : m_pData(pData) { Init(pbDeleted); }

void CTestFile::Init(bool* pbDeleted) {
  m_pbDeleted = pbDeleted;
  m_bValid = 1;
  m_wMode = FILE_MODE_READWRITE;
}

CTestFile::~CTestFile() {
  if (m_pbDeleted) *m_pbDeleted = true;
}

ERR CTestFile::Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) {
  m_nReads++;
  if (pdwRead) *pdwRead = 0;
  if (m_errRead) return m_errRead;
  if (m_nFailAfter >= 0 && m_nReads + m_nWrites > m_nFailAfter) return ERR_FILE_READ;
  DWORD dwSize = static_cast<DWORD>(m_pData->size());
  DWORD dwLeft = m_dwPos < dwSize ? dwSize - m_dwPos : 0;
  DWORD dwDone = dwCount < dwLeft ? dwCount : dwLeft;
  if (m_dwShortBy && dwDone >= m_dwShortBy) dwDone -= m_dwShortBy;
  if (dwDone) memcpy(pBuf, m_pData->data() + m_dwPos, dwDone);
  m_dwPos += dwDone;
  if (pdwRead) *pdwRead = dwDone;
  return dwDone < dwCount && m_bEofOnShort && !m_dwShortBy ? ERR_FILE_EOF : 0;
}

ERR CTestFile::Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) {
  m_nWrites++;
  m_writes.push_back({m_dwPos, dwCount});
  if (pdwWritten) *pdwWritten = 0;
  if (m_bReadOnly) return ERR_FILE_WRITE;
  if (m_errWrite) return m_errWrite;
  if (m_nFailAfter >= 0 && m_nReads + m_nWrites > m_nFailAfter) return ERR_FILE_WRITE;
  if (m_dwPos + dwCount > m_pData->size()) m_pData->resize(m_dwPos + dwCount);
  if (dwCount) memcpy(m_pData->data() + m_dwPos, pBuf, dwCount);
  m_dwPos += dwCount;
  if (pdwWritten) *pdwWritten = dwCount;
  return 0;
}

ERR CTestFile::Seek(LONG lOfs, SHORT wOrigin) {
  m_nSeeks++;
  if (m_errSeek) return m_errSeek;
  long long llBase = wOrigin == FILE_BEGIN     ? 0
                     : wOrigin == FILE_CURRENT ? static_cast<long long>(m_dwPos)
                                               : static_cast<long long>(m_pData->size());
  if (llBase + lOfs < 0) return ERR_FILE_SEEK;
  m_dwPos = static_cast<DWORD>(llBase + lOfs);
  return 0;
}

DWORD CTestFile::GetSize() { return static_cast<DWORD>(m_pData->size()); }

DWORD CTestFile::GetPos() { return m_dwPos; }

ERR CTestFile::Truncate() {
  m_nTruncates++;
  m_pData->resize(m_dwPos);
  return 0;
}

ERR CTestFile::Flush() {
  m_nFlushes++;
  return 0;
}

DWORD_PTR CTestFile::GetBase() { return m_dwBase; }
