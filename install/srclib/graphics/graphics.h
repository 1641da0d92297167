// Shared graphics types, the palette with its colour look-up tables, the bitmap, and the cursor
// record that device contexts draw.
#pragma once

#include "base/tools.h"

// ---------------------------------------------------------------------------------------------
// Geometry and colour records.

// A point in the one coordinate space of all windows.
struct TPoint {
  SHORT x;
  SHORT y;
};

// Right and bottom are inclusive: the width is right - left + 1. Empty when right < left or
// bottom < top.
struct TRect {
  SHORT left;
  SHORT top;
  SHORT right;
  SHORT bottom;
};

// One colour, in the byte order of a bitmap file's colour-table entry. In a candidate list of
// the palette's cube, btExtra holds the entry's palette index.
struct TColor {
  BYTE btBlue;
  BYTE btGreen;
  BYTE btRed;
  BYTE btExtra;
};

static_assert(sizeof(TColor) == 4, "TColor is 4 bytes");

// A colour with btExtra 0.
TColor MakeColor(BYTE btRed, BYTE btGreen, BYTE btBlue);

// ---------------------------------------------------------------------------------------------
// Palette.

// Results of the palette operations.
#define ERR_PAL_NOMEM 0x21u     // SetSize could not allocate the colour array
#define ERR_PAL_BADINDEX 0x22u  // GetColor / SetColor index at or past the count

// Bound that the searches start from: larger than any distance between two colours.
#define PAL_SEARCH_BOUND 32000

// Sizes of the derived tables.
#define PAL_INVMAP_SIZE 0x8000u       // one byte per 15-bit colour
#define PAL_CUBE_CELLS 512u           // 8 x 8 x 8 cells of 32 levels a side
#define PAL_CUBE_OFFSETS_SIZE 0x804u  // 513 offsets: cell n's list lies between n and n + 1

// 15-bit key of a colour: 5 bits a channel, red highest. Indexes the inverse map.
// Stores one pixel value at p by its depth in bits (8, 16, 24 or 32), little-endian.
inline void StorePixel(BYTE* p, int nBits, DWORD dwPixel) {
  switch (nBits) {
    case 8:
      p[0] = (BYTE)dwPixel;
      break;
    case 16:
      PutLE16(p, (WORD)dwPixel);
      break;
    case 24:
      PutLE16(p, (WORD)dwPixel);
      p[2] = (BYTE)(dwPixel >> 16);
      break;
    case 32:
      PutLE32(p, dwPixel);
      break;
  }
}

inline DWORD ColorKey15(BYTE btRed, BYTE btGreen, BYTE btBlue) {
  return ((DWORD)(btRed >> 3) << 10) | ((DWORD)(btGreen >> 3) << 5) | (DWORD)(btBlue >> 3);
}

// An ordered list of colours and three tables derived from it on demand: the inverse map
// (15-bit colour -> index), the candidate cube (per 32-level cell, the colours that can be
// nearest to it) and the 16-bit form of every colour. The derived tables are built lazily and
// are not refreshed by SetColor or by writes into the colour array: after changing colours,
// rebuild them (or SetSize to a new count, which drops them).
class CPalette : public CObject {
  DECLARE_CLASS()
 public:
  CPalette();
  // Copies the colours (not the derived tables). On allocation failure the copy is empty of
  // colours but keeps the source's count, with m_hColors 0.
  CPalette(const CPalette& src);
  ~CPalette() override;

  // No change and 0 when the count is the same. Otherwise drops the colours and all derived
  // tables and allocates dwColors entries (contents undefined); ERR_PAL_NOMEM on failure, the
  // count then stays at the new value with m_hColors 0.
  ERR SetSize(DWORD dwColors);

