// Run-length single-colour fonts: glyphs reduced to set and unset pixels, drawn straight into
// the target's pixels in one colour at any depth, and the conversion from image fonts.
#include "graphics/sfont.h"

#include <string.h>

// Bytes of the fixed part that follows the magic: header, offsets and size.
#define SFONT_FIXED_SIZE (FONT_HEADER_SIZE + 0x200 + 4)

CSFont::CSFont() : m_pImageData(0), m_dwImageSize(0), m_dwColor(0) {
  memset(m_anOffsets, 0, sizeof(m_anOffsets));
}

CSFont::~CSFont() {
  if (m_pImageData) MEM_FREE(m_pImageData);
  m_pImageData = 0;
}

ERR CSFont::SetData(void* pImageData, const TFontHeader* pHeader) {
  if (m_pImageData && m_pImageData != pImageData) MEM_FREE(m_pImageData);
  m_pImageData = static_cast<BYTE*>(pImageData);
  m_dwImageSize = 0;
  if (pHeader) m_Header = *pHeader;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// File

ERR CSFont::Load(CFile* pFile) {
  if (!pFile) return ERR_BADPARAM;
  BYTE abtMagic[4];
  ERR err = pFile->Read(abtMagic, 4, 0);
  if (err) return err;
  if (GetLE32(abtMagic) != SFONT_MAGIC) return ERR_FILE_BADFORMAT;

  if (m_pImageData) MEM_FREE(m_pImageData);
  m_pImageData = 0;
  // The header, the offsets and the size are each read over their own field in turn: a read
  // that fails keeps what the earlier ones stored, and the bytes of its own that arrived.
  BYTE abtFixed[SFONT_FIXED_SIZE];
  BYTE* const pOffsets = abtFixed + FONT_HEADER_SIZE;
  BYTE* const pSize = pOffsets + 0x200;
  FontHeaderToBytes(&m_Header, abtFixed);
  for (int i = 0; i < 256; i++) PutLE16(pOffsets + 2 * i, (WORD)m_anOffsets[i]);
  PutLE32(pSize, m_dwImageSize);
  err = pFile->Read(abtFixed, FONT_HEADER_SIZE, 0);
  FontHeaderFromBytes(&m_Header, abtFixed);
  if (err) return err;
  err = pFile->Read(pOffsets, 0x200, 0);
  for (int i = 0; i < 256; i++) m_anOffsets[i] = (SHORT)GetLE16(pOffsets + 2 * i);
  if (err) return err;
  err = pFile->Read(pSize, 4, 0);
  m_dwImageSize = GetLE32(pSize);
  if (err) return err;
  // The size stays in m_dwImageSize when its data can't be had; with no data it is never used.
  const DWORD dwSize = m_dwImageSize;

  // A size the file can't hold would fail on the read anyway: say so before allocating for it.
  const DWORD dwFileSize = pFile->GetSize(), dwPos = pFile->GetPos();
  if (dwSize > (dwFileSize > dwPos ? dwFileSize - dwPos : 0)) return ERR_FILE_EOF;
  // A size of 0 is refused like a failed allocation: the allocator asserts "dwSize" and gives
  // nothing, so a file without run data leaves the font without data.
  BYTE* pData = static_cast<BYTE*>(MEM_ALLOC(dwSize));
  if (!pData) return ERR_ALLOCFAIL;
  if ((err = pFile->Read(pData, dwSize, 0)) != 0) {
    MEM_FREE(pData);
    return err;
  }
  m_pImageData = pData;
  return 0;
}

ERR CSFont::Save(CFile* pFile) {
  if (!m_pImageData) return (ERR)-1;
  if (!pFile) return ERR_BADPARAM;
  BYTE abtFixed[4 + SFONT_FIXED_SIZE];
  PutLE32(abtFixed, SFONT_MAGIC);
  FontHeaderToBytes(&m_Header, abtFixed + 4);
  for (int i = 0; i < 256; i++) PutLE16(abtFixed + 4 + FONT_HEADER_SIZE + 2 * i, (WORD)m_anOffsets[i]);
  PutLE32(abtFixed + 4 + FONT_HEADER_SIZE + 0x200, m_dwImageSize);
  ERR err = pFile->Write(abtFixed, sizeof(abtFixed), 0);
  if (err) return err;
  if (m_dwImageSize) err = pFile->Write(m_pImageData, m_dwImageSize, 0);
  return err;
}

// ---------------------------------------------------------------------------------------------
// Drawing

// One pixel of the colour at p, by bytes per pixel.
template <int N>
static inline void PutPixel(BYTE* p, DWORD dwColor) {
  if (N == 1) {
    p[0] = (BYTE)dwColor;
  } else if (N == 2) {
    PutLE16(p, (WORD)dwColor);
  } else if (N == 3) {
    PutLE16(p, (WORD)dwColor);
    p[2] = (BYTE)(dwColor >> 16);
  } else {
    PutLE32(p, dwColor);
  }
}

// A row record that starts at pos and lies wholly within dwAvail bytes: its run count, with pos
// moved to the first run byte. -1 for a record that runs past the data.
static inline int RowRuns(const BYTE* pRuns, DWORD dwAvail, DWORD* pdwPos) {
  if (*pdwPos >= dwAvail) return -1;
  const DWORD n = pRuns[(*pdwPos)++];
  if (n > dwAvail - *pdwPos) return -1;
  return (int)n;
}

// The glyph lies wholly inside the clip: runs are written without a per-pixel test. Runs that
// claim more pixels than the width (a damaged font) are cut at the width.
template <int N>
static void FastRows(const BYTE* pRuns, DWORD dwAvail, DWORD dwPos, BYTE* pRow0, LONG lPitch, int x, int y,
                     int w, int h, DWORD dwColor) {
  for (int r = 0; r < h; r++) {
    const int n = RowRuns(pRuns, dwAvail, &dwPos);
    if (n < 0) return;
    BYTE* p = pRow0 + (LONG)(y + r) * lPitch + (LONG)x * N;
    int col = 0;
    for (int k = 0; k < n; k++) {
      const BYTE b = pRuns[dwPos + k];
      col += b >> 4;
      int nSet = b & 15;
      if (nSet > w - col) nSet = w - col;
      for (int i = 0; i < nSet; i++) PutPixel<N>(p + (LONG)(col + i) * N, dwColor);
      if (nSet > 0) col += nSet;
    }
    dwPos += (DWORD)n;
  }
}

// The glyph crosses a side of the clip: each pixel is tested against the clip's columns. On an
// 8-bit target only the first row is decoded; the remaining rows are counted down undrawn.
template <int N>
static void CarefulRows(const BYTE* pRuns, DWORD dwAvail, DWORD dwPos, BYTE* pRow0, LONG lPitch, int x, int y,
                        int w, int h, const TRect& rcClip, DWORD dwColor) {
  for (int r = 0; r < h; r++) {
    if (N == 1 && r > 0) continue;
    const int n = RowRuns(pRuns, dwAvail, &dwPos);
    if (n < 0) return;
    BYTE* pRow = pRow0 + (LONG)(y + r) * lPitch;
    int col = 0;
    for (int k = 0; k < n; k++) {
      const BYTE b = pRuns[dwPos + k];
      col += b >> 4;
      for (int i = b & 15; i > 0 && col < w; i--, col++) {
        const int px = x + col;
        if (px >= rcClip.left && px <= rcClip.right) PutPixel<N>(pRow + (LONG)px * N, dwColor);
      }
    }
    dwPos += (DWORD)n;
  }
}

template <int N>
static void DrawRunsN(const BYTE* pRuns, DWORD dwAvail, DWORD dwPos, BYTE* pRow0, LONG lPitch, int x, int y,
                      int w, int h, const TRect& rc, DWORD dwColor) {
  if (x >= rc.left && x + w <= rc.right) {
    FastRows<N>(pRuns, dwAvail, dwPos, pRow0, lPitch, x, y, w, h, dwColor);
    return;
  }
  // A glyph whose last column is the clip's right edge comes here too (x + w == right + 1).
  if (x > rc.right || x + w < rc.left || rc.right - rc.left < 1) return;
  CarefulRows<N>(pRuns, dwAvail, dwPos, pRow0, lPitch, x, y, w, h, rc, dwColor);
}

void CSFont::DrawRuns(const BYTE* pRuns, DWORD dwAvail, BYTE* pRow0, LONG lPitch, int nBytes, int x, int y,
                      int w, int h, const TRect& rcClip) {
  DWORD dwPos = 0;
  // Rows above the clip are stepped over record by record.
  while (y < rcClip.top && h > 0) {
    const int n = RowRuns(pRuns, dwAvail, &dwPos);
    if (n < 0) return;
    dwPos += (DWORD)n;
    y++;
    h--;
  }
  if (y + h > rcClip.bottom) h = rcClip.bottom - y + 1;
  if (h < 1) return;
  switch (nBytes) {
    case 1:
      DrawRunsN<1>(pRuns, dwAvail, dwPos, pRow0, lPitch, x, y, w, h, rcClip, m_dwColor);
      break;
    case 2:
      DrawRunsN<2>(pRuns, dwAvail, dwPos, pRow0, lPitch, x, y, w, h, rcClip, m_dwColor);
      break;
    case 3:
      DrawRunsN<3>(pRuns, dwAvail, dwPos, pRow0, lPitch, x, y, w, h, rcClip, m_dwColor);
      break;
    case 4:
      DrawRunsN<4>(pRuns, dwAvail, dwPos, pRow0, lPitch, x, y, w, h, rcClip, m_dwColor);
      break;
  }
}

void CSFont::DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) {
  if (pCMap) m_dwColor = pCMap[1];
  ASSERT(pText && m_pImageData);
  if (!pText || !m_pImageData || !pDC) return;
  CBitmap* pBitmap = pDC->GetBitmap();
  if (!pBitmap || !pBitmap->m_hBits) return;
  const int nBytes = pBitmap->m_nBitsPerPixel >> 3;
  if (nBytes < 1 || nBytes > 4) return;
  if (!HANDLE_LOCK(pBitmap->m_hBits)) return;
  BYTE* pRow0 = pBitmap->GetPixelPtr(0, 0);

  TPoint ptOrigin;
  pDC->GetOrigin(&ptOrigin);
  TRect rc;
  pDC->GetClip(&rc);
  // The clip in device coordinates, and never outside the bitmap whatever the context says.
  const int nLeft = rc.left + ptOrigin.x, nTop = rc.top + ptOrigin.y;
  const int nRight = rc.right + ptOrigin.x, nBottom = rc.bottom + ptOrigin.y;
  TRect rcClip;
  rcClip.left = (SHORT)(nLeft < 0 ? 0 : nLeft > pBitmap->m_nWidth ? pBitmap->m_nWidth : nLeft);
  rcClip.top = (SHORT)(nTop < 0 ? 0 : nTop > pBitmap->m_nHeight ? pBitmap->m_nHeight : nTop);
  rcClip.right = (SHORT)(nRight >= pBitmap->m_nWidth ? pBitmap->m_nWidth - 1 : nRight < -1 ? -1 : nRight);
  rcClip.bottom = (SHORT)(nBottom >= pBitmap->m_nHeight ? pBitmap->m_nHeight - 1
                          : nBottom < -1                ? -1
                                                        : nBottom);

  const int yDev = y + ptOrigin.y, nHeight = m_Header.nHeight;
  const DWORD n = TextLength(pText, dwLen);
  for (DWORD i = 0; pRow0 && rcClip.left <= rcClip.right && rcClip.top <= rcClip.bottom && i < n; i++) {
    const BYTE c = (BYTE)pText[i];
    if (m_Header.abtIndex[c] >= m_Header.nGlyphs) continue;
    const int w = m_Header.abtWidth[c];
    // The offsets are looked up by the character as a signed byte: codes from 0x80 on find no
    // entry, and their glyphs are not drawn (they still take their place).
    const int nSigned = (signed char)c;
    if (nSigned >= 0) {
      const LONG lOfs = m_anOffsets[nSigned];
      if (lOfs >= 0 && (DWORD)lOfs < m_dwImageSize)
        DrawRuns(m_pImageData + lOfs, m_dwImageSize - (DWORD)lOfs, pRow0, pBitmap->m_nPitch, nBytes,
                 x + ptOrigin.x, yDev, w, nHeight, rcClip);
    }
    x = (SHORT)(x + w - m_Header.nSpacing);
  }
  HANDLE_UNLOCK(pBitmap->m_hBits);
}

