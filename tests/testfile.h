// A file over a byte vector for the tests: seeks, reads and writes as on a disk, with failures
// on demand and counts of the calls it received.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "files/file.h"

class CTestFile : public CFile {
 public:
  // Over bytes of its own (m_data).
  CTestFile();
  explicit CTestFile(std::vector<BYTE> data, bool* pbDeleted = nullptr);
  explicit CTestFile(const std::string& text, bool* pbDeleted = nullptr);
  // Over the caller's vector, which must outlive the file.
  explicit CTestFile(std::vector<BYTE>* pData, bool* pbDeleted = nullptr);
  // Sets *pbDeleted when one was given.
  ~CTestFile() override;

  // Reads past the end are short; with m_bEofOnShort they return ERR_FILE_EOF, else 0.
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override;
  // Grows the vector as needed; read-only files refuse with ERR_FILE_WRITE.
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override;
  // Past the end is allowed; before the start gives ERR_FILE_SEEK.
  ERR Seek(LONG lOfs, SHORT wOrigin) override;
  DWORD GetSize() override;
  DWORD GetPos() override;
  ERR Truncate() override;  // ends the vector at the position
  ERR Flush() override;
  DWORD_PTR GetBase() override;

  std::vector<BYTE>& Data() { return *m_pData; }
  std::string Text() const { return std::string(m_pData->begin(), m_pData->end()); }
  void SetMode(WORD wMode) { m_wMode = wMode; }
  void SetValid(bool b) { m_bValid = b ? 1 : 0; }
  SHORT Images() const { return m_nMemImages; }

  std::vector<BYTE> m_data;  // the bytes, unless the file is over the caller's vector
  DWORD m_dwPos = 0;

  // Failures on demand.
  ERR m_errRead = 0;      // every read fails with this
  ERR m_errWrite = 0;     // every write fails with this
  ERR m_errSeek = 0;      // every seek fails with this
  int m_nFailAfter = -1;  // reads and writes that succeed before every later one fails; -1: never
  DWORD m_dwShortBy = 0;  // a read returns this many bytes too few, without an error
  bool m_bEofOnShort = true;
  bool m_bReadOnly = false;
  DWORD_PTR m_dwBase = 0;  // what GetBase answers

  // What it was asked.
  int m_nReads = 0;
  int m_nWrites = 0;
  int m_nSeeks = 0;
  int m_nTruncates = 0;
  int m_nFlushes = 0;
  std::vector<std::pair<DWORD, DWORD>> m_writes;  // (offset, count) of each write asked

 private:
  void Init(bool* pbDeleted);
  std::vector<BYTE>* m_pData;
  bool* m_pbDeleted = nullptr;
};
