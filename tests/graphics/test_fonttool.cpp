// Tests of fonttool, run as a program: fonts built from the committed BDF sample and from glyph
// sheets made here, SFNT conversion, preview pictures checked pixel by pixel (and read back by an
// independent image tool when one is installed), and clear failures that leave no files.
#include <stdio.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "files/stdfile.h"
#include "fonttest.h"
#include "graphics/bmpfile.h"
#include "graphics/sfont.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

// The sample's glyphs as the BDF spells them, placed in their 7-row cells ('#' set).
// Rows 0 to 5 lie above the baseline, row 6 below it: a BBX of height 5 at y offset 0 takes
// rows 1 to 5.
const std::vector<std::string> kH = {".....", "#..#.", "#..#.", "####.", "#..#.", "#..#.", "....."};
const std::vector<std::string> kI = {"..", "#.", "..", "#.", "#.", "#.", ".."};
const std::vector<std::string> kG = {"....", "....", "....", "###.", "#.#.", "###.", "..#."};

class FontTool : public MemBalance {
 protected:
  void SetUp() override {
    MemBalance::SetUp();
#if defined(_WIN32)
    GTEST_SKIP() << "the tool is run through a POSIX shell";
#else
    m_tool = FindTool("fonttool");
    if (m_tool.empty()) GTEST_SKIP() << "fonttool is not built";
    std::random_device rd;
    m_dir = fs::temp_directory_path() / ("fonttool-test-" + std::to_string(rd()));
    fs::create_directories(m_dir);
    m_run = fs::temp_directory_path() / ("fonttool-run-" + std::to_string(rd()));
    fs::create_directories(m_run);
#endif
  }
  void TearDown() override {
    std::error_code ec;
    if (!m_dir.empty()) fs::remove_all(m_dir, ec);
    if (!m_run.empty()) fs::remove_all(m_run, ec);
    MemBalance::TearDown();
  }

  TToolRun Run(const std::vector<std::string>& args) {
    return RunTool(m_tool.string(), args, m_run.string());
  }

  std::string P(const char* name) { return (m_dir / name).string(); }

  std::vector<std::string> Files() {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(m_dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  template <class T>
  T* LoadAs(const std::string& path) {
    FILE* f = fopen(path.c_str(), "rb");
    EXPECT_NE(nullptr, f) << path;
    if (!f) return nullptr;
    CStdFile file(f, FILE_MODE_READ);
    T* p = new T();
    const ERR err = p->Load(&file);
    EXPECT_EQ(0u, err) << path;
    if (err) {
      delete p;
      return nullptr;
    }
    return p;
  }

  CBitmap* LoadBmp(const std::string& path) {
    FILE* f = fopen(path.c_str(), "rb");
    EXPECT_NE(nullptr, f) << path;
    if (!f) return nullptr;
    CStdFile file(f, FILE_MODE_READ);
    return BmpRead(&file, nullptr, FALSE);
  }

  // Saves an 8-bit picture given as rows of hex digits (one per pixel) with a 16-colour ramp.
  void SaveSheet(const std::string& path, const std::vector<std::string>& rows) {
    CBitmap* b = MakeBitmap((int)rows[0].size(), (int)rows.size(), BF_8BIT, BL_BACKWARD, 0, RampPalette());
    std::vector<BYTE> block = ReadBlock(*b);
    for (size_t y = 0; y < rows.size(); y++)
      for (size_t x = 0; x < rows[y].size(); x++)
        block[PixelOffset(*b, (int)x, (int)y)] = (BYTE)std::stoi(std::string(1, rows[y][x]), nullptr, 16);
    WriteBlock(*b, block);
    FILE* f = fopen(path.c_str(), "w+b");
    ASSERT_NE(nullptr, f);
    CStdFile file(f, FILE_MODE_CREATE);
    EXPECT_EQ(0u, BmpWrite(&file, b, 0));
    delete b;
  }

  fs::path m_tool, m_dir, m_run;
};

// The glyph of c in an image font as '#' and '.' rows.
std::vector<std::string> GlyphOf(CImageFont* p, BYTE c) {
  std::vector<std::string> rows;
  const int g = p->m_Header.abtIndex[c], h = p->m_Header.nHeight, w = p->m_Header.abtWidth[c];
  for (int y = 0; y < h; y++) {
    std::string s;
    for (int x = 0; x < w; x++) {
      const DWORD v =
          x < p->m_pFontImage->m_nWidth ? p->m_pFontImage->GetPixel((SHORT)x, (SHORT)(g * h + y)) : 0;
      s += v ? '#' : '.';
    }
    rows.push_back(s);
  }
  return rows;
}

TEST_F(FontTool, HelpAndUsage) {
  TToolRun r = Run({"--help"});
  EXPECT_EQ(0, r.rc);
  EXPECT_NE(std::string::npos, r.out.find("fonttool bdf"));
  EXPECT_NE(std::string::npos, r.out.find("fonttool render"));
  r = Run({});
  EXPECT_EQ(2, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("usage"));
  r = Run({"frobnicate"});
  EXPECT_EQ(2, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("unknown command"));
  r = Run({"bdf", "a", "b", "--bogus"});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("unknown option --bogus"));
  r = Run({"bdf", "only-one"});
  EXPECT_EQ(1, r.rc);
  r = Run({"bdf", "a", "b", "--ink", "0"});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("--ink takes a number from 1 to 255"));
}

