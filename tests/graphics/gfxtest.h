// Helpers shared by the graphics tests: palettes and bitmaps made from plain data, pixel access
// without the code under test, a check that a test released all it allocated, and a scratch
// folder on disk behind the volume table.
#pragma once

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "files/file.h"
#include "files/stdfile.h"
#include "graphics/graphics.h"

struct Rgb {
  int r, g, b;
};

// A palette with the given colours (btExtra 0). The caller deletes it.
inline CPalette* MakePalette(const std::vector<Rgb>& colors) {
  CPalette* p = new CPalette();
  EXPECT_EQ(0u, p->SetSize((DWORD)colors.size()));
  for (size_t i = 0; i < colors.size(); i++) {
    TColor c = MakeColor((BYTE)colors[i].r, (BYTE)colors[i].g, (BYTE)colors[i].b);
    EXPECT_EQ(0u, p->SetColor((DWORD)i, &c));
  }
  return p;
}

inline std::vector<Rgb> RandomColors(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Rgb> v(n);
  for (auto& c : v) c = Rgb{(int)(rng() & 0xFF), (int)(rng() & 0xFF), (int)(rng() & 0xFF)};
  return v;
}

// Chebyshev distance, the measure of every colour search.
inline int ColorDist(const Rgb& a, const Rgb& b) {
  int d = std::abs(a.r - b.r);
  d = std::max(d, std::abs(a.g - b.g));
  return std::max(d, std::abs(a.b - b.b));
}

// First index of the nearest colour.
inline size_t BruteNearest(const std::vector<Rgb>& pal, const Rgb& c) {
  size_t best = 0;
  for (size_t i = 1; i < pal.size(); i++)
    if (ColorDist(pal[i], c) < ColorDist(pal[best], c)) best = i;
  return best;
}

// The palette pointer by value: the bitmap's fields are packed, so a reference to it (as the
// test macros take) would be misaligned.
inline CPalette* PaletteOf(const CBitmap& b) { return b.m_pPalette; }

inline int FormatBytes(SHORT fmt) {
  return fmt == BF_8BIT ? 1 : fmt == BF_16BIT ? 2 : fmt == BF_24BIT ? 3 : 4;
}

// Byte offset of pixel (x, y) from the start of the pixel block, worked out from the layout
// rules: rows padded to 4 bytes, row 0 first (forward) or last (backward).
inline size_t PixelOffset(const CBitmap& bmp, int x, int y) {
  const int bpp = bmp.m_nBitsPerPixel / 8;
  const size_t pitch = ((size_t)bmp.m_nWidth * bpp + 3) & ~(size_t)3;
  const size_t row = bmp.m_nPitch > 0 ? (size_t)y : (size_t)(bmp.m_nHeight - 1 - y);
  return row * pitch + (size_t)x * bpp;
}

// Copies of the pixel block, and writes into it, under a lock of their own.
inline std::vector<BYTE> ReadBlock(const CBitmap& bmp) {
  std::vector<BYTE> v(bmp.m_dwSize);
  if (!bmp.m_hBits) return v;
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(bmp.m_hBits));
  if (p) memcpy(v.data(), p, v.size());
  HANDLE_UNLOCK(bmp.m_hBits);
  return v;
}
inline void WriteBlock(const CBitmap& bmp, const std::vector<BYTE>& v) {
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(bmp.m_hBits));
  ASSERT_NE(nullptr, p);
  memcpy(p, v.data(), std::min(v.size(), (size_t)bmp.m_dwSize));
  HANDLE_UNLOCK(bmp.m_hBits);
}

// A bitmap whose pixel block is filled with fill (rows, padding and extra bytes alike).
inline CBitmap* MakeBitmap(int w, int h, SHORT nFormat, SHORT nLayout, BYTE fill, CPalette* pPal = 0) {
  CBitmap* b = new CBitmap();
  EXPECT_EQ(0u, b->Create((SHORT)w, (SHORT)h, nFormat, pPal, nLayout, 0));
  WriteBlock(*b, std::vector<BYTE>(b->m_dwSize, fill));
  return b;
}

// Fails the test when tracked memory in use at the end differs from the start.
class MemBalance : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dwHandles = g_dwHandleMemUsed;
    m_dwPtrs = g_dwPtrMemUsed;
    m_dwNew = g_dwNewMemUsed;
    m_dwLocked = g_dwHLockedMem;
  }
  void TearDown() override {
    EXPECT_EQ(m_dwHandles, g_dwHandleMemUsed) << "handle memory not released";
    EXPECT_EQ(m_dwPtrs, g_dwPtrMemUsed) << "pointer memory not released";
    EXPECT_EQ(m_dwNew, g_dwNewMemUsed) << "objects not deleted";
    EXPECT_EQ(m_dwLocked, g_dwHLockedMem) << "handles left locked";
  }

 private:
  DWORD m_dwHandles = 0, m_dwPtrs = 0, m_dwNew = 0, m_dwLocked = 0;
};

// A test with a fresh folder on disk, reached through the volume table over the C library
// volume, and the memory balance check. The folder, setup_<tag>_<seed>_<test> in the temporary
// directory, is removed with everything in it when the test ends.
class DiskTest : public MemBalance {
 protected:
  explicit DiskTest(const char* pchTag) : m_tag(pchTag) {}
  void SetUp() override {
    MemBalance::SetUp();
    m_dir = std::filesystem::temp_directory_path() /
            ("setup_" + m_tag + "_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
             "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(m_dir);
    ASSERT_EQ(0u, FSInit(5));
    ASSERT_EQ(0u, StdFSInit());
  }
  void TearDown() override {
    StdFSDone();
    FSDone();
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
    MemBalance::TearDown();
  }
  // The path of a file in the folder.
  std::string P(const char* name) { return (m_dir / name).string(); }
  std::filesystem::path m_dir;

 private:
  std::string m_tag;
};
