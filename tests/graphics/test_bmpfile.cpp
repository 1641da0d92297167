// Bitmap files: reading and writing through files in memory and on disk, the header fields,
// both row orders, broken files, files made by an independent image tool, and (when that tool
// is installed) our files read back by it.
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "files/memfile.h"
#include "files/stdfile.h"
#include "gfxtest.h"
#include "graphics/bmpfile.h"
#include "testutil.h"

namespace {

class BmpFile : public MemBalance {};
class BmpFixture : public MemBalance {};
class BmpBroken : public MemBalance {};

// A memory file holding bytes (read and write; the caller deletes it).
CFile* FileOf(const std::vector<BYTE>& bytes) {
  const DWORD n = (DWORD)std::max<size_t>(bytes.size(), 1);
  DWORD h = HANDLE_ALLOC(n);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  if (!bytes.empty()) memcpy(p, bytes.data(), bytes.size());
  HANDLE_UNLOCK(h);
  CMemFile* f = new CMemFile(h, (DWORD)bytes.size(), 1u << 26, 0x1000, TRUE);
  EXPECT_TRUE(f->IsValid());
  return f;
}

std::vector<BYTE> ContentOf(CFile* f) {
  std::vector<BYTE> v(f->GetSize());
  f->Seek(0, FILE_BEGIN);
  if (!v.empty()) {
    EXPECT_EQ(0u, f->Read(v.data(), (DWORD)v.size(), nullptr));
  }
  return v;
}

// A bitmap file put together field by field from the format's description.
struct BmpLayout {
  std::string magic = "BM";
  DWORD infoSize = 40;
  LONG width = 0, height = 0;
  WORD bits = 8;
  std::vector<BYTE> table;  // colour table bytes
  std::vector<BYTE> gap;    // bytes between the table and the pixels
  std::vector<BYTE> pixels;
  long offBitsDelta = 0;  // added to the offset the table implies
};

std::vector<BYTE> Build(const BmpLayout& s) {
  std::vector<BYTE> v(14 + std::max<DWORD>(s.infoSize, 4), 0);
  v[0] = (BYTE)s.magic[0];
  v[1] = (BYTE)s.magic[1];
  const DWORD offBits = 14 + s.infoSize + (DWORD)s.table.size() + (DWORD)s.gap.size() + (DWORD)s.offBitsDelta;
  PutLE32(&v[2], offBits + (DWORD)s.pixels.size());
  PutLE32(&v[10], offBits);
  PutLE32(&v[14], s.infoSize);
  if (s.infoSize >= 16) {
    PutLE32(&v[18], (DWORD)s.width);
    PutLE32(&v[22], (DWORD)s.height);
  }
  if (s.infoSize >= 16) {
    PutLE16(&v[26], 1);
    PutLE16(&v[28], s.bits);
  }
  v.insert(v.end(), s.table.begin(), s.table.end());
  v.insert(v.end(), s.gap.begin(), s.gap.end());
  v.insert(v.end(), s.pixels.begin(), s.pixels.end());
  return v;
}

int Pitch(int w, int bits) { return (w * bits / 8 + 3) & ~3; }

// Pixel rows in file order with each byte a function of its position.
std::vector<BYTE> PatternPixels(int w, int h, int bits) {
  std::vector<BYTE> v((size_t)Pitch(w, bits) * h);
  for (size_t i = 0; i < v.size(); i++) v[i] = (BYTE)(i * 29 + 3);
  return v;
}

CBitmap* ReadBytes(const std::vector<BYTE>& bytes, ERR* pErr, BOOL bHeaderOnly = FALSE) {
  CFile* f = FileOf(bytes);
  CBitmap* b = BmpRead(f, pErr, bHeaderOnly);
  delete f;
  return b;
}

std::vector<BYTE> WriteBytes(CBitmap* b, SHORT nLayout, ERR* pErr) {
  CFile* f = FileOf({});
  *pErr = BmpWrite(f, b, nLayout);
  auto v = ContentOf(f);
  delete f;
  return v;
}

}  // namespace

