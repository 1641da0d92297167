// Run-length fonts: the run encoding, drawing on every depth with the clip (and the one-row
// glyphs of the 8-bit careful path), the colour forms, the file form, conversion from image
// fonts, and damaged run data.
#include <filesystem>
#include <random>

#include "files/memfile.h"
#include "files/stdfile.h"
#include "fonttest.h"
#include "graphics/sfont.h"
#include "testutil.h"

namespace {

class SFontEncode : public MemBalance {};
class SFontDraw : public MemBalance {};
class SFontFile : public MemBalance {};
class SFontDamaged : public MemBalance {};

CSFont* Convert(const TestFont& f) {
  CImageFont* src = MakeImageFont(f);
  CSFont* p = new CSFont();
  EXPECT_EQ(1u, ConvertToSFont(src, p));
  delete src;
  return p;
}

std::vector<BYTE> RunData(const CSFont& p) {
  return std::vector<BYTE>(p.m_pImageData, p.m_pImageData + p.m_dwImageSize);
}

// Decodes one glyph from the run data the way the format describes it, independently of the
// drawing code: nHeight records of a count and that many run bytes.
std::vector<std::string> Decode(const CSFont& p, int c, int w, bool* pOk) {
  std::vector<std::string> rows;
  size_t pos = (size_t)p.m_anOffsets[c];
  *pOk = true;
  for (int r = 0; r < p.m_Header.nHeight; r++) {
    if (pos >= p.m_dwImageSize) {
      *pOk = false;
      return rows;
    }
    const int n = p.m_pImageData[pos++];
    std::string row;
    for (int k = 0; k < n; k++) {
      const BYTE b = p.m_pImageData[pos++];
      row += std::string(b >> 4, '.') + std::string(b & 15, '1');
    }
    if ((int)row.size() != w) *pOk = false;
    rows.push_back(row);
  }
  return rows;
}

// ---------------------------------------------------------------------------------------------
// Encoding

TEST_F(SFontEncode, RunBytesAndOffsets) {
  struct Case {
    const char* name;
    int height;
    std::vector<std::vector<std::string>> glyphs;
    std::vector<std::vector<int>> chars;  // character, width, glyph, expected offset
    std::vector<BYTE> want;
  } cases[] = {
      // Row 1: 16 transparent, one set, 3 transparent; row 2: 20 set (of another index); row 3:
      // 20 transparent, 15 of them beyond what the picture holds.
      {"runs split at fifteen",
       3,
       {{std::string(16, '.') + "1", std::string(20, '7'), "....."}},
       {{'a', 20, 0, 0}},
       {3, 0xF0, 0x11, 0x30, 2, 0x0F, 0x05, 2, 0xF0, 0x50}},
      {"alternating skip and set", 1, {{"1.2..3...4"}}, {{'x', 10, 0, 0}}, {4, 0x01, 0x11, 0x21, 0x31}},
      // 'a' has a glyph but no width: offset 0 and no rows; 'd' has neither.
      {"zero width",
       2,
       {{"11", "1."}, {"1", "1"}},
       {{'a', 0, 0, 0}, {'b', 2, 0, 0}, {'c', 1, 1, 5}, {'d', 0, 0xFF, 0}},
       {1, 0x02, 2, 0x01, 0x10, 1, 0x01, 1, 0x01}},
      // Every character gets its own rows, even for a shared glyph.
      {"shared glyph",
       1,
       {{"111"}},
       {{'a', 3, 0, 0}, {'b', 2, 0, 2}, {'c', 3, 0, 4}},
       {1, 0x03, 1, 0x02, 1, 0x03}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    TestFont f;
    f.height = k.height;
    f.glyphs = k.glyphs;
    for (const auto& c : k.chars) f.Set((unsigned char)c[0], c[1], c[2]);
    CSFont* p = Convert(f);
    for (const auto& c : k.chars) EXPECT_EQ(c[3], p->m_anOffsets[c[0]]) << (char)c[0];
    EXPECT_EQ(k.want, RunData(*p));
    delete p;
  }
}

TEST_F(SFontEncode, RandomGlyphsDecodeToTheirPixels) {
  std::mt19937 rng(77);
  for (int round = 0; round < 20; round++) {
    TestFont f;
    f.height = 1 + (int)(rng() % 12);
    const int nGlyphs = 1 + (int)(rng() % 20);
    for (int g = 0; g < nGlyphs; g++) {
      std::vector<std::string> rows;
      const int w = (int)(rng() % 60);
      const int density = (int)(rng() % 5);
      for (int r = 0; r < f.height; r++) {
        std::string s;
        for (int x = 0; x < w; x++) s += (int)(rng() % 5) < density ? (char)('1' + rng() % 9) : '.';
        rows.push_back(s);
      }
      f.glyphs.push_back(rows);
    }
    for (int c = 0; c < 256; c++)
      if (rng() % 3 == 0) f.Set((unsigned char)c, (int)(rng() % 70), (int)(rng() % (nGlyphs + 2)));
    CSFont* p = Convert(f);
    for (int c = 0; c < 256; c++) {
      const int w = f.width[c];
      if (w == 0) {
        EXPECT_EQ(0, p->m_anOffsets[c]);
        continue;
      }
      bool ok = false;
      const std::vector<std::string> rows = Decode(*p, c, w, &ok);
      ASSERT_TRUE(ok) << "char " << c << " round " << round;
      for (int r = 0; r < f.height; r++) {
        std::string want;
        for (int x = 0; x < w; x++) want += f.Pixel(f.index[c], x, r) ? '1' : '.';
        EXPECT_EQ(want, rows[r]) << "char " << c << " row " << r;
      }
    }
    delete p;
  }
}

TEST_F(SFontEncode, HeaderIsCopiedAndSourceMustBe8Bit) {
  TestFont f;
  f.height = 2;
  f.spacing = -1;
  f.glyphs = {{"1", "1"}};
  f.Set('a', 1, 0);
  CImageFont* src = MakeImageFont(f);
  CSFont* p = new CSFont();
  ASSERT_EQ(1u, ConvertToSFont(src, p));
  EXPECT_EQ(0, memcmp(&src->m_Header, &p->m_Header, sizeof(TFontHeader)));
  CSFont* q = new CSFont();
  src->SetImage(MakeBitmap(2, 2, BF_16BIT, BL_FORWARD, 0), nullptr);
  EXPECT_EQ(0u, ConvertToSFont(src, q));
  EXPECT_EQ(0u, ConvertToSFont(nullptr, q));
  EXPECT_EQ(0u, ConvertToSFont(src, nullptr));
  src->SetImage(nullptr, nullptr);
  EXPECT_EQ(0u, ConvertToSFont(src, q));
  EXPECT_EQ(nullptr, q->m_pImageData);
  delete q;
  delete p;
  delete src;
}

// Regression: a font that plans no run bytes once took a one-byte block.
TEST_F(SFontEncode, FontWithNothingToEncodeEndsWithoutData) {
  // No character has a width, so the header's widest glyph is 0 and the planned block is empty.
  TestFont f;
  f.height = 2;
  f.glyphs = {{"1", "1"}};
  CImageFont* src = MakeImageFont(f);
  TestFont before = f;
  before.Set('a', 1, 0);
  CSFont* p = Convert(before);  // data the conversion replaces
  AssertCatcher ac;
  EXPECT_EQ(1u, ConvertToSFont(src, p));
  EXPECT_TRUE(ac.Fired("dwSize"));
  EXPECT_EQ(nullptr, p->m_pImageData);
  EXPECT_EQ(0u, p->m_dwImageSize);
  EXPECT_EQ(2, p->m_Header.nHeight);
  CMemFile out(0, 0, 4096, 256, TRUE);
  EXPECT_EQ((ERR)-1, p->Save(&out));
  delete p;
  delete src;
}

TEST_F(SFontEncode, DataPastTheOffsetsReachIsDropped) {
  // 200 characters of 100 rows, each row 15 set pixels: one count and one run byte, so a glyph
  // takes 200 bytes and the lot far more than 32767.
  TestFont f;
  f.height = 100;
  f.glyphs = {std::vector<std::string>(100, std::string(15, '1'))};
  for (int c = 1; c <= 200; c++) f.Set((unsigned char)c, 15, 0);
  DebugCapture dbg;
  CSFont* p = Convert(f);
  for (int c = 1; c <= 200; c++) {
    const int start = (c - 1) * 200;
    EXPECT_EQ(start <= 0x7FFF ? start : -1, p->m_anOffsets[c]) << c;
  }
  // Glyphs 1 to 164 start at or below 32767 (the last at 32600).
  EXPECT_EQ(164u * 200u, p->m_dwImageSize);
  EXPECT_NE(std::string::npos, dbg.Text().find("ConvertToSFont"));
  // The dropped characters still take their width.
  EXPECT_EQ(15 * 3, p->GetTextWidth("\xB0\xB1\xB2", 3));
  delete p;
}

// ---------------------------------------------------------------------------------------------
// Drawing

// How a run-length font lands on a canvas: set pixels in one colour. A glyph wholly inside the
// clip (x >= left and x + w <= right) draws every visible row; any other glyph that reaches the
// clip draws with a per-pixel test, and on an 8-bit target only its first visible row. Codes
// from 0x80 on find no offset: nothing is drawn, yet x moves on.
void ModelSText(Canvas* cv, const TestFont& f, const std::string& text, int x, int y, DWORD color,
                bool eightBit) {
  const TRect& k = cv->clip;
  for (unsigned char c : text) {
    const int g = f.index[c];
    if (g >= f.Glyphs()) continue;
    const int w = f.width[c];
    const bool inside = x >= k.left && x + w <= k.right;
    const bool drawn = c < 0x80 && (inside || !(x > k.right || x + w < k.left || k.right - k.left < 1));
    int firstRow = std::max(0, k.top - y);
    for (int r = firstRow; drawn && r < f.height; r++) {
      if (!inside && eightBit && r > firstRow) break;
      for (int col = 0; col < w; col++)
        if (f.Pixel(g, col, r)) cv->Put(x + col, y + r, color);
    }
    x += w - f.spacing;
  }
}

// The pixels of a w x h target of format fmt, all 0, after one DrawText of text in colour, with
// the clip when one is given.
std::vector<DWORD> DrawOnce(CSFont* p, SHORT fmt, int x, int y, int w, int h, const char* text = "aa",
                            DWORD color = 1, const TRect* pClip = nullptr) {
  return DrawnPixels(w, h, fmt, 0, [&](CDC* dc) {
    if (pClip) dc->SetClip(pClip);
    p->SetPixelColor(color);
    p->DrawText(dc, (SHORT)x, (SHORT)y, text, (DWORD)strlen(text), nullptr);
  });
}

TestFont Letters(int spacing) {
  TestFont f;
  f.height = 5;
  f.spacing = spacing;
  f.glyphs = {
      {".11.", "1..1", "1111", "1..1", "1..1"},  // A
      {"111.", "1..1", "111.", "1..1", "111."},  // B
      {"1", ".", "1", "1", "1"},                 // i
      {"", "", "", "", ""},                      // space
  };
  f.Set('A', 4, 0);
  f.Set('B', 5, 1);  // one column of trailing space
  f.Set('i', 1, 2);
  f.Set(' ', 3, 3);
  f.Set('?', 6, 0xFF);
  f.Set(0xC1, 4, 0);  // a code from 0x80 on
  return f;
}

const DWORD kColor[] = {0, 0x5A, 0x7C1F, 0x123456, 0x00ABCDEF};  // by bytes per pixel

void ExpectSDraw(const TestFont& f, SHORT fmt, const std::string& text, int x, int y, int w, int h,
                 TRect clip = TRect{1, 1, 0, 0}, TPoint origin = TPoint{0, 0}) {
  CSFont* p = Convert(f);
  const int bpp = FormatBytes(fmt);
  for (SHORT layout : {BL_FORWARD, BL_BACKWARD}) {
    CBitmap* target =
        FilledTarget(w, h, fmt, 0x0E0E0E0E & (bpp == 4 ? 0xFFFFFFFF : (1u << (8 * bpp)) - 1), layout);
    Canvas cv(w, h, PixelsOf(*target)[0]);
    {
      CMemoryDC dc(target);
      dc.MoveOrigin(origin.x, origin.y);
      if (clip.left <= clip.right) {
        dc.SetClip(&clip);
        TRect dev;
        dc.GetClip(&dev);
        cv.clip = TRect{(SHORT)(dev.left + origin.x), (SHORT)(dev.top + origin.y),
                        (SHORT)(dev.right + origin.x), (SHORT)(dev.bottom + origin.y)};
      }
      p->SetPixelColor(kColor[bpp]);
      p->DrawText(&dc, (SHORT)x, (SHORT)y, text.c_str(), (DWORD)text.size(), nullptr);
    }
    ModelSText(&cv, f, text, x + origin.x, y + origin.y, kColor[bpp], bpp == 1);
    EXPECT_EQ(Picture(cv.px, w), Picture(PixelsOf(*target), w))
        << "'" << text << "' at " << x << "," << y << " format " << fmt << " layout " << layout;
    delete target;
  }
  delete p;
}

TEST_F(SFontDraw, MatchesTheModelOnEveryDepthAndClip) {
  const TRect none = {1, 1, 0, 0};
  struct Case {
    const char* name;
    int spacing;
    const char* text;
    int x, y, w, h;
    TRect clip;
    TPoint origin;
  } cases[] = {
      {"inside", 0, "AB iA", 1, 1, 26, 7, none, {0, 0}},
      {"inside, spacing 2", 2, "AB iA", 1, 1, 26, 7, none, {0, 0}},
      {"inside, spacing -1", -1, "AB iA", 1, 1, 26, 7, none, {0, 0}},
      {"cut by the target's left edge", 0, "AB", -2, 1, 12, 7, none, {0, 0}},
      {"cut by the clip's right edge", 0, "AB", 1, 1, 12, 7, {0, 0, 6, 6}, {0, 0}},
      // A is 4 wide at x 3: its last column is 6, the clip's right edge, so it is not inside.
      {"ending on the right edge", 0, "A", 3, 0, 10, 5, {0, 0, 6, 4}, {0, 0}},
      // Rows above the clip are stepped over: drawing starts at the fourth row record.
      {"three rows above the target", 0, "AB", 0, -3, 12, 5, none, {0, 0}},
      {"three rows above the clip", 0, "AB", 0, 0, 12, 6, {0, 3, 11, 5}, {0, 0}},
      {"cut at the bottom", 0, "AB", 0, 3, 12, 6, none, {0, 0}},
      {"wholly above", 0, "AB", 0, -5, 12, 6, none, {0, 0}},
      {"wholly below", 0, "AB", 0, 6, 12, 6, none, {0, 0}},
      {"origin and clip", 1, "ABiAB", -1, 0, 20, 8, {2, 1, 12, 5}, {2, 1}},
      {"negative origin", 1, "ABiAB", 0, 0, 20, 8, {0, 0, 30, 30}, {-3, 2}},
      // right - left < 1: a glyph can't be inside, and the careful path gives up.
      {"narrow clip", 0, "AB", 0, 0, 10, 5, {1, 0, 1, 4}, {0, 0}},
      // '?' has no glyph: skipped without moving.
      {"no glyph", 0, "A?B", 0, 0, 16, 5, none, {0, 0}},
      {"high code", 0, "A\301B", 0, 0, 16, 5, none, {0, 0}},
  };
  for (const Case& k : cases)
    for (SHORT fmt : {BF_8BIT, BF_16BIT, BF_24BIT, BF_32BIT}) {
      SCOPED_TRACE(k.name);
      ExpectSDraw(Letters(k.spacing), fmt, k.text, k.x, k.y, k.w, k.h, k.clip, k.origin);
    }
}

TEST_F(SFontDraw, SpelledOutPictures) {
  CSFont* p = Convert(Letters(0));
  // A at x -2 on 8 bits shows its top row ".11." alone, of which only the glyph's column 2
  // lands on the target, at column 0.
  std::vector<DWORD> want(18, 0);
  want[0] = 9;
  EXPECT_EQ(want, DrawOnce(p, BF_8BIT, -2, 0, 6, 3, "A", 9));
  // A ending on the right edge of a 7-wide target: one row only.
  want.assign(35, 0);
  want[4] = want[5] = 1;
  EXPECT_EQ(Picture(want, 7), Picture(DrawOnce(p, BF_8BIT, 3, 0, 7, 5, "A"), 7));
  // B's rows 3 and 4: "1..1." and "111..".
  EXPECT_EQ((std::vector<DWORD>{1, 0, 0, 1, 0, 0, 1, 1, 1, 0, 0, 0}), DrawOnce(p, BF_8BIT, 0, -3, 6, 2, "B"));
  const TRect narrow = {1, 0, 1, 4};
  EXPECT_EQ(std::vector<DWORD>(50, 0), DrawOnce(p, BF_16BIT, 0, 0, 10, 5, "AB", 0x7FFF, &narrow));
  delete p;
}

TEST_F(SFontDraw, ConvertedFontDrawsTheImageFontsPixels) {
  // On the deeper targets every row is decoded, so the two fonts give the same picture,
  // clipped or not; on 8 bits, as long as each glyph is inside the clip.
  TestFont f = Letters(1);
  f.glyphs[0] = {".23.", "4..5", "6789", "a..b", "c..d"};  // a ramp: any index is "set"
  CImageFont* img = MakeImageFont(f);
  CSFont* s = new CSFont();
  ASSERT_EQ(1u, ConvertToSFont(img, s));
  struct Case {
    SHORT fmt;
    int x, y;
  } cases[] = {{BF_8BIT, 1, 1}, {BF_16BIT, -2, -1}, {BF_24BIT, 3, 4}, {BF_32BIT, -5, 2}};
  for (const Case& k : cases) {
    // Every glyph index maps to the one colour.
    const std::vector<DWORD> ramp(15, kColor[FormatBytes(k.fmt)]);
    auto draw = [&](CFont* font) {
      return DrawnPixels(20, 8, k.fmt, 0, [&](CDC* dc) {
        font->DrawTextPixels(dc, (SHORT)k.x, (SHORT)k.y, "AB iBA", 6, ramp.data(), (DWORD)ramp.size());
      });
    };
    const std::vector<DWORD> b = draw(s);
    EXPECT_EQ(Picture(draw(img), 20), Picture(b, 20)) << "format " << k.fmt << " at " << k.x;
    EXPECT_NE(std::vector<DWORD>(160, 0), b);
  }
  delete s;
  delete img;
}

TEST_F(SFontDraw, NullTextOrNoDataAsserts) {
  CSFont* p = Convert(Letters(0));
  CSFont empty;
  AssertCatcher ac;
  EXPECT_EQ(std::vector<DWORD>(40, 0), DrawnPixels(8, 5, BF_8BIT, 0, [&](CDC* dc) {
              p->DrawText(dc, 0, 0, nullptr, 1, nullptr);
              empty.DrawText(dc, 0, 0, "A", 1, nullptr);
            }));
  ASSERT_EQ(2u, ac.Count());
  EXPECT_EQ("pText && m_pImageData", AssertExpr(ac.Texts()[0]));
  EXPECT_EQ("pText && m_pImageData", AssertExpr(ac.Texts()[1]));
  delete p;
}

DWORD FirstSetPixel(const CBitmap& b) {
  for (DWORD v : PixelsOf(b))
    if (v) return v;
  return 0;
}

// Each colour form sets the colour that stays for later draws without one.
TEST_F(SFontDraw, ColourForms) {
  CSFont* p = Convert(Letters(0));
  CBitmap* target = FilledTarget(6, 5, BF_24BIT, 0);
  {
    CMemoryDC dc(target);
    BYTE map[256];
    memset(map, 0x11, sizeof(map));
    map[1] = 0x42;
    p->DrawText(&dc, 0, 0, "A", 1, map);
    EXPECT_EQ(0x42u, p->GetPixelColor());
    EXPECT_EQ(0x42u, FirstSetPixel(*target));
    p->SetPixelColor(0x99);
    p->DrawText(&dc, 0, 0, "A", 1, nullptr);
    EXPECT_EQ(0x99u, FirstSetPixel(*target));
    const TColor colors[] = {MakeColor(0x12, 0x34, 0x56), MakeColor(1, 2, 3)};
    p->DrawTextColors(&dc, 0, 0, "A", 1, colors, 0);  // the count isn't looked at
    EXPECT_EQ(0x123456u, p->GetPixelColor());
    EXPECT_EQ(0x123456u, FirstSetPixel(*target));
    const DWORD pixels[] = {0xABCDEF, 7};
    p->DrawTextPixels(&dc, 0, 0, "A", 1, pixels, 2);
    EXPECT_EQ(0xABCDEFu, p->GetPixelColor());
    EXPECT_EQ(0xABCDEFu, FirstSetPixel(*target));
  }
  delete target;
  // On an 8-bit target a colour is an index: entry 4 of the ramp palette.
  const TColor colors[] = {MakeColor(64, 191, 20)};
  const std::vector<DWORD> v =
      DrawnPixels(6, 5, BF_8BIT, 0, [&](CDC* dc) { p->DrawTextColors(dc, 0, 0, "A", 1, colors, 1); });
  EXPECT_EQ(4u, p->GetPixelColor());
  EXPECT_EQ(4u, v[1]);  // A's top row is ".11."
  delete p;
}

// ---------------------------------------------------------------------------------------------
// File form

std::vector<BYTE> Bytes(CFile* f) {
  std::vector<BYTE> v(f->GetSize());
  f->Seek(0, FILE_BEGIN);
  if (!v.empty()) {
    EXPECT_EQ(0u, f->Read(v.data(), (DWORD)v.size(), nullptr));
  }
  return v;
}

CFile* MemOf(const std::vector<BYTE>& v) {
  CMemFile* f = new CMemFile(0, 0, 1u << 24, 256, TRUE);
  if (!v.empty()) f->Write(v.data(), (DWORD)v.size(), nullptr);
  f->Seek(0, FILE_BEGIN);
  return f;
}

TEST_F(SFontFile, SaveLaysOutTheFieldsAndLoadReadsThem) {
  CSFont* p = Convert(Letters(-2));
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, p->Save(&out));
  const std::vector<BYTE> v = Bytes(&out);
  ASSERT_EQ((size_t)SFONT_DATA_OFFSET + p->m_dwImageSize, v.size());
  EXPECT_EQ(0, memcmp(v.data(), "SFNT", 4));
  EXPECT_EQ(5, v[4 + 0x20]);        // height
  EXPECT_EQ(0xFE, v[4 + 0x2E]);     // spacing -2
  EXPECT_EQ(4, v[4 + 0x32 + 'A']);  // width of A
  EXPECT_EQ(p->m_anOffsets[(unsigned char)'B'], (SHORT)GetLE16(&v[0x236 + 2 * 'B']));
  EXPECT_EQ(p->m_dwImageSize, GetLE32(&v[0x436]));
  EXPECT_EQ(RunData(*p), std::vector<BYTE>(v.begin() + SFONT_DATA_OFFSET, v.end()));
  out.Seek(0, FILE_BEGIN);
  CSFont* q = new CSFont();
  ASSERT_EQ(0u, q->Load(&out));
  EXPECT_EQ(0, memcmp(&p->m_Header, &q->m_Header, sizeof(TFontHeader)));
  EXPECT_EQ(0, memcmp(p->m_anOffsets, q->m_anOffsets, sizeof(p->m_anOffsets)));
  EXPECT_EQ(RunData(*p), RunData(*q));
  // Loading again replaces the data (the old block is freed: the test's balance checks it).
  out.Seek(0, FILE_BEGIN);
  EXPECT_EQ(0u, q->Load(&out));
  delete q;
  delete p;
}

TEST_F(SFontFile, WrongMagicKeepsTheOldData) {
  CSFont* p = Convert(Letters(0));
  const std::vector<BYTE> before = RunData(*p);
  CFile* f = MemOf({'S', 'F', 'N', 'X', 0, 0, 0, 0});
  EXPECT_EQ(ERR_FILE_BADFORMAT, p->Load(f));
  EXPECT_EQ(0x30000009u, ERR_FILE_BADFORMAT);
  EXPECT_EQ(before, RunData(*p));
  delete f;
  // An image font file is not a run-length font either.
  CImageFont* img = MakeImageFont(Letters(0));
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, img->Save(&out));
  out.Seek(0, FILE_BEGIN);
  EXPECT_EQ(ERR_FILE_BADFORMAT, p->Load(&out));
  EXPECT_EQ(before, RunData(*p));
  delete img;
  delete p;
}

