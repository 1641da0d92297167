// Pixel copy kernels: one small function per pair of source and target pixel formats, the
// default list that device contexts dispatch through, and colour maps between palettes.
#include "graphics/copyxtoy.h"

#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#define COPY_HAVE_SSE2 1
#else
#define COPY_HAVE_SSE2 0
#endif

BOOL g_bCopyPlainLoops = FALSE;

// ---------------------------------------------------------------------------------------------
// Small helpers.

static inline DWORD Load24(const BYTE* p) { return (DWORD)p[0] | ((DWORD)p[1] << 8) | ((DWORD)p[2] << 16); }
static inline WORD Load16(const BYTE* p) {
  WORD w;
  memcpy(&w, p, 2);
  return w;
}
static inline void Store16(BYTE* p, WORD w) { memcpy(p, &w, 2); }
static inline void Store32(BYTE* p, DWORD dw) { memcpy(p, &dw, 4); }
static inline uint64_t Load64(const BYTE* p) {
  uint64_t q;
  memcpy(&q, p, 8);
  return q;
}
static inline void Store64(BYTE* p, uint64_t q) { memcpy(p, &q, 8); }

// 0xFF in every byte of q that is 0, 0x00 elsewhere; exact for every byte value.
static inline uint64_t ZeroByteMask(uint64_t q) {
  const uint64_t k7F = 0x7F7F7F7F7F7F7F7Full;
  uint64_t t = ~(((q & k7F) + k7F) | q | k7F);  // top bit of each byte set iff the byte is 0
  return (t >> 7) * 0xFF;
}

// 15-bit key of a 24-bit pixel held as blue | green << 8 | red << 16.
static inline DWORD Key24(DWORD p) { return ((p >> 9) & 0x7C00) | ((p >> 6) & 0x3E0) | ((p >> 3) & 0x1F); }

// ---------------------------------------------------------------------------------------------
// 8 to 8 row loops.

static void Row8Keyed(const BYTE* s, BYTE* d, int w, BYTE t) {
  int i = 0;
#if COPY_HAVE_SSE2
  if (!g_bCopyPlainLoops) {
    const __m128i pat = _mm_set1_epi8((char)t);
    for (; i + 16 <= w; i += 16) {
      const __m128i sv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
      const __m128i eq = _mm_cmpeq_epi8(sv, pat);
      // No branch on the mask: sprite edges would make it unpredictable. Transparent bytes are
      // written back with what the target already holds.
      const __m128i dv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + i));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i),
                       _mm_or_si128(_mm_and_si128(eq, dv), _mm_andnot_si128(eq, sv)));
    }
  }
#endif
  if (!g_bCopyPlainLoops) {
    const uint64_t pat = 0x0101010101010101ull * t;
    for (; i + 8 <= w; i += 8) {
      const uint64_t sv = Load64(s + i);
      const uint64_t m = ZeroByteMask(sv ^ pat);
      if (m == ~0ull) continue;
      Store64(d + i, (sv & ~m) | (Load64(d + i) & m));
    }
  }
  // Four at a time: a word of four transparent pixels costs one comparison; any other word is
  // written whole, transparent bytes replaced by what the target holds.
  const DWORD pat4 = 0x01010101u * t;
  for (; i + 4 <= w; i += 4) {
    DWORD sv;
    memcpy(&sv, s + i, 4);
    if (sv == pat4) continue;
    for (int k = 0; k < 4; k++)
      if (s[i + k] == t) reinterpret_cast<BYTE*>(&sv)[k] = d[i + k];
    memcpy(d + i, &sv, 4);
  }
  for (; i < w; i++)
    if (s[i] != t) d[i] = s[i];
}

static void Row8Mapped(const BYTE* s, BYTE* d, int w, const BYTE* pMap) {
  int i = 0;
  for (; i + 4 <= w; i += 4) {
    d[i] = pMap[s[i]];
    d[i + 1] = pMap[s[i + 1]];
    d[i + 2] = pMap[s[i + 2]];
    d[i + 3] = pMap[s[i + 3]];
  }
  for (; i < w; i++) d[i] = pMap[s[i]];
}

