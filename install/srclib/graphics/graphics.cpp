// Shared graphics types, the palette with its colour look-up tables, the bitmap, and the cursor
// record that device contexts draw.
#include "graphics/graphics.h"

#include <string.h>

#include "graphics/bmpfile.h"

TColor MakeColor(BYTE btRed, BYTE btGreen, BYTE btBlue) {
  TColor c;
  c.btBlue = btBlue;
  c.btGreen = btGreen;
  c.btRed = btRed;
  c.btExtra = 0;
  return c;
}

// ---------------------------------------------------------------------------------------------
// Colour searches.

static inline int AbsDiff(int a, int b) { return a > b ? a - b : b - a; }

void ScanColors(const TColor* pList, DWORD dwColors, const TColor* pColor, DWORD* pdwIndex, SHORT* pnDist) {
  ASSERT(dwColors);
  int nBound = *pnDist;
  const int r = pColor->btRed, g = pColor->btGreen, b = pColor->btBlue;
  for (DWORD i = 0; i < dwColors; i++) {
    const int dr = AbsDiff(pList[i].btRed, r);
    if (dr >= nBound) continue;
    const int dg = AbsDiff(pList[i].btGreen, g);
    if (dg >= nBound) continue;
    const int db = AbsDiff(pList[i].btBlue, b);
    if (db >= nBound) continue;
    int d = dr > dg ? dr : dg;
    if (db > d) d = db;
    nBound = d;
    *pdwIndex = i;
  }
  *pnDist = (SHORT)nBound;
}

// Nearest and farthest distance of one channel value c to the span corner..corner + 24.
static inline void SpanDistance(int c, int nCorner, int* pnNear, int* pnFar) {
  const int d = c - nCorner;
  if (d < 0) {
    *pnNear = -d;
    *pnFar = 24 - d;
  } else if (d < 13) {
    *pnNear = 0;
    *pnFar = 24 - d;
  } else if (d <= 24) {
    *pnNear = 0;
    *pnFar = d;
  } else {
    *pnNear = d - 24;
    *pnFar = d;
  }
}

DWORD CellCandidates(TColor* pOut, BYTE btRed, BYTE btGreen, BYTE btBlue, const TColor* pColors,
                     DWORD dwColors, TColor* pScratch) {
  // First pass: the near distance of every colour goes into the scratch list, one DWORD
  // per colour; the threshold is the smallest far distance.
  DWORD* pNear = reinterpret_cast<DWORD*>(pScratch);
  int nThreshold = 0x7FFFFFFF;
  for (DWORD i = 0; i < dwColors; i++) {
    int n1, f1, n2, f2, n3, f3;
    SpanDistance(pColors[i].btRed, btRed, &n1, &f1);
    SpanDistance(pColors[i].btGreen, btGreen, &n2, &f2);
    SpanDistance(pColors[i].btBlue, btBlue, &n3, &f3);
    int nNear = n1 > n2 ? n1 : n2;
    if (n3 > nNear) nNear = n3;
    int nFar = f1 > f2 ? f1 : f2;
    if (f3 > nFar) nFar = f3;
    if (nFar < nThreshold) nThreshold = nFar;
    pNear[i] = (DWORD)nNear;
  }
  DWORD n = 0;
  for (DWORD i = 0; i < dwColors; i++) {
    if ((int)pNear[i] < nThreshold) {
      pOut[n] = pColors[i];
      pOut[n].btExtra = (BYTE)i;
      n++;
    }
  }
  return n;
}

// ---------------------------------------------------------------------------------------------
// CPalette

IMPLEMENT_CLASS(CPalette, 0xDAFD347, CObject)

CPalette::CPalette() : m_hColors(0), m_dwColors(0), m_hInvMap(0), m_hCube(0), m_hHiColors(0) {}

CPalette::CPalette(const CPalette& src)
    : CObject(), m_hColors(0), m_dwColors(0), m_hInvMap(0), m_hCube(0), m_hHiColors(0) {
  if (SetSize(src.m_dwColors) != 0 || !m_hColors || !src.m_hColors) return;
  void* pDst = HANDLE_LOCK(m_hColors);
  void* pSrc = HANDLE_LOCK(src.m_hColors);
  if (pDst && pSrc) memcpy(pDst, pSrc, (size_t)m_dwColors * 4);
  if (pSrc) HANDLE_UNLOCK(src.m_hColors);
  if (pDst) HANDLE_UNLOCK(m_hColors);
}

