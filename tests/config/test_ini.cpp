// Tests of the text INI store: the walk over comments, blanks and odd headers, the splice of
// edits on CR LF, LF-only and empty texts, block sizing, load and save, the typed readers, the
// merge of an update, and the language tables.
#include <gtest/gtest.h>
#include <string.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "base/memalloc.h"
#include "config/ini.h"
#include "testfile.h"
#include "testutil.h"

namespace {

// Gives the tests a view of the text block.
class CIniProbe : public CIni {
 public:
  DWORD Handle() const { return m_hData; }
  // User size of the text block, 0 without one.
  DWORD BlockSize() const { return m_hData ? g_pHandleInfo[m_hData - 1].dwSize : 0; }
};

void Load(CIni& ini, const std::string& s) {
  CTestFile file(s);
  ASSERT_EQ(ini.Load(&file), 0u);
  ASSERT_EQ(ini.GetDataSize(), s.size());
}

std::string Text(CIni& ini) {
  if (!ini.GetDataSize()) return std::string();
  CTestFile file;
  EXPECT_EQ(ini.Save(&file), 0u);
  return file.Text();
}

struct TGet {
  ERR err;
  std::string value;
};

TGet Get(CIni& ini, const char* pchSection, const char* pchEntry, DWORD dwSize = 512) {
  std::vector<char> buf(dwSize > 4096 ? 4096 : dwSize, '#');
  ERR err = ini.GetString(pchSection, pchEntry, buf.data(), dwSize);
  return {err, err && err != ERR_BUFSMALL ? std::string() : std::string(buf.data())};
}

// Splits a multi-string into its names; the list must end in a double 0 inside the buffer.
std::vector<std::string> Names(const char* p, size_t nSize) {
  std::vector<std::string> names;
  size_t i = 0;
  while (i < nSize && p[i]) {
    std::string s(p + i);
    names.push_back(s);
    i += s.size() + 1;
  }
  EXPECT_LT(i, nSize) << "multi-string not closed inside its buffer";
  return names;
}

std::vector<std::string> SectionNames(CIni& ini, ERR* pErr = nullptr) {
  char buf[1024];
  ERR err = ini.GetSectionNames(buf, sizeof(buf));
  if (pErr) *pErr = err;
  return Names(buf, sizeof(buf));
}

std::vector<std::string> EntryNames(CIni& ini, const char* pchSection, ERR* pErr = nullptr) {
  char buf[1024];
  memset(buf, '#', sizeof(buf));
  ERR err = ini.GetEntryNames(pchSection, buf, sizeof(buf));
  if (pErr) *pErr = err;
  return Names(buf, sizeof(buf));
}

using Strings = std::vector<std::string>;
using Shorts = std::vector<SHORT>;

std::vector<BYTE> Bytes(const void* p, size_t n) {
  return std::vector<BYTE>(static_cast<const BYTE*>(p), static_cast<const BYTE*>(p) + n);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Reading: the walk and the entry grammar.

TEST(IniStore, EmptyFileIsEmptyStore) {
  CIniProbe ini;
  CTestFile file("");
  EXPECT_EQ(ini.Load(&file), 0u);
  EXPECT_EQ(ini.GetDataSize(), 0u);
  EXPECT_EQ(ini.Handle(), 0u);
  char buf[8] = "unused";
  EXPECT_EQ(ini.GetString("S", "k", buf, sizeof(buf)), ERR_NOTFOUND);
  EXPECT_STREQ(buf, "unused");  // not touched
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetSectionNames(buf, sizeof(buf)), 0u);
  EXPECT_EQ(buf[0], 0);
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetEntryNames("S", buf, sizeof(buf)), 0u);
  EXPECT_EQ(buf[0], 0);
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetEntryName("S", 0, buf, sizeof(buf)), 0u);
  EXPECT_EQ(buf[0], 0);
}

namespace {

// A lookup and its result: the value, or null when the key is not found.
struct TLookup {
  const char *pchSection, *pchKey, *pchValue;
};

void ExpectLookups(CIni& ini, std::initializer_list<TLookup> lookups) {
  for (const TLookup& l : lookups) {
    SCOPED_TRACE(std::string("[") + l.pchSection + "] " + l.pchKey);
    TGet g = Get(ini, l.pchSection, l.pchKey);
    EXPECT_EQ(g.err, l.pchValue ? 0u : (ERR)ERR_NOTFOUND);
    EXPECT_EQ(g.value, l.pchValue ? l.pchValue : "");
  }
}

}  // namespace

