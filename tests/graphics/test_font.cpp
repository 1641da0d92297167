// Image fonts and the offset wrapper: text measures with every kind of spacing, drawing through
// colour maps and colour ramps on every depth, the file form, and damaged headers.
#include <filesystem>

#include "files/memfile.h"
#include "files/stdfile.h"
#include "fonttest.h"
#include "graphics/bmpfile.h"
#include "testutil.h"

namespace {

class FontMeasure : public MemBalance {};
class ImageFontDraw : public MemBalance {};
class ImageFontColors : public MemBalance {};
class OffsetFont : public MemBalance {};
class ImageFontFile : public MemBalance {};
class ImageFontDamaged : public MemBalance {};

// 'A' (5 wide) and 'B' (3 wide) with pictures, 'i' 1 wide sharing B's glyph, ' ' 2 wide with a
// blank glyph, '?' 4 wide without a glyph, 'z' 0 wide with a glyph.
TestFont SmallFont(int spacing) {
  TestFont f;
  f.height = 4;
  f.spacing = spacing;
  f.glyphs = {
      {".11..", "1..1.", "1221.", "1..1."},  // 0: A
      {"33.", "3.3", "33.", "3.3"},          // 1: B
      {"", "", "", ""},                      // 2: blank
      {"5", "5", "5", "5"},                  // 3: z
  };
  f.Set('A', 5, 0);
  f.Set('B', 3, 1);
  f.Set('i', 1, 1);
  f.Set(' ', 2, 2);
  f.Set('?', 4, 0xFF);
  f.Set('z', 0, 3);
  return f;
}

int ModelWidth(const TestFont& f, const std::string& s) {
  int w = 0;
  for (unsigned char c : s) w += f.width[c] - f.spacing;
  return (SHORT)(w + f.spacing);
}

// The model's picture of text on a w x h target of fill against what draw put there.
void ExpectText(const TestFont& f, int w, int h, SHORT fmt, DWORD fill, const std::string& text, int x, int y,
                const std::function<DWORD(int)>& map, const std::function<void(CDC*)>& draw) {
  EXPECT_EQ(Picture(ModelPixels(f, w, h, fill, text, x, y, map), w),
            Picture(DrawnPixels(w, h, fmt, fill, draw), w))
      << "'" << text << "' spacing " << f.spacing << " format " << fmt;
}

const std::function<DWORD(int)> kSame = [](int v) { return (DWORD)v; };

// ---------------------------------------------------------------------------------------------
// Measures

TEST_F(FontMeasure, TextWidthWithEverySpacing) {
  for (int spacing : {0, 1, 2, -1, -3}) {
    TestFont f = SmallFont(spacing);
    CImageFont* p = MakeImageFont(f);
    for (std::string s : {"A", "AB", "ABA", "A B", "BiB", "A?B", "z", "AzB"}) {
      EXPECT_EQ(ModelWidth(f, s), p->GetTextWidth(s.c_str(), (DWORD)s.size())) << s << " spacing " << spacing;
      EXPECT_EQ(ModelWidth(f, s), p->GetTextWidth(s.c_str(), 0xFFFFFFFFu)) << s;
    }
    // Three characters of 5, 3 and 5 pixels with the spacing taken twice, between them.
    EXPECT_EQ(13 - 2 * spacing, p->GetTextWidth("ABA", 3));
    // An empty text is the spacing; the length limits the text.
    EXPECT_EQ(spacing, p->GetTextWidth("AB", 0));
    EXPECT_EQ(spacing, p->GetTextWidth("", 0xFFFFFFFFu));
    EXPECT_EQ(p->GetTextWidth("AB", 2), p->GetTextWidth("ABBBB", 2));
    EXPECT_EQ(5, p->GetTextWidth("A\0B", 1));
    // With the length given, a zero byte is a character like any other (width 0 here).
    EXPECT_EQ(5 + 0 + 3 - 2 * spacing, p->GetTextWidth("A\0B", 3));
    delete p;
  }
  // The width is kept in 16 bits: 200 characters of 255 pixels come out negative.
  TestFont f;
  f.height = 1;
  f.glyphs = {{"1"}};
  f.Set('W', 255, 0);
  CImageFont* p = MakeImageFont(f);
  const std::string s(200, 'W');
  EXPECT_EQ((SHORT)(200 * 255), p->GetTextWidth(s.c_str(), (DWORD)s.size()));
  EXPECT_LT(p->GetTextWidth(s.c_str(), (DWORD)s.size()), 0);
  delete p;
}

TEST_F(FontMeasure, CharsThatFitStopsBeforeTheFirstThatOverflows) {
  for (int spacing : {0, 2, -2}) {
    TestFont f = SmallFont(spacing);
    CImageFont* p = MakeImageFont(f);
    // The glyph-less '?' takes its width here too.
    const std::string s = "ABA?B iA";
    for (int w = -1; w < 40; w++) {
      // The model: the longest prefix whose advances (spacing taken per character) fit; an
      // exact fit leaves 0, which still fits.
      size_t n = 0;
      int left = w;
      while (n < s.size() && (left -= f.width[(unsigned char)s[n]] - spacing) >= 0) n++;
      EXPECT_EQ(n, p->CharsThatFit((SHORT)w, s.c_str(), (DWORD)s.size()))
          << "width " << w << " spacing " << spacing;
    }
    delete p;
  }
  CImageFont* p = MakeImageFont(SmallFont(0));
  EXPECT_EQ(3u, p->CharsThatFit(15, "AAA", 0xFFFFFFFFu));
  EXPECT_EQ(2u, p->CharsThatFit(14, "AAA", 0xFFFFFFFFu));
  EXPECT_EQ(0u, p->CharsThatFit(-1, "", 0));
  AssertCatcher ac;
  EXPECT_EQ(0, p->GetTextWidth(nullptr, 3));
  EXPECT_EQ(0u, p->CharsThatFit(100, nullptr, 3));
  ASSERT_EQ(2u, ac.Count());
  EXPECT_EQ("pText", AssertExpr(ac.Texts()[0]));
  EXPECT_EQ("pText", AssertExpr(ac.Texts()[1]));
  delete p;
}

TEST_F(FontMeasure, BaseFontAnswersNotImplemented) {
  CFont* p = new CFont();
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(ERR_NOTIMPL, p->SetImage(nullptr, nullptr));
  EXPECT_EQ(ERR_NOTIMPL, p->Load(nullptr));
  EXPECT_EQ(ERR_NOTIMPL, p->Save(nullptr));
  p->m_Header.abtWidth[(unsigned char)'x'] = 7;
  EXPECT_EQ(7, p->GetCharWidth('x'));
  delete p;
}

// ---------------------------------------------------------------------------------------------
// Drawing through a colour map

TEST_F(ImageFontDraw, MatchesTheModel) {
  struct Case {
    int spacing;
    const char* text;
    int x, y, w, h;
  } cases[] = {
      {0, "A", 1, 1, 8, 6},
      {0, "ABiA", 1, 0, 24, 4},
      {1, "ABiA", 1, 0, 24, 4},
      {2, "ABiA", 1, 0, 24, 4},
      {-1, "ABiA", 1, 0, 24, 4},
      {-3, "ABiA", 1, 0, 24, 4},
      // Packed so far that the next glyph overlaps the last: its opaque pixels win, its
      // transparent ones leave the earlier glyph showing.
      {3, "AAA", 0, 0, 12, 4},
      {1, "?A??B?", 2, 0, 16, 4},  // glyph-less characters are skipped without moving x
      {-2, "BzB", 0, 0, 16, 4},    // a zero width moves x by -spacing
      {0, "iBi", 0, 0, 8, 4},      // 'i' shows only the first column of B's glyph
      {0, "ABA", -3, -2, 10, 4},   // cut by the target's edges
      {0, "ABA", 5, 2, 10, 4},
  };
  BYTE map[256];
  for (int i = 0; i < 256; i++) map[i] = (BYTE)(0x40 + i);
  for (const Case& k : cases) {
    const TestFont f = SmallFont(k.spacing);
    CImageFont* p = MakeImageFont(f);
    ExpectText(
        f, k.w, k.h, BF_8BIT, 0xE, k.text, k.x, k.y, [&](int v) { return (DWORD)map[v]; },
        [&](CDC* dc) { p->DrawText(dc, (SHORT)k.x, (SHORT)k.y, k.text, (DWORD)strlen(k.text), map); });
    delete p;
  }
}

TEST_F(ImageFontDraw, ZeroWidthCharacterMovesByMinusSpacing) {
  // 'z' has a glyph but no width: nothing is drawn and x moves by -spacing.
  CImageFont* p = MakeImageFont(SmallFont(-2));
  EXPECT_EQ(DrawnPixels(16, 4, BF_8BIT, 0,
                        [&](CDC* dc) {
                          p->DrawText(dc, 0, 0, "Bz", 2, nullptr);
                          p->DrawText(dc, 3 + 2 + 2, 0, "B", 1, nullptr);  // B's advance, then z's -spacing
                        }),
            DrawnPixels(16, 4, BF_8BIT, 0, [&](CDC* dc) { p->DrawText(dc, 0, 0, "BzB", 3, nullptr); }));
  delete p;
}

TEST_F(ImageFontDraw, ClippedByTheClipWithAnOrigin) {
  TestFont f = SmallFont(0);
  CImageFont* p = MakeImageFont(f);
  const std::vector<DWORD> got = DrawnPixels(14, 5, BF_8BIT, 0, [&](CDC* dc) {
    dc->MoveOrigin(1, 1);
    TRect rc = {2, 0, 8, 1};  // logical
    dc->SetClip(&rc);
    p->DrawText(dc, 0, 0, "ABA", 3, nullptr);
  });
  Canvas cv(14, 5, 0);
  cv.clip = TRect{3, 1, 9, 2};
  ModelText(&cv, f, "ABA", 1, 1, kSame);
  EXPECT_EQ(Picture(cv.px, 14), Picture(got, 14));
  delete p;
}

TEST_F(ImageFontDraw, NullTextOrNoImageAssertsAndDrawsNothing) {
  CImageFont* p = MakeImageFont(SmallFont(0));
  CImageFont empty;
  empty.m_Header = p->m_Header;
  AssertCatcher ac;
  EXPECT_EQ(std::vector<DWORD>(32, 3), DrawnPixels(8, 4, BF_8BIT, 3, [&](CDC* dc) {
              p->DrawText(dc, 0, 0, nullptr, 1, nullptr);
              empty.DrawText(dc, 0, 0, "A", 1, nullptr);
            }));
  ASSERT_EQ(2u, ac.Count());
  EXPECT_EQ("pText && m_pFontImage", AssertExpr(ac.Texts()[0]));
  EXPECT_EQ("pText && m_pFontImage", AssertExpr(ac.Texts()[1]));
  delete p;
}

// ---------------------------------------------------------------------------------------------
// Colour ramps

TEST_F(ImageFontColors, PixelsOnAn8BitTargetMapGlyphIndices) {
  TestFont f = SmallFont(0);
  CImageFont* p = MakeImageFont(f);
  const DWORD pixels[] = {0x107, 0x09};  // only the low byte counts
  ExpectText(
      f, 12, 4, BF_8BIT, 0xF, "AB", 1, 0,
      [](int v) {
        return v == 1 ? 7u : v == 2 ? 9u : v == 3 ? 0u : 0xEEu;
      },
      [&](CDC* dc) { p->DrawTextPixels(dc, 1, 0, "AB", 2, pixels, 2); });
  delete p;
}

TEST_F(ImageFontColors, RampGoesIntoTheFontPaletteOnDeeperTargets) {
  TestFont f = SmallFont(1);
  for (SHORT fmt : {BF_16BIT, BF_24BIT, BF_32BIT}) {
    CImageFont* p = MakeImageFont(f);
    const DWORD pixels16[] = {0x7C00, 0x03E0, 0x001F};
    const DWORD pixels24[] = {0xFF0000, 0x00FF00, 0x0000FF};
    const DWORD* pixels = fmt == BF_16BIT ? pixels16 : pixels24;
    ExpectText(
        f, 12, 4, fmt, 0x1234, "AB", 0, 0, [&](int v) { return v >= 1 && v <= 3 ? pixels[v - 1] : 0xBADu; },
        [&](CDC* dc) { p->DrawTextPixels(dc, 0, 0, "AB", 2, pixels, 3); });
    // The ramp stays in the font's palette.
    CPalette* pal = PaletteOf(*p->m_pFontImage);
    ASSERT_NE(nullptr, pal);
    TColor c;
    ASSERT_EQ(0u, pal->GetColor(1, &c));
    // 5 bits come back with their low bits filled with 3.
    EXPECT_EQ(fmt == BF_16BIT ? 0xFB : 0xFF, c.btRed);
    EXPECT_EQ(fmt == BF_16BIT ? 0x03 : 0x00, c.btGreen);
    delete p;
  }
}

TEST_F(ImageFontColors, SecondRampReplacesTheFirst) {
  // The second call finds the palette long enough and (on 16 bits) its 16-bit table built by
  // the first draw: both must carry the new colours.
  TestFont f = SmallFont(0);
  for (SHORT fmt : {BF_16BIT, BF_24BIT}) {
    CImageFont* p = MakeImageFont(f);
    const DWORD first[] = {0x0421, 0x0842, 0x0C63}, second[] = {0x1084, 0x14A5, 0x18C6};
    // On 24 bits the same values are 24-bit colours: 0x1084 is blue 0x84 and green 0x10.
    ExpectText(
        f, 6, 4, fmt, 0, "A", 0, 0, [&](int v) { return second[v - 1]; },
        [&](CDC* dc) {
          p->DrawTextPixels(dc, 0, 0, "A", 1, first, 3);
          p->DrawTextPixels(dc, 0, 0, "A", 1, second, 3);
        });
    delete p;
  }
}

TEST_F(ImageFontColors, ColorsAreConvertedByTheTarget) {
  TestFont f = SmallFont(0);
  CImageFont* p = MakeImageFont(f);
  const TColor colors[] = {MakeColor(48, 207, 15), MakeColor(160, 95, 50)};  // entries 3 and 10
  auto draw = [&](CDC* dc) { p->DrawTextColors(dc, 0, 0, "A", 1, colors, 2); };
  // 8-bit target with the ramp palette: each colour becomes the index of its nearest entry.
  ExpectText(
      f, 6, 4, BF_8BIT, 0, "A", 0, 0, [](int v) { return v == 1   ? 3u
                                                         : v == 2 ? 10u
                                                                  : 0u; }, draw);
  // 24-bit target: exact colours.
  ExpectText(
      f, 6, 4, BF_24BIT, 0, "A", 0, 0, [](int v) { return v == 1 ? 0x30CF0Fu : 0xA05F32u; }, draw);
  delete p;
}

TEST_F(ImageFontColors, AtMost256ColoursAreUsed) {
  TestFont f = SmallFont(0);
  CImageFont* p = MakeImageFont(f);
  std::vector<TColor> colors(300);
  for (size_t i = 0; i < colors.size(); i++) colors[i] = MakeColor((BYTE)i, (BYTE)(i >> 8), 7);
  DrawnPixels(6, 4, BF_24BIT, 0,
              [&](CDC* dc) { p->DrawTextColors(dc, 0, 0, "A", 1, colors.data(), (DWORD)colors.size()); });
  // 256 colours after the transparent index.
  EXPECT_EQ(257u, PaletteOf(*p->m_pFontImage)->m_dwColors);
  TColor c;
  ASSERT_EQ(0u, PaletteOf(*p->m_pFontImage)->GetColor(256, &c));
  EXPECT_EQ(255, c.btRed);
  EXPECT_EQ(0, c.btGreen);
  // On an 8-bit target a map has room for 255 of them.
  std::vector<DWORD> pixels(300, 0x0B);
  ExpectText(
      f, 6, 4, BF_8BIT, 0, "A", 0, 0, [](int) { return 0x0Bu; },
      [&](CDC* dc) { p->DrawTextPixels(dc, 0, 0, "A", 1, pixels.data(), (DWORD)pixels.size()); });
  delete p;
}

TEST_F(ImageFontColors, ImageWithoutPaletteGetsOne) {
  TestFont f = SmallFont(0);
  CImageFont* p = MakeImageFont(f);
  delete p->m_pFontImage->m_pPalette;
  p->m_pFontImage->m_pPalette = nullptr;
  const DWORD pixels[] = {0x112233, 0x445566};
  ExpectText(
      f, 6, 4, BF_32BIT, 0, "A", 0, 0, [&](int v) { return pixels[v - 1]; },
      [&](CDC* dc) { p->DrawTextPixels(dc, 0, 0, "A", 1, pixels, 2); });
  ASSERT_NE(nullptr, PaletteOf(*p->m_pFontImage));
  EXPECT_EQ(3u, PaletteOf(*p->m_pFontImage)->m_dwColors);
  delete p;
}

TEST_F(ImageFontColors, NoPixelsOrNoTargetDrawNothing) {
  CImageFont* p = MakeImageFont(SmallFont(0));
  const DWORD px[] = {1};
  EXPECT_EQ(std::vector<DWORD>(24, 2), DrawnPixels(6, 4, BF_8BIT, 2, [&](CDC* dc) {
              p->DrawTextPixels(dc, 0, 0, "A", 1, nullptr, 2);
              p->DrawTextColors(dc, 0, 0, "A", 1, nullptr, 2);
              CMemoryDC none(nullptr);
              p->DrawTextPixels(&none, 0, 0, "A", 1, px, 1);
            }));
  delete p;
}

// ---------------------------------------------------------------------------------------------
// Offset wrapper

TEST_F(OffsetFont, PositiveShiftAddsRowsAbove) {
  TestFont f = SmallFont(1);
  CImageFont* inner = MakeImageFont(f);
  COffsetFont* p = new COffsetFont(inner, 2);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(6, p->GetHeight());
  EXPECT_EQ(6, p->m_Header.nHeight);
  EXPECT_EQ(2, p->m_Header.nPadAbove);
  EXPECT_EQ(0, p->m_Header.nPadBelow);
  EXPECT_EQ(inner->GetTextWidth("AB i", 4), p->GetTextWidth("AB i", 4));
  EXPECT_EQ(3, p->GetCharWidth('B'));
  EXPECT_EQ(inner->CharsThatFit(9, "ABAB", 4), p->CharsThatFit(9, "ABAB", 4));
  ExpectText(f, 12, 7, BF_8BIT, 0, "AB", 1, 2, kSame,
             [&](CDC* dc) { p->DrawText(dc, 1, 0, "AB", 2, nullptr); });
  delete p;
  delete inner;
}

TEST_F(OffsetFont, NegativeShiftIsTallerButDrawsInPlace) {
  TestFont f = SmallFont(0);
  CImageFont* inner = MakeImageFont(f);
  inner->m_Header.nPadBelow = 1;
  COffsetFont* p = new COffsetFont(inner, -3);
  EXPECT_EQ(7, p->GetHeight());
  EXPECT_EQ(4, p->m_Header.nPadBelow);
  EXPECT_EQ(0, p->m_Header.nPadAbove);
  ExpectText(f, 8, 7, BF_8BIT, 0, "A", 0, 1, kSame, [&](CDC* dc) { p->DrawText(dc, 0, 1, "A", 1, nullptr); });
  delete p;
  delete inner;
}

TEST_F(OffsetFont, ColourFormsDoNothing) {
  CImageFont* inner = MakeImageFont(SmallFont(0));
  COffsetFont* p = new COffsetFont(inner, 1);
  const DWORD px[] = {5, 6};
  const TColor colors[] = {MakeColor(1, 2, 3)};
  EXPECT_EQ(std::vector<DWORD>(48, 0), DrawnPixels(8, 6, BF_8BIT, 0, [&](CDC* dc) {
              p->DrawTextPixels(dc, 0, 0, "A", 1, px, 2);
              p->DrawTextColors(dc, 0, 0, "A", 1, colors, 1);
            }));
  delete p;
  delete inner;
}

TEST_F(OffsetFont, HeaderFollowsSetImageAndLoad) {
  CImageFont* inner = MakeImageFont(SmallFont(0));
  COffsetFont* p = new COffsetFont(inner, 2);
  TestFont g = SmallFont(0);
  g.height = 9;
  g.glyphs = {std::vector<std::string>(9, "1")};
  g.Set('A', 1, 0);
  TFontHeader h = HeaderOf(g);
  EXPECT_EQ(0u, p->SetImage(StripOf(g), &h));
  EXPECT_EQ(11, p->m_Header.nHeight);
  // A failed load leaves the header copy as it was.
  CMemFile bad(0, 0, 1024, 64, TRUE);
  EXPECT_NE(0u, p->Load(&bad));
  EXPECT_EQ(11, p->m_Header.nHeight);
  // The copy goes stale when the wrapped font changes behind its back.
  inner->m_Header.nHeight = 3;
  EXPECT_EQ(11, p->m_Header.nHeight);
  EXPECT_EQ(5, p->GetHeight());
  delete p;
  delete inner;
}

TEST_F(OffsetFont, NullFontAsserts) {
  AssertCatcher ac;
  COffsetFont* p = new COffsetFont(nullptr, 1);
  EXPECT_TRUE(ac.Fired("pFont"));
  EXPECT_EQ(0, p->GetHeight());
  EXPECT_EQ(0, p->GetTextWidth("A", 1));
  delete p;
}

// ---------------------------------------------------------------------------------------------
// File form

std::vector<BYTE> FileBytes(CFile* f) {
  std::vector<BYTE> v(f->GetSize());
  f->Seek(0, FILE_BEGIN);
  if (!v.empty()) {
    EXPECT_EQ(0u, f->Read(v.data(), (DWORD)v.size(), nullptr));
  }
  return v;
}

TEST_F(ImageFontFile, SaveWritesHeaderFieldsThenABottomUpBitmap) {
  TestFont f = SmallFont(-2);
  CImageFont* p = MakeImageFont(f);
  memcpy(p->m_Header.achReserved, "reserved text, copied along....", 32);
  p->m_Header.nPadBelow = 0x0102;
  p->m_Header.nPadAbove = 0x0304;
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, p->Save(&out));
  const std::vector<BYTE> v = FileBytes(&out);
  ASSERT_GT(v.size(), (size_t)FONT_HEADER_SIZE + 54);
  EXPECT_EQ(0, memcmp(v.data(), "reserved text, copied along....", 32));
  EXPECT_EQ(4, v[0x20]);
  EXPECT_EQ(0, v[0x21]);
  EXPECT_EQ(5, v[0x24]);  // widest
  EXPECT_EQ(0x02, v[0x2A]);
  EXPECT_EQ(0x01, v[0x2B]);
  EXPECT_EQ(0x04, v[0x2C]);
  EXPECT_EQ(0xFE, v[0x2E]);  // -2
  EXPECT_EQ(0xFF, v[0x2F]);
  EXPECT_EQ(4, v[0x30]);
  EXPECT_EQ(5, v[0x32 + 'A']);
  EXPECT_EQ(4, v[0x32 + '?']);
  EXPECT_EQ(1, v[0x132 + 'B']);
  EXPECT_EQ(0xFF, v[0x132 + '?']);
  EXPECT_EQ('B', v[FONT_HEADER_SIZE]);
  EXPECT_EQ('M', v[FONT_HEADER_SIZE + 1]);
  // A positive height in the bitmap header: bottom-up, and the image in memory turned too.
  EXPECT_EQ(16, (LONG)GetLE32(&v[FONT_HEADER_SIZE + 22]));
  EXPECT_LT(p->m_pFontImage->m_nPitch, 0);
  delete p;
}