TEST_F(BmpFile, ReadsBottomUpEightBitWithTable) {
  BmpLayout s;
  s.width = 5;
  s.height = 3;
  for (int i = 0; i < 6 * 4; i++) s.table.push_back((BYTE)(i * 11));
  s.pixels = PatternPixels(5, 3, 8);
  ERR err = 1;
  CBitmap* b = ReadBytes(Build(s), &err);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(0u, err);
  EXPECT_EQ(5, b->m_nWidth);
  EXPECT_EQ(3, b->m_nHeight);
  EXPECT_EQ(BF_8BIT, b->m_nFormat);
  EXPECT_EQ(-8, b->m_nPitch);  // nothing is flipped on load
  EXPECT_EQ(s.pixels, ReadBlock(*b));
  ASSERT_NE(nullptr, PaletteOf(*b));
  ASSERT_EQ(6u, b->m_pPalette->m_dwColors);
  for (DWORD i = 0; i < 6; i++) {
    TColor c;
    b->m_pPalette->GetColor(i, &c);
    EXPECT_EQ(s.table[i * 4], c.btBlue);
    EXPECT_EQ(s.table[i * 4 + 2], c.btRed);
    EXPECT_EQ(s.table[i * 4 + 3], c.btExtra);  // read as it stands
  }
  // Logical row 0 is the last row of the file.
  EXPECT_EQ((DWORD)s.pixels[2 * 8 + 1], b->GetPixel(1, 0));
  delete b;
}

TEST_F(BmpFile, TopDownAndZeroHeightAreForward) {
  for (LONG h : {-4L, 0L}) {
    BmpLayout s;
    s.width = 3;
    s.height = h;
    s.bits = 24;
    s.pixels = PatternPixels(3, h < 0 ? -h : 0, 24);
    ERR err = 1;
    CBitmap* b = ReadBytes(Build(s), &err);
    ASSERT_NE(nullptr, b) << h;
    EXPECT_EQ(0u, err);
    EXPECT_EQ(12, b->m_nPitch);
    EXPECT_EQ(h < 0 ? -h : 0, b->m_nHeight);
    EXPECT_EQ(s.pixels, ReadBlock(*b));
    if (h < 0) {
      const BYTE* p = &s.pixels[1 * 12 + 2 * 3];  // row 1, pixel 2, top-down
      EXPECT_EQ((DWORD)(p[0] | p[1] << 8 | p[2] << 16), b->GetPixel(2, 1));
    }
    delete b;
  }
}

TEST_F(BmpFile, OddGapShiftsPixels) {
  // Six bytes between header and pixels: one colour is read, the other two bytes become the
  // start of the pixels.
  BmpLayout s;
  s.width = 4;
  s.height = 2;
  s.table = {1, 2, 3, 4};
  s.gap = {0xA1, 0xA2};
  s.pixels = PatternPixels(4, 2, 8);
  ERR err = 1;
  CBitmap* b = ReadBytes(Build(s), &err);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(1u, b->m_pPalette->m_dwColors);
  std::vector<BYTE> expect = {0xA1, 0xA2};
  expect.insert(expect.end(), s.pixels.begin(), s.pixels.end() - 2);
  EXPECT_EQ(expect, ReadBlock(*b));
  delete b;
}

TEST_F(BmpFile, AcceptedVariants) {
  // A swapped magic, and a table on a direct-colour image (skipped: no palette).
  BmpLayout s;
  s.magic = "MB";
  s.width = 2;
  s.height = 2;
  s.bits = 24;
  s.table.assign(16, 0x77);
  s.pixels = PatternPixels(2, 2, 24);
  // A later header version: its extra fields are read and ignored; and 16 bits.
  BmpLayout l;
  l.infoSize = 124;
  l.width = 3;
  l.height = 2;
  l.bits = 16;
  l.pixels = PatternPixels(3, 2, 16);
  for (const BmpLayout& layout : {s, l}) {
    ERR err = 1;
    CBitmap* b = ReadBytes(Build(layout), &err);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(nullptr, PaletteOf(*b));
    EXPECT_EQ(layout.bits == 16 ? BF_16BIT : BF_24BIT, b->m_nFormat);
    EXPECT_EQ(layout.pixels, ReadBlock(*b));
    delete b;
  }
}