TEST(IniStore, WalkAndEntryGrammar) {
  CIni ini;
  // Keys and values are trimmed; a value keeps its inner '=' and ';'; keys match whole, with case.
  Load(ini,
       "[S]\r\nKey = Value \t \r\nEmpty =\r\nBare\r\n  My Key\t= a=b ; c  \r\nSemi=;x\r\n"
       "Note=Value ;note\r\n=orphan\r\n");
  ExpectLookups(ini, {{"S", "Key", "Value"},
                      {"S", "Empty", ""},
                      {"S", "Bare", ""},
                      {"S", "My Key", "a=b ; c"},
                      {"S", "Semi", ";x"},
                      {"S", "Note", "Value ;note"},
                      {"S", "", "orphan"},
                      {"S", "My", nullptr},
                      {"S", "key", nullptr},
                      {"S", "Key ", nullptr}});
  // Comments, blank lines and what comes before the first header are skipped; the last line
  // needs no line end.
  Load(ini,
       "top=never\r\n; leading comment\r\n\r\n  \t[S]  trailing words\r\n   ; indented comment=1\r\n"
       " \t \r\n\r\n\r\na=1\r\n;b=2\r\nc=3");
  ExpectLookups(ini, {{"S", "a", "1"},
                      {"S", "c", "3"},
                      {"S", "b", nullptr},
                      {"S", "; indented comment", nullptr},
                      {"", "top", nullptr},
                      {"S", "top", nullptr}});
  EXPECT_EQ(SectionNames(ini), Strings({"S"}));
  EXPECT_EQ(EntryNames(ini, "S"), Strings({"a", "c"}));
  // Section names are exact bytes.
  Load(ini, "[Main]\nk=upper\n[main]\nk=lower\n[ Main ]\nk=blanks\n");
  ExpectLookups(ini, {{"Main", "k", "upper"},
                      {"main", "k", "lower"},
                      {" Main ", "k", "blanks"},
                      {"Mai", "k", nullptr},
                      {"Main ", "k", nullptr}});
  // An unclosed header ends a section but is never found.
  Load(ini, "[A]\r\nk=1\r\n[B\r\nj=2\r\n[C]\r\nm=3\r\n");
  ExpectLookups(ini, {{"A", "k", "1"}, {"A", "j", nullptr}, {"B", "j", nullptr}, {"C", "m", "3"}});
  EXPECT_EQ(SectionNames(ini), Strings({"A", "C"}));
  // The first section and the first key of a name win.
  Load(ini, "[S]\nk=first\nk=second\n[T]\nk=t\n[S]\nk=third\nonly=late\n");
  ExpectLookups(ini, {{"S", "k", "first"}, {"S", "only", nullptr}});
  EXPECT_EQ(SectionNames(ini), Strings({"S", "T", "S"}));
  // LF CR and CR LF are each one line end.
  Load(ini, "[S]\n\ra=1\n\r\n\rb=2\r\rc=3\n\n\nd=4");
  ExpectLookups(ini, {{"S", "a", "1"}, {"S", "b", "2"}, {"S", "c", "3"}, {"S", "d", "4"}});
}

TEST(IniStore, HeaderMatchesAtSecondBracket) {
  CIni ini;
  Load(ini, "[ab[ab]\r\nk=1\r\n");
  // The comparison of "ab" stops at the inner "[", which then starts a header of its own.
  ExpectLookups(ini, {{"ab", "k", "1"}, {"ab[ab", "k", "1"}, {"a", "k", nullptr}});
  // Listing reads the whole line up to "]".
  EXPECT_EQ(SectionNames(ini), Strings({"ab[ab"}));
  // A comparison that stops on blanks goes on at a "[" after them on the same line...
  Load(ini, "[x  [x]\r\nk=2\r\n");
  ExpectLookups(ini, {{"x", "k", "2"}});
  // ...but one that stops at the first character moves on to the next line.
  Load(ini, "[x  [y]\r\nk=2\r\n");
  ExpectLookups(ini, {{"y", "k", nullptr}});
}

TEST(IniStore, GetStringCutsToBufferAndNullArgumentsFail) {
  CIni ini;
  Load(ini, "[S]\nk=abcdef\n");
  EXPECT_EQ(Get(ini, "S", "k", 7).err, 0u);
  EXPECT_EQ(Get(ini, "S", "k", 7).value, "abcdef");
  TGet g = Get(ini, "S", "k", 6);
  EXPECT_EQ(g.err, ERR_BUFSMALL);
  EXPECT_EQ(g.value, "abcde");
  g = Get(ini, "S", "k", 1);
  EXPECT_EQ(g.err, ERR_BUFSMALL);
  EXPECT_EQ(g.value, "");
  // No limit: the caller vouches for the buffer.
  EXPECT_EQ(Get(ini, "S", "k", INI_NOLIMIT).value, "abcdef");
  char buf[8];
  AssertCatcher catcher;
  EXPECT_NE(ini.GetString(nullptr, "k", buf, sizeof(buf)), 0u);
  EXPECT_TRUE(catcher.Fired("pchSection"));
  EXPECT_NE(ini.GetString("S", nullptr, buf, sizeof(buf)), 0u);
  EXPECT_TRUE(catcher.Fired("pchEntry"));
  EXPECT_NE(ini.GetString("S", "k", nullptr, sizeof(buf)), 0u);
  EXPECT_TRUE(catcher.Fired("pchBuf"));
  EXPECT_NE(ini.GetString("S", "k", buf, 0), 0u);
  EXPECT_TRUE(catcher.Fired("dwSize"));
  EXPECT_NE(ini.SetString("S", "k", nullptr), 0u);
  EXPECT_NE(ini.GetEntryName(nullptr, 0, buf, sizeof(buf)), 0u);
  EXPECT_TRUE(catcher.Fired("pchSection&&pchBuf&&dwSize>=2"));
  EXPECT_EQ(ini.ReservedSectionOp("S"), ERR_NOTIMPL);
  EXPECT_EQ(ini.ReservedEntryOp("S", "k"), ERR_NOTIMPL);
  EXPECT_EQ(Text(ini), "[S]\nk=abcdef\n");
}

// ---------------------------------------------------------------------------------------------
// GetInt.

TEST(IniStore, GetIntSignsAndBases) {
  CIni ini;
  Load(ini,
       "[N]\nneghex=-0x10\nplus=+7\nbigX=0X10\ntrail=12a\nempty=\nmixed=0xfF\n"
       "blank=1 2\nwrap=4294967297\nneg=-2147483648\nsign=-\n");
  struct {
    const char* pchKey;
    LONG lValue;
    ERR err;
  } cases[] = {
      {"neghex", -16, 0},
      {"plus", 7, 0},
      {"bigX", 0, ERR_BADFORMAT},
      {"trail", 12, ERR_BADFORMAT},
      {"empty", 0, 0},
      {"mixed", 255, 0},
      {"blank", 1, ERR_BADFORMAT},
      {"wrap", 1, 0},
      {"neg", (LONG)0x80000000u, 0},
      {"sign", 0, 0},
  };
  for (const auto& c : cases) {
    LONG l = 12345;
    EXPECT_EQ(ini.GetInt("N", c.pchKey, &l), c.err) << c.pchKey;
    EXPECT_EQ(l, c.lValue) << c.pchKey;
  }
  LONG l = 99;
  EXPECT_EQ(ini.GetInt("N", "missing", &l), ERR_NOTFOUND);
  EXPECT_EQ(l, 99);
  // At most 255 characters are read.
  std::string digits255 = std::string(254, '0') + "7";
  Load(ini, "[N]\nok=" + digits255 + "\nlong=" + digits255 + "1\n");
  EXPECT_EQ(ini.GetInt("N", "ok", &l), 0u);
  EXPECT_EQ(l, 7);
  l = 5;
  EXPECT_EQ(ini.GetInt("N", "long", &l), ERR_BUFSMALL);
  EXPECT_EQ(l, 5);
}