TEST_F(SFontFile, ShortFilesFailWithoutData) {
  CSFont* p = Convert(Letters(0));
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, p->Save(&out));
  const std::vector<BYTE> whole = Bytes(&out);
  for (size_t cut :
       {(size_t)0, (size_t)2, (size_t)4, (size_t)100, (size_t)0x436, (size_t)0x43A, whole.size() - 1}) {
    CSFont* q = Convert(Letters(0));
    CFile* f = MemOf(std::vector<BYTE>(whole.begin(), whole.begin() + cut));
    EXPECT_NE(0u, q->Load(f)) << cut;
    if (cut >= 4) {
      EXPECT_EQ(nullptr, q->m_pImageData) << cut;
      // Either still the old size or the file's, which is the same font's.
      EXPECT_EQ(p->m_dwImageSize, q->m_dwImageSize) << cut;
    }
    delete f;
    delete q;
  }
  // A size field far past the file fails before anything is allocated for it.
  std::vector<BYTE> huge = whole;
  PutLE32(&huge[0x436], 0xFFFFFFF0u);
  CFile* f = MemOf(huge);
  CSFont q;
  EXPECT_EQ(ERR_FILE_EOF, q.Load(f));
  delete f;
  EXPECT_EQ((ERR)-1, q.Save(&out));
  delete p;
}

