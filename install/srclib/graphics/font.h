// Bitmap fonts: the per-character measure table, the image font whose glyphs are palette
// indices in one bitmap strip, and a wrapper that adds rows above or below another font.
#pragma once

#include "files/file.h"
#include "graphics/memdc.h"

// Bytes of a TFontHeader in a file and in memory.
#define FONT_HEADER_SIZE 0x232

// Glyph index that marks "no glyph" in the tables a tool builds (any index at or past
// nGlyphs does).
#define FONT_NO_GLYPH 0xFF

#pragma pack(push, 1)
// The measures of a font. The same 562 bytes are the head of an image font file; Load and Save
// read and write them field by field, little-endian, whatever the build.
struct TFontHeader {
  char achReserved[32];  // copied along, never read
  SHORT nHeight;         // glyph height in rows
  WORD wReserved1;
  SHORT nMaxWidth;  // widest glyph; sizes the buffer of the run-length conversion
  BYTE abtReserved2[4];
  SHORT nPadBelow;     // rows a negative offset wrapper added below
  SHORT nPadAbove;     // rows a positive offset wrapper added above
  SHORT nSpacing;      // subtracted from every advance: negative spreads the text, positive packs it
  SHORT nGlyphs;       // glyphs in the image
  BYTE abtWidth[256];  // pixel width (and advance before spacing) of each character code
  BYTE abtIndex[256];  // glyph of each character code; at or past nGlyphs: none
};
#pragma pack(pop)
static_assert(sizeof(TFontHeader) == FONT_HEADER_SIZE, "TFontHeader is 0x232 bytes");

// The 0x232 file bytes of a header, and back.
void FontHeaderFromBytes(TFontHeader* pHeader, const BYTE* pBytes);
void FontHeaderToBytes(const TFontHeader* pHeader, BYTE* pBytes);

// The interface of every font. Characters are single bytes, taken unsigned. A dwLen of
// 0xFFFFFFFF (-1) means "up to the terminating zero". Fonts are not CObjects, yet their memory
// is tracked like theirs: `new` of a font may yield null.
class CFont {
 public:
  // The header starts zeroed.
  CFont();
  virtual ~CFont();

  // Each of these is ERR_NOTIMPL (0xFFFF) here.
  virtual ERR SetImage(CBitmap* pImage, const TFontHeader* pHeader);
  virtual ERR Load(CFile* pFile);
  virtual ERR Save(CFile* pFile);
  // Sum of (width - spacing) over the characters, plus the spacing once; kept in 16 bits. An
  // empty text gives the spacing. Characters without a glyph count. Asserts "pText" and gives 0
  // for a null text.
  virtual SHORT GetTextWidth(const char* pText, DWORD dwLen);
  virtual SHORT GetCharWidth(BYTE c);
  virtual SHORT GetHeight();
  // How many characters from the start fit in nWidth pixels: nWidth less (width - spacing) per
  // character, stopping before the first that makes it negative. Asserts "pText" (0 for null).
  virtual DWORD CharsThatFit(SHORT nWidth, const char* pText, DWORD dwLen);
  // Draws the text with its cell's top-left corner at (x, y); pCMap maps glyph indices to
  // target pixels (0: none). Nothing here.
  virtual void DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap);
  // Glyph index i + 1 shows pColors[i] (pPixels[i]). Nothing here.
  virtual void DrawTextColors(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen,
                              const TColor* pColors, DWORD dwCount);
  virtual void DrawTextPixels(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen,
                              const DWORD* pPixels, DWORD dwCount);

  static void* operator new(size_t nSize) noexcept;
  static void operator delete(void* p);

  TFontHeader m_Header;

 protected:
  // The length dwLen stands for.
  static DWORD TextLength(const char* pText, DWORD dwLen);

 private:
  CFont(const CFont&) = delete;
  CFont& operator=(const CFont&) = delete;
};

// A font whose glyphs lie one under another in an image: glyph n takes rows n * nHeight to
// (n + 1) * nHeight - 1 from column 0, as wide as the character drawn. Pixel 0 is transparent.
class CImageFont : public CFont {
 public:
  CImageFont();
  // Deletes the image.
  ~CImageFont() override;

  // Deletes the old image (unless it is pImage), keeps pImage (owned from here on) and copies
  // the header when one is given. 0.
  ERR SetImage(CBitmap* pImage, const TFontHeader* pHeader) override;
  // Reads a header and then a bitmap from the current position. The read's error, else 1 when
  // no image could be read, else 0. The old image is gone in every case.
  ERR Load(CFile* pFile) override;
  // Writes the header and the image bottom-up (the image in memory becomes backward too).
  // (ERR)-1 without an image, else the write's result.
  ERR Save(CFile* pFile) override;
  // Asserts "pText && m_pFontImage". Characters without a glyph are skipped and don't move x.
  void DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) override;
  // At most 256 colours, turned into the target's pixels, then DrawTextPixels.
  void DrawTextColors(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, const TColor* pColors,
                      DWORD dwCount) override;
  // On an 8-bit target the pixels become a colour map (entries 1 to 255). On other targets
  // they are written into the image's palette (grown as needed, and made when missing) and stay
  // there after the call. Nothing without a target bitmap or pixels.
  void DrawTextPixels(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, const DWORD* pPixels,
                      DWORD dwCount) override;

  CBitmap* m_pFontImage;  // owned

 private:
  void DrawGlyphs(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap);
};

// A font that wraps another and adds |nShift| rows: above it for a positive shift (the text
// moves down), below it for a negative one. Its header is a copy of the wrapped font's, taller
// by |nShift|; it goes stale if the wrapped font changes behind its back.
class COffsetFont : public CFont {
 public:
  // pFont is not owned. Asserts "pFont".
  COffsetFont(CFont* pFont, SHORT nShift);

  // SetImage and Load forward and then copy the header again (Load only on success).
  ERR SetImage(CBitmap* pImage, const TFontHeader* pHeader) override;
  ERR Load(CFile* pFile) override;
  ERR Save(CFile* pFile) override;
  SHORT GetTextWidth(const char* pText, DWORD dwLen) override;
  SHORT GetCharWidth(BYTE c) override;
  // The wrapped font's height plus |shift|.
  SHORT GetHeight() override;
  DWORD CharsThatFit(SHORT nWidth, const char* pText, DWORD dwLen) override;
  // Forwards with y moved down by a positive shift. The colour forms stay those of CFont.
  void DrawText(CDC* pDC, SHORT x, SHORT y, const char* pText, DWORD dwLen, BYTE* pCMap) override;

  CFont* pFont;  // not owned
  SHORT m_nShift;

 private:
  void RefreshHeader();
};

// Opens pchPath for reading through the volume table and loads an image font from it. The font
// (the caller deletes it), or 0 for any failure.
CImageFont* CreateFontFromFile(const char* pchPath);
