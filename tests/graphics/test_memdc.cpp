// Memory device context: clipping and origin, pixels, lines and frames, fills, blits, tiling
// and sliced images, each checked pixel by pixel against a picture computed here.
#include <functional>

#include "gfxtest.h"
#include "graphics/memdc.h"
#include "testutil.h"

namespace {

class MemDC : public MemBalance {};
class Blit : public MemBalance {};
class Tile : public MemBalance {};

// The logical picture of an 8-bit bitmap, row by row, read through the layout rules.
std::vector<std::vector<int>> Picture(const CBitmap& bmp) {
  const auto v = ReadBlock(bmp);
  std::vector<std::vector<int>> pic(bmp.m_nHeight, std::vector<int>(bmp.m_nWidth));
  for (int y = 0; y < bmp.m_nHeight; y++)
    for (int x = 0; x < bmp.m_nWidth; x++) pic[y][x] = v[PixelOffset(bmp, x, y)];
  return pic;
}

// An 8-bit source whose pixel (x, y) is 16 * y + x + 1 (never 0).
CBitmap* NumberedSource(int w, int h, SHORT layout = BL_FORWARD) {
  CBitmap* b = MakeBitmap(w, h, BF_8BIT, layout, 0);
  auto v = ReadBlock(*b);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) v[PixelOffset(*b, x, y)] = (BYTE)(16 * y + x + 1);
  WriteBlock(*b, v);
  return b;
}
int Numbered(int x, int y) { return 16 * y + x + 1; }

TRect Rc(int l, int t, int r, int b) { return TRect{(SHORT)l, (SHORT)t, (SHORT)r, (SHORT)b}; }

typedef std::vector<std::vector<int>> Pic;

// The picture of a fresh w x h 8-bit bitmap of fill after draw ran on a context over it.
Pic Drawn(int w, int h, SHORT layout, BYTE fill, const std::function<void(CMemoryDC&)>& draw) {
  CBitmap* bmp = MakeBitmap(w, h, BF_8BIT, layout, fill);
  {
    CMemoryDC dc(bmp);
    draw(dc);
  }
  Pic pic = Picture(*bmp);
  delete bmp;
  return pic;
}

// A w x h picture whose pixel (x, y) is want(x, y).
Pic Expected(int w, int h, const std::function<int(int, int)>& want) {
  Pic pic(h, std::vector<int>(w));
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) pic[y][x] = want(x, y);
  return pic;
}

}  // namespace

TEST_F(MemDC, ClipOriginAndBounds) {
  CBitmap* bmp = MakeBitmap(10, 8, BF_8BIT, BL_FORWARD, 0);
  {
    CMemoryDC dc(bmp);
    EXPECT_EQ(1, HandleGetLockCount(bmp->m_hBits));
    TRect rc;
    dc.GetBounds(&rc);
    EXPECT_EQ(9, rc.right);
    EXPECT_EQ(7, rc.bottom);
    // The clip never grows past the bounds.
    TRect big = Rc(-5, -5, 100, 100);
    dc.SetClip(&big);
    dc.GetClip(&rc);
    EXPECT_EQ(0, rc.left);
    EXPECT_EQ(9, rc.right);
    dc.MoveOrigin(3, 2);
    TRect part = Rc(0, 0, 2, 2);
    dc.SetClip(&part);
    EXPECT_EQ(3, dc.m_rcClip.left);
    EXPECT_EQ(2, dc.m_rcClip.top);
    dc.GetClip(&rc);
    EXPECT_EQ(0, rc.left);
    EXPECT_EQ(2, rc.bottom);
    TPoint pt;
    dc.GetOrigin(&pt);
    EXPECT_EQ(3, pt.x);
    dc.GetExtraRect1(&rc);
    EXPECT_TRUE(rc.left == 1 && rc.top == 1 && rc.right == 0 && rc.bottom == 0);
    // Outside the clip but inside the bitmap: -1.
    EXPECT_EQ(0u, dc.GetPixel(0, 0));
    EXPECT_EQ(0xFFFFFFFFu, dc.GetPixel(3, 0));
    EXPECT_EQ(0xFFFFFFFFu, dc.GetPixel(-1, 0));
    dc.SetPixel(3, 0, 9);  // outside: nothing
    dc.SetPixel(2, 1, 7);  // device (5, 3)
    EXPECT_EQ(bmp, dc.GetBitmap());
  }
  EXPECT_EQ(0, HandleGetLockCount(bmp->m_hBits));
  auto pic = Picture(*bmp);
  for (int y = 0; y < 8; y++)
    for (int x = 0; x < 10; x++) ASSERT_EQ(x == 5 && y == 3 ? 7 : 0, pic[y][x]);
  delete bmp;
}

