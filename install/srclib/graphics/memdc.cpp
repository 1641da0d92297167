// Device contexts: the drawing interface with clipping and an origin, and its software
// implementation that draws into a bitmap.
#include "graphics/memdc.h"

#include <string.h>

// ---------------------------------------------------------------------------------------------
// Rectangle arithmetic used here (edges inclusive).

static inline void SetRc(TRect* prc, int l, int t, int r, int b) {
  prc->left = (SHORT)l;
  prc->top = (SHORT)t;
  prc->right = (SHORT)r;
  prc->bottom = (SHORT)b;
}
static inline BOOL RcEmpty(const TRect& rc) { return rc.right < rc.left || rc.bottom < rc.top; }
static inline int RcWidth(const TRect& rc) { return rc.right - rc.left + 1; }
static inline int RcHeight(const TRect& rc) { return rc.bottom - rc.top + 1; }
static inline void RcIntersect(TRect* pa, const TRect& b) {
  if (b.left > pa->left) pa->left = b.left;
  if (b.top > pa->top) pa->top = b.top;
  if (b.right < pa->right) pa->right = b.right;
  if (b.bottom < pa->bottom) pa->bottom = b.bottom;
}
static inline void RcOffset(TRect* prc, int dx, int dy) {
  SetRc(prc, prc->left + dx, prc->top + dy, prc->right + dx, prc->bottom + dy);
}
static inline WORD RotateLeft16(WORD w, int n) {
  n &= 15;
  return n ? (WORD)((w << n) | (w >> (16 - n))) : w;
}

// ---------------------------------------------------------------------------------------------
// CDC

IMPLEMENT_CLASS(CDC, 0x29875C8, CObject)

CDC::CDC() {
  SetRc(&m_rcClip, 0, 0, 0, 0);
  SetRc(&m_rcBounds, 0, 0, 0, 0);
  m_ptOrigin.x = 0;
  m_ptOrigin.y = 0;
}

CDC::~CDC() {}

void CDC::GetOrigin(TPoint* ppt) { *ppt = m_ptOrigin; }

void CDC::MoveOrigin(SHORT dx, SHORT dy) {
  m_ptOrigin.x = (SHORT)(m_ptOrigin.x + dx);
  m_ptOrigin.y = (SHORT)(m_ptOrigin.y + dy);
}

void CDC::GetClip(TRect* prc) {
  *prc = m_rcClip;
  RcOffset(prc, -m_ptOrigin.x, -m_ptOrigin.y);
}

void CDC::SetClip(const TRect* prc) {
  TRect rc = *prc;
  RcOffset(&rc, m_ptOrigin.x, m_ptOrigin.y);
  RcIntersect(&rc, m_rcBounds);
  m_rcClip = rc;
}

void CDC::GetBounds(TRect* prc) { *prc = m_rcBounds; }
void CDC::GetExtraRect1(TRect* prc) { SetRc(prc, 1, 1, 0, 0); }
void CDC::GetExtraRect2(TRect* prc) { SetRc(prc, 1, 1, 0, 0); }
void CDC::ColorToPixel(const TColor*, DWORD*) {}
void CDC::PixelToColor(const DWORD*, TColor*) {}
DWORD CDC::GetPixel(SHORT, SHORT) { return 0; }
void CDC::SetPixel(SHORT, SHORT, DWORD) {}
void CDC::DrawLine(SHORT, SHORT, SHORT, SHORT, DWORD, WORD) {}
void CDC::FillRect(const TRect*, DWORD) {}
void CDC::GrabBitmap(CBitmap*, SHORT, SHORT, SHORT, SHORT, SHORT, SHORT) {}
void CDC::Blit(CBitmap*, SHORT, SHORT, SHORT, SHORT, SHORT, SHORT, DWORD, BYTE*) {}
void CDC::Reserved1(DWORD_PTR, DWORD_PTR) {}
void CDC::BlitList(CBitmap*, const TCopyEntry*, SHORT, SHORT, SHORT, SHORT, SHORT, SHORT, DWORD, BYTE*) {}
void CDC::Reserved2(DWORD_PTR, DWORD_PTR, DWORD_PTR, DWORD_PTR) {}
void CDC::Reserved3(DWORD_PTR) {}
CBitmap* CDC::GetBitmap() { return 0; }