static void FreeHandle(DWORD* ph) {
  if (*ph) HANDLE_FREE(*ph);
  *ph = 0;
}

CPalette::~CPalette() {
  FreeHandle(&m_hColors);
  FreeHandle(&m_hInvMap);
  FreeHandle(&m_hCube);
  FreeHandle(&m_hHiColors);
}

ERR CPalette::SetSize(DWORD dwColors) {
  if (dwColors == m_dwColors) return 0;
  FreeHandle(&m_hColors);
  FreeHandle(&m_hInvMap);
  FreeHandle(&m_hCube);
  FreeHandle(&m_hHiColors);
  m_dwColors = dwColors;
  // A count whose array would not fit in 32 bits can't be allocated either.
  if (dwColors && dwColors <= 0x3FFFFFFFu) m_hColors = HANDLE_ALLOC(dwColors * 4);
  return m_hColors ? 0 : ERR_PAL_NOMEM;
}

ERR CPalette::GetColor(DWORD dwIndex, TColor* pColor) {
  if (dwIndex >= m_dwColors) return ERR_PAL_BADINDEX;
  if (!m_hColors) return ERR_UNKNOWN;
  const TColor* p = static_cast<const TColor*>(HANDLE_LOCK(m_hColors));
  if (!p) return ERR_UNKNOWN;
  *pColor = p[dwIndex];
  HANDLE_UNLOCK(m_hColors);
  return 0;
}

ERR CPalette::SetColor(DWORD dwIndex, const TColor* pColor) {
  if (dwIndex >= m_dwColors) return ERR_PAL_BADINDEX;
  if (!m_hColors) return ERR_UNKNOWN;
  TColor* p = static_cast<TColor*>(HANDLE_LOCK(m_hColors));
  if (!p) return ERR_UNKNOWN;
  p[dwIndex] = *pColor;
  HANDLE_UNLOCK(m_hColors);
  return 0;
}

ERR CPalette::FindInRange(const TColor* pColor, DWORD dwFirst, DWORD dwLast, DWORD* pdwIndex, SHORT* pnDist) {
  if (dwFirst >= m_dwColors) return ERR_BADINDEX;
  if (dwLast >= m_dwColors) dwLast = m_dwColors - 1;
  if (dwLast < dwFirst) return ERR_BADPARAM;
  if (!m_hColors) return 0;
  const TColor* p = static_cast<const TColor*>(HANDLE_LOCK(m_hColors));
  if (!p) return 0;
  DWORD dwFound = 0xFFFFFFFFu;
  ScanColors(p + dwFirst, dwLast - dwFirst + 1, pColor, &dwFound, pnDist);
  if (dwFound != 0xFFFFFFFFu) *pdwIndex = dwFirst + dwFound;
  HANDLE_UNLOCK(m_hColors);
  return 0;
}

// Offset table of a locked cube block.
static inline DWORD CubeOffset(const BYTE* pCube, DWORD dwCell) { return GetLE32(pCube + dwCell * 4); }

ERR CPalette::FindColor(const TColor* pColor, DWORD* pdwIndex) {
  SHORT nDist = PAL_SEARCH_BOUND;
  if (m_hCube) {
    const BYTE* pCube = static_cast<const BYTE*>(HANDLE_LOCK(m_hCube));
    if (!pCube) return 0;
    const DWORD dwCell =
        (DWORD)(pColor->btRed >> 5) * 64 + (DWORD)(pColor->btGreen >> 5) * 8 + (DWORD)(pColor->btBlue >> 5);
    const DWORD dwStart = CubeOffset(pCube, dwCell);
    const DWORD dwCount = (CubeOffset(pCube, dwCell + 1) - dwStart) / 4;
    if (dwCount) {
      const TColor* pList = reinterpret_cast<const TColor*>(pCube + dwStart);
      DWORD dwFound = 0xFFFFFFFFu;
      ScanColors(pList, dwCount, pColor, &dwFound, &nDist);
      if (dwFound != 0xFFFFFFFFu) *pdwIndex = pList[dwFound].btExtra;
    }
    HANDLE_UNLOCK(m_hCube);
    return 0;
  }
  if (!m_hColors || !m_dwColors) return 0;
  const TColor* p = static_cast<const TColor*>(HANDLE_LOCK(m_hColors));
  if (!p) return 0;
  ScanColors(p, m_dwColors, pColor, pdwIndex, &nDist);
  HANDLE_UNLOCK(m_hColors);
  return 0;
}