TEST_F(MemDC, BaseClassStubs) {
  CDC dc;
  EXPECT_EQ(0u, dc.GetPixel(0, 0));
  EXPECT_EQ(nullptr, dc.GetBitmap());
  TRect rc;
  dc.GetClip(&rc);
  EXPECT_TRUE(rc.left == 0 && rc.top == 0 && rc.right == 0 && rc.bottom == 0);
  EXPECT_EQ(0x29875C8u, dc.GetClassId());
}

TEST_F(MemDC, SetPixel24WritesZeroColourAndFlagByte) {
  for (SHORT layout : {(SHORT)BL_FORWARD, (SHORT)BL_BACKWARD}) {
    // Width 4: rows are 12 bytes with no padding, so the last pixel in memory ends the block.
    CBitmap* bmp = MakeBitmap(4, 2, BF_24BIT, layout, 0x55);
    {
      CMemoryDC dc(bmp);
      dc.SetPixel(1, 0, 0x123456);
      dc.SetPixel(2, 1, 0);
      const int lastX = 3, lastY = layout == BL_FORWARD ? 1 : 0;
      dc.SetPixel(lastX, (SHORT)lastY, 0xFFFFFF);
    }
    auto v = ReadBlock(*bmp);
    std::vector<BYTE> expect(v.size(), 0x55);
    auto put = [&](int x, int y, int flag) {
      const size_t o = PixelOffset(*bmp, x, y);
      expect[o] = expect[o + 1] = expect[o + 2] = 0;
      if (flag >= 0 && o + 3 < expect.size()) expect[o + 3] = (BYTE)flag;
    };
    put(1, 0, 1);
    put(2, 1, 0);
    put(3, layout == BL_FORWARD ? 1 : 0, 1);
    EXPECT_EQ(expect, v);
    delete bmp;  // the block's guards must be intact
  }
}

TEST_F(MemDC, ColourAndPixelConversions) {
  CPalette* pal = MakePalette({{0, 0, 0}, {200, 10, 10}, {10, 200, 10}});
  CBitmap* b8 = MakeBitmap(2, 2, BF_8BIT, BL_FORWARD, 0, pal);
  CBitmap* b16 = MakeBitmap(2, 2, BF_16BIT, BL_FORWARD, 0);
  CBitmap* b24 = MakeBitmap(2, 2, BF_24BIT, BL_FORWARD, 0);
  TColor c = MakeColor(190, 20, 5);
  DWORD px = 0;
  {
    CMemoryDC dc(b8);
    dc.ColorToPixel(&c, &px);
    EXPECT_EQ(1u, px);
    TColor out = MakeColor(9, 9, 9);
    out.btExtra = 0x42;
    DWORD idx = 2;
    dc.PixelToColor(&idx, &out);
    EXPECT_EQ(10, out.btRed);
    EXPECT_EQ(200, out.btGreen);
    idx = 3;  // past the count: black, btExtra kept
    out.btExtra = 0x42;
    dc.PixelToColor(&idx, &out);
    EXPECT_EQ(0, out.btRed | out.btGreen | out.btBlue);
    EXPECT_EQ(0x42, out.btExtra);
  }
  {
    CMemoryDC dc(b16);
    dc.ColorToPixel(&c, &px);
    EXPECT_EQ((DWORD)((190 & 0xF8) << 7 | (20 & 0xF8) << 2 | (5 >> 3)), px);
    TColor out;
    dc.PixelToColor(&px, &out);
    EXPECT_EQ((190 & 0xF8) | 3, out.btRed);
    EXPECT_EQ((20 & 0xF8) | 3, out.btGreen);
    EXPECT_EQ(3, out.btBlue);
  }
  {
    CMemoryDC dc(b24);
    dc.ColorToPixel(&c, &px);
    EXPECT_EQ(0xBE1405u, px);
    TColor out;
    dc.PixelToColor(&px, &out);
    EXPECT_EQ(190, out.btRed);
    EXPECT_EQ(5, out.btBlue);
  }
  delete b8;
  delete b16;
  delete b24;
}

