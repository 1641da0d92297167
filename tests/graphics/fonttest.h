// Helpers shared by the font tests: small fonts described as text pictures, an independent model
// of how text lands on a canvas, and the pixels of a bitmap as plain values.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "gfxtest.h"
#include "graphics/font.h"
#include "graphics/memdc.h"

// A font as the tests describe it. A glyph is `height` rows of text: '.' is index 0, '1' to '9'
// and 'a' to 'f' are indices 1 to 15. Characters not given have width 0 and no glyph.
struct TestFont {
  int height = 0;
  int spacing = 0;
  std::vector<std::vector<std::string>> glyphs;
  int width[256] = {};
  int index[256];
  TestFont() {
    for (int& i : index) i = 0xFF;
  }
  void Set(unsigned char c, int w, int g) {
    width[c] = w;
    index[c] = g;
  }
  int Glyphs() const { return (int)glyphs.size(); }
  // The glyph pixel at (col, row), 0 outside its picture.
  int Pixel(int g, int col, int row) const {
    if (g < 0 || g >= Glyphs() || row < 0 || row >= height) return 0;
    const std::string& s = glyphs[g][row];
    if (col < 0 || col >= (int)s.size()) return 0;
    const char ch = s[col];
    if (ch >= '1' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    return 0;
  }
  int MaxWidth() const {
    int m = 0;
    for (int w : width) m = std::max(m, w);
    return m;
  }
};

inline TFontHeader HeaderOf(const TestFont& f) {
  TFontHeader h;
  memset(&h, 0, sizeof(h));
  h.nHeight = (SHORT)f.height;
  h.nMaxWidth = (SHORT)f.MaxWidth();
  h.nSpacing = (SHORT)f.spacing;
  h.nGlyphs = (SHORT)f.Glyphs();
  for (int c = 0; c < 256; c++) {
    h.abtWidth[c] = (BYTE)f.width[c];
    h.abtIndex[c] = (BYTE)f.index[c];
  }
  return h;
}

// A 16-colour palette: index i is (i * 16, 255 - i * 16, i * 5).
inline CPalette* RampPalette() {
  std::vector<Rgb> v;
  for (int i = 0; i < 16; i++) v.push_back(Rgb{i * 16, 255 - i * 16, i * 5});
  return MakePalette(v);
}

// The glyph strip of a font: glyph n at rows n * height, as wide as the widest picture row.
inline CBitmap* StripOf(const TestFont& f, SHORT nLayout = BL_FORWARD) {
  int w = 1;
  for (auto& g : f.glyphs)
    for (auto& r : g) w = std::max(w, (int)r.size());
  CBitmap* b = MakeBitmap(w, std::max(1, f.Glyphs() * f.height), BF_8BIT, nLayout, 0, RampPalette());
  std::vector<BYTE> block = ReadBlock(*b);
  for (int g = 0; g < f.Glyphs(); g++)
    for (int row = 0; row < f.height; row++)
      for (int col = 0; col < w; col++)
        block[PixelOffset(*b, col, g * f.height + row)] = (BYTE)f.Pixel(g, col, row);
  WriteBlock(*b, block);
  return b;
}

inline CImageFont* MakeImageFont(const TestFont& f) {
  CImageFont* p = new CImageFont();
  TFontHeader h = HeaderOf(f);
  EXPECT_EQ(0u, p->SetImage(StripOf(f), &h));
  return p;
}

// A canvas of pixel values with the clip of the drawing (inclusive edges).
struct Canvas {
  int w, h;
  std::vector<DWORD> px;
  TRect clip;
  Canvas(int w_, int h_, DWORD fill) : w(w_), h(h_), px((size_t)w_ * h_, fill) {
    clip = TRect{0, 0, (SHORT)(w_ - 1), (SHORT)(h_ - 1)};
  }
  void Put(int x, int y, DWORD v) {
    if (x >= clip.left && x <= clip.right && y >= clip.top && y <= clip.bottom && x >= 0 && y >= 0 && x < w &&
        y < h)
      px[(size_t)y * w + x] = v;
  }
  DWORD At(int x, int y) const { return px[(size_t)y * w + x]; }
};

// How an image font puts text on a canvas: each character with a glyph is drawn (its opaque
// pixels, mapped by `map`) and moves x by width - spacing; one without a glyph is skipped.
inline void ModelText(Canvas* cv, const TestFont& f, const std::string& text, int x, int y,
                      const std::function<DWORD(int)>& map) {
  for (unsigned char c : text) {
    const int g = f.index[c];
    if (g >= f.Glyphs()) continue;
    for (int row = 0; row < f.height; row++)
      for (int col = 0; col < f.width[c]; col++) {
        const int v = f.Pixel(g, col, row);
        if (v) cv->Put(x + col, y + row, map(v));
      }
    x += f.width[c] - f.spacing;
  }
}

// The pixel values of a bitmap, row by row, read straight from its block.
inline std::vector<DWORD> PixelsOf(const CBitmap& b) {
  std::vector<BYTE> block = ReadBlock(b);
  const int bpp = b.m_nBitsPerPixel / 8;
  std::vector<DWORD> v;
  for (int y = 0; y < b.m_nHeight; y++)
    for (int x = 0; x < b.m_nWidth; x++) {
      const size_t o = PixelOffset(b, x, y);
      DWORD d = 0;
      for (int k = 0; k < bpp; k++) d |= (DWORD)block[o + k] << (8 * k);
      v.push_back(d);
    }
  return v;
}

// A bitmap of the given format whose every pixel is `fill` (8-bit targets get the ramp palette).
inline CBitmap* FilledTarget(int w, int h, SHORT fmt, DWORD fill, SHORT nLayout = BL_FORWARD) {
  CBitmap* b = MakeBitmap(w, h, fmt, nLayout, 0, fmt == BF_8BIT ? RampPalette() : nullptr);
  std::vector<BYTE> block = ReadBlock(*b);
  const int bpp = b->m_nBitsPerPixel / 8;
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      for (int k = 0; k < bpp; k++) block[PixelOffset(*b, x, y) + k] = (BYTE)(fill >> (8 * k));
  WriteBlock(*b, block);
  return b;
}

// The pixels of a w x h target of format fmt filled with fill, after draw ran on a device
// context over it.
inline std::vector<DWORD> DrawnPixels(int w, int h, SHORT fmt, DWORD fill,
                                      const std::function<void(CDC*)>& draw) {
  CBitmap* target = FilledTarget(w, h, fmt, fill);
  {
    CMemoryDC dc(target);
    draw(&dc);
  }
  std::vector<DWORD> v = PixelsOf(*target);
  delete target;
  return v;
}

// What ModelText puts on a w x h canvas of fill.
inline std::vector<DWORD> ModelPixels(const TestFont& f, int w, int h, DWORD fill, const std::string& text,
                                      int x, int y, const std::function<DWORD(int)>& map) {
  Canvas cv(w, h, fill);
  ModelText(&cv, f, text, x, y, map);
  return cv.px;
}

// Pictures as text for failure messages: one line per row, values in hex.
inline std::string Picture(const std::vector<DWORD>& px, int w) {
  std::string s;
  char buf[16];
  for (size_t i = 0; i < px.size(); i++) {
    snprintf(buf, sizeof(buf), "%X", (unsigned)px[i]);
    s += buf;
    s += (i + 1) % (size_t)w == 0 ? "\n" : " ";
  }
  return s;
}

// The expression of an assertion text as the catcher records it ("Assert failed file(line):
// expr" and a line end).
inline std::string AssertExpr(const std::string& text) {
  const size_t at = text.find("): ");
  std::string s = at == std::string::npos ? text : text.substr(at + 3);
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}