// ---------------------------------------------------------------------------------------------
// Edits: the splice.

// One edit on a loaded text (or, when the text is null, on the result of the case before) and
// the text it leaves.
TEST(IniStore, SpliceCases) {
  struct {
    const char* pchLoad;
    const char *pchSection, *pchKey, *pchValue;
    const char* pchWant;
  } cases[] = {
      {"", "S", "k", "v", "[S]\r\nk = v\r\n"},
      // Insert after the last entry, before the comment that closes the section; replace the
      // whole line, in the writer's form; add at the end of the text.
      {"; head\r\n[A]\r\na=1\r\n; end of A\r\n\r\n[B]\r\nb=2\r\n", "A", "c", "3",
       "; head\r\n[A]\r\na=1\r\nc = 3\r\n; end of A\r\n\r\n[B]\r\nb=2\r\n"},
      {nullptr, "A", "a", "one", "; head\r\n[A]\r\na = one\r\nc = 3\r\n; end of A\r\n\r\n[B]\r\nb=2\r\n"},
      {nullptr, "B", "z", "",
       "; head\r\n[A]\r\na = one\r\nc = 3\r\n; end of A\r\n\r\n[B]\r\nb=2\r\nz = \r\n"},
      // LF-only texts keep their other lines; the spliced line comes with CR LF.
      {"[A]\na=1\n\n[B]\nb=2\n", "A", "c", "3", "[A]\na=1\r\nc = 3\r\n\n[B]\nb=2\n"},
      {nullptr, "B", "b", "two", "[A]\na=1\r\nc = 3\r\n\n[B]\nb = two\r\n"},
      // Into a header-only section: the header's own line end is the one the cut takes.
      {"[A]\n[B]\nb=2\n", "A", "k", "v", "[A]\r\nk = v\r\n[B]\nb=2\n"},
      {"[A]   ; words after the header\r\n\r\n", "A", "k", "v",
       "[A]   ; words after the header\r\nk = v\r\n\r\n"},
      // LF CR is one line end; CR CR is two, and the cut takes the first only.
      {"[A]\n\ra=1\n\r", "A", "k", "v", "[A]\n\ra=1\r\nk = v\r\n"},
      {"[A]\r\ra=1\r\r[B]", "A", "k", "v", "[A]\r\ra=1\r\nk = v\r\n\r[B]"},
      // Blanks after the last value go with the cut; so do those after a key-only line.
      {"[A]\r\na=1  \t\r\n[B]\r\n", "A", "k", "v", "[A]\r\na=1\r\nk = v\r\n[B]\r\n"},
      {"[A]\nflag  \n", "A", "k", "v", "[A]\nflag\r\nk = v\r\n"},
      // No line end at all after the last value.
      {"[A]\r\na=1", "A", "k", "v", "[A]\r\na=1\r\nk = v\r\n"},
      // A replaced line drops its comment and keeps its indent; the key is written as the caller
      // spelled it, and another case is another key.
      {"[A]\r\n  a=1 ;note\r\nx=2\r\n", "A", "a", "9", "[A]\r\n  a = 9\r\nx=2\r\n"},
      {nullptr, "A", "X", "3", "[A]\r\n  a = 9\r\nx=2\r\nX = 3\r\n"},
      // A new section goes after the text with its trailing blank lines trimmed to one...
      {"[A]\r\na=1\r\n\r\n\n \t\r\n", "B", "k", "v", "[A]\r\na=1\r\n\r\n[B]\r\nk = v\r\n"},
      // ...a text of blanks alone is dropped whole, with no blank line before the header...
      {" \r\n\t\n", "B", "k", "v", "[B]\r\nk = v\r\n"},
      // ...and an unclosed header is no section: the new one goes at the end.
      {"[B\r\n", "B", "k", "v", "[B\r\n\r\n[B]\r\nk = v\r\n"},
  };
  CIni ini;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pchWant);
    if (c.pchLoad) Load(ini, c.pchLoad);
    EXPECT_EQ(ini.SetString(c.pchSection, c.pchKey, c.pchValue), 0u);
    EXPECT_EQ(Text(ini), c.pchWant);
    EXPECT_EQ(Get(ini, c.pchSection, c.pchKey).err, 0u);
    EXPECT_EQ(Get(ini, c.pchSection, c.pchKey).value, c.pchValue);
  }
}

TEST(IniStore, SetStringTakesSliceAndSetIntFormats) {
  CIni ini;
  EXPECT_EQ(ini.SetString("S", "k", "abcdef", 3), 0u);
  EXPECT_EQ(Get(ini, "S", "k").value, "abc");
  EXPECT_EQ(ini.SetInt("S", "n", -5), 0u);
  EXPECT_EQ(ini.SetInt("S", "min", (LONG)0x80000000u), 0u);
  EXPECT_EQ(Text(ini), "[S]\r\nk = abc\r\nn = -5\r\nmin = -2147483648\r\n");
  LONG l = 0;
  EXPECT_EQ(ini.GetInt("S", "min", &l), 0u);
  EXPECT_EQ(l, (LONG)0x80000000u);
}