static void Row8KeyedMapped(const BYTE* s, BYTE* d, int w, BYTE t, const BYTE* pMap) {
  int i = 0;
  if (!g_bCopyPlainLoops) {
    // A chunk at a time: map the source into a buffer in a tight loop, then merge the buffer
    // into the target wherever the unmapped source isn't transparent.
    BYTE abtMapped[256];
    const uint64_t pat = 0x0101010101010101ull * t;
    while (w - i >= 8) {
      const int n = (w - i < 256 ? w - i : 256) & ~7;
      Row8Mapped(s + i, abtMapped, n, pMap);
      int k = 0;
#if COPY_HAVE_SSE2
      const __m128i pat16 = _mm_set1_epi8((char)t);
      for (; k + 16 <= n; k += 16) {
        const __m128i eq =
            _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + k)), pat16);
        const __m128i mv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(abtMapped + k));
        const __m128i dv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + i + k));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + k),
                         _mm_or_si128(_mm_and_si128(eq, dv), _mm_andnot_si128(eq, mv)));
      }
#endif
      for (; k < n; k += 8) {
        const uint64_t m = ZeroByteMask(Load64(s + i + k) ^ pat);
        Store64(d + i + k, (Load64(abtMapped + k) & ~m) | (Load64(d + i + k) & m));
      }
      i += n;
    }
  }
  for (; i < w; i++)
    if (s[i] != t) d[i] = pMap[s[i]];
}

ERR Copy8To8(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
             DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  BYTE abtMap[256];
  if (pCMap == CMAP_FROM_PALETTES) {
    memset(abtMap, 0, sizeof(abtMap));
    MakeColorMap(abtMap, pSrcPalette, pDstPalette, 0, 0xFF);
    pCMap = abtMap;
  }
  const BYTE t = (BYTE)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    if (dwTrans == TRANS_NONE) {
      if (pCMap)
        Row8Mapped(pSrc, pDst, nWidth, pCMap);
      else
        memmove(pDst, pSrc, (size_t)nWidth);
    } else if (pCMap) {
      Row8KeyedMapped(pSrc, pDst, nWidth, t, pCMap);
    } else {
      Row8Keyed(pSrc, pDst, nWidth, t);
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Direct colour to 8 bits, through the target palette's inverse map.

// Builds the inverse map when missing and locks it. 0 with *ppMap set, or the error.
static ERR LockInvMap(CPalette* pPalette, const BYTE** ppMap) {
  if (!pPalette->m_hInvMap) {
    ERR err = pPalette->BuildInvMap();
    if (err) return err;
  }
  *ppMap = static_cast<const BYTE*>(HANDLE_LOCK(pPalette->m_hInvMap));
  return *ppMap ? 0 : ERR_UNKNOWN;
}

ERR Copy16To8(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth < 1 || nHeight < 1 || !pDstPalette) return ERR_UNKNOWN;
  const BYTE* pMap;
  ERR err = LockInvMap(pDstPalette, &pMap);
  if (err) return err;
  const WORD t = (WORD)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    for (int x = 0; x < nWidth; x++) {
      const WORD p = Load16(pSrc + x * 2);
      if (dwTrans != TRANS_NONE && p == t) continue;
      // A pixel with the unused top bit set looks up the colour without it.
      pDst[x] = pMap[p & 0x7FFF];
    }
  }
  HANDLE_UNLOCK(pDstPalette->m_hInvMap);
  return 0;
}

ERR Copy24To8(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth < 1 || nHeight < 1 || !pDstPalette) return ERR_UNKNOWN;
  const BYTE* pMap;
  ERR err = LockInvMap(pDstPalette, &pMap);
  if (err) return err;
  const DWORD t = dwTrans & 0xFFFFFF;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    const BYTE* s = pSrc;
    if (dwTrans == TRANS_NONE) {
      for (int x = 0; x < nWidth; x++, s += 3)
        pDst[x] = pMap[((DWORD)(s[2] >> 3) << 10) | ((DWORD)(s[1] >> 3) << 5) | (DWORD)(s[0] >> 3)];
    } else {
      for (int x = 0; x < nWidth; x++, s += 3) {
        const DWORD p = Load24(s);
        if (p != t) pDst[x] = pMap[Key24(p)];
      }
    }
  }
  HANDLE_UNLOCK(pDstPalette->m_hInvMap);
  return 0;
}