TEST_F(FontTool, BdfSampleMakesTheCommittedFont) {
  const std::string sample = std::string(SETUP_TEST_DATA) + "/fonts/sample.bdf";
  TToolRun r = Run({"bdf", sample, P("s.fnt")});
  ASSERT_EQ(0, r.rc) << r.err;
  EXPECT_EQ(ReadFileBytes(std::string(SETUP_TEST_DATA) + "/fonts/sample.fnt"), ReadFileBytes(P("s.fnt")));
  EXPECT_EQ(std::vector<std::string>{"s.fnt"}, Files());
  CImageFont* p = LoadAs<CImageFont>(P("s.fnt"));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(7, p->GetHeight());
  EXPECT_EQ(7, p->m_Header.nGlyphs);
  EXPECT_EQ(5, p->GetCharWidth('H'));
  EXPECT_EQ(2, p->GetCharWidth('i'));
  EXPECT_EQ(3, p->GetCharWidth(' '));
  EXPECT_EQ(4, p->GetCharWidth(233));
  EXPECT_EQ(kH, GlyphOf(p, 'H'));
  EXPECT_EQ(kI, GlyphOf(p, 'i'));
  EXPECT_EQ(kG, GlyphOf(p, 'g'));
  // The space has a blank glyph (so it moves the text); a code the BDF lacks has none.
  EXPECT_LT(p->m_Header.abtIndex[(unsigned char)' '], p->m_Header.nGlyphs);
  EXPECT_EQ(std::vector<std::string>(7, "..."), GlyphOf(p, ' '));
  EXPECT_GE(p->m_Header.abtIndex[(unsigned char)'Z'], p->m_Header.nGlyphs);
  EXPECT_EQ(0, p->GetCharWidth('Z'));
  delete p;
}

TEST_F(FontTool, BdfOptionsAndDamagedSources) {
  const std::string sample = std::string(SETUP_TEST_DATA) + "/fonts/sample.bdf";
  TToolRun r = Run({"bdf", sample, P("s.fnt"), "--spacing", "-1", "--ink", "3"});
  ASSERT_EQ(0, r.rc) << r.err;
  CImageFont* p = LoadAs<CImageFont>(P("s.fnt"));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(-1, p->m_Header.nSpacing);
  EXPECT_EQ(3u, p->m_pFontImage->GetPixel(0, (SHORT)(p->m_Header.abtIndex[(unsigned char)'H'] * 7 + 1)));
  delete p;

  const std::string text = ReadFileBytes(sample);
  struct Case {
    std::string name, body, message;
  } cases[] = {
      {"cut.bdf", text.substr(0, text.find("ENDCHAR", text.find("STARTCHAR A"))), "ends inside a character"},
      {"notbdf.bdf", "hello\n", "not a BDF font"},
      {"rows.bdf", text.substr(0, text.find("90\nENDCHAR", text.find("STARTCHAR H"))) + "ENDCHAR\nENDFONT\n",
       "fewer rows"},
      {"hex.bdf",
       text.substr(0, text.find("F0", text.find("STARTCHAR H"))) + "XZ" +
           text.substr(text.find("F0", text.find("STARTCHAR H")) + 2),
       "hexadecimal"},
  };
  for (const Case& k : cases) {
    std::ofstream(P(k.name.c_str()), std::ios::binary) << k.body;
    r = Run({"bdf", P(k.name.c_str()), P("out.fnt")});
    EXPECT_EQ(1, r.rc) << k.name;
    EXPECT_NE(std::string::npos, r.err.find(k.message)) << k.name << ": " << r.err;
    EXPECT_FALSE(fs::exists(P("out.fnt"))) << k.name;
    EXPECT_FALSE(fs::exists(P("out.fnt.fonttool-tmp"))) << k.name;
  }
  // The line of the fault is named.
  r = Run({"bdf", P("hex.bdf"), P("out.fnt")});
  EXPECT_NE(std::string::npos, r.err.find("hex.bdf:"));
  r = Run({"bdf", P("missing.bdf"), P("out.fnt")});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("cannot open"));
}