TEST(IniStore, ManyEditsReadBack) {
  CIni ini;
  Load(ini, "; kept\n[S0]\nold=1\n");
  for (int i = 0; i < 200; i++) {
    std::string s = "S" + std::to_string(i % 7), k = "key" + std::to_string(i % 23);
    ASSERT_EQ(ini.SetString(s.c_str(), k.c_str(), std::to_string(i).c_str()), 0u);
  }
  for (int i = 200 - 7 * 23; i < 200; i++) {
    std::string s = "S" + std::to_string(i % 7), k = "key" + std::to_string(i % 23);
    EXPECT_EQ(Get(ini, s.c_str(), k.c_str()).value, std::to_string(i));
  }
  EXPECT_EQ(Get(ini, "S0", "old").value, "1");
  EXPECT_EQ(Text(ini).substr(0, 12), "; kept\n[S0]\n");
  EXPECT_EQ(ini.GetDataSize(), Text(ini).size());
}

// ---------------------------------------------------------------------------------------------
// Sizing of the text block.

TEST(IniStore, BlockSizingOnResizeLoadAndEdit) {
  for (DWORD n : {0u, 1u, 2047u, 2048u, 4095u, 4096u}) EXPECT_EQ(IniBlockSize(n), (n / 2048 + 1) * 2048) << n;
  CIniProbe ini;
  ASSERT_EQ(ini.Resize(2047), 0u);
  EXPECT_EQ(ini.BlockSize(), 2048u);
  ASSERT_EQ(ini.Resize(10), 0u);
  EXPECT_EQ(ini.BlockSize(), 2048u);
  ASSERT_EQ(ini.Resize(2048), 0u);
  EXPECT_EQ(ini.BlockSize(), 4096u);
  EXPECT_EQ(ini.GetDataSize(), 2048u);
  ASSERT_EQ(ini.Resize(0), 0u);
  EXPECT_EQ(ini.Handle(), 0u);
  EXPECT_EQ(ini.GetDataSize(), 0u);

  // A loaded text of exactly 2048 bytes takes 4096.
  std::string text = "[S]\r\nk=";
  text += std::string(2048 - text.size() - 2, 'x') + "\r\n";
  ASSERT_EQ(text.size(), 2048u);
  Load(ini, text);
  EXPECT_EQ(ini.BlockSize(), 4096u);
  // One byte less by an edit: the block shrinks.
  // "[S]\r\n" and "k = " + value + "\r\n": 11 bytes and the value.
  ASSERT_EQ(ini.SetString("S", "k", std::string(2047 - 11, 'y').c_str()), 0u);
  EXPECT_EQ(ini.GetDataSize(), 2047u);
  EXPECT_EQ(ini.BlockSize(), 2048u);
  EXPECT_EQ(Get(ini, "S", "k", 4096).value, std::string(2036, 'y'));
  // Shrinking across a block boundary keeps the tail.
  text = "[S]\r\nlong=" + std::string(3000, 'v') + "\r\nafter=1\r\n[T]\r\nz=tail\r\n";
  Load(ini, text);
  EXPECT_EQ(ini.BlockSize(), 4096u);
  ASSERT_EQ(ini.SetString("S", "long", "x"), 0u);
  EXPECT_EQ(ini.BlockSize(), 2048u);
  EXPECT_EQ(Text(ini), "[S]\r\nlong = x\r\nafter=1\r\n[T]\r\nz=tail\r\n");
  EXPECT_EQ(Get(ini, "T", "z").value, "tail");
}

TEST(IniStore, FailedAllocationLeavesText) {
  DWORD dwOldLimit = g_dwHandleMemLimit;
  {
    CIniProbe ini;
    Load(ini, "[S]\r\nk=v\r\n");
    g_dwHandleMemLimit = g_dwHandleMemUsed;  // no handle may grow
    EXPECT_EQ(ini.SetString("S", "big", std::string(3000, 'b').c_str()), ERR_REALLOCFAIL);
    EXPECT_EQ(ini.SetString("New", "big", std::string(3000, 'b').c_str()), ERR_REALLOCFAIL);
    EXPECT_EQ(ini.Resize(5000), ERR_REALLOCFAIL);
    EXPECT_EQ(ini.GetDataSize(), 10u);
    EXPECT_EQ(ini.BlockSize(), 2048u);
    g_dwHandleMemLimit = dwOldLimit;
    EXPECT_EQ(Text(ini), "[S]\r\nk=v\r\n");

    CIni empty;
    g_dwHandleMemLimit = g_dwHandleMemUsed;
    EXPECT_EQ(empty.SetString("S", "k", "v"), ERR_ALLOCFAIL);
    CTestFile file("[S]\r\n");
    EXPECT_EQ(empty.Load(&file), ERR_ALLOCFAIL);
    g_dwHandleMemLimit = dwOldLimit;
    EXPECT_EQ(empty.GetDataSize(), 0u);
  }
  g_dwHandleMemLimit = dwOldLimit;
}

TEST(IniStore, DestructorAndResizeFreeTheBlock) {
  DWORD dwBefore = g_dwHandleMemUsed;
  {
    CIni ini;
    ini.SetString("S", "k", "v");
    EXPECT_EQ(g_dwHandleMemUsed, dwBefore + 2048);
  }
  EXPECT_EQ(g_dwHandleMemUsed, dwBefore);
  CIni* pIni = new CIni;
  ASSERT_NE(pIni, nullptr);
  Load(*pIni, "[S]\n");
  delete pIni;
  EXPECT_EQ(g_dwHandleMemUsed, dwBefore);
}

// ---------------------------------------------------------------------------------------------
// Load and save.