  // ERR_PAL_BADINDEX past the count, ERR_UNKNOWN without a colour array, else 0.
  virtual ERR GetColor(DWORD dwIndex, TColor* pColor);
  // Writes all four bytes; the derived tables are left as they are.
  virtual ERR SetColor(DWORD dwIndex, const TColor* pColor);
  // Nearest colour (largest channel difference) among the indices dwFirst..dwLast inclusive;
  // dwLast is cut to the last colour. *pnDist is the bound on entry and the best distance on
  // exit; *pdwIndex is written only when a colour beat the bound. ERR_BADINDEX when dwFirst is
  // at or past the count, ERR_BADPARAM when the range is empty after the cut.
  virtual ERR FindInRange(const TColor* pColor, DWORD dwFirst, DWORD dwLast, DWORD* pdwIndex, SHORT* pnDist);
  // Nearest colour over the palette; with a cube, nearest among the colour's cell candidates.
  // Always 0; nothing is written when the palette has neither cube nor colours.
  virtual ERR FindColor(const TColor* pColor, DWORD* pdwIndex);
  // Build the derived tables. 0; ERR_UNKNOWN without colours; ERR_ALLOCFAIL when memory ran
  // out (BuildHiColors gives ERR_UNKNOWN for both).
  virtual ERR BuildInvMap();
  virtual ERR BuildCube();
  virtual ERR BuildHiColors();

  DWORD m_hColors;    // handle of m_dwColors TColor entries, or 0
  DWORD m_dwColors;   // number of colours
  DWORD m_hInvMap;    // handle of PAL_INVMAP_SIZE bytes, or 0
  DWORD m_hCube;      // handle of the offsets and candidate lists, or 0
  DWORD m_hHiColors;  // handle of m_dwColors 16-bit colours, or 0
};

// Nearest colour in a list by the largest channel difference. An entry replaces the best when
// all three differences are strictly below *pnDist, which then becomes the largest of them; so
// the first of equally near entries wins and nothing is written when no entry beats the bound.
// *pdwIndex is the position in the list. Asserts "dwColors" for an empty list.
void ScanColors(const TColor* pList, DWORD dwColors, const TColor* pColor, DWORD* pdwIndex, SHORT* pnDist);

// The candidates of the cell with low corner (r, g, b), 24 levels a side: every colour whose
// nearest possible distance to the cell is below the smallest farthest distance of any colour,
// in palette order, with btExtra set to the palette index. Writes to pOut (room for dwColors
// entries) and returns the count. pScratch needs room for dwColors entries as well.
DWORD CellCandidates(TColor* pOut, BYTE btRed, BYTE btGreen, BYTE btBlue, const TColor* pColors,
                     DWORD dwColors, TColor* pScratch);

// Copies dwCount colours from pSrc at dwSrcFirst to pDst at dwDstFirst. No range check: the
// caller keeps both ranges inside the palettes. The derived tables of pDst are not touched.
void CopyColors(CPalette* pSrc, CPalette* pDst, DWORD dwSrcFirst, DWORD dwDstFirst, DWORD dwCount);

// ---------------------------------------------------------------------------------------------
// Bitmap.

// Pixel formats.
#define BF_8BIT 1   // palette index
#define BF_16BIT 3  // 5 bits a channel, blue lowest, top bit 0
#define BF_24BIT 4  // blue, green, red bytes
#define BF_32BIT 5  // blue, green, red and a zero byte; only ever a target

// Row layouts: forward keeps row 0 first in memory, backward keeps it last (as a bottom-up
// bitmap file does). y grows downward in both.
#define BL_FORWARD 1
#define BL_BACKWARD (-1)

// Results of CBitmap::Create.
#define ERR_BMP_BADFORMAT 0x23u  // format code (or a file's bit count) not supported
#define ERR_BMP_NOMEM 0x24u      // pixel block could not be allocated

// Bytes handled by row swaps of SetLayout, reported at shutdown.
extern DWORD g_dwBytesSwapped;

#pragma pack(push, 1)
// The fields are packed with no gaps, so m_pPalette is not aligned: read and pass it by value,
// never bind a reference or take its address.
// The one image type: pixels in a tracked handle, rows padded to 4 bytes, optionally with a
// palette that the bitmap owns. Drawing code reaches pixels through GetPixelPtr while holding a
// lock on m_hBits (a CMemoryDC holds one for its whole life).
class CBitmap : public CObject {
  DECLARE_CLASS()
 public:
  CBitmap();
  // A copy with the same size, format, layout, extra bytes, pixels and a copy of the palette.
  // On failure the copy has no pixels (m_hBits 0).
  CBitmap(const CBitmap& src);
  // Deletes the palette, then frees the pixels.
  ~CBitmap() override;

