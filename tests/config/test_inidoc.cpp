// Tests of the parsed INI document: line reading, loading, lookups through the two tables,
// editing, saving, and the typed readers.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "config/inidoc.h"
#include "testfile.h"
#include "testutil.h"

namespace {

std::vector<BYTE> Bytes(const std::string& s) { return std::vector<BYTE>(s.begin(), s.end()); }

// Loads text into a new document (tables of 7 and 13 buckets, so chains form).
class Doc {
 public:
  explicit Doc(const std::string& text, DWORD dwSections = 7, DWORD dwEntries = 13)
      : m_doc(dwSections, dwEntries, nullptr, 0), m_data(Bytes(text)) {
    CTestFile file(&m_data);
    m_err = m_doc.Load(&file);
  }
  CIniDoc* operator->() { return &m_doc; }
  CIniDoc* get() { return &m_doc; }
  std::string Saved() {
    std::vector<BYTE> out;
    CTestFile file(&out);
    EXPECT_EQ(m_doc.Save(&file), 0u);
    return std::string(out.begin(), out.end());
  }
  ERR m_err;

 private:
  CIniDoc m_doc;
  std::vector<BYTE> m_data;
};

// Keys of a section in list order.
std::vector<std::string> Keys(CIniDoc* pDoc, const char* pchSection) {
  std::vector<std::string> keys;
  for (TIniItem* p = pDoc->FirstEntryOf(pchSection); p; p = pDoc->NextEntry(p))
    keys.push_back(pDoc->EntryKey(p));
  return keys;
}

std::vector<std::string> Sections(CIniDoc* pDoc) {
  std::vector<std::string> names;
  for (TIniItem* p = pDoc->FirstSection(); p; p = pDoc->NextSection(p)) names.push_back(pDoc->SectionName(p));
  return names;
}

DWORD LivePtrs() {
  DWORD n = 0;
  for (DWORD i = 0; i < g_dwPtrInfoCount; i++) n += g_pPtrInfo[i].dwSysBlock != 0;
  return n;
}

typedef std::vector<std::string> Strings;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Loading and saving

TEST(IniDocLoad, CommentsAndDroppedLinesInTheSavedForm) {
  // A trailing note becomes the entry's comment and is saved with its separator.
  Doc doc("[S]\r\nKey = Value ; note\r\n");
  EXPECT_EQ(doc.m_err, 0u);
  TIniItem* p = doc->FindEntry("S", "Key");
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(doc->EntryValue(p), "Value");
  EXPECT_STREQ(doc->EntryComment(p), " note");
  EXPECT_EQ(doc.Saved(), "[S]\r\nKey=Value ; note\r\n\r\n");
  // A comment line is in the list but not in the entry table.
  Doc comment("[S]\na=1\n; text\nb=2\n");
  EXPECT_EQ(Keys(comment.get(), "S"), (Strings{"a", "", "b"}));
  EXPECT_EQ(comment.Saved(), "[S]\r\na=1\r\n; text\r\nb=2\r\n\r\n");
  EXPECT_EQ(comment->FindEntry("S", ""), nullptr);
  // Text before the first section and blank lines are dropped.
  Doc stray("; header\r\nstray=1\r\n\r\n[A]\r\n\r\n   \r\nx=1\r\n\r\n[B]\r\ny=2");
  EXPECT_EQ(Sections(stray.get()), (Strings{"A", "B"}));
  EXPECT_EQ(stray.Saved(), "[A]\r\nx=1\r\n\r\n[B]\r\ny=2\r\n\r\n");
  EXPECT_EQ(stray->FindEntry("A", "stray"), nullptr);
  // A section keeps its comment.
  Doc sec("[Sec] ;c\r\n[Other]\r\n");
  ASSERT_NE(sec->FindSection("Sec"), nullptr);
  EXPECT_STREQ(sec->SectionComment(sec->FindSection("Sec")), "c");
  EXPECT_EQ(sec.Saved(), "[Sec] ;c\r\n\r\n[Other]\r\n\r\n");
}

TEST(IniDocLoad, EntryGrammar) {
  Doc doc("[S]\n  lonely key  ; c\n\tk\t=\t\t\nequals=a=b\n[a=b]\nlast=1");
  TIniItem* p = doc->FindEntry("S", "lonely key");
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(doc->EntryValue(p), "");
  EXPECT_STREQ(doc->EntryComment(p), " c");
  EXPECT_STREQ(doc->GetValue("S", "k"), "");
  EXPECT_STREQ(doc->GetValue("S", "equals"), "a=b");
  // A bracket with an equals sign is an entry; a last entry without a line end counts.
  EXPECT_EQ(Sections(doc.get()), (Strings{"S"}));
  EXPECT_STREQ(doc->GetValue("S", "[a"), "b]");
  EXPECT_STREQ(doc->GetValue("S", "last"), "1");
  // A header alone without a line end loads nothing.
  Doc lonely("; x\n[Lonely]");
  EXPECT_EQ(lonely->FirstSection(), nullptr);
}

TEST(IniDocLoad, LinesLongerThan511CharactersAreSplit) {
  std::string line = std::string(300, 'a') + std::string(300, 'b');
  Doc doc("[S]\r\n" + line + "\r\nafter=1\r\n");
  Strings keys = Keys(doc.get(), "S");
  ASSERT_EQ(keys.size(), 3u);
  // 511 characters make the first line; the character at index 511 gives way to the
  // terminator, and the rest starts the next line.
  EXPECT_EQ(keys[0], line.substr(0, 511));
  EXPECT_EQ(keys[1], line.substr(512));
  EXPECT_EQ(keys[1].size(), 88u);
  EXPECT_EQ(keys[2], "after");
  // 511 characters exactly are one line.
  Doc whole("[S]\nk=" + std::string(509, 'v') + "\nz=1\n");
  EXPECT_EQ(Keys(whole.get(), "S"), (Strings{"k", "z"}));
  EXPECT_EQ(std::string(whole->GetValue("S", "k")), std::string(509, 'v'));
}

TEST(IniDocLoad, LinesAcrossReadBufferBoundaries) {
  std::string text = "[Big]\r\n";
  for (int i = 0; i < 900; i++)
    text += "key" + std::to_string(i) + " = value" + std::to_string(i * 7) + "\r\n";
  ASSERT_GT(text.size(), 3u * 4096);
  Doc doc(text, 10, 100);
  for (int i = 0; i < 900; i++) {
    std::string key = "key" + std::to_string(i);
    const char* pch = doc->GetValue("Big", key.c_str());
    ASSERT_NE(pch, nullptr) << key;
    EXPECT_EQ(std::string(pch), "value" + std::to_string(i * 7));
  }
}

TEST(IniDocLoad, ReloadReplacesAndNothingLeaks) {
  DWORD dwLive = LivePtrs();
  {
    Doc doc("[A]\n;c\nx=1\n[B]\ny=2\n");
    std::vector<BYTE> data = Bytes("[C]\nz=3\n");
    CTestFile file(&data);
    EXPECT_EQ(doc->Load(&file), 0u);
    EXPECT_EQ(Sections(doc.get()), (Strings{"C"}));
    EXPECT_EQ(doc->FindSection("A"), nullptr);
  }
  EXPECT_EQ(LivePtrs(), dwLive);
}

TEST(IniDocLoad, SaveWritesAtPositionWithoutTruncating) {
  Doc doc("[S]\na=1\n");
  EXPECT_EQ(doc->Load(nullptr), ERR_BADPARAM);
  EXPECT_EQ(doc->Save(nullptr), ERR_BADPARAM);
  const std::string before = "0123456789012345678901234567890";
  const std::string saved = "[S]\r\na=1\r\n\r\n";
  std::vector<BYTE> out = Bytes(before);
  CTestFile file(&out);
  file.Seek(4, FILE_BEGIN);
  EXPECT_EQ(doc->Save(&file), 0u);
  EXPECT_EQ(std::string(out.begin(), out.end()),
            before.substr(0, 4) + saved + before.substr(4 + saved.size()));
}

// ---------------------------------------------------------------------------------------------
// Records

namespace {

// Hands out blocks that start 0 to 7 bytes past an aligned address, in turn, and checks that
// every block released is one it handed out.
class COffsetAlloc : public CBlockAlloc {
 public:
  ~COffsetAlloc() override {
    for (auto& b : m_blocks) delete[] b.second.pMem;
  }
  void* Alloc(DWORD dwSize) override {
    TBlock b;
    b.pMem = new std::max_align_t[(dwSize + 8) / sizeof(std::max_align_t) + 1];
    b.dwSize = dwSize;
    BYTE* p = reinterpret_cast<BYTE*>(b.pMem) + m_nNext++ % 8;
    m_blocks[p] = b;
    return p;
  }
  void Free(void* p) override {
    auto it = m_blocks.find(static_cast<BYTE*>(p));
    if (it == m_blocks.end()) {
      ADD_FAILURE() << "released a block that was never handed out";
      return;
    }
    delete[] it->second.pMem;
    m_blocks.erase(it);
  }
  DWORD GetSize(void* p) override {
    auto it = m_blocks.find(static_cast<BYTE*>(p));
    return it == m_blocks.end() ? 0 : it->second.dwSize;
  }
  // True when [p, p + n) lies inside one block handed out.
  bool Holds(const void* p, size_t n) const {
    const BYTE* pb = static_cast<const BYTE*>(p);
    for (auto& b : m_blocks)
      if (pb >= b.first && pb + n <= b.first + b.second.dwSize) return true;
    return false;
  }
  size_t Live() const { return m_blocks.size(); }

