// Tests of location parsing and of the default locator: the path each location opens, the three
// object types it makes from files, and the chain to the next locator.
#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "config/inidoc.h"
#include "files/defrl.h"
#include "files/memfile.h"
#include "files/winfile.h"
#include "graphics/bmpfile.h"
#include "graphics/gfxtest.h"
#include "graphics/sfont.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

std::string Part(const TLocPart& part) {
  return part.pchStart ? std::string(part.pchStart, part.dwLen) : std::string("<none>");
}

// The five parts as one text, absent parts as <none>.
std::string Parts(const char* pchLocation) {
  TLocation loc;
  memset(&loc, 0x5A, sizeof(loc));
  ParseLocation(&loc, pchLocation);
  return Part(loc.Scheme) + "|" + Part(loc.Host) + "|" + Part(loc.Dir) + "|" + Part(loc.Name) + "|" +
         Part(loc.Fragment);
}

TEST(ParseLocation, SplitsSchemeHostDirectoryNameFragment) {
  const char* cases[][2] = {
      {"file:/a/b.bmp", "file|<none>|/a/|b.bmp|<none>"},
      {"a.bmp", "<none>|<none>|<none>|a.bmp|<none>"},
      {"/a/b.bmp#x", "<none>|<none>|/a/|b.bmp|x"},
      {"http://srv/d/e/f.bmp#top", "http|srv|/d/e/|f.bmp|top"},
      {"//srv/x/y", "<none>|srv|/x/|y|<none>"},
      {"#frag", "<none>|<none>|<none>||frag"},
      // A backslash is an ordinary character.
      {"pak:\\data\\a.bmp", "pak|<none>|<none>|\\data\\a.bmp|<none>"},
      {"C:\\x\\y.bmp", "C|<none>|<none>|\\x\\y.bmp|<none>"},
      // No scheme and text before the first '/': neither host nor directory is looked for.
      {"data/a.bmp", "<none>|<none>|<none>|data/a.bmp|<none>"},
      {"a//b", "<none>|<none>|<none>|a//b|<none>"},
      // The last '/' ahead of the '#' closes the directory; a '/' in the fragment doesn't count.
      {"/a#b/c", "<none>|<none>|/|a|b/c"},
      {"/x/a:b", "<none>|<none>|/x/|a:b|<none>"},  // a ':' after a '/' is no scheme
      {"", "<none>|<none>|<none>||<none>"},
      {"a:", "a|<none>|<none>||<none>"},
  };
  for (const auto& c : cases) EXPECT_EQ(c[1], Parts(c[0])) << c[0];
  EXPECT_EQ("<none>|<none>|<none>|<none>|<none>", Parts(nullptr));
}

// ---------------------------------------------------------------------------------------------
// A volume that opens nothing and remembers the paths it was asked for.

class CRecFS : public CFS {
 public:
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override {
    paths.push_back(pchPath);
    modes.push_back(wMode);
    if (pErr) *pErr = ERR_FILE_NOTFOUND;
    return 0;
  }
  std::vector<std::string> paths;
  std::vector<WORD> modes;
};

// A locator that records what reaches it.
class CSpyLocator : public CResLocator {
 public:
  ERR Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override {
    calls.push_back("Load " + std::to_string(dwType) + " " + pLocation + " " + std::to_string(dwParam));
    lastBuf = pBuf;
    return result;
  }
  ERR Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override {
    calls.push_back("Save " + std::to_string(dwType) + " " + pLocation + " " + std::to_string(dwParam));
    lastBuf = pBuf;
    return result;
  }
  ERR Release(DWORD dwType, void* pBuf) override {
    calls.push_back("Release " + std::to_string(dwType));
    lastBuf = pBuf;
    return result;
  }
  ERR Idle() override {
    calls.push_back("Idle");
    return result;
  }
  std::vector<std::string> calls;
  void* lastBuf = nullptr;
  ERR result = 0x1234;
};