TEST_F(MemDC, EightBitColorToPixelIsThePaletteSearch) {
  const TColor c = MakeColor(190, 20, 5);
  // No palette: 0.
  CBitmap* bare = MakeBitmap(2, 2, BF_8BIT, BL_FORWARD, 0);
  {
    CMemoryDC dc(bare);
    DWORD px = 0x55;
    dc.ColorToPixel(&c, &px);
    EXPECT_EQ(0u, px);
  }
  delete bare;
  // A palette with no colours finds nothing and writes nothing: the pixel keeps its value.
  CBitmap* empty = MakeBitmap(2, 2, BF_8BIT, BL_FORWARD, 0, new CPalette());
  {
    CMemoryDC dc(empty);
    DWORD px = 0x55;
    dc.ColorToPixel(&c, &px);
    EXPECT_EQ(0x55u, px);
  }
  delete empty;
}

// Pixels a line covers, from the stepping rules, for a line inside the clip.
static std::vector<std::pair<int, int>> ModelLine(int x1, int y1, int x2, int y2) {
  if (x1 > x2) std::swap(x1, x2), std::swap(y1, y2);
  if (y1 > y2) std::swap(x1, x2), std::swap(y1, y2);
  int dx = std::abs(x2 - x1), dy = std::abs(y2 - y1);
  std::vector<std::pair<int, int>> v;
  if (dy < dx) {
    if (x1 > x2) std::swap(x1, x2), std::swap(y1, y2);
    int e = 2 * dy - dx, y = y1;
    for (int x = x1; x <= x2; x++) {
      v.push_back({x, y});
      if (e >= 0) y += y1 < y2 ? 1 : -1, e -= 2 * dx;
      e += 2 * dy;
    }
  } else {
    int e = 2 * dx - dy, x = x1;
    for (int y = y1; y <= y2; y++) {
      v.push_back({x, y});
      if (e >= 0) x += x1 < x2 ? 1 : -1, e -= 2 * dy;
      e += 2 * dx;
    }
  }
  return v;
}

TEST_F(MemDC, LinesInsideTheClip) {
  const int lines[][4] = {{1, 1, 1, 1},  {2, 0, 2, 9}, {2, 9, 2, 0},  {0, 3, 11, 3}, {0, 0, 11, 9},
                          {11, 0, 0, 9}, {3, 8, 9, 1}, {1, 2, 10, 5}, {10, 5, 1, 2}, {5, 0, 7, 9}};
  for (SHORT layout : {(SHORT)BL_FORWARD, (SHORT)BL_BACKWARD}) {
    for (const auto& l : lines) {
      Pic expect(10, std::vector<int>(12, 0));
      for (auto p : ModelLine(l[0], l[1], l[2], l[3])) expect[p.second][p.first] = 5;
      EXPECT_EQ(expect, Drawn(12, 10, layout, 0,
                              [&](CMemoryDC& dc) {
                                dc.DrawLine((SHORT)l[0], (SHORT)l[1], (SHORT)l[2], (SHORT)l[3], 5, LS_SOLID);
                              }))
          << l[0] << "," << l[1] << " " << l[2] << "," << l[3];
    }
  }
}

