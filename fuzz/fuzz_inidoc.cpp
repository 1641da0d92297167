// Loads arbitrary bytes as a parsed INI document, then walks, reads, edits and saves it.
#include <stdint.h>
#include <string.h>

#include <vector>

#include "config/inidoc.h"
#include "platform/platform.h"

namespace {

// A read-only file over the fuzzer's bytes, or a growing one for saving.
class CFuzzFile : public CFile {
 public:
  CFuzzFile(const uint8_t* pData, size_t nSize) : m_pData(pData), m_nSize(nSize) { m_bValid = 1; }
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override {
    size_t n = m_nPos >= m_nSize ? 0 : (dwCount < m_nSize - m_nPos ? dwCount : m_nSize - m_nPos);
    if (n) memcpy(pBuf, m_pData + m_nPos, n);
    m_nPos += n;
    if (pdwRead) *pdwRead = (DWORD)n;
    return 0;
  }
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override {
    const BYTE* p = static_cast<const BYTE*>(pBuf);
    m_out.insert(m_out.end(), p, p + dwCount);
    if (pdwWritten) *pdwWritten = dwCount;
    return 0;
  }
  std::vector<BYTE> m_out;

 private:
  const uint8_t* m_pData;
  size_t m_nSize;
  size_t m_nPos = 0;
};

int Ignore(const char*) { return ASSERT_IGNORE; }

const TIniFlag kFlags[] = {{"A", 1}, {"BB", 2}, {"C", 4}, {nullptr, 0}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = Ignore;
  CIniDoc doc(7, 31, nullptr, 0);
  CFuzzFile in(pData, nSize);
  doc.Load(&in);
  char szBuf[128];
  for (TIniItem* pSection = doc.FirstSection(); pSection; pSection = doc.NextSection(pSection)) {
    const char* pchSection = doc.SectionName(pSection);
    for (TIniItem* pEntry = doc.FirstEntry(pSection); pEntry; pEntry = doc.NextEntry(pEntry)) {
      const char* pchKey = doc.EntryKey(pEntry);
      if (!pchKey[0]) continue;
      LONG l;
      SHORT a, b, c, d;
      DWORD dw = 0;
      BYTE color[4];
      doc.GetInt(pchSection, pchKey, &l);
      doc.GetString(pchSection, pchKey, szBuf, sizeof(szBuf));
      DocGetColor(&doc, pchSection, pchKey, color);
      DocGetBox(&doc, pchSection, pchKey, &a, &b, &c, &d);
      DocGetFlags(&doc, pchSection, pchKey, kFlags, &dw);
      DocGetStrNumFlags(&doc, pchSection, pchKey, kFlags, szBuf, &a, &dw);
      DocGetField(&doc, pchSection, pchKey, 2, szBuf);
      DocGetFieldInt(&doc, pchSection, pchKey, 1, &l);
      DocGetId(&doc, pchSection, pchKey, &l);
    }
  }
  if (TIniItem* pFirst = doc.FirstSection()) {
    const char* pchName = doc.SectionName(pFirst);
    if (TIniItem* pEntry = doc.FirstEntry(pFirst)) {
      if (doc.EntryKey(pEntry)[0]) doc.SetString(pchName, doc.EntryKey(pEntry), "value");
    }
    doc.SetInt(pchName, "added", 5);
    doc.DeleteEntryByName(pchName, "added");
  }
  CFuzzFile out(nullptr, 0);
  doc.Save(&out);
  doc.Clear();
  return 0;
}
