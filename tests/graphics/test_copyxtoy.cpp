// Pixel copy kernels against a plain per-pixel model, the default list, and colour maps.
#include "gfxtest.h"
#include "graphics/copyxtoy.h"
#include "testutil.h"

namespace {

class CopyKernel : public MemBalance {};
class ColorMap : public MemBalance {};

DWORD GetPx(const BYTE* p, int bytes) {
  DWORD v = 0;
  for (int i = 0; i < bytes; i++) v |= (DWORD)p[i] << (8 * i);
  return v;
}
void PutPx(BYTE* p, int bytes, DWORD v) {
  for (int i = 0; i < bytes; i++) p[i] = (BYTE)(v >> (8 * i));
}

// A rectangle of pixels in a plain buffer with a row step that may be negative: a negative
// step starts at the last row in memory, as a backward bitmap does.
struct Plane {
  int w, h, bytes, pitch;
  std::vector<BYTE> mem;
  Plane(int w_, int h_, int bytes_, bool backward, unsigned seed) : w(w_), h(h_), bytes(bytes_) {
    const int abs = ((w * bytes + 3) & ~3) + 4;  // a little slack past each row
    pitch = backward ? -abs : abs;
    mem.resize((size_t)abs * h);
    std::mt19937 rng(seed);
    for (auto& b : mem) b = (BYTE)rng();
  }
  BYTE* First() { return pitch > 0 ? mem.data() : mem.data() + (size_t)(-pitch) * (h - 1); }
  BYTE* At(int x, int y) { return First() + (ptrdiff_t)y * pitch + x * bytes; }
  DWORD Get(int x, int y) { return GetPx(At(x, y), bytes); }
  void Set(int x, int y, DWORD v) { PutPx(At(x, y), bytes, v); }
};

// What one target pixel becomes, from the source value, worked out from the pixel formats.
struct Model {
  SHORT srcFmt, dstFmt;
  DWORD trans = TRANS_NONE;
  const BYTE* map = nullptr;
  std::vector<Rgb> srcPal, dstPal;
  std::vector<BYTE> invMap;  // the target palette's inverse map when the source is direct colour
  Model(SHORT s, SHORT d) : srcFmt(s), dstFmt(d) {}