ERR Copy24To8Exact(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth,
                   SHORT nHeight, DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth < 1 || nHeight < 1 || !pDstPalette) return ERR_UNKNOWN;
  const DWORD t = dwTrans & 0xFFFFFF;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    const BYTE* s = pSrc;
    for (int x = 0; x < nWidth; x++, s += 3) {
      if (dwTrans != TRANS_NONE && Load24(s) == t) continue;
      TColor c = MakeColor(s[2], s[1], s[0]);
      DWORD dwIndex = 0;
      pDstPalette->FindColor(&c, &dwIndex);
      pDst[x] = (BYTE)dwIndex;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// 8 bits to direct colour, through tables of the source palette. The tables have 256 entries,
// an index past the palette's count giving 0, so no pixel value reads outside them.

static WORD s_awHiColors[256];    // Copy8To16
static DWORD s_adwColors24[256];  // Copy8To24
static DWORD s_adwColors32[256];  // Copy8To32

ERR Copy8To16(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth < 1 || nHeight < 1 || !pSrcPalette) return ERR_UNKNOWN;
  ASSERT(pCMap != CMAP_FROM_PALETTES);
  if (pCMap == CMAP_FROM_PALETTES) pCMap = 0;
  if (!pSrcPalette->m_hHiColors) pSrcPalette->BuildHiColors();
  if (!pSrcPalette->m_hHiColors) return ERR_UNKNOWN;
  const BYTE* pHi = static_cast<const BYTE*>(HANDLE_LOCK(pSrcPalette->m_hHiColors));
  if (!pHi) return ERR_UNKNOWN;
  const DWORD dwCount = pSrcPalette->m_dwColors;
  for (DWORD i = 0; i < 256; i++) {
    const DWORD j = pCMap ? pCMap[i] : i;
    s_awHiColors[i] = j < dwCount ? Load16(pHi + j * 2) : 0;
  }
  HANDLE_UNLOCK(pSrcPalette->m_hHiColors);
  const BYTE t = (BYTE)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch)
    for (int x = 0; x < nWidth; x++)
      if (dwTrans == TRANS_NONE || pSrc[x] != t) Store16(pDst + x * 2, s_awHiColors[pSrc[x]]);
  return 0;
}

// Fills a 256-entry table of blue | green << 8 | red << 16 from the palette, permuted by pCMap.
// FALSE when the palette has no colours.
static BOOL FillColorTable(DWORD* pTable, CPalette* pPalette, const BYTE* pCMap) {
  if (!pPalette || !pPalette->m_hColors) return FALSE;
  const TColor* pColors = static_cast<const TColor*>(HANDLE_LOCK(pPalette->m_hColors));
  if (!pColors) return FALSE;
  const DWORD dwCount = pPalette->m_dwColors;
  for (DWORD i = 0; i < 256; i++) {
    const DWORD j = pCMap ? pCMap[i] : i;
    pTable[i] = j < dwCount ? (DWORD)pColors[j].btBlue + (DWORD)pColors[j].btGreen * 0x100 +
                                  (DWORD)pColors[j].btRed * 0x10000
                            : 0;
  }
  HANDLE_UNLOCK(pPalette->m_hColors);
  return TRUE;
}

ERR Copy8To24(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  ASSERT(pCMap != CMAP_FROM_PALETTES);
  if (pCMap == CMAP_FROM_PALETTES) pCMap = 0;
  if (!FillColorTable(s_adwColors24, pSrcPalette, pCMap)) return 0;
  const BYTE t = (BYTE)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    BYTE* d = pDst;
    for (int x = 0; x < nWidth; x++, d += 3) {
      if (dwTrans != TRANS_NONE && pSrc[x] == t) continue;
      const DWORD c = s_adwColors24[pSrc[x]];
      d[0] = (BYTE)c;
      d[1] = (BYTE)(c >> 8);
      d[2] = (BYTE)(c >> 16);
    }
  }
  return 0;
}

ERR Copy8To32(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  ASSERT(pCMap != CMAP_FROM_PALETTES);
  if (pCMap == CMAP_FROM_PALETTES) pCMap = 0;
  if (!FillColorTable(s_adwColors32, pSrcPalette, pCMap)) return 0;
  const BYTE t = (BYTE)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch)
    for (int x = 0; x < nWidth; x++)
      if (dwTrans == TRANS_NONE || pSrc[x] != t) Store32(pDst + x * 4, s_adwColors32[pSrc[x]]);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Direct colour to direct colour.

ERR Copy16To16(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  const WORD t = (WORD)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    if (dwTrans == TRANS_NONE) {
      memmove(pDst, pSrc, (size_t)nWidth * 2);
      continue;
    }
    for (int x = 0; x < nWidth; x++) {
      const WORD p = Load16(pSrc + x * 2);
      if (p != t) Store16(pDst + x * 2, p);
    }
  }
  return 0;
}

ERR Copy24To24(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  const DWORD t = dwTrans & 0xFFFFFF;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    if (dwTrans == TRANS_NONE) {
      memmove(pDst, pSrc, (size_t)nWidth * 3);
      continue;
    }
    for (int x = 0; x < nWidth; x++)
      if (Load24(pSrc + x * 3) != t) memcpy(pDst + x * 3, pSrc + x * 3, 3);
  }
  return 0;
}

