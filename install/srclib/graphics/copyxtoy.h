// Pixel copy kernels: one small function per pair of source and target pixel formats, the
// default list that device contexts dispatch through, and colour maps between palettes.
#pragma once

#include "graphics/graphics.h"

// dwTrans value that makes every pixel opaque.
#define TRANS_NONE 0xFFFFFFFFu
// pCMap value that asks Copy8To8 to compute the map from the two palettes. The other kernels
// do not accept it.
#define CMAP_FROM_PALETTES ((BYTE*)(DWORD_PTR)-1)

// A kernel copies an nWidth x nHeight rectangle, already clipped. pSrc and pDst address its
// first pixel in each bitmap; the pitches are the signed row steps. dwTrans is the source
// pixel value that is not copied (compared on the source's 8, 16 or 24 low bits before any
// conversion), or TRANS_NONE. pCMap, for 8-bit sources, is an optional 256-byte table applied
// to the source index first. Returns 0, ERR_UNKNOWN when a needed palette or table is missing,
// or the error of building one.
typedef ERR (*PFN_COPYPIXELS)(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth,
                              SHORT nHeight, DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette,
                              CPalette* pDstPalette);

// One row of a copy list; a list ends at the first row with either format 0.
struct TCopyEntry {
  WORD wSrcFormat;
  WORD wDstFormat;
  PFN_COPYPIXELS pCopy;
};

// The default list: every pair of an 8-, 16- or 24-bit source with an 8-, 16-, 24- or 32-bit
// target. Blit always uses it; BlitList takes any list.
extern const TCopyEntry* g_pCopyList;

// The kernel of the first row of pList matching the two formats, or 0.
PFN_COPYPIXELS FindCopyKernel(const TCopyEntry* pList, SHORT nSrcFormat, SHORT nDstFormat);

// Set by tests to run the plain row loops instead of the vector ones; the outcome is the same.
extern BOOL g_bCopyPlainLoops;

ERR Copy8To8(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
             DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy16To8(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy24To8(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy8To16(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy16To16(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy24To16(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy8To24(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy16To24(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy24To24(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy8To32(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
              DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy16To32(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
ERR Copy24To32(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth, SHORT nHeight,
               DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);
// Not in the default list: the exact nearest colour (FindColor) per pixel instead of the
// inverse map. For callers that pass their own list.
ERR Copy24To8Exact(const BYTE* pSrc, BYTE* pDst, SHORT nSrcPitch, SHORT nDstPitch, SHORT nWidth,
                   SHORT nHeight, DWORD dwTrans, BYTE* pCMap, CPalette* pSrcPalette, CPalette* pDstPalette);

// Fills pCMap[i] with the index of pDest's colour nearest to pSrc's colour i, for the first
// min(256, source count) colours; the rest of pCMap is left as it was. With dwFirst 0 and
// dwLast the source's last index it uses pDest->FindColor (and so a cube if pDest has one),
// otherwise pDest->FindInRange(dwFirst, dwLast).
void MakeColorMap(BYTE* pCMap, CPalette* pSrc, CPalette* pDest, DWORD dwFirst, DWORD dwLast);