TEST(IniStore, LoadAndSaveReplaceOrFailCleanly) {
  CIniProbe ini;
  CTestFile file(std::string(100, 'z'));
  EXPECT_EQ(ini.Save(&file), 0u);  // nothing to write: the file stays as it was
  EXPECT_EQ(file.Text(), std::string(100, 'z'));
  Load(ini, "[S]\nk=v\n");
  EXPECT_EQ(ini.Save(&file), 0u);
  EXPECT_EQ(file.Text(), "[S]\nk=v\n");
  CTestFile full("old");
  full.m_errWrite = ERR_FILE_DISKFULL;
  EXPECT_EQ(ini.Save(&full), ERR_FILE_DISKFULL);
  EXPECT_EQ(full.Text(), "old");
  EXPECT_EQ(Text(ini), "[S]\nk=v\n");
  // A load replaces the text; a failed one empties the store.
  Load(ini, "[Q]\nk=v\n");
  Load(ini, "[S]\nk=v\n");
  EXPECT_EQ(Get(ini, "Q", "k").err, ERR_NOTFOUND);
  EXPECT_EQ(Get(ini, "S", "k").value, "v");
  CTestFile bad("[T]\nj=w\n");
  bad.m_errRead = ERR_FILE_READ;
  EXPECT_EQ(ini.Load(&bad), ERR_FILE_READ);
  EXPECT_EQ(ini.GetDataSize(), 0u);
  EXPECT_EQ(ini.Handle(), 0u);
  EXPECT_EQ(Get(ini, "S", "k").err, ERR_NOTFOUND);
  // A read that comes back short without saying so is a failure too.
  CTestFile shortRead("[T]\nj=w\n");
  shortRead.m_dwShortBy = 2;
  EXPECT_NE(ini.Load(&shortRead), 0u);
  EXPECT_EQ(ini.GetDataSize(), 0u);
}

TEST(IniStore, FixturesRoundTripByteForByte) {
  for (const char* pchName : {"script_crlf.ini", "script_lf.ini"}) {
    std::ifstream in(std::string(SETUP_TEST_DATA) + "/ini/" + pchName, std::ios::binary);
    ASSERT_TRUE(in.good()) << pchName;
    std::stringstream ss;
    ss << in.rdbuf();
    CIni ini;
    Load(ini, ss.str());
    EXPECT_EQ(Text(ini), ss.str()) << pchName;
    EXPECT_EQ(Get(ini, "Setup", "Title").value, "Space Game") << pchName;
    EXPECT_EQ(Get(ini, "Setup", "Size").value, "640,480") << pchName;
  }
}

TEST(IniStore, RandomTextsStayInBoundsAndEditsReadBack) {
  // Texts made of the characters the walk cares about; no 0 bytes, so the whole text is walked.
  static const char s_achAlphabet[] = "[]=; \t\r\nab";
  std::mt19937 rng(1234);
  for (int nRound = 0; nRound < 3000; nRound++) {
    std::string text;
    size_t nLen = rng() % 40;
    for (size_t i = 0; i < nLen; i++) text += s_achAlphabet[rng() % (sizeof(s_achAlphabet) - 1)];
    CIni ini;
    Load(ini, text);
    // Lists into buffers of every small size stay inside them and stay closed.
    for (DWORD dwSize = 2; dwSize < 12; dwSize++) {
      char buf[16];
      memset(buf, '#', sizeof(buf));
      ERR err = ini.GetSectionNames(buf, dwSize);
      EXPECT_TRUE(err == 0 || err == ERR_BUFSMALL);
      EXPECT_EQ(buf[dwSize], '#') << text;
      Names(buf, dwSize);
      memset(buf, '#', sizeof(buf));
      err = ini.GetEntryNames("ab", buf, dwSize);
      EXPECT_EQ(buf[dwSize], '#') << text;
      if (err != ERR_NOTFOUND) Names(buf, dwSize);
      memset(buf, '#', sizeof(buf));
      err = ini.GetEntryName("ab", (WORD)(rng() % 4), buf, dwSize);
      EXPECT_EQ(buf[dwSize], '#') << text;
      // An index past the last line leaves the buffer alone ('#' is not in the alphabet);
      // every other answer is a name closed inside the buffer.
      if (buf[0] == '#')
        EXPECT_EQ(err, ERR_NOTFOUND) << text;
      else
        EXPECT_LT(strlen(buf), dwSize);
      memset(buf, '#', sizeof(buf));
      err = ini.GetString("ab", "a", buf, dwSize);
      EXPECT_EQ(buf[dwSize], '#') << text;
    }
    // An edit is found again, and the store's length is the saved length.
    std::string value = "v" + std::to_string(nRound);
    ASSERT_EQ(ini.SetString("ab", "a", value.c_str()), 0u);
    EXPECT_EQ(Get(ini, "ab", "a").value, value) << text;
    EXPECT_EQ(Text(ini).size(), ini.GetDataSize());
    ASSERT_EQ(ini.SetString("b", "a", "w"), 0u);
    EXPECT_EQ(Get(ini, "b", "a").value, "w") << text;
    EXPECT_EQ(Get(ini, "ab", "a").value, value) << text;
  }
}

// ---------------------------------------------------------------------------------------------
// Lists of names.

TEST(IniStore, SectionNamesSkipEmptyAndUnclosedAndCutToBuffer) {
  CIni ini;
  Load(ini, "[One]\n[]\n[Two\n  [Three] x\n;[Four]\n[Fi]ve]\n");
  EXPECT_EQ(SectionNames(ini), Strings({"One", "Three", "Fi"}));
  Load(ini, "[Alpha]\n[Beta]\n");
  char buf[16];
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetSectionNames(buf, 8), ERR_BUFSMALL);
  EXPECT_EQ(std::string(buf, 8), std::string("Alpha\0\0\0", 8));
  EXPECT_EQ(buf[8], '#');
  // "Alpha" fills the room exactly; the next name finds only the closing byte.
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetSectionNames(buf, 7), ERR_BUFSMALL);
  EXPECT_EQ(std::string(buf, 7), std::string("Alpha\0\0", 7));
  EXPECT_EQ(buf[7], '#');
  // A name cut in the middle.
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetSectionNames(buf, 4), ERR_BUFSMALL);
  EXPECT_EQ(std::string(buf, 4), std::string("Al\0\0", 4));
  EXPECT_EQ(buf[4], '#');
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetSectionNames(buf, 12), 0u);
  EXPECT_EQ(std::string(buf, 12), std::string("Alpha\0Beta\0\0", 12));
}