  DWORD Apply(DWORD s, DWORD old) const {
    const int sb = FormatBytes(srcFmt);
    const DWORD mask = sb == 1 ? 0xFF : sb == 2 ? 0xFFFF : 0xFFFFFF;
    if (trans != TRANS_NONE && (s & mask) == (trans & mask)) return old;
    int r, g, b;
    if (srcFmt == BF_8BIT) {
      const DWORD i = map ? map[s] : s;
      if (dstFmt == BF_8BIT) return i;
      if (i >= srcPal.size()) {
        r = g = b = 0;
      } else {
        r = srcPal[i].r, g = srcPal[i].g, b = srcPal[i].b;
      }
      if (dstFmt == BF_16BIT) return ((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3);
      return (DWORD)(r << 16 | g << 8 | b);
    }
    if (srcFmt == BF_16BIT) {
      if (dstFmt == BF_8BIT) return invMap[s & 0x7FFF];
      if (dstFmt == BF_16BIT) return s;
      r = (int)((s >> 10) & 0x1F) << 3, g = (int)((s >> 5) & 0x1F) << 3, b = (int)(s & 0x1F) << 3;
      return (DWORD)(r << 16 | g << 8 | b);
    }
    r = (int)(s >> 16) & 0xFF, g = (int)(s >> 8) & 0xFF, b = (int)s & 0xFF;
    const DWORD key = (DWORD)((r >> 3) << 10 | (g >> 3) << 5 | (b >> 3));
    if (dstFmt == BF_8BIT) return invMap[key];
    if (dstFmt == BF_16BIT) return key;
    return s;
  }
};

// Runs kernel over a w x h rectangle at (1, 1) of two random planes and compares every byte
// of the target plane, padding and slack included, with the model.
void RunAgainstModel(PFN_COPYPIXELS kernel, const Model& m, int w, int h, bool srcBack, bool dstBack,
                     unsigned seed, CPalette* pSrcPal, CPalette* pDstPal, BYTE* pCMap,
                     const std::function<DWORD(std::mt19937&)>& gen) {
  Plane src(w + 2, h + 2, FormatBytes(m.srcFmt), srcBack, seed);
  Plane dst(w + 2, h + 2, FormatBytes(m.dstFmt), dstBack, seed + 1);
  std::mt19937 rng(seed + 2);
  for (int y = 0; y < h + 2; y++)
    for (int x = 0; x < w + 2; x++) src.Set(x, y, gen(rng));
  Plane expect = dst;
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      expect.Set(x + 1, y + 1, m.Apply(src.Get(x + 1, y + 1), dst.Get(x + 1, y + 1)));
  ERR err = kernel(src.At(1, 1), dst.At(1, 1), (SHORT)src.pitch, (SHORT)dst.pitch, (SHORT)w, (SHORT)h,
                   m.trans, pCMap, pSrcPal, pDstPal);
  EXPECT_EQ(0u, err);
  ASSERT_EQ(expect.mem, dst.mem) << "w=" << w << " h=" << h << " trans=" << m.trans
                                 << " map=" << (pCMap != nullptr);
}

std::vector<BYTE> InvMapOf(CPalette* pal) {
  if (!pal->m_hInvMap) {
    EXPECT_EQ(0u, pal->BuildInvMap());
  }
  std::vector<BYTE> v(PAL_INVMAP_SIZE);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(pal->m_hInvMap));
  memcpy(v.data(), p, v.size());
  HANDLE_UNLOCK(pal->m_hInvMap);
  return v;
}

// Source generators: uniform values; values where about a quarter equal t; and runs of t and
// non-t values a few to a few dozen pixels long, as in sprites.
std::function<DWORD(std::mt19937&)> Quarter(DWORD t, DWORD mask) {
  return [t, mask](std::mt19937& r) {
    DWORD v = (DWORD)r();
    return (v & 3) == 0 ? (t & mask) : (v >> 2) & mask;
  };
}
std::function<DWORD(std::mt19937&)> Runs(DWORD t, DWORD mask) {
  auto state = std::make_shared<std::pair<int, bool>>(0, false);
  return [t, mask, state](std::mt19937& r) {
    if (state->first-- <= 0) {
      state->first = (int)(r() % 40);
      state->second = !state->second;
    }
    return state->second ? (t & mask) : (DWORD)r() & mask;
  };
}

}  // namespace

TEST_F(CopyKernel, Copy8To8AllModesMatchPerPixelModel) {
  BYTE map[256];
  std::mt19937 rng(1);
  for (auto& b : map) b = (BYTE)rng();
  for (BOOL plain : {FALSE, TRUE}) {
    g_bCopyPlainLoops = plain;
    for (int w : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 100, 300, 529}) {
      for (DWORD trans : {TRANS_NONE, 0u, 0x5Au, 0xFFu, 0x1234u}) {
        for (BYTE* pMap : {(BYTE*)nullptr, map}) {
          Model m(BF_8BIT, BF_8BIT);
          m.trans = trans;
          m.map = pMap;
          const unsigned seed = (unsigned)(w * 131 + trans + (pMap ? 7 : 0));
          RunAgainstModel(Copy8To8, m, w, 3, false, w & 1, seed, nullptr, nullptr, pMap,
                          Quarter(trans, 0xFF));
          RunAgainstModel(Copy8To8, m, w, 2, true, false, seed + 5, nullptr, nullptr, pMap,
                          Runs(trans, 0xFF));
        }
      }
    }
  }
  g_bCopyPlainLoops = FALSE;
}

TEST_F(CopyKernel, Copy8To8TransparencyComparesLowByteOnly) {
  // 0x1FF as transparent value means index 0xFF.
  BYTE src[4] = {0xFF, 1, 0xFF, 2}, dst[4] = {9, 9, 9, 9};
  EXPECT_EQ(0u, Copy8To8(src, dst, 4, 4, 4, 1, 0x1FF, nullptr, nullptr, nullptr));
  EXPECT_EQ(9, dst[0]);
  EXPECT_EQ(1, dst[1]);
  EXPECT_EQ(9, dst[2]);
  EXPECT_EQ(2, dst[3]);
}