TEST_F(ImageFontFile, LoadReadsWhatSaveWrote) {
  TestFont f = SmallFont(1);
  CImageFont* p = MakeImageFont(f);
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, p->Save(&out));
  out.Seek(0, FILE_BEGIN);
  CImageFont* q = new CImageFont();
  ASSERT_EQ(0u, q->Load(&out));
  EXPECT_EQ(0, memcmp(&p->m_Header, &q->m_Header, sizeof(TFontHeader)));
  const std::vector<DWORD> loaded =
      DrawnPixels(20, 4, BF_8BIT, 0, [&](CDC* dc) { q->DrawText(dc, 0, 0, "AB iA", 5, nullptr); });
  EXPECT_EQ(DrawnPixels(20, 4, BF_8BIT, 0, [&](CDC* dc) { p->DrawText(dc, 0, 0, "AB iA", 5, nullptr); }),
            loaded);
  EXPECT_NE(std::vector<DWORD>(80, 0), loaded);
  delete q;
  delete p;
}

TEST_F(ImageFontFile, LoadFailures) {
  CImageFont* p = MakeImageFont(SmallFont(0));
  CMemFile out(0, 0, 1u << 20, 256, TRUE);
  ASSERT_EQ(0u, p->Save(&out));
  std::vector<BYTE> v = FileBytes(&out);
  // A short header: the read's error, and the old image is gone.
  const TFontHeader before = p->m_Header;
  v[0x20] = 9;         // the height, among the bytes that arrive
  v[0x32 + 'A'] = 77;  // the width of A, past them
  CMemFile shortHeader(0, 0, 1u << 20, 256, TRUE);
  shortHeader.Write(v.data(), 100, nullptr);
  shortHeader.Seek(0, FILE_BEGIN);
  EXPECT_EQ(ERR_FILE_EOF, p->Load(&shortHeader));
  EXPECT_EQ(nullptr, p->m_pFontImage);
  // The bytes that arrived are in the header; the rest is as it was.
  EXPECT_EQ(9, p->m_Header.nHeight);
  EXPECT_EQ(before.abtWidth[(unsigned char)'A'], p->m_Header.abtWidth[(unsigned char)'A']);
  EXPECT_EQ(0, memcmp(before.abtIndex, p->m_Header.abtIndex, 256));
  v[0x20] = (BYTE)before.nHeight;
  // A whole header but no bitmap behind it: 1.
  CMemFile headerOnly(0, 0, 1u << 20, 256, TRUE);
  headerOnly.Write(v.data(), FONT_HEADER_SIZE + 10, nullptr);
  headerOnly.Seek(0, FILE_BEGIN);
  EXPECT_EQ(1u, p->Load(&headerOnly));
  EXPECT_EQ(nullptr, p->m_pFontImage);
  EXPECT_EQ((ERR)-1, p->Save(&out));
  delete p;
}