TEST(IniStore, EntryNamesOfOneSectionAndByIndex) {
  CIni ini;
  Load(ini, "[A]\nx=1\n=skip\n;c=3\nbare\n  y = 2\n[B]\nz=3\n");
  EXPECT_EQ(EntryNames(ini, "A"), Strings({"x", "bare", "y"}));
  EXPECT_EQ(EntryNames(ini, "B"), Strings({"z"}));
  ERR err = 0;
  EXPECT_EQ(EntryNames(ini, "C", &err), Strings());
  EXPECT_EQ(err, ERR_NOTFOUND);
  char buf[8];
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetEntryNames("A", buf, 5), ERR_BUFSMALL);
  EXPECT_EQ(std::string(buf, 5), std::string("x\0b\0\0", 5));
  // By index.
  Load(ini, "[A]\nx=1\n=orphan\n; note\nlongkey=2\n[B]\nz=3\n");
  EXPECT_EQ(ini.GetEntryName("A", 0, buf, sizeof(buf)), 0u);
  EXPECT_STREQ(buf, "x");
  EXPECT_EQ(ini.GetEntryName("A", 1, buf, sizeof(buf)), 0u);  // an empty key still counts
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(ini.GetEntryName("A", 2, buf, sizeof(buf)), 0u);
  EXPECT_STREQ(buf, "longkey");
  EXPECT_EQ(ini.GetEntryName("A", 3, buf, sizeof(buf)), ERR_NOTFOUND);
  EXPECT_STREQ(buf, "longkey");  // past the last line: the buffer is left alone
  EXPECT_EQ(ini.GetEntryName("C", 0, buf, sizeof(buf)), ERR_NOTFOUND);
  EXPECT_STREQ(buf, "");
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(ini.GetEntryName("A", 2, buf, 4), ERR_BUFSMALL);
  EXPECT_STREQ(buf, "lon");
  EXPECT_EQ(buf[4], '#');
}

// ---------------------------------------------------------------------------------------------
// Typed readers.

TEST(IniTyped, ColorPointRectBox) {
  CIni ini;
  Load(ini,
       "[T]\ncolor= 10, 20 ,30\npoint=-3,+4\nrect=1 px, 2 px,3,4 and more\nbox=10,20,100,50\n"
       "wordy=left 7,top 8\n");
  BYTE abt[4] = {9, 9, 9, 9};
  EXPECT_EQ(IniGetColor(&ini, "T", "color", abt), 0u);
  EXPECT_EQ(Bytes(abt, 4), Bytes("\x1E\x14\x0A\x00", 4));  // blue, green, red, extra
  SHORT x = 0, y = 0;
  EXPECT_EQ(IniGetPoint(&ini, "T", "point", &x, &y), 0u);
  EXPECT_EQ(Shorts({x, y}), Shorts({-3, 4}));
  SHORT l = 0, t = 0, r = 0, b = 0;
  EXPECT_EQ(IniGetRect(&ini, "T", "rect", &l, &t, &r, &b), 0u);
  EXPECT_EQ(Shorts({l, t, r, b}), Shorts({1, 2, 3, 4}));
  EXPECT_EQ(IniGetBox(&ini, "T", "box", &l, &t, &r, &b), 0u);
  EXPECT_EQ(Shorts({l, t, r, b}), Shorts({10, 20, 109, 69}));
  // Edges wrap at 32 bits before they are cut to 16.
  ini.SetString("T", "bigbox", "2147483647,-2147483648,1,-1");
  EXPECT_EQ(IniGetBox(&ini, "T", "bigbox", &l, &t, &r, &b), 0u);
  EXPECT_EQ(Shorts({l, t, r, b}), Shorts({-1, 0, -1, -2}));
  // A word before the digits gives 0: only the comma separates.
  EXPECT_EQ(IniGetPoint(&ini, "T", "wordy", &x, &y), 0u);
  EXPECT_EQ(Shorts({x, y}), Shorts({0, 0}));
  // Missing commas: the leading fields are stored all the same.
  Load(ini, "[T]\nshort=10,20\none=7\nthree=1,2,3\n");
  abt[0] = abt[3] = 9;
  EXPECT_EQ(IniGetColor(&ini, "T", "short", abt), ERR_BADFORMAT);
  EXPECT_EQ(Bytes(abt, 4), Bytes("\x09\x14\x0A\x09", 4));  // red and green stored
  x = y = 5;
  EXPECT_EQ(IniGetPoint(&ini, "T", "one", &x, &y), ERR_BADFORMAT);
  EXPECT_EQ(Shorts({x, y}), Shorts({7, 5}));
  l = t = r = b = -1;
  EXPECT_EQ(IniGetRect(&ini, "T", "three", &l, &t, &r, &b), ERR_BADFORMAT);
  EXPECT_EQ(Shorts({l, t, r, b}), Shorts({1, 2, 3, -1}));
  l = t = r = b = -1;
  EXPECT_EQ(IniGetBox(&ini, "T", "three", &l, &t, &r, &b), ERR_BADFORMAT);
  EXPECT_EQ(Shorts({l, t, r, b}), Shorts({1, 2, 3, -1}));  // right: 1 + 3 - 1
  EXPECT_EQ(IniGetPoint(&ini, "T", "absent", &x, &y), ERR_NOTFOUND);
}