void CDC::FrameRect(const TRect* prc, DWORD dwPixel, WORD wStyle) {
  const TRect rc = *prc;
  const int nWidth = RcWidth(rc), nHeight = RcHeight(rc);
  // Each side starts on the corner where the last one ended: the style moves on by the length
  // of the side just drawn less the shared corner pixel.
  DrawLine(rc.left, rc.top, rc.right, rc.top, dwPixel, wStyle);
  wStyle = RotateLeft16(wStyle, ((nWidth - 1) % 16 + 16) % 16);
  DrawLine(rc.right, rc.top, rc.right, rc.bottom, dwPixel, wStyle);
  wStyle = RotateLeft16(wStyle, ((nHeight - 1) % 16 + 16) % 16);
  DrawLine(rc.right, rc.bottom, rc.left, rc.bottom, dwPixel, wStyle);
  wStyle = RotateLeft16(wStyle, ((nWidth - 1) % 16 + 16) % 16);
  DrawLine(rc.left, rc.bottom, rc.left, rc.top, dwPixel, wStyle);
}

void CDC::Frame3D(const TRect* prc, DWORD dwTopLeft, DWORD dwBottomRight) {
  const TRect rc = *prc;
  DrawLine(rc.left, rc.top, rc.right, rc.top, dwTopLeft, LS_SOLID);
  DrawLine(rc.right, rc.top, rc.right, rc.bottom, dwBottomRight, LS_SOLID);
  DrawLine(rc.right, rc.bottom, rc.left, rc.bottom, dwBottomRight, LS_SOLID);
  DrawLine(rc.left, rc.bottom, rc.left, rc.top, dwTopLeft, LS_SOLID);
}

void CDC::DrawCursor(const CCursor* pCursor, const TPoint* ppt) {
  if (!pCursor || !pCursor->m_pBitmap) return;
  Blit(pCursor->m_pBitmap, (SHORT)(ppt->x - pCursor->m_ptHotSpot.x), (SHORT)(ppt->y - pCursor->m_ptHotSpot.y),
       32000, 32000, 0, 0, pCursor->m_dwTrans, 0);
}

static inline int AbsInt(int n) { return n < 0 ? -n : n; }

void CDC::TileBitmap(TRect* prc, CBitmap* pBitmap, const TRect* prcSrc, DWORD dwTrans, BYTE* pCMap, SHORT dx,
                     SHORT dy) {
  const int w = RcWidth(*prcSrc), h = RcHeight(*prcSrc);
  if (w <= 0 || h <= 0) return;
  const TRect rcSaved = m_rcClip;
  TRect rcTarget = *prc;
  RcOffset(&rcTarget, m_ptOrigin.x, m_ptOrigin.y);
  const SHORT x0 = (SHORT)(rcTarget.left - AbsInt(dx)), y0 = (SHORT)(rcTarget.top - AbsInt(dy));
  RcIntersect(&m_rcClip, rcTarget);
  TRect r = m_rcClip;
  if (!RcEmpty(r)) {
    r.left = (SHORT)(r.left - AbsInt((m_rcClip.left - x0) % w));
    r.top = (SHORT)(r.top - AbsInt((m_rcClip.top - y0) % h));
    const int nCols = (RcWidth(r) - 1) / w + 1, nRows = (RcHeight(r) - 1) / h + 1;
    for (int j = 0; j < nRows; j++)
      for (int i = 0; i < nCols; i++)
        Blit(pBitmap, (SHORT)(r.left + i * w - m_ptOrigin.x), (SHORT)(r.top + j * h - m_ptOrigin.y), (SHORT)w,
             (SHORT)h, prcSrc->left, prcSrc->top, dwTrans, pCMap);
  }
  m_rcClip = rcSaved;
}

