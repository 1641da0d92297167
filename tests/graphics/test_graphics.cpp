// Palette: colour access, searches, the inverse map, the candidate cube, the 16-bit table, and
// the bitmap class itself.
#include "gfxtest.h"
#include "testutil.h"

namespace {

std::vector<BYTE> LockedBytes(DWORD h, size_t n) {
  std::vector<BYTE> v(n);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  if (p) memcpy(v.data(), p, n);
  HANDLE_UNLOCK(h);
  return v;
}

// Candidates of a cell, computed from distances to the 24-level box rather than case by case.
std::vector<size_t> ExpectedCandidates(const std::vector<Rgb>& pal, int r, int g, int b) {
  auto nearFar = [](int c, int lo, int* pNear, int* pFar) {
    const int hi = lo + 24;
    *pNear = c < lo ? lo - c : c > hi ? c - hi : 0;
    *pFar = std::max(std::abs(c - lo), std::abs(c - hi));
  };
  std::vector<int> nears(pal.size());
  int threshold = 1 << 30;
  for (size_t i = 0; i < pal.size(); i++) {
    int n1, f1, n2, f2, n3, f3;
    nearFar(pal[i].r, r, &n1, &f1);
    nearFar(pal[i].g, g, &n2, &f2);
    nearFar(pal[i].b, b, &n3, &f3);
    nears[i] = std::max({n1, n2, n3});
    threshold = std::min(threshold, std::max({f1, f2, f3}));
  }
  std::vector<size_t> out;
  for (size_t i = 0; i < pal.size(); i++)
    if (nears[i] < threshold) out.push_back(i);
  return out;
}

class Palette : public MemBalance {};
class InvMap : public MemBalance {};
class Cube : public MemBalance {};
class Bitmap : public MemBalance {};

}  // namespace

TEST_F(Palette, ColorAccessAndEmptyPalette) {
  CPalette pal;
  TColor c = MakeColor(1, 2, 3);
  EXPECT_EQ(ERR_PAL_BADINDEX, pal.GetColor(0, &c));
  ASSERT_EQ(0u, pal.SetSize(3));
  EXPECT_EQ(0u, pal.SetColor(2, &c));
  TColor out = MakeColor(0, 0, 0);
  EXPECT_EQ(0u, pal.GetColor(2, &out));
  EXPECT_EQ(3, out.btBlue);
  EXPECT_EQ(2, out.btGreen);
  EXPECT_EQ(1, out.btRed);
  EXPECT_EQ(ERR_PAL_BADINDEX, pal.GetColor(3, &out));
  EXPECT_EQ(ERR_PAL_BADINDEX, pal.SetColor(3, &c));
  // SetColor stores all four bytes, btExtra included.
  c.btExtra = 0x77;
  EXPECT_EQ(0u, pal.SetColor(0, &c));
  EXPECT_EQ(0u, pal.GetColor(0, &out));
  EXPECT_EQ(0x77, out.btExtra);
  // Without colours a search writes nothing and no table can be built.
  CPalette none;
  DWORD idx = 42;
  EXPECT_EQ(0u, none.FindColor(&c, &idx));
  EXPECT_EQ(42u, idx);
  EXPECT_EQ(ERR_UNKNOWN, none.BuildInvMap());
  EXPECT_EQ(ERR_UNKNOWN, none.BuildCube());
  EXPECT_EQ(ERR_UNKNOWN, none.BuildHiColors());
  AssertCatcher ac;
  SHORT dist = 100;
  ScanColors(&c, 0, &c, &idx, &dist);
  EXPECT_TRUE(ac.Fired("dwColors"));
  EXPECT_EQ(42u, idx);
}

TEST_F(Palette, SetSizeToSameCountKeepsColoursAndTables) {
  CPalette* pal = MakePalette(RandomColors(16, 1));
  ASSERT_EQ(0u, pal->BuildInvMap());
  ASSERT_EQ(0u, pal->BuildHiColors());
  const DWORD hColors = pal->m_hColors, hMap = pal->m_hInvMap;
  EXPECT_EQ(0u, pal->SetSize(16));
  EXPECT_EQ(hColors, pal->m_hColors);
  EXPECT_EQ(hMap, pal->m_hInvMap);
  EXPECT_NE(0u, pal->m_hHiColors);
  // A new count drops every derived table.
  EXPECT_EQ(0u, pal->SetSize(17));
  EXPECT_EQ(0u, pal->m_hInvMap);
  EXPECT_EQ(0u, pal->m_hHiColors);
  EXPECT_EQ(0u, pal->m_hCube);
  EXPECT_EQ(17u, pal->m_dwColors);
  delete pal;
}