TEST_F(MemDC, LineClippedAtEveryEdgeStaysInside) {
  CBitmap* bmp = MakeBitmap(8, 6, BF_16BIT, BL_BACKWARD, 0);
  {
    CMemoryDC dc(bmp);
    TRect clip = Rc(2, 1, 5, 4);
    dc.SetClip(&clip);
    dc.DrawLine(-20, -7, 30, 20, 1, LS_SOLID);  // crosses left, top, right and bottom
    dc.DrawLine(20, -10, -10, 14, 2, LS_SOLID);
    dc.DrawLine(-5, 2, 40, 2, 3, LS_SOLID);
    dc.DrawLine(0, 0, 7, 0, 4, LS_SOLID);    // wholly above the clip
    dc.DrawLine(6, -9, 6, 20, 4, LS_SOLID);  // wholly right of it
  }
  int seen[5] = {0};
  auto v = ReadBlock(*bmp);
  for (int y = 0; y < 6; y++)
    for (int x = 0; x < 8; x++) {
      const int p = GetLE16(&v[PixelOffset(*bmp, x, y)]);
      if (x < 2 || x > 5 || y < 1 || y > 4) {
        ASSERT_EQ(0, p) << x << "," << y;
      }
      ASSERT_LE(p, 4);
      seen[p]++;
    }
  EXPECT_GT(seen[1], 0);
  EXPECT_GT(seen[2], 0);
  EXPECT_EQ(0, seen[4]);
  // The horizontal line runs from the left to the right clip edge.
  for (int x = 2; x <= 5; x++) EXPECT_EQ(3, GetLE16(&v[PixelOffset(*bmp, x, 2)]));
  delete bmp;
}

TEST_F(MemDC, LineWithEmptyClipDrawsNothing) {
  // A clip narrowed to nothing (a window scrolled out of view) leaves left past right or top
  // past bottom; a line crossing it must draw nothing, not the span between the two edges.
  EXPECT_EQ(Pic(10, std::vector<int>(10, 0)), Drawn(10, 10, BL_FORWARD, 0, [](CMemoryDC& dc) {
              TRect past = Rc(20, 0, 30, 20);  // left beyond the bitmap: clip (20, 0, 9, 9)
              dc.SetClip(&past);
              dc.DrawLine(0, 9, 25, 9, 7, LS_SOLID);
              TRect below = Rc(0, 20, 9, 30);  // top beyond the bitmap: clip (0, 20, 9, 9)
              dc.SetClip(&below);
              dc.DrawLine(3, 0, 3, 25, 7, LS_SOLID);
              TRect none = Rc(5, 5, 4, 4);  // x clipping would leave both ends on one column
              dc.SetClip(&none);
              dc.DrawLine(4, 4, 5, 5, 7, LS_SOLID);
            }));
}

TEST_F(MemDC, StyledAnd3DFrames) {
  // A style bit per pixel, rotating left; the top bit decides.
  auto bitAt = [](WORD style, int k) {
    return ((style << (k % 16)) | (style >> ((16 - k % 16) % 16))) & 0x8000;
  };
  const WORD style = 0xCCCC ^ 0x0F00;  // irregular, so a wrong phase shows
  const int l = 1, t = 2, r = 19, b = 9, W = r - l + 1, H = b - t + 1;
  auto rot = [](WORD s, int n) { return (WORD)((s << n) | (s >> ((16 - n) % 16))); };
  const WORD s0 = style, s1 = rot(s0, (W - 1) % 16), s2 = rot(s1, (H - 1) % 16), s3 = rot(s2, (W - 1) % 16);
  std::vector<std::vector<int>> expect(12, std::vector<int>(24, 0));
  // Lines run left to right and top to bottom whatever the order of their ends.
  for (int k = 0; k < W; k++) {
    if (bitAt(s0, k)) expect[t][l + k] = 3;
    if (bitAt(s2, k)) expect[b][l + k] = 3;
  }
  for (int k = 0; k < H; k++) {
    if (bitAt(s1, k)) expect[t + k][r] = 3;
    if (bitAt(s3, k)) expect[t + k][l] = 3;
  }
  EXPECT_EQ(expect, Drawn(24, 12, BL_FORWARD, 0, [&](CMemoryDC& dc) {
              TRect rc = Rc(l, t, r, b);
              dc.FrameRect(&rc, 3, style);
            }));
  // A 3D frame: top and left light, right and bottom dark; the right edge is drawn after the
  // top and the left edge comes last, so the corners they share are theirs.
  const Pic pic = Drawn(6, 5, BL_BACKWARD, 0, [](CMemoryDC& dc) {
    TRect rc = Rc(1, 1, 4, 3);
    dc.Frame3D(&rc, 1, 2);
  });
  EXPECT_EQ(Expected(6, 5,
                     [](int x, int y) {
                       if (x < 1 || x > 4 || y < 1 || y > 3) return 0;
                       if (x == 1) return 1;
                       if (x == 4 || y == 3) return 2;
                       return y == 1 ? 1 : 0;
                     }),
            pic);
}