TEST(IniTyped, ValuesOver127CharactersAreRefused) {
  CIni ini;
  // Words after a number are passed over on the way to the comma.
  Load(ini, "[T]\nfits=1" + std::string(124, 'x') + ",2\nlong=1" + std::string(125, 'x') + ",2\n");
  SHORT x = 0, y = 0;
  EXPECT_EQ(IniGetPoint(&ini, "T", "fits", &x, &y), 0u);
  EXPECT_EQ(x, 1);
  EXPECT_EQ(y, 2);
  x = y = 9;
  EXPECT_EQ(IniGetPoint(&ini, "T", "long", &x, &y), ERR_BUFSMALL);
  EXPECT_EQ(x, 9);
}

namespace {
const TIniFlag g_aFlags[] = {{"BOLD", 1}, {"BOLDER", 2}, {"ITALIC", 4}, {"UNDER", 8}, {nullptr, 0}};
}

TEST(IniTyped, FlagsMatchByPrefixAlsoAfterTextAndNumber) {
  CIni ini;
  Load(ini,
       "[F]\ntwo= BOLD,  ITALIC\nshadow=BOLDER\nspaced=ITALIC ,UNDER\nlower=italic\n"
       "trailing=BOLD,\nempty=\nlonger=UNDERLINE\n");
  // "BOLD" comes first in the table, so "BOLDER" reads as it; a failure leaves the flags alone.
  const struct {
    const char* pchKey;
    ERR err;
    DWORD dwFlags;
  } cases[] = {{"two", 0, 5},
               {"shadow", 0, 1},
               {"spaced", 0, 12},
               {"longer", 0, 8},
               {"lower", ERR_INI_BADKEYWORD, 0x100},
               {"trailing", ERR_INI_BADKEYWORD, 0x100},
               {"empty", ERR_INI_BADKEYWORD, 0x100}};
  DWORD dw;
  for (const auto& c : cases) {
    dw = 0x100;
    EXPECT_EQ(IniGetFlags(&ini, "F", c.pchKey, g_aFlags, &dw), c.err) << c.pchKey;
    EXPECT_EQ(dw, c.dwFlags) << c.pchKey;
  }
  // A text, a number and flags.
  Load(ini,
       "[F]\nfull= Hello world , 12, BOLD,ITALIC\ntwo=Text,-3\nnone=NoComma\nbad=T,1,NOPE\n"
       "signed=T,-7x,UNDER\n");
  char sz[128];
  SHORT n = 0;
  dw = 0x100;
  EXPECT_EQ(IniGetStrNumFlags(&ini, "F", "full", g_aFlags, sz, &n, &dw), 0u);
  EXPECT_STREQ(sz, "Hello world ");
  EXPECT_EQ(n, 12);
  EXPECT_EQ(dw, 0x105u);  // ORed into what the caller had
  dw = 0x100;
  EXPECT_EQ(IniGetStrNumFlags(&ini, "F", "two", g_aFlags, sz, &n, &dw), 0u);
  EXPECT_STREQ(sz, "Text");
  EXPECT_EQ(n, -3);
  EXPECT_EQ(dw, 0u);
  EXPECT_EQ(IniGetStrNumFlags(&ini, "F", "none", g_aFlags, sz, &n, &dw), ERR_BADFORMAT);
  EXPECT_STREQ(sz, "NoComma");  // the text is stored before the missing comma is noticed
  EXPECT_EQ(IniGetStrNumFlags(&ini, "F", "bad", g_aFlags, sz, &n, &dw), ERR_INI_BADKEYWORD);
  dw = 0;
  EXPECT_EQ(IniGetStrNumFlags(&ini, "F", "signed", g_aFlags, sz, &n, &dw), 0u);
  EXPECT_EQ(n, -7);
  EXPECT_EQ(dw, 8u);
}

TEST(IniTyped, FieldsOfCommaListAndIds) {
  CIni ini;
  Load(ini, "[L]\nlist= a, b ,  c\nnums=10, 20, x\nempty=\n");
  char sz[128];
  EXPECT_EQ(IniGetField(&ini, "L", "list", 0, sz), 0u);
  EXPECT_STREQ(sz, "a");
  EXPECT_EQ(IniGetField(&ini, "L", "list", 1, sz), 0u);
  EXPECT_STREQ(sz, "b ");
  EXPECT_EQ(IniGetField(&ini, "L", "list", 2, sz), 0u);
  EXPECT_STREQ(sz, "c");
  EXPECT_EQ(IniGetField(&ini, "L", "list", 3, sz), ERR_NOTFOUND);
  EXPECT_EQ(IniGetField(&ini, "L", "empty", 0, sz), 0u);
  EXPECT_STREQ(sz, "");
  LONG l = 0;
  EXPECT_EQ(IniGetFieldInt(&ini, "L", "nums", 1, &l), 0u);
  EXPECT_EQ(l, 20);
  EXPECT_EQ(IniGetFieldInt(&ini, "L", "nums", 2, &l), 0u);
  EXPECT_EQ(l, 0);
  EXPECT_EQ(IniGetFieldInt(&ini, "L", "nums", 3, &l), ERR_NOTFOUND);
  // Only the first 63 characters of a field are read as a number: the 7 at index 63 is not.
  ASSERT_EQ(ini.SetString("L", "wide", ("1," + std::string(63, '0') + "7").c_str()), 0u);
  l = 99;
  EXPECT_EQ(IniGetFieldInt(&ini, "L", "wide", 1, &l), 0u);
  EXPECT_EQ(l, 0);
  // An identifier is a number or the ID of the section named.
  Load(ini, "[Obj]\nref=Thing\nnum=42\nhex=0x10\nbad=Nowhere\n[Thing]\nID=7\n");
  EXPECT_EQ(IniGetId(&ini, "Obj", "ref", &l), 0u);
  EXPECT_EQ(l, 7);
  EXPECT_EQ(IniGetId(&ini, "Obj", "num", &l), 0u);
  EXPECT_EQ(l, 42);
  EXPECT_EQ(IniGetId(&ini, "Obj", "hex", &l), 0u);
  EXPECT_EQ(l, 16);
  EXPECT_EQ(IniGetId(&ini, "Obj", "bad", &l), ERR_NOTFOUND);
}