class ImageFontDisk : public DiskTest {
 protected:
  ImageFontDisk() : DiskTest("font") {}
};

TEST_F(ImageFontDisk, CreateFontFromFile) {
  CImageFont* p = MakeImageFont(SmallFont(0));
  ERR err = 0;
  CFile* file = FileOpen(P("a.fnt").c_str(), FILE_MODE_CREATE, &err);
  ASSERT_NE(nullptr, file);
  ASSERT_EQ(0u, p->Save(file));
  delete file;
  CImageFont* q = CreateFontFromFile(P("a.fnt").c_str());
  ASSERT_NE(nullptr, q);
  EXPECT_EQ(4, q->GetHeight());
  EXPECT_EQ(5, q->GetCharWidth('A'));
  delete q;
  EXPECT_EQ(nullptr, CreateFontFromFile(P("missing.fnt").c_str()));
  // A file that is a bitmap alone is not a font.
  ASSERT_EQ(0u, BmpSave(P("b.bmp").c_str(), p->m_pFontImage, 0));
  EXPECT_EQ(nullptr, CreateFontFromFile(P("b.bmp").c_str()));
  delete p;
  // A font made by fonttool from the committed BDF sample.
  q = CreateFontFromFile(SETUP_TEST_DATA "/fonts/sample.fnt");
  ASSERT_NE(nullptr, q);
  EXPECT_GT(q->GetHeight(), 0);
  EXPECT_GT(q->GetTextWidth("Hi", 2), 0);
  delete q;
}