TEST_F(BmpFile, HeaderOnly) {
  BmpLayout s;
  s.width = 7;
  s.height = 5;
  s.table.assign(8, 9);
  s.pixels = PatternPixels(7, 5, 8);
  ERR err = 1;
  CBitmap* b = ReadBytes(Build(s), &err, TRUE);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(nullptr, PaletteOf(*b));
  EXPECT_EQ(40u, b->m_dwSize);
  for (BYTE x : ReadBlock(*b)) ASSERT_EQ(0xCD, x);  // allocated, not read
  delete b;
}

TEST_F(BmpFile, ErrorCodes) {
  ERR err = 0;
  EXPECT_EQ(nullptr, BmpRead(nullptr, &err, FALSE));
  EXPECT_EQ(ERR_BMP_NOFILE, err);
  EXPECT_EQ(nullptr, BmpRead(nullptr, nullptr, FALSE));
  BmpLayout s;
  s.width = 2;
  s.height = 2;
  s.pixels = PatternPixels(2, 2, 8);
  s.magic = "BN";
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_BMP_BADMAGIC, err);
  s.magic = "BM";
  for (WORD bits : {1, 4, 32}) {
    s.bits = bits;
    EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
    EXPECT_EQ(ERR_BMP_BADFORMAT, err) << bits;
  }
  s.bits = 8;
  auto bytes = Build(s);
  bytes.resize(bytes.size() - 1);  // one pixel byte short
  EXPECT_EQ(nullptr, ReadBytes(bytes, &err));
  EXPECT_EQ(ERR_FILE_EOF, err);
  bytes.resize(10);
  EXPECT_EQ(nullptr, ReadBytes(bytes, &err));
  EXPECT_EQ(ERR_FILE_EOF, err);
  EXPECT_EQ(ERR_BMP_NOFILE, BmpWrite(nullptr, nullptr, 0));
  CFile* f = FileOf({});
  EXPECT_EQ(ERR_BADPARAM, BmpWrite(f, nullptr, 0));
  delete f;
}

TEST_F(BmpFile, WriteWithoutPixelsOrColoursIsALockFailure) {
  // Pixels: a Create that ran out of memory leaves the size set and no block.
  CBitmap* b = new CBitmap();
  const DWORD old = g_dwHandleMemLimit;
  g_dwHandleMemLimit = g_dwHandleMemUsed + 16;
  EXPECT_EQ(ERR_BMP_NOMEM, b->Create(8, 4, BF_24BIT, nullptr, BL_FORWARD, 0));
  g_dwHandleMemLimit = old;
  ASSERT_EQ(0u, b->m_hBits);
  ASSERT_EQ(24u * 4, b->m_dwSize);
  ERR err = 0;
  auto v = WriteBytes(b, 0, &err);
  EXPECT_EQ(ERR_LOCKFAIL, err);
  EXPECT_EQ(54u, v.size());  // the headers went out before the lock was tried
  delete b;

  // Colours: a palette whose array could not be allocated keeps its count and no array.
  CPalette* pal = new CPalette();
  g_dwHandleMemLimit = g_dwHandleMemUsed + 4;
  EXPECT_EQ(ERR_PAL_NOMEM, pal->SetSize(3));
  g_dwHandleMemLimit = old;
  ASSERT_EQ(0u, pal->m_hColors);
  b = MakeBitmap(4, 2, BF_8BIT, BL_FORWARD, 0x11, pal);
  v = WriteBytes(b, 0, &err);
  EXPECT_EQ(ERR_LOCKFAIL, err);
  ASSERT_EQ(54u, v.size());
  EXPECT_EQ(0x36u + 3 * 4, GetLE32(&v[10]));
  EXPECT_EQ(3u, GetLE32(&v[46]));
  delete b;
}

