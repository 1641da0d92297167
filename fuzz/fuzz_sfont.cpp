// Feeds arbitrary files to the run-length font reader. Whatever loads is drawn with every
// character onto small targets of every depth, at positions that cut glyphs on every side of
// the clip, and saved and read back unchanged. Run data past its end, offsets past it and runs
// wider than their glyph must never reach outside a buffer (the sanitizers catch it).
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "files/memfile.h"
#include "fuzzinput.h"
#include "graphics/sfont.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_dwHandleMemLimit = 64u << 20;
  g_dwPtrMemLimit = 64u << 20;
  g_dwNewMemLimit = 64u << 20;
  CFile* pFile = MemFileOf(data, size);
  if (!pFile) return 0;
  CSFont* pFont = new CSFont();
  if (!pFont) {
    delete pFile;
    return 0;
  }
  const ERR err = pFont->Load(pFile);
  delete pFile;
  if (err) {
    delete pFont;
    return 0;
  }
  if (!pFont->m_pImageData) abort();
  char achAll[256];
  for (int i = 0; i < 256; i++) achAll[i] = (char)i;
  static const SHORT kFormats[] = {BF_8BIT, BF_16BIT, BF_24BIT, BF_32BIT};
  static const SHORT kLayouts[] = {BL_FORWARD, BL_BACKWARD};
  static const SHORT kPos[][2] = {{0, 0}, {-4, -2}, {9, 3}, {-300, 0}, {2, -100}, {17, 8}};
  for (SHORT fmt : kFormats) {
    for (SHORT nLayout : kLayouts) {
      CBitmap dst;
      if (dst.Create(19, 9, fmt, 0, nLayout, 0) != 0) continue;
      CMemoryDC dc(&dst);
      for (const auto& p : kPos) {
        pFont->SetPixelColor(0xA5A5A5A5u);
        pFont->DrawText(&dc, p[0], p[1], achAll, 256, 0);
        // One character at a time, so each glyph starts at the position.
        for (int c = 0; c < 256; c += 7) pFont->DrawText(&dc, p[0], p[1], achAll + c, 1, 0);
      }
      TRect rc = {3, 2, 11, 5};
      dc.MoveOrigin(-2, 1);
      dc.SetClip(&rc);
      for (int c = 0; c + 3 <= 256; c += 3)
        pFont->DrawText(&dc, (SHORT)(c % 13 - 2), (SHORT)(c % 7 - 2), achAll + c, 3, 0);
    }
  }
  CMemFile out(0, 0, 64u << 20, 0x1000, TRUE);
  if (pFont->Save(&out) != 0) abort();
  out.Seek(0, FILE_BEGIN);
  CSFont back;
  if (back.Load(&out) != 0) abort();
  if (back.m_dwImageSize != pFont->m_dwImageSize ||
      memcmp(back.m_pImageData, pFont->m_pImageData, back.m_dwImageSize) != 0 ||
      memcmp(back.m_anOffsets, pFont->m_anOffsets, sizeof(back.m_anOffsets)) != 0)
    abort();
  delete pFont;
  return 0;
}