void CDC::DrawSliced(const TRect* prc, CBitmap* pBitmap, const TRect* prcSrc, SHORT wLeft, SHORT wMid,
                     SHORT hTop, SHORT hMid, DWORD dwTrans, BYTE* pCMap) {
  const TRect rc = *prc, s = *prcSrc;
  const int wRight = RcWidth(s) - wLeft - wMid, hBottom = RcHeight(s) - hTop - hMid;
  // Source columns and rows start here.
  const int sx1 = s.left + wLeft, sx2 = sx1 + wMid, sy1 = s.top + hTop, sy2 = sy1 + hMid;
  // Target edges of the middle column and row.
  const int tx1 = rc.left + wLeft, tx2 = rc.right - wRight, ty1 = rc.top + hTop, ty2 = rc.bottom - hBottom;
  TRect rcT, rcS;

  Blit(pBitmap, rc.left, rc.top, wLeft, hTop, s.left, s.top, dwTrans, pCMap);
  SetRc(&rcT, tx1, rc.top, tx2, ty1 - 1);
  SetRc(&rcS, sx1, s.top, sx2 - 1, sy1 - 1);
  TileBitmap(&rcT, pBitmap, &rcS, dwTrans, pCMap, 0, 0);
  Blit(pBitmap, (SHORT)(tx2 + 1), rc.top, (SHORT)wRight, hTop, (SHORT)sx2, s.top, dwTrans, pCMap);

  SetRc(&rcT, rc.left, ty1, tx1 - 1, ty2);
  SetRc(&rcS, s.left, sy1, sx1 - 1, sy2 - 1);
  TileBitmap(&rcT, pBitmap, &rcS, dwTrans, pCMap, 0, 0);
  SetRc(&rcT, tx1, ty1, tx2, ty2);
  SetRc(&rcS, sx1, sy1, sx2 - 1, sy2 - 1);
  TileBitmap(&rcT, pBitmap, &rcS, dwTrans, pCMap, 0, 0);
  SetRc(&rcT, tx2 + 1, ty1, rc.right, ty2);
  SetRc(&rcS, sx2, sy1, sx2 + wRight - 1, sy2 - 1);
  TileBitmap(&rcT, pBitmap, &rcS, dwTrans, pCMap, 0, 0);

  Blit(pBitmap, rc.left, (SHORT)(ty2 + 1), wLeft, (SHORT)hBottom, s.left, (SHORT)sy2, dwTrans, pCMap);
  SetRc(&rcT, tx1, ty2 + 1, tx2, rc.bottom);
  SetRc(&rcS, sx1, sy2, sx2 - 1, sy2 + hBottom - 1);
  TileBitmap(&rcT, pBitmap, &rcS, dwTrans, pCMap, 0, 0);
  Blit(pBitmap, (SHORT)(tx2 + 1), (SHORT)(ty2 + 1), (SHORT)wRight, (SHORT)hBottom, (SHORT)sx2, (SHORT)sy2,
       dwTrans, pCMap);
}

// ---------------------------------------------------------------------------------------------
// CMemoryDC

IMPLEMENT_CLASS(CMemoryDC, 0xDCE1160, CDC)

CMemoryDC::CMemoryDC(CBitmap* pBitmap) : m_pBitmap(pBitmap), m_pLocked(0) {
  if (pBitmap) {
    if (pBitmap->m_hBits) m_pLocked = static_cast<BYTE*>(HANDLE_LOCK(pBitmap->m_hBits));
    pBitmap->GetRect(&m_rcBounds);
  } else {
    SetRc(&m_rcBounds, 1, 1, 0, 0);
  }
  // Without locked pixels there is nothing to draw on: an empty clip keeps every operation out.
  if (!m_pLocked) SetRc(&m_rcBounds, 1, 1, 0, 0);
  m_rcClip = m_rcBounds;
}

CMemoryDC::~CMemoryDC() {
  if (m_pLocked) HANDLE_UNLOCK(m_pBitmap->m_hBits);
}

CBitmap* CMemoryDC::GetBitmap() { return m_pBitmap; }