TEST_F(FontTool, SheetCellsBecomeProportionalCharacters) {
  // 4 x 2 cells of 4 x 3 pixels holding codes 32 to 39: space (empty), '!' one column of ink,
  // '"' empty (no glyph), '#' two dots, '$' a block, '%' three palette indices, the rest empty.
  SaveSheet(P("sheet.bmp"), {
                                "0000100000001010",
                                "0000100000000000",
                                "0000000000000000",
                                "1110123000000000",
                                "1110000000000000",
                                "1110000000000000",
                            });
  TToolRun r = Run({"sheet", P("sheet.bmp"), P("s.fnt"), "--cols", "4", "--rows", "2", "--first", "32"});
  ASSERT_EQ(0, r.rc) << r.err;
  CImageFont* p = LoadAs<CImageFont>(P("s.fnt"));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(3, p->GetHeight());
  EXPECT_EQ(2, p->GetCharWidth(' '));  // half a cell
  EXPECT_EQ(2, p->GetCharWidth('!'));  // one column of ink and the gap
  EXPECT_EQ(0, p->GetCharWidth('"'));
  EXPECT_GE(p->m_Header.abtIndex[(unsigned char)'"'], p->m_Header.nGlyphs);
  EXPECT_EQ(4, p->GetCharWidth('#'));  // ink to the third column, and the gap
  EXPECT_EQ(4, p->GetCharWidth('$'));
  EXPECT_EQ((std::vector<std::string>{"#.", "#.", ".."}), GlyphOf(p, '!'));
  EXPECT_EQ((std::vector<std::string>{"#.#.", "....", "...."}), GlyphOf(p, '#'));
  EXPECT_EQ((std::vector<std::string>{"###.", "###.", "###."}), GlyphOf(p, '$'));
  // Palette indices are kept: the '%' cell holds 2 and 3.
  const SHORT top = (SHORT)(p->m_Header.abtIndex[(unsigned char)'%'] * 3);
  EXPECT_EQ(1u, p->m_pFontImage->GetPixel(0, top));
  EXPECT_EQ(2u, p->m_pFontImage->GetPixel(1, top));
  EXPECT_EQ(3u, p->m_pFontImage->GetPixel(2, top));
  delete p;
  // --fixed: every non-empty cell is a full cell wide; --space and --gap are honoured.
  r = Run({"sheet", P("sheet.bmp"), P("f.fnt"), "--cols", "4", "--rows", "2", "--first", "32", "--fixed"});
  ASSERT_EQ(0, r.rc) << r.err;
  p = LoadAs<CImageFont>(P("f.fnt"));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(4, p->GetCharWidth('!'));
  EXPECT_EQ(4, p->GetCharWidth(' '));
  delete p;
  r = Run({"sheet", P("sheet.bmp"), P("g.fnt"), "--cols", "4", "--rows", "2", "--first", "32", "--gap", "0",
           "--space", "7"});
  ASSERT_EQ(0, r.rc) << r.err;
  p = LoadAs<CImageFont>(P("g.fnt"));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(1, p->GetCharWidth('!'));
  EXPECT_EQ(7, p->GetCharWidth(' '));
  delete p;
}