void CSFont::DrawTextColors(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, const TColor* pColors,
                            DWORD) {
  if (pDC && pColors) pDC->ColorToPixel(&pColors[0], &m_dwColor);
  DrawText(pDC, x, y, pText, dwLen, 0);
}

void CSFont::DrawTextPixels(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, const DWORD* pPixels,
                            DWORD) {
  if (pPixels) m_dwColor = pPixels[0];
  DrawText(pDC, x, y, pText, dwLen, 0);
}

// ---------------------------------------------------------------------------------------------
// Conversion

DWORD ConvertToSFont(CImageFont* pSrc, CSFont* pDst) {
  if (!pSrc || !pDst) return 0;
  CBitmap* pImage = pSrc->m_pFontImage;
  if (!pImage || pImage->m_nBitsPerPixel != 8) return 0;
  const TFontHeader& hdr = pSrc->m_Header;
  const int nHeight = hdr.nHeight > 0 ? hdr.nHeight : 0;

  // The buffer is sized for the widest glyph at every code, but never smaller than the data can
  // become (a row takes at most one count byte and one run byte per pixel, whatever a header
  // says its widest glyph is), nor larger than it can become.
  // A glyph is only begun while the data is within reach of an offset, so the data never grows
  // past that reach plus one glyph.
  DWORD dwSum = 0, dwWidest = 0;
  for (int c = 0; c < 256; c++) {
    if (hdr.abtWidth[c]) dwSum += (DWORD)nHeight * (1u + hdr.abtWidth[c]);
    if (hdr.abtWidth[c] > dwWidest) dwWidest = hdr.abtWidth[c];
  }
  const DWORD dwReach = SFONT_MAX_OFFSET + 1 + (DWORD)nHeight * (1u + dwWidest);
  const DWORD dwNeed = dwSum < dwReach ? dwSum : dwReach;
  const unsigned long long qwPlanned =
      (unsigned long long)nHeight * (unsigned long long)(hdr.nMaxWidth > 0 ? hdr.nMaxWidth : 0) * 256u;
  DWORD dwSize = qwPlanned > dwNeed && qwPlanned <= dwReach ? (DWORD)qwPlanned : dwNeed;
  // A font that plans no bytes (no rows, or no width in its header) and needs none asks for 0:
  // the allocator asserts "dwSize" and gives nothing, and the result has no run data. One that
  // plans bytes it doesn't need gets a token block.
  if (!dwSize && qwPlanned) dwSize = 1;
  BYTE* pOut = static_cast<BYTE*>(MEM_ALLOC(dwSize));
  if (!pOut && dwSize) return 0;
  pDst->SetData(pOut, &hdr);

  BYTE* pBits = pImage->m_hBits ? static_cast<BYTE*>(HANDLE_LOCK(pImage->m_hBits)) : 0;
  DWORD dwLen = 0;
  BOOL bTooLarge = FALSE;
  for (int c = 0; c < 256; c++) {
    const int w = hdr.abtWidth[c];
    if (w == 0) {
      pDst->m_anOffsets[c] = 0;
      continue;
    }
    if (dwLen > SFONT_MAX_OFFSET) {
      pDst->m_anOffsets[c] = -1;
      bTooLarge = TRUE;
      continue;
    }
    pDst->m_anOffsets[c] = (SHORT)dwLen;
    const LONG lFirstRow = (LONG)hdr.abtIndex[c] * nHeight;
    for (int r = 0; r < nHeight; r++) {
      // Pixels the image doesn't hold count as unset.
      const LONG lRow = lFirstRow + r;
      const BYTE* pRow = pBits && lRow < pImage->m_nHeight ? pImage->GetPixelPtr(0, (SHORT)lRow) : 0;
      const int nHave = pRow ? (w < pImage->m_nWidth ? w : pImage->m_nWidth) : 0;
      const DWORD dwCount = dwLen++;
      BYTE btRuns = 0;
      int i = 0;
      while (i < w) {
        int nSkip = 0, nSet = 0;
        while (nSkip < 15 && i < w && (i >= nHave || pRow[i] == 0)) nSkip++, i++;
        while (nSet < 15 && i < w && i < nHave && pRow[i] != 0) nSet++, i++;
        pOut[dwLen++] = (BYTE)((nSkip << 4) | nSet);
        btRuns++;
      }
      pOut[dwCount] = btRuns;
    }
  }
  pDst->m_dwImageSize = dwLen;
  if (pBits) HANDLE_UNLOCK(pImage->m_hBits);
  if (bTooLarge)
    DebugPrintf("ConvertToSFont: run data past %u bytes; later glyphs dropped\n", SFONT_MAX_OFFSET);
  return 1;
}

DWORD ConvertFontFile(const char* pchFontPath, const char* pchSFontPath) {
  CImageFont* pFont = CreateFontFromFile(pchFontPath);
  if (!pFont) return 0;
  CSFont* pSFont = new CSFont();
  DWORD dwResult = 0;
  if (pSFont && ConvertToSFont(pFont, pSFont)) {
    ERR err = 0;
    CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchSFontPath, FILE_MODE_CREATE, &err) : 0;
    if (pFile) {
      pSFont->Save(pFile);
      delete pFile;
      dwResult = 1;
    }
  }
  delete pSFont;
  delete pFont;
  return dwResult;
}