// Paths opened for each location, through a recording volume under the empty prefix and
// another under "res:".
class LocatorPaths : public MemBalance {
 protected:
  void SetUp() override {
    MemBalance::SetUp();
    ASSERT_EQ(0u, FSInit(5));
    m_pAll = new CRecFS;
    m_pRes = new CRecFS;
    ASSERT_EQ(0u, FSAdd("", m_pAll, 0));
    ASSERT_EQ(0u, FSAdd("res:", m_pRes, 0));
  }
  void TearDown() override {
    FSDone();  // deletes both volumes
    MemBalance::TearDown();
  }
  // The path the bitmap load of pchLocation opened, and on which volume.
  std::string Opened(const char* pchLocation) {
    m_pAll->paths.clear();
    m_pRes->paths.clear();
    std::vector<char> text(pchLocation, pchLocation + strlen(pchLocation) + 1);
    CDefResLocator loc(nullptr);
    void* pObject = reinterpret_cast<void*>(1);
    EXPECT_NE(0u, loc.Load(RES_TYPE_BITMAP, text.data(), &pObject, 0));
    EXPECT_EQ(nullptr, pObject);
    EXPECT_STREQ(pchLocation, text.data()) << "the location text must be whole after the call";
    std::string s;
    for (auto& p : m_pAll->paths) s += "[" + p + "]";
    for (auto& p : m_pRes->paths) s += "res[" + p + "]";
    return s;
  }
  CRecFS* m_pAll = nullptr;
  CRecFS* m_pRes = nullptr;
};

TEST_F(LocatorPaths, PathOfEachLocation) {
  const std::string longName = "/" + std::string(400, 'n') + ".bmp";
  const std::string cases[][2] = {
      // No scheme or the file scheme: directory and name, without host or fragment.
      {"file:/a/b.bmp", "[/a/b.bmp]"},
      {"a.bmp", "[a.bmp]"},
      {"/a/b.bmp#x", "[/a/b.bmp]"},
      {"data/b.bmp#x", "[data/b.bmp]"},
      {"file://srv/d/e.bmp#f", "[/d/e.bmp]"},
      {"//srv/d/e.bmp", "[/d/e.bmp]"},
      // Another scheme keeps its prefix for the volume table.
      {"res:\\x.bmp", "res[\\x.bmp]"},
      {"res:\\d\\x.bmp#2", "res[\\d\\x.bmp]"},
      {"files:/a.bmp", "[files:/a.bmp]"},  // merely starts like "file"
      {"C:\\x.bmp", "[C:\\x.bmp]"},
      {longName + "#frag", "[" + longName + "]"},
  };
  for (const auto& c : cases) EXPECT_EQ(c[1], Opened(c[0].c_str())) << c[0];
}

TEST_F(LocatorPaths, FontOpensForReadingAndSaveCreates) {
  CDefResLocator loc(nullptr);
  void* pObject = nullptr;
  {
    AssertCatcher catcher;
    EXPECT_EQ(ERR_FILE_NOTFOUND, loc.Load(RES_TYPE_FONT, "f/x.fnt", &pObject, 0));
    EXPECT_TRUE(catcher.Fired("pFontFile"));
  }
  EXPECT_EQ(nullptr, pObject);
  CImageFont font;
  {
    AssertCatcher catcher;
    EXPECT_EQ(ERR_FILE_NOTFOUND, loc.Save(RES_TYPE_FONT, "/g/y.fnt#1", &font, 0));
    EXPECT_TRUE(catcher.Fired("pFile"));
  }
  ASSERT_EQ(2u, m_pAll->paths.size());
  EXPECT_EQ("f/x.fnt", m_pAll->paths[0]);
  EXPECT_EQ(FILE_MODE_READ, m_pAll->modes[0]);
  EXPECT_EQ("/g/y.fnt", m_pAll->paths[1]);
  EXPECT_EQ(FILE_MODE_CREATE, m_pAll->modes[1]);
}

// ---------------------------------------------------------------------------------------------
// Real files in a temporary directory, through the native volume.