 private:
  struct TBlock {
    std::max_align_t* pMem;
    DWORD dwSize;
  };
  std::map<BYTE*, TBlock> m_blocks;
  size_t m_nNext = 0;
};

}  // namespace

TEST(IniDocRecords, AlignedWithinBlocksAtAnyOffsetAndReleasedWhole) {
  COffsetAlloc alloc;
  {
    CIniDoc doc(3, 5, &alloc, 0);
    std::string text;
    for (int s = 0; s < 4; s++) {
      text += "[Sec" + std::to_string(s) + "] ;s" + std::to_string(s) + "\n";
      for (int e = 0; e < 5; e++)
        text += "k" + std::to_string(e) + "=v" + std::to_string(s * 10 + e) + " ;c\n";
    }
    std::vector<BYTE> data = Bytes(text);
    CTestFile file(&data);
    ASSERT_EQ(doc.Load(&file), 0u);
    doc.SetString("Sec2", "k3", "changed");
    doc.AddEntry("New", "x", "y", nullptr);
    int nRecords = 0;
    for (TIniItem* pSection = doc.FirstSection(); pSection; pSection = doc.NextSection(pSection)) {
      for (TIniItem* p = pSection; p; p = p == pSection ? doc.FirstEntry(pSection) : doc.NextEntry(p)) {
        nRecords++;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(TIniItem), 0u) << p->pchName;
        const char* pchLast = p == pSection ? doc.SectionComment(p) : doc.EntryComment(p);
        size_t nEnd = (size_t)(pchLast + strlen(pchLast) + 1 - reinterpret_cast<const char*>(p));
        EXPECT_TRUE(alloc.Holds(p, nEnd)) << p->pchName;
      }
    }
    EXPECT_EQ(nRecords, 5 + 4 * 5 + 1);
    EXPECT_EQ(alloc.Live(), (size_t)nRecords);
    EXPECT_STREQ(doc.GetValue("sec2", "K3"), "changed");
    EXPECT_STREQ(doc.GetValue("Sec3", "k4"), "v34");
    EXPECT_EQ(doc.DeleteEntryByName("Sec1", "k0"), 0u);
    EXPECT_EQ(alloc.Live(), (size_t)nRecords - 1);
  }
  EXPECT_EQ(alloc.Live(), 0u);
}

