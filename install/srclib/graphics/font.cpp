// Bitmap fonts: the per-character measure table, the image font whose glyphs are palette
// indices in one bitmap strip, and a wrapper that adds rows above or below another font.
#include "graphics/font.h"

#include <string.h>

#include "graphics/bmpfile.h"

// ---------------------------------------------------------------------------------------------
// Header bytes

void FontHeaderFromBytes(TFontHeader* pHeader, const BYTE* p) {
  memcpy(pHeader->achReserved, p, 32);
  pHeader->nHeight = (SHORT)GetLE16(p + 0x20);
  pHeader->wReserved1 = GetLE16(p + 0x22);
  pHeader->nMaxWidth = (SHORT)GetLE16(p + 0x24);
  memcpy(pHeader->abtReserved2, p + 0x26, 4);
  pHeader->nPadBelow = (SHORT)GetLE16(p + 0x2A);
  pHeader->nPadAbove = (SHORT)GetLE16(p + 0x2C);
  pHeader->nSpacing = (SHORT)GetLE16(p + 0x2E);
  pHeader->nGlyphs = (SHORT)GetLE16(p + 0x30);
  memcpy(pHeader->abtWidth, p + 0x32, 256);
  memcpy(pHeader->abtIndex, p + 0x132, 256);
}

void FontHeaderToBytes(const TFontHeader* pHeader, BYTE* p) {
  memcpy(p, pHeader->achReserved, 32);
  PutLE16(p + 0x20, (WORD)pHeader->nHeight);
  PutLE16(p + 0x22, pHeader->wReserved1);
  PutLE16(p + 0x24, (WORD)pHeader->nMaxWidth);
  memcpy(p + 0x26, pHeader->abtReserved2, 4);
  PutLE16(p + 0x2A, (WORD)pHeader->nPadBelow);
  PutLE16(p + 0x2C, (WORD)pHeader->nPadAbove);
  PutLE16(p + 0x2E, (WORD)pHeader->nSpacing);
  PutLE16(p + 0x30, (WORD)pHeader->nGlyphs);
  memcpy(p + 0x32, pHeader->abtWidth, 256);
  memcpy(p + 0x132, pHeader->abtIndex, 256);
}

// ---------------------------------------------------------------------------------------------
// CFont

CFont::CFont() { memset(&m_Header, 0, sizeof(m_Header)); }

CFont::~CFont() {}

void* CFont::operator new(size_t nSize) noexcept { return MemNewObject((DWORD)nSize); }

void CFont::operator delete(void* p) {
  if (p) MemDelete(p);
}

DWORD CFont::TextLength(const char* pText, DWORD dwLen) {
  return dwLen == 0xFFFFFFFFu ? StrLen(pText) : dwLen;
}

ERR CFont::SetImage(CBitmap*, const TFontHeader*) { return ERR_NOTIMPL; }
ERR CFont::Load(CFile*) { return ERR_NOTIMPL; }
ERR CFont::Save(CFile*) { return ERR_NOTIMPL; }

SHORT CFont::GetTextWidth(const char* pText, DWORD dwLen) {
  ASSERT(pText);
  if (!pText) return 0;
  const DWORD n = TextLength(pText, dwLen);
  SHORT nWidth = 0;
  for (DWORD i = 0; i < n; i++)
    nWidth = (SHORT)(nWidth + m_Header.abtWidth[(BYTE)pText[i]] - m_Header.nSpacing);
  // The last advance gave back the spacing that only lies between characters.
  return (SHORT)(nWidth + m_Header.nSpacing);
}

SHORT CFont::GetCharWidth(BYTE c) { return m_Header.abtWidth[c]; }

SHORT CFont::GetHeight() { return m_Header.nHeight; }

DWORD CFont::CharsThatFit(SHORT nWidth, const char* pText, DWORD dwLen) {
  ASSERT(pText);
  if (!pText) return 0;
  const DWORD n = TextLength(pText, dwLen);
  LONG lLeft = nWidth;
  for (DWORD i = 0; i < n; i++) {
    lLeft -= m_Header.abtWidth[(BYTE)pText[i]] - m_Header.nSpacing;
    if (lLeft < 0) return i;
  }
  return n;
}