// Room for lists that the cube's block grows by, and the least room kept before each cell.
#define CUBE_GROW 0x20000u
#define CUBE_MIN_ROOM (256u * 4)

ERR CPalette::BuildCube() {
  FreeHandle(&m_hCube);
  if (!m_hColors) return ERR_UNKNOWN;
  DWORD dwCap = PAL_CUBE_OFFSETS_SIZE + CUBE_GROW;
  DWORD hCube = HANDLE_ALLOC(dwCap);
  TColor* pScratch = static_cast<TColor*>(MEM_ALLOC((DWORD)m_dwColors * 4));
  BYTE* pCube = hCube ? static_cast<BYTE*>(HANDLE_LOCK(hCube)) : 0;
  const TColor* pColors = static_cast<const TColor*>(HANDLE_LOCK(m_hColors));
  BOOL bOk = pCube && pScratch && pColors;
  DWORD dwPos = PAL_CUBE_OFFSETS_SIZE;
  DWORD dwCell = 0;
  for (int r = 0; bOk && r < 256; r += 32) {
    for (int g = 0; bOk && g < 256; g += 32) {
      for (int b = 0; bOk && b < 256; b += 32) {
        // The block stays locked while it is filled, so it grows by copying into a new one.
        // A cell can hold every colour: keep room for the larger of that and the usual margin.
        DWORD dwNeed = m_dwColors * 4 > CUBE_MIN_ROOM ? m_dwColors * 4 : CUBE_MIN_ROOM;
        if (dwCap - dwPos < dwNeed) {
          DWORD dwNewCap = dwCap + (dwNeed > CUBE_GROW ? dwNeed : CUBE_GROW);
          DWORD hNew = HANDLE_ALLOC(dwNewCap);
          BYTE* pNew = hNew ? static_cast<BYTE*>(HANDLE_LOCK(hNew)) : 0;
          if (!pNew) {
            if (hNew) HANDLE_FREE(hNew);
            bOk = FALSE;
            break;
          }
          memcpy(pNew, pCube, dwPos);
          HANDLE_UNLOCK(hCube);
          HANDLE_FREE(hCube);
          hCube = hNew;
          pCube = pNew;
          dwCap = dwNewCap;
        }
        PutLE32(pCube + dwCell * 4, dwPos);
        DWORD n = CellCandidates(reinterpret_cast<TColor*>(pCube + dwPos), (BYTE)r, (BYTE)g, (BYTE)b, pColors,
                                 m_dwColors, pScratch);
        dwPos += n * 4;
        dwCell++;
      }
    }
  }
  if (pColors) HANDLE_UNLOCK(m_hColors);
  if (pScratch) MEM_FREE(pScratch);
  if (bOk) PutLE32(pCube + PAL_CUBE_CELLS * 4, dwPos);
  if (pCube) HANDLE_UNLOCK(hCube);
  if (bOk && !HANDLE_REALLOC(hCube, dwPos)) bOk = FALSE;
  if (!bOk) {
    if (hCube) HANDLE_FREE(hCube);
    return ERR_ALLOCFAIL;
  }
  m_hCube = hCube;
  return 0;
}

// Seed bound at the end of a row and of a plane of samples: the allocator's leading guard byte
// plus one more than the sample step, so that no candidate is pruned there.
#define INVMAP_RESEED (MEM_GUARD_BYTE + 9)