// ---------------------------------------------------------------------------------------------
// Lookups

TEST(IniDocFind, NamesIgnoreCaseOfLettersAndSectionsTellKeysApart) {
  Doc doc("[MAIN]\nKey=1\n[Zz_9]\nab=2\n");
  EXPECT_NE(doc->FindSection("main"), nullptr);
  EXPECT_STREQ(doc->GetValue("mAiN", "KEY"), "1");
  EXPECT_STREQ(doc->GetValue("zZ_9", "AB"), "2");
  EXPECT_EQ(doc->FindSection("MAIN "), nullptr);
  EXPECT_EQ(doc->GetValue("main", "Ke"), nullptr);
  // The same key in two sections, all in one bucket.
  Doc one("[A]\nk=a\n[B]\nk=b\n", 1, 1);
  EXPECT_STREQ(one->GetValue("A", "k"), "a");
  EXPECT_STREQ(one->GetValue("b", "K"), "b");
  EXPECT_EQ(one->GetValue("C", "k"), nullptr);
}

TEST(IniDocFind, DuplicateKeysBothKeptNewestFound) {
  Doc doc("[S]\nk=first\nk=second\n");
  EXPECT_EQ(Keys(doc.get(), "S"), (Strings{"k", "k"}));
  EXPECT_EQ(doc.Saved(), "[S]\r\nk=first\r\nk=second\r\n\r\n");
  // The table pushes each record at the head of its bucket: the later line is found.
  EXPECT_STREQ(doc->GetValue("S", "k"), "second");
  // Deleting the found one leaves exactly the other.
  EXPECT_EQ(doc->DeleteEntryByName("S", "k"), 0u);
  EXPECT_STREQ(doc->GetValue("S", "k"), "first");
  EXPECT_EQ(doc->DeleteEntryByName("S", "k"), 0u);
  EXPECT_EQ(doc->DeleteEntryByName("S", "k"), ERR_NOTFOUND);
  EXPECT_EQ(doc->FirstEntryOf("S"), nullptr);
}