TEST_F(BmpFile, WritesHeaderFields) {
  CPalette* pal = MakePalette({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
  CBitmap* b = MakeBitmap(5, 3, BF_8BIT, BL_FORWARD, 0x42, pal);
  ERR err = 1;
  auto v = WriteBytes(b, 0, &err);
  ASSERT_EQ(0u, err);
  const DWORD off = 0x36 + 3 * 4;
  ASSERT_EQ(off + 8 * 3, v.size());
  EXPECT_EQ(0, memcmp(v.data(), "BM", 2));
  EXPECT_EQ(off + 24, GetLE32(&v[2]));
  EXPECT_EQ(0u, GetLE32(&v[6]));
  EXPECT_EQ(off, GetLE32(&v[10]));
  EXPECT_EQ(40u, GetLE32(&v[14]));
  EXPECT_EQ(5u, GetLE32(&v[18]));
  EXPECT_EQ((DWORD)-3, GetLE32(&v[22]));  // forward in memory: a top-down file
  EXPECT_EQ(1, GetLE16(&v[26]));
  EXPECT_EQ(8, GetLE16(&v[28]));
  for (int o = 30; o < 46; o++) EXPECT_EQ(0, v[o]) << o;
  EXPECT_EQ(3u, GetLE32(&v[46]));
  EXPECT_EQ(3u, GetLE32(&v[50]));
  EXPECT_EQ(3, v[54]);  // first colour: blue, green, red, extra
  EXPECT_EQ(1, v[56]);
  EXPECT_EQ(0x42, v[off]);
  EXPECT_EQ(BL_FORWARD * 8, b->m_nPitch);  // layout 0: the bitmap is left as it was
  delete b;
}

TEST_F(BmpFile, WriteWithLayoutFlipsMemory) {
  CBitmap* b = MakeBitmap(3, 4, BF_24BIT, BL_FORWARD, 0);
  auto data = PatternPixels(3, 4, 24);
  WriteBlock(*b, data);
  const DWORD swapped = g_dwBytesSwapped;
  ERR err = 1;
  auto v = WriteBytes(b, BL_BACKWARD, &err);
  ASSERT_EQ(0u, err);
  EXPECT_EQ(swapped + 48, g_dwBytesSwapped);
  EXPECT_EQ(-12, b->m_nPitch);
  EXPECT_EQ(4u, GetLE32(&v[22]));  // bottom-up
  std::vector<BYTE> rows(v.begin() + 0x36, v.end());
  for (int y = 0; y < 4; y++)  // file row y holds logical row 3 - y
    EXPECT_TRUE(std::equal(rows.begin() + y * 12, rows.begin() + y * 12 + 12, data.begin() + (3 - y) * 12))
        << y;
  delete b;
}

TEST_F(BmpFile, RoundTripsEveryFormatAndLayout) {
  for (SHORT fmt : {(SHORT)BF_8BIT, (SHORT)BF_16BIT, (SHORT)BF_24BIT}) {
    for (SHORT layout : {(SHORT)BL_FORWARD, (SHORT)BL_BACKWARD}) {
      CPalette* pal = fmt == BF_8BIT ? MakePalette(RandomColors(200, 3)) : nullptr;
      CBitmap* b = MakeBitmap(7, 5, fmt, layout, 0, pal);
      WriteBlock(*b, PatternPixels(7, 5, b->m_nBitsPerPixel));
      ERR err = 1;
      auto v = WriteBytes(b, 0, &err);
      ASSERT_EQ(0u, err);
      CBitmap* back = ReadBytes(v, &err);
      ASSERT_NE(nullptr, back);
      EXPECT_EQ(b->m_nPitch, back->m_nPitch);
      EXPECT_EQ(ReadBlock(*b), ReadBlock(*back));
      for (int y = 0; y < 5; y++)
        for (int x = 0; x < 7; x++)
          ASSERT_EQ(b->GetPixel((SHORT)x, (SHORT)y), back->GetPixel((SHORT)x, (SHORT)y));
      if (pal) {
        ASSERT_NE(nullptr, PaletteOf(*back));
        EXPECT_EQ(200u, back->m_pPalette->m_dwColors);
      }
      delete back;
      delete b;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Broken files: nothing is read or written outside its buffer, and allocations follow the file.

TEST_F(BmpBroken, SizesThatContradictTheFile) {
  ERR err = 0;
  BmpLayout s;
  s.width = 30000;
  s.height = -30000;  // about 900 MB of pixels promised, 16 bytes present
  s.pixels.assign(16, 1);
  const DWORD used = g_dwMaxHandleMemUsed;
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_FILE_EOF, err);
  EXPECT_LT(g_dwMaxHandleMemUsed - used, 1u << 20);  // nothing of that size was allocated
  s.width = -5;                                      // a negative width
  s.height = 2;
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_BMP_NOMEM, err);
  s.width = 12000;  // a row too long for the 16-bit pitch
  s.bits = 24;
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_BMP_NOMEM, err);
}

TEST_F(BmpBroken, TableAndHeaderSizesThatContradictTheFile) {
  ERR err = 0;
  BmpLayout s;
  s.width = 2;
  s.height = 2;
  s.pixels = PatternPixels(2, 2, 8);
  s.offBitsDelta = 4000;  // a table of 1000 more colours than the file holds
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_FILE_EOF, err);
  s.offBitsDelta = -100;  // offset before the headers' end: the count wraps to a huge number
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_FILE_EOF, err);
  s.offBitsDelta = 0;
  s.infoSize = 12;  // too short for the fields: they read as 0, so the bit count is refused
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_BMP_BADFORMAT, err);
  // Regression: a header of no bytes is a failed allocation, not a zero header.
  s.infoSize = 0;
  EXPECT_EQ(nullptr, ReadBytes(Build(s), &err));
  EXPECT_EQ(ERR_FILE_NOMEM, err);
  auto bytes = Build(BmpLayout{});
  PutLE32(&bytes[14], 0x7FFFFFF0);  // a header larger than the file
  EXPECT_EQ(nullptr, ReadBytes(bytes, &err));
  EXPECT_EQ(ERR_FILE_EOF, err);
}

