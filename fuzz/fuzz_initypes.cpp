// Gives the same values to the INI store and to the parsed document and requires their typed
// readers to agree: the same error, and the same bytes stored, from outputs filled alike.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "config/ini.h"
#include "config/inidoc.h"
#include "platform/platform.h"

namespace {

int Ignore(const char*) { return ASSERT_IGNORE; }

const TIniFlag kFlags[] = {{"A", 1}, {"BB", 2}, {"B", 4}, {"C", 8}, {nullptr, 0}};

// Both readers' results of one call, as bytes, with the error in front.
struct TResult {
  ERR err;
  std::string bytes;
  bool operator==(const TResult& o) const { return err == o.err && bytes == o.bytes; }
};

template <typename T>
std::string Bytes(const T& v) {
  return std::string(reinterpret_cast<const char*>(&v), sizeof(v));
}

// Stops with both results printed when the readers disagree.
void Require(const char* pchWhat, const TResult& a, const TResult& b) {
  if (a == b) return;
  fprintf(stderr, "%s: store %08X", pchWhat, (unsigned)a.err);
  for (unsigned char c : a.bytes) fprintf(stderr, " %02X", c);
  fprintf(stderr, "\n%s: document %08X", pchWhat, (unsigned)b.err);
  for (unsigned char c : b.bytes) fprintf(stderr, " %02X", c);
  fprintf(stderr, "\n");
  abort();
}

// The next piece of the input up to a line break, without characters that end a line.
std::string Piece(const uint8_t*& p, const uint8_t* pEnd) {
  std::string s;
  while (p < pEnd && *p != '\n') {
    if (*p && *p != '\r') s += (char)*p;
    p++;
  }
  if (p < pEnd) p++;
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = Ignore;
  const uint8_t* p = pData;
  const uint8_t* pEnd = pData + nSize;
  std::string value = Piece(p, pEnd), name = Piece(p, pEnd), id = Piece(p, pEnd);
  if (value.size() > 200 || name.size() > 60 || id.size() > 60) return 0;
  WORD wIndex = (WORD)(p < pEnd ? *p % 6 : 1);

  CIni ini;
  CIniDoc doc(7, 31, nullptr, 0);
  ini.SetString("S", "k", value.c_str());
  doc.SetString("S", "k", value.c_str());
  if (!name.empty() && name.find_first_of("[]") == std::string::npos) {
    ini.SetString(name.c_str(), "ID", id.c_str());
    doc.SetString(name.c_str(), "ID", id.c_str());
  }
  // The readers are compared on what the two engines give as the value; where the engines'
  // own line grammars differ (blanks, brackets, comments), there is nothing to compare.
  char szIni[256], szDoc[256];
  ERR eIni = ini.GetString("S", "k", szIni, sizeof(szIni));
  ERR eDoc = doc.GetString("S", "k", szDoc, sizeof(szDoc));
  if (eIni || eDoc || strcmp(szIni, szDoc) != 0) return 0;

  {
    BYTE a[4] = {1, 2, 3, 4}, b[4] = {1, 2, 3, 4};
    Require("Color", {IniGetColor(&ini, "S", "k", a), Bytes(a)}, {DocGetColor(&doc, "S", "k", b), Bytes(b)});
  }
  {
    SHORT a[2] = {-1, -2}, b[2] = {-1, -2};
    Require("Point", {IniGetPoint(&ini, "S", "k", &a[0], &a[1]), Bytes(a)},
            {DocGetPoint(&doc, "S", "k", &b[0], &b[1]), Bytes(b)});
  }
  {
    SHORT a[4] = {-1, -2, -3, -4}, b[4] = {-1, -2, -3, -4};
    Require("Rect", {IniGetRect(&ini, "S", "k", &a[0], &a[1], &a[2], &a[3]), Bytes(a)},
            {DocGetRect(&doc, "S", "k", &b[0], &b[1], &b[2], &b[3]), Bytes(b)});
    SHORT c[4] = {-1, -2, -3, -4}, d[4] = {-1, -2, -3, -4};
    Require("Box", {IniGetBox(&ini, "S", "k", &c[0], &c[1], &c[2], &c[3]), Bytes(c)},
            {DocGetBox(&doc, "S", "k", &d[0], &d[1], &d[2], &d[3]), Bytes(d)});
  }
  {
    DWORD a = 0x5A5A, b = 0x5A5A;
    Require("Flags", {IniGetFlags(&ini, "S", "k", kFlags, &a), Bytes(a)},
            {DocGetFlags(&doc, "S", "k", kFlags, &b), Bytes(b)});
  }
  {
    // The text buffers are filled alike, so bytes past the terminator compare too.
    char ta[128], tb[128];
    memset(ta, 'x', sizeof(ta));
    memset(tb, 'x', sizeof(tb));
    SHORT na = 7, nb = 7;
    DWORD fa = 0x100, fb = 0x100;
    ERR ea = IniGetStrNumFlags(&ini, "S", "k", kFlags, ta, &na, &fa);
    ERR eb = DocGetStrNumFlags(&doc, "S", "k", kFlags, tb, &nb, &fb);
    Require("StrNumFlags", {ea, Bytes(ta) + Bytes(na) + Bytes(fa)}, {eb, Bytes(tb) + Bytes(nb) + Bytes(fb)});
  }
  {
    char fa[128], fb[128];
    memset(fa, 'x', sizeof(fa));
    memset(fb, 'x', sizeof(fb));
    Require("Field", {IniGetField(&ini, "S", "k", wIndex, fa), Bytes(fa)},
            {DocGetField(&doc, "S", "k", wIndex, fb), Bytes(fb)});
    LONG la = 99, lb = 99;
    Require("FieldInt", {IniGetFieldInt(&ini, "S", "k", wIndex, &la), Bytes(la)},
            {DocGetFieldInt(&doc, "S", "k", wIndex, &lb), Bytes(lb)});
    // A value that names a section is looked up by each engine's own rules (the document's
    // names ignore case): compared only where both find the same "ID" text.
    char szIdIni[128], szIdDoc[128];
    ERR eIdIni = ini.GetString(szIni, "ID", szIdIni, sizeof(szIdIni));
    ERR eIdDoc = doc.GetString(szDoc, "ID", szIdDoc, sizeof(szIdDoc));
    if (eIdIni != eIdDoc || (!eIdIni && strcmp(szIdIni, szIdDoc) != 0)) return 0;
    la = lb = 99;
    Require("Id", {IniGetId(&ini, "S", "k", &la), Bytes(la)}, {DocGetId(&doc, "S", "k", &lb), Bytes(lb)});
  }
  return 0;
}