TEST_F(FontTool, SheetFailures) {
  SaveSheet(P("sheet.bmp"), {"0000100", "0000100", "0000000"});
  TToolRun r = Run({"sheet", P("sheet.bmp"), P("s.fnt"), "--cols", "2", "--rows", "1"});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("don't divide into 2 x 1 cells"));
  r = Run({"sheet", P("sheet.bmp"), P("s.fnt"), "--cols", "7", "--rows", "3", "--first", "250"});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("past code 255"));
  // A 24-bit picture is no sheet.
  CBitmap* deep = MakeBitmap(16, 16, BF_24BIT, BL_BACKWARD, 0);
  ASSERT_EQ(0u, [&] {
    FILE* f = fopen(P("deep.bmp").c_str(), "w+b");
    CStdFile file(f, FILE_MODE_CREATE);
    return BmpWrite(&file, deep, 0);
  }());
  delete deep;
  r = Run({"sheet", P("deep.bmp"), P("s.fnt")});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("8-bit"));
  std::ofstream(P("junk.bmp"), std::ios::binary) << "not a picture";
  r = Run({"sheet", P("junk.bmp"), P("s.fnt")});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("not a bitmap"));
  EXPECT_EQ((std::vector<std::string>{"deep.bmp", "junk.bmp", "sheet.bmp"}), Files());
}

TEST_F(FontTool, SfntConversionMatchesTheLibrary) {
  const std::string fnt = std::string(SETUP_TEST_DATA) + "/fonts/sample.fnt";
  TToolRun r = Run({"sfnt", fnt, P("s.sfn")});
  ASSERT_EQ(0, r.rc) << r.err;
  // Code 233 has a glyph that a run-length font won't draw: the tool says so.
  EXPECT_NE(std::string::npos, r.err.find("codes from 0x80"));
  CSFont* s = LoadAs<CSFont>(P("s.sfn"));
  CImageFont* img = LoadAs<CImageFont>(fnt);
  ASSERT_TRUE(s && img);
  CSFont direct;
  ASSERT_EQ(1u, ConvertToSFont(img, &direct));
  EXPECT_EQ(direct.m_dwImageSize, s->m_dwImageSize);
  EXPECT_EQ(0, memcmp(direct.m_pImageData, s->m_pImageData, direct.m_dwImageSize));
  EXPECT_EQ(0, memcmp(direct.m_anOffsets, s->m_anOffsets, sizeof(direct.m_anOffsets)));
  delete img;
  delete s;
  // Converting an SFNT font again is refused.
  r = Run({"sfnt", P("s.sfn"), P("t.sfn")});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("already an SFNT"));
  // An unwritable destination leaves nothing behind.
  r = Run({"sfnt", fnt, P("no/such/dir/t.sfn")});
  EXPECT_EQ(1, r.rc);
  EXPECT_EQ(std::vector<std::string>{"s.sfn"}, Files());
}

// The expected preview of "Hi" with margin 1: background, then the glyph pictures in `ink`.
std::vector<DWORD> ExpectedHi(DWORD ink, DWORD bg) {
  const int w = 5 + 2 + 2, h = 7 + 2;
  std::vector<DWORD> v((size_t)w * h, bg);
  for (int y = 0; y < 7; y++) {
    for (int x = 0; x < 5; x++)
      if (kH[y][x] == '#') v[(size_t)(y + 1) * w + 1 + x] = ink;
    for (int x = 0; x < 2; x++)
      if (kI[y][x] == '#') v[(size_t)(y + 1) * w + 6 + x] = ink;
  }
  return v;
}