TEST_F(BmpBroken, StoredRegressionCases) {
  // Files that once went wrong stay here; each must fail cleanly or load within its size.
  const std::filesystem::path dir = std::filesystem::path(SETUP_TEST_DATA) / "bmp" / "broken";
  int n = 0;
  if (std::filesystem::exists(dir)) {
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
      std::ifstream in(e.path(), std::ios::binary);
      std::vector<BYTE> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      ERR err = 0;
      CBitmap* b = ReadBytes(bytes, &err);
      EXPECT_TRUE(b == nullptr ? err != 0 : err == 0) << e.path();
      if (b) {
        EXPECT_LE(b->m_dwSize, bytes.size());
      }
      delete b;
      n++;
    }
  }
  EXPECT_GT(n, 0) << "no stored cases in " << dir;
}

// ---------------------------------------------------------------------------------------------
// Files on disk through the volume table.

class BmpDisk : public DiskTest {
 protected:
  BmpDisk() : DiskTest("bmp") {}
};

TEST_F(BmpDisk, SaveLoadAndSize) {
  CPalette* pal = MakePalette(RandomColors(16, 8));
  CBitmap* b = MakeBitmap(9, 4, BF_8BIT, BL_BACKWARD, 0, pal);
  WriteBlock(*b, PatternPixels(9, 4, 8));
  EXPECT_EQ(0u, BmpSave(P("a.bmp").c_str(), b, 0));
  SHORT w = 0, h = 0;
  EXPECT_EQ(0u, BmpGetSize(P("a.bmp").c_str(), &w, &h));
  EXPECT_EQ(9, w);
  EXPECT_EQ(4, h);
  ERR err = 1;
  CBitmap* back = BmpLoad(P("a.bmp").c_str(), &err, FALSE);
  ASSERT_NE(nullptr, back);
  EXPECT_EQ(ReadBlock(*b), ReadBlock(*back));
  delete back;
  EXPECT_EQ(nullptr, BmpLoad(P("missing.bmp").c_str(), &err, FALSE));
  EXPECT_EQ(ERR_BMP_NOFILE, err);
  w = 77;
  EXPECT_EQ(ERR_BMP_NOFILE, BmpGetSize(P("missing.bmp").c_str(), &w, &h));
  EXPECT_EQ(77, w);
  delete b;
}