// ---------------------------------------------------------------------------------------------
// Damaged headers

TEST_F(ImageFontDamaged, HeaderClaimsMoreThanTheImageHolds) {
  TestFont f = SmallFont(0);
  CImageFont* p = MakeImageFont(f);
  // 200 glyphs of 300 rows in an image of 16 rows; 'B' points far past the strip.
  p->m_Header.nGlyphs = 200;
  p->m_Header.nHeight = 300;
  p->m_Header.abtIndex[(unsigned char)'B'] = 150;
  p->m_Header.abtWidth[(unsigned char)'B'] = 255;
  const std::vector<DWORD> got =
      DrawnPixels(40, 40, BF_8BIT, 0, [&](CDC* dc) { p->DrawText(dc, 0, 0, "ABA", 3, nullptr); });
  // 'A' comes from rows 0..299 of the image, of which the 16 there are drawn; 'B' from rows
  // the image doesn't have, and the last A lies past the target.
  CBitmap* strip = StripOf(f);
  const std::vector<DWORD> img = PixelsOf(*strip);
  std::vector<DWORD> want(40 * 40, 0);
  for (int y = 0; y < 16; y++)
    for (int x = 0; x < 5; x++) want[(size_t)y * 40 + x] = img[(size_t)y * strip->m_nWidth + x];
  EXPECT_EQ(Picture(want, 40), Picture(got, 40));
  delete strip;
  // A negative height draws nothing.
  p->m_Header.nHeight = -4;
  EXPECT_EQ(std::vector<DWORD>(32, 0),
            DrawnPixels(8, 4, BF_8BIT, 0, [&](CDC* dc) { p->DrawText(dc, 0, 0, "AB", 2, nullptr); }));
  delete p;
}

}  // namespace