void CMemoryDC::ColorToPixel(const TColor* pColor, DWORD* pdwPixel) {
  switch (m_pBitmap ? m_pBitmap->m_nBitsPerPixel : 0) {
    case 8:
      // The search writes the pixel itself, and a palette with nothing to search leaves it alone.
      if (m_pBitmap->m_pPalette)
        m_pBitmap->m_pPalette->FindColor(pColor, pdwPixel);
      else
        *pdwPixel = 0;
      break;
    case 16:
      *pdwPixel =
          (DWORD)(pColor->btRed & 0xF8) * 0x80 + (DWORD)(pColor->btGreen & 0xF8) * 4 + (pColor->btBlue >> 3);
      break;
    case 24:
    case 32:
      *pdwPixel = ((DWORD)pColor->btRed << 16) | ((DWORD)pColor->btGreen << 8) | pColor->btBlue;
      break;
  }
}

void CMemoryDC::PixelToColor(const DWORD* pdwPixel, TColor* pColor) {
  const DWORD p = *pdwPixel;
  switch (m_pBitmap ? m_pBitmap->m_nBitsPerPixel : 0) {
    case 8: {
      CPalette* pPal = m_pBitmap->m_pPalette;
      if (!pPal || p >= pPal->m_dwColors || pPal->GetColor(p, pColor) != 0) {
        pColor->btRed = pColor->btGreen = pColor->btBlue = 0;
      }
      break;
    }
    case 16:
      // The low bits are filled with 3, not with a copy of the high bits.
      pColor->btRed = (BYTE)(((p >> 7) & 0xF8) | 3);
      pColor->btGreen = (BYTE)(((p >> 2) & 0xF8) | 3);
      pColor->btBlue = (BYTE)((BYTE)(p << 3) | 3);
      break;
    case 24:
    case 32:
      pColor->btBlue = (BYTE)p;
      pColor->btGreen = (BYTE)(p >> 8);
      pColor->btRed = (BYTE)(p >> 16);
      break;
  }
}

static inline BOOL InRect(const TRect& rc, int x, int y) {
  return x >= rc.left && x <= rc.right && y >= rc.top && y <= rc.bottom;
}

DWORD CMemoryDC::GetPixel(SHORT x, SHORT y) {
  const int dx = x + m_ptOrigin.x, dy = y + m_ptOrigin.y;
  if (!InRect(m_rcClip, dx, dy)) return 0xFFFFFFFFu;
  const BYTE* p = m_pBitmap->GetPixelPtr((SHORT)dx, (SHORT)dy);
  if (!p) return 0xFFFFFFFFu;
  switch (m_pBitmap->m_nBitsPerPixel) {
    case 8:
      return p[0];
    case 16:
      return GetLE16(p);
    case 24:
      return (DWORD)p[0] | ((DWORD)p[1] << 8) | ((DWORD)p[2] << 16);
    case 32:
      return GetLE32(p);
  }
  return 0xFFFFFFFFu;
}

void CMemoryDC::SetPixel(SHORT x, SHORT y, DWORD dwPixel) {
  const int dx = x + m_ptOrigin.x, dy = y + m_ptOrigin.y;
  if (!InRect(m_rcClip, dx, dy)) return;
  BYTE* p = m_pBitmap->GetPixelPtr((SHORT)dx, (SHORT)dy);
  if (!p) return;
  switch (m_pBitmap->m_nBitsPerPixel) {
    case 8:
      p[0] = (BYTE)dwPixel;
      break;
    case 16:
      PutLE16(p, (WORD)dwPixel);
      break;
    case 24: {
      // Not a colour store: three zero bytes, then 1 or 0 over the following byte.
      p[0] = p[1] = p[2] = 0;
      const size_t nOffset = (size_t)(p - m_pLocked);
      if (nOffset + 4 <= m_pBitmap->m_dwSize) p[3] = dwPixel ? 1 : 0;
      break;
    }
    case 32:
      PutLE32(p, dwPixel);
      break;
  }
}