TEST_F(MemDC, FillRectClipsAndDepths) {
  for (SHORT fmt : {(SHORT)BF_8BIT, (SHORT)BF_16BIT, (SHORT)BF_24BIT, (SHORT)BF_32BIT}) {
    CBitmap* bmp = MakeBitmap(7, 5, fmt, BL_BACKWARD, 0xEE);
    const auto before = ReadBlock(*bmp);
    {
      CMemoryDC dc(bmp);
      TRect clip = Rc(1, 1, 5, 3);
      dc.SetClip(&clip);
      TRect outside = Rc(6, 0, 9, 4);
      dc.FillRect(&outside, 0);  // wholly outside the clip: nothing
      EXPECT_EQ(before, ReadBlock(*bmp));
      dc.MoveOrigin(-1, 0);
      TRect rc = Rc(0, 0, 3, 9);  // device 0..2 across, clipped to 1..2 and rows 1..3
      dc.FillRect(&rc, 0x00A1B2C3);
    }
    const int bytes = FormatBytes(fmt);
    std::vector<BYTE> expect = before;
    for (int y = 1; y <= 3; y++)
      for (int x = 1; x <= 2; x++)
        for (int k = 0; k < bytes; k++) expect[PixelOffset(*bmp, x, y) + k] = (BYTE)(0x00A1B2C3u >> (8 * k));
    EXPECT_EQ(expect, ReadBlock(*bmp)) << fmt;
    delete bmp;
  }
}

TEST_F(Blit, NegativeSourceAndClipKeepPicturePlace) {
  CBitmap* src = NumberedSource(5, 4);
  // Source from (-2, -1): the image lands as if drawn whole at (3, 2) and cut: the requested
  // 6 x 6 at (1, 1) less the 2 x 1 shift, cut to the source's 5 x 4.
  EXPECT_EQ(Expected(10, 8,
                     [](int x, int y) {
                       const int sx = x - 3, sy = y - 2;
                       return sx >= 0 && sx < 4 && sy >= 0 && sy < 4 && x < 7 && y < 7 ? Numbered(sx, sy) : 0;
                     }),
            Drawn(10, 8, BL_BACKWARD, 0,
                  [&](CMemoryDC& dc) { dc.Blit(src, 1, 1, 6, 6, -2, -1, TRANS_NONE, nullptr); }));
  // Clipped to the target's clip, with an origin.
  CBitmap* back = NumberedSource(6, 6, BL_BACKWARD);
  EXPECT_EQ(
      Expected(9, 9,
               [](int x, int y) { return x >= 2 && x <= 5 && y >= 1 && y <= 4 ? Numbered(x - 1, y) : 0; }),
      Drawn(9, 9, BL_FORWARD, 0, [&](CMemoryDC& dc) {
        dc.MoveOrigin(2, 1);
        TRect clip = Rc(0, 0, 3, 3);  // device (2, 1)..(5, 4)
        dc.SetClip(&clip);
        dc.Blit(back, -1, -1, 32000, 32000, 0, 0, TRANS_NONE, nullptr);  // device (1, 0)
      }));
  delete back;
  delete src;
}