ERR CPalette::BuildInvMap() {
  if (!m_hColors) return ERR_UNKNOWN;
  FreeHandle(&m_hInvMap);
  DWORD hMap = HANDLE_ALLOC(PAL_INVMAP_SIZE);
  if (!hMap) return ERR_ALLOCFAIL;
  TColor* pList = 0;
  TColor* pScratch = 0;
  if (!m_hCube) {
    pList = static_cast<TColor*>(MEM_ALLOC((DWORD)m_dwColors * 4));
    pScratch = static_cast<TColor*>(MEM_ALLOC((DWORD)m_dwColors * 4));
    if (!pList || !pScratch) {
      if (pList) MEM_FREE(pList);
      if (pScratch) MEM_FREE(pScratch);
      HANDLE_FREE(hMap);
      return ERR_ALLOCFAIL;
    }
  }
  BYTE* pMap = static_cast<BYTE*>(HANDLE_LOCK(hMap));
  const TColor* pColors = static_cast<const TColor*>(HANDLE_LOCK(m_hColors));
  const BYTE* pCube = m_hCube ? static_cast<const BYTE*>(HANDLE_LOCK(m_hCube)) : 0;
  BOOL bOk = pMap && pColors && (pCube || !m_hCube);
  DWORD dwIndex = 0;  // carried from scan to scan: a scan that beats nothing repeats it
  for (int r = 0; bOk && r < 256; r += 32) {
    for (int g = 0; g < 256; g += 32) {
      for (int b = 0; b < 256; b += 32) {
        const TColor* pCell;
        DWORD dwCount;
        if (pCube) {
          const DWORD dwCell = (DWORD)(r >> 5) * 64 + (DWORD)(g >> 5) * 8 + (DWORD)(b >> 5);
          const DWORD dwStart = CubeOffset(pCube, dwCell);
          dwCount = (CubeOffset(pCube, dwCell + 1) - dwStart) / 4;
          pCell = reinterpret_cast<const TColor*>(pCube + dwStart);
        } else {
          dwCount = CellCandidates(pList, (BYTE)r, (BYTE)g, (BYTE)b, pColors, m_dwColors, pScratch);
          pCell = pList;
        }
        if (!dwCount) continue;  // only a palette of no colours has empty cells
        SHORT nDist = 0x7FFF;
        for (int sr = r; sr < r + 32; sr += 8) {
          for (int sg = g; sg < g + 32; sg += 8) {
            for (int sb = b; sb < b + 32; sb += 8) {
              TColor c = MakeColor((BYTE)sr, (BYTE)sg, (BYTE)sb);
              ScanColors(pCell, dwCount, &c, &dwIndex, &nDist);
              pMap[ColorKey15((BYTE)sr, (BYTE)sg, (BYTE)sb)] = pCell[dwIndex < dwCount ? dwIndex : 0].btExtra;
              nDist = (SHORT)(nDist + 9);
            }
            nDist = INVMAP_RESEED;
          }
          nDist = INVMAP_RESEED;
        }
      }
    }
  }
  if (pCube) HANDLE_UNLOCK(m_hCube);
  if (pColors) HANDLE_UNLOCK(m_hColors);
  if (pMap) HANDLE_UNLOCK(hMap);
  if (pList) MEM_FREE(pList);
  if (pScratch) MEM_FREE(pScratch);
  if (!bOk) {
    HANDLE_FREE(hMap);
    return ERR_ALLOCFAIL;
  }
  m_hInvMap = hMap;
  return 0;
}

ERR CPalette::BuildHiColors() {
  if (!m_hColors || !m_dwColors) return ERR_UNKNOWN;
  if (!m_hHiColors) m_hHiColors = HANDLE_ALLOC(m_dwColors * 2);
  if (!m_hHiColors) return ERR_UNKNOWN;
  BYTE* pHi = static_cast<BYTE*>(HANDLE_LOCK(m_hHiColors));
  const TColor* pColors = static_cast<const TColor*>(HANDLE_LOCK(m_hColors));
  if (pHi && pColors) {
    for (DWORD i = 0; i < m_dwColors; i++) {
      const TColor& c = pColors[i];
      WORD w = (WORD)(((c.btRed & 0xF8) << 7) | ((c.btGreen & 0xF8) << 2) | (c.btBlue >> 3));
      memcpy(pHi + i * 2, &w, 2);
    }
  }
  if (pColors) HANDLE_UNLOCK(m_hColors);
  if (pHi) HANDLE_UNLOCK(m_hHiColors);
  return pHi && pColors ? 0 : ERR_UNKNOWN;
}