TEST_F(SFontFile, FailedReadsKeepWhatEarlierReadsStored) {
  CSFont* p = Convert(Letters(0));
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, p->Save(&out));
  std::vector<BYTE> v = Bytes(&out);
  PutLE16(&v[4 + 0x2E], (WORD)-3);        // spacing -3
  PutLE16(&v[0x236 + 2 * 0x10], 0x777);   // an offset in the first half of the table
  PutLE16(&v[0x236 + 2 * 0x90], 0x1234);  // and one in the second half
  PutLE32(&v[0x436], 0x50);               // a size with no data behind it
  // The offsets are cut in the middle: the header is the file's, and so are the offsets that
  // arrived; the others and the size are as they were.
  CSFont* q = Convert(Letters(0));
  const SHORT nOld90 = q->m_anOffsets[0x90];
  ASSERT_NE(0x1234, nOld90);
  CFile* f = MemOf(std::vector<BYTE>(v.begin(), v.begin() + 0x236 + 0x100));
  EXPECT_EQ(ERR_FILE_EOF, q->Load(f));
  delete f;
  EXPECT_EQ(nullptr, q->m_pImageData);
  EXPECT_EQ(-3, q->m_Header.nSpacing);
  EXPECT_EQ(0x777, q->m_anOffsets[0x10]);
  EXPECT_EQ(nOld90, q->m_anOffsets[0x90]);
  EXPECT_EQ(p->m_dwImageSize, q->m_dwImageSize);
  // The size is read but its data is missing: the size is kept, with no data.
  f = MemOf(std::vector<BYTE>(v.begin(), v.begin() + SFONT_DATA_OFFSET));
  EXPECT_EQ(ERR_FILE_EOF, q->Load(f));
  delete f;
  EXPECT_EQ(nullptr, q->m_pImageData);
  EXPECT_EQ(0x1234, q->m_anOffsets[0x90]);
  EXPECT_EQ(0x50u, q->m_dwImageSize);
  EXPECT_EQ((ERR)-1, q->Save(&out));
  delete q;
  delete p;
}

