// Run-length single-colour fonts: glyphs reduced to set and unset pixels, drawn straight into
// the target's pixels in one colour at any depth, and the conversion from image fonts.
#pragma once

#include "graphics/font.h"

// The first four bytes of a run-length font file ("SFNT" as a little-endian dword).
#define SFONT_MAGIC 0x544E4653u

// Offset of the run data in the file: magic, header, 256 offsets and the size.
#define SFONT_DATA_OFFSET 0x43A

// Largest offset a glyph's run data can start at (the offsets are signed 16-bit).
#define SFONT_MAX_OFFSET 0x7FFF

// Run data, per glyph: nHeight row records, each a count byte n and n run bytes. A run byte
// skips its high nibble of pixels and sets its low nibble of pixels after them; the runs of a
// row cover the character's width. Character c's glyph starts at m_anOffsets[c].
class CSFont : public CFont {
 public:
  // No data; the colour starts at 0.
  CSFont();
  // Frees the run data.
  ~CSFont() override;

  // Reads a whole file from the current position. ERR_FILE_BADFORMAT (0x30000009) when it
  // doesn't start with the magic (the old data is then kept); ERR_ALLOCFAIL when the run data
  // can't be allocated, a size field of 0 included (the allocator asserts "dwSize" for it); the
  // read's error otherwise (ERR_FILE_EOF when the file holds less run data than its size field
  // says). The old data is freed once the magic matched. The header, the offsets and the size
  // are read over their fields one after the other, so a failure keeps what was read before it
  // (the size included, when its data is missing or can't be allocated).
  ERR Load(CFile* pFile) override;
  // (ERR)-1 without data, else the first failed write's error or 0.
  ERR Save(CFile* pFile) override;
  // pCMap, when given, sets the colour to pCMap[1] (what glyph index 1 maps to); then draws.
  // Asserts "pText && m_pImageData".
  void DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) override;
  // The colour becomes the target pixel of pColors[0]; dwCount is not used.
  void DrawTextColors(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, const TColor* pColors,
                      DWORD dwCount) override;
  // The colour becomes pPixels[0].
  void DrawTextPixels(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, const DWORD* pPixels,
                      DWORD dwCount) override;
  // Frees the old run data and keeps pImageData (a MEM_ALLOC block, owned from here on); copies
  // the header when one is given. The data's size is not known here: m_dwImageSize becomes 0
  // and the caller sets it (and the offsets) before drawing; drawing never reads past it. 0.
  virtual ERR SetData(void* pImageData, const TFontHeader* pHeader);

  void SetPixelColor(DWORD dwPixel) { m_dwColor = dwPixel; }
  DWORD GetPixelColor() { return m_dwColor; }

  BYTE* m_pImageData;      // run data, owned (tracked pointer)
  SHORT m_anOffsets[256];  // where each character's glyph starts in the run data
  DWORD m_dwImageSize;     // bytes of run data
  DWORD m_dwColor;         // the pixel value written for every set pixel, in the target's format

 private:
  void DrawRuns(const BYTE* pRuns, DWORD dwAvail, BYTE* pBase, LONG lPitch, int nBytes, int x, int y, int w,
                int h, const TRect& rcClip);
};

// Converts an 8-bit image font: every non-zero glyph pixel becomes a set pixel. 1 on success;
// 0 when either font is missing, the source has no 8-bit image, or memory ran out. A glyph
// whose data would start past SFONT_MAX_OFFSET gets the offset -1 and draws nothing. A font
// whose header plans no bytes (height or widest glyph 0) and that has no rows to encode still
// gives 1, without run data, after the allocator's assertion "dwSize".
DWORD ConvertToSFont(CImageFont* pSrc, CSFont* pDst);
// Loads the image font at pchFontPath, converts it and writes the result to pchSFontPath
// (created through the volume table). 1, or 0 when the load, the conversion or the open fails.
DWORD ConvertFontFile(const char* pchFontPath, const char* pchSFontPath);
