// Device contexts: the drawing interface with clipping and an origin, and its software
// implementation that draws into a bitmap.
#pragma once

#include "graphics/copyxtoy.h"
#include "graphics/graphics.h"

// Solid line style; any other 16-bit mask draws the pixels whose bit is set, rotating per pixel.
#define LS_SOLID 0xFFFF

// The drawing interface. Coordinates given to drawing operations are logical: the origin is
// added to make device coordinates. m_rcClip and m_rcBounds are in device coordinates, the
// clip always inside the bounds. The base class stores geometry and implements the composite
// operations (frames, tiling, sliced images) through the primitive ones, which are stubs here.
class CDC : public CObject {
  DECLARE_CLASS()
 public:
  // Origin (0, 0); clip and bounds (0, 0, 0, 0).
  CDC();
  ~CDC() override;

  virtual void GetOrigin(TPoint* ppt);
  // Adds dx, dy to the origin.
  virtual void MoveOrigin(SHORT dx, SHORT dy);
  // The clip in logical coordinates (the clip less the origin).
  virtual void GetClip(TRect* prc);
  // The clip becomes *prc plus the origin, intersected with the bounds: it never grows past them.
  virtual void SetClip(const TRect* prc);
  // The bounds, in device coordinates.
  virtual void GetBounds(TRect* prc);
  // Both store the empty rectangle (1, 1, 0, 0).
  virtual void GetExtraRect1(TRect* prc);
  virtual void GetExtraRect2(TRect* prc);
  // Conversions between colours and the pixel values of the target's format.
  virtual void ColorToPixel(const TColor* pColor, DWORD* pdwPixel);
  virtual void PixelToColor(const DWORD* pdwPixel, TColor* pColor);
  // The pixel value, or 0xFFFFFFFF (-1) outside the clip. 0 on the base class.
  virtual DWORD GetPixel(SHORT x, SHORT y);
  virtual void SetPixel(SHORT x, SHORT y, DWORD dwPixel);
  // A line from (x1, y1) to (x2, y2), both ends included, clipped, with a 16-bit style mask.
  virtual void DrawLine(SHORT x1, SHORT y1, SHORT x2, SHORT y2, DWORD dwPixel, WORD wStyle);
  virtual void FillRect(const TRect* prc, DWORD dwPixel);
  // Copies w x h pixels at (x, y) of this context into pBitmap at (xBmp, yBmp); only between
  // equal depths.
  virtual void GrabBitmap(CBitmap* pBitmap, SHORT x, SHORT y, SHORT w, SHORT h, SHORT xBmp, SHORT yBmp);
  // Draws w x h pixels of pBitmap from (xSrc, ySrc) at (x, y) through the default copy list.
  // w and h larger than the image (such as 32000) mean all of it. dwTrans: TRANS_NONE or the
  // transparent source pixel value; pCMap: 0, a 256-byte colour map, or CMAP_FROM_PALETTES.
  virtual void Blit(CBitmap* pBitmap, SHORT x, SHORT y, SHORT w, SHORT h, SHORT xSrc, SHORT ySrc,
                    DWORD dwTrans, BYTE* pCMap);
  virtual void Reserved1(DWORD_PTR a, DWORD_PTR b);
  // Blit through any copy list; a format pair missing from the list draws nothing.
  virtual void BlitList(CBitmap* pBitmap, const TCopyEntry* pList, SHORT x, SHORT y, SHORT w, SHORT h,
                        SHORT xSrc, SHORT ySrc, DWORD dwTrans, BYTE* pCMap);
  virtual void Reserved2(DWORD_PTR a, DWORD_PTR b, DWORD_PTR c, DWORD_PTR d);
  virtual void Reserved3(DWORD_PTR a);
  // The bitmap drawn on, or 0.
  virtual CBitmap* GetBitmap();
  // A rectangle's outline with a line style; the pattern runs on round the corners.
  virtual void FrameRect(const TRect* prc, DWORD dwPixel, WORD wStyle);
  // Solid outline: top and left in dwTopLeft, right and bottom in dwBottomRight.
  virtual void Frame3D(const TRect* prc, DWORD dwTopLeft, DWORD dwBottomRight);
  // Draws the cursor's image with its hot spot at *ppt, its transparent value respected.
  virtual void DrawCursor(const CCursor* pCursor, const TPoint* ppt);
  // Fills *prc with copies of the prcSrc part of pBitmap, the pattern's phase given by dx, dy
  // (the tile grid starts at prc's corner moved by -|dx|, -|dy|). The memory context's fast
  // path overwrites *prc with the logical clip it found.
  virtual void TileBitmap(TRect* prc, CBitmap* pBitmap, const TRect* prcSrc, DWORD dwTrans, BYTE* pCMap,
                          SHORT dx, SHORT dy);
  // Stretches a 3 x 3 sliced image over *prc: corners drawn once, edges and centre tiled.
  // Columns are wLeft, wMid and the rest of prcSrc's width; rows hTop, hMid and the rest.
  virtual void DrawSliced(const TRect* prc, CBitmap* pBitmap, const TRect* prcSrc, SHORT wLeft, SHORT wMid,
                          SHORT hTop, SHORT hMid, DWORD dwTrans, BYTE* pCMap);

