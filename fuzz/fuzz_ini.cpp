// Loads arbitrary bytes into the text INI store, lists and reads every section and key, edits
// the text in place, and saves it. After an edit the new value must read back.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "config/ini.h"
#include "fuzzfile.h"
#include "platform/platform.h"

namespace {

int Ignore(const char*) { return ASSERT_IGNORE; }

const TIniFlag kFlags[] = {{"A", 1}, {"BB", 2}, {"C", 4}, {nullptr, 0}};

// The names of a multi-string list.
std::vector<std::string> Names(const char* p, size_t nSize) {
  std::vector<std::string> out;
  const char* pEnd = p + nSize;
  while (p < pEnd && *p) {
    size_t n = strnlen(p, pEnd - p);
    out.emplace_back(p, n);
    p += n + 1;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = Ignore;
  if (nSize > 0x10000) return 0;
  CIni ini;
  std::vector<BYTE> text(pData, pData + nSize), saved;
  CFuzzFile in(&text);
  if (ini.Load(&in)) return 0;

  static char szList[4096];
  ini.GetSectionNames(szList, sizeof(szList));
  std::vector<std::string> sections = Names(szList, sizeof(szList));
  char szValue[256];
  for (const std::string& section : sections) {
    ini.GetEntryNames(section.c_str(), szList, sizeof(szList));
    std::vector<std::string> keys = Names(szList, sizeof(szList));
    for (WORD w = 0; w < 4; w++) ini.GetEntryName(section.c_str(), w, szValue, sizeof(szValue));
    for (const std::string& key : keys) {
      const char* s = section.c_str();
      const char* k = key.c_str();
      LONG l;
      SHORT a, b, c, d;
      DWORD dw = 0;
      BYTE color[4];
      char szText[128];
      ini.GetString(s, k, szValue, sizeof(szValue));
      ini.GetInt(s, k, &l);
      IniGetColor(&ini, s, k, color);
      IniGetPoint(&ini, s, k, &a, &b);
      IniGetRect(&ini, s, k, &a, &b, &c, &d);
      IniGetBox(&ini, s, k, &a, &b, &c, &d);
      IniGetFlags(&ini, s, k, kFlags, &dw);
      IniGetStrNumFlags(&ini, s, k, kFlags, szText, &a, &dw);
      IniGetField(&ini, s, k, 1, szText);
      IniGetFieldInt(&ini, s, k, 2, &l);
      IniGetId(&ini, s, k, &l);
    }
  }
  // Edits: a known key of the first section, a new key there, and a new section. Each value
  // must read back as written, unless the text holds a 0 byte: lookups end there, while an
  // added section goes to the end of the whole text, out of their reach.
  const bool bCheck = memchr(pData, 0, nSize) == nullptr;
  const std::string first = sections.empty() ? "S" : sections[0];
  const char* apchKeys[] = {"k", "added"};
  for (const char* pchKey : apchKeys) {
    if (ini.SetString(first.c_str(), pchKey, "v1,2")) continue;
    if (bCheck &&
        (ini.GetString(first.c_str(), pchKey, szValue, sizeof(szValue)) != 0 || strcmp(szValue, "v1,2") != 0))
      abort();
  }
  if (ini.SetString("new section", "key", "value") == 0) {
    if (bCheck &&
        (ini.GetString("new section", "key", szValue, sizeof(szValue)) != 0 || strcmp(szValue, "value") != 0))
      abort();
  }
  CFuzzFile out(&saved);
  ini.Save(&out);
  return 0;
}