TEST_F(Blit, TransparencyAndUnlistedFormats) {
  CBitmap* src = NumberedSource(3, 3);
  CBitmap* dst = MakeBitmap(3, 3, BF_8BIT, BL_FORWARD, 0x99);
  CBitmap* src32 = MakeBitmap(3, 3, BF_32BIT, BL_FORWARD, 0x11);
  {
    CMemoryDC dc(dst);
    dc.Blit(src, 0, 0, 3, 3, 0, 0, Numbered(1, 1), nullptr);
    dc.Blit(src32, 0, 0, 3, 3, 0, 0, TRANS_NONE, nullptr);                     // no 32-bit source kernel
    dc.BlitList(src, g_pCopyList + 1, 0, 0, 3, 3, 0, 0, TRANS_NONE, nullptr);  // a list without 8 to 8
  }
  auto pic = Picture(*dst);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 3; x++) EXPECT_EQ(x == 1 && y == 1 ? 0x99 : Numbered(x, y), pic[y][x]);
  {
    AssertCatcher ac;
    CMemoryDC dc(dst);
    dc.BlitList(src, nullptr, 0, 0, 3, 3, 0, 0, TRANS_NONE, nullptr);
    EXPECT_TRUE(ac.Fired("pList"));
  }
  delete src;
  delete dst;
  delete src32;
}

TEST_F(Blit, DirectColourSourceOnIndexedTarget) {
  CPalette* pal = MakePalette({{0, 0, 0}, {255, 0, 0}, {0, 0, 255}});
  CBitmap* src = MakeBitmap(2, 1, BF_24BIT, BL_BACKWARD, 0);
  std::vector<BYTE> v = ReadBlock(*src);
  const BYTE px[6] = {250, 0, 0, 0, 0, 240};  // blue, red
  memcpy(v.data(), px, 6);
  WriteBlock(*src, v);
  CBitmap* dst = MakeBitmap(2, 1, BF_8BIT, BL_FORWARD, 9, pal);
  {
    CMemoryDC dc(dst);
    dc.Blit(src, 0, 0, 2, 1, 0, 0, TRANS_NONE, nullptr);
  }
  EXPECT_EQ(2u, dst->GetPixel(0, 0));
  EXPECT_EQ(1u, dst->GetPixel(1, 0));
  delete src;
  delete dst;
}

TEST_F(Blit, GrabBitmapCopiesOut) {
  CBitmap* screen = NumberedSource(8, 6, BL_BACKWARD);
  CBitmap* save = MakeBitmap(4, 3, BF_8BIT, BL_FORWARD, 0);
  CBitmap* save16 = MakeBitmap(4, 3, BF_16BIT, BL_FORWARD, 0);
  {
    CMemoryDC dc(screen);
    dc.MoveOrigin(1, 1);
    dc.GrabBitmap(save, 2, 1, 10, 10, 1, 0);  // cut to 3 x 3 by the saved bitmap
    dc.GrabBitmap(save16, 0, 0, 4, 3, 0, 0);  // depths differ: nothing
  }
  auto pic = Picture(*save);
  for (int y = 0; y < 3; y++)
    for (int x = 0; x < 4; x++) EXPECT_EQ(x == 0 ? 0 : Numbered(x - 1 + 3, y + 2), pic[y][x]);
  for (BYTE b : ReadBlock(*save16)) EXPECT_EQ(0, b);
  delete screen;
  delete save;
  delete save16;
}