void CMemoryDC::DrawLine(SHORT nX1, SHORT nY1, SHORT nX2, SHORT nY2, DWORD dwPixel, WORD wStyle) {
  if (!m_pLocked) return;
  const TRect& c = m_rcClip;
  // An empty clip would turn the clipped ends round (left past right): the span between them
  // can lie outside the bitmap, and a clipped end can leave x2 - x1 at 0 for the next division.
  if (RcEmpty(c)) return;
  int x1 = nX1 + m_ptOrigin.x, y1 = nY1 + m_ptOrigin.y, x2 = nX2 + m_ptOrigin.x, y2 = nY2 + m_ptOrigin.y;
  int t;
  if (x1 > x2) {
    t = x1, x1 = x2, x2 = t;
    t = y1, y1 = y2, y2 = t;
  }
  if (x2 < c.left || x1 > c.right) return;
  if (x1 < c.left) {
    y1 += ((c.left - x1) * (y2 - y1)) / (x2 - x1);
    x1 = c.left;
  }
  if (x2 > c.right) {
    y2 += ((c.right - x2) * (y2 - y1)) / (x2 - x1);
    x2 = c.right;
  }
  if (y1 > y2) {
    t = x1, x1 = x2, x2 = t;
    t = y1, y1 = y2, y2 = t;
  }
  if (y2 < c.top || y1 > c.bottom) return;
  if (y1 < c.top) {
    x1 += ((c.top - y1) * (x2 - x1)) / (y2 - y1);
    y1 = c.top;
  }
  if (y2 > c.bottom) {
    x2 += ((c.bottom - y2) * (x2 - x1)) / (y2 - y1);
    y2 = c.bottom;
  }
  const int nBits = m_pBitmap->m_nBitsPerPixel;
  const int nPixel = nBits >> 3;
  const int nPitch = m_pBitmap->m_nPitch;
  const int dx = AbsInt(x2 - x1), dy = AbsInt(y2 - y1);
  int nMajor, nMinor, nMajorStep, nMinorStep;
  if (dy < dx) {
    if (x1 > x2) {
      t = x1, x1 = x2, x2 = t;
      t = y1, y1 = y2, y2 = t;
    }
    nMajor = dx;
    nMinor = dy;
    nMajorStep = nPixel;
    nMinorStep = y1 < y2 ? nPitch : -nPitch;
  } else {
    nMajor = dy;
    nMinor = dx;
    nMajorStep = nPitch;
    nMinorStep = x1 < x2 ? nPixel : -nPixel;
  }
  BYTE* p = m_pBitmap->GetPixelPtr((SHORT)x1, (SHORT)y1);
  if (!p) return;
  // Offsets from the first pixel, so no pointer is formed past the last one drawn.
  ptrdiff_t nOfs = 0;
  int e = 2 * nMinor - nMajor;
  for (int n = nMajor + 1; n > 0; n--) {
    if (wStyle & 0x8000) StorePixel(p + nOfs, nBits, dwPixel);
    wStyle = RotateLeft16(wStyle, 1);
    if (n == 1) break;
    if (e >= 0) {
      nOfs += nMinorStep;
      e -= 2 * nMajor;
    }
    nOfs += nMajorStep;
    e += 2 * nMinor;
  }
}

void CMemoryDC::FillRect(const TRect* prc, DWORD dwPixel) {
  if (!m_pLocked) return;
  TRect rc = *prc;
  RcOffset(&rc, m_ptOrigin.x, m_ptOrigin.y);
  RcIntersect(&rc, m_rcClip);
  if (RcEmpty(rc)) return;
  const int nBits = m_pBitmap->m_nBitsPerPixel, nPixel = nBits >> 3, nWidth = RcWidth(rc);
  BYTE* pRow = m_pBitmap->GetPixelPtr(rc.left, rc.top);
  for (int y = rc.top; y <= rc.bottom; y++, pRow += m_pBitmap->m_nPitch) {
    if (nBits == 8) {
      memset(pRow, (BYTE)dwPixel, (size_t)nWidth);
      continue;
    }
    BYTE* p = pRow;
    for (int x = 0; x < nWidth; x++, p += nPixel) StorePixel(p, nBits, dwPixel);
  }
}