TEST(IniDocFind, NameHashFoldsAndUsesSignedBytes) {
  // Independent reckoning in 64 bits, cut to 32.
  auto reference = [](const std::string& s) {
    uint64_t acc = 0, sum = 0;
    for (unsigned char uc : s) {
      int c = (uc >= 'a' && uc <= 'z') ? uc - 32 : uc;
      if (c > 127) c -= 256;
      acc = (acc * 256 + (uint64_t)(int64_t)c) & 0xFFFFFFFFu;
      sum = (sum + acc) & 0xFFFFFFFFu;
    }
    while (acc) {
      acc = (acc * 256) & 0xFFFFFFFFu;
      sum = (sum + acc) & 0xFFFFFFFFu;
    }
    return (DWORD)sum;
  };
  EXPECT_EQ(IniDocNameHash("A"), 0x41414141u);
  EXPECT_EQ(IniDocNameHash("a"), 0x41414141u);
  EXPECT_EQ(IniDocNameHash(""), 0u);
  for (const char* pch : {"Main", "install", "\xE9t\xE9", "a longer section name", "Zz_9"})
    EXPECT_EQ(IniDocNameHash(pch), reference(pch)) << pch;
}

// ---------------------------------------------------------------------------------------------
// Editing

TEST(IniDocEdit, AddSectionGoesToHeadLoadAppends) {
  Doc doc("[A]\n[B]\n");
  EXPECT_EQ(Sections(doc.get()), (Strings{"A", "B"}));
  ASSERT_NE(doc->AddSection("C"), nullptr);
  EXPECT_EQ(Sections(doc.get()), (Strings{"C", "A", "B"}));
  doc->AddEntry("B", "x", "1", nullptr);
  doc->AddEntry("B", "y", "2", "why");
  doc->AddEntry("New", "z", "3", nullptr);
  EXPECT_EQ(Keys(doc.get(), "B"), (Strings{"y", "x"}));
  EXPECT_EQ(Sections(doc.get()), (Strings{"New", "C", "A", "B"}));
  EXPECT_EQ(doc.Saved(), "[New]\r\nz=3\r\n\r\n[C]\r\n\r\n[A]\r\n\r\n[B]\r\ny=2 ;why\r\nx=1\r\n\r\n");
}