TEST_F(Blit, DrawCursorAtHotSpot) {
  CBitmap* img = NumberedSource(3, 3);
  TPoint hot{1, 2}, at{4, 4};
  CCursor* cur = new CCursor(img, &hot, (DWORD)Numbered(0, 0));
  EXPECT_EQ(Expected(6, 6,
                     [](int x, int y) {
                       const int sx = x - 3, sy = y - 2;
                       return sx >= 0 && sx < 3 && sy >= 0 && sy < 3 && (sx || sy) ? Numbered(sx, sy) : 0;
                     }),
            Drawn(6, 6, BL_FORWARD, 0, [&](CMemoryDC& dc) { dc.DrawCursor(cur, &at); }));
  TRect rc;
  cur->GetRect(&rc, &at);
  EXPECT_EQ(3, rc.left);
  EXPECT_EQ(2, rc.top);
  EXPECT_EQ(5, rc.right);
  delete cur;
  delete img;
}

// Expected tiling: inside the area and clip, pixel (X, Y) shows the tile at ((X - x0) mod w,
// (Y - y0) mod h), the grid starting at the area's corner less |dx|, |dy|.
static std::vector<std::vector<int>> ExpectTiled(std::vector<std::vector<int>> pic, const TRect& area,
                                                 const TRect& clip, const TRect& src, int dx, int dy) {
  const int w = src.right - src.left + 1, h = src.bottom - src.top + 1;
  const int x0 = area.left - std::abs(dx), y0 = area.top - std::abs(dy);
  for (int y = std::max(area.top, clip.top); y <= std::min(area.bottom, clip.bottom); y++)
    for (int x = std::max(area.left, clip.left); x <= std::min(area.right, clip.right); x++)
      pic[y][x] = Numbered(src.left + (x - x0) % w, src.top + (y - y0) % h);
  return pic;
}

TEST_F(Tile, FastPathAndGenericAgree) {
  CBitmap* src = NumberedSource(7, 6);
  const TRect srcs[] = {Rc(1, 1, 3, 2), Rc(0, 0, 6, 5), Rc(2, 3, 2, 3), Rc(0, 0, 1, 4)};
  const TRect areas[] = {Rc(0, 0, 29, 19), Rc(3, 2, 25, 17), Rc(5, 5, 6, 6), Rc(-4, -3, 40, 30)};
  const TRect clips[] = {Rc(0, 0, 29, 19), Rc(4, 3, 21, 15), Rc(7, 1, 7, 18)};
  const int phases[][2] = {{0, 0}, {1, 0}, {-2, 5}, {13, 1}};
  for (const auto& s : srcs)
    for (const auto& a : areas)
      for (const auto& c : clips)
        for (const auto& ph : phases) {
          CBitmap* fast = MakeBitmap(30, 20, BF_8BIT, BL_BACKWARD, 0);
          CBitmap* slow = MakeBitmap(30, 20, BF_8BIT, BL_FORWARD, 0);
          TRect area = a;
          {
            CMemoryDC dc(fast);
            dc.SetClip(&c);
            dc.TileBitmap(&area, src, &s, TRANS_NONE, nullptr, (SHORT)ph[0], (SHORT)ph[1]);
            // The fast path hands back the clip it found in the caller's rectangle.
            EXPECT_EQ(c.left, area.left);
            EXPECT_EQ(c.bottom, area.bottom);
            EXPECT_EQ(c.left, dc.m_rcClip.left);  // and restores the clip
          }
          {
            CMemoryDC dc(slow);
            dc.SetClip(&c);
            TRect area2 = a;
            dc.CDC::TileBitmap(&area2, src, &s, TRANS_NONE, nullptr, (SHORT)ph[0], (SHORT)ph[1]);
          }
          const auto blank = std::vector<std::vector<int>>(20, std::vector<int>(30, 0));
          ASSERT_EQ(ExpectTiled(blank, a, c, s, ph[0], ph[1]), Picture(*fast));
          ASSERT_EQ(Picture(*fast), Picture(*slow));
          delete fast;
          delete slow;
        }
  delete src;
}