TEST_F(Palette, FindInRangeBoundsAndResults) {
  CPalette* pal = MakePalette({{0, 0, 0}, {100, 100, 100}, {200, 200, 200}, {100, 100, 100}});
  TColor c = MakeColor(110, 95, 100);
  DWORD idx = 99;
  SHORT dist = PAL_SEARCH_BOUND;
  // dwLast past the end searches to the last colour; of two equally near, the lower index wins.
  EXPECT_EQ(0u, pal->FindInRange(&c, 1, 1000, &idx, &dist));
  EXPECT_EQ(1u, idx);
  EXPECT_EQ(10, dist);
  idx = 99;
  dist = PAL_SEARCH_BOUND;
  EXPECT_EQ(0u, pal->FindInRange(&c, 2, 3, &idx, &dist));
  EXPECT_EQ(3u, idx);
  // A bound nothing beats leaves the index alone and the bound as it was.
  idx = 99;
  dist = 10;
  EXPECT_EQ(0u, pal->FindInRange(&c, 0, 3, &idx, &dist));
  EXPECT_EQ(99u, idx);
  EXPECT_EQ(10, dist);
  EXPECT_EQ(ERR_BADINDEX, pal->FindInRange(&c, 4, 4, &idx, &dist));
  EXPECT_EQ(ERR_BADPARAM, pal->FindInRange(&c, 2, 1, &idx, &dist));
  delete pal;
}

TEST_F(Palette, FindColorIsFirstNearest) {
  const auto colors = RandomColors(200, 7);
  CPalette* pal = MakePalette(colors);
  std::mt19937 rng(3);
  for (int k = 0; k < 2000; k++) {
    Rgb q{(int)(rng() & 0xFF), (int)(rng() & 0xFF), (int)(rng() & 0xFF)};
    TColor c = MakeColor((BYTE)q.r, (BYTE)q.g, (BYTE)q.b);
    DWORD idx = 9999;
    EXPECT_EQ(0u, pal->FindColor(&c, &idx));
    ASSERT_EQ(BruteNearest(colors, q), idx);
  }
  delete pal;
}

TEST_F(Palette, CopyConstructorCopiesColoursOnly) {
  const auto colors = RandomColors(10, 11);
  CPalette* pal = MakePalette(colors);
  ASSERT_EQ(0u, pal->BuildInvMap());
  CPalette* copy = new CPalette(*pal);
  EXPECT_EQ(10u, copy->m_dwColors);
  EXPECT_EQ(0u, copy->m_hInvMap);
  EXPECT_EQ(LockedBytes(pal->m_hColors, 40), LockedBytes(copy->m_hColors, 40));
  delete copy;
  delete pal;
}

TEST_F(Palette, HiColorTable) {
  const auto colors = RandomColors(37, 5);
  CPalette* pal = MakePalette(colors);
  ASSERT_EQ(0u, pal->BuildHiColors());
  auto v = LockedBytes(pal->m_hHiColors, 37 * 2);
  for (size_t i = 0; i < colors.size(); i++) {
    const int expect = ((colors[i].r >> 3) << 10) | ((colors[i].g >> 3) << 5) | (colors[i].b >> 3);
    EXPECT_EQ(expect, v[i * 2] | (v[i * 2 + 1] << 8)) << i;
  }
  delete pal;
}

TEST_F(Palette, CopyColorsRange) {
  CPalette* a = MakePalette(RandomColors(8, 1));
  CPalette* b = MakePalette(RandomColors(8, 2));
  ASSERT_EQ(0u, b->BuildInvMap());
  const auto before = LockedBytes(b->m_hColors, 32);
  const auto src = LockedBytes(a->m_hColors, 32);
  CopyColors(a, b, 2, 5, 3);
  auto after = LockedBytes(b->m_hColors, 32);
  std::vector<BYTE> expect = before;
  std::copy(src.begin() + 8, src.begin() + 20, expect.begin() + 20);
  EXPECT_EQ(expect, after);
  EXPECT_NE(0u, b->m_hInvMap);  // derived tables are left as they were
  {
    AssertCatcher ac;
    CopyColors(a, 0, 0, 0, 1);
    EXPECT_TRUE(ac.Fired("pSrc && pDst && pSrc->m_hColors && pDst->m_hColors"));
  }
  delete a;
  delete b;
}