// Regression: a size field of 0 once took a one-byte block instead of failing.
TEST_F(SFontFile, EmptyRunDataIsAFailedAllocation) {
  std::vector<BYTE> v(SFONT_DATA_OFFSET, 0);
  memcpy(v.data(), "SFNT", 4);
  PutLE16(&v[4 + 0x20], 3);
  PutLE16(&v[4 + 0x30], 1);  // one glyph, used by 'a' (2 wide) at offset 0: past the no data
  v[4 + 0x32 + 'a'] = 2;
  CFile* f = MemOf(v);
  CSFont p;
  AssertCatcher ac;
  // The run data of size 0 is asked of the allocator, which asserts and gives nothing.
  EXPECT_EQ(ERR_ALLOCFAIL, p.Load(f));
  EXPECT_TRUE(ac.Fired("dwSize"));
  EXPECT_EQ(nullptr, p.m_pImageData);
  EXPECT_EQ(0u, p.m_dwImageSize);
  EXPECT_EQ(3, p.m_Header.nHeight);
  EXPECT_EQ(std::vector<DWORD>(16, 0), DrawOnce(&p, BF_8BIT, 0, 0, 4, 4, "abc"));
  EXPECT_TRUE(ac.Fired("pText && m_pImageData"));
  delete f;
}

