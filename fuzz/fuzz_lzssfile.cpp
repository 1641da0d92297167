// Opens arbitrary bytes as a compressed file over a file in memory, reads it all in pieces of
// several sizes, and in writable mode also writes and truncates: nothing may touch memory
// outside its buffers, and the tracked heap must be undamaged afterwards.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "base/memalloc.h"
#include "files/lzssfile.h"

namespace {

// A growable file in memory, as the media.
class FuzzMedia : public CFile {
 public:
  FuzzMedia(const uint8_t* p, size_t n, WORD wMode) : m_data(p, p + n), m_dwPos(0) {
    m_wMode = wMode;
    m_bValid = 1;
  }
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override {
    DWORD n = 0;
    if (m_dwPos < m_data.size()) n = (DWORD)std::min<size_t>(dwCount, m_data.size() - m_dwPos);
    if (n) memcpy(pBuf, m_data.data() + m_dwPos, n);
    m_dwPos += n;
    if (pdwRead) *pdwRead = n;
    return n == dwCount ? 0 : ERR_FILE_EOF;
  }
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override {
    if ((uint64_t)m_dwPos + dwCount > (64u << 20)) return ERR_FILE_DISKFULL;
    if (m_dwPos + dwCount > m_data.size()) m_data.resize(m_dwPos + dwCount);
    memcpy(m_data.data() + m_dwPos, pBuf, dwCount);
    m_dwPos += dwCount;
    if (pdwWritten) *pdwWritten = dwCount;
    return 0;
  }
  ERR Seek(LONG lOfs, SHORT wOrigin) override {
    int64_t base = wOrigin == FILE_BEGIN ? 0 : wOrigin == FILE_CURRENT ? m_dwPos : (int64_t)m_data.size();
    if (base + lOfs < 0 || base + lOfs > (64 << 20)) return ERR_FILE_SEEK;
    m_dwPos = (DWORD)(base + lOfs);
    return 0;
  }
  DWORD GetSize() override { return (DWORD)m_data.size(); }
  DWORD GetPos() override { return m_dwPos; }
  ERR Truncate() override {
    m_data.resize(m_dwPos);
    return 0;
  }

 private:
  std::vector<uint8_t> m_data;
  DWORD m_dwPos;
};

int IgnoreAssert(const char*) { return ASSERT_IGNORE; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  g_pfnAssertAnswer = &IgnoreAssert;
  BYTE btFlags = data[0];
  WORD wMode = (btFlags & 1) ? FILE_MODE_READWRITE : FILE_MODE_READ;
  ERR err = 0;
  CLZSSFile* pFile = new CLZSSFile(new FuzzMedia(data + 1, size - 1, wMode), 1, wMode, &err,
                                   (btFlags >> 1) & 3, 0x8000, 0x80, 0xC4);
  if (pFile && pFile->IsValid()) {
    static const DWORD kPieces[4] = {1, 1000, 0x8000, 0x8000 * 3 + 7};
    DWORD dwSize = pFile->GetSize();
    if (dwSize > (16u << 20)) dwSize = 16u << 20;
    std::vector<BYTE> buf(kPieces[3]);
    DWORD dwPiece = kPieces[(btFlags >> 3) & 3];
    // A bounded number of reads, spread over the file: a header may claim gigabytes and pages
    // of 16 MiB, and each read that cuts a page takes a buffer of a page's size. Reading all
    // of that in small pieces would spend the run's whole time on one input.
    DWORD dwPage = pFile->GetPageSize() ? pFile->GetPageSize() : 1;
    DWORD dwReads = std::min<DWORD>(2048, std::max<DWORD>(8, (32u << 20) / dwPage));
    DWORD dwStride = std::max<DWORD>(dwPiece, dwSize / dwReads + 1);
    for (DWORD at = 0; at < dwSize; at += dwStride) {
      DWORD got = 0;
      pFile->Seek((LONG)at, FILE_BEGIN);
      pFile->Read(buf.data(), dwPiece, &got);
      if (got > dwPiece) abort();
    }
    // Writing compresses whole pages; pages far larger than the 32 KiB the installer uses would
    // spend seconds in the encoder per input without reaching other code.
    if (wMode != FILE_MODE_READ && pFile->GetPageSize() <= 0x10000) {
      memset(buf.data(), 'w', buf.size());
      pFile->Seek((LONG)(btFlags >> 5) * 3000, FILE_BEGIN);
      pFile->Write(buf.data(), 5000, 0);
      pFile->Seek(0, FILE_END);
      pFile->Write(buf.data(), 100, 0);
      DWORD dwAt = pFile->GetSize() / 2;
      if (dwAt) {
        pFile->Seek((LONG)dwAt, FILE_BEGIN);
        pFile->Truncate();
      }
      pFile->Flush();
    }
  }
  delete pFile;
  if (!MemCheckAll()) abort();
  return 0;
}