// Clips a copy of w x h pixels between a bitmap at (xBmp, yBmp) and this context at logical
// (x, y): first to the bitmap, then to the clip. FALSE when nothing is left; otherwise the
// device position and the clipped size and bitmap position.
static BOOL ClipCopy(CBitmap* pBitmap, const TRect& rcClip, const TPoint& ptOrigin, int* px, int* py, int* pw,
                     int* ph, int* pxBmp, int* pyBmp) {
  int x = *px, y = *py, w = *pw, h = *ph, xs = *pxBmp, ys = *pyBmp;
  if (xs < 0) {
    w += xs;
    x -= xs;
    xs = 0;
  }
  if (ys < 0) {
    h += ys;
    y -= ys;
    ys = 0;
  }
  if (xs + w > pBitmap->m_nWidth) w = pBitmap->m_nWidth - xs;
  if (ys + h > pBitmap->m_nHeight) h = pBitmap->m_nHeight - ys;
  x += ptOrigin.x;
  y += ptOrigin.y;
  if (x < rcClip.left) {
    w -= rcClip.left - x;
    xs += rcClip.left - x;
    x = rcClip.left;
  }
  if (y < rcClip.top) {
    h -= rcClip.top - y;
    ys += rcClip.top - y;
    y = rcClip.top;
  }
  if (x - 1 + w > rcClip.right) w = rcClip.right - x + 1;
  if (y - 1 + h > rcClip.bottom) h = rcClip.bottom - y + 1;
  *px = x, *py = y, *pw = w, *ph = h, *pxBmp = xs, *pyBmp = ys;
  return w > 0 && h > 0;
}

void CMemoryDC::GrabBitmap(CBitmap* pBitmap, SHORT nX, SHORT nY, SHORT nW, SHORT nH, SHORT nXBmp,
                           SHORT nYBmp) {
  if (!pBitmap || !m_pLocked || pBitmap->m_nBitsPerPixel != m_pBitmap->m_nBitsPerPixel || !pBitmap->m_hBits)
    return;
  int x = nX, y = nY, w = nW, h = nH, xb = nXBmp, yb = nYBmp;
  if (!ClipCopy(pBitmap, m_rcClip, m_ptOrigin, &x, &y, &w, &h, &xb, &yb)) return;
  if (!HANDLE_LOCK(pBitmap->m_hBits)) return;
  const BYTE* pSrc = m_pBitmap->GetPixelPtr((SHORT)x, (SHORT)y);
  BYTE* pDst = pBitmap->GetPixelPtr((SHORT)xb, (SHORT)yb);
  const size_t nBytes = (size_t)w * (size_t)(pBitmap->m_nBitsPerPixel >> 3);
  for (int j = 0; pSrc && pDst && j < h; j++, pSrc += m_pBitmap->m_nPitch, pDst += pBitmap->m_nPitch)
    memmove(pDst, pSrc, nBytes);
  HANDLE_UNLOCK(pBitmap->m_hBits);
}

void CMemoryDC::Blit(CBitmap* pBitmap, SHORT x, SHORT y, SHORT w, SHORT h, SHORT xSrc, SHORT ySrc,
                     DWORD dwTrans, BYTE* pCMap) {
  BlitList(pBitmap, g_pCopyList, x, y, w, h, xSrc, ySrc, dwTrans, pCMap);
}

void CMemoryDC::BlitList(CBitmap* pBitmap, const TCopyEntry* pList, SHORT nX, SHORT nY, SHORT nW, SHORT nH,
                         SHORT nXSrc, SHORT nYSrc, DWORD dwTrans, BYTE* pCMap) {
  ASSERT(pList);
  if (!pList || !pBitmap || !m_pLocked || !pBitmap->m_hBits) return;
  int x = nX, y = nY, w = nW, h = nH, xs = nXSrc, ys = nYSrc;
  if (!ClipCopy(pBitmap, m_rcClip, m_ptOrigin, &x, &y, &w, &h, &xs, &ys)) return;
  if (!HANDLE_LOCK(pBitmap->m_hBits)) return;
  const BYTE* pSrc = pBitmap->GetPixelPtr((SHORT)xs, (SHORT)ys);
  BYTE* pDst = m_pBitmap->GetPixelPtr((SHORT)x, (SHORT)y);
  if (pSrc && pDst) {
    PFN_COPYPIXELS pfnCopy = FindCopyKernel(pList, pBitmap->m_nFormat, m_pBitmap->m_nFormat);
    if (pfnCopy)
      pfnCopy(pSrc, pDst, pBitmap->m_nPitch, m_pBitmap->m_nPitch, (SHORT)w, (SHORT)h, dwTrans, pCMap,
              pBitmap->m_pPalette, m_pBitmap->m_pPalette);
  }
  HANDLE_UNLOCK(pBitmap->m_hBits);
}