class SFontDisk : public DiskTest {
 protected:
  SFontDisk() : DiskTest("sfont") {}
};

TEST_F(SFontDisk, ConvertFontFile) {
  CImageFont* img = MakeImageFont(Letters(0));
  ERR err = 0;
  CFile* f = FileOpen(P("a.fnt").c_str(), FILE_MODE_CREATE, &err);
  ASSERT_NE(nullptr, f);
  ASSERT_EQ(0u, img->Save(f));
  delete f;
  EXPECT_EQ(1u, ConvertFontFile(P("a.fnt").c_str(), P("a.sfn").c_str()));
  CSFont* direct = Convert(Letters(0));
  f = FileOpen(P("a.sfn").c_str(), FILE_MODE_READ, &err);
  ASSERT_NE(nullptr, f);
  CSFont q;
  EXPECT_EQ(0u, q.Load(f));
  EXPECT_EQ(RunData(*direct), RunData(q));
  delete f;
  EXPECT_EQ(0u, ConvertFontFile(P("missing.fnt").c_str(), P("b.sfn").c_str()));
  EXPECT_FALSE(std::filesystem::exists(m_dir / "b.sfn"));
  EXPECT_EQ(0u, ConvertFontFile(P("a.fnt").c_str(), P("no/such/dir/c.sfn").c_str()));
  delete direct;
  delete img;
}