void CopyColors(CPalette* pSrc, CPalette* pDst, DWORD dwSrcFirst, DWORD dwDstFirst, DWORD dwCount) {
  ASSERT(pSrc && pDst && pSrc->m_hColors && pDst->m_hColors);
  if (!(pSrc && pDst && pSrc->m_hColors && pDst->m_hColors)) return;
  BYTE* pS = static_cast<BYTE*>(HANDLE_LOCK(pSrc->m_hColors));
  BYTE* pD = static_cast<BYTE*>(HANDLE_LOCK(pDst->m_hColors));
  if (pS && pD) memmove(pD + (size_t)dwDstFirst * 4, pS + (size_t)dwSrcFirst * 4, (size_t)dwCount * 4);
  if (pD) HANDLE_UNLOCK(pDst->m_hColors);
  if (pS) HANDLE_UNLOCK(pSrc->m_hColors);
}

// ---------------------------------------------------------------------------------------------
// CBitmap

DWORD g_dwBytesSwapped = 0;

IMPLEMENT_CLASS(CBitmap, 0xDBECA82, CObject)

SHORT FormatBits(SHORT nFormat) {
  switch (nFormat) {
    case BF_8BIT:
      return 8;
    case BF_16BIT:
      return 16;
    case BF_24BIT:
      return 24;
    case BF_32BIT:
      return 32;
    default:
      return 0;
  }
}

CBitmap::CBitmap()
    : m_hBits(0),
      m_nWidth(0),
      m_nHeight(0),
      m_nBitsPerPixel(0),
      m_nPitch(0),
      m_dwSize(0),
      m_nFormat(0),
      m_pPalette(0) {}

CBitmap::CBitmap(const CBitmap& src)
    : CObject(),
      m_hBits(0),
      m_nWidth(0),
      m_nHeight(0),
      m_nBitsPerPixel(0),
      m_nPitch(0),
      m_dwSize(0),
      m_nFormat(0),
      m_pPalette(0) {
  CPalette* pPalette = 0;
  if (src.m_pPalette) pPalette = new CPalette(*src.m_pPalette);
  const SHORT nPitch = src.m_nPitch;
  const DWORD dwRows =
      (DWORD)(nPitch < 0 ? -nPitch : nPitch) * (DWORD)(src.m_nHeight > 0 ? src.m_nHeight : 0);
  const DWORD dwExtra = src.m_dwSize >= dwRows ? src.m_dwSize - dwRows : 0;
  if (Create(src.m_nWidth, src.m_nHeight, src.m_nFormat, pPalette, nPitch >= 0 ? BL_FORWARD : BL_BACKWARD,
             dwExtra) != 0)
    return;
  if (!src.m_hBits || !m_hBits) return;
  BYTE* pDst = static_cast<BYTE*>(HANDLE_LOCK(m_hBits));
  const BYTE* pSrc = static_cast<const BYTE*>(HANDLE_LOCK(src.m_hBits));
  if (pDst && pSrc) memcpy(pDst, pSrc, m_dwSize < src.m_dwSize ? m_dwSize : src.m_dwSize);
  if (pSrc) HANDLE_UNLOCK(src.m_hBits);
  if (pDst) HANDLE_UNLOCK(m_hBits);
}

CBitmap::~CBitmap() {
  delete m_pPalette;
  m_pPalette = 0;
  if (m_hBits) HANDLE_FREE(m_hBits);
  m_hBits = 0;
}

ERR CBitmap::Create(SHORT nWidth, SHORT nHeight, SHORT nFormat, CPalette* pPalette, SHORT nBitsLayout,
                    DWORD dwExtra) {
  ASSERT(nBitsLayout == BL_FORWARD || nBitsLayout == BL_BACKWARD);
  if (nBitsLayout != BL_BACKWARD) nBitsLayout = BL_FORWARD;
  if (m_pPalette != pPalette) delete m_pPalette;
  if (m_hBits) HANDLE_FREE(m_hBits);
  m_hBits = 0;
  m_nWidth = nWidth;
  m_nHeight = nHeight;
  m_nFormat = nFormat;
  m_pPalette = pPalette;
  // An unknown format is refused before the depth, pitch and size are worked out: those keep
  // the values of the previous image.
  const SHORT nBits = FormatBits(nFormat);
  if (!nBits) return ERR_BMP_BADFORMAT;
  m_nBitsPerPixel = nBits;
  m_nPitch = 0;
  m_dwSize = 0;
  if (nWidth < 0 || nHeight < 0) return ERR_BMP_NOMEM;
  const DWORD dwPitch = ((DWORD)nWidth * (DWORD)(m_nBitsPerPixel >> 3) + 3) & 0xFFFFFFFCu;
  if (dwPitch > 0x7FFF) return ERR_BMP_NOMEM;  // a row must fit the 16-bit pitch
  const DWORD dwRows = dwPitch * (DWORD)nHeight;
  if (dwExtra > 0xFFFFFFF0u - dwRows) return ERR_BMP_NOMEM;
  m_nPitch = (SHORT)(nBitsLayout * (SHORT)dwPitch);
  m_dwSize = dwRows + dwExtra;
  if (!m_dwSize) return 0;  // an empty image has no pixel block
  m_hBits = HANDLE_ALLOC(m_dwSize);
  return m_hBits ? 0 : ERR_BMP_NOMEM;
}