void CMemoryDC::TileBitmap(TRect* prc, CBitmap* pBitmap, const TRect* prcSrc, DWORD dwTrans, BYTE* pCMap,
                           SHORT dx, SHORT dy) {
  const int w = RcWidth(*prcSrc), h = RcHeight(*prcSrc);
  if (w <= 0 || h <= 0 || !pBitmap) return;
  TRect rcSrc;
  pBitmap->GetRect(&rcSrc);
  RcIntersect(&rcSrc, *prcSrc);
  ASSERT_TEXT(w == RcWidth(rcSrc) && h == RcHeight(rcSrc), "w == Width(rcSrc) && h == Height(rcSrc)");
  if (w != RcWidth(rcSrc) || h != RcHeight(rcSrc)) return;  // the tile must lie inside the bitmap
  if (!m_pLocked || !pBitmap->m_hBits) return;

  const TRect rcSaved = m_rcClip;
  TRect rcTarget = *prc;
  RcOffset(&rcTarget, m_ptOrigin.x, m_ptOrigin.y);
  const SHORT x0 = (SHORT)(rcTarget.left - AbsInt(dx)), y0 = (SHORT)(rcTarget.top - AbsInt(dy));
  TRect r = m_rcClip;
  RcIntersect(&r, rcTarget);
  const int p = AbsInt((r.left - x0) % w), q = AbsInt((r.top - y0) % h);

  PFN_COPYPIXELS pfnCopy = FindCopyKernel(g_pCopyList, pBitmap->m_nFormat, m_pBitmap->m_nFormat);
  if (!pfnCopy) return;
  int nCols = (RcWidth(r) - 1 + p) / w, nRows = (RcHeight(r) - 1 + q) / h;
  int nFirstCol = 0, nFirstRow = 0;
  if (p == 0 && nCols > 0) nFirstCol = 1, nCols++;
  if (q == 0 && nRows > 0) nFirstRow = 1, nRows++;

  if (!HANDLE_LOCK(pBitmap->m_hBits)) return;
  const BYTE* pSrc = pBitmap->GetPixelPtr(rcSrc.left, rcSrc.top);
  GetClip(prc);
  SetClip(&r);
  r.left = (SHORT)(r.left - p);
  r.top = (SHORT)(r.top - q);
  for (int j = nFirstRow; j <= nRows; j++) {
    const int ty = r.top + (j - nFirstRow) * h;
    const BOOL bEdgeRow = j == 0 || j >= nRows;
    for (int i = nFirstCol; i <= nCols; i++) {
      const int tx = r.left + (i - nFirstCol) * w;
      if (bEdgeRow || i == 0 || i >= nCols) {
        Blit(pBitmap, (SHORT)(tx - m_ptOrigin.x), (SHORT)(ty - m_ptOrigin.y), (SHORT)w, (SHORT)h, rcSrc.left,
             rcSrc.top, dwTrans, pCMap);
      } else {
        BYTE* pDst = m_pBitmap->GetPixelPtr((SHORT)tx, (SHORT)ty);
        if (pSrc && pDst)
          pfnCopy(pSrc, pDst, pBitmap->m_nPitch, m_pBitmap->m_nPitch, (SHORT)w, (SHORT)h, dwTrans, pCMap,
                  pBitmap->m_pPalette, m_pBitmap->m_pPalette);
      }
    }
  }
  m_rcClip = rcSaved;
  HANDLE_UNLOCK(pBitmap->m_hBits);
}