void CFont::DrawText(CDC*, SHORT, SHORT, const char*, DWORD, BYTE*) {}
void CFont::DrawTextColors(CDC*, SHORT, SHORT, const char*, DWORD, const TColor*, DWORD) {}
void CFont::DrawTextPixels(CDC*, SHORT, SHORT, const char*, DWORD, const DWORD*, DWORD) {}

// ---------------------------------------------------------------------------------------------
// CImageFont

CImageFont::CImageFont() : m_pFontImage(0) {}

CImageFont::~CImageFont() {
  delete m_pFontImage;
  m_pFontImage = 0;
}

ERR CImageFont::SetImage(CBitmap* pImage, const TFontHeader* pHeader) {
  if (m_pFontImage != pImage) delete m_pFontImage;
  m_pFontImage = pImage;
  if (pHeader) m_Header = *pHeader;
  return 0;
}

ERR CImageFont::Load(CFile* pFile) {
  delete m_pFontImage;
  m_pFontImage = 0;
  if (!pFile) return ERR_BADPARAM;
  // The header is read over the record itself: a short read leaves the bytes that arrived in
  // it, and the rest as they were.
  BYTE abtHeader[FONT_HEADER_SIZE];
  FontHeaderToBytes(&m_Header, abtHeader);
  ERR err = pFile->Read(abtHeader, FONT_HEADER_SIZE, 0);
  FontHeaderFromBytes(&m_Header, abtHeader);
  if (err) return err;
  m_pFontImage = BmpRead(pFile, 0, 0);
  return m_pFontImage ? 0 : 1;
}

ERR CImageFont::Save(CFile* pFile) {
  if (!m_pFontImage) return (ERR)-1;
  if (!pFile) return ERR_BADPARAM;
  BYTE abtHeader[FONT_HEADER_SIZE];
  FontHeaderToBytes(&m_Header, abtHeader);
  ERR err = pFile->Write(abtHeader, FONT_HEADER_SIZE, 0);
  if (err) return err;
  return BmpWrite(pFile, m_pFontImage, BL_BACKWARD);
}

void CImageFont::DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) {
  DrawGlyphs(pDC, x, y, pText, dwLen, pCMap);
}

void CImageFont::DrawGlyphs(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) {
  ASSERT(pText && m_pFontImage);
  if (!pText || !m_pFontImage || !pDC) return;
  const DWORD n = TextLength(pText, dwLen);
  const SHORT nHeight = m_Header.nHeight;
  for (DWORD i = 0; i < n; i++) {
    const BYTE c = (BYTE)pText[i];
    const BYTE g = m_Header.abtIndex[c];
    if (g >= m_Header.nGlyphs) continue;
    const BYTE w = m_Header.abtWidth[c];
    // The blit clips to the image, so a glyph the strip doesn't hold (a header that claims more
    // glyphs or rows than the image has) draws only what is there.
    const LONG lTop = (LONG)g * nHeight;
    if (lTop <= 0x7FFF) pDC->Blit(m_pFontImage, x, y, w, nHeight, 0, (SHORT)lTop, 0, pCMap);
    x = (SHORT)(x + w - m_Header.nSpacing);
  }
}

void CImageFont::DrawTextColors(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen,
                                const TColor* pColors, DWORD dwCount) {
  if (!pDC || !pColors) return;
  if (dwCount > 256) dwCount = 256;
  DWORD adwPixels[256];
  for (DWORD i = 0; i < dwCount; i++) {
    adwPixels[i] = 0;
    pDC->ColorToPixel(&pColors[i], &adwPixels[i]);
  }
  DrawTextPixels(pDC, x, y, pText, dwLen, adwPixels, dwCount);
}