TEST_F(Tile, TransparentTilesWithMap) {
  CBitmap* src = NumberedSource(4, 4);
  BYTE map[256];
  for (int i = 0; i < 256; i++) map[i] = (BYTE)(i ^ 0x80);
  const TRect s = Rc(0, 0, 2, 1);
  EXPECT_EQ(Expected(20, 12,
                     [](int x, int y) {
                       if (x < 1 || x > 18 || y < 1 || y > 10) return 0xF0;
                       const int v = Numbered((x - 1) % 3, (y - 1) % 2);
                       return v == Numbered(1, 0) ? 0xF0 : v ^ 0x80;
                     }),
            Drawn(20, 12, BL_FORWARD, 0xF0, [&](CMemoryDC& dc) {
              TRect area = Rc(1, 1, 18, 10);
              dc.TileBitmap(&area, src, &s, (DWORD)Numbered(1, 0), map, 0, 0);
            }));
  delete src;
}

TEST_F(Tile, ShiftedClipWithOriginStaysInBitmap) {
  // With a non-zero origin the fast path clips against the area moved by the origin twice;
  // whatever it draws stays inside the target bitmap (the block's guards are checked on free).
  CBitmap* src = NumberedSource(3, 3);
  const Pic pic = Drawn(16, 16, BL_FORWARD, 0, [&](CMemoryDC& dc) {
    dc.MoveOrigin(5, 6);
    TRect area = Rc(-10, -10, 20, 20);
    const TRect s = Rc(0, 0, 2, 2);
    dc.TileBitmap(&area, src, &s, TRANS_NONE, nullptr, 0, 0);
  });
  EXPECT_NE(Pic(16, std::vector<int>(16, 0)), pic);
  delete src;
}

TEST_F(Tile, SourceOutsideBitmapAsserts) {
  CBitmap* src = NumberedSource(3, 3);
  AssertCatcher ac;
  EXPECT_EQ(Pic(8, std::vector<int>(8, 0)), Drawn(8, 8, BL_FORWARD, 0, [&](CMemoryDC& dc) {
              TRect area = Rc(0, 0, 7, 7);
              const TRect s = Rc(1, 1, 3, 3);
              dc.TileBitmap(&area, src, &s, TRANS_NONE, nullptr, 0, 0);
            }));
  EXPECT_TRUE(ac.Fired("w == Width(rcSrc) && h == Height(rcSrc)"));
  delete src;
}

// Expected sliced drawing: each target column maps to a source column (corners once, middle
// repeated), the same for rows; a middle of 0 leaves its strip untouched.
static int SlicedSourceIndex(int t, int lo, int hi, int s0, int a, int m, int b) {
  if (t < lo + a) return s0 + (t - lo);
  if (t > hi - b) return s0 + a + m + (t - (hi - b + 1));
  return m ? s0 + a + (t - lo - a) % m : -1;
}

TEST_F(Tile, DrawSlicedStretchesFrame) {
  CBitmap* src = NumberedSource(9, 8);
  const TRect s = Rc(1, 1, 8, 7);  // 8 x 7
  const int cases[][4] = {{2, 3, 1, 4}, {1, 0, 2, 2}, {3, 2, 2, 0}};
  for (const auto& c : cases) {
    const TRect area = Rc(2, 1, 21, 18);
    const int wRight = 8 - c[0] - c[1], hBottom = 7 - c[2] - c[3];
    EXPECT_EQ(
        Expected(24, 20,
                 [&](int x, int y) {
                   if (x < area.left || x > area.right || y < area.top || y > area.bottom) return 0;
                   const int sx = SlicedSourceIndex(x, area.left, area.right, s.left, c[0], c[1], wRight);
                   const int sy = SlicedSourceIndex(y, area.top, area.bottom, s.top, c[2], c[3], hBottom);
                   return sx >= 0 && sy >= 0 ? Numbered(sx, sy) : 0;
                 }),
        Drawn(24, 20, BL_BACKWARD, 0,
              [&](CMemoryDC& dc) {
                dc.DrawSliced(&area, src, &s, (SHORT)c[0], (SHORT)c[1], (SHORT)c[2], (SHORT)c[3], TRANS_NONE,
                              nullptr);
              }))
        << "case " << c[0] << c[1] << c[2] << c[3];
  }
  delete src;
}