// Each map byte is a nearest colour of its sample (the low corner of the 8-step); where the
// nearest colour is unique, it is that colour.
// Random palettes should give many samples with a unique nearest colour (nMinUnique).
static void CheckMapAgainstBruteForce(const std::vector<Rgb>& colors, const std::vector<BYTE>& v,
                                      int nMinUnique) {
  int unique = 0;
  for (int r = 0; r < 256; r += 8)
    for (int g = 0; g < 256; g += 8)
      for (int b = 0; b < 256; b += 8) {
        const Rgb s{r, g, b};
        const BYTE got = v[((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3)];
        ASSERT_LT(got, colors.size());
        const size_t best = BruteNearest(colors, s);
        const int d = ColorDist(colors[best], s);
        ASSERT_EQ(d, ColorDist(colors[got], s)) << r << "," << g << "," << b;
        int ties = 0;
        for (const auto& c : colors) ties += ColorDist(c, s) == d;
        if (ties == 1) {
          ASSERT_EQ(best, got) << r << "," << g << "," << b;
          unique++;
        }
      }
  EXPECT_GE(unique, nMinUnique);
}

TEST_F(InvMap, AgreesWithBruteForceNearest) {
  std::vector<std::vector<Rgb>> palettes;
  for (unsigned seed : {1u, 2u})
    for (size_t n : {2u, 16u, 256u}) palettes.push_back(RandomColors(n, seed * 1000 + (unsigned)n));
  // A grey ramp and a palette crowded into one corner: many cells see few candidates, and
  // many samples have tied nearest colours.
  const size_t nRandom = palettes.size();
  std::vector<Rgb> ramp, cluster;
  for (int i = 0; i < 256; i++) ramp.push_back({i, i, i});
  std::mt19937 rng(9);
  for (int i = 0; i < 64; i++) cluster.push_back({(int)(rng() % 40), (int)(rng() % 40), (int)(rng() % 40)});
  palettes.push_back(ramp);
  palettes.push_back(cluster);
  palettes.push_back({{12, 200, 7}});  // one colour: everything maps to 0
  for (size_t k = 0; k < palettes.size(); k++) {
    SCOPED_TRACE("palette " + std::to_string(k));
    CPalette* pal = MakePalette(palettes[k]);
    ASSERT_EQ(0u, pal->BuildInvMap());
    CheckMapAgainstBruteForce(palettes[k], LockedBytes(pal->m_hInvMap, PAL_INVMAP_SIZE),
                              k < nRandom ? 1001 : 0);
    delete pal;
  }
}

TEST_F(InvMap, SameWithAndWithoutCube) {
  const auto colors = RandomColors(100, 77);
  CPalette* pal = MakePalette(colors);
  ASSERT_EQ(0u, pal->BuildInvMap());
  const auto plain = LockedBytes(pal->m_hInvMap, PAL_INVMAP_SIZE);
  ASSERT_EQ(0u, pal->BuildCube());
  ASSERT_EQ(0u, pal->BuildInvMap());
  EXPECT_EQ(plain, LockedBytes(pal->m_hInvMap, PAL_INVMAP_SIZE));
  delete pal;
}

TEST_F(InvMap, StaleAfterSetColor) {
  CPalette* pal = MakePalette({{0, 0, 0}, {255, 255, 255}});
  ASSERT_EQ(0u, pal->BuildInvMap());
  TColor c = MakeColor(250, 250, 250);
  ASSERT_EQ(0u, pal->SetColor(0, &c));
  // White still maps to 1 and black to 0, though colour 0 is now nearly white.
  auto v = LockedBytes(pal->m_hInvMap, PAL_INVMAP_SIZE);
  EXPECT_EQ(0, v[0]);
  EXPECT_EQ(1, v[0x7FFF]);
  delete pal;
}

TEST_F(InvMap, FailedScratchAllocationLeavesNoMap) {
  CPalette* pal = MakePalette(RandomColors(64, 4));
  const DWORD old = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed + 300;  // room for one scratch list of 256 bytes, not two
  EXPECT_EQ(ERR_ALLOCFAIL, pal->BuildInvMap());
  g_dwPtrMemLimit = old;
  EXPECT_EQ(0u, pal->m_hInvMap);
  delete pal;
}

TEST_F(Cube, LayoutAndListsMatchCandidateRule) {
  // 256 colours spread evenly keep many candidates in most cells, so the lists outgrow the
  // first 0x20000 bytes and the block is moved while locked.
  std::vector<Rgb> spread;
  for (int i = 0; i < 256; i++) spread.push_back({(i & 7) * 36, ((i >> 3) & 7) * 36, (i >> 6) * 85});
  for (const auto& colors : {RandomColors(60, 21), spread}) {
    CPalette* pal = MakePalette(colors);
    ASSERT_EQ(0u, pal->BuildCube());
    // The handle was cut to the exact size: the last offset.
    const auto head = LockedBytes(pal->m_hCube, PAL_CUBE_OFFSETS_SIZE);
    const DWORD total = GetLE32(&head[PAL_CUBE_CELLS * 4]);
    const auto v = LockedBytes(pal->m_hCube, total);
    EXPECT_TRUE(MemIsHandle(pal->m_hCube, total));
    EXPECT_EQ(PAL_CUBE_OFFSETS_SIZE, GetLE32(&v[0]));
    for (int r = 0, cell = 0; r < 256; r += 32)
      for (int g = 0; g < 256; g += 32)
        for (int b = 0; b < 256; b += 32, cell++) {
          ASSERT_EQ((DWORD)(r >> 5) * 64 + (g >> 5) * 8 + (b >> 5), (DWORD)cell);
          const DWORD start = GetLE32(&v[cell * 4]), end = GetLE32(&v[cell * 4 + 4]);
          ASSERT_LE(start, end);
          const auto expect = ExpectedCandidates(colors, r, g, b);
          ASSERT_EQ(expect.size() * 4, end - start) << cell;
          for (size_t k = 0; k < expect.size(); k++) {
            const BYTE* e = &v[start + k * 4];
            const Rgb& c = colors[expect[k]];
            ASSERT_EQ(expect[k], e[3]);
            ASSERT_EQ(c.b, e[0]);
            ASSERT_EQ(c.g, e[1]);
            ASSERT_EQ(c.r, e[2]);
          }
        }
    delete pal;
  }
}

TEST_F(Cube, FindColorAtSamplePointsIsNearest) {
  const auto colors = RandomColors(120, 31);
  CPalette* pal = MakePalette(colors);
  ASSERT_EQ(0u, pal->BuildCube());
  std::mt19937 rng(5);
  for (int k = 0; k < 3000; k++) {
    // A sample point: a multiple of 8 within its cell.
    Rgb q{(int)(rng() & 0xF8), (int)(rng() & 0xF8), (int)(rng() & 0xF8)};
    TColor c = MakeColor((BYTE)q.r, (BYTE)q.g, (BYTE)q.b);
    DWORD idx = 9999;
    pal->FindColor(&c, &idx);
    ASSERT_LT(idx, colors.size());
    ASSERT_EQ(ColorDist(colors[BruteNearest(colors, q)], q), ColorDist(colors[idx], q));
  }
  delete pal;
}

// ---------------------------------------------------------------------------------------------
// Bitmap class

TEST_F(Bitmap, CreatePitchSizeAndLayout) {
  struct Case {
    int w, h;
    SHORT fmt;
    int bpp, pitch;
  } cases[] = {{1, 1, BF_8BIT, 8, 4},    {5, 3, BF_8BIT, 8, 8},    {3, 2, BF_16BIT, 16, 8},
               {3, 2, BF_24BIT, 24, 12}, {5, 1, BF_24BIT, 24, 16}, {3, 2, BF_32BIT, 32, 12}};
  for (const auto& c : cases) {
    for (SHORT layout : {(SHORT)BL_FORWARD, (SHORT)BL_BACKWARD}) {
      CBitmap bmp;
      ASSERT_EQ(0u, bmp.Create((SHORT)c.w, (SHORT)c.h, c.fmt, 0, layout, 5));
      EXPECT_EQ(c.bpp, bmp.m_nBitsPerPixel);
      EXPECT_EQ(c.pitch * layout, bmp.m_nPitch);
      EXPECT_EQ((DWORD)(c.pitch * c.h + 5), bmp.m_dwSize);
      // New pixels hold the allocator's fill byte.
      for (BYTE b : ReadBlock(bmp)) ASSERT_EQ(0xCD, b);
    }
  }
}

TEST_F(Bitmap, CreateRefusals) {
  CBitmap bmp;
  CPalette* pal = MakePalette({{1, 2, 3}});
  EXPECT_EQ(ERR_BMP_BADFORMAT, bmp.Create(4, 4, 2, pal, BL_FORWARD, 0));
  EXPECT_EQ(pal, PaletteOf(bmp));  // owned and deleted by the bitmap
  EXPECT_EQ(0u, bmp.m_hBits);
  EXPECT_EQ(ERR_BMP_BADFORMAT, bmp.Create(4, 4, 6, 0, BL_FORWARD, 0));
  EXPECT_EQ(nullptr, PaletteOf(bmp));
  // A refused format stores the size and format given; the depth, pitch and size of the
  // image before are left as they were, while its pixels are gone.
  ASSERT_EQ(0u, bmp.Create(5, 3, BF_24BIT, 0, BL_BACKWARD, 4));
  EXPECT_EQ(ERR_BMP_BADFORMAT, bmp.Create(7, 2, 2, 0, BL_FORWARD, 0));
  EXPECT_EQ(0u, bmp.m_hBits);
  EXPECT_EQ(7, bmp.m_nWidth);
  EXPECT_EQ(2, bmp.m_nHeight);
  EXPECT_EQ(2, bmp.m_nFormat);
  EXPECT_EQ(24, bmp.m_nBitsPerPixel);
  EXPECT_EQ(-16, bmp.m_nPitch);
  EXPECT_EQ(16u * 3 + 4, bmp.m_dwSize);
  // Rows past the pitch's range, and negative widths.
  EXPECT_EQ(ERR_BMP_NOMEM, bmp.Create(12000, 1, BF_24BIT, 0, BL_FORWARD, 0));
  EXPECT_EQ(0u, bmp.m_hBits);
  EXPECT_EQ(ERR_BMP_NOMEM, bmp.Create(-3, 1, BF_8BIT, 0, BL_FORWARD, 0));
  EXPECT_EQ(0u, bmp.Create(0, 5, BF_8BIT, 0, BL_FORWARD, 0));
  EXPECT_EQ(0u, bmp.m_hBits);
  EXPECT_EQ(0u, bmp.m_dwSize);
  AssertCatcher ac;
  EXPECT_EQ(0u, bmp.Create(2, 2, BF_8BIT, 0, 0, 0));
  EXPECT_TRUE(ac.Fired("nBitsLayout == BL_FORWARD || nBitsLayout == BL_BACKWARD"));
  EXPECT_EQ(4, bmp.m_nPitch);
}

TEST_F(Bitmap, PixelAddressInBothLayouts) {
  for (SHORT layout : {(SHORT)BL_FORWARD, (SHORT)BL_BACKWARD}) {
    for (SHORT fmt : {(SHORT)BF_8BIT, (SHORT)BF_16BIT, (SHORT)BF_24BIT, (SHORT)BF_32BIT}) {
      CBitmap* bmp = MakeBitmap(5, 3, fmt, layout, 0);
      EXPECT_EQ(nullptr, bmp->GetPixelPtr(1, 1));  // not locked
      BYTE* base = static_cast<BYTE*>(HANDLE_LOCK(bmp->m_hBits));
      for (int y = 0; y < 3; y++)
        for (int x = 0; x < 5; x++)
          ASSERT_EQ(base + PixelOffset(*bmp, x, y), bmp->GetPixelPtr((SHORT)x, (SHORT)y));
      HANDLE_UNLOCK(bmp->m_hBits);
      delete bmp;
    }
  }
}

TEST_F(Bitmap, GetAndSetPixel) {
  CBitmap* bmp = MakeBitmap(3, 2, BF_24BIT, BL_BACKWARD, 0);
  // Without a lock held by the caller SetPixel's write does not land.
  bmp->SetPixel(1, 0, 0x123456);
  EXPECT_EQ(0u, bmp->GetPixel(1, 0));
  HANDLE_LOCK(bmp->m_hBits);
  bmp->SetPixel(1, 0, 0x123456);
  bmp->SetPixel(3, 0, 0xFFFFFF);  // outside: ignored
  HANDLE_UNLOCK(bmp->m_hBits);
  EXPECT_EQ(0x123456u, bmp->GetPixel(1, 0));
  auto v = ReadBlock(*bmp);
  const size_t o = PixelOffset(*bmp, 1, 0);
  EXPECT_EQ(0x56, v[o]);
  EXPECT_EQ(0x34, v[o + 1]);
  EXPECT_EQ(0x12, v[o + 2]);
  EXPECT_EQ(0xFFFFFFFFu, bmp->GetPixel(-1, 0));
  EXPECT_EQ(0xFFFFFFFFu, bmp->GetPixel(0, 2));
  TRect rc;
  bmp->GetRect(&rc);
  EXPECT_TRUE(rc.left == 0 && rc.top == 0 && rc.right == 2 && rc.bottom == 1);
  delete bmp;
}

TEST_F(Bitmap, SetLayoutSwapsRowsAndCounts) {
  for (int h : {1, 2, 5}) {
    CBitmap* bmp = MakeBitmap(3, h, BF_8BIT, BL_FORWARD, 0);
    HANDLE_LOCK(bmp->m_hBits);
    for (int y = 0; y < h; y++)
      for (int x = 0; x < 3; x++) bmp->SetPixel((SHORT)x, (SHORT)y, (DWORD)(y * 16 + x));
    HANDLE_UNLOCK(bmp->m_hBits);
    const DWORD before = g_dwBytesSwapped;
    EXPECT_EQ(0u, bmp->SetLayout(BL_FORWARD));  // already forward: nothing
    EXPECT_EQ(before, g_dwBytesSwapped);
    EXPECT_EQ(0u, bmp->SetLayout(BL_BACKWARD));
    EXPECT_EQ(-4, bmp->m_nPitch);
    EXPECT_EQ(before + bmp->m_dwSize, g_dwBytesSwapped);
    // Logical rows keep their content; memory row 0 now holds the last logical row.
    for (int y = 0; y < h; y++)
      for (int x = 0; x < 3; x++) ASSERT_EQ((DWORD)(y * 16 + x), bmp->GetPixel((SHORT)x, (SHORT)y));
    EXPECT_EQ((BYTE)((h - 1) * 16), ReadBlock(*bmp)[0]);
    delete bmp;
  }
}

TEST_F(Bitmap, CopyConstructor) {
  CPalette* pal = MakePalette(RandomColors(4, 3));
  CBitmap* src = new CBitmap();
  ASSERT_EQ(0u, src->Create(3, 3, BF_8BIT, pal, BL_BACKWARD, 7));
  std::vector<BYTE> data(src->m_dwSize);
  for (size_t i = 0; i < data.size(); i++) data[i] = (BYTE)(i * 7);
  WriteBlock(*src, data);
  CBitmap* copy = new CBitmap(*src);
  EXPECT_EQ(src->m_nPitch, copy->m_nPitch);
  EXPECT_EQ(src->m_dwSize, copy->m_dwSize);
  EXPECT_EQ(data, ReadBlock(*copy));
  ASSERT_NE(nullptr, PaletteOf(*copy));
  EXPECT_NE(PaletteOf(*src), PaletteOf(*copy));
  EXPECT_EQ(LockedBytes(pal->m_hColors, 16), LockedBytes(copy->m_pPalette->m_hColors, 16));
  delete copy;
  delete src;
}

TEST_F(Bitmap, ObjectIsPacked) {
  // The fields follow the object's table pointer without gaps.
  EXPECT_EQ(sizeof(void*) + 4 + 2 * 4 + 4 + 2 + sizeof(void*), sizeof(CBitmap));
  CBitmap bmp;
  EXPECT_EQ(0xDBECA82u, bmp.GetClassId());
  EXPECT_STREQ("CBitmap", bmp.GetClassName());
  CPalette pal;
  EXPECT_EQ(0xDAFD347u, pal.GetClassId());
}
