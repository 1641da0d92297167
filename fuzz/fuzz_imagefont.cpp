// Feeds arbitrary files to the image font reader. Whatever loads is measured, drawn with every
// character onto small targets of every depth (through maps, colours and ramps, clipped and not,
// and through the offset wrapper), converted to a run-length font that is drawn too, and saved
// and read back. Reads and writes outside any buffer are caught by the sanitizers.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "files/memfile.h"
#include "fuzzinput.h"
#include "graphics/sfont.h"

static void DrawAll(CFont* pFont, const char* pText, DWORD dwLen) {
  static const SHORT kFormats[] = {BF_8BIT, BF_16BIT, BF_24BIT, BF_32BIT};
  static const SHORT kPos[][2] = {{0, 0}, {-5, -3}, {7, 2}, {-200, 1}, {3, -40}};
  BYTE abtMap[256];
  for (int i = 0; i < 256; i++) abtMap[i] = (BYTE)(255 - i);
  TColor aColors[3] = {MakeColor(255, 0, 0), MakeColor(0, 255, 0), MakeColor(0, 0, 255)};
  DWORD adwPixels[300];
  for (int i = 0; i < 300; i++) adwPixels[i] = 0x10101u * (DWORD)i;
  for (SHORT fmt : kFormats) {
    CBitmap dst;
    CPalette* pPal = 0;
    if (fmt == BF_8BIT) {
      pPal = new CPalette();
      if (pPal && pPal->SetSize(4) == 0)
        for (DWORD i = 0; i < 4; i++) {
          TColor c = MakeColor((BYTE)(i * 60), (BYTE)(i * 20), (BYTE)(255 - i * 50));
          pPal->SetColor(i, &c);
        }
    }
    if (dst.Create(23, 11, fmt, pPal, BL_BACKWARD, 0) != 0) continue;
    CMemoryDC dc(&dst);
    for (const auto& p : kPos) {
      pFont->DrawText(&dc, p[0], p[1], pText, dwLen, abtMap);
      pFont->DrawText(&dc, p[0], p[1], pText, dwLen, 0);
      pFont->DrawTextColors(&dc, p[0], p[1], pText, dwLen, aColors, 3);
      pFont->DrawTextPixels(&dc, p[0], p[1], pText, dwLen, adwPixels, 300);
    }
    TRect rc = {2, 1, 12, 6};
    dc.MoveOrigin(1, 2);
    dc.SetClip(&rc);
    pFont->DrawText(&dc, -3, -1, pText, dwLen, abtMap);
    pFont->DrawTextPixels(&dc, 4, 2, pText, dwLen, adwPixels, 2);
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_dwHandleMemLimit = 64u << 20;
  g_dwPtrMemLimit = 64u << 20;
  g_dwNewMemLimit = 64u << 20;
  CFile* pFile = MemFileOf(data, size);
  if (!pFile) return 0;
  CImageFont* pFont = new CImageFont();
  const ERR err = pFont ? pFont->Load(pFile) : 1;
  delete pFile;
  if (err) {
    if (pFont && pFont->m_pFontImage) abort();  // a failed load keeps no image
    delete pFont;
    return 0;
  }
  char achAll[256];
  for (int i = 0; i < 256; i++) achAll[i] = (char)i;
  pFont->GetTextWidth(achAll, 256);
  pFont->CharsThatFit(100, achAll, 256);
  DrawAll(pFont, achAll, 256);
  COffsetFont* pOffset = new COffsetFont(pFont, -3);
  if (pOffset) {
    DrawAll(pOffset, achAll + 32, 96);
    delete pOffset;
  }
  CSFont* pSFont = new CSFont();
  if (pSFont && ConvertToSFont(pFont, pSFont)) {
    // The run data never outgrows what an offset can reach plus one glyph.
    if (pSFont->m_dwImageSize > 0x8000u + 256u * 0x8000u) abort();
    DrawAll(pSFont, achAll, 256);
  }
  delete pSFont;
  CMemFile out(0, 0, 64u << 20, 0x1000, TRUE);
  if (pFont->Save(&out) == 0) {
    out.Seek(0, FILE_BEGIN);
    CImageFont back;
    if (back.Load(&out) != 0) abort();
    if (memcmp(&back.m_Header, &pFont->m_Header, sizeof(TFontHeader)) != 0) abort();
  }
  delete pFont;
  return 0;
}