TEST_F(CopyKernel, ZeroSizeResults) {
  BYTE src[16] = {1}, dst[16] = {0};
  EXPECT_EQ(0u, Copy8To8(src, dst, 4, 4, 0, 1, TRANS_NONE, nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, Copy24To24(src, dst, 4, 4, 1, 0, TRANS_NONE, nullptr, nullptr, nullptr));
  CPalette* pal = MakePalette({{0, 0, 0}});
  EXPECT_EQ(ERR_UNKNOWN, Copy8To16(src, dst, 4, 4, 0, 1, TRANS_NONE, nullptr, pal, nullptr));
  EXPECT_EQ(ERR_UNKNOWN, Copy8To16(src, dst, 4, 4, 1, 1, TRANS_NONE, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_UNKNOWN, Copy16To8(src, dst, 4, 4, 1, 0, TRANS_NONE, nullptr, nullptr, pal));
  EXPECT_EQ(ERR_UNKNOWN, Copy24To8(src, dst, 4, 4, 1, 1, TRANS_NONE, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_UNKNOWN, Copy24To8Exact(src, dst, 4, 4, 0, 1, TRANS_NONE, nullptr, nullptr, pal));
  EXPECT_EQ(0u, pal->m_hInvMap);  // no map is built for nothing
  for (BYTE b : dst) EXPECT_EQ(0, b);
  delete pal;
}

TEST_F(CopyKernel, DirectToIndexedThroughInverseMap) {
  const auto colors = RandomColors(40, 8);
  CPalette* dstPal = MakePalette(colors);
  EXPECT_EQ(0u, dstPal->m_hInvMap);
  // The first use builds the map.
  BYTE px[3] = {10, 20, 30}, out = 0;
  EXPECT_EQ(0u, Copy24To8(px, &out, 4, 4, 1, 1, TRANS_NONE, nullptr, nullptr, dstPal));
  EXPECT_NE(0u, dstPal->m_hInvMap);
  Model m(BF_24BIT, BF_8BIT);
  m.invMap = InvMapOf(dstPal);
  for (DWORD trans : {TRANS_NONE, 0u, 0xFF00FF00u}) {
    m.trans = trans;
    RunAgainstModel(Copy24To8, m, 13, 4, trans == 0, true, 40 + trans, nullptr, dstPal, nullptr,
                    Quarter(trans, 0xFFFFFF));
  }
  Model m16(BF_16BIT, BF_8BIT);
  m16.invMap = m.invMap;
  for (DWORD trans : {TRANS_NONE, 0x7C00u, 0x18000u}) {
    m16.trans = trans;
    RunAgainstModel(Copy16To8, m16, 9, 3, true, false, 50, nullptr, dstPal, nullptr, Quarter(trans, 0xFFFF));
  }
  delete dstPal;
}

TEST_F(CopyKernel, TransparentZeroSkipsOnlyBlack) {
  CPalette* pal = MakePalette({{0, 0, 0}, {255, 255, 255}, {0, 0, 8}});
  // Black, almost black (blue 1, same 15-bit key as black) and blue 8.
  BYTE src[12] = {0, 0, 0, 1, 0, 0, 8, 0, 0, 0, 0, 0};
  BYTE dst[4] = {7, 7, 7, 7};
  EXPECT_EQ(0u, Copy24To8(src, dst, 12, 4, 3, 1, 0, nullptr, nullptr, pal));
  EXPECT_EQ(7, dst[0]);
  EXPECT_EQ(0, dst[1]);
  EXPECT_EQ(2, dst[2]);
  BYTE d24[12] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};
  EXPECT_EQ(0u, Copy24To24(src, d24, 12, 12, 3, 1, 0, nullptr, nullptr, nullptr));
  const BYTE expect[12] = {5, 5, 5, 1, 0, 0, 8, 0, 0, 5, 5, 5};
  EXPECT_EQ(0, memcmp(expect, d24, 12));
  delete pal;
}

TEST_F(CopyKernel, StaleInverseMapIsUsed) {
  CPalette* pal = MakePalette({{0, 0, 0}, {255, 255, 255}});
  ASSERT_EQ(0u, pal->BuildInvMap());
  TColor c = MakeColor(255, 255, 255);
  pal->SetColor(0, &c);  // now both are white, but the map still says black is 0
  BYTE src[3] = {0, 0, 0}, dst = 9;
  Copy24To8(src, &dst, 4, 4, 1, 1, TRANS_NONE, nullptr, nullptr, pal);
  EXPECT_EQ(0, dst);
  delete pal;
}

TEST_F(CopyKernel, IndexedToDirectThroughSourcePalette) {
  const auto colors = RandomColors(200, 12);  // indices 200..255 have no colour: they give 0
  CPalette* pal = MakePalette(colors);
  BYTE map[256];
  for (int i = 0; i < 256; i++) map[i] = (BYTE)(255 - i);
  struct {
    PFN_COPYPIXELS k;
    SHORT fmt;
  } kernels[] = {{Copy8To16, BF_16BIT}, {Copy8To24, BF_24BIT}, {Copy8To32, BF_32BIT}};
  for (const auto& k : kernels) {
    for (BYTE* pMap : {(BYTE*)nullptr, map}) {
      for (DWORD trans : {TRANS_NONE, 3u}) {
        Model m(BF_8BIT, k.fmt);
        m.srcPal = colors;
        m.trans = trans;
        m.map = pMap;
        RunAgainstModel(k.k, m, 11, 3, false, true, 60 + k.fmt, pal, nullptr, pMap, Quarter(trans, 0xFF));
      }
    }
  }
  delete pal;
}

TEST_F(CopyKernel, IndexedToDirectWithoutColours) {
  CPalette empty;
  BYTE src[4] = {1, 2, 3, 4}, dst[16];
  memset(dst, 0xAB, sizeof(dst));
  EXPECT_EQ(0u, Copy8To24(src, dst, 4, 16, 4, 1, TRANS_NONE, nullptr, &empty, nullptr));
  EXPECT_EQ(0u, Copy8To32(src, dst, 4, 16, 4, 1, TRANS_NONE, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERR_UNKNOWN, Copy8To16(src, dst, 4, 16, 4, 1, TRANS_NONE, nullptr, &empty, nullptr));
  for (BYTE b : dst) EXPECT_EQ(0xAB, b);
}

TEST_F(CopyKernel, DirectToDirect) {
  struct {
    PFN_COPYPIXELS k;
    SHORT s, d;
  } kernels[] = {{Copy16To16, BF_16BIT, BF_16BIT}, {Copy24To16, BF_24BIT, BF_16BIT},
                 {Copy16To24, BF_16BIT, BF_24BIT}, {Copy24To24, BF_24BIT, BF_24BIT},
                 {Copy16To32, BF_16BIT, BF_32BIT}, {Copy24To32, BF_24BIT, BF_32BIT}};
  for (const auto& k : kernels) {
    const DWORD mask = k.s == BF_16BIT ? 0x7FFF : 0xFFFFFF;
    for (DWORD trans : {TRANS_NONE, 0u, 0x1234u}) {
      Model m(k.s, k.d);
      m.trans = trans;
      RunAgainstModel(k.k, m, 7, 3, true, false, 70 + k.s * 8 + k.d, nullptr, nullptr, nullptr,
                      Quarter(trans, mask));
    }
  }
}

TEST_F(CopyKernel, UnpackFormulas) {
  // 16 to 24 leaves the low three bits 0; 16 to 32 gives the same colour with a zero top byte.
  const WORD p = (0x1B << 10) | (0x05 << 5) | 0x1F;
  BYTE src[2] = {(BYTE)p, (BYTE)(p >> 8)}, d24[3], d32[4];
  Copy16To24(src, d24, 4, 4, 1, 1, TRANS_NONE, nullptr, nullptr, nullptr);
  EXPECT_EQ(0xF8, d24[0]);
  EXPECT_EQ(0x28, d24[1]);
  EXPECT_EQ(0xD8, d24[2]);
  Copy16To32(src, d32, 4, 4, 1, 1, TRANS_NONE, nullptr, nullptr, nullptr);
  EXPECT_EQ(0x00D828F8u, GetLE32(d32));
}

TEST_F(CopyKernel, Copy24To8ExactIsNearestColour) {
  const auto colors = RandomColors(50, 13);
  CPalette* pal = MakePalette(colors);
  Plane src(17, 5, 3, false, 1);
  std::vector<BYTE> dst(17 * 5, 0xEE);
  ASSERT_EQ(0u, Copy24To8Exact(src.At(0, 0), dst.data(), (SHORT)src.pitch, 17, 17, 5, TRANS_NONE, nullptr,
                               nullptr, pal));
  for (int y = 0; y < 5; y++)
    for (int x = 0; x < 17; x++) {
      const BYTE* s = src.At(x, y);
      ASSERT_EQ(BruteNearest(colors, Rgb{s[2], s[1], s[0]}), dst[y * 17 + x]);
    }
  delete pal;
}

TEST_F(CopyKernel, DefaultListHasNoThirtyTwoBitSource) {
  const SHORT fmts[] = {BF_8BIT, BF_16BIT, BF_24BIT, BF_32BIT};
  for (SHORT s : fmts)
    for (SHORT d : fmts)
      EXPECT_EQ(s != BF_32BIT, FindCopyKernel(g_pCopyList, s, d) != nullptr) << s << "->" << d;
  EXPECT_EQ((PFN_COPYPIXELS)Copy24To8, FindCopyKernel(g_pCopyList, BF_24BIT, BF_8BIT));
  EXPECT_EQ(nullptr, FindCopyKernel(g_pCopyList, 2, BF_8BIT));
  const TCopyEntry custom[] = {
      {BF_24BIT, BF_8BIT, Copy24To8Exact}, {0, BF_8BIT, Copy8To8}, {BF_8BIT, BF_8BIT, Copy8To8}};
  EXPECT_EQ((PFN_COPYPIXELS)Copy24To8Exact, FindCopyKernel(custom, BF_24BIT, BF_8BIT));
  EXPECT_EQ(nullptr, FindCopyKernel(custom, BF_8BIT, BF_8BIT));  // the list ended at format 0
}

TEST_F(ColorMap, WholePaletteUsesFindColor) {
  const auto srcColors = RandomColors(256, 20), dstColors = RandomColors(64, 21);
  CPalette* src = MakePalette(srcColors);
  CPalette* dst = MakePalette(dstColors);
  BYTE map[256];
  MakeColorMap(map, src, dst, 0, 255);
  for (int i = 0; i < 256; i++) ASSERT_EQ(BruteNearest(dstColors, srcColors[i]), map[i]);
  // With a cube the target's FindColor answers from the cell lists.
  ASSERT_EQ(0u, dst->BuildCube());
  BYTE viaCube[256];
  MakeColorMap(viaCube, src, dst, 0, 255);
  for (int i = 0; i < 256; i++) {
    TColor c = MakeColor((BYTE)srcColors[i].r, (BYTE)srcColors[i].g, (BYTE)srcColors[i].b);
    DWORD idx = 999;
    dst->FindColor(&c, &idx);
    ASSERT_EQ(idx, viaCube[i]);
  }
  delete src;
  delete dst;
}

TEST_F(ColorMap, RangeAndShortSource) {
  const auto srcColors = RandomColors(10, 30), dstColors = RandomColors(40, 31);
  CPalette* src = MakePalette(srcColors);
  CPalette* dst = MakePalette(dstColors);
  BYTE map[256];
  memset(map, 0xAA, sizeof(map));
  MakeColorMap(map, src, dst, 20, 1000);
  for (int i = 0; i < 10; i++) {
    std::vector<Rgb> part(dstColors.begin() + 20, dstColors.end());
    ASSERT_EQ(20 + BruteNearest(part, srcColors[i]), map[i]);
  }
  for (int i = 10; i < 256; i++) ASSERT_EQ(0xAA, map[i]);  // past the source's count: untouched
  // The kernel's own map from the palettes: a short source takes the range search over 0..255.
  BYTE s[4] = {0, 3, 9, 1}, d[4] = {0};
  ASSERT_EQ(0u, Copy8To8(s, d, 4, 4, 4, 1, TRANS_NONE, CMAP_FROM_PALETTES, src, dst));
  for (int i = 0; i < 4; i++) EXPECT_EQ(BruteNearest(dstColors, srcColors[s[i]]), d[i]);
  {
    AssertCatcher ac;
    MakeColorMap(map, src, nullptr, 0, 9);
    EXPECT_TRUE(ac.Fired("pCMap && pSrc && pDest && pSrc->m_hColors && pDest->m_hColors"));
  }
  delete src;
  delete dst;
}