// ---------------------------------------------------------------------------------------------
// Damaged run data

// A one-glyph font 'a' of the given width and height over hand-made run data.
CSFont* HandMade(int w, int h, const std::vector<BYTE>& data, SHORT offset = 0) {
  CSFont* p = new CSFont();
  TFontHeader hdr;
  memset(&hdr, 0, sizeof(hdr));
  hdr.nHeight = (SHORT)h;
  hdr.nGlyphs = 1;
  hdr.abtWidth[(unsigned char)'a'] = (BYTE)w;
  hdr.abtIndex[(unsigned char)'a'] = 0;
  BYTE* block = static_cast<BYTE*>(MEM_ALLOC(data.size() + 1));
  memcpy(block, data.data(), data.size());
  p->SetData(block, &hdr);
  EXPECT_EQ(0u, p->m_dwImageSize);  // the caller's to set
  p->m_dwImageSize = (DWORD)data.size();
  p->m_anOffsets[(unsigned char)'a'] = offset;
  return p;
}

TEST_F(SFontDamaged, RunsLongerThanTheWidthStayInTheCell) {
  // Width 3, but the row claims 15 + 15 set pixels.
  CSFont* p = HandMade(3, 1, {2, 0x0F, 0x0F});
  for (SHORT fmt : {BF_8BIT, BF_16BIT, BF_24BIT, BF_32BIT}) {
    // Inside (fast path), and cut by the left edge (careful path).
    EXPECT_EQ((std::vector<DWORD>{1, 1, 1, 1, 1, 1, 0, 0}), DrawOnce(p, fmt, 0, 0, 8, 1)) << fmt;
    EXPECT_EQ((std::vector<DWORD>{1, 1, 1, 1, 0, 0, 0, 0}), DrawOnce(p, fmt, -2, 0, 8, 1)) << fmt;
  }
  delete p;
}