// ---------------------------------------------------------------------------------------------
// Files written by an independent image tool (see tests/data/bmp/README.md). The pictures are
// the ones the fixture script draws: colour (x, y) below.

namespace {

Rgb FixtureColor8(int x, int y) {
  static const Rgb kFlat[12] = {{0, 0, 0},     {255, 255, 255}, {255, 0, 0},     {0, 160, 0},
                                {0, 0, 255},   {255, 255, 0},   {0, 255, 255},   {255, 0, 255},
                                {128, 64, 32}, {32, 64, 128},   {200, 200, 200}, {90, 10, 170}};
  const int i = (x + 2 * y) % 24;
  if (i < 12) return kFlat[i];
  const int k = i - 12;
  return Rgb{k * 10, 255 - k * 10, (k * 53) & 255};
}
Rgb FixtureColor24(int x, int y) { return Rgb{(x * 19) & 255, (y * 37) & 255, (x * y * 11 + 5) & 255}; }

const int kFixW = 13, kFixH = 7;

Rgb ColorAt(CBitmap* b, int x, int y) {
  const DWORD p = b->GetPixel((SHORT)x, (SHORT)y);
  if (b->m_nBitsPerPixel == 24) return Rgb{(int)(p >> 16) & 255, (int)(p >> 8) & 255, (int)p & 255};
  TColor c = MakeColor(0, 0, 0);
  EXPECT_NE(nullptr, PaletteOf(*b));
  if (b->m_pPalette) {
    EXPECT_EQ(0u, b->m_pPalette->GetColor(p, &c)) << "index " << p;
  }
  return Rgb{c.btRed, c.btGreen, c.btBlue};
}

void ExpectFixture(const char* name, int bits, SHORT layout) {
  std::ifstream in(std::filesystem::path(SETUP_TEST_DATA) / "bmp" / name, std::ios::binary);
  ASSERT_TRUE(in.good()) << name;
  std::vector<BYTE> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ERR err = 1;
  CBitmap* b = ReadBytes(bytes, &err);
  ASSERT_NE(nullptr, b) << name << " err " << std::hex << err;
  EXPECT_EQ(kFixW, b->m_nWidth);
  EXPECT_EQ(kFixH, b->m_nHeight);
  EXPECT_EQ(bits, b->m_nBitsPerPixel);
  EXPECT_EQ(layout, b->m_nPitch > 0 ? BL_FORWARD : BL_BACKWARD);
  for (int y = 0; y < kFixH; y++)
    for (int x = 0; x < kFixW; x++) {
      const Rgb e = bits == 8 ? FixtureColor8(x, y) : FixtureColor24(x, y);
      const Rgb g = ColorAt(b, x, y);
      ASSERT_TRUE(e.r == g.r && e.g == g.g && e.b == g.b)
          << name << " at " << x << "," << y << ": " << g.r << " " << g.g << " " << g.b;
    }
  delete b;
}

}  // namespace