ERR CBitmap::SetLayout(SHORT nBitsLayout) {
  if ((LONG)m_nPitch * nBitsLayout >= 0 || !m_hBits) return 0;
  BYTE* pBase = static_cast<BYTE*>(HANDLE_LOCK(m_hBits));
  if (!pBase) return 0;
  g_dwBytesSwapped += m_dwSize;
  const DWORD dwPitch = (DWORD)(m_nPitch < 0 ? -m_nPitch : m_nPitch);
  const int nHalf = m_nHeight / 2;
  // Swapping memory rows i and height - 1 - i swaps the same pair of logical rows in either
  // layout; the walk starts at the middle pair and moves outward. Each pair's rows are found
  // from their numbers, so no address before the first row is ever formed.
  BYTE abtTmp[256];
  for (int i = 0; i < nHalf; i++) {
    BYTE* pLow = pBase + (size_t)(nHalf - 1 - i) * dwPitch;
    BYTE* pHigh = pBase + (size_t)(m_nHeight - nHalf + i) * dwPitch;
    for (DWORD dwDone = 0; dwDone < dwPitch;) {
      DWORD n = dwPitch - dwDone < sizeof(abtTmp) ? dwPitch - dwDone : (DWORD)sizeof(abtTmp);
      memcpy(abtTmp, pLow + dwDone, n);
      memcpy(pLow + dwDone, pHigh + dwDone, n);
      memcpy(pHigh + dwDone, abtTmp, n);
      dwDone += n;
    }
  }
  m_nPitch = (SHORT)-m_nPitch;
  HANDLE_UNLOCK(m_hBits);
  return 0;
}

BYTE* CBitmap::GetPixelPtr(SHORT x, SHORT y) {
  if (!m_hBits || HandleGetLockCount(m_hBits) == 0) return 0;
  BYTE* pBase = static_cast<BYTE*>(HandleGetData(m_hBits));
  if (!pBase) return 0;
  pBase += 4;  // the locked data begins with the leading guard
  const LONG lBytes = (LONG)x * (m_nBitsPerPixel >> 3);
  if (m_nPitch > 0) return pBase + (LONG)y * m_nPitch + lBytes;
  return pBase - (LONG)(m_nHeight - 1 - y) * m_nPitch + lBytes;
}

DWORD CBitmap::GetPixel(SHORT x, SHORT y) {
  if (x < 0 || y < 0 || x >= m_nWidth || y >= m_nHeight || !m_hBits) return 0xFFFFFFFFu;
  if (!HANDLE_LOCK(m_hBits)) return 0xFFFFFFFFu;
  const BYTE* p = GetPixelPtr(x, y);
  DWORD dw = 0xFFFFFFFFu;
  switch (m_nBitsPerPixel) {
    case 8:
      dw = p[0];
      break;
    case 16:
      dw = GetLE16(p);
      break;
    case 24:
      dw = (DWORD)p[0] | ((DWORD)p[1] << 8) | ((DWORD)p[2] << 16);
      break;
    case 32:
      dw = GetLE32(p);
      break;
  }
  HANDLE_UNLOCK(m_hBits);
  return dw;
}

void CBitmap::SetPixel(SHORT x, SHORT y, DWORD dwPixel) {
  if (x < 0 || y < 0 || x >= m_nWidth || y >= m_nHeight || !m_hBits) return;
  BYTE* p = GetPixelPtr(x, y);
  if (!HANDLE_LOCK(m_hBits)) return;
  if (p) StorePixel(p, m_nBitsPerPixel, dwPixel);
  HANDLE_UNLOCK(m_hBits);
}