// ---------------------------------------------------------------------------------------------
// Merge.

TEST(IniMerge, AppliesUpdateAndMarksMisfits) {
  CIni upd, old;
  Load(upd,
       "[New Sections]\r\nFresh=1\r\nOld=1\r\n[Fresh]\r\nf=1\r\n[Old]\r\no=2\r\n"
       "[Common]\r\nc=3\r\n[Missing]\r\nm=4\r\n");
  Load(old, "[Old]\r\no=1\r\n[Common]\r\nc=0\r\nkeep=1\r\n");
  DWORD dwBefore = g_dwPtrMemUsed;
  EXPECT_EQ(IniMerge(&upd, &old), 0u);
  EXPECT_EQ(g_dwPtrMemUsed, dwBefore);
  EXPECT_EQ(Text(old),
            "[Old]\r\no = 2\r\nPRB_SNE = Should not exist\r\n"
            "[Common]\r\nc = 3\r\nkeep=1\r\n"
            "\r\n[Fresh]\r\nf = 1\r\n"
            "\r\n[Missing]\r\nPRB_SE = Should exist\r\nm = 4\r\n");
  EXPECT_EQ(Get(old, "Fresh", "PRB_SE").err, ERR_NOTFOUND);
  EXPECT_EQ(Get(old, "New Sections", "Fresh").err, ERR_NOTFOUND);
}

TEST(IniMerge, NeedsNewSectionsListAndItsBuffers) {
  CIni upd, old;
  Load(upd, "[new sections]\nA=1\n[A]\na=1\n");
  Load(old, "[B]\nb=1\n");
  EXPECT_EQ(IniMerge(&upd, &old), ERR_NOTFOUND);
  EXPECT_EQ(Text(old), "[B]\nb=1\n");
  // Buffers that cannot all be had.
  Load(upd, "[New Sections]\nA=1\n[A]\na=1\n");
  DWORD dwBefore = g_dwPtrMemUsed, dwOldLimit = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed + 3 * 10240;  // three of the five buffers
  ERR err = IniMerge(&upd, &old);
  g_dwPtrMemLimit = dwOldLimit;
  EXPECT_EQ(err, ERR_ALLOCFAIL);
  EXPECT_EQ(g_dwPtrMemUsed, dwBefore);
  EXPECT_EQ(Text(old), "[B]\nb=1\n");
}

// ---------------------------------------------------------------------------------------------
// Language tables.

TEST(IniLanguage, EnglishTables) {
  ASSERT_EQ(LangInit("English"), 0u);
  EXPECT_STREQ(g_LangTable.szName, "English");
  for (int i = 0; i < 256; i++) {
    BYTE btClass = 0;
    if (i == 9 || i == 10 || i == 13 || i == 32) btClass = LANG_BLANK;
    if (i >= '0' && i <= '9') btClass = LANG_DIGIT;
    if (i >= 'a' && i <= 'z') btClass = LANG_LOWER;
    if (i >= 'A' && i <= 'Z') btClass = LANG_UPPER;
    EXPECT_EQ(g_LangTable.abtClass[i], btClass) << i;
    EXPECT_EQ(g_LangTable.abtOrder[i], i);
    EXPECT_EQ(g_LangTable.abtUpper[i], btClass == LANG_LOWER ? i - 32 : i) << i;
    EXPECT_EQ(g_LangTable.abtLower[i], btClass == LANG_UPPER ? i + 32 : i) << i;
  }
  EXPECT_EQ(LangInit("Klingon"), ERR_NOTFOUND);
  EXPECT_STREQ(g_LangTable.szName, "English");
}

TEST(IniLanguage, CaseAndCompare) {
  ASSERT_EQ(LangInit("English"), 0u);
  char sz[] = "Mixed Case 123 \xE9!";
  LangStrUpper(sz);
  EXPECT_STREQ(sz, "MIXED CASE 123 \xE9!");
  LangStrLower(sz);
  EXPECT_STREQ(sz, "mixed case 123 \xE9!");
  char szN[] = "abcdef";
  LangStrUpperN(szN, 3);
  EXPECT_STREQ(szN, "ABCdef");
  LangStrLowerN(szN, 1);
  EXPECT_STREQ(szN, "aBCdef");
  EXPECT_EQ(LangCharUpper('['), '[');
  EXPECT_EQ(LangCharLower('@'), '@');
  EXPECT_EQ(LangCharCompare('a', 'b'), -1);
  EXPECT_EQ(LangCharCompare('\xE9', 'a'), 1);  // ranks are unsigned
  EXPECT_EQ(LangCharCompare('Q', 'Q'), 0);
  EXPECT_EQ(LangCharCompareNoCase('q', 'Q'), 0);
  EXPECT_EQ(LangCharCompareNoCase('a', 'B'), -1);
  EXPECT_EQ(LangStrCompare("abc", "abd"), -1);
  EXPECT_EQ(LangStrCompare("ab", "abc"), -1);
  EXPECT_EQ(LangStrCompare("abc", "ab"), 1);
  EXPECT_EQ(LangStrCompare("abc", "abc"), 0);
  EXPECT_EQ(LangStrCompare("abc", "ABC"), 1);
  EXPECT_EQ(LangStrCompareNoCase("abc", "ABC"), 0);
  EXPECT_EQ(LangStrCompareNoCase("abc", "ABD"), -1);
  EXPECT_EQ(LangStrCompareN("abcX", "abcY", 3), 0);
  EXPECT_EQ(LangStrCompareN("abcX", "abcY", 4), -1);
  EXPECT_EQ(LangStrCompareN("ab", "abc", 5), -1);
  EXPECT_EQ(LangStrCompareNoCaseN("ABcX", "abCY", 3), 0);
}