TEST_F(BmpFixture, BothDepthsAndRowOrders) {
  ExpectFixture("im_8bit_bottomup.bmp", 8, BL_BACKWARD);
  ExpectFixture("im_8bit_topdown.bmp", 8, BL_FORWARD);
  ExpectFixture("im_24bit_bottomup.bmp", 24, BL_BACKWARD);
  ExpectFixture("im_24bit_topdown.bmp", 24, BL_FORWARD);
}

#if !defined(_WIN32)
// Our files read by the image tool, when it is installed: its pixel dump must show the
// pictures we wrote.
static bool ImageToolPresent() {
  FILE* p = popen("convert -version 2>/dev/null", "r");
  if (!p) return false;
  char buf[256] = {0};
  size_t n = fread(buf, 1, sizeof(buf) - 1, p);
  pclose(p);
  return n > 0 && strstr(buf, "ImageMagick") && !strstr(buf, "stand-in");
}

// Reads a binary PPM as printed by the tool.
static bool ReadPpm(const std::string& cmd, int* w, int* h, std::vector<BYTE>* rgb) {
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return false;
  std::vector<BYTE> all;
  BYTE buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) all.insert(all.end(), buf, buf + n);
  pclose(p);
  std::string head(all.begin(), all.begin() + std::min<size_t>(all.size(), 64));
  int maxv = 0, consumed = 0;
  if (sscanf(head.c_str(), "P6 %d %d %d%n", w, h, &maxv, &consumed) != 3 || maxv != 255) return false;
  rgb->assign(all.begin() + consumed + 1, all.end());
  return rgb->size() == (size_t)*w * *h * 3;
}

TEST_F(BmpDisk, ImageToolReadsWhatWeWrite) {
  if (!ImageToolPresent()) GTEST_SKIP() << "the image tool is not installed";
  std::vector<Rgb> colors;
  for (int i = 0; i < 24; i++) colors.push_back(FixtureColor8(i, 0));
  struct Case {
    const char* name;
    SHORT fmt, layout;
  } cases[] = {{"w8f.bmp", BF_8BIT, BL_FORWARD},
               {"w8b.bmp", BF_8BIT, BL_BACKWARD},
               {"w24f.bmp", BF_24BIT, BL_FORWARD},
               {"w24b.bmp", BF_24BIT, BL_BACKWARD}};
  for (const auto& c : cases) {
    CBitmap* b =
        MakeBitmap(kFixW, kFixH, c.fmt, c.layout, 0, c.fmt == BF_8BIT ? MakePalette(colors) : nullptr);
    HANDLE_LOCK(b->m_hBits);
    for (int y = 0; y < kFixH; y++)
      for (int x = 0; x < kFixW; x++) {
        if (c.fmt == BF_8BIT) {
          b->SetPixel((SHORT)x, (SHORT)y, (DWORD)((x + 2 * y) % 24));
        } else {
          const Rgb e = FixtureColor24(x, y);
          b->SetPixel((SHORT)x, (SHORT)y, (DWORD)(e.r << 16 | e.g << 8 | e.b));
        }
      }
    HANDLE_UNLOCK(b->m_hBits);
    ASSERT_EQ(0u, BmpSave(P(c.name).c_str(), b, 0));
    delete b;
    int w = 0, h = 0;
    std::vector<BYTE> rgb;
    ASSERT_TRUE(ReadPpm("convert '" + P(c.name) + "' ppm:- 2>/dev/null", &w, &h, &rgb)) << c.name;
    ASSERT_EQ(kFixW, w);
    ASSERT_EQ(kFixH, h);
    for (int y = 0; y < kFixH; y++)
      for (int x = 0; x < kFixW; x++) {
        const Rgb e = c.fmt == BF_8BIT ? FixtureColor8(x, y) : FixtureColor24(x, y);
        const BYTE* g = &rgb[((size_t)y * w + x) * 3];
        ASSERT_TRUE(e.r == g[0] && e.g == g[1] && e.b == g[2]) << c.name << " at " << x << "," << y;
      }
  }
}
#endif