void CImageFont::DrawTextPixels(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen,
                                const DWORD* pPixels, DWORD dwCount) {
  if (!pDC || !pPixels) return;
  CBitmap* pTarget = pDC->GetBitmap();
  if (!pTarget) return;
  if (pTarget->m_nBitsPerPixel == 8) {
    // Index 0 stays transparent, so its entry is never used; entries past the ramp map to 0.
    // A ramp longer than 255 colours has no index left for the rest.
    BYTE abtMap[256];
    memset(abtMap, 0, sizeof(abtMap));
    for (DWORD i = 0; i < dwCount && i < 255; i++) abtMap[i + 1] = (BYTE)pPixels[i];
    DrawGlyphs(pDC, x, y, pText, dwLen, abtMap);
    return;
  }
  if (m_pFontImage) {
    // The ramp goes into the image's own palette, where the copy kernels look it up.
    CPalette* pPal = m_pFontImage->m_pPalette;
    if (!pPal) {
      pPal = new CPalette();
      m_pFontImage->m_pPalette = pPal;
    }
    if (pPal && pPal->m_dwColors < dwCount + 1 && dwCount < 0xFFFFFFFFu) pPal->SetSize(dwCount + 1);
    if (pPal && pPal->m_hColors && pPal->m_dwColors >= dwCount + 1) {
      WORD* pHi = pPal->m_hHiColors ? static_cast<WORD*>(HANDLE_LOCK(pPal->m_hHiColors)) : 0;
      for (DWORD i = 0; i < dwCount; i++) {
        TColor c = {0, 0, 0, 0};
        pDC->PixelToColor(&pPixels[i], &c);
        pPal->SetColor(i + 1, &c);
        if (pHi) pHi[i + 1] = (WORD)pPixels[i];
      }
      if (pHi) HANDLE_UNLOCK(pPal->m_hHiColors);
    }
  }
  DrawGlyphs(pDC, x, y, pText, dwLen, 0);
}

CImageFont* CreateFontFromFile(const char* pchPath) {
  ERR err = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, FILE_MODE_READ, &err) : 0;
  if (!pFile) return 0;
  CImageFont* pFont = new CImageFont();
  if (pFont && pFont->Load(pFile) != 0) {
    delete pFont;
    pFont = 0;
  }
  delete pFile;
  return pFont;
}

// ---------------------------------------------------------------------------------------------
// COffsetFont

static inline SHORT AbsShort(SHORT n) { return (SHORT)(n < 0 ? -n : n); }

COffsetFont::COffsetFont(CFont* pWrapped, SHORT nShift) : pFont(pWrapped), m_nShift(nShift) {
  ASSERT_TEXT(pWrapped, "pFont");
  RefreshHeader();
}

void COffsetFont::RefreshHeader() {
  if (!pFont) return;
  m_Header = pFont->m_Header;
  m_Header.nHeight = (SHORT)(m_Header.nHeight + AbsShort(m_nShift));
  if (m_nShift < 0)
    m_Header.nPadBelow = (SHORT)(m_Header.nPadBelow - m_nShift);
  else
    m_Header.nPadAbove = (SHORT)(m_Header.nPadAbove + m_nShift);
}

ERR COffsetFont::SetImage(CBitmap* pImage, const TFontHeader* pHeader) {
  if (!pFont) return ERR_BADPARAM;
  ERR err = pFont->SetImage(pImage, pHeader);
  RefreshHeader();
  return err;
}

ERR COffsetFont::Load(CFile* pFile) {
  if (!pFont) return ERR_BADPARAM;
  ERR err = pFont->Load(pFile);
  if (!err) RefreshHeader();
  return err;
}

ERR COffsetFont::Save(CFile* pFile) { return pFont ? pFont->Save(pFile) : ERR_BADPARAM; }

SHORT COffsetFont::GetTextWidth(const char* pText, DWORD dwLen) {
  return pFont ? pFont->GetTextWidth(pText, dwLen) : 0;
}

SHORT COffsetFont::GetCharWidth(BYTE c) { return pFont ? pFont->GetCharWidth(c) : 0; }

SHORT COffsetFont::GetHeight() { return pFont ? (SHORT)(pFont->GetHeight() + AbsShort(m_nShift)) : 0; }

DWORD COffsetFont::CharsThatFit(SHORT nWidth, const char* pText, DWORD dwLen) {
  return pFont ? pFont->CharsThatFit(nWidth, pText, dwLen) : 0;
}

void COffsetFont::DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) {
  if (!pFont) return;
  if (m_nShift > 0) y = (SHORT)(y + m_nShift);
  pFont->DrawText(pDC, x, y, pText, dwLen, pCMap);
}