void CBitmap::GetRect(TRect* pRect) {
  pRect->left = 0;
  pRect->top = 0;
  pRect->right = (SHORT)(m_nWidth - 1);
  pRect->bottom = (SHORT)(m_nHeight - 1);
}

// ---------------------------------------------------------------------------------------------
// CCursor

IMPLEMENT_CLASS(CCursor, 0xD376327, CObject)

CCursor::CCursor(CBitmap* pBitmap, const TPoint* pptHotSpot, DWORD dwTrans)
    : m_pBitmap(pBitmap), m_ptHotSpot(*pptHotSpot), m_dwTrans(dwTrans) {}

void CCursor::GetRect(TRect* pRect, const TPoint* pptPos) {
  if (!m_pBitmap) {
    pRect->left = 1;
    pRect->top = 1;
    pRect->right = 0;
    pRect->bottom = 0;
    return;
  }
  m_pBitmap->GetRect(pRect);
  const SHORT dx = (SHORT)(pptPos->x - m_ptHotSpot.x), dy = (SHORT)(pptPos->y - m_ptHotSpot.y);
  pRect->left = (SHORT)(pRect->left + dx);
  pRect->right = (SHORT)(pRect->right + dx);
  pRect->top = (SHORT)(pRect->top + dy);
  pRect->bottom = (SHORT)(pRect->bottom + dy);
}

CCursor* CreateCursorFromFile(const char* pchPath, SHORT xHotSpot, SHORT yHotSpot, SHORT xTrans,
                              SHORT yTrans) {
  CBitmap* pbmp = BmpLoad(pchPath, 0, 0);
  if (!pbmp) return 0;
  if (pbmp->m_nWidth == 0 || pbmp->m_nHeight == 0) {
    delete pbmp;
    return 0;
  }
  ASSERT(xHotSpot < pbmp->m_nWidth);
  ASSERT(yHotSpot < pbmp->m_nHeight);
  ASSERT(xTrans < pbmp->m_nWidth);
  ASSERT(yTrans < pbmp->m_nHeight);
  const TPoint ptHotSpot = {xHotSpot, yHotSpot};
  CCursor* pCursor = new CCursor(pbmp, &ptHotSpot, pbmp->GetPixel(xTrans, yTrans));
  if (!pCursor) delete pbmp;
  return pCursor;
}

BOOL MakeCursorPlanes(const CCursor* pCursor, SHORT nWidth, SHORT nHeight, BYTE* pAnd, BYTE* pXor,
                      DWORD dwPlaneSize) {
  if (!pCursor || !pCursor->m_pBitmap || pCursor->m_pBitmap->m_nBitsPerPixel != 8) return FALSE;
  if (nWidth <= 0 || nHeight <= 0 || !pAnd || !pXor) return FALSE;
  const DWORD dwRow = ((DWORD)nWidth + 7) / 8;
  if (dwRow * (DWORD)nHeight > dwPlaneSize) return FALSE;
  CBitmap* pBitmap = pCursor->m_pBitmap;
  memset(pAnd, 0xFF, dwPlaneSize);
  memset(pXor, 0, dwPlaneSize);
  if (!pBitmap->m_hBits || !HANDLE_LOCK(pBitmap->m_hBits)) return TRUE;
  const int w = nWidth < pBitmap->m_nWidth ? nWidth : pBitmap->m_nWidth;
  const int h = nHeight < pBitmap->m_nHeight ? nHeight : pBitmap->m_nHeight;
  for (int y = 0; y < h; y++) {
    const BYTE* pRow = pBitmap->GetPixelPtr(0, (SHORT)y);
    for (int x = 0; pRow && x < w; x++) {
      const BYTE bt = pRow[x];
      if (bt == pCursor->m_dwTrans) continue;
      const DWORD dwByte = (DWORD)y * dwRow + (DWORD)(x >> 3);
      const BYTE btBit = (BYTE)(0x80 >> (x & 7));
      pAnd[dwByte] &= (BYTE)~btBit;
      if (bt) pXor[dwByte] |= btBit;
    }
  }
  HANDLE_UNLOCK(pBitmap->m_hBits);
  return TRUE;
}