TEST_F(SFontDamaged, RecordsRunningPastTheDataStopTheGlyph) {
  // Two rows promised; the second record's count runs past the end.
  CSFont* p = HandMade(2, 2, {1, 0x02, 9, 0x01});
  EXPECT_EQ((std::vector<DWORD>{1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}), DrawOnce(p, BF_16BIT, 0, 0, 6, 2));
  delete p;
  // An offset past the data, and a negative one: nothing drawn.
  p = HandMade(2, 1, {1, 0x02}, 5);
  EXPECT_EQ(std::vector<DWORD>(6, 0), DrawOnce(p, BF_8BIT, 0, 0, 6, 1));
  p->m_anOffsets[(unsigned char)'a'] = -3;
  EXPECT_EQ(std::vector<DWORD>(6, 0), DrawOnce(p, BF_32BIT, 0, 0, 6, 1));
  delete p;
  // A glyph stepped over above the clip whose records run out first.
  p = HandMade(2, 40, {1, 0x02});
  EXPECT_EQ(std::vector<DWORD>(12, 0), DrawOnce(p, BF_8BIT, 0, -5, 6, 2));
  delete p;
}

TEST_F(SFontDamaged, HugeHeightAndCoordinatesStayInTheTarget) {
  std::vector<BYTE> rows;
  for (int r = 0; r < 300; r++) rows.insert(rows.end(), {1, 0x0F});
  CSFont* p = HandMade(15, 300, rows);
  p->m_Header.nSpacing = -20000;
  for (SHORT fmt : {BF_8BIT, BF_24BIT})
    for (int x : {-32000, -14, -7, 0, 3, 32000})
      for (int y : {-32000, -299, -150, 0, 2, 32000}) EXPECT_EQ(15u, DrawOnce(p, fmt, x, y, 5, 3).size());
  delete p;
}

}  // namespace