  TRect m_rcClip;    // device coordinates
  TRect m_rcBounds;  // device coordinates
  TPoint m_ptOrigin;
};

// A device context that draws into a bitmap. It locks the bitmap's pixels from construction
// to destruction, so the bitmap must outlive it; it does not own the bitmap.
class CMemoryDC : public CDC {
  DECLARE_CLASS()
 public:
  // Bounds and clip are the bitmap's rectangle, origin (0, 0).
  explicit CMemoryDC(CBitmap* pBitmap);
  // Releases the lock on the bitmap.
  ~CMemoryDC() override;

  void ColorToPixel(const TColor* pColor, DWORD* pdwPixel) override;
  void PixelToColor(const DWORD* pdwPixel, TColor* pColor) override;
  DWORD GetPixel(SHORT x, SHORT y) override;
  // Stores 1, 2 or 4 bytes by depth. On a 24-bit target it writes one 32-bit word: three zero
  // colour bytes and a fourth byte (the next pixel's first byte) of 1 when dwPixel is non-zero,
  // else 0; that fourth byte is left alone where it would lie past the pixel block.
  void SetPixel(SHORT x, SHORT y, DWORD dwPixel) override;
  void DrawLine(SHORT x1, SHORT y1, SHORT x2, SHORT y2, DWORD dwPixel, WORD wStyle) override;
  void FillRect(const TRect* prc, DWORD dwPixel) override;
  void GrabBitmap(CBitmap* pBitmap, SHORT x, SHORT y, SHORT w, SHORT h, SHORT xBmp, SHORT yBmp) override;
  void Blit(CBitmap* pBitmap, SHORT x, SHORT y, SHORT w, SHORT h, SHORT xSrc, SHORT ySrc, DWORD dwTrans,
            BYTE* pCMap) override;
  void BlitList(CBitmap* pBitmap, const TCopyEntry* pList, SHORT x, SHORT y, SHORT w, SHORT h, SHORT xSrc,
                SHORT ySrc, DWORD dwTrans, BYTE* pCMap) override;
  CBitmap* GetBitmap() override;
  // Whole tiles go straight to the kernel; only tiles on the edge of the area are clipped. The
  // tile must lie wholly inside pBitmap (asserted). The clip used is the area plus the origin a
  // second time, so with a non-zero origin the tiles are clipped against a shifted rectangle.
  void TileBitmap(TRect* prc, CBitmap* pBitmap, const TRect* prcSrc, DWORD dwTrans, BYTE* pCMap, SHORT dx,
                  SHORT dy) override;

  CBitmap* m_pBitmap;  // not owned

 private:
  BYTE* m_pLocked;  // the bitmap's pixels while locked, or 0
};