  // Replaces the image. pPalette is owned from here on, even when the call fails. Pixels are
  // not cleared. ERR_BMP_BADFORMAT for an unknown format, ERR_BMP_NOMEM when the block can't be
  // allocated (also for negative sizes and for rows longer than a 16-bit pitch holds); m_hBits
  // is then 0. dwExtra bytes are added to the block after the last row. An image of no bytes
  // (width or height 0, no extra) succeeds with m_hBits 0.
  virtual ERR Create(SHORT nWidth, SHORT nHeight, SHORT nFormat, CPalette* pPalette, SHORT nBitsLayout,
                     DWORD dwExtra);
  // Changes the memory order of the rows (logical rows keep their content). Always 0.
  virtual ERR SetLayout(SHORT nBitsLayout);
  // Address of pixel (x, y) while m_hBits is locked by the caller, else 0. No range check.
  virtual BYTE* GetPixelPtr(SHORT x, SHORT y);

  // The pixel value zero-extended, or 0xFFFFFFFF (-1) outside the bitmap. Locks by itself.
  DWORD GetPixel(SHORT x, SHORT y);
  // Stores the pixel; ignored outside. The address is taken before the lock, so the write only
  // lands while the caller already holds a lock on m_hBits.
  void SetPixel(SHORT x, SHORT y, DWORD dwPixel);
  // (0, 0, width - 1, height - 1).
  void GetRect(TRect* pRect);

  // Bytes per pixel of the format.
  SHORT BytesPerPixel() { return (SHORT)(m_nBitsPerPixel >> 3); }

  DWORD m_hBits;
  SHORT m_nWidth;
  SHORT m_nHeight;
  SHORT m_nBitsPerPixel;
  SHORT m_nPitch;  // signed: negative for the backward layout
  DWORD m_dwSize;  // |m_nPitch| * m_nHeight + extra bytes
  SHORT m_nFormat;
  CPalette* m_pPalette;
};
#pragma pack(pop)

// Bits per pixel of a format code, or 0 for an unknown code.
SHORT FormatBits(SHORT nFormat);

// ---------------------------------------------------------------------------------------------
// Cursor record: an image, its hot spot and the pixel value that is transparent.

class CCursor : public CObject {
  DECLARE_CLASS()
 public:
  CCursor(CBitmap* pBitmap, const TPoint* pptHotSpot, DWORD dwTrans);
  // With no bitmap, the empty (1, 1, 0, 0); otherwise the bitmap's rectangle moved by pptPos
  // minus the hot spot.
  void GetRect(TRect* pRect, const TPoint* pptPos);

  CBitmap* m_pBitmap;  // not released by the cursor
  TPoint m_ptHotSpot;
  DWORD m_dwTrans;
};

// Loads the bitmap at pchPath and makes a cursor of it with the hot spot (xHotSpot, yHotSpot).
// The transparent value is the bitmap's own pixel at (xTrans, yTrans): the artist marks the
// transparent colour by a sample position. Positions outside the bitmap assert, and the cursor
// is made all the same (a sample outside gives the value 0xFFFFFFFF, which no pixel has). 0 when
// the file can't be loaded or the image is empty, or without memory. The caller deletes the
// cursor and, since the cursor doesn't own it, its m_pBitmap.
CCursor* CreateCursorFromFile(const char* pchPath, SHORT xHotSpot, SHORT yHotSpot, SHORT xTrans,
                              SHORT yTrans);

// The two 1-bit planes of an operating-system cursor of nWidth x nHeight pixels, rows of
// (nWidth + 7) / 8 bytes, the bit of column x being 0x80 >> (x & 7). The AND plane starts all
// ones and the XOR plane all zeros; every 8-bit pixel inside both the bitmap and the size that
// differs from the transparent value clears its AND bit, and sets its XOR bit unless it is 0
// (index 0 shows black, any other opaque index white). Pixels outside the bitmap stay
// transparent, and the bitmap is cut at the size. FALSE, with the planes untouched, for a null
// cursor, no bitmap, one that isn't 8-bit, a size that isn't positive, or planes too small for
// the size (each plane is dwPlaneSize bytes; the whole of both is filled).
BOOL MakeCursorPlanes(const CCursor* pCursor, SHORT nWidth, SHORT nHeight, BYTE* pAnd, BYTE* pXor,
                      DWORD dwPlaneSize);