TEST_F(FontTool, RenderDrawsTheTextPixelForPixel) {
  const std::string fnt = std::string(SETUP_TEST_DATA) + "/fonts/sample.fnt";
  ASSERT_EQ(0, Run({"sfnt", fnt, P("s.sfn")}).rc);
  for (const std::string& font : {fnt, P("s.sfn")}) {
    TToolRun r =
        Run({"render", font, P("hi.bmp"), "Hi", "--margin", "1", "--color", "FF8000", "--bg", "0000A0"});
    ASSERT_EQ(0, r.rc) << r.err;
    CBitmap* b = LoadBmp(P("hi.bmp"));
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(24, b->m_nBitsPerPixel);
    EXPECT_EQ(Picture(ExpectedHi(0xFF8000, 0x0000A0), 9), Picture(PixelsOf(*b), b->m_nWidth)) << font;
    delete b;
    // 8 bits: the background is index 0 and the colour index 1 of the picture's palette.
    r = Run({"render", font, P("hi8.bmp"), "Hi", "--margin", "1", "--color", "FF8000", "--depth", "8"});
    ASSERT_EQ(0, r.rc) << r.err;
    b = LoadBmp(P("hi8.bmp"));
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(Picture(ExpectedHi(1, 0), 9), Picture(PixelsOf(*b), b->m_nWidth)) << font;
    TColor c;
    ASSERT_EQ(0u, PaletteOf(*b)->GetColor(1, &c));
    EXPECT_EQ(0xFF, c.btRed);
    EXPECT_EQ(0x80, c.btGreen);
    delete b;
  }
  // 16 bits: 5 bits a channel.
  TToolRun r =
      Run({"render", fnt, P("hi16.bmp"), "Hi", "--margin", "1", "--color", "FFFFFF", "--depth", "16"});
  ASSERT_EQ(0, r.rc) << r.err;
  CBitmap* b = LoadBmp(P("hi16.bmp"));
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(Picture(ExpectedHi(0x7FFF, 0), 9), Picture(PixelsOf(*b), b->m_nWidth));
  delete b;
  r = Run({"render", fnt, P("x.bmp"), "Hi", "--depth", "32"});
  EXPECT_EQ(1, r.rc);
  r = Run({"render", fnt, P("x.bmp"), "Hi", "--color", "red"});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("RRGGBB"));
  r = Run({"render", P("missing.fnt"), P("x.bmp"), "Hi"});
  EXPECT_EQ(1, r.rc);
  EXPECT_FALSE(fs::exists(P("x.bmp")));
}

TEST_F(FontTool, AnotherImageToolReadsThePreview) {
  if (std::system("convert -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no image tool installed";
  const std::string fnt = std::string(SETUP_TEST_DATA) + "/fonts/sample.fnt";
  ASSERT_EQ(
      0, Run({"render", fnt, P("hi.bmp"), "Hi", "--margin", "1", "--color", "FF8000", "--bg", "0000A0"}).rc);
  const std::string cmd =
      "convert " + ShellQuote(P("hi.bmp")) + " txt:- > " + ShellQuote(P("hi.txt")) + " 2>/dev/null";
  ASSERT_EQ(0, std::system(cmd.c_str()));
  const std::string txt = ReadFileBytes(P("hi.txt"));
  // Pixel (1, 2) is the top left of H, (2, 2) the background inside it.
  EXPECT_NE(std::string::npos, txt.find("\n1,2: (255,128,0)")) << txt.substr(0, 300);
  EXPECT_NE(std::string::npos, txt.find("\n2,2: (0,0,160)")) << txt.substr(0, 300);
}

TEST_F(FontTool, InfoDescribesBothKinds) {
  const std::string fnt = std::string(SETUP_TEST_DATA) + "/fonts/sample.fnt";
  TToolRun r = Run({"info", fnt});
  ASSERT_EQ(0, r.rc) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("kind: image"));
  EXPECT_NE(std::string::npos, r.out.find("height: 7"));
  EXPECT_NE(std::string::npos, r.out.find("printable ASCII among them: !AHgi"));
  ASSERT_EQ(0, Run({"sfnt", fnt, P("s.sfn")}).rc);
  r = Run({"info", P("s.sfn")});
  ASSERT_EQ(0, r.rc) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("kind: SFNT"));
  EXPECT_NE(std::string::npos, r.out.find("run data: "));
  std::ofstream(P("bad.sfn"), std::ios::binary) << "SFNT and then too little";
  r = Run({"info", P("bad.sfn")});
  EXPECT_EQ(1, r.rc);
  EXPECT_NE(std::string::npos, r.err.find("damaged SFNT"));
}

}  // namespace