class DefLocator : public MemBalance {
 protected:
  void SetUp() override {
    MemBalance::SetUp();
    const ::testing::TestInfo* pInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    m_dir = fs::temp_directory_path() / (std::string("setup_defrl_") + pInfo->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    ASSERT_EQ(0u, FSInit(5));
    ASSERT_EQ(0u, WinFSInit());
  }
  void TearDown() override {
    WinFSDone();
    FSDone();
    std::error_code ec;
    fs::remove_all(m_dir, ec);
    MemBalance::TearDown();
  }
  std::string Path(const char* pchName) const { return (m_dir / pchName).string(); }
  void Put(const char* pchName, const std::vector<BYTE>& data) const {
    std::ofstream out(Path(pchName), std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  }
  std::vector<BYTE> Get(const std::string& path) const {
    std::ifstream in(path, std::ios::binary);
    return std::vector<BYTE>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  fs::path m_dir;
};

// An 8-bit bitmap whose pixel (x, y) is (x * 7 + y * 13 + seed) & 15, with a 16-colour palette.
CBitmap* PatternBitmap(int w, int h, int seed) {
  std::vector<Rgb> colors;
  for (int i = 0; i < 16; i++) colors.push_back(Rgb{i * 16, 255 - i * 16, i * 5});
  CBitmap* b = MakeBitmap(w, h, BF_8BIT, BL_FORWARD, 0, MakePalette(colors));
  std::vector<BYTE> block = ReadBlock(*b);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) block[PixelOffset(*b, x, y)] = (BYTE)((x * 7 + y * 13 + seed) & 15);
  WriteBlock(*b, block);
  return b;
}

// A two-glyph image font: 'A' is 3 pixels wide, 'B' 2, 'C' has no glyph; 4 rows.
CImageFont* SmallImageFont(const char* pchReservedHead) {
  TFontHeader h;
  memset(&h, 0, sizeof(h));
  if (pchReservedHead) memcpy(h.achReserved, pchReservedHead, strlen(pchReservedHead));
  h.nHeight = 4;
  h.nMaxWidth = 3;
  h.nSpacing = -1;
  h.nGlyphs = 2;
  for (int c = 0; c < 256; c++) h.abtIndex[c] = 0xFF;
  h.abtWidth[(BYTE)'A'] = 3;
  h.abtIndex[(BYTE)'A'] = 0;
  h.abtWidth[(BYTE)'B'] = 2;
  h.abtIndex[(BYTE)'B'] = 1;
  h.abtWidth[(BYTE)'C'] = 5;
  CImageFont* pFont = new CImageFont;
  EXPECT_EQ(0u, pFont->SetImage(PatternBitmap(3, 8, 1), &h));
  return pFont;
}

// The bytes an object writes into a memory file.
std::vector<BYTE> Serialized(CFont* pFont) {
  CMemFile mem(0, 0, 0x100000, 0x1000, TRUE);
  EXPECT_EQ(0u, pFont->Save(&mem));
  std::vector<BYTE> v(mem.GetSize());
  if (!v.empty()) {
    EXPECT_EQ(0u, mem.ReadAt(v.data(), 0, (DWORD)v.size(), 0));
  }
  return v;
}

void SaveFontTo(CFont* pFont, const std::string& path) {
  ERR err = 0;
  CFile* pFile = g_pfnFileOpen(path.c_str(), FILE_MODE_CREATE, &err);
  ASSERT_NE(nullptr, pFile);
  EXPECT_EQ(0u, pFont->Save(pFile));
  delete pFile;
}

TEST_F(DefLocator, BitmapLoadSaveAndRelease) {
  CBitmap* pSrc = PatternBitmap(13, 5, 3);
  CDefResLocator loc(nullptr);
  const std::string where = "file:" + Path("a.bmp") + "#frag";
  EXPECT_EQ(0u, loc.Save(RES_TYPE_BITMAP, where.c_str(), pSrc, 0));
  EXPECT_TRUE(fs::exists(Path("a.bmp")));

  void* pObject = nullptr;
  EXPECT_EQ(0u, loc.Load(RES_TYPE_BITMAP, where.c_str(), &pObject, 0));
  ASSERT_NE(nullptr, pObject);
  CBitmap* pBack = static_cast<CBitmap*>(pObject);
  EXPECT_EQ(13, pBack->m_nWidth);
  EXPECT_EQ(5, pBack->m_nHeight);
  for (int y = 0; y < 5; y++)
    for (int x = 0; x < 13; x++)
      EXPECT_EQ((DWORD)((x * 7 + y * 13 + 3) & 15), pBack->GetPixel((SHORT)x, (SHORT)y));

  EXPECT_EQ(0u, loc.Release(RES_TYPE_BITMAP, &pObject));
  EXPECT_EQ(nullptr, pObject);
  // Nothing to release is no error.
  EXPECT_EQ(0u, loc.Release(RES_TYPE_BITMAP, &pObject));
  EXPECT_EQ(0u, loc.Release(RES_TYPE_BITMAP, nullptr));
  delete pSrc;
}

TEST_F(DefLocator, MissingBitmapAndBadArguments) {
  CDefResLocator loc(nullptr);
  void* pObject = reinterpret_cast<void*>(8);
  EXPECT_EQ(ERR_BMP_NOFILE, loc.Load(RES_TYPE_BITMAP, Path("none.bmp").c_str(), &pObject, 0));
  EXPECT_EQ(nullptr, pObject);
  for (DWORD t : {7u, 9u, 10u}) EXPECT_EQ(ERR_BADPARAM, loc.Load(t, Path("x").c_str(), nullptr, 0)) << t;
  AssertCatcher catcher;
  EXPECT_EQ(ERR_BADPARAM, loc.Save(RES_TYPE_BITMAP, Path("x").c_str(), nullptr, 0));
  EXPECT_TRUE(catcher.Fired("pBuf"));
  catcher.Clear();
  EXPECT_EQ(ERR_BADPARAM, loc.Load(RES_TYPE_BITMAP, nullptr, &pObject, 0));
  EXPECT_TRUE(catcher.Fired("pLocation"));
}

TEST_F(DefLocator, IniDocumentLoadsAndSaves) {
  const char* pchText = "[Setup]\nTitle=Game ; shown on top\nDisk=2\n\n[Other]\nA=b\n";
  Put("in.ini", std::vector<BYTE>(pchText, pchText + strlen(pchText)));
  CDefResLocator loc(nullptr);
  void* pObject = nullptr;
  EXPECT_EQ(0u, loc.Load(RES_TYPE_INIDOC, Path("in.ini").c_str(), &pObject, 0));
  ASSERT_NE(nullptr, pObject);
  CIniDoc* pDoc = static_cast<CIniDoc*>(pObject);
  EXPECT_STREQ("Game", pDoc->GetValue("setup", "title"));
  EXPECT_STREQ("b", pDoc->GetValue("Other", "A"));

  EXPECT_EQ(0u, pDoc->SetString("Setup", "Disk", "3"));
  EXPECT_EQ(0u, loc.Save(RES_TYPE_INIDOC, Path("out.ini").c_str(), pDoc, 0));
  EXPECT_EQ(0u, loc.Release(RES_TYPE_INIDOC, &pObject));
  EXPECT_EQ(nullptr, pObject);

  EXPECT_EQ(0u, loc.Load(RES_TYPE_INIDOC, Path("out.ini").c_str(), &pObject, 0));
  ASSERT_NE(nullptr, pObject);
  pDoc = static_cast<CIniDoc*>(pObject);
  EXPECT_STREQ("3", pDoc->GetValue("Setup", "Disk"));
  EXPECT_STREQ("Game", pDoc->GetValue("Setup", "Title"));
  EXPECT_EQ(0u, loc.Release(RES_TYPE_INIDOC, &pObject));
  // A missing file gives an empty document and no error.
  EXPECT_EQ(0u, loc.Load(RES_TYPE_INIDOC, Path("none.ini").c_str(), &pObject, 0));
  ASSERT_NE(nullptr, pObject);
  EXPECT_EQ(nullptr, static_cast<CIniDoc*>(pObject)->FirstSection());
  EXPECT_EQ(0u, loc.Release(RES_TYPE_INIDOC, &pObject));
}

TEST_F(DefLocator, FontClassChosenByFirstFourBytes) {
  // The same image font written three times: plain, with its reserved head reading "SFNU", and
  // with it reading "SFNT"; and its run-length form, which starts with the magic.
  CImageFont* pPlain = SmallImageFont(nullptr);
  CImageFont* pNear = SmallImageFont("SFNU");
  CImageFont* pMagic = SmallImageFont("SFNT");
  SaveFontTo(pPlain, Path("plain.fnt"));
  SaveFontTo(pNear, Path("near.fnt"));
  SaveFontTo(pMagic, Path("magic.fnt"));
  CSFont runs;
  ASSERT_EQ(1u, ConvertToSFont(pPlain, &runs));
  SaveFontTo(&runs, Path("runs.sfn"));

  CDefResLocator loc(nullptr);
  void* pObject = nullptr;
  for (const char* pchName : {"plain.fnt", "near.fnt"}) {
    EXPECT_EQ(0u, loc.Load(RES_TYPE_FONT, Path(pchName).c_str(), &pObject, 0)) << pchName;
    ASSERT_NE(nullptr, pObject);
    CFont* pFont = static_cast<CFont*>(pObject);
    // An image font writes its header first: the file comes back byte for byte.
    EXPECT_EQ(Get(Path(pchName)), Serialized(pFont)) << pchName;
    EXPECT_EQ(4, pFont->GetHeight());
    EXPECT_EQ(3 + 1 + 2 + 1 - 1, pFont->GetTextWidth("AB", (DWORD)-1));
    EXPECT_EQ(0u, loc.Release(RES_TYPE_FONT, &pObject));
    EXPECT_EQ(nullptr, pObject);
  }

  EXPECT_EQ(0u, loc.Load(RES_TYPE_FONT, Path("runs.sfn").c_str(), &pObject, 0));
  ASSERT_NE(nullptr, pObject);
  std::vector<BYTE> bytes = Serialized(static_cast<CFont*>(pObject));
  ASSERT_GE(bytes.size(), 4u);
  EXPECT_EQ(SFONT_MAGIC, GetLE32(bytes.data()));
  EXPECT_EQ(Get(Path("runs.sfn")), bytes);
  EXPECT_EQ(0u, loc.Release(RES_TYPE_FONT, &pObject));

  // The image font whose file starts with the magic is read as a run-length font, which the
  // rest of the file doesn't make: an error, and no object.
  const ERR err = loc.Load(RES_TYPE_FONT, Path("magic.fnt").c_str(), &pObject, 0);
  EXPECT_NE(0u, err);
  EXPECT_EQ(nullptr, pObject);
  // Files too short for their class: errors, and nothing leaks.
  Put("short.fnt", {'S', 'F'});
  Put("magic7.fnt", {'S', 'F', 'N', 'T', 1, 2, 3});
  for (const char* pchName : {"short.fnt", "magic7.fnt"}) {
    EXPECT_NE(0u, loc.Load(RES_TYPE_FONT, Path(pchName).c_str(), &pObject, 0)) << pchName;
    EXPECT_EQ(nullptr, pObject);
  }
  delete pPlain;
  delete pNear;
  delete pMagic;
}

TEST_F(DefLocator, FontSaveWritesTheFontsOwnForm) {
  CImageFont* pFont = SmallImageFont(nullptr);
  CDefResLocator loc(nullptr);
  EXPECT_EQ(0u, loc.Save(RES_TYPE_FONT, Path("out.fnt").c_str(), pFont, 0));
  EXPECT_EQ(Serialized(pFont), Get(Path("out.fnt")));
  void* pObject = nullptr;
  EXPECT_EQ(0u, loc.Load(RES_TYPE_FONT, ("file:" + Path("out.fnt")).c_str(), &pObject, 0));
  ASSERT_NE(nullptr, pObject);
  EXPECT_EQ(3, static_cast<CFont*>(pObject)->GetCharWidth('A'));
  EXPECT_EQ(0u, loc.Release(RES_TYPE_FONT, &pObject));
  delete pFont;
}

// ---------------------------------------------------------------------------------------------
// The chain.

TEST(DefLocatorChain, UnknownTypeGoesToTheNextLocatorIfAny) {
  CSpyLocator spy;
  CDefResLocator loc(&spy);
  void* pObject = nullptr;
  EXPECT_EQ(0x1234u, loc.Load(5, "pak:\\x.dat#2", &pObject, 77));
  EXPECT_EQ(&pObject, spy.lastBuf);
  int iData = 0;
  EXPECT_EQ(0x1234u, loc.Save(12, "y", &iData, 3));
  EXPECT_EQ(&iData, spy.lastBuf);
  EXPECT_EQ(0x1234u, loc.Idle());
  EXPECT_EQ((std::vector<std::string>{"Load 5 pak:\\x.dat#2 77", "Save 12 y 3", "Idle"}), spy.calls);
  CDefResLocator alone(nullptr);
  EXPECT_EQ(ERR_NOTIMPL, alone.Load(5, "x", &pObject, 0));
  EXPECT_EQ(ERR_NOTIMPL, alone.Save(5, "x", &pObject, 0));
  EXPECT_EQ(0u, alone.Idle());
}

TEST(DefLocatorChain, ReleaseOfUnknownTypeAssertsEvenWithSuccessor) {
  CSpyLocator spy;
  CDefResLocator loc(&spy);
  void* pObject = &spy;
  AssertCatcher catcher;
  EXPECT_EQ(ERR_BADPARAM, loc.Release(5, &pObject));
  EXPECT_EQ(1u, catcher.Count());
  EXPECT_EQ(&spy, pObject);
  EXPECT_TRUE(spy.calls.empty());
}

TEST(ResLocatorBase, DoesNothingButForwardIdle) {
  CResLocator base;
  void* pObject = nullptr;
  EXPECT_EQ(ERR_NOTIMPL, base.Load(9, "a.bmp", &pObject, 0));
  EXPECT_EQ(ERR_NOTIMPL, base.Save(9, "a.bmp", &pObject, 0));
  EXPECT_EQ(ERR_NOTIMPL, base.Release(9, &pObject));
  EXPECT_EQ(0u, base.Idle());
  CSpyLocator spy;
  spy.result = 6;
  CResLocator front(&spy);
  EXPECT_EQ(6u, front.Idle());
  EXPECT_EQ(1u, spy.calls.size());
}

}  // namespace