ERR Copy24To16(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  const DWORD t = dwTrans & 0xFFFFFF;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    for (int x = 0; x < nWidth; x++) {
      const DWORD p = Load24(pSrc + x * 3);
      if (dwTrans != TRANS_NONE && p == t) continue;
      Store16(pDst + x * 2, (WORD)Key24(p));
    }
  }
  return 0;
}

ERR Copy16To24(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  const WORD t = (WORD)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    for (int x = 0; x < nWidth; x++) {
      const WORD p = Load16(pSrc + x * 2);
      if (dwTrans != TRANS_NONE && p == t) continue;
      BYTE* d = pDst + x * 3;
      d[0] = (BYTE)((p & 0x1F) << 3);
      d[1] = (BYTE)((p >> 2) & 0xF8);
      d[2] = (BYTE)((p >> 7) & 0xF8);
    }
  }
  return 0;
}

ERR Copy16To32(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  const WORD t = (WORD)dwTrans;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    for (int x = 0; x < nWidth; x++) {
      const DWORD p = Load16(pSrc + x * 2);
      if (dwTrans != TRANS_NONE && p == t) continue;
      Store32(pDst + x * 4, (p & 0x1F) * 8 + (p & 0x3E0) * 0x40 + (p & 0x7C00) * 0x200);
    }
  }
  return 0;
}

ERR Copy24To32(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette) {
  if (nWidth <= 0 || nHeight <= 0) return 0;
  const DWORD t = dwTrans & 0xFFFFFF;
  for (int y = 0; y < nHeight; y++, pSrc += nSrcPitch, pDst += nDstPitch) {
    for (int x = 0; x < nWidth; x++) {
      const DWORD p = Load24(pSrc + x * 3);
      if (dwTrans != TRANS_NONE && p == t) continue;
      Store32(pDst + x * 4, p);
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// The default list and colour maps.

static const TCopyEntry s_aDefaultCopyList[] = {
    {BF_8BIT, BF_8BIT, Copy8To8},
    {BF_16BIT, BF_8BIT, Copy16To8},
    {BF_24BIT, BF_8BIT, Copy24To8},
    {BF_8BIT, BF_16BIT, Copy8To16},
    {BF_16BIT, BF_16BIT, Copy16To16},
    {BF_24BIT, BF_16BIT, Copy24To16},
    {BF_8BIT, BF_24BIT, Copy8To24},
    {BF_16BIT, BF_24BIT, Copy16To24},
    {BF_24BIT, BF_24BIT, Copy24To24},
    {BF_8BIT, BF_32BIT, Copy8To32},
    {BF_16BIT, BF_32BIT, Copy16To32},
    {BF_24BIT, BF_32BIT, Copy24To32},
    {0, 0, 0},
};

const TCopyEntry* g_pCopyList = s_aDefaultCopyList;

PFN_COPYPIXELS FindCopyKernel(const TCopyEntry* pList, SHORT nSrcFormat, SHORT nDstFormat) {
  if (!pList) return 0;
  for (; pList->wSrcFormat && pList->wDstFormat; pList++)
    if (pList->wSrcFormat == (WORD)nSrcFormat && pList->wDstFormat == (WORD)nDstFormat) return pList->pCopy;
  return 0;
}

void MakeColorMap(BYTE* pCMap, CPalette* pSrc, CPalette* pDest, DWORD dwFirst, DWORD dwLast) {
  ASSERT(pCMap && pSrc && pDest && pSrc->m_hColors && pDest->m_hColors);
  if (!(pCMap && pSrc && pDest && pSrc->m_hColors && pDest->m_hColors)) return;
  const TColor* pColors = static_cast<const TColor*>(HANDLE_LOCK(pSrc->m_hColors));
  if (!pColors) return;
  const DWORD dwCount = pSrc->m_dwColors < 256 ? pSrc->m_dwColors : 256;
  const BOOL bWhole = dwFirst == 0 && dwLast == pSrc->m_dwColors - 1;
  for (DWORD i = 0; i < dwCount; i++) {
    DWORD dwIndex = 0;
    if (bWhole) {
      pDest->FindColor(&pColors[i], &dwIndex);
    } else {
      SHORT nDist = PAL_SEARCH_BOUND;
      pDest->FindInRange(&pColors[i], dwFirst, dwLast, &dwIndex, &nDist);
    }
    pCMap[i] = (BYTE)dwIndex;
  }
  HANDLE_UNLOCK(pSrc->m_hColors);
}