TEST(IniDocEdit, SetStringKeepsCommentAndMovesToHead) {
  Doc doc("[S]\na=1\nb=2 ; keep me\nc=3\n");
  EXPECT_EQ(doc->SetString("s", "B", "20"), 0u);
  EXPECT_EQ(Keys(doc.get(), "S"), (Strings{"B", "a", "c"}));
  EXPECT_EQ(doc.Saved(), "[S]\r\nB=20 ; keep me\r\na=1\r\nc=3\r\n\r\n");
  EXPECT_EQ(doc->SetString("S", "new", "v"), 0u);
  EXPECT_EQ(Keys(doc.get(), "S"), (Strings{"new", "B", "a", "c"}));
  // A value taken from the entry being replaced is still copied whole.
  EXPECT_EQ(doc->SetString("S", "a", doc->GetValue("S", "a")), 0u);
  EXPECT_STREQ(doc->GetValue("S", "a"), "1");
}

TEST(IniDocEdit, DeleteFirstEntryMovesSectionHeadAndNullWalksGiveNull) {
  Doc doc("[S]\na=1\n;c\nb=2\n");
  TIniItem* pA = doc->FindEntry("S", "a");
  doc->DeleteEntry(pA);
  EXPECT_EQ(Keys(doc.get(), "S"), (Strings{"", "b"}));
  TIniItem* pComment = doc->FirstEntryOf("S");
  doc->DeleteEntry(pComment);
  EXPECT_EQ(Keys(doc.get(), "S"), (Strings{"b"}));
  EXPECT_EQ(doc->DeleteEntryByName("S", "nothere"), ERR_NOTFOUND);
  EXPECT_EQ(doc->DeleteEntryByName("T", "b"), ERR_NOTFOUND);
  EXPECT_STREQ(doc->GetValue("S", "b"), "2");
  // Walking from null gives null.
  EXPECT_EQ(doc->NextSection(nullptr), nullptr);
  EXPECT_EQ(doc->FirstEntry(nullptr), nullptr);
  EXPECT_EQ(doc->NextEntry(nullptr), nullptr);
  EXPECT_EQ(doc->SectionName(nullptr), nullptr);
  EXPECT_EQ(doc->EntryKey(nullptr), nullptr);
  EXPECT_EQ(doc->EntryValue(nullptr), nullptr);
  EXPECT_EQ(doc->FirstEntryOf("none"), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Values

TEST(IniDocValue, GetStringLimits) {
  Doc doc("[S]\nv=abcdef\n");
  char buf[16];
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(doc->GetString("S", "v", buf, 3), 0u);
  EXPECT_EQ(std::string(buf, 4), "abc#") << "no terminator when the value is longer";
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(doc->GetString("S", "v", buf, 7), 0u);
  EXPECT_STREQ(buf, "abcdef");
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(doc->GetString("S", "v", buf, (DWORD)-1), 0u);
  EXPECT_STREQ(buf, "abcdef");
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(doc->GetString("S", "w", buf, 16), ERR_NOTFOUND);
  EXPECT_EQ(buf[0], '#');
}

TEST(IniDocValue, GetIntFormsAndSetInt) {
  // The value has no length limit here, unlike the text store's.
  Doc doc("[N]\nneg=-0x10\nplus=+7\nbigx=0X10\nstray=12a\nempty=\nhex=0xfF\nlong=" + std::string(300, '0') +
          "42\n");
  const struct {
    const char* pchKey;
    LONG lValue;
    ERR err;
  } cases[] = {{"neg", -16, 0},
               {"plus", 7, 0},
               {"bigx", 0, ERR_BADFORMAT},
               {"stray", 12, ERR_BADFORMAT},
               {"empty", 0, 0},
               {"hex", 255, 0},
               {"long", 42, 0}};
  for (const auto& c : cases) {
    LONG l = 99;
    EXPECT_EQ(doc->GetInt("N", c.pchKey, &l), c.err) << c.pchKey;
    EXPECT_EQ(l, c.lValue) << c.pchKey;
  }
  LONG l = 99;
  EXPECT_EQ(doc->GetInt("N", "none", &l), ERR_NOTFOUND);
  EXPECT_EQ(doc->SetInt("S", "n", -2147483647 - 1), 0u);
  EXPECT_STREQ(doc->GetValue("S", "n"), "-2147483648");
}

// ---------------------------------------------------------------------------------------------
// Typed readers

TEST(IniDocTyped, ColorPointRectBox) {
  Doc doc("[T]\ncolor = 10, 20 ,30\nshort=10,20\npoint=-5,7\nrect=1,2,3,4\nbox=10,20,5,6\nwords=x 1 y, 2\n");
  BYTE color[4] = {9, 9, 9, 9};
  EXPECT_EQ(DocGetColor(doc.get(), "T", "color", color), 0u);
  EXPECT_EQ(std::vector<BYTE>(color, color + 4), (std::vector<BYTE>{30, 20, 10, 0}));  // blue first
  memset(color, 9, 4);
  EXPECT_EQ(DocGetColor(doc.get(), "T", "short", color), ERR_BADFORMAT);
  // Green and red are stored as they are parsed; the fourth byte is cleared only on success.
  EXPECT_EQ(std::vector<BYTE>(color, color + 4), (std::vector<BYTE>{9, 20, 10, 9}));
  SHORT x = 0, y = 0, r = 0, b = 0;
  EXPECT_EQ(DocGetPoint(doc.get(), "T", "point", &x, &y), 0u);
  EXPECT_EQ((std::vector<int>{x, y}), (std::vector<int>{-5, 7}));
  EXPECT_EQ(DocGetRect(doc.get(), "T", "rect", &x, &y, &r, &b), 0u);
  EXPECT_EQ((std::vector<int>{x, y, r, b}), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(DocGetBox(doc.get(), "T", "box", &x, &y, &r, &b), 0u);
  EXPECT_EQ((std::vector<int>{x, y, r, b}), (std::vector<int>{10, 20, 14, 25}));
  doc->SetString("T", "bigbox", "2147483647,-2147483648,1,-1");  // edges wrap at 32 bits
  EXPECT_EQ(DocGetBox(doc.get(), "T", "bigbox", &x, &y, &r, &b), 0u);
  EXPECT_EQ((std::vector<int>{x, y, r, b}), (std::vector<int>{-1, 0, -1, -2}));
  // Only the commas separate fields: "x 1 y" reads as 0, a word and a number are passed over.
  EXPECT_EQ(DocGetPoint(doc.get(), "T", "words", &x, &y), 0u);
  EXPECT_EQ((std::vector<int>{x, y}), (std::vector<int>{0, 2}));
  EXPECT_EQ(DocGetPoint(doc.get(), "T", "none", &x, &y), ERR_NOTFOUND);
}

TEST(IniDocTyped, ValueOf128CharactersIsTooLong) {
  CIniDoc doc(3, 3, nullptr, 0);
  std::string v = "1,2" + std::string(125, ' ');
  doc.SetString("S", "p", v.c_str());
  SHORT x, y;
  EXPECT_EQ(DocGetPoint(&doc, "S", "p", &x, &y), ERR_BUFSMALL);
  v.pop_back();
  doc.SetString("S", "p", v.c_str());
  EXPECT_EQ(DocGetPoint(&doc, "S", "p", &x, &y), 0u);
  EXPECT_EQ(y, 2);
}

TEST(IniDocTyped, FlagsAndStrNumFlags) {
  static const TIniFlag table[] = {{"BOLD", 1}, {"BOLDER", 2}, {"ITALIC", 4}, {nullptr, 0}};
  Doc doc("[F]\nf=ITALIC, BOLDER\nbad=BOLD,UNDER\nsnf=Title text, 12, ITALIC\nsn=Name,5\nnocomma=abc\n");
  DWORD dw = 0x100;
  EXPECT_EQ(DocGetFlags(doc.get(), "F", "f", table, &dw), 0u);
  EXPECT_EQ(dw, 5u) << "the earlier short name wins over the longer";
  dw = 0x100;
  EXPECT_EQ(DocGetFlags(doc.get(), "F", "bad", table, &dw), ERR_INI_BADKEYWORD);
  EXPECT_EQ(dw, 0x100u);
  char text[128];
  SHORT n = 0;
  dw = 0x10;
  EXPECT_EQ(DocGetStrNumFlags(doc.get(), "F", "snf", table, text, &n, &dw), 0u);
  EXPECT_STREQ(text, "Title text");
  EXPECT_EQ(n, 12);
  EXPECT_EQ(dw, 0x14u) << "ORed in without clearing";
  EXPECT_EQ(DocGetStrNumFlags(doc.get(), "F", "sn", table, text, &n, &dw), 0u);
  EXPECT_EQ(n, 5);
  EXPECT_EQ(dw, 0u);
  EXPECT_EQ(DocGetStrNumFlags(doc.get(), "F", "nocomma", table, text, &n, &dw), ERR_BADFORMAT);
  EXPECT_STREQ(text, "abc");  // stored whole before the missing comma is noticed
}

TEST(IniDocTyped, FieldsAndIds) {
  Doc doc("[F]\nlist=one, two ,  3\nref=Target\nnum=17\n[Target]\nid=42\n");
  char buf[128];
  EXPECT_EQ(DocGetField(doc.get(), "F", "list", 0, buf), 0u);
  EXPECT_STREQ(buf, "one");
  EXPECT_EQ(DocGetField(doc.get(), "F", "list", 1, buf), 0u);
  EXPECT_STREQ(buf, "two ");
  EXPECT_EQ(DocGetField(doc.get(), "F", "list", 3, buf), ERR_NOTFOUND);
  LONG l = 0;
  EXPECT_EQ(DocGetFieldInt(doc.get(), "F", "list", 2, &l), 0u);
  EXPECT_EQ(l, 3);
  // Only the first 63 characters of a field are read as a number: the 7 at index 63 is not.
  doc->SetString("F", "wide", ("1," + std::string(63, '0') + "7").c_str());
  l = 99;
  EXPECT_EQ(DocGetFieldInt(doc.get(), "F", "wide", 1, &l), 0u);
  EXPECT_EQ(l, 0);
  EXPECT_EQ(DocGetId(doc.get(), "F", "num", &l), 0u);
  EXPECT_EQ(l, 17);
  // A name reads the "ID" key of that section; names ignore case, so "id" matches.
  EXPECT_EQ(DocGetId(doc.get(), "F", "ref", &l), 0u);
  EXPECT_EQ(l, 42);
  EXPECT_EQ(DocGetId(doc.get(), "F", "list", &l), ERR_NOTFOUND);
}

// ---------------------------------------------------------------------------------------------
// Through the file functions

namespace {

std::map<std::string, std::vector<BYTE>> g_files;
std::vector<WORD> g_modes;

CFile* OpenTestFile(const char* pchPath, WORD wMode, ERR* pErr) {
  g_modes.push_back(wMode);
  auto it = g_files.find(pchPath);
  bool bCreate = wMode == FILE_MODE_CREATE || wMode == FILE_MODE_WRITESEQ;
  if (it == g_files.end() && !bCreate) {
    if (pErr) *pErr = ERR_FILE_NOTFOUND;
    return nullptr;
  }
  std::vector<BYTE>& data = g_files[pchPath];
  if (bCreate) data.clear();
  if (pErr) *pErr = 0;
  return new CTestFile(&data);
}

// Points every open at the map above while alive.
struct FileHook {
  FileHook() : m_pfnOld(g_pfnFileOpen) {
    g_pfnFileOpen = OpenTestFile;
    g_files.clear();
    g_modes.clear();
  }
  ~FileHook() { g_pfnFileOpen = m_pfnOld; }
  PFN_FILEOPEN m_pfnOld;
};

}  // namespace

TEST(IniDocFile, LoadFileAndSaveFileUseTheirModes) {
  FileHook hook;
  g_files["in.ini"] = Bytes("[A]\nk = v ;n\n");
  CIniDoc doc(5, 5, nullptr, 0);
  EXPECT_EQ(doc.LoadFile("in.ini"), 0u);
  EXPECT_STREQ(doc.GetValue("a", "K"), "v");
  EXPECT_EQ(doc.SaveFile("out.ini"), 0u);
  EXPECT_EQ(g_modes, (std::vector<WORD>{FILE_MODE_READ, FILE_MODE_WRITESEQ}));
  EXPECT_EQ(std::string(g_files["out.ini"].begin(), g_files["out.ini"].end()), "[A]\r\nk=v ;n\r\n\r\n");
  EXPECT_EQ(doc.LoadFile("missing.ini"), ERR_FILE_NOTFOUND);
}
