// Cursors: made from bitmap files with a hot spot and a sampled transparent value, their
// rectangle, drawing into a picture, and the two 1-bit planes of an operating-system cursor.
#include <filesystem>

#include "files/stdfile.h"
#include "fonttest.h"
#include "graphics/bmpfile.h"
#include "testutil.h"

namespace {

// An 8-bit picture with the ramp palette from rows of hex digits, one per pixel.
CBitmap* Picture8(const std::vector<std::string>& rows) {
  const int w = (int)rows[0].size(), h = (int)rows.size();
  CBitmap* b = MakeBitmap(w, h, BF_8BIT, BL_BACKWARD, 0, RampPalette());
  std::vector<BYTE> block = ReadBlock(*b);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      block[PixelOffset(*b, x, y)] = (BYTE)std::stoi(std::string(1, rows[y][x]), 0, 16);
  WriteBlock(*b, block);
  return b;
}

class CursorFile : public DiskTest {
 protected:
  CursorFile() : DiskTest("cursor") {}
  // An 8-bit picture from rows of hex digits, saved as a file.
  std::string Save(const char* name, const std::vector<std::string>& rows) {
    CBitmap* b = Picture8(rows);
    EXPECT_EQ(0u, BmpSave(P(name).c_str(), b, 0));
    delete b;
    return P(name);
  }
};

class CursorShape : public CursorFile {};
class CursorPlanes : public MemBalance {};

const std::vector<std::string> kArrow = {
    "5000",  //
    "5500",  //
    "5a50",  //
    "5550",  //
    "0050",  //
};

TEST_F(CursorFile, HotSpotAndSampledTransparentValue) {
  const std::string path = Save("arrow.bmp", kArrow);
  CCursor* c = CreateCursorFromFile(path.c_str(), 1, 2, 3, 0);
  ASSERT_NE(nullptr, c);
  ASSERT_NE(nullptr, c->m_pBitmap);
  EXPECT_EQ(4, c->m_pBitmap->m_nWidth);
  EXPECT_EQ(5, c->m_pBitmap->m_nHeight);
  EXPECT_EQ(1, c->m_ptHotSpot.x);
  EXPECT_EQ(2, c->m_ptHotSpot.y);
  EXPECT_EQ(0u, c->m_dwTrans);  // the pixel at (3, 0)
  delete c->m_pBitmap;
  delete c;
  // Sampling a set pixel makes that value transparent instead.
  c = CreateCursorFromFile(path.c_str(), 0, 0, 1, 2);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ(0xAu, c->m_dwTrans);
  EXPECT_EQ(0xD376327u, c->GetClassId());
  EXPECT_STREQ("CCursor", c->GetClassName());
  delete c->m_pBitmap;
  delete c;
}

TEST_F(CursorFile, BitmapsMadeByAnotherToolLoad) {
  // 13 x 7 pictures written by an independent image tool, 8 and 24 bits.
  CCursor* c = CreateCursorFromFile(SETUP_TEST_DATA "/bmp/im_24bit_bottomup.bmp", 6, 3, 12, 6);
  ASSERT_NE(nullptr, c);
  EXPECT_EQ(13, c->m_pBitmap->m_nWidth);
  // The 24-bit fixture's pixel at (12, 6): red 19x, green 37y, blue 11xy + 5, each mod 256.
  const DWORD want =
      (DWORD)((11 * 12 * 6 + 5) % 256) | (DWORD)((37 * 6) % 256) << 8 | (DWORD)((19 * 12) % 256) << 16;
  EXPECT_EQ(want, c->m_dwTrans);
  delete c->m_pBitmap;
  delete c;
  c = CreateCursorFromFile(SETUP_TEST_DATA "/bmp/im_8bit_topdown.bmp", 0, 0, 2, 1);
  ASSERT_NE(nullptr, c);
  // The tool orders the palette its own way: the sampled index names the colour of the
  // fixture's pixel (2, 1), pure blue.
  TColor col = {1, 1, 1, 1};
  ASSERT_EQ(0u, PaletteOf(*c->m_pBitmap)->GetColor(c->m_dwTrans, &col));
  EXPECT_EQ(255, col.btBlue);
  EXPECT_EQ(0, col.btGreen);
  EXPECT_EQ(0, col.btRed);
  delete c->m_pBitmap;
  delete c;
}

TEST_F(CursorFile, FailuresGiveNothing) {
  EXPECT_EQ(nullptr, CreateCursorFromFile(P("missing.bmp").c_str(), 0, 0, 0, 0));
  EXPECT_EQ(nullptr, CreateCursorFromFile(SETUP_TEST_DATA "/bmp/broken/truncated_pixels.bmp", 0, 0, 0, 0));
  // An image without pixels: deleted again (the memory balance of the test checks it).
  CBitmap* empty = new CBitmap();
  ASSERT_EQ(0u, empty->Create(0, 3, BF_8BIT, nullptr, BL_BACKWARD, 0));
  ASSERT_EQ(0u, BmpSave(P("empty.bmp").c_str(), empty, 0));
  delete empty;
  EXPECT_EQ(nullptr, CreateCursorFromFile(P("empty.bmp").c_str(), 0, 0, 0, 0));
}

TEST_F(CursorFile, PositionsOutsideAssertButTheCursorIsMade) {
  const std::string path = Save("arrow.bmp", kArrow);
  AssertCatcher ac;
  CCursor* c = CreateCursorFromFile(path.c_str(), 4, 5, 9, -1);
  ASSERT_NE(nullptr, c);
  ASSERT_EQ(3u, ac.Count());
  EXPECT_EQ("xHotSpot < pbmp->m_nWidth", AssertExpr(ac.Texts()[0]));
  EXPECT_EQ("yHotSpot < pbmp->m_nHeight", AssertExpr(ac.Texts()[1]));
  EXPECT_EQ("xTrans < pbmp->m_nWidth", AssertExpr(ac.Texts()[2]));
  // The sample lies outside: a value no 8-bit pixel has.
  EXPECT_EQ(0xFFFFFFFFu, c->m_dwTrans);
  EXPECT_EQ(4, c->m_ptHotSpot.x);
  delete c->m_pBitmap;
  delete c;
  ac.Clear();
  c = CreateCursorFromFile(path.c_str(), 0, 0, 0, 5);
  ASSERT_NE(nullptr, c);
  ASSERT_EQ(1u, ac.Count());
  EXPECT_EQ("yTrans < pbmp->m_nHeight", AssertExpr(ac.Texts()[0]));
  delete c->m_pBitmap;
  delete c;
}

TEST_F(CursorShape, RectangleFollowsThePositionLessTheHotSpot) {
  CBitmap* b = Picture8(kArrow);
  const TPoint hot = {1, 2};
  CCursor c(b, &hot, 0);
  TRect rc;
  const TPoint at = {10, -4};
  c.GetRect(&rc, &at);
  EXPECT_EQ(9, rc.left);
  EXPECT_EQ(-6, rc.top);
  EXPECT_EQ(12, rc.right);
  EXPECT_EQ(-2, rc.bottom);
  CCursor none(nullptr, &hot, 0);
  none.GetRect(&rc, &at);
  EXPECT_EQ(1, rc.left);
  EXPECT_EQ(1, rc.top);
  EXPECT_EQ(0, rc.right);
  EXPECT_EQ(0, rc.bottom);
  delete b;
}

TEST_F(CursorShape, DrawnIntoAPictureWithItsTransparency) {
  const std::string path = Save("arrow.bmp", kArrow);
  CCursor* c = CreateCursorFromFile(path.c_str(), 1, 1, 3, 0);
  ASSERT_NE(nullptr, c);
  for (SHORT fmt : {BF_8BIT, BF_24BIT}) {
    CBitmap* target = FilledTarget(8, 8, fmt, 0x0C);
    const TPoint at = {3, 4};
    {
      CMemoryDC dc(target);
      dc.DrawCursor(c, &at);
    }
    // Expected: every non-transparent pixel of the arrow at at - hot spot, in the target's
    // form (8 bits: the index; 24 bits: the ramp palette's colour of that index).
    std::vector<DWORD> want(64, 0x0Cu);
    for (int y = 0; y < 5; y++)
      for (int x = 0; x < 4; x++) {
        const int v = std::stoi(std::string(1, kArrow[y][x]), 0, 16);
        if (v == 0) continue;
        const int tx = at.x - 1 + x, ty = at.y - 1 + y;
        want[(size_t)ty * 8 + tx] =
            fmt == BF_8BIT ? (DWORD)v : (DWORD)(v * 5) | (DWORD)(255 - v * 16) << 8 | (DWORD)(v * 16) << 16;
      }
    EXPECT_EQ(Picture(want, 8), Picture(PixelsOf(*target), 8)) << "format " << fmt;
    delete target;
  }
  delete c->m_pBitmap;
  delete c;
}

// ---------------------------------------------------------------------------------------------
// Operating-system planes

// The bit of (x, y) in a plane of rows of (w + 7) / 8 bytes.
bool Bit(const std::vector<BYTE>& plane, int w, int x, int y) {
  return (plane[(size_t)y * ((w + 7) / 8) + x / 8] & (0x80 >> (x % 8))) != 0;
}

TEST_F(CursorPlanes, OpaqueIndexZeroIsBlackOthersWhite) {
  CBitmap* b = Picture8({"0123", "3210", "0330"});
  const TPoint hot = {0, 0};
  CCursor c(b, &hot, 3);  // index 3 is the transparent one here
  std::vector<BYTE> andPlane(128, 0x5A), xorPlane(128, 0x5A);
  ASSERT_TRUE(MakeCursorPlanes(&c, 32, 32, andPlane.data(), xorPlane.data(), 128));
  const char* const rows[] = {"0123", "3210", "0330"};
  for (int y = 0; y < 32; y++)
    for (int x = 0; x < 32; x++) {
      // Outside the 4 x 3 image the planes keep their transparent defaults.
      const bool inside = x < 4 && y < 3;
      const int v = inside ? rows[y][x] - '0' : -1;
      const bool opaque = inside && v != 3;
      EXPECT_EQ(!opaque, Bit(andPlane, 32, x, y)) << x << "," << y;
      EXPECT_EQ(opaque && v != 0, Bit(xorPlane, 32, x, y)) << x << "," << y;
    }
  delete b;
}

TEST_F(CursorPlanes, LargerBitmapIsCutAtTheSize) {
  std::vector<std::string> rows(40, std::string(40, '7'));
  CBitmap* b = Picture8(rows);
  const TPoint hot = {0, 0};
  CCursor c(b, &hot, 0);
  // A 12 x 10 cursor: 2 bytes a row, all its pixels opaque and white.
  std::vector<BYTE> andPlane(20), xorPlane(20);
  ASSERT_TRUE(MakeCursorPlanes(&c, 12, 10, andPlane.data(), xorPlane.data(), 20));
  for (int y = 0; y < 10; y++) {
    EXPECT_EQ(0x00, andPlane[y * 2]);
    EXPECT_EQ(0x0F, andPlane[y * 2 + 1]);  // the padding bits past column 11 stay set
    EXPECT_EQ(0xFF, xorPlane[y * 2]);
    EXPECT_EQ(0xF0, xorPlane[y * 2 + 1]);
  }
  delete b;
}

TEST_F(CursorPlanes, RefusedWithoutAn8BitImageOrRoom) {
  CBitmap* deep = MakeBitmap(4, 4, BF_24BIT, BL_FORWARD, 0);
  const TPoint hot = {0, 0};
  CCursor c24(deep, &hot, 0);
  std::vector<BYTE> a(128, 0x33), x(128, 0x33);
  EXPECT_FALSE(MakeCursorPlanes(&c24, 32, 32, a.data(), x.data(), 128));
  CCursor none(nullptr, &hot, 0);
  EXPECT_FALSE(MakeCursorPlanes(&none, 32, 32, a.data(), x.data(), 128));
  EXPECT_FALSE(MakeCursorPlanes(nullptr, 32, 32, a.data(), x.data(), 128));
  CBitmap* b = Picture8({"11", "11"});
  CCursor c(b, &hot, 0);
  // 64 x 64 needs 512 bytes a plane.
  EXPECT_FALSE(MakeCursorPlanes(&c, 64, 64, a.data(), x.data(), 128));
  EXPECT_FALSE(MakeCursorPlanes(&c, 0, 32, a.data(), x.data(), 128));
  EXPECT_EQ(std::vector<BYTE>(128, 0x33), a);
  EXPECT_EQ(std::vector<BYTE>(128, 0x33), x);
  delete b;
  delete deep;
}

}  // namespace
